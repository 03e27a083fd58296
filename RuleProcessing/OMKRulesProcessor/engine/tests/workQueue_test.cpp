// The queue and the engine thread in one process, with a recording
// Tolvane_HandleEvents in place of the event handling.
#include <gtest/gtest.h>

#include <stdlib.h>

#include "conventions.h"
#include "engineTestSupport.h"
#include "testSupport.h"
#include "workQueue.h"

namespace {

// The GUIDs of the items the engine thread handed over, and a gate that can
// hold it inside the handler.
struct Recorder {
    std::mutex lock;
    std::vector<std::wstring> guids;
    HANDLE gate = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    HANDLE inHandler = CreateEventW(nullptr, FALSE, FALSE, nullptr);

    std::vector<std::wstring> Guids() {
        std::lock_guard<std::mutex> guard(lock);
        return guids;
    }
    bool WaitForCount(size_t count) {
        return omktest::WaitFor([&] { return Guids().size() >= count; }, 20000);
    }
};

Recorder g_recorder;

}  // namespace

void Tolvane_HandleEvents(WORK_ITEM* item) {
    {
        std::lock_guard<std::mutex> guard(g_recorder.lock);
        g_recorder.guids.push_back(item->kind == WORK_RULE_TRIGGERED ? item->u.ruleTriggered.ruleGuid : L"");
    }
    SetEvent(g_recorder.inHandler);
    WaitForSingleObject(g_recorder.gate, 20000);
}

namespace {

const char kWaitTrace[] = "TolvaneThreadProc() WaitForMultipleObjects(g_TolvaneThreadExitEvent,g_TolvaneEvent)...";

WORK_ITEM* RuleItem(int number) {
    return omktest::RuleTriggeredItem(L"p", std::to_wstring(number).c_str(), L"Data", {L""}, {L""});
}

// A periodic-data item whose data buffer, counted, is `data` (may be null).
WORK_ITEM* PeriodicItem(unsigned char* data, unsigned int dataLen) {
    WORK_ITEM* item = omktest::NewWorkItem(WORK_PERIODIC_DATA);
    item->u.periodicData.dataLen = dataLen;
    item->u.periodicData.data = data;
    if (data != nullptr) ++g_allocCount;
    return item;
}

class EngineQueue : public ::testing::Test {
protected:
    void SetUp() override {
        InitWorkQueueLock();
        g_recorder.guids.clear();
        SetEvent(g_recorder.gate);
        ResetEvent(g_recorder.inHandler);
        allocBase_ = g_allocCount;
    }
    void TearDown() override {
        SetEvent(g_recorder.gate);
        if (g_TolvaneThreadHandle != nullptr) StopTolvaneThread();
        DeleteWorkQueueLock();
    }
    int allocBase_ = 0;
};

// The first item is queued before the engine thread runs: it is handled as soon
// as the thread starts, without a later call. Five more queued while it is in
// hand follow in order in the same drain: the thread waits three times (at its
// start, after the drain, after the spare wake-up).
TEST_F(EngineQueue, ItemsQueuedBeforeTheStartAndWhileBusyAreHandledInOrderInOneDrain) {
    omktest::TraceMonitor traces;
    ASSERT_TRUE(traces.Active());
    ResetEvent(g_recorder.gate);
    AddToWorkQueue(RuleItem(0));
    ASSERT_EQ(0u, StartTolvaneThread());
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_recorder.inHandler, 5000));
    for (int i = 1; i <= 5; ++i) AddToWorkQueue(RuleItem(i));
    SetEvent(g_recorder.gate);
    ASSERT_TRUE(g_recorder.WaitForCount(6));
    EXPECT_EQ((std::vector<std::wstring>{L"0", L"1", L"2", L"3", L"4", L"5"}), g_recorder.Guids());
    const std::string wait = "[" + std::to_string(g_TolvaneThreadId) + "]" + kWaitTrace;
    ASSERT_TRUE(traces.WaitFor(wait, 3, 5000));
    EXPECT_TRUE(StopTolvaneThread());
    EXPECT_EQ(3u, traces.Count(kWaitTrace));
    EXPECT_EQ(allocBase_, g_allocCount);
}

TEST_F(EngineQueue, ExitWinsOverWorkAndTheStopFreesWhatIsLeftUnhandled) {
    ResetEvent(g_recorder.gate);
    ASSERT_EQ(0u, StartTolvaneThread());
    AddToWorkQueue(RuleItem(0));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_recorder.inHandler, 5000));
    SetEvent(g_TolvaneEvent);
    SetEvent(g_TolvaneThreadExitEvent);
    SetEvent(g_recorder.gate);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_TolvaneThreadHandle, 5000)) << "the item in hand was finished";
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_TolvaneEvent, 0)) << "the work signal was left untaken";

    // Queued after the thread ended: every kind is freed unhandled, but a
    // periodic item's data, which stays allocated.
    auto* data = static_cast<unsigned char*>(malloc(32));
    AddToWorkQueue(omktest::NewWorkItem(WORK_SUMMARY_CREATED));
    AddToWorkQueue(RuleItem(1));
    AddToWorkQueue(PeriodicItem(nullptr, 0));
    AddToWorkQueue(PeriodicItem(data, 32));
    EXPECT_TRUE(StopTolvaneThread());
    EXPECT_EQ(1u, g_recorder.Guids().size());
    EXPECT_EQ(nullptr, g_workQueue);
    EXPECT_EQ(nullptr, g_TolvaneThreadHandle);
    EXPECT_EQ(allocBase_ + 1, g_allocCount) << "only the 32-byte buffer stays allocated";
    free(data);
    --g_allocCount;
}

TEST_F(EngineQueue, MisuseIsReportedAndLosesNothingElse) {
    DeleteWorkQueueLock();
    omktest::ErrorLog log(L"workQueue_test_misuse.txt");
    AddToWorkQueue(nullptr);
    WORK_ITEM* item = omktest::NewWorkItem(WORK_SUMMARY_CREATED);
    AddToWorkQueue(item);
    EXPECT_EQ(nullptr, g_workQueue);
    EXPECT_EQ(nullptr, RemoveFromWorkQueue());
    EXPECT_TRUE(StopTolvaneThread()) << "a teardown without a start: no thread runs";
    EXPECT_EQ((std::vector<std::string>{"AddToWorkQueue: null item !", "AddToWorkQueue: crit sect not initialized !",
                                        "RemoveFromWorkQueue: crit sect not initialized !",
                                        "StopTolvaneThread(): SetEvent(g_TolvaneThreadExitEvent) err=6",
                                        "StopTolvaneThread(): WaitForSingleObject(g_TolvaneThreadHandle) err=6",
                                        "RemoveFromWorkQueue: crit sect not initialized !"}),
              log.Messages());
    FreeWorkItem(item);
    EXPECT_EQ(allocBase_, g_allocCount);
}

}  // namespace
