#include "crashDumpFilter.h"

#include <dbghelp.h>
#include <stdio.h>
#include <wchar.h>

#include <exception>

#include "cdef.h"
#include "omkErrors.h"

namespace {

constexpr DWORD kHeapCorruption = 0xC0000374;
constexpr DWORD kStackBufferOverrun = 0xC0000409;

// Kept apart so that the structured guard below holds no C++ objects.
BOOL WriteDump(HANDLE file, EXCEPTION_POINTERS* pointers, DWORD* raisedCode) {
    MINIDUMP_EXCEPTION_INFORMATION exception = {};
    exception.ThreadId = GetCurrentThreadId();
    exception.ExceptionPointers = pointers;
    exception.ClientPointers = FALSE;
    *raisedCode = 0;
#ifdef _MSC_VER
    __try {
        return MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file, MiniDumpNormal, &exception,
                                 nullptr, nullptr);
    } __except (*raisedCode = GetExceptionCode(), EXCEPTION_EXECUTE_HANDLER) {
        return FALSE;
    }
#else
    // mingw has no structured exception blocks; the dump call runs unguarded there.
    return MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file, MiniDumpNormal, &exception, nullptr,
                             nullptr);
#endif
}

}  // namespace

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
    OMK_ReportError(0, L"%hs: EXCEPTION Code 0x%x, Flags 0x%x, Address %p", "OMKExceptionFilter",
                    record->ExceptionCode, record->ExceptionFlags, record->ExceptionAddress);
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
    DWORD raisedCode = 0;
    if (WriteDump(file, pointers, &raisedCode)) {
        // The short argument lists are the product's: the log prints the rest unfilled.
        OMK_ReportError(0, L"%hs: User-mode minidump has been written to %ls.", "OMKExceptionFilter");
    } else if (raisedCode != 0) {
        OMK_ReportError(0, L"%hs: GetExceptionCode() returns %ld ???", "OMKExceptionFilter",
                        static_cast<long>(raisedCode));
    } else {
        OMK_ReportError(0, L"%hs: MiniDumpWriteDump(%ls) failed! err=%lu", "OMKExceptionFilter", GetLastError());
    }
    CloseHandle(file);
    return EXCEPTION_CONTINUE_SEARCH;
}

LONG WINAPI OMKVectoredExceptionHandler(EXCEPTION_POINTERS* pointers) {
    const DWORD code = pointers->ExceptionRecord->ExceptionCode;
    if (code == kHeapCorruption || code == kStackBufferOverrun) OMKExceptionFilter(pointers);
    return EXCEPTION_CONTINUE_SEARCH;
}
