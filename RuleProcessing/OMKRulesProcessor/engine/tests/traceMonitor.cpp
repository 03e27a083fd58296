#include "engineTestSupport.h"

#include <string.h>

namespace omktest {

namespace {

// The shared buffer of the debugger-output protocol: writer's process id, text.
struct DbwinBuffer {
    DWORD processId;
    char text[4096 - sizeof(DWORD)];
};

}  // namespace

TraceMonitor::TraceMonitor() {
    mapping_ =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(DbwinBuffer), L"DBWIN_BUFFER");
    if (mapping_ == nullptr) return;
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        CloseHandle(mapping_);
        mapping_ = nullptr;
        return;
    }
    bufferReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
    dataReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
    view_ = MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, sizeof(DbwinBuffer));
    stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    stallRequest_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    stallAck_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (bufferReady_ == nullptr || dataReady_ == nullptr || view_ == nullptr || stop_ == nullptr ||
        stallRequest_ == nullptr || stallAck_ == nullptr) {
        return;
    }
    thread_ = CreateThread(nullptr, 0, ReaderProc, this, 0, nullptr);
}

TraceMonitor::~TraceMonitor() {
    if (thread_ != nullptr) {
        SetEvent(stop_);
        WaitForSingleObject(thread_, 5000);
        CloseHandle(thread_);
    }
    if (view_ != nullptr) UnmapViewOfFile(view_);
    for (HANDLE handle : {stallAck_, stallRequest_, stop_, dataReady_, bufferReady_, mapping_}) {
        if (handle != nullptr) CloseHandle(handle);
    }
}

DWORD WINAPI TraceMonitor::ReaderProc(LPVOID self) {
    static_cast<TraceMonitor*>(self)->Read();
    return 0;
}

void TraceMonitor::Read() {
    const auto* buffer = static_cast<const DbwinBuffer*>(view_);
    const HANDLE waits[3] = {stop_, dataReady_, stallRequest_};
    bool armed = false;
    for (;;) {
        LONG until = stallUntil_;
        bool stalled = until != 0 && static_cast<LONG>(GetTickCount() - static_cast<DWORD>(until)) < 0;
        if (!stalled && !armed) {
            SetEvent(bufferReady_);
            armed = true;
        }
        DWORD result = WaitForMultipleObjects(3, waits, FALSE, stalled ? 10 : INFINITE);
        if (result == WAIT_OBJECT_0 + 1) {
            armed = false;
            TraceLine line{buffer->processId, std::string(buffer->text, strnlen(buffer->text, sizeof(buffer->text)))};
            std::lock_guard<std::mutex> guard(lock_);
            lines_.push_back(std::move(line));
        } else if (result == WAIT_OBJECT_0 + 2) {
            // Take back the buffer unless a writer already has it; its line
            // still arrives, later ones wait for the stall to end.
            ResetEvent(bufferReady_);
            armed = false;
            SetEvent(stallAck_);
        } else if (result != WAIT_TIMEOUT) {
            return;
        }
    }
}

std::vector<std::string> TraceMonitor::Lines(DWORD processId) const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> texts;
    for (const TraceLine& line : lines_) {
        if (processId == 0 || line.processId == processId) texts.push_back(line.text);
    }
    return texts;
}

size_t TraceMonitor::Count(const std::string& text, DWORD processId) const {
    size_t count = 0;
    for (const std::string& line : Lines(processId)) {
        if (line.find(text) != std::string::npos) ++count;
    }
    return count;
}

bool TraceMonitor::WaitFor(const std::string& text, size_t count, DWORD timeoutMs, DWORD processId) const {
    DWORD start = GetTickCount();
    while (Count(text, processId) < count) {
        if (GetTickCount() - start > timeoutMs) return false;
        Sleep(10);
    }
    return true;
}

void TraceMonitor::Stall(DWORD ms) {
    DWORD until = GetTickCount() + ms;
    if (until == 0) until = 1;
    InterlockedExchange(&stallUntil_, static_cast<LONG>(until));
    SetEvent(stallRequest_);
    WaitForSingleObject(stallAck_, 5000);
}

}  // namespace omktest
