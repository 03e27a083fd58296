// ITolvane across apartments of this process, as a collector holds it: through
// a proxy in a single-threaded apartment, marshalled by the type library this
// program carries and registers.
#include <gtest/gtest.h>

#include "comServer.h"
#include "testSupport.h"
#include "tolvane.h"
#include "workQueue.h"

namespace {

std::wstring Tool(const std::wstring& name) {
    return L"\"" + omktest::ProgramFolder() + L"\\" + name + L"\"";
}

// For the whole program: this thread in the multithreaded apartment, the queue
// lock, and the class and its type library registered as this program's.
class Environment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        InitWorkQueueLock();
        ASSERT_EQ(0u, omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /regserver " + Tool(L"OmkComServer_test.exe")));
    }
    void TearDown() override {
        omktest::RunProcess(Tool(L"omkTolvaneReg.exe") + L" /unregister");
        DeleteWorkQueueLock();
        CoUninitialize();
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new Environment);

// A collector's proxy in a thread of its own: one call before the stop, one after.
struct Collector {
    IStream* marshalled = nullptr;
    HANDLE stopped = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HRESULT before = E_FAIL, after = S_OK;

    static DWORD WINAPI Run(void* self) {
        auto* c = static_cast<Collector*>(self);
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ITolvane* proxy = nullptr;
        if (SUCCEEDED(CoGetInterfaceAndReleaseStream(c->marshalled, IID_ITolvane, reinterpret_cast<void**>(&proxy)))) {
            c->before = proxy->Tolvane_SummaryCreated();
            WaitForSingleObject(c->stopped, 30000);
            c->after = proxy->Tolvane_SummaryCreated();
            proxy->Release();
        }
        CoUninitialize();
        return 0;
    }
};

// A held reference makes the stop wait its 5 s; then the server cuts the client
// off before the object goes, so a later call fails instead of reaching it.
TEST(TolvaneOverCom, AReferenceHeldThroughTheStopIsCutOff) {
    omktest::ErrorLog log(L"comServer_test.txt");
    ASSERT_EQ(0u, StartComServerThread());
    ITolvane* tolvane = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane,
                                     reinterpret_cast<void**>(&tolvane)));
    Collector collector;
    ASSERT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(IID_ITolvane, tolvane, &collector.marshalled));
    tolvane->Release();
    HANDLE thread = CreateThread(nullptr, 0, Collector::Run, &collector, 0, nullptr);
    ASSERT_TRUE(omktest::WaitFor([&] { return collector.before == S_OK; }, 10000));
    WORK_ITEM* item = RemoveFromWorkQueue();
    ASSERT_NE(nullptr, item);
    EXPECT_EQ(static_cast<unsigned int>(WORK_SUMMARY_CREATED), item->kind);
    FreeWorkItem(item);

    const DWORD start = GetTickCount();
    StopComServerThread();
    EXPECT_GE(GetTickCount() - start, 4900u);
    SetEvent(collector.stopped);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 30000));
    EXPECT_TRUE(FAILED(collector.after)) << "the call reaches no object";
    EXPECT_EQ(nullptr, RemoveFromWorkQueue());
    EXPECT_EQ((std::vector<std::string>{"ComServerThreadProc(): WaitForSingleObject(g_ComClassCleanupEvent) err=258"}),
              log.Messages());
    CloseHandle(thread);
    CloseHandle(collector.stopped);
}

}  // namespace
