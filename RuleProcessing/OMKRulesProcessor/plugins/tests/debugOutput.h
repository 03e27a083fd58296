// Captures this process's OutputDebugString lines the way a debug monitor
// does (the DBWIN buffer and its two events), for the assertion lines.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

class DebugOutputCapture {
public:
    DebugOutputCapture();
    ~DebugOutputCapture();
    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

    bool Ready() const { return thread_ != nullptr; }
    // The lines received so far that contain `text`.
    std::vector<std::string> LinesContaining(const std::string& text);

private:
    static DWORD WINAPI Listen(void* self);

    HANDLE mapping_ = nullptr;
    const char* view_ = nullptr;
    HANDLE bufferReady_ = nullptr;
    HANDLE dataReady_ = nullptr;
    HANDLE stop_ = nullptr;
    HANDLE thread_ = nullptr;
    CRITICAL_SECTION lock_;
    std::vector<std::string> lines_;
};
