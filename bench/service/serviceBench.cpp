// The installed service under the service manager:
//   - start to running (StartService until the running state is reported) with
//     the sample rule file and with 1,000 rules, in turn (target: 1,000 rules
//     within 1,000 ms);
//   - working set of the idle running service against its floor, an empty
//     service process with COM and MSXML loaded (omkEmptyService), started in
//     turn (target: at most 1.3 times the floor);
//   - CPU time of the idle running service over 60 s (it should not poll);
//   - working set after 10,000 events queued over COM (the engine takes one
//     event a second, so they stay queued).
// The last part ends the service process with TerminateProcess (a stop would
// first wait for the queue), after which Wine's service manager believes the
// service still runs: run the bench in a prefix of its own and restart that
// prefix's wineserver afterwards, e.g.
//   WINEPREFIX=$PWD/build/benchprefix WINEDEBUG=-all wine build/bin/serviceBench.exe [idle seconds]
//   WINEPREFIX=$PWD/build/benchprefix wineserver -k
#include <windows.h>

#include <psapi.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "benchSupport.h"
#include "installedService.h"
#include "testPlugins.h"
#include "testSupport.h"

namespace {

const std::wstring kInstall = L"C:\\omkbench-svc";
constexpr int kStartRounds = 5;
constexpr int kMemoryRounds = 3;
constexpr DWORD kSettleMs = 2000;
constexpr int kQueuedEvents = 10000;

std::wstring ProgramFolder() {
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, n);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

void Fail(const char* what, DWORD error = GetLastError()) {
    fprintf(stderr, "%s failed: %lu\n", what, error);
    exit(1);
}

// StartService, retried while a service manager that has just started still
// holds its database lock; then waits for the running state. Milliseconds taken.
double StartAndWait(SC_HANDLE service) {
    double start = omkbench::NowMs();
    BOOL started = StartServiceW(service, 0, nullptr);
    for (int retry = 0; !started && GetLastError() == ERROR_SERVICE_DATABASE_LOCKED && retry < 50; ++retry) {
        Sleep(100);
        started = StartServiceW(service, 0, nullptr);
    }
    if (!started) Fail("StartService");
    SERVICE_STATUS status = {};
    while (QueryServiceStatus(service, &status) && status.dwCurrentState != SERVICE_RUNNING) {
        if (status.dwCurrentState == SERVICE_STOPPED || omkbench::NowMs() - start > 120000) Fail("start", 0);
        Sleep(5);
    }
    return omkbench::NowMs() - start;
}

DWORD ProcessIdOf(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status), &needed);
    return status.dwProcessId;
}

void StopAndWait(SC_HANDLE service) {
    SERVICE_STATUS status = {};
    ControlService(service, SERVICE_CONTROL_STOP, &status);
    for (int i = 0; i < 3000 && QueryServiceStatus(service, &status) && status.dwCurrentState != SERVICE_STOPPED; ++i)
        Sleep(10);
}

// Working set in MiB of a service started for it, once it has settled.
double SettledWorkingSetMiB(SC_HANDLE service) {
    StartAndWait(service);
    Sleep(kSettleMs);
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, ProcessIdOf(service));
    if (process == nullptr) Fail("OpenProcess");
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof(counters);
    GetProcessMemoryInfo(process, &counters, sizeof(counters));
    CloseHandle(process);
    StopAndWait(service);
    return static_cast<double>(counters.WorkingSetSize) / 1048576.0;
}

// The empty service under `name`, with `arguments` ("wmi" adds the WMI query
// of the platform filter), installed for the bench and deleted afterwards.
class EmptyService {
public:
    EmptyService(const wchar_t* name, const wchar_t* arguments) {
        manager_ = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        const std::wstring path = L"\"" + ProgramFolder() + L"\\omkEmptyService.exe\" " + arguments;
        service_ = CreateServiceW(manager_, name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                  SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE, path.c_str(), nullptr, nullptr, nullptr,
                                  nullptr, nullptr);
        if (service_ == nullptr && GetLastError() == ERROR_SERVICE_EXISTS)
            service_ = OpenServiceW(manager_, name, SERVICE_ALL_ACCESS);
        if (service_ == nullptr) Fail("installing the empty service");
    }
    ~EmptyService() {
        StopAndWait(service_);
        DeleteService(service_);
        CloseServiceHandle(service_);
        CloseServiceHandle(manager_);
    }
    SC_HANDLE Handle() const { return service_; }

private:
    SC_HANDLE manager_ = nullptr;
    SC_HANDLE service_ = nullptr;
};

double ProcessCpuMs(HANDLE process) {
    FILETIME created, exited, kernel, user;
    GetProcessTimes(process, &created, &exited, &kernel, &user);
    return omkbench::FileTimeMs(kernel) + omkbench::FileTimeMs(user);
}

void PrintMemory(const char* when, HANDLE process) {
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof(counters);
    GetProcessMemoryInfo(process, &counters, sizeof(counters));
    printf("  working set %s: %.1f MiB (peak %.1f MiB)\n", when,
           static_cast<double>(counters.WorkingSetSize) / 1048576.0,
           static_cast<double>(counters.PeakWorkingSetSize) / 1048576.0);
}

// Queues `count` triggered-rule events of a rule the file does not have.
bool QueueEvents(int count) {
    svctest::Collector collector;
    if (FAILED(collector.Connect())) return false;
    bool ok = true;
    double start = omkbench::NowMs();
    for (int i = 0; ok && i < count; ++i)
        ok = SUCCEEDED(collector.RuleTriggered(L"{00000000-1111-2222-3333-444444444444}", L"Battery", L"CycleCount", L"812"));
    printf("  %d events queued over COM in %.0f ms\n", count, omkbench::NowMs() - start);
    return ok;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const DWORD idleSeconds = argc > 1 ? static_cast<DWORD>(_wtoi(argv[1])) : 60;
    omktest::InstallTestRoot();
    svctest::RunInstaller(L"uninstall", kInstall);
    if (svctest::RunInstaller(L"install", kInstall) != 0) {
        fprintf(stderr, "installation failed\n");
        return 1;
    }
    const std::wstring rules = kInstall + L"\\insvcAlerts.xml";
    const std::string sample = omktest::ReadFileBytes(rules);
    const std::string thousand = omkbench::CollectorRulesFile(1000);
    svctest::InstalledService service;
    service.StopAndWait();

    std::vector<double> sampleMs, thousandMs;
    for (int i = 0; i < kStartRounds; ++i) {
        omktest::WriteFileBytes(rules, sample);
        sampleMs.push_back(StartAndWait(service.Handle()));
        service.StopAndWait();
        omktest::WriteFileBytes(rules, thousand);
        thousandMs.push_back(StartAndWait(service.Handle()));
        service.StopAndWait();
    }
    omktest::WriteFileBytes(rules, sample);
    printf("Service start to running, median of %d, in turn (target: 1,000 rules within 1000 ms)\n", kStartRounds);
    printf("  sample rule file: %.0f ms\n  1,000 rules:      %.0f ms\n", omkbench::Median(sampleMs),
           omkbench::Median(thousandMs));
    fflush(stdout);

    std::vector<double> serviceMiB, emptyMiB, wmiMiB;
    {
        EmptyService empty(L"OMKBenchEmptyService", L"");
        EmptyService wmi(L"OMKBenchEmptyWmiService", L"wmi");
        for (int i = 0; i < kMemoryRounds; ++i) {
            serviceMiB.push_back(SettledWorkingSetMiB(service.Handle()));
            emptyMiB.push_back(SettledWorkingSetMiB(empty.Handle()));
            wmiMiB.push_back(SettledWorkingSetMiB(wmi.Handle()));
        }
    }
    const double serviceWs = omkbench::Median(serviceMiB), emptyWs = omkbench::Median(emptyMiB),
                 wmiWs = omkbench::Median(wmiMiB);
    printf("Working set %.0f s after start, median of %d, in turn (target: service/floor <= 1.3)\n",
           kSettleMs / 1000.0, kMemoryRounds);
    printf("  service (sample rule file):                          %5.1f MiB\n", serviceWs);
    printf("  floor (empty service, COM and MSXML loaded):         %5.1f MiB  service/floor %.2f\n", emptyWs,
           serviceWs / emptyWs);
    printf("  floor with the platform filter's WMI query:          %5.1f MiB  service/this   %.2f\n", wmiWs,
           serviceWs / wmiWs);
    fflush(stdout);

    printf("The running service, idle and then with a long queue:\n");
    StartAndWait(service.Handle());
    Sleep(kSettleMs);
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ | PROCESS_TERMINATE, FALSE,
                                 service.ProcessId());
    if (process == nullptr) {
        fprintf(stderr, "cannot open the service process: %lu\n", GetLastError());
        return 1;
    }
    PrintMemory("after start", process);
    double cpuBefore = ProcessCpuMs(process);
    Sleep(idleSeconds * 1000);
    printf("  idle CPU time over %lu s: %.0f ms\n", idleSeconds, ProcessCpuMs(process) - cpuBefore);
    fflush(stdout);

    if (!QueueEvents(kQueuedEvents)) fprintf(stderr, "queueing events failed\n");
    PrintMemory("after 10,000 queued events", process);

    TerminateProcess(process, 1);
    CloseHandle(process);
    service.Close();
    printf("The service process was terminated: restart this prefix's wineserver (wineserver -k).\n");
    return 0;
}
