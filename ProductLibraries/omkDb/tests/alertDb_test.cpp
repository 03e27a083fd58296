// The alert database on a real SQLite file, with second processes.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <set>
#include <thread>

#include "alertDbTestData.h"
#include "cdef.h"
#include "omkDb.h"
#include "sqlite3.h"
#include "testSupport.h"

namespace {

using alertdbtest::AlertXml;

// Where the library keeps the database: the product's Data folder, by the service's rule.
std::wstring DataFolder() {
    return CDef::GetInstance().FOLDER_OMK_DATABASE;
}
std::wstring DatabasePath() {
    return DataFolder() + L"\\omkAlerts.db";
}

std::wstring ClientCommand(const std::wstring& arguments) {
    return L"\"" + omktest::ProgramFolder() + L"\\alertDbClient.exe\" " + arguments;
}

// Opens `path` without delete (or write) sharing: it can be neither moved nor written by anyone else.
HANDLE Hold(const std::wstring& path, DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE) {
    return CreateFileW(path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr);
}

class AlertDb : public ::testing::Test {
protected:
    omktest::ErrorLog log{L"omkDb_test.txt"};

    void SetUp() override {
        FreeSqliteLib();
        omktest::RemoveTree(DataFolder());
        ASSERT_FALSE(omktest::FileExists(DataFolder()));
        ASSERT_TRUE(InitSqliteLib());
        log.Mark();
    }
    void TearDown() override { FreeSqliteLib(); }

    // The stored text for a creation time, or "<none>".
    static std::string ReadXml(unsigned long long creationTime) {
        ALERT_DB_RECORD* record = nullptr;
        if (!AlertDb_ReadByCreationTimeW(creationTime, &record)) return record == nullptr ? "<none>" : "<stray record>";
        std::string xml = record->creationTime == creationTime ? record->xml : "<wrong creation time>";
        free(record);
        return xml;
    }

    // Runs `sql` with SQLite directly: the first column of each row, joined by "|".
    static std::string Query(const char* sql) {
        std::string rows;
        sqlite3* db = nullptr;
        sqlite3_open(omktest::ToUtf8(DatabasePath()).c_str(), &db);
        auto row = [](void* out, int, char** values, char**) {
            *static_cast<std::string*>(out) += (values[0] != nullptr ? values[0] : "NULL") + std::string("|");
            return 0;
        };
        if (sqlite3_exec(db, sql, row, &rows, nullptr) != SQLITE_OK) rows += sqlite3_errmsg(db);
        sqlite3_close(db);
        if (!rows.empty() && rows.back() == '|') rows.pop_back();
        return rows;
    }

    static std::vector<std::wstring> Files() { return omktest::FilesMatching(DataFolder() + L"\\omkAlerts.db*"); }
};

TEST_F(AlertDb, StoresTheBytesAsGivenRefusesADuplicateAndFailsBadCallsWithAReport) {
    ALERT_DB_RECORD* record = nullptr;
    EXPECT_FALSE(AlertDb_Write(1, "<a/>"));
    EXPECT_FALSE(AlertDb_ReadByCreationTimeW(1, &record));
    EXPECT_FALSE(AlertDb_DeleteOldestRecords(3));
    EXPECT_FALSE(AlertDb_Open(0, 0)) << "only a creating open makes the file";
    EXPECT_FALSE(AlertDb_OpenReadOnly(nullptr));

    FILETIME before, after;
    GetSystemTimeAsFileTime(&before);
    ASSERT_TRUE(AlertDb_Open(1, 1));
    EXPECT_TRUE(AlertDb_Open(1, 1)) << "an open database is kept";
    const unsigned long long created = 132567891090000000ull;
    std::string xml = AlertXml(created) + "\xE2\x82\xAC \x01 not even well-formed <";
    ASSERT_TRUE(AlertDb_Write(created, xml.c_str()));
    GetSystemTimeAsFileTime(&after);
    EXPECT_EQ(xml, ReadXml(created));
    EXPECT_EQ("<none>", ReadXml(created + 1));
    EXPECT_FALSE(AlertDb_Write(created, "<second/>"));
    EXPECT_EQ(xml, ReadXml(created)) << "the older record stays";
    EXPECT_FALSE(AlertDb_Write(2, nullptr));
    EXPECT_FALSE(AlertDb_Write(0x8000000000000000ull, "<a/>"));
    EXPECT_FALSE(AlertDb_ReadByCreationTimeW(2, nullptr));
    EXPECT_TRUE(AlertDb_Close(1));
    EXPECT_EQ("<none>", ReadXml(created)) << "closed: " << log.Since();

    EXPECT_EQ("wal", Query("PRAGMA journal_mode"));
    EXPECT_EQ(xml + "|132567891090000000 text",
              Query("SELECT xml FROM alerts UNION ALL SELECT creation_time || ' ' || typeof(xml) FROM alerts"));
    unsigned long long storedUtc = _strtoui64(Query("SELECT stored_utc FROM alerts").c_str(), nullptr, 10);
    EXPECT_GE(storedUtc, (static_cast<unsigned long long>(before.dwHighDateTime) << 32) | before.dwLowDateTime);
    EXPECT_LE(storedUtc, (static_cast<unsigned long long>(after.dwHighDateTime) << 32) | after.dwLowDateTime);
    EXPECT_TRUE(FreeSqliteLib()) << "closes what is still open";
    EXPECT_FALSE(AlertDb_Open(1, 1));
    const std::string path = omktest::ToUtf8(DatabasePath());
    EXPECT_EQ(
        (std::vector<std::string>{
            "AlertDb_Write: the database is not open", "AlertDb_ReadByCreationTimeW: the database is not open",
            "AlertDb_DeleteOldestRecords: the database is not open", "AlertDb_Open: " + path + " does not exist",
            "AlertDb_OpenReadOnly: " + path + " does not exist",
            "AlertDb_Write: an alert with creation time 132567891090000000 is stored already",
            "AlertDb_Write: null xml for creation time 2",
            "AlertDb_Write: creation time 9223372036854775808 is out of range",
            "AlertDb_ReadByCreationTimeW: null record pointer", "AlertDb_ReadByCreationTimeW: the database is not open",
            "AlertDb_Open: InitSqliteLib has not been called"}),
        log.Messages());
}

TEST_F(AlertDb, TrimKeepsTheAlertsStoredLastWhateverTheirCreationTimesAndUpgradesTheFirstLayout) {
    // Stored while the clock ran a year ahead, then correctly stamped ones.
    const unsigned long long ahead = 133000000000000000ull, now = 132500000000000000ull;
    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (unsigned long long t : {ahead, ahead + 1, ahead + 2, now, now + 1}) ASSERT_TRUE(AlertDb_Write(t, "<a/>"));
    ASSERT_TRUE(AlertDb_Open(0, 0));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(5));
    EXPECT_EQ("5", Query("SELECT count(*) FROM alerts"));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(3));
    EXPECT_EQ(std::to_string(ahead + 2) + "|" + std::to_string(now) + "|" + std::to_string(now + 1),
              Query("SELECT creation_time FROM alerts ORDER BY id"));
    // A store with its trim in the same commit.
    ASSERT_TRUE(AlertDb_WriteAndTrim(now + 2, "<a/>", 3));
    EXPECT_EQ("3", Query("SELECT count(*) FROM alerts"));
    EXPECT_EQ("<none>", ReadXml(ahead + 2));
    ASSERT_TRUE(AlertDb_WriteAndTrim(now + 3, "<a/>", 5));
    EXPECT_EQ("4", Query("SELECT count(*) FROM alerts"));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(0));
    EXPECT_EQ("0", Query("SELECT count(*) FROM alerts"));
    FreeSqliteLib();

    // A file of the first layout: its order of storing is its store times.
    omktest::RemoveTree(DataFolder());
    CreateDirectoryW(DataFolder().c_str(), nullptr);
    Query(
        "CREATE TABLE alerts(creation_time INTEGER PRIMARY KEY, xml TEXT NOT NULL, stored_utc INTEGER NOT NULL);"
        "INSERT INTO alerts VALUES(30, 'a', 1), (20, 'b', 2), (10, 'c', 3)");
    ASSERT_TRUE(InitSqliteLib());
    ASSERT_TRUE(AlertDb_Open(1, 1));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(2));
    EXPECT_EQ("b", ReadXml(20));
    EXPECT_EQ("2 20|3 10", Query("SELECT id || ' ' || creation_time FROM alerts ORDER BY id"));
    EXPECT_EQ("", log.Since());
}

TEST_F(AlertDb, ACorruptFileThatCannotBeMovedIsRetriedAtTheNextOpenAndItsWalNeverMeetsANewDatabase) {
    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (unsigned long long t = 1; t <= 3; ++t) ASSERT_TRUE(AlertDb_Write(t, "<stale/>"));
    FreeSqliteLib();
    // A WAL that changes a record in place: it holds the table's page, not the header page.
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(omktest::ToUtf8(DatabasePath()).c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "UPDATE alerts SET xml='<STALE/>' WHERE creation_time=1", 0, 0, 0));
    const std::string staleWal = omktest::ReadFileBytes(DatabasePath() + L"-wal");
    sqlite3_close(db);
    ASSERT_GT(staleWal.size(), 4096u);
    const std::string garbage(8192, '#');

    // Held: first the database itself, then only its WAL (the database is moved, the WAL is not).
    for (const wchar_t* held : {L"", L"-wal"}) {
        SCOPED_TRACE(omktest::ToUtf8(held));
        ASSERT_TRUE(omktest::WriteFileBytes(DatabasePath(), garbage));
        ASSERT_TRUE(omktest::WriteFileBytes(DatabasePath() + L"-wal", staleWal));
        ASSERT_TRUE(InitSqliteLib());
        log.Mark();
        HANDLE holder = Hold(DatabasePath() + held);
        ASSERT_NE(INVALID_HANDLE_VALUE, holder);
        EXPECT_FALSE(AlertDb_Open(1, 1));
        EXPECT_FALSE(AlertDb_Open(1, 1));
        const std::string since = log.Since();
        EXPECT_TRUE(since.find("could not move") != std::string::npos &&
                    since.find("could not move") == since.rfind("could not move"))
            << "reported once: " << since;
        CloseHandle(holder);
        ASSERT_TRUE(AlertDb_Open(1, 1)) << log.Since();
        EXPECT_EQ("<none>", ReadXml(1)) << "the stale WAL was applied";
        EXPECT_TRUE(log.Contains(" is not a valid database - moved aside to ")) << log.Since();
        FreeSqliteLib();
    }
    // Both files moved aside, the first with its WAL beside it.
    std::multiset<std::string> copies;
    for (const std::wstring& name : Files()) {
        if (name.find(L".corrupt-") != std::wstring::npos)
            copies.insert(omktest::ReadFileBytes(DataFolder() + L"\\" + name));
    }
    EXPECT_TRUE((std::multiset<std::string>{garbage, garbage, staleWal}) == copies);
}

TEST_F(AlertDb, EveryAlertReportedStoredSurvivesTheWriterKilledRightAfterAndALockIsWaitedFor) {
    const unsigned long long first = 1000000;
    EXPECT_EQ(7u, omktest::RunProcess(ClientCommand(L"write " + std::to_wstring(first) + L" 100")));
    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(AlertXml(first + i), ReadXml(first + i)) << i;
    EXPECT_EQ("100", Query("SELECT count(*) FROM alerts"));

    // Another connection holds the write lock for a while: the store waits for it.
    sqlite3* holder = nullptr;
    sqlite3_open(omktest::ToUtf8(DatabasePath()).c_str(), &holder);
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
    std::thread release([holder] {
        Sleep(400);
        sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    });
    const DWORD start = GetTickCount();
    EXPECT_TRUE(AlertDb_Write(1, "<after/>"));
    EXPECT_GE(GetTickCount() - start, 300u) << "the write went through a held lock";
    release.join();
    sqlite3_close(holder);
    EXPECT_EQ("<after/>", ReadXml(1));
}

TEST_F(AlertDb, AProcessWithoutWriteAccessReadsWhileTheServiceWritesAndWhileItIsStopped) {
    const unsigned long long first = 5000;
    const int count = 200;
    ASSERT_TRUE(AlertDb_Open(1, 1));
    ASSERT_TRUE(AlertDb_Write(first, AlertXml(first).c_str()));
    const std::wstring opened = L"omkDbTest" + std::to_wstring(GetCurrentProcessId());
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, opened.c_str());
    const std::wstring read = ClientCommand(L"read " + std::to_wstring(first) + L" " + std::to_wstring(count) + L" ") + opened;
    omktest::Child reader(read);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 30000)) << "the reader did not open the database";
    for (int i = 1; i < count; ++i) ASSERT_TRUE(AlertDb_Write(first + i, AlertXml(first + i).c_str()));
    EXPECT_EQ(0u, reader.Wait(90000)) << "21 torn record, 22 time-out";
    FreeSqliteLib();  // the service stopped

    // No other process may write any of the files now, nor go unnoticed adding one.
    const std::vector<std::wstring> files = Files();
    EXPECT_EQ((std::vector<std::wstring>{L"omkAlerts.db", L"omkAlerts.db-shm", L"omkAlerts.db-wal"}), files);
    std::vector<HANDLE> holders;
    for (const std::wstring& name : files) holders.push_back(Hold(DataFolder() + L"\\" + name, FILE_SHARE_READ));
    const std::string bytes = omktest::ReadFileBytes(DatabasePath());
    EXPECT_EQ(0u, omktest::RunProcess(read));
    EXPECT_EQ(files, Files());
    EXPECT_TRUE(bytes == omktest::ReadFileBytes(DatabasePath()));
    for (HANDLE holder : holders) CloseHandle(holder);
    CloseHandle(event);
    EXPECT_EQ("", log.Since());
}

TEST_F(AlertDb, ReadersWalkNewestFirstOrAfterAnIdAndReportAFileDamagedInside) {
    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (unsigned long long t : {30, 10, 20}) ASSERT_TRUE(AlertDb_Write(t, AlertXml(t).c_str()));
    FreeSqliteLib();
    ASSERT_TRUE(InitSqliteLib());
    ASSERT_TRUE(AlertDb_OpenReadOnly(nullptr));
    // "id:creation time" of each record, "!" after one whose text or store time is wrong.
    auto walk = [](int order, unsigned long long from) {
        std::string seen;
        ALERT_DB_CURSOR* cursor = nullptr;
        EXPECT_TRUE(AlertDb_OpenCursor(order, from, &cursor));
        ALERT_DB_ROW row;
        int read = 0;
        while ((read = AlertDb_NextRecord(cursor, &row)) == 1) {
            const bool whole = AlertXml(row.creationTime) == std::string(row.xml, row.xmlBytes) && row.storedUtc > 0;
            seen += std::to_string(row.id) + ":" + std::to_string(row.creationTime) + (whole ? " " : "! ");
        }
        AlertDb_CloseCursor(cursor);
        return seen + std::to_string(read);
    };
    EXPECT_EQ("1:30 3:20 2:10 0", walk(ALERT_DB_NEWEST_FIRST, 0));
    EXPECT_EQ("1:30 3:20 0", walk(ALERT_DB_NEWEST_FIRST, 20));
    EXPECT_EQ("2:10 3:20 0", walk(ALERT_DB_STORED_AFTER, 1));
    ALERT_DB_SUMMARY summary = {};
    ASSERT_TRUE(AlertDb_GetSummary(&summary));
    EXPECT_EQ(3u, summary.count);
    EXPECT_EQ(3u, summary.lastId);
    EXPECT_EQ(30u, summary.newestCreationTime);
    EXPECT_EQ(_strtoui64(Query("SELECT stored_utc FROM alerts WHERE id=1").c_str(), nullptr, 10),
              summary.newestStoredUtc);
    char report[64];
    EXPECT_TRUE(AlertDb_CheckIntegrity(report, sizeof(report)));
    EXPECT_STREQ("ok", report);
    wchar_t path[MAX_PATH];
    EXPECT_EQ(DatabasePath(), std::wstring(path, AlertDb_GetPath(path, MAX_PATH)));
    AlertDb_CloseReadOnly();

    // The table's page overwritten: the file still opens, every read of it fails with the reason.
    std::string bytes = omktest::ReadFileBytes(DatabasePath());
    ASSERT_GT(bytes.size(), 8192u);
    bytes.replace(4096, 64, 64, '\xFF');
    ASSERT_TRUE(omktest::WriteFileBytes(DatabasePath(), bytes));
    ASSERT_TRUE(AlertDb_OpenReadOnly(nullptr));
    EXPECT_FALSE(AlertDb_GetSummary(&summary));
    wchar_t text[256];
    AlertDb_GetLastErrorText(text, 256);
    EXPECT_TRUE(wcsstr(text, L"database disk image is malformed") != nullptr) << omktest::ToUtf8(text);
    EXPECT_EQ("-1", walk(ALERT_DB_NEWEST_FIRST, 0));
    EXPECT_FALSE(AlertDb_CheckIntegrity(report, sizeof(report)));
    EXPECT_STRNE("ok", report);
    EXPECT_GT(strlen(report), 0u);
}

}  // namespace
