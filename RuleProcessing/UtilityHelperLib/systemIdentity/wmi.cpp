// Model and chassis class of the machine, read through WMI.
#include <objbase.h>
#include <new>
#include <oleauto.h>
#include <wchar.h>

#include "comErrorMessage.h"
#include "conventions.h"
#include "omkErrors.h"
#include "systemIdentity.h"

namespace {

// Source name and lines quoted in the WMI connection reports.
const char kSourceName[] = "wmi";
constexpr int kCreateLocatorLine = 89;
constexpr int kConnectServerLine = 112;
constexpr int kProxyBlanketLine = 134;

const wchar_t kCimNamespace[] = L"ROOT\\CIMV2";
// WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY
constexpr LONG kQueryFlags = 0x30;

// Test replacements of the WMI values, guarded by g_overrideLock; constant
// (no replacement) outside test builds.
SRWLOCK g_overrideLock = SRWLOCK_INIT;
#ifdef OMK_TEST_SEAMS
bool g_modelOverridden = false;
bool g_modelReadable = false;
wchar_t g_modelOverride[OMK_MODEL_CHARS];
bool g_chassisOverridden = false;
DWORD g_chassisOverride = 0;
#else
constexpr bool g_modelOverridden = false;
constexpr bool g_modelReadable = false;
constexpr wchar_t g_modelOverride[1] = L"";
constexpr bool g_chassisOverridden = false;
constexpr DWORD g_chassisOverride = 0;
#endif

template <typename T>
void ReleaseAndClear(T** pointer) {
    if (*pointer != nullptr) (*pointer)->Release();
    *pointer = nullptr;
}

// Runs a WQL query and returns its first object, only when exactly one
// object comes back for the first Next.
IWbemClassObject* QueryFirstObject(IWbemServices* services, const wchar_t* query) {
    BSTR language = SysAllocString(L"WQL");
    BSTR text = SysAllocString(query);
    IEnumWbemClassObject* enumerator = nullptr;
    HRESULT hr = (language != nullptr && text != nullptr)
                     ? services->ExecQuery(language, text, kQueryFlags, nullptr, &enumerator)
                     : E_OUTOFMEMORY;
    SysFreeString(text);
    SysFreeString(language);
    if (FAILED(hr) || enumerator == nullptr) {
        OmkTraceW(L"%hs(): IWbemServices::ExecQuery(%s) failed! hr=%ld", __func__, query, hr);
        return nullptr;
    }
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    hr = enumerator->Next(WBEM_INFINITE, 1, &object, &returned);
    enumerator->Release();
    if (FAILED(hr) || returned != 1 || object == nullptr) {
        OmkTraceW(L"%hs(): IEnumWbemClassObject::Next(%s) hr=%ld returned %lu", __func__, query, hr, returned);
        if (object != nullptr) object->Release();
        return nullptr;
    }
    return object;
}

// Copies `text` into the model buffer and removes trailing spaces.
void StoreModel(wchar_t* model, const wchar_t* text) {
    wcsncpy_s(model, OMK_MODEL_CHARS, text, _TRUNCATE);
    size_t length = wcslen(model);
    while (length > 0 && model[length - 1] == L' ') model[--length] = L'\0';
}

// The value of one element of a numeric SAFEARRAY of element type `type`.
DWORD ReadArrayElement(SAFEARRAY* array, LONG index, VARTYPE type) {
    switch (type) {
        case VT_I1:
        case VT_UI1: {
            BYTE value = 0;
            return SUCCEEDED(SafeArrayGetElement(array, &index, &value)) ? value : 0;
        }
        case VT_I2:
        case VT_UI2: {
            USHORT value = 0;
            return SUCCEEDED(SafeArrayGetElement(array, &index, &value)) ? value : 0;
        }
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT: {
            DWORD value = 0;
            return SUCCEEDED(SafeArrayGetElement(array, &index, &value)) ? value : 0;
        }
        default:
            return 0;
    }
}

// Reads the first ChassisTypes value into `raw`; false when there is none.
// The array's elements are taken at their real width, and a value whose CIM
// type is 16-bit keeps only its low 16 bits: some WMI providers hand 16-bit
// values over in 32-bit elements with the upper bytes undefined.
bool ReadFirstChassisType(IWbemServices* services, DWORD* raw) {
    IWbemClassObject* object = QueryFirstObject(services, L"SELECT ChassisTypes FROM Win32_SystemEnclosure");
    if (object == nullptr) return false;
    VARIANT value;
    VariantInit(&value);
    CIMTYPE cimType = 0;
    HRESULT hr = object->Get(L"ChassisTypes", 0, &value, &cimType, nullptr);
    object->Release();
    if (FAILED(hr) || (V_VT(&value) & VT_ARRAY) == 0 || V_ARRAY(&value) == nullptr) {
        OmkTraceW(L"%hs(): ChassisTypes hr=%ld vt=%u", __func__, hr, static_cast<unsigned>(V_VT(&value)));
        VariantClear(&value);
        return false;
    }

    SAFEARRAY* array = V_ARRAY(&value);
    const VARTYPE elementType = static_cast<VARTYPE>(V_VT(&value) & VT_TYPEMASK);
    const bool sixteenBit = (cimType & ~CIM_FLAG_ARRAY) == CIM_UINT16 || (cimType & ~CIM_FLAG_ARRAY) == CIM_SINT16;
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(array, 1, &lower);
    SafeArrayGetUBound(array, 1, &upper);
    const LONG count = upper >= lower ? upper - lower + 1 : 0;
    bool found = false;
    if (count > 0) {
        DWORD* values = new (std::nothrow) DWORD[static_cast<size_t>(count)];
        if (values != nullptr) {
            ++g_allocCount;
            for (LONG i = 0; i < count; ++i) {
                values[i] = ReadArrayElement(array, lower + i, elementType);
                if (sixteenBit) values[i] &= 0xFFFF;
            }
            *raw = values[0];
            found = true;
            delete[] values;
            --g_allocCount;
        }
    }
    VariantClear(&value);
    return found;
}

}  // namespace

bool WmiInit(const wchar_t* nameSpace, IWbemLocator** locator, IWbemServices** services, bool* uninitialize) {
    *locator = nullptr;
    *services = nullptr;
    *uninitialize = false;

    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (hr == S_FALSE) {
        OmkTraceA("[%lu]%s Multiple calls to CoInitializeEx() by this thread.", GetCurrentThreadId(), __func__);
    } else if (FAILED(hr)) {
        // The thread stays in the apartment it was in; WMI may still work from there.
        OMK_ReportError(0, L"%hs(): CoInitializeEx(COINIT_MULTITHREADED) hr=%ld(%ls)", __func__, hr,
                        ComErrorMessage(hr).Text());
    }
    const bool counted = SUCCEEDED(hr);

    hr = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE,
                              nullptr, EOAC_NONE, nullptr);
    if (hr == RPC_E_TOO_LATE) {
        OmkTraceA("[%lu]%s CoInitializeSecurity() has already been called by process %lu.", GetCurrentThreadId(),
                  __func__, GetCurrentProcessId());
    } else if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CoInitializeSecurity() hr=%ld(%ls)", __func__, hr, ComErrorMessage(hr).Text());
        if (counted) CoUninitialize();
        return false;
    }

    hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                          reinterpret_cast<void**>(locator));
    if (FAILED(hr) || *locator == nullptr) {
        OMK_ReportError(0,
                        L"%hs(): CoCreateInstance(CLSID_WbemLocator,CLSCTX_INPROC_SERVER) failed! hr=%ld(%ls) (%hs:%d)",
                        __func__, hr, ComErrorMessage(hr).Text(), kSourceName, kCreateLocatorLine);
        *locator = nullptr;
        if (counted) CoUninitialize();
        return false;
    }

    BSTR path = SysAllocString(nameSpace);
    hr = path != nullptr ? (*locator)->ConnectServer(path, nullptr, nullptr, nullptr, 0, nullptr, nullptr, services)
                         : E_OUTOFMEMORY;
    SysFreeString(path);
    if (FAILED(hr) || *services == nullptr) {
        OMK_ReportError(0, L"%hs(): IWbemLocator::ConnectServer(%s) failed! WMIError=0x%.8x (%hs:%d)", __func__,
                        nameSpace, static_cast<unsigned>(hr), kSourceName, kConnectServerLine);
        *services = nullptr;
        ReleaseAndClear(locator);
        if (counted) CoUninitialize();
        return false;
    }

    hr = CoSetProxyBlanket(*services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                           RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CoSetProxyBlanket(%s) failed! hr=%ld(%ls) (%hs:%d)", __func__, nameSpace, hr,
                        ComErrorMessage(hr).Text(), kSourceName, kProxyBlanketLine);
        ReleaseAndClear(services);
        ReleaseAndClear(locator);
        if (counted) CoUninitialize();
        return false;
    }
    *uninitialize = counted;
    return true;
}

int GetModel(wchar_t* model) {
    if (model == nullptr) return 0;
    AcquireSRWLockShared(&g_overrideLock);
    const bool overridden = g_modelOverridden;
    const bool readable = g_modelReadable;
    if (overridden && readable) StoreModel(model, g_modelOverride);
    ReleaseSRWLockShared(&g_overrideLock);
    if (overridden) return readable ? 1 : 0;

    IWbemLocator* locator = nullptr;
    IWbemServices* services = nullptr;
    bool uninitialize = false;
    if (!WmiInit(kCimNamespace, &locator, &services, &uninitialize)) return 0;

    int result = 0;
    IWbemClassObject* object = QueryFirstObject(services, L"SELECT * FROM Win32_ComputerSystem");
    if (object != nullptr) {
        VARIANT value;
        VariantInit(&value);
        if (SUCCEEDED(object->Get(L"Model", 0, &value, nullptr, nullptr)) && V_VT(&value) == VT_BSTR &&
            V_BSTR(&value) != nullptr) {
            StoreModel(model, V_BSTR(&value));
            result = 1;
        }
        VariantClear(&value);
        object->Release();
    }
    services->Release();
    locator->Release();
    if (uninitialize) CoUninitialize();
    return result;
}

int MapChassisType(DWORD rawChassisType) {
    switch (rawChassisType) {
        case 1:   // Other
        case 2:   // Unknown
        case 3:   // Desktop
        case 4:   // Low Profile Desktop
        case 5:   // Pizza Box
        case 6:   // Mini Tower
        case 7:   // Tower
        case 13:  // All in One
        case 15:  // Space-saving
        case 16:  // Lunch Box
        case 24:  // Sealed-case PC
        case 25:  // Multi-system chassis
        case 34:  // Embedded PC
        case 35:  // Mini PC
        case 36:  // Stick PC
            return CT_DESKTOP;
        case 8:   // Portable
        case 9:   // Laptop
        case 10:  // Notebook
        case 11:  // Hand Held
        case 12:  // Docking Station
        case 14:  // Sub Notebook
        case 31:  // Convertible
        case 32:  // Detachable
        case 33:  // IoT Gateway
            return CT_LAPTOP;
        default:
            return CT_UNKNOWN;
    }
}

int GetChassisType() {
    DWORD raw = 0;
    bool read = false;
    AcquireSRWLockShared(&g_overrideLock);
    const bool overridden = g_chassisOverridden;
    if (overridden) {
        raw = g_chassisOverride;
        read = true;
    }
    ReleaseSRWLockShared(&g_overrideLock);

    if (!overridden) {
        IWbemLocator* locator = nullptr;
        IWbemServices* services = nullptr;
        bool uninitialize = false;
        if (WmiInit(kCimNamespace, &locator, &services, &uninitialize)) {
            read = ReadFirstChassisType(services, &raw);
            services->Release();
            locator->Release();
            if (uninitialize) CoUninitialize();
        }
    }

    const int chassisClass = read ? MapChassisType(raw) : CT_UNKNOWN;
    if (chassisClass != CT_UNKNOWN) return chassisClass;
    // Anything not known to be a laptop is treated as a desktop.
    OMK_ReportError(0, L"GetChassisType is CT_UNKNOWN , raw wmiChassisType is 0x%0x", raw);
    return CT_DESKTOP;
}

#ifdef OMK_TEST_SEAMS
void SetModelForTest(const wchar_t* model) {
    AcquireSRWLockExclusive(&g_overrideLock);
    g_modelOverridden = true;
    g_modelReadable = model != nullptr;
    wcsncpy_s(g_modelOverride, OMK_MODEL_CHARS, model != nullptr ? model : L"", _TRUNCATE);
    ReleaseSRWLockExclusive(&g_overrideLock);
}

void SetChassisTypeForTest(DWORD rawChassisType) {
    AcquireSRWLockExclusive(&g_overrideLock);
    g_chassisOverridden = true;
    g_chassisOverride = rawChassisType;
    ReleaseSRWLockExclusive(&g_overrideLock);
}

void ClearMachineIdentityForTest() {
    AcquireSRWLockExclusive(&g_overrideLock);
    g_modelOverridden = false;
    g_chassisOverridden = false;
    ReleaseSRWLockExclusive(&g_overrideLock);
}
#endif
