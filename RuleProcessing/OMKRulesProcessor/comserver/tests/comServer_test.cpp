// ITolvane as collectors use it: this program calls a tolvaneTestHost process
// over Wine's out-of-process COM; the host's engine thread records what it was
// handed.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "testHost.h"
#include "testSupport.h"
#include "tolvane.h"
#include "workQueue.h"

namespace {

using comtest::Record;
using comtest::TestHost;

std::wstring Tool(const std::wstring& name) {
    return L"\"" + omktest::ProgramFolder() + L"\\" + name + L"\"";
}

// For the whole program: this thread in the multithreaded apartment, the queue
// lock for the in-process server cases, and the class registered as served by
// the test host for the out-of-process ones.
class Environment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        InitWorkQueueLock();
        ASSERT_EQ(0u, omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /regserver " + Tool(L"tolvaneTestHost.exe")));
    }
    void TearDown() override {
        omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /unregister");
        DeleteWorkQueueLock();
        CoUninitialize();
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new Environment);

// Owns a COM interface pointer.
template <typename T>
class Ptr {
public:
    Ptr() = default;
    ~Ptr() { Reset(); }
    Ptr(const Ptr&) = delete;
    Ptr& operator=(const Ptr&) = delete;
    T* operator->() const { return p_; }
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

// Owns a BSTR.
class Bstr {
public:
    explicit Bstr(const std::wstring& text) : b_(SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    ~Bstr() { SysFreeString(b_); }
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    operator BSTR() const { return b_; }

private:
    BSTR b_;
};

// Owns a SAFEARRAY.
class Array {
public:
    explicit Array(SAFEARRAY* array) : a_(array) {}
    ~Array() { SafeArrayDestroy(a_); }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;
    operator SAFEARRAY*() const { return a_; }

private:
    SAFEARRAY* a_;
};

SAFEARRAY* Vector(VARTYPE type, const void* elements, ULONG count, ULONG elementBytes, LONG lowerBound = 0) {
    SAFEARRAY* array = SafeArrayCreateVector(type, lowerBound, count);
    void* data = nullptr;
    SafeArrayAccessData(array, &data);
    if (count != 0) memcpy(data, elements, count * elementBytes);
    SafeArrayUnaccessData(array);
    return array;
}

TEST(TolvaneOverCom, CallsAreCopiedIntoTheirItemsAndAReferenceHeldThroughTheStopIsCutOff) {
    TestHost host(L"copy");
    ASSERT_TRUE(host.Serving());
    Ptr<ITolvane> tolvane;
    ASSERT_EQ(S_OK, CreateTolvane(tolvane));
    Bstr plugin(L"plugin"), guid(L"{guid}"), tag(L"Data"), empty(L""), odd(L"{\u00e9 \\}");
    Array two(omktest::BstrArray({L"a", L"b"})), values(omktest::BstrArray({L"1", L"2"}));
    Array none(omktest::BstrArray({})), noValues(omktest::BstrArray({}));
    Array fromFive(omktest::BstrArray({L"x", L"y", L"z"}, 5));
    Array unicode(omktest::BstrArray({L"\u00e9t\u00e9", L"a b,c", L"\"[=]\""}));
    struct RuleCall {
        BSTR plugin, guid, tag;
        SAFEARRAY *names, *values;
        const char* item;
    };
    const RuleCall calls[] = {
        // Without data arrays the tag encloses nothing and is not kept.
        {plugin, guid, tag, nullptr, nullptr, R"(plugin="plugin" guid="{guid}" tag=~ n=0 names=~ vals=~)"},
        {plugin, guid, nullptr, two, values, R"(plugin="plugin" guid="{guid}" tag=~ n=2 names=["a","b"] vals=["1","2"])"},
        {empty, empty, empty, none, noValues, R"(plugin="" guid="" tag="" n=0 names=[] vals=[])"},
        {odd, odd, odd, fromFive, unicode,
         R"(plugin="{\u00E9\u0020\u005C}" guid="{\u00E9\u0020\u005C}" tag="{\u00E9\u0020\u005C}" n=3 )"
         R"(names=["x","y","z"] vals=["\u00E9t\u00E9","a\u0020b\u002Cc","\u0022\u005B\u003D\u005D\u0022"])"},
    };
    std::vector<std::string> expected;
    for (const RuleCall& call : calls) {
        EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(call.plugin, call.guid, call.tag, call.names, call.values));
        expected.push_back(std::string("kind=1 ") + call.item);
    }

    const unsigned char eight[] = {0x01, 0x02, 0xfe, 0xff, 0x00, 0x80, 0x7f, 0x24};
    const LONG longs[] = {0x04030201, 0x08070605, 0x0c0b0a09};
    Array noBytes(Vector(VT_UI1, nullptr, 0, 1)), bytes(Vector(VT_UI1, eight, 8, 1, 10)), notBytes(Vector(VT_I4, longs, 3, 4));
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(1, 2, 3, noBytes));
    expected.push_back("kind=2 code=1 sub=2 ts=3 len=0 data=~ fill=ok");
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(-1, 0x7fffffff, -2, bytes));
    expected.push_back("kind=2 code=4294967295 sub=2147483647 ts=18446744073709551614 len=8 data=0102feff00807f24 fill=ok");
    // Not bytes: the element count is taken as the length in bytes.
    EXPECT_EQ(S_OK, tolvane->Tolvane_PeriodicDataGenerated(4, 4, 4, notBytes));
    expected.push_back("kind=2 code=4 sub=4 ts=4 len=3 data=010203 fill=ok");
    EXPECT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    expected.push_back("kind=0 fill=ok");

    ASSERT_TRUE(host.WaitForItems(expected.size()));
    std::vector<Record> items = host.Items();
    ASSERT_EQ(expected.size(), items.size());
    for (size_t i = 0; i < items.size(); ++i) EXPECT_EQ(expected[i], items[i].text) << "item " << i;

    // The stop waits 5 s for the reference this client still holds, then cuts it off.
    ASSERT_TRUE(host.StopServing());
    EXPECT_EQ("2", host.Records("stopped")[0]["alloc"]) << "all freed but the two periodic data buffers";
    EXPECT_TRUE(FAILED(tolvane->Tolvane_SummaryCreated())) << "the call reaches no object (nothing is logged)";
    tolvane.Reset();
    EXPECT_TRUE(host.Stop());
    EXPECT_EQ((std::vector<std::string>{"ComServerThreadProc(): WaitForSingleObject(g_ComClassCleanupEvent) err=258"}),
              host.Log().Messages());
}

// A call queues its item before it returns: a call that returned before
// another began is handled first, and each collector's calls keep their order.
TEST(TolvaneOverCom, ConcurrentCallsAreHandledInTheOrderTheyWereQueued) {
    TestHost host(L"order");
    ASSERT_TRUE(host.Serving());
    constexpr int kThreads = 4;
    constexpr int kCalls = 40;
    std::atomic<int> returned{0};
    std::vector<std::string> returnedAs(kThreads * kCalls);  // "<collector>.<call>" by order of return
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            Ptr<ITolvane> tolvane;
            Bstr collector(std::to_wstring(t));
            const bool created = SUCCEEDED(CreateTolvane(tolvane));
            for (int call = 0; created && call < kCalls; ++call) {
                // The GUID carries the call's number and how many calls had returned when it began.
                Bstr guid(std::to_wstring(call) + L":" + std::to_wstring(returned.load()));
                if (FAILED(tolvane->Tolvane_RuleTriggered(collector, guid, nullptr, nullptr, nullptr))) break;
                returnedAs[returned++] = std::to_string(t) + "." + std::to_string(call);
            }
            tolvane.Reset();
            CoUninitialize();
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(kThreads * kCalls, returned.load());
    ASSERT_TRUE(host.WaitForItems(kThreads * kCalls));

    std::vector<Record> items = host.Items();
    std::vector<int> nextCall(kThreads, 0);
    std::vector<int> began(items.size());
    std::vector<size_t> handledAt(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        const int collector = std::stoi(items[i]["plugin"].substr(1));
        const std::string guid = items[i]["guid"].substr(1);
        const int call = std::stoi(guid);
        began[i] = std::stoi(guid.substr(guid.find(':') + 1));
        EXPECT_EQ(nextCall[collector]++, call) << "collector " << collector;
        handledAt[std::find(returnedAs.begin(), returnedAs.end(), std::to_string(collector) + "." +
                            std::to_string(call)) - returnedAs.begin()] = i;
    }
    // latest[n]: the last place at which one of the first n calls to return was handled.
    std::vector<long long> latest(items.size() + 1, -1);
    for (size_t n = 0; n < items.size(); ++n) latest[n + 1] = std::max<long long>(latest[n], handledAt[n]);
    for (size_t i = 0; i < items.size(); ++i) EXPECT_LT(latest[began[i]], static_cast<long long>(i)) << "item " << i;
    EXPECT_TRUE(host.Stop());
}

}  // namespace
