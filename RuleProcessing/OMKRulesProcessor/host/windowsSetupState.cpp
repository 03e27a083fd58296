#include "windowsSetupState.h"

#include <knownfolders.h>
#include <shlobj.h>

#include "strHelper.h"

namespace {

constexpr wchar_t kStateKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\State";
constexpr REGSAM kReadAccess = 0x20019;  // KEY_READ
constexpr DWORD kStateValueBytes = 520;

}  // namespace

DWORD GetWindowsSetupState(wchar_t* buffer) {
    if (buffer == nullptr) return ERROR_INVALID_PARAMETER;
    buffer[0] = L'\0';

    wchar_t state[MAX_PATH] = {};
    DWORD status = 0;
    HKEY key = nullptr;
    PWSTR windows = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, kReadAccess, &key) == ERROR_SUCCESS) {
        DWORD bytes = kStateValueBytes;
        if (RegGetValueW(key, nullptr, L"ImageState", RRF_RT_REG_SZ, nullptr, state, &bytes) != ERROR_SUCCESS) {
            state[0] = L'\0';
        }
    }
    if (state[0] == L'\0') {
        HRESULT hr = SHGetKnownFolderPath(FOLDERID_Windows, 0, nullptr, &windows);
        if (FAILED(hr)) {
            status = static_cast<DWORD>(hr);
        } else if (windows == nullptr) {
            status = ERROR_INVALID_DATA;
        } else {
            wchar_t ini[MAX_PATH];
            HRESULT format = CStrHelper::StrPrintf(ini, MAX_PATH, L"%s\\Setup\\State\\State.ini", windows);
            if (FAILED(format)) {
                status = static_cast<DWORD>(format);
            } else if (ini[0] == L'\0') {
                status = ERROR_INVALID_DATA;
            } else {
                DWORD read = GetPrivateProfileStringW(L"State", L"ImageState", nullptr, state, MAX_PATH, ini);
                if (read > 0) status = state[0] != L'\0' ? 0 : ERROR_INVALID_DATA;
                else status = GetLastError();
            }
        }
    }
    if (windows != nullptr) CoTaskMemFree(windows);
    if (key != nullptr) RegCloseKey(key);
    if (status != 0 || state[0] == L'\0') return status;
    HRESULT copy = CStrHelper::StrPrintf(buffer, MAX_PATH, L"%s", state);
    return SUCCEEDED(copy) ? 0 : static_cast<DWORD>(copy);
}
