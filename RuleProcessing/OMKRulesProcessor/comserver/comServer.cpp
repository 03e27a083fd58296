#include "comServer.h"

#include <new>

#include "CTolvaneFactory.h"
#include "comErrorMessage.h"
#include "conventions.h"
#include "omkErrors.h"

HANDLE g_ComServerThreadRunEvent = nullptr;
HANDLE g_ComServerThreadExitEvent = nullptr;
HANDLE g_ComServerThreadHandle = nullptr;
DWORD g_ComServerThreadId = 0;

namespace {

constexpr DWORD kStartWaitMs = 5000;
constexpr DWORD kDrainWaitMs = 5000;
constexpr DWORD kDisconnectWaitMs = 2000;
constexpr DWORD kStopWaitMs = 10000;
constexpr DWORD kExitNotEnoughMemory = ERROR_NOT_ENOUGH_MEMORY;

// Creates one unnamed manual-reset event. A failure is reported and returned
// only when Windows gave an error; with none the server goes on without it.
DWORD CreateServerEvent(HANDLE* event, BOOL signalled, const char* name) {
    HANDLE created = CreateEventW(nullptr, TRUE, signalled, nullptr);
    if (created != nullptr && created != INVALID_HANDLE_VALUE) {
        *event = created;
        return 0;
    }
    *event = nullptr;
    DWORD error = GetLastError();
    if (error != 0) OMK_ReportError(0, L"%hs(): CreateEventW(%hs) err=%lu", "StartComServerThread", name, error);
    return error;
}

// Waits for `handle`; a time-out, another non-signalled result or a failed
// wait with an error is reported under `name`. True when signalled.
bool WaitAndReport(HANDLE handle, DWORD timeoutMs, const char* function, const char* name) {
    DWORD result = WaitForSingleObject(handle, timeoutMs);
    if (result == WAIT_OBJECT_0) return true;
    DWORD error = OmkWaitFailureCode(result);
    if (error != 0) OMK_ReportError(0, L"%hs(): WaitForSingleObject(%hs) err=%lu", function, name, error);
    return false;
}

void CloseAndClear(HANDLE* handle) {
    if (*handle != nullptr) CloseHandle(*handle);
    *handle = nullptr;
}

}  // namespace

DWORD StartComServerThread() {
    const char* const function = "StartComServerThread";
    DWORD error = CreateServerEvent(&g_ComServerThreadRunEvent, FALSE, "g_ComServerThreadRunEvent");
    if (error != 0) return error;
    error = CreateServerEvent(&g_ComServerThreadExitEvent, FALSE, "g_ComServerThreadExitEvent");
    if (error != 0) return error;
    error = CreateServerEvent(&g_ComClassCleanupEvent, TRUE, "g_ComClassCleanupEvent");
    if (error != 0) return error;
    error = CreateServerEvent(&g_ComServerCleanupEvent, FALSE, "g_ComServerCleanupEvent");
    if (error != 0) return error;

    g_ComServerThreadId = 0;
    g_ComServerThreadHandle = CreateThread(nullptr, 0, ComServerThreadProc, nullptr, 0, &g_ComServerThreadId);
    if (g_ComServerThreadHandle == nullptr || g_ComServerThreadHandle == INVALID_HANDLE_VALUE) {
        g_ComServerThreadHandle = nullptr;
        g_ComServerThreadId = 0;
        error = GetLastError();
        if (error != 0) {
            OMK_ReportError(0, L"%hs(): CreateThread(%hs) err=%lu", function, "ComServerThreadProc", error);
            return error;
        }
    }

    DWORD result = WaitForSingleObject(g_ComServerThreadRunEvent, kStartWaitMs);
    if (result == WAIT_OBJECT_0) return 0;
    error = OmkWaitFailureCode(result);
    if (error != 0) {
        OMK_ReportError(0, L"%hs(): WaitForSingleObject(%hs) err=%lu", function, "g_ComServerThreadRunEvent", error);
    }
    return error;
}

DWORD WINAPI ComServerThreadProc(LPVOID /*parameter*/) {
    const char* const function = "ComServerThreadProc";
    OmkTraceStart(function);

    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (hr == S_FALSE) {
        OmkTraceA("[%lu]%s() Multiple calls to CoInitializeEx() by this thread.", GetCurrentThreadId(), function);
    } else if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CoInitializeEx(COINIT_MULTITHREADED) hr=%ld(%s)", function, hr,
                        ComErrorMessage(hr).Text());
        return 1;
    }

    hr = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE,
                              nullptr, EOAC_NONE, nullptr);
    if (hr == RPC_E_TOO_LATE) {
        OmkTraceA("[%lu]%s() CoInitializeSecurity() has already been called by process %lu.", GetCurrentThreadId(),
                  function, GetCurrentProcessId());
    } else if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CoInitializeSecurity() hr=%ld(%ls)", function, hr, ComErrorMessage(hr).Text());
        CoUninitialize();
        return 1;
    }

    CTolvaneFactory* factory = new (std::nothrow) CTolvaneFactory();
    if (factory == nullptr) {
        OMK_ReportError(0, L"%hs(): new CTolvaneFactory() failed!", function);
        CoUninitialize();
        return kExitNotEnoughMemory;
    }

    OmkTraceA("[%lu]%s() CoRegisterClassObject(%s,%s)", GetCurrentThreadId(), function, "CLSID_Tolvane",
              "CTolvaneFactory");
    DWORD cookie = 0;
    hr = CoRegisterClassObject(CLSID_Tolvane, factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CoRegisterClassObject(%hs) hr=%ld(%ls)", function, "CLSID_Tolvane", hr,
                        ComErrorMessage(hr).Text());
        delete factory;
        CoUninitialize();
        return 1;
    }

    if (!SetEvent(g_ComServerThreadRunEvent)) {
        DWORD error = GetLastError();
        OMK_ReportError(0, L"%hs(): SetEvent(%hs) err=%lu", function, "g_ComServerThreadRunEvent", error);
        CoRevokeClassObject(cookie);
        delete factory;
        CoUninitialize();
        return error;
    }

    // The first wait is reported under the name of the service's stop event,
    // which is what ends it in the service.
    WaitAndReport(g_ComServerThreadExitEvent, INFINITE, function, "g_ServiceStopEvent");
    WaitAndReport(g_ComClassCleanupEvent, kDrainWaitMs, function, "g_ComClassCleanupEvent");

    OmkTraceA("[%lu]%s() CoRevokeClassObject(%s,%s)", GetCurrentThreadId(), function, "CLSID_Tolvane",
              "CTolvaneFactory");
    hr = CoRevokeClassObject(cookie);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CoRevokeClassObject(%hs) hr=%ld(%ls)", function, "CLSID_Tolvane", hr,
                        ComErrorMessage(hr).Text());
    }
    // Clients still holding references after the drain are cut off before the
    // object goes. Should a call still be running in it (a disconnection lets
    // calls under way finish), the object is left to the process exit instead.
    if (factory->Disconnect(kDisconnectWaitMs)) {
        delete factory;
        WaitAndReport(g_ComServerCleanupEvent, kDrainWaitMs, function, "g_ComServerCleanupEvent");
    } else {
        OmkTraceA("[%lu]%s() CTolvane still referenced, left allocated", GetCurrentThreadId(), function);
    }

    CoUninitialize();
    OmkTraceEnd(function);
    return 0;
}

void StopComServerThread() {
    const char* const function = "StopComServerThread";
    if (!SetEvent(g_ComServerThreadExitEvent)) {
        OMK_ReportError(0, L"%hs(): SetEvent(%hs) err=%lu", function, "g_ComServerThreadExitEvent", GetLastError());
    }
    // A thread that has not ended still waits on the events: they stay open then.
    if (!WaitAndReport(g_ComServerThreadHandle, kStopWaitMs, function, "g_ComServerThreadHandle") &&
        g_ComServerThreadHandle != nullptr) {
        return;
    }
    CloseAndClear(&g_ComServerThreadHandle);
    CloseAndClear(&g_ComServerThreadExitEvent);
    CloseAndClear(&g_ComServerThreadRunEvent);
    CloseAndClear(&g_ComClassCleanupEvent);
    CloseAndClear(&g_ComServerCleanupEvent);
}
