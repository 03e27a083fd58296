#include "workQueue.h"

#include <stdlib.h>

#include "conventions.h"
#include "omkErrors.h"

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

}  // namespace

void AddToWorkQueue(WORK_ITEM* item) {
    if (item == nullptr) {
        OMK_ReportError(0, L"AddToWorkQueue: null item !");
        return;
    }
    if (g_workQueueLockReady == 0) {
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
}

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

DWORD WINAPI TolvaneThreadProc(LPVOID /*parameter*/) {
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

DWORD StartTolvaneThread() {
    const char* const function = "StartTolvaneThread";
    DWORD error = CreateEngineEvent(&g_TolvaneThreadRunEvent, TRUE, "g_TolvaneThreadRunEvent");
    if (error != 0) return error;
    error = CreateEngineEvent(&g_TolvaneThreadExitEvent, TRUE, "g_TolvaneThreadExitEvent");
    if (error != 0) return error;
    error = CreateEngineEvent(&g_TolvaneEvent, FALSE, "g_TolvaneEvent");
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
    if (result == WAIT_OBJECT_0) return 0;
    error = OmkWaitFailureCode(result);
    if (error != 0) {
        OMK_ReportError(0, L"%hs(): WaitForSingleObject(%hs) err=%lu", function, "g_TolvaneThreadRunEvent", error);
    }
    return error;
}

void StopTolvaneThread() {
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
    // Events queued but not handled are dropped.
    for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue()) {
        FreeWorkItem(item);
    }
    CloseAndClear(&g_TolvaneThreadHandle);
    CloseAndClear(&g_TolvaneThreadExitEvent);
    CloseAndClear(&g_TolvaneThreadRunEvent);
    CloseAndClear(&g_TolvaneEvent);
}
