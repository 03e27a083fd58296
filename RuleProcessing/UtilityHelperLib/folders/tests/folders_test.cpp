// Folder helpers and CDef against real folders, real registry values in the
// test prefix and the real security descriptors of created folders.
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <stdio.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "cdef.h"
#include "fileHelper.h"
#include "testSupport.h"

namespace {

const wchar_t kCollectorKey[] = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";

bool IsDirectory(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::wstring Lower(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(towlower(c));
    return text;
}

// Sets an environment variable for the test's duration and restores it after.
class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const std::wstring& value) : name_(name) {
        wchar_t old[32768];
        DWORD n = GetEnvironmentVariableW(name, old, 32768);
        had_ = n > 0 && n < 32768;
        if (had_) old_ = old;
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~ScopedEnv() { SetEnvironmentVariableW(name_.c_str(), had_ ? old_.c_str() : nullptr); }

private:
    std::wstring name_;
    std::wstring old_;
    bool had_ = false;
};

// Allowed rights per SID string, generic rights mapped to file rights, and
// whether every entry is inherited by subfolders and files.
struct DaclSummary {
    std::map<std::wstring, DWORD> allowed;
    bool allInheritable = true;
    int deniedEntries = 0;
};

DaclSummary SummariseDacl(const ACL* dacl) {
    DaclSummary summary;
    if (dacl == nullptr) return summary;
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
        ACE_HEADER* header = nullptr;
        if (!GetAce(const_cast<ACL*>(dacl), i, reinterpret_cast<void**>(&header))) continue;
        if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) {
            ++summary.deniedEntries;
            continue;
        }
        auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(header);
        const BYTE inherit = CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE;
        if ((header->AceFlags & inherit) != inherit) summary.allInheritable = false;
        DWORD mask = ace->Mask;
        MapGenericMask(&mask, &mapping);
        wchar_t* sidText = nullptr;
        ConvertSidToStringSidW(&ace->SidStart, &sidText);
        summary.allowed[sidText != nullptr ? sidText : L"?"] |= mask;
        LocalFree(sidText);
    }
    return summary;
}

DaclSummary ReadDacl(const std::wstring& path) {
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    DWORD error = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                        &dacl, nullptr, &descriptor);
    EXPECT_EQ(error, 0u) << "GetNamedSecurityInfoW";
    DaclSummary summary = SummariseDacl(error == 0 ? dacl : nullptr);
    if (descriptor != nullptr) LocalFree(descriptor);
    return summary;
}

const wchar_t kEveryone[] = L"S-1-1-0";
const wchar_t kAdministrators[] = L"S-1-5-32-544";
const wchar_t kLocalSystem[] = L"S-1-5-18";
const wchar_t kUsers[] = L"S-1-5-32-545";
const DWORD kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES | DELETE |
                           FILE_DELETE_CHILD | WRITE_DAC | WRITE_OWNER;

void ExpectProductEntries(const DaclSummary& dacl) {
    EXPECT_EQ(dacl.deniedEntries, 0);
    EXPECT_TRUE(dacl.allInheritable);
    std::string listing;
    for (const auto& entry : dacl.allowed)
        listing += omktest::ToUtf8(entry.first) + "=" + std::to_string(entry.second) + " ";
    ASSERT_EQ(dacl.allowed.size(), 3u) << listing;
    EXPECT_EQ(dacl.allowed.at(kAdministrators), static_cast<DWORD>(FILE_ALL_ACCESS)) << listing;
    EXPECT_EQ(dacl.allowed.at(kLocalSystem), static_cast<DWORD>(FILE_ALL_ACCESS)) << listing;
    EXPECT_EQ(dacl.allowed.at(kUsers), static_cast<DWORD>(FILE_GENERIC_READ | FILE_GENERIC_EXECUTE)) << listing;
}

// Whether this file system keeps the DACL given to a folder. Wine (without
// stored ACLs) derives every DACL from the Unix mode bits instead.
bool FileSystemKeepsDacls() {
    static int keeps = -1;
    if (keeps >= 0) return keeps == 1;
    omktest::TempFolder temp;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;OICI;FA;;;BA)", SDDL_REVISION_1, &descriptor, nullptr);
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), descriptor, FALSE};
    const std::wstring probe = temp.File(L"probe");
    CreateDirectoryW(probe.c_str(), &attributes);
    LocalFree(descriptor);
    DaclSummary read = ReadDacl(probe);
    keeps = read.allowed.size() == 1 && read.allowed.count(kAdministrators) == 1 ? 1 : 0;
    if (keeps == 0) std::printf("note: this file system does not keep DACLs; only write access is checked\n");
    return keeps == 1;
}

// The folder carries the product DACL: exactly, where the file system keeps
// DACLs; else at least nobody but the owner and the system may write.
void ExpectProductDacl(const std::wstring& path) {
    DaclSummary dacl = ReadDacl(path);
    if (FileSystemKeepsDacls()) {
        ExpectProductEntries(dacl);
        return;
    }
    ASSERT_FALSE(dacl.allowed.empty());
    for (const wchar_t* group : {kEveryone, kUsers}) {
        auto entry = dacl.allowed.find(group);
        if (entry != dacl.allowed.end()) {
            EXPECT_EQ(entry->second & kWriteRights, 0u) << omktest::ToUtf8(group);
        }
    }
}

TEST(MkOMKProgramData, BuildsTheThreeEntryDacl) {
    PACL dacl = nullptr;
    ASSERT_EQ(MakeOMKProgramDataDacl(&dacl), 0u);
    ASSERT_NE(dacl, nullptr);
    EXPECT_EQ(dacl->AceCount, 3);
    ExpectProductEntries(SummariseDacl(dacl));
    LocalFree(dacl);
    EXPECT_EQ(MakeOMKProgramDataDacl(nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(MakeDirectory, CreatesEveryMissingLevelAndReportsTheFirstFailure) {
    omktest::TempFolder temp;
    const std::wstring deep = temp.File(L"a\\b\\c");
    EXPECT_EQ(CFileHelper::MakeDirectory(deep.c_str(), nullptr), 0u);
    EXPECT_TRUE(IsDirectory(deep));
    // Existing, and existing with a trailing backslash.
    EXPECT_EQ(CFileHelper::MakeDirectory(deep.c_str(), nullptr), 0u);
    EXPECT_EQ(CFileHelper::MakeDirectory((temp.File(L"a\\b") + L"\\").c_str(), nullptr), 0u);

    // A file in the way of a middle level: that level's error comes back.
    ASSERT_TRUE(omktest::WriteFileBytes(temp.File(L"file"), "x"));
    const std::wstring blocked = temp.File(L"file\\sub\\leaf");
    EXPECT_NE(CFileHelper::MakeDirectory(blocked.c_str(), nullptr), 0u);
    EXPECT_FALSE(IsDirectory(blocked));
    EXPECT_NE(CFileHelper::MakeDirectory(temp.File(L"bad<name").c_str(), nullptr), 0u);
    EXPECT_EQ(CFileHelper::MakeDirectory(L"", nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(CFileHelper::MakeDirectory(nullptr, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(GetEnvVarPath, ExpandsAndStripsQuotesAndRefusesWhatDoesNotFit) {
    ScopedEnv env(L"OMKTEST_FOLDER", L"C:\\Some Folder");
    wchar_t path[OMK_PATH_CHARS];
    ASSERT_TRUE(GetEnvVarPath(L"\"%OMKTEST_FOLDER%\\x.exe\"", path, 0));
    EXPECT_STREQ(path, L"C:\\Some Folder\\x.exe");
    ASSERT_TRUE(GetEnvVarPath(L"%OMKTEST_FOLDER%", path, OMK_PATH_CHARS));
    EXPECT_STREQ(path, L"C:\\Some Folder");
    // Only a quote at either end goes; one alone is removed as well.
    ASSERT_TRUE(GetEnvVarPath(L"\"C:\\a\" -x", path, OMK_PATH_CHARS));
    EXPECT_STREQ(path, L"C:\\a\" -x");
    ASSERT_TRUE(GetEnvVarPath(L"\"", path, OMK_PATH_CHARS));
    EXPECT_STREQ(path, L"");

    wchar_t small[8];
    EXPECT_FALSE(GetEnvVarPath(L"%OMKTEST_FOLDER%", small, 8));
    EXPECT_STREQ(small, L"");
    EXPECT_FALSE(GetEnvVarPath(L"", path, OMK_PATH_CHARS));
    EXPECT_FALSE(GetEnvVarPath(nullptr, path, OMK_PATH_CHARS));
    EXPECT_FALSE(GetEnvVarPath(L"x", nullptr, OMK_PATH_CHARS));
}

TEST(GetOMKInstallLocation, UsesTheCollectorsFolderOrFallsBackToOurOwn) {
    omktest::TempFolder install;
    const std::wstring collector = install.File(L"OMKCollectorSvcApi.exe");
    ASSERT_TRUE(omktest::WriteFileBytes(collector, "MZ"));
    const std::wstring ownFolder = Lower(omktest::ProgramFolder());
    wchar_t folder[OMK_PATH_CHARS];

    {
        omktest::ScopedRegKey key(HKEY_LOCAL_MACHINE, kCollectorKey);
        ASSERT_EQ(key.SetString(L"ImagePath", L"\"" + collector + L"\""), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), Lower(install.Path()));

        // Arguments behind the quoted name: not a file, so our own folder.
        ASSERT_EQ(key.SetString(L"ImagePath", L"\"" + collector + L"\" -service"), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), ownFolder);

        // Environment references are expanded.
        ScopedEnv env(L"OMKTEST_INSTALL", install.Path());
        ASSERT_EQ(key.SetString(L"ImagePath", L"%OMKTEST_INSTALL%\\OMKCollectorSvcApi.exe"), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), Lower(install.Path()));

        // A folder, an empty value and a value of another type do not count.
        ASSERT_EQ(key.SetString(L"ImagePath", install.Path()), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), ownFolder);
        ASSERT_EQ(key.SetString(L"ImagePath", L""), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), ownFolder);
        ASSERT_EQ(key.SetDword(L"ImagePath", 7), 0);
        ASSERT_TRUE(GetOMKInstallLocation(folder));
        EXPECT_EQ(Lower(folder), ownFolder);
    }
    // Missing key.
    ASSERT_TRUE(GetOMKInstallLocation(folder));
    EXPECT_EQ(Lower(folder), ownFolder);
    EXPECT_FALSE(GetOMKInstallLocation(nullptr));
}

TEST(MkOMKProgramData, CreatesTheFolderWithTheProductDacl) {
    omktest::TempFolder programData;
    wchar_t folder[OMK_PATH_CHARS];
    ASSERT_TRUE(MkOMKProgramData(folder, 0, programData.Path().c_str()));
    EXPECT_EQ(std::wstring(folder), programData.File(L"Varn\\Orlemark"));
    ASSERT_TRUE(IsDirectory(folder));
    ExpectProductDacl(folder);
}

TEST(MkOMKProgramData, ReplacesTheDaclOfAnExistingFolder) {
    omktest::TempFolder programData;
    const std::wstring folder = programData.File(L"Varn\\Orlemark");
    // An existing folder whose DACL grants Everyone (and nobody else) full control.
    ASSERT_EQ(CFileHelper::MakeDirectory(folder.c_str(), nullptr), 0u);
    PSECURITY_DESCRIPTOR everyone = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;OICI;FA;;;WD)", SDDL_REVISION_1, &everyone,
                                                                     nullptr));
    PACL everyoneDacl = nullptr;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ASSERT_TRUE(GetSecurityDescriptorDacl(everyone, &present, &everyoneDacl, &defaulted));
    std::wstring mutablePath = folder;
    ASSERT_EQ(SetNamedSecurityInfoW(&mutablePath[0], SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                    everyoneDacl, nullptr),
              0u);
    LocalFree(everyone);
    DaclSummary before = ReadDacl(folder);
    ASSERT_EQ(before.allowed.count(kEveryone), 1u) << "the folder did not get its first DACL";
    ASSERT_NE(before.allowed[kEveryone] & kWriteRights, 0u);

    wchar_t made[OMK_PATH_CHARS];
    ASSERT_TRUE(MkOMKProgramData(made, OMK_PATH_CHARS, programData.Path().c_str()));
    EXPECT_EQ(std::wstring(made), folder);
    ExpectProductDacl(folder);
}

TEST(MkOMKProgramData, RefusesBadArgumentsAndPathsThatDoNotFit) {
    wchar_t folder[OMK_PATH_CHARS];
    EXPECT_FALSE(MkOMKProgramData(folder, OMK_PATH_CHARS, nullptr));
    EXPECT_FALSE(MkOMKProgramData(nullptr, OMK_PATH_CHARS, L"C:\\x"));
    const std::wstring longRoot = L"C:\\" + std::wstring(250, L'p');
    EXPECT_FALSE(MkOMKProgramData(folder, OMK_PATH_CHARS, longRoot.c_str()));
    EXPECT_STREQ(folder, L"");
    EXPECT_FALSE(IsDirectory(longRoot));
}

TEST(MkOMKStorageSubFolder, CreatesTheSubfolderOrFallsBackToTheStorageFolder) {
    omktest::TempFolder storage;
    wchar_t folder[OMK_PATH_CHARS];
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, 0, storage.Path().c_str(), L"Archive"));
    EXPECT_EQ(std::wstring(folder), storage.File(L"Archive"));
    EXPECT_TRUE(IsDirectory(folder));

    // A name that cannot be a folder, and a storage "folder" that is a file.
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, storage.Path().c_str(), L"Ar|chive"));
    EXPECT_EQ(std::wstring(folder), storage.Path());
    const std::wstring file = storage.File(L"plain.txt");
    ASSERT_TRUE(omktest::WriteFileBytes(file, "x"));
    ASSERT_TRUE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, file.c_str(), L"Data"));
    EXPECT_EQ(std::wstring(folder), file);

    // Too long to format: nothing usable.
    const std::wstring longName(300, L'n');
    EXPECT_FALSE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, storage.Path().c_str(), longName.c_str()));
    EXPECT_STREQ(folder, L"");
    EXPECT_FALSE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, nullptr, L"Data"));
    EXPECT_FALSE(MkOMKStorageSubFolder(folder, OMK_PATH_CHARS, storage.Path().c_str(), nullptr));
    EXPECT_FALSE(MkOMKStorageSubFolder(nullptr, OMK_PATH_CHARS, storage.Path().c_str(), L"Data"));
}

TEST(GetOMKStorageLocation, AcceptsOnlyAnExistingFolder) {
    omktest::TempFolder temp;
    wchar_t folder[OMK_PATH_CHARS];
    EXPECT_TRUE(GetOMKStorageLocation(folder, temp.Path().c_str()));
    EXPECT_EQ(std::wstring(folder), temp.Path());
    EXPECT_FALSE(GetOMKStorageLocation(folder, temp.File(L"missing").c_str()));
    EXPECT_FALSE(GetOMKStorageLocation(folder, std::wstring(300, L'x').c_str()));
}

// CDef recomputed against a test ProgramData and a test collector install.
class CDefTest : public ::testing::Test {
protected:
    CDefTest() : key_(HKEY_LOCAL_MACHINE, kCollectorKey) {
        collector_ = install_.File(L"OMKCollectorSvcApi.exe");
        omktest::WriteFileBytes(collector_, "MZ");
        key_.SetString(L"ImagePath", L"\"" + collector_ + L"\"");
    }
    ~CDefTest() override {
        key_.SetString(L"ImagePath", L"");
        CDef::ResetForTest();
    }

    omktest::TempFolder install_;
    omktest::TempFolder programData_;
    std::wstring collector_;
    omktest::ScopedRegKey key_;
};

TEST_F(CDefTest, ComputesEveryFolderUnderTheProductDataFolder) {
    ScopedEnv env(L"ProgramData", programData_.Path());
    CDef::ResetForTest();
    const CDef& def = CDef::GetInstance();
    const std::wstring product = programData_.File(L"Varn\\Orlemark");

    EXPECT_NE(def.SYSTEMDRIVE[0], L'\0');
    EXPECT_NE(def.FOLDER_WINDOWS[0], L'\0');
    EXPECT_NE(def.FOLDER_SYSTEM[0], L'\0');
    EXPECT_NE(def.FOLDER_PROGRAMFILES[0], L'\0');
    EXPECT_EQ(std::wstring(def.FOLDER_PROGRAMDATA), programData_.Path());
    EXPECT_EQ(Lower(def.FOLDER_OMK_INSTALL_LOCATION), Lower(install_.Path()));
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_PROGRAMDATA), product);
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_STORAGE_LOCATION), product);
    ExpectProductDacl(product);

    EXPECT_EQ(std::wstring(def.FOLDER_OMK_ARCHIVE), product + L"\\Archive");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_DATABASE), product + L"\\Data");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_LOG), product + L"\\Log");
    EXPECT_TRUE(IsDirectory(def.FOLDER_OMK_ARCHIVE));
    EXPECT_TRUE(IsDirectory(def.FOLDER_OMK_DATABASE));
    EXPECT_TRUE(IsDirectory(def.FOLDER_OMK_LOG));
    EXPECT_STREQ(def.FOLDER_OMK_SUMMARY, def.FOLDER_OMK_ARCHIVE);
    EXPECT_STREQ(def.FOLDER_OMK_ALERT, def.FOLDER_OMK_ARCHIVE);
    EXPECT_STREQ(def.FOLDER_OMK_MINIDUMP, def.FOLDER_OMK_ARCHIVE);
    EXPECT_EQ(&def.FOLDER_OMK_CRASHDUMP[0], &def.FOLDER_OMK_MINIDUMP[0]);
    EXPECT_EQ(std::wstring(def.FOLDER_RUVO_FAIL_SAFE_LOG), product + L"\\Log\\ruvo");
    EXPECT_FALSE(omktest::FileExists(def.FOLDER_RUVO_FAIL_SAFE_LOG));

    const std::wstring installFolder = def.FOLDER_OMK_INSTALL_LOCATION;
    EXPECT_EQ(std::wstring(def.FILE_OMK_EVENT_RULE_PLUGIN), installFolder + L"\\omkEventRules.dll");
    EXPECT_EQ(std::wstring(def.FILE_OMK_DATA_RULE_PLUGIN), installFolder + L"\\omkDataRules.dll");
    EXPECT_EQ(std::wstring(def.FILE_OMK_NOTIFY_ACTION_PLUGIN), installFolder + L"\\omkNotifyAction.dll");
    EXPECT_EQ(std::wstring(def.FILE_OMK_COLLECT_ACTION_PLUGIN), installFolder + L"\\omkCollectAction.dll");
}

TEST_F(CDefTest, StoresInTheInstallFolderWhenTheProductDataFolderCannotBeMade) {
    // ProgramData names a file, so nothing can be created under it.
    const std::wstring blocker = programData_.File(L"blocker");
    ASSERT_TRUE(omktest::WriteFileBytes(blocker, "x"));
    ScopedEnv env(L"ProgramData", blocker);
    CDef::ResetForTest();
    const CDef& def = CDef::GetInstance();
    const std::wstring installFolder = def.FOLDER_OMK_INSTALL_LOCATION;

    EXPECT_EQ(Lower(installFolder), Lower(install_.Path()));
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_PROGRAMDATA), blocker + L"\\Varn\\Orlemark");
    EXPECT_FALSE(IsDirectory(def.FOLDER_OMK_PROGRAMDATA));
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_STORAGE_LOCATION), installFolder);
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_ARCHIVE), installFolder + L"\\Archive");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_DATABASE), installFolder + L"\\Data");
    EXPECT_EQ(std::wstring(def.FOLDER_OMK_LOG), installFolder + L"\\Log");
    EXPECT_TRUE(IsDirectory(def.FOLDER_OMK_LOG));
}

}  // namespace
