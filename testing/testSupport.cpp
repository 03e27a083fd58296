#include "testSupport.h"

#include <shlwapi.h>

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <atomic>

#include "omkErrors.h"

namespace omktest {

TempFolder::TempFolder() {
    static std::atomic<unsigned> counter{0};
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    path_ = std::wstring(temp) + L"omktest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
            std::to_wstring(GetTickCount()) + L"-" + std::to_wstring(counter++);
    CreateDirectoryW(path_.c_str(), nullptr);
}

TempFolder::~TempFolder() { RemoveTree(path_); }

void RemoveTree(const std::wstring& path) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        std::wstring name = data.cFileName;
        if (name == L"." || name == L"..") continue;
        std::wstring child = path + L"\\" + name;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            RemoveTree(child);
        } else {
            SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
            DeleteFileW(child.c_str());
        }
    }
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
    RemoveDirectoryW(path.c_str());
}

std::string ReadFileBytes(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    std::string bytes;
    if (file == INVALID_HANDLE_VALUE) return bytes;
    char chunk[65536];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) bytes.append(chunk, read);
    CloseHandle(file);
    return bytes;
}

bool WriteFileBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    BOOL ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
    return ok && written == bytes.size();
}

bool FileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::vector<std::wstring> FilesMatching(const std::wstring& pattern) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(pattern.c_str(), &data);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(data.cFileName);
    }
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
    std::sort(names.begin(), names.end());
    return names;
}

ULONGLONG FileSize(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return 0;
    return (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

std::string ToUtf8(const std::wstring& text) {
    std::string out(text.size() * 3, '\0');
    out.resize(static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                       &out[0], static_cast<int>(out.size()), nullptr, nullptr)));
    return out;
}

std::wstring FromUtf8(const std::string& text) {
    std::wstring out(text.size(), L'\0');
    out.resize(static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                       &out[0], static_cast<int>(out.size()))));
    return out;
}

ErrorLog::ErrorLog(const std::wstring& name) {
    OMK_SetErrorLogName(name.c_str());
    wchar_t path[MAX_PATH * 2];
    OMK_GetErrorLogPath(path, MAX_PATH * 2);
    path_ = path;
    DeleteFileW(path_.c_str());
    DeleteFileW((path_ + L".bak").c_str());
}

std::string ErrorLog::Since() const {
    std::string all = ReadFileBytes(path_);
    return all.size() >= mark_ ? all.substr(static_cast<size_t>(mark_)) : all;
}

void ErrorLog::Mark() { mark_ = FileSize(path_); }

std::vector<std::string> ErrorLog::Messages() const {
    std::vector<std::string> messages;
    std::string text = Since();
    for (size_t start = 0, end; start < text.size(); start = end + 2) {
        end = text.find("\r\n", start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        // date, time, process, thread, code, then the message
        size_t pos = 0;
        for (int field = 0; field < 5 && pos != std::string::npos; ++field) {
            pos = line.find(' ', pos);
            if (pos != std::string::npos) ++pos;
        }
        messages.push_back(pos == std::string::npos ? line : line.substr(pos));
    }
    return messages;
}

ScopedRegKey::ScopedRegKey(HKEY root, const std::wstring& subKey) : root_(root), subKey_(subKey) {
    RegCreateKeyExW(root_, subKey_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key_, nullptr);
}

ScopedRegKey::~ScopedRegKey() {
    if (key_ != nullptr) RegCloseKey(key_);
    SHDeleteKeyW(root_, subKey_.c_str());
}

LONG ScopedRegKey::SetString(const wchar_t* name, const std::wstring& value, DWORD type) {
    return RegSetValueExW(key_, name, 0, type, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

LONG ScopedRegKey::SetDword(const wchar_t* name, DWORD value) {
    return RegSetValueExW(key_, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
}

std::wstring RegString(const std::wstring& key, const wchar_t* name) {
    wchar_t value[1024] = {};
    DWORD bytes = sizeof(value) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ, nullptr, value,
                     &bytes) != ERROR_SUCCESS) {
        return L"<absent>";
    }
    return value;
}

bool RegKeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    RegCloseKey(opened);
    return true;
}

std::wstring ProgramFolder() {
    wchar_t path[MAX_PATH];
    std::wstring folder(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return folder.substr(0, folder.find_last_of(L'\\'));
}

DWORD RunProcess(const std::wstring& commandLine, DWORD timeoutMs) {
    return Child(commandLine).Wait(timeoutMs);
}

Child::Child(const std::wstring& commandLine) {
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = CreateFileW(folder_.File(L"out").c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                     CREATE_ALWAYS, 0, nullptr);
    startup.hStdError = CreateFileW(folder_.File(L"err").c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                    CREATE_ALWAYS, 0, nullptr);
    std::wstring line = commandLine;
    PROCESS_INFORMATION process = {};
    // Wine has been seen to refuse a process start once on a loaded machine: one retry.
    for (int attempt = 0; attempt < 2 && process_ == nullptr; ++attempt) {
        if (CreateProcessW(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
            CloseHandle(process.hThread);
            process_ = process.hProcess;
        } else {
            fprintf(stderr, "CreateProcessW failed, error %lu: %ls\n", GetLastError(), commandLine.c_str());
            Sleep(200);
        }
    }
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
}

Child::~Child() {
    if (process_ != nullptr && Wait(0) == 0xDEAD) TerminateProcess(process_, 0xDEAD);
    if (process_ != nullptr) CloseHandle(process_);
}

DWORD Child::Wait(DWORD timeoutMs) const {
    DWORD code = 0xDEAD;
    if (process_ == nullptr || WaitForSingleObject(process_, timeoutMs) != WAIT_OBJECT_0) return 0xDEAD;
    GetExitCodeProcess(process_, &code);
    return code;
}

bool WaitFor(const std::function<bool()>& done, DWORD timeoutMs) {
    for (DWORD waited = 0; waited < timeoutMs; waited += 50) {
        if (done()) return true;
        Sleep(50);
    }
    return done();
}

SAFEARRAY* BstrArray(const std::vector<std::wstring>& texts, LONG lowerBound) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, lowerBound, static_cast<ULONG>(texts.size()));
    for (size_t i = 0; array != nullptr && i < texts.size(); ++i) {
        LONG index = lowerBound + static_cast<LONG>(i);
        BSTR text = SysAllocStringLen(texts[i].data(), static_cast<UINT>(texts[i].size()));
        SafeArrayPutElement(array, &index, text);
        SysFreeString(text);
    }
    return array;
}

// The shared buffer of the debugger-output protocol: writer's process id, text.
struct DbwinBuffer {
    DWORD processId;
    char text[4096 - sizeof(DWORD)];
};

TraceMonitor::TraceMonitor() {
    mapping_ =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(DbwinBuffer), L"DBWIN_BUFFER");
    if (mapping_ == nullptr || GetLastError() == ERROR_ALREADY_EXISTS) return;
    bufferReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
    dataReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
    view_ = MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, sizeof(DbwinBuffer));
    stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (bufferReady_ != nullptr && dataReady_ != nullptr && view_ != nullptr && stop_ != nullptr) {
        thread_ = CreateThread(nullptr, 0, ReaderProc, this, 0, nullptr);
    }
}

TraceMonitor::~TraceMonitor() {
    if (thread_ != nullptr) {
        SetEvent(stop_);
        WaitForSingleObject(thread_, 5000);
        CloseHandle(thread_);
    }
    if (view_ != nullptr) UnmapViewOfFile(view_);
    for (HANDLE handle : {stop_, dataReady_, bufferReady_, mapping_}) {
        if (handle != nullptr) CloseHandle(handle);
    }
}

DWORD WINAPI TraceMonitor::ReaderProc(LPVOID context) {
    auto* self = static_cast<TraceMonitor*>(context);
    const auto* buffer = static_cast<const DbwinBuffer*>(self->view_);
    const HANDLE waits[2] = {self->stop_, self->dataReady_};
    for (;;) {
        SetEvent(self->bufferReady_);
        if (WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) return 0;
        std::string text(buffer->text, strnlen(buffer->text, sizeof(buffer->text)));
        std::lock_guard<std::mutex> guard(self->lock_);
        self->lines_.emplace_back(buffer->processId, std::move(text));
    }
}

std::vector<std::string> TraceMonitor::Lines(DWORD processId) const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> texts;
    for (const auto& line : lines_) {
        if (processId == 0 || line.first == processId) texts.push_back(line.second);
    }
    return texts;
}

std::vector<std::string> TraceMonitor::Matching(const std::string& text, DWORD processId) const {
    std::vector<std::string> found;
    for (const std::string& line : Lines(processId)) {
        if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
}

bool TraceMonitor::WaitFor(const std::string& text, size_t count, DWORD timeoutMs, DWORD processId) const {
    return omktest::WaitFor([&] { return Count(text, processId) >= count; }, timeoutMs);
}

}  // namespace omktest
