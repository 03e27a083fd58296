#include "serviceMain.h"

#include <mutex>

#include "comServer.h"
#include "conventions.h"
#include "omkErrors.h"
#include "productVersion.h"
#include "tolvaneInit.h"

const wchar_t OMK_SERVICE_NAME[] = L"OMKRulesProcessor";
SERVICE_STATUS_HANDLE g_ServiceStatusHandle = nullptr;
HANDLE g_ServiceStopEvent = nullptr;

namespace {

constexpr DWORD kStartWaitHintMs = 3000;
constexpr DWORD kStopWaitHintMs = 12000;

SERVICE_STATUS g_lastServiceStatus = {};
std::mutex g_serviceStatusLock;
DWORD g_checkPoint = 1;

// A stop or shutdown control may arrive again while the stop sequence runs.
// This lock orders it against the end of that sequence, so that the handler
// neither sets the stop event after it was closed nor reports stop pending
// after stopped was sent.
std::mutex g_stopControlLock;
bool g_stoppedReported = false;

const char* ControlName(DWORD control) {
    return control == SERVICE_CONTROL_STOP ? "SERVICE_CONTROL_STOP" : "SERVICE_CONTROL_SHUTDOWN";
}

}  // namespace

DWORD ReportStatusToSCMgr(DWORD state, DWORD exitCode, DWORD waitHint) {
    if (g_ServiceStatusHandle == nullptr) return ERROR_INVALID_HANDLE;
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    // No control is accepted until start-up is over.
    status.dwControlsAccepted = state == SERVICE_START_PENDING ? 0 : SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    status.dwWin32ExitCode = exitCode;
    status.dwServiceSpecificExitCode = 0;
    if (state == SERVICE_RUNNING || state == SERVICE_STOPPED) {
        status.dwCheckPoint = 0;
        status.dwWaitHint = 0;
    } else {
        status.dwCheckPoint = g_checkPoint++;
        status.dwWaitHint = waitHint;
    }
    DWORD result = SetServiceStatus(g_ServiceStatusHandle, &status) ? 0 : GetLastError();
    std::lock_guard<std::mutex> lock(g_serviceStatusLock);
    g_lastServiceStatus = status;
    return result;
}

DWORD WINAPI ServiceCtrlHandlerEx(DWORD control, DWORD /*eventType*/, LPVOID /*eventData*/, LPVOID /*context*/) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
        case SERVICE_CONTROL_SHUTDOWN: {
            const char* name = ControlName(control);
            OMK_ReportError(0, L"%hs(%hs) ...", "ServiceCtrlHandlerEx", name);
            std::lock_guard<std::mutex> stopping(g_stopControlLock);
            if (g_stoppedReported) return NO_ERROR;
            DWORD result = ReportStatusToSCMgr(SERVICE_STOP_PENDING, 0, kStopWaitHintMs);
            if (result != 0) {
                OMK_ReportError(0, L"%hs(%hs): SetServiceStatus(SERVICE_STOP_PENDING) err=%lu!", "ServiceCtrlHandlerEx",
                                name, result);
            }
            if (g_ServiceStopEvent != nullptr && !SetEvent(g_ServiceStopEvent)) {
                OMK_ReportError(0, L"%hs(%hs): SetEvent(%hs) err=%lu!", "ServiceCtrlHandlerEx", name,
                                "g_ServiceStopEvent", GetLastError());
            }
            return NO_ERROR;
        }
        case SERVICE_CONTROL_INTERROGATE: {
            OmkTraceA("[%lu]%s() SERVICE_CONTROL_INTERROGATE ...", GetCurrentThreadId(), "ServiceCtrlHandlerEx");
            if (g_ServiceStatusHandle == nullptr) {
                OMK_ReportError(0, L"%hs(SERVICE_CONTROL_INTERROGATE): %hs is NULL!", "ServiceCtrlHandlerEx",
                                "g_ServiceStatusHandle");
                return NO_ERROR;
            }
            SERVICE_STATUS copy;
            {
                std::lock_guard<std::mutex> lock(g_serviceStatusLock);
                copy = g_lastServiceStatus;
            }
            if (!SetServiceStatus(g_ServiceStatusHandle, &copy)) {
                OMK_ReportError(0, L"%hs(SERVICE_CONTROL_INTERROGATE): SetServiceStatus(%lu) err=%lu",
                                "ServiceCtrlHandlerEx", copy.dwCurrentState, GetLastError());
            }
            return NO_ERROR;
        }
        default:
            OmkTraceA("[%lu]%s() SERVICE_CONTROL_EVENT=0x%.8X", GetCurrentThreadId(), "ServiceCtrlHandlerEx", control);
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* /*argv*/) {
    DWORD exitCode = 0;
    OMK_ReportError(0, L"Starts %ls %hs.", OMK_SERVICE_NAME, OMK_PRODUCT_VERSION_TEXT);

    // Each failing step jumps to the stop sequence, which undoes what exists.
    do {
        g_ServiceStatusHandle = RegisterServiceCtrlHandlerExW(OMK_SERVICE_NAME, ServiceCtrlHandlerEx, nullptr);
        if (g_ServiceStatusHandle == nullptr || g_ServiceStatusHandle == INVALID_HANDLE_VALUE) {
            exitCode = GetLastError();
            OMK_ReportError(0, L"%hs(): RegisterServiceCtrlHandlerEx(%ls) err=%lu", "ServiceMain", OMK_SERVICE_NAME,
                            exitCode);
            g_ServiceStatusHandle = nullptr;
            break;
        }
        {
            std::lock_guard<std::mutex> lock(g_serviceStatusLock);
            g_lastServiceStatus.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        }
        DWORD result = ReportStatusToSCMgr(SERVICE_START_PENDING, 0, kStartWaitHintMs);
        if (result != 0) {
            exitCode = result;
            OMK_ReportError(0, L"%hs(): ReportStatusToSCMgr(SERVICE_START_PENDING) err=%lu", "ServiceMain", result);
            break;
        }
        g_ServiceStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (g_ServiceStopEvent == nullptr || g_ServiceStopEvent == INVALID_HANDLE_VALUE) {
            DWORD error = GetLastError();
            g_ServiceStopEvent = nullptr;
            if (error != 0) {
                exitCode = error;
                OMK_ReportError(0, L"%hs(): CreateEventW(%hs) err=%lu", "ServiceMain", "g_ServiceStopEvent", error);
                break;
            }
        }
        // The COM server comes first so collectors can connect while the rules load.
        result = StartComServerThread();
        if (result != 0) {
            exitCode = result;
            break;
        }
        DWORD status = Tolvane_Init();
        if (status != 0) {
            OMK_ReportError(0, L"%hs(): Tolvane_Init() & CreateThread(%hs) gStat=%d", "ServiceMain",
                            "TolvaneThreadProc", static_cast<int>(status));
            exitCode = 1;
            break;
        }
        result = ReportStatusToSCMgr(SERVICE_RUNNING, 0, 0);
        if (result != 0) {
            exitCode = result;
            OMK_ReportError(0, L"%hs(): ReportStatusToSCMgr(SERVICE_RUNNING) err=%lu", "ServiceMain", result);
            break;
        }
        DWORD wait = WaitForSingleObject(g_ServiceStopEvent, INFINITE);
        if (wait != WAIT_OBJECT_0) {
            exitCode = OmkWaitFailureCode(wait);
            OMK_ReportError(0, L"%hs(): WaitForSingleObject(%hs) err=%lu", "ServiceMain", "g_ServiceStopEvent",
                            exitCode);
        }
    } while (false);

    OMK_ReportError(0, L"Stops %ls %hs.", OMK_SERVICE_NAME, OMK_PRODUCT_VERSION_TEXT);
    Tolvane_Term();
    StopComServerThread();
    std::lock_guard<std::mutex> stopping(g_stopControlLock);
    if (g_ServiceStopEvent != nullptr) {
        CloseHandle(g_ServiceStopEvent);
        g_ServiceStopEvent = nullptr;
    }
    OMK_ReportError(0, L"%ls %hs has stopped.", OMK_SERVICE_NAME, OMK_PRODUCT_VERSION_TEXT);
    ReportStatusToSCMgr(SERVICE_STOPPED, exitCode, 0);
    g_stoppedReported = true;
}
