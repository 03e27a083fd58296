#include "traceMonitor.h"

#include <string.h>

#include "testSupport.h"

namespace omktest {

// The shared buffer of the debugger-output protocol: writer's process id, text.
struct DbwinBuffer {
    DWORD processId;
    char text[4096 - sizeof(DWORD)];
};

TraceMonitor::TraceMonitor() {
    mapping_ =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(DbwinBuffer), L"DBWIN_BUFFER");
    if (mapping_ == nullptr || GetLastError() == ERROR_ALREADY_EXISTS) return;
    bufferReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
    dataReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
    view_ = MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, sizeof(DbwinBuffer));
    stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    stallRequest_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    stallAck_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (bufferReady_ != nullptr && dataReady_ != nullptr && view_ != nullptr && stop_ != nullptr &&
        stallRequest_ != nullptr && stallAck_ != nullptr) {
        thread_ = CreateThread(nullptr, 0, ReaderProc, this, 0, nullptr);
    }
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

DWORD WINAPI TraceMonitor::ReaderProc(LPVOID context) {
    auto* self = static_cast<TraceMonitor*>(context);
    const auto* buffer = static_cast<const DbwinBuffer*>(self->view_);
    const HANDLE waits[3] = {self->stop_, self->dataReady_, self->stallRequest_};
    bool armed = false;
    for (;;) {
        LONG until = self->stallUntil_;
        bool stalled = until != 0 && static_cast<LONG>(GetTickCount() - static_cast<DWORD>(until)) < 0;
        if (!stalled && !armed) {
            SetEvent(self->bufferReady_);
            armed = true;
        }
        DWORD result = WaitForMultipleObjects(3, waits, FALSE, stalled ? 10 : INFINITE);
        if (result == WAIT_OBJECT_0 + 1) {
            armed = false;
            std::string text(buffer->text, strnlen(buffer->text, sizeof(buffer->text)));
            std::lock_guard<std::mutex> guard(self->lock_);
            self->lines_.emplace_back(buffer->processId, std::move(text));
        } else if (result == WAIT_OBJECT_0 + 2) {
            // Take back the buffer unless a writer already has it; its line
            // still arrives, later ones wait for the stall to end.
            ResetEvent(self->bufferReady_);
            armed = false;
            SetEvent(self->stallAck_);
        } else if (result != WAIT_TIMEOUT) {
            return 0;
        }
    }
}

std::vector<std::string> TraceMonitor::Lines(DWORD processId) const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> texts;
    for (const auto& line : lines_) {
        if (processId == 0 || line.first == processId) texts.push_back(line.second);
    }
    return texts;
}

std::vector<std::string> TraceMonitor::Matching(const std::string& text, DWORD processId) const {
    std::vector<std::string> found;
    for (const std::string& line : Lines(processId)) {
        if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
}

bool TraceMonitor::WaitFor(const std::string& text, size_t count, DWORD timeoutMs, DWORD processId) const {
    return omktest::WaitFor([&] { return Count(text, processId) >= count; }, timeoutMs);
}

void TraceMonitor::Stall(DWORD ms) {
    DWORD until = GetTickCount() + ms;
    InterlockedExchange(&stallUntil_, static_cast<LONG>(until != 0 ? until : 1));
    SetEvent(stallRequest_);
    WaitForSingleObject(stallAck_, 5000);
}

}  // namespace omktest
