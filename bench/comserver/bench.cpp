// tolvaneBench: latency of each ITolvane method over out-of-process COM,
// against the same call signature on a do-nothing baseline served by the same
// host process, with an empty queue and with about 1,000 and 10,000 items
// already queued (the engine thread is held so that the queue stays full).
// Real and baseline calls are interleaved, so that both see the same load.
// Target: real/baseline at most 1.05 with an empty queue. Last, the two
// system calls every queued item costs by design (its trace line and the
// SetEvent that wakes the engine) are timed on their own, for the floor of
// that ratio.
//
//   tolvaneBench [calls per method with an empty queue, default 1000]
#include <windows.h>

#include <stdio.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "CTolvane.h"
#include "benchShared.h"
#include "benchSupport.h"
#include "comRegistration.h"
#include "conventions.h"
#include "engineTestSupport.h"
#include "tolvane.h"
#include "tolvaneBench.h"
#include "workQueue.h"

// The in-process part queues without an engine thread.
void Tolvane_HandleEvents(WORK_ITEM*) {}

namespace {

std::wstring ProgramFolder() {
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, n);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

double g_ticksPerMicrosecond = 1.0;

double Microseconds(const std::function<HRESULT()>& call, HRESULT* result) {
    LARGE_INTEGER before;
    LARGE_INTEGER after;
    QueryPerformanceCounter(&before);
    *result = call();
    QueryPerformanceCounter(&after);
    return static_cast<double>(after.QuadPart - before.QuadPart) / g_ticksPerMicrosecond;
}

double Mean(const std::vector<double>& values) {
    double sum = 0;
    for (double value : values) sum += value;
    return sum / static_cast<double>(values.size());
}

// The same three calls on the real object and on the baseline.
struct Method {
    const char* name;
    std::function<HRESULT()> real;
    std::function<HRESULT()> baseline;
};

class Bench {
public:
    Bench(ITolvane* tolvane, bench::Stats* stats, HANDLE release)
        : tolvane_(tolvane), stats_(stats), release_(release) {}

    // Items in the queue: sent but neither handled nor held by the engine.
    long Queued() const { return sent_ - stats_->handled - (held_ ? 1 : 0); }

    HRESULT Send() {
        ++sent_;
        return tolvane_->Tolvane_SummaryCreated();
    }
    void CountSent() { ++sent_; }

    bool Drain() {
        stats_->hold = 0;
        SetEvent(release_);
        held_ = false;
        DWORD start = GetTickCount();
        while (stats_->handled < sent_) {
            if (GetTickCount() - start > 120000) return false;
            Sleep(5);
        }
        return true;
    }

    // Holds the engine on one item and queues `count` more behind it.
    bool Fill(long count) {
        ResetEvent(release_);
        stats_->hold = 1;
        if (FAILED(Send())) return false;
        Sleep(100);  // the engine takes that item and waits
        held_ = true;
        while (Queued() < count) {
            if (FAILED(Send())) return false;
        }
        return true;
    }

    // Interleaves real and baseline calls of every method, alternating which
    // goes first, and prints one line per method. The load on a shared machine
    // drifts, so the figure to read is the median of the ratios of adjacent
    // pairs; the medians and means of each side are printed beside it.
    bool Measure(const char* label, std::vector<Method>& methods, int calls) {
        std::vector<std::vector<double>> real(methods.size());
        std::vector<std::vector<double>> baseline(methods.size());
        std::vector<std::vector<double>> ratios(methods.size());
        const long queuedBefore = Queued();
        for (int i = 0; i < calls; ++i) {
            for (size_t m = 0; m < methods.size(); ++m) {
                HRESULT realResult = S_OK;
                HRESULT baselineResult = S_OK;
                double realUs = 0;
                double baselineUs = 0;
                if (i % 2 == 0) {
                    realUs = Microseconds(methods[m].real, &realResult);
                    baselineUs = Microseconds(methods[m].baseline, &baselineResult);
                } else {
                    baselineUs = Microseconds(methods[m].baseline, &baselineResult);
                    realUs = Microseconds(methods[m].real, &realResult);
                }
                CountSent();
                if (FAILED(realResult) || FAILED(baselineResult)) {
                    printf("call failed: 0x%08lx / 0x%08lx\n", static_cast<unsigned long>(realResult),
                           static_cast<unsigned long>(baselineResult));
                    return false;
                }
                real[m].push_back(realUs);
                baseline[m].push_back(baselineUs);
                ratios[m].push_back(realUs / baselineUs);
            }
        }
        const long queuedAfter = Queued();
        lastBaselineMedian_ = omkbench::Median(baseline[0]);
        for (size_t m = 0; m < methods.size(); ++m) {
            printf("%-7s %6ld..%-6ld %-31s %6d %9.1f %9.1f %9.1f %9.1f %7.3f\n", label, queuedBefore, queuedAfter,
                   methods[m].name, calls, omkbench::Median(real[m]), omkbench::Median(baseline[m]), Mean(real[m]), Mean(baseline[m]),
                   omkbench::Median(ratios[m]));
        }
        return true;
    }

    // The baseline median of the first method in the last Measure.
    double LastBaselineMedian() const { return lastBaselineMedian_; }

private:
    double lastBaselineMedian_ = 0;
    ITolvane* tolvane_;
    bench::Stats* stats_;
    HANDLE release_;
    long sent_ = 0;
    bool held_ = false;
};

SAFEARRAY* Strings(const wchar_t* prefix, int count) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, count);
    for (LONG i = 0; i < count; ++i) {
        BSTR text = SysAllocString((std::wstring(prefix) + std::to_wstring(i)).c_str());
        SafeArrayPutElement(array, &i, text);
        SysFreeString(text);
    }
    return array;
}

// The trace line and the SetEvent of AddToWorkQueue on their own, median
// microseconds of 300 each; prints them and the ratio they leave as a floor
// over a baseline call of `baselineUs`.
void MeasureRequiredCalls(double baselineUs) {
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::vector<double> trace, set;
    for (int i = 0; i < 300; ++i) {
        HRESULT ignored = S_OK;
        trace.push_back(Microseconds(
            [] {
                OmkTraceA("[%lu]%s() Added to head of queue.", GetCurrentThreadId(), "AddToWorkQueue");
                return S_OK;
            },
            &ignored));
        set.push_back(Microseconds([event] { return SetEvent(event) ? S_OK : E_FAIL; }, &ignored));
    }
    CloseHandle(event);
    const double required = omkbench::Median(trace) + omkbench::Median(set);
    printf("\nWhat every queued item costs by design, timed on their own (median of 300, microseconds):\n"
           "  trace line %.1f, SetEvent %.1f: with an empty-queue baseline call of %.1f the ratio cannot go\n"
           "  below %.3f\n",
           omkbench::Median(trace), omkbench::Median(set), baselineUs, (baselineUs + required) / baselineUs);
}

void DrainInProcess() {
    for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue()) FreeWorkItem(item);
}

// The methods' own cost, called directly on a CTolvane in this process: what
// the real object adds to a call, and how the walk to the tail grows with the
// queue.
void MeasureInProcess(SAFEARRAY* names, SAFEARRAY* values, SAFEARRAY* data) {
    omktest::InitWorkQueueLock();
    {
        CTolvane tolvane;
        BSTR plugin = SysAllocString(L"BenchRulePlugin");
        BSTR guid = SysAllocString(L"{0D6B5E2A-93C1-4F8E-A7B4-51C9E3D2F086}");
        BSTR tag = SysAllocString(L"BenchData");
        struct Call {
            const char* name;
            std::function<HRESULT()> call;
        };
        std::vector<Call> calls = {
            {"Tolvane_SummaryCreated", [&] { return tolvane.Tolvane_SummaryCreated(); }},
            {"Tolvane_RuleTriggered (8 items)",
             [&] { return tolvane.Tolvane_RuleTriggered(plugin, guid, tag, names, values); }},
            {"Tolvane_PeriodicDataGenerated",
             [&] { return tolvane.Tolvane_PeriodicDataGenerated(1, 2, 1700000000000LL, data); }},
        };
        printf("\nThe same methods called directly on the object in one process (no COM), 300 calls each:\n");
        printf("%-7s %-31s %9s %9s\n", "queue", "method", "median", "mean");
        for (long fill : {0L, 1000L, 10000L}) {
            for (const Call& call : calls) {
                for (long i = 0; i < fill; ++i) tolvane.Tolvane_SummaryCreated();
                std::vector<double> times;
                for (int i = 0; i < 300; ++i) {
                    HRESULT hr = S_OK;
                    times.push_back(Microseconds(call.call, &hr));
                    if (fill == 0) DrainInProcess();
                }
                DrainInProcess();
                printf("%-7ld %-31s %9.1f %9.1f\n", fill, call.name, omkbench::Median(times), Mean(times));
            }
        }
        SysFreeString(tag);
        SysFreeString(guid);
        SysFreeString(plugin);
    }
    omktest::DeleteWorkQueueLock();
}

int Run(int calls, const std::wstring& name) {
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, bench::EventName(name, L"ready").c_str());
    HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, bench::EventName(name, L"stop").c_str());
    HANDLE release = CreateEventW(nullptr, TRUE, TRUE, bench::EventName(name, L"release").c_str());
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(bench::Stats),
                                        bench::EventName(name, L"stats").c_str());
    auto* stats = static_cast<bench::Stats*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));

    std::wstring command = L"\"" + ProgramFolder() + L"\\tolvaneBenchHost.exe\" " + name;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION host = {};
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &host)) {
        printf("cannot start the host: %lu\n", GetLastError());
        return 1;
    }
    const HANDLE readyOrGone[2] = {ready, host.hProcess};
    if (WaitForMultipleObjects(2, readyOrGone, FALSE, 30000) != WAIT_OBJECT_0) {
        printf("the host did not start\n");
        TerminateProcess(host.hProcess, 1);
        return 1;
    }

    int status = 1;
    ITolvane* tolvane = nullptr;
    ITolvaneBenchNull* baseline = nullptr;
    HRESULT hr =
        CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane, reinterpret_cast<void**>(&tolvane));
    if (SUCCEEDED(hr)) {
        hr = CoCreateInstance(CLSID_TolvaneBenchNull, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvaneBenchNull,
                              reinterpret_cast<void**>(&baseline));
    }
    if (FAILED(hr)) {
        printf("CoCreateInstance failed 0x%08lx\n", static_cast<unsigned long>(hr));
    } else {
        BSTR plugin = SysAllocString(L"BenchRulePlugin");
        BSTR guid = SysAllocString(L"{0D6B5E2A-93C1-4F8E-A7B4-51C9E3D2F086}");
        BSTR tag = SysAllocString(L"BenchData");
        SAFEARRAY* names = Strings(L"name", 8);
        SAFEARRAY* values = Strings(L"value number ", 8);
        SAFEARRAY* data = SafeArrayCreateVector(VT_UI1, 0, 64);
        std::vector<Method> methods = {
            {"Tolvane_SummaryCreated", [&] { return tolvane->Tolvane_SummaryCreated(); },
             [&] { return baseline->Tolvane_SummaryCreated(); }},
            {"Tolvane_RuleTriggered (8 items)",
             [&] { return tolvane->Tolvane_RuleTriggered(plugin, guid, tag, names, values); },
             [&] { return baseline->Tolvane_RuleTriggered(plugin, guid, tag, names, values); }},
            {"Tolvane_PeriodicDataGenerated",
             [&] { return tolvane->Tolvane_PeriodicDataGenerated(1, 2, 1700000000000LL, data); },
             [&] { return baseline->Tolvane_PeriodicDataGenerated(1, 2, 1700000000000LL, data); }},
        };
        Bench bench(tolvane, stats, release);
        printf(
            "ITolvane over out-of-process COM: the real object against a do-nothing baseline with the same\n"
            "call signatures, served by the same host process. Rule calls carry 8 data items, periodic calls\n"
            "64 bytes. Latencies in microseconds; real and baseline calls interleaved. Target: ratio <= 1.05\n"
            "with an empty queue (the ratio column is the median of the ratios of adjacent pairs).\n\n");
        printf("%-7s %-14s %-31s %6s %9s %9s %9s %9s %7s\n", "queue", "queued", "method", "calls", "real med",
               "null med", "real mean", "null mean", "ratio");
        // Warm-up: connections, marshalling code, heap.
        bool ok = bench.Measure("warm-up", methods, 50) && bench.Drain();
        ok = ok && bench.Measure("empty", methods, calls) && bench.Drain();
        const double emptyBaselineUs = bench.LastBaselineMedian();
        // One method at a time on a fresh fill, so that each sees the same queue.
        for (long fill : {1000L, 10000L}) {
            for (size_t m = 0; ok && m < methods.size(); ++m) {
                std::vector<Method> one = {methods[m]};
                ok = bench.Fill(fill) && bench.Measure(fill == 1000 ? "1000" : "10000", one, 300) && bench.Drain();
            }
        }
        status = ok ? 0 : 1;
        if (ok) MeasureInProcess(names, values, data);
        if (ok) MeasureRequiredCalls(emptyBaselineUs);
        SafeArrayDestroy(data);
        SafeArrayDestroy(values);
        SafeArrayDestroy(names);
        SysFreeString(tag);
        SysFreeString(guid);
        SysFreeString(plugin);
    }
    if (baseline != nullptr) baseline->Release();
    if (tolvane != nullptr) tolvane->Release();
    stats->hold = 0;
    SetEvent(release);
    SetEvent(stop);
    if (WaitForSingleObject(host.hProcess, 60000) != WAIT_OBJECT_0) TerminateProcess(host.hProcess, 1);
    CloseHandle(host.hThread);
    CloseHandle(host.hProcess);
    return status;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const int calls = argc > 1 ? _wtoi(argv[1]) : 1000;
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    g_ticksPerMicrosecond = static_cast<double>(frequency.QuadPart) / 1e6;

    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return 1;
    const std::wstring host = ProgramFolder() + L"\\tolvaneBenchHost.exe";
    HRESULT hr = RegisterTypeLibFromModule(host.c_str());
    if (SUCCEEDED(hr)) hr = RegisterTypeLibFromModule((host + L"\\2").c_str());
    if (SUCCEEDED(hr)) {
        hr = RegisterLocalServerClass(CLSID_Tolvane, L"Tolvane coclass", LIBID_TolvaneLib, CLSID_Tolvane, host.c_str());
    }
    if (SUCCEEDED(hr)) {
        hr = RegisterLocalServerClass(CLSID_TolvaneBenchNull, L"TolvaneBenchNull coclass", LIBID_TolvaneBenchLib,
                                      CLSID_TolvaneBenchNull, host.c_str());
    }
    int status = 1;
    if (FAILED(hr)) {
        printf("registration failed 0x%08lx\n", static_cast<unsigned long>(hr));
    } else {
        status = Run(calls, L"tolvaneBench-" + std::to_wstring(GetCurrentProcessId()));
    }
    UnregisterClass(CLSID_TolvaneBenchNull, CLSID_TolvaneBenchNull);
    UnregisterClass(CLSID_Tolvane, CLSID_Tolvane);
    UnregisterTypeLibById(LIBID_TolvaneBenchLib, 1, 0, 0x0409, &IID_ITolvaneBenchNull, 1);
    UnregisterTypeLibById(LIBID_TolvaneLib, 1, 0, 0x0409, &IID_ITolvane, 1);
    CoUninitialize();
    return status;
}
