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
        if (c > 0x20 && c < 0x7F && c != L'\\' && c != L'"' && c != L',' && c != L'[' && c != L']' && c != L'=') {
            out += static_cast<char>(c);
        } else {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04X", static_cast<unsigned>(c));
            out += escaped;
        }
    }
    return out + "\"";
}

// "~" for null; a one-dimensional array of BSTR as [vt=8:"a","b"]; any
// other array as [vt=<type>;dims=<n>;count=<elements of the last dimension>].
inline std::string RecordArray(SAFEARRAY* array) {
    if (array == nullptr) return "~";
    VARTYPE type = VT_EMPTY;
    SafeArrayGetVartype(array, &type);
    UINT dims = SafeArrayGetDim(array);
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(array, dims, &lower);
    SafeArrayGetUBound(array, dims, &upper);
    std::string out = "[vt=" + std::to_string(type);
    if (type != VT_BSTR || dims != 1) {
        return out + ";dims=" + std::to_string(dims) + ";count=" + std::to_string(upper - lower + 1) + "]";
    }
    out += ":";
    for (LONG i = lower; i <= upper; ++i) {
        BSTR element = nullptr;
        if (FAILED(SafeArrayGetElement(array, &i, &element))) {
            out += "?";
        } else {
            out += RecordText(element);
            SysFreeString(element);
        }
        if (i < upper) out += ",";
    }
    return out + "]";
}

// "~" for null, else the bytes in lower-case hex.
inline std::string RecordBytes(const unsigned char* bytes, unsigned int length) {
    if (bytes == nullptr) return "~";
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        out += kHex[bytes[i] >> 4];
        out += kHex[bytes[i] & 15];
    }
    return out;
}

// Names of the host's control events, made from the name on its command line.
inline std::wstring EventName(const std::wstring& hostName, const wchar_t* which) {
    return L"Local\\" + hostName + L"." + which;
}

}  // namespace hostrecord
