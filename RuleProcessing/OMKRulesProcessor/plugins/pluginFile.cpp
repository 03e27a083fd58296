#include "pluginFile.h"

#include <softpub.h>
#include <stdlib.h>
#include <wintrust.h>

namespace {

// The trust data's size as the verify call has always been given it: the
// record up to and including dwUIContext, without later SDK additions.
constexpr DWORD kTrustDataSize = 80;
static_assert(sizeof(WINTRUST_DATA) >= kTrustDataSize, "WINTRUST_DATA lost fields");
static_assert(sizeof(WINTRUST_FILE_INFO) == 32, "WINTRUST_FILE_INFO is 32 bytes on x64");

}  // namespace

bool IsFileSignatureValid(const wchar_t* path) {
    if (path == nullptr) return false;

    WINTRUST_FILE_INFO fileInfo = {};
    fileInfo.cbStruct = sizeof(fileInfo);
    fileInfo.pcwszFilePath = path;
    fileInfo.hFile = nullptr;
    fileInfo.pgKnownSubject = nullptr;

    WINTRUST_DATA trustData = {};
    trustData.cbStruct = kTrustDataSize;
    trustData.pPolicyCallbackData = nullptr;
    trustData.pSIPClientData = nullptr;
    trustData.dwUIChoice = WTD_UI_NONE;
    trustData.fdwRevocationChecks = WTD_REVOKE_NONE;
    trustData.dwUnionChoice = WTD_CHOICE_FILE;
    trustData.pFile = &fileInfo;
    trustData.dwStateAction = WTD_STATEACTION_VERIFY;
    trustData.hWVTStateData = nullptr;
    trustData.pwszURLReference = nullptr;
    trustData.dwProvFlags = 0;
    trustData.dwUIContext = 0;

    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    LONG status = WinVerifyTrust(static_cast<HWND>(nullptr), &action, &trustData);

    // The verify call keeps state until it is closed, whatever it returned.
    trustData.dwStateAction = WTD_STATEACTION_CLOSE;
    WinVerifyTrust(static_cast<HWND>(nullptr), &action, &trustData);

    return status == 0;
}

bool GetFileVersionNumbers(const wchar_t* path, WORD* major, WORD* minor, WORD* build, WORD* revision) {
    if (major == nullptr || minor == nullptr || build == nullptr || revision == nullptr) return false;
    *major = *minor = *build = *revision = 0;
    if (path == nullptr) return false;

    DWORD handle = 0;
    DWORD size = GetFileVersionInfoSizeW(path, &handle);
    if (size == 0) return false;

    void* block = calloc(static_cast<size_t>(size) + 2, 1);
    if (block == nullptr) return false;
    if (!GetFileVersionInfoW(path, 0, size, block)) {
        free(block);
        return false;
    }

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT fixedBytes = 0;
    if (!VerQueryValueW(block, L"\\", reinterpret_cast<void**>(&fixed), &fixedBytes) || fixed == nullptr) {
        free(block);
        return false;
    }
    *major = HIWORD(fixed->dwFileVersionMS);
    *minor = LOWORD(fixed->dwFileVersionMS);
    *build = HIWORD(fixed->dwFileVersionLS);
    *revision = LOWORD(fixed->dwFileVersionLS);
    free(block);
    return true;
}
