#include "crashDumpFilter.h"

#include <dbghelp.h>
#include <excpt.h>
#include <stdio.h>
#include <wchar.h>

#include <exception>

#include "cdef.h"
#include "omkErrors.h"

namespace {

constexpr DWORD kHeapCorruption = 0xC0000374;
constexpr DWORD kStackBufferOverrun = 0xC0000409;

BOOL WriteProcessMinidump(HANDLE file, EXCEPTION_POINTERS* pointers) {
    MINIDUMP_EXCEPTION_INFORMATION exception = {};
    exception.ThreadId = GetCurrentThreadId();
    exception.ExceptionPointers = pointers;
    exception.ClientPointers = FALSE;
    return MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file, MiniDumpNormal, &exception, nullptr,
                             nullptr);
}

}  // namespace

// The structured exception guard around the dump call, kept free of C++
// objects. Sets *raisedCode to the code of an exception raised inside, else 0.
#if defined(_MSC_VER)
static BOOL GuardedDumpCall(OMK_MINIDUMP_WRITER writer, HANDLE file, EXCEPTION_POINTERS* pointers, DWORD* raisedCode) {
    *raisedCode = 0;
    __try {
        return writer(file, pointers);
    } __except (*raisedCode = GetExceptionCode(), EXCEPTION_EXECUTE_HANDLER) {
        return FALSE;
    }
}
#elif defined(__MINGW64__) && defined(__x86_64__)
// mingw-w64 has no __try/__except. __try1/__except1 give the function a scope
// entry for __C_specific_handler: an exception inside the call runs the filter
// below, which keeps the code, and execution resumes after __except1. The
// scope's labels are fixed names, so the function must stay out of line.
static thread_local DWORD t_guardedDumpCode = 0;

extern "C" LONG OmkGuardedDumpFilter(EXCEPTION_POINTERS* pointers, void* /*frame*/) {
    t_guardedDumpCode = pointers->ExceptionRecord->ExceptionCode;
    return EXCEPTION_EXECUTE_HANDLER;
}

__attribute__((noinline)) static BOOL GuardedDumpCall(OMK_MINIDUMP_WRITER writer, HANDLE file,
                                                      EXCEPTION_POINTERS* pointers, DWORD* raisedCode) {
    volatile BOOL written = FALSE;
    t_guardedDumpCode = 0;
    // clang-format off
    __try1(OmkGuardedDumpFilter)
    written = writer(file, pointers);
    __except1
        // clang-format on
        * raisedCode = t_guardedDumpCode;
    return written;
}
#else
static BOOL GuardedDumpCall(OMK_MINIDUMP_WRITER writer, HANDLE file, EXCEPTION_POINTERS* pointers, DWORD* raisedCode) {
    *raisedCode = 0;
    return writer(file, pointers);
}
#endif

bool WriteMinidumpReported(OMK_MINIDUMP_WRITER writer, HANDLE file, EXCEPTION_POINTERS* pointers) {
    DWORD raisedCode = 0;
    if (GuardedDumpCall(writer, file, pointers, &raisedCode)) {
        // The short argument lists are the product's: the log prints the rest unfilled.
        OMK_ReportError(0, L"%hs: User-mode minidump has been written to %ls.", "OMKExceptionFilter");
        return true;
    }
    if (raisedCode != 0) {
        OMK_ReportError(0, L"%hs: GetExceptionCode() returns %ld ???", "OMKExceptionFilter",
                        static_cast<long>(raisedCode));
    } else {
        OMK_ReportError(0, L"%hs: MiniDumpWriteDump(%ls) failed! err=%lu", "OMKExceptionFilter", GetLastError());
    }
    return false;
}

bool GenetateUserModeMinidumpFilePath(wchar_t* buffer) {
    try {
        SYSTEMTIME now;
        GetSystemTime(&now);
        wchar_t path[MAX_PATH * 2];
        _snwprintf(path, MAX_PATH * 2 - 1, L"%s\\omkcrash_%04u%02u%02u%02u%02u%02u%03u.mdmp",
                   CDef::GetInstance().FOLDER_OMK_CRASHDUMP, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
                   now.wSecond, now.wMilliseconds);
        path[MAX_PATH * 2 - 1] = L'\0';
        errno_t error = wcscpy_s(buffer, MAX_PATH, path);
        if (error != 0) {
            OMK_ReportError(0, L"%hs: wcscpy_s(%ls) failed! err=%d!", "GenetateUserModeMinidumpFilePath", path,
                            static_cast<int>(error));
            return false;
        }
        OMK_ReportError(0, L"%hs: %ls", "GenetateUserModeMinidumpFilePath", path);
        return true;
    } catch (...) {
        OMK_ReportError(0, L"%hs: Can't generate user-mode minidump file path!", "GenetateUserModeMinidumpFilePath");
        return false;
    }
}

LONG WINAPI OMKExceptionFilter(EXCEPTION_POINTERS* pointers) {
    const EXCEPTION_RECORD* record = pointers->ExceptionRecord;
    OMK_ReportError(0, L"%hs: EXCEPTION Code 0x%x, Flags 0x%x, Address %p", "OMKExceptionFilter", record->ExceptionCode,
                    record->ExceptionFlags, record->ExceptionAddress);
    for (DWORD i = 0; i < record->NumberParameters && i < EXCEPTION_MAXIMUM_PARAMETERS; ++i) {
        OMK_ReportError(0, L"%hs: EXCEPTION Parameter/Argument[%lu] = %p", "OMKExceptionFilter", i,
                        reinterpret_cast<void*>(record->ExceptionInformation[i]));
    }
    wchar_t path[MAX_PATH];
    if (!GenetateUserModeMinidumpFilePath(path)) return EXCEPTION_EXECUTE_HANDLER;

    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == nullptr || file == INVALID_HANDLE_VALUE) {
        OMK_ReportError(0, L"%hs: CreateFileW(%ls) failed! err=%ld", "OMKExceptionFilter", path,
                        static_cast<long>(GetLastError()));
        return EXCEPTION_EXECUTE_HANDLER;
    }
    WriteMinidumpReported(WriteProcessMinidump, file, pointers);
    CloseHandle(file);
    return EXCEPTION_CONTINUE_SEARCH;
}

LONG WINAPI OMKVectoredExceptionHandler(EXCEPTION_POINTERS* pointers) {
    const DWORD code = pointers->ExceptionRecord->ExceptionCode;
    if (code == kHeapCorruption || code == kStackBufferOverrun) OMKExceptionFilter(pointers);
    return EXCEPTION_CONTINUE_SEARCH;
}
