// Folder helpers and CDef against real folders, registry values in the test
// prefix and the security descriptors of the folders they create.
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "cdef.h"
#include "fileHelper.h"
#include "testSupport.h"

namespace {

const wchar_t kCollectorKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
const DWORD kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES | DELETE |
                           FILE_DELETE_CHILD | WRITE_DAC | WRITE_OWNER;

bool IsDirectory(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::wstring Lower(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(towlower(c));
    return text;
}

// Sets an environment variable for the test's duration.
class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const std::wstring& value) : name_(name) {
        wchar_t old[4096];
        DWORD n = GetEnvironmentVariableW(name, old, 4096);
        had_ = n > 0 && n < 4096;
        if (had_) old_ = old;
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~ScopedEnv() { SetEnvironmentVariableW(name_.c_str(), had_ ? old_.c_str() : nullptr); }

private:
    std::wstring name_, old_;
    bool had_ = false;
};

// Rights per SID of the explicit entries, generic rights mapped to file rights;
// "!" counts entries that are not inheritable allow entries.
std::map<std::wstring, DWORD> Entries(const ACL* dacl) {
    std::map<std::wstring, DWORD> entries;
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    for (DWORD i = 0; dacl != nullptr && i < dacl->AceCount; ++i) {
        ACCESS_ALLOWED_ACE* ace = nullptr;
        if (!GetAce(const_cast<ACL*>(dacl), i, reinterpret_cast<void**>(&ace))) continue;
        if (ace->Header.AceFlags & INHERITED_ACE) continue;  // from the parent folder
        const BYTE inherit = CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE;
        if (ace->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || (ace->Header.AceFlags & inherit) != inherit) {
            entries[L"!"]++;
        }
        DWORD mask = ace->Mask;
        MapGenericMask(&mask, &mapping);
        wchar_t* sid = nullptr;
        ConvertSidToStringSidW(&ace->SidStart, &sid);
        entries[sid != nullptr ? sid : L"?"] |= mask;
        LocalFree(sid);
    }
    return entries;
}

const std::map<std::wstring, DWORD> kProductEntries = {
    {L"S-1-5-32-544", FILE_ALL_ACCESS},                            // Administrators
    {L"S-1-5-18", FILE_ALL_ACCESS},                                // Local System
    {L"S-1-5-32-545", FILE_GENERIC_READ | FILE_GENERIC_EXECUTE}};  // Users

std::map<std::wstring, DWORD> FolderEntries(const std::wstring& path) {
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    EXPECT_EQ(GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl,
                                    nullptr, &descriptor),
              0u);
    std::map<std::wstring, DWORD> entries = Entries(dacl);
    LocalFree(descriptor);
    return entries;
}

// Sets a folder's DACL from SDDL text.
void SetDacl(const std::wstring& path, const wchar_t* sddl) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr));
    PACL dacl = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted);
    std::wstring name = path;
    EXPECT_EQ(
        SetNamedSecurityInfoW(&name[0], SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, dacl, nullptr),
        0u);
    LocalFree(descriptor);
}

// The folder has the product DACL. Wine keeps no DACLs on files (it derives
// them from the Unix mode), so there only the loss of write rights of
// Everyone and Users can be seen.
void ExpectProductDacl(const std::wstring& path) {
    static int keepsDacls = -1;
    if (keepsDacls < 0) {
        omktest::TempFolder probe;
        SetDacl(probe.Path(), L"D:P(A;OICI;FA;;;BA)");
        keepsDacls = FolderEntries(probe.Path()).size() == 1 ? 1 : 0;
        if (!keepsDacls) printf("note: the file system keeps no DACLs; checking write rights only\n");
    }
    std::map<std::wstring, DWORD> entries = FolderEntries(path);
    if (keepsDacls) {
        EXPECT_EQ(entries, kProductEntries);
        return;
    }
    EXPECT_EQ(entries[L"S-1-1-0"] & kWriteRights, 0u);
    EXPECT_EQ(entries[L"S-1-5-32-545"] & kWriteRights, 0u);
}

TEST(MakeDirectory, CreatesEveryMissingLevelAndReportsTheFirstFailure) {
    omktest::TempFolder temp;
    const std::wstring deep = temp.File(L"a\\b\\c");
    EXPECT_EQ(CFileHelper::MakeDirectory(deep.c_str(), nullptr), 0u);
    EXPECT_TRUE(IsDirectory(deep));
    EXPECT_EQ(CFileHelper::MakeDirectory((deep + L"\\").c_str(), nullptr), 0u);

    ASSERT_TRUE(omktest::WriteFileBytes(temp.File(L"file"), "x"));
    EXPECT_EQ(CFileHelper::MakeDirectory(temp.File(L"file").c_str(), nullptr), static_cast<DWORD>(ERROR_DIRECTORY));
    EXPECT_NE(CFileHelper::MakeDirectory(temp.File(L"file\\sub\\leaf").c_str(), nullptr), 0u);
    EXPECT_FALSE(IsDirectory(temp.File(L"file\\sub")));
    EXPECT_NE(CFileHelper::MakeDirectory(temp.File(L"bad<name").c_str(), nullptr), 0u);
    EXPECT_EQ(CFileHelper::MakeDirectory(nullptr, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(GetOMKInstallLocation, UsesTheCollectorsFolderElseOurOwn) {
    omktest::TempFolder install;
    const std::wstring collector = install.File(L"OMKCollectorSvcApi.exe");
    ASSERT_TRUE(omktest::WriteFileBytes(collector, "MZ"));
    ScopedEnv env(L"OMKTEST_INSTALL", install.Path());
    const std::wstring ours = Lower(omktest::ProgramFolder());
    const std::wstring theirs = Lower(install.Path());
    const struct {
        std::wstring imagePath;
        DWORD type;
        std::wstring folder;
    } cases[] = {{L"\"" + collector + L"\"", REG_SZ, theirs},
                 {L"\"" + collector + L"\" -service", REG_SZ, ours},  // arguments: not a file
                 {L"%OMKTEST_INSTALL%\\OMKCollectorSvcApi.exe", REG_EXPAND_SZ, theirs},
                 {L"%OMKTEST_INSTALL%\\OMKCollectorSvcApi.exe", REG_SZ, theirs},
                 {install.Path(), REG_SZ, ours},  // a folder
                 {L"", REG_SZ, ours},
                 {L"\"" + collector + L"\"", REG_MULTI_SZ, ours}};
    wchar_t folder[OMK_PATH_CHARS];
    {
        omktest::ScopedRegKey key(HKEY_LOCAL_MACHINE, kCollectorKey);
        for (const auto& c : cases) {
            ASSERT_EQ(key.SetString(L"ImagePath", c.imagePath, c.type), 0);
            ASSERT_TRUE(GetOMKInstallLocation(folder));
            EXPECT_EQ(Lower(folder), c.folder) << omktest::ToUtf8(c.imagePath);
        }
    }
    ASSERT_TRUE(GetOMKInstallLocation(folder));  // no key
    EXPECT_EQ(Lower(folder), ours);
}

TEST(MkOMKProgramData, CreatesTheFolderWithTheProductDaclOrReplacesItsDacl) {
    PACL dacl = nullptr;
    ASSERT_EQ(MakeOMKProgramDataDacl(&dacl), 0u);
    EXPECT_EQ(dacl->AceCount, 3);
    EXPECT_EQ(Entries(dacl), kProductEntries);
    LocalFree(dacl);

    omktest::TempFolder created, replaced;
    wchar_t folder[OMK_PATH_CHARS];
    ASSERT_TRUE(MkOMKProgramData(folder, 0, created.Path().c_str()));
    EXPECT_EQ(std::wstring(folder), created.File(L"Varn\\Orlemark"));
    ASSERT_TRUE(IsDirectory(folder));
    ExpectProductDacl(folder);

    // An existing folder where Everyone had full control.
    const std::wstring existing = replaced.File(L"Varn\\Orlemark");
    ASSERT_EQ(CFileHelper::MakeDirectory(existing.c_str(), nullptr), 0u);
    SetDacl(existing, L"D:P(A;OICI;FA;;;WD)");
    ASSERT_NE(FolderEntries(existing)[L"S-1-1-0"] & kWriteRights, 0u);
    ASSERT_TRUE(MkOMKProgramData(folder, OMK_PATH_CHARS, replaced.Path().c_str()));
    ExpectProductDacl(existing);

    const std::wstring longRoot = L"C:\\" + std::wstring(250, L'p');
    EXPECT_FALSE(MkOMKProgramData(folder, OMK_PATH_CHARS, longRoot.c_str()));
    EXPECT_STREQ(folder, L"");
    EXPECT_FALSE(MkOMKProgramData(folder, OMK_PATH_CHARS, nullptr));
}

TEST(MkOMKStorageSubFolder, CreatesTheSubfolderOrFallsBackToTheStorageFolder) {
    omktest::TempFolder storage;
    const std::wstring file = storage.File(L"plain.txt");
    ASSERT_TRUE(omktest::WriteFileBytes(file, "x"));
    wchar_t folder[OMK_PATH_CHARS];
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, 0, storage.Path().c_str(), L"Archive"));
    EXPECT_EQ(std::wstring(folder), storage.File(L"Archive"));
    EXPECT_TRUE(IsDirectory(folder));
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, storage.Path().c_str(), L"Ar|chive"));
    EXPECT_EQ(std::wstring(folder), storage.Path());
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, storage.Path().c_str(), L"plain.txt"));
    EXPECT_EQ(std::wstring(folder), storage.Path()) << "a file of the subfolder's name";
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, file.c_str(), L"Data"));
    EXPECT_EQ(std::wstring(folder), file);
    EXPECT_FALSE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, storage.Path().c_str(), std::wstring(300, 'n').c_str()));
    EXPECT_STREQ(folder, L"");
    EXPECT_FALSE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, nullptr, L"Data"));
}

// CDef recomputed for a test collector install and a test ProgramData.
class CDefTest : public ::testing::Test {
protected:
    CDefTest() : key_(HKEY_LOCAL_MACHINE, kCollectorKey) {
        omktest::WriteFileBytes(install_.File(L"OMKCollectorSvcApi.exe"), "MZ");
        key_.SetString(L"ImagePath", L"\"" + install_.File(L"OMKCollectorSvcApi.exe") + L"\"");
    }
    ~CDefTest() override {
        key_.SetString(L"ImagePath", L"");
        CDef::ResetForTest();
    }

    omktest::TempFolder install_, programData_;
    omktest::ScopedRegKey key_;
};

TEST_F(CDefTest, ComputesEveryFolderUnderTheProductDataFolder) {
    ScopedEnv env(L"ProgramData", programData_.Path());
    CDef::ResetForTest();
    const CDef& def = CDef::GetInstance();
    const std::wstring product = programData_.File(L"Varn\\Orlemark");
    const std::wstring install = def.FOLDER_OMK_INSTALL_LOCATION;

    EXPECT_EQ(std::wstring(def.FOLDER_PROGRAMDATA), programData_.Path());
    EXPECT_EQ(Lower(install), Lower(install_.Path()));
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_PROGRAMDATA), product);
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_STORAGE_LOCATION), product);
    ExpectProductDacl(product);
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_ARCHIVE), product + L"\\Archive");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_DATABASE), product + L"\\Data");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_LOG), product + L"\\Log");
    for (const wchar_t* folder : {def.FOLDER_OMK_ARCHIVE, def.FOLDER_OMK_DATABASE, def.FOLDER_OMK_LOG}) {
        EXPECT_TRUE(IsDirectory(folder)) << omktest::ToUtf8(folder);
    }
    for (const wchar_t* folder : {def.FOLDER_OMK_SUMMARY, def.FOLDER_OMK_ALERT, def.FOLDER_OMK_MINIDUMP}) {
        EXPECT_STREQ(folder, def.FOLDER_OMK_ARCHIVE);
    }
    EXPECT_EQ(&def.FOLDER_OMK_CRASHDUMP[0], &def.FOLDER_OMK_MINIDUMP[0]);
    EXPECT_EQ(std::wstring(def.FOLDER_RUVO_FAIL_SAFE_LOG), product + L"\\Log\\ruvo");
    EXPECT_FALSE(omktest::FileExists(def.FOLDER_RUVO_FAIL_SAFE_LOG));
    EXPECT_EQ(std::wstring(def.FILE_OMK_EVENT_RULE_PLUGIN), install + L"\\omkEventRules.dll");
    EXPECT_EQ(std::wstring(def.FILE_OMK_COLLECT_ACTION_PLUGIN), install + L"\\omkCollectAction.dll");
}

TEST_F(CDefTest, StoresInTheInstallFolderWhenTheProductDataFolderCannotBeMade) {
    const std::wstring blocker = programData_.File(L"blocker");  // a file: nothing can be made under it
    ASSERT_TRUE(omktest::WriteFileBytes(blocker, "x"));
    ScopedEnv env(L"ProgramData", blocker);
    CDef::ResetForTest();
    const CDef& def = CDef::GetInstance();
    const std::wstring install = def.FOLDER_OMK_INSTALL_LOCATION;

    EXPECT_EQ(Lower(install), Lower(install_.Path()));
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_PROGRAMDATA), blocker + L"\\Varn\\Orlemark");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_STORAGE_LOCATION), install);
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_ARCHIVE), install + L"\\Archive");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_LOG), install + L"\\Log");
    EXPECT_TRUE(IsDirectory(def.FOLDER_OMK_LOG));
}

}  // namespace
