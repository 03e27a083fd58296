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

#include "fuzzMutate.h"
#include "serviceCampaign.h"
#include "testSupport.h"

namespace {

using omkfuzz::Random;

// The bound on the service's working set: the payload it holds queued, heap
// headers included, three times over (what the allocator keeps beside it),
// plus what serving the client processes costs under Wine (RPC threads and
// buffers, about 5 MiB a client while calls arrive: see the load campaign).
constexpr double kPayloadFactor = 3.0;
constexpr double kOverheadAllowanceMiB = 64.0;
constexpr DWORD kGoneErrors[] = {0x800706BA, 0x800706BE, 0x800706BF, 0x80010108, 0x80010114};

const VARTYPE kElementTypes[] = {VT_I1,   VT_UI1,  VT_I2,   VT_UI2,  VT_I4,   VT_UI4,    VT_INT,     VT_UINT,
                                 VT_I8,   VT_UI8,  VT_R4,   VT_R8,   VT_CY,   VT_DATE,   VT_BOOL,    VT_ERROR,
                                 VT_DECIMAL, VT_VARIANT, VT_UNKNOWN, VT_DISPATCH, VT_BSTR};
const wchar_t* const kRuleGuids[] = {L"{6B1D2C3A-8E4F-4A51-9C7D-0E2F3A4B5C61}", omkfuzz::kDiskRuleGuid,
                                     L"{9a8b7c6d-5e4f-4321-8765-43210fedcb63}"};

struct Array {
    SAFEARRAY* array = nullptr;
    VARTYPE type = VT_EMPTY;
    UINT dims = 0;
    size_t elements = 0;  // of the last dimension
    size_t strings = 0;    // non-null ones
    size_t textChars = 0;  // of its strings, up to their first zero
};

// An array of `type` whose last dimension has `elements` elements: mostly one
// dimension, now and then two or three, random lower bounds; strings filled in
// up to `textBudget` characters in all (later strings stay null).
Array MakeArray(Random& random, VARTYPE type, size_t elements, size_t maxChars, size_t textBudget) {
    Array made;
    made.type = type;
    made.dims = random.OneIn(8) ? static_cast<UINT>(2 + random.Below(2)) : 1;
    SAFEARRAYBOUND bounds[3];
    size_t total = 1;
    for (UINT d = 0; d < made.dims; ++d) {
        bounds[d].cElements = static_cast<ULONG>(d + 1 == made.dims ? elements : random.Below(4));
        bounds[d].lLbound = random.OneIn(3) ? static_cast<LONG>(random.Below(2000000001)) - 1000000000 : 0;
        total *= bounds[d].cElements;
    }
    made.elements = made.dims == 1 ? elements : 0;
    made.array = SafeArrayCreate(type, made.dims, bounds);
    if (made.array == nullptr || total == 0) return made;
    void* data = nullptr;
    if (FAILED(SafeArrayAccessData(made.array, &data))) return made;
    if (type == VT_BSTR) {
        BSTR* strings = static_cast<BSTR*>(data);
        for (size_t i = 0; i < total && textBudget > 0; ++i) {
            if (random.OneIn(10)) continue;  // a null element
            std::wstring text = omkfuzz::RandomWideText(random, std::min(maxChars, textBudget));
            textBudget -= text.size();
            strings[i] = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
            made.textChars += wcslen(strings[i]);
            ++made.strings;
        }
    } else if (type == VT_VARIANT) {
        VARIANT* variants = static_cast<VARIANT*>(data);
        for (size_t i = 0; i < total && i < 4096; ++i) {
            if (random.OneIn(2)) {
                variants[i].vt = VT_BSTR;
                variants[i].bstrVal = SysAllocString(omkfuzz::RandomWideText(random, 16).c_str());
            } else {
                variants[i].vt = VT_I4;
                variants[i].lVal = static_cast<LONG>(random.Next());
            }
        }
    } else if (type != VT_UNKNOWN && type != VT_DISPATCH) {  // interface elements stay null
        unsigned char* bytes = static_cast<unsigned char*>(data);
        for (size_t i = 0, n = total * SafeArrayGetElemsize(made.array); i < n; ++i) {
            bytes[i] = static_cast<unsigned char>(random.Next());
        }
        if (type == VT_DECIMAL) {  // a decimal the marshaller can read: scale and sign in range
            for (size_t i = 0; i < total; ++i) {
                static_cast<DECIMAL*>(data)[i].scale %= 29;
                static_cast<DECIMAL*>(data)[i].sign &= 0x80;
                static_cast<DECIMAL*>(data)[i].wReserved = 0;
            }
        }
    }
    SafeArrayUnaccessData(made.array);
    return made;
}

VARTYPE ElementType(Random& random, VARTYPE usual) {
    return random.OneIn(3) ? kElementTypes[random.Below(sizeof(kElementTypes) / sizeof(kElementTypes[0]))] : usual;
}

// A text argument: null, a name the service knows, or hostile text.
BSTR Text(Random& random, const wchar_t* known, size_t maxChars) {
    if (random.OneIn(10)) return nullptr;
    if (known != nullptr && random.OneIn(2)) return SysAllocString(known);
    std::wstring text = omkfuzz::RandomWideText(random, maxChars);
    return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

size_t Chars(BSTR text) { return text != nullptr ? wcslen(text) : 0; }

// One call of input `index`, made; what it answered against what the design
// says, and what the service keeps queued for it.
struct Call {
    HRESULT result = S_OK;
    HRESULT expected = S_OK;
    size_t queuedBytes = 0;
};

Call MakeCall(ITolvane* tolvane, uint64_t seed, uint64_t index) {
    Random random = omkfuzz::InputRandom(seed, index);
    const bool big = random.OneIn(200);
    const size_t maxChars = big ? (1u << 20) : 256;
    const size_t maxElements = big ? (1u << 17) : 16;
    Call call;
    const size_t kind = random.Below(10);
    if (kind == 0) {
        call.result = tolvane->Tolvane_SummaryCreated();
        call.queuedBytes = omkfuzz::QueuedPeriodicBytes(0);  // an item and nothing else
        return call;
    }
    if (kind >= 7) {
        Array data;
        const VARTYPE type = ElementType(random, VT_UI1);
        const size_t most = type == VT_UI1 || type == VT_I1 ? maxElements * 8 : maxElements;
        if (!random.OneIn(10)) data = MakeArray(random, type, random.Size(most), 16, 4096);
        const int code = random.OneIn(2) ? 4097 : static_cast<int>(random.Next());
        const int subCode = random.OneIn(2) ? 2 : static_cast<int>(random.Next());
        call.result =
            tolvane->Tolvane_PeriodicDataGenerated(code, subCode, static_cast<INT64>(random.Next()), data.array);
        call.expected = data.array != nullptr && data.dims == 1 ? S_OK : E_INVALIDARG;
        call.queuedBytes = omkfuzz::QueuedPeriodicBytes(data.elements);
        if (data.array != nullptr) SafeArrayDestroy(data.array);
        return call;
    }
    BSTR plugin = Text(random, L"OMKCollectorRules", maxChars);
    BSTR guid = Text(random, kRuleGuids[random.Below(3)], maxChars);
    BSTR tag = Text(random, L"Disk", maxChars);
    Array names, values;
    const size_t shape = random.Below(8);  // 0: both arrays null, 1: one of them, else both given
    if (shape != 0) {
        const size_t elements = random.Size(maxElements);
        const size_t budget = big ? (1u << 22) : 4096;
        names = MakeArray(random, ElementType(random, VT_BSTR), elements, maxChars, budget);
        values = MakeArray(random, ElementType(random, names.type), random.OneIn(4) ? random.Size(maxElements) : elements,
                           maxChars, budget);
    }
    if (shape == 1) {
        Array& dropped = random.OneIn(2) ? names : values;
        SafeArrayDestroy(dropped.array);
        dropped = Array();
    }
    call.result = tolvane->Tolvane_RuleTriggered(plugin, guid, tag, names.array, values.array);
    auto refused = [](const Array& a) { return a.dims != 1 || a.type != VT_BSTR; };
    const bool bothNull = names.array == nullptr && values.array == nullptr;
    if ((names.array == nullptr) != (values.array == nullptr)) {
        call.expected = E_INVALIDARG;
    } else if (!bothNull && (refused(names) || refused(values) || names.elements != values.elements)) {
        call.expected = E_INVALIDARG;
    }
    if (call.expected == S_OK && plugin != nullptr && guid != nullptr) {
        omkfuzz::QueuedRule rule;
        rule.pluginChars = Chars(plugin);
        rule.guidChars = Chars(guid);
        rule.arrays = !bothNull;
        rule.tag = tag != nullptr;
        rule.tagChars = Chars(tag);
        rule.elements = names.elements;
        rule.strings = names.strings + values.strings;
        rule.textChars = names.textChars + values.textChars;
        call.queuedBytes = omkfuzz::QueuedRuleBytes(rule);
    }
    for (Array* a : {&names, &values}) {
        if (a->array != nullptr) SafeArrayDestroy(a->array);
    }
    SysFreeString(plugin);
    SysFreeString(guid);
    SysFreeString(tag);
    return call;
}

bool IsGone(HRESULT hr) {
    for (DWORD gone : kGoneErrors) {
        if (static_cast<DWORD>(hr) == gone) return true;
    }
    return false;
}

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
        Call call = MakeCall(collector.Get(), input.first, input.second);
        ++calls;
        if (IsGone(call.result)) {
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
    omkfuzz::InstalledProduct product;
    if (!product.Ok()) {
        fprintf(stderr, "collector calls: the product did not install\n");
        return 2;
    }
    svctest::InstalledService service;
    svctest::Collector starter;
    if (FAILED(starter.Connect()) || !service.WaitForState(SERVICE_RUNNING)) {
        fprintf(stderr, "collector calls: the service did not start\n");
        return 2;
    }
    const DWORD process = service.ProcessId();
    Sleep(2000);  // settled after its start
    const omkfuzz::Memory before = omkfuzz::ProcessMemory(process);
    service.MarkLogs();

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

    // The same process, still answering; what it holds queued.
    HANDLE handle = OpenProcess(SYNCHRONIZE, FALSE, process);
    const bool alive = handle != nullptr && WaitForSingleObject(handle, 0) == WAIT_TIMEOUT;
    if (handle != nullptr) CloseHandle(handle);
    if (!alive || service.ProcessId() != process) {
        ++tally.crashes;
        problems.push_back("the service process did not survive the calls");
    }
    const omkfuzz::Memory after = omkfuzz::ProcessMemory(process);
    const double payloadMiB = payload / 1048576.0;
    const double bound = kPayloadFactor * payloadMiB + kOverheadAllowanceMiB;
    if (alive && after.working - before.working > bound) {
        ++tally.failures;
        problems.push_back("working set grew beyond its bound");
    }
    if (alive && starter.RuleTriggered(omkfuzz::kDiskRuleGuid, L"Disk", L"Fuzz", L"while-queued") != S_OK) {
        ++tally.failures;
        problems.push_back("a well-formed call was not answered S_OK");
    }
    starter.Release();
    omkfuzz::AddMessageKinds(service.LogSince(), &tally.messages);

    // With the queue full the stop still ends in time; started again, the
    // service stores a well-formed call's alert.
    if (alive && (!service.StopAndWait(15000) || service.Status().dwWin32ExitCode != 0)) {
        ++tally.failures;
        problems.push_back("the stop with a full queue did not end in time with exit code 0");
    }
    service.StopAndWait(60000);
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
    service.StopAndWait();

    tally.seconds = static_cast<double>(GetTickCount64() - start) / 1000.0;
    for (const std::string& problem : problems) fprintf(stderr, "collector calls: %s\n", problem.c_str());
    char extra[512];
    _snprintf(extra, sizeof(extra) - 1,
              "%llu of them corpus replays, %u client processes, %llu accepted, queued payload %.1f MiB, service "
              "working set %.1f -> %.1f MiB (peak %.1f), bound: growth <= %.0f x payload + %.0f MiB",
              static_cast<unsigned long long>(replayCount), options.clients, accepted, payloadMiB, before.working,
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
