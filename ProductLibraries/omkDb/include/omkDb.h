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
// opens it so; a file format SQLite will not write counts too; or an earlier
// call of this process found it corrupt) is moved aside to "omkAlerts.db.corrupt-<yyyymmddhhmmss UTC>" (its
// WAL beside it, with "-wal" appended) and a new database started; a file
// that is gone counts as moved. When it cannot be moved (another process
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

#ifdef __cplusplus
}  // extern "C"
#endif
