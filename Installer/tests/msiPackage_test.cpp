// The product's Windows Installer package driven through msiexec, as an
// administrator would, in a Wine prefix of its own.
#include <windows.h>

#include <msi.h>

#include <gtest/gtest.h>

#include "installedService.h"
#include "pluginFile.h"
#include "testPlugins.h"

namespace {

using omktest::RegKeyExists;
using omktest::RegString;
using svctest::InstalledService;

const std::wstring kDefaultFolder = L"C:\\Program Files\\Varn\\Orlemark";
const std::wstring kUnusualFolder = L"C:\\Program Files\\V\u00e4rn \u00d8rlemark R\u00e8gles";
const std::wstring kClassKey = L"Software\\Classes\\CLSID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}";
const std::wstring kAppIdKey = L"Software\\Classes\\AppID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}";
const std::wstring kTypeLibKey = L"Software\\Classes\\TypeLib\\{6E2B90D4-1A7C-4E35-B8F2-3C9D05A7E1B6}";
const std::wstring kInterfaceKey = L"Software\\Classes\\Interface\\{9A47C1E2-3B58-4D6F-A0C4-E51F2D8B7C93}";
const std::wstring kRulePluginKey = L"Software\\Varn Inc.\\Orlemark\\RulePlugin\\OMKCollectorRules";
const std::wstring kActionPluginKey = L"Software\\Varn Inc.\\Orlemark\\ActionPlugin\\OMKActionLog";
const std::wstring kRememberedFolderKey = L"Software\\Varn Inc.\\Orlemark\\RulesProcessor";

// This build's package, or the one of a higher version made for the upgrade.
std::wstring Package(const std::wstring& version) {
    return L"\"" + (version == OMK_UPGRADE_VERSION ? omktest::ProgramFolder() + L"\\" OMK_UPGRADE_PACKAGE
                                                   : svctest::PackagePath()) + L"\"";
}

// The versions of the product installed on this machine.
std::vector<std::wstring> InstalledVersions() {
    std::vector<std::wstring> versions;
    wchar_t code[39];
    for (DWORD i = 0; MsiEnumRelatedProductsW(OMK_UPGRADE_CODE, 0, i, code) == ERROR_SUCCESS; ++i) {
        wchar_t version[32] = {};
        DWORD chars = 32;
        MsiGetProductInfoW(code, INSTALLPROPERTY_VERSIONSTRING, version, &chars);
        versions.push_back(version);
    }
    return versions;
}

// What the registration tool logged, the installer's custom actions included.
std::string RegistrationLog() {
    std::string text;
    for (const auto& root : svctest::ProductDataRoots())
        text += omktest::ReadFileBytes(root + L"\\Log\\omkTolvaneReg.txt");
    return text;
}

class MsiPackage : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        RemoveEveryVersion();
    }
    void TearDown() override { RemoveEveryVersion(); }

    static void RemoveEveryVersion() {
        wchar_t code[39];
        while (MsiEnumRelatedProductsW(OMK_UPGRADE_CODE, 0, 0, code) == ERROR_SUCCESS) {
            if (omktest::RunProcess(L"msiexec /x " + std::wstring(code) + L" /qn", 180000) != 0) return;
        }
    }

    // msiexec with a verbose log, kept for the failure message.
    DWORD Msiexec(const std::wstring& arguments) {
        log_ = temp_.File(L"msiexec" + std::to_wstring(++runs_) + L".log");
        registrationLogStart_ = RegistrationLog().size();
        return svctest::Msiexec(arguments, log_);
    }
    std::string LogText() const { return "msiexec log:\n" + omktest::ReadFileBytes(log_); }

    // The product installed into `folder`, its service running, everything registered and signed.
    void ExpectInstalledIn(const std::wstring& folder) {
        InstalledService service;
        EXPECT_TRUE(service.WaitForState(SERVICE_RUNNING)) << service.LogSince();
        alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192];
        auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
        DWORD needed = 0;
        ASSERT_TRUE(QueryServiceConfigW(service.Handle(), config, sizeof(buffer), &needed));
        EXPECT_EQ(static_cast<DWORD>(SERVICE_AUTO_START), config->dwStartType);
        EXPECT_NE(nullptr, wcsstr(config->lpBinaryPathName, (folder + L"\\OMKRulesProcessor.exe").c_str()));
        // (Wine's QueryServiceConfigW leaves the dependencies out.)
        EXPECT_EQ(L"RpcSs", RegString(L"SYSTEM\\CurrentControlSet\\Services\\OMKRulesProcessor", L"DependOnService"));
        // Wine takes the failure actions and keeps nothing to query: the tool's
        // line shows the custom action ran and succeeded.
        EXPECT_NE(std::string::npos, RegistrationLog().find("omkTolvaneReg: recovery options of OMKRulesProcessor set",
                                                            registrationLogStart_));

        EXPECT_EQ(folder + L"\\omkCollectorRules.dll", RegString(kRulePluginKey, L"DllPath"));
        EXPECT_EQ(folder + L"\\omkActionLog.dll", RegString(kActionPluginKey, L"DllPath"));
        EXPECT_EQ(L"{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}", RegString(kClassKey, L"AppID"));
        EXPECT_EQ(folder + L"\\OMKRulesProcessor.exe", RegString(kTypeLibKey + L"\\1.0\\0\\win64"));
        EXPECT_TRUE(omktest::FileExists(folder + L"\\insvcAlerts.xml"));
        size_t signedFiles = 0;
        for (const wchar_t* pattern : {L"\\*.exe", L"\\*.dll"}) {
            for (const auto& name : omktest::FilesMatching(folder + pattern)) {
                EXPECT_TRUE(IsFileSignatureValid((folder + L"\\" + name).c_str())) << omktest::ToUtf8(name);
                ++signedFiles;
            }
        }
        EXPECT_GE(signedFiles, 7u);
    }

    // Nothing of the product is left but its data.
    void ExpectRemovedFrom(const std::wstring& folder) {
        EXPECT_TRUE(InstalledVersions().empty());
        EXPECT_FALSE(InstalledService().IsOpen()) << "the service is deleted";
        for (const std::wstring& key : {kClassKey, kAppIdKey, kTypeLibKey, kInterfaceKey, kRulePluginKey,
                                        kActionPluginKey, kRememberedFolderKey}) {
            EXPECT_FALSE(RegKeyExists(key)) << omktest::ToUtf8(key);
        }
        EXPECT_FALSE(omktest::FileExists(folder)) << omktest::ToUtf8(folder);
        EXPECT_FALSE(omktest::FileExists(L"C:\\Program Files\\Varn"));
    }

    omktest::TempFolder temp_;
    std::wstring log_;
    int runs_ = 0;
    size_t registrationLogStart_ = 0;
};

TEST_F(MsiPackage, UpgradesRepairsAndRemovesAnInstallationInAFolderWithSpacesAndNonAsciiLetters) {
    ASSERT_EQ(0u, Msiexec(L"/i " + Package(OMK_PACKAGE_VERSION) + L" INSTALLDIR=\"" + kUnusualFolder + L"\""))
        << LogText();
    EXPECT_EQ(std::vector<std::wstring>{OMK_PACKAGE_VERSION}, InstalledVersions());
    ExpectInstalledIn(kUnusualFolder);
    const ULONGLONG before = svctest::LatestAlertTime();
    {
        InstalledService service;
        svctest::Collector collector;
        ASSERT_EQ(S_OK, collector.Connect());
        EXPECT_EQ(S_OK, collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"FullChargeCapacity", L"29120"));
        ASSERT_TRUE(omktest::WaitFor([&] { return !svctest::AlertsStoredAfter(before).empty(); }, 30000))
            << service.LogSince();
        EXPECT_EQ(std::string::npos, service.LogSince().find("Plugin")) << "both plugins load from there";
    }

    // An upgrade over the running service, into the folder it replaces.
    ASSERT_EQ(0u, Msiexec(L"/i " + Package(OMK_UPGRADE_VERSION))) << LogText();
    EXPECT_EQ(std::vector<std::wstring>{OMK_UPGRADE_VERSION}, InstalledVersions());
    ExpectInstalledIn(kUnusualFolder);
    EXPECT_EQ(1u, svctest::AlertsStoredAfter(before).size()) << "the alert database is kept";

    EXPECT_EQ(static_cast<DWORD>(ERROR_INSTALL_FAILURE & 0xFF), Msiexec(L"/i " + Package(OMK_PACKAGE_VERSION)))
        << LogText();
    EXPECT_EQ(std::vector<std::wstring>{OMK_UPGRADE_VERSION}, InstalledVersions()) << "a downgrade is refused";
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), InstalledService().Status().dwCurrentState);

    // A repair puts back a lost file, plugin key and class registration.
    ASSERT_TRUE(DeleteFileW((kUnusualFolder + L"\\tolvane-send.exe").c_str()));
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteKeyW(HKEY_LOCAL_MACHINE, kRulePluginKey.c_str()));
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClassKey.c_str()));
    ASSERT_EQ(0u, Msiexec(L"/i " + Package(OMK_UPGRADE_VERSION) + L" REINSTALL=ALL REINSTALLMODE=vomus")) << LogText();
    ExpectInstalledIn(kUnusualFolder);
    EXPECT_TRUE(omktest::FileExists(kUnusualFolder + L"\\tolvane-send.exe"));

    // Removed while a collector holds its reference: the service stops after its drain.
    svctest::Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    ASSERT_EQ(0u, Msiexec(L"/x " + Package(OMK_UPGRADE_VERSION))) << LogText();
    EXPECT_NE(S_OK, collector.SummaryCreated()) << "the service is gone";
    collector.Release();
    ExpectRemovedFrom(kUnusualFolder);
    EXPECT_EQ(1u, svctest::AlertsStoredAfter(before).size()) << "the alert database is kept";
}

TEST_F(MsiPackage, InstallsIntoProgramFilesByDefaultAndRemovesEverything) {
    ASSERT_EQ(0u, Msiexec(L"/i " + Package(OMK_PACKAGE_VERSION))) << LogText();
    ExpectInstalledIn(kDefaultFolder);
    ASSERT_EQ(0u, Msiexec(L"/x " + Package(OMK_PACKAGE_VERSION))) << LogText();
    ExpectRemovedFrom(kDefaultFolder);
}

}  // namespace
