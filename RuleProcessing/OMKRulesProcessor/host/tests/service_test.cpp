// The installed service under the real service manager: start and stop with
// the states it reports, controls, the instance and argument guards, a rule
// file that does not parse, and a collector's event from COM activation of the
// stopped service to the stored alert.
#include <windows.h>

#include <gtest/gtest.h>
#include <oleauto.h>

#include <functional>
#include <string>
#include <vector>

#include "systemIdentity.h"
#include "testPlugins.h"
#include "testSupport.h"
#include "tolvane.h"

namespace {

const wchar_t kService[] = L"OMKRulesProcessor";
// Short, because the plugin loaders read at most 129 characters of a path.
const std::wstring kInstall = L"C:\\omksvc";
const std::wstring kServiceExe = kInstall + L"\\OMKRulesProcessor.exe";

bool WaitFor(const std::function<bool()>& done, DWORD timeoutMs) {
    for (DWORD waited = 0; waited < timeoutMs; waited += 100) {
        if (done()) return true;
        Sleep(100);
    }
    return done();
}

DWORD RunInstaller(const wchar_t* action) {
    return omktest::RunProcess(L"cmd /c \"\"" + omktest::ProgramFolder() + L"\\omkInstall.cmd\" " + action + L" " +
                                   kInstall + L"\"",
                               120000);
}

// The process's error log in each %ProgramData% it may run with: the service's
// (under Wine C:\users\Public) and that of a process started from this test.
std::vector<std::wstring> ErrorLogs() {
    const std::wstring name = L"\\Varn\\Orlemark\\Log\\" + omktest::FromUtf8(GetServiceTag()) + L"_OMKW_Errlog.txt";
    return {std::wstring(L"C:\\users\\Public") + name, std::wstring(L"C:\\ProgramData") + name};
}

class Service : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        RunInstaller(L"uninstall");
        ASSERT_EQ(0u, RunInstaller(L"install"));
    }
    static void TearDownTestSuite() { RunInstaller(L"uninstall"); }

    void SetUp() override {
        manager_ = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        ASSERT_NE(nullptr, manager_);
        service_ = OpenServiceW(manager_, kService, SERVICE_ALL_ACCESS);
        ASSERT_NE(nullptr, service_) << GetLastError();
        for (const auto& log : ErrorLogs()) logStarts_.push_back(omktest::ReadFileBytes(log).size());
    }
    void TearDown() override {
        StopAndWait();
        CloseServiceHandle(service_);
        CloseServiceHandle(manager_);
    }

    SERVICE_STATUS Status() {
        SERVICE_STATUS status = {};
        QueryServiceStatus(service_, &status);
        return status;
    }
    bool WaitForState(DWORD state, DWORD timeoutMs = 30000) {
        return WaitFor([&] { return Status().dwCurrentState == state; }, timeoutMs);
    }
    void StopAndWait() {
        SERVICE_STATUS status;
        if (Status().dwCurrentState != SERVICE_STOPPED) ControlService(service_, SERVICE_CONTROL_STOP, &status);
        WaitForState(SERVICE_STOPPED);
    }
    std::string LogSince() {
        std::string since;
        std::vector<std::wstring> logs = ErrorLogs();
        for (size_t i = 0; i < logs.size(); ++i) {
            std::string text = omktest::ReadFileBytes(logs[i]);
            if (text.size() > logStarts_[i]) since += text.substr(logStarts_[i]);
        }
        return since;
    }

    SC_HANDLE manager_ = nullptr;
    SC_HANDLE service_ = nullptr;
    std::vector<size_t> logStarts_;
};

TEST_F(Service, StartsAndStopsWithTheStatesItReports) {
    ASSERT_TRUE(StartServiceW(service_, 0, nullptr)) << GetLastError();
    ASSERT_TRUE(WaitForState(SERVICE_RUNNING)) << LogSince();
    SERVICE_STATUS running = Status();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), running.dwServiceType);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN), running.dwControlsAccepted);
    EXPECT_EQ(0u, running.dwCheckPoint);
    EXPECT_EQ(0u, running.dwWaitHint);

    SERVICE_STATUS status;
    EXPECT_TRUE(ControlService(service_, SERVICE_CONTROL_INTERROGATE, &status)) << GetLastError();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), status.dwCurrentState);
    // A user-defined control reaches the handler, which refuses it with 120;
    // Wine's service manager does not hand that result to the caller reliably.
    ControlService(service_, 200, &status);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), Status().dwCurrentState) << "an unknown control changes nothing";

    // The process refuses a second instance and any argument, whatever the service does.
    EXPECT_EQ(0xFFFFFFFEu, omktest::RunProcess(L"\"" + kServiceExe + L"\""));
    EXPECT_EQ(0xFFFFFFFDu, omktest::RunProcess(L"\"" + kServiceExe + L"\" -debug"));

    ASSERT_TRUE(ControlService(service_, SERVICE_CONTROL_STOP, &status)) << GetLastError();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOP_PENDING), status.dwCurrentState);
    EXPECT_EQ(12000u, status.dwWaitHint);
    ASSERT_TRUE(WaitForState(SERVICE_STOPPED, 15000)) << "a stop completes within its wait hint";
    EXPECT_EQ(0u, Status().dwWin32ExitCode);

    std::string log = LogSince();
    EXPECT_NE(std::string::npos, log.find("Starts OMKRulesProcessor ")) << log;
    EXPECT_NE(std::string::npos, log.find("OMKRulesProcessor is running!")) << log;
    EXPECT_NE(std::string::npos, log.find("OMKRulesProcessor process arguments (-debug) aren't allowed!")) << log;
    EXPECT_NE(std::string::npos, log.find("ServiceCtrlHandlerEx(SERVICE_CONTROL_STOP) ...")) << log;
    EXPECT_NE(std::string::npos, log.find("OMKRulesProcessor 1.0.0 has stopped.")) << log;
}

TEST_F(Service, CollectorStartsTheStoppedServiceAndItsEventIsStored) {
    ASSERT_EQ(static_cast<DWORD>(SERVICE_STOPPED), Status().dwCurrentState);
    ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    ITolvane* tolvane = nullptr;
    HRESULT hr = CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane,
                                  reinterpret_cast<void**>(&tolvane));
    ASSERT_EQ(S_OK, hr) << "COM activation starts the service";
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), Status().dwCurrentState);

    SAFEARRAY* names = SafeArrayCreateVector(VT_BSTR, 0, 1);
    SAFEARRAY* values = SafeArrayCreateVector(VT_BSTR, 0, 1);
    LONG index = 0;
    BSTR name = SysAllocString(L"CycleCount");
    BSTR value = SysAllocString(L"812");
    SafeArrayPutElement(names, &index, name);
    SafeArrayPutElement(values, &index, value);
    BSTR plugin = SysAllocString(L"OMKCollectorRules");
    BSTR guid = SysAllocString(L"{6B1D2C3A-8E4F-4A51-9C7D-0E2F3A4B5C61}");
    BSTR tag = SysAllocString(L"Battery");

    HANDLE stored = OpenEventW(SYNCHRONIZE, FALSE, L"Global\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}");
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(S_OK, tolvane->Tolvane_RuleTriggered(plugin, guid, tag, names, values));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stored, 30000)) << "the alert was stored and signalled";
    CloseHandle(stored);
    tolvane->Release();
    for (BSTR text : {name, value, plugin, guid, tag}) SysFreeString(text);
    SafeArrayDestroy(names);
    SafeArrayDestroy(values);
    CoUninitialize();
}

TEST_F(Service, ARuleFileThatDoesNotParseStopsTheServiceWithExitCode1) {
    const std::wstring rules = kInstall + L"\\insvcAlerts.xml";
    const std::string kept = omktest::ReadFileBytes(rules);
    ASSERT_TRUE(omktest::WriteFileBytes(rules, "<Tolvane><Rule"));
    ASSERT_TRUE(StartServiceW(service_, 0, nullptr)) << GetLastError();
    EXPECT_TRUE(WaitForState(SERVICE_STOPPED));
    EXPECT_EQ(1u, Status().dwWin32ExitCode);
    omktest::WriteFileBytes(rules, kept);
    std::string log = LogSince();
    EXPECT_NE(std::string::npos, log.find("Tolvane_Init: Tolvane_LoadRuleDefinitions failed - G_STATUS 0x7")) << log;
    EXPECT_NE(std::string::npos, log.find("ServiceMain(): Tolvane_Init() & CreateThread(TolvaneThreadProc) gStat=7"))
        << log;
}

}  // namespace
