// tolvaneBenchHost <name>: serves Tolvane as the service does (COM server
// thread, engine thread, the real queue) and, from the same multithreaded
// apartment, the do-nothing baseline TolvaneBenchNull. Its engine handles an
// item by counting it, or waits while the bench holds it.
#include <windows.h>

#include <string>

#include "benchShared.h"
#include "comServer.h"
#include "engineTestSupport.h"
#include "tolvaneBench.h"
#include "workQueue.h"

namespace {

constexpr DWORD kLifetimeMs = 600000;

bench::Stats* g_stats = nullptr;
HANDLE g_release = nullptr;

// The baseline object: every method returns at once.
class NullTolvane final : public ITolvaneBenchNull {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv == nullptr) return E_INVALIDARG;
        if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_ITolvaneBenchNull)) {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        *ppv = static_cast<ITolvaneBenchNull*>(this);
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE Tolvane_SummaryCreated() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Tolvane_RuleTriggered(BSTR, BSTR, BSTR, SAFEARRAY*, SAFEARRAY*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Tolvane_PeriodicDataGenerated(int, int, INT64, SAFEARRAY*) override { return S_OK; }
};

class NullFactory final : public IClassFactory {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv == nullptr) return E_INVALIDARG;
        if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IClassFactory)) {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        *ppv = static_cast<IClassFactory*>(this);
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        return object_.QueryInterface(riid, ppv);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    NullTolvane object_;
};

NullFactory g_nullFactory;

}  // namespace

// Looks at a flag in shared memory first, so that an item costs the engine no
// extra call into the system while it is not held.
void Tolvane_HandleEvents(WORK_ITEM*) {
    if (g_stats->hold != 0) WaitForSingleObject(g_release, INFINITE);
    InterlockedIncrement(&g_stats->handled);
}

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) return 87;
    const std::wstring name = argv[1];
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, bench::EventName(name, L"ready").c_str());
    HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, bench::EventName(name, L"stop").c_str());
    g_release = CreateEventW(nullptr, TRUE, TRUE, bench::EventName(name, L"release").c_str());
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(bench::Stats),
                                        bench::EventName(name, L"stats").c_str());
    if (mapping == nullptr) return 2;
    g_stats = static_cast<bench::Stats*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));

    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return 3;
    omktest::InitWorkQueueLock();
    if (StartComServerThread() != 0) return 4;
    if (StartTolvaneThread() != 0) return 5;
    DWORD cookie = 0;
    if (FAILED(CoRegisterClassObject(CLSID_TolvaneBenchNull, &g_nullFactory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE,
                                     &cookie))) {
        return 6;
    }
    SetEvent(ready);
    WaitForSingleObject(stop, kLifetimeMs);

    CoRevokeClassObject(cookie);
    g_stats->hold = 0;
    SetEvent(g_release);
    StopTolvaneThread();
    omktest::DeleteWorkQueueLock();
    StopComServerThread();
    CoUninitialize();
    return 0;
}
