// The system's text for an HRESULT, as _com_error::ErrorMessage gives it.
#pragma once

#include <windows.h>

// Holds the text of one HRESULT until it goes out of scope. Use it once per
// message: OMK_ReportError(0, L"... hr=0x%x(%s)", hr, ComErrorMessage(hr).Text());
class ComErrorText {
public:
    explicit ComErrorText(HRESULT hr);
    ~ComErrorText();
    ComErrorText(ComErrorText&& other) noexcept;
    ComErrorText(const ComErrorText&) = delete;
    ComErrorText& operator=(const ComErrorText&) = delete;
    ComErrorText& operator=(ComErrorText&&) = delete;

    // The message; never null (empty only if even the fall-back could not be allocated).
    const wchar_t* Text() const { return text_ != nullptr ? text_ : L""; }

private:
    wchar_t* text_;  // LocalAlloc'ed, by FormatMessageW or for the fall-back
};

// The system message for `hr` without its line end; for other codes
// "IDispatch error #n" (0x80040200 + n) or "Unknown error 0x...".
ComErrorText ComErrorMessage(HRESULT hr);
