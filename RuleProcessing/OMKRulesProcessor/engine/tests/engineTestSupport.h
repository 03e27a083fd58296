// Work items built the way the COM methods build them, for programs that run the queue.
#pragma once

#include <string>
#include <vector>

#include "omkPluginSdk.h"
#include "workQueue.h"

namespace omktest {

// The queue lock is made and deleted as engine start-up and teardown do it.
using ::DeleteWorkQueueLock;
using ::InitWorkQueueLock;

// Heap blocks of a work item as the producers allocate them: filled with 0x24
// bytes first and counted in g_allocCount, so FreeWorkItem balances them.
WORK_ITEM* NewWorkItem(unsigned int kind);
// What a collector's Tolvane_RuleTriggered queues. Without data items the
// item has no tag and no arrays.
WORK_ITEM* RuleTriggeredItem(const wchar_t* pluginId, const wchar_t* guid, const wchar_t* tag = nullptr,
                             const std::vector<std::wstring>& names = {}, const std::vector<std::wstring>& values = {});

}  // namespace omktest
