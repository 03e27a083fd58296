// Bounded formatting and copying into wide buffers, with HRESULT results.
// Wide formats follow the Windows rules: %s wide, %hs narrow, %S the other width.
#pragma once

#include <windows.h>

#include <stdarg.h>

class CStrHelper {
public:
    // Formats into `buffer` of `bufferChars` characters. 0 on success (the rest of
    // the buffer zero-filled); 0x80070057 for a size of 0 or of 0x80000000 or
    // more; 0x8007007A when the text does not fit, leaving the buffer all zeros
    // rather than a truncated text.
    static HRESULT StrPrintf(wchar_t* buffer, size_t bufferChars, const wchar_t* format, ...);
    static HRESULT StrPrintfV(wchar_t* buffer, size_t bufferChars, const wchar_t* format, va_list args);

    // Copies `source` with the same size rules and results as StrPrintf.
    static HRESULT StrCopy(wchar_t* buffer, size_t bufferChars, const wchar_t* source);
};
