// The installed service under the real service manager: start and stop with
// the states it reports, controls, the instance and argument guards, the setup
// state in its log, a rule file that does not parse, stops with queued events
// and with a client holding its reference, a collector's event from COM
// activation of the stopped service to the stored alert, and the installed
// product's road from the collector tool to uninstallation.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "installedService.h"
#include "testPlugins.h"
#include "testSupport.h"

namespace {

using svctest::Collector;
using svctest::InstalledService;

// Short, because the plugin loaders read at most 129 characters of a path.
const std::wstring kInstall = L"C:\\omksvc";
const std::wstring kServiceExe = kInstall + L"\\OMKRulesProcessor.exe";
const wchar_t kSetupStateKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\State";
const wchar_t kAlertStoredEvent[] = L"Global\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}";

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Service : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        svctest::RunInstaller(L"uninstall", kInstall);
        ASSERT_EQ(0u, svctest::RunInstaller(L"install", kInstall));
    }
    static void TearDownTestSuite() { svctest::RunInstaller(L"uninstall", kInstall); }

    void SetUp() override { ASSERT_TRUE(service_.IsOpen()) << GetLastError(); }
    void TearDown() override { service_.StopAndWait(); }

    std::string LogSince() const { return service_.LogSince(); }

    InstalledService service_;
};

TEST_F(Service, StartsAndStopsWithTheStatesItReports) {
    // A complete setup state found in State.ini (no registry value) is not logged.
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSetupStateKey);
    CreateDirectoryW(L"C:\\windows\\Setup", nullptr);
    CreateDirectoryW(L"C:\\windows\\Setup\\State", nullptr);
    const std::wstring stateIni = L"C:\\windows\\Setup\\State\\State.ini";
    ASSERT_TRUE(omktest::WriteFileBytes(stateIni, "[State]\r\nImageState=IMAGE_STATE_COMPLETE\r\n"));

    ASSERT_TRUE(service_.Start()) << GetLastError();
    ASSERT_TRUE(service_.WaitForState(SERVICE_RUNNING)) << LogSince();
    DeleteFileW(stateIni.c_str());
    SERVICE_STATUS running = service_.Status();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), running.dwServiceType);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN), running.dwControlsAccepted);
    EXPECT_EQ(0u, running.dwCheckPoint);
    EXPECT_EQ(0u, running.dwWaitHint);

    SERVICE_STATUS status;
    EXPECT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_INTERROGATE, &status)) << GetLastError();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), status.dwCurrentState);
    // A user-defined control reaches the handler, which refuses it with 120;
    // Wine's service manager does not hand that result to the caller reliably.
    ControlService(service_.Handle(), 200, &status);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), service_.Status().dwCurrentState)
        << "an unknown control changes nothing";

    // The process refuses a second instance and any argument, whatever the service does.
    EXPECT_EQ(0xFFFFFFFEu, omktest::RunProcess(L"\"" + kServiceExe + L"\""));
    EXPECT_EQ(0xFFFFFFFDu, omktest::RunProcess(L"\"" + kServiceExe + L"\" -debug"));

    ASSERT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOP_PENDING), status.dwCurrentState);
    EXPECT_EQ(12000u, status.dwWaitHint);
    ASSERT_TRUE(service_.WaitForState(SERVICE_STOPPED, 15000)) << "a stop completes within its wait hint";
    EXPECT_EQ(0u, service_.Status().dwWin32ExitCode);

    std::string log = LogSince();
    EXPECT_TRUE(Contains(log, "Starts OMKRulesProcessor ")) << log;
    EXPECT_TRUE(Contains(log, "OMKRulesProcessor is running!")) << log;
    EXPECT_TRUE(Contains(log, "OMKRulesProcessor process arguments (-debug) aren't allowed!")) << log;
    EXPECT_TRUE(Contains(log, "ServiceCtrlHandlerEx(SERVICE_CONTROL_STOP) ...")) << log;
    EXPECT_TRUE(Contains(log, "OMKRulesProcessor 1.0.0 has stopped.")) << log;
    EXPECT_FALSE(Contains(log, "Setup State")) << log;
}

TEST_F(Service, AnUnfinishedSetupStateIsLoggedAndTheServiceStartsAnyway) {
    omktest::ScopedRegKey state(HKEY_LOCAL_MACHINE, kSetupStateKey);
    state.SetString(L"ImageState", L"IMAGE_STATE_UNDEPLOYABLE");
    ASSERT_TRUE(service_.Start()) << GetLastError();
    EXPECT_TRUE(service_.WaitForState(SERVICE_RUNNING)) << LogSince();
    EXPECT_TRUE(Contains(LogSince(), "OMKRulesProcessor: Windows Setup State IMAGE_STATE_UNDEPLOYABLE.")) << LogSince();
}

TEST_F(Service, CollectorStartsTheStoppedServiceAndItsEventIsStored) {
    ASSERT_EQ(static_cast<DWORD>(SERVICE_STOPPED), service_.Status().dwCurrentState);
    const ULONGLONG latest = svctest::LatestAlertTime();
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect()) << "COM activation starts the service";
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), service_.Status().dwCurrentState);

    HANDLE stored = OpenEventW(SYNCHRONIZE, FALSE, kAlertStoredEvent);
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(S_OK, collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"CycleCount", L"812"));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stored, 30000)) << "the alert was stored and signalled";
    CloseHandle(stored);
    std::vector<std::string> alerts = svctest::AlertsStoredAfter(latest);
    ASSERT_EQ(1u, alerts.size());
    EXPECT_TRUE(Contains(alerts.back(), "812")) << alerts.back();
}

// The engine finishes the events it has taken, drops the rest, and the stop
// still ends well within the stop's wait hint.
TEST_F(Service, StopsWhileEventsAreQueued) {
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    const ULONGLONG latest = svctest::LatestAlertTime();
    constexpr int kEvents = 4;  // the battery rule fires at most 5 times per start
    for (int i = 0; i < kEvents; ++i) {
        EXPECT_EQ(S_OK, collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"CycleCount",
                                                std::to_wstring(900 + i).c_str()));
    }
    collector.Release();
    const DWORD asked = GetTickCount();
    SERVICE_STATUS status;
    ASSERT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    ASSERT_TRUE(service_.WaitForState(SERVICE_STOPPED, 12000)) << LogSince();
    EXPECT_EQ(0u, service_.Status().dwWin32ExitCode);
    const DWORD took = GetTickCount() - asked;

    const size_t stored = svctest::AlertsStoredAfter(latest).size();
    EXPECT_LE(stored, static_cast<size_t>(kEvents));
    std::string log = LogSince();
    EXPECT_FALSE(Contains(log, "err=258")) << "no wait ran out, stop took " << took << " ms\n" << log;
    EXPECT_TRUE(Contains(log, "OMKRulesProcessor 1.0.0 has stopped.")) << log;
}

// More queued events than the engine thread's 10 s stop wait covers: the wait
// runs out, the stop goes on and still ends within the stop's wait hint.
TEST_F(Service, StopsWithinItsWaitHintWhateverIsQueued) {
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    for (int i = 0; i < 15; ++i) {
        EXPECT_EQ(S_OK, collector.RuleTriggered(L"{00000000-1111-2222-3333-444444444444}", L"Battery", L"CycleCount",
                                                std::to_wstring(900 + i).c_str()));
    }
    collector.Release();
    SERVICE_STATUS status;
    ASSERT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    // The 12 s wait hint with some room for a loaded machine.
    ASSERT_TRUE(service_.WaitForState(SERVICE_STOPPED, 14000)) << LogSince();
    EXPECT_EQ(0u, service_.Status().dwWin32ExitCode);
    std::string log = LogSince();
    EXPECT_TRUE(Contains(log, "StopTolvaneThread(): WaitForSingleObject(g_TolvaneThreadHandle) err=258")) << log;
    EXPECT_TRUE(Contains(log, "OMKRulesProcessor 1.0.0 has stopped.")) << log;
}

TEST_F(Service, AClientHoldingItsReferenceDelaysTheStopByTheDrainOnly) {
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    const DWORD asked = GetTickCount();
    SERVICE_STATUS status;
    ASSERT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    ASSERT_TRUE(service_.WaitForState(SERVICE_STOPPED, 12000)) << LogSince();
    const DWORD took = GetTickCount() - asked;
    EXPECT_GE(took, 4500u) << "the server waits 5 s for client references";
    EXPECT_EQ(0u, service_.Status().dwWin32ExitCode);
    std::string log = LogSince();
    EXPECT_TRUE(Contains(log, "ComServerThreadProc(): WaitForSingleObject(g_ComClassCleanupEvent) err=258")) << log;

    // The proxy outlives the server: a call fails instead of reaching a destroyed object.
    EXPECT_TRUE(FAILED(collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"CycleCount", L"1")));
}

TEST_F(Service, ARuleFileThatDoesNotParseStopsTheServiceWithExitCode1) {
    const std::wstring rules = kInstall + L"\\insvcAlerts.xml";
    const std::string kept = omktest::ReadFileBytes(rules);
    ASSERT_TRUE(omktest::WriteFileBytes(rules, "<Tolvane><Rule"));
    ASSERT_TRUE(service_.Start()) << GetLastError();
    EXPECT_TRUE(service_.WaitForState(SERVICE_STOPPED));
    EXPECT_EQ(1u, service_.Status().dwWin32ExitCode);
    omktest::WriteFileBytes(rules, kept);
    std::string log = LogSince();
    EXPECT_TRUE(Contains(log, "Tolvane_Init: Tolvane_LoadRuleDefinitions failed - G_STATUS 0x7")) << log;
    EXPECT_TRUE(Contains(log, "ServiceMain(): Tolvane_Init() & CreateThread(TolvaneThreadProc) gStat=7")) << log;
}

bool KeyExists(HKEY root, const std::wstring& path) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

// What the demo does, as a user would: net start, the collector tool, the
// stored alert, net stop, then the uninstaller leaves nothing registered.
TEST_F(Service, InstalledProductFromCollectorToolToUninstall) {
    const ULONGLONG latest = svctest::LatestAlertTime();
    EXPECT_EQ(0u, omktest::RunProcess(L"net start OMKRulesProcessor"));
    EXPECT_TRUE(service_.WaitForState(SERVICE_RUNNING));
    const std::wstring send = L"\"" + omktest::ProgramFolder() + L"\\tolvane-send.exe\" ";
    EXPECT_EQ(0u, omktest::RunProcess(send + L"rule --plugin omkcollectorrules --guid " +
                                      L"{6b1d2c3a-8e4f-4a51-9c7d-0e2f3a4b5c61} --tag Battery DesignCapacity=52000 " +
                                      L"FullChargeCapacity=29120"));
    EXPECT_NE(0u, omktest::RunProcess(send + L"rule --plugin OMKCollectorRules")) << "a rule event needs its GUID";
    ASSERT_TRUE(omktest::WaitFor([&] { return !svctest::AlertsStoredAfter(latest).empty(); }, 30000));
    std::string alert = svctest::AlertsStoredAfter(latest).back();
    EXPECT_TRUE(Contains(alert, "29120")) << alert;
    EXPECT_TRUE(Contains(alert, "Battery capacity is degraded")) << alert;
    EXPECT_EQ(0u, omktest::RunProcess(L"net stop OMKRulesProcessor"));
    // Wine's net may return while the stop is still pending.
    EXPECT_TRUE(service_.WaitForState(SERVICE_STOPPED, 15000));

    service_.Close();
    ASSERT_EQ(0u, svctest::RunInstaller(L"uninstall", kInstall));
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE gone = OpenServiceW(manager, svctest::kServiceName, SERVICE_QUERY_STATUS);
    EXPECT_EQ(nullptr, gone);
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST), GetLastError());
    if (gone != nullptr) CloseServiceHandle(gone);
    CloseServiceHandle(manager);
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"CLSID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}"));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, L"Software\\Varn Inc.\\Orlemark\\RulePlugin\\OMKCollectorRules"));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, L"Software\\Varn Inc.\\Orlemark\\ActionPlugin\\OMKActionLog"));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(kInstall.c_str())) << "the install folder is removed";
    Collector collector;
    EXPECT_EQ(REGDB_E_CLASSNOTREG, collector.Connect());

    // Back to installed for the tests after this one.
    ASSERT_EQ(0u, svctest::RunInstaller(L"install", kInstall));
}

}  // namespace
