// omkDb.dll: the alert database on SQLite. See include/omkDb.h for the contract.
#include "omkDb.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "cdef.h"
#include "fileHelper.h"
#include "omkErrors.h"
#include "sqlite3.h"

namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr int kStore = 1;
constexpr int kTrim = 0;
// The greatest creation time and id SQLite's integers hold.
constexpr unsigned long long kMaxKey = 0x7FFFFFFFFFFFFFFFull;

// The text of the last failure reported on each thread, for callers that show
// it to a person (AlertDb_GetLastErrorText).
constexpr int kLastErrorChars = 1024;
thread_local wchar_t g_lastError[kLastErrorChars];

// Reports a failure to the error log and keeps its text for the thread.
template <typename... Args>
void Report(const wchar_t* format, const Args&... args) {
    const OMK_ERROR_ARG packed[sizeof...(Args) + 1] = {omk_errors_detail::MakeArg(args)..., OMK_ERROR_ARG{}};
    OMK_FormatErrorArgs(g_lastError, kLastErrorChars, format, packed, static_cast<int>(sizeof...(Args)));
    OMK_ReportErrorArgs(0, format, packed, static_cast<int>(sizeof...(Args)));
}

// `id` is the order of storing: rows are only ever deleted from its low end,
// so the ids of the stored rows are consecutive and the trim can count the
// newest n from the greatest id without reading the table.
#define OMKDB_ALERTS_TABLE                                                                      \
    "alerts(id INTEGER PRIMARY KEY, creation_time INTEGER NOT NULL UNIQUE, xml TEXT NOT NULL, " \
    "stored_utc INTEGER NOT NULL)"
const char kCreateTable[] = "CREATE TABLE IF NOT EXISTS " OMKDB_ALERTS_TABLE;
// Files of the first layout had creation_time as the key and so no order of
// storing: it is rebuilt once, in the order of the store times.
const char kUpgrade[] =
    "BEGIN IMMEDIATE;"
    "ALTER TABLE alerts RENAME TO alerts_v1;"
    "CREATE TABLE " OMKDB_ALERTS_TABLE
    ";"
    "INSERT INTO alerts(creation_time, xml, stored_utc) "
    "SELECT creation_time, xml, stored_utc FROM alerts_v1 ORDER BY stored_utc, creation_time;"
    "DROP TABLE alerts_v1;"
    "COMMIT";

// The limit of the last store's trim while no other change followed: the
// engine's trim after such a store has nothing to do and costs no query.
long long g_keptAt = -1;

// A connection with its statements, prepared once on first use.
struct Connection {
    sqlite3* db = nullptr;
    sqlite3_stmt* lookup = nullptr;
    sqlite3_stmt* insert = nullptr;
    sqlite3_stmt* span = nullptr;
    sqlite3_stmt* trim = nullptr;
    sqlite3_stmt* begin = nullptr;
    sqlite3_stmt* commit = nullptr;

    // `asFound`: a file found corrupt is closed without the usual checkpoint,
    // so that it is moved aside as it was.
    void Close(bool asFound = false) {
        g_keptAt = -1;
        for (sqlite3_stmt** stmt : {&lookup, &insert, &span, &trim, &begin, &commit}) {
            sqlite3_finalize(*stmt);
            *stmt = nullptr;
        }
        int unused = 0;
        if (asFound && db != nullptr) sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, &unused);
        sqlite3_close_v2(db);
        db = nullptr;
    }
    // The statement for `sql`, prepared on first use and reset for the next; null after a report.
    sqlite3_stmt* Get(sqlite3_stmt*& stmt, const char* sql, const wchar_t* function) {
        if (stmt == nullptr &&
            sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
            Report(L"%ls: preparing failed (%hs)", function, sqlite3_errmsg(db));
            return nullptr;
        }
        return stmt;
    }
};

// One lock for the whole library: the service calls from its engine thread
// only, but a second caller must not see a connection half opened or closed.
SRWLOCK g_lock = SRWLOCK_INIT;
bool g_started = false;
// The read-write connection: opened by the first AlertDb_Open and kept until
// FreeSqliteLib, so a store costs its insert, not a connection set-up.
Connection g_rw;
// Whether the caller has the database open, per first flag of AlertDb_Open
// (1 the store open, 0 the trim open).
bool g_open[2] = {false, false};
Connection g_ro;
// The file the read-only connection reads, as the caller named it.
std::wstring g_roPath;
// Set when SQLite reports the file corrupt; the next creating open moves it aside.
bool g_corruptSeen = false;
// A file that could not be moved aside is reported once, not at every store.
bool g_moveFailureReported = false;

class LockGuard {
public:
    LockGuard() { AcquireSRWLockExclusive(&g_lock); }
    ~LockGuard() { ReleaseSRWLockExclusive(&g_lock); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
};

bool IsCorruption(int rc) {
    return (rc & 0xFF) == SQLITE_CORRUPT || (rc & 0xFF) == SQLITE_NOTADB;
}

// An open that fails on what the file holds (damage, a file format this SQLite
// does not read or write, rows the first layout cannot carry over) rather than
// on the machine (a lock, a full disk, I/O, memory): such a file would stop
// every store for good, so a creating open moves it aside like a corrupt one.
bool IsUnusableFile(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_OK:
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_NOMEM:
        case SQLITE_IOERR:
        case SQLITE_FULL:
        case SQLITE_CANTOPEN:
        case SQLITE_PERM:
        case SQLITE_INTERRUPT:
        case SQLITE_AUTH:
            return false;
        default:
            return true;
    }
}

// Corruption seen on the read-write connection has the file replaced at the
// next creating open. A reader's view of the file never does: it may be one
// that raced a writer.
void NoteResult(sqlite3* db, int rc) {
    if (db != nullptr && db == g_rw.db && IsCorruption(rc)) g_corruptSeen = true;
}

// Steps a cached statement and resets it unless it stopped at a row (the
// caller reads that first and resets it then).
int Step(sqlite3_stmt* stmt) {
    int rc = sqlite3_step(stmt);
    NoteResult(sqlite3_db_handle(stmt), rc);
    if (rc != SQLITE_ROW) sqlite3_reset(stmt);
    return rc;
}

// SQLite's own diagnostics (corruption found, WAL frames recovered after a
// killed writer, I/O errors) go to the error log as well. A failed unlock is
// left out: SQLite ignores it, and Wine answers ERROR_LOCK_VIOLATION where
// Windows answers ERROR_NOT_LOCKED (which SQLite does not log), so it would
// fill the log with one line per store. Failed opens and duplicate creation
// times are reported by the caller, which knows what they mean.
void SqliteLog(void*, int code, const char* message) {
    if (code == SQLITE_IOERR_UNLOCK || (code & 0xFF) == SQLITE_CANTOPEN || (code & 0xFF) == SQLITE_CONSTRAINT) return;
    OMK_ReportError(0, L"SQLite: (%d) %hs", code, message);
}

std::wstring DatabasePath() {
    const wchar_t* folder = CDef::GetInstance().FOLDER_OMK_DATABASE;
    return folder[0] != L'\0' ? std::wstring(folder) + L"\\omkAlerts.db" : std::wstring();
}

std::string ToUtf8(const std::wstring& text) {
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (n <= 0) return std::string();
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, &out[0], n, nullptr, nullptr);
    out.resize(static_cast<size_t>(n) - 1);
    return out;
}

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

unsigned long long NowUtc() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return (static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

int Exec(sqlite3* db, const char* sql) {
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    NoteResult(db, rc);
    return rc;
}

// The first column of the first row of `sql` as a number (0 when there is none).
int QueryInt(sqlite3* db, const char* sql, int* value) {
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt);
    *value = rc == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : 0;
    sqlite3_finalize(stmt);
    NoteResult(db, rc);
    return rc == SQLITE_ROW || rc == SQLITE_DONE ? SQLITE_OK : rc;
}

// SQLITE_CORRUPT when integrity_check finds the file of `schema` damaged, else its own result.
int CheckIntegrity(sqlite3* db, const char* schema = "main") {
    sqlite3_stmt* stmt = nullptr;
    const std::string sql = std::string("PRAGMA ") + schema + ".integrity_check(1)";
    int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        const char* result = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        rc = result != nullptr && strcmp(result, "ok") == 0 ? SQLITE_OK : SQLITE_CORRUPT;
    }
    sqlite3_finalize(stmt);
    NoteResult(db, rc);
    return rc;
}

// Opens the read-write connection: WAL, every commit synced, the WAL and its
// index kept beside the file after the last close so that readers without
// write access to the folder can open it.
int OpenReadWrite(const std::wstring& path, bool create, std::string& message) {
    int rc = sqlite3_open_v2(ToUtf8(path).c_str(), &g_rw.db, SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0),
                             nullptr);
    sqlite3* db = g_rw.db;
    int walMode = 0;
    int persist = 1;
    if (rc == SQLITE_OK) rc = sqlite3_busy_timeout(db, kBusyTimeoutMs);
    if (rc == SQLITE_OK) rc = sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    if (rc == SQLITE_OK) rc = Exec(db, "PRAGMA journal_mode=WAL");
    if (rc == SQLITE_OK) rc = QueryInt(db, "SELECT journal_mode='wal' FROM pragma_journal_mode", &walMode);
    if (rc == SQLITE_OK && !walMode) rc = SQLITE_CANTOPEN;  // the machine's doing, not the file's
    // Read once, a file this SQLite will read but not write (its header's write
    // version beyond WAL's, or kept read-only) shows as a read-only connection:
    // every store would fail on it.
    if (rc == SQLITE_OK && sqlite3_db_readonly(db, "main") == 1) rc = SQLITE_READONLY;
    if (rc == SQLITE_OK) rc = Exec(db, "PRAGMA synchronous=FULL; PRAGMA journal_size_limit=4194304");
    // Damage where no statement would look for a while (an old alert's page, a
    // row the first layout cannot carry over) is found here, once per process,
    // so that the file is moved aside before alerts go into it.
    if (rc == SQLITE_OK && create) rc = CheckIntegrity(db);
    int firstLayout = 0;
    if (rc == SQLITE_OK) {
        rc = QueryInt(db, "SELECT count(*) FROM pragma_table_info('alerts') WHERE name='creation_time' AND pk=1",
                      &firstLayout);
    }
    if (rc == SQLITE_OK && firstLayout) rc = Exec(db, kUpgrade);
    if (rc == SQLITE_OK && create) rc = Exec(db, kCreateTable);
    if (rc != SQLITE_OK) {
        message = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        if (db != nullptr && !sqlite3_get_autocommit(db)) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        g_rw.Close(IsUnusableFile(rc));
    }
    return rc;
}

// Whether the file's header says WAL mode (both file format version bytes 2).
bool IsWalFile(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    unsigned char header[20] = {};
    DWORD read = 0;
    const bool ok = file != INVALID_HANDLE_VALUE && ReadFile(file, header, sizeof(header), &read, nullptr) &&
                    read == sizeof(header);
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    return ok && header[18] == 2 && header[19] == 2;
}

std::wstring CorruptName(const std::wstring& path) {
    SYSTEMTIME utc;
    GetSystemTime(&utc);
    wchar_t stamp[32];
    _snwprintf(stamp, 31, L"%04u%02u%02u%02u%02u%02u", utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute,
               utc.wSecond);
    stamp[31] = L'\0';
    std::wstring target = path + L".corrupt-" + stamp;
    for (int n = 2; Exists(target); ++n) target = path + L".corrupt-" + stamp + L"-" + std::to_wstring(n);
    return target;
}

void ReportMoveFailure(const std::wstring& file) {
    if (!g_moveFailureReported) {
        Report(L"AlertDb_Open: could not move %ls aside err=%lu - the alerts are not stored until it can be",
               file.c_str(), GetLastError());
    }
    g_moveFailureReported = true;
}

// Moves a corrupt database out of the way with the WAL that belongs to it. A
// file that is gone counts as moved. A WAL left at the path would be applied
// to the next database made there, so it goes too or nothing is made.
bool MoveAside(const std::wstring& path, std::wstring* movedTo = nullptr,
               const wchar_t* why = L"is not a valid database") {
    const std::wstring target = CorruptName(path);
    const bool moved = MoveFileExW(path.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH) != 0;
    if (moved && movedTo != nullptr) *movedTo = target;
    if (!moved && Exists(path)) {
        ReportMoveFailure(path);
        return false;
    }
    if (moved) {
        Report(L"AlertDb_Open: %ls %ls - moved aside to %ls, starting a new one", path.c_str(), why, target.c_str());
    }
    const std::wstring wal = path + L"-wal";
    const std::wstring index = path + L"-shm";
    bool walGone = !Exists(wal) || (moved && MoveFileExW(wal.c_str(), (target + L"-wal").c_str(), 0)) ||
                   DeleteFileW(wal.c_str()) || !Exists(wal);
    if (!walGone || (!DeleteFileW(index.c_str()) && Exists(index))) {
        ReportMoveFailure(walGone ? index : wal);
        return false;
    }
    g_corruptSeen = false;
    g_moveFailureReported = false;
    return true;
}

// Copies the alerts of a file set aside because it could be read but not
// written into the new database, in their order of storing, when SQLite finds
// the set-aside file intact: its alerts are not lost with it.
void CarryOver(const std::wstring& aside) {
    sqlite3* db = g_rw.db;
    sqlite3_stmt* attach = nullptr;
    int rc = sqlite3_prepare_v2(db, "ATTACH ?1 AS aside", -1, &attach, nullptr);
    const std::string name = ToUtf8(aside);
    if (rc == SQLITE_OK) sqlite3_bind_text(attach, 1, name.c_str(), -1, SQLITE_STATIC);
    if (rc == SQLITE_OK) rc = sqlite3_step(attach) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db);
    sqlite3_finalize(attach);
    // Damage found in the set-aside file is not the new database's.
    const bool corruptSeen = g_corruptSeen;
    if (rc == SQLITE_OK) rc = CheckIntegrity(db, "aside");
    g_corruptSeen = corruptSeen;
    if (rc == SQLITE_OK) {
        rc = sqlite3_exec(db,
                          "BEGIN IMMEDIATE;"
                          "INSERT OR IGNORE INTO main.alerts(creation_time, xml, stored_utc) "
                          "SELECT creation_time, xml, stored_utc FROM aside.alerts ORDER BY rowid;"
                          "COMMIT",
                          nullptr, nullptr, nullptr);
    }
    const int carried = rc == SQLITE_OK ? sqlite3_changes(db) : 0;
    if (rc != SQLITE_OK) {
        Report(L"AlertDb_Open: the alerts of %ls could not be carried into the new database (%hs)", aside.c_str(),
               sqlite3_errmsg(db));
    }
    if (!sqlite3_get_autocommit(db)) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "DETACH aside", nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) Report(L"AlertDb_Open: %d alerts of %ls carried into the new database", carried, aside.c_str());
}

// The connection reads and writes use: the read-write one while the caller
// has it open, else the read-only one; null when neither is.
Connection* ReadConnection() {
    if (g_rw.db != nullptr && (g_open[kStore] || g_open[kTrim])) return &g_rw;
    return g_ro.db != nullptr ? &g_ro : nullptr;
}

// Stores an alert and, with `keep` of 0 or more, deletes what a trim to `keep`
// records would delete after it, in the same commit.
int Store(unsigned long long creationTime, const char* utf8Xml, long long keep) {
    if (utf8Xml == nullptr) {
        Report(L"AlertDb_Write: null xml for creation time %I64u", creationTime);
        return 0;
    }
    if (creationTime > 0x7FFFFFFFFFFFFFFFull) {
        Report(L"AlertDb_Write: creation time %I64u is out of range", creationTime);
        return 0;
    }
    if (g_rw.db == nullptr || !(g_open[kStore] || g_open[kTrim])) {
        Report(L"AlertDb_Write: the database is not open");
        return 0;
    }
    const wchar_t* me = L"AlertDb_Write";
    sqlite3_stmt* begin = g_rw.Get(g_rw.begin, "BEGIN IMMEDIATE", me);
    sqlite3_stmt* insert =
        g_rw.Get(g_rw.insert, "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(?1, ?2, ?3)", me);
    sqlite3_stmt* trim = g_rw.Get(g_rw.trim, "DELETE FROM alerts WHERE id <= ?1", me);
    sqlite3_stmt* commit = g_rw.Get(g_rw.commit, "COMMIT", me);
    if (begin == nullptr || insert == nullptr || trim == nullptr || commit == nullptr) return 0;
    int rc = Step(begin);
    if (rc == SQLITE_DONE) {
        sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(creationTime));
        sqlite3_bind_text(insert, 2, utf8Xml, -1, SQLITE_STATIC);
        sqlite3_bind_int64(insert, 3, static_cast<sqlite3_int64>(NowUtc()));
        rc = Step(insert);
        sqlite3_clear_bindings(insert);
    }
    if (rc == SQLITE_DONE && keep >= 0) {
        sqlite3_bind_int64(trim, 1, sqlite3_last_insert_rowid(g_rw.db) - keep);
        rc = Step(trim);
    }
    if (rc == SQLITE_DONE) rc = Step(commit);
    g_keptAt = rc == SQLITE_DONE ? keep : -1;
    if (rc == SQLITE_DONE) return 1;
    if ((rc & 0xFF) == SQLITE_CONSTRAINT) {
        Report(L"AlertDb_Write: an alert with creation time %I64u is stored already", creationTime);
    } else {
        Report(L"AlertDb_Write: storing %I64u failed %d (%hs)", creationTime, rc, sqlite3_errmsg(g_rw.db));
    }
    if (!sqlite3_get_autocommit(g_rw.db)) sqlite3_exec(g_rw.db, "ROLLBACK", nullptr, nullptr, nullptr);
    return 0;
}

// The file a connection reads, for messages.
std::wstring ReadPath(const Connection* connection) {
    return connection == &g_ro ? g_roPath : DatabasePath();
}

std::wstring FromUtf8(const char* text) {
    int n = text != nullptr ? MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0) : 0;
    if (n <= 0) return std::wstring();
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, &out[0], n);
    out.resize(static_cast<size_t>(n) - 1);
    return out;
}

}  // namespace

// A cursor: its statement, and whether it has reached its end.
struct ALERT_DB_CURSOR {
    sqlite3_stmt* stmt;
    bool done;
};

extern "C" {

OMKDB_API int WINAPI InitSqliteLib(void) {
    LockGuard lock;
    if (g_started) return 1;
    sqlite3_config(SQLITE_CONFIG_LOG, SqliteLog, nullptr);
    int rc = sqlite3_initialize();
    if (rc != SQLITE_OK) {
        Report(L"InitSqliteLib: sqlite3_initialize failed %d (%hs)", rc, sqlite3_errstr(rc));
        return 0;
    }
    g_started = true;
    return 1;
}

OMKDB_API int WINAPI FreeSqliteLib(void) {
    LockGuard lock;
    if (!g_started) return 1;
    g_rw.Close();
    g_ro.Close();
    g_open[kStore] = g_open[kTrim] = false;
    sqlite3_shutdown();
    g_started = false;
    return 1;
}

OMKDB_API int WINAPI AlertDb_Open(int storeConnection, int createWhenMissing) {
    LockGuard lock;
    if (!g_started) {
        Report(L"AlertDb_Open: InitSqliteLib has not been called");
        return 0;
    }
    const int slot = storeConnection ? kStore : kTrim;
    const bool create = createWhenMissing != 0;
    if (g_rw.db != nullptr && !(create && g_corruptSeen)) {
        g_open[slot] = true;
        return 1;
    }
    const std::wstring path = DatabasePath();
    if (path.empty()) {
        Report(L"AlertDb_Open: the product has no data folder");
        return 0;
    }
    if (create) {
        std::wstring folder = path.substr(0, path.size() - wcslen(L"\\omkAlerts.db"));
        DWORD made = CFileHelper::MakeDirectory(folder.c_str(), nullptr);
        if (made != ERROR_SUCCESS) {
            Report(L"AlertDb_Open: could not create folder %ls err=%lu", folder.c_str(), made);
            return 0;
        }
    } else if (!Exists(path)) {
        Report(L"AlertDb_Open: %ls does not exist", path.c_str());
        return 0;
    }

    // A corrupt file is replaced only by a creating open, after the connection to it is gone.
    if (create && g_corruptSeen) {
        g_rw.Close(true);
        if (!MoveAside(path)) return 0;
    }
    // A journal left without its database must not meet the new one.
    if (create && !Exists(path) && !MoveAside(path)) return 0;

    std::string message;
    int rc = OpenReadWrite(path, create, message);
    if (rc != SQLITE_OK && create && IsUnusableFile(rc)) {
        const bool readable = (rc & 0xFF) == SQLITE_READONLY;
        std::wstring aside;
        if (!MoveAside(path, &aside, readable ? L"cannot be written" : L"is not a valid database")) return 0;
        rc = OpenReadWrite(path, create, message);
        if (rc == SQLITE_OK && readable && !aside.empty()) CarryOver(aside);
    }
    if (rc != SQLITE_OK) {
        Report(L"AlertDb_Open: opening %ls failed %d (%hs)", path.c_str(), rc, message.c_str());
        return 0;
    }
    g_open[slot] = true;
    return 1;
}

OMKDB_API int WINAPI AlertDb_OpenReadOnly(const wchar_t* databasePath) {
    LockGuard lock;
    if (!g_started) {
        Report(L"AlertDb_OpenReadOnly: InitSqliteLib has not been called");
        return 0;
    }
    if (g_ro.db != nullptr) return 1;
    const std::wstring path = databasePath != nullptr ? std::wstring(databasePath) : DatabasePath();
    if (path.empty() || !Exists(path)) {
        Report(L"AlertDb_OpenReadOnly: %ls does not exist", path.c_str());
        return 0;
    }
    // As a URI, so that the WAL index is opened read-only too ("%", "?" and "#" escaped).
    std::string uri = "file:";
    for (char c : ToUtf8(path)) {
        if (c == '%' || c == '?' || c == '#') {
            char escaped[4];
            _snprintf(escaped, sizeof(escaped), "%%%02X", static_cast<unsigned char>(c));
            uri.append(escaped, 3);
        } else {
            uri += c == '\\' ? '/' : c;
        }
    }
    // Without write access SQLite's open of the WAL for writing fails before
    // it falls back to reading; its retries (meant for a virus scanner's
    // passing lock) would only add seconds here.
    int noRetries[2] = {0, -1};
    int rc = SQLITE_OK;
    // A file in WAL mode without its WAL (a copy, or one no process has open)
    // is read on its own from the start: SQLite would otherwise make an empty
    // WAL beside it wherever the folder lets it.
    const bool alone = IsWalFile(path) && !Exists(path + L"-wal");
    for (const char* options : {"?mode=ro&readonly_shm=1", "?mode=ro&immutable=1"}) {
        if (alone && strstr(options, "immutable") == nullptr) continue;
        rc = sqlite3_open_v2((uri + options).c_str(), &g_ro.db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
        int unused = 0;
        if (rc == SQLITE_OK) rc = sqlite3_busy_timeout(g_ro.db, kBusyTimeoutMs);
        if (rc == SQLITE_OK) rc = sqlite3_db_config(g_ro.db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, &unused);
        if (rc == SQLITE_OK) {
            int usualRetries[2] = {-1, -1};
            sqlite3_file_control(g_ro.db, "main", SQLITE_FCNTL_WIN32_AV_RETRY, usualRetries);
            sqlite3_file_control(g_ro.db, "main", SQLITE_FCNTL_WIN32_AV_RETRY, noRetries);
            rc = QueryInt(g_ro.db, "SELECT count(*) FROM sqlite_master", &unused);
            sqlite3_file_control(g_ro.db, "main", SQLITE_FCNTL_WIN32_AV_RETRY, usualRetries);
        }
        if (rc == SQLITE_OK) {
            g_roPath = path;
            return 1;
        }
        // No WAL beside the file and no right to make one: nobody writes it
        // now, so the file alone is the whole database.
        std::string message = g_ro.db != nullptr ? sqlite3_errmsg(g_ro.db) : sqlite3_errstr(rc);
        g_ro.Close();
        if ((rc & 0xFF) != SQLITE_CANTOPEN || Exists(path + L"-wal")) {
            Report(L"AlertDb_OpenReadOnly: opening %ls failed %d (%hs)", path.c_str(), rc, message.c_str());
            return 0;
        }
    }
    Report(L"AlertDb_OpenReadOnly: opening %ls failed %d", path.c_str(), rc);
    return 0;
}

OMKDB_API int WINAPI AlertDb_CloseReadOnly(void) {
    LockGuard lock;
    g_ro.Close();
    return 1;
}

OMKDB_API int WINAPI AlertDb_ReadByCreationTimeW(unsigned long long creationTime, ALERT_DB_RECORD** record) {
    LockGuard lock;
    if (record == nullptr) {
        Report(L"AlertDb_ReadByCreationTimeW: null record pointer");
        return 0;
    }
    Connection* connection = ReadConnection();
    if (connection == nullptr) {
        Report(L"AlertDb_ReadByCreationTimeW: the database is not open");
        return 0;
    }
    sqlite3_stmt* stmt = connection->Get(connection->lookup, "SELECT xml FROM alerts WHERE creation_time=?1",
                                         L"AlertDb_ReadByCreationTimeW");
    if (stmt == nullptr) return 0;
    sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(creationTime));
    int rc = Step(stmt);
    if (rc == SQLITE_DONE) return 0;
    if (rc != SQLITE_ROW) {
        Report(L"AlertDb_ReadByCreationTimeW: reading %I64u failed %d (%hs)", creationTime, rc,
               sqlite3_errmsg(connection->db));
        return 0;
    }
    const void* text = sqlite3_column_text(stmt, 0);
    size_t bytes = static_cast<size_t>(sqlite3_column_bytes(stmt, 0));
    ALERT_DB_RECORD* block = static_cast<ALERT_DB_RECORD*>(malloc(offsetof(ALERT_DB_RECORD, xml) + bytes + 1));
    if (block != nullptr) {
        block->creationTime = creationTime;
        if (bytes > 0) memcpy(block->xml, text, bytes);
        block->xml[bytes] = '\0';
        *record = block;
    }
    sqlite3_reset(stmt);
    if (block == nullptr) Report(L"AlertDb_ReadByCreationTimeW: out of memory for %zu bytes", bytes);
    return block != nullptr ? 1 : 0;
}

OMKDB_API int WINAPI AlertDb_Write(unsigned long long creationTime, const char* utf8Xml) {
    LockGuard lock;
    return Store(creationTime, utf8Xml, -1);
}

OMKDB_API int WINAPI AlertDb_WriteAndTrim(unsigned long long creationTime, const char* utf8Xml,
                                          unsigned int maxRecords) {
    LockGuard lock;
    return Store(creationTime, utf8Xml, maxRecords);
}

OMKDB_API int WINAPI AlertDb_Close(int storeConnection) {
    LockGuard lock;
    // Every statement commits as it runs: nothing is pending here. The
    // connection itself stays for the next open.
    g_open[storeConnection ? kStore : kTrim] = false;
    return 1;
}

OMKDB_API int WINAPI AlertDb_DeleteOldestRecords(unsigned int maxRecords) {
    LockGuard lock;
    if (g_rw.db == nullptr || !(g_open[kStore] || g_open[kTrim])) {
        Report(L"AlertDb_DeleteOldestRecords: the database is not open");
        return 0;
    }
    if (g_keptAt >= 0 && g_keptAt == static_cast<long long>(maxRecords)) return 1;
    g_keptAt = -1;
    // Nothing to delete is the usual case below the limit: found from the two
    // ends of the key, without a write.
    sqlite3_stmt* span = g_rw.Get(g_rw.span, "SELECT min(id), max(id) FROM alerts", L"AlertDb_DeleteOldestRecords");
    if (span == nullptr) return 0;
    int rc = Step(span);
    sqlite3_int64 oldest = rc == SQLITE_ROW ? sqlite3_column_int64(span, 0) : 0;
    sqlite3_int64 newest = rc == SQLITE_ROW ? sqlite3_column_int64(span, 1) : 0;
    if (rc == SQLITE_ROW) rc = Step(span);
    sqlite3_stmt* trim = nullptr;
    if (rc == SQLITE_DONE && newest - static_cast<sqlite3_int64>(maxRecords) >= oldest && newest > 0) {
        trim = g_rw.Get(g_rw.trim, "DELETE FROM alerts WHERE id <= ?1", L"AlertDb_DeleteOldestRecords");
        if (trim == nullptr) return 0;
        sqlite3_bind_int64(trim, 1, newest - static_cast<sqlite3_int64>(maxRecords));
        rc = Step(trim);
    }
    if (rc != SQLITE_DONE) {
        Report(L"AlertDb_DeleteOldestRecords: keeping %u records failed %d (%hs)", maxRecords, rc,
               sqlite3_errmsg(g_rw.db));
        return 0;
    }
    return 1;
}

OMKDB_API int WINAPI AlertDb_OpenCursor(int order, unsigned long long from, ALERT_DB_CURSOR** cursor) {
    LockGuard lock;
    if (cursor == nullptr || (order != ALERT_DB_NEWEST_FIRST && order != ALERT_DB_STORED_AFTER)) {
        Report(L"AlertDb_OpenCursor: bad arguments (order %d)", order);
        return 0;
    }
    Connection* connection = ReadConnection();
    if (connection == nullptr) {
        Report(L"AlertDb_OpenCursor: the database is not open");
        return 0;
    }
    // Both walk an index (the creation time's, the key), so nothing is sorted
    // or held in memory however many records there are.
    const char* sql = order == ALERT_DB_NEWEST_FIRST
                          ? "SELECT id, creation_time, stored_utc, xml FROM alerts WHERE creation_time >= ?1 "
                            "ORDER BY creation_time DESC"
                          : "SELECT id, creation_time, stored_utc, xml FROM alerts WHERE id > ?1 ORDER BY id";
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(connection->db, sql, -1, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        Report(L"AlertDb_OpenCursor: reading %ls failed %d (%hs)", ReadPath(connection).c_str(), rc,
               sqlite3_errmsg(connection->db));
        return 0;
    }
    sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(from > kMaxKey ? kMaxKey : from));
    *cursor = new (std::nothrow) ALERT_DB_CURSOR{stmt, false};
    if (*cursor == nullptr) {
        sqlite3_finalize(stmt);
        Report(L"AlertDb_OpenCursor: out of memory");
        return 0;
    }
    return 1;
}

OMKDB_API int WINAPI AlertDb_NextRecord(ALERT_DB_CURSOR* cursor, ALERT_DB_ROW* row) {
    LockGuard lock;
    if (cursor == nullptr || row == nullptr) {
        Report(L"AlertDb_NextRecord: null cursor or row");
        return -1;
    }
    if (cursor->done) return 0;
    sqlite3_stmt* stmt = cursor->stmt;
    const int rc = sqlite3_step(stmt);
    NoteResult(sqlite3_db_handle(stmt), rc);
    if (rc == SQLITE_ROW) {
        row->id = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 0));
        row->creationTime = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 1));
        row->storedUtc = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 2));
        const unsigned char* text = sqlite3_column_text(stmt, 3);
        row->xml = text != nullptr ? reinterpret_cast<const char*>(text) : "";
        row->xmlBytes = static_cast<unsigned int>(sqlite3_column_bytes(stmt, 3));
        return 1;
    }
    // The end of the read transaction, also after a failure.
    cursor->done = true;
    sqlite3* db = sqlite3_db_handle(stmt);
    std::string message = sqlite3_errmsg(db);
    sqlite3_reset(stmt);
    if (rc == SQLITE_DONE) return 0;
    Report(L"AlertDb_NextRecord: reading %ls failed %d (%hs)", FromUtf8(sqlite3_db_filename(db, "main")).c_str(), rc,
           message.c_str());
    return -1;
}

OMKDB_API int WINAPI AlertDb_CloseCursor(ALERT_DB_CURSOR* cursor) {
    LockGuard lock;
    if (cursor != nullptr) sqlite3_finalize(cursor->stmt);
    delete cursor;
    return 1;
}

OMKDB_API int WINAPI AlertDb_GetSummary(ALERT_DB_SUMMARY* summary) {
    LockGuard lock;
    Connection* connection = ReadConnection();
    if (summary == nullptr || connection == nullptr) {
        Report(L"AlertDb_GetSummary: %ls", summary == nullptr ? L"null summary" : L"the database is not open");
        return 0;
    }
    // One statement, so one read transaction: the four figures agree.
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(connection->db,
                                "SELECT (SELECT count(*) FROM alerts), (SELECT ifnull(max(id), 0) FROM alerts), "
                                "n.creation_time, n.stored_utc FROM (SELECT 1) LEFT JOIN (SELECT creation_time, "
                                "stored_utc FROM alerts ORDER BY creation_time DESC LIMIT 1) AS n",
                                -1, &stmt, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(stmt);
    NoteResult(connection->db, rc);
    if (rc == SQLITE_ROW) {
        summary->count = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 0));
        summary->lastId = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 1));
        summary->newestCreationTime = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 2));
        summary->newestStoredUtc = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 3));
    } else if (strcmp(sqlite3_errmsg(connection->db), "no such table: alerts") == 0) {
        Report(L"AlertDb_GetSummary: %ls holds no alerts table (an empty file, or not an alert database)",
               ReadPath(connection).c_str());
    } else {
        Report(L"AlertDb_GetSummary: reading %ls failed %d (%hs)", ReadPath(connection).c_str(), rc,
               sqlite3_errmsg(connection->db));
    }
    sqlite3_finalize(stmt);
    return rc == SQLITE_ROW ? 1 : 0;
}

OMKDB_API int WINAPI AlertDb_CheckIntegrity(char* report, unsigned int reportBytes) {
    LockGuard lock;
    if (report == nullptr || reportBytes == 0) {
        Report(L"AlertDb_CheckIntegrity: no room for the report");
        return 0;
    }
    Connection* connection = ReadConnection();
    std::string text;
    int rc = SQLITE_MISUSE;
    if (connection != nullptr) {
        sqlite3_stmt* stmt = nullptr;
        rc = sqlite3_prepare_v2(connection->db, "PRAGMA integrity_check(100)", -1, &stmt, nullptr);
        while (rc == SQLITE_OK || rc == SQLITE_ROW) {
            rc = sqlite3_step(stmt);
            const unsigned char* line = rc == SQLITE_ROW ? sqlite3_column_text(stmt, 0) : nullptr;
            if (line != nullptr) text += (text.empty() ? "" : "\n") + std::string(reinterpret_cast<const char*>(line));
        }
        if (rc != SQLITE_DONE) text = sqlite3_errmsg(connection->db);
        sqlite3_finalize(stmt);
        if (rc != SQLITE_DONE) {
            Report(L"AlertDb_CheckIntegrity: checking %ls failed %d (%hs)", ReadPath(connection).c_str(), rc,
                   text.c_str());
        }
    } else {
        text = "the database is not open";
        Report(L"AlertDb_CheckIntegrity: the database is not open");
    }
    // Cut at a character boundary.
    size_t bytes = text.size() < reportBytes ? text.size() : reportBytes - 1;
    while (bytes > 0 && bytes < text.size() && (static_cast<unsigned char>(text[bytes]) & 0xC0) == 0x80) --bytes;
    memcpy(report, text.data(), bytes);
    report[bytes] = '\0';
    return rc == SQLITE_DONE && text == "ok" ? 1 : 0;
}

OMKDB_API DWORD WINAPI AlertDb_GetPath(wchar_t* buffer, DWORD bufferChars) {
    LockGuard lock;
    Connection* connection = ReadConnection();
    const std::wstring path = connection != nullptr ? ReadPath(connection) : DatabasePath();
    if (buffer == nullptr || path.empty() || path.size() >= bufferChars) return 0;
    wmemcpy(buffer, path.c_str(), path.size() + 1);
    return static_cast<DWORD>(path.size());
}

OMKDB_API DWORD WINAPI AlertDb_GetLastErrorText(wchar_t* buffer, DWORD bufferChars) {
    if (buffer == nullptr || bufferChars == 0) return 0;
    const size_t chars = wcsnlen(g_lastError, bufferChars - 1);
    wmemcpy(buffer, g_lastError, chars);
    buffer[chars] = L'\0';
    return static_cast<DWORD>(chars);
}

}  // extern "C"
