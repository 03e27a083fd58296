// Collector calls handled to the end: the calls of the collector campaign
// (the same seed and index make the same call) made on the ITolvane object
// itself, in this process, and each queued event handled at once by the
// engine's own event handling: the sample rule file and the product's plugins
// loaded as at a service start, alert files written, stored through omkDb. The
// installed service handles one event a second; here every event is handled.
// Promises: the designed result and exactly the designed event queued for
// every call, no crash, and g_allocCount back once the event is handled and
// freed, less the one block the design keeps of a periodic record's bytes.
#include <windows.h>

#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

#include "CTolvane.h"
#include "actionPlugin.h"
#include "conventions.h"
#include "eventHandling.h"
#include "fuzzRunner.h"
#include "omkDb.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "testPlugins.h"
#include "tolvaneCalls.h"
#include "tolvaneInit.h"
#include "workQueue.h"

namespace {

// The events' clock: one second on per event, so that every event gets an
// alert file (and database key) of its own, as the designed pause ensures.
ULONGLONG g_clock = 0;
void WINAPI NextSecond(SYSTEMTIME* now) {
    FILETIME time = {static_cast<DWORD>(g_clock), static_cast<DWORD>(g_clock >> 32)};
    FileTimeToSystemTime(&time, now);
    g_clock += 10000000;
}

class CollectorInProcess : public omkfuzz::Subject {
public:
    const char* Title() const override { return "collector calls (in process)"; }
    const wchar_t* Extension() const override { return L"call"; }
    std::string Outcome() const override { return outcome_; }

    std::string Generate(uint64_t seed, uint64_t index, const std::vector<std::string>&) override {
        return std::to_string(seed) + " " + std::to_string(index) + "\n";
    }

    // The engine's start-up steps, without its thread: the events are handled here.
    void Prepare() override {
        omktest::InstallTestRoot();
        ruleKey_ = std::make_unique<omktest::PluginKey>(omktest::kRulePluginKey);
        actionKey_ = std::make_unique<omktest::PluginKey>(omktest::kActionPluginKey);
        ruleKey_->Add(L"OMKCollectorRules", omktest::BuiltFile(L"omkCollectorRules.dll"));
        actionKey_->Add(L"OMKActionLog", omktest::BuiltFile(L"omkActionLog.dll"));
        GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&g_clock));
        g_handleEventsClock = NextSecond;
        g_handleEventsPauseMs = 0;
        InitWorkQueueLock();
        // The sample rule file beside this program, as the service reads its own.
        if (CreateAlertGeneratedEvent() != 0 || !InitSqliteLib() || LoadRulePlugins() != 0 ||
            LoadActionPlugins() != 0 || Tolvane_LoadRuleDefinitions() != 0 || InitRulePlugins() != 0 ||
            InitActionPlugins() != 0) {
            fprintf(stderr, "collector calls (in process): the engine did not start\n");
            ExitProcess(2);
        }
        tolvane_ = std::make_unique<CTolvane>();
    }

    std::string Run(const std::string& input, long long* allocDifference) override {
        unsigned long long seed = 0, index = 0;
        if (sscanf(input.c_str(), "%llu %llu", &seed, &index) != 2) return "";
        const int before = g_allocCount;
        const omkfuzz::TolvaneCall call = omkfuzz::MakeCall(tolvane_.get(), seed, index);
        int handled = 0;
        long long kept = 0;
        for (WORK_ITEM* item = RemoveFromWorkQueue(); item != nullptr; item = RemoveFromWorkQueue(), ++handled) {
            if (item->kind == WORK_PERIODIC_DATA && item->u.periodicData.data != nullptr) ++kept;
            Tolvane_HandleEvents(item);
            FreeWorkItem(item);
        }
        *allocDifference = g_allocCount - before - kept;
        outcome_ = call.result == S_OK ? (handled != 0 ? "handled" : "answered") : "refused";
        std::string broken;
        if (call.result != call.expected) broken = "the call did not answer as designed";
        if (handled != (call.queued ? 1 : 0)) broken += "; the events queued are not the designed ones";
        return broken;
    }

private:
    std::string outcome_;
    std::unique_ptr<omktest::PluginKey> ruleKey_;
    std::unique_ptr<omktest::PluginKey> actionKey_;
    std::unique_ptr<CTolvane> tolvane_;
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
    CollectorInProcess subject;
    return omkfuzz::CampaignMain(subject, argc, argv);
}
