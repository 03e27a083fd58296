// Reads every process's debugger output (OutputDebugString) as a debugging
// monitor does, so that trace and assertion lines can be asserted.
#pragma once

#include <windows.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace omktest {

// Only one monitor can exist per session: Active() is false when another one
// runs. Writers block (up to 10 s) while the monitor is stalled.
class TraceMonitor {
public:
    TraceMonitor();
    ~TraceMonitor();
    TraceMonitor(const TraceMonitor&) = delete;
    TraceMonitor& operator=(const TraceMonitor&) = delete;

    bool Active() const { return thread_ != nullptr; }
    // Lines seen so far, of one process (0: all), in the order written.
    std::vector<std::string> Lines(DWORD processId = GetCurrentProcessId()) const;
    // The lines of that process containing `text`, and their number.
    std::vector<std::string> Matching(const std::string& text, DWORD processId = GetCurrentProcessId()) const;
    size_t Count(const std::string& text, DWORD processId = GetCurrentProcessId()) const {
        return Matching(text, processId).size();
    }
    // Waits until at least `count` lines of that process contain `text`.
    bool WaitFor(const std::string& text, size_t count, DWORD timeoutMs, DWORD processId = GetCurrentProcessId()) const;
    // Stops accepting lines for `ms` milliseconds from now: every
    // OutputDebugString in the session waits meanwhile (a line already being
    // written still arrives).
    void Stall(DWORD ms);

private:
    static DWORD WINAPI ReaderProc(LPVOID self);

    HANDLE bufferReady_ = nullptr;
    HANDLE dataReady_ = nullptr;
    HANDLE mapping_ = nullptr;
    const void* view_ = nullptr;
    HANDLE stop_ = nullptr;
    HANDLE stallRequest_ = nullptr;
    HANDLE stallAck_ = nullptr;
    HANDLE thread_ = nullptr;
    mutable std::mutex lock_;
    std::vector<std::pair<DWORD, std::string>> lines_;  // writer's process id, text
    volatile LONG stallUntil_ = 0;  // GetTickCount value; 0: not stalled
};

}  // namespace omktest
