// Engine CPU time per event: a collector's triggered-rule event with 8 data
// items handled against rule files of 10, 100 and 1,000 rules (each with one
// action of the product's action plugin; the event names one of them). The
// figure is the handling thread's CPU time (GetThreadTimes), so the designed
// pause before each event does not count; events are a second apart as in the
// service, so each gets its own alert file and database record.
//
// The floor is what storing that alert cannot do without: writing the same
// alert bytes to a new file and one SQLite insert of them on an open
// connection in the database library's mode (WAL, synchronous=FULL).
//
// Run under Wine in the build's prefix (it replaces the alert database there):
//   WINEPREFIX=$PWD/build/wineprefix WINEDEBUG=-all wine build/bin/engineBench.exe [events per size]
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "alertDatabase.h"
#include "benchSupport.h"
#include "cdef.h"
#include "engineTestSupport.h"
#include "eventHandling.h"
#include "sqlite3.h"
#include "testPlugins.h"
#include "testSupport.h"
#include "tolvaneInit.h"
#include "workQueue.h"

namespace {

// Short, because the plugin loaders read at most 129 characters of a path.
const std::wstring kInstallFolder = L"C:\\omkbench";
const wchar_t kCollectorKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
const wchar_t kRulePluginId[] = L"OMKCollectorRules";
constexpr int kDataItems = 8;

// CPU time (user + kernel) of the calling thread in milliseconds.
double ThreadCpuMs() {
    FILETIME created, exited, kernel, user;
    GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user);
    return omkbench::FileTimeMs(kernel) + omkbench::FileTimeMs(user);
}

// A collector's triggered-rule event for `guid` with 8 data items.
WORK_ITEM* TriggeredEvent(const std::wstring& guid) {
    std::vector<std::wstring> names, values;
    for (int i = 0; i < kDataItems; ++i) {
        names.push_back(L"Item" + std::to_wstring(i));
        values.push_back(L"value " + std::to_wstring(1000 + i * 37));
    }
    return omktest::RuleTriggeredItem(kRulePluginId, guid.c_str(), L"Battery", names, values);
}

// Sleeps into the next wall-clock second: alert files and records are named by the second.
void WaitForNextSecond() {
    SYSTEMTIME now;
    GetSystemTime(&now);
    Sleep(1000 - now.wMilliseconds + 20);
}

struct EngineFigures {
    double cpuMs;   // mean thread CPU per event
    double wallMs;  // median elapsed per event
    std::string alert;
};

bool RunEngine(int rules, int events, EngineFigures& figures) {
    if (!omktest::WriteFileBytes(kInstallFolder + L"\\insvcAlerts.xml", omkbench::CollectorRulesFile(rules))) return false;
    DWORD status = Tolvane_Init();
    if (status != 0) {
        fprintf(stderr, "Tolvane_Init failed: G_STATUS %lu\n", status);
        return false;
    }
    const std::wstring target = omkbench::RuleGuidW(rules / 2);
    double cpu = 0;
    std::vector<double> wall;
    for (int i = 0; i < events; ++i) {
        WORK_ITEM* item = TriggeredEvent(target);
        WaitForNextSecond();
        double cpuBefore = ThreadCpuMs();
        double wallBefore = omkbench::NowMs();
        // On this thread rather than the engine's, so its CPU time is the event's alone.
        Tolvane_HandleEvents(item);
        wall.push_back(omkbench::NowMs() - wallBefore);
        cpu += ThreadCpuMs() - cpuBefore;
        FreeWorkItem(item);
    }
    figures.alert = omktest::ReadFileBytes(std::wstring(CDef::GetInstance().FOLDER_OMK_ALERT) + L"\\" + g_alertFileName);
    Tolvane_Term();
    Tolvane_ForgetStepsForTest();
    figures.cpuMs = cpu / events;
    figures.wallMs = omkbench::Median(wall);
    return !figures.alert.empty();
}

// The floor: the same bytes to a new file, then one insert on an open connection.
bool RunFloor(const std::string& alert, int rounds, double& cpuMs, double& wallMs) {
    const std::wstring database = std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db";
    const std::wstring folder = std::wstring(CDef::GetInstance().FOLDER_OMK_ALERT) + L"\\floor";
    CreateDirectoryW(folder.c_str(), nullptr);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(omktest::ToUtf8(database).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
    bool ok = sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_stmt* insert = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "INSERT INTO alerts VALUES(?1, ?2, ?3)", -1, &insert, nullptr) == SQLITE_OK;
    double cpu = 0;
    std::vector<double> wall;
    for (int i = 0; ok && i < rounds; ++i) {
        const std::wstring path = folder + L"\\floor" + std::to_wstring(i) + L".xml";
        double cpuBefore = ThreadCpuMs();
        double wallBefore = omkbench::NowMs();
        HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        DWORD written = 0;
        ok = file != INVALID_HANDLE_VALUE && WriteFile(file, alert.data(), static_cast<DWORD>(alert.size()), &written, nullptr);
        if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
        sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(9000000000ull + static_cast<unsigned>(i)));
        sqlite3_bind_text(insert, 2, alert.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(insert, 3, 0);
        ok = ok && sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
        wall.push_back(omkbench::NowMs() - wallBefore);
        cpu += ThreadCpuMs() - cpuBefore;
        DeleteFileW(path.c_str());
    }
    sqlite3_finalize(insert);
    sqlite3_close(db);
    RemoveDirectoryW(folder.c_str());
    cpuMs = cpu / rounds;
    wallMs = omkbench::Median(wall);
    return ok;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const int events = argc > 1 ? std::max(1, _wtoi(argv[1])) : 20;
    const int floorRounds = 500;

    omktest::InstallTestRoot();
    CreateDirectoryW(kInstallFolder.c_str(), nullptr);
    for (const wchar_t* name : {L"omkCollectorRules.dll", L"omkActionLog.dll"})
        CopyFileW(omktest::BuiltFile(name).c_str(), (kInstallFolder + L"\\" + name).c_str(), FALSE);
    omktest::WriteFileBytes(kInstallFolder + L"\\omkCollector.exe", "MZ");
    omktest::ScopedRegKey collector(HKEY_LOCAL_MACHINE, kCollectorKey);
    collector.SetString(L"ImagePath", L"\"" + kInstallFolder + L"\\omkCollector.exe\"");
    omktest::PluginKey ruleKey(omktest::kRulePluginKey);
    omktest::PluginKey actionKey(omktest::kActionPluginKey);
    ruleKey.Add(L"OMKCollectorRules", kInstallFolder + L"\\omkCollectorRules.dll");
    actionKey.Add(L"OMKActionLog", kInstallFolder + L"\\omkActionLog.dll");
    CDef::ResetForTest();
    DeleteFileW((std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db").c_str());
    g_handleEventsPauseMs = 0;

    printf("Engine CPU time per triggered-rule event (%d data items, %d events per size, thread CPU)\n", kDataItems,
           events);
    std::string alert;
    for (int rules : {10, 100, 1000}) {
        EngineFigures figures;
        if (!RunEngine(rules, events, figures)) {
            fprintf(stderr, "engine run with %d rules failed\n", rules);
            return 1;
        }
        alert = figures.alert;
        printf("  %5d rules: %7.2f ms CPU per event, %7.2f ms elapsed (median)\n", rules, figures.cpuMs,
               figures.wallMs);
        fflush(stdout);
    }
    double floorCpu = 0, floorWall = 0;
    if (!RunFloor(alert, floorRounds, floorCpu, floorWall)) {
        fprintf(stderr, "floor run failed\n");
        return 1;
    }
    printf("  floor (write %zu alert bytes + one insert, %d rounds): %.3f ms CPU, %.3f ms elapsed (median)\n",
           alert.size(), floorRounds, floorCpu, floorWall);
    return 0;
}
