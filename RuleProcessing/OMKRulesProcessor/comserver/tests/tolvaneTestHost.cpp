// tolvaneTestHost: serves the Tolvane class the way the service does (COM
// server thread and engine thread over the real queue), with a
// Tolvane_HandleEvents that writes each item it is given to a record file.
//
//   tolvaneTestHost <name> <record file> <error log name>
//
// The test drives it through the manual-reset events Local\<name>.ready (set
// by the host once it serves), .stop (stop as the service does: engine, then
// COM server, then record "stopped") and .exit (end the process). Its main
// thread stays in the multithreaded apartment throughout, as other threads of
// the service may. Started by COM from its LocalServer32 registration
// ("-Embedding"), it runs under the name tolvaneTestHost-embedded, recording
// into %TEMP%\tolvaneTestHost-embedded.txt. As a Windows service:
//
//   tolvaneTestHost service <service name> <record file> <error log name>
//
// it serves from ServiceMain until the service manager stops it.
#include <windows.h>

#include <mutex>
#include <string>

#include "comServer.h"
#include "conventions.h"
#include "hostRecord.h"
#include "omkErrors.h"
#include "workQueue.h"

namespace {

// The host does not outlive a test that forgot it.
constexpr DWORD kLifetimeMs = 180000;

HANDLE g_record = INVALID_HANDLE_VALUE;
std::mutex g_recordLock;

void WriteRecord(const std::string& line) {
    std::lock_guard<std::mutex> guard(g_recordLock);
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(g_record, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

// True when bytes [from, to) of the item all hold the fill byte.
std::string FillState(const WORK_ITEM* item, size_t from, size_t to) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(item);
    for (size_t i = from; i < to; ++i) {
        if (bytes[i] != OMK_FILL_BYTE) return "bad";
    }
    return "ok";
}

HANDLE HostEvent(const std::wstring& name, const wchar_t* which) {
    return CreateEventW(nullptr, TRUE, FALSE, hostrecord::EventName(name, which).c_str());
}

}  // namespace

void Tolvane_HandleEvents(WORK_ITEM* item) {
    using namespace hostrecord;
    std::string line = "item kind=" + std::to_string(item->kind);
    if (item->kind == WORK_SUMMARY_CREATED) {
        line += " fill=" + FillState(item, offsetof(WORK_ITEM, u), sizeof(WORK_ITEM));
    } else if (item->kind == WORK_RULE_TRIGGERED) {
        const auto& rule = item->u.ruleTriggered;
        line += " plugin=" + RecordText(rule.rulePluginId) + " guid=" + RecordText(rule.ruleGuid) +
                " tag=" + RecordText(rule.dataItemsEnclosingXmlTag) + " n=" + std::to_string(rule.numDataItems) +
                " names=" + RecordArray(rule.dataItemName) + " vals=" + RecordArray(rule.dataItemVal);
    } else if (item->kind == WORK_PERIODIC_DATA) {
        const auto& periodic = item->u.periodicData;
        line += " code=" + std::to_string(periodic.code) + " sub=" + std::to_string(periodic.subCode) +
                " ts=" + std::to_string(periodic.timeStamp) + " len=" + std::to_string(periodic.dataLen) +
                " data=" + RecordBytes(periodic.data, periodic.dataLen) +
                " fill=" + FillState(item, offsetof(WORK_ITEM, u.periodicData.unused), sizeof(WORK_ITEM));
    }
    WriteRecord(line);
}

namespace {

struct HostOptions {
    std::wstring name;
    std::wstring recordPath;
    std::wstring logName;
    bool lingers = false;  // waits for .exit after stopping
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
    g_record = CreateFileW(options.recordPath.c_str(), GENERIC_WRITE,
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
    WriteRecord("engine tid=" + std::to_string(g_TolvaneThreadId) + " start=" + std::to_string(error));
    WriteRecord("host pid=" + std::to_string(GetCurrentProcessId()));
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
        g_options.name = L"tolvaneTestHost-embedded";
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        g_options.recordPath = std::wstring(temp) + g_options.name + L".txt";
        g_options.logName = g_options.name + L".txt";
        return RunHost(g_options);
    }
    if (argc == 5 && wcscmp(argv[1], L"service") == 0) {
        g_options = HostOptions{argv[2], argv[3], argv[4], false};
        SERVICE_TABLE_ENTRYW services[] = {{&g_options.name[0], ServiceMain}, {nullptr, nullptr}};
        return StartServiceCtrlDispatcherW(services) ? 0 : static_cast<int>(GetLastError());
    }
    if (argc != 4) return 87;
    g_options = HostOptions{argv[1], argv[2], argv[3], true};
    return RunHost(g_options);
}
