// omkTolvaneReg: registers or unregisters the Tolvane class on this machine.
//
//   omkTolvaneReg /regserver <exe>             served by <exe> as a local server
//   omkTolvaneReg /regservice <exe> [service]  served by the service (default OMKRulesProcessor)
//   omkTolvaneReg /unregister                  class, AppID and type library removed
//
// <exe> carries TolvaneLib as resource TYPELIB 1. Exit code 0 on success, 87
// for a wrong command line, otherwise the failing HRESULT; failures are also
// written to the product error log "omkTolvaneReg.txt".
#include <windows.h>

#include <stdio.h>
#include <wchar.h>

#include "comRegistration.h"
#include "omkErrors.h"
#include "tolvane.h"

namespace {

const wchar_t kClassName[] = L"Tolvane coclass";
const wchar_t kDefaultService[] = L"OMKRulesProcessor";
constexpr WORD kLibMajor = 1;
constexpr WORD kLibMinor = 0;
constexpr LCID kLibLcid = 0x0409;

int Usage() {
    fwprintf(stderr,
             L"usage: omkTolvaneReg /regserver <exe>\n"
             L"       omkTolvaneReg /regservice <exe> [service]\n"
             L"       omkTolvaneReg /unregister\n");
    OMK_ReportError(0, L"omkTolvaneReg: wrong command line");
    return ERROR_INVALID_PARAMETER;
}

int Fail(const wchar_t* step, const wchar_t* subject, HRESULT hr) {
    fwprintf(stderr, L"omkTolvaneReg: %ls %ls failed 0x%08lx\n", step, subject, static_cast<unsigned long>(hr));
    OMK_ReportError(0, L"omkTolvaneReg: %ls %ls failed 0x%x", step, subject, hr);
    return static_cast<int>(hr);
}

// The full path of the server, which must exist.
bool FullPath(const wchar_t* path, wchar_t (&full)[MAX_PATH]) {
    DWORD length = GetFullPathNameW(path, MAX_PATH, full, nullptr);
    return length != 0 && length < MAX_PATH && GetFileAttributesW(full) != INVALID_FILE_ATTRIBUTES;
}

int Unregister() {
    HRESULT hr = UnregisterClass(CLSID_Tolvane, CLSID_Tolvane);
    if (FAILED(hr)) return Fail(L"UnregisterClass", L"Tolvane", hr);
    hr = UnregisterTypeLibById(LIBID_TolvaneLib, kLibMajor, kLibMinor, kLibLcid, &IID_ITolvane, 1);
    if (FAILED(hr)) return Fail(L"UnregisterTypeLibById", L"TolvaneLib", hr);
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"omkTolvaneReg.txt");
    if (argc == 2 && _wcsicmp(argv[1], L"/unregister") == 0) return Unregister();

    const bool server = argc == 3 && _wcsicmp(argv[1], L"/regserver") == 0;
    const bool service = (argc == 3 || argc == 4) && _wcsicmp(argv[1], L"/regservice") == 0;
    if (!server && !service) return Usage();
    const wchar_t* serviceName = argc == 4 ? argv[3] : kDefaultService;
    if (service && serviceName[0] == L'\0') return Usage();

    wchar_t exe[MAX_PATH];
    if (!FullPath(argv[2], exe)) return Fail(L"finding", argv[2], HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));

    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) return Fail(L"CoInitializeEx", L"", hr);
    hr = RegisterTypeLibFromModule(exe);
    int result = 0;
    if (FAILED(hr)) {
        result = Fail(L"registering the type library of", exe, hr);
    } else {
        hr = server ? RegisterLocalServerClass(CLSID_Tolvane, kClassName, LIBID_TolvaneLib, CLSID_Tolvane, exe)
                    : RegisterServiceClass(CLSID_Tolvane, kClassName, LIBID_TolvaneLib, CLSID_Tolvane, serviceName);
        if (FAILED(hr)) result = Fail(L"registering the class Tolvane for", server ? exe : serviceName, hr);
    }
    CoUninitialize();
    return result;
}
