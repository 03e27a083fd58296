// omkDb.dll: the product's alert database, one SQLite file.
//
// The file is "<ProgramData>\Varn\Orlemark\Data\omkAlerts.db" (the folder is
// created when missing). It holds one table:
//   alerts(creation_time INTEGER PRIMARY KEY,  -- FILETIME of the alert, as one number
//          xml TEXT NOT NULL,                  -- the alert file's UTF-8 bytes as given
//          stored_utc INTEGER NOT NULL)        -- FILETIME (UTC) of the store
// and the index alerts_creation_time on creation_time, which lets the trim
// count off the newest records without reading every alert's text.
// The journal is WAL with synchronous=FULL, so other processes may read while
// the service writes, and an alert reported stored survives a killed process.
// Every connection waits up to 5 s for another process's lock.
//
// Two connections may be open at once: the store connection (first open flag
// 1) and the trim connection (first open flag 0). Reads and writes use the
// store connection when it is open, else the trim connection; the trim uses the
// trim connection when it is open, else the store connection.
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

// Closes any connection still open and stops the library. Returns 1.
OMKDB_API int WINAPI FreeSqliteLib(void);

// Opens one connection to the alert database. `storeConnection` picks the
// connection: 1 the store connection, 0 the trim connection. With
// `createWhenMissing` nonzero the folder, the file and the table are created
// when missing, and a file that is not a valid database (or that an earlier
// call of this process found corrupt) is moved aside to
// "omkAlerts.db.corrupt-<yyyymmddhhmmss UTC>" (its WAL file beside it, with
// "-wal" appended) and a new database started. Without it a missing or
// corrupt file fails the open. Opening a connection that is open already
// succeeds and keeps it. Nonzero on success.
OMKDB_API int WINAPI AlertDb_Open(int storeConnection, int createWhenMissing);

// Looks an alert up by its creation time. When one exists, *record receives a
// new block (see ALERT_DB_RECORD) and the result is nonzero. When none exists,
// or on failure, *record is left as it was (callers set it to null first) and
// the result is 0.
OMKDB_API int WINAPI AlertDb_ReadByCreationTimeW(unsigned long long creationTime, ALERT_DB_RECORD** record);

// Stores a new alert: the creation time (at most 0x7FFFFFFFFFFFFFFF, as every
// FILETIME is) and the zero-terminated UTF-8 text, committed durably before
// the call returns. A creation time that is stored already fails (the stored
// record is kept). Nonzero on success.
OMKDB_API int WINAPI AlertDb_Write(unsigned long long creationTime, const char* utf8Xml);

// Closes the connection that AlertDb_Open opened with the same first flag.
// Returns 1, also when that connection was not open.
OMKDB_API int WINAPI AlertDb_Close(int storeConnection);

// Keeps the `maxRecords` records with the greatest creation times and deletes
// the others (all of them for 0). Nonzero on success.
OMKDB_API int WINAPI AlertDb_DeleteOldestRecords(unsigned int maxRecords);

#ifdef __cplusplus
}  // extern "C"
#endif
