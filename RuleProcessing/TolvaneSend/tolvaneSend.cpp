// tolvane-send: reports one collector event to the rules processor through
// ITolvane, the way a collector does. See Usage() below.
#include <windows.h>

#include <oleauto.h>
#include <stdio.h>
#include <wchar.h>

#include <string>
#include <vector>

#include "comErrorMessage.h"
#include "tolvane.h"

namespace {

int Usage(FILE* out) {
    fwprintf(out,
             L"usage:\n"
             L"  tolvane-send summary\n"
             L"      a summary file has been created\n"
             L"  tolvane-send rule --plugin ID --guid GUID [--tag TAG] [NAME=VALUE ...]\n"
             L"      rule plugin ID found rule GUID triggered, with data items enclosed in <TAG>\n"
             L"  tolvane-send periodic --code N --subcode N [--time N] [--hex HEX | --file PATH]\n"
             L"      a periodic data record (time stamp defaults to now, as a FILETIME number)\n"
             L"  tolvane-send --help\n"
             L"\n"
             L"Prints the call's HRESULT with its text; exits 0 on success, 1 on failure, 2 on a bad command line.\n");
    return out == stdout ? 0 : 2;
}

bool ParseNumber(const wchar_t* text, long long* value) {
    wchar_t* end = nullptr;
    *value = _wcstoi64(text, &end, 0);
    return end != text && *end == L'\0';
}

bool ParseHex(const std::wstring& hex, std::vector<unsigned char>* bytes) {
    std::wstring digits;
    for (wchar_t c : hex)
        if (!iswspace(c) && c != L':' && c != L'-') digits += c;
    if (digits.size() % 2 != 0) return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        wchar_t pair[3] = {digits[i], digits[i + 1], L'\0'};
        wchar_t* end = nullptr;
        unsigned long byte = wcstoul(pair, &end, 16);
        if (*end != L'\0') return false;
        bytes->push_back(static_cast<unsigned char>(byte));
    }
    return true;
}

bool ReadWholeFile(const wchar_t* path, std::vector<unsigned char>* bytes) {
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    unsigned char chunk[65536];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) bytes->insert(bytes->end(), chunk, chunk + read);
    CloseHandle(file);
    return true;
}

SAFEARRAY* BstrArray(const std::vector<std::wstring>& texts) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
    for (LONG i = 0; array != nullptr && i < static_cast<LONG>(texts.size()); ++i) {
        BSTR text = SysAllocString(texts[i].c_str());
        SafeArrayPutElement(array, &i, text);  // copies the string
        SysFreeString(text);
    }
    return array;
}

int Report(HRESULT hr) {
    wprintf(L"HRESULT 0x%08lX (%ls)\n", static_cast<unsigned long>(hr), ComErrorMessage(hr).Text());
    return SUCCEEDED(hr) ? 0 : 1;
}

HRESULT SendRule(ITolvane* tolvane, int argc, wchar_t** argv, bool* badLine) {
    const wchar_t* plugin = nullptr;
    const wchar_t* guid = nullptr;
    const wchar_t* tag = nullptr;
    std::vector<std::wstring> names, values;
    for (int i = 2; i < argc; ++i) {
        std::wstring arg = argv[i];
        if (arg == L"--plugin" && i + 1 < argc) plugin = argv[++i];
        else if (arg == L"--guid" && i + 1 < argc) guid = argv[++i];
        else if (arg == L"--tag" && i + 1 < argc) tag = argv[++i];
        else if (arg.find(L'=') != std::wstring::npos && arg.find(L'=') > 0) {
            names.push_back(arg.substr(0, arg.find(L'=')));
            values.push_back(arg.substr(arg.find(L'=') + 1));
        } else {
            *badLine = true;
            return E_INVALIDARG;
        }
    }
    if (plugin == nullptr || guid == nullptr) {
        *badLine = true;
        return E_INVALIDARG;
    }
    BSTR pluginText = SysAllocString(plugin);
    BSTR guidText = SysAllocString(guid);
    BSTR tagText = tag != nullptr ? SysAllocString(tag) : nullptr;
    SAFEARRAY* nameArray = names.empty() ? nullptr : BstrArray(names);
    SAFEARRAY* valueArray = values.empty() ? nullptr : BstrArray(values);
    HRESULT hr = tolvane->Tolvane_RuleTriggered(pluginText, guidText, tagText, nameArray, valueArray);
    if (nameArray != nullptr) SafeArrayDestroy(nameArray);
    if (valueArray != nullptr) SafeArrayDestroy(valueArray);
    SysFreeString(tagText);
    SysFreeString(guidText);
    SysFreeString(pluginText);
    return hr;
}

HRESULT SendPeriodic(ITolvane* tolvane, int argc, wchar_t** argv, bool* badLine) {
    long long code = 0, subCode = 0, timeStamp = 0;
    bool haveCode = false, haveSubCode = false, haveTime = false;
    std::vector<unsigned char> data;
    for (int i = 2; i < argc; ++i) {
        std::wstring arg = argv[i];
        bool ok = i + 1 < argc;
        if (ok && arg == L"--code") ok = haveCode = ParseNumber(argv[++i], &code);
        else if (ok && arg == L"--subcode") ok = haveSubCode = ParseNumber(argv[++i], &subCode);
        else if (ok && arg == L"--time") ok = haveTime = ParseNumber(argv[++i], &timeStamp);
        else if (ok && arg == L"--hex") ok = ParseHex(argv[++i], &data);
        else if (ok && arg == L"--file") ok = ReadWholeFile(argv[++i], &data);
        else ok = false;
        if (!ok) {
            *badLine = true;
            return E_INVALIDARG;
        }
    }
    if (!haveCode || !haveSubCode) {
        *badLine = true;
        return E_INVALIDARG;
    }
    if (!haveTime) {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        timeStamp = static_cast<long long>((static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
    }
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(data.size()));
    if (array == nullptr) return E_OUTOFMEMORY;
    if (!data.empty()) {
        void* bytes = nullptr;
        SafeArrayAccessData(array, &bytes);
        memcpy(bytes, data.data(), data.size());
        SafeArrayUnaccessData(array);
    }
    HRESULT hr = tolvane->Tolvane_PeriodicDataGenerated(static_cast<int>(code), static_cast<int>(subCode), timeStamp,
                                                        array);
    SafeArrayDestroy(array);
    return hr;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) return Usage(stderr);
    const std::wstring command = argv[1];
    if (command == L"--help" || command == L"-h" || command == L"/?") return Usage(stdout);
    if (command != L"summary" && command != L"rule" && command != L"periodic") return Usage(stderr);
    if (command == L"summary" && argc != 2) return Usage(stderr);

    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) return Report(hr);
    ITolvane* tolvane = nullptr;
    // A stopped service is started by this call (the class is served by it).
    hr = CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane, reinterpret_cast<void**>(&tolvane));
    bool badLine = false;
    if (SUCCEEDED(hr)) {
        if (command == L"summary") hr = tolvane->Tolvane_SummaryCreated();
        else if (command == L"rule") hr = SendRule(tolvane, argc, argv, &badLine);
        else hr = SendPeriodic(tolvane, argc, argv, &badLine);
        tolvane->Release();
    } else {
        fwprintf(stderr, L"tolvane-send: the rules processor could not be reached\n");
    }
    CoUninitialize();
    if (badLine) return Usage(stderr);
    return Report(hr);
}
