// The queue and the engine thread in one process, with a recording
// Tolvane_HandleEvents in place of the event handling.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <mutex>
#include <string>
#include <vector>

#include "conventions.h"
#include "engineTestSupport.h"
#include "testSupport.h"
#include "workQueue.h"

namespace {

struct Handled {
    DWORD threadId;
    unsigned int kind;
    std::wstring plugin;
    std::wstring guid;
    unsigned char* periodicData;
};

// What the engine thread handed over, and a gate that can hold it inside the handler.
struct Recorder {
    std::mutex lock;
    std::vector<Handled> items;
    HANDLE gate = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    HANDLE inHandler = CreateEventW(nullptr, FALSE, FALSE, nullptr);

    size_t Count() {
        std::lock_guard<std::mutex> guard(lock);
        return items.size();
    }
    bool WaitForCount(size_t count, DWORD timeoutMs = 20000) {
        DWORD start = GetTickCount();
        while (Count() < count) {
            if (GetTickCount() - start > timeoutMs) return false;
            Sleep(5);
        }
        return true;
    }
};

Recorder g_recorder;

}  // namespace

void Tolvane_HandleEvents(WORK_ITEM* item) {
    Handled handled{GetCurrentThreadId(), item->kind, L"", L"", nullptr};
    if (item->kind == WORK_RULE_TRIGGERED) {
        if (item->u.ruleTriggered.rulePluginId != nullptr) handled.plugin = item->u.ruleTriggered.rulePluginId;
        handled.guid = item->u.ruleTriggered.ruleGuid;
    } else if (item->kind == WORK_PERIODIC_DATA) {
        handled.periodicData = item->u.periodicData.data;
    }
    {
        std::lock_guard<std::mutex> guard(g_recorder.lock);
        g_recorder.items.push_back(handled);
    }
    SetEvent(g_recorder.inHandler);
    WaitForSingleObject(g_recorder.gate, 20000);
}

namespace {

using omktest::ErrorLog;
using omktest::TraceMonitor;

const char kWaitTrace[] = "TolvaneThreadProc() WaitForMultipleObjects(g_TolvaneThreadExitEvent,g_TolvaneEvent)...";

// A rule item with one (empty) data item.
WORK_ITEM* RuleItem(const std::wstring& plugin, const std::wstring& guid) {
    return omktest::RuleTriggeredItem(plugin.c_str(), guid.c_str(), L"Data", {L""}, {L""});
}

WORK_ITEM* PeriodicItem(unsigned int dataLen) {
    WORK_ITEM* item = omktest::NewWorkItem(WORK_PERIODIC_DATA);
    item->u.periodicData.code = 7;
    item->u.periodicData.subCode = 8;
    item->u.periodicData.timeStamp = 9;
    item->u.periodicData.dataLen = dataLen;
    item->u.periodicData.data = nullptr;
    if (dataLen != 0) {
        item->u.periodicData.data = static_cast<unsigned char*>(malloc(dataLen));
        OmkFill(item->u.periodicData.data, dataLen);
        ++g_allocCount;
    }
    return item;
}

std::string ThreadPrefix(DWORD threadId) {
    return "[" + std::to_string(threadId) + "]";
}

class EngineQueue : public ::testing::Test {
protected:
    void SetUp() override {
        omktest::InitWorkQueueLock();
        {
            std::lock_guard<std::mutex> guard(g_recorder.lock);
            g_recorder.items.clear();
        }
        SetEvent(g_recorder.gate);
        ResetEvent(g_recorder.inHandler);
        allocBase_ = g_allocCount;
    }
    void TearDown() override {
        SetEvent(g_recorder.gate);
        if (g_TolvaneThreadHandle != nullptr) StopTolvaneThread();
        omktest::DeleteWorkQueueLock();
    }
    std::vector<Handled> Items() {
        std::lock_guard<std::mutex> guard(g_recorder.lock);
        return g_recorder.items;
    }
    int allocBase_ = 0;
};

TEST_F(EngineQueue, ItemsQueuedWhileBusyAreHandledInTheSameDrainWithOneSpareWakeUp) {
    TraceMonitor traces;
    ASSERT_TRUE(traces.Active());
    ResetEvent(g_recorder.gate);
    ASSERT_EQ(0u, StartTolvaneThread());
    const std::string engine = ThreadPrefix(g_TolvaneThreadId);
    const std::string self = ThreadPrefix(GetCurrentThreadId());
    ASSERT_TRUE(traces.WaitFor(engine + kWaitTrace, 1, 5000));

    AddToWorkQueue(RuleItem(L"p", L"0"));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_recorder.inHandler, 5000));
    std::vector<WORK_ITEM*> queued;
    for (int i = 1; i <= 5; ++i) {
        queued.push_back(RuleItem(L"p", std::to_wstring(i)));
        AddToWorkQueue(queued.back());
    }
    ASSERT_TRUE(traces.WaitFor("AddToWorkQueue()", 6, 5000));
    char after[64];
    // %p of the Windows C runtime: 16 upper-case hex digits.
    snprintf(after, sizeof(after), "AddToWorkQueue() Added after %016llX.",
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(queued[3])));
    std::vector<std::string> adds;
    for (const std::string& line : traces.Lines()) {
        if (line.find("AddToWorkQueue()") != std::string::npos) adds.push_back(line);
    }
    EXPECT_EQ(self + "AddToWorkQueue() Added to head of queue.", adds[0]) << "the first item, on an empty queue";
    EXPECT_EQ(self + "AddToWorkQueue() Added to head of queue.", adds[1]) << "the engine took the first item out";
    EXPECT_EQ(self + after, adds[5]) << "appended after the former last item";

    SetEvent(g_recorder.gate);
    ASSERT_TRUE(g_recorder.WaitForCount(6));
    std::vector<Handled> items = Items();
    for (int i = 0; i < 6; ++i) EXPECT_EQ(std::to_wstring(i), items[i].guid);
    // Waits: the first, after the drain of all six, and one spare empty wake-up.
    ASSERT_TRUE(traces.WaitFor(engine + kWaitTrace, 3, 5000));
    Sleep(300);
    EXPECT_EQ(3u, traces.Count(kWaitTrace));
    EXPECT_EQ(1u, traces.Count(engine + "TolvaneThreadProc() START"));
}

TEST_F(EngineQueue, ExitWinsOverWorkAndLeavesQueuedItemsUnhandledButFreed) {
    TraceMonitor traces;
    for (int i = 0; i < 3; ++i) AddToWorkQueue(RuleItem(L"late", std::to_wstring(i)));
    AddToWorkQueue(PeriodicItem(0));
    AddToWorkQueue(omktest::NewWorkItem(WORK_SUMMARY_CREATED));
    ASSERT_EQ(0u, StartTolvaneThread());
    SetEvent(g_TolvaneThreadExitEvent);
    SetEvent(g_TolvaneEvent);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_TolvaneThreadHandle, 5000));
    DWORD exitCode = 1;
    GetExitCodeThread(g_TolvaneThreadHandle, &exitCode);
    EXPECT_EQ(0u, exitCode);
    EXPECT_NE(nullptr, g_workQueue);
    StopTolvaneThread();
    EXPECT_EQ(0u, g_recorder.Count());
    EXPECT_EQ(nullptr, g_workQueue);
    EXPECT_EQ(allocBase_, g_allocCount) << "queued items are freed unhandled";
    if (traces.Active()) {
        EXPECT_EQ(1u, traces.Count("TolvaneThreadProc() WaitForMultipleObjects(g_TolvaneThreadExitEvent,"
                                   "g_TolvaneEvent) exit."));
        EXPECT_EQ(1u, traces.Count("TolvaneThreadProc() END"));
    }
}

TEST_F(EngineQueue, BothEventsSignalledAtTheWaitEndTheThread) {
    ResetEvent(g_recorder.gate);
    ASSERT_EQ(0u, StartTolvaneThread());
    AddToWorkQueue(RuleItem(L"p", L"busy"));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_recorder.inHandler, 5000));
    SetEvent(g_TolvaneEvent);
    SetEvent(g_TolvaneThreadExitEvent);
    SetEvent(g_recorder.gate);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_TolvaneThreadHandle, 5000));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_TolvaneEvent, 0)) << "the work signal was left untaken";
    EXPECT_EQ(1u, g_recorder.Count()) << "the item in hand was finished first";
}

TEST_F(EngineQueue, StartGivesUpAfter5sWhenTheThreadDoesNotSignal) {
    ErrorLog log(L"workQueue_test_start.txt");
    TraceMonitor traces;
    ASSERT_TRUE(traces.Active());
    // The thread's first trace line waits for the stalled monitor.
    traces.Stall(7000);
    DWORD start = GetTickCount();
    EXPECT_EQ(258u, StartTolvaneThread());
    EXPECT_GE(GetTickCount() - start, 4900u);
    std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ("StartTolvaneThread(): WaitForSingleObject(g_TolvaneThreadRunEvent) err=258", messages[0]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(g_TolvaneThreadRunEvent, 10000)) << "late, but it runs";
}

TEST_F(EngineQueue, FreeingReleasesEverythingButThePeriodicDataBuffer) {
    ASSERT_EQ(0u, StartTolvaneThread());
    AddToWorkQueue(omktest::NewWorkItem(WORK_SUMMARY_CREATED));
    AddToWorkQueue(RuleItem(L"plugin", L"{guid}"));
    AddToWorkQueue(PeriodicItem(0));
    AddToWorkQueue(PeriodicItem(32));
    ASSERT_TRUE(g_recorder.WaitForCount(4));
    StopTolvaneThread();
    std::vector<Handled> items = Items();
    EXPECT_EQ(nullptr, items[2].periodicData);
    ASSERT_NE(nullptr, items[3].periodicData);
    EXPECT_EQ(allocBase_ + 1, g_allocCount) << "only the 32-byte buffer stays allocated";
    free(items[3].periodicData);
    --g_allocCount;
}

TEST_F(EngineQueue, MisuseIsReportedAndLosesNothingElse) {
    omktest::DeleteWorkQueueLock();
    ErrorLog log(L"workQueue_test_misuse.txt");
    AddToWorkQueue(nullptr);
    WORK_ITEM* item = omktest::NewWorkItem(WORK_SUMMARY_CREATED);
    AddToWorkQueue(item);
    EXPECT_EQ(nullptr, g_workQueue);
    EXPECT_EQ(nullptr, RemoveFromWorkQueue());
    // A teardown without a start.
    StopTolvaneThread();
    std::vector<std::string> expected = {
        "AddToWorkQueue: null item !",
        "AddToWorkQueue: crit sect not initialized !",
        "RemoveFromWorkQueue: crit sect not initialized !",
        "StopTolvaneThread(): SetEvent(g_TolvaneThreadExitEvent) err=6",
        "StopTolvaneThread(): WaitForSingleObject(g_TolvaneThreadHandle) err=6",
        "RemoveFromWorkQueue: crit sect not initialized !",
    };
    EXPECT_EQ(expected, log.Messages());
    FreeWorkItem(item);
    EXPECT_EQ(allocBase_, g_allocCount);
}

}  // namespace
