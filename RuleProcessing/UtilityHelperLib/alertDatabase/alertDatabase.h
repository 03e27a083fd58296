// Storing a finished alert file in the alert database, trimming the database
// and the alert folder, and telling other processes that an alert was stored.
// Engine thread only.
#pragma once

#include <windows.h>

// Characters of g_alertFileName, terminator included.
constexpr int OMK_ALERT_FILE_NAME_CHARS = 261;

// Name (no folder) of the alert file of the event under handling; written by
// the event handler at the start of each event and read by AddToAlertDb.
extern wchar_t g_alertFileName[OMK_ALERT_FILE_NAME_CHARS];

// Name of the machine-wide event set after each stored alert.
extern const wchar_t OMK_ALERT_GENERATED_EVENT_NAME[];

#ifdef OMK_REPLAY_SEAMS
// Replay builds only (omk-rules): the name engine start-up creates the
// alert-generated event under and each stored alert signals. A replay sets a
// session-local name of its own, so that no replayed alert reaches the
// machine's other processes.
extern const wchar_t* g_replayAlertEventName;
#define OMK_ALERT_EVENT_NAME_IN_USE g_replayAlertEventName
#else
#define OMK_ALERT_EVENT_NAME_IN_USE OMK_ALERT_GENERATED_EVENT_NAME
#endif

// Stores "<alertFolder>\<g_alertFileName>" under the creation time in its
// name, deletes the file when `removeXml` (else keeps at most `maxAlerts`
// files), trims the database to `maxAlerts` records and sets the
// alert-generated event. Nonzero when the alert is stored (a duplicate
// creation time counts as stored). `reserved` is ignored.
int AddToAlertDb(const wchar_t* alertFolder, DWORD reserved, DWORD removeXml, DWORD maxAlerts);

// The creation time (FILETIME as one number) from the "_MMDDYYYYhhmmss" stamp
// after the last '_' of an alert file name; 0 when there is none.
ULONGLONG GetCreationTimeStampFromAlertFileName(const wchar_t* fileName);

// Reads an alert file and checks that it loads as XML (a value with "&" or
// "<" makes it fail). Its UTF-8 bytes, counted in g_allocCount and freed by
// the caller with free(), or null after reporting why.
char* ReadValidateXmlFile(const wchar_t* path);

// Deletes the oldest (by file-system creation time) of this machine's alert
// files in `alertFolder` when there are more than `maxFiles`; one per call.
void CheckMaxAlertFiles(DWORD maxFiles, const wchar_t* alertFolder);
