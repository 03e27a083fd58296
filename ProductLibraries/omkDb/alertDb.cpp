// omkDb.dll: the alert database on SQLite. See include/omkDb.h for the contract.
#include "omkDb.h"

#include <shlobj.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "omkErrors.h"
#include "sqlite3.h"

namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr int kStore = 1;
constexpr int kTrim = 0;

const char kCreateTable[] =
    "CREATE TABLE IF NOT EXISTS alerts("
    "creation_time INTEGER PRIMARY KEY, xml TEXT NOT NULL, stored_utc INTEGER NOT NULL)";
// Each 2 KB alert fills a table page of its own, so counting off the newest n
// in the table reads n pages (130 ms for 10,000 alerts). The keys alone sit
// in a few pages of this index, which the trim's count uses instead.
const char kCreateIndex[] = "CREATE INDEX IF NOT EXISTS alerts_creation_time ON alerts(creation_time)";

// One lock for the whole library: the service calls from its engine thread
// only, but a second caller must not see a connection half opened or closed.
SRWLOCK g_lock = SRWLOCK_INIT;
bool g_started = false;
sqlite3* g_db[2] = {nullptr, nullptr};  // [kTrim], [kStore]
// Set when SQLite reports the file corrupt; the next creating open moves it aside.
bool g_corruptSeen = false;

class LockGuard {
public:
    LockGuard() { AcquireSRWLockExclusive(&g_lock); }
    ~LockGuard() { ReleaseSRWLockExclusive(&g_lock); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
};

// Finalizes a prepared statement on every way out.
class Statement {
public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    sqlite3_stmt** Out() { return &stmt_; }
    sqlite3_stmt* Get() const { return stmt_; }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

bool IsCorruption(int rc) {
    int primary = rc & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// Remembers corruption so the next creating open starts a new file.
void NoteResult(int rc) {
    if (IsCorruption(rc)) g_corruptSeen = true;
}

// SQLite's own diagnostics (corruption found, WAL frames recovered after a
// killed writer, I/O errors) go to the error log as well. A failed unlock is
// left out: SQLite ignores it, and Wine answers ERROR_LOCK_VIOLATION where
// Windows answers ERROR_NOT_LOCKED (which SQLite does not log), so it would
// fill the log with one line per store.
void SqliteLog(void*, int code, const char* message) {
    if (code == SQLITE_IOERR_UNLOCK) return;
    OMK_ReportError(0, L"SQLite: (%d) %hs", code, message);
}

// %ProgramData% first, as the service's folders and its error log take it, so
// that all of them agree where the environment differs from the known folder
// (a service under Wine gets C:\users\Public there).
std::wstring DataFolder() {
    wchar_t fromEnvironment[MAX_PATH];
    DWORD n = GetEnvironmentVariableW(L"ProgramData", fromEnvironment, MAX_PATH);
    if (n > 0 && n < MAX_PATH) return std::wstring(fromEnvironment, n) + L"\\Varn\\Orlemark\\Data";
    std::wstring folder;
    wchar_t* programData = nullptr;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &programData)) && programData != nullptr) {
        folder = programData;
    } else {
        folder = L"C:\\ProgramData";
    }
    CoTaskMemFree(programData);
    return folder + L"\\Varn\\Orlemark\\Data";
}

std::string ToUtf8(const std::wstring& text) {
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (n <= 0) return std::string();
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, &out[0], n, nullptr, nullptr);
    out.resize(static_cast<size_t>(n) - 1);
    return out;
}

unsigned long long NowUtc() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return (static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

// Runs one statement that returns nothing the caller needs.
int Exec(sqlite3* db, const char* sql) {
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    NoteResult(rc);
    return rc;
}

// Switches the connection to WAL; the pragma answers with the mode in force.
int SetWal(sqlite3* db) {
    Statement stmt;
    int rc = sqlite3_prepare_v2(db, "PRAGMA journal_mode=WAL", -1, stmt.Out(), nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt.Get());
    NoteResult(rc);
    if (rc != SQLITE_ROW) return rc;
    const unsigned char* mode = sqlite3_column_text(stmt.Get(), 0);
    return (mode != nullptr && _stricmp(reinterpret_cast<const char*>(mode), "wal") == 0) ? SQLITE_OK : SQLITE_ERROR;
}

// Opens and prepares one connection. On failure *db is null and the SQLite
// result is returned (with the connection's message in `message`).
int OpenConnection(const std::wstring& path, bool create, sqlite3** db, std::string& message) {
    *db = nullptr;
    sqlite3* conn = nullptr;
    int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    int rc = sqlite3_open_v2(ToUtf8(path).c_str(), &conn, flags, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_busy_timeout(conn, kBusyTimeoutMs);
    if (rc == SQLITE_OK) rc = SetWal(conn);
    if (rc == SQLITE_OK) rc = Exec(conn, "PRAGMA synchronous=FULL");
    if (rc == SQLITE_OK && create) rc = Exec(conn, kCreateTable);
    if (rc == SQLITE_OK && create) rc = Exec(conn, kCreateIndex);
    if (rc != SQLITE_OK) {
        message = conn != nullptr ? sqlite3_errmsg(conn) : sqlite3_errstr(rc);
        sqlite3_close_v2(conn);
        return rc;
    }
    *db = conn;
    return SQLITE_OK;
}

std::wstring CorruptName(const std::wstring& path) {
    SYSTEMTIME utc;
    GetSystemTime(&utc);
    wchar_t stamp[32];
    _snwprintf(stamp, 31, L"%04u%02u%02u%02u%02u%02u", utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute,
               utc.wSecond);
    stamp[31] = L'\0';
    return path + L".corrupt-" + stamp;
}

// Moves a corrupt database (with its WAL, which belongs to it) out of the way;
// an earlier corrupt copy of the same second is kept under a numbered name.
bool MoveAside(const std::wstring& path) {
    std::wstring base = CorruptName(path);
    std::wstring target = base;
    for (int n = 2; GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES; ++n) {
        target = base + L"-" + std::to_wstring(n);
    }
    if (!MoveFileExW(path.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH)) {
        OMK_ReportError(0, L"AlertDb_Open: could not move %ls aside to %ls err=%lu", path.c_str(), target.c_str(),
                        GetLastError());
        return false;
    }
    std::wstring wal = path + L"-wal";
    if (GetFileAttributesW(wal.c_str()) != INVALID_FILE_ATTRIBUTES &&
        !MoveFileExW(wal.c_str(), (target + L"-wal").c_str(), MOVEFILE_WRITE_THROUGH)) {
        OMK_ReportError(0, L"AlertDb_Open: could not move %ls aside err=%lu", wal.c_str(), GetLastError());
        if (!DeleteFileW(wal.c_str())) return false;  // a stale WAL must not meet the new file
    }
    DeleteFileW((path + L"-shm").c_str());
    OMK_ReportError(0, L"AlertDb_Open: %ls is not a valid database - moved aside to %ls, starting a new one",
                    path.c_str(), target.c_str());
    g_corruptSeen = false;
    return true;
}

void CloseSlot(int slot) {
    if (g_db[slot] != nullptr) {
        sqlite3_close_v2(g_db[slot]);
        g_db[slot] = nullptr;
    }
}

// The connection a read or write uses, or null when none is open.
sqlite3* PickConnection(int preferred) {
    if (g_db[preferred] != nullptr) return g_db[preferred];
    return g_db[preferred == kStore ? kTrim : kStore];
}

}  // namespace

extern "C" {

OMKDB_API int WINAPI InitSqliteLib(void) {
    LockGuard lock;
    if (g_started) return 1;
    sqlite3_config(SQLITE_CONFIG_LOG, SqliteLog, nullptr);
    int rc = sqlite3_initialize();
    if (rc != SQLITE_OK) {
        OMK_ReportError(0, L"InitSqliteLib: sqlite3_initialize failed %d (%hs)", rc, sqlite3_errstr(rc));
        return 0;
    }
    g_started = true;
    return 1;
}

OMKDB_API int WINAPI FreeSqliteLib(void) {
    LockGuard lock;
    if (!g_started) return 1;
    CloseSlot(kStore);
    CloseSlot(kTrim);
    sqlite3_shutdown();
    g_started = false;
    return 1;
}

OMKDB_API int WINAPI AlertDb_Open(int storeConnection, int createWhenMissing) {
    LockGuard lock;
    if (!g_started) {
        OMK_ReportError(0, L"AlertDb_Open: InitSqliteLib has not been called");
        return 0;
    }
    int slot = storeConnection ? kStore : kTrim;
    if (g_db[slot] != nullptr) return 1;
    bool create = createWhenMissing != 0;

    std::wstring folder = DataFolder();
    std::wstring path = folder + L"\\omkAlerts.db";
    if (create) {
        int made = SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
        if (made != ERROR_SUCCESS && made != ERROR_ALREADY_EXISTS && made != ERROR_FILE_EXISTS) {
            OMK_ReportError(0, L"AlertDb_Open: could not create folder %ls err=%d", folder.c_str(), made);
            return 0;
        }
    } else if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        OMK_ReportError(0, L"AlertDb_Open: %ls does not exist", path.c_str());
        return 0;
    }

    if (create && g_corruptSeen) {
        // The file cannot move while this process still holds it open.
        CloseSlot(slot == kStore ? kTrim : kStore);
        if (!MoveAside(path)) return 0;
    }

    std::string message;
    int rc = OpenConnection(path, create, &g_db[slot], message);
    if (rc != SQLITE_OK && create && IsCorruption(rc)) {
        CloseSlot(slot == kStore ? kTrim : kStore);
        if (!MoveAside(path)) return 0;
        rc = OpenConnection(path, create, &g_db[slot], message);
    }
    if (rc != SQLITE_OK) {
        OMK_ReportError(0, L"AlertDb_Open: opening %ls failed %d (%hs)", path.c_str(), rc, message.c_str());
        return 0;
    }
    return 1;
}

OMKDB_API int WINAPI AlertDb_ReadByCreationTimeW(unsigned long long creationTime, ALERT_DB_RECORD** record) {
    LockGuard lock;
    if (record == nullptr) {
        OMK_ReportError(0, L"AlertDb_ReadByCreationTimeW: null record pointer");
        return 0;
    }
    sqlite3* db = PickConnection(kStore);
    if (db == nullptr) {
        OMK_ReportError(0, L"AlertDb_ReadByCreationTimeW: the database is not open");
        return 0;
    }
    Statement stmt;
    int rc = sqlite3_prepare_v2(db, "SELECT xml FROM alerts WHERE creation_time=?1", -1, stmt.Out(), nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_bind_int64(stmt.Get(), 1, static_cast<sqlite3_int64>(creationTime));
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt.Get());
    NoteResult(rc);
    if (rc == SQLITE_DONE) return 0;
    if (rc != SQLITE_ROW) {
        OMK_ReportError(0, L"AlertDb_ReadByCreationTimeW: reading %I64u failed %d (%hs)", creationTime, rc,
                        sqlite3_errmsg(db));
        return 0;
    }
    const void* text = sqlite3_column_text(stmt.Get(), 0);
    size_t bytes = static_cast<size_t>(sqlite3_column_bytes(stmt.Get(), 0));
    ALERT_DB_RECORD* block = static_cast<ALERT_DB_RECORD*>(malloc(offsetof(ALERT_DB_RECORD, xml) + bytes + 1));
    if (block == nullptr) {
        OMK_ReportError(0, L"AlertDb_ReadByCreationTimeW: out of memory for %zu bytes", bytes);
        return 0;
    }
    block->creationTime = creationTime;
    if (bytes > 0) memcpy(block->xml, text, bytes);
    block->xml[bytes] = '\0';
    *record = block;
    return 1;
}

OMKDB_API int WINAPI AlertDb_Write(unsigned long long creationTime, const char* utf8Xml) {
    LockGuard lock;
    if (utf8Xml == nullptr) {
        OMK_ReportError(0, L"AlertDb_Write: null xml for creation time %I64u", creationTime);
        return 0;
    }
    if (creationTime > 0x7FFFFFFFFFFFFFFFull) {
        OMK_ReportError(0, L"AlertDb_Write: creation time %I64u is out of range", creationTime);
        return 0;
    }
    sqlite3* db = PickConnection(kStore);
    if (db == nullptr) {
        OMK_ReportError(0, L"AlertDb_Write: the database is not open");
        return 0;
    }
    Statement stmt;
    int rc = sqlite3_prepare_v2(db, "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(?1, ?2, ?3)", -1,
                                stmt.Out(), nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_bind_int64(stmt.Get(), 1, static_cast<sqlite3_int64>(creationTime));
    if (rc == SQLITE_OK) rc = sqlite3_bind_text(stmt.Get(), 2, utf8Xml, -1, SQLITE_STATIC);
    if (rc == SQLITE_OK) rc = sqlite3_bind_int64(stmt.Get(), 3, static_cast<sqlite3_int64>(NowUtc()));
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt.Get());
    NoteResult(rc);
    if (rc == SQLITE_DONE) return 1;
    if ((rc & 0xFF) == SQLITE_CONSTRAINT) {
        OMK_ReportError(0, L"AlertDb_Write: an alert with creation time %I64u is stored already", creationTime);
    } else {
        OMK_ReportError(0, L"AlertDb_Write: storing %I64u failed %d (%hs)", creationTime, rc, sqlite3_errmsg(db));
    }
    return 0;
}

OMKDB_API int WINAPI AlertDb_Close(int storeConnection) {
    LockGuard lock;
    CloseSlot(storeConnection ? kStore : kTrim);
    return 1;
}

OMKDB_API int WINAPI AlertDb_DeleteOldestRecords(unsigned int maxRecords) {
    LockGuard lock;
    sqlite3* db = PickConnection(kTrim);
    if (db == nullptr) {
        OMK_ReportError(0, L"AlertDb_DeleteOldestRecords: the database is not open");
        return 0;
    }
    // The key is unique, so everything older than the maxRecords-th newest goes.
    const char* sql = maxRecords == 0 ? "DELETE FROM alerts"
                                      : "DELETE FROM alerts WHERE creation_time < (SELECT creation_time FROM alerts "
                                        "ORDER BY creation_time DESC LIMIT 1 OFFSET ?1)";
    Statement stmt;
    int rc = sqlite3_prepare_v2(db, sql, -1, stmt.Out(), nullptr);
    if (rc == SQLITE_OK && maxRecords > 0) {
        rc = sqlite3_bind_int64(stmt.Get(), 1, static_cast<sqlite3_int64>(maxRecords) - 1);
    }
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt.Get());
    NoteResult(rc);
    if (rc != SQLITE_DONE) {
        OMK_ReportError(0, L"AlertDb_DeleteOldestRecords: keeping %u records failed %d (%hs)", maxRecords, rc,
                        sqlite3_errmsg(db));
        return 0;
    }
    return 1;
}

}  // extern "C"
