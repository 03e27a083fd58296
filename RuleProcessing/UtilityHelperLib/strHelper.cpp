#include "strHelper.h"

#include <stdio.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr HRESULT kInvalidArgument = static_cast<HRESULT>(0x80070057);
constexpr HRESULT kInsufficientBuffer = static_cast<HRESULT>(0x8007007A);
constexpr size_t kMaxChars = 0x7FFFFFFF;

bool IsBadSize(wchar_t* buffer, size_t bufferChars) {
    if (bufferChars - 1 < kMaxChars) return false;  // size 0 wraps round and is refused too
    if (bufferChars != 0 && buffer != nullptr) buffer[0] = L'\0';
    return true;
}

void ZeroFrom(wchar_t* buffer, size_t from, size_t bufferChars) {
    memset(buffer + from, 0, (bufferChars - from) * sizeof(wchar_t));
}

}  // namespace

HRESULT CStrHelper::StrPrintfV(wchar_t* buffer, size_t bufferChars, const wchar_t* format, va_list args) {
    if (IsBadSize(buffer, bufferChars)) return kInvalidArgument;
    const size_t limit = bufferChars - 1;
    int written = _vsnwprintf(buffer, limit, format, args);
    if (written < 0 || static_cast<size_t>(written) > limit) {
        ZeroFrom(buffer, 0, bufferChars);
        return kInsufficientBuffer;
    }
    ZeroFrom(buffer, static_cast<size_t>(written), bufferChars);
    return S_OK;
}

HRESULT CStrHelper::StrPrintf(wchar_t* buffer, size_t bufferChars, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    HRESULT hr = StrPrintfV(buffer, bufferChars, format, args);
    va_end(args);
    return hr;
}

HRESULT CStrHelper::StrCopy(wchar_t* buffer, size_t bufferChars, const wchar_t* source) {
    if (IsBadSize(buffer, bufferChars)) return kInvalidArgument;
    const size_t limit = bufferChars - 1;
    size_t copied = 0;
    while (copied < limit && source[copied] != L'\0') {
        buffer[copied] = source[copied];
        ++copied;
    }
    if (source[copied] != L'\0') {
        ZeroFrom(buffer, 0, bufferChars);
        return kInsufficientBuffer;
    }
    ZeroFrom(buffer, copied, bufferChars);
    return S_OK;
}
