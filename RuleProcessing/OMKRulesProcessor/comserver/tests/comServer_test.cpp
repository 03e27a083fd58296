// The COM server in this process: the class factory and the object as COM
// hands them to a caller in the server's own apartment (no proxy), then through
// a proxy in another apartment, marshalled by the type library this program
// carries and registers.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "comServer.h"
#include "conventions.h"
#include "testSupport.h"
#include "tolvane.h"
#include "workQueue.h"

// No engine thread runs in this program.
void Tolvane_HandleEvents(WORK_ITEM*) {}

namespace {

using omktest::ErrorLog;

std::wstring Tool(const std::wstring& name) {
    return L"\"" + omktest::ProgramFolder() + L"\\" + name + L"\"";
}

// For the whole program: this thread in the multithreaded apartment, the queue
// lock, and the class and its type library registered as this program's.
class Environment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        InitWorkQueueLock();
        ASSERT_EQ(0u, omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /regserver " + Tool(L"OmkComServer_test.exe")));
    }
    void TearDown() override {
        omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /unregister");
        DeleteWorkQueueLock();
        CoUninitialize();
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new Environment);

// A running server and its factory; what calls queue is taken from the queue.
class Calls : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0u, StartComServerThread());
        ASSERT_EQ(S_OK, CoGetClassObject(CLSID_Tolvane, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory,
                                         reinterpret_cast<void**>(&factory_)));
        allocBase_ = g_allocCount;
    }
    void TearDown() override {
        if (factory_ != nullptr) factory_->Release();
        StopComServerThread();
    }
    IClassFactory* factory_ = nullptr;
    int allocBase_ = 0;
};

bool Signalled(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

TEST_F(Calls, FactoryAndObjectFollowTheirCountingAndArgumentRules) {
    ErrorLog log(L"comServer_test_rules.txt");
    IClassFactory* factory = factory_;

    EXPECT_EQ(2u, factory->AddRef());
    EXPECT_EQ(1u, factory->Release());
    EXPECT_EQ(E_INVALIDARG, factory->QueryInterface(IID_IClassFactory, nullptr));
    void* other = &other;
    EXPECT_EQ(E_NOINTERFACE, factory->QueryInterface(IID_ITolvane, &other));
    EXPECT_EQ(nullptr, other);
    // The outer unknown is refused before the output pointer is looked at.
    EXPECT_EQ(CLASS_E_NOAGGREGATION, factory->CreateInstance(factory, IID_ITolvane, nullptr));
    EXPECT_EQ(E_INVALIDARG, factory->CreateInstance(nullptr, IID_ITolvane, nullptr));
    other = &other;
    EXPECT_EQ(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IDispatch, &other));
    EXPECT_EQ(nullptr, other);

    // Every instance is the one object, counting every reference.
    ITolvane* first = nullptr;
    ITolvane* second = nullptr;
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_ITolvane, reinterpret_cast<void**>(&first)));
    EXPECT_FALSE(Signalled(g_ComClassCleanupEvent));
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&second)));
    EXPECT_EQ(first, second);
    EXPECT_EQ(3u, first->AddRef());
    EXPECT_EQ(E_INVALIDARG, first->QueryInterface(IID_ITolvane, nullptr));
    other = &other;
    EXPECT_EQ(E_NOINTERFACE, first->QueryInterface(IID_IClassFactory, &other));
    EXPECT_EQ(nullptr, other);
    EXPECT_EQ(2u, first->Release());
    EXPECT_EQ(1u, second->Release());
    EXPECT_FALSE(Signalled(g_ComClassCleanupEvent));
    EXPECT_EQ(0u, first->Release());
    EXPECT_TRUE(Signalled(g_ComClassCleanupEvent));
    ResetEvent(g_ComClassCleanupEvent);
    EXPECT_EQ(0u, first->Release()) << "the count never wraps";
    EXPECT_TRUE(Signalled(g_ComClassCleanupEvent)) << "and arrival at 0 signals again";
    factory_->Release();
    factory_ = nullptr;

    DWORD start = GetTickCount();
    StopComServerThread();
    EXPECT_LT(GetTickCount() - start, 4000u) << "nothing to drain";
    EXPECT_EQ(nullptr, g_ComServerThreadHandle);
    EXPECT_TRUE(log.Messages().empty());
}

std::wstring Text(const wchar_t* text) {
    return text == nullptr ? L"~" : L"'" + std::wstring(text) + L"'";
}

std::wstring Texts(SAFEARRAY* array) {
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    std::wstring texts = array == nullptr ? L"~" : L"[";
    for (LONG i = lower; array != nullptr && i <= upper; ++i) {
        BSTR element = nullptr;
        SafeArrayGetElement(array, &i, &element);
        texts += Text(element) + L",";
        SysFreeString(element);
    }
    return texts;
}

// An item in one comparable line; "$" when its unused bytes are all '$'.
std::wstring Describe(const WORK_ITEM* item) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(item);
    auto filled = [&](size_t from) {
        return std::all_of(bytes + from, bytes + sizeof(WORK_ITEM), [](unsigned char b) { return b == OMK_FILL_BYTE; })
                   ? L"$"
                   : L"";
    };
    if (item->kind == WORK_RULE_TRIGGERED) {
        const auto& rule = item->u.ruleTriggered;
        return Text(rule.rulePluginId) + Text(rule.ruleGuid) + Text(rule.dataItemsEnclosingXmlTag) +
               std::to_wstring(rule.numDataItems) + Texts(rule.dataItemName) + Texts(rule.dataItemVal);
    }
    if (item->kind == WORK_SUMMARY_CREATED) return L"summary" + std::wstring(filled(offsetof(WORK_ITEM, u)));
    const auto& periodic = item->u.periodicData;
    std::wstring text = std::to_wstring(periodic.code) + L" " + std::to_wstring(periodic.subCode) + L" " +
                        std::to_wstring(periodic.timeStamp) + L" " + std::to_wstring(periodic.dataLen) + L" ";
    for (unsigned int i = 0; periodic.data != nullptr && i < periodic.dataLen; ++i) {
        text += std::to_wstring(periodic.data[i]) + L".";
    }
    return text + (periodic.data == nullptr ? L"~" : L"") + filled(offsetof(WORK_ITEM, u.periodicData.unused));
}

SAFEARRAY* Vector(VARTYPE type, const void* elements, ULONG count, ULONG elementBytes, LONG lowerBound = 0) {
    SAFEARRAY* array = SafeArrayCreateVector(type, lowerBound, count);
    if (count != 0) memcpy(array->pvData, elements, count * elementBytes);
    return array;
}

// What any local process may send: accepted calls queue copies of what they
// were handed, refused ones answer E_INVALIDARG with their message and queue
// nothing.
TEST_F(Calls, EachCallQueuesCopiesOfWhatItWasHandedOrRefusesIt) {
    ErrorLog log(L"comServer_test_calls.txt");
    ITolvane* tolvane = nullptr;
    ASSERT_EQ(S_OK, factory_->CreateInstance(nullptr, IID_ITolvane, reinterpret_cast<void**>(&tolvane)));
    std::vector<BSTR> texts;  // released at the end, with the arrays
    std::vector<SAFEARRAY*> arrays;
    auto text = [&](const wchar_t* t) { return texts.push_back(SysAllocString(t)), texts.back(); };
    auto keep = [&](SAFEARRAY* a) { return arrays.push_back(a), a; };
    auto strings = [&](const std::vector<std::wstring>& t, LONG lower = 0) { return keep(omktest::BstrArray(t, lower)); };
    auto rule = [&](BSTR plugin, BSTR tag, SAFEARRAY* names, SAFEARRAY* values) {
        return [=, guid = text(L"{guid}")] { return tolvane->Tolvane_RuleTriggered(plugin, guid, tag, names, values); };
    };
    auto periodic = [&](int code, int subCode, __int64 stamp, SAFEARRAY* data) {
        return [=] { return tolvane->Tolvane_PeriodicDataGenerated(code, subCode, stamp, data); };
    };
    BSTR plugin = text(L"plugin"), tag = text(L"Data");
    SAFEARRAY* two = strings({L"a", L"b"});
    SAFEARRAY* fromFive = strings({L"x", L"\u00e9 ,\"\u4e2d"}, 5);
    const unsigned char eight[] = {1, 2, 0xfe, 0xff, 0, 0x80, 0x7f, 0x24};
    const LONG longs[] = {0x04030201, 0x08070605, 0x0c0b0a09};
    SAFEARRAYBOUND square[2] = {{2, 0}, {2, 0}};
    const struct {
        std::function<HRESULT()> call;
        HRESULT result;
        const char* message;  // logged by the call; "" for none
    } cases[] = {
        // Without data arrays the tag encloses nothing and is not kept.
        {rule(plugin, tag, nullptr, nullptr), S_OK, ""},
        {rule(plugin, nullptr, two, strings({L"1", L"2"})), S_OK, ""},
        {rule(text(L""), text(L""), strings({}), strings({})), S_OK, ""},
        {rule(plugin, tag, fromFive, fromFive), S_OK, ""},
        {periodic(1, 2, 3, keep(Vector(VT_UI1, nullptr, 0, 1))), S_OK, ""},
        {periodic(-1, 0x7fffffff, -2, keep(Vector(VT_UI1, eight, 8, 1, 10))), S_OK, ""},
        // Not bytes: the element count is taken as the length in bytes.
        {periodic(4, 4, 4, keep(Vector(VT_I4, longs, 3, 4))), S_OK, ""},
        {[&] { return tolvane->Tolvane_SummaryCreated(); }, S_OK, ""},
        {rule(plugin, tag, keep(Vector(VT_I4, longs, 2, 4)), two), E_INVALIDARG,
         "Tolvane_RuleTriggered: GetSafeArrayNumElems (dataItemNames) vartype 3 not supported"},
        {rule(plugin, tag, two, keep(SafeArrayCreateVector(VT_VARIANT, 0, 2))), E_INVALIDARG,
         "Tolvane_RuleTriggered: GetSafeArrayNumElems (dataItemVal) vartype 12 not supported"},
        {rule(plugin, tag, keep(SafeArrayCreate(VT_BSTR, 2, square)), two), E_INVALIDARG,
         "Tolvane_RuleTriggered: GetSafeArrayNumElems (dataItemNames) dim 2 not supported"},
        {rule(plugin, tag, two, strings({L"a"})), E_INVALIDARG, "Tolvane_RuleTriggered: numDataItem 2 != numDataVals 1"},
        {rule(plugin, tag, nullptr, two), E_INVALIDARG, ""},
        // The caller is not told.
        {rule(nullptr, tag, two, two), S_OK, "OnRuleTriggered: null rulePluginId "},
        {periodic(5, 6, 7, nullptr), E_INVALIDARG,
         "CTolvane::Tolvane_PeriodicDataGenerated: LockPeriodicEntryData failed 0x80070057 (Code 0x5 SubCode 0x6)"},
        {periodic(5, 6, 7, keep(SafeArrayCreate(VT_UI1, 2, square))), E_INVALIDARG,
         "LockPeriodicEntryData failed 0x80070057"},
    };
    for (const auto& c : cases) {
        log.Mark();
        EXPECT_EQ(c.result, c.call()) << c.message;
        EXPECT_TRUE(c.message[0] == '\0' ? log.Since().empty() : log.Contains(c.message)) << log.Since();
    }
    tolvane->Release();
    for (BSTR t : texts) SysFreeString(t);
    for (SAFEARRAY* a : arrays) SafeArrayDestroy(a);

    std::vector<WORK_ITEM*> items;
    std::vector<std::wstring> described;
    for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue()) {
        items.push_back(item);
        described.push_back(Describe(item));
    }
    EXPECT_EQ((std::vector<std::wstring>{
                  L"'plugin''{guid}'~0~~",
                  L"'plugin''{guid}'~2['a','b',['1','2',",
                  L"'''{guid}'''0[[",
                  L"'plugin''{guid}''Data'2['x','\u00e9 ,\"\u4e2d',['x','\u00e9 ,\"\u4e2d',",
                  L"1 2 3 0 ~$",
                  L"4294967295 2147483647 18446744073709551614 8 1.2.254.255.0.128.127.36.$",
                  L"4 4 4 3 1.2.3.$",
                  L"summary$",
              }),
              described);
    for (WORK_ITEM* item : items) {
        if (item->kind == WORK_PERIODIC_DATA && item->u.periodicData.data != nullptr) {
            free(item->u.periodicData.data);
            --g_allocCount;
        }
        FreeWorkItem(item);
    }
    EXPECT_EQ(allocBase_, g_allocCount) << "every block counted once";
}

// A stop of what is stopped already only reports.
TEST(ComServer, LockServerKeepsTheServerAliveUntilUnlockedOr5s) {
    ErrorLog log(L"comServer_test_lock.txt");
    for (BOOL unlock : {TRUE, FALSE}) {
        ASSERT_EQ(0u, StartComServerThread());
        IClassFactory* factory = nullptr;
        ASSERT_EQ(S_OK, CoGetClassObject(CLSID_Tolvane, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory,
                                         reinterpret_cast<void**>(&factory)));
        EXPECT_EQ(S_OK, factory->LockServer(TRUE));
        EXPECT_EQ(S_OK, unlock ? factory->LockServer(FALSE) : S_OK);
        factory->Release();
        DWORD start = GetTickCount();
        StopComServerThread();
        EXPECT_EQ(!unlock, GetTickCount() - start >= 4900u) << "waited " << GetTickCount() - start << " ms";
    }
    StopComServerThread();
    EXPECT_EQ((std::vector<std::string>{"ComServerThreadProc(): WaitForSingleObject(g_ComServerCleanupEvent) err=258",
                                        "StopComServerThread(): SetEvent(g_ComServerThreadExitEvent) err=6",
                                        "StopComServerThread(): WaitForSingleObject(g_ComServerThreadHandle) err=6"}),
              log.Messages());
    // The server is gone: the leftover lock is dropped with it.
    comServerRefCount = 0;
}

// A collector's proxy in a thread of its own: one call before the stop, one after.
struct Collector {
    IStream* marshalled = nullptr;
    HANDLE stopped = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HRESULT before = E_FAIL, after = S_OK;

    static DWORD WINAPI Run(void* self) {
        auto* c = static_cast<Collector*>(self);
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ITolvane* proxy = nullptr;
        if (SUCCEEDED(CoGetInterfaceAndReleaseStream(c->marshalled, IID_ITolvane, reinterpret_cast<void**>(&proxy)))) {
            c->before = proxy->Tolvane_SummaryCreated();
            WaitForSingleObject(c->stopped, 30000);
            c->after = proxy->Tolvane_SummaryCreated();
            proxy->Release();
        }
        CoUninitialize();
        return 0;
    }
};

// A held reference makes the stop wait its 5 s; then the server cuts the client
// off before the object goes, so a later call fails instead of reaching it.
TEST(TolvaneOverCom, AReferenceHeldThroughTheStopIsCutOff) {
    omktest::ErrorLog log(L"comServer_test.txt");
    ASSERT_EQ(0u, StartComServerThread());
    ITolvane* tolvane = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane,
                                     reinterpret_cast<void**>(&tolvane)));
    Collector collector;
    ASSERT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(IID_ITolvane, tolvane, &collector.marshalled));
    tolvane->Release();
    HANDLE thread = CreateThread(nullptr, 0, Collector::Run, &collector, 0, nullptr);
    ASSERT_TRUE(omktest::WaitFor([&] { return collector.before == S_OK; }, 10000));
    WORK_ITEM* item = RemoveFromWorkQueue();
    ASSERT_NE(nullptr, item);
    EXPECT_EQ(static_cast<unsigned int>(WORK_SUMMARY_CREATED), item->kind);
    FreeWorkItem(item);

    const DWORD start = GetTickCount();
    StopComServerThread();
    EXPECT_GE(GetTickCount() - start, 4900u);
    SetEvent(collector.stopped);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 30000));
    EXPECT_TRUE(FAILED(collector.after)) << "the call reaches no object";
    EXPECT_EQ(nullptr, RemoveFromWorkQueue());
    EXPECT_EQ((std::vector<std::string>{"ComServerThreadProc(): WaitForSingleObject(g_ComClassCleanupEvent) err=258"}),
              log.Messages());
    CloseHandle(thread);
    CloseHandle(collector.stopped);
}

}  // namespace
