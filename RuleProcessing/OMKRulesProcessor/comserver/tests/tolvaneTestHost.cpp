// tolvaneTestHost: serves Tolvane as the service does (COM server thread and
// engine thread over the real queue) and records the kind of each item handled.
//   tolvaneTestHost <name> <record file> <error log name>: driven through the
//     manual-reset events Local\<name>.ready (it serves), .stop (stop as the
//     service does, then record "stopped") and .exit; its main thread stays in
//     the multithreaded apartment throughout, as other service threads may.
//   tolvaneTestHost -Embedding: started by COM, as tolvaneTestHost-embedded,
//     recording into %TEMP%\tolvaneTestHost-embedded.txt.
//   tolvaneTestHost service <service name> <record file> <error log name>.
#include <windows.h>

#include <string>

#include "comServer.h"
#include "conventions.h"
#include "omkErrors.h"
#include "workQueue.h"

namespace {

// The host does not outlive a test that forgot it.
constexpr DWORD kLifetimeMs = 180000;

HANDLE g_record = INVALID_HANDLE_VALUE;

// One line; the file is opened for appending, so each write lands whole.
void WriteRecord(const std::string& line) {
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(g_record, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

HANDLE HostEvent(const std::wstring& name, const wchar_t* which) {
    return CreateEventW(nullptr, TRUE, FALSE, (L"Local\\" + name + L"." + which).c_str());
}

}  // namespace

// "item kind=<kind>"; a summary item also tells whether it is all '$' after its link.
void Tolvane_HandleEvents(WORK_ITEM* item) {
    std::string line = "item kind=" + std::to_string(item->kind);
    if (item->kind == WORK_SUMMARY_CREATED) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(item);
        size_t at = offsetof(WORK_ITEM, u);
        while (at < sizeof(WORK_ITEM) && bytes[at] == OMK_FILL_BYTE) ++at;
        line += at == sizeof(WORK_ITEM) ? " fill=ok" : " fill=bad";
    }
    WriteRecord(line);
}

namespace {

struct HostOptions {
    std::wstring name;
    std::wstring recordPath;
    std::wstring logName;
    bool lingers;  // waits for .exit after stopping
};

HostOptions g_options;
SERVICE_STATUS_HANDLE g_serviceStatus = nullptr;

void ReportServiceState(DWORD state) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    status.dwWaitHint = 30000;
    SetServiceStatus(g_serviceStatus, &status);
}

// Serves until the stop event is set; returns the process exit code.
int RunHost(const HostOptions& options) {
    OMK_SetErrorLogName(options.logName.c_str());
    g_record = CreateFileW(options.recordPath.c_str(), FILE_APPEND_DATA,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (g_record == INVALID_HANDLE_VALUE) return 2;
    HANDLE ready = HostEvent(options.name, L"ready");
    HANDLE stop = HostEvent(options.name, L"stop");
    HANDLE exit = HostEvent(options.name, L"exit");
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);

    InitWorkQueueLock();
    DWORD error = StartComServerThread();
    if (error != 0) {
        WriteRecord("failed com=" + std::to_string(error));
        return 3;
    }
    error = StartTolvaneThread();
    WriteRecord("host pid=" + std::to_string(GetCurrentProcessId()) + " engine=" + std::to_string(error));
    if (g_serviceStatus != nullptr) ReportServiceState(SERVICE_RUNNING);
    SetEvent(ready);
    if (WaitForSingleObject(stop, kLifetimeMs) != WAIT_OBJECT_0) WriteRecord("lifetime over");

    // The service's order: engine teardown first, then the COM server.
    StopTolvaneThread();
    DeleteWorkQueueLock();
    StopComServerThread();
    WriteRecord("stopped alloc=" + std::to_string(g_allocCount));
    if (options.lingers) WaitForSingleObject(exit, kLifetimeMs);
    CoUninitialize();
    CloseHandle(g_record);
    return 0;
}

DWORD WINAPI ServiceControl(DWORD control, DWORD, LPVOID, LPVOID) {
    if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
        ReportServiceState(SERVICE_STOP_PENDING);
        HANDLE stop = HostEvent(g_options.name, L"stop");
        SetEvent(stop);
        CloseHandle(stop);
        return NO_ERROR;
    }
    return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_serviceStatus = RegisterServiceCtrlHandlerExW(g_options.name.c_str(), ServiceControl, nullptr);
    if (g_serviceStatus == nullptr) return;
    ReportServiceState(SERVICE_START_PENDING);
    RunHost(g_options);
    ReportServiceState(SERVICE_STOPPED);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc == 2 && (_wcsicmp(argv[1], L"-Embedding") == 0 || _wcsicmp(argv[1], L"/Embedding") == 0)) {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        const std::wstring name = L"tolvaneTestHost-embedded";
        g_options = HostOptions{name, std::wstring(temp) + name + L".txt", name + L".txt", false};
    } else if (argc == 5 && wcscmp(argv[1], L"service") == 0) {
        g_options = HostOptions{argv[2], argv[3], argv[4], false};
        SERVICE_TABLE_ENTRYW services[] = {{&g_options.name[0], ServiceMain}, {nullptr, nullptr}};
        return StartServiceCtrlDispatcherW(services) ? 0 : static_cast<int>(GetLastError());
    } else if (argc == 4) {
        g_options = HostOptions{argv[1], argv[2], argv[3], true};
    } else {
        return 87;
    }
    return RunHost(g_options);
}
