// The class factory and the object as COM hands them to a caller in the
// server's own apartment (the raw objects, no proxy): their rules, the items
// their calls queue, the server thread's lifetime rules, and the type library
// this program carries as TYPELIB 1.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "conventions.h"

#include "comServer.h"
#include "engineTestSupport.h"
#include "testSupport.h"
#include "tolvane.h"
#include "workQueue.h"

// No engine thread runs in this program.
void Tolvane_HandleEvents(WORK_ITEM*) {}

namespace {

using omktest::ErrorLog;
using omktest::TraceMonitor;

IClassFactory* RegisteredFactory() {
    IClassFactory* factory = nullptr;
    CoGetClassObject(CLSID_Tolvane, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory,
                     reinterpret_cast<void**>(&factory));
    return factory;
}

bool Signalled(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

TEST(ComServer, FactoryAndObjectFollowTheirCountingAndArgumentRules) {
    TraceMonitor traces;
    ErrorLog log(L"comFactory_test_rules.txt");
    ASSERT_EQ(0u, StartComServerThread());
    IClassFactory* factory = RegisteredFactory();
    ASSERT_NE(nullptr, factory);

    EXPECT_EQ(2u, factory->AddRef());
    EXPECT_EQ(2u, factory->AddRef());
    EXPECT_EQ(1u, factory->Release());
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
    factory->Release();

    DWORD start = GetTickCount();
    StopComServerThread();
    EXPECT_LT(GetTickCount() - start, 4000u) << "nothing to drain";
    EXPECT_EQ(nullptr, g_ComServerThreadHandle);
    EXPECT_TRUE(log.Messages().empty());

    if (traces.Active()) {
        const std::string self = "[" + std::to_string(GetCurrentThreadId()) + "]";
        EXPECT_EQ(1u, traces.Count(self + "CreateInstance() (pUnkOuter!=nullptr)"));
        EXPECT_EQ(1u, traces.Count(self + "QueryInterface() (riid=={00000001-0000-0000-C000-000000000046}, "
                                          "riid!=(IID_IUnknown || IID_ITolvane))"));
        // The factory counts on while answering 2 and 1.
        EXPECT_EQ(1u, traces.Count(self + "AddRef() tolvaneFactoryRefCount=4"));
    }
}

// The object of a running server; what its calls queue is taken from the
// queue (no engine thread runs here).
class Calls : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0u, StartComServerThread());
        IClassFactory* factory = RegisteredFactory();
        ASSERT_NE(nullptr, factory);
        ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_ITolvane, reinterpret_cast<void**>(&tolvane_)));
        factory->Release();
        allocBase_ = g_allocCount;
    }
    void TearDown() override {
        if (tolvane_ != nullptr) tolvane_->Release();
        StopComServerThread();
    }
    static std::vector<WORK_ITEM*> Queued() {
        std::vector<WORK_ITEM*> items;
        for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue()) {
            items.push_back(item);
        }
        return items;
    }
    ITolvane* tolvane_ = nullptr;
    int allocBase_ = 0;
};

std::wstring Text(const wchar_t* text) {
    return text == nullptr ? L"~" : L"'" + std::wstring(text) + L"'";
}

std::wstring Texts(SAFEARRAY* array) {
    if (array == nullptr) return L"~";
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    std::wstring texts = L"[";
    for (LONG i = lower; i <= upper; ++i) {
        BSTR element = nullptr;
        SafeArrayGetElement(array, &i, &element);
        texts += (i > lower ? L"," : L"") + Text(element);
        SysFreeString(element);
    }
    return texts + L"]";
}

// True when bytes [from, sizeof) of the item are all '$'.
bool FilledFrom(const WORK_ITEM* item, size_t from) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(item);
    return std::all_of(bytes + from, bytes + sizeof(WORK_ITEM), [](unsigned char b) { return b == OMK_FILL_BYTE; });
}

// An item in one comparable line.
std::wstring Describe(const WORK_ITEM* item) {
    if (item->kind == WORK_RULE_TRIGGERED) {
        const auto& rule = item->u.ruleTriggered;
        return Text(rule.rulePluginId) + L" " + Text(rule.ruleGuid) + L" " + Text(rule.dataItemsEnclosingXmlTag) +
               L" " + std::to_wstring(rule.numDataItems) + L" " + Texts(rule.dataItemName) + L" " +
               Texts(rule.dataItemVal);
    }
    if (item->kind == WORK_PERIODIC_DATA) {
        const auto& periodic = item->u.periodicData;
        std::wstring data = periodic.data == nullptr ? L"~" : L"";
        for (unsigned int i = 0; periodic.data != nullptr && i < periodic.dataLen; ++i) {
            data += std::to_wstring(periodic.data[i]) + L".";
        }
        return std::to_wstring(periodic.code) + L" " + std::to_wstring(periodic.subCode) + L" " +
               std::to_wstring(periodic.timeStamp) + L" " + std::to_wstring(periodic.dataLen) + L" " + data +
               (FilledFrom(item, offsetof(WORK_ITEM, u.periodicData.unused)) ? L"" : L" tail not '$'");
    }
    return FilledFrom(item, offsetof(WORK_ITEM, u)) ? L"summary" : L"summary not '$'";
}

SAFEARRAY* Vector(VARTYPE type, const void* elements, ULONG count, ULONG elementBytes, LONG lowerBound = 0) {
    SAFEARRAY* array = SafeArrayCreateVector(type, lowerBound, count);
    void* data = nullptr;
    SafeArrayAccessData(array, &data);
    if (count != 0) memcpy(data, elements, count * elementBytes);
    SafeArrayUnaccessData(array);
    return array;
}

TEST_F(Calls, EachCallQueuesCopiesOfWhatItWasHanded) {
    BSTR plugin = SysAllocString(L"plugin");
    BSTR guid = SysAllocString(L"{guid}");
    BSTR tag = SysAllocString(L"Data");
    BSTR empty = SysAllocString(L"");
    SAFEARRAY* two = omktest::BstrArray({L"a", L"b"});
    SAFEARRAY* values = omktest::BstrArray({L"1", L"2"});
    SAFEARRAY* none = omktest::BstrArray({});
    SAFEARRAY* fromFive = omktest::BstrArray({L"x", L"\u00e9 ,\"\u4e2d"}, 5);
    const unsigned char eight[] = {1, 2, 0xfe, 0xff, 0, 0x80, 0x7f, 0x24};
    const LONG longs[] = {0x04030201, 0x08070605, 0x0c0b0a09};
    SAFEARRAY* noBytes = Vector(VT_UI1, nullptr, 0, 1);
    SAFEARRAY* bytes = Vector(VT_UI1, eight, 8, 1, 10);
    SAFEARRAY* notBytes = Vector(VT_I4, longs, 3, 4);

    // Without data arrays the tag encloses nothing and is not kept.
    EXPECT_EQ(S_OK, tolvane_->Tolvane_RuleTriggered(plugin, guid, tag, nullptr, nullptr));
    EXPECT_EQ(S_OK, tolvane_->Tolvane_RuleTriggered(plugin, guid, nullptr, two, values));
    EXPECT_EQ(S_OK, tolvane_->Tolvane_RuleTriggered(empty, empty, empty, none, none));
    EXPECT_EQ(S_OK, tolvane_->Tolvane_RuleTriggered(plugin, guid, tag, fromFive, fromFive));
    EXPECT_EQ(S_OK, tolvane_->Tolvane_PeriodicDataGenerated(1, 2, 3, noBytes));
    EXPECT_EQ(S_OK, tolvane_->Tolvane_PeriodicDataGenerated(-1, 0x7fffffff, -2, bytes));
    // Not bytes: the element count is taken as the length in bytes.
    EXPECT_EQ(S_OK, tolvane_->Tolvane_PeriodicDataGenerated(4, 4, 4, notBytes));
    EXPECT_EQ(S_OK, tolvane_->Tolvane_SummaryCreated());
    for (BSTR text : {plugin, guid, tag, empty}) SysFreeString(text);
    for (SAFEARRAY* array : {two, values, none, fromFive, noBytes, bytes, notBytes}) SafeArrayDestroy(array);

    std::vector<std::wstring> described;
    std::vector<WORK_ITEM*> items = Queued();
    for (WORK_ITEM* item : items) described.push_back(Describe(item));
    EXPECT_EQ((std::vector<std::wstring>{
                  L"'plugin' '{guid}' ~ 0 ~ ~",
                  L"'plugin' '{guid}' ~ 2 ['a','b'] ['1','2']",
                  L"'' '' '' 0 [] []",
                  L"'plugin' '{guid}' 'Data' 2 ['x','\u00e9 ,\"\u4e2d'] ['x','\u00e9 ,\"\u4e2d']",
                  L"1 2 3 0 ~",
                  L"4294967295 2147483647 18446744073709551614 8 1.2.254.255.0.128.127.36.",
                  L"4 4 4 3 1.2.3.",
                  L"summary",
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

// Calls from several threads at once: every one is queued, once, and each
// caller's calls keep their order.
TEST_F(Calls, ConcurrentCallsAreQueuedInTheirOrder) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 250;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            BSTR caller = SysAllocString(std::to_wstring(t).c_str());
            for (int call = 0; call < kCalls; ++call) {
                BSTR guid = SysAllocString(std::to_wstring(call).c_str());
                tolvane_->Tolvane_RuleTriggered(caller, guid, nullptr, nullptr, nullptr);
                SysFreeString(guid);
            }
            SysFreeString(caller);
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<WORK_ITEM*> items = Queued();
    ASSERT_EQ(static_cast<size_t>(kThreads * kCalls), items.size());
    std::vector<int> nextCall(kThreads, 0);
    for (WORK_ITEM* item : items) {
        const int caller = std::stoi(item->u.ruleTriggered.rulePluginId);
        EXPECT_EQ(nextCall[caller]++, std::stoi(item->u.ruleTriggered.ruleGuid)) << "caller " << caller;
        FreeWorkItem(item);
    }
    EXPECT_EQ(allocBase_, g_allocCount);
}

TEST(ComServer, LockServerKeepsTheServerAliveUntilUnlockedOr5s) {
    ErrorLog log(L"comFactory_test_lock.txt");
    for (BOOL unlock : {TRUE, FALSE}) {
        ASSERT_EQ(0u, StartComServerThread());
        IClassFactory* factory = RegisteredFactory();
        ASSERT_NE(nullptr, factory);
        EXPECT_EQ(S_OK, factory->LockServer(TRUE));
        EXPECT_EQ(S_OK, unlock ? factory->LockServer(FALSE) : S_OK);
        factory->Release();
        DWORD start = GetTickCount();
        StopComServerThread();
        EXPECT_EQ(!unlock, GetTickCount() - start >= 4900u) << "waited " << GetTickCount() - start << " ms";
    }
    EXPECT_EQ((std::vector<std::string>{"ComServerThreadProc(): WaitForSingleObject(g_ComServerCleanupEvent) err=258"}),
              log.Messages());
    // The server is gone: the leftover lock is dropped with it.
    comServerRefCount = 0;
}

TEST(ComServer, StoppingWhatNeverStartedOnlyReports) {
    ErrorLog log(L"comFactory_test_never.txt");
    StopComServerThread();
    EXPECT_EQ((std::vector<std::string>{
                  "StopComServerThread(): SetEvent(g_ComServerThreadExitEvent) err=6",
                  "StopComServerThread(): WaitForSingleObject(g_ComServerThreadHandle) err=6",
              }),
              log.Messages());
}

// The type library as collectors' tools read it (its registration is the
// registration tool's part).
TEST(TypeLibrary, DescribesITolvaneAndTheCoclass) {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    ITypeLib* library = nullptr;
    ASSERT_EQ(S_OK, LoadTypeLibEx(self, REGKIND_NONE, &library));
    // "name|help string" of a type (MEMBERID_NIL) or of a member.
    auto documentation = [](ITypeInfo* info, MEMBERID id) {
        BSTR name = nullptr;
        BSTR help = nullptr;
        info->GetDocumentation(id, &name, &help, nullptr, nullptr);
        std::wstring text = std::wstring(name != nullptr ? name : L"") + L"|" + (help != nullptr ? help : L"");
        SysFreeString(name);
        SysFreeString(help);
        return text;
    };
    ITypeInfo* itf = nullptr;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(IID_ITolvane, &itf));
    TYPEATTR* attr = nullptr;
    ASSERT_EQ(S_OK, itf->GetTypeAttr(&attr));
    EXPECT_EQ(TKIND_INTERFACE, attr->typekind);
    EXPECT_EQ(TYPEFLAG_FOLEAUTOMATION, attr->wTypeFlags & (TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDUAL));
    ASSERT_EQ(3, attr->cFuncs);
    itf->ReleaseTypeAttr(attr);
    EXPECT_EQ(L"ITolvane|ITolvane interface", documentation(itf, MEMBERID_NIL));
    // Each method: slot, member id, name, then each [in] parameter's type (a SAFEARRAY's with its element's).
    const std::vector<std::wstring> expected = {
        L"3 60010000 Tolvane_SummaryCreated|:",
        L"4 60010001 Tolvane_RuleTriggered|:8,8,8,27/8,27/8,",
        L"5 60010002 Tolvane_PeriodicDataGenerated|:22,22,20,27/17,",
    };
    for (WORD i = 0; i < 3; ++i) {
        FUNCDESC* func = nullptr;
        ASSERT_EQ(S_OK, itf->GetFuncDesc(i, &func));
        EXPECT_TRUE(func->funckind == FUNC_PUREVIRTUAL && func->invkind == INVOKE_FUNC &&
                    func->callconv == CC_STDCALL && func->elemdescFunc.tdesc.vt == VT_HRESULT);
        wchar_t memid[16];
        swprintf(memid, 16, L"%lX", static_cast<unsigned long>(func->memid));
        std::wstring signature =
            std::to_wstring(func->oVft / 8) + L" " + memid + L" " + documentation(itf, func->memid) + L":";
        for (SHORT p = 0; p < func->cParams; ++p) {
            const ELEMDESC& param = func->lprgelemdescParam[p];
            signature += (param.paramdesc.wParamFlags & PARAMFLAG_FIN) ? L"" : L"not in ";
            signature += std::to_wstring(param.tdesc.vt);
            if (param.tdesc.vt == VT_SAFEARRAY) signature += L"/" + std::to_wstring(param.tdesc.lptdesc->vt);
            signature += L",";
        }
        EXPECT_EQ(expected[i], signature);
        itf->ReleaseFuncDesc(func);
    }
    itf->Release();

    ITypeInfo* coclass = nullptr;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(CLSID_Tolvane, &coclass));
    ASSERT_EQ(S_OK, coclass->GetTypeAttr(&attr));
    EXPECT_EQ(TKIND_COCLASS, attr->typekind);
    EXPECT_TRUE(attr->wTypeFlags & TYPEFLAG_FCANCREATE);
    EXPECT_EQ(1, attr->cImplTypes);
    coclass->ReleaseTypeAttr(attr);
    INT implFlags = 0;
    ASSERT_EQ(S_OK, coclass->GetImplTypeFlags(0, &implFlags));
    EXPECT_EQ(IMPLTYPEFLAG_FDEFAULT, implFlags);
    EXPECT_EQ(L"Tolvane|Tolvane coclass", documentation(coclass, MEMBERID_NIL));
    coclass->Release();
    library->Release();
}

}  // namespace
