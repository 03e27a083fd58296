// The alert database on a real SQLite file in the test prefix, with second
// processes that write and get killed, read without write access, or hold the lock.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "alertDbTestData.h"
#include "omkDb.h"
#include "sqlite3.h"
#include "testSupport.h"

namespace {

using alertdbtest::AlertXml;
using alertdbtest::DatabasePath;
using alertdbtest::DataFolder;

// A second process (alertDbClient), killed at the end of its scope if it still runs.
struct Client {
    PROCESS_INFORMATION info = {};
    explicit Client(const std::wstring& arguments) {
        std::wstring line = L"\"" + omktest::ProgramFolder() + L"\\alertDbClient.exe\" " + arguments;
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info);
    }
    ~Client() {
        TerminateProcess(info.hProcess, 0xDEAD);
        WaitForSingleObject(info.hProcess, 10000);
        CloseHandle(info.hThread);
        CloseHandle(info.hProcess);
    }
    DWORD Wait() {
        DWORD code = 0xDEAD;
        if (WaitForSingleObject(info.hProcess, 90000) == WAIT_OBJECT_0) GetExitCodeProcess(info.hProcess, &code);
        return code;
    }
};

// A named event for a handshake with the second process.
struct NamedEvent {
    std::wstring name = L"omkDbTest" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount());
    HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    ~NamedEvent() { CloseHandle(handle); }
    bool WaitSet() const { return WaitForSingleObject(handle, 30000) == WAIT_OBJECT_0; }
};

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

    // Runs the statements of `sql` with SQLite directly; the first column of each row.
    static std::vector<std::string> Query(const char* sql) {
        std::vector<std::string> rows;
        sqlite3* db = nullptr;
        sqlite3_open(omktest::ToUtf8(DatabasePath()).c_str(), &db);
        for (sqlite3_stmt* stmt = nullptr; *sql != '\0'; sqlite3_finalize(stmt)) {
            if (sqlite3_prepare_v2(db, sql, -1, &stmt, &sql) != SQLITE_OK) {
                rows.push_back(std::string("error: ") + sqlite3_errmsg(db));
                break;
            }
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                const unsigned char* text = sqlite3_column_text(stmt, 0);
                rows.push_back(text != nullptr ? reinterpret_cast<const char*>(text) : "NULL");
            }
        }
        sqlite3_close(db);
        return rows;
    }

    static std::vector<std::wstring> Files() {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW((DataFolder() + L"\\omkAlerts.db*").c_str(), &data);
        if (find == INVALID_HANDLE_VALUE) return names;
        do names.push_back(data.cFileName);
        while (FindNextFileW(find, &data));
        FindClose(find);
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(AlertDb, StoresTheBytesAsGivenRefusesADuplicateAndFailsBadCallsWithAReport) {
    ALERT_DB_RECORD* record = nullptr;
    EXPECT_FALSE(AlertDb_Write(1, "<a/>"));
    EXPECT_FALSE(AlertDb_ReadByCreationTimeW(1, &record));
    EXPECT_FALSE(AlertDb_DeleteOldestRecords(3));
    EXPECT_FALSE(AlertDb_Open(0, 0)) << "only a creating open makes the file";
    EXPECT_FALSE(AlertDb_OpenReadOnly(nullptr));
    EXPECT_FALSE(omktest::FileExists(DatabasePath()));

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

    EXPECT_EQ((std::vector<std::string>{"wal", xml, "132567891090000000 text"}),
              Query("PRAGMA journal_mode; SELECT xml FROM alerts UNION ALL SELECT creation_time || ' ' || "
                    "typeof(xml) FROM alerts"));
    unsigned long long storedUtc = _strtoui64(Query("SELECT stored_utc FROM alerts").at(0).c_str(), nullptr, 10);
    EXPECT_GE(storedUtc, (static_cast<unsigned long long>(before.dwHighDateTime) << 32) | before.dwLowDateTime);
    EXPECT_LE(storedUtc, (static_cast<unsigned long long>(after.dwHighDateTime) << 32) | after.dwLowDateTime);
    EXPECT_TRUE(FreeSqliteLib()) << "closes what is still open";
    EXPECT_FALSE(AlertDb_Open(1, 1));
    const std::string path = omktest::ToUtf8(DatabasePath());
    EXPECT_EQ((std::vector<std::string>{
                  "AlertDb_Write: the database is not open", "AlertDb_ReadByCreationTimeW: the database is not open",
                  "AlertDb_DeleteOldestRecords: the database is not open", "AlertDb_Open: " + path + " does not exist",
                  "AlertDb_OpenReadOnly: " + path + " does not exist",
                  "AlertDb_Write: an alert with creation time 132567891090000000 is stored already",
                  "AlertDb_Write: null xml for creation time 2",
                  "AlertDb_Write: creation time 9223372036854775808 is out of range",
                  "AlertDb_ReadByCreationTimeW: null record pointer",
                  "AlertDb_ReadByCreationTimeW: the database is not open",
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
    EXPECT_EQ(std::vector<std::string>{"5"}, Query("SELECT count(*) FROM alerts"));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(3));
    const std::string expected = std::to_string(ahead + 2) + " " + std::to_string(now) + " " + std::to_string(now + 1);
    EXPECT_EQ(std::vector<std::string>{expected}, Query("SELECT group_concat(creation_time, ' ') FROM (SELECT creation_time FROM alerts ORDER BY id)"));
    // Later stores keep that limit in their own commit.
    ASSERT_TRUE(AlertDb_Write(now + 2, "<a/>"));
    EXPECT_EQ(std::vector<std::string>{"3"}, Query("SELECT count(*) FROM alerts"));
    EXPECT_EQ("<none>", ReadXml(ahead + 2));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(0));
    EXPECT_EQ(std::vector<std::string>{"0"}, Query("SELECT count(*) FROM alerts"));
    FreeSqliteLib();

    // A file of the first layout: its order of storing is its store times.
    omktest::RemoveTree(DataFolder());
    CreateDirectoryW(DataFolder().c_str(), nullptr);
    Query("CREATE TABLE alerts(creation_time INTEGER PRIMARY KEY, xml TEXT NOT NULL, stored_utc INTEGER NOT NULL);"
          "INSERT INTO alerts VALUES(30, 'a', 1), (20, 'b', 2), (10, 'c', 3)");
    ASSERT_TRUE(InitSqliteLib());
    ASSERT_TRUE(AlertDb_Open(1, 1));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(2));
    EXPECT_EQ("b", ReadXml(20));
    EXPECT_EQ(std::vector<std::string>{"2 20,3 10"}, Query("SELECT group_concat(x) FROM (SELECT id || ' ' || creation_time AS x FROM alerts ORDER BY id)"));
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
        std::vector<std::string> messages = log.Messages();
        EXPECT_EQ(1, std::count_if(messages.begin(), messages.end(), [](const std::string& m) {
                      return m.find("could not move") != std::string::npos;
                  })) << log.Since();
        CloseHandle(holder);
        ASSERT_TRUE(AlertDb_Open(1, 1)) << log.Since();
        EXPECT_EQ("<none>", ReadXml(1)) << "the stale WAL was applied";
        EXPECT_TRUE(log.Contains(" is not a valid database - moved aside to ")) << log.Since();
        FreeSqliteLib();
    }
    // Both files moved aside, the first with its WAL beside it; the second's WAL could only be deleted.
    std::vector<std::wstring> copies = Files();
    copies.erase(std::remove_if(copies.begin(), copies.end(),
                                [](const std::wstring& n) { return n.find(L".corrupt-") == std::wstring::npos; }),
                 copies.end());
    ASSERT_EQ(3u, copies.size());
    std::string contents;
    for (const std::wstring& name : copies) {
        std::string bytes = omktest::ReadFileBytes(DataFolder() + L"\\" + name);
        contents += bytes == garbage ? "G" : bytes == staleWal && name.size() == 39 ? "W" : "?";
    }
    std::sort(contents.begin(), contents.end());
    EXPECT_EQ("GGW", contents);
    SYSTEMTIME utc;
    GetSystemTime(&utc);
    EXPECT_EQ(L"omkAlerts.db.corrupt-" + std::to_wstring(utc.wYear), copies[0].substr(0, 25)) << "a UTC stamp";
}

TEST_F(AlertDb, EveryAlertReportedStoredSurvivesAKilledWriterAndALockIsWaitedFor) {
    std::wstring mappingName = L"omkDbTestStored" + std::to_wstring(GetCurrentProcessId());
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, mappingName.c_str());
    auto* stored = static_cast<volatile LONG*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(LONG)));
    ASSERT_NE(nullptr, stored);
    const unsigned long long first = 1000000;
    {
        Client writer(L"write " + std::to_wstring(first) + L" " + mappingName);
        ASSERT_TRUE(omktest::WaitFor([&] { return *stored >= 60; }, 60000)) << "the writer did not get going";
    }  // killed here, in the middle of its writes
    const LONG reported = *stored;
    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (LONG i = 0; i < reported; ++i) ASSERT_EQ(AlertXml(first + i), ReadXml(first + i)) << i << " of " << reported;
    LONG rows = atol(Query("SELECT count(*) FROM alerts").at(0).c_str());
    EXPECT_TRUE(rows == reported || rows == reported + 1) << rows << " rows, " << reported << " reported";
    UnmapViewOfFile(const_cast<LONG*>(stored));
    CloseHandle(mapping);

    NamedEvent held;
    Client holder(L"hold 400 " + held.name);
    ASSERT_TRUE(held.WaitSet());
    const DWORD start = GetTickCount();
    EXPECT_TRUE(AlertDb_Write(1, "<after/>"));
    EXPECT_GE(GetTickCount() - start, 300u) << "the write went through a held lock";
    EXPECT_EQ(0u, holder.Wait());
    EXPECT_EQ("<after/>", ReadXml(1));
}

TEST_F(AlertDb, AProcessWithoutWriteAccessReadsWhileTheServiceWritesAndWhileItIsStopped) {
    const unsigned long long first = 5000;
    const int count = 200;
    ASSERT_TRUE(AlertDb_Open(1, 1));
    ASSERT_TRUE(AlertDb_Write(first, AlertXml(first).c_str()));
    {
        NamedEvent ready;
        Client reader(L"read " + std::to_wstring(first) + L" " + std::to_wstring(count) + L" " + ready.name);
        ASSERT_TRUE(ready.WaitSet()) << "the reader did not open the database";
        for (int i = 1; i < count; ++i) ASSERT_TRUE(AlertDb_Write(first + i, AlertXml(first + i).c_str()));
        EXPECT_EQ(0u, reader.Wait()) << "21 torn record, 22 time-out";
    }
    FreeSqliteLib();  // the service stopped

    // No other process may write any of the files now, nor go unnoticed adding one.
    const std::vector<std::wstring> files = Files();
    EXPECT_EQ((std::vector<std::wstring>{L"omkAlerts.db", L"omkAlerts.db-shm", L"omkAlerts.db-wal"}), files);
    std::vector<HANDLE> holders;
    for (const std::wstring& name : files) holders.push_back(Hold(DataFolder() + L"\\" + name, FILE_SHARE_READ));
    const std::string bytes = omktest::ReadFileBytes(DatabasePath());
    NamedEvent ready;
    Client reader(L"read " + std::to_wstring(first) + L" " + std::to_wstring(count) + L" " + ready.name);
    EXPECT_EQ(0u, reader.Wait());
    EXPECT_EQ(files, Files());
    EXPECT_TRUE(bytes == omktest::ReadFileBytes(DatabasePath()));
    for (HANDLE holder : holders) CloseHandle(holder);
    EXPECT_EQ("", log.Since());
}

}  // namespace
