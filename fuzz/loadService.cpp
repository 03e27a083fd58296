// Load: many collector processes (16 by default) each make many well-formed
// calls (1,000 by default) as fast as they can, started together, against the
// installed service. Every call must be answered S_OK by the same service
// process; its working set is sampled throughout and set against the payload
// it holds queued (the queue is unbounded and drained one event a second by
// design: nearly every call is still queued at the end). Then a well-formed
// call is still answered and the stop with the full queue ends in time.
//
//   fuzzLoadService [--clients N] [--calls N]
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "serviceCampaign.h"
#include "testSupport.h"

namespace {

const wchar_t kGoEvent[] = L"Local\\omkFuzzLoadGo";
// The bound on the working set's peak: three times the payload held queued
// (heap headers included), plus what each calling process costs the service
// under Wine while its calls arrive (RPC threads and buffers, measured at
// about 5 MiB each).
constexpr double kPayloadFactor = 3.0;
constexpr double kPerClientMiB = 6.0;

// What each call puts in the queue: the disk rule, tag "Load", one item "Seq" = "<client>-<call>".
size_t QueuedBytesPerCall() {
    omkfuzz::QueuedRule rule;
    rule.pluginChars = wcslen(L"OMKCollectorRules");
    rule.guidChars = wcslen(omkfuzz::kDiskRuleGuid);
    rule.arrays = rule.tag = true;
    rule.tagChars = 4;
    rule.elements = 1;
    rule.strings = 2;
    rule.textChars = 3 + 8;
    return omkfuzz::QueuedRuleBytes(rule);
}

int ClientMain(int client, int calls, const std::wstring& report) {
    svctest::Collector collector;
    HRESULT connected = collector.Connect();
    HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, kGoEvent);
    if (go != nullptr) WaitForSingleObject(go, 60000);
    int answered = 0, failed = 0;
    HRESULT firstFailure = S_OK;
    const ULONGLONG start = GetTickCount64();
    for (int i = 0; SUCCEEDED(connected) && i < calls; ++i) {
        const std::wstring value = std::to_wstring(client) + L"-" + std::to_wstring(i);
        HRESULT hr = collector.RuleTriggered(omkfuzz::kDiskRuleGuid, L"Load", L"Seq", value.c_str());
        if (hr == S_OK) {
            ++answered;
        } else {
            if (failed++ == 0) firstFailure = hr;
        }
    }
    const ULONGLONG elapsed = GetTickCount64() - start;
    FILE* out = _wfopen(report.c_str(), L"w");
    if (out == nullptr) return 2;
    fprintf(out, "%d %d %llu 0x%08lx 0x%08lx\n", answered, failed, elapsed, static_cast<unsigned long>(connected),
            static_cast<unsigned long>(firstFailure));
    fclose(out);
    return 0;
}

int CampaignMain(int clients, int calls) {
    const ULONGLONG start = GetTickCount64();
    omkfuzz::Tally tally;
    std::vector<std::string> problems;
    omkfuzz::CampaignService target;
    if (!target.Settle("load")) return 2;

    omktest::TempFolder scratch;
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, kGoEvent);
    std::vector<HANDLE> processes;
    for (int c = 0; c < clients; ++c) {
        processes.push_back(omkfuzz::StartSelf(L"--client " + std::to_wstring(c) + L" --calls " +
                                               std::to_wstring(calls) + L" --report \"" +
                                               scratch.File(std::to_wstring(c) + L".txt") + L"\""));
    }
    Sleep(3000);  // every client connected and waiting
    const ULONGLONG loadStart = GetTickCount64();
    SetEvent(go);
    double peak = target.settled.working;
    for (HANDLE p : processes) {
        // Sampled while the calls arrive; each client is given ten minutes.
        while (p != nullptr && WaitForSingleObject(p, 100) == WAIT_TIMEOUT) {
            peak = std::max(peak, omkfuzz::ProcessMemory(target.process).working);
            if (GetTickCount64() - loadStart > 600000) {
                ++tally.hangs;
                problems.push_back("a client did not finish its calls in ten minutes");
                TerminateProcess(p, 0xDEAD);
            }
        }
        if (p != nullptr) CloseHandle(p);
    }
    const double loadSeconds = static_cast<double>(GetTickCount64() - loadStart) / 1000.0;
    CloseHandle(go);
    long long answered = 0;
    for (int c = 0; c < clients; ++c) {
        int ok = 0, failed = 0;
        unsigned long long ms = 0;
        unsigned long connected = 0, failure = 0;
        const std::string line = omktest::ReadFileBytes(scratch.File(std::to_wstring(c) + L".txt"));
        if (sscanf(line.c_str(), "%d %d %llu 0x%lx 0x%lx", &ok, &failed, &ms, &connected, &failure) != 5) {
            ++tally.failures;
            problems.push_back("client " + std::to_string(c) + " reported nothing");
            continue;
        }
        answered += ok;
        tally.inputs += static_cast<uint64_t>(ok + failed);
        if (failed != 0 || connected != 0) {
            ++tally.failures;
            problems.push_back("client " + std::to_string(c) + ": " + line);
        }
    }
    const omkfuzz::Memory after = omkfuzz::ProcessMemory(target.process);
    peak = std::max(peak, after.working);
    const double payload = static_cast<double>(answered) * static_cast<double>(QueuedBytesPerCall()) / 1048576.0;
    const double bound = kPayloadFactor * payload + kPerClientMiB * clients;
    if (peak - target.settled.working > bound) {
        ++tally.failures;
        problems.push_back("the working set grew beyond its bound");
    }
    target.CheckAfterCalls(tally, problems);

    tally.seconds = static_cast<double>(GetTickCount64() - start) / 1000.0;
    for (const std::string& problem : problems) fprintf(stderr, "load: %s\n", problem.c_str());
    char extra[512];
    _snprintf(extra, sizeof(extra) - 1,
              "%d processes x %d calls, %lld answered in %.1f s (%.0f calls/s), queued payload %.1f MiB, service "
              "working set %.1f -> %.1f MiB (peak %.1f, growth %.1f MiB; bound %.0f x payload + %.0f MiB a process)",
              clients, calls, answered, loadSeconds, answered / std::max(loadSeconds, 0.001), payload, target.settled.working,
              after.working, peak, peak - target.settled.working, kPayloadFactor, kPerClientMiB);
    extra[sizeof(extra) - 1] = '\0';
    omkfuzz::PrintLine("load", tally, extra);
    return tally.crashes + tally.hangs + tally.failures == 0 ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    int clients = 16, calls = 1000, client = -1;
    std::wstring report;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::wstring arg = argv[i];
        if (arg == L"--clients") clients = std::max(1, _wtoi(argv[i + 1]));
        if (arg == L"--calls") calls = std::max(1, _wtoi(argv[i + 1]));
        if (arg == L"--client") client = _wtoi(argv[i + 1]);
        if (arg == L"--report") report = argv[i + 1];
    }
    return client >= 0 ? ClientMain(client, calls, report) : CampaignMain(clients, calls);
}
