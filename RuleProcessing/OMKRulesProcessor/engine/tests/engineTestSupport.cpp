#include "engineTestSupport.h"

#include "workQueue.h"

namespace omktest {

void InitWorkQueueLock() {
    InitializeCriticalSection(&g_workQueueLock);
    g_workQueueLockReady = 1;
}

void DeleteWorkQueueLock() {
    if (g_workQueueLockReady == 0) return;
    DeleteCriticalSection(&g_workQueueLock);
    g_workQueueLockReady = 0;
}

}  // namespace omktest
