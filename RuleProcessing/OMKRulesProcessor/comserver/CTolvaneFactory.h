// The class factory of Tolvane. It holds the one CTolvane that every client
// receives; the COM server thread builds, registers, revokes and destroys it.
#pragma once

#include <windows.h>

#include <mutex>

#include "CTolvane.h"

class CTolvaneFactory final : public IClassFactory {
public:
    // Builds the member CTolvane with it.
    CTolvaneFactory();
    ~CTolvaneFactory();
    CTolvaneFactory(const CTolvaneFactory&) = delete;
    CTolvaneFactory& operator=(const CTolvaneFactory&) = delete;

    // IUnknown and IClassFactory only.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    // Count references but answer the constants 2 and 1; never delete the
    // factory, whose life the COM server thread alone decides.
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    // Hands out the member CTolvane (no new object is made); no aggregation.
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
    // Raises or lowers comServerRefCount. Always S_OK.
    HRESULT STDMETHODCALLTYPE LockServer(BOOL fLock) override;

    // Cuts every client off the object and the factory, so that no call can
    // reach them once they are destroyed; COM releases the references it held
    // for those clients. True when no reference to the object remains after
    // `waitMs` (calls under way keep theirs until they return). COM server
    // thread, after the class is revoked.
    bool Disconnect(DWORD waitMs);

private:
    std::mutex lock_;  // guards tolvaneFactoryRefCount
    ULONG tolvaneFactoryRefCount;
    CTolvane object;
};
