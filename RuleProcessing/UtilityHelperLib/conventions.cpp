#include "conventions.h"

#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

int g_allocCount = 0;
wchar_t g_serviceTag[OMK_SERVICE_TAG_CHARS] = L"UNKNOWN";

namespace {

// Reported for an abandoned or otherwise non-signalled wait.
constexpr DWORD kWaitNotSignalled = 554;

}  // namespace

void OmkTraceA(const char* format, ...) {
    char line[OMK_TRACE_CHARS];
    va_list args;
    va_start(args, format);
    int written = _vsnprintf(line, OMK_TRACE_CHARS - 1, format, args);
    va_end(args);
    // -1 means the line did not fit with its terminator: it is not written at all.
    if (written < 0 || written > OMK_TRACE_CHARS - 1) return;
    line[written] = '\0';
    OutputDebugStringA(line);
}

void OmkTraceW(const wchar_t* format, ...) {
    wchar_t line[OMK_TRACE_CHARS];
    va_list args;
    va_start(args, format);
    int written = _vsnwprintf(line, OMK_TRACE_CHARS - 1, format, args);
    va_end(args);
    if (written < 0 || written > OMK_TRACE_CHARS - 1) return;
    line[written] = L'\0';
    OutputDebugStringW(line);
}

void OmkTraceStart(const char* function) { OmkTraceA("[%lu]%s() START", GetCurrentThreadId(), function); }

void OmkTraceEnd(const char* function) { OmkTraceA("[%lu]%s() END", GetCurrentThreadId(), function); }

void OmkAssertLine(int line, const char* sourceFile) {
    char text[OMK_ASSERT_CHARS];
    int written = _snprintf(text, OMK_ASSERT_CHARS - 1, "%d: %d: **** ERROR **** Assertion failed at line %d file %s\n",
                            static_cast<int>(GetCurrentProcessId()), static_cast<int>(GetCurrentThreadId()), line,
                            sourceFile != nullptr ? sourceFile : "");
    if (written < 0 || written > OMK_ASSERT_CHARS - 1) return;
    text[written] = '\0';
    OutputDebugStringA(text);
}

DWORD OmkWaitFailureCode(DWORD waitResult) {
    if (waitResult == WAIT_TIMEOUT) return WAIT_TIMEOUT;
    if (waitResult == WAIT_FAILED) return GetLastError();
    return kWaitNotSignalled;
}
