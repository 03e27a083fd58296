// The log file: naming, one-write appends under a cross-process lock, and the
// size-based backup.
#include <windows.h>

#include <string>

#include "errorFormatter.h"
#include "omkErrors.h"

namespace {

constexpr ULONGLONG kMaxLogBytes = 1024 * 1024;
constexpr DWORD kLockWaitMs = 5000;

SRWLOCK g_nameLock = SRWLOCK_INIT;
std::wstring g_logName = L"OMKW_Errlog.txt";

std::wstring LogFolder() {
    wchar_t programData[MAX_PATH];
    DWORD n = GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH);
    std::wstring folder = (n > 0 && n < MAX_PATH) ? std::wstring(programData, n) : std::wstring(L"C:\\ProgramData");
    return folder + L"\\Varn\\Orlemark\\Log";
}

bool IsFullPath(const std::wstring& name) {
    return name.find(L'\\') != std::wstring::npos || name.find(L'/') != std::wstring::npos ||
           name.find(L':') != std::wstring::npos;
}

std::wstring CurrentLogPath() {
    AcquireSRWLockShared(&g_nameLock);
    std::wstring name = g_logName;
    ReleaseSRWLockShared(&g_nameLock);
    return IsFullPath(name) ? name : LogFolder() + L"\\" + name;
}

void CreateFolderChain(const std::wstring& filePath) {
    size_t slash = filePath.find_last_of(L"\\/");
    if (slash == std::wstring::npos) return;
    std::wstring folder = filePath.substr(0, slash);
    for (size_t pos = folder.find_first_of(L"\\/", 3); ; pos = folder.find_first_of(L"\\/", pos + 1)) {
        CreateDirectoryW(folder.substr(0, pos).c_str(), nullptr);
        if (pos == std::wstring::npos) break;
    }
}

// Processes logging into one file take one machine-wide mutex named after it,
// so that the size check, the backup and the append happen as one step.
HANDLE OpenLogMutex(const std::wstring& path) {
    unsigned long long hash = 1469598103934665603ULL;
    for (wchar_t c : path) {
        hash ^= static_cast<unsigned long long>(towlower(c));
        hash *= 1099511628211ULL;
    }
    wchar_t name[96];
    _snwprintf(name, 95, L"Global\\OMKErrorLog-%016I64x", hash);
    name[95] = L'\0';
    HANDLE mutex = CreateMutexW(nullptr, FALSE, name);
    if (mutex == nullptr) {
        _snwprintf(name, 95, L"Local\\OMKErrorLog-%016I64x", hash);
        mutex = CreateMutexW(nullptr, FALSE, name);
    }
    return mutex;
}

HANDLE OpenForAppend(const std::wstring& path) {
    return CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

void AppendLine(const std::wstring& path, const std::string& bytes) {
    HANDLE mutex = OpenLogMutex(path);
    bool locked = false;
    if (mutex != nullptr) {
        DWORD wait = WaitForSingleObject(mutex, kLockWaitMs);
        locked = (wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED);
    }
    HANDLE file = OpenForAppend(path);
    if (file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PATH_NOT_FOUND) {
        CreateFolderChain(path);
        file = OpenForAppend(path);
    }
    if (file != INVALID_HANDLE_VALUE) {
        LARGE_INTEGER size = {};
        if (GetFileSizeEx(file, &size) && static_cast<ULONGLONG>(size.QuadPart) >= kMaxLogBytes) {
            CloseHandle(file);
            std::wstring backup = path + L".bak";
            MoveFileExW(path.c_str(), backup.c_str(), MOVEFILE_REPLACE_EXISTING);
            file = OpenForAppend(path);
        }
    }
    if (file != INVALID_HANDLE_VALUE) {
        DWORD written = 0;
        WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        CloseHandle(file);
    }
    if (locked) ReleaseMutex(mutex);
    if (mutex != nullptr) CloseHandle(mutex);
}

std::string ToUtf8(const std::wstring& text) {
    if (text.empty()) return std::string();
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                    nullptr);
    if (bytes <= 0) return std::string();
    std::string out(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], bytes, nullptr, nullptr);
    return out;
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
        if (buffer == nullptr || bufferChars <= path.size()) return 0;
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

extern "C" void WINAPI OMK_ReportErrorArgs(DWORD code, const wchar_t* format, const OMK_ERROR_ARG* args,
                                           int argCount) {
    try {
        SYSTEMTIME now;
        GetLocalTime(&now);
        wchar_t head[96];
        _snwprintf(head, 95, L"%04u-%02u-%02u %02u:%02u:%02u.%03u %lu %lu %lu ", now.wYear, now.wMonth, now.wDay,
                   now.wHour, now.wMinute, now.wSecond, now.wMilliseconds, GetCurrentProcessId(),
                   GetCurrentThreadId(), code);
        head[95] = L'\0';
        std::wstring line = head;
        omk_errors::FormatErrorText(line, format, args, argCount);
        line += L"\r\n";
        OutputDebugStringW(line.c_str());
        AppendLine(CurrentLogPath(), ToUtf8(line));
    } catch (...) {
        // A failure to log never reaches the caller.
    }
}
