// The test plugins themselves, called directly: later tests of the engine rely
// on their call records and on the behaviour chosen for them.
#include <gtest/gtest.h>

#include <windows.h>

#include <oleauto.h>
#include <string.h>

#include <memory>

#include "omkPluginSdk.h"
#include "testPlugins.h"
#include "testSupport.h"

namespace {

using omktest::PluginCall;

// A copy of a test plugin loaded under its own name, with its behaviour and
// call log; unloaded before the scratch folder goes.
class TestPluginModule : public ::testing::Test {
protected:
    void Load(const wchar_t* builtName, const std::wstring& asName) {
        path_ = folder_.File(asName);
        ASSERT_TRUE(CopyFileW(omktest::BuiltFile(builtName).c_str(), path_.c_str(), FALSE));
        behaviour_.reset(new omktest::TestPluginBehaviour(asName));
        behaviour_->SetCallLog(callLog_);
        module_ = LoadLibraryW(path_.c_str());
        ASSERT_NE(nullptr, module_);
    }
    void TearDown() override {
        if (module_ != nullptr) FreeLibrary(module_);
    }
    template <typename Fn>
    Fn Export(const char* name) {
        return reinterpret_cast<Fn>(GetProcAddress(module_, name));
    }
    std::vector<PluginCall> Calls() const { return omktest::ReadPluginCalls(callLog_); }

    omktest::TempFolder folder_;
    std::wstring callLog_ = folder_.File(L"calls.txt");
    std::wstring path_;
    std::unique_ptr<omktest::TestPluginBehaviour> behaviour_;
    HMODULE module_ = nullptr;
};

// A rule as the parser and the engine leave it, with an action and an event.
struct SampleRule {
    SampleRule() {
        memset(&rule, '$', sizeof(rule));
        rule.enabled = 1;
        rule.onSummary = 0;
        rule.onPeriodicData = 1;
        rule.type = const_cast<wchar_t*>(L"recA");
        rule.platform = const_cast<wchar_t*>(L"All");
        rule.name = const_cast<wchar_t*>(L"Disk\tfull \\ \"almost\"");
        rule.descr = nullptr;
        rule.ruleGuid = const_cast<wchar_t*>(L"{0F6C1E0A-0000-4000-8000-000000000001}");
        rule.xml = const_cast<wchar_t*>(L"<Rule Type=\"recA\">\r\n\t<Name>x</Name>\n</Rule>");
        rule.alertMsg = const_cast<wchar_t*>(L"Gr\u00fc\u00dfe \u2013 \u8b66\u544a");
        rule.maxTriggerPerBoot = -3;
        rule.numTriggers = 4;
        rule.plugin = nullptr;
        rule.actions = &action;
        rule.next = nullptr;
        rule.triggered = 1;
        wcscpy(rule.alertGuid, L"{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}");
        wcscpy(rule.alertFileName, L"TAG-ZORA_Alerts_03032024140509.xml");
        rule.workItem = &item;
        rule.removeAlertFiles = 1;
        rule.maxAlertFiles = 30;

        action.xml = const_cast<wchar_t*>(L"<Action Type=\"act\"/>");
        action.type = const_cast<wchar_t*>(L"act");
        action.plugin = reinterpret_cast<ACTION_PLUGIN*>(&rule);  // any non-null record
        action.next = nullptr;

        memset(&item, '$', sizeof(item));
        item.kind = WORK_PERIODIC_DATA;
        item.next = nullptr;
        item.u.periodicData.code = 17;
        item.u.periodicData.subCode = 3;
        item.u.periodicData.timeStamp = 0x0123456789ULL;
        item.u.periodicData.dataLen = sizeof(bytes);
        item.u.periodicData.data = bytes;
    }
    RULE rule;
    RULE_ACTION action;
    WORK_ITEM item;
    unsigned char bytes[4] = {0x00, 0x7f, 0xa5, 0xff};
};

TEST_F(TestPluginModule, RuleTriggeredRecordsTheWholeRuleAndItsEvent) {
    Load(omktest::kTestRulePlugin, L"recA.dll");
    behaviour_->Set(L"TriggeredResult", 3);
    SampleRule sample;

    auto triggered = Export<PFN_Rule_Triggered>("Rule_Triggered");
    ASSERT_NE(nullptr, triggered);
    EXPECT_EQ(3u, triggered(&sample.rule));

    auto calls = Calls();
    ASSERT_EQ(1u, calls.size());
    const PluginCall& call = calls[0];
    EXPECT_EQ("recA.dll", call.module);
    EXPECT_EQ("Rule_Triggered", call.function);
    EXPECT_EQ("1", call.Get("rule.enabled"));
    EXPECT_EQ("0", call.Get("rule.onSummary"));
    EXPECT_EQ("1", call.Get("rule.onPeriodicData"));
    EXPECT_EQ("recA", call.Get("rule.type"));
    EXPECT_EQ("Disk\tfull \\ \"almost\"", call.Get("rule.name"));
    EXPECT_TRUE(call.IsNull("rule.descr"));
    EXPECT_EQ("<Rule Type=\"recA\">\r\n\t<Name>x</Name>\n</Rule>", call.Get("rule.xml"));
    EXPECT_EQ(omktest::ToUtf8(L"Gr\u00fc\u00dfe \u2013 \u8b66\u544a"), call.Get("rule.alertMsg"));
    EXPECT_EQ("-3", call.Get("rule.maxTriggerPerBoot"));
    EXPECT_EQ("4", call.Get("rule.numTriggers"));
    EXPECT_TRUE(call.IsNull("rule.plugin"));
    EXPECT_EQ("1", call.Get("rule.actions"));
    EXPECT_EQ("act", call.Get("rule.action.0.type"));
    EXPECT_EQ("<Action Type=\"act\"/>", call.Get("rule.action.0.xml"));
    EXPECT_EQ("set", call.Get("rule.action.0.plugin"));
    EXPECT_EQ("{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}", call.Get("rule.alertGuid"));
    EXPECT_EQ("TAG-ZORA_Alerts_03032024140509.xml", call.Get("rule.alertFileName"));
    EXPECT_EQ("1", call.Get("rule.removeAlertFiles"));
    EXPECT_EQ("30", call.Get("rule.maxAlertFiles"));
    EXPECT_EQ("2", call.Get("workItem.kind"));
    EXPECT_EQ("17", call.Get("workItem.code"));
    EXPECT_EQ("3", call.Get("workItem.subCode"));
    EXPECT_EQ("4886718345", call.Get("workItem.timeStamp"));
    EXPECT_EQ("4", call.Get("workItem.dataLen"));
    EXPECT_EQ("007fa5ff", call.Get("workItem.data"));
    EXPECT_EQ("3", call.Get("result"));
}

TEST_F(TestPluginModule, RuleTriggeredRecordsTheDataItemsOfATriggeredRuleEvent) {
    Load(omktest::kTestRulePlugin, L"recB.dll");
    SampleRule sample;
    sample.rule.xml = const_cast<wchar_t*>(L"<Rule Type=\"recB\" TestTriggeredResult=\"5\"/>");
    WORK_ITEM item;
    memset(&item, '$', sizeof(item));
    item.kind = WORK_RULE_TRIGGERED;
    item.next = nullptr;
    item.u.ruleTriggered.rulePluginId = const_cast<wchar_t*>(L"recB");
    item.u.ruleTriggered.ruleGuid = const_cast<wchar_t*>(L"{guid}");
    item.u.ruleTriggered.dataItemsEnclosingXmlTag = nullptr;
    item.u.ruleTriggered.numDataItems = 2;
    item.u.ruleTriggered.dataItemName = omktest::BstrArray({L"Drive", L"Free"});
    item.u.ruleTriggered.dataItemVal = omktest::BstrArray({L"C:", L"5%"});
    sample.rule.workItem = &item;

    EXPECT_EQ(5u, Export<PFN_Rule_Triggered>("Rule_Triggered")(&sample.rule)) << "the rule's XML chose 5";
    SafeArrayDestroy(item.u.ruleTriggered.dataItemName);
    SafeArrayDestroy(item.u.ruleTriggered.dataItemVal);

    auto calls = Calls();
    ASSERT_EQ(1u, calls.size());
    const PluginCall& call = calls[0];
    EXPECT_EQ("1", call.Get("workItem.kind"));
    EXPECT_EQ("recB", call.Get("workItem.rulePluginId"));
    EXPECT_EQ("{guid}", call.Get("workItem.ruleGuid"));
    EXPECT_TRUE(call.IsNull("workItem.dataItemsEnclosingXmlTag"));
    EXPECT_EQ("2", call.Get("workItem.numDataItems"));
    EXPECT_EQ("2", call.Get("workItem.dataItemName.count"));
    EXPECT_EQ("Drive", call.Get("workItem.dataItemName.0"));
    EXPECT_EQ("Free", call.Get("workItem.dataItemName.1"));
    EXPECT_EQ("C:", call.Get("workItem.dataItemVal.0"));
    EXPECT_EQ("5%", call.Get("workItem.dataItemVal.1"));

    // A null rule is recorded, not followed.
    EXPECT_EQ(0u, Export<PFN_Rule_Triggered>("Rule_Triggered")(nullptr));
    calls = Calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_TRUE(calls[1].IsNull("rule"));
}

TEST_F(TestPluginModule, ActionPluginRecordsEveryExportInCallOrder) {
    Load(omktest::kTestActionPlugin, L"actA.dll");
    behaviour_->Set(L"InitializeResult", 0);
    behaviour_->Set(L"EndEvaluationResult", 0x30);
    SampleRule sample;
    sample.item.kind = WORK_SUMMARY_CREATED;

    EXPECT_EQ(0u, Export<PFN_Action_Initialize>("Action_Initialize")(nullptr));
    Export<PFN_Action_BeginEvaluation>("Action_BeginEvaluation")();
    EXPECT_EQ(12u, Export<PFN_Action_Execute>("Action_Execute")(
                       &sample.rule, L"<Action Type=\"actA\" TestExecuteResult=\"12\">\n\t<To>x</To>\n</Action>"));
    EXPECT_EQ(0x30u, Export<PFN_Action_EndEvaluation>("Action_EndEvaluation")());
    Export<PFN_Action_CloseDll>("Action_CloseDll")();
    FreeLibrary(module_);
    module_ = nullptr;

    auto calls = Calls();
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_Initialize", "actA.dll Action_BeginEvaluation",
                                        "actA.dll Action_Execute", "actA.dll Action_EndEvaluation",
                                        "actA.dll Action_CloseDll", "actA.dll DllDetach"}),
              omktest::CallSequence(calls));
    EXPECT_TRUE(calls[0].IsNull("config"));
    EXPECT_EQ("<Action Type=\"actA\" TestExecuteResult=\"12\">\n\t<To>x</To>\n</Action>", calls[2].Get("actionXml"));
    EXPECT_EQ("0", calls[2].Get("workItem.kind"));
    EXPECT_FALSE(calls[2].Has("workItem.code")) << "a summary event has no payload";
    EXPECT_EQ("12", calls[2].Get("result"));
    EXPECT_EQ("48", calls[3].Get("result"));
}

DWORD g_raisedCode = 0;
LONG WINAPI ContinueAfterTestException(EXCEPTION_POINTERS* info) {
    if (info->ExceptionRecord->ExceptionCode != 0xE0534D4B) return EXCEPTION_CONTINUE_SEARCH;
    g_raisedCode = info->ExceptionRecord->ExceptionCode;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST_F(TestPluginModule, ChosenDelayAndExceptionHappenAfterTheCallIsRecorded) {
    Load(omktest::kTestRulePlugin, L"slow.dll");
    behaviour_->Set(L"InitializeDelayMs", 200);
    behaviour_->Set(L"InitializeRaise", 0xE0534D4B);
    void* handler = AddVectoredExceptionHandler(1, ContinueAfterTestException);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(9u, Export<PFN_Rule_Initialize>("Rule_Initialize")(L"<RuleConfig TestInitializeResult=\"9\"/>"));
    ULONGLONG elapsed = GetTickCount64() - start;
    RemoveVectoredExceptionHandler(handler);

    EXPECT_EQ(0xE0534D4Bu, g_raisedCode);
    EXPECT_GE(elapsed, 150u);
    auto calls = Calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("<RuleConfig TestInitializeResult=\"9\"/>", calls[0].Get("config"));
}

TEST_F(TestPluginModule, NothingIsRecordedWithoutACallLogAndVariantsLackTheirExport) {
    Load(omktest::kTestRulePlugin, L"quiet.dll");
    behaviour_.reset(new omktest::TestPluginBehaviour(L"quiet.dll"));  // no call log any more
    EXPECT_EQ(0u, Export<PFN_Rule_Initialize>("Rule_Initialize")(nullptr));
    EXPECT_FALSE(omktest::FileExists(callLog_));

    HMODULE noTriggered = LoadLibraryW(omktest::BuiltFile(omktest::kTestRulePluginNoTriggered).c_str());
    ASSERT_NE(nullptr, noTriggered);
    EXPECT_EQ(nullptr, GetProcAddress(noTriggered, "Rule_Triggered"));
    EXPECT_NE(nullptr, GetProcAddress(noTriggered, "Rule_CloseDll"));
    FreeLibrary(noTriggered);
    HMODULE noEndEval = LoadLibraryW(omktest::BuiltFile(omktest::kTestActionPluginNoEndEval).c_str());
    ASSERT_NE(nullptr, noEndEval);
    EXPECT_EQ(nullptr, GetProcAddress(noEndEval, "Action_EndEvaluation"));
    EXPECT_NE(nullptr, GetProcAddress(noEndEval, "Action_Execute"));
    FreeLibrary(noEndEval);
}

}  // namespace
