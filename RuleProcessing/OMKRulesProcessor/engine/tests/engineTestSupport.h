// What programs that run the queue need: work items built the way the COM
// methods build them, and a reader of the debugger output so that trace lines
// can be asserted.
#pragma once

#include <windows.h>

#include <functional>
#include <mutex>
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
wchar_t* CountedCopy(const wchar_t* text);
WORK_ITEM* NewWorkItem(unsigned int kind);
// What a collector's Tolvane_RuleTriggered queues. Without data items the
// item has no tag and no arrays.
WORK_ITEM* RuleTriggeredItem(const wchar_t* pluginId, const wchar_t* guid, const wchar_t* tag = nullptr,
                             const std::vector<std::wstring>& names = {}, const std::vector<std::wstring>& values = {});

// One line written with OutputDebugString, and the process that wrote it.
struct TraceLine {
    DWORD processId;
    std::string text;
};

// Reads every process's debugger output, as a debugging monitor does, while it
// exists. Only one monitor can exist per session: Active() is false when
// another one runs. Writers block (up to 10 s) while the monitor is stalled.
class TraceMonitor {
public:
    TraceMonitor();
    ~TraceMonitor();
    TraceMonitor(const TraceMonitor&) = delete;
    TraceMonitor& operator=(const TraceMonitor&) = delete;

    // False when another monitor already reads the session's output.
    bool Active() const { return thread_ != nullptr; }

    // Lines seen so far, of one process (0: all), in the order written.
    std::vector<std::string> Lines(DWORD processId = GetCurrentProcessId()) const;
    // Number of lines of that process containing `text`.
    size_t Count(const std::string& text, DWORD processId = GetCurrentProcessId()) const;
    // Waits until at least `count` lines of that process contain `text`.
    bool WaitFor(const std::string& text, size_t count, DWORD timeoutMs, DWORD processId = GetCurrentProcessId()) const;

    // Stops accepting lines for `ms` milliseconds, counted from now: every
    // OutputDebugString in the session waits meanwhile (a line already being
    // written still arrives).
    void Stall(DWORD ms);

private:
    static DWORD WINAPI ReaderProc(LPVOID self);
    void Read();

    HANDLE bufferReady_ = nullptr;
    HANDLE dataReady_ = nullptr;
    HANDLE mapping_ = nullptr;
    const void* view_ = nullptr;
    HANDLE stop_ = nullptr;
    HANDLE stallRequest_ = nullptr;
    HANDLE stallAck_ = nullptr;
    HANDLE thread_ = nullptr;
    mutable std::mutex lock_;
    std::vector<TraceLine> lines_;
    volatile LONG stallUntil_ = 0;  // GetTickCount value; 0: not stalled
};

}  // namespace omktest
