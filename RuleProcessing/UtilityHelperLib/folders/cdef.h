// The product's well-known folders and files, worked out once per process.
#pragma once

#include <windows.h>

#include <shtypes.h>
#include <stddef.h>

// Characters of every path member and of the buffers the helpers below fill.
constexpr size_t OMK_PATH_CHARS = 260;

// The process-wide singleton of folder and file paths. Every member is a
// 260-character wide text; an empty member means the path could not be
// determined. Computed in declaration order at the first GetInstance() and never
// changed afterwards, so any thread may read the members without a lock.
class CDef {
public:
    // The instance, built on first use (thread-safe). Computing it may create the
    // product's ProgramData folder and the storage subfolders; failures are traced
    // to the debugger output and leave members empty or fall back, never stop.
    static CDef& GetInstance();

#ifdef OMK_TEST_SEAMS
    // Test builds only: empties and recomputes the instance in place, after a test
    // has changed the registry or the environment it is computed from. No other
    // thread may read the members meanwhile.
    static void ResetForTest();
#endif

    wchar_t SYSTEMDRIVE[OMK_PATH_CHARS];              // %SystemDrive%
    wchar_t FOLDER_PROGRAMDATA[OMK_PATH_CHARS];       // %ProgramData%
    wchar_t FOLDER_PROGRAMFILES[OMK_PATH_CHARS];      // FOLDERID_ProgramFiles
    wchar_t FOLDER_PROGRAMFILES_X64[OMK_PATH_CHARS];  // FOLDERID_ProgramFilesX64
    wchar_t FOLDER_PROGRAMFILES_X86[OMK_PATH_CHARS];  // %ProgramFiles(x86)%
    wchar_t FOLDER_WINDOWS[OMK_PATH_CHARS];           // %windir%
    wchar_t FOLDER_SYSTEM[OMK_PATH_CHARS];            // FOLDERID_System
    wchar_t FOLDER_SYSTEM_X86[OMK_PATH_CHARS];        // FOLDERID_SystemX86
    // Folder of the collector service's executable (its "ImagePath"), else of this
    // program. Empty means nothing below was computed.
    wchar_t FOLDER_OMK_INSTALL_LOCATION[OMK_PATH_CHARS];
    // %ProgramData%\Varn\Orlemark, created with the product's access rules.
    wchar_t FOLDER_OMK_PROGRAMDATA[OMK_PATH_CHARS];
    // FOLDER_OMK_PROGRAMDATA when it exists, else the install folder. Empty means
    // neither exists and nothing below was computed.
    wchar_t FOLDER_OMK_STORAGE_LOCATION[OMK_PATH_CHARS];
    // Storage subfolders, created; each falls back to the storage folder itself
    // when it cannot be created. Summary, alert and minidump files share the
    // archive folder on purpose.
    wchar_t FOLDER_OMK_ARCHIVE[OMK_PATH_CHARS];   // <storage>\Archive
    wchar_t FOLDER_OMK_DATABASE[OMK_PATH_CHARS];  // <storage>\Data
    wchar_t FOLDER_OMK_SUMMARY[OMK_PATH_CHARS];   // <storage>\Archive
    wchar_t FOLDER_OMK_ALERT[OMK_PATH_CHARS];     // <storage>\Archive: alert XML files
    wchar_t FOLDER_OMK_MINIDUMP[OMK_PATH_CHARS];  // <storage>\Archive
    wchar_t FOLDER_OMK_LOG[OMK_PATH_CHARS];       // <storage>\Log
    // <storage>\Log\ruvo, formatted only (not created).
    wchar_t FOLDER_RUVO_FAIL_SAFE_LOG[OMK_PATH_CHARS];
    // The in-house plugin DLLs in the install folder, formatted only.
    wchar_t FILE_OMK_EVENT_RULE_PLUGIN[OMK_PATH_CHARS];      // omkEventRules.dll
    wchar_t FILE_OMK_DATA_RULE_PLUGIN[OMK_PATH_CHARS];       // omkDataRules.dll
    wchar_t FILE_OMK_NOTIFY_ACTION_PLUGIN[OMK_PATH_CHARS];   // omkNotifyAction.dll
    wchar_t FILE_OMK_COLLECT_ACTION_PLUGIN[OMK_PATH_CHARS];  // omkCollectAction.dll
    // The folder the crash dump filter writes into: the very text of FOLDER_OMK_MINIDUMP.
    const wchar_t (&FOLDER_OMK_CRASHDUMP)[OMK_PATH_CHARS];

    CDef(const CDef&) = delete;
    CDef& operator=(const CDef&) = delete;

private:
    CDef();
    void Compute();
};

// Expands environment references of `src` into `dst` (`dstChars` characters, 0
// meaning 260) and strips a leading and a trailing double quote. False, traced,
// on null arguments, a failed expansion or a result that does not fit.
bool GetEnvVarPath(const wchar_t* src, wchar_t* dst, size_t dstChars);

// Copies the known folder `folderId` into `dst` of 260 characters. False, traced,
// when the folder is unknown or does not fit.
bool GetKnownFolderPath(REFKNOWNFOLDERID folderId, wchar_t* dst);

// The install folder into `dst` (260 characters): the folder of the file named by
// HKLM\SYSTEM\CurrentControlSet\Services\OMKCollectorSvcApi "ImagePath" when that
// is an existing file, else the folder of this program. True when `dst` then
// holds an existing folder.
bool GetOMKInstallLocation(wchar_t* dst);

// Fills `dst` (`dstChars`, 0 meaning 260) with `programData`\Varn\Orlemark and
// creates that folder with a DACL of three inheritable entries: Administrators
// and Local System full control, Users read and execute. An existing folder has
// its DACL replaced. True when the folder exists afterwards.
bool MkOMKProgramData(wchar_t* dst, size_t dstChars, const wchar_t* programData);

// Builds the product folder's DACL into `*dacl` (LocalAlloc'ed, the caller frees
// it with LocalFree): Administrators and Local System GENERIC_ALL, Users
// GENERIC_READ | GENERIC_EXECUTE, each inherited by subfolders and files.
// Returns 0 or the Windows error of the step that failed.
DWORD MakeOMKProgramDataDacl(PACL* dacl);

// Copies `candidate` into `dst` (260 characters); true when it is an existing folder.
bool GetOMKStorageLocation(wchar_t* dst, const wchar_t* candidate);

// Fills `dst` (`dstChars`, 0 meaning 260) with `storage`\`subFolderName` and
// creates it; when it cannot be created `dst` receives `storage` itself.
// False only when `dst` could not be filled at all.
bool MkOMKStorageSubFolder(wchar_t* dst, size_t dstChars, const wchar_t* storage, const wchar_t* subFolderName);
