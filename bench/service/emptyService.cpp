// omkEmptyService [wmi]: the floor of the service's working set. A service
// process that does only what precedes any work of the product's own: it
// registers with the service manager, enters the multithreaded apartment,
// loads MSXML (one DOM document made, loaded and released), reports running
// and waits for the stop control. With "wmi" it also makes the WMI query the
// platform filter makes for a "Laptops" or "Desktops" rule. serviceBench
// installs it under names of its own.
#include <windows.h>

#include <msxml.h>
#include <wbemcli.h>
#include <string.h>

namespace {

// CLSID_DOMDocument, {2933BF90-7B36-11D2-B20E-00C04F983E60}.
const CLSID kClsidDomDocument = {0x2933BF90, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
HANDLE g_stop = nullptr;

void Report(DWORD state) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    status.dwWaitHint = 3000;
    SetServiceStatus(g_statusHandle, &status);
}

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*) {
    if (control == SERVICE_CONTROL_STOP) {
        Report(SERVICE_STOP_PENDING);
        SetEvent(g_stop);
    }
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
    g_statusHandle = RegisterServiceCtrlHandlerExW(L"", Handler, nullptr);
    if (g_statusHandle == nullptr) return;
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    Report(SERVICE_START_PENDING);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    IXMLDOMDocument* doc = nullptr;
    if (SUCCEEDED(CoCreateInstance(kClsidDomDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                                   reinterpret_cast<void**>(&doc)))) {
        BSTR text = SysAllocString(L"<Tolvane/>");
        VARIANT_BOOL loaded = VARIANT_FALSE;
        doc->loadXML(text, &loaded);
        SysFreeString(text);
        doc->Release();
    }
    if (wcsstr(GetCommandLineW(), L"\" wmi") != nullptr) {
        IWbemLocator* locator = nullptr;
        IWbemServices* services = nullptr;
        if (SUCCEEDED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                       reinterpret_cast<void**>(&locator)))) {
            BSTR ns = SysAllocString(L"ROOT\\CIMV2");
            if (SUCCEEDED(locator->ConnectServer(ns, nullptr, nullptr, nullptr, 0, nullptr, nullptr, &services))) {
                BSTR language = SysAllocString(L"WQL");
                BSTR query = SysAllocString(L"SELECT ChassisTypes FROM Win32_SystemEnclosure");
                IEnumWbemClassObject* rows = nullptr;
                if (SUCCEEDED(services->ExecQuery(language, query, WBEM_FLAG_FORWARD_ONLY, nullptr, &rows))) {
                    IWbemClassObject* row = nullptr;
                    ULONG n = 0;
                    if (rows->Next(WBEM_INFINITE, 1, &row, &n) == S_OK) row->Release();
                    rows->Release();
                }
                SysFreeString(query);
                SysFreeString(language);
                services->Release();
            }
            SysFreeString(ns);
            locator->Release();
        }
    }
    Report(SERVICE_RUNNING);
    WaitForSingleObject(g_stop, INFINITE);
    CoUninitialize();
    Report(SERVICE_STOPPED);
}

}  // namespace

int wmain() {
    wchar_t name[] = L"";
    SERVICE_TABLE_ENTRYW table[] = {{name, ServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
