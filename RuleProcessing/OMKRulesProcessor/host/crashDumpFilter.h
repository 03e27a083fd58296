// Crash dumps: the unhandled-exception filter and a vectored handler for heap
// corruption and stack buffer overruns both log the exception and write a
// minidump into the product's minidump folder. Runs on the crashing thread.
#pragma once

#include <windows.h>

// Vectored handler: dumps on 0xC0000374 and 0xC0000409, always continues the search.
LONG WINAPI OMKVectoredExceptionHandler(EXCEPTION_POINTERS* pointers);

// Logs the exception and its parameters and writes a dump. EXCEPTION_CONTINUE_SEARCH
// once a dump was attempted, EXCEPTION_EXECUTE_HANDLER when no dump file could be made.
LONG WINAPI OMKExceptionFilter(EXCEPTION_POINTERS* pointers);

// "<minidump folder>\omkcrash_<UTC yyyymmddhhmmssmmm>.mdmp" into a buffer of
// MAX_PATH characters; false when it cannot be made.
bool GenetateUserModeMinidumpFilePath(wchar_t* buffer);

// A dump call: writes a minidump of this process for `pointers` into `file`.
typedef BOOL (*OMK_MINIDUMP_WRITER)(HANDLE file, EXCEPTION_POINTERS* pointers);

// Makes the filter's dump call `writer` under a structured exception guard and
// logs its outcome: written, failed with its last error, or the code of an
// exception raised inside it. True when written. Crashing thread.
bool WriteMinidumpReported(OMK_MINIDUMP_WRITER writer, HANDLE file, EXCEPTION_POINTERS* pointers);
