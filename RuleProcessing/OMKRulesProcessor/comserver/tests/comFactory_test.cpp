// The class factory and the object as COM hands them to a caller in the
// server's own apartment (the raw objects, no proxy), the server thread's
// lifetime rules, and the type library this program carries as TYPELIB 1.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comErrorMessage.h"
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
        for (const std::string& line : {
                 self + "CreateInstance() (pUnkOuter!=nullptr)",
                 self + "CreateInstance() CTolvane(IUnknown)::QueryInterface hr=-2147467262(" +
                     omktest::ToUtf8(ComErrorMessage(E_NOINTERFACE).Text()) + ")",
                 self + "QueryInterface() (riid=={00000001-0000-0000-C000-000000000046}, "
                        "riid!=(IID_IUnknown || IID_ITolvane))",
                 self + "AddRef() tolvaneClassRefCount=3",
                 // The factory counts on while answering 2 and 1.
                 self + "AddRef() tolvaneFactoryRefCount=4",
             }) {
            EXPECT_EQ(1u, traces.Count(line)) << line;
        }
    }
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

    // Name and help string of the library (-1) and of the members below.
    auto documentation = [](auto* info, MEMBERID id) {
        BSTR name = nullptr;
        BSTR help = nullptr;
        info->GetDocumentation(id, &name, &help, nullptr, nullptr);
        std::wstring text = std::wstring(name != nullptr ? name : L"") + L"|" + (help != nullptr ? help : L"");
        SysFreeString(name);
        SysFreeString(help);
        return text;
    };
    EXPECT_EQ(0u, documentation(library, -1).find(L"TolvaneLib|"));

    ITypeInfo* itf = nullptr;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(IID_ITolvane, &itf));
    TYPEATTR* attr = nullptr;
    ASSERT_EQ(S_OK, itf->GetTypeAttr(&attr));
    EXPECT_EQ(TKIND_INTERFACE, attr->typekind);
    EXPECT_EQ(TYPEFLAG_FOLEAUTOMATION, attr->wTypeFlags & (TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDUAL));
    EXPECT_EQ(1, attr->cImplTypes);
    ASSERT_EQ(3, attr->cFuncs);
    itf->ReleaseTypeAttr(attr);
    EXPECT_EQ(L"ITolvane|ITolvane interface", documentation(itf, MEMBERID_NIL));
    HREFTYPE baseRef = 0;
    ITypeInfo* base = nullptr;
    ASSERT_EQ(S_OK, itf->GetRefTypeOfImplType(0, &baseRef));
    ASSERT_EQ(S_OK, itf->GetRefTypeInfo(baseRef, &base));
    EXPECT_EQ(L"IUnknown|", documentation(base, MEMBERID_NIL).substr(0, 9));
    base->Release();

    // Each method: name, then parameter types, a SAFEARRAY's followed by its element type.
    const std::vector<std::wstring> expected = {
        L"Tolvane_SummaryCreated:",
        L"Tolvane_RuleTriggered:8,8,8,27/8,27/8,",
        L"Tolvane_PeriodicDataGenerated:22,22,20,27/17,",
    };
    for (WORD i = 0; i < 3; ++i) {
        FUNCDESC* func = nullptr;
        ASSERT_EQ(S_OK, itf->GetFuncDesc(i, &func));
        EXPECT_EQ(static_cast<MEMBERID>(0x60010000 + i), func->memid);
        EXPECT_EQ(FUNC_PUREVIRTUAL, func->funckind);
        EXPECT_EQ(INVOKE_FUNC, func->invkind);
        EXPECT_EQ(CC_STDCALL, func->callconv);
        EXPECT_EQ(VT_HRESULT, func->elemdescFunc.tdesc.vt);
        EXPECT_EQ(static_cast<SHORT>(3 + i), func->oVft / 8) << "slot after the three of IUnknown";
        std::wstring signature = documentation(itf, func->memid);
        signature = signature.substr(0, signature.find(L'|')) + L":";
        for (SHORT p = 0; p < func->cParams; ++p) {
            const ELEMDESC& param = func->lprgelemdescParam[p];
            EXPECT_TRUE(param.paramdesc.wParamFlags & PARAMFLAG_FIN);
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
