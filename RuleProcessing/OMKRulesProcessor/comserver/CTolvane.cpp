#include "CTolvane.h"

#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

#include "conventions.h"
#include "omkErrors.h"
#include "workQueue.h"

ULONG comServerRefCount = 0;
std::mutex comServerRefCountLock;
HANDLE g_ComClassCleanupEvent = nullptr;
HANDLE g_ComServerCleanupEvent = nullptr;

namespace {

// Bytes of a periodic-data item after its `data` pointer.
constexpr size_t kPeriodicTailBytes = 16;

// A private copy of a terminated wide string, counted; null when out of memory.
wchar_t* CopyString(const wchar_t* text) {
    size_t bytes = (wcslen(text) + 1) * sizeof(wchar_t);
    auto* copy = static_cast<wchar_t*>(malloc(bytes));
    if (copy == nullptr) return nullptr;
    OmkFill(copy, bytes);
    memcpy(copy, text, bytes);
    ++g_allocCount;
    return copy;
}

void FreeString(wchar_t* text) {
    if (text == nullptr) return;
    --g_allocCount;
    free(text);
}

void DestroyArray(SAFEARRAY* array) {
    if (array != nullptr) SafeArrayDestroy(array);
}

// Element count of the last dimension. Both bounds are read before the number
// of dimensions is looked at, so a bounds failure wins over a dimension error.
HRESULT GetSafeArrayNumElems(SAFEARRAY* array, UINT* dims, LONG* count) {
    *dims = SafeArrayGetDim(array);
    LONG lower = 0;
    LONG upper = 0;
    HRESULT hr = SafeArrayGetLBound(array, *dims, &lower);
    if (FAILED(hr)) return hr;
    hr = SafeArrayGetUBound(array, *dims, &upper);
    if (FAILED(hr)) return hr;
    *count = upper - lower + 1;
    return S_OK;
}

// Counts one of the two data arrays; reports and returns the failure, if any.
HRESULT CountDataItems(SAFEARRAY* array, const char* which, LONG* count) {
    UINT dims = 0;
    HRESULT hr = GetSafeArrayNumElems(array, &dims, count);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"Tolvane_RuleTriggered: GetSafeArrayNumElems(%hs) failed  0x%x", which, hr);
        return hr;
    }
    if (dims != 1) {
        OMK_ReportError(0, L"Tolvane_RuleTriggered: GetSafeArrayNumElems (%hs) dim %d not supported", which,
                        static_cast<int>(dims));
        return E_INVALIDARG;
    }
    // The marshaller hands over arrays of any element type, and the engine reads
    // every element as a BSTR: anything else (VARIANTs included) is refused here.
    VARTYPE type = VT_EMPTY;
    if (FAILED(SafeArrayGetVartype(array, &type)) || type != VT_BSTR) {
        OMK_ReportError(0, L"Tolvane_RuleTriggered: GetSafeArrayNumElems (%hs) vartype %d not supported", which,
                        static_cast<int>(type));
        return E_INVALIDARG;
    }
    return S_OK;
}

void OnSummaryFile() {
    auto* item = static_cast<WORK_ITEM*>(malloc(sizeof(WORK_ITEM)));
    if (item == nullptr) {
        OMK_ReportError(0, L"OnSummaryFile: out of mem to queue Tolvane action on summary File");
        return;
    }
    OmkFill(item, sizeof(WORK_ITEM));
    ++g_allocCount;
    item->kind = WORK_SUMMARY_CREATED;
    item->next = nullptr;
    AddToWorkQueue(item);
}

void OnRuleTriggered(const wchar_t* rulePluginId, const wchar_t* ruleGuid, const wchar_t* dataItemsEnclosingXmlTag,
                     LONG count, SAFEARRAY* dataItemName, SAFEARRAY* dataItemVal) {
    if (rulePluginId == nullptr || ruleGuid == nullptr) {
        OMK_ReportError(0, L"OnRuleTriggered: null rulePluginId %p or ruleGuid %p",
                        static_cast<const void*>(rulePluginId), static_cast<const void*>(ruleGuid));
        return;
    }
    SAFEARRAY* names = nullptr;
    SAFEARRAY* values = nullptr;
    wchar_t* tag = nullptr;
    // Without data arrays the tag has nothing to enclose and is not kept.
    if (dataItemName != nullptr && dataItemVal != nullptr) {
        HRESULT hr = SafeArrayCopy(dataItemName, &names);
        if (FAILED(hr)) {
            OMK_ReportError(0, L"Tolvane_RuleTriggered: could not copy dataItemName safeArray 0x%x", hr);
            return;
        }
        hr = SafeArrayCopy(dataItemVal, &values);
        if (FAILED(hr)) {
            OMK_ReportError(0, L"Tolvane_RuleTriggered: could not copy dataItemVal safeArray 0x%x", hr);
            DestroyArray(names);
            return;
        }
        if (dataItemsEnclosingXmlTag != nullptr) {
            tag = CopyString(dataItemsEnclosingXmlTag);
            if (tag == nullptr) {
                OMK_ReportError(0, L"Tolvane_RuleTriggered: could not copy dataItemsEnclosingXmlTag %ws",
                                dataItemsEnclosingXmlTag);
                DestroyArray(values);
                DestroyArray(names);
                return;
            }
        }
    }

    auto* item = static_cast<WORK_ITEM*>(malloc(sizeof(WORK_ITEM)));
    if (item == nullptr) {
        OMK_ReportError(0, L"OnRuleTriggered: out of mem to queue Tolvane action on rule %ws %ws", rulePluginId,
                        ruleGuid);
        FreeString(tag);
        DestroyArray(values);
        DestroyArray(names);
        return;
    }
    ++g_allocCount;
    memset(item, 0, sizeof(WORK_ITEM));
    item->kind = WORK_RULE_TRIGGERED;
    auto& rule = item->u.ruleTriggered;
    rule.ruleGuid = CopyString(ruleGuid);
    // A failed plugin id copy still queues the item: no rule can match it.
    rule.rulePluginId = CopyString(rulePluginId);
    if (names != nullptr && values != nullptr) {
        rule.dataItemVal = values;
        rule.numDataItems = static_cast<unsigned int>(count);
        rule.dataItemName = names;
        rule.dataItemsEnclosingXmlTag = tag;
    }
    if (rule.ruleGuid != nullptr) {
        AddToWorkQueue(item);
        return;
    }
    OMK_ReportError(0, L"OnRuleTriggered: out of mem to copy ruleGuid rule %ws %ws", rulePluginId, ruleGuid);
    FreeString(rule.rulePluginId);
    FreeString(tag);
    DestroyArray(values);
    DestroyArray(names);
    --g_allocCount;
    free(item);
}

void OnPeriodicData(int code, int subCode, INT64 timeStamp, const void* bytes, ULONG length) {
    auto* item = static_cast<WORK_ITEM*>(malloc(sizeof(WORK_ITEM)));
    if (item == nullptr) {
        OMK_ReportError(0, L"OnPeriodicData: out of mem to queue Tolvane action on dperiodic record %d %d of len %d",
                        code, subCode, static_cast<int>(length));
        return;
    }
    OmkFill(item->u.periodicData.unused, kPeriodicTailBytes);
    ++g_allocCount;
    item->kind = WORK_PERIODIC_DATA;
    item->next = nullptr;
    auto& periodic = item->u.periodicData;
    periodic.code = static_cast<unsigned int>(code);
    periodic.subCode = static_cast<unsigned int>(subCode);
    periodic.dataLen = length;
    periodic.timeStamp = static_cast<unsigned long long>(timeStamp);
    periodic.data = nullptr;
    if (length != 0 && bytes != nullptr) {
        auto* copy = static_cast<unsigned char*>(malloc(length));
        if (copy == nullptr) {
            OMK_ReportError(0, L"OnPeriodicData: out of mem to queue data for periodic record %d %d of len %d", code,
                            subCode, static_cast<int>(length));
            --g_allocCount;
            free(item);
            return;
        }
        OmkFill(copy, length);
        ++g_allocCount;
        periodic.data = copy;
        memcpy(copy, bytes, length);
    }
    AddToWorkQueue(item);
}

// Opens the bytes of a one-dimensional array; on success the caller unaccesses it.
HRESULT LockPeriodicEntryData(SAFEARRAY* data, void** bytes, ULONG* length) {
    if (data == nullptr || SafeArrayGetDim(data) != 1) return E_INVALIDARG;
    LONG lower = 0;
    LONG upper = 0;
    HRESULT hr = SafeArrayGetLBound(data, 1, &lower);
    if (FAILED(hr)) return hr;
    hr = SafeArrayGetUBound(data, 1, &upper);
    if (FAILED(hr)) return hr;
    hr = SafeArrayAccessData(data, bytes);
    if (FAILED(hr)) return hr;
    *length = static_cast<ULONG>(upper - lower + 1);
    return S_OK;
}

}  // namespace

// The cleanup events are set and reset with the count's lock held: signalled
// after the lock, a Release arriving at 0 could set the event just after a
// concurrent AddRef had reset it, leaving it signalled while references exist.
ULONG AddComServerRef() {
    std::lock_guard<std::mutex> guard(comServerRefCountLock);
    ResetEvent(g_ComServerCleanupEvent);
    return ++comServerRefCount;
}

ULONG ReleaseComServerRef() {
    std::lock_guard<std::mutex> guard(comServerRefCountLock);
    if (comServerRefCount != 0) --comServerRefCount;
    if (comServerRefCount == 0) SetEvent(g_ComServerCleanupEvent);
    return comServerRefCount;
}

void FormatRiid(REFIID riid, char (&text)[260]) {
    _snprintf(text, sizeof(text) - 1, "{%.8lX-%.4X-%.4X-%.2X%.2X-%.2X%.2X%.2X%.2X%.2X%.2X}", riid.Data1, riid.Data2,
              riid.Data3, riid.Data4[0], riid.Data4[1], riid.Data4[2], riid.Data4[3], riid.Data4[4], riid.Data4[5],
              riid.Data4[6], riid.Data4[7]);
    text[sizeof(text) - 1] = '\0';
}

CTolvane::CTolvane() : tolvaneClassRefCount(0) {
    ULONG count = AddComServerRef();
    OmkTraceA("[%lu]%s() %s=%lu", GetCurrentThreadId(), "CTolvane", "comServerRefCount", count);
}

CTolvane::~CTolvane() {
    ULONG count = ReleaseComServerRef();
    OmkTraceA("[%lu]%s() %s=%lu", GetCurrentThreadId(), "~CTolvane", "comServerRefCount", count);
}

HRESULT QueryOneInterface(REFIID riid, void** ppv, REFIID ownIid, const char* ownIidName, IUnknown* self) {
    const char* const function = "QueryInterface";
    char riidText[260];
    FormatRiid(riid, riidText);
    OmkTraceA("[%lu]%s() START riid=%s", GetCurrentThreadId(), function, riidText);
    if (ppv == nullptr) {
        OmkTraceA("[%lu]%s() (ppv==nullptr)", GetCurrentThreadId(), function);
        return E_INVALIDARG;
    }
    if (IsEqualIID(riid, IID_IUnknown)) {
        OmkTraceA("[%lu]%s() (riid==IID_IUnknown)", GetCurrentThreadId(), function);
    } else if (IsEqualIID(riid, ownIid)) {
        OmkTraceA("[%lu]%s() (riid==%s)", GetCurrentThreadId(), function, ownIidName);
    } else {
        OmkTraceA("[%lu]%s() (riid==%s, riid!=(IID_IUnknown || %s))", GetCurrentThreadId(), function, riidText,
                  ownIidName);
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    *ppv = self;
    self->AddRef();
    OmkTraceA("[%lu]%s() END riid=%s", GetCurrentThreadId(), function, riidText);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CTolvane::QueryInterface(REFIID riid, void** ppv) {
    return QueryOneInterface(riid, ppv, IID_ITolvane, "IID_ITolvane", static_cast<ITolvane*>(this));
}

ULONG STDMETHODCALLTYPE CTolvane::AddRef() {
    ULONG count;
    {
        std::lock_guard<std::mutex> guard(lock_);
        ResetEvent(g_ComClassCleanupEvent);
        count = ++tolvaneClassRefCount;
    }
    OmkTraceA("[%lu]%s() tolvaneClassRefCount=%lu", GetCurrentThreadId(), "AddRef", count);
    return count;
}

ULONG STDMETHODCALLTYPE CTolvane::Release() {
    ULONG count;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (tolvaneClassRefCount != 0) --tolvaneClassRefCount;
        count = tolvaneClassRefCount;
        if (count == 0) SetEvent(g_ComClassCleanupEvent);
    }
    OmkTraceA("[%lu]%s() tolvaneClassRefCount=%lu", GetCurrentThreadId(), "Release", count);
    return count;
}

HRESULT STDMETHODCALLTYPE CTolvane::Tolvane_SummaryCreated() {
    OnSummaryFile();
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CTolvane::Tolvane_RuleTriggered(BSTR rulePluginId, BSTR ruleGuid,
                                                          BSTR dataItemsEnclosingXmlTag, SAFEARRAY* dataItemName,
                                                          SAFEARRAY* dataItemVal) {
    if ((dataItemName == nullptr) != (dataItemVal == nullptr)) return E_INVALIDARG;
    LONG count = 0;
    if (dataItemName != nullptr) {
        HRESULT hr = CountDataItems(dataItemName, "dataItemNames", &count);
        if (FAILED(hr)) return hr;
        LONG values = 0;
        hr = CountDataItems(dataItemVal, "dataItemVal", &values);
        if (FAILED(hr)) return hr;
        if (count != values) {
            OMK_ReportError(0, L"Tolvane_RuleTriggered: numDataItem %d != numDataVals %d", static_cast<int>(count),
                            static_cast<int>(values));
            return E_INVALIDARG;
        }
    }
    OnRuleTriggered(rulePluginId, ruleGuid, dataItemsEnclosingXmlTag, count, dataItemName, dataItemVal);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CTolvane::Tolvane_PeriodicDataGenerated(int Code, int SubCode, INT64 TimeStamp,
                                                                  SAFEARRAY* data) {
    void* bytes = nullptr;
    ULONG length = 0;
    HRESULT hr = LockPeriodicEntryData(data, &bytes, &length);
    if (FAILED(hr)) {
        OMK_ReportError(0,
                        L"CTolvane::Tolvane_PeriodicDataGenerated: LockPeriodicEntryData failed 0x%x (Code 0x%x "
                        L"SubCode 0x%x)",
                        hr, Code, SubCode);
        return hr;
    }
    OnPeriodicData(Code, SubCode, TimeStamp, bytes, length);
    SafeArrayUnaccessData(data);
    return S_OK;
}
