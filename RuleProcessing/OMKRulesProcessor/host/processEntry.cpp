// The service process's entry: crash hooks, the error log named after the
// service tag, no arguments, one instance machine-wide, then the dispatcher.
#include <windows.h>

#include <string.h>

#include "comErrorMessage.h"
#include "conventions.h"
#include "crashDumpFilter.h"
#include "omkErrors.h"
#include "serviceMain.h"
#include "strHelper.h"
#include "systemIdentity.h"
#include "windowsSetupState.h"

namespace {

constexpr DWORD kDispatcherFailed = 0xFFFFFFFF;
constexpr DWORD kAlreadyRunning = 0xFFFFFFFE;
constexpr DWORD kArgumentsRefused = 0xFFFFFFFD;
constexpr wchar_t kSingleInstanceMutex[] = L"Global\\{A83E6D10-2C5F-4F7B-8D21-4E9C0B7A1F36}OMKW";

void NameErrorLog() {
    HRESULT hr = CStrHelper::StrPrintf(g_serviceTag, OMK_SERVICE_TAG_CHARS, L"%hs", GetServiceTag().c_str());
    if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CStrHelper::StrPrintf() service tag failed! hr=0x%x(%s)", "wWinMain", hr,
                        ComErrorMessage(hr).Text());
    }
    wchar_t logName[MAX_PATH];
    CStrHelper::StrPrintf(logName, MAX_PATH, L"%ls_%ls.%ls", g_serviceTag, L"OMKW_Errlog", L"txt");
    OMK_SetErrorLogName(logName);
}

void LogWindowsSetupState() {
    wchar_t state[MAX_PATH];
    DWORD status = GetWindowsSetupState(state);
    if (status != 0) {
        OMK_ReportError(0, L"OMKRulesProcessor: GetWindowsSetupState failed 0x%x.", status);
    } else if (state[0] == L'\0') {
        OMK_ReportError(0, L"OMKRulesProcessor: GetWindowsSetupState gets empty Windows Setup State string.");
    } else if (wcscmp(state, L"IMAGE_STATE_COMPLETE") != 0) {
        OMK_ReportError(0, L"OMKRulesProcessor: Windows Setup State %s.", state);
    }
}

DWORD RunService(LPWSTR commandLine) {
    NameErrorLog();
    if (commandLine != nullptr && commandLine[0] != L'\0') {
        OMK_ReportError(0, L"OMKRulesProcessor process arguments (%s) aren't allowed!", commandLine);
        return kArgumentsRefused;
    }
    // Owned and never released: it keeps a second instance out for the life of the process.
    HANDLE mutex = CreateMutexW(nullptr, TRUE, kSingleInstanceMutex);
    DWORD error = GetLastError();
    if ((mutex != nullptr && error == ERROR_ALREADY_EXISTS) ||
        (mutex == nullptr && (error == ERROR_ACCESS_DENIED || error == ERROR_ALREADY_EXISTS))) {
        OMK_ReportError(0, L"OMKRulesProcessor is running!");
        return kAlreadyRunning;
    }
    LogWindowsSetupState();

    OmkTraceStart("ServiceMainEntry");
    SERVICE_TABLE_ENTRYW table[] = {{const_cast<LPWSTR>(OMK_SERVICE_NAME), ServiceMain}, {nullptr, nullptr}};
    if (!StartServiceCtrlDispatcherW(table)) {
        OMK_ReportError(0, L"%hs(): StartServiceCtrlDispatcherW(%hs) err=%lu", "ServiceMainEntry", "ServiceMain",
                        GetLastError());
        return kDispatcherFailed;
    }
    OmkTraceEnd("ServiceMainEntry");
    return 0;
}

}  // namespace

int WINAPI wWinMain(HINSTANCE /*instance*/, HINSTANCE /*previous*/, LPWSTR commandLine, int /*show*/) {
    PVOID vectored = AddVectoredExceptionHandler(1, OMKVectoredExceptionHandler);
    SetUnhandledExceptionFilter(OMKExceptionFilter);
    DWORD exitCode = RunService(commandLine);
    if (vectored != nullptr) RemoveVectoredExceptionHandler(vectored);
    return static_cast<int>(exitCode);
}
