// Alert files on disk: their bytes, appends, backups and failures.
#include <gtest/gtest.h>

#include <locale.h>

#include <string>
#include <vector>

#include "alertFileFixture.h"
#include "testSupport.h"
#include "xmlLog.h"

namespace {

using alerttest::CloseTail;
using alerttest::NewFileHead;

// Writes one alert whose body is `body` (UTF-8 through the writer) and closes.
void WriteAlert(XMLLOG_HANDLE* file, const wchar_t* body) {
    ASSERT_NE(nullptr, file);
    xmlLogWriteString(file->fp, L"\n\t<Alert>\n");
    EXPECT_TRUE(xmlLogWriteUTF8String(file, body));
    xmlLogClose(file);
}

// Well-formed XML of exactly `size` bytes ending in the closing root tag.
std::string XmlOfSize(size_t size) {
    std::string head = "<TolvaneAlerts><!--";
    std::string tail = "--></TolvaneAlerts>\r\n";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

class XmlLog : public alerttest::AlertFileTest {
protected:
    // Backups of a.xml: a_MMDDYYYYhhmmss.xml of the local time (checked to the hour).
    std::vector<std::wstring> Backups() const {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW(folder.File(L"a_*.xml").c_str(), &data);
        if (find == INVALID_HANDLE_VALUE) return names;
        do names.push_back(data.cFileName);
        while (FindNextFileW(find, &data));
        FindClose(find);
        SYSTEMTIME now;
        GetLocalTime(&now);
        wchar_t stamp[16];
        swprintf(stamp, 16, L"a_%02d%02d%04d%02d", now.wMonth, now.wDay, now.wYear, now.wHour);
        for (const std::wstring& name : names) EXPECT_EQ(0u, name.find(stamp)) << omktest::ToUtf8(name);
        return names;
    }
};

TEST_F(XmlLog, NewFilesAppendsAndFilesOfSeventyTwoBytesOrLessStartingOver) {
    const std::string fresh = NewFileHead() + "\r\n\t<Alert>\r\nnew" + CloseTail();
    const struct {
        const char* name;
        bool exists;
        std::string before;
        std::string after;  // the bytes written over what stays
        size_t kept;        // bytes of `before` that stay
    } cases[] = {
        {"no file", false, "", fresh, 0},
        {"72 bytes: truncated", true, XmlOfSize(72), fresh, 0},
        {"73 bytes: appended over the closing tag", true, XmlOfSize(73), "\r\n\t<Alert>\r\nnew" + CloseTail(), 55},
        {"a whole alert file", true, fresh, "\r\n\t<Alert>\r\nnew" + CloseTail(), fresh.size() - 18},
        {"empty: no XML, backed up", true, "", fresh, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DeleteFileW(Path().c_str());
        if (c.exists) {
            ASSERT_TRUE(omktest::WriteFileBytes(Path(), c.before));
        }
        XMLLOG_HANDLE* file = Open();
        EXPECT_EQ(folder.File(L"a.xml"), file != nullptr ? file->filePath : L"");
        WriteAlert(file, L"new");
        EXPECT_EQ(c.before.substr(0, c.kept) + c.after, Bytes());
    }
    EXPECT_EQ(1u, Backups().size());
}

TEST_F(XmlLog, AFileOfFourMebibytesOrNotXmlIsBackedUpAndAFailedBackupKeepsIt) {
    const std::string path = omktest::ToUtf8(Path());
    const std::string almost = XmlOfSize(4194303);
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), almost));
    WriteAlert(Open(), L"kept");
    EXPECT_TRUE(almost.substr(0, almost.size() - 18) + "\r\n\t<Alert>\r\nkept" + CloseTail() == Bytes());
    EXPECT_TRUE(Backups().empty());
    EXPECT_EQ("", log.Since());

    const struct {
        std::string before;
        std::vector<std::string> messages;
    } cases[] = {
        {XmlOfSize(4194304), {"xmlLogInitHandle: File " + path + " size 4194304 has reached/exceeded limit - taking backup"}},
        {NewFileHead() + "\r\n\t<Alert>\r\n\t\t<Value>a & b</Value>\r\n" + CloseTail(),
         {"validateXmlFile: XML from file " + path + " could not be loaded",
          "xmlLogInitHandle, File " + path + " is possibly corrupt -taking backup"}},
    };
    for (const auto& c : cases) {
        for (const std::wstring& old : Backups()) DeleteFileW(folder.File(old).c_str());
        ASSERT_TRUE(omktest::WriteFileBytes(Path(), c.before));
        log.Mark();
        WriteAlert(Open(), L"fresh");
        EXPECT_EQ(NewFileHead() + "\r\n\t<Alert>\r\nfresh" + CloseTail(), Bytes());
        std::vector<std::wstring> backups = Backups();
        ASSERT_EQ(1u, backups.size());
        EXPECT_TRUE(c.before == Bytes(backups[0].c_str())) << "the backup holds the old file";
        EXPECT_EQ(c.messages, log.Messages());
    }

    // Another reader that does not share delete access: the copy succeeds, the delete does not.
    const std::string corrupt = "<TolvaneAlerts><unclosed></TolvaneAlerts>\r\n";
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), corrupt));
    HANDLE reader = CreateFileW(Path().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(nullptr, Open());
    CloseHandle(reader);
    EXPECT_EQ(corrupt, Bytes());
    EXPECT_TRUE(log.Contains("xmlLogTakeBackup: Error 0x20 deleting file " + path)) << log.Since();
    EXPECT_TRUE(log.Contains("xmlLogOpen: xmlLogInitHandle failed - dirName " + omktest::ToUtf8(folder.Path()) +
                             " fileName a.xml openXmlTag TolvaneAlerts"));
    // Without a dot anywhere in the path there is no name to back up to.
    if (folder.Path().find(L'.') == std::wstring::npos) {
        ASSERT_TRUE(omktest::WriteFileBytes(Path(L"alerts"), corrupt));
        EXPECT_EQ(nullptr, Open(L"alerts"));
        EXPECT_EQ(corrupt, Bytes(L"alerts"));
        EXPECT_TRUE(log.Contains("xmlLogTakeBackup: Error 0xa1 moving file " + omktest::ToUtf8(Path(L"alerts")) +
                                 " to null"));
    }
}

TEST_F(XmlLog, TheBytesAreUtf8UpToTheLimitWhateverLocaleAModuleSets) {
    // 341 euro signs are 1023 bytes of UTF-8: the most that fits.
    const std::wstring most(341, L'\x20AC');
    std::string euros;
    for (int i = 0; i < 341; ++i) euros += "\xE2\x82\xAC";
    // A plugin may set the process's C runtime locale; the alert file must not change with it.
    for (const char* locale : {"C", "", ".932"}) {
        SCOPED_TRACE(locale);
        setlocale(LC_ALL, locale);
        DeleteFileW(Path().c_str());
        XMLLOG_HANDLE* file = Open();
        ASSERT_NE(nullptr, file);
        EXPECT_TRUE(xmlLogWriteUTF8String(file, most.c_str()));
        EXPECT_FALSE(xmlLogWriteUTF8String(file, (most + L"a").c_str()));
        xmlLogWriteString(file->fp, L"<Temp\x00E9rature>");
        EXPECT_TRUE(xmlLogWriteUTF8String(file, L"|\x00E9\x00FF\xD83D\xDE00|"));
        EXPECT_TRUE(xmlLogWriteUTF8String(file, L"100%% sure, 5%d, 7%s, 9%"));
        xmlLogClose(file);
        EXPECT_EQ(NewFileHead() + euros + "<Temp\xC3\xA9rature>|\xC3\xA9\xC3\xBF\xF0\x9F\x98\x80|" +
                      "100% sure, 5%d, 7%s, 9%" + CloseTail(),
                  Bytes());
    }
    setlocale(LC_ALL, "C");
    EXPECT_TRUE(log.Contains("WcharToUtf8(): failed for " + omktest::ToUtf8(most + L"a")));
}

TEST_F(XmlLog, BadArgumentsUnopenableFilesAndFailedWritesAreReported) {
    EXPECT_EQ(nullptr, xmlLogOpen(nullptr, nullptr, L"a.xml"));
    EXPECT_EQ(nullptr, xmlLogOpen((folder.Path() + L"\\missing").c_str(), nullptr, L"a.xml"));
    xmlLogClose(nullptr);
    EXPECT_FALSE(xmlLogWriteUTF8String(nullptr, L"x"));
    xmlLogWriteString(nullptr, L"x");
    XMLLOG_HANDLE* file = Open();
    ASSERT_NE(nullptr, file);
    EXPECT_FALSE(xmlLogWriteUTF8String(file, nullptr));
    xmlLogClose(file);
    EXPECT_EQ(NewFileHead() + CloseTail(), Bytes());
    EXPECT_EQ((std::vector<std::string>{
                  "xmlLogInitHandle: one or more args are null - dirName null fileName a.xml openXmlTag TolvaneAlerts",
                  "xmlLogOpen: xmlLogInitHandle failed - dirName null fileName a.xml openXmlTag TolvaneAlerts"}),
              log.Messages()) << "a stream that cannot be opened fails without a message of its own";

    // A disk that takes nothing more: every later write and the close say so.
    DeleteFileW(Path().c_str());
    log.Mark();
    file = Open();
    ASSERT_NE(nullptr, file);
    fclose(file->fp);
    file->fp = _wfopen(Path().c_str(), L"rb");
    xmlLogWriteString(file->fp, L"\n\t<Alert>\n");
    EXPECT_FALSE(xmlLogWriteUTF8String(file, L"lost"));
    xmlLogClose(file);
    EXPECT_EQ(std::vector<std::string>{"xmlLogClose: Error writing closing tag </TolvaneAlerts>\n to File " +
                                       omktest::ToUtf8(Path())},
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
