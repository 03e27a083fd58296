// omkTolvaneReg: registers or unregisters the Tolvane class on this machine,
// and sets the service's recovery options. The installer package runs it.
//
//   omkTolvaneReg /regserver <exe>             served by <exe> as a local server
//   omkTolvaneReg /regservice <exe> [service]  served by the service (default OMKRulesProcessor)
//   omkTolvaneReg /unregister                  class, AppID and type library removed
//   omkTolvaneReg /recovery [service]          restart the service after its first and
//                                              second failure, count again after a day
//   omkTolvaneReg /stop [service]              stop the service and wait until it has
//                                              stopped (at most 60 s); absent is stopped
//
// <exe> carries TolvaneLib as resource TYPELIB 1. Exit code 0 on success, 87
// for a wrong command line, otherwise the failing HRESULT. What it did, and
// any failure, is written to the product error log "omkTolvaneReg.txt".
#include <windows.h>

#include <stdio.h>
#include <wchar.h>

#include <functional>

#include "comRegistration.h"
#include "omkErrors.h"
#include "tolvane.h"

namespace {

const wchar_t kClassName[] = L"Tolvane coclass";
const wchar_t kDefaultService[] = L"OMKRulesProcessor";
constexpr WORD kLibMajor = 1;
constexpr WORD kLibMinor = 0;
constexpr LCID kLibLcid = 0x0409;
constexpr DWORD kRestartDelayMs = 60000;
constexpr DWORD kFailureResetSeconds = 24 * 60 * 60;
// The service's own stop takes up to 12 s, 5 s more while a client holds on.
constexpr DWORD kStopWaitMs = 60000;

int Usage() {
    fwprintf(stderr,
             L"usage: omkTolvaneReg /regserver <exe>\n"
             L"       omkTolvaneReg /regservice <exe> [service]\n"
             L"       omkTolvaneReg /unregister\n"
             L"       omkTolvaneReg /recovery [service]\n"
             L"       omkTolvaneReg /stop [service]\n");
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
    OMK_ReportError(0, L"omkTolvaneReg: Tolvane and TolvaneLib unregistered");
    return 0;
}

// Runs `work` on the service opened with `access`; a service that does not
// exist is `work`'s success when `absentIsDone`. A failure is reported as `step`.
int OnService(const wchar_t* serviceName, DWORD access, bool absentIsDone, const wchar_t* step,
              const std::function<HRESULT(SC_HANDLE)>& work) {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (manager == nullptr) return Fail(L"OpenSCManagerW", L"", HRESULT_FROM_WIN32(GetLastError()));
    SC_HANDLE service = OpenServiceW(manager, serviceName, access);
    HRESULT hr = S_OK;
    if (service != nullptr) {
        hr = work(service);
        CloseServiceHandle(service);
    } else if (GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST || !absentIsDone) {
        hr = HRESULT_FROM_WIN32(GetLastError());
    }
    CloseServiceHandle(manager);
    return FAILED(hr) ? Fail(step, serviceName, hr) : 0;
}

// Windows Installer has no table for these: the package runs this command
// after it installed the service. (Wine accepts the call but keeps nothing.)
int SetRecovery(const wchar_t* serviceName) {
    // A restart action needs the right to start the service.
    return OnService(serviceName, SERVICE_CHANGE_CONFIG | SERVICE_START, false, L"setting the recovery options of",
                     [serviceName](SC_HANDLE service) {
                         SC_ACTION actions[] = {{SC_ACTION_RESTART, kRestartDelayMs},
                                                {SC_ACTION_RESTART, kRestartDelayMs},
                                                {SC_ACTION_NONE, 0}};
                         SERVICE_FAILURE_ACTIONSW failure = {};
                         failure.dwResetPeriod = kFailureResetSeconds;
                         failure.cActions = ARRAYSIZE(actions);
                         failure.lpsaActions = actions;
                         if (!ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failure)) {
                             return HRESULT_FROM_WIN32(GetLastError());
                         }
                         OMK_ReportError(0,
                                         L"omkTolvaneReg: recovery options of %ls set: restart after %lu s on the "
                                         L"first and second failure, reset after %lu s",
                                         serviceName, kRestartDelayMs / 1000, kFailureResetSeconds);
                         return S_OK;
                     });
}

// Windows Installer stops the service before it replaces or removes its files,
// but under Wine it does not wait for the stop: the package runs this next.
int StopAndWait(const wchar_t* serviceName) {
    return OnService(
        serviceName, SERVICE_STOP | SERVICE_QUERY_STATUS, true, L"stopping", [serviceName](SC_HANDLE service) {
            SERVICE_STATUS status = {};
            const DWORD start = GetTickCount();
            // A service still starting takes no stop yet: it is asked again until it does.
            for (bool queried = QueryServiceStatus(service, &status) != FALSE;
                 queried && status.dwCurrentState != SERVICE_STOPPED && GetTickCount() - start < kStopWaitMs;
                 queried = QueryServiceStatus(service, &status) != FALSE) {
                if (status.dwCurrentState != SERVICE_STOP_PENDING) ControlService(service, SERVICE_CONTROL_STOP, &status);
                Sleep(100);
            }
            if (status.dwCurrentState != SERVICE_STOPPED) return HRESULT_FROM_WIN32(ERROR_SERVICE_REQUEST_TIMEOUT);
            OMK_ReportError(0, L"omkTolvaneReg: %ls stopped after %lu ms", serviceName, GetTickCount() - start);
            return S_OK;
        });
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"omkTolvaneReg.txt");
    if (argc == 2 && _wcsicmp(argv[1], L"/unregister") == 0) return Unregister();
    if ((argc == 2 || argc == 3) && (_wcsicmp(argv[1], L"/recovery") == 0 || _wcsicmp(argv[1], L"/stop") == 0)) {
        const wchar_t* name = argc == 3 ? argv[2] : kDefaultService;
        if (name[0] == L'\0') return Usage();
        return _wcsicmp(argv[1], L"/stop") == 0 ? StopAndWait(name) : SetRecovery(name);
    }

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
        if (FAILED(hr)) {
            result = Fail(L"registering the class Tolvane for", server ? exe : serviceName, hr);
        } else {
            OMK_ReportError(0, L"omkTolvaneReg: Tolvane registered, served by %ls", server ? exe : serviceName);
        }
    }
    CoUninitialize();
    return result;
}
