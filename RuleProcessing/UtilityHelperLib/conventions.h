// Conventions every module of the service shares: debugger trace lines, the
// assertion line, the '$' fill of fresh buffers and the live-allocation count.
#pragma once

#include <windows.h>

#include <string.h>

// Live heap blocks of the service's own records and strings. Incremented after
// each allocation and decremented at each matching free, without a lock: it is
// read by diagnostics and tests only.
extern int g_allocCount;

// The machine's service tag as wide text; "UNKNOWN" until start-up fills it.
// Names the error log and the alert files and is written into every alert file.
constexpr int OMK_SERVICE_TAG_CHARS = 512;
extern wchar_t g_serviceTag[OMK_SERVICE_TAG_CHARS];

// Byte written into buffers about to receive a copy and into unused record parts.
constexpr unsigned char OMK_FILL_BYTE = 0x24;

inline void OmkFill(void* buffer, size_t bytes) { memset(buffer, OMK_FILL_BYTE, bytes); }

// Size of the buffer a trace line is formatted into, in characters.
constexpr int OMK_TRACE_CHARS = 2048;
// Size of the buffer the assertion line is formatted into.
constexpr int OMK_ASSERT_CHARS = 512;

// Formats a trace line and writes it with OutputDebugStringA/W. A line that
// does not fit the 2048-character buffer is dropped whole; no newline is added.
void OmkTraceA(const char* format, ...);
void OmkTraceW(const wchar_t* format, ...);

// "[tid]function() START" and "[tid]function() END".
void OmkTraceStart(const char* function);
void OmkTraceEnd(const char* function);

// Writes "pid: tid: **** ERROR **** Assertion failed at line N file F\n" to the
// debugger output; the caller goes on.
void OmkAssertLine(int line, const char* sourceFile);

// Maps the result of a wait that did not signal to the code reported for it:
// a time-out gives 258, a failed wait its last error, anything else 554.
DWORD OmkWaitFailureCode(DWORD waitResult);
