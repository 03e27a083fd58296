// omkDb.dll: the product's alert database, one SQLite file.
//
// The file is "omkAlerts.db" in the product's Data folder, found by the same
// rule as the service's (CDef::FOLDER_OMK_DATABASE): normally
// "<ProgramData>\Varn\Orlemark\Data", the install folder's "Data" when the
// product folder cannot be made. The folder is created when missing. It holds
// one table:
//   alerts(id INTEGER PRIMARY KEY,                 -- the order of storing, 1, 2, 3, ...
//          creation_time INTEGER NOT NULL UNIQUE,  -- FILETIME of the alert, as one number
//          xml TEXT NOT NULL,                      -- the alert file's UTF-8 bytes as given
//          stored_utc INTEGER NOT NULL)            -- FILETIME (UTC) of the store
// A file of the first layout (creation_time as the key, no id) is rebuilt in
// the order of its store times at the first open.
// The journal is WAL and every commit is synced: an alert reported stored
// survives a killed process and a power cut. The WAL and its index stay beside
// the file after the last connection closes, so that readers without write
// access can open it. Every connection waits up to 5 s for another process's
// lock.
//
// Each process keeps one read-write connection from its first AlertDb_Open to
// FreeSqliteLib, with its statements prepared once. The two open flags of
// AlertDb_Open/AlertDb_Close (1 the store, 0 the trim connection, as the
// service calls them) only say whether the caller has the database open;
// every write is committed before its call returns, so nothing is ever
// pending at AlertDb_Close.
//
// Readers in other processes (an operator's tool running as a standard user,
// which may read but not write the Data folder) use AlertDb_OpenReadOnly: it
// writes nothing to the folder, neither while the service runs nor while it is
// stopped.
//
// One process writes the database, the service; other processes read it.
//
// Every failure returns 0 and is reported through the error log (omkErrors);
// nothing here throws or crashes the caller on bad arguments. The functions
// may be called from any thread; they serialise on one lock.
#pragma once

#include <windows.h>

#ifdef OMKDB_BUILD
#define OMKDB_API __declspec(dllexport)
#else
#define OMKDB_API __declspec(dllimport)
#endif

#ifdef __cplusplus
extern "C" {
#endif

// One stored alert as returned by AlertDb_ReadByCreationTimeW: a single block
// from the C runtime's malloc, sized to hold the whole text, that the caller
// releases with free(). The library and its caller must share one C runtime
// (msvcrt.dll for every module of this product), or the free goes to the
// wrong heap.
typedef struct ALERT_DB_RECORD {
    unsigned long long creationTime;
    char xml[1];  // zero-terminated UTF-8; the block extends past this member
} ALERT_DB_RECORD;

// Starts the library (SQLite itself). Call once before any AlertDb_ function;
// nonzero on success. A second call while started succeeds and does nothing.
OMKDB_API int WINAPI InitSqliteLib(void);

// Closes the connections and stops the library. Returns 1.
OMKDB_API int WINAPI FreeSqliteLib(void);

// Opens the alert database for reading and writing; `storeConnection` (1 or
// 0) names the open for AlertDb_Close. With `createWhenMissing` nonzero the
// folder, the file and the table are created when missing, and a file that is
// not a valid database (SQLite's integrity check runs when the process first
// opens it so; a file SQLite will read but not write counts too; or an earlier
// call of this process found it corrupt) is moved aside to "omkAlerts.db.corrupt-<yyyymmddhhmmss UTC>" (its
// WAL beside it, with "-wal" appended) and a new database started; the alerts
// of a file that was only unwritable and is intact are carried into the new
// one. A file that is gone counts as moved. When it cannot be moved (another process
// holds it) the open fails, is reported once, and the next creating open
// tries again; a WAL that cannot be cleared from beside the path fails the
// open the same way, and is never applied to a new database. Without
// `createWhenMissing` a missing or corrupt file fails the open. Opening what
// is open already succeeds. Nonzero on success.
OMKDB_API int WINAPI AlertDb_Open(int storeConnection, int createWhenMissing);

// Opens the database read-only: `databasePath` names the file, or null the
// product's own. Nothing is ever written or created beside the file, so this
// works with read access alone (a standard user's rights on the Data folder),
// while the service writes and while it is stopped. When the file has no WAL
// beside it and none may be made, the file is read on its own (no writer can
// be at work then). Reads (AlertDb_ReadByCreationTimeW) use this connection
// when AlertDb_Open is not in force. Opening it again while open succeeds.
// Nonzero on success.
OMKDB_API int WINAPI AlertDb_OpenReadOnly(const wchar_t* databasePath);

// Closes the read-only connection. Returns 1, also when it was not open.
OMKDB_API int WINAPI AlertDb_CloseReadOnly(void);

// Looks an alert up by its creation time. When one exists, *record receives a
// new block (see ALERT_DB_RECORD) and the result is nonzero. When none exists,
// or on failure, *record is left as it was (callers set it to null first) and
// the result is 0.
OMKDB_API int WINAPI AlertDb_ReadByCreationTimeW(unsigned long long creationTime, ALERT_DB_RECORD** record);

// Stores a new alert: the creation time (at most 0x7FFFFFFFFFFFFFFF, as every
// FILETIME is) and the zero-terminated UTF-8 text, committed and synced before
// the call returns. A creation time that is stored already fails (the stored
// record is kept). Nonzero on success.
OMKDB_API int WINAPI AlertDb_Write(unsigned long long creationTime, const char* utf8Xml);

// AlertDb_Write and AlertDb_DeleteOldestRecords(maxRecords) in one commit: a
// store that keeps the database at its size costs one synced commit, not two,
// and a trim to the same limit right after it returns at once (this process
// is the database's only writer). Reports and results are those of
// AlertDb_Write; the trim adds none.
OMKDB_API int WINAPI AlertDb_WriteAndTrim(unsigned long long creationTime, const char* utf8Xml,
                                          unsigned int maxRecords);

// Ends the open that AlertDb_Open made with the same first flag. Returns 1,
// also when it was not open.
OMKDB_API int WINAPI AlertDb_Close(int storeConnection);

// Keeps the `maxRecords` records stored last and deletes the others (all of
// them for 0), whatever their creation times say: a clock that ran ahead for
// a while does not make the alerts stored after it the "oldest". Costs two
// key lookups when nothing needs deleting. Nonzero on success.
OMKDB_API int WINAPI AlertDb_DeleteOldestRecords(unsigned int maxRecords);

// ---------------------------------------------------------------------------
// Reading many records (operator tools, on the read-only connection)
//
// The functions below read through the same connection as
// AlertDb_ReadByCreationTimeW: the read-write one while AlertDb_Open is in
// force, else the read-only one. They never write.

// Which records a cursor visits, and in what order.
typedef enum ALERT_DB_ORDER {
    // Newest creation time first, those created at or after `from` (0: all).
    ALERT_DB_NEWEST_FIRST = 0,
    // In the order of storing, those stored after the record whose `id` is
    // `from` (0: all): what a follower reads after each alert-generated event.
    ALERT_DB_STORED_AFTER = 1
} ALERT_DB_ORDER;

// One record as a cursor returns it.
typedef struct ALERT_DB_ROW {
    unsigned long long id;            // the order of storing (1, 2, 3, ...)
    unsigned long long creationTime;  // FILETIME of the alert
    unsigned long long storedUtc;     // FILETIME (UTC) of the store
    const char* xml;                  // zero-terminated UTF-8, owned by the cursor: valid until its next call
    unsigned int xmlBytes;            // bytes of xml without the terminator
} ALERT_DB_ROW;

// An open cursor: one statement of the connection, stepped one record per
// call, so that a caller reads any number of records in bounded memory. It
// sees the database as it was at its first record (one read transaction; a
// writer goes on meanwhile). Used by one thread at a time.
typedef struct ALERT_DB_CURSOR ALERT_DB_CURSOR;

// Opens a cursor over the records that `order` (ALERT_DB_ORDER) and `from`
// select. Nonzero on success with *cursor set; close it with
// AlertDb_CloseCursor before closing the connection.
OMKDB_API int WINAPI AlertDb_OpenCursor(int order, unsigned long long from, ALERT_DB_CURSOR** cursor);

// Reads the next record into *row: 1 when there is one, 0 at the end, -1 when
// the read failed (reported; the cursor is at its end then).
OMKDB_API int WINAPI AlertDb_NextRecord(ALERT_DB_CURSOR* cursor, ALERT_DB_ROW* row);

// Closes a cursor (null is fine). Returns 1.
OMKDB_API int WINAPI AlertDb_CloseCursor(ALERT_DB_CURSOR* cursor);

// What the database holds, as AlertDb_GetSummary reports it. 0 where there is
// no record.
typedef struct ALERT_DB_SUMMARY {
    unsigned long long count;               // records stored
    unsigned long long lastId;              // id of the record stored last
    unsigned long long newestCreationTime;  // the greatest creation time
    unsigned long long newestStoredUtc;     // when that record was stored
} ALERT_DB_SUMMARY;

// Fills *summary. A file without the alerts table (an empty file, another
// program's database) fails with its own report. Nonzero on success.
OMKDB_API int WINAPI AlertDb_GetSummary(ALERT_DB_SUMMARY* summary);

// Runs SQLite's integrity check on the whole file. 1 when it finds nothing
// wrong; 0 when it finds a fault or cannot run. `report` (reportBytes, at least
// 1) receives "ok", the faults found one per line, or the failure, in UTF-8,
// cut to fit.
OMKDB_API int WINAPI AlertDb_CheckIntegrity(char* report, unsigned int reportBytes);

// Copies the path of the database file that reads use (the read-only one when
// only that is open), else the product's own database path. Returns its length
// in characters, or 0 when the buffer is too small or there is no data folder.
OMKDB_API DWORD WINAPI AlertDb_GetPath(wchar_t* buffer, DWORD bufferChars);

// Copies the text of the last failure a call of this library reported on the
// calling thread ("" when none), as it went to the error log: for a tool to
// show why a call failed. Returns its length in characters, cut to fit.
OMKDB_API DWORD WINAPI AlertDb_GetLastErrorText(wchar_t* buffer, DWORD bufferChars);

#ifdef __cplusplus
}  // extern "C"
#endif
