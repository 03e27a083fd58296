// The product's Windows Installer package driven through msiexec, as an
// administrator would: install, a collector's event through COM activation,
// an upgrade over the running service, a refused downgrade, a repair, an
// install into a folder with spaces and non-ASCII letters, and uninstalls that
// leave nothing but the product's data. Runs in a Wine prefix of its own.
#include <windows.h>

#include <msi.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "installedService.h"
#include "pluginFile.h"
#include "testPlugins.h"
#include "testSupport.h"

namespace {

using svctest::Collector;
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
const char kRecoverySet[] = "omkTolvaneReg: recovery options of OMKRulesProcessor set";

std::wstring Package(const std::wstring& version) {
    std::wstring folder = omktest::ProgramFolder();
    if (version == OMK_UPGRADE_VERSION) {
        std::wstring relative = OMK_UPGRADE_FOLDER;
        for (wchar_t& c : relative) c = c == L'/' ? L'\\' : c;
        folder += L"\\" + relative;
    }
    return folder + L"\\" OMK_PACKAGE_NAME L"-" + version + L"-x64.msi";
}

std::wstring Value(const std::wstring& key, const wchar_t* name = nullptr) {
    wchar_t value[1024] = {};
    DWORD bytes = sizeof(value) - sizeof(wchar_t);
    // The first string of a REG_MULTI_SZ.
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ, nullptr, value,
                     &bytes) != ERROR_SUCCESS) {
        return L"<absent>";
    }
    return value;
}

bool KeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    RegCloseKey(opened);
    return true;
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

// The product's log lines written by the registration tool, the installer's
// custom actions included.
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

    // msiexec quietly with a verbose log, kept for the failure message. Only the
    // exit code's low 8 bits are compared: Wine passes no more on.
    DWORD Msiexec(const std::wstring& arguments) {
        log_ = temp_.File(L"msiexec" + std::to_wstring(++runs_) + L".log");
        return omktest::RunProcess(L"msiexec " + arguments + L" /qn /l*v \"" + log_ + L"\"", 180000) & 0xFF;
    }
    std::string LogText() const { return "msiexec log:\n" + omktest::ReadFileBytes(log_); }

    // The product installed into `folder`, its service running, everything registered and signed.
    void ExpectInstalledIn(const std::wstring& folder) {
        InstalledService service;
        ASSERT_TRUE(service.IsOpen());
        EXPECT_TRUE(service.WaitForState(SERVICE_RUNNING)) << service.LogSince();
        alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192];
        DWORD needed = 0;
        auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
        ASSERT_TRUE(QueryServiceConfigW(service.Handle(), config, sizeof(buffer), &needed));
        EXPECT_EQ(static_cast<DWORD>(SERVICE_AUTO_START), config->dwStartType);
        EXPECT_NE(nullptr, wcsstr(config->lpBinaryPathName, (folder + L"\\OMKRulesProcessor.exe").c_str()));
        // (Wine's QueryServiceConfigW leaves the dependencies out.)
        EXPECT_EQ(L"RpcSs", Value(L"SYSTEM\\CurrentControlSet\\Services\\OMKRulesProcessor", L"DependOnService"));
        ExpectRecoveryOptions(service.Handle());

        EXPECT_EQ(folder + L"\\omkCollectorRules.dll", Value(kRulePluginKey, L"DllPath"));
        EXPECT_EQ(folder + L"\\omkActionLog.dll", Value(kActionPluginKey, L"DllPath"));
        EXPECT_EQ(L"{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}", Value(kClassKey, L"AppID"));
        EXPECT_EQ(L"OMKRulesProcessor", Value(kAppIdKey, L"LocalService"));
        EXPECT_FALSE(KeyExists(kClassKey + L"\\LocalServer32"));
        EXPECT_EQ(folder + L"\\OMKRulesProcessor.exe", Value(kTypeLibKey + L"\\1.0\\0\\win64"));

        int signedFiles = 0;
        WIN32_FIND_DATAW found;
        HANDLE find = FindFirstFileW((folder + L"\\*.*").c_str(), &found);
        ASSERT_NE(INVALID_HANDLE_VALUE, find);
        do {
            const std::wstring name = found.cFileName;
            if (name.size() < 4 || (_wcsicmp(name.c_str() + name.size() - 4, L".exe") != 0 &&
                                    _wcsicmp(name.c_str() + name.size() - 4, L".dll") != 0)) {
                continue;
            }
            EXPECT_TRUE(IsFileSignatureValid((folder + L"\\" + name).c_str())) << omktest::ToUtf8(name);
            ++signedFiles;
        } while (FindNextFileW(find, &found));
        FindClose(find);
        EXPECT_GE(signedFiles, 7);
        EXPECT_TRUE(omktest::FileExists(folder + L"\\insvcAlerts.xml"));
    }

    // Wine takes the failure actions and keeps nothing (the query answers 124);
    // the tool's log line shows the custom action ran and succeeded.
    void ExpectRecoveryOptions(SC_HANDLE service) {
        EXPECT_NE(std::string::npos, RegistrationLog().find(kRecoverySet, registrationLogStart_));
        alignas(SERVICE_FAILURE_ACTIONSW) BYTE buffer[1024];
        DWORD needed = 0;
        if (!QueryServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, buffer, sizeof(buffer), &needed)) {
            EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_LEVEL), GetLastError());
            return;
        }
        auto* actions = reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(buffer);
        EXPECT_EQ(86400u, actions->dwResetPeriod);
        ASSERT_EQ(3u, actions->cActions);
        EXPECT_EQ(SC_ACTION_RESTART, actions->lpsaActions[0].Type);
        EXPECT_EQ(SC_ACTION_RESTART, actions->lpsaActions[1].Type);
        EXPECT_EQ(SC_ACTION_NONE, actions->lpsaActions[2].Type);
    }

    // Nothing of the product is left but its data.
    void ExpectRemovedFrom(const std::wstring& folder) {
        EXPECT_TRUE(InstalledVersions().empty());
        SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        SC_HANDLE service = OpenServiceW(manager, svctest::kServiceName, SERVICE_QUERY_STATUS);
        EXPECT_EQ(nullptr, service);
        EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST), GetLastError());
        if (service != nullptr) CloseServiceHandle(service);
        CloseServiceHandle(manager);
        for (const std::wstring& key : {kClassKey, kAppIdKey, kTypeLibKey, kInterfaceKey, kRulePluginKey,
                                        kActionPluginKey, kRememberedFolderKey}) {
            EXPECT_FALSE(KeyExists(key)) << omktest::ToUtf8(key);
        }
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(folder.c_str())) << omktest::ToUtf8(folder);
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(L"C:\\Program Files\\Varn"));
    }

    // Reports the battery rule as the collector plugin does; true once its alert is stored.
    static bool ReportAndStoreAlert(Collector& collector) {
        const ULONGLONG latest = svctest::LatestAlertTime();
        if (collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"FullChargeCapacity", L"29120") != S_OK) {
            return false;
        }
        return omktest::WaitFor([&] { return !svctest::AlertsStoredAfter(latest).empty(); }, 30000);
    }

    omktest::TempFolder temp_;
    std::wstring log_;
    int runs_ = 0;
    size_t registrationLogStart_ = RegistrationLog().size();
};

TEST_F(MsiPackage, UpgradesRepairsAndRemovesAnInstallationInAFolderWithSpacesAndNonAsciiLetters) {
    ASSERT_EQ(0u, Msiexec(L"/i \"" + Package(OMK_PACKAGE_VERSION) + L"\" INSTALLDIR=\"" + kUnusualFolder + L"\""))
        << LogText();
    EXPECT_EQ(std::vector<std::wstring>{OMK_PACKAGE_VERSION}, InstalledVersions());
    ExpectInstalledIn(kUnusualFolder);
    const ULONGLONG before = svctest::LatestAlertTime();
    {
        InstalledService service;
        Collector collector;
        ASSERT_EQ(S_OK, collector.Connect());
        ASSERT_TRUE(ReportAndStoreAlert(collector)) << service.LogSince();
        EXPECT_EQ(std::string::npos, service.LogSince().find("Plugin")) << "both plugins load from there";
    }

    // An upgrade over the running service, into the folder it replaces.
    registrationLogStart_ = RegistrationLog().size();
    ASSERT_EQ(0u, Msiexec(L"/i \"" + Package(OMK_UPGRADE_VERSION) + L"\"")) << LogText();
    EXPECT_EQ(std::vector<std::wstring>{OMK_UPGRADE_VERSION}, InstalledVersions());
    ExpectInstalledIn(kUnusualFolder);
    EXPECT_EQ(1u, svctest::AlertsStoredAfter(before).size()) << "the alert database is kept";

    EXPECT_EQ(static_cast<DWORD>(ERROR_INSTALL_FAILURE & 0xFF),
              Msiexec(L"/i \"" + Package(OMK_PACKAGE_VERSION) + L"\""))
        << LogText();
    EXPECT_EQ(std::vector<std::wstring>{OMK_UPGRADE_VERSION}, InstalledVersions()) << "a downgrade is refused";
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), InstalledService().Status().dwCurrentState);

    // A repair puts back a lost file, plugin key and class registration.
    ASSERT_TRUE(DeleteFileW((kUnusualFolder + L"\\tolvane-send.exe").c_str()));
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteKeyW(HKEY_LOCAL_MACHINE, kRulePluginKey.c_str()));
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClassKey.c_str()));
    registrationLogStart_ = RegistrationLog().size();
    ASSERT_EQ(0u, Msiexec(L"/i \"" + Package(OMK_UPGRADE_VERSION) + L"\" REINSTALL=ALL REINSTALLMODE=vomus"))
        << LogText();
    ExpectInstalledIn(kUnusualFolder);
    EXPECT_TRUE(omktest::FileExists(kUnusualFolder + L"\\tolvane-send.exe"));

    // Removed while a collector holds its reference: the service stops after its drain.
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    ASSERT_EQ(0u, Msiexec(L"/x \"" + Package(OMK_UPGRADE_VERSION) + L"\"")) << LogText();
    EXPECT_NE(S_OK, collector.SummaryCreated()) << "the service is gone";
    collector.Release();
    ExpectRemovedFrom(kUnusualFolder);
    EXPECT_EQ(1u, svctest::AlertsStoredAfter(before).size()) << "the alert database is kept";
}

TEST_F(MsiPackage, InstallsIntoProgramFilesByDefaultAndRemovesEverything) {
    ASSERT_EQ(0u, Msiexec(L"/i \"" + Package(OMK_PACKAGE_VERSION) + L"\"")) << LogText();
    ExpectInstalledIn(kDefaultFolder);
    ASSERT_EQ(0u, Msiexec(L"/x \"" + Package(OMK_PACKAGE_VERSION) + L"\"")) << LogText();
    ExpectRemovedFrom(kDefaultFolder);
}

}  // namespace
