#include "comErrorMessage.h"

#include <stdio.h>
#include <wchar.h>

namespace {

constexpr DWORD kFormatFlags =
    FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;  // 0x1300
constexpr int kFallbackChars = 32;

}  // namespace

ComErrorText::ComErrorText(HRESULT hr) : text_(nullptr) {
    DWORD length = FormatMessageW(kFormatFlags, nullptr, static_cast<DWORD>(hr),
                                  MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&text_), 0,
                                  nullptr);
    if (length != 0 && text_ != nullptr) {
        if (length >= 2 && text_[length - 1] == L'\n') {
            text_[--length] = L'\0';
            if (text_[length - 1] == L'\r') text_[--length] = L'\0';
        }
        return;
    }
    if (text_ != nullptr) LocalFree(text_);
    text_ = static_cast<wchar_t*>(LocalAlloc(LMEM_FIXED, kFallbackChars * sizeof(wchar_t)));
    if (text_ == nullptr) return;
    const DWORD code = static_cast<DWORD>(hr);
    const WORD dispatchCode = static_cast<WORD>(code - 0x80040200u);
    if (code >= 0x80040200u && code <= 0x8004FFFFu && dispatchCode != 0) {
        _snwprintf(text_, kFallbackChars - 1, L"IDispatch error #%d", dispatchCode);
    } else {
        _snwprintf(text_, kFallbackChars - 1, L"Unknown error 0x%0lX", code);
    }
    text_[kFallbackChars - 1] = L'\0';
}

ComErrorText::ComErrorText(ComErrorText&& other) noexcept : text_(other.text_) { other.text_ = nullptr; }

ComErrorText::~ComErrorText() {
    if (text_ != nullptr) LocalFree(text_);
}

ComErrorText ComErrorMessage(HRESULT hr) { return ComErrorText(hr); }
