// The class factory and the object as COM hands them to a caller in the
// server's own apartment (the raw objects, no proxy), the server thread's
// lifetime rules, and the type library this program carries as TYPELIB 1.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "comErrorMessage.h"
#include "comServer.h"
#include "engineTestSupport.h"
#include "testSupport.h"
#include "tolvane.h"
#include "workQueue.h"

void Tolvane_HandleEvents(WORK_ITEM*) {}

namespace {

using omktest::ErrorLog;
using omktest::TraceMonitor;

class ComInit : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        omktest::InitWorkQueueLock();
    }
    void TearDown() override {
        omktest::DeleteWorkQueueLock();
        CoUninitialize();
    }
};

const auto* const g_comInit = ::testing::AddGlobalTestEnvironment(new ComInit);

std::string Self() {
    return "[" + std::to_string(GetCurrentThreadId()) + "]";
}

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
    EXPECT_LT(GetTickCount() - start, 4000u);
    EXPECT_EQ(nullptr, g_ComServerThreadHandle);
    EXPECT_TRUE(log.Messages().empty());

    if (traces.Active()) {
        const std::string self = Self();
        const std::vector<std::string> lines = traces.Lines();
        auto seen = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) != lines.end(); };
        EXPECT_TRUE(seen(self + "CreateInstance() (pUnkOuter!=nullptr)"));
        EXPECT_TRUE(seen(self + "CreateInstance() CTolvane(IUnknown)::QueryInterface hr=-2147467262(" +
                         omktest::ToUtf8(ComErrorMessage(E_NOINTERFACE).Text()) + ")"));
        EXPECT_TRUE(seen(self + "QueryInterface() (riid=={00000001-0000-0000-C000-000000000046}, "
                                "riid!=(IID_IUnknown || IID_ITolvane))"));
        EXPECT_TRUE(seen(self + "AddRef() tolvaneClassRefCount=3"));
        // The factory counts on while answering 2 and 1.
        EXPECT_TRUE(seen(self + "AddRef() tolvaneFactoryRefCount=4"));
    }
}

TEST(ComServer, LockServerKeepsTheServerAliveUntilUnlockedOr5s) {
    TraceMonitor traces;
    ErrorLog log(L"comFactory_test_lock.txt");
    ASSERT_EQ(0u, StartComServerThread());
    IClassFactory* factory = RegisteredFactory();
    ASSERT_NE(nullptr, factory);
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    factory->Release();
    DWORD start = GetTickCount();
    StopComServerThread();
    EXPECT_LT(GetTickCount() - start, 4000u);
    EXPECT_TRUE(log.Messages().empty());

    ASSERT_EQ(0u, StartComServerThread());
    factory = RegisteredFactory();
    ASSERT_NE(nullptr, factory);
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    factory->Release();
    start = GetTickCount();
    StopComServerThread();
    EXPECT_GE(GetTickCount() - start, 4900u);
    std::vector<std::string> expected = {"ComServerThreadProc(): WaitForSingleObject(g_ComServerCleanupEvent) err=258"};
    EXPECT_EQ(expected, log.Messages());

    if (traces.Active()) {
        const std::string self = Self();
        EXPECT_EQ(3u, traces.Count(self + "LockServer() START"));
        EXPECT_EQ(2u, traces.Count(self + "LockServer() END comServerRefCount=2"));
        EXPECT_EQ(1u, traces.Count(self + "LockServer() END comServerRefCount=1"));
        EXPECT_EQ(2u, traces.Count("ComServerThreadProc() CoRegisterClassObject(CLSID_Tolvane,CTolvaneFactory)"));
        EXPECT_EQ(2u, traces.Count("]~CTolvane() comServerRefCount="));
    }
    // The server is gone: the leftover lock is dropped with it.
    comServerRefCount = 0;
}

TEST(ComServer, StoppingWhatNeverStartedOnlyReports) {
    ErrorLog log(L"comFactory_test_never.txt");
    StopComServerThread();
    std::vector<std::string> expected = {
        "StopComServerThread(): SetEvent(g_ComServerThreadExitEvent) err=6",
        "StopComServerThread(): WaitForSingleObject(g_ComServerThreadHandle) err=6",
    };
    EXPECT_EQ(expected, log.Messages());
}

// The type library as the automation marshaller and collectors read it.
TEST(TypeLibrary, DescribesTolvaneLibITolvaneAndTheCoclass) {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    ITypeLib* library = nullptr;
    ASSERT_EQ(S_OK, LoadTypeLibEx(self, REGKIND_NONE, &library));
    TLIBATTR* libAttr = nullptr;
    ASSERT_EQ(S_OK, library->GetLibAttr(&libAttr));
    EXPECT_TRUE(IsEqualGUID(LIBID_TolvaneLib, libAttr->guid));
    EXPECT_EQ(0x0409u, libAttr->lcid);
    EXPECT_EQ(SYS_WIN64, libAttr->syskind);
    EXPECT_EQ(1, libAttr->wMajorVerNum);
    EXPECT_EQ(0, libAttr->wMinorVerNum);
    library->ReleaseTLibAttr(libAttr);
    BSTR name = nullptr;
    ASSERT_EQ(S_OK, library->GetDocumentation(-1, &name, nullptr, nullptr, nullptr));
    EXPECT_STREQ(L"TolvaneLib", name);
    SysFreeString(name);

    ITypeInfo* itf = nullptr;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(IID_ITolvane, &itf));
    TYPEATTR* attr = nullptr;
    ASSERT_EQ(S_OK, itf->GetTypeAttr(&attr));
    EXPECT_EQ(TKIND_INTERFACE, attr->typekind);
    EXPECT_EQ(TYPEFLAG_FOLEAUTOMATION, attr->wTypeFlags & (TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDUAL));
    EXPECT_EQ(3, attr->cFuncs);
    EXPECT_EQ(1, attr->cImplTypes);
    const WORD functions = attr->cFuncs;
    itf->ReleaseTypeAttr(attr);
    BSTR help = nullptr;
    ASSERT_EQ(S_OK, itf->GetDocumentation(MEMBERID_NIL, nullptr, &help, nullptr, nullptr));
    EXPECT_STREQ(L"ITolvane interface", help);
    SysFreeString(help);
    HREFTYPE baseRef = 0;
    ITypeInfo* base = nullptr;
    ASSERT_EQ(S_OK, itf->GetRefTypeOfImplType(0, &baseRef));
    ASSERT_EQ(S_OK, itf->GetRefTypeInfo(baseRef, &base));
    TYPEATTR* baseAttr = nullptr;
    ASSERT_EQ(S_OK, base->GetTypeAttr(&baseAttr));
    EXPECT_TRUE(IsEqualGUID(IID_IUnknown, baseAttr->guid));
    base->ReleaseTypeAttr(baseAttr);
    base->Release();

    struct Expected {
        const wchar_t* name;
        std::vector<VARTYPE> params;
        std::vector<VARTYPE> arrayOf;  // element type of SAFEARRAY parameters
    };
    const Expected expected[3] = {
        {L"Tolvane_SummaryCreated", {}, {}},
        {L"Tolvane_RuleTriggered", {VT_BSTR, VT_BSTR, VT_BSTR, VT_SAFEARRAY, VT_SAFEARRAY}, {VT_BSTR, VT_BSTR}},
        {L"Tolvane_PeriodicDataGenerated", {VT_INT, VT_INT, VT_I8, VT_SAFEARRAY}, {VT_UI1}},
    };
    for (WORD i = 0; i < functions && i < 3; ++i) {
        FUNCDESC* func = nullptr;
        ASSERT_EQ(S_OK, itf->GetFuncDesc(i, &func));
        EXPECT_EQ(static_cast<MEMBERID>(0x60010000 + i), func->memid);
        EXPECT_EQ(FUNC_PUREVIRTUAL, func->funckind);
        EXPECT_EQ(INVOKE_FUNC, func->invkind);
        EXPECT_EQ(CC_STDCALL, func->callconv);
        EXPECT_EQ(VT_HRESULT, func->elemdescFunc.tdesc.vt);
        EXPECT_EQ(static_cast<SHORT>(3 + i), func->oVft / 8) << "slot after the three of IUnknown";
        ASSERT_EQ(expected[i].params.size(), static_cast<size_t>(func->cParams));
        size_t arrays = 0;
        for (SHORT p = 0; p < func->cParams; ++p) {
            const ELEMDESC& param = func->lprgelemdescParam[p];
            EXPECT_EQ(expected[i].params[p], param.tdesc.vt) << "parameter " << p;
            EXPECT_TRUE(param.paramdesc.wParamFlags & PARAMFLAG_FIN);
            if (param.tdesc.vt == VT_SAFEARRAY) {
                EXPECT_EQ(expected[i].arrayOf[arrays++], param.tdesc.lptdesc->vt);
            }
        }
        BSTR funcName = nullptr;
        ASSERT_EQ(S_OK, itf->GetDocumentation(func->memid, &funcName, nullptr, nullptr, nullptr));
        EXPECT_STREQ(expected[i].name, funcName);
        SysFreeString(funcName);
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
    ASSERT_EQ(S_OK, coclass->GetDocumentation(MEMBERID_NIL, &name, &help, nullptr, nullptr));
    EXPECT_STREQ(L"Tolvane", name);
    EXPECT_STREQ(L"Tolvane coclass", help);
    SysFreeString(name);
    SysFreeString(help);
    coclass->Release();
    library->Release();
}

}  // namespace
