// The COM server thread: it enters the multithreaded apartment, registers the
// Tolvane class factory for other processes and stays blocked until it is told
// to end, then lets client references drain (5 s at most), revokes the class,
// cuts off the clients still connected and lets server locks drain (5 s at
// most). The service main thread starts and stops it.
#pragma once

#include <windows.h>

#include "CTolvane.h"

// Manual-reset, set by the server thread once the class is registered.
extern HANDLE g_ComServerThreadRunEvent;
// Manual-reset, set by StopComServerThread; the server thread waits for it.
extern HANDLE g_ComServerThreadExitEvent;
// The server thread and its id; owned by Start/StopComServerThread.
extern HANDLE g_ComServerThreadHandle;
extern DWORD g_ComServerThreadId;

// Creates the server's four events and its thread and waits up to 5000 ms for
// the class to be registered. Returns 0 or a Windows error code (258 when the
// thread failed before registering).
DWORD StartComServerThread();

// The server thread. Exit code 0, 1 (COM initialisation, security or
// registration failed), 8 (no memory for the factory) or a Windows error.
DWORD WINAPI ComServerThreadProc(LPVOID parameter);

// Asks the server thread to end, waits up to 10000 ms for it and closes the
// server's handles, unless the thread is still running (it waits on them).
// Called once, by the service main thread at stop.
void StopComServerThread();
