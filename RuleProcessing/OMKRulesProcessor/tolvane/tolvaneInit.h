// Engine start-up and teardown, on the service main thread. Each start-up step
// that succeeds sets a flag, so the teardown undoes exactly what was done.
#pragma once

#include <windows.h>

// The machine-wide event set after each stored alert; null when not created.
extern HANDLE g_alertGeneratedEvent;

// Brings the engine up: queue lock, alert-generated event, alert database
// library, plugins, rule definitions, plugin initialisers, engine thread.
// Returns 0, 1 (event, database library, empty rule table, engine thread),
// 7 (rule file not parsed), 9 (rule file not read) or a loader's or plugin
// initialiser's own code.
DWORD Tolvane_Init();

// The start-up steps that run no plugin code: rule plugins and action plugins
// loaded, then the rule definitions parsed, so that rules and configuration
// blocks bind to the loaded plugins. 0, or the G_STATUS of the step that
// failed, reported as Tolvane_Init reports it. Part of Tolvane_Init; a rule
// file checker runs it alone.
DWORD Tolvane_LoadDefinitions();

// Undoes what Tolvane_Init did, also after a failed or absent Tolvane_Init.
// When the engine thread does not end within the stop wait, it releases
// nothing and leaves it all to the process exit. Always 0.
DWORD Tolvane_Term();

// The alert-generated event: administrators and LocalSystem may set it,
// everyone may wait on it.
DWORD CreateAlertGeneratedEvent();
void CloseAlertGeneratedEvent();

#ifdef OMK_ENGINE_TEST_SEAMS
// Test builds only: forgets which start-up steps were done, so that one test
// program can start and stop the engine many times. The service process
// starts it once.
void Tolvane_ForgetStepsForTest();
#endif
