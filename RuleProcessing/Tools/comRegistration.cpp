#include "comRegistration.h"

#include <oleauto.h>
#include <shlwapi.h>
#include <stdio.h>

#include <string>

namespace {

const wchar_t kClasses[] = L"Software\\Classes\\";

std::wstring GuidText(REFGUID guid) {
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::wstring SysKindKey(SYSKIND kind) {
    switch (kind) {
        case SYS_WIN16:
            return L"win16";
        case SYS_WIN32:
            return L"win32";
        case SYS_MAC:
            return L"mac";
        default:
            return L"win64";
    }
}

std::wstring TypeLibKey(REFGUID libid) {
    return std::wstring(kClasses) + L"TypeLib\\" + GuidText(libid);
}

std::wstring VersionKey(REFGUID libid, WORD major, WORD minor) {
    wchar_t version[32];
    _snwprintf(version, 31, L"\\%x.%x", major, minor);
    version[31] = L'\0';
    return TypeLibKey(libid) + version;
}

std::wstring LcidKey(REFGUID libid, WORD major, WORD minor, LCID lcid, SYSKIND kind) {
    wchar_t lcidText[16];
    _snwprintf(lcidText, 15, L"\\%lx\\", lcid);
    lcidText[15] = L'\0';
    return VersionKey(libid, major, minor) + lcidText + SysKindKey(kind);
}

HRESULT SetString(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
    LSTATUS status = RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, REG_SZ, value.c_str(),
                                     static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    return HRESULT_FROM_WIN32(status);
}

HRESULT DeleteTree(const std::wstring& key) {
    LSTATUS status = SHDeleteKeyW(HKEY_LOCAL_MACHINE, key.c_str());
    if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND) return S_OK;
    return HRESULT_FROM_WIN32(status);
}

std::wstring ClassKey(REFCLSID clsid) {
    return std::wstring(kClasses) + L"CLSID\\" + GuidText(clsid);
}
std::wstring AppIdKey(REFGUID appId) {
    return std::wstring(kClasses) + L"AppID\\" + GuidText(appId);
}

// The class key with its name and type library, after any earlier registration is gone.
HRESULT WriteClassKey(REFCLSID clsid, const wchar_t* className, REFGUID libid, REFGUID appId) {
    HRESULT hr = UnregisterClass(clsid, appId);
    if (FAILED(hr)) return hr;
    hr = SetString(ClassKey(clsid), nullptr, className);
    if (FAILED(hr)) return hr;
    return SetString(ClassKey(clsid) + L"\\TypeLib", nullptr, GuidText(libid));
}

}  // namespace

HRESULT RegisterTypeLibFromModule(const wchar_t* typeLibPath) {
    ITypeLib* library = nullptr;
    HRESULT hr = LoadTypeLibEx(typeLibPath, REGKIND_REGISTER, &library);
    if (FAILED(hr)) return hr;
    TLIBATTR* attr = nullptr;
    hr = library->GetLibAttr(&attr);
    if (SUCCEEDED(hr)) {
        // Both LCID keys name the file as given (Wine would register a \\?\ form).
        hr = SetString(LcidKey(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, attr->lcid, attr->syskind), nullptr,
                       typeLibPath);
        if (SUCCEEDED(hr) && attr->lcid != 0) {
            hr = SetString(LcidKey(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, 0, attr->syskind), nullptr,
                           typeLibPath);
        }
        library->ReleaseTLibAttr(attr);
    }
    library->Release();
    return hr;
}

HRESULT UnregisterTypeLibById(REFGUID libid, WORD major, WORD minor, LCID lcid, const IID* iids, int iidCount) {
    // Fails when the library file is gone; the keys are removed below anyway.
    UnRegisterTypeLib(libid, major, minor, lcid, SYS_WIN64);
    HRESULT result = DeleteTree(TypeLibKey(libid));
    for (int i = 0; i < iidCount; ++i) {
        HRESULT hr = DeleteTree(std::wstring(kClasses) + L"Interface\\" + GuidText(iids[i]));
        if (SUCCEEDED(result)) result = hr;
    }
    return result;
}

HRESULT RegisterLocalServerClass(REFCLSID clsid, const wchar_t* className, REFGUID libid, REFGUID appId,
                                 const wchar_t* exePath) {
    HRESULT hr = WriteClassKey(clsid, className, libid, appId);
    if (FAILED(hr)) return hr;
    return SetString(ClassKey(clsid) + L"\\LocalServer32", nullptr, L"\"" + std::wstring(exePath) + L"\"");
}

HRESULT RegisterServiceClass(REFCLSID clsid, const wchar_t* className, REFGUID libid, REFGUID appId,
                             const wchar_t* serviceName) {
    HRESULT hr = WriteClassKey(clsid, className, libid, appId);
    if (SUCCEEDED(hr)) hr = SetString(ClassKey(clsid), L"AppID", GuidText(appId));
    if (SUCCEEDED(hr)) hr = SetString(AppIdKey(appId), nullptr, serviceName);
    if (SUCCEEDED(hr)) hr = SetString(AppIdKey(appId), L"LocalService", serviceName);
    return hr;
}

HRESULT UnregisterClass(REFCLSID clsid, REFGUID appId) {
    HRESULT hr = DeleteTree(ClassKey(clsid));
    HRESULT appHr = DeleteTree(AppIdKey(appId));
    return FAILED(hr) ? hr : appHr;
}
