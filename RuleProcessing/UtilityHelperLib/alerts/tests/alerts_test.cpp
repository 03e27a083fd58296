// Alert files on disk, byte for byte: new files, appends, backups, the alert
// element with the clock and time zone chosen by the test, and failures.
#include <gtest/gtest.h>

#include <locale.h>
#include <string.h>

#include "alertRecord.h"
#include "conventions.h"
#include "testSupport.h"
#include "xmlLog.h"

namespace {

// The bytes a new alert file starts with for service tag ABC1234, and those xmlLogClose writes.
const std::string kNewFileHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<TolvaneAlerts>\r\n<ServiceTag>ABC1234</ServiceTag>";
const std::string kCloseTail = "\t</Alert>\r\n</TolvaneAlerts>\r\n";

// Well-formed XML of exactly `size` bytes ending in the closing root tag.
std::string XmlOfSize(size_t size) {
    std::string head = "<TolvaneAlerts><!--", tail = "--></TolvaneAlerts>\r\n";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

// The clock the writer sees: 3 February 2021, 14:05:09 local time, and the time-zone answer the test sets.
DWORD g_zoneResult = TIME_ZONE_ID_UNKNOWN;
TIME_ZONE_INFORMATION g_zone;
void WINAPI FixedLocalTime(LPSYSTEMTIME time) {
    *time = SYSTEMTIME{2021, 2, 3, 3, 14, 5, 9, 250};
}
DWORD WINAPI FixedTimeZone(LPTIME_ZONE_INFORMATION zone) {
    *zone = g_zone;
    return g_zoneResult;
}

class Alerts : public ::testing::Test {
protected:
    omktest::TempFolder folder;
    omktest::ErrorLog log{L"alerts_test.txt"};
    int allocStart = g_allocCount;
    wchar_t savedTag[OMK_SERVICE_TAG_CHARS];
    RULE rule;
    wchar_t ruleGuid[64] = L"{0F3C7B5E-6A8D-4C21-9B1E-2D4F6A8C0E13}";

    void SetUp() override {
        memcpy(savedTag, g_serviceTag, sizeof(savedTag));
        wcscpy(g_serviceTag, L"ABC1234");
        memset(&rule, 0x24, sizeof(rule));
        rule.type = const_cast<wchar_t*>(L"EventLogRule");
        rule.name = const_cast<wchar_t*>(L"DiskFull");
        rule.ruleGuid = ruleGuid;
        rule.alertMsg = const_cast<wchar_t*>(L"Disk almost full");
        wcscpy(rule.alertGuid, L"{6B1D2E3F-4A5B-4C6D-8E9F-0A1B2C3D4E5F}");
        g_zone = TIME_ZONE_INFORMATION{};
        g_zone.Bias = -60;
        g_zoneResult = TIME_ZONE_ID_UNKNOWN;
        Alert_SetClock(FixedLocalTime, FixedTimeZone);
    }
    void TearDown() override {
        Alert_SetClock(nullptr, nullptr);
        EXPECT_EQ(allocStart, g_allocCount) << "every handle is freed and counted back";
        memcpy(g_serviceTag, savedTag, sizeof(savedTag));
    }

    std::wstring Path(const wchar_t* name = L"a.xml") const { return folder.File(name); }
    std::string Bytes(const wchar_t* name = L"a.xml") const { return omktest::ReadFileBytes(Path(name)); }
    XMLLOG_HANDLE* Open(const wchar_t* name = L"a.xml") { return xmlLogOpen(folder.Path().c_str(), nullptr, name); }

    // Writes one alert whose body is `body` (UTF-8 through the writer) and closes.
    void WriteAlert(const wchar_t* body) {
        XMLLOG_HANDLE* file = Open();
        ASSERT_NE(nullptr, file);
        xmlLogWriteString(file->fp, L"\n\t<Alert>\n");
        EXPECT_TRUE(xmlLogWriteUTF8String(file, body));
        xmlLogClose(file);
    }

    // Backups of a.xml: a_MMDDYYYYhhmmss.xml of the local time (checked to the year).
    std::vector<std::wstring> Backups() const {
        std::vector<std::wstring> names = omktest::FilesMatching(folder.File(L"a_*.xml"));
        SYSTEMTIME now;
        GetLocalTime(&now);
        for (const auto& name : names) EXPECT_EQ(std::to_wstring(now.wYear), name.substr(6, 4)) << omktest::ToUtf8(name);
        return names;
    }

    std::string Head(const char* stamp = "2021-02-03T14:05:09+01:00") const {
        return "\r\n\t<Alert>\r\n\t\t<AlertId>{6B1D2E3F-4A5B-4C6D-8E9F-0A1B2C3D4E5F}</AlertId>\r\n"
               "\t\t<RuleGuid>{0F3C7B5E-6A8D-4C21-9B1E-2D4F6A8C0E13}</RuleGuid>\r\n"
               "\t\t<RuleType>EventLogRule</RuleType>\r\n\t\t<DateTime>" +
               std::string(stamp) + "</DateTime>\r\n\t\t<Message>Disk almost full</Message>\r\n";
    }
};

TEST_F(Alerts, NewFilesAppendsAndBackupsOfFilesOfFourMebibytesOrNotXml) {
    const std::string path = omktest::ToUtf8(Path());
    const std::string fresh = kNewFileHead + "\r\n\t<Alert>\r\nnew" + kCloseTail;
    const std::string appended = "\r\n\t<Alert>\r\nnew" + kCloseTail;
    const std::string almost = XmlOfSize(4194303);
    const std::string notXml = kNewFileHead + "\r\n\t<Alert>\r\n\t\t<Value>a & b</Value>\r\n" + kCloseTail;
    const std::vector<std::string> corrupt = {"validateXmlFile: XML from file " + path + " could not be loaded",
                                              "xmlLogInitHandle, File " + path + " is possibly corrupt -taking backup"};
    const struct {
        const char* name;
        bool exists;
        std::string before;
        size_t kept;  // bytes of `before` that stay; the appended alert follows, or a new file when none stay
        std::vector<std::string> messages;  // of a backup
    } cases[] = {
        {"no file", false, "", 0, {}},
        {"72 bytes: truncated", true, XmlOfSize(72), 0, {}},
        {"73 bytes: appended over the closing tag", true, XmlOfSize(73), 55, {}},
        {"a whole alert file", true, fresh, fresh.size() - 18, {}},
        {"one byte short of 4 MiB", true, almost, almost.size() - 18, {}},
        {"4 MiB",
         true,
         XmlOfSize(4194304),
         0,
         {"xmlLogInitHandle: File " + path + " size 4194304 has reached/exceeded limit - taking backup"}},
        {"no XML", true, notXml, 0, corrupt},
        {"empty: no XML either", true, "", 0, corrupt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const std::wstring& old : Backups()) DeleteFileW(folder.File(old).c_str());
        DeleteFileW(Path().c_str());
        EXPECT_TRUE(!c.exists || omktest::WriteFileBytes(Path(), c.before));
        log.Mark();
        WriteAlert(L"new");
        EXPECT_TRUE((c.kept > 0 ? c.before.substr(0, c.kept) + appended : fresh) == Bytes());
        std::vector<std::wstring> backups = Backups();
        EXPECT_EQ(c.messages.empty() ? 0u : 1u, backups.size());
        if (!c.messages.empty()) {
            EXPECT_EQ(c.messages, log.Messages());
            EXPECT_TRUE(!backups.empty() && c.before == Bytes(backups[0].c_str())) << "the backup holds the old file";
        }
    }

    // Another reader that does not share delete access: the copy succeeds, the delete does not.
    const std::string unclosed = "<TolvaneAlerts><unclosed></TolvaneAlerts>\r\n";
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), unclosed));
    HANDLE reader = CreateFileW(Path().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(nullptr, Open());
    CloseHandle(reader);
    EXPECT_EQ(unclosed, Bytes());
    EXPECT_TRUE(log.Contains("xmlLogTakeBackup: Error 0x20 deleting file " + path)) << log.Since();
    EXPECT_TRUE(log.Contains("xmlLogOpen: xmlLogInitHandle failed - dirName " + omktest::ToUtf8(folder.Path()) +
                             " fileName a.xml openXmlTag TolvaneAlerts"));
    // Without a dot anywhere in the path there is no name to back up to.
    ASSERT_TRUE(omktest::WriteFileBytes(Path(L"alerts"), unclosed));
    EXPECT_EQ(nullptr, Open(L"alerts"));
    EXPECT_EQ(unclosed, Bytes(L"alerts"));
    EXPECT_TRUE(
        log.Contains("xmlLogTakeBackup: Error 0xa1 moving file " + omktest::ToUtf8(Path(L"alerts")) + " to null"));
}

TEST_F(Alerts, ItemsAreUtf8UnescapedUpToTheLimitWhateverLocaleAModuleSets) {
    // 341 euro signs are 1023 bytes of UTF-8: the most that fits.
    const std::wstring most(341, L'\x20AC');
    std::string euros;
    for (int i = 0; i < 341; ++i) euros += "\xE2\x82\xAC";
    // A plugin may set the process's C runtime locale; the alert file must not change with it.
    for (const char* locale : {"C", "", ".932"}) {
        SCOPED_TRACE(locale);
        setlocale(LC_ALL, locale);
        DeleteFileW(Path().c_str());
        log.Mark();
        XMLLOG_HANDLE* file = Open();
        ASSERT_TRUE(Rule_Alert_WriteHeader(file, &rule, rule.alertMsg));
        // What the engine writes for a work item with an enclosing tag.
        xmlLogWriteString(file->fp, L"\t\t<Volumes>\n");
        EXPECT_TRUE(Alert_AddData(file, &rule, L"Temp\x00E9rature", L"<1%% & |\x00E9\x00FF\xD83D\xDE00| 5%d"));
        EXPECT_TRUE(Alert_AddData(file, &rule, L"Most", most.c_str()));
        EXPECT_FALSE(Alert_AddData(file, &rule, L"Missing", nullptr));
        EXPECT_FALSE(Alert_AddData(file, &rule, L"Huge", (most + L"a").c_str()));
        EXPECT_TRUE(Alert_AddData(file, &rule, nullptr, L"bare"));
        xmlLogWriteString(file->fp, L"\t\t</Volumes>\n");
        xmlLogClose(file);
        EXPECT_EQ(kNewFileHead + Head() +
                      "\t\t<Volumes>\r\n\t\t<Temp\xC3\xA9rature><1% & |\xC3\xA9\xC3\xBF\xF0\x9F\x98\x80| 5%d" +
                      "</Temp\xC3\xA9rature>\r\n\t\t<Most>" + euros +
                      "</Most>\r\n\t\t<Missing>\t\t<Huge>bare\t\t</Volumes>\r\n" + kCloseTail,
                  Bytes());
        const std::string huge = omktest::ToUtf8(most + L"a");
        EXPECT_EQ(
            (std::vector<std::string>{"Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data null",
                                      "WcharToUtf8(): failed for " + huge,
                                      "Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data " + huge}),
            log.Messages());
    }
    setlocale(LC_ALL, "C");
}

TEST_F(Alerts, TheHeadWithTheTimeStampForEachTimeZoneResult) {
    const struct {
        DWORD result;
        LONG bias, standardBias, daylightBias;
        const char* stamp;
    } cases[] = {
        {TIME_ZONE_ID_UNKNOWN, -60, -999, -999, "2021-02-03T14:05:09+01:00"},
        {TIME_ZONE_ID_STANDARD, 300, 0, -60, "2021-02-03T14:05:09-05:00"},
        {TIME_ZONE_ID_DAYLIGHT, 300, 0, -60, "2021-02-03T14:05:09-04:00"},
        {TIME_ZONE_ID_STANDARD, -330, 0, -60, "2021-02-03T14:05:09+05:30"},
        {TIME_ZONE_ID_INVALID, -60, 0, -60, "2021-02-03T14:05:09+00:00"},  // a failed query
        {TIME_ZONE_ID_UNKNOWN, 30, 0, 0, "2021-02-03T14:05:09+00:30"},     // a sub-hour negative offset loses its sign
    };
    for (const auto& c : cases) {
        g_zoneResult = c.result;
        g_zone.Bias = c.bias;
        g_zone.StandardBias = c.standardBias;
        g_zone.DaylightBias = c.daylightBias;
        DeleteFileW(Path().c_str());
        XMLLOG_HANDLE* file = Open();
        EXPECT_TRUE(Rule_Alert_WriteHeader(file, &rule, rule.alertMsg));
        xmlLogClose(file);
        EXPECT_EQ(kNewFileHead + Head(c.stamp) + kCloseTail, Bytes()) << "no enclosing tag and no items";
    }
    EXPECT_EQ("", log.Since());
}

TEST_F(Alerts, FailuresAreReportedAndStopTheAlert) {
    EXPECT_EQ(nullptr, xmlLogOpen(nullptr, nullptr, L"a.xml"));
    EXPECT_EQ(nullptr, xmlLogOpen((folder.Path() + L"\\missing").c_str(), nullptr, L"a.xml"));
    xmlLogClose(nullptr);
    xmlLogWriteString(nullptr, L"x");
    EXPECT_FALSE(xmlLogWriteUTF8String(nullptr, L"x"));
    EXPECT_FALSE(Rule_Alert_WriteHeader(nullptr, &rule, nullptr));
    EXPECT_FALSE(Alert_AddData(nullptr, nullptr, L"Tag", L"v"));
    EXPECT_FALSE(Alert_AddData(nullptr, &rule, nullptr, L"v"));
    EXPECT_EQ((std::vector<std::string>{
                  "xmlLogInitHandle: one or more args are null - dirName null fileName a.xml openXmlTag TolvaneAlerts",
                  "xmlLogOpen: xmlLogInitHandle failed - dirName null fileName a.xml openXmlTag TolvaneAlerts",
                  "Rule_Alert_WriteHeader: xmlLogWriteString \n\t<Alert>\n failed: Rule DiskFull msg null",
                  "Alert_AddData: xmlLogWriteString failed: Rule null tag Tag",
                  "Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data v"}),
              log.Messages())
        << "a stream that cannot be opened fails without a message of its own";

    // A disk that takes nothing more: the head stops at its first element and the close says so.
    XMLLOG_HANDLE* file = Open();
    ASSERT_NE(nullptr, file);
    fclose(file->fp);
    file->fp = _wfopen(Path().c_str(), L"rb");
    log.Mark();
    EXPECT_FALSE(Rule_Alert_WriteHeader(file, &rule, L"lost"));
    xmlLogClose(file);
    EXPECT_EQ(
        (std::vector<std::string>{
            "Alert_AddData: xmlLogWriteUTF8String failed: Rule DiskFull, Data {6B1D2E3F-4A5B-4C6D-8E9F-0A1B2C3D4E5F}",
            "xmlLogClose: Error writing closing tag </TolvaneAlerts>\n to File " + omktest::ToUtf8(Path())}),
        log.Messages());

    // A service tag that does not fit fails the open.
    log.Mark();
    DeleteFileW(Path().c_str());
    std::wstring tag(400, L'\x20AC');  // 1200 bytes of UTF-8
    wcscpy(g_serviceTag, tag.c_str());
    EXPECT_EQ(nullptr, Open());
    std::string tag8 = omktest::ToUtf8(tag);
    EXPECT_EQ((std::vector<std::string>{
                  "WcharToUtf8(): failed for " + tag8, "writeServiceTag: xmlLogWriteUTF8String " + tag8 + " failed",
                  "xmlLogOpen: Error writing serviceTag " + tag8 + " to File " + omktest::ToUtf8(Path())}),
              log.Messages());
}

}  // namespace
