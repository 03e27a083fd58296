// The alert element as it reaches the file, with the clock and time zone
// chosen by the test.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "alertFileFixture.h"
#include "alertRecord.h"
#include "testSupport.h"

namespace {

using alerttest::CloseTail;
using alerttest::NewFileHead;

// The clock the writer sees: 3 February 2021, 14:05:09.250 local time, and
// whatever time-zone answer the test sets.
DWORD g_zoneResult = TIME_ZONE_ID_UNKNOWN;
TIME_ZONE_INFORMATION g_zone;

void WINAPI FixedLocalTime(LPSYSTEMTIME time) {
    SYSTEMTIME fixed = {2021, 2, 3, 3, 14, 5, 9, 250};
    *time = fixed;
}

DWORD WINAPI FixedTimeZone(LPTIME_ZONE_INFORMATION zone) {
    *zone = g_zone;
    return g_zoneResult;
}

class AlertRecord : public alerttest::AlertFileTest {
protected:
    RULE rule;
    wchar_t type[32] = L"EventLogRule";
    wchar_t name[32] = L"DiskFull";
    wchar_t ruleGuid[64] = L"{0F3C7B5E-6A8D-4C21-9B1E-2D4F6A8C0E13}";
    wchar_t message[64] = L"Disk almost full";

    void SetUp() override {
        AlertFileTest::SetUp();
        memset(&rule, 0x24, sizeof(rule));
        rule.type = type;
        rule.name = name;
        rule.ruleGuid = ruleGuid;
        rule.alertMsg = message;
        wcscpy(rule.alertGuid, L"{6B1D2E3F-4A5B-4C6D-8E9F-0A1B2C3D4E5F}");
        wcscpy(rule.alertFileName, L"a.xml");
        memset(&g_zone, 0, sizeof(g_zone));
        g_zone.Bias = -60;
        g_zoneResult = TIME_ZONE_ID_UNKNOWN;
        Alert_SetClock(FixedLocalTime, FixedTimeZone);
    }
    void TearDown() override {
        Alert_SetClock(nullptr, nullptr);
        AlertFileTest::TearDown();
    }

    std::string Head(const char* stamp = "2021-02-03T14:05:09+01:00") const {
        return "\r\n\t<Alert>\r\n"
               "\t\t<AlertId>{6B1D2E3F-4A5B-4C6D-8E9F-0A1B2C3D4E5F}</AlertId>\r\n"
               "\t\t<RuleGuid>{0F3C7B5E-6A8D-4C21-9B1E-2D4F6A8C0E13}</RuleGuid>\r\n"
               "\t\t<RuleType>EventLogRule</RuleType>\r\n"
               "\t\t<DateTime>" +
               std::string(stamp) +
               "</DateTime>\r\n"
               "\t\t<Message>Disk almost full</Message>\r\n";
    }

    // The DateTime text of an alert written with the current clock.
    std::string StampFor(DWORD result, LONG bias, LONG standardBias, LONG daylightBias) {
        g_zoneResult = result;
        g_zone.Bias = bias;
        g_zone.StandardBias = standardBias;
        g_zone.DaylightBias = daylightBias;
        DeleteFileW(Path().c_str());
        XMLLOG_HANDLE* file = Open();
        EXPECT_TRUE(Rule_Alert_WriteHeader(file, &rule, rule.alertMsg));
        xmlLogClose(file);
        std::string bytes = Bytes();
        size_t start = bytes.find("<DateTime>");
        size_t end = bytes.find("</DateTime>");
        if (start == std::string::npos || end == std::string::npos) return "<none>";
        return bytes.substr(start + 10, end - start - 10);
    }
};

TEST_F(AlertRecord, HeadItemsUnescapedMarkupAndTheAppendedSecondAlert) {
    XMLLOG_HANDLE* file = Open();
    ASSERT_NE(nullptr, file);
    EXPECT_TRUE(Rule_Alert_WriteHeader(file, &rule, rule.alertMsg));
    xmlLogClose(file);
    const std::string headOnly = NewFileHead() + Head() + CloseTail();
    ASSERT_EQ(headOnly, Bytes()) << "no enclosing tag and no items: the five head elements";

    // What the engine writes for a work item with an enclosing tag, appended.
    file = Open();
    ASSERT_TRUE(Rule_Alert_WriteHeader(file, &rule, rule.alertMsg));
    xmlLogWriteString(file->fp, L"\t\t<Volumes>\n");
    EXPECT_TRUE(Alert_AddData(file, &rule, L"Drive", L"C:"));
    EXPECT_TRUE(Alert_AddData(file, &rule, L"Free", L"<1% & falling \x2193"));
    EXPECT_FALSE(Alert_AddData(file, &rule, L"Missing", nullptr));
    EXPECT_FALSE(Alert_AddData(file, &rule, L"Huge", std::wstring(1024, L'h').c_str()));
    EXPECT_TRUE(Alert_AddData(file, &rule, L"Next", L"1"));
    EXPECT_TRUE(Alert_AddData(file, &rule, nullptr, L"bare"));
    xmlLogWriteString(file->fp, L"\t\t</Volumes>\n");
    xmlLogClose(file);
    EXPECT_EQ(headOnly.substr(0, headOnly.size() - 18) + Head() +
                  "\t\t<Volumes>\r\n"
                  "\t\t<Drive>C:</Drive>\r\n"
                  "\t\t<Free><1% & falling \xE2\x86\x93</Free>\r\n"
                  "\t\t<Missing>\t\t<Huge>\t\t<Next>1</Next>\r\nbare\t\t</Volumes>\r\n" +
                  CloseTail(),
              Bytes());
    std::string huge(1024, 'h');
    EXPECT_EQ((std::vector<std::string>{"Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data null",
                                        "WcharToUtf8(): failed for " + huge,
                                        "Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data " + huge}),
              log.Messages());

    // Unescaped markup makes the file no XML: the next alert starts a new one.
    file = Open();
    ASSERT_NE(nullptr, file);
    xmlLogClose(file);
    EXPECT_EQ(NewFileHead() + CloseTail(), Bytes());
    EXPECT_TRUE(log.Contains("is possibly corrupt -taking backup")) << log.Since();
}

TEST_F(AlertRecord, TimeStampForEachTimeZoneResult) {
    EXPECT_EQ("2021-02-03T14:05:09+01:00", StampFor(TIME_ZONE_ID_UNKNOWN, -60, -999, -999));
    EXPECT_EQ("2021-02-03T14:05:09-05:00", StampFor(TIME_ZONE_ID_STANDARD, 300, 0, -60));
    EXPECT_EQ("2021-02-03T14:05:09-04:00", StampFor(TIME_ZONE_ID_DAYLIGHT, 300, 0, -60));
    EXPECT_EQ("2021-02-03T14:05:09+05:30", StampFor(TIME_ZONE_ID_STANDARD, -330, 0, -60));
    EXPECT_EQ("2021-02-03T14:05:09+00:00", StampFor(TIME_ZONE_ID_INVALID, -60, 0, -60)) << "a failed query";
    EXPECT_EQ("2021-02-03T14:05:09-01:30", StampFor(TIME_ZONE_ID_UNKNOWN, 90, 0, 0));
    EXPECT_EQ("2021-02-03T14:05:09+00:30", StampFor(TIME_ZONE_ID_UNKNOWN, 30, 0, 0))
        << "a sub-hour negative offset loses its sign";
    EXPECT_EQ("2021-02-03T14:05:09+00:45", StampFor(TIME_ZONE_ID_UNKNOWN, -45, 0, 0));

    // The real clock and zone give the same form.
    Alert_SetClock(nullptr, nullptr);
    std::string stamp = StampFor(0, 0, 0, 0);
    ASSERT_EQ(25u, stamp.size()) << stamp;
    EXPECT_EQ('T', stamp[10]);
    EXPECT_TRUE(stamp[19] == '+' || stamp[19] == '-') << stamp;
}

TEST_F(AlertRecord, FailuresAreReportedAndStopTheHead) {
    EXPECT_FALSE(Rule_Alert_WriteHeader(nullptr, &rule, nullptr));
    EXPECT_TRUE(log.Contains("Rule_Alert_WriteHeader: xmlLogWriteString \n\t<Alert>\n failed: Rule DiskFull msg null"))
        << log.Since();
    log.Mark();
    EXPECT_FALSE(Alert_AddData(nullptr, nullptr, L"Tag", L"v"));
    EXPECT_FALSE(Alert_AddData(nullptr, &rule, nullptr, L"v"));
    EXPECT_EQ((std::vector<std::string>{"Alert_AddData: xmlLogWriteString failed: Rule null tag Tag",
                                        "Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data v"}),
              log.Messages());

    // A rule without a GUID stops at its RuleGuid; without a message at Message.
    log.Mark();
    rule.ruleGuid = nullptr;
    rule.name = nullptr;
    XMLLOG_HANDLE* file = Open();
    EXPECT_FALSE(Rule_Alert_WriteHeader(file, &rule, rule.alertMsg));
    xmlLogClose(file);
    EXPECT_EQ(NewFileHead() +
                  "\r\n\t<Alert>\r\n\t\t<AlertId>{6B1D2E3F-4A5B-4C6D-8E9F-0A1B2C3D4E5F}</AlertId>\r\n\t\t<RuleGuid>" +
                  CloseTail(),
              Bytes());
    EXPECT_EQ(std::vector<std::string>{"Alert_AddData: xmlLogWriteUTF8String failed: Rule null, Data null"},
              log.Messages());

    rule.ruleGuid = ruleGuid;
    rule.alertMsg = nullptr;
    DeleteFileW(Path().c_str());
    file = Open();
    EXPECT_FALSE(Rule_Alert_WriteHeader(file, &rule, nullptr));
    xmlLogClose(file);
    std::string head = Head();
    EXPECT_EQ(NewFileHead() + head.substr(0, head.find("Disk almost full")) + CloseTail(), Bytes());
}

}  // namespace
