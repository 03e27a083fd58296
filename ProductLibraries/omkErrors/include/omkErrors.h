// omkErrors.dll: the product's error log.
//
// Every component reports failures and lifecycle messages with
//   OMK_ReportError(0, L"%hs(): SetEvent(%hs) err=%lu", __func__, "g_Event", GetLastError());
// The format is printf-like with the Windows width rules (%s is wide in a wide
// format, %hs narrow, %S the other width). A report never fails towards the
// caller.
//
// Two ways in, one log:
//  - C++ (the service and everything built with this header as C++): the
//    OMK_ReportError template at the end hands the library every argument with
//    its type and the count, so a placeholder without an argument is printed as
//    it stands and a string given for a number (or the reverse) is printed
//    safely. This is the safe path; use it wherever C++ is available.
//  - C: the exported variadic OMK_ReportError. Like printf it cannot count or
//    type its arguments, so the format must match them exactly; a mismatch is
//    undefined behaviour, as with printf itself.
//
// The log is "<log folder>\<name>", where the log folder is the product's Log
// folder by the same rule as the service's (CDef::FOLDER_OMK_LOG). One UTF-8
// line per report (local time with milliseconds, process id, thread id, code,
// message), kept under 1 MiB with one ".bak" backup; when the backup cannot be
// made (another program holds the log without delete sharing) reports are
// still appended until the file reaches 2 MiB and then dropped until it can
// be. Processes writing one log file serialise on the mutex
// "Global\OMKErrorLog:<the log's full path in lower case, '\' written as '/'>",
// which every product process may wait on and release whoever created it
// (SYSTEM and Administrators full control, Authenticated Users synchronise and
// release). Reports also go to the debugger.
#pragma once

#include <windows.h>

#include <stddef.h>

#ifdef OMKERRORS_BUILD
#define OMKERRORS_API __declspec(dllexport)
#else
#define OMKERRORS_API __declspec(dllimport)
#endif

#ifdef __cplusplus
extern "C" {
#endif

// How one argument was passed (OMK_ERROR_ARG::kind).
enum OMK_ERROR_ARG_KIND {
    OMK_ARG_SIGNED = 1,
    OMK_ARG_UNSIGNED = 2,
    OMK_ARG_POINTER = 3,
    OMK_ARG_WIDE_STRING = 4,
    OMK_ARG_NARROW_STRING = 5,
    OMK_ARG_FLOATING = 6
};

// One argument of a report. Strings are borrowed for the duration of the call.
typedef struct OMK_ERROR_ARG {
    unsigned int kind;  // OMK_ERROR_ARG_KIND
    unsigned int size;  // bytes of the caller's integer type (1, 2, 4 or 8)
    union {
        long long i;
        unsigned long long u;
        const void* p;
        const wchar_t* ws;
        const char* s;
        double d;
    } value;
} OMK_ERROR_ARG;

// Names the log file for this process: a bare file name goes into the product's
// log folder, a full path is used as it is. Any thread, any time.
OMKERRORS_API void WINAPI OMK_SetErrorLogName(const wchar_t* name);

// Copies the full path of the current log file; returns its length in
// characters, or 0 when the buffer is too small or there is no log folder.
OMKERRORS_API DWORD WINAPI OMK_GetErrorLogPath(wchar_t* buffer, DWORD bufferChars);

// Formats and appends one report from typed arguments (what the C++ template
// below calls).
OMKERRORS_API void WINAPI OMK_ReportErrorArgs(DWORD code, const wchar_t* format, const OMK_ERROR_ARG* args,
                                              int argCount);

// Formats like a report without logging it. Returns the full length of the
// text; the buffer receives as much as fits, always terminated.
OMKERRORS_API int WINAPI OMK_FormatErrorArgs(wchar_t* buffer, int bufferChars, const wchar_t* format,
                                             const OMK_ERROR_ARG* args, int argCount);

#ifndef __cplusplus
// The C entry point (see the top of this header): the arguments must match the
// format exactly. C++ sees the typed template of the same name instead.
OMKERRORS_API void __cdecl OMK_ReportError(DWORD code, const wchar_t* format, ...);
#endif

#ifdef __cplusplus
}  // extern "C"

#include <type_traits>

namespace omk_errors_detail {

template <typename T>
inline OMK_ERROR_ARG MakeArg(const T& value) {
    using U = std::remove_cv_t<std::decay_t<T>>;
    OMK_ERROR_ARG arg = {};
    if constexpr (std::is_pointer_v<U>) {
        using Pointee = std::remove_cv_t<std::remove_pointer_t<U>>;
        if constexpr (std::is_same_v<Pointee, wchar_t>) {
            arg.kind = OMK_ARG_WIDE_STRING;
            arg.value.ws = value;
        } else if constexpr (std::is_same_v<Pointee, char> || std::is_same_v<Pointee, unsigned char>) {
            arg.kind = OMK_ARG_NARROW_STRING;
            arg.value.s = reinterpret_cast<const char*>(value);
        } else {
            arg.kind = OMK_ARG_POINTER;
            arg.value.p = reinterpret_cast<const void*>(value);
        }
        arg.size = sizeof(void*);
    } else if constexpr (std::is_same_v<U, std::nullptr_t>) {
        arg.kind = OMK_ARG_POINTER;
        arg.size = sizeof(void*);
    } else if constexpr (std::is_floating_point_v<U>) {
        arg.kind = OMK_ARG_FLOATING;
        arg.size = sizeof(double);
        arg.value.d = static_cast<double>(value);
    } else if constexpr (std::is_enum_v<U>) {
        arg = MakeArg(static_cast<std::underlying_type_t<U>>(value));
    } else {
        static_assert(std::is_integral_v<U>, "OMK_ReportError takes numbers, strings and pointers");
        if constexpr (std::is_signed_v<U>) {
            arg.kind = OMK_ARG_SIGNED;
            arg.value.i = static_cast<long long>(value);
        } else {
            arg.kind = OMK_ARG_UNSIGNED;
            arg.value.u = static_cast<unsigned long long>(value);
        }
        arg.size = sizeof(U);
    }
    return arg;
}

}  // namespace omk_errors_detail

// Reports one message to the error log; see the top of this header.
template <typename... Args>
inline void OMK_ReportError(DWORD code, const wchar_t* format, const Args&... args) {
    const OMK_ERROR_ARG packed[sizeof...(Args) + 1] = {omk_errors_detail::MakeArg(args)..., OMK_ERROR_ARG{}};
    OMK_ReportErrorArgs(code, format, packed, static_cast<int>(sizeof...(Args)));
}
#endif
