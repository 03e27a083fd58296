// What programs that run the queue need: the queue lock set up and taken down
// the way engine start-up and teardown do it, and work items built the way the
// COM methods build them. (The debugger-output reader is in testSupport.h.)
#pragma once

#include <windows.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "omkPluginSdk.h"

namespace omktest {

// The first step of engine start-up: the queue lock exists and items can be
// queued. Call once before anything is queued.
void InitWorkQueueLock();

// The last step of engine teardown: the lock is deleted and the flag cleared.
void DeleteWorkQueueLock();

// Heap blocks of a work item as the producers allocate them: filled with 0x24
// bytes first and counted in g_allocCount, so FreeWorkItem balances them.
wchar_t* CountedCopy(const wchar_t* text);
WORK_ITEM* NewWorkItem(unsigned int kind);
// What a collector's Tolvane_RuleTriggered queues. Without data items the
// item has no tag and no arrays.
WORK_ITEM* RuleTriggeredItem(const wchar_t* pluginId, const wchar_t* guid, const wchar_t* tag = nullptr,
                             const std::vector<std::wstring>& names = {},
                             const std::vector<std::wstring>& values = {});

}  // namespace omktest
