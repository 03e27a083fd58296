// The alert database on a real SQLite file in the test prefix, with second
// processes that write, read, hold the lock or get killed.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <shlobj.h>

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

// A second process (alertDbClient) that the test waits for or kills.
struct Client {
    PROCESS_INFORMATION info = {};
    explicit Client(const std::wstring& arguments) {
        std::wstring line = L"\"" + omktest::ProgramFolder() + L"\\alertDbClient.exe\" " + arguments;
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info);
    }
    ~Client() {
        TerminateProcess(info.hProcess, 0xDEAD);  // fails harmlessly once it has ended
        WaitForSingleObject(info.hProcess, 10000);
        CloseHandle(info.hThread);
        CloseHandle(info.hProcess);
    }
    DWORD Wait(DWORD ms) {
        DWORD code = 0xDEAD;
        if (WaitForSingleObject(info.hProcess, ms) == WAIT_OBJECT_0) GetExitCodeProcess(info.hProcess, &code);
        return code;
    }
};

// A named event for a handshake with the second process.
struct NamedEvent {
    std::wstring name;
    HANDLE handle;
    explicit NamedEvent(const wchar_t* base)
        : name(base + std::to_wstring(GetCurrentProcessId())),
          handle(CreateEventW(nullptr, TRUE, FALSE, name.c_str())) {}
    ~NamedEvent() { CloseHandle(handle); }
    bool WaitSet(DWORD ms) const { return WaitForSingleObject(handle, ms) == WAIT_OBJECT_0; }
};

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
        if (!AlertDb_ReadByCreationTimeW(creationTime, &record)) {
            return record == nullptr ? "<none>" : "<not found, but a record was returned>";
        }
        std::string xml = record->creationTime == creationTime ? record->xml : "<wrong creation time>";
        free(record);
        return xml;
    }

    // Runs a query on the file with SQLite directly, returning the first column of each row.
    static std::vector<std::string> Query(const char* sql) {
        std::vector<std::string> rows;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(omktest::ToUtf8(DatabasePath()).c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
            sqlite3_stmt* stmt = nullptr;
            if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK) {
                while (sqlite3_step(stmt) == SQLITE_ROW) {
                    const unsigned char* text = sqlite3_column_text(stmt, 0);
                    rows.push_back(text != nullptr ? reinterpret_cast<const char*>(text) : "NULL");
                }
            } else {
                rows.push_back(std::string("error: ") + sqlite3_errmsg(db));
            }
            sqlite3_finalize(stmt);
        }
        sqlite3_close(db);
        return rows;
    }

    static std::vector<std::wstring> CorruptCopies() {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW((DataFolder() + L"\\omkAlerts.db.corrupt-*").c_str(), &data);
        if (find == INVALID_HANDLE_VALUE) return names;
        do names.push_back(data.cFileName);
        while (FindNextFileW(find, &data));
        FindClose(find);
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(AlertDb, CreatesFolderFileAndSchemaStoresTheBytesAsGivenAndRefusesADuplicate) {
    FILETIME before, after;
    GetSystemTimeAsFileTime(&before);
    ASSERT_TRUE(AlertDb_Open(1, 1));
    const unsigned long long created = 132567891090000000ull;
    std::string xml = AlertXml(created) + "\xE2\x82\xAC \x01 not even well-formed <";
    ASSERT_TRUE(AlertDb_Write(created, xml.c_str()));
    GetSystemTimeAsFileTime(&after);
    EXPECT_EQ(xml, ReadXml(created));
    EXPECT_EQ("<none>", ReadXml(created + 1));
    EXPECT_EQ("", log.Since());
    EXPECT_FALSE(AlertDb_Write(created, "<second/>"));
    EXPECT_TRUE(log.Contains("AlertDb_Write: an alert with creation time 132567891090000000 is stored already"));
    EXPECT_EQ(xml, ReadXml(created)) << "the older record stays";
    EXPECT_TRUE(AlertDb_Close(1));

    EXPECT_EQ(std::vector<std::string>{"wal"}, Query("PRAGMA journal_mode"));
    EXPECT_EQ((std::vector<std::string>{"creation_time INTEGER 0 1", "xml TEXT 1 0", "stored_utc INTEGER 1 0"}),
              Query("SELECT name || ' ' || type || ' ' || \"notnull\" || ' ' || pk FROM pragma_table_info('alerts')"));
    EXPECT_EQ((std::vector<std::string>{xml, "132567891090000000 text"}),
              Query("SELECT xml FROM alerts UNION ALL SELECT creation_time || ' ' || typeof(xml) FROM alerts"));
    std::vector<std::string> stored = Query("SELECT stored_utc FROM alerts");
    ASSERT_EQ(1u, stored.size());
    unsigned long long storedUtc = _strtoui64(stored[0].c_str(), nullptr, 10);
    EXPECT_GE(storedUtc, (static_cast<unsigned long long>(before.dwHighDateTime) << 32) | before.dwLowDateTime);
    EXPECT_LE(storedUtc, (static_cast<unsigned long long>(after.dwHighDateTime) << 32) | after.dwLowDateTime);
}

TEST_F(AlertDb, TrimKeepsTheNewestByCreationTime) {
    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (unsigned long long t : {500, 100, 900, 300, 700, 200, 1000, 400, 800, 600}) {
        ASSERT_TRUE(AlertDb_Write(t, std::to_string(t).c_str()));
    }
    AlertDb_Close(1);
    ASSERT_TRUE(AlertDb_Open(0, 0));
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(10));
    EXPECT_EQ(10u, Query("SELECT creation_time FROM alerts").size());
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(4));
    EXPECT_EQ((std::vector<std::string>{"700", "800", "900", "1000"}),
              Query("SELECT creation_time FROM alerts ORDER BY 1"));
    EXPECT_EQ("800", ReadXml(800)) << "the trim connection reads too";
    EXPECT_TRUE(AlertDb_DeleteOldestRecords(0));
    EXPECT_TRUE(Query("SELECT creation_time FROM alerts").empty());
    AlertDb_Close(0);
    EXPECT_EQ("", log.Since());
}

TEST_F(AlertDb, BadCallsFailWithAReportAndNoCrash) {
    ALERT_DB_RECORD* record = nullptr;
    EXPECT_FALSE(AlertDb_Write(1, "<a/>"));
    EXPECT_FALSE(AlertDb_ReadByCreationTimeW(1, &record));
    EXPECT_FALSE(AlertDb_DeleteOldestRecords(3));
    EXPECT_TRUE(AlertDb_Close(1));
    EXPECT_FALSE(AlertDb_Open(0, 0)) << "the trim connection does not create the file";
    EXPECT_FALSE(omktest::FileExists(DatabasePath()));
    ASSERT_TRUE(AlertDb_Open(1, 1));
    EXPECT_TRUE(AlertDb_Open(1, 1)) << "an open connection is kept";
    EXPECT_FALSE(AlertDb_Write(2, nullptr));
    EXPECT_FALSE(AlertDb_Write(0x8000000000000000ull, "<a/>"));
    EXPECT_FALSE(AlertDb_ReadByCreationTimeW(2, nullptr));
    EXPECT_TRUE(FreeSqliteLib()) << "closes what is still open";
    EXPECT_FALSE(AlertDb_Open(1, 1));
    EXPECT_EQ(
        (std::vector<std::string>{
            "AlertDb_Write: the database is not open", "AlertDb_ReadByCreationTimeW: the database is not open",
            "AlertDb_DeleteOldestRecords: the database is not open",
            "AlertDb_Open: " + omktest::ToUtf8(DatabasePath()) + " does not exist",
            "AlertDb_Write: null xml for creation time 2",
            "AlertDb_Write: creation time 9223372036854775808 is out of range",
            "AlertDb_ReadByCreationTimeW: null record pointer", "AlertDb_Open: InitSqliteLib has not been called"}),
        log.Messages());
}

TEST_F(AlertDb, AFileThatIsNoDatabaseIsMovedAsideAtTheNextStoreOpen) {
    SHCreateDirectoryExW(nullptr, DataFolder().c_str(), nullptr);
    const std::string garbage(4096, '#');
    ASSERT_TRUE(omktest::WriteFileBytes(DatabasePath(), garbage));
    EXPECT_FALSE(AlertDb_Open(0, 0)) << "the trim connection leaves the file alone";
    EXPECT_TRUE(log.Contains("AlertDb_Open: opening " + omktest::ToUtf8(DatabasePath()) + " failed 26")) << log.Since();
    EXPECT_EQ(garbage, omktest::ReadFileBytes(DatabasePath()));

    // The store open moves the file found corrupt, with the journal beside it.
    ASSERT_TRUE(omktest::WriteFileBytes(DatabasePath() + L"-wal", "stale journal"));
    SYSTEMTIME utc;
    GetSystemTime(&utc);
    ASSERT_TRUE(AlertDb_Open(1, 1));
    std::vector<std::wstring> copies = CorruptCopies();
    ASSERT_EQ(2u, copies.size());
    EXPECT_EQ(0u, copies[0].find(L"omkAlerts.db.corrupt-" + std::to_wstring(utc.wYear)));
    EXPECT_EQ(35u, copies[0].size()) << "a UTC stamp of 14 digits";
    EXPECT_EQ(copies[0] + L"-wal", copies[1]);
    EXPECT_EQ(garbage, omktest::ReadFileBytes(DataFolder() + L"\\" + copies[0]));
    EXPECT_EQ("stale journal", omktest::ReadFileBytes(DataFolder() + L"\\" + copies[1]));
    EXPECT_TRUE(log.Contains(" is not a valid database - moved aside to ")) << log.Since();
    EXPECT_TRUE(AlertDb_Write(1, "<fresh/>"));
    AlertDb_Close(1);

    // Found corrupt by the store open itself; the copy of the same second is kept.
    DeleteFileW((DatabasePath() + L"-wal").c_str());
    ASSERT_TRUE(omktest::WriteFileBytes(DatabasePath(), garbage + "again"));
    ASSERT_TRUE(AlertDb_Open(1, 1));
    EXPECT_EQ("<none>", ReadXml(1));
    AlertDb_Close(1);
    int copiesOfGarbage = 0;
    for (const std::wstring& name : CorruptCopies()) {
        std::string bytes = omktest::ReadFileBytes(DataFolder() + L"\\" + name);
        copiesOfGarbage += bytes == garbage || bytes == garbage + "again";
    }
    EXPECT_EQ(2, copiesOfGarbage);
}

TEST_F(AlertDb, EveryAlertReportedStoredSurvivesAKilledWriter) {
    std::wstring mappingName = L"omkDbTestStored" + std::to_wstring(GetCurrentProcessId());
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, mappingName.c_str());
    ASSERT_NE(nullptr, mapping);
    auto* stored = static_cast<volatile LONG*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(LONG)));
    ASSERT_NE(nullptr, stored);

    const unsigned long long first = 1000000;
    {
        Client writer(L"write " + std::to_wstring(first) + L" 100000000 " + mappingName);
        DWORD start = GetTickCount();
        while (*stored < 60 && GetTickCount() - start < 60000) Sleep(5);
        ASSERT_GE(*stored, 60) << "the writer did not get going";
    }  // killed here, in the middle of its writes
    LONG reported = *stored;

    ASSERT_TRUE(AlertDb_Open(1, 1));
    for (LONG i = 0; i < reported; ++i) {
        ASSERT_EQ(AlertXml(first + i), ReadXml(first + i)) << "record " << i << " of " << reported;
    }
    LONG rows = atol(Query("SELECT count(*) FROM alerts").at(0).c_str());
    EXPECT_TRUE(rows == reported || rows == reported + 1) << rows << " rows, " << reported << " reported";
    EXPECT_TRUE(AlertDb_Write(1, "<after/>"));
    EXPECT_EQ("<after/>", ReadXml(1));
    AlertDb_Close(1);
    EXPECT_TRUE(CorruptCopies().empty());
    UnmapViewOfFile(const_cast<LONG*>(stored));
    CloseHandle(mapping);
}

TEST_F(AlertDb, AnotherProcessReadsWholeRecordsWhileTheServiceWrites) {
    ASSERT_TRUE(AlertDb_Open(1, 1));
    NamedEvent ready(L"omkDbTestReaderReady");
    const unsigned long long first = 5000;
    const int count = 200;
    Client reader(L"read " + std::to_wstring(first) + L" " + std::to_wstring(count) + L" 60000 " + ready.name);
    ASSERT_TRUE(ready.WaitSet(30000)) << "reader did not open the database";
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(AlertDb_Write(first + i, AlertXml(first + i).c_str()));
        if (i % 10 == 0) Sleep(2);
    }
    EXPECT_EQ(0u, reader.Wait(90000)) << "21/22 torn record, 23 time-out, 24 no overlap with the writes";
    AlertDb_Close(1);
    EXPECT_EQ("", log.Since());
}

TEST_F(AlertDb, ALockedDatabaseIsWaitedForUpToFiveSecondsAndNothingIsLost) {
    ASSERT_TRUE(AlertDb_Open(1, 1));
    ASSERT_TRUE(AlertDb_Write(1, "<one/>"));
    {
        NamedEvent held(L"omkDbTestHeldShort");
        Client holder(L"hold 1500 " + held.name);
        ASSERT_TRUE(held.WaitSet(30000));
        DWORD start = GetTickCount();
        EXPECT_TRUE(AlertDb_Write(2, "<two/>"));
        EXPECT_GE(GetTickCount() - start, 1000u) << "the write went through a held lock";
        EXPECT_EQ(0u, holder.Wait(30000));
    }
    {
        NamedEvent held(L"omkDbTestHeldLong");
        Client holder(L"hold 8000 " + held.name);
        ASSERT_TRUE(held.WaitSet(30000));
        DWORD start = GetTickCount();
        EXPECT_FALSE(AlertDb_Write(3, "<three/>"));
        DWORD waited = GetTickCount() - start;
        EXPECT_GE(waited, 4500u);
        EXPECT_LT(waited, 7900u);
        EXPECT_TRUE(log.Contains("AlertDb_Write: storing 3 failed 5 (database is locked)")) << log.Since();
        EXPECT_EQ(0u, holder.Wait(30000));
    }
    EXPECT_TRUE(AlertDb_Write(3, "<three/>"));
    EXPECT_EQ("<one/>", ReadXml(1));
    EXPECT_EQ("<two/>", ReadXml(2));
    EXPECT_EQ("<three/>", ReadXml(3));
    AlertDb_Close(1);
    EXPECT_TRUE(CorruptCopies().empty());
}

}  // namespace
