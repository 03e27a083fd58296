// Collector calls: random sequences of the three ITolvane methods, with
// random strings (null, empty, huge, format characters, markup, lone
// surrogates, zero characters) and arrays of every element type, dimension,
// bound and size, sent over real out-of-process COM from several client
// processes to the installed service. Each call must answer what the design
// says for its arguments; the service must stay the same process; its working
// set must stay within a stated bound of what it holds queued (the queue is
// unbounded and drained one event a second by design); afterwards it answers a
// well-formed call, stops in time with its queue full, and once started again
// stores the alert of a well-formed call.
//
//   fuzzCollectorCalls [--seed N] [--count N] [--clients N] [--corpus FOLDER]
//
// A call that broke a promise is kept in the corpus folder as a file "<seed>
// <index>" and replayed first by every later run.
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "serviceCampaign.h"
#include "tolvaneCalls.h"
#include "testSupport.h"

namespace {

// The bound on the service's working set: the payload it holds queued, heap
// headers included, three times over (what the allocator keeps beside it),
// plus what serving the client processes costs under Wine (RPC threads and
// buffers, about 5 MiB a client while calls arrive: see the load campaign).
constexpr double kPayloadFactor = 3.0;
constexpr double kOverheadAllowanceMiB = 64.0;

// A client process: its share of the inputs (index % clients == client), the
// replays first; a report line per promise broken, and its totals.
int ClientMain(uint64_t seed, uint64_t count, unsigned client, unsigned clients, const std::wstring& replays,
               const std::wstring& report) {
    FILE* out = _wfopen(report.c_str(), L"w");
    if (out == nullptr) return 2;
    svctest::Collector collector;
    HRESULT hr = collector.Connect();
    if (FAILED(hr)) {
        fprintf(out, "fail connect 0x%08lx\n", static_cast<unsigned long>(hr));
        fclose(out);
        return 1;
    }
    std::vector<std::pair<uint64_t, uint64_t>> inputs;  // seed, index
    for (const wchar_t* at = replays.c_str(); client == 0 && *at != L'\0';) {
        wchar_t* end = nullptr;
        uint64_t s = _wcstoui64(at, &end, 10);
        uint64_t i = _wcstoui64(end + 1, &end, 10);
        inputs.emplace_back(s, i);
        at = *end == L',' ? end + 1 : end;
    }
    for (uint64_t i = client; i < count; i += clients) inputs.emplace_back(seed, i);
    unsigned long long calls = 0, accepted = 0, payload = 0;
    for (const auto& input : inputs) {
        omkfuzz::TolvaneCall call = omkfuzz::MakeCall(collector.Get(), input.first, input.second);
        ++calls;
        if (omkfuzz::IsGone(call.result)) {
            fprintf(out, "gone %llu %llu 0x%08lx\n", static_cast<unsigned long long>(input.first),
                    static_cast<unsigned long long>(input.second), static_cast<unsigned long>(call.result));
            break;
        }
        // The marshaller may refuse an argument the design refuses too, with its own code.
        const bool asDesigned = call.result == call.expected || (call.expected == E_INVALIDARG && FAILED(call.result));
        if (!asDesigned) {
            fprintf(out, "fail %llu %llu answered 0x%08lx, the design says 0x%08lx\n",
                    static_cast<unsigned long long>(input.first), static_cast<unsigned long long>(input.second),
                    static_cast<unsigned long>(call.result), static_cast<unsigned long>(call.expected));
        }
        if (call.result == S_OK) {
            ++accepted;
            payload += call.queuedBytes;
        }
        fflush(out);
    }
    fprintf(out, "calls %llu\naccepted %llu\npayload %llu\n", calls, accepted, payload);
    fclose(out);
    return 0;
}

struct Options {
    uint64_t seed = 1;
    uint64_t count = 300;
    unsigned clients = 4;
    std::wstring corpus;
};

// The corpus: files of "<seed> <index>", as "seed:index,..." for client 0.
std::wstring Replays(const std::wstring& folder, uint64_t* number) {
    std::wstring list;
    *number = 0;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"\\*.call").c_str(), &data);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        unsigned long long s = 0, i = 0;
        if (sscanf(omktest::ReadFileBytes(folder + L"\\" + data.cFileName).c_str(), "%llu %llu", &s, &i) == 2) {
            list += (list.empty() ? L"" : L",") + std::to_wstring(s) + L":" + std::to_wstring(i);
            ++*number;
        }
    }
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
    return list;
}

int CampaignMain(const Options& options) {
    const ULONGLONG start = GetTickCount64();
    omkfuzz::Tally tally;
    std::vector<std::string> problems;
    omkfuzz::CampaignService target;
    if (!target.Settle("collector calls")) return 2;

    uint64_t replayCount = 0;
    const std::wstring replays = options.corpus.empty() ? L"" : Replays(options.corpus, &replayCount);
    omktest::TempFolder scratch;
    std::vector<HANDLE> clients;
    for (unsigned c = 0; c < options.clients; ++c) {
        clients.push_back(omkfuzz::StartSelf(
            L"--client " + std::to_wstring(c) + L" --clients " + std::to_wstring(options.clients) + L" --seed " +
            std::to_wstring(options.seed) + L" --count " + std::to_wstring(options.count) + L" --replays \"" + replays +
            L"\" --report \"" + scratch.File(L"client" + std::to_wstring(c) + L".txt") + L"\""));
    }
    // A call takes milliseconds; a big one well under a second.
    const DWORD limit = static_cast<DWORD>(120000 + options.count * 200);
    for (HANDLE client : clients) {
        if (client == nullptr || WaitForSingleObject(client, limit) != WAIT_OBJECT_0) {
            ++tally.hangs;
            problems.push_back("a client did not finish: the service stopped answering");
            if (client != nullptr) TerminateProcess(client, 0xDEAD);
        }
        if (client != nullptr) CloseHandle(client);
    }
    unsigned long long accepted = 0, payload = 0;
    for (unsigned c = 0; c < options.clients; ++c) {
        std::string report = omktest::ReadFileBytes(scratch.File(L"client" + std::to_wstring(c) + L".txt"));
        for (size_t s = 0, e; s < report.size(); s = e + 1) {
            e = report.find('\n', s);
            if (e == std::string::npos) e = report.size();
            const std::string line = report.substr(s, e - s);
            unsigned long long value = 0, seed = 0, index = 0;
            if (sscanf(line.c_str(), "calls %llu", &value) == 1) tally.inputs += value;
            if (sscanf(line.c_str(), "accepted %llu", &value) == 1) accepted += value;
            if (sscanf(line.c_str(), "payload %llu", &value) == 1) payload += value;
            const bool gone = sscanf(line.c_str(), "gone %llu %llu", &seed, &index) == 2;
            const bool failed = sscanf(line.c_str(), "fail %llu %llu", &seed, &index) == 2;
            if (gone || failed) {
                (gone ? tally.crashes : tally.failures)++;
                problems.push_back(line);
                if (!options.corpus.empty() && seed == options.seed) {
                    omktest::WriteFileBytes(options.corpus + L"\\" + (gone ? L"crash-" : L"fail-") +
                                                std::to_wstring(seed) + L"-" + std::to_wstring(index) + L".call",
                                            std::to_string(seed) + " " + std::to_string(index) + "\n");
                }
            }
        }
    }

    // What it holds queued; the same process, still answering, and a stop in
    // time with the queue full.
    const omkfuzz::Memory after = omkfuzz::ProcessMemory(target.process);
    const double payloadMiB = payload / 1048576.0;
    const double bound = kPayloadFactor * payloadMiB + kOverheadAllowanceMiB;
    if (after.working - target.settled.working > bound) {
        ++tally.failures;
        problems.push_back("working set grew beyond its bound");
    }
    target.CheckAfterCalls(tally, problems);
    // Started again, the service stores a well-formed call's alert.
    const ULONGLONG latest = svctest::LatestAlertTime();
    svctest::Collector collector;
    const std::string marker = "after-campaign-" + std::to_string(GetTickCount64());
    if (FAILED(collector.Connect()) ||
        collector.RuleTriggered(omkfuzz::kDiskRuleGuid, L"Disk", L"Fuzz", omktest::FromUtf8(marker).c_str()) != S_OK ||
        !omkfuzz::WaitForAlert(latest, marker, 30000)) {
        ++tally.failures;
        problems.push_back("started again, the service did not store a well-formed call's alert");
    }
    collector.Release();
    target.service.StopAndWait();

    tally.seconds = static_cast<double>(GetTickCount64() - start) / 1000.0;
    for (const std::string& problem : problems) fprintf(stderr, "collector calls: %s\n", problem.c_str());
    char extra[512];
    _snprintf(extra, sizeof(extra) - 1,
              "%llu of them corpus replays, %u client processes, %llu accepted, queued payload %.1f MiB, service "
              "working set %.1f -> %.1f MiB (peak %.1f), bound: growth <= %.0f x payload + %.0f MiB",
              static_cast<unsigned long long>(replayCount), options.clients, accepted, payloadMiB, target.settled.working,
              after.working, after.peak, kPayloadFactor, kOverheadAllowanceMiB);
    extra[sizeof(extra) - 1] = '\0';
    omkfuzz::PrintLine("collector calls", tally, extra);
    return tally.crashes + tally.hangs + tally.failures == 0 ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    Options options;
    int client = -1;
    std::wstring replays, report;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::wstring arg = argv[i];
        if (arg == L"--seed") options.seed = _wcstoui64(argv[i + 1], nullptr, 10);
        if (arg == L"--count") options.count = _wcstoui64(argv[i + 1], nullptr, 10);
        if (arg == L"--clients") options.clients = static_cast<unsigned>(_wtoi(argv[i + 1]));
        if (arg == L"--corpus") options.corpus = argv[i + 1];
        if (arg == L"--client") client = _wtoi(argv[i + 1]);
        if (arg == L"--replays") replays = argv[i + 1];
        if (arg == L"--report") report = argv[i + 1];
    }
    if (options.clients == 0) options.clients = 1;
    if (client >= 0) {
        return ClientMain(options.seed, options.count, static_cast<unsigned>(client), options.clients, replays, report);
    }
    if (!options.corpus.empty()) CreateDirectoryW(options.corpus.c_str(), nullptr);
    return CampaignMain(options);
}
