#include "debugOutput.h"

#include <string.h>

namespace {

constexpr DWORD kBufferBytes = 4096;
// The buffer starts with the writer's process id.
constexpr DWORD kTextOffset = sizeof(DWORD);

}  // namespace

DebugOutputCapture::DebugOutputCapture() {
    InitializeCriticalSection(&lock_);
    mapping_ = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kBufferBytes, L"DBWIN_BUFFER");
    if (mapping_ == nullptr) return;
    view_ = static_cast<const char*>(MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, kBufferBytes));
    bufferReady_ = CreateEventW(nullptr, FALSE, TRUE, L"DBWIN_BUFFER_READY");
    dataReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
    stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (view_ == nullptr || bufferReady_ == nullptr || dataReady_ == nullptr || stop_ == nullptr) return;
    thread_ = CreateThread(nullptr, 0, Listen, this, 0, nullptr);
}

DebugOutputCapture::~DebugOutputCapture() {
    if (thread_ != nullptr) {
        SetEvent(stop_);
        WaitForSingleObject(thread_, 5000);
        CloseHandle(thread_);
    }
    if (stop_ != nullptr) CloseHandle(stop_);
    if (dataReady_ != nullptr) CloseHandle(dataReady_);
    if (bufferReady_ != nullptr) CloseHandle(bufferReady_);
    if (view_ != nullptr) UnmapViewOfFile(view_);
    if (mapping_ != nullptr) CloseHandle(mapping_);
    DeleteCriticalSection(&lock_);
}

DWORD WINAPI DebugOutputCapture::Listen(void* context) {
    DebugOutputCapture* self = static_cast<DebugOutputCapture*>(context);
    HANDLE waits[2] = {self->stop_, self->dataReady_};
    for (;;) {
        DWORD result = WaitForMultipleObjects(2, waits, FALSE, 5000);
        if (result == WAIT_OBJECT_0 || result == WAIT_FAILED) return 0;
        if (result != WAIT_OBJECT_0 + 1) continue;
        const char* text = self->view_ + kTextOffset;
        std::string line(text, strnlen(text, kBufferBytes - kTextOffset));
        EnterCriticalSection(&self->lock_);
        self->lines_.push_back(line);
        LeaveCriticalSection(&self->lock_);
        SetEvent(self->bufferReady_);
    }
}

std::vector<std::string> DebugOutputCapture::LinesContaining(const std::string& text) {
    // OutputDebugString returns once the buffer is handed over; give the
    // listener a moment to file the last line.
    Sleep(50);
    std::vector<std::string> found;
    EnterCriticalSection(&lock_);
    for (const auto& line : lines_)
        if (line.find(text) != std::string::npos) found.push_back(line);
    LeaveCriticalSection(&lock_);
    return found;
}
