#include "fuzzRunner.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>

#include "omkErrors.h"
#include "testSupport.h"

namespace omkfuzz {

namespace {

struct Options {
    uint64_t seed = 1;
    uint64_t count = 300;
    std::wstring corpus;
    std::vector<std::wstring> also;  // more inputs replayed and mutated, kept where they are
    DWORD hangMs = 60000;
    bool child = false;
    bool listMessages = false;
    bool verbose = false;
    uint64_t from = 0;
    std::wstring scratch;
};

// What a child shares with its campaign while it runs.
struct Progress {
    volatile LONG64 index;  // the input in hand
    volatile LONG64 beats;  // inputs finished
    volatile LONG done;     // the child ran its share to the end
};

Options ParseOptions(int argc, wchar_t** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::wstring arg = argv[i];
        const wchar_t* value = i + 1 < argc ? argv[i + 1] : L"";
        if (arg == L"--child" || arg == L"--messages" || arg == L"--verbose") {
            (arg == L"--child" ? options.child : arg == L"--verbose" ? options.verbose : options.listMessages) = true;
            continue;
        }
        if (arg == L"--seed") options.seed = _wcstoui64(value, nullptr, 10);
        else if (arg == L"--count") options.count = _wcstoui64(value, nullptr, 10);
        else if (arg == L"--corpus") options.corpus = value;
        else if (arg == L"--also") options.also.push_back(value);
        else if (arg == L"--hang-ms") options.hangMs = static_cast<DWORD>(_wtoi(value));
        else if (arg == L"--from" || arg == L"--first") options.from = _wcstoui64(value, nullptr, 10);
        else if (arg == L"--scratch") options.scratch = value;
        else continue;
        ++i;
    }
    return options;
}

std::wstring MappingName(const std::wstring& scratch) {
    std::wstring name = L"Local\\omkfuzz-" + scratch;
    std::replace(name.begin() + 6, name.end(), L'\\', L'_');
    return name;
}

// Lines a child appends to the results file: each written whole, so that a
// crash loses nothing written before it.
class Results {
public:
    explicit Results(const std::wstring& path) {
        file_ = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                            0, nullptr);
    }
    ~Results() { CloseHandle(file_); }
    void Line(const std::string& line) {
        std::string whole = line + "\n";
        DWORD written = 0;
        WriteFile(file_, whole.data(), static_cast<DWORD>(whole.size()), &written, nullptr);
    }

private:
    HANDLE file_;
};

Results* g_results = nullptr;
Progress* g_progress = nullptr;

LONG WINAPI CrashFilter(EXCEPTION_POINTERS* pointers) {
    const void* address = pointers->ExceptionRecord->ExceptionAddress;
    HMODULE module = nullptr;
    char moduleName[MAX_PATH] = "?";
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           static_cast<const char*>(address), &module)) {
        GetModuleFileNameA(module, moduleName, MAX_PATH);
    }
    char line[512];
    _snprintf(line, sizeof(line) - 1, "crash %lld 0x%08lx at %p (%s+0x%llx)", static_cast<long long>(g_progress->index),
              pointers->ExceptionRecord->ExceptionCode, address, moduleName,
              static_cast<unsigned long long>(static_cast<const char*>(address) - reinterpret_cast<const char*>(module)));
    line[sizeof(line) - 1] = '\0';
    g_results->Line(line);
    TerminateProcess(GetCurrentProcess(), 0xC0DE);
    return EXCEPTION_EXECUTE_HANDLER;
}

std::vector<std::wstring> ListCorpus(const std::wstring& folder) {
    std::vector<std::wstring> files;
    if (folder.empty()) return files;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) files.push_back(folder + L"\\" + data.cFileName);
    }
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
    std::sort(files.begin(), files.end());
    return files;
}

// A heap damaged by an input shows here, even when nothing crashed yet.
bool HeapsValid() {
    HANDLE heaps[64];
    DWORD count = GetProcessHeaps(64, heaps);
    for (DWORD i = 0; i < count && i < 64; ++i) {
        if (!HeapValidate(heaps[i], 0, nullptr)) return false;
    }
    return true;
}

std::wstring SavedName(const Options& options, const wchar_t* kind, uint64_t generated, const Subject& subject) {
    return options.corpus + L"\\" + kind + L"-" + std::to_wstring(options.seed) + L"-" + std::to_wstring(generated) +
           L"." + subject.Extension();
}

// Corpus files, as the campaign listed them at its start.
std::vector<std::string> LoadCorpus(const std::wstring& scratch) {
    std::vector<std::string> corpus;
    std::string list = omktest::ReadFileBytes(scratch + L"\\corpus.txt");
    for (size_t start = 0, end; start < list.size(); start = end + 1) {
        end = list.find('\n', start);
        if (end == std::string::npos) end = list.size();
        if (end > start) corpus.push_back(omktest::ReadFileBytes(omktest::FromUtf8(list.substr(start, end - start))));
    }
    return corpus;
}

int ChildMain(Subject& subject, const Options& options) {
    // The product's data folders (logs, alerts, database) of this child only:
    // set before anything asks where they are.
    const std::wstring data = options.scratch + L"\\ProgramData";
    CreateDirectoryW(data.c_str(), nullptr);
    SetEnvironmentVariableW(L"ProgramData", data.c_str());
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    HANDLE mapping = OpenFileMappingW(FILE_MAP_WRITE, FALSE, MappingName(options.scratch).c_str());
    if (mapping == nullptr) return 2;
    g_progress = static_cast<Progress*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(Progress)));
    Results results(options.scratch + L"\\results.txt");
    g_results = &results;
    SetUnhandledExceptionFilter(CrashFilter);

    const std::wstring log = options.scratch + L"\\errors-" + std::to_wstring(GetCurrentProcessId()) + L".txt";
    OMK_SetErrorLogName(log.c_str());
    LogTail tail(log);
    const std::vector<std::string> corpus = LoadCorpus(options.scratch);
    const uint64_t replays = corpus.size();
    const uint64_t total = replays + options.count;
    subject.Prepare();
    tail.Skip();
    std::set<std::string> seen;
    const std::wstring current = options.scratch + L"\\current." + subject.Extension();
    const uint64_t end = subject.InputsPerProcess() == 0 ? total : std::min(total, options.from + subject.InputsPerProcess());
    for (uint64_t k = options.from; k < end; ++k) {
        g_progress->index = static_cast<LONG64>(k);
        const std::string input = k < replays ? corpus[k] : subject.Generate(options.seed, k - replays, corpus);
        omktest::WriteFileBytes(current, input);
        long long allocDifference = 0;
        std::string broken = subject.Run(input, &allocDifference);
        if (!HeapsValid()) broken += broken.empty() ? "a heap is damaged" : "; a heap is damaged";
        if (!subject.Outcome().empty()) results.Line("out " + subject.Outcome());
        if (allocDifference != 0) results.Line("alloc " + std::to_string(allocDifference));
        for (const std::string& line : tail.NewLines()) {
            if (options.verbose) fprintf(stderr, "input %llu: %s\n", static_cast<unsigned long long>(k), line.c_str());
            if (line.empty() || line[0] < '0' || line[0] > '9') continue;  // a message's own later lines
            std::string kind = NormaliseMessage(line);
            if (seen.insert(kind).second) results.Line("msg " + kind);
        }
        if (!broken.empty()) {
            std::replace(broken.begin(), broken.end(), '\n', ' ');
            results.Line("fail " + std::to_string(k) + " " + broken);
            if (k >= replays) CopyFileW(current.c_str(), SavedName(options, L"fail", k - replays, subject).c_str(), FALSE);
        }
        InterlockedIncrement64(&g_progress->beats);
    }
    g_progress->index = static_cast<LONG64>(end);
    g_progress->done = 1;
    return 0;
}

HANDLE StartChild(const Options& options, uint64_t from) {
    std::wstring arguments = L"--child --seed " + std::to_wstring(options.seed) + L" --count " +
                             std::to_wstring(options.count) + L" --from " + std::to_wstring(from) + L" --scratch \"" +
                             options.scratch + L"\"";
    if (!options.corpus.empty()) arguments += L" --corpus \"" + options.corpus + L"\"";
    if (options.verbose) arguments += L" --verbose";
    return StartSelf(arguments);
}

int ParentMain(Subject& subject, Options options) {
    const ULONGLONG start = GetTickCount64();
    omktest::TempFolder scratch;
    options.scratch = scratch.Path();
    if (!options.corpus.empty()) CreateDirectoryW(options.corpus.c_str(), nullptr);
    std::vector<std::wstring> files = ListCorpus(options.corpus);
    files.insert(files.end(), options.also.begin(), options.also.end());
    std::string list;
    for (const std::wstring& file : files) list += omktest::ToUtf8(file) + "\n";
    omktest::WriteFileBytes(options.scratch + L"\\corpus.txt", list);
    const uint64_t total = files.size() + options.count;

    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Progress),
                                        MappingName(options.scratch).c_str());
    auto* progress = static_cast<Progress*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(Progress)));
    Tally tally;
    tally.allocKnown = subject.CountsAllocations();
    std::vector<std::string> problems;
    std::map<std::string, uint64_t> outcomes;
    const std::wstring current = options.scratch + L"\\current." + subject.Extension();
    for (uint64_t from = options.from; from < total;) {
        progress->index = static_cast<LONG64>(from);
        progress->beats = 0;
        progress->done = 0;
        HANDLE child = StartChild(options, from);
        if (child == nullptr) {
            fprintf(stderr, "%s: cannot start a child process (%lu)\n", subject.Title(), GetLastError());
            return 2;
        }
        LONG64 beats = 0;
        ULONGLONG lastBeat = GetTickCount64();
        bool hung = false;
        while (WaitForSingleObject(child, 200) == WAIT_TIMEOUT) {
            if (progress->beats != beats) {
                beats = progress->beats;
                lastBeat = GetTickCount64();
            } else if (GetTickCount64() - lastBeat > options.hangMs) {
                hung = true;
                TerminateProcess(child, 0xDEAD);
                WaitForSingleObject(child, INFINITE);
                break;
            }
        }
        DWORD code = 0;
        GetExitCodeProcess(child, &code);
        CloseHandle(child);
        const uint64_t at = static_cast<uint64_t>(progress->index);
        if (!hung && code == 0 && progress->done) {  // done, or handing over to a fresh process
            from = at;
            continue;
        }
        if (!hung && code == 2) {
            fprintf(stderr, "%s: the child process could not attach to the campaign\n", subject.Title());
            return 2;
        }
        (hung ? tally.hangs : tally.crashes)++;
        problems.push_back(std::string(hung ? "hang" : "crash") + " at input " + std::to_string(at) + " exit " +
                           std::to_string(code));
        if (at >= files.size()) {
            CopyFileW(current.c_str(), SavedName(options, hung ? L"hang" : L"crash", at - files.size(), subject).c_str(),
                      FALSE);
        }
        from = at + 1;
    }
    std::string results = omktest::ReadFileBytes(options.scratch + L"\\results.txt");
    for (size_t s = 0, e; s < results.size(); s = e + 1) {
        e = results.find('\n', s);
        if (e == std::string::npos) e = results.size();
        const std::string line = results.substr(s, e - s);
        if (line.rfind("msg ", 0) == 0) {
            tally.messages.insert(line.substr(4));
        } else if (line.rfind("out ", 0) == 0) {
            ++outcomes[line.substr(4)];
        } else if (line.rfind("alloc ", 0) == 0) {
            tally.allocBalance += atoll(line.c_str() + 6);
        } else if (line.rfind("fail ", 0) == 0) {
            ++tally.failures;
            problems.push_back(line);
        } else if (line.rfind("crash ", 0) == 0) {
            problems.push_back(line);
        }
    }
    tally.inputs = total;
    tally.seconds = static_cast<double>(GetTickCount64() - start) / 1000.0;
    for (const std::string& problem : problems) fprintf(stderr, "%s: %s\n", subject.Title(), problem.c_str());
    if (options.listMessages) {
        for (const std::string& message : tally.messages) fprintf(stderr, "  %s\n", message.c_str());
    }
    std::string extra = std::to_string(files.size()) + " of them corpus replays";
    for (const auto& outcome : outcomes) extra += ", " + std::to_string(outcome.second) + " " + outcome.first;
    PrintLine(subject.Title(), tally, extra);
    UnmapViewOfFile(progress);
    CloseHandle(mapping);
    return tally.crashes + tally.hangs + tally.failures == 0 && tally.allocBalance == 0 ? 0 : 1;
}

}  // namespace

void PrintLine(const char* campaign, const Tally& tally, const std::string& extra) {
    char balance[32];
    if (tally.allocKnown) {
        _snprintf(balance, sizeof(balance) - 1, "%+lld", tally.allocBalance);
    } else {
        strcpy(balance, "n/a");
    }
    balance[sizeof(balance) - 1] = '\0';
    printf("%s: %llu inputs, %llu crashes, %llu hangs, %llu failures, %llu distinct messages, "
           "g_allocCount balance %s, %.1f s%s%s\n",
           campaign, static_cast<unsigned long long>(tally.inputs), static_cast<unsigned long long>(tally.crashes),
           static_cast<unsigned long long>(tally.hangs), static_cast<unsigned long long>(tally.failures),
           static_cast<unsigned long long>(tally.messages.size()), balance, tally.seconds, extra.empty() ? "" : ", ", extra.c_str());
    fflush(stdout);
}

std::string NormaliseMessage(const std::string& logLine) {
    size_t pos = 0;
    for (int field = 0; field < 5 && pos != std::string::npos; ++field) {
        pos = logLine.find(' ', pos);
        if (pos != std::string::npos) ++pos;
    }
    std::string message = pos == std::string::npos ? logLine : logLine.substr(pos);
    std::string kind;
    for (size_t i = 0; i < message.size() && kind.size() < 60; ++i) {
        char c = message[i];
        if (c == '\r' || c == '\n') break;
        if (c >= '0' && c <= '9') {
            if (kind.empty() || kind.back() != '#') kind += '#';
            if (c == '0' && i + 1 < message.size() && message[i + 1] == 'x') ++i;
            while (i + 1 < message.size() && isxdigit(static_cast<unsigned char>(message[i + 1]))) ++i;
        } else {
            kind += c;
        }
    }
    return kind;
}

HANDLE StartSelf(const std::wstring& arguments) {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(self) + L"\" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        return nullptr;
    }
    CloseHandle(process.hThread);
    return process.hProcess;
}

std::vector<std::string> LogTail::NewLines() {
    std::vector<std::string> lines;
    HANDLE file = CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return lines;
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    if (static_cast<ULONGLONG>(size.QuadPart) < offset_) offset_ = 0;  // backed up meanwhile
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset_);
    SetFilePointerEx(file, at, nullptr, FILE_BEGIN);
    std::string text;
    char chunk[65536];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) text.append(chunk, read);
    CloseHandle(file);
    size_t complete = text.rfind('\n');
    if (complete == std::string::npos) return lines;
    offset_ += complete + 1;
    for (size_t s = 0, e; s <= complete; s = e + 1) {
        e = text.find('\n', s);
        lines.push_back(text.substr(s, e - s));
    }
    return lines;
}

int CampaignMain(Subject& subject, int argc, wchar_t** argv) {
    Options options = ParseOptions(argc, argv);
    return options.child ? ChildMain(subject, options) : ParentMain(subject, options);
}

}  // namespace omkfuzz
