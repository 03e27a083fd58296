// ITolvane over Wine's out-of-process COM, served by a tolvaneTestHost
// process, which runs the service's COM server and engine thread.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testSupport.h"
#include "tolvane.h"
#include "workQueue.h"

namespace {

std::wstring Tool(const std::wstring& name) {
    return L"\"" + omktest::ProgramFolder() + L"\\" + name + L"\"";
}

// For the whole program: this thread in the multithreaded apartment, the queue
// lock for the in-process server cases, and the class registered as served by
// the test host.
class Environment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        InitWorkQueueLock();
        ASSERT_EQ(0u, omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /regserver " + Tool(L"tolvaneTestHost.exe")));
    }
    void TearDown() override {
        omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /unregister");
        DeleteWorkQueueLock();
        CoUninitialize();
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new Environment);

// A held reference makes the stop wait its 5 s; then the server cuts the client
// off before the object goes, so a later call fails instead of reaching it.
TEST(TolvaneOverCom, AReferenceHeldThroughTheStopIsCutOff) {
    const std::wstring name = L"tolvaneTestHost-held-" + std::to_wstring(GetCurrentProcessId());
    omktest::TempFolder folder;
    const std::wstring record = folder.File(L"record.txt");
    omktest::ErrorLog log(name + L".txt");
    HANDLE events[3];
    const wchar_t* which[3] = {L"ready", L"stop", L"exit"};
    for (int i = 0; i < 3; ++i)
        events[i] = CreateEventW(nullptr, TRUE, FALSE, (L"Local\\" + name + L"." + which[i]).c_str());
    std::wstring command = Tool(L"tolvaneTestHost.exe") + L" " + name + L" \"" + record + L"\" " + name + L".txt";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION host = {};
    ASSERT_TRUE(CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &host));
    auto recorded = [&](const std::string& text) {
        return omktest::ReadFileBytes(record).find(text) != std::string::npos;
    };

    ITolvane* tolvane = nullptr;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(events[0], 20000));
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane,
                                     reinterpret_cast<void**>(&tolvane)));
    EXPECT_EQ(S_OK, tolvane->Tolvane_SummaryCreated());
    EXPECT_TRUE(omktest::WaitFor([&] { return recorded("item kind=0 fill=ok"); }, 20000));
    SetEvent(events[1]);
    EXPECT_TRUE(omktest::WaitFor([&] { return recorded("stopped alloc=0"); }, 20000));
    EXPECT_TRUE(FAILED(tolvane->Tolvane_SummaryCreated())) << "the call reaches no object (nothing is logged)";
    tolvane->Release();
    SetEvent(events[2]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(host.hProcess, 20000));
    EXPECT_EQ((std::vector<std::string>{"ComServerThreadProc(): WaitForSingleObject(g_ComClassCleanupEvent) err=258"}),
              log.Messages());
    TerminateProcess(host.hProcess, 1);
    for (HANDLE handle : {events[0], events[1], events[2], host.hThread, host.hProcess}) CloseHandle(handle);
}

}  // namespace
