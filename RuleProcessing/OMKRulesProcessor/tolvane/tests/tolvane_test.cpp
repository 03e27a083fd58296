// The real engine: signed test plugins registered in the prefix, a real rule
// file in the install folder, real alert files and the real alert database,
// driven by queued events.
#include <windows.h>

#include <gtest/gtest.h>
#include <oleauto.h>
#include <stdlib.h>

#include <functional>
#include <string>
#include <vector>

#include "alertDatabase.h"
#include "cdef.h"
#include "conventions.h"
#include "engineTestSupport.h"
#include "eventHandling.h"
#include "omkDb.h"
#include "testPlugins.h"
#include "testSupport.h"
#include "tolvaneInit.h"
#include "workQueue.h"

namespace {

using omktest::PluginCall;

// Short, because the loaders read at most 129 characters of a plugin path.
const std::wstring kInstallFolder = L"C:\\omkeng";
const wchar_t kCollectorKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
const wchar_t kGuid1[] = L"{11111111-2222-3333-4444-555555555555}";
const wchar_t kGuid2[] = L"{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}";

std::string Rule(const std::string& attributes, const std::wstring& guid, const std::string& children) {
    return "<Rule " + attributes + "><Name>rule " + omktest::ToUtf8(guid) + "</Name><Descr>d</Descr><RuleGuid>" +
           omktest::ToUtf8(guid) + "</RuleGuid><AlertMsg>alert message</AlertMsg>" + children + "</Rule>";
}

class Engine : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        CreateDirectoryW(kInstallFolder.c_str(), nullptr);
        for (const wchar_t* name : {L"ruleA.dll"}) {
            CopyFileW(omktest::BuiltFile(omktest::kTestRulePlugin).c_str(), (kInstallFolder + L"\\" + name).c_str(),
                      FALSE);
        }
        for (const wchar_t* name : {L"actA.dll", L"actB.dll"}) {
            CopyFileW(omktest::BuiltFile(omktest::kTestActionPlugin).c_str(),
                      (kInstallFolder + L"\\" + name).c_str(), FALSE);
        }
    }

    void SetUp() override {
        omktest::WriteFileBytes(kInstallFolder + L"\\omkCollector.exe", "MZ");
        collector_.SetString(L"ImagePath", L"\"" + kInstallFolder + L"\\omkCollector.exe\"");
        CDef::ResetForTest();
        ASSERT_EQ(kInstallFolder, CDef::GetInstance().FOLDER_OMK_INSTALL_LOCATION);
        alertFolder_ = CDef::GetInstance().FOLDER_OMK_ALERT;
        RemoveAlertFiles();
        DeleteFileW((std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db").c_str());
        ruleKey_.Add(L"ruleA", kInstallFolder + L"\\ruleA.dll");
        actionKey_.Add(L"actA", kInstallFolder + L"\\actA.dll");
        actionKey_.Add(L"actB", kInstallFolder + L"\\actB.dll");
        for (auto* behaviour : {&ruleA_, &actA_, &actB_}) behaviour->SetCallLog(callLog_);
        DeleteFileW(callLog_.c_str());
        g_handleEventsPauseMs = 1000;
        allocStart_ = g_allocCount;
        log_.Mark();
    }

    void TearDown() override {
        Stop();
        RemoveAlertFiles();
    }

    void WriteRules(const std::string& body, const std::string& settings = "<CreateXmls>1</CreateXmls>") {
        ASSERT_TRUE(omktest::WriteFileBytes(kInstallFolder + L"\\insvcAlerts.xml",
                                            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Tolvane>" + settings +
                                                body + "</Tolvane>\r\n"));
    }

    DWORD Start() {
        started_ = true;
        return Tolvane_Init();
    }

    void Stop() {
        if (!started_) return;
        Tolvane_Term();
        Tolvane_ForgetStepsForTest();
        started_ = false;
    }

    std::vector<PluginCall> Calls() const { return omktest::ReadPluginCalls(callLog_); }

    // The calls made for events, without the start-up initialisers.
    std::vector<PluginCall> EventCalls() const {
        std::vector<PluginCall> calls;
        for (auto& call : Calls())
            if (call.function.find("_Initialize") == std::string::npos) calls.push_back(call);
        return calls;
    }

    // Waits until the action plugins have closed `events` evaluation passes; the
    // store of the last one may still be under way.
    bool WaitForEvents(size_t events) {
        return omktest::WaitFor([&] {
            size_t ends = 0;
            for (const auto& call : Calls())
                if (call.function == "Action_EndEvaluation" && call.module == "actA.dll") ++ends;
            return ends >= events;
        }, 20000);
    }

    std::vector<std::wstring> AlertFiles() const {
        std::vector<std::wstring> files;
        WIN32_FIND_DATAW found;
        HANDLE find = FindFirstFileW((alertFolder_ + L"\\*-ZORA_Alerts_*.xml").c_str(), &found);
        if (find == INVALID_HANDLE_VALUE) return files;
        do files.push_back(alertFolder_ + L"\\" + found.cFileName);
        while (FindNextFileW(find, &found));
        FindClose(find);
        return files;
    }

    void RemoveAlertFiles() {
        for (const auto& file : AlertFiles()) DeleteFileW(file.c_str());
    }

    // The stored alert for a file name, read through the database library.
    std::string StoredAlert(const std::wstring& fileName) {
        ULONGLONG creationTime = GetCreationTimeStampFromAlertFileName(fileName.c_str());
        std::string xml;
        if (!InitSqliteLib()) return xml;
        if (AlertDb_Open(1, 1)) {
            ALERT_DB_RECORD* record = nullptr;
            if (AlertDb_ReadByCreationTimeW(creationTime, &record) && record != nullptr) {
                xml = record->xml;
                free(record);
            }
            AlertDb_Close(1);
        }
        FreeSqliteLib();
        return xml;
    }

    omktest::ErrorLog log_{L"tolvane_test.txt"};
    omktest::ScopedRegKey collector_{HKEY_LOCAL_MACHINE, kCollectorKey};
    omktest::PluginKey ruleKey_{omktest::kRulePluginKey};
    omktest::PluginKey actionKey_{omktest::kActionPluginKey};
    omktest::TestPluginBehaviour ruleA_{L"ruleA.dll"};
    omktest::TestPluginBehaviour actA_{L"actA.dll"};
    omktest::TestPluginBehaviour actB_{L"actB.dll"};
    std::wstring callLog_ = kInstallFolder + L"\\calls.txt";
    std::wstring alertFolder_;
    int allocStart_ = 0;
    bool started_ = false;
};

TEST_F(Engine, TriggeredRuleEventIsStoredAndSignalled) {
    WriteRules(Rule("Type=\"ruleA\"", kGuid1, "<Action Type=\"actA\"/>") +
               Rule("Type=\"ruleA\"", kGuid2, "<Action Type=\"actB\"/>"));
    ASSERT_EQ(0u, Start()) << log_.Since();
    HANDLE alertEvent = OpenEventW(SYNCHRONIZE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
    ASSERT_NE(nullptr, alertEvent) << "everyone may wait on the alert-generated event";

    // Plugin id and GUID in other letter case still name the rule.
    AddToWorkQueue(omktest::RuleTriggeredItem(L"RULEA", L"{11111111-2222-3333-4444-555555555555}", L"Battery",
                                 {L"Design", L"Full"}, {L"52000", L"29000"}));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(alertEvent, 20000));
    CloseHandle(alertEvent);
    ASSERT_TRUE(WaitForEvents(1));
    Stop();

    std::vector<std::wstring> files = AlertFiles();
    ASSERT_EQ(1u, files.size()) << "CreateXmls 1 keeps the file";
    std::wstring name = files[0].substr(files[0].find_last_of(L'\\') + 1);
    EXPECT_EQ(0u, name.find(std::wstring(g_serviceTag) + L"-ZORA_Alerts_"));
    std::string stored = StoredAlert(name);
    EXPECT_EQ(omktest::ReadFileBytes(files[0]), stored);
    EXPECT_NE(std::string::npos, stored.find("<Battery>")) << stored;
    EXPECT_NE(std::string::npos, stored.find("52000")) << stored;
    EXPECT_NE(std::string::npos, stored.find(omktest::ToUtf8(kGuid1))) << stored;
    EXPECT_EQ(std::string::npos, stored.find(omktest::ToUtf8(kGuid2))) << "the other rule did not fire";

    // The collector named the rule: its plugin is not asked; only its action runs.
    // Teardown closes every plugin, actions first, before any is unloaded.
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_BeginEvaluation", "actB.dll Action_BeginEvaluation",
                                        "actA.dll Action_Execute", "actA.dll Action_EndEvaluation",
                                        "actB.dll Action_EndEvaluation", "actA.dll Action_CloseDll",
                                        "actB.dll Action_CloseDll", "ruleA.dll Rule_CloseDll", "actA.dll DllDetach",
                                        "actB.dll DllDetach", "ruleA.dll DllDetach"}),
              omktest::CallSequence(EventCalls()));
}

TEST_F(Engine, PluginCallOrderOnASummaryEvent) {
    WriteRules(Rule("OnSummary=\"1\" Type=\"ruleA\" TestTriggeredResult=\"0\"", kGuid1,
                    "<Action Type=\"actA\"/><Action Type=\"actB\"/>") +
               Rule("OnSummary=\"1\" Type=\"ruleA\" TestTriggeredResult=\"1\"", kGuid2, "<Action Type=\"actA\"/>") +
               Rule("OnSummary=\"1\" Type=\"NoSuchPlugin\"", L"{33333333-0000-0000-0000-000000000000}",
                    "<Action Type=\"actB\" Which=\"pluginless\"/>"));
    ASSERT_EQ(0u, Start()) << log_.Since();
    WORK_ITEM* item = omktest::NewWorkItem(WORK_SUMMARY_CREATED);
    AddToWorkQueue(item);
    ASSERT_TRUE(WaitForEvents(1));

    std::vector<PluginCall> calls = EventCalls();
    ASSERT_EQ(9u, calls.size());
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_BeginEvaluation", "actB.dll Action_BeginEvaluation",
                                        "ruleA.dll Rule_Triggered", "ruleA.dll Rule_Triggered",
                                        "actA.dll Action_Execute", "actB.dll Action_Execute",
                                        "actB.dll Action_Execute", "actA.dll Action_EndEvaluation",
                                        "actB.dll Action_EndEvaluation"}),
              omktest::CallSequence(calls));
    EXPECT_EQ(omktest::ToUtf8(kGuid1), calls[4].Get("rule.ruleGuid"));
    EXPECT_EQ("1", calls[4].Get("rule.triggered"));
    EXPECT_EQ("0", calls[4].Get("workItem.kind"));
    EXPECT_NE(std::string::npos, calls[6].Get("actionXml").find("pluginless"));
    EXPECT_TRUE(log_.Contains("EvaluateRule: rule {33333333-0000-0000-0000-000000000000} name rule "
                              "{33333333-0000-0000-0000-000000000000} does not have a plugin !"))
        << log_.Since();
    EXPECT_TRUE(AlertFiles().empty()) << "the engine writes no alert for a summary";
}

TEST_F(Engine, PeriodicDataReachesThePluginThroughTheRule) {
    WriteRules(Rule("OnPeriodicData=\"1\" Type=\"ruleA\" TestTriggeredResult=\"1\"", kGuid1, ""));
    ASSERT_EQ(0u, Start()) << log_.Since();
    WORK_ITEM* item = omktest::NewWorkItem(WORK_PERIODIC_DATA);
    item->u.periodicData.code = 4097;
    item->u.periodicData.subCode = 7;
    item->u.periodicData.timeStamp = 0x0102030405060708ULL;
    item->u.periodicData.dataLen = 3;
    item->u.periodicData.data = static_cast<unsigned char*>(malloc(3));
    ++g_allocCount;
    memcpy(item->u.periodicData.data, "\x01\xAB\xFF", 3);
    AddToWorkQueue(item);
    ASSERT_TRUE(WaitForEvents(1));

    std::vector<PluginCall> calls = EventCalls();
    ASSERT_EQ(5u, calls.size());
    const PluginCall& triggered = calls[2];
    EXPECT_EQ("Rule_Triggered", triggered.function);
    EXPECT_EQ("2", triggered.Get("workItem.kind"));
    EXPECT_EQ("4097", triggered.Get("workItem.code"));
    EXPECT_EQ("7", triggered.Get("workItem.subCode"));
    EXPECT_EQ("72623859790382856", triggered.Get("workItem.timeStamp"));
    EXPECT_EQ("3", triggered.Get("workItem.dataLen"));
    EXPECT_EQ("01abff", triggered.Get("workItem.data"));
    std::string alertGuid = triggered.Get("rule.alertGuid");
    GUID parsed;
    ASSERT_EQ(S_OK, CLSIDFromString(omktest::FromUtf8(alertGuid).c_str(), &parsed)) << alertGuid;
    wchar_t text[39];
    ASSERT_EQ(39, StringFromGUID2(parsed, text, 39));
    EXPECT_EQ(omktest::ToUtf8(text), alertGuid) << "the text form StringFromGUID2 gives";
    EXPECT_EQ(0u, triggered.Get("rule.alertFileName").find(omktest::ToUtf8(g_serviceTag) + "-ZORA_Alerts_"));
}

TEST_F(Engine, MaxTriggerPerBootAndActionResults) {
    WriteRules(Rule("MaxTriggerPerBoot=\"1\" Type=\"ruleA\"", kGuid1,
                    "<Action Type=\"actA\" TestExecuteResult=\"5\"/><Action Type=\"actB\" TestExecuteResult=\"12\"/>"),
               "<CreateXmls>0</CreateXmls>");
    actB_.Set(L"EndEvaluationResult", 7);
    ASSERT_EQ(0u, Start()) << log_.Since();
    AddToWorkQueue(omktest::RuleTriggeredItem(L"ruleA", kGuid1));
    AddToWorkQueue(omktest::RuleTriggeredItem(L"ruleA", kGuid1));
    ASSERT_TRUE(WaitForEvents(2));
    Stop();

    size_t executes = 0;
    for (const auto& call : Calls()) executes += call.function == "Action_Execute";
    EXPECT_EQ(2u, executes) << "two actions of the one trigger; the second event is over the limit";
    EXPECT_TRUE(log_.Contains("Action actA failed 0x5 in rule <Rule")) << log_.Since();
    EXPECT_FALSE(log_.Contains("Action actB failed 0xc")) << "12 is success";
    EXPECT_TRUE(log_.Contains("EndRuleEvaluation: EndEval Action actB failed 0x7")) << log_.Since();
    EXPECT_TRUE(AlertFiles().empty()) << "CreateXmls 0 removes the stored file";
    EXPECT_EQ(allocStart_, g_allocCount) << "every work item and rule freed";
}

TEST_F(Engine, StartUpFailuresAndTheirTeardown) {
    // No rule file in the install folder.
    DeleteFileW((kInstallFolder + L"\\insvcAlerts.xml").c_str());
    EXPECT_EQ(9u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("Tolvane_Init: Tolvane_LoadRuleDefinitions failed - G_STATUS 0x9")) << log_.Since();

    WriteRules("<Rule");
    EXPECT_EQ(7u, Start());
    Stop();

    // A failing rule initialiser: nothing is initialised or closed, everything unloaded.
    DeleteFileW(callLog_.c_str());
    WriteRules(Rule("Type=\"ruleA\"", kGuid1, "<Action Type=\"actA\"/>"),
               "<RuleConfig Type=\"ruleA\" TestInitializeResult=\"3\"/>");
    EXPECT_EQ(3u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("Tolvane_Init: InitRulePlugins failed 0x3"));
    // Only modules that recorded a call record their unloading.
    EXPECT_EQ((std::vector<std::string>{"ruleA.dll Rule_Initialize", "ruleA.dll DllDetach"}),
              omktest::CallSequence(Calls()));

    // A failing action initialiser: the rule plugins are closed, no action plugin is.
    DeleteFileW(callLog_.c_str());
    WriteRules(Rule("Type=\"ruleA\"", kGuid1, "<Action Type=\"actA\"/>"),
               "<ActionConfig Type=\"actB\" TestInitializeResult=\"4\"/>");
    EXPECT_EQ(4u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("InitActionPlugins: Failed to init plugin 1: actB - err 0x4"));
    EXPECT_TRUE(log_.Contains("Tolvane_Init: InitActionPlugins failed 0x4"));
    EXPECT_EQ((std::vector<std::string>{"ruleA.dll Rule_Initialize", "actA.dll Action_Initialize",
                                        "actB.dll Action_Initialize", "ruleA.dll Rule_CloseDll",
                                        "actA.dll DllDetach", "actB.dll DllDetach", "ruleA.dll DllDetach"}),
              omktest::CallSequence(Calls()));

    // No plugins registered at all.
    ruleKey_.~PluginKey();
    new (&ruleKey_) omktest::PluginKey(omktest::kRulePluginKey);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, omktest::kRulePluginKey);
    EXPECT_EQ(5u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("Tolvane_Init: LoadRulePlugins failed 0x5"));
    EXPECT_EQ(allocStart_, g_allocCount);
}

TEST_F(Engine, AnAlertThatIsNotXmlStaysUnstoredAndHandlingGoesOn) {
    WriteRules(Rule("Type=\"ruleA\"", kGuid1, "<Action Type=\"actA\"/>"));
    ASSERT_EQ(0u, Start()) << log_.Since();
    // Values are written unescaped: this one makes the alert file malformed.
    AddToWorkQueue(omktest::RuleTriggeredItem(L"ruleA", kGuid1, L"T", {L"n"}, {L"a < b & c"}));
    AddToWorkQueue(omktest::RuleTriggeredItem(L"ruleA", kGuid1, L"T", {L"n"}, {L"fine"}));
    ASSERT_TRUE(WaitForEvents(2)) << "handling goes on with the next event";
    Stop();  // the engine thread finishes the event under way, store included

    std::vector<std::wstring> files = AlertFiles();
    ASSERT_EQ(2u, files.size());
    const std::wstring bad = files[0].substr(files[0].find_last_of(L'\\') + 1);
    EXPECT_TRUE(log_.Contains("Tolvane_HandleEvents: AddToAlertDb " + omktest::ToUtf8(bad) + " failed") ||
                log_.Contains("Tolvane_HandleEvents: AddToAlertDb " +
                              omktest::ToUtf8(files[1].substr(files[1].find_last_of(L'\\') + 1)) + " failed"))
        << log_.Since();
    int stored = 0;
    for (const auto& file : files) stored += !StoredAlert(file.substr(file.find_last_of(L'\\') + 1)).empty();
    EXPECT_EQ(1, stored) << "only the well-formed alert is stored";
}

TEST(EngineWithoutStart, TermAloneOnlyReports) {
    omktest::ErrorLog log(L"tolvane_test_term.txt");
    EXPECT_EQ(0u, Tolvane_Term());
    Tolvane_ForgetStepsForTest();
    std::string text = log.Since();
    size_t first = text.find("RemoveFromWorkQueue: crit sect not initialized !");
    EXPECT_NE(std::string::npos, first) << text;
    EXPECT_EQ(std::string::npos, text.find("RemoveFromWorkQueue: crit sect not initialized !", first + 1));
    EXPECT_TRUE(log.Contains("CloseAlertGeneratedEvent: CloseHandle() err=")) << text;
}

}  // namespace
