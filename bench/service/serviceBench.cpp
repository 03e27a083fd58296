// The installed service under the service manager:
//   - start to running (StartService until the running state is reported) with
//     the sample rule file and with 1,000 rules;
//   - CPU time of the idle running service over 60 s (it should not poll);
//   - working set after start and after 10,000 events queued over COM (the
//     engine takes one event a second, so they stay queued).
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
constexpr int kQueuedEvents = 10000;

// Median milliseconds from StartService to the running state.
double StartToRunningMs(svctest::InstalledService& service) {
    std::vector<double> samples;
    for (int i = 0; i < kStartRounds; ++i) {
        double start = omkbench::NowMs();
        // A service manager that has just started may still hold its database lock.
        bool started = service.Start();
        for (int retry = 0; !started && GetLastError() == ERROR_SERVICE_DATABASE_LOCKED && retry < 50; ++retry) {
            Sleep(100);
            started = service.Start();
        }
        if (!started) {
            fprintf(stderr, "StartService failed: %lu\n", GetLastError());
            exit(1);
        }
        while (service.Status().dwCurrentState != SERVICE_RUNNING) {
            if (service.Status().dwCurrentState == SERVICE_STOPPED || omkbench::NowMs() - start > 120000) {
                fprintf(stderr, "the service did not start:\n%s\n", service.LogSince().c_str());
                exit(1);
            }
            Sleep(5);
        }
        samples.push_back(omkbench::NowMs() - start);
        service.StopAndWait();
    }
    return omkbench::Median(samples);
}

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
    svctest::InstalledService service;
    service.StopAndWait();

    printf("Service start to running (median of %d)\n", kStartRounds);
    printf("  sample rule file: %.0f ms\n", StartToRunningMs(service));
    omktest::WriteFileBytes(rules, omkbench::CollectorRulesFile(1000));
    printf("  1,000 rules:      %.0f ms\n", StartToRunningMs(service));
    omktest::WriteFileBytes(rules, sample);
    fflush(stdout);

    service.Start();
    service.WaitForState(SERVICE_RUNNING);
    Sleep(2000);  // let start-up work settle
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
