#include "CTolvaneFactory.h"

#include "comErrorMessage.h"
#include "conventions.h"

namespace {

// What the factory's AddRef and Release answer, whatever the count.
constexpr ULONG kAddRefResult = 2;
constexpr ULONG kReleaseResult = 1;

}  // namespace

CTolvaneFactory::CTolvaneFactory() : tolvaneFactoryRefCount(0) {
    OmkTraceA("[%lu]%s()", GetCurrentThreadId(), "CTolvaneFactory");
}

CTolvaneFactory::~CTolvaneFactory() {
    OmkTraceA("[%lu]%s()", GetCurrentThreadId(), "~CTolvaneFactory");
}

HRESULT STDMETHODCALLTYPE CTolvaneFactory::QueryInterface(REFIID riid, void** ppv) {
    return QueryOneInterface(riid, ppv, IID_IClassFactory, "IID_IClassFactory", static_cast<IClassFactory*>(this));
}

ULONG STDMETHODCALLTYPE CTolvaneFactory::AddRef() {
    std::lock_guard<std::mutex> guard(lock_);
    ++tolvaneFactoryRefCount;
    OmkTraceA("[%lu]%s() tolvaneFactoryRefCount=%lu", GetCurrentThreadId(), "AddRef", tolvaneFactoryRefCount);
    return kAddRefResult;
}

ULONG STDMETHODCALLTYPE CTolvaneFactory::Release() {
    std::lock_guard<std::mutex> guard(lock_);
    if (tolvaneFactoryRefCount != 0) --tolvaneFactoryRefCount;
    OmkTraceA("[%lu]%s() tolvaneFactoryRefCount=%lu", GetCurrentThreadId(), "Release", tolvaneFactoryRefCount);
    return kReleaseResult;
}

HRESULT STDMETHODCALLTYPE CTolvaneFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
    const char* const function = "CreateInstance";
    char riidText[260];
    FormatRiid(riid, riidText);
    OmkTraceA("[%lu]%s() START riid=%s", GetCurrentThreadId(), function, riidText);
    if (pUnkOuter != nullptr) {
        OmkTraceA("[%lu]%s() (pUnkOuter!=nullptr)", GetCurrentThreadId(), function);
        return CLASS_E_NOAGGREGATION;
    }
    if (ppv == nullptr) {
        OmkTraceA("[%lu]%s() (ppv==nullptr)", GetCurrentThreadId(), function);
        return E_INVALIDARG;
    }
    HRESULT hr = object.QueryInterface(riid, ppv);
    if (FAILED(hr)) {
        OmkTraceA("[%lu]%s() CTolvane(IUnknown)::QueryInterface hr=%ld(%ls)", GetCurrentThreadId(), function, hr,
                  ComErrorMessage(hr).Text());
        return hr;
    }
    OmkTraceA("[%lu]%s() END riid=%s", GetCurrentThreadId(), function, riidText);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CTolvaneFactory::LockServer(BOOL fLock) {
    const char* const function = "LockServer";
    OmkTraceStart(function);
    ULONG count = fLock ? AddComServerRef() : ReleaseComServerRef();
    OmkTraceA("[%lu]%s() END %s=%lu", GetCurrentThreadId(), function, "comServerRefCount", count);
    return S_OK;
}

bool CTolvaneFactory::Disconnect(DWORD waitMs) {
    CoDisconnectObject(static_cast<ITolvane*>(&object), 0);
    CoDisconnectObject(static_cast<IClassFactory*>(this), 0);
    return WaitForSingleObject(g_ComClassCleanupEvent, waitMs) == WAIT_OBJECT_0;
}
