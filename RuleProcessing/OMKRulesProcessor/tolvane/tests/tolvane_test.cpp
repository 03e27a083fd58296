// The real engine with signed test plugins, driven by queued events.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>

#include "alertDatabase.h"
#include "cdef.h"
#include "conventions.h"
#include "engineTestSupport.h"
#include "eventHandling.h"
#include "testPlugins.h"
#include "tolvaneInit.h"
#include "workQueue.h"

namespace {

using omktest::PluginCall;

// Short, because the loaders read at most 129 characters of a plugin path.
const std::wstring kInstallFolder = L"C:\\omkeng";
const wchar_t kCollectorKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
const wchar_t kGuid1[] = L"{11111111-2222-3333-4444-555555555555}";
const wchar_t kGuid2[] = L"{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}";
const wchar_t kGuid3[] = L"{44444444-0000-0000-0000-000000000000}";

std::string Rule(const std::string& attributes, const std::wstring& guid, const std::string& children) {
    return "<Rule " + attributes + "><Name>rule " + omktest::ToUtf8(guid) + "</Name><Descr>d</Descr><RuleGuid>" +
           omktest::ToUtf8(guid) + "</RuleGuid><AlertMsg>alert message</AlertMsg>" + children + "</Rule>";
}

class Engine : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        CreateDirectoryW(kInstallFolder.c_str(), nullptr);
        const std::wstring action = omktest::BuiltFile(omktest::kTestActionPlugin);
        CopyFileW(omktest::BuiltFile(omktest::kTestRulePlugin).c_str(), (kInstallFolder + L"\\ruleA.dll").c_str(),
                  FALSE);
        CopyFileW(action.c_str(), (kInstallFolder + L"\\actA.dll").c_str(), FALSE);
        CopyFileW(action.c_str(), (kInstallFolder + L"\\actB.dll").c_str(), FALSE);
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
        // No two events here write alerts in the same second: the pause between them can go.
        g_handleEventsPauseMs = 0;
        allocStart_ = g_allocCount;
        log_.Mark();
    }

    void TearDown() override {
        Stop();
        RemoveAlertFiles();
    }

    void WriteRules(const std::string& body, const std::string& settings = "<CreateXmls>1</CreateXmls>") {
        ASSERT_TRUE(omktest::WriteFileBytes(
            kInstallFolder + L"\\insvcAlerts.xml",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Tolvane>" + settings + body + "</Tolvane>\r\n"));
    }

    // After a start-up that succeeds the call log holds what follows it only.
    DWORD Start() {
        started_ = true;
        DWORD status = Tolvane_Init();
        if (status == 0) DeleteFileW(callLog_.c_str());
        return status;
    }

    void Stop() {
        if (!started_) return;
        Tolvane_Term();
        Tolvane_ForgetStepsForTest();
        started_ = false;
    }

    std::vector<PluginCall> Calls() const { return omktest::ReadPluginCalls(callLog_); }

    // Waits until the last action plugin has closed `events` evaluation passes;
    // the store of the last one may still be under way.
    bool WaitForEvents(long events) {
        return omktest::WaitFor(
            [&] {
                std::vector<std::string> calls = omktest::CallSequence(Calls());
                return std::count(calls.begin(), calls.end(), "actB.dll Action_EndEvaluation") >= events;
            },
            20000);
    }

    std::vector<std::wstring> AlertFiles() const {
        std::vector<std::wstring> files = omktest::FilesMatching(alertFolder_ + L"\\*-ZORA_Alerts_*.xml");
        for (std::wstring& file : files) file = alertFolder_ + L"\\" + file;
        return files;
    }

    void RemoveAlertFiles() {
        for (const auto& file : AlertFiles()) DeleteFileW(file.c_str());
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
    ASSERT_EQ(1u, files.size()) << "CreateXmls 1 keeps the stored file";
    EXPECT_NE(std::wstring::npos, files[0].find(L"\\" + std::wstring(g_serviceTag) + L"-ZORA_Alerts_"));
    const std::string alert = omktest::ReadFileBytes(files[0]);
    for (const std::string& part : {std::string("<Battery>"), std::string("52000"), omktest::ToUtf8(kGuid1)}) {
        EXPECT_NE(std::string::npos, alert.find(part)) << part << "\n" << alert;
    }
    EXPECT_EQ(std::string::npos, alert.find(omktest::ToUtf8(kGuid2))) << "the other rule did not fire";

    // The collector named the rule: its plugin is not asked; only its action runs.
    // Teardown closes every plugin, actions first, before any is unloaded.
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_BeginEvaluation", "actB.dll Action_BeginEvaluation",
                                        "actA.dll Action_Execute", "actA.dll Action_EndEvaluation",
                                        "actB.dll Action_EndEvaluation", "actA.dll Action_CloseDll",
                                        "actB.dll Action_CloseDll", "ruleA.dll Rule_CloseDll", "actA.dll DllDetach",
                                        "actB.dll DllDetach", "ruleA.dll DllDetach"}),
              omktest::CallSequence(Calls()));
}

TEST_F(Engine, PluginCallsOnSummaryAndPeriodicEvents) {
    WriteRules(Rule("OnSummary=\"1\" Type=\"ruleA\" TestTriggeredResult=\"0\"", kGuid1,
                    "<Action Type=\"actA\"/><Action Type=\"actB\"/>") +
               Rule("OnSummary=\"1\" Type=\"ruleA\" TestTriggeredResult=\"1\"", kGuid2, "<Action Type=\"actA\"/>") +
               Rule("OnPeriodicData=\"1\" Type=\"ruleA\" TestTriggeredResult=\"1\"", kGuid3, "") +
               Rule("OnSummary=\"1\" Type=\"NoSuchPlugin\"", L"{33333333-0000-0000-0000-000000000000}",
                    "<Action Type=\"actB\" Which=\"pluginless\"/>"));
    ASSERT_EQ(0u, Start()) << log_.Since();
    AddToWorkQueue(omktest::NewWorkItem(WORK_SUMMARY_CREATED));
    WORK_ITEM* item = omktest::NewWorkItem(WORK_PERIODIC_DATA);
    item->u.periodicData.code = 4097;
    item->u.periodicData.subCode = 7;
    item->u.periodicData.timeStamp = 0x0102030405060708ULL;
    item->u.periodicData.dataLen = 3;
    item->u.periodicData.data = static_cast<unsigned char*>(malloc(3));
    ++g_allocCount;
    memcpy(item->u.periodicData.data, "\x01\xAB\xFF", 3);
    AddToWorkQueue(item);
    ASSERT_TRUE(WaitForEvents(2));

    std::vector<PluginCall> calls = Calls();
    ASSERT_EQ((std::vector<std::string>{
                  "actA.dll Action_BeginEvaluation", "actB.dll Action_BeginEvaluation", "ruleA.dll Rule_Triggered",
                  "ruleA.dll Rule_Triggered", "actA.dll Action_Execute", "actB.dll Action_Execute",
                  "actB.dll Action_Execute", "actA.dll Action_EndEvaluation", "actB.dll Action_EndEvaluation",
                  "actA.dll Action_BeginEvaluation", "actB.dll Action_BeginEvaluation", "ruleA.dll Rule_Triggered",
                  "actA.dll Action_EndEvaluation", "actB.dll Action_EndEvaluation"}),
              omktest::CallSequence(calls));
    EXPECT_EQ(omktest::ToUtf8(kGuid1), calls[4].Get("rule.ruleGuid"));
    EXPECT_EQ("1", calls[4].Get("rule.triggered"));
    EXPECT_EQ("0", calls[4].Get("workItem.kind"));
    EXPECT_NE(std::string::npos, calls[6].Get("actionXml").find("pluginless"));
    EXPECT_TRUE(
        log_.Contains("EvaluateRule: rule {33333333-0000-0000-0000-000000000000} name rule "
                      "{33333333-0000-0000-0000-000000000000} does not have a plugin !"))
        << log_.Since();
    // The periodic record reaches the plugin through the rule's work item, with
    // a new alert GUID in the text form StringFromGUID2 gives.
    const PluginCall& periodic = calls[11];
    EXPECT_EQ(omktest::ToUtf8(kGuid3), periodic.Get("rule.ruleGuid"));
    std::string record;
    for (const char* field : {"kind", "code", "subCode", "timeStamp", "dataLen", "data"})
        record += periodic.Get(std::string("workItem.") + field) + " ";
    EXPECT_EQ("2 4097 7 72623859790382856 3 01abff ", record);
    GUID parsed;
    wchar_t text[39] = L"";
    EXPECT_EQ(S_OK, CLSIDFromString(omktest::FromUtf8(periodic.Get("rule.alertGuid")).c_str(), &parsed));
    EXPECT_EQ(omktest::ToUtf8((StringFromGUID2(parsed, text, 39), text)), periodic.Get("rule.alertGuid"));
    EXPECT_EQ(0u, periodic.Get("rule.alertFileName").find(omktest::ToUtf8(g_serviceTag) + "-ZORA_Alerts_"));
    EXPECT_TRUE(AlertFiles().empty()) << "the engine writes no alert for these events";
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
    // No rule file in the install folder, then one that is no XML.
    DeleteFileW((kInstallFolder + L"\\insvcAlerts.xml").c_str());
    EXPECT_EQ(9u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("Tolvane_LoadRuleDefinitions: Failed to read file C:\\omkeng\\insvcAlerts.xml\r\n"));
    EXPECT_TRUE(log_.Contains("Tolvane_Init: Tolvane_LoadRuleDefinitions failed - G_STATUS 0x9")) << log_.Since();
    WriteRules("<Rule");
    EXPECT_EQ(7u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("Tolvane_LoadRuleDefinitions: ParseRuleDefinitions failed")) << log_.Since();

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
                                        "actB.dll Action_Initialize", "ruleA.dll Rule_CloseDll", "actA.dll DllDetach",
                                        "actB.dll DllDetach", "ruleA.dll DllDetach"}),
              omktest::CallSequence(Calls()));

    // No rule plugins registered at all.
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, omktest::kRulePluginKey);
    EXPECT_EQ(5u, Start());
    Stop();
    EXPECT_TRUE(log_.Contains("Tolvane_Init: LoadRulePlugins failed 0x5"));
    EXPECT_EQ(allocStart_, g_allocCount);
}

}  // namespace
