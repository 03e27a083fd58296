// ITolvane as collectors use it: this program (and more client processes) call
// a tolvaneTestHost process over Wine's out-of-process COM; the host's engine
// thread records what it was handed.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engineTestSupport.h"
#include "hostRecord.h"
#include "orderBoard.h"
#include "testHost.h"
#include "testSupport.h"
#include "tolvane.h"

namespace {

using comtest::Record;
using comtest::TestHost;
using omktest::TraceMonitor;

std::wstring Tool(const std::wstring& name) {
    return L"\"" + omktest::ProgramFolder() + L"\\" + name + L"\"";
}

// Registers the class as served by the test host for the whole program.
class Registration : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        ASSERT_EQ(0u, omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /regserver " + Tool(L"tolvaneTestHost.exe")));
    }
    void TearDown() override {
        omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /unregister");
        CoUninitialize();
    }
};

const auto* const g_registration = ::testing::AddGlobalTestEnvironment(new Registration);

// Owns a COM interface pointer.
template <typename T>
class Ptr {
public:
    Ptr() = default;
    ~Ptr() { Reset(); }
    Ptr(const Ptr&) = delete;
    Ptr& operator=(const Ptr&) = delete;
    T* operator->() const { return p_; }
    T* Get() const { return p_; }
    void** Out() { return reinterpret_cast<void**>(&p_); }
    void Reset() {
        if (p_ != nullptr) p_->Release();
        p_ = nullptr;
    }

private:
    T* p_ = nullptr;
};

HRESULT CreateTolvane(Ptr<ITolvane>& tolvane) {
    return CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane, tolvane.Out());
}

// Owns a BSTR; null stays null.
class Bstr {
public:
    explicit Bstr(const wchar_t* text) : b_(text != nullptr ? SysAllocString(text) : nullptr) {}
    explicit Bstr(const std::wstring& text) : b_(SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    ~Bstr() { SysFreeString(b_); }
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    operator BSTR() const { return b_; }

private:
    BSTR b_;
};

// Owns a SAFEARRAY; null stays null.
class Array {
public:
    explicit Array(SAFEARRAY* array = nullptr) : a_(array) {}
    ~Array() {
        if (a_ != nullptr) SafeArrayDestroy(a_);
    }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;
    operator SAFEARRAY*() const { return a_; }

private:
    SAFEARRAY* a_;
};

SAFEARRAY* TwoDimensional(VARTYPE type) {
    SAFEARRAYBOUND bounds[2] = {{2, 0}, {3, 0}};
    return SafeArrayCreate(type, 2, bounds);
}

SAFEARRAY* Bytes(const std::string& bytes, LONG lowerBound = 0) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, lowerBound, static_cast<ULONG>(bytes.size()));
    void* data = nullptr;
    SafeArrayAccessData(array, &data);
    if (!bytes.empty()) memcpy(data, bytes.data(), bytes.size());
    SafeArrayUnaccessData(array);
    return array;
}

SAFEARRAY* Longs(const std::vector<LONG>& values) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_I4, 0, static_cast<ULONG>(values.size()));
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i) SafeArrayPutElement(array, &i, (void*)&values[i]);
    return array;
}

std::string Hex(const std::string& bytes) {
    return hostrecord::RecordBytes(reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<unsigned>(bytes.size()));
}

std::string Text(const wchar_t* text) {
    return hostrecord::RecordText(text);
}

std::string StringsRecord(const std::vector<std::wstring>& texts) {
    std::string out = "[vt=8:";
    for (size_t i = 0; i < texts.size(); ++i) out += (i ? "," : "") + Text(texts[i].c_str());
    return out + "]";
}

// The rule-trigger fields of a recorded item, in one comparable line.
std::string RuleLine(const Record& item) {
    return "plugin=" + item["plugin"] + " guid=" + item["guid"] + " tag=" + item["tag"] + " n=" + item["n"] +
           " names=" + item["names"] + " vals=" + item["vals"];
}

TEST(TolvaneOverCom, ArrivalOrderHoldsAcrossConcurrentThreadsAndProcesses) {
    TestHost host(L"order");
    ASSERT_TRUE(host.Serving());
    const std::wstring boardName = L"Local\\tolvaneOrderBoard-" + std::to_wstring(GetCurrentProcessId());
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(orderboard::Board),
                                        boardName.c_str());
    ASSERT_NE(nullptr, mapping);
    auto* board = static_cast<orderboard::Board*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));
    ASSERT_NE(nullptr, board);

    constexpr int kProcesses = 3;
    constexpr int kThreads = 3;
    constexpr int kCalls = 40;
    std::vector<PROCESS_INFORMATION> clients;
    for (int p = 0; p < kProcesses; ++p) {
        std::wstring command = Tool(L"tolvaneTestClient.exe") + L" " + boardName + L" " +
                               std::to_wstring(100 * (p + 1)) + L" " + std::to_wstring(kThreads) + L" " +
                               std::to_wstring(kCalls);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION client = {};
        ASSERT_TRUE(
            CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &client));
        clients.push_back(client);
    }
    std::vector<HRESULT> results(kThreads, E_FAIL);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] { results[t] = orderboard::ProduceRuleTriggers(board, t, kCalls); });
    }
    for (std::thread& thread : threads) thread.join();
    for (HRESULT hr : results) EXPECT_EQ(S_OK, hr);
    for (PROCESS_INFORMATION& client : clients) {
        DWORD code = 0xDEAD;
        if (WaitForSingleObject(client.hProcess, 120000) == WAIT_OBJECT_0) {
            GetExitCodeProcess(client.hProcess, &code);
        } else {
            TerminateProcess(client.hProcess, 0xDEAD);
        }
        EXPECT_EQ(0u, code);
        CloseHandle(client.hThread);
        CloseHandle(client.hProcess);
    }

    const size_t total = (kProcesses + 1) * kThreads * kCalls;
    ASSERT_EQ(static_cast<LONG>(total), board->completed);
    ASSERT_TRUE(host.WaitForItems(total));
    std::vector<Record> items = host.Items();
    ASSERT_EQ(total, items.size());
    const std::string engine = std::to_string(host.EngineThread());
    std::map<std::string, int> nextSeq;
    std::map<std::pair<LONG, LONG>, size_t> position;
    for (size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(engine, items[i]["tid"]);
        std::string plugin = items[i]["plugin"];
        ASSERT_EQ(std::to_string(nextSeq[plugin]++), items[i]["guid"].substr(1, items[i]["guid"].size() - 2))
            << "each producer's calls keep their order; item " << i;
        LONG producer = std::stol(plugin.substr(2, plugin.size() - 3));
        position[{producer, std::stol(items[i]["guid"].substr(1))}] = i;
    }
    // A call that returned before another began was queued, so handled, before it.
    std::vector<long long> latestBefore(total + 1, -1);
    for (size_t ticket = 0; ticket < total; ++ticket) {
        const orderboard::Entry& done = board->done[ticket];
        latestBefore[ticket + 1] =
            std::max<long long>(latestBefore[ticket], static_cast<long long>(position.at({done.producer, done.seq})));
    }
    for (size_t i = 0; i < items.size(); ++i) {
        size_t returnedBefore = std::stoul(items[i]["tag"].substr(1));
        EXPECT_LT(latestBefore[returnedBefore], static_cast<long long>(i)) << RuleLine(items[i]);
    }
    UnmapViewOfFile(board);
    CloseHandle(mapping);
    EXPECT_TRUE(host.Stop());
}

TEST(TolvaneOverCom, ItemsQueuedBeforeTheEngineStartsAreHandledAfterOneWakeUp) {
    TraceMonitor traces;
    ASSERT_TRUE(traces.Active());
    TestHost host(L"early", true);
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> tolvane;
    ASSERT_EQ(S_OK, CreateTolvane(tolvane));
    Bstr plugin(L"early");
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, Bstr(std::to_wstring(i)), nullptr, nullptr, nullptr));
    }
    ASSERT_TRUE(host.StartEngine());
    const std::string wait = "[" + std::to_string(host.EngineThread()) +
                             "]TolvaneThreadProc() WaitForMultipleObjects(g_TolvaneThreadExitEvent,g_TolvaneEvent)...";
    ASSERT_TRUE(traces.WaitFor(wait, 1, 10000, host.ProcessId()));
    Sleep(300);
    EXPECT_TRUE(host.Items().empty()) << "nothing wakes the engine until the next call";

    ASSERT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, Bstr(L"10"), nullptr, nullptr, nullptr));
    ASSERT_TRUE(host.WaitForItems(11));
    std::vector<Record> items = host.Items();
    for (int i = 0; i < 11; ++i) EXPECT_EQ("\"" + std::to_string(i) + "\"", items[i]["guid"]);
    ASSERT_TRUE(traces.WaitFor(wait, 2, 10000, host.ProcessId()));
    Sleep(300);
    EXPECT_EQ(2u, traces.Count(wait, host.ProcessId())) << "a single wake-up drained all eleven";
    tolvane.Reset();
    EXPECT_TRUE(host.Stop());
}

TEST(TolvaneOverCom, RuleTriggeredChecksItsArgumentsAndCopiesWhatItQueues) {
    TestHost host(L"rule");
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> tolvane;
    ASSERT_EQ(S_OK, CreateTolvane(tolvane));
    Bstr plugin(L"plugin");
    Bstr guid(L"{guid}");
    Bstr tag(L"Data");
    Array two(omktest::BstrArray({L"a", L"b"}));
    Array otherTwo(omktest::BstrArray({L"1", L"2"}));
    Array three(omktest::BstrArray({L"a", L"b", L"c"}));
    Array square(TwoDimensional(VT_BSTR));

    // Refused: nothing is queued.
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, two, nullptr));
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, nullptr, two));
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, three, two));
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, square, two));
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, two, square));
    // Accepted but not queued.
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, nullptr, tag, two, otherTwo));
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(nullptr, guid, tag, two, otherTwo));

    std::vector<std::string> messages = host.Log().Messages();
    ASSERT_EQ(5u, messages.size());
    EXPECT_EQ("Tolvane_RuleTriggered: numDataItem 3 != numDataVals 2", messages[0]);
    EXPECT_EQ("Tolvane_RuleTriggered: GetSafeArrayNumElems (dataItemNames) dim 2 not supported", messages[1]);
    EXPECT_EQ("Tolvane_RuleTriggered: GetSafeArrayNumElems (dataItemVal) dim 2 not supported", messages[2]);
    EXPECT_EQ(0u, messages[3].find("OnRuleTriggered: null rulePluginId ")) << messages[3];
    EXPECT_NE(std::string::npos, messages[3].find(" or ruleGuid 0000000000000000")) << messages[3];
    EXPECT_EQ("OnRuleTriggered: null rulePluginId 0000000000000000 or ruleGuid ",
              messages[4].substr(0, messages[4].size() - 16));

    // Queued, each with private copies of what the call handed in.
    std::vector<std::string> expected;
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, nullptr, nullptr));
    expected.push_back("plugin=\"plugin\" guid=\"{guid}\" tag=~ n=0 names=~ vals=~");
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, guid, nullptr, two, otherTwo));
    expected.push_back("plugin=\"plugin\" guid=\"{guid}\" tag=~ n=2 names=[vt=8:\"a\",\"b\"] vals=[vt=8:\"1\",\"2\"]");
    Bstr empty(L"");
    Array none(omktest::BstrArray({}));
    Array noValues(omktest::BstrArray({}));
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(empty, empty, empty, none, noValues));
    expected.push_back("plugin=\"\" guid=\"\" tag=\"\" n=0 names=[vt=8:] vals=[vt=8:]");
    Array fromFive(omktest::BstrArray({L"x", L"y", L"z"}, 5));
    Array unicode(omktest::BstrArray({L"\u00e9t\u00e9", L"a b,c", L"\"[=]\""}));
    Bstr odd(L"{\u00e9 \\}");
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(odd, odd, odd, fromFive, unicode));
    expected.push_back(
        "plugin=" + Text(L"{\u00e9 \\}") + " guid=" + Text(L"{\u00e9 \\}") + " tag=" + Text(L"{\u00e9 \\}") +
        " n=3 names=[vt=8:\"x\",\"y\",\"z\"] vals=" + StringsRecord({L"\u00e9t\u00e9", L"a b,c", L"\"[=]\""}));
    // The element type is not checked: the engine gets what was sent.
    Array longs(Longs({1, 2, 3}));
    Array moreLongs(Longs({4, 5, 6}));
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, longs, moreLongs));
    expected.push_back(
        "plugin=\"plugin\" guid=\"{guid}\" tag=\"Data\" n=3 names=[vt=3;dims=1;count=3] "
        "vals=[vt=3;dims=1;count=3]");
    std::vector<std::wstring> manyNames;
    std::vector<std::wstring> manyValues;
    for (int i = 0; i < 100000; ++i) {
        manyNames.push_back(L"n" + std::to_wstring(i));
        manyValues.push_back(L"v" + std::to_wstring(i));
    }
    Array bigNames(omktest::BstrArray(manyNames));
    Array bigValues(omktest::BstrArray(manyValues));
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, bigNames, bigValues));
    expected.push_back("plugin=\"plugin\" guid=\"{guid}\" tag=\"Data\" n=100000 names=" + StringsRecord(manyNames) +
                       " vals=" + StringsRecord(manyValues));
    const std::wstring longText(1000000, L'L');
    Bstr huge(longText);
    Array hugeNames(omktest::BstrArray({longText}));
    Array hugeValues(omktest::BstrArray({longText}));
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(huge, huge, huge, hugeNames, hugeValues));
    const std::string hugeRecord = Text(longText.c_str());
    expected.push_back("plugin=" + hugeRecord + " guid=" + hugeRecord + " tag=" + hugeRecord +
                       " n=1 names=[vt=8:" + hugeRecord + "] vals=[vt=8:" + hugeRecord + "]");

    EXPECT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    ASSERT_TRUE(host.WaitForItems(expected.size() + 1));
    std::vector<Record> items = host.Items();
    ASSERT_EQ(expected.size() + 1, items.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ("1", items[i]["kind"]);
        std::string actual = RuleLine(items[i]);
        EXPECT_TRUE(expected[i] == actual) << "item " << i << "\n  expected " << expected[i].substr(0, 300)
                                           << "\n  actual   " << actual.substr(0, 300);
    }
    EXPECT_EQ("0", items.back()["kind"]);
    EXPECT_EQ("ok", items.back()["fill"]) << "a summary item is '$' after its link";
    tolvane.Reset();
    EXPECT_TRUE(host.Stop());
}

TEST(TolvaneOverCom, PeriodicDataGeneratedChecksItsArrayAndCopiesTheBytes) {
    TestHost host(L"periodic");
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> tolvane;
    ASSERT_EQ(S_OK, CreateTolvane(tolvane));
    Array square(TwoDimensional(VT_UI1));
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_PeriodicDataGenerated(5, 6, 7, nullptr));
    EXPECT_EQ(E_INVALIDARG, tolvane->Tolvane_PeriodicDataGenerated(-1, 0x20, 7, square));
    std::vector<std::string> expectedMessages = {
        "CTolvane::Tolvane_PeriodicDataGenerated: LockPeriodicEntryData failed 0x80070057 (Code 0x5 SubCode 0x6)",
        "CTolvane::Tolvane_PeriodicDataGenerated: LockPeriodicEntryData failed 0x80070057 (Code 0xffffffff SubCode "
        "0x20)",
    };
    EXPECT_EQ(expectedMessages, host.Log().Messages());

    std::vector<std::string> expected;
    Array empty(Bytes(""));
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(1, 2, 3, empty));
    expected.push_back("code=1 sub=2 ts=3 len=0 data=~");
    const std::string eight("\x01\x02\xfe\xff\x00\x80\x7f\x24", 8);
    Array small(Bytes(eight, 10));
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(-1, 0x7fffffff, -2, small));
    expected.push_back("code=4294967295 sub=2147483647 ts=18446744073709551614 len=8 data=" + Hex(eight));
    std::string large(100000, '\0');
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7);
    Array big(Bytes(large));
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(9, 9, 0x123456789abcdefLL, big));
    expected.push_back("code=9 sub=9 ts=81985529216486895 len=100000 data=" + Hex(large));
    // Not bytes: the element count is taken as the length in bytes.
    Array longs(Longs({0x04030201, 0x08070605, 0x0c0b0a09}));
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(4, 4, 4, longs));
    expected.push_back("code=4 sub=4 ts=4 len=3 data=010203");

    ASSERT_TRUE(host.WaitForItems(expected.size()));
    std::vector<Record> items = host.Items();
    ASSERT_EQ(expected.size(), items.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const Record& item = items[i];
        EXPECT_EQ("2", item["kind"]);
        EXPECT_EQ("ok", item["fill"]) << "the last 16 bytes are '$'";
        std::string actual = "code=" + item["code"] + " sub=" + item["sub"] + " ts=" + item["ts"] +
                             " len=" + item["len"] + " data=" + item["data"];
        EXPECT_TRUE(expected[i] == actual) << "item " << i << "\n  expected " << expected[i].substr(0, 200)
                                           << "\n  actual   " << actual.substr(0, 200);
    }
    tolvane.Reset();
    EXPECT_TRUE(host.Stop());
}

TEST(TolvaneOverCom, AllocationCountComesBackAfterADrainButForPeriodicData) {
    TestHost host(L"alloc");
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> tolvane;
    ASSERT_EQ(S_OK, CreateTolvane(tolvane));
    Array names(omktest::BstrArray({L"a", L"b"}));
    Array values(omktest::BstrArray({L"1", L"2"}));
    Array data(Bytes("12345678"));
    Array none(Bytes(""));
    ASSERT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(Bstr(L"p"), Bstr(L"g"), Bstr(L"t"), names, values));
        ASSERT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(Bstr(L"p"), Bstr(L"g"), Bstr(L"t"), nullptr, nullptr));
    }
    for (int i = 0; i < 3; ++i) ASSERT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(1, 1, 1, data));
    for (int i = 0; i < 2; ++i) ASSERT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(1, 1, 1, none));
    ASSERT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    ASSERT_TRUE(host.WaitForItems(17));
    std::vector<Record> items = host.Items();
    // Each line shows the count while its own item is still allocated.
    EXPECT_EQ("1", items.front()["alloc"]);
    EXPECT_EQ("4", items.back()["alloc"]) << "the three 8-byte buffers stay allocated";
    tolvane.Reset();
    ASSERT_TRUE(host.Stop());
    std::vector<Record> stopped = host.Records("stopped");
    ASSERT_EQ(1u, stopped.size());
    EXPECT_EQ("3", stopped[0]["alloc"]);
}

// The object's reference count right after the n-th CreateInstance (from 1)
// that the host traced, or -1.
long CountAfterCreateInstance(const std::vector<std::string>& lines, int occurrence) {
    const std::string create = "]CreateInstance() START";
    const std::string addRef = "]AddRef() tolvaneClassRefCount=";
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(create) == std::string::npos || --occurrence > 0) continue;
        for (size_t j = i + 1; j < lines.size(); ++j) {
            size_t at = lines[j].find(addRef);
            if (at != std::string::npos) return std::stol(lines[j].substr(at + addRef.size()));
        }
    }
    return -1;
}

TEST(TolvaneOverCom, TwoClientsShareOneObjectAndItsReferenceCount) {
    TraceMonitor traces;
    ASSERT_TRUE(traces.Active());
    TestHost host(L"share");
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> first;
    ASSERT_EQ(S_OK, CreateTolvane(first));
    EXPECT_EQ(1, CountAfterCreateInstance(traces.Lines(host.ProcessId()), 1));

    // A second collector process while this one holds its reference: its
    // instance is the same object, counted on top of the first client's hold.
    const std::wstring boardName = L"Local\\tolvaneShareBoard-" + std::to_wstring(GetCurrentProcessId());
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(orderboard::Board),
                                        boardName.c_str());
    EXPECT_EQ(0u, omktest::RunProcess(Tool(L"tolvaneTestClient.exe") + L" " + boardName + L" 7 1 1", 60000));
    CloseHandle(mapping);
    EXPECT_GT(CountAfterCreateInstance(traces.Lines(host.ProcessId()), 2), 1);
    EXPECT_EQ(1u, traces.Count("]CTolvane() comServerRefCount=1", host.ProcessId())) << "one object only";
    EXPECT_EQ(S_OK, first->Tolvane_SummaryCreated());
    ASSERT_TRUE(host.WaitForItems(2));

    // QueryInterface of the shared object, reached through the client's proxy.
    Ptr<IUnknown> unknown;
    EXPECT_EQ(S_OK, first->QueryInterface(IID_IUnknown, unknown.Out()));
    Ptr<IDispatch> dispatch;
    EXPECT_EQ(E_NOINTERFACE, first->QueryInterface(IID_IDispatch, dispatch.Out()));
    EXPECT_EQ(nullptr, dispatch.Get());
    EXPECT_TRUE(
        traces.WaitFor("QueryInterface() (riid=={00020400-0000-0000-C000-000000000046}, "
                       "riid!=(IID_IUnknown || IID_ITolvane))",
                       1, 5000, host.ProcessId()));
    unknown.Reset();
    first.Reset();
    EXPECT_TRUE(traces.WaitFor("Release() tolvaneClassRefCount=0", 1, 10000, host.ProcessId()));

    // Nobody holds it now: the server stops without the 5 s drain.
    ASSERT_TRUE(host.Stop());
    std::vector<Record> stopped = host.Records("stopped");
    ASSERT_EQ(1u, stopped.size());
    EXPECT_LT(std::stoul(stopped[0]["com"]), 4000u);
    EXPECT_FALSE(host.Log().Contains("err=258"));
}

TEST(TolvaneOverCom, AHeldReferenceDelaysTheStopBy5s) {
    TestHost host(L"held");
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> tolvane;
    ASSERT_EQ(S_OK, CreateTolvane(tolvane));
    ASSERT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    ASSERT_TRUE(host.WaitForItems(1));
    ASSERT_TRUE(host.Stop());
    std::vector<Record> stopped = host.Records("stopped");
    ASSERT_EQ(1u, stopped.size());
    EXPECT_GE(std::stoul(stopped[0]["com"]), 4900u);
    EXPECT_LT(std::stoul(stopped[0]["com"]), 9000u);
    std::vector<std::string> expected = {"ComServerThreadProc(): WaitForSingleObject(g_ComClassCleanupEvent) err=258"};
    EXPECT_EQ(expected, host.Log().Messages());
}

TEST(TolvaneOverCom, TheFactoryRefusesAggregationAndUnknownInterfaces) {
    TestHost host(L"factory");
    ASSERT_TRUE(host.Serving());
    Ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, CoGetClassObject(CLSID_Tolvane, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory, factory.Out()));
    Ptr<ITolvane> aggregated;
    EXPECT_EQ(CLASS_E_NOAGGREGATION,
              factory->CreateInstance(reinterpret_cast<IUnknown*>(factory.Get()), IID_ITolvane, aggregated.Out()));
    EXPECT_EQ(nullptr, aggregated.Get());
    Ptr<IDispatch> dispatch;
    EXPECT_EQ(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IDispatch, dispatch.Out()));
    EXPECT_EQ(nullptr, dispatch.Get());
    Ptr<ITolvane> tolvane;
    EXPECT_EQ(S_OK, factory->CreateInstance(nullptr, IID_ITolvane, tolvane.Out()));
    tolvane.Reset();
    factory.Reset();
    ASSERT_TRUE(host.Stop());
    EXPECT_TRUE(host.Log().Messages().empty());
}

}  // namespace
