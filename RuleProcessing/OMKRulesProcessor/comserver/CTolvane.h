// The object behind ITolvane. Each method checks its arguments, copies them
// into a new WORK_ITEM and queues it for the engine thread; nothing is
// evaluated here. Methods run on COM's RPC threads, concurrently.
#pragma once

#include <windows.h>

#include <mutex>

#include "tolvane.h"

// Server locks (LockServer) plus live CTolvane objects, guarded by
// comServerRefCountLock. Falling to 0 sets g_ComServerCleanupEvent.
extern ULONG comServerRefCount;
extern std::mutex comServerRefCountLock;

// Manual-reset, signalled while no client holds a reference to the object.
// Created (signalled) by StartComServerThread; the COM server thread waits on it.
extern HANDLE g_ComClassCleanupEvent;

// Manual-reset, signalled when comServerRefCount falls to 0. Created by
// StartComServerThread; the COM server thread waits on it at the end.
extern HANDLE g_ComServerCleanupEvent;

// Raise or lower comServerRefCount (never below 0), resetting
// g_ComServerCleanupEvent or setting it at 0 under the same lock; return the
// new count.
ULONG AddComServerRef();
ULONG ReleaseComServerRef();

// Writes `riid` as {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX} for trace lines.
void FormatRiid(REFIID riid, char (&text)[260]);

// QueryInterface of an object that offers IUnknown and one interface `ownIid`
// (named `ownIidName` in its trace lines); `self` is that interface.
HRESULT QueryOneInterface(REFIID riid, void** ppv, REFIID ownIid, const char* ownIidName, IUnknown* self);

// The one ITolvane object of the server. It lives inside the class factory and
// is built and destroyed with it; Release never deletes it.
class CTolvane final : public ITolvane {
public:
    // Counts itself in comServerRefCount.
    CTolvane();
    ~CTolvane();
    CTolvane(const CTolvane&) = delete;
    CTolvane& operator=(const CTolvane&) = delete;

    // IUnknown and ITolvane only.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    // Client references; arrival at 0 sets g_ComClassCleanupEvent, leaving 0 resets it.
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // Queues a summary-created item; always S_OK.
    HRESULT STDMETHODCALLTYPE Tolvane_SummaryCreated() override;
    // Checks the two arrays (both or neither, one dimension of BSTRs, equal counts) and
    // queues a rule-triggered item with copies of everything; S_OK once the
    // arguments are accepted, even if nothing could be queued.
    HRESULT STDMETHODCALLTYPE Tolvane_RuleTriggered(BSTR rulePluginId, BSTR ruleGuid, BSTR dataItemsEnclosingXmlTag,
                                                    SAFEARRAY* dataItemName, SAFEARRAY* dataItemVal) override;
    // Queues a periodic-data item with a copy of the bytes of a one-dimensional array.
    HRESULT STDMETHODCALLTYPE Tolvane_PeriodicDataGenerated(int Code, int SubCode, INT64 TimeStamp,
                                                            SAFEARRAY* data) override;

private:
    std::mutex lock_;  // guards tolvaneClassRefCount
    ULONG tolvaneClassRefCount;
};
