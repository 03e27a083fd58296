#include "cdef.h"

#include <aclapi.h>
#include <knownfolders.h>
#include <objbase.h>
#include <shlobj.h>
#include <shlwapi.h>
#include <wchar.h>

#include "comErrorMessage.h"
#include "conventions.h"
#include "fileHelper.h"
#include "strHelper.h"

namespace {

const wchar_t kCollectorServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
const wchar_t kImagePathValue[] = L"ImagePath";
const wchar_t kProductDataSubFolder[] = L"Varn\\Orlemark";
// Bytes read from "ImagePath".
constexpr DWORD kImagePathBytes = 520;
// Bytes of a buffer that holds any SID.
constexpr DWORD kSidBytes = 68;

size_t OrDefaultChars(size_t chars) {
    return chars == 0 ? OMK_PATH_CHARS : chars;
}

bool IsDirectory(const wchar_t* path) {
    DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsFile(const wchar_t* path) {
    DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// A well-known SID in a LocalAlloc'ed buffer of its own (freed by the caller, also on failure).
DWORD MakeSid(WELL_KNOWN_SID_TYPE type, PSID* sid) {
    *sid = LocalAlloc(LMEM_FIXED, kSidBytes);
    if (*sid == nullptr) return GetLastError();
    DWORD bytes = kSidBytes;
    return CreateWellKnownSid(type, nullptr, *sid, &bytes) ? ERROR_SUCCESS : GetLastError();
}

// One allowed entry for `sid`, inherited by subfolders and files.
void SetEntry(EXPLICIT_ACCESSW* entry, PSID sid, DWORD permissions, TRUSTEE_TYPE trusteeType) {
    entry->grfAccessPermissions = permissions;
    entry->grfAccessMode = SET_ACCESS;
    entry->grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
    entry->Trustee.pMultipleTrustee = nullptr;
    entry->Trustee.MultipleTrusteeOperation = NO_MULTIPLE_TRUSTEE;
    entry->Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry->Trustee.TrusteeType = trusteeType;
    entry->Trustee.ptstrName = static_cast<LPWSTR>(sid);
}

// The product folder's security descriptor and its DACL, both LocalAlloc'ed.
struct ProductFolderSecurity {
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;

    ~ProductFolderSecurity() {
        if (descriptor != nullptr) LocalFree(descriptor);
        if (dacl != nullptr) LocalFree(dacl);
    }

    // Builds the descriptor; 0 or the Windows error of the step that failed.
    DWORD Build() {
        DWORD error = MakeOMKProgramDataDacl(&dacl);
        if (error != ERROR_SUCCESS) return error;
        descriptor = LocalAlloc(LMEM_FIXED, SECURITY_DESCRIPTOR_MIN_LENGTH);
        if (descriptor == nullptr) return GetLastError();
        if (!InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION)) return GetLastError();
        if (!SetSecurityDescriptorDacl(descriptor, TRUE, dacl, FALSE)) return GetLastError();
        return ERROR_SUCCESS;
    }
};

// "CDef(): CDef::GetInstance().<member> = <value>" after each member is computed.
void TraceMember(const char* memberName, const wchar_t* value) {
    OmkTraceW(L"%hs(): CDef::GetInstance().%hs = %s\n", "CDef", memberName, value);
}

// "<folder>\<name>" into dst; traced and emptied when it does not fit.
bool FormatInto(wchar_t* dst, size_t dstChars, const wchar_t* folder, const wchar_t* name, const char* function) {
    HRESULT hr = CStrHelper::StrPrintf(dst, dstChars, L"%s\\%s", folder, name);
    if (FAILED(hr)) {
        OmkTraceW(L"%hs(): CStrHelper::StrPrintf(%ls\\%ls) failed! hr=%ld(%s)", function, folder, name, hr,
                  ComErrorMessage(hr).Text());
        dst[0] = L'\0';
        return false;
    }
    return true;
}

}  // namespace

DWORD MakeOMKProgramDataDacl(PACL* dacl) {
    if (dacl == nullptr) return ERROR_INVALID_PARAMETER;
    *dacl = nullptr;
    PSID localSystem = nullptr;
    PSID administrators = nullptr;
    PSID users = nullptr;
    DWORD error = MakeSid(WinLocalSystemSid, &localSystem);
    if (error == ERROR_SUCCESS) error = MakeSid(WinBuiltinAdministratorsSid, &administrators);
    if (error == ERROR_SUCCESS) error = MakeSid(WinBuiltinUsersSid, &users);
    if (error == ERROR_SUCCESS) {
        EXPLICIT_ACCESSW entries[3] = {};
        SetEntry(&entries[0], administrators, GENERIC_ALL, TRUSTEE_IS_GROUP);
        SetEntry(&entries[1], localSystem, GENERIC_ALL, TRUSTEE_IS_GROUP);
        SetEntry(&entries[2], users, GENERIC_READ | GENERIC_EXECUTE, TRUSTEE_IS_WELL_KNOWN_GROUP);
        error = SetEntriesInAclW(3, entries, nullptr, dacl);
    }
    // The ACL holds copies of the SIDs.
    if (users != nullptr) LocalFree(users);
    if (administrators != nullptr) LocalFree(administrators);
    if (localSystem != nullptr) LocalFree(localSystem);
    return error;
}

bool GetEnvVarPath(const wchar_t* src, wchar_t* dst, size_t dstChars) {
    if (src == nullptr) {
        OmkTraceW(L"%hs(): Input arg 'lpSrcEnvVarStr' is null!", __func__);
        return false;
    }
    if (dst == nullptr) {
        OmkTraceW(L"%hs(): Output arg 'lpDstEnvVarPath' is null, or input arg 'dstEnvVarPathChars' is %zu!", __func__,
                  dstChars);
        return false;
    }
    dstChars = OrDefaultChars(dstChars);
    DWORD required = ExpandEnvironmentStringsW(src, dst, static_cast<DWORD>(dstChars));
    if (required == 0) {
        DWORD error = GetLastError();
        OmkTraceW(L"%hs(): ExpandEnvironmentStringsW(%ls) failed! err=%lu(%s)", __func__, src, error,
                  ComErrorMessage(HRESULT_FROM_WIN32(error)).Text());
        dst[0] = L'\0';
        return false;
    }
    size_t length = required > dstChars ? 0 : wcsnlen(dst, dstChars);
    if (required > dstChars || length == 0 || length >= dstChars) {
        OmkTraceW(
            L"%hs(): ExpandEnvironmentStringsW(%ls) failed! Buf size in chars %zu < required %lu, or invalid dst "
            L"string length %zu.",
            __func__, src, dstChars, required, length);
        dst[0] = L'\0';
        return false;
    }
    // A quoted image path names the file between the quotes.
    if (dst[length - 1] == L'"') dst[--length] = L'\0';
    if (length > 0 && dst[0] == L'"') {
        if (wmemmove_s(dst, dstChars, dst + 1, length) != 0) {
            OmkTraceW(L"%hs(): wmemmove_s() for removing heading quote of dst string failed!", __func__);
            dst[0] = L'\0';
            return false;
        }
    }
    OmkTraceW(L"%hs(): ExpandEnvironmentStringsW(%s) = %s\n", __func__, src, dst);
    return true;
}

bool GetKnownFolderPath(REFKNOWNFOLDERID folderId, wchar_t* dst) {
    if (dst == nullptr) return false;
    dst[0] = L'\0';
    wchar_t idText[64];
    if (StringFromGUID2(folderId, idText, 64) == 0) {
        OmkTraceW(L"%hs(): StringFromGUID2() failed!", __func__);
        return false;
    }
    wchar_t* path = nullptr;
    HRESULT hr = SHGetKnownFolderPath(folderId, 0, nullptr, &path);
    if (FAILED(hr)) {
        OmkTraceW(L"%hs(): SHGetKnownFolderPath(%s) failed! hr=%ld(%s)", __func__, idText, hr,
                  ComErrorMessage(hr).Text());
        CoTaskMemFree(path);
        return false;
    }
    hr = CStrHelper::StrCopy(dst, OMK_PATH_CHARS, path);
    if (FAILED(hr)) {
        OmkTraceW(L"%hs(): CStrHelper::StrCopy(%ls) failed! hr=%ld(%s)", __func__, path, hr,
                  ComErrorMessage(hr).Text());
        CoTaskMemFree(path);
        return false;
    }
    CoTaskMemFree(path);
    OmkTraceW(L"%hs(): SHGetKnownFolderPath(%s) = %ls\n", __func__, idText, dst);
    return true;
}

bool GetOMKInstallLocation(wchar_t* dst) {
    if (dst == nullptr) {
        OmkTraceW(L"%hs(): Output arg 'omkInstallLocation' is null, or input arg 'omkInstallLocationChars' is %zu!",
                  __func__, OMK_PATH_CHARS);
        return false;
    }
    dst[0] = L'\0';

    bool haveCollector = false;
    wchar_t imagePath[kImagePathBytes / sizeof(wchar_t)] = {};
    DWORD bytes = kImagePathBytes;
    LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, kCollectorServiceKey, kImagePathValue, RRF_RT_REG_SZ, nullptr,
                                  imagePath, &bytes);
    if (status != ERROR_SUCCESS) {
        OmkTraceW(L"%hs(): RegGetValueW([HKEY_LOCAL_MACHINE\\%ls]%ls) failed! lStatus=%ld", __func__,
                  kCollectorServiceKey, kImagePathValue, static_cast<long>(status));
    } else if (bytes < sizeof(wchar_t) * 2 || imagePath[0] == L'\0') {
        OmkTraceW(L"%hs(): RegGetValueW([HKEY_LOCAL_MACHINE\\%ls]%ls) gets empty data!", __func__, kCollectorServiceKey,
                  kImagePathValue);
    } else {
        OmkTraceW(L"%hs(): RegGetValueW([HKEY_LOCAL_MACHINE\\%s]%s) = %s\n", __func__, kCollectorServiceKey,
                  kImagePathValue, imagePath);
        if (GetEnvVarPath(imagePath, dst, OMK_PATH_CHARS)) {
            // Arguments behind the file name make this fail: the service's own folder is used then.
            if (IsFile(dst)) {
                OmkTraceW(L"%hs(): 'OMKCollectorSvcApi.exe' path = %s\n", __func__, dst);
                haveCollector = true;
            } else {
                OmkTraceW(L"%hs(): %ls doesn't exist!", __func__, dst);
            }
        }
    }

    if (!haveCollector) {
        SetLastError(ERROR_SUCCESS);
        DWORD length = GetModuleFileNameW(nullptr, dst, static_cast<DWORD>(OMK_PATH_CHARS));
        DWORD error = GetLastError();
        if (length == 0 || error != ERROR_SUCCESS) {
            OmkTraceW(L"%hs(): GetModuleFileNameW() failed! ret=%lu err=%lu", __func__, length, error);
            dst[0] = L'\0';
            return false;
        }
        OmkTraceW(L"%hs(): GetModuleFileNameW() = %s\n", __func__, dst);
    }

    if (!PathRemoveFileSpecW(dst)) {
        OmkTraceW(L"%hs(): PathRemoveFileSpecW(%ls) nothing was removed!", __func__, dst);
        dst[0] = L'\0';
        return false;
    }
    if (!IsDirectory(dst)) {
        OmkTraceW(L"%hs(): %ls isn't directory!", __func__, dst);
        dst[0] = L'\0';
        return false;
    }
    OmkTraceW(L"%hs(): OMK install location = %s\n", __func__, dst);
    return true;
}

bool MkOMKProgramData(wchar_t* dst, size_t dstChars, const wchar_t* programData) {
    if (programData == nullptr) {
        OmkTraceW(L"%hs(): Input arg 'programData' is null!", __func__);
        return false;
    }
    if (dst == nullptr) {
        OmkTraceW(L"%hs(): Output arg 'omkProgramData' is null, or input arg 'omkProgramDataChars' is %zu!", __func__,
                  dstChars);
        return false;
    }
    dstChars = OrDefaultChars(dstChars);
    if (!FormatInto(dst, dstChars, programData, kProductDataSubFolder, __func__)) return false;

    ProductFolderSecurity security;
    DWORD securityError = security.Build();
    const bool existed = IsDirectory(dst);
    if (existed && securityError == ERROR_SUCCESS) {
        // Clearing first drops whatever entries the folder had, inherited ones included.
        DWORD error =
            SetNamedSecurityInfoW(dst, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr);
        if (error == ERROR_SUCCESS) {
            error = SetNamedSecurityInfoW(dst, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                          security.dacl, nullptr);
        }
        if (error != ERROR_SUCCESS)
            OmkTraceW(L"%hs(): SetNamedSecurityInfoW(%ls) failed! err=%lu", __func__, dst, error);
    }

    DWORD error = ERROR_SUCCESS;
    if (securityError != ERROR_SUCCESS) {
        OmkTraceW(L"%hs(): MkOMKProgramData(%ls) failed! Failed to create security descriptor err=%lu", __func__, dst,
                  securityError);
        error = CFileHelper::MakeDirectory(dst, nullptr);
    } else if (!existed) {
        SECURITY_ATTRIBUTES attributes = {sizeof(SECURITY_ATTRIBUTES), security.descriptor, FALSE};
        error = CFileHelper::MakeDirectory(dst, &attributes);
    }
    if (error != ERROR_SUCCESS) {
        OmkTraceW(L"%hs(): CFileHelper::MakeDirectory(%ls) failed! err=%lu", __func__, dst, error);
        return false;
    }
    OmkTraceW(L"%hs(): OMK ProgramData = %ls\n", __func__, dst);
    return true;
}

bool GetOMKStorageLocation(wchar_t* dst, const wchar_t* candidate) {
    if (dst == nullptr || candidate == nullptr) return false;
    HRESULT hr = CStrHelper::StrCopy(dst, OMK_PATH_CHARS, candidate);
    if (FAILED(hr)) {
        OmkTraceW(L"%hs(): CStrHelper::StrCopy(%ls) failed! hr=%ld(%s)", __func__, candidate, hr,
                  ComErrorMessage(hr).Text());
        return false;
    }
    if (!IsDirectory(dst)) {
        OmkTraceW(L"%hs(): %ls doesn't exist!", __func__, dst);
        return false;
    }
    return true;
}

bool MkOMKStorageSubFolder(wchar_t* dst, size_t dstChars, const wchar_t* storage, const wchar_t* subFolderName) {
    if (storage == nullptr) {
        OmkTraceW(L"%hs(): Input arg 'storage' is null!", __func__);
        return false;
    }
    if (subFolderName == nullptr) {
        OmkTraceW(L"%hs(): Input arg 'subFolderName' is null!", __func__);
        return false;
    }
    if (dst == nullptr) {
        OmkTraceW(L"%hs(): Output arg 'subFolder' is null, or input arg 'subFolderChars' is %zu!", __func__, dstChars);
        return false;
    }
    dstChars = OrDefaultChars(dstChars);
    if (!FormatInto(dst, dstChars, storage, subFolderName, __func__)) return false;
    DWORD error = CFileHelper::MakeDirectory(dst, nullptr);
    if (error != ERROR_SUCCESS) {
        OmkTraceW(L"%hs(): CFileHelper::MakeDirectory(%ls) failed! Use %ls instead! err=%lu", __func__, dst, storage,
                  error);
        HRESULT hr = CStrHelper::StrCopy(dst, dstChars, storage);
        if (FAILED(hr)) return false;
    }
    return true;
}

CDef::CDef() : FOLDER_OMK_CRASHDUMP(FOLDER_OMK_MINIDUMP) {
    Compute();
}

CDef& CDef::GetInstance() {
    static CDef instance;
    return instance;
}

#ifdef OMK_TEST_SEAMS
void CDef::ResetForTest() {
    GetInstance().Compute();
}
#endif

void CDef::Compute() {
    wchar_t* const members[] = {SYSTEMDRIVE,
                                FOLDER_PROGRAMDATA,
                                FOLDER_PROGRAMFILES,
                                FOLDER_PROGRAMFILES_X64,
                                FOLDER_PROGRAMFILES_X86,
                                FOLDER_WINDOWS,
                                FOLDER_SYSTEM,
                                FOLDER_SYSTEM_X86,
                                FOLDER_OMK_INSTALL_LOCATION,
                                FOLDER_OMK_PROGRAMDATA,
                                FOLDER_OMK_STORAGE_LOCATION,
                                FOLDER_OMK_ARCHIVE,
                                FOLDER_OMK_DATABASE,
                                FOLDER_OMK_SUMMARY,
                                FOLDER_OMK_ALERT,
                                FOLDER_OMK_MINIDUMP,
                                FOLDER_OMK_LOG,
                                FOLDER_RUVO_FAIL_SAFE_LOG,
                                FILE_OMK_EVENT_RULE_PLUGIN,
                                FILE_OMK_DATA_RULE_PLUGIN,
                                FILE_OMK_NOTIFY_ACTION_PLUGIN,
                                FILE_OMK_COLLECT_ACTION_PLUGIN};
    for (wchar_t* member : members) wmemset(member, L'\0', OMK_PATH_CHARS);

    GetEnvVarPath(L"%SystemDrive%", SYSTEMDRIVE, OMK_PATH_CHARS);
    TraceMember("SYSTEMDRIVE", SYSTEMDRIVE);
    GetEnvVarPath(L"%ProgramData%", FOLDER_PROGRAMDATA, OMK_PATH_CHARS);
    TraceMember("FOLDER_PROGRAMDATA", FOLDER_PROGRAMDATA);
    GetKnownFolderPath(FOLDERID_ProgramFiles, FOLDER_PROGRAMFILES);
    TraceMember("FOLDER_PROGRAMFILES", FOLDER_PROGRAMFILES);
    GetKnownFolderPath(FOLDERID_ProgramFilesX64, FOLDER_PROGRAMFILES_X64);
    TraceMember("FOLDER_PROGRAMFILES_X64", FOLDER_PROGRAMFILES_X64);
    GetEnvVarPath(L"%ProgramFiles(x86)%", FOLDER_PROGRAMFILES_X86, OMK_PATH_CHARS);
    TraceMember("FOLDER_PROGRAMFILES_X86", FOLDER_PROGRAMFILES_X86);
    GetEnvVarPath(L"%windir%", FOLDER_WINDOWS, OMK_PATH_CHARS);
    TraceMember("FOLDER_WINDOWS", FOLDER_WINDOWS);
    GetKnownFolderPath(FOLDERID_System, FOLDER_SYSTEM);
    TraceMember("FOLDER_SYSTEM", FOLDER_SYSTEM);
    GetKnownFolderPath(FOLDERID_SystemX86, FOLDER_SYSTEM_X86);
    TraceMember("FOLDER_SYSTEM_X86", FOLDER_SYSTEM_X86);

    const bool installed = GetOMKInstallLocation(FOLDER_OMK_INSTALL_LOCATION);
    TraceMember("FOLDER_OMK_INSTALL_LOCATION", FOLDER_OMK_INSTALL_LOCATION);
    if (!installed) return;

    MkOMKProgramData(FOLDER_OMK_PROGRAMDATA, OMK_PATH_CHARS, FOLDER_PROGRAMDATA);
    TraceMember("FOLDER_OMK_PROGRAMDATA", FOLDER_OMK_PROGRAMDATA);

    if (!GetOMKStorageLocation(FOLDER_OMK_STORAGE_LOCATION, FOLDER_OMK_PROGRAMDATA) &&
        !GetOMKStorageLocation(FOLDER_OMK_STORAGE_LOCATION, FOLDER_OMK_INSTALL_LOCATION)) {
        wmemset(FOLDER_OMK_STORAGE_LOCATION, L'\0', OMK_PATH_CHARS);
        TraceMember("FOLDER_OMK_STORAGE_LOCATION", FOLDER_OMK_STORAGE_LOCATION);
        return;
    }
    OmkTraceW(L"%hs(): OMK storage location = %ls\n", "GetOMKStorageLocation", FOLDER_OMK_STORAGE_LOCATION);
    TraceMember("FOLDER_OMK_STORAGE_LOCATION", FOLDER_OMK_STORAGE_LOCATION);

    const wchar_t* storage = FOLDER_OMK_STORAGE_LOCATION;
    MkOMKStorageSubFolder(FOLDER_OMK_ARCHIVE, OMK_PATH_CHARS, storage, L"Archive");
    TraceMember("FOLDER_OMK_ARCHIVE", FOLDER_OMK_ARCHIVE);
    MkOMKStorageSubFolder(FOLDER_OMK_DATABASE, OMK_PATH_CHARS, storage, L"Data");
    TraceMember("FOLDER_OMK_DATABASE", FOLDER_OMK_DATABASE);
    MkOMKStorageSubFolder(FOLDER_OMK_SUMMARY, OMK_PATH_CHARS, storage, L"Archive");
    TraceMember("FOLDER_OMK_SUMMARY", FOLDER_OMK_SUMMARY);
    MkOMKStorageSubFolder(FOLDER_OMK_ALERT, OMK_PATH_CHARS, storage, L"Archive");
    TraceMember("FOLDER_OMK_ALERT", FOLDER_OMK_ALERT);
    MkOMKStorageSubFolder(FOLDER_OMK_MINIDUMP, OMK_PATH_CHARS, storage, L"Archive");
    TraceMember("FOLDER_OMK_MINIDUMP", FOLDER_OMK_MINIDUMP);
    MkOMKStorageSubFolder(FOLDER_OMK_LOG, OMK_PATH_CHARS, storage, L"Log");
    TraceMember("FOLDER_OMK_LOG", FOLDER_OMK_LOG);
    FormatInto(FOLDER_RUVO_FAIL_SAFE_LOG, OMK_PATH_CHARS, storage, L"Log\\ruvo", "CDef");
    TraceMember("FOLDER_RUVO_FAIL_SAFE_LOG", FOLDER_RUVO_FAIL_SAFE_LOG);

    const wchar_t* install = FOLDER_OMK_INSTALL_LOCATION;
    FormatInto(FILE_OMK_EVENT_RULE_PLUGIN, OMK_PATH_CHARS, install, L"omkEventRules.dll", "CDef");
    TraceMember("FILE_OMK_EVENT_RULE_PLUGIN", FILE_OMK_EVENT_RULE_PLUGIN);
    FormatInto(FILE_OMK_DATA_RULE_PLUGIN, OMK_PATH_CHARS, install, L"omkDataRules.dll", "CDef");
    TraceMember("FILE_OMK_DATA_RULE_PLUGIN", FILE_OMK_DATA_RULE_PLUGIN);
    FormatInto(FILE_OMK_NOTIFY_ACTION_PLUGIN, OMK_PATH_CHARS, install, L"omkNotifyAction.dll", "CDef");
    TraceMember("FILE_OMK_NOTIFY_ACTION_PLUGIN", FILE_OMK_NOTIFY_ACTION_PLUGIN);
    FormatInto(FILE_OMK_COLLECT_ACTION_PLUGIN, OMK_PATH_CHARS, install, L"omkCollectAction.dll", "CDef");
    TraceMember("FILE_OMK_COLLECT_ACTION_PLUGIN", FILE_OMK_COLLECT_ACTION_PLUGIN);
}
