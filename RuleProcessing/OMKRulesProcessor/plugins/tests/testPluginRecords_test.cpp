// The test plugins themselves, called directly: what the tests of the engine
// do not show of their call records and of the behaviour chosen for them.
#include <gtest/gtest.h>

#include <windows.h>

#include <memory>

#include "omkPluginSdk.h"
#include "testPlugins.h"

namespace {

// A copy of a test plugin loaded under its own name, with its behaviour and
// call log; unloaded before the scratch folder goes.
class TestPluginModule : public ::testing::Test {
protected:
    void Load(const wchar_t* builtName, const std::wstring& asName) {
        ASSERT_TRUE(CopyFileW(omktest::BuiltFile(builtName).c_str(), folder_.File(asName).c_str(), FALSE));
        behaviour_.reset(new omktest::TestPluginBehaviour(asName));
        behaviour_->SetCallLog(callLog_);
        module_ = LoadLibraryW(folder_.File(asName).c_str());
        ASSERT_NE(nullptr, module_);
    }
    void TearDown() override {
        if (module_ != nullptr) FreeLibrary(module_);
    }
    template <typename Fn>
    Fn Export(const char* name) {
        return reinterpret_cast<Fn>(GetProcAddress(module_, name));
    }
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::string text = omktest::ReadFileBytes(callLog_);
        for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
            lines.push_back(text.substr(start, end - start));
        }
        return lines;
    }

    omktest::TempFolder folder_;
    std::wstring callLog_ = folder_.File(L"calls.txt");
    std::unique_ptr<omktest::TestPluginBehaviour> behaviour_;
    HMODULE module_ = nullptr;
};

TEST_F(TestPluginModule, RuleTriggeredRecordsATriggeredRuleEventAndEscapesText) {
    Load(omktest::kTestRulePlugin, L"recA.dll");
    behaviour_->Set(L"TriggeredResult", 3);
    WORK_ITEM item = {WORK_RULE_TRIGGERED, nullptr, {}};
    item.u.ruleTriggered = {const_cast<wchar_t*>(L"recA"), const_cast<wchar_t*>(L"{g}"), nullptr, 2,
                            omktest::BstrArray({L"Drive", L"Free"}), omktest::BstrArray({L"C:\\"}, 1)};
    RULE rule = {};
    rule.name = const_cast<wchar_t*>(L"Disk\tfull\r\n");
    rule.xml = const_cast<wchar_t*>(L"<R TestTriggeredResult=\"5\"/>");
    rule.workItem = &item;
    auto triggered = Export<PFN_Rule_Triggered>("Rule_Triggered");
    EXPECT_EQ(5u, triggered(&rule)) << "the rule's XML chooses the result";
    SafeArrayDestroy(item.u.ruleTriggered.dataItemName);
    SafeArrayDestroy(item.u.ruleTriggered.dataItemVal);
    EXPECT_EQ(3u, triggered(nullptr)) << "a null rule is recorded, not followed";

    auto lines = Lines();
    ASSERT_EQ(2u, lines.size());
    for (const char* field : {"\trule.name=Disk\\tfull\\r\\n\t", "\trule.descr=\\0\t",
                              "\tworkItem.kind=1\tworkItem.rulePluginId=recA\tworkItem.ruleGuid={g}\t"
                              "workItem.dataItemsEnclosingXmlTag=\\0\tworkItem.numDataItems=2\t"
                              "workItem.dataItemName.count=2\tworkItem.dataItemName.0=Drive\t"
                              "workItem.dataItemName.1=Free\tworkItem.dataItemVal.count=1\t"
                              "workItem.dataItemVal.0=C:\\\\\tresult=5"}) {
        EXPECT_NE(std::string::npos, lines[0].find(field)) << field << " in " << lines[0];
    }
    EXPECT_EQ("recA.dll\tRule_Triggered\trule=\\0\tresult=3", lines[1]);
    auto calls = omktest::ReadPluginCalls(callLog_);
    EXPECT_EQ("Disk\tfull\r\n", calls[0].Get("rule.name"));
    EXPECT_EQ("C:\\", calls[0].Get("workItem.dataItemVal.0"));
    EXPECT_TRUE(calls[0].IsNull("rule.descr"));
    EXPECT_FALSE(calls[0].IsNull("rule.name"));
}

TEST_F(TestPluginModule, ActionPluginRecordsEveryExportInCallOrder) {
    Load(omktest::kTestActionPlugin, L"actA.dll");
    behaviour_->Set(L"EndEvaluationResult", 0x30);
    EXPECT_EQ(0u, Export<PFN_Action_Initialize>("Action_Initialize")(nullptr));
    Export<PFN_Action_BeginEvaluation>("Action_BeginEvaluation")();
    EXPECT_EQ(12u, Export<PFN_Action_Execute>("Action_Execute")(nullptr, L"<A TestExecuteResult=\"12\"/>"));
    EXPECT_EQ(0x30u, Export<PFN_Action_EndEvaluation>("Action_EndEvaluation")());
    Export<PFN_Action_CloseDll>("Action_CloseDll")();
    FreeLibrary(module_);
    module_ = nullptr;

    EXPECT_EQ((std::vector<std::string>{"actA.dll\tAction_Initialize\tconfig=\\0\tresult=0",
                                        "actA.dll\tAction_BeginEvaluation",
                                        "actA.dll\tAction_Execute\tactionXml=<A TestExecuteResult=\"12\"/>\trule=\\0\t"
                                        "result=12",
                                        "actA.dll\tAction_EndEvaluation\tresult=48", "actA.dll\tAction_CloseDll",
                                        "actA.dll\tDllDetach"}),
              Lines());
}

DWORD g_raisedCode = 0;
LONG WINAPI ContinueAfterTestException(EXCEPTION_POINTERS* info) {
    if (info->ExceptionRecord->ExceptionCode != 0xE0534D4B) return EXCEPTION_CONTINUE_SEARCH;
    g_raisedCode = info->ExceptionRecord->ExceptionCode;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST_F(TestPluginModule, DelayAndExceptionComeAfterTheRecordAndNoLogRecordsNothing) {
    Load(omktest::kTestRulePlugin, L"slow.dll");
    behaviour_->Set(L"InitializeDelayMs", 60);
    behaviour_->Set(L"InitializeRaise", 0xE0534D4B);
    void* handler = AddVectoredExceptionHandler(1, ContinueAfterTestException);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(9u, Export<PFN_Rule_Initialize>("Rule_Initialize")(L"<C TestInitializeResult=\"9\"/>"));
    ULONGLONG elapsed = GetTickCount64() - start;
    RemoveVectoredExceptionHandler(handler);
    EXPECT_EQ(0xE0534D4Bu, g_raisedCode);
    EXPECT_GE(elapsed, 45u);

    behaviour_.reset();
    behaviour_.reset(new omktest::TestPluginBehaviour(L"slow.dll"));  // no call log any more
    Export<PFN_Rule_CloseDll>("Rule_CloseDll")();
    FreeLibrary(module_);
    module_ = nullptr;
    EXPECT_EQ(std::vector<std::string>{"slow.dll\tRule_Initialize\tconfig=<C TestInitializeResult=\"9\"/>\tresult=9"},
              Lines());
}

}  // namespace
