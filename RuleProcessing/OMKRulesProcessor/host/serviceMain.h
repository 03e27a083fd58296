// The service "OMKRulesProcessor": its main, its control handler and the one
// place that reports state to the service control manager.
#pragma once

#include <windows.h>

extern const wchar_t OMK_SERVICE_NAME[];

// Status handle from RegisterServiceCtrlHandlerExW; null before.
extern SERVICE_STATUS_HANDLE g_ServiceStatusHandle;
// Set by the control handler on stop or shutdown; ServiceMain waits on it.
extern HANDLE g_ServiceStopEvent;

// Sends a state with the check point and wait hint rules of the service and
// keeps a copy for interrogation. 0, 6 without a status handle, or the error
// of SetServiceStatus.
DWORD ReportStatusToSCMgr(DWORD state, DWORD exitCode, DWORD waitHint);

// Dispatcher thread: the service's entry; arguments are ignored.
void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);

// Dispatcher thread: stop and shutdown set the stop event and return at once;
// once the service has reported itself stopped they change nothing.
DWORD WINAPI ServiceCtrlHandlerEx(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
