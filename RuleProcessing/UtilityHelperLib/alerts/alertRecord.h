// The alert element that a fired rule writes into the alert file: its head
// (identity, rule, local time with UTC offset, message) and its data items.
// Engine thread only; the file is opened and closed with xmlLog.
#pragma once

#include <windows.h>

#include "omkPluginSdk.h"
#include "xmlLog.h"

// Writes "\n\t<Alert>\n" and the head elements AlertId, RuleGuid, RuleType,
// DateTime and Message, read from the rule. `message` (the rule's alertMsg)
// is used only in the failure report. 1 on success; 0 at the first failure,
// which has been reported.
int Rule_Alert_WriteHeader(XMLLOG_HANDLE* handle, const RULE* rule, const wchar_t* message);

// Writes "\t\t<tag>", the value in UTF-8 and "</tag>\n"; with a null tag the
// value alone, with no line break. A null or oversized value (more than 1023
// bytes of UTF-8) fails with a report and leaves the opening tag in the file.
// `rule` names the rule in reports and may be null. 1 or 0.
int Alert_AddData(XMLLOG_HANDLE* handle, const RULE* rule, const wchar_t* tag, const wchar_t* value);

typedef void(WINAPI* PFN_ALERT_GET_LOCAL_TIME)(LPSYSTEMTIME);
typedef DWORD(WINAPI* PFN_ALERT_GET_TIME_ZONE)(LPTIME_ZONE_INFORMATION);
#ifdef OMK_TEST_SEAMS
// Test builds only: where Rule_Alert_WriteHeader takes the local time and the
// time-zone information from (GetLocalTime and GetTimeZoneInformation unless
// replaced). Tests choose the time, the bias and the query's result here; a
// null argument restores the system's function. Engine thread only.
void Alert_SetClock(PFN_ALERT_GET_LOCAL_TIME getLocalTime, PFN_ALERT_GET_TIME_ZONE getTimeZoneInformation);
#endif
