// Storing alert files: real files in the product's alert folder, the real
// alert database, the machine-wide alert-generated event seen from a second
// process, and the error log read back.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "alertDatabase.h"
#include "cdef.h"
#include "conventions.h"
#include "omkDb.h"
#include "testSupport.h"

namespace {

// A tag with '_' in it: the stamp must still be found after the last one.
const wchar_t kTag[] = L"QA_TEST7";
const wchar_t kOtherTag[] = L"OTHER99";

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

std::string Utf8(const std::wstring& text) {
    return omktest::ToUtf8(text);
}

class AlertDatabaseTest : public ::testing::Test {
protected:
    omktest::ErrorLog log{L"alertDatabase_test.txt"};
    std::wstring folder;
    HANDLE event = nullptr;
    int allocStart = 0;
    wchar_t savedTag[OMK_SERVICE_TAG_CHARS];

    void SetUp() override {
        memcpy(savedTag, g_serviceTag, sizeof(savedTag));
        wcscpy(g_serviceTag, kTag);
        folder = CDef::GetInstance().FOLDER_OMK_ALERT;
        ASSERT_FALSE(folder.empty());
        RemoveTestFiles();
        // A fresh database for every test.
        std::wstring db = std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db";
        for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((db + suffix).c_str());
        ASSERT_NE(0, InitSqliteLib());
        ASSERT_NE(0, AlertDb_Open(1, 1));
        AlertDb_Close(1);
        // Engine initialisation owns the event in the service; here the test does.
        event = CreateEventW(nullptr, FALSE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
        ASSERT_NE(nullptr, event);
        WaitForSingleObject(event, 0);
        allocStart = g_allocCount;
        log.Mark();
    }
    void TearDown() override {
        FreeSqliteLib();
        if (event != nullptr) CloseHandle(event);
        RemoveTestFiles();
        memcpy(g_serviceTag, savedTag, sizeof(savedTag));
    }

    void RemoveTestFiles() {
        for (const wchar_t* tag : {kTag, kOtherTag}) {
            WIN32_FIND_DATAW found;
            std::wstring pattern = folder + L"\\" + tag + L"-ZORA_Alerts_*";
            HANDLE find = FindFirstFileW(pattern.c_str(), &found);
            if (find == INVALID_HANDLE_VALUE) continue;
            do DeleteFileW((folder + L"\\" + found.cFileName).c_str());
            while (FindNextFileW(find, &found));
            FindClose(find);
        }
    }

    std::wstring PathOf(const std::wstring& name) const { return folder + L"\\" + name; }
    std::wstring Put(const std::wstring& name, const std::string& bytes) {
        EXPECT_TRUE(omktest::WriteFileBytes(PathOf(name), bytes));
        return PathOf(name);
    }
    bool Exists(const std::wstring& name) const { return omktest::FileExists(PathOf(name)); }

    // The engine's call for the alert file `name`; the allocation count must
    // come back after each one.
    int Store(const std::wstring& name, DWORD removeXml, DWORD maxAlerts) {
        wcscpy(g_alertFileName, name.c_str());
        int result = AddToAlertDb(folder.c_str(), 0, removeXml, maxAlerts);
        EXPECT_EQ(allocStart, g_allocCount) << "after storing " << Utf8(name);
        return result;
    }

    // The stored text for a creation time, or "(none)".
    std::string Stored(ULONGLONG creationTime) {
        EXPECT_NE(0, AlertDb_Open(0, 0));
        ALERT_DB_RECORD* record = nullptr;
        std::string text = "(none)";
        if (AlertDb_ReadByCreationTimeW(creationTime, &record)) {
            EXPECT_EQ(creationTime, record->creationTime);
            text = record->xml;
            free(record);
        }
        AlertDb_Close(0);
        return text;
    }
    std::string StoredFor(const std::wstring& name) {
        return Stored(GetCreationTimeStampFromAlertFileName(name.c_str()));
    }

    // True once when the event was set since the last look (it resets itself).
    bool EventSet() { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }

    ULONGLONG Created(const std::wstring& name) {
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExW(PathOf(name).c_str(), GetFileExInfoStandard, &data)) return 0;
        return (static_cast<ULONGLONG>(data.ftCreationTime.dwHighDateTime) << 32) | data.ftCreationTime.dwLowDateTime;
    }
    // Makes old kept alert files, oldest first, an hour apart in creation
    // time. Wine keeps the file system's own birth time and ignores the one
    // SetFileTime gives, so the files are also made in that order with a
    // pause between them; either way the age order is the one asked for.
    void PutInAgeOrder(const std::vector<std::wstring>& oldestFirst) {
        const ULONGLONG youngest = kFeb3At140509 - 86400 * kSecond;
        for (size_t i = 0; i < oldestFirst.size(); ++i) {
            Put(oldestFirst[i], AlertText("aged"));
            HANDLE file = CreateFileW(PathOf(oldestFirst[i]).c_str(), FILE_WRITE_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
            ASSERT_NE(INVALID_HANDLE_VALUE, file);
            const ULONGLONG created = youngest - (oldestFirst.size() - i) * 3600 * kSecond;
            FILETIME time = {static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
            EXPECT_TRUE(SetFileTime(file, &time, nullptr, nullptr));
            CloseHandle(file);
            Sleep(30);
        }
        for (size_t i = 1; i < oldestFirst.size(); ++i)
            ASSERT_LT(Created(oldestFirst[i - 1]), Created(oldestFirst[i])) << Utf8(oldestFirst[i]);
    }
    // The last two messages since the mark: a failure's own report and the caller's.
    std::vector<std::string> LastTwoMessages() const {
        std::vector<std::string> messages = log.Messages();
        if (messages.size() > 2) messages.erase(messages.begin(), messages.end() - 2);
        return messages;
    }
};

TEST_F(AlertDatabaseTest, CreationTimeComesFromTheStampAfterTheLastUnderscore) {
    EXPECT_EQ(kFeb3At140509, GetCreationTimeStampFromAlertFileName(L"ABC1234-ZORA_Alerts_02032021140509.xml"));
    // The tag's own '_' and a stamp-like tag are both ignored.
    EXPECT_EQ(kFeb3At140509, GetCreationTimeStampFromAlertFileName(L"X_01011999000000-ZORA_Alerts_02032021140509.xml"));
    EXPECT_EQ(kFeb3At140509 + kSecond,
              GetCreationTimeStampFromAlertFileName(L"QA_TEST7-ZORA_Alerts_02032021140510.xml"));
    EXPECT_EQ("", log.Since());

    // Fewer than six numbers: no time and nothing to say.
    EXPECT_EQ(0u, GetCreationTimeStampFromAlertFileName(L"ABC1234-ZORA_Alerts_0203202114.xml"));
    EXPECT_EQ(0u, GetCreationTimeStampFromAlertFileName(L"ABC1234-ZORA_Alerts_.xml"));
    EXPECT_EQ("", log.Since());

    EXPECT_EQ(0u, GetCreationTimeStampFromAlertFileName(L"ABC1234-ZORA_Alerts_13032021140509.xml"));
    std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(1u, messages.size()) << log.Since();
    EXPECT_EQ(0u, messages[0].find("GetCreationTimeStampFromAlertFileName: SystemTimeToFileTime failed "));
    EXPECT_NE(std::string::npos, messages[0].find(" - fileName ABC1234-ZORA_Alerts_13032021140509.xml"));

    log.Mark();
    EXPECT_EQ(0u, GetCreationTimeStampFromAlertFileName(L"alerts.xml"));
    EXPECT_EQ(std::vector<std::string>{"GetCreationTimeStampFromAlertFileName: could not find _ in alerts.xml"},
              log.Messages());
}

TEST_F(AlertDatabaseTest, StoresTheExactBytesThenDeletesOrKeepsTheFile) {
    const std::wstring removed = AlertName(L"02032021140509");
    const std::string removedText = AlertText("1");
    Put(removed, removedText);
    // Kept files of this machine, older than anything; with removeXml 1 no
    // file limit applies to them, however low the maximum.
    PutInAgeOrder({AlertName(L"01012020000000"), AlertName(L"01012020000001")});

    EXPECT_NE(0, Store(removed, 1, 1));
    EXPECT_EQ(removedText, StoredFor(removed));
    EXPECT_FALSE(Exists(removed));
    EXPECT_TRUE(Exists(AlertName(L"01012020000000")));
    EXPECT_TRUE(Exists(AlertName(L"01012020000001")));
    EXPECT_TRUE(EventSet());
    EXPECT_EQ("", log.Since());

    const std::wstring kept = AlertName(L"02032021140510");
    const std::string keptText = AlertText("2");
    Put(kept, keptText);
    EXPECT_NE(0, Store(kept, 0, 30));
    EXPECT_EQ(keptText, StoredFor(kept));
    EXPECT_EQ(keptText, omktest::ReadFileBytes(PathOf(kept)));
    EXPECT_EQ(removedText, StoredFor(removed));
    EXPECT_TRUE(EventSet());
    EXPECT_EQ("", log.Since());
}

TEST_F(AlertDatabaseTest, DuplicateCreationTimeCountsAsStoredAndKeepsTheOlderRecord) {
    const std::wstring name = AlertName(L"02032021140509");
    const std::string first = AlertText("first");
    Put(name, first);
    ASSERT_NE(0, Store(name, 0, 30));
    ASSERT_TRUE(EventSet());
    log.Mark();

    // The clock was set back: same stamp, new content, file kept.
    Put(name, AlertText("second"));
    EXPECT_NE(0, Store(name, 0, 30));
    EXPECT_EQ(std::vector<std::string>{"addToAlertDbCore: Alert with same creation time exists!"}, log.Messages());
    EXPECT_EQ(first, StoredFor(name));
    EXPECT_EQ(AlertText("second"), omktest::ReadFileBytes(PathOf(name)));
    EXPECT_TRUE(EventSet());

    // Again, deleted as usual this time.
    log.Mark();
    Put(name, AlertText("third"));
    EXPECT_NE(0, Store(name, 1, 30));
    EXPECT_EQ(std::vector<std::string>{"addToAlertDbCore: Alert with same creation time exists!"}, log.Messages());
    EXPECT_EQ(first, StoredFor(name));
    EXPECT_FALSE(Exists(name));
    EXPECT_TRUE(EventSet());
}

TEST_F(AlertDatabaseTest, DatabaseIsTrimmedToTheNewestMaxAlerts) {
    std::vector<std::wstring> names;
    for (int s = 1; s <= 5; ++s) {
        wchar_t stamp[16];
        swprintf(stamp, 16, L"020320211405%02d", s);
        names.push_back(AlertName(stamp));
        Put(names.back(), AlertText(std::to_string(s)));
        ASSERT_NE(0, Store(names.back(), 1, 3));
    }
    for (int i = 0; i < 5; ++i) {
        if (i < 2)
            EXPECT_EQ("(none)", StoredFor(names[i])) << i;
        else
            EXPECT_EQ(AlertText(std::to_string(i + 1)), StoredFor(names[i])) << i;
    }

    const std::wstring sixth = AlertName(L"02032021140506");
    Put(sixth, AlertText("6"));
    ASSERT_NE(0, Store(sixth, 1, 1));
    for (const std::wstring& name : names) EXPECT_EQ("(none)", StoredFor(name));
    EXPECT_EQ(AlertText("6"), StoredFor(sixth));

    // A maximum of 0 trims even the alert just stored; the store still counts.
    const std::wstring seventh = AlertName(L"02032021140507");
    Put(seventh, AlertText("7"));
    EXPECT_NE(0, Store(seventh, 1, 0));
    EXPECT_EQ("(none)", StoredFor(sixth));
    EXPECT_EQ("(none)", StoredFor(seventh));
    EXPECT_TRUE(EventSet());
    EXPECT_EQ("", log.Since());
}

TEST_F(AlertDatabaseTest, FileLimitDeletesOneOldestOwnFilePerCall) {
    // Name order and age order disagree: the age is the file-system creation time.
    const std::wstring own[] = {AlertName(L"01012021000001"), AlertName(L"01012021000002"),
                                AlertName(L"01012021000003"), AlertName(L"01012021000004")};
    // Another machine's files and a non-xml file are older still, and not counted.
    const std::wstring other1 = AlertName(L"01012020000001", kOtherTag);
    const std::wstring other2 = AlertName(L"01012020000002", kOtherTag);
    const std::wstring notXml = std::wstring(kTag) + L"-ZORA_Alerts_01012020000003.txt";
    PutInAgeOrder({notXml, other2, other1, own[3], own[2], own[1], own[0]});

    CheckMaxAlertFiles(2, folder.c_str());
    EXPECT_FALSE(Exists(own[3]));
    EXPECT_TRUE(Exists(own[0]) && Exists(own[1]) && Exists(own[2]));
    EXPECT_EQ(
        std::vector<std::string>{"CheckMaxAlertFiles(): deleting oldest alert file " + Utf8(PathOf(own[3])) + "..."},
        log.Messages());

    log.Mark();
    CheckMaxAlertFiles(2, folder.c_str());
    EXPECT_FALSE(Exists(own[2]));
    EXPECT_TRUE(Exists(own[0]) && Exists(own[1]));
    EXPECT_TRUE(log.Contains(Utf8(own[2])));

    log.Mark();
    CheckMaxAlertFiles(2, folder.c_str());
    EXPECT_TRUE(Exists(own[0]) && Exists(own[1]));
    EXPECT_EQ("", log.Since());
    EXPECT_TRUE(Exists(other1) && Exists(other2) && Exists(notXml));

    // Through the store: the new file is the youngest, one old one goes.
    log.Mark();
    const std::wstring fresh = AlertName(L"02032021140509");
    Put(fresh, AlertText("fresh"));
    EXPECT_NE(0, Store(fresh, 0, 2));
    EXPECT_TRUE(Exists(fresh));
    EXPECT_TRUE(Exists(own[0]));
    EXPECT_FALSE(Exists(own[1]));
    EXPECT_TRUE(Exists(other1) && Exists(other2));
    EXPECT_EQ(AlertText("fresh"), StoredFor(fresh));
    EXPECT_TRUE(EventSet());
}

TEST_F(AlertDatabaseTest, MalformedOrUnreadableFileIsNeitherStoredNorDeleted) {
    const std::wstring older = AlertName(L"01012020000000");
    PutInAgeOrder({older});
    const struct {
        const char* value;
        DWORD removeXml;
    } cases[] = {{"fish & chips", 1}, {"a < b", 0}};
    int second = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        wchar_t stamp[16];
        swprintf(stamp, 16, L"020320211405%02d", second++);
        const std::wstring name = AlertName(stamp);
        std::string text = AlertText("x");
        text.insert(text.find("</Value>"), c.value);
        const std::wstring path = Put(name, text);
        log.Mark();
        EXPECT_EQ(0, Store(name, c.removeXml, 0));
        EXPECT_EQ(text, omktest::ReadFileBytes(path));
        EXPECT_EQ("(none)", StoredFor(name));
        EXPECT_TRUE(Exists(older)) << "no file limit after a failed store";
        EXPECT_FALSE(EventSet());
        EXPECT_EQ((std::vector<std::string>{"ReadValidateXmlFile: LoadXML " + Utf8(path) + " failed",
                                            "AddToAlertDb: ReadValidateXmlFile " + Utf8(path) + " failed"}),
                  LastTwoMessages());
    }

    log.Mark();
    const std::wstring missing = AlertName(L"02032021140520");
    EXPECT_EQ(0, Store(missing, 1, 30));
    EXPECT_EQ(
        (std::vector<std::string>{"ReadValidateXmlFile: ReadMultiByteUtf8File " + Utf8(PathOf(missing)) + " failed",
                                  "AddToAlertDb: ReadValidateXmlFile " + Utf8(PathOf(missing)) + " failed"}),
        LastTwoMessages());
    EXPECT_FALSE(EventSet());

    // A stamp that is no date: nothing read, nothing stored, the file stays.
    log.Mark();
    const std::wstring badMonth = AlertName(L"13032021140509");
    Put(badMonth, AlertText("bad month"));
    EXPECT_EQ(0, Store(badMonth, 1, 30));
    EXPECT_TRUE(Exists(badMonth));
    EXPECT_TRUE(log.Contains("SystemTimeToFileTime failed"));
    EXPECT_FALSE(EventSet());
}

TEST_F(AlertDatabaseTest, DatabaseThatCannotOpenLeavesTheFileInPlace) {
    // A folder where the database file belongs: no database can be made there.
    std::wstring db = std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db";
    for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((db + suffix).c_str());
    ASSERT_TRUE(CreateDirectoryW(db.c_str(), nullptr));
    const std::wstring name = AlertName(L"02032021140509");
    const std::wstring path = Put(name, AlertText("1"));
    const int result = Store(name, 1, 30);
    omktest::RemoveTree(db);
    EXPECT_EQ(0, result);
    EXPECT_TRUE(Exists(name));
    EXPECT_FALSE(EventSet());
    EXPECT_TRUE(log.Contains("addToAlertDbCore: AlertDb_Open () failed")) << log.Since();
    EXPECT_TRUE(log.Contains("AddToAlertDb: addToAlertDbCore " + Utf8(path) + " failed")) << log.Since();
}

TEST_F(AlertDatabaseTest, AnotherProcessSeesTheEventOnlyForAStoredAlert) {
    const std::wstring waiter = L"\"" + omktest::ProgramFolder() + L"\\alertEventWaiter.exe\" ";
    auto waitWhile = [&](DWORD timeoutMs, const std::wstring& name, DWORD removeXml) {
        DWORD code = 0xBAD;
        std::thread other([&] { code = omktest::RunProcess(waiter + std::to_wstring(timeoutMs), 30000); });
        int result = Store(name, removeXml, 30);
        other.join();
        return std::make_pair(result, code);
    };

    const std::wstring good = AlertName(L"02032021140509");
    Put(good, AlertText("1"));
    auto stored = waitWhile(20000, good, 1);
    EXPECT_NE(0, stored.first);
    EXPECT_EQ(0u, stored.second) << "the waiting process saw the event";

    const std::wstring bad = AlertName(L"02032021140510");
    Put(bad, "<TolvaneAlerts><Value>&</Value></TolvaneAlerts>");
    auto failed = waitWhile(1500, bad, 1);
    EXPECT_EQ(0, failed.first);
    EXPECT_EQ(1u, failed.second) << "the waiting process timed out";
}

}  // namespace
