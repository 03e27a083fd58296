// What many test programs need: scratch folders inside the Wine prefix, the
// error log read back, registry keys made and removed, child processes, the
// debugger output read back. It brings <windows.h>, <string>, <vector>,
// <functional> and <mutex> to the programs that include it.
#pragma once

#include <windows.h>

#include <oleauto.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace omktest {

// A fresh folder under %TEMP%, removed with its contents on destruction.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }
    std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

// Removes a folder tree; missing is fine.
void RemoveTree(const std::wstring& path);

std::string ReadFileBytes(const std::wstring& path);
bool WriteFileBytes(const std::wstring& path, const std::string& bytes);
bool FileExists(const std::wstring& path);
// The names of the files (no folders) that match `pattern` ("C:\\dir\\*.xml"), sorted.
std::vector<std::wstring> FilesMatching(const std::wstring& pattern);
ULONGLONG FileSize(const std::wstring& path);

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);

// Points this process's error log at a file of its own and reads back what was
// logged after a mark.
class ErrorLog {
public:
    // Sets the log name to `name` in the product log folder and empties that file.
    explicit ErrorLog(const std::wstring& name);

    const std::wstring& Path() const { return path_; }
    // Everything logged since construction or the last Mark(), as UTF-8.
    std::string Since() const;
    void Mark();
    // True when some line logged since the mark contains `text`.
    bool Contains(const std::string& text) const { return Since().find(text) != std::string::npos; }
    // The message parts (after time, process, thread and code) of the lines since the mark.
    std::vector<std::string> Messages() const;

private:
    std::wstring path_;
    ULONGLONG mark_ = 0;
};

// A registry key created for a test and deleted with its subtree afterwards.
class ScopedRegKey {
public:
    ScopedRegKey(HKEY root, const std::wstring& subKey);
    ~ScopedRegKey();
    ScopedRegKey(const ScopedRegKey&) = delete;
    ScopedRegKey& operator=(const ScopedRegKey&) = delete;

    HKEY Get() const { return key_; }
    LONG SetString(const wchar_t* name, const std::wstring& value, DWORD type = REG_SZ);
    LONG SetDword(const wchar_t* name, DWORD value);

private:
    HKEY root_;
    std::wstring subKey_;
    HKEY key_ = nullptr;
};

// A string value of an HKLM key (a null name: the default value; of a
// REG_MULTI_SZ the first string), or "<absent>"; and whether a key exists.
std::wstring RegString(const std::wstring& key, const wchar_t* name = nullptr);
bool RegKeyExists(const std::wstring& key);

// A one-dimensional SAFEARRAY of BSTR copies of `texts` from `lowerBound` on;
// the caller destroys it.
SAFEARRAY* BstrArray(const std::vector<std::wstring>& texts, LONG lowerBound = 0);

// Polls `done` every 50 ms for at most `timeoutMs`; its last answer.
bool WaitFor(const std::function<bool()>& done, DWORD timeoutMs);

// The folder of the running test program (where the build puts every binary).
std::wstring ProgramFolder();

// A program started with its standard output and error in files of a folder of
// its own; ended on destruction if it still runs.
class Child {
public:
    explicit Child(const std::wstring& commandLine);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The exit code, or 0xDEAD while it still runs after `timeoutMs`.
    DWORD Wait(DWORD timeoutMs = 60000) const;
    std::string Out() const { return ReadFileBytes(folder_.File(L"out")); }
    std::string Err() const { return ReadFileBytes(folder_.File(L"err")); }

private:
    TempFolder folder_;
    HANDLE process_ = nullptr;
};

// Runs a program to its end: its exit code, or 0xDEAD on a failure to start or
// a time-out (after which it is terminated).
DWORD RunProcess(const std::wstring& commandLine, DWORD timeoutMs = 60000);

// Reads every process's debugger output (OutputDebugString) as a debugging
// monitor does, so that trace and assertion lines can be asserted. Only one
// monitor can exist per session: Active() is false when another one runs.
class TraceMonitor {
public:
    TraceMonitor();
    ~TraceMonitor();
    TraceMonitor(const TraceMonitor&) = delete;
    TraceMonitor& operator=(const TraceMonitor&) = delete;

    bool Active() const { return thread_ != nullptr; }
    // Lines seen so far, of one process (0: all), in the order written.
    std::vector<std::string> Lines(DWORD processId = GetCurrentProcessId()) const;
    // The lines of that process containing `text`, and their number.
    std::vector<std::string> Matching(const std::string& text, DWORD processId = GetCurrentProcessId()) const;
    size_t Count(const std::string& text, DWORD processId = GetCurrentProcessId()) const {
        return Matching(text, processId).size();
    }
    // Waits until at least `count` lines of that process contain `text`.
    bool WaitFor(const std::string& text, size_t count, DWORD timeoutMs, DWORD processId = GetCurrentProcessId()) const;

private:
    static DWORD WINAPI ReaderProc(LPVOID self);

    HANDLE bufferReady_ = nullptr;
    HANDLE dataReady_ = nullptr;
    HANDLE mapping_ = nullptr;
    const void* view_ = nullptr;
    HANDLE stop_ = nullptr;
    HANDLE thread_ = nullptr;
    mutable std::mutex lock_;
    std::vector<std::pair<DWORD, std::string>> lines_;  // writer's process id, text
};

}  // namespace omktest
