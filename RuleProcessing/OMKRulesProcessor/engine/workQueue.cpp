#include "workQueue.h"

#include <stdlib.h>

#include "conventions.h"
#include "omkErrors.h"
#include "xmlAccess.h"

WORK_ITEM* g_workQueue = nullptr;
CRITICAL_SECTION g_workQueueLock;
LONG g_workQueueLockReady = 0;

HANDLE g_TolvaneEvent = nullptr;
HANDLE g_TolvaneThreadRunEvent = nullptr;
HANDLE g_TolvaneThreadExitEvent = nullptr;
HANDLE g_TolvaneThreadHandle = nullptr;
DWORD g_TolvaneThreadId = 0;

namespace {

constexpr DWORD kStartWaitMs = 5000;
constexpr DWORD kStopWaitMs = 10000;

// Collectors' calls keep arriving during the engine teardown, which runs before
// the COM server is stopped, so a producer may have seen g_workQueueLockReady
// set and be about to enter the lock (or to set g_TolvaneEvent) just as the
// teardown deletes it (or closes the event). Clearing the flag first does not
// close that window. Producers therefore hold this gate shared from their look
// at the flag to their SetEvent, and the lock is created and deleted, and the
// work event replaced, only with the gate held exclusively: a producer then
// either finishes with both still valid or finds the flag cleared. The gate is
// statically initialised and never deleted.
SRWLOCK g_workQueueGate = SRWLOCK_INIT;

void FreeCounted(void* block) {
    --g_allocCount;
    free(block);
}

// Creates one of the engine thread's unnamed events. A failed creation leaves
// the handle null; the error is reported and returned only when Windows gave
// one, otherwise start-up goes on without the event.
DWORD CreateEngineEvent(HANDLE* event, BOOL manualReset, const char* name) {
    HANDLE created = CreateEventW(nullptr, manualReset, FALSE, nullptr);
    if (created != nullptr && created != INVALID_HANDLE_VALUE) {
        *event = created;
        return 0;
    }
    *event = nullptr;
    DWORD error = GetLastError();
    if (error != 0) OMK_ReportError(0, L"%hs(): CreateEventW(%hs) err=%lu", "StartTolvaneThread", name, error);
    return error;
}

void CloseAndClear(HANDLE* handle) {
    if (*handle != nullptr) CloseHandle(*handle);
    *handle = nullptr;
}

// Replaces g_TolvaneEvent while no producer uses it; returns the former one.
HANDLE ExchangeWorkEvent(HANDLE event) {
    AcquireSRWLockExclusive(&g_workQueueGate);
    HANDLE former = g_TolvaneEvent;
    g_TolvaneEvent = event;
    ReleaseSRWLockExclusive(&g_workQueueGate);
    return former;
}

// Collectors may report events while the engine starts: those queued before
// the engine thread ran are handled now, not only at the next call.
void WakeIfQueued() {
    AcquireSRWLockShared(&g_workQueueGate);
    if (g_workQueueLockReady != 0) {
        EnterCriticalSection(&g_workQueueLock);
        const bool queued = g_workQueue != nullptr;
        LeaveCriticalSection(&g_workQueueLock);
        if (queued) SetEvent(g_TolvaneEvent);
    }
    ReleaseSRWLockShared(&g_workQueueGate);
}

}  // namespace

void InitWorkQueueLock() {
    AcquireSRWLockExclusive(&g_workQueueGate);
    if (g_workQueueLockReady == 0) {
        InitializeCriticalSection(&g_workQueueLock);
        g_workQueueLockReady = 1;
    }
    ReleaseSRWLockExclusive(&g_workQueueGate);
}

void DeleteWorkQueueLock() {
    AcquireSRWLockExclusive(&g_workQueueGate);
    if (g_workQueueLockReady != 0) {
        g_workQueueLockReady = 0;
        DeleteCriticalSection(&g_workQueueLock);
    }
    ReleaseSRWLockExclusive(&g_workQueueGate);
}

void AddToWorkQueue(WORK_ITEM* item) {
    if (item == nullptr) {
        OMK_ReportError(0, L"AddToWorkQueue: null item !");
        return;
    }
    AcquireSRWLockShared(&g_workQueueGate);
    if (g_workQueueLockReady == 0) {
        ReleaseSRWLockShared(&g_workQueueGate);
        OMK_ReportError(0, L"AddToWorkQueue: crit sect not initialized !");
        return;
    }
    EnterCriticalSection(&g_workQueueLock);
    if (g_workQueue == nullptr) {
        g_workQueue = item;
        LeaveCriticalSection(&g_workQueueLock);
        OmkTraceA("[%lu]%s() Added to head of queue.", GetCurrentThreadId(), "AddToWorkQueue");
    } else {
        // Only the head is kept, so the tail is found by walking the list.
        WORK_ITEM* last = g_workQueue;
        while (last->next != nullptr) last = last->next;
        last->next = item;
        LeaveCriticalSection(&g_workQueueLock);
        OmkTraceA("[%lu]%s() Added after %p.", GetCurrentThreadId(), "AddToWorkQueue", static_cast<void*>(last));
    }
    SetEvent(g_TolvaneEvent);
    ReleaseSRWLockShared(&g_workQueueGate);
}

// The consumers (the engine thread, and the teardown once that thread has
// ended) never overlap the lock's deletion, so they need no gate.
WORK_ITEM* RemoveFromWorkQueue() {
    if (g_workQueueLockReady == 0) {
        OMK_ReportError(0, L"RemoveFromWorkQueue: crit sect not initialized !");
        return nullptr;
    }
    EnterCriticalSection(&g_workQueueLock);
    WORK_ITEM* head = g_workQueue;
    if (head != nullptr) g_workQueue = head->next;
    LeaveCriticalSection(&g_workQueueLock);
    return head;
}

void FreeWorkItem(WORK_ITEM* item) {
    if (item == nullptr) return;
    if (item->kind == WORK_RULE_TRIGGERED) {
        auto& rule = item->u.ruleTriggered;
        if (rule.ruleGuid != nullptr) FreeCounted(rule.ruleGuid);
        if (rule.rulePluginId != nullptr) FreeCounted(rule.rulePluginId);
        if (rule.dataItemsEnclosingXmlTag != nullptr) FreeCounted(rule.dataItemsEnclosingXmlTag);
        if (rule.dataItemName != nullptr) SafeArrayDestroy(rule.dataItemName);
        if (rule.dataItemVal != nullptr) SafeArrayDestroy(rule.dataItemVal);
    }
    FreeCounted(item);
}

namespace {

DWORD ServeWorkQueue() {
    const char* const function = "TolvaneThreadProc";
    OmkTraceStart(function);
    if (!SetEvent(g_TolvaneThreadRunEvent)) {
        DWORD error = GetLastError();
        OMK_ReportError(0, L"%hs(): SetEvent(%hs) err=%lu", function, "g_TolvaneThreadRunEvent", error);
        return error;
    }
    // The exit event has the lower index, so it wins when both are signalled.
    const HANDLE events[2] = {g_TolvaneThreadExitEvent, g_TolvaneEvent};
    for (;;) {
        OmkTraceA("[%lu]%s() WaitForMultipleObjects(%hs,%hs)...", GetCurrentThreadId(), function,
                  "g_TolvaneThreadExitEvent", "g_TolvaneEvent");
        DWORD result = WaitForMultipleObjects(2, events, FALSE, INFINITE);
        if (result == WAIT_FAILED) {
            DWORD error = GetLastError();
            OMK_ReportError(0, L"%hs(): WaitForMultipleObjects(%hs,%hs) err=%lu", function, "g_TolvaneThreadExitEvent",
                            "g_TolvaneEvent", error);
            return error;
        }
        if (result == WAIT_OBJECT_0) {
            OmkTraceA("[%lu]%s() WaitForMultipleObjects(%hs,%hs) exit.", GetCurrentThreadId(), function,
                      "g_TolvaneThreadExitEvent", "g_TolvaneEvent");
            OmkTraceEnd(function);
            return 0;
        }
        if (result != WAIT_OBJECT_0 + 1) {
            OMK_ReportError(0, L"%hs(): WaitForMultipleObjects(%hs,%hs) returns unknown %lu!", function,
                            "g_TolvaneThreadExitEvent", "g_TolvaneEvent", result);
            OmkTraceEnd(function);
            return 0;
        }
        // The work event is auto-reset: drain everything now, so appends made
        // during the drain cost at most one spare empty wake-up.
        for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue()) {
            Tolvane_HandleEvents(item);
            FreeWorkItem(item);
        }
    }
}

}  // namespace

DWORD WINAPI TolvaneThreadProc(LPVOID /*parameter*/) {
    const DWORD result = ServeWorkQueue();
    // The alert check's document belongs to this thread's apartment entry: it
    // goes on this thread, before it ends.
    ReleaseThreadXML();
    return result;
}

DWORD StartTolvaneThread() {
    const char* const function = "StartTolvaneThread";
    DWORD error = CreateEngineEvent(&g_TolvaneThreadRunEvent, TRUE, "g_TolvaneThreadRunEvent");
    if (error != 0) return error;
    error = CreateEngineEvent(&g_TolvaneThreadExitEvent, TRUE, "g_TolvaneThreadExitEvent");
    if (error != 0) return error;
    HANDLE work = nullptr;
    error = CreateEngineEvent(&work, FALSE, "g_TolvaneEvent");
    ExchangeWorkEvent(work);
    if (error != 0) return error;

    g_TolvaneThreadId = 0;
    g_TolvaneThreadHandle = CreateThread(nullptr, 0, TolvaneThreadProc, nullptr, 0, &g_TolvaneThreadId);
    if (g_TolvaneThreadHandle == nullptr || g_TolvaneThreadHandle == INVALID_HANDLE_VALUE) {
        g_TolvaneThreadHandle = nullptr;
        g_TolvaneThreadId = 0;
        error = GetLastError();
        if (error != 0) {
            OMK_ReportError(0, L"%hs(): CreateThread(%hs) err=%lu", function, "TolvaneThreadProc", error);
            return error;
        }
    }

    // Handles made so far stay for the teardown to close, also on failure.
    DWORD result = WaitForSingleObject(g_TolvaneThreadRunEvent, kStartWaitMs);
    if (result == WAIT_OBJECT_0) {
        WakeIfQueued();
        return 0;
    }
    error = OmkWaitFailureCode(result);
    if (error != 0) {
        OMK_ReportError(0, L"%hs(): WaitForSingleObject(%hs) err=%lu", function, "g_TolvaneThreadRunEvent", error);
    }
    return error;
}

bool StopTolvaneThread() {
    const char* const function = "StopTolvaneThread";
    if (!SetEvent(g_TolvaneThreadExitEvent)) {
        OMK_ReportError(0, L"%hs(): SetEvent(%hs) err=%lu", function, "g_TolvaneThreadExitEvent", GetLastError());
    }
    // The thread finishes the item in hand first; it is never terminated.
    DWORD result = WaitForSingleObject(g_TolvaneThreadHandle, kStopWaitMs);
    if (result != WAIT_OBJECT_0) {
        DWORD error = OmkWaitFailureCode(result);
        if (error != 0) {
            OMK_ReportError(0, L"%hs(): WaitForSingleObject(%hs) err=%lu", function, "g_TolvaneThreadHandle", error);
        }
    }
    const bool ended = g_TolvaneThreadHandle == nullptr || result == WAIT_OBJECT_0;
    // Events queued but not handled are dropped (the lock lets a thread that
    // is still running take its share meanwhile).
    for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue()) {
        FreeWorkItem(item);
    }
    // A thread still running waits on these handles: closing them could make it
    // wait on whatever object reuses a handle value. They stay for the process exit.
    if (!ended) return false;
    CloseAndClear(&g_TolvaneThreadHandle);
    CloseAndClear(&g_TolvaneThreadExitEvent);
    CloseAndClear(&g_TolvaneThreadRunEvent);
    HANDLE work = ExchangeWorkEvent(nullptr);
    if (work != nullptr) CloseHandle(work);
    return true;
}
