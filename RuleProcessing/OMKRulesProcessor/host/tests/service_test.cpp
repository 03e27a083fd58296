// The service installed by the product's package, under the real service
// manager, with the product's plugins and, for the races and the crash, a test plugin.
#include <gtest/gtest.h>

#include <algorithm>

#include "installedService.h"
#include "testPlugins.h"

namespace {

using svctest::Collector;

// Short, because the plugin loaders read at most 129 characters of a path.
const std::wstring kInstall = L"C:\\omksvc";
const std::wstring kServiceExe = kInstall + L"\\OMKRulesProcessor.exe";
const std::wstring kRules = kInstall + L"\\insvcAlerts.xml";
const wchar_t kSetupStateKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\State";
// The sample rule file's disk rule, which has no limit per boot.
const wchar_t kDiskRuleGuid[] = L"{0C4E8A21-5F6B-4D7C-8E9F-1A2B3C4D5E62}";

using omktest::Contains;

void ExpectLines(const std::string& log, std::initializer_list<const char*> lines) {
    for (const char* line : lines) EXPECT_TRUE(Contains(log, line)) << line << "\n" << log;
}

class Service : public ::testing::Test {
protected:
    // The package starts the service; every case starts from a stopped one.
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        svctest::RunInstaller(L"uninstall", kInstall);
        ASSERT_EQ(0u, svctest::RunInstaller(L"install", kInstall));
        ASSERT_TRUE(svctest::InstalledService().StopAndWait());
    }
    // After a crash Wine's service manager believes the dead service runs: the
    // test's CTest cleanup restarts the prefix's server and uninstalls then.
    static void TearDownTestSuite() {
        if (!crashed_) svctest::RunInstaller(L"uninstall", kInstall);
    }

    void SetUp() override {
        ASSERT_TRUE(service_.IsOpen()) << GetLastError();
        rules_ = omktest::ReadFileBytes(kRules);
    }
    void TearDown() override {
        if (!crashed_) service_.StopAndWait();
        omktest::WriteFileBytes(kRules, rules_);
    }

    std::string LogSince() const { return service_.LogSince(); }

    svctest::InstalledService service_;
    std::string rules_;
    static bool crashed_;
};

bool Service::crashed_ = false;

// Started by COM activation, one process stores what any local process may
// send (the calls it refuses are the COM server's tests).
TEST_F(Service, ServesHostileCallsAndReportsItsStates) {
    // A setup state short of complete is logged.
    omktest::ScopedRegKey state(HKEY_LOCAL_MACHINE, kSetupStateKey);
    state.SetString(L"ImageState", L"IMAGE_STATE_UNDEPLOYABLE");
    ASSERT_EQ(static_cast<DWORD>(SERVICE_STOPPED), service_.Status().dwCurrentState);
    const ULONGLONG latest = svctest::LatestAlertTime();
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    ASSERT_TRUE(service_.WaitForState(SERVICE_RUNNING));
    ExpectLines(LogSince(), {"OMKRulesProcessor: Windows Setup State IMAGE_STATE_UNDEPLOYABLE.", "Starts OMKRulesProcessor 1.0.0."});
    const DWORD process = service_.ProcessId();

    // The disk rule of the sample fires for any data.
    BSTR texts[] = {SysAllocString(svctest::kCollectorPluginId), SysAllocString(kDiskRuleGuid),
                    SysAllocString(L"%s%n%ls%n")};
    SAFEARRAY* names = omktest::BstrArray({L"%s%n%ls", std::wstring(L"a\0b", 3), L"\xD800"}, 5);
    SAFEARRAY* values = omktest::BstrArray({L"%n%n%n%n", std::wstring(L"x\0y", 3), L"\xDC00z"}, 5);
    EXPECT_EQ(S_OK, collector.Get()->Tolvane_RuleTriggered(texts[0], texts[1], texts[2], names, values));
    // The type library's marshaller passes an integer array through as names:
    // refused before it reaches the engine.
    SAFEARRAY* integers = SafeArrayCreateVector(VT_I4, 0, 3);
    EXPECT_EQ(E_INVALIDARG, collector.Get()->Tolvane_RuleTriggered(texts[0], texts[1], texts[2], integers, values));
    SafeArrayDestroy(integers);
    for (BSTR text : texts) SysFreeString(text);
    SafeArrayDestroy(names);
    SafeArrayDestroy(values);
    // The collector tool: a thermal record (byte 0 at least 90) and the battery
    // rule, named in other letter case; a rule event needs its GUID.
    const std::wstring send = L"\"" + kInstall + L"\\tolvane-send.exe\" ";
    EXPECT_EQ(0u, omktest::RunProcess(send + L"periodic --code 4097 --subcode 2 --hex \"5a 01 64 00\""));
    EXPECT_EQ(0u, omktest::RunProcess(send + L"rule --plugin omkcollectorrules --guid " +
                                      L"{6b1d2c3a-8e4f-4a51-9c7d-0e2f3a4b5c61} --tag Battery CycleCount=4242"));
    EXPECT_NE(0u, omktest::RunProcess(send + L"rule --plugin OMKCollectorRules --tag Battery"));
    std::vector<std::string> alerts;
    EXPECT_TRUE(omktest::WaitFor(
        [&] {
            alerts = svctest::AlertsStoredAfter(latest);
            return !alerts.empty() && Contains(alerts.back(), "4242");
        },
        120000))
        << "the newest alert is the battery rule's";
    EXPECT_TRUE(std::any_of(alerts.begin(), alerts.end(), [](const std::string& alert) {
        return Contains(alert, "<RuleGuid>{9A8B7C6D-5E4F-4321-8765-43210FEDCB63}</RuleGuid>") &&
               Contains(alert, "<Data>5A 01 64 00</Data>");
    })) << "the collector rule plugin raised the thermal alert";
    EXPECT_EQ(process, service_.ProcessId()) << "the same process served every call";
    ExpectLines(LogSince(), {"Tolvane_RuleTriggered: GetSafeArrayNumElems (dataItemNames) vartype 3 not supported"});
    collector.Release();

    service_.MarkLogs();
    SERVICE_STATUS status = service_.Status();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), status.dwCurrentState);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), status.dwServiceType);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN), status.dwControlsAccepted);
    EXPECT_EQ(0u, status.dwCheckPoint + status.dwWaitHint);
    EXPECT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_INTERROGATE, &status)) << GetLastError();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), status.dwCurrentState);
    // A user-defined control reaches the handler, which refuses it with 120;
    // Wine's service manager does not hand that result to the caller reliably.
    ControlService(service_.Handle(), 200, &status);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), service_.Status().dwCurrentState) << "it changes nothing";
    // The process refuses a second instance and any argument, whatever the service does.
    EXPECT_EQ(0xFFFFFFFEu, omktest::RunProcess(L"\"" + kServiceExe + L"\""));
    EXPECT_EQ(0xFFFFFFFDu, omktest::RunProcess(L"\"" + kServiceExe + L"\" -debug"));

    ASSERT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOP_PENDING), status.dwCurrentState);
    EXPECT_EQ(12000u, status.dwWaitHint);
    ASSERT_TRUE(service_.WaitForState(SERVICE_STOPPED, 15000)) << "a stop completes within its wait hint";
    EXPECT_EQ(0u, service_.Status().dwWin32ExitCode);
    ExpectLines(LogSince(),
                {"OMKRulesProcessor is running!", "OMKRulesProcessor process arguments (-debug) aren't allowed!",
                 "ServiceCtrlHandlerEx(SERVICE_CONTROL_STOP) ...", "OMKRulesProcessor 1.0.0 has stopped."});
}

TEST_F(Service, ARuleFileThatDoesNotParseStopsTheServiceWithExitCode1) {
    ASSERT_TRUE(omktest::WriteFileBytes(kRules, "<Tolvane><Rule"));
    ASSERT_TRUE(service_.Start()) << GetLastError();
    EXPECT_TRUE(service_.WaitForState(SERVICE_STOPPED));
    EXPECT_EQ(1u, service_.Status().dwWin32ExitCode);
    ExpectLines(LogSince(), {"ServiceMain(): Tolvane_Init() & CreateThread(TolvaneThreadProc) gStat=7"});
}

// A test rule plugin registered beside the product's, asked about a summary
// rule of its own.
class ServiceWithTestPlugin : public Service {
protected:
    void SetUp() override {
        Service::SetUp();
        std::string rules = rules_;
        rules.insert(
            rules.rfind("</Tolvane>"),
            "<Rule Enabled=\"1\" Platform=\"All\" OnSummary=\"1\" Type=\"ruleA\"><Name>test</Name><Descr>d"
            "</Descr><RuleGuid>{0D1E2F30-4152-6374-8596-A7B8C9DAEBFC}</RuleGuid><AlertMsg>m</AlertMsg></Rule>");
        ASSERT_TRUE(omktest::WriteFileBytes(kRules, rules));
        ASSERT_TRUE(CopyFileW(omktest::BuiltFile(omktest::kTestRulePlugin).c_str(), dll_.c_str(), FALSE));
        key_.SetString(L"DllPath", dll_);
        ruleA_.SetCallLog(callLog_);
    }
    std::vector<std::string> Calls() const { return omktest::CallSequence(omktest::ReadPluginCalls(callLog_)); }

    omktest::TempFolder folder_;
    const std::wstring dll_ = folder_.File(L"ruleA.dll");
    const std::wstring callLog_ = folder_.File(L"calls.txt");
    omktest::ScopedRegKey key_{HKEY_LOCAL_MACHINE, std::wstring(omktest::kRulePluginKey) + L"\\ruleA"};
    omktest::TestPluginBehaviour ruleA_{L"ruleA.dll"};
};

// Slow to initialise, so that an event arrives before the engine thread runs;
// slow to evaluate the summary, so that the engine outlives the stop's 10 s wait.
TEST_F(ServiceWithTestPlugin, AnEventDuringStartUpIsHandledAndAnEngineTooSlowToStopKeepsItsPlugins) {
    ruleA_.Set(L"InitializeDelayMs", 1500);
    ruleA_.Set(L"TriggeredDelayMs", 60000);
    const ULONGLONG latest = svctest::LatestAlertTime();
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    ASSERT_TRUE(omktest::WaitFor([&] { return Calls().size() == 1; }, 30000)) << LogSince();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_START_PENDING), service_.Status().dwCurrentState);
    EXPECT_EQ(S_OK, collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"CycleCount", L"701"));
    EXPECT_TRUE(omktest::WaitFor([&] { return svctest::AlertsStoredAfter(latest).size() == 1; }, 20000))
        << "handled once the engine runs, without a later call";

    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, service_.ProcessId());
    EXPECT_EQ(S_OK, collector.SummaryCreated());
    ASSERT_TRUE(omktest::WaitFor([&] { return Calls().size() == 2; }, 20000)) << "the slow evaluation began";
    EXPECT_EQ(S_OK, collector.RuleTriggered(svctest::kBatteryRuleGuid, L"Battery", L"CycleCount", L"702"));
    collector.Release();
    SERVICE_STATUS status;
    ASSERT_TRUE(ControlService(service_.Handle(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    ASSERT_TRUE(service_.WaitForState(SERVICE_STOPPED, 20000)) << LogSince();
    EXPECT_EQ(0u, service_.Status().dwWin32ExitCode);
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(process, 10000));
    CloseHandle(process);

    ExpectLines(LogSince(), {"StopTolvaneThread(): WaitForSingleObject(g_TolvaneThreadHandle) err=258",
                             "Tolvane_Term: engine thread still running, plugins left loaded",
                             "OMKRulesProcessor 1.0.0 has stopped."});
    EXPECT_EQ((std::vector<std::string>{"ruleA.dll Rule_Initialize", "ruleA.dll Rule_Triggered"}), Calls())
        << "no close entry point, no unloading, nothing after the time-out";
    EXPECT_EQ(1u, svctest::AlertsStoredAfter(latest).size()) << "the event queued behind was dropped";
}

// The package stops the service through the registration tool, which must not
// give up on a service that is still starting and takes no stop yet.
TEST_F(ServiceWithTestPlugin, TheInstallersStopWaitsOutAStartUnderWay) {
    ruleA_.Set(L"InitializeDelayMs", 2000);
    ASSERT_TRUE(service_.Start()) << GetLastError();
    ASSERT_TRUE(omktest::WaitFor([&] { return Calls().size() == 1; }, 30000)) << LogSince();
    EXPECT_EQ(0u, omktest::RunProcess(L"\"" + kInstall + L"\\omkTolvaneReg.exe\" /stop OMKRulesProcessor"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), service_.Status().dwCurrentState);
}

// Last of all: the crash filter logs the fault, one line per parameter, and
// writes a minidump; the process ends through the system's handling.
TEST_F(ServiceWithTestPlugin, AnAccessViolationOnTheEngineThreadIsLoggedAndDumped) {
    ruleA_.Set(L"TriggeredRaise", EXCEPTION_ACCESS_VIOLATION);
    ASSERT_TRUE(service_.Start()) << GetLastError();
    ASSERT_TRUE(service_.WaitForState(SERVICE_RUNNING)) << LogSince();
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, service_.ProcessId());
    Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    crashed_ = true;
    EXPECT_EQ(S_OK, collector.SummaryCreated());
    // The dump of a whole process takes Wine several seconds.
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(process, 90000)) << "the crashed process ends";
    CloseHandle(process);

    const std::string log = LogSince();
    // An access violation has two parameters: the write flag and the address
    // written. The last line's argument list is short of its placeholder.
    ExpectLines(log, {"OMKExceptionFilter: EXCEPTION Code 0xc0000005, Flags 0x0, Address ",
                      "OMKExceptionFilter: EXCEPTION Parameter/Argument[0] = 0000000000000001",
                      "OMKExceptionFilter: EXCEPTION Parameter/Argument[1] = 0000000000000010",
                      "OMKExceptionFilter: User-mode minidump has been written to %ls."});
    EXPECT_FALSE(Contains(log, "Parameter/Argument[2]")) << log;
    const std::string path = "GenetateUserModeMinidumpFilePath: ";
    const size_t at = log.find(path);
    ASSERT_NE(std::string::npos, at) << log;
    const std::wstring dump =
        omktest::FromUtf8(log.substr(at + path.size(), log.find_first_of("\r\n", at) - at - path.size()));
    EXPECT_EQ("MDMP", omktest::ReadFileBytes(dump).substr(0, 4)) << omktest::ToUtf8(dump);
    DeleteFileW(dump.c_str());
    EXPECT_TRUE(FAILED(collector.SummaryCreated())) << "the proxy's server is gone: the call fails, no hang";
}

}  // namespace
