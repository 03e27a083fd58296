// Engine CPU time per event against its floor (target: engine/floor at most
// 1.5 at 10, 100 and 1,000 rules). The event is a collector's triggered-rule
// event with 8 data items naming one of the rules (each rule has one action of
// the product's action plugin), handled by Tolvane_HandleEvents on this thread
// without the designed pause, under a clock that advances one second per
// event (the alert file's name carries the second, so every event gets its own
// file and record, as a second apart in the service). The floor is what storing
// its alert cannot do without: writing the same alert bytes to a new file and
// one SQLite insert of them on an open connection in the database library's
// mode (WAL, synchronous=FULL). Batches of events and of floor rounds
// alternate.
//
// Figures are thread CPU time (GetThreadTimes; under Wine it advances in 10 ms
// ticks, hence the many batches). A second table times the parts of an event
// on their own, many times over: preparing every rule (an event that names no
// rule), the alert file, the actions, the store (AddToAlertDb) and, within the
// store, the XML check of the alert file (its text loaded into the thread's
// document) and the kept files' limit (a look at every alert file's creation
// time, CheckMaxAlertFiles).
//
// Run under Wine in the build's prefix (it replaces the alert database there):
//   WINEPREFIX=$PWD/build/wineprefix WINEDEBUG=-all wine build/bin/engineBench.exe [batches per size]
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "actionPlugin.h"
#include "alertDatabase.h"
#include "benchSupport.h"
#include "cdef.h"
#include "conventions.h"
#include "engineTestSupport.h"
#include "eventHandling.h"
#include "ruleParser.h"
#include "sqlite3.h"
#include "testPlugins.h"
#include "testSupport.h"
#include "tolvaneInit.h"
#include "workQueue.h"
#include "xmlAccess.h"

namespace {

// Short, because the plugin loaders read at most 129 characters of a path.
const std::wstring kInstallFolder = L"C:\\omkbench";
const wchar_t kCollectorKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
const wchar_t kRulePluginId[] = L"OMKCollectorRules";
constexpr int kDataItems = 8;
constexpr int kEventsPerBatch = 10;
constexpr int kFloorRoundsPerBatch = 50;
constexpr int kPartRepeats = 1000;

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

// The engine's clock: one second later at every call, from 2001 on.
SYSTEMTIME g_clock = {2001, 1, 1, 1, 0, 0, 0, 0};
void WINAPI NextSecond(SYSTEMTIME* now) {
    FILETIME time;
    SystemTimeToFileTime(&g_clock, &time);
    ULARGE_INTEGER value = {{time.dwLowDateTime, time.dwHighDateTime}};
    value.QuadPart += 10000000ull;
    time = {value.LowPart, value.HighPart};
    FileTimeToSystemTime(&time, &g_clock);
    *now = g_clock;
}

// Writing the alert bytes to a new file and one insert, on its own connection.
class Floor {
public:
    bool Open() {
        const std::wstring database = std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db";
        folder_ = std::wstring(CDef::GetInstance().FOLDER_OMK_ALERT) + L"\\floor";
        CreateDirectoryW(folder_.c_str(), nullptr);
        return sqlite3_open_v2(omktest::ToUtf8(database).c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
               sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) == SQLITE_OK &&
               sqlite3_exec(db_, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) == SQLITE_OK &&
               sqlite3_prepare_v2(db_, "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(?1, ?2, ?3)", -1, &insert_, nullptr) == SQLITE_OK;
    }
    ~Floor() {
        sqlite3_finalize(insert_);
        sqlite3_close(db_);
        RemoveDirectoryW(folder_.c_str());
    }
    // Thread CPU of `rounds` rounds, or a negative figure when one failed.
    double Run(const std::string& alert, int rounds) {
        bool ok = true;
        double cpuBefore = ThreadCpuMs();
        for (int i = 0; ok && i < rounds; ++i, ++round_) {
            const std::wstring path = folder_ + L"\\floor" + std::to_wstring(i) + L".xml";
            HANDLE file =
                CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            DWORD written = 0;
            ok = file != INVALID_HANDLE_VALUE &&
                 WriteFile(file, alert.data(), static_cast<DWORD>(alert.size()), &written, nullptr);
            if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
            // Keys far below the engine's, so that its trim removes these first.
            sqlite3_bind_int64(insert_, 1, static_cast<sqlite3_int64>(9000000000ull + round_));
            sqlite3_bind_text(insert_, 2, alert.c_str(), -1, SQLITE_STATIC);
            sqlite3_bind_int64(insert_, 3, 0);
            ok = ok && sqlite3_step(insert_) == SQLITE_DONE;
            sqlite3_reset(insert_);
        }
        double cpu = ThreadCpuMs() - cpuBefore;
        for (int i = 0; i < rounds; ++i) DeleteFileW((folder_ + L"\\floor" + std::to_wstring(i) + L".xml").c_str());
        return ok ? cpu : -1;
    }

private:
    std::wstring folder_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
    unsigned long long round_ = 0;
};

struct Figures {
    double engineMs = 0;  // thread CPU per event
    double floorMs = 0;   // thread CPU per floor round
    double prepareMs = 0, alertFileMs = 0, actionsMs = 0, storeMs = 0, xmlCheckMs = 0, fileLimitMs = 0;
};

// Thread CPU per call of `part`, over kPartRepeats calls.
template <typename Part>
double PartMs(Part part) {
    double before = ThreadCpuMs();
    for (int i = 0; i < kPartRepeats; ++i) part(i);
    return (ThreadCpuMs() - before) / kPartRepeats;
}

// The parts of an event on their own, for `rule` (the one the event names):
// alert files named a second apart from 2001 on, so every store is new.
void MeasureParts(RULE* rule, WORK_ITEM* event, const std::string& alert, Figures& figures) {
    WORK_ITEM* none = TriggeredEvent(L"{00000000-0000-0000-0000-000000000000}");
    figures.prepareMs = PartMs([none](int) { EvaluateRule(none); });
    FreeWorkItem(none);
    const wchar_t* folder = CDef::GetInstance().FOLDER_OMK_ALERT;
    double alertFile = 0, actions = 0, store = 0;
    for (int i = 0; i < kPartRepeats; ++i) {
        _snwprintf(g_alertFileName, OMK_ALERT_FILE_NAME_CHARS - 1, L"%s-ZORA_Alerts_0101%04d%02d%02d%02d.xml",
                   g_serviceTag, 2001 + i / 86400, i / 3600 % 24, i / 60 % 60, i % 60);
        wcscpy(rule->alertFileName, g_alertFileName);
        double start = ThreadCpuMs();
        Rule_LogAlert(rule, event->u.ruleTriggered.dataItemsEnclosingXmlTag, event->u.ruleTriggered.numDataItems,
                      event->u.ruleTriggered.dataItemName, event->u.ruleTriggered.dataItemVal);
        double logged = ThreadCpuMs();
        for (RULE_ACTION* action = rule->actions; action != nullptr; action = action->next)
            action->plugin->Action_Execute(rule, action->xml);
        double acted = ThreadCpuMs();
        AddToAlertDb(folder, 0, removeAlertFiles, MaxAlertFiles);
        double stored = ThreadCpuMs();
        alertFile += logged - start;
        actions += acted - logged;
        store += stored - acted;
    }
    figures.alertFileMs = alertFile / kPartRepeats;
    figures.actionsMs = actions / kPartRepeats;
    figures.storeMs = store / kPartRepeats;
    const std::wstring text = omktest::FromUtf8(alert);
    figures.xmlCheckMs = PartMs([&text](int) { CheckXML(text.c_str()); });
    figures.fileLimitMs = PartMs([folder](int) { CheckMaxAlertFiles(MaxAlertFiles, folder); });
}

bool Run(int rules, int batches, Figures& figures) {
    if (!omktest::WriteFileBytes(kInstallFolder + L"\\insvcAlerts.xml", omkbench::CollectorRulesFile(rules)))
        return false;
    DWORD status = Tolvane_Init();
    if (status != 0) {
        fprintf(stderr, "Tolvane_Init failed: G_STATUS %lu\n", status);
        return false;
    }
    const std::wstring target = omkbench::RuleGuidW(rules / 2);
    RULE* rule = g_rules;
    while (rule != nullptr && target != rule->ruleGuid) rule = rule->next;
    WORK_ITEM* event = TriggeredEvent(target);
    // The first event (not counted) makes the database and gives the floor its bytes.
    Tolvane_HandleEvents(event);
    const std::string alert =
        omktest::ReadFileBytes(std::wstring(CDef::GetInstance().FOLDER_OMK_ALERT) + L"\\" + g_alertFileName);
    Floor floor;
    bool ok = rule != nullptr && !alert.empty() && floor.Open();
    double engineCpu = 0, floorCpu = 0;
    for (int batch = 0; ok && batch < batches; ++batch) {
        double before = ThreadCpuMs();
        for (int i = 0; i < kEventsPerBatch; ++i) Tolvane_HandleEvents(event);
        engineCpu += ThreadCpuMs() - before;
        double cpu = floor.Run(alert, kFloorRoundsPerBatch);
        ok = cpu >= 0;
        floorCpu += cpu;
    }
    if (ok) MeasureParts(rule, event, alert, figures);
    FreeWorkItem(event);
    Tolvane_Term();
    Tolvane_ForgetStepsForTest();
    figures.engineMs = engineCpu / (static_cast<double>(batches) * kEventsPerBatch);
    figures.floorMs = floorCpu / (static_cast<double>(batches) * kFloorRoundsPerBatch);
    return ok;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const int batches = argc > 1 ? std::max(1, _wtoi(argv[1])) : 20;

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
    g_handleEventsClock = NextSecond;

    printf("Engine thread CPU per triggered-rule event (%d data items) against the floor: the same alert bytes\n"
           "to a new file and one durable insert. Target engine/floor <= 1.5. %d batches per size of %d events\n"
           "and %d floor rounds in turn; the parts each timed %d times on their own (ms CPU).\n",
           kDataItems, batches, kEventsPerBatch, kFloorRoundsPerBatch, kPartRepeats);
    printf("%6s %10s %9s %13s | %8s %10s %8s %8s %10s %10s\n", "rules", "engine ms", "floor ms", "engine/floor",
           "prepare", "alert file", "actions", "store", "XML check", "file limit");
    for (int rules : {10, 100, 1000}) {
        Figures figures;
        if (!Run(rules, batches, figures)) {
            fprintf(stderr, "run with %d rules failed\n", rules);
            return 1;
        }
        printf("%6d %10.2f %9.3f %13.1f | %8.3f %10.3f %8.3f %8.3f %10.3f %10.3f\n", rules, figures.engineMs,
               figures.floorMs, figures.engineMs / figures.floorMs, figures.prepareMs, figures.alertFileMs,
               figures.actionsMs, figures.storeMs, figures.xmlCheckMs, figures.fileLimitMs);
        fflush(stdout);
    }
    ReleaseThreadXML();
    return 0;
}
