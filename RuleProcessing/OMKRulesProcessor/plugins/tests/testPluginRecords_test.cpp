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

DWORD g_raisedCode = 0;
LONG WINAPI ContinueAfterTestException(EXCEPTION_POINTERS* info) {
    if (info->ExceptionRecord->ExceptionCode != 0xE0534D4B) return EXCEPTION_CONTINUE_SEARCH;
    g_raisedCode = info->ExceptionRecord->ExceptionCode;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST(TestPlugin, RecordsEachCallBeforeItsChosenDelayAndException) {
    omktest::TempFolder folder;
    const std::wstring callLog = folder.File(L"calls.txt");
    const std::wstring path = folder.File(L"recA.dll");
    ASSERT_TRUE(CopyFileW(omktest::BuiltFile(omktest::kTestRulePlugin).c_str(), path.c_str(), FALSE));
    auto behaviour = std::make_unique<omktest::TestPluginBehaviour>(L"recA.dll");
    behaviour->SetCallLog(callLog);
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
    auto elapsed = std::chrono::steady_clock::now() - start;
    RemoveVectoredExceptionHandler(handler);
    EXPECT_EQ(0xE0534D4Bu, g_raisedCode);
    EXPECT_GE(elapsed, std::chrono::milliseconds(55));
    behaviour = std::make_unique<omktest::TestPluginBehaviour>(L"recA.dll");  // no call log: nothing recorded
    closeDll();
    FreeLibrary(module);

    std::string text = omktest::ReadFileBytes(callLog);
    for (const char* line : {"\trule.name=Disk\\tfull\\r\\n\t", "\trule.descr=\\0\t",
                             "\tworkItem.kind=1\tworkItem.rulePluginId=recA\tworkItem.ruleGuid={g}\t"
                             "workItem.dataItemsEnclosingXmlTag=\\0\tworkItem.numDataItems=2\t"
                             "workItem.dataItemName.count=2\tworkItem.dataItemName.0=Drive\t"
                             "workItem.dataItemName.1=Free\tworkItem.dataItemVal.count=1\t"
                             "workItem.dataItemVal.0=C:\\\\\tresult=5\n"
                             "recA.dll\tRule_Triggered\trule=\\0\tresult=3\nrecA.dll\tRule_CloseDll\n"}) {
        EXPECT_NE(std::string::npos, text.find(line)) << line << " in " << text;
    }
    EXPECT_EQ(0u, text.find("recA.dll\tRule_Triggered\trule.enabled=0\t"));
    auto calls = omktest::ReadPluginCalls(callLog);
    ASSERT_EQ(3u, calls.size()) << "the log ends with the first close";
    EXPECT_EQ("Disk\tfull\r\n", calls[0].Get("rule.name"));
    EXPECT_EQ("C:\\", calls[0].Get("workItem.dataItemVal.0"));
    EXPECT_TRUE(calls[0].IsNull("rule.descr"));
    EXPECT_FALSE(calls[0].IsNull("rule.name"));
}

}  // namespace
