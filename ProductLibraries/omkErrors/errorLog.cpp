// The log file: naming, one-write appends under a cross-process lock, and the
// size-based backup.
#include <windows.h>

#include <sddl.h>
#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include <map>
#include <string>

#include "cdef.h"
#include "errorFormatter.h"
#include "fileHelper.h"
#include "omkErrors.h"

namespace {

constexpr ULONGLONG kMaxLogBytes = 1024 * 1024;
// Above this a log that could not be backed up takes no more reports.
constexpr ULONGLONG kHeldLogBytes = 2 * kMaxLogBytes;
constexpr DWORD kLockWaitMs = 5000;
constexpr DWORD kMutexAccess = SYNCHRONIZE | MUTEX_MODIFY_STATE;

SRWLOCK g_nameLock = SRWLOCK_INIT;
std::wstring g_logName = L"OMKW_Errlog.txt";
// One lock handle per log file this process has written to, kept open for the
// life of the process (a process names its log once, tests a few times).
std::map<std::wstring, HANDLE> g_mutexes;

bool IsFullPath(const std::wstring& name) {
    return name.find(L'\\') != std::wstring::npos || name.find(L'/') != std::wstring::npos ||
           name.find(L':') != std::wstring::npos;
}

// Empty when the product has no log folder (then reports reach the debugger only).
std::wstring CurrentLogPath() {
    AcquireSRWLockShared(&g_nameLock);
    std::wstring name = g_logName;
    ReleaseSRWLockShared(&g_nameLock);
    if (IsFullPath(name)) return name;
    const wchar_t* folder = CDef::GetInstance().FOLDER_OMK_LOG;
    return folder[0] != L'\0' ? std::wstring(folder) + L"\\" + name : std::wstring();
}

// The log mutex's security: a service may create it and a standard user's
// process must still be able to wait on it, or the two would rotate the same
// file under different locks.
SECURITY_ATTRIBUTES* MutexSecurity() {
    static SECURITY_ATTRIBUTES attributes = [] {
        SECURITY_ATTRIBUTES sa = {sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
        ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x00100001;;;AU)",
                                                             SDDL_REVISION_1, &sa.lpSecurityDescriptor, nullptr);
        return sa;  // kept for the life of the process
    }();
    return attributes.lpSecurityDescriptor != nullptr ? &attributes : nullptr;
}

// Processes logging into one file take one machine-wide mutex named after it,
// so that the size check, the backup and the append happen as one step. A
// process that may not create global objects and finds none falls back to a
// per-session lock.
HANDLE LogMutex(const std::wstring& path) {
    AcquireSRWLockExclusive(&g_nameLock);
    HANDLE& mutex = g_mutexes[path];
    if (mutex == nullptr) {
        std::wstring name = L"Global\\OMKErrorLog:";
        for (wchar_t c : path) name += c == L'\\' ? L'/' : static_cast<wchar_t>(towlower(c));
        mutex = CreateMutexExW(MutexSecurity(), name.c_str(), 0, kMutexAccess);
        if (mutex == nullptr) {
            mutex = CreateMutexExW(MutexSecurity(), (L"Local" + name.substr(6)).c_str(), 0, kMutexAccess);
        }
    }
    HANDLE result = mutex;
    ReleaseSRWLockExclusive(&g_nameLock);
    return result;
}

HANDLE OpenForAppend(const std::wstring& path) {
    return CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

ULONGLONG SizeOf(HANDLE file) {
    LARGE_INTEGER size = {};
    return GetFileSizeEx(file, &size) ? static_cast<ULONGLONG>(size.QuadPart) : 0;
}

void AppendLine(const std::wstring& path, const std::string& bytes) {
    HANDLE mutex = LogMutex(path);
    bool locked = false;
    if (mutex != nullptr) {
        DWORD wait = WaitForSingleObject(mutex, kLockWaitMs);
        locked = (wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED);
    }
    HANDLE file = OpenForAppend(path);
    if (file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PATH_NOT_FOUND) {
        CFileHelper::MakeDirectory(path.substr(0, path.find_last_of(L"\\/")).c_str(), nullptr);
        file = OpenForAppend(path);
    }
    if (file != INVALID_HANDLE_VALUE && SizeOf(file) >= kMaxLogBytes) {
        CloseHandle(file);
        MoveFileExW(path.c_str(), (path + L".bak").c_str(), MOVEFILE_REPLACE_EXISTING);
        file = OpenForAppend(path);
        // Still the old file when it could not be moved: bounded all the same.
        if (file != INVALID_HANDLE_VALUE && SizeOf(file) >= kHeldLogBytes) {
            CloseHandle(file);
            file = INVALID_HANDLE_VALUE;
        }
    }
    if (file != INVALID_HANDLE_VALUE) {
        DWORD written = 0;
        WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        CloseHandle(file);
    }
    if (locked) ReleaseMutex(mutex);
}

std::string ToUtf8(const std::wstring& text) {
    if (text.empty()) return std::string();
    int bytes =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    if (bytes <= 0) return std::string();
    std::string out(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], bytes, nullptr, nullptr);
    return out;
}

// The line's head (local time, process, thread, code); the caller appends the message.
std::wstring LineHead(DWORD code) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    wchar_t head[96];
    _snwprintf(head, 95, L"%04u-%02u-%02u %02u:%02u:%02u.%03u %lu %lu %lu ", now.wYear, now.wMonth, now.wDay, now.wHour,
               now.wMinute, now.wSecond, now.wMilliseconds, GetCurrentProcessId(), GetCurrentThreadId(), code);
    head[95] = L'\0';
    return head;
}

void Emit(std::wstring& line) {
    line += L"\r\n";
    OutputDebugStringW(line.c_str());
    std::wstring path = CurrentLogPath();
    if (!path.empty()) AppendLine(path, ToUtf8(line));
}

}  // namespace

extern "C" void WINAPI OMK_SetErrorLogName(const wchar_t* name) {
    try {
        std::wstring value = (name != nullptr && *name != L'\0') ? std::wstring(name) : L"OMKW_Errlog.txt";
        AcquireSRWLockExclusive(&g_nameLock);
        g_logName.swap(value);
        ReleaseSRWLockExclusive(&g_nameLock);
    } catch (...) {
        // A failure to log never reaches the caller.
    }
}

extern "C" DWORD WINAPI OMK_GetErrorLogPath(wchar_t* buffer, DWORD bufferChars) {
    try {
        std::wstring path = CurrentLogPath();
        if (buffer == nullptr || path.empty() || bufferChars <= path.size()) return 0;
        path.copy(buffer, path.size());
        buffer[path.size()] = L'\0';
        return static_cast<DWORD>(path.size());
    } catch (...) {
        return 0;
    }
}

extern "C" int WINAPI OMK_FormatErrorArgs(wchar_t* buffer, int bufferChars, const wchar_t* format,
                                          const OMK_ERROR_ARG* args, int argCount) {
    try {
        std::wstring text;
        omk_errors::FormatErrorText(text, format, args, argCount);
        if (buffer != nullptr && bufferChars > 0) {
            size_t n = text.size() < static_cast<size_t>(bufferChars - 1) ? text.size() : bufferChars - 1;
            text.copy(buffer, n);
            buffer[n] = L'\0';
        }
        return static_cast<int>(text.size());
    } catch (...) {
        if (buffer != nullptr && bufferChars > 0) buffer[0] = L'\0';
        return 0;
    }
}

extern "C" void WINAPI OMK_ReportErrorArgs(DWORD code, const wchar_t* format, const OMK_ERROR_ARG* args, int argCount) {
    try {
        std::wstring line = LineHead(code);
        omk_errors::FormatErrorText(line, format, args, argCount);
        Emit(line);
    } catch (...) {
        // A failure to log never reaches the caller.
    }
}

// The C entry point: the C runtime formats, trusting the caller's arguments.
extern "C" OMKERRORS_API void __cdecl OMK_ReportError(DWORD code, const wchar_t* format, ...) {
    try {
        std::wstring line = LineHead(code);
        if (format == nullptr) {
            line += L"(null format)";
        } else {
            va_list args;
            va_start(args, format);
            va_list counting;
            va_copy(counting, args);
            int chars = _vscwprintf(format, counting);
            va_end(counting);
            if (chars > 0) {
                size_t head = line.size();
                line.resize(head + static_cast<size_t>(chars) + 1);
                _vsnwprintf(&line[head], static_cast<size_t>(chars) + 1, format, args);
                line.resize(head + static_cast<size_t>(chars));
            }
            va_end(args);
        }
        Emit(line);
    } catch (...) {
        // A failure to log never reaches the caller.
    }
}
