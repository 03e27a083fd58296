// The plugin SDK library beside the engine's own alert writing, in one process.
#include <gtest/gtest.h>

#include "alertRecord.h"
#include "cdef.h"
#include "conventions.h"
#include "eventHandling.h"
#include "omkPluginSdk.h"
#include "testSupport.h"

namespace {

void WINAPI FixedLocalTime(LPSYSTEMTIME time) { *time = SYSTEMTIME{2024, 3, 0, 3, 14, 5, 9, 0}; }
DWORD WINAPI FixedTimeZone(LPTIME_ZONE_INFORMATION zone) {
    *zone = TIME_ZONE_INFORMATION{};
    zone->Bias = -60;
    return TIME_ZONE_ID_UNKNOWN;
}

struct TestRule : RULE {
    explicit TestRule(const wchar_t* fileName) : RULE{} {
        name = const_cast<wchar_t*>(L"Thermal throttling");
        type = const_cast<wchar_t*>(L"OMKCollectorRules");
        ruleGuid = const_cast<wchar_t*>(L"{9A8B7C6D-5E4F-4321-8765-43210FEDCB63}");
        alertMsg = const_cast<wchar_t*>(L"The processor throttled because of heat.");
        wcscpy(alertGuid, L"{11111111-2222-3333-4444-555555555555}");
        wcscpy(alertFileName, fileName);
    }
};

std::wstring AlertPath(const wchar_t* fileName) {
    return std::wstring(CDef::GetInstance().FOLDER_OMK_ALERT) + L"\\" + fileName;
}

// Two alerts each, so that both the new file and the append are compared.
TEST(PluginSdk, RaisedAlertIsTheEnginesAlertByteForByte) {
    Alert_SetClock(FixedLocalTime, FixedTimeZone);
    wcscpy(g_serviceTag, L"ABC1234");  // as the service's start-up sets it
    TestRule engineRule(L"ABC1234-ZORA_Alerts_sdkEngine.xml");
    TestRule sdkRule(L"ABC1234-ZORA_Alerts_sdkPlugin.xml");
    for (const wchar_t* file : {engineRule.alertFileName, sdkRule.alertFileName}) DeleteFileW(AlertPath(file).c_str());

    SAFEARRAY* names = omktest::BstrArray({L"Code", L"Data"});
    SAFEARRAY* values = omktest::BstrArray({L"4097", L"5A 01 64 00"});
    Rule_LogAlert(&engineRule, L"PeriodicData", 2, names, values);
    Rule_LogAlert(&engineRule, nullptr, 0, nullptr, nullptr);
    SafeArrayDestroy(names);
    SafeArrayDestroy(values);

    const int liveBlocks = g_allocCount;
    const OMK_ALERT_ITEM items[] = {{L"Code", L"4097"}, {L"Data", L"5A 01 64 00"}};
    EXPECT_EQ(0u, OmkSdk_RaiseAlert(&sdkRule, L"PeriodicData", items, 2));
    EXPECT_EQ(0u, OmkSdk_RaiseAlert(&sdkRule, nullptr, nullptr, 0));
    EXPECT_EQ(liveBlocks, g_allocCount);
    Alert_SetClock(nullptr, nullptr);

    const std::string engine = omktest::ReadFileBytes(AlertPath(engineRule.alertFileName));
    const std::string sdk = omktest::ReadFileBytes(AlertPath(sdkRule.alertFileName));
    EXPECT_EQ(engine, sdk);
    // The head's bytes are the alert writer's test; here the items follow it.
    EXPECT_NE(std::string::npos, sdk.find("</Message>\r\n\t\t<PeriodicData>\r\n\t\t<Code>4097</Code>\r\n")) << sdk;
    for (const wchar_t* file : {engineRule.alertFileName, sdkRule.alertFileName}) DeleteFileW(AlertPath(file).c_str());
}

TEST(PluginSdk, RaiseAlertRefusesWhatItCannotWrite) {
    omktest::ErrorLog log(L"pluginSdk_test.txt");
    TestRule noMessage(L"ABC1234-ZORA_Alerts_sdkRefused.xml");
    noMessage.alertMsg = nullptr;
    TestRule noFile(L"");
    const OMK_ALERT_ITEM item = {L"Code", L"1"};
    EXPECT_EQ(static_cast<unsigned int>(ERROR_INVALID_PARAMETER), OmkSdk_RaiseAlert(nullptr, nullptr, &item, 1));
    EXPECT_EQ(static_cast<unsigned int>(ERROR_INVALID_PARAMETER), OmkSdk_RaiseAlert(&noFile, nullptr, nullptr, 1));
    EXPECT_EQ(static_cast<unsigned int>(ERROR_INVALID_DATA), OmkSdk_RaiseAlert(&noMessage, nullptr, &item, 1));
    EXPECT_EQ(static_cast<unsigned int>(ERROR_INVALID_DATA), OmkSdk_RaiseAlert(&noFile, nullptr, &item, 1));
    EXPECT_FALSE(omktest::FileExists(AlertPath(noMessage.alertFileName)));
    EXPECT_TRUE(log.Contains("OmkSdk_RaiseAlert: Rule Thermal throttling is missing the alert msg !!")) << log.Since();
    EXPECT_TRUE(log.Contains("OmkSdk_RaiseAlert: Rule Thermal throttling has no alert file name")) << log.Since();
}

struct TextCase {
    const wchar_t* xml;
    const wchar_t* element;
    const wchar_t* attribute;
    unsigned int result;
    const wchar_t* text;
};

TEST(PluginSdk, ReadConfigTextFindsValuesAndRefusesBadInput) {
    const TextCase cases[] = {
        {L"<ActionConfig Type=\"OMKActionLog\"><Log> a.txt </Log></ActionConfig>", L"Log", nullptr, 0, L"a.txt"},
        {L"<ActionConfig Type=\" Log \"/>", nullptr, L"Type", 0, L"Log"},
        {L"<Rule><Match Code=\"0x10\"/></Rule>", L"Match", L"Code", 0, L"0x10"},
        {L"<C><A><B>deep</B></A></C>", L"A/B", nullptr, 0, L"deep"},
        {L"<C><Log/></C>", L"Log", nullptr, 0, L""},
        {L"<C><Other>1</Other></C>", L"Log", nullptr, ERROR_NOT_FOUND, L""},
        {L"<C><Log>1</Log></C>", L"Log", L"Size", ERROR_NOT_FOUND, L""},
        {nullptr, L"Log", nullptr, ERROR_NOT_FOUND, L""},
        {L"<C><Log>x</C>", L"Log", nullptr, ERROR_INVALID_DATA, L""},
        {L"<C><Log>far too long</Log></C>", L"Log", nullptr, ERROR_INSUFFICIENT_BUFFER, L""},
        {L"<C><Log>x</Log></C>", L"Log|//*", nullptr, ERROR_INVALID_PARAMETER, L""},
    };
    for (const TextCase& c : cases) {
        wchar_t buffer[8] = L"stale";
        EXPECT_EQ(c.result, OmkSdk_ReadConfigText(c.xml, c.element, c.attribute, buffer, 8))
            << (c.xml ? omktest::ToUtf8(c.xml) : "null") << " " << omktest::ToUtf8(c.element ? c.element : L"");
        EXPECT_STREQ(c.text, buffer);
    }
}

struct NumberCase {
    const wchar_t* text;
    unsigned long long max;
    unsigned int result;
    unsigned long long value;
};

TEST(PluginSdk, ParseNumberTakesDecimalAndHexWithinItsLimit) {
    const NumberCase cases[] = {
        {L"42", 255, 0, 42},
        {L" 0x2a ", 255, 0, 42},
        {L"18446744073709551615", ~0ull, 0, ~0ull},
        {L"256", 255, ERROR_ARITHMETIC_OVERFLOW, 0},
        {L"18446744073709551616", ~0ull, ERROR_ARITHMETIC_OVERFLOW, 0},
        {L"1 2", 255, ERROR_INVALID_DATA, 0},
        {L"12a", 255, ERROR_INVALID_DATA, 0},
    };
    for (const NumberCase& c : cases) {
        unsigned long long value = 0;
        EXPECT_EQ(c.result, OmkSdk_ParseNumber(c.text, c.max, &value)) << omktest::ToUtf8(c.text);
        EXPECT_EQ(c.value, value) << omktest::ToUtf8(c.text);
    }
}

}  // namespace
