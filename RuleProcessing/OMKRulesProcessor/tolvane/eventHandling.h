// What the engine thread does with each queued event: evaluate every rule,
// write the alerts of rules a collector reported, run the actions of fired
// rules between the action plugins' begin and end calls, and store the alert
// file. Engine thread only; nothing here locks.
#pragma once

#include <windows.h>

#include "omkPluginSdk.h"

// Handles one event; does not free it.
void Tolvane_HandleEvents(WORK_ITEM* item);

// Prepares every rule for `item` and decides which fire; returns how many did.
DWORD EvaluateRule(WORK_ITEM* item);

// Appends the alert of `rule` with the event's data items to its alert file.
void Rule_LogAlert(RULE* rule, const wchar_t* dataItemsEnclosingXmlTag, unsigned int numDataItems,
                   SAFEARRAY* dataItemName, SAFEARRAY* dataItemVal);

// Action_BeginEvaluation / Action_EndEvaluation of every action plugin.
void BeginRuleEvaluation();
void EndRuleEvaluation();

#ifdef OMK_ENGINE_TEST_SEAMS
// Test builds only: the pause before each event (1000 ms in the service) and
// the clock that names its alert file (GetSystemTime in the service).
extern DWORD g_handleEventsPauseMs;
extern void(WINAPI* g_handleEventsClock)(SYSTEMTIME*);
#endif
