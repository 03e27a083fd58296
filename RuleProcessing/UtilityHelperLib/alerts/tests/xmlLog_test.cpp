// Alert files on disk: their bytes, appends, backups and failures.
#include <gtest/gtest.h>

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
    xmlLogWriteString(file->fp, L"\n\t<Alert>\n");
    EXPECT_TRUE(xmlLogWriteUTF8String(file, body));
    xmlLogClose(file);
}

// "YYYYMMDDhhmmss" of a local time, which sorts as the time does.
std::wstring Sortable(const SYSTEMTIME& t) {
    wchar_t text[32];
    _snwprintf(text, 31, L"%04d%02d%02d%02d%02d%02d", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond);
    text[31] = L'\0';
    return text;
}

// Well-formed XML of exactly `size` bytes ending in the closing root tag.
std::string XmlOfSize(size_t size) {
    std::string head = "<TolvaneAlerts><!--";
    std::string tail = "--></TolvaneAlerts>\r\n";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

class XmlLog : public alerttest::AlertFileTest {
protected:
    SYSTEMTIME before;
    void SetUp() override {
        AlertFileTest::SetUp();
        GetLocalTime(&before);
    }

    // Backups of a.xml in the folder.
    std::vector<std::wstring> Backups() const {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW(folder.File(L"a_*.xml").c_str(), &data);
        if (find == INVALID_HANDLE_VALUE) return names;
        do names.push_back(data.cFileName);
        while (FindNextFileW(find, &data));
        FindClose(find);
        return names;
    }

    // True when the name is a_MMDDYYYYhhmmss.xml of a local time between SetUp and now.
    bool IsBackupNameOfNow(const std::wstring& name) const {
        SYSTEMTIME after;
        GetLocalTime(&after);
        if (name.size() != 20 || name.compare(0, 2, L"a_") != 0 || name.compare(16, 4, L".xml") != 0) return false;
        std::wstring stamp = name.substr(6, 4) + name.substr(2, 4) + name.substr(10, 6);
        return Sortable(before) <= stamp && stamp <= Sortable(after);
    }
};

TEST_F(XmlLog, NewFileAndAppendAreByteExact) {
    XMLLOG_HANDLE* file = Open();
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(folder.File(L"a.xml"), file->filePath);
    WriteAlert(file, L"first");
    const std::string once = NewFileHead() + "\r\n\t<Alert>\r\nfirst" + CloseTail();
    ASSERT_EQ(once, Bytes());

    // The append starts on the "<" of the old closing tag: exactly the last
    // 18 bytes ("</TolvaneAlerts>" CR LF) are replaced.
    file = Open();
    ASSERT_NE(nullptr, file);
    WriteAlert(file, L"second");
    const std::string kept = once.substr(0, once.size() - 18);
    EXPECT_EQ("</TolvaneAlerts>\r\n", once.substr(once.size() - 18));
    EXPECT_EQ(kept + "\r\n\t<Alert>\r\nsecond" + CloseTail(), Bytes());
    EXPECT_TRUE(Backups().empty());
    EXPECT_EQ("", log.Since());
}

TEST_F(XmlLog, FilesOfSeventyTwoBytesOrLessStartOverAndLongerOnesAreAppendedTo) {
    const std::string fresh = NewFileHead() + "\r\n\t<Alert>\r\nnew" + CloseTail();

    ASSERT_TRUE(omktest::WriteFileBytes(Path(), XmlOfSize(72)));
    WriteAlert(Open(), L"new");
    EXPECT_EQ(fresh, Bytes()) << "72 bytes: truncated and written from the header on";

    const std::string longer = XmlOfSize(73);
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), longer));
    WriteAlert(Open(), L"new");
    EXPECT_EQ(longer.substr(0, 55) + "\r\n\t<Alert>\r\nnew" + CloseTail(), Bytes()) << "73 bytes: appended to";
    EXPECT_TRUE(Backups().empty());

    // An empty file is no XML: it is backed up, and the log starts over.
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), ""));
    WriteAlert(Open(), L"new");
    EXPECT_EQ(fresh, Bytes());
}

TEST_F(XmlLog, FileOfFourMebibytesIsBackedUpAndOneByteLessIsNot) {
    const std::string almost = XmlOfSize(4194303);
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), almost));
    WriteAlert(Open(), L"kept");
    EXPECT_TRUE(Backups().empty());
    EXPECT_TRUE(almost.substr(0, almost.size() - 18) + "\r\n\t<Alert>\r\nkept" + CloseTail() == Bytes());
    EXPECT_EQ("", log.Since());

    const std::string full = XmlOfSize(4194304);
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), full));
    WriteAlert(Open(), L"fresh");
    EXPECT_EQ(NewFileHead() + "\r\n\t<Alert>\r\nfresh" + CloseTail(), Bytes());
    std::vector<std::wstring> backups = Backups();
    ASSERT_EQ(1u, backups.size());
    EXPECT_TRUE(IsBackupNameOfNow(backups[0])) << omktest::ToUtf8(backups[0]);
    EXPECT_TRUE(full == Bytes(backups[0].c_str())) << "the backup holds the old file";
    EXPECT_TRUE(log.Contains("xmlLogInitHandle: File " + omktest::ToUtf8(Path()) +
                             " size 4194304 has reached/exceeded limit - taking backup"))
        << log.Since();
}

TEST_F(XmlLog, CorruptFileIsBackedUpAndANewFileStarted) {
    const std::string corrupt = NewFileHead() + "\r\n\t<Alert>\r\n\t\t<Value>a & b</Value>\r\n" + CloseTail();
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), corrupt));
    WriteAlert(Open(), L"fresh");
    EXPECT_EQ(NewFileHead() + "\r\n\t<Alert>\r\nfresh" + CloseTail(), Bytes());
    std::vector<std::wstring> backups = Backups();
    ASSERT_EQ(1u, backups.size());
    EXPECT_TRUE(IsBackupNameOfNow(backups[0])) << omktest::ToUtf8(backups[0]);
    EXPECT_EQ(corrupt, Bytes(backups[0].c_str()));
    std::string path = omktest::ToUtf8(Path());
    EXPECT_EQ((std::vector<std::string>{"validateXmlFile: XML from file " + path + " could not be loaded",
                                        "xmlLogInitHandle, File " + path + " is possibly corrupt -taking backup"}),
              log.Messages());
}

TEST_F(XmlLog, FailedBackupKeepsTheFileAndGivesNoHandle) {
    const std::string corrupt = "<TolvaneAlerts><unclosed></TolvaneAlerts>\r\n";
    ASSERT_TRUE(omktest::WriteFileBytes(Path(), corrupt));
    // Another reader that does not share delete access: the copy succeeds, the delete does not.
    HANDLE reader = CreateFileW(Path().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, reader);
    EXPECT_EQ(nullptr, Open());
    CloseHandle(reader);
    EXPECT_EQ(corrupt, Bytes());
    std::string path = omktest::ToUtf8(Path());
    EXPECT_TRUE(log.Contains("xmlLogTakeBackup: Error 0x20 deleting file " + path)) << log.Since();
    EXPECT_TRUE(log.Contains("xmlLogOpen: xmlLogInitHandle failed - dirName " + omktest::ToUtf8(folder.Path()) +
                             " fileName a.xml openXmlTag TolvaneAlerts"))
        << log.Since();

    // Without a dot anywhere in the path there is no name to back up to.
    if (folder.Path().find(L'.') == std::wstring::npos) {
        log.Mark();
        ASSERT_TRUE(omktest::WriteFileBytes(Path(L"alerts"), corrupt));
        EXPECT_EQ(nullptr, Open(L"alerts"));
        EXPECT_EQ(corrupt, Bytes(L"alerts"));
        EXPECT_TRUE(
            log.Contains("xmlLogTakeBackup: Error 0xa1 moving file " + omktest::ToUtf8(Path(L"alerts")) + " to null"))
            << log.Since();
    }
}

TEST_F(XmlLog, BadArgumentsAndUnopenableFilesGiveNoHandle) {
    EXPECT_EQ(nullptr, xmlLogOpen(nullptr, nullptr, L"a.xml"));
    EXPECT_EQ((std::vector<std::string>{
                  "xmlLogInitHandle: one or more args are null - dirName null fileName a.xml openXmlTag TolvaneAlerts",
                  "xmlLogOpen: xmlLogInitHandle failed - dirName null fileName a.xml openXmlTag TolvaneAlerts"}),
              log.Messages());
    log.Mark();
    EXPECT_EQ(nullptr, xmlLogOpen((folder.Path() + L"\\missing").c_str(), nullptr, L"a.xml"));
    EXPECT_EQ("", log.Since()) << "a stream that cannot be opened fails without a message of its own";

    xmlLogClose(nullptr);
    EXPECT_FALSE(xmlLogWriteUTF8String(nullptr, L"x"));
    xmlLogWriteString(nullptr, L"x");
    XMLLOG_HANDLE* file = Open();
    ASSERT_NE(nullptr, file);
    EXPECT_FALSE(xmlLogWriteUTF8String(file, nullptr));
    xmlLogClose(file);
    EXPECT_EQ(NewFileHead() + CloseTail(), Bytes());
}

TEST_F(XmlLog, Utf8ReachesTheDiskByteForByteUpToTheLimitAndPercentIsFormatted) {
    XMLLOG_HANDLE* file = Open();
    ASSERT_NE(nullptr, file);
    // 341 euro signs are 1023 bytes of UTF-8: the most that fits.
    std::wstring most(341, L'\x20AC');
    EXPECT_TRUE(xmlLogWriteUTF8String(file, most.c_str()));
    EXPECT_FALSE(xmlLogWriteUTF8String(file, (most + L"a").c_str()));
    EXPECT_TRUE(xmlLogWriteUTF8String(file, L"|\x00E9\x00FF\xD83D\xDE00|"));
    EXPECT_TRUE(xmlLogWriteUTF8String(file, L"100%% sure, 5%d, 7%s, 9%"));
    xmlLogClose(file);

    std::string euros;
    for (int i = 0; i < 341; ++i) euros += "\xE2\x82\xAC";
    EXPECT_EQ(NewFileHead() + euros + "|\xC3\xA9\xC3\xBF\xF0\x9F\x98\x80|" + "100% sure, 5%d, 7%s, 9%" + CloseTail(),
              Bytes());
    EXPECT_EQ(std::vector<std::string>{"WcharToUtf8(): failed for " + omktest::ToUtf8(most + L"a")}, log.Messages());
}

TEST_F(XmlLog, ServiceTagThatDoesNotFitFailsTheOpen) {
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
