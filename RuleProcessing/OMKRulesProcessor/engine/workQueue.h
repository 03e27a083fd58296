// The work queue between the collectors' COM calls and the engine thread, and
// the engine thread itself. Producers are COM's RPC threads (any number); the
// only consumer is the engine thread, and at shutdown the stopping thread.
#pragma once

#include <windows.h>

#include "omkPluginSdk.h"

// Head (oldest item) of the queue, null when empty; there is no tail pointer.
// Guarded by g_workQueueLock, as is every `next` of a queued item.
extern WORK_ITEM* g_workQueue;

// Guards g_workQueue. Initialised by engine start-up before anything can be
// queued and deleted at engine teardown; g_workQueueLockReady is 1 in between.
// Both change only through InitWorkQueueLock and DeleteWorkQueueLock.
extern CRITICAL_SECTION g_workQueueLock;
extern LONG g_workQueueLockReady;

// First step of engine start-up: from here on collectors' events are queued.
void InitWorkQueueLock();
// Last step of engine teardown: clears g_workQueueLockReady, then deletes the
// lock, never while a producer is between its check of the flag and its use of
// the lock. Later events are refused. Nothing when the lock does not exist.
void DeleteWorkQueueLock();

// Auto-reset, set after every append; the engine thread sleeps on it.
extern HANDLE g_TolvaneEvent;
// Manual-reset, set by the engine thread as its first act.
extern HANDLE g_TolvaneThreadRunEvent;
// Manual-reset, set by StopTolvaneThread.
extern HANDLE g_TolvaneThreadExitEvent;
// The engine thread and its id; owned by Start/StopTolvaneThread.
extern HANDLE g_TolvaneThreadHandle;
extern DWORD g_TolvaneThreadId;

// Appends a filled item (its `next` null) at the tail and wakes the engine
// thread; the queue owns the item from here on. Any thread.
void AddToWorkQueue(WORK_ITEM* item);

// Detaches and returns the head item (the caller owns it), or null when the
// queue is empty or the lock does not exist.
WORK_ITEM* RemoveFromWorkQueue();

// Frees an item and what it owns. A periodic-data item's byte buffer is left
// allocated (and counted) on purpose: only the item itself is freed.
void FreeWorkItem(WORK_ITEM* item);

// Creates the engine thread's events and the thread and waits up to 5000 ms
// for it to run; then wakes it once if events were queued before it ran.
// Returns 0 or a Windows error code. Called by engine start-up.
DWORD StartTolvaneThread();

// Asks the engine thread to end, waits up to 10000 ms and frees what is still
// queued unhandled. True when no engine thread runs any more; its handles are
// then closed. False when the wait ran out: the thread may still be inside a
// plugin, so its handles stay open and nothing it uses may be released.
// Called by engine teardown.
bool StopTolvaneThread();

// The engine thread: takes queued items one at a time, in arrival order, and
// hands each to Tolvane_HandleEvents. The parameter is ignored.
DWORD WINAPI TolvaneThreadProc(LPVOID parameter);

// Evaluates one event; runs on the engine thread and does not free the item.
// Defined by the event handling module, not by this library: each program that
// links the queue supplies it (test programs supply their own).
void Tolvane_HandleEvents(WORK_ITEM* item);
