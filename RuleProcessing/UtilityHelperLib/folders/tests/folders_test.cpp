// Folder helpers and CDef against real folders and registry values in the test prefix.
#include <aclapi.h>
#include <sddl.h>

#include <map>

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
struct ScopedEnv {
    std::wstring name, old = std::wstring(4096, L'\0');
    ScopedEnv(const wchar_t* variable, const std::wstring& value) : name(variable) {
        old.resize(GetEnvironmentVariableW(variable, &old[0], 4096));
        SetEnvironmentVariableW(variable, value.c_str());
    }
    ~ScopedEnv() { SetEnvironmentVariableW(name.c_str(), old.empty() ? nullptr : old.c_str()); }
};

// Rights per SID of the explicit entries of `dacl`, or of the folder's DACL,
// generic rights mapped to file rights; "!" counts entries that are not
// inheritable allow entries.
std::map<std::wstring, DWORD> Entries(const std::wstring& folder, PACL dacl = nullptr) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (dacl == nullptr) {
        GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl,
                              nullptr, &descriptor);
    }
    std::map<std::wstring, DWORD> entries;
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    ACCESS_ALLOWED_ACE* ace = nullptr;
    for (DWORD i = 0; dacl != nullptr && GetAce(dacl, i, reinterpret_cast<void**>(&ace)); ++i) {
        const BYTE inherit = CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE;
        if (ace->Header.AceFlags & INHERITED_ACE) continue;  // from the parent folder
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
    LocalFree(descriptor);
    return entries;
}

const std::map<std::wstring, DWORD> kProductEntries = {
    {L"S-1-5-32-544", FILE_ALL_ACCESS},                            // Administrators
    {L"S-1-5-18", FILE_ALL_ACCESS},                                // Local System
    {L"S-1-5-32-545", FILE_GENERIC_READ | FILE_GENERIC_EXECUTE}};  // Users

// Sets a folder's DACL from SDDL text.
void SetDacl(const std::wstring& folder, const wchar_t* sddl) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr);
    PACL dacl = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted);
    std::wstring name = folder;
    EXPECT_EQ(0u, SetNamedSecurityInfoW(&name[0], SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, dacl,
                                        nullptr));
    LocalFree(descriptor);
}

// Neither Everyone nor Users may write to the folder. (Wine keeps no DACLs on
// files but derives them from the Unix mode, so the exact entries, which
// MakeOMKProgramDataDacl's test shows, cannot be read back here.)
void ExpectNoWriteForUsers(const std::wstring& folder) {
    std::map<std::wstring, DWORD> entries = Entries(folder);
    EXPECT_EQ(0u, (entries[L"S-1-1-0"] | entries[L"S-1-5-32-545"]) & kWriteRights) << omktest::ToUtf8(folder);
}

TEST(MakeDirectory, CreatesEveryMissingLevelAndSubfoldersFallBackToTheStorageFolder) {
    omktest::TempFolder temp;
    const std::wstring deep = temp.File(L"a\\b\\c");
    EXPECT_EQ(CFileHelper::MakeDirectory(deep.c_str(), nullptr), 0u);
    EXPECT_TRUE(IsDirectory(deep));
    const std::wstring file = temp.File(L"file");
    ASSERT_TRUE(omktest::WriteFileBytes(file, "x"));
    EXPECT_EQ(CFileHelper::MakeDirectory(file.c_str(), nullptr), static_cast<DWORD>(ERROR_DIRECTORY));
    EXPECT_NE(CFileHelper::MakeDirectory(temp.File(L"file\\sub\\leaf").c_str(), nullptr), 0u);
    EXPECT_FALSE(IsDirectory(temp.File(L"file\\sub")));
    EXPECT_NE(CFileHelper::MakeDirectory(temp.File(L"bad<name").c_str(), nullptr), 0u);
    EXPECT_EQ(CFileHelper::MakeDirectory(nullptr, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    const struct {
        std::wstring storage, name, expected;
    } cases[] = {{temp.Path(), L"Archive", temp.File(L"Archive")},
                 {temp.Path(), L"Ar|chive", temp.Path()},  // cannot be made
                 {temp.Path(), L"file", temp.Path()},      // a file of that name
                 {file, L"Data", file},
                 {temp.Path(), std::wstring(300, L'n'), L""}};  // does not fit
    wchar_t folder[OMK_PATH_CHARS];
    for (const auto& c : cases) {
        EXPECT_EQ(!c.expected.empty(), MkOMKStorageSubFolder(folder, 0, c.storage.c_str(), c.name.c_str()));
        EXPECT_EQ(c.expected, folder);
    }
    EXPECT_TRUE(IsDirectory(temp.File(L"Archive")));
    EXPECT_FALSE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, nullptr, L"Data"));
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
    omktest::ScopedRegKey key(HKEY_LOCAL_MACHINE, kCollectorKey);
    for (const auto& c : cases) {
        ASSERT_EQ(key.SetString(L"ImagePath", c.imagePath, c.type), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), c.folder) << omktest::ToUtf8(c.imagePath);
    }
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

TEST_F(CDefTest, EveryFolderIsInTheProductDataFolderElseTheInstallFolderForTheLibrariesToo) {
    PACL dacl = nullptr;
    ASSERT_EQ(MakeOMKProgramDataDacl(&dacl), 0u);
    EXPECT_EQ(Entries(L"", dacl), kProductEntries);
    LocalFree(dacl);
    // A product folder made new, one that exists with Everyone in full control, and none that can be made.
    omktest::TempFolder existing;
    const std::wstring blocker = programData_.File(L"blocker");  // a file: nothing can be made under it
    ASSERT_TRUE(omktest::WriteFileBytes(blocker, "x"));
    ASSERT_EQ(0u, CFileHelper::MakeDirectory(existing.File(L"Varn\\Orlemark").c_str(), nullptr));
    SetDacl(existing.File(L"Varn\\Orlemark"), L"D:P(A;OICI;FA;;;WD)");
    ASSERT_NE(Entries(existing.File(L"Varn\\Orlemark"))[L"S-1-1-0"] & kWriteRights, 0u);
    for (const std::wstring& programData : {programData_.Path(), existing.Path(), blocker}) {
        ScopedEnv env(L"ProgramData", programData);
        CDef::ResetForTest();
        const CDef& def = CDef::GetInstance();
        const std::wstring install = def.FOLDER_OMK_INSTALL_LOCATION;
        const std::wstring product = programData + L"\\Varn\\Orlemark";
        const std::wstring storage = programData == blocker ? install : product;
        EXPECT_EQ(programData, def.FOLDER_PROGRAMDATA);
        EXPECT_EQ(Lower(install_.Path()), Lower(install));
        EXPECT_EQ(product, def.FOLDER_OMK_PROGRAMDATA);
        EXPECT_EQ(storage, def.FOLDER_OMK_STORAGE_LOCATION);
        if (storage == product) ExpectNoWriteForUsers(product);
        const struct {
            const wchar_t* member;
            const wchar_t* sub;
        } members[] = {{def.FOLDER_OMK_ARCHIVE, L"\\Archive"}, {def.FOLDER_OMK_DATABASE, L"\\Data"},
                       {def.FOLDER_OMK_LOG, L"\\Log"},         {def.FOLDER_OMK_SUMMARY, L"\\Archive"},
                       {def.FOLDER_OMK_ALERT, L"\\Archive"},   {def.FOLDER_OMK_MINIDUMP, L"\\Archive"}};
        for (const auto& m : members) {
            EXPECT_EQ(storage + m.sub, m.member);
            EXPECT_TRUE(IsDirectory(m.member)) << omktest::ToUtf8(m.member);
        }
        EXPECT_EQ(&def.FOLDER_OMK_CRASHDUMP[0], &def.FOLDER_OMK_MINIDUMP[0]);
        EXPECT_EQ(storage + L"\\Log\\ruvo", def.FOLDER_RUVO_FAIL_SAFE_LOG);
        EXPECT_FALSE(omktest::FileExists(def.FOLDER_RUVO_FAIL_SAFE_LOG));
        EXPECT_EQ(install + L"\\omkEventRules.dll", def.FILE_OMK_EVENT_RULE_PLUGIN);
        EXPECT_EQ(install + L"\\omkCollectAction.dll", def.FILE_OMK_COLLECT_ACTION_PLUGIN);

        // A process of the product started in the same environment: its error
        // log and its alert database follow the same rule.
        EXPECT_EQ(0u, omktest::RunProcess(L"\"" + omktest::ProgramFolder() + L"\\alertDbClient.exe\" store 7"));
        EXPECT_NE(std::string::npos,
                  omktest::ReadFileBytes(std::wstring(def.FOLDER_OMK_LOG) + L"\\alertDbClient.txt").find("stored 7"));
        EXPECT_TRUE(omktest::FileExists(std::wstring(def.FOLDER_OMK_DATABASE) + L"\\omkAlerts.db"));
    }
}

}  // namespace
