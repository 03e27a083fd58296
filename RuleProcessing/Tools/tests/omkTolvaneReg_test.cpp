// omkTolvaneReg run as the installer runs it, against the test host that
// carries the type library; the registry of the test prefix is read back and
// COM activation through the written keys is tried for real.
#include <gtest/gtest.h>

#include <string>

#include "testSupport.h"
#include "tolvane.h"

namespace {

const std::wstring kClasses = L"Software\\Classes\\";
const std::wstring kClassKey = kClasses + L"CLSID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}";
const std::wstring kAppIdKey = kClasses + L"AppID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}";
const std::wstring kTypeLibKey = kClasses + L"TypeLib\\{6E2B90D4-1A7C-4E35-B8F2-3C9D05A7E1B6}";
const std::wstring kInterfaceKey = kClasses + L"Interface\\{9A47C1E2-3B58-4D6F-A0C4-E51F2D8B7C93}";
const wchar_t kAbsent[] = L"<absent>";

std::wstring Host() {
    return omktest::ProgramFolder() + L"\\tolvaneTestHost.exe";
}

DWORD Reg(const std::wstring& arguments) {
    return omktest::RunProcess(L"\"" + omktest::ProgramFolder() + L"\\omkTolvaneReg.exe\" " + arguments);
}

std::wstring Value(const std::wstring& key, const wchar_t* name = nullptr, HKEY root = HKEY_LOCAL_MACHINE) {
    wchar_t value[1024] = {};
    DWORD bytes = sizeof(value) - sizeof(wchar_t);
    if (RegGetValueW(root, key.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &bytes) != ERROR_SUCCESS) return kAbsent;
    return value;
}

bool KeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    RegCloseKey(opened);
    return true;
}

void ExpectTypeLibraryRegistered() {
    EXPECT_EQ(Host(), Value(kTypeLibKey + L"\\1.0\\409\\win64"));
    EXPECT_EQ(Host(), Value(kTypeLibKey + L"\\1.0\\0\\win64")) << "the LCID 0 copy Wine's marshaller looks for";
    EXPECT_EQ(L"{00020424-0000-0000-C000-000000000046}", Value(kInterfaceKey + L"\\ProxyStubClsid32"));
    EXPECT_EQ(L"{6E2B90D4-1A7C-4E35-B8F2-3C9D05A7E1B6}", Value(kInterfaceKey + L"\\TypeLib"));
}

class OmkTolvaneReg : public ::testing::Test {
protected:
    void TearDown() override { Reg(L"/unregister"); }
};

TEST_F(OmkTolvaneReg, RegistersALocalServerThatCoCreateInstanceStarts) {
    ASSERT_EQ(0u, Reg(L"/regserver \"" + Host() + L"\""));
    ExpectTypeLibraryRegistered();
    EXPECT_EQ(L"\"" + Host() + L"\"", Value(kClassKey + L"\\LocalServer32"));
    EXPECT_EQ(L"\"" + Host() + L"\"",
              Value(L"CLSID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}\\LocalServer32", nullptr, HKEY_CLASSES_ROOT));
    EXPECT_EQ(kAbsent, Value(kClassKey, L"AppID"));

    // No server runs: COM starts the one the registration names.
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring record = std::wstring(temp) + L"tolvaneTestHost-embedded.txt";
    DeleteFileW(record.c_str());
    ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    ITolvane* tolvane = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane,
                                     reinterpret_cast<void**>(&tolvane)));
    EXPECT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    tolvane->Release();
    CoUninitialize();

    std::string text = omktest::ReadFileBytes(record);
    size_t pid = text.find("host pid=");
    ASSERT_NE(std::string::npos, pid) << text;
    HANDLE host = OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, std::stoul(text.substr(pid + 9)));
    HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, L"Local\\tolvaneTestHost-embedded.stop");
    SetEvent(stop);
    if (WaitForSingleObject(host, 30000) != WAIT_OBJECT_0) TerminateProcess(host, 0xDEAD);
    CloseHandle(stop);
    CloseHandle(host);
    text = omktest::ReadFileBytes(record);
    EXPECT_NE(std::string::npos, text.find(" kind=0 fill=ok")) << text;
    EXPECT_NE(std::string::npos, text.find("stopped ")) << text;
}

TEST_F(OmkTolvaneReg, RegistersTheClassAsServedByTheService) {
    ASSERT_EQ(0u, Reg(L"/regservice \"" + Host() + L"\""));
    ExpectTypeLibraryRegistered();
    EXPECT_EQ(L"{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}", Value(kClassKey, L"AppID"));
    EXPECT_EQ(L"OMKRulesProcessor", Value(kAppIdKey, L"LocalService"));
    EXPECT_FALSE(KeyExists(kClassKey + L"\\LocalServer32"));

    ASSERT_EQ(0u, Reg(L"/regservice \"" + Host() + L"\" OtherService"));
    EXPECT_EQ(L"OtherService", Value(kAppIdKey, L"LocalService"));

    // Back to a local server: nothing of the service registration is left.
    ASSERT_EQ(0u, Reg(L"/regserver \"" + Host() + L"\""));
    EXPECT_EQ(kAbsent, Value(kClassKey, L"AppID"));
    EXPECT_FALSE(KeyExists(kAppIdKey));
}

// A service installed for one test and removed afterwards, stopped first.
class ScopedService {
public:
    ScopedService(const wchar_t* name, const std::wstring& commandLine) {
        manager_ = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        if (manager_ == nullptr) return;
        Remove(OpenServiceW(manager_, name, SERVICE_ALL_ACCESS));  // left by an earlier run
        service_ =
            CreateServiceW(manager_, name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                           SERVICE_ERROR_NORMAL, commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    ~ScopedService() {
        Remove(service_);
        if (manager_ != nullptr) CloseServiceHandle(manager_);
    }
    ScopedService(const ScopedService&) = delete;
    ScopedService& operator=(const ScopedService&) = delete;

    bool Created() const { return service_ != nullptr; }
    DWORD State() const {
        SERVICE_STATUS status = {};
        return QueryServiceStatus(service_, &status) ? status.dwCurrentState : 0;
    }
    // Asks the service to stop and waits until it has.
    bool Stop(DWORD timeoutMs) {
        SERVICE_STATUS status = {};
        ControlService(service_, SERVICE_CONTROL_STOP, &status);
        DWORD start = GetTickCount();
        while (State() != SERVICE_STOPPED) {
            if (GetTickCount() - start > timeoutMs) return false;
            Sleep(100);
        }
        return true;
    }

private:
    void Remove(SC_HANDLE service) {
        if (service == nullptr) return;
        SERVICE_STATUS_PROCESS status = {};
        DWORD bytes = 0;
        if (QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                                 &bytes) &&
            status.dwCurrentState != SERVICE_STOPPED && status.dwProcessId != 0) {
            HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, status.dwProcessId);
            if (process != nullptr) {
                TerminateProcess(process, 0xDEAD);
                WaitForSingleObject(process, 5000);
                CloseHandle(process);
            }
        }
        DeleteService(service);
        CloseServiceHandle(service);
    }

    SC_HANDLE manager_ = nullptr;
    SC_HANDLE service_ = nullptr;
};

TEST_F(OmkTolvaneReg, AServiceRegistrationLetsCoCreateInstanceStartTheService) {
    const wchar_t kService[] = L"OMKRulesProcessorComTest";
    omktest::TempFolder folder;
    const std::wstring record = folder.File(L"record.txt");
    ScopedService service(
        kService, L"\"" + Host() + L"\" service " + kService + L" \"" + record + L"\" omkTolvaneReg_test_service.txt");
    ASSERT_TRUE(service.Created());
    ASSERT_EQ(0u, Reg(L"/regservice \"" + Host() + L"\" " + kService));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), service.State());

    ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    ITolvane* tolvane = nullptr;
    HRESULT hr =
        CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane, reinterpret_cast<void**>(&tolvane));
    EXPECT_EQ(S_OK, hr);
    if (SUCCEEDED(hr)) {
        EXPECT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
        tolvane->Release();
    }
    CoUninitialize();
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), service.State());
    EXPECT_TRUE(service.Stop(30000));
    std::string text = omktest::ReadFileBytes(record);
    EXPECT_NE(std::string::npos, text.find(" kind=0 fill=ok")) << text;
    EXPECT_NE(std::string::npos, text.find("stopped ")) << text;
}

TEST_F(OmkTolvaneReg, UnregisterRemovesEveryKeyAndMayRunTwice) {
    ASSERT_EQ(0u, Reg(L"/regservice \"" + Host() + L"\""));
    EXPECT_EQ(0u, Reg(L"/unregister"));
    for (const std::wstring& key : {kClassKey, kAppIdKey, kTypeLibKey, kInterfaceKey}) {
        EXPECT_FALSE(KeyExists(key)) << omktest::ToUtf8(key);
    }
    EXPECT_EQ(0u, Reg(L"/unregister"));
}

TEST_F(OmkTolvaneReg, BadCommandLinesAreRefusedAndWriteNothing) {
    omktest::ErrorLog log(L"omkTolvaneReg.txt");
    EXPECT_EQ(87u, Reg(L""));
    EXPECT_EQ(87u, Reg(L"/regserver"));
    EXPECT_EQ(87u, Reg(L"/register \"" + Host() + L"\""));
    EXPECT_EQ(87u, Reg(L"/regservice \"" + Host() + L"\" \"\""));
    EXPECT_EQ(0x80070002u, Reg(L"/regserver C:\\nowhere\\missing.exe"));
    // An executable without the type library.
    const std::wstring tool = omktest::ProgramFolder() + L"\\omkTolvaneReg.exe";
    DWORD noTypeLib = Reg(L"/regserver \"" + tool + L"\"");
    EXPECT_NE(0u, noTypeLib);
    for (const std::wstring& key : {kClassKey, kAppIdKey, kTypeLibKey, kInterfaceKey}) {
        EXPECT_FALSE(KeyExists(key)) << omktest::ToUtf8(key);
    }
    std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(6u, messages.size());
    EXPECT_EQ("omkTolvaneReg: wrong command line", messages[0]);
    EXPECT_EQ("omkTolvaneReg: finding C:\\nowhere\\missing.exe failed 0x80070002", messages[4]);
    char expected[512];
    snprintf(expected, sizeof(expected), "omkTolvaneReg: registering the type library of %s failed 0x%lx",
             omktest::ToUtf8(tool).c_str(), static_cast<unsigned long>(noTypeLib));
    EXPECT_EQ(expected, messages[5]);
}

}  // namespace
