// Storing alert files in the real alert database.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include "alertDatabase.h"
#include "cdef.h"
#include "conventions.h"
#include "omkDb.h"
#include "testSupport.h"

namespace {

// A tag with '_' in it: the stamp must still be found after the last one.
const wchar_t kTag[] = L"QA_TEST7";

// 2021-02-03 14:05:09 UTC as a FILETIME number.
constexpr ULONGLONG kFeb3At140509 = 132568347090000000ull;
constexpr ULONGLONG kSecond = 10000000ull;

std::wstring AlertName(const std::wstring& stamp, const wchar_t* tag = kTag) {
    return std::wstring(tag) + L"-ZORA_Alerts_" + stamp + L".xml";
}

// A well-formed alert; UTF-8 é, CRLF, tabs and an entity that must be kept
// as written, not decoded.
std::string AlertText(const std::string& id) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<TolvaneAlerts>\r\n<ServiceTag>QA_TEST7</ServiceTag>"
           "\r\n\t<Alert>\r\n\t\t<AlertId>" +
           id + "</AlertId>\r\n\t\t<Value>caf\xC3\xA9 &amp; co</Value>\r\n\t</Alert>\r\n</TolvaneAlerts>\r\n";
}

using omktest::ToUtf8;

class AlertDatabaseTest : public ::testing::Test {
protected:
    omktest::ErrorLog log{L"alertDatabase_test.txt"};
    omktest::TempFolder alerts;
    const std::wstring folder = alerts.Path();
    const std::wstring database = std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db";
    // Engine initialisation owns the event in the service; here the test does.
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
    int allocStart = g_allocCount;
    wchar_t savedTag[OMK_SERVICE_TAG_CHARS];

    void SetUp() override {
        memcpy(savedTag, g_serviceTag, sizeof(savedTag));
        wcscpy(g_serviceTag, kTag);
        for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((database + suffix).c_str());
        ASSERT_NE(0, InitSqliteLib());
        log.Mark();
    }
    void TearDown() override {
        FreeSqliteLib();
        CloseHandle(event);
        memcpy(g_serviceTag, savedTag, sizeof(savedTag));
    }

    std::wstring PathOf(const std::wstring& name) const { return alerts.File(name); }
    void Put(const std::wstring& name, const std::string& bytes) {
        EXPECT_TRUE(omktest::WriteFileBytes(PathOf(name), bytes));
    }
    bool Exists(const std::wstring& name) const { return omktest::FileExists(PathOf(name)); }

    // The engine's call for the alert file `name`; the allocation count must come back after each one.
    int Store(const std::wstring& name, DWORD removeXml, DWORD maxAlerts) {
        wcscpy(g_alertFileName, name.c_str());
        int result = AddToAlertDb(folder.c_str(), 0, removeXml, maxAlerts);
        EXPECT_EQ(allocStart, g_allocCount) << "after storing " << ToUtf8(name);
        return result;
    }

    // The stored text for the creation time of an alert file name, or "(none)".
    std::string StoredFor(const std::wstring& name) {
        const ULONGLONG creationTime = GetCreationTimeStampFromAlertFileName(name.c_str());
        ALERT_DB_RECORD* record = nullptr;
        std::string text = "(none)";
        if (AlertDb_Open(0, 0) && AlertDb_ReadByCreationTimeW(creationTime, &record)) {
            text = record->creationTime == creationTime ? record->xml : "(wrong creation time)";
            free(record);
        }
        AlertDb_Close(0);
        return text;
    }

    // True once when the event was set since the last look (it resets itself).
    bool EventSet() { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }

    // Makes kept alert files, oldest first. Wine keeps the file system's own
    // birth time and ignores the one SetFileTime gives, so the files are made
    // in that order, with a pause the clock can see, and set to it too.
    void PutInAgeOrder(const std::vector<std::wstring>& oldestFirst) {
        for (size_t i = 0; i < oldestFirst.size(); ++i) {
            Put(oldestFirst[i], AlertText("aged"));
            HANDLE file = CreateFileW(PathOf(oldestFirst[i]).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING,
                                      0, nullptr);
            const ULONGLONG created = kFeb3At140509 - (oldestFirst.size() - i) * 3600 * kSecond;
            FILETIME time = {static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
            EXPECT_TRUE(SetFileTime(file, &time, nullptr, nullptr));
            CloseHandle(file);
            Sleep(30);
        }
    }
};

TEST_F(AlertDatabaseTest, StoresTheExactBytesTrimsAndCountsADuplicateAsStored) {
    // The creation time is the stamp after the last '_', whatever comes before it.
    EXPECT_EQ(kFeb3At140509, GetCreationTimeStampFromAlertFileName(L"X_01011999000000-ZORA_Alerts_02032021140509.xml"));
    const std::wstring first = AlertName(L"02032021140509"), second = AlertName(L"02032021140510");
    // Kept files of this machine, older than anything; with removeXml 1 no
    // file limit applies to them, however low the maximum.
    PutInAgeOrder({AlertName(L"01012020000000"), AlertName(L"01012020000001")});
    Put(first, AlertText("1"));
    EXPECT_NE(0, Store(first, 1, 1));
    EXPECT_TRUE(EventSet());
    EXPECT_EQ(AlertText("1"), StoredFor(first));
    EXPECT_FALSE(Exists(first));
    EXPECT_TRUE(Exists(AlertName(L"01012020000000")) && Exists(AlertName(L"01012020000001")));
    Put(second, AlertText("2"));
    EXPECT_NE(0, Store(second, 1, 1));
    EXPECT_EQ("(none)", StoredFor(first)) << "trimmed to one";
    EXPECT_EQ("", log.Since());

    // The clock was set back: same stamp, new content, the file kept or deleted as usual.
    for (DWORD removeXml : {0, 1}) {
        log.Mark();
        Put(second, AlertText("again"));
        EXPECT_NE(0, Store(second, removeXml, 30));
        EXPECT_EQ(std::vector<std::string>{"addToAlertDbCore: Alert with same creation time exists!"}, log.Messages());
        EXPECT_EQ(AlertText("2"), StoredFor(second)) << "the older record stays";
        EXPECT_EQ(removeXml == 0, Exists(second));
        EXPECT_TRUE(EventSet());
    }
}

TEST_F(AlertDatabaseTest, TheFolderLosesOneOldestOwnFilePerStore) {
    // Name order and age order disagree: the age is the file-system creation
    // time. Another machine's files and a non-xml file are older still, and not counted.
    const std::wstring own[] = {AlertName(L"01012021000001"), AlertName(L"01012021000002"),
                                AlertName(L"01012021000003")};
    const std::wstring other = AlertName(L"01012020000001", L"OTHER99");
    const std::wstring notXml = std::wstring(kTag) + L"-ZORA_Alerts_01012020000003.txt";
    PutInAgeOrder({notXml, other, own[2], own[1], own[0]});
    log.Mark();
    CheckMaxAlertFiles(2, folder.c_str());
    EXPECT_FALSE(Exists(own[2]));
    EXPECT_EQ(
        std::vector<std::string>{"CheckMaxAlertFiles(): deleting oldest alert file " + ToUtf8(PathOf(own[2])) + "..."},
        log.Messages());
    log.Mark();
    CheckMaxAlertFiles(2, folder.c_str());
    EXPECT_EQ("", log.Since());
    // Through the store: the new file is the youngest, one old one goes.
    const std::wstring fresh = AlertName(L"02032021140509");
    Put(fresh, AlertText("fresh"));
    EXPECT_NE(0, Store(fresh, 0, 2));
    EXPECT_TRUE(Exists(fresh) && Exists(own[0]) && !Exists(own[1]));
    EXPECT_TRUE(Exists(other) && Exists(notXml));
    EXPECT_EQ(AlertText("fresh"), StoredFor(fresh));
}

TEST_F(AlertDatabaseTest, AFileThatIsNoXmlHasNoDateOrCannotBeStoredStaysUnstored) {
    const std::wstring older = AlertName(L"01012020000000");
    PutInAgeOrder({older});
    const struct {
        std::wstring name;
        const char* value;                  // put into a well-formed alert; null: no file at all
        std::vector<std::string> messages;  // each followed by the path
    } cases[] = {
        {AlertName(L"02032021140510"),
         "fish & chips",
         {"ReadValidateXmlFile: LoadXML ", "AddToAlertDb: ReadValidateXmlFile "}},
        {AlertName(L"02032021140512"),
         nullptr,
         {"ReadMultiByteUtf8File: Error 0x2 opening file for reading ", "ReadValidateXmlFile: ReadMultiByteUtf8File ",
          "AddToAlertDb: ReadValidateXmlFile "}},
        {AlertName(L"13032021140509"), "", {"GetCreationTimeStampFromAlertFileName: SystemTimeToFileTime failed "}},
        {AlertName(L"0203202114"), "", {}},  // fewer than six numbers: nothing to say
        {L"alerts.xml", "", {"GetCreationTimeStampFromAlertFileName: could not find _ in alerts.xml"}},
        {AlertName(L"02032021140513"),
         "",
         {"addToAlertDbCore: AlertDb_Open () failed", "AddToAlertDb: addToAlertDbCore "}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(ToUtf8(c.name));
        std::string text = AlertText("x");
        if (c.value != nullptr) text.insert(text.find("</Value>"), c.value);
        if (c.value != nullptr) Put(c.name, text);
        const bool noDatabase = !c.messages.empty() && c.messages[0].find("AlertDb_Open") != std::string::npos;
        if (noDatabase) {
            // A folder where the database file belongs: no database can be made there.
            FreeSqliteLib();
            for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((database + suffix).c_str());
            ASSERT_TRUE(CreateDirectoryW(database.c_str(), nullptr));
            InitSqliteLib();
        }
        log.Mark();
        EXPECT_EQ(0, Store(c.name, 1, 0));
        std::vector<std::string> messages = log.Messages();
        ASSERT_LE(c.messages.size(), messages.size()) << log.Since();
        EXPECT_TRUE(noDatabase || c.messages.size() == messages.size()) << log.Since();
        messages.erase(messages.begin(), messages.end() - c.messages.size());
        for (size_t i = 0; i < messages.size(); ++i) EXPECT_EQ(0u, messages[i].find(c.messages[i])) << messages[i];
        EXPECT_TRUE(c.messages.size() <= 1 || log.Contains(c.messages.back() + ToUtf8(PathOf(c.name)) + " failed"));
        RemoveDirectoryW(database.c_str());
        EXPECT_EQ(c.value != nullptr ? text : "", omktest::ReadFileBytes(PathOf(c.name)))
            << "neither stored nor deleted";
        EXPECT_EQ("(none)", StoredFor(c.name));
        EXPECT_TRUE(Exists(older)) << "no file limit after a failed store";
        EXPECT_FALSE(EventSet());
    }
}

}  // namespace
