// Kill: the installed service stores alerts while it is ended with
// TerminateProcess, at a random moment or just as an alert file appears (so
// during the store that follows it), round after round. Each round starts the
// service, reports a few marked events and waits, as another process of the
// product would, on the alert-generated event, noting the marked alerts stored
// each time it is set. Between rounds scripts/fuzz restarts the prefix's
// wineserver, as Wine's service manager believes a killed service still runs.
// The check at the end: the service started every round, every alert whose
// event was seen is in the database, and SQLite finds the database intact.
//
//   fuzzKillService --setup --log FILE          install, rule file keeping every alert
//   fuzzKillService --round N --seed S --log FILE
//   fuzzKillService --check --log FILE [--keep]  the line of figures; uninstalls unless --keep
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fuzzMutate.h"
#include "serviceCampaign.h"
#include "sqlite3.h"
#include "testSupport.h"

namespace {

const wchar_t kAlertEvent[] = L"Global\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}";
const char kMarker[] = "kill-";
// Enough that nothing the campaign stores is trimmed away.
constexpr unsigned kMaxAlerts = 1000000;

std::mutex g_logLock;

void Log(const std::wstring& path, const std::string& line) {
    std::lock_guard<std::mutex> guard(g_logLock);
    FILE* out = _wfopen(path.c_str(), L"a");
    if (out == nullptr) return;
    fprintf(out, "%s\n", line.c_str());
    fclose(out);
}

std::vector<std::string> Lines(const std::wstring& path) {
    std::vector<std::string> lines;
    std::string text = omktest::ReadFileBytes(path);
    for (size_t s = 0, e; s < text.size(); s = e + 1) {
        e = text.find('\n', s);
        if (e == std::string::npos) e = text.size();
        if (e > s) lines.push_back(text.substr(s, e - s));
    }
    return lines;
}

// The markers in the alerts stored after `creationTime`.
std::set<std::string> StoredMarkers(ULONGLONG creationTime) {
    std::set<std::string> markers;
    for (const std::string& alert : svctest::AlertsStoredAfter(creationTime)) {
        for (size_t at = alert.find(kMarker); at != std::string::npos; at = alert.find(kMarker, at + 1)) {
            markers.insert(alert.substr(at, alert.find('<', at) - at));
        }
    }
    return markers;
}

std::wstring AlertFolder() {
    for (const std::wstring& root : svctest::ProductDataRoots()) {
        if (omktest::FileExists(root + L"\\Archive")) return root + L"\\Archive";
    }
    return svctest::ProductDataRoots()[0] + L"\\Archive";
}

int Round(int round, uint64_t seed, const std::wstring& log) {
    omkfuzz::Random random = omkfuzz::InputRandom(seed, static_cast<uint64_t>(round));
    svctest::InstalledService service;
    const ULONGLONG since = svctest::LatestAlertTime();
    const ULONGLONG askedAt = GetTickCount64();
    // The service starts automatically with the restarted service manager: it may run already.
    const bool asked = service.Start() || GetLastError() == ERROR_SERVICE_ALREADY_RUNNING;
    const DWORD error = asked ? 0 : GetLastError();
    const bool started = asked && service.WaitForState(SERVICE_RUNNING, 30000);
    Log(log, "start " + std::to_string(round) + " " + (started ? "1 " : "0 ") + std::to_string(GetTickCount64() - askedAt) +
                 " " + std::to_string(error) + " " + std::to_string(service.Status().dwWin32ExitCode));
    if (!started) return 1;
    const DWORD process = service.ProcessId();

    // The waiting process's view: every time the event is set, the marked alerts stored so far.
    std::atomic<bool> stop{false};
    std::thread waiter([&] {
        HANDLE event = nullptr;
        while (event == nullptr && !stop) {
            event = OpenEventW(SYNCHRONIZE, FALSE, kAlertEvent);
            if (event == nullptr) Sleep(20);
        }
        std::set<std::string> seen;
        while (!stop) {
            if (WaitForSingleObject(event, 50) != WAIT_OBJECT_0) continue;
            for (const std::string& marker : StoredMarkers(since)) {
                if (seen.insert(marker).second) Log(log, "seen " + marker);
            }
        }
        if (event != nullptr) CloseHandle(event);
    });

    svctest::Collector collector;
    const int events = 1 + static_cast<int>(random.Below(4));
    if (SUCCEEDED(collector.Connect())) {
        for (int j = 0; j < events; ++j) {
            const std::string marker = kMarker + std::to_string(seed) + "-" + std::to_string(round) + "-" + std::to_string(j);
            if (collector.RuleTriggered(omkfuzz::kDiskRuleGuid, L"Disk", L"Marker", omktest::FromUtf8(marker).c_str()) ==
                S_OK) {
                Log(log, "sent " + marker);
            }
        }
    }
    // Half the rounds end the service just as an alert file appears, so within
    // the store that follows it; the others at any moment of the handling.
    const bool duringStore = random.OneIn(2);
    const ULONGLONG sent = GetTickCount64();
    if (duringStore) {
        HANDLE change = FindFirstChangeNotificationW(AlertFolder().c_str(), FALSE,
                                                     FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE);
        const int skip = static_cast<int>(random.Below(static_cast<size_t>(events)));
        for (int seenFiles = 0; change != INVALID_HANDLE_VALUE && seenFiles <= skip;) {
            if (WaitForSingleObject(change, 5000) != WAIT_OBJECT_0) break;
            ++seenFiles;
            FindNextChangeNotification(change);
        }
        if (change != INVALID_HANDLE_VALUE) FindCloseChangeNotification(change);
        Sleep(static_cast<DWORD>(random.Below(30)));
    } else {
        Sleep(static_cast<DWORD>(random.Below(static_cast<size_t>(events) * 1100 + 500)));
    }
    HANDLE target = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, process);
    const bool killed = target != nullptr && TerminateProcess(target, 0xDEAD);
    if (target != nullptr) {
        WaitForSingleObject(target, 10000);
        CloseHandle(target);
    }
    Log(log, std::string(killed ? "killed " : "not-killed ") + std::to_string(round) + " " +
                 (duringStore ? "store " : "random ") + std::to_string(GetTickCount64() - sent));
    Sleep(200);  // a signal set just before the end is still read
    stop = true;
    waiter.join();
    collector.Release();
    std::set<std::string> kinds;
    omkfuzz::AddMessageKinds(service.LogSince(), &kinds);
    for (const std::string& kind : kinds) Log(log, "msg " + kind);
    return killed ? 0 : 1;
}

// integrity_check of the service's database, read with SQLite directly.
std::string Integrity() {
    for (const std::wstring& root : svctest::ProductDataRoots()) {
        const std::wstring path = root + L"\\Data\\omkAlerts.db";
        if (!omktest::FileExists(path)) continue;
        sqlite3* db = nullptr;
        std::string result;
        if (sqlite3_open_v2(omktest::ToUtf8(path).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
            sqlite3_exec(db, "PRAGMA integrity_check",
                         [](void* out, int, char** values, char**) {
                             *static_cast<std::string*>(out) += values[0] != nullptr ? values[0] : "NULL";
                             return 0;
                         },
                         &result, nullptr);
        }
        sqlite3_close(db);
        return result;
    }
    return "no database";
}

int Check(const std::wstring& log, bool keep) {
    omkfuzz::Tally tally;
    std::set<std::string> seen, sent;
    int rounds = 0, started = 0, killed = 0, duringStore = 0;
    unsigned long long firstSeconds = 0;
    for (const std::string& line : Lines(log)) {
        char word[64] = {}, text[256] = {};
        unsigned long long a = 0, b = 0, ms = 0;
        if (sscanf(line.c_str(), "start %llu %llu %llu", &a, &b, &ms) == 3) {
            ++rounds;
            started += b == 1 ? 1 : 0;
        } else if (sscanf(line.c_str(), "seen %255s", text) == 1) {
            seen.insert(text);
        } else if (sscanf(line.c_str(), "sent %255s", text) == 1) {
            sent.insert(text);
        } else if (sscanf(line.c_str(), "killed %llu %63s", &a, word) == 2) {
            ++killed;
            duringStore += std::string(word) == "store" ? 1 : 0;
        } else if (line.rfind("msg ", 0) == 0) {
            tally.messages.insert(line.substr(4));
        } else if (sscanf(line.c_str(), "seconds %llu", &a) == 1) {
            firstSeconds = a;
        }
    }
    const std::set<std::string> stored = StoredMarkers(0);
    std::vector<std::string> lost;
    for (const std::string& marker : seen) {
        if (stored.count(marker) == 0) lost.push_back(marker);
    }
    const std::string integrity = Integrity();
    tally.inputs = static_cast<uint64_t>(rounds);
    tally.hangs = static_cast<uint64_t>(rounds - started);
    tally.failures = lost.size() + (integrity == "ok" ? 0 : 1) + static_cast<uint64_t>(rounds - killed);
    tally.seconds = static_cast<double>(time(nullptr) - static_cast<time_t>(firstSeconds));
    for (const std::string& marker : lost) fprintf(stderr, "kill: alert %s was seen stored and is lost\n", marker.c_str());
    if (integrity != "ok") fprintf(stderr, "kill: integrity_check: %s\n", integrity.c_str());
    char extra[512];
    _snprintf(extra, sizeof(extra) - 1,
              "%d rounds: started %d times, %d kills survived (%d just as an alert file appeared), %llu events sent, "
              "%llu alerts seen stored by the waiting process, %llu stored in all, %llu lost, integrity_check %s",
              rounds, started, killed, duringStore, static_cast<unsigned long long>(sent.size()),
              static_cast<unsigned long long>(seen.size()), static_cast<unsigned long long>(stored.size()),
              static_cast<unsigned long long>(lost.size()),
              integrity.c_str());
    extra[sizeof(extra) - 1] = '\0';
    omkfuzz::PrintLine("kill", tally, extra);
    if (!keep) omkfuzz::UninstallProduct();
    return tally.hangs + tally.failures == 0 && rounds > 0 ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::wstring mode, log;
    int round = 0;
    uint64_t seed = 1;
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        std::wstring arg = argv[i];
        const wchar_t* value = i + 1 < argc ? argv[i + 1] : L"";
        if (arg == L"--setup" || arg == L"--check") mode = arg;
        if (arg == L"--keep") keep = true;
        if (arg == L"--round") mode = arg, round = _wtoi(value);
        if (arg == L"--seed") seed = _wcstoui64(value, nullptr, 10);
        if (arg == L"--log") log = value;
    }
    if (log.empty() || mode.empty()) {
        fprintf(stderr, "usage: fuzzKillService --setup|--round N [--seed S]|--check [--keep] --log FILE\n");
        return 2;
    }
    if (mode == L"--setup") {
        omkfuzz::InstalledProduct product(kMaxAlerts);
        product.Keep();
        DeleteFileW(log.c_str());
        Log(log, "seconds " + std::to_string(time(nullptr)));
        return product.Ok() ? 0 : 2;
    }
    if (mode == L"--round") return Round(round, seed, log);
    return Check(log, keep);
}
