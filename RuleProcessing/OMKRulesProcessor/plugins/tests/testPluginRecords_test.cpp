// The test plugin called directly, for what the engine's tests do not show of
// its call records and chosen behaviour: a triggered-rule event with its data
// items, escaped text, a null rule, the chosen delay and exception.
#include <gtest/gtest.h>

#include <windows.h>

#include <oleauto.h>

#include <chrono>

#include "omkPluginSdk.h"
#include "testPlugins.h"

namespace {

bool g_raised = false;
LONG WINAPI ContinueAfterTestException(EXCEPTION_POINTERS* info) {
    if (info->ExceptionRecord->ExceptionCode != 0xE0534D4B) return EXCEPTION_CONTINUE_SEARCH;
    g_raised = true;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST(TestPlugin, RecordsEachCallBeforeItsChosenDelayAndException) {
    omktest::TempFolder folder;
    const std::wstring path = folder.File(L"recA.dll");
    ASSERT_TRUE(CopyFileW(omktest::BuiltFile(omktest::kTestRulePlugin).c_str(), path.c_str(), FALSE));
    auto behaviour = std::make_unique<omktest::TestPluginBehaviour>(L"recA.dll");
    behaviour->SetCallLog(folder.File(L"calls.txt"));
    behaviour->Set(L"TriggeredResult", 3);
    behaviour->Set(L"CloseDllDelayMs", 60);
    behaviour->Set(L"CloseDllRaise", 0xE0534D4B);
    HMODULE module = LoadLibraryW(path.c_str());
    ASSERT_NE(nullptr, module);
    auto triggered = reinterpret_cast<PFN_Rule_Triggered>(GetProcAddress(module, "Rule_Triggered"));
    auto closeDll = reinterpret_cast<PFN_Rule_CloseDll>(GetProcAddress(module, "Rule_CloseDll"));

    WORK_ITEM item = {WORK_RULE_TRIGGERED, nullptr, {}};
    item.u.ruleTriggered = {const_cast<wchar_t*>(L"recA"), const_cast<wchar_t*>(L"{g}"), nullptr, 2,
                            omktest::BstrArray({L"Drive", L"Free"}), omktest::BstrArray({L"C:\\"}, 1)};
    RULE rule = {};
    rule.name = const_cast<wchar_t*>(L"Disk\tfull\r\n");
    rule.xml = const_cast<wchar_t*>(L"<R TestTriggeredResult=\"5\"/>");
    rule.workItem = &item;
    EXPECT_EQ(5u, triggered(&rule)) << "the rule's XML chooses the result";
    SafeArrayDestroy(item.u.ruleTriggered.dataItemName);
    SafeArrayDestroy(item.u.ruleTriggered.dataItemVal);
    EXPECT_EQ(3u, triggered(nullptr)) << "a null rule is recorded, not followed";
    void* handler = AddVectoredExceptionHandler(1, ContinueAfterTestException);
    auto start = std::chrono::steady_clock::now();
    closeDll();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(55));
    EXPECT_TRUE(g_raised);
    RemoveVectoredExceptionHandler(handler);
    behaviour = std::make_unique<omktest::TestPluginBehaviour>(L"recA.dll");  // no call log: nothing recorded
    closeDll();
    FreeLibrary(module);

    const std::string text = omktest::ReadFileBytes(folder.File(L"calls.txt"));
    const std::string tail =
        "\trule.name=Disk\\tfull\\r\\n\trule.descr=\\0\t"
        "rule.ruleGuid=\\0\trule.xml=<R TestTriggeredResult=\"5\"/>\trule.alertMsg=\\0\trule.maxTriggerPerBoot=0\t"
        "rule.numTriggers=0\trule.plugin=\\0\trule.actions=0\trule.triggered=0\trule.alertGuid=\trule.alertFileName=\t"
        "rule.removeAlertFiles=0\trule.maxAlertFiles=0\tworkItem.kind=1\tworkItem.rulePluginId=recA\t"
        "workItem.ruleGuid={g}\tworkItem.dataItemsEnclosingXmlTag=\\0\tworkItem.numDataItems=2\t"
        "workItem.dataItemName.count=2\tworkItem.dataItemName.0=Drive\tworkItem.dataItemName.1=Free\t"
        "workItem.dataItemVal.count=1\tworkItem.dataItemVal.0=C:\\\\\tresult=5\n"
        "recA.dll\tRule_Triggered\trule=\\0\tresult=3\nrecA.dll\tRule_CloseDll\n";
    ASSERT_GT(text.size(), tail.size());
    EXPECT_EQ(tail, text.substr(text.size() - tail.size()));
    EXPECT_EQ(0u, text.find("recA.dll\tRule_Triggered\trule.enabled=0\t"));
}

}  // namespace
