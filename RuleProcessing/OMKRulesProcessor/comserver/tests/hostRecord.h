// What the test host writes about each item its engine thread handled, shared
// by the host and the tests that read it. One UTF-8 line per record, fields
// separated by blanks, each "key=value"; text values are written with
// RecordText, so they hold no blank, comma, bracket or quote of their own.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <stdio.h>

#include <string>

namespace hostrecord {

// "~" for null, else the text in quotes with every character outside
// printable ASCII (and \ " , [ ] = and blank) as \uXXXX.
inline std::string RecordText(const wchar_t* text) {
    if (text == nullptr) return "~";
    std::string out = "\"";
    for (const wchar_t* p = text; *p != L'\0'; ++p) {
        wchar_t c = *p;
        if (c > 0x20 && c < 0x7F && wcschr(L"\\\",[]=", c) == nullptr) {
            out += static_cast<char>(c);
        } else {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04X", static_cast<unsigned>(c));
            out += escaped;
        }
    }
    return out + "\"";
}

// "~" for null, else the BSTR elements of a one-dimensional array as ["a","b"].
inline std::string RecordArray(SAFEARRAY* array) {
    if (array == nullptr) return "~";
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    std::string out = "[";
    for (LONG i = lower; i <= upper; ++i) {
        BSTR element = nullptr;
        out += SUCCEEDED(SafeArrayGetElement(array, &i, &element)) ? RecordText(element) : "?";
        SysFreeString(element);
        if (i < upper) out += ",";
    }
    return out + "]";
}

// "~" for null, else the bytes in lower-case hex.
inline std::string RecordBytes(const unsigned char* bytes, unsigned int length) {
    if (bytes == nullptr) return "~";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        char hex[4];
        snprintf(hex, sizeof(hex), "%02x", bytes[i]);
        out += hex;
    }
    return out;
}

// Names of the host's control events, made from the name on its command line.
inline std::wstring EventName(const std::wstring& hostName, const wchar_t* which) {
    return L"Local\\" + hostName + L"." + which;
}

}  // namespace hostrecord
