// Values of a plugin's configuration block, of an <Action> element or of a
// rule's XML, read through the service's own XML access layer.
#include <windows.h>

#include <objbase.h>
#include <oleauto.h>
#include <wchar.h>

#include <string>

#include "omkErrors.h"
#include "omkPluginSdk.h"
#include "xmlAccess.h"

namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

// Names become part of an XPath: only plain element and attribute names pass.
bool IsPlainName(const wchar_t* name, bool slashes) {
    if (name == nullptr || name[0] == L'\0') return false;
    for (const wchar_t* p = name; *p != L'\0'; ++p) {
        bool separator = slashes && *p == L'/' && p != name && p[1] != L'\0' && p[1] != L'/';
        if (!iswalnum(*p) && *p != L'_' && *p != L'-' && *p != L'.' && !separator) return false;
    }
    return true;
}

// The value as a BSTR (null for an empty one), or the reason there is none.
unsigned int ReadValue(const wchar_t* xml, const std::wstring& xpath, const wchar_t* attribute, BSTR* value) {
    // LoadXML enters the thread's multithreaded apartment and leaves one
    // CoUninitialize owed even when the text does not load; entering here
    // first keeps the count balanced on every path.
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"OmkSdk_ReadConfigText: CoInitializeEx failed 0x%x", static_cast<unsigned int>(hr));
        return ERROR_INVALID_FUNCTION;
    }
    unsigned int result = ERROR_INVALID_DATA;
    IXMLDOMDocument* doc = LoadXML(xml);
    if (doc != nullptr) {
        if (attribute != nullptr) {
            result = ReadXmlElementAttribute(doc, xpath.c_str(), 0, attribute, nullptr, value) == XML_ATTRIBUTE_FOUND
                         ? 0
                         : ERROR_NOT_FOUND;
        } else {
            unsigned int count = 0;
            result = ReadXmlElement(doc, xpath.c_str(), 0, &count, value) ? 0
                     : count == 0                                          ? ERROR_NOT_FOUND
                                                                           : ERROR_INVALID_DATA;
        }
        doc->Release();
    }
    CoUninitialize();
    CoUninitialize();
    return result;
}

unsigned int ReadConfigText(const wchar_t* xml, const wchar_t* element, const wchar_t* attribute, wchar_t* buffer,
                            unsigned int bufferChars) {
    bool rootElement = element == nullptr || element[0] == L'\0';
    if ((!rootElement && !IsPlainName(element, true)) || (attribute != nullptr && !IsPlainName(attribute, false))) {
        return ERROR_INVALID_PARAMETER;
    }
    if (xml == nullptr) return ERROR_NOT_FOUND;
    BSTR value = nullptr;
    unsigned int result = ReadValue(xml, rootElement ? std::wstring(L"/*") : L"/*/" + std::wstring(element), attribute,
                                    &value);
    if (result == 0 && value != nullptr) {
        const wchar_t* begin = value;
        const wchar_t* end = value + SysStringLen(value);
        while (begin < end && IsBlank(*begin)) ++begin;
        while (end > begin && IsBlank(end[-1])) --end;
        size_t length = static_cast<size_t>(end - begin);
        if (length >= bufferChars) {
            result = ERROR_INSUFFICIENT_BUFFER;
        } else {
            wmemcpy(buffer, begin, length);
            buffer[length] = L'\0';
        }
    }
    SysFreeString(value);
    return result;
}

}  // namespace

extern "C" unsigned int OmkSdk_ReadConfigText(const wchar_t* xml, const wchar_t* element, const wchar_t* attribute,
                                              wchar_t* buffer, unsigned int bufferChars) {
    if (buffer == nullptr || bufferChars == 0) return ERROR_INVALID_PARAMETER;
    buffer[0] = L'\0';
    return OmkSdk_Guard("OmkSdk_ReadConfigText",
                        [&] { return ReadConfigText(xml, element, attribute, buffer, bufferChars); });
}

extern "C" unsigned int OmkSdk_ParseNumber(const wchar_t* text, unsigned long long maxValue,
                                           unsigned long long* value) {
    if (text == nullptr || value == nullptr) return ERROR_INVALID_PARAMETER;
    while (IsBlank(*text)) ++text;
    unsigned int base = 10;
    if (text[0] == L'0' && (text[1] == L'x' || text[1] == L'X')) {
        base = 16;
        text += 2;
    }
    unsigned long long number = 0;
    const wchar_t* p = text;
    for (; *p != L'\0' && !IsBlank(*p); ++p) {
        unsigned int digit = 0;
        if (*p >= L'0' && *p <= L'9') {
            digit = static_cast<unsigned int>(*p - L'0');
        } else if (base == 16 && towlower(*p) >= L'a' && towlower(*p) <= L'f') {
            digit = static_cast<unsigned int>(towlower(*p) - L'a' + 10);
        } else {
            return ERROR_INVALID_DATA;
        }
        if (digit > maxValue || number > (maxValue - digit) / base) return ERROR_ARITHMETIC_OVERFLOW;
        number = number * base + digit;
    }
    if (p == text) return ERROR_INVALID_DATA;
    while (IsBlank(*p)) ++p;
    if (*p != L'\0') return ERROR_INVALID_DATA;
    *value = number;
    return 0;
}

extern "C" unsigned int OmkSdk_ReadConfigNumber(const wchar_t* xml, const wchar_t* element, const wchar_t* attribute,
                                                unsigned long long maxValue, unsigned long long* value) {
    // Room for any spelling of a 64-bit number with blanks around, and for
    // numbers far too large, which are then reported as such.
    wchar_t text[256];
    unsigned int result = OmkSdk_ReadConfigText(xml, element, attribute, text, ARRAYSIZE(text));
    if (result == ERROR_INSUFFICIENT_BUFFER) return ERROR_INVALID_DATA;
    return result != 0 ? result : OmkSdk_ParseNumber(text, maxValue, value);
}
