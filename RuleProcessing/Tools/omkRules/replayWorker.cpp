// The replay's child process: the engine in the sandbox, one event at a time.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <iostream>
#include <utility>

#include "CTolvane.h"
#include "actionPlugin.h"
#include "alertDatabase.h"
#include "alertRecord.h"
#include "cdef.h"
#include "conventions.h"
#include "eventHandling.h"
#include "omkDb.h"
#include "replay.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "strHelper.h"
#include "systemIdentity.h"
#include "textFileHelpers.h"
#include "tolvaneInit.h"
#include "toolSupport.h"
#include "workQueue.h"

namespace {

constexpr ULONGLONG kSecond = 10000000;  // FILETIME units
// Plugins of each kind whose calls are recorded; the engine takes any number.
constexpr size_t kRecordedPlugins = 16;

HANDLE g_results = nullptr;  // the tool's end of the pipe
std::string g_currentCallJson = "\"engine start-up (Tolvane_Init)\"";
ULONGLONG g_eventTime = 0;  // UTC of the event under handling
int g_utcOffsetMinutes = 0;
RuleParseRecorder* g_recorder = nullptr;
json g_calls;  // the plugin calls of the event under handling

void Send(const json& message) {
    std::string line = message.dump() + "\n";
    DWORD written = 0;
    WriteFile(g_results, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

// Names what runs now for a fault report.
void Running(const std::string& what) { g_currentCallJson = json(what).dump(); }

// One plugin call: the tool is told of it before (a time-out is named by
// it), a fault names it while it runs, and the engine after it returned.
class PluginCall {
public:
    explicit PluginCall(std::string call) : call_(std::move(call)) {
        Running(call_);
        Send({{"type", "calling"}, {"call", call_}});
    }
    ~PluginCall() { Running("the engine, after " + call_); }

private:
    std::string call_;
};

// Any thread: the process ends here, after one line for the tool. Nothing is
// allocated: the heap may be what failed.
LONG WINAPI ReportFault(EXCEPTION_POINTERS* info) {
    DWORD code = info->ExceptionRecord->ExceptionCode;
    char line[1024];
    int length = _snprintf(line, sizeof(line) - 2, "{\"type\":\"fault\",\"code\":\"0x%08lX\",\"call\":%s}\n",
                           static_cast<unsigned long>(code), g_currentCallJson.c_str());
    if (length < 0) length = _snprintf(line, sizeof(line), "{\"type\":\"fault\",\"code\":\"0x%08lX\"}\n",
                                       static_cast<unsigned long>(code));
    DWORD written = 0;
    WriteFile(g_results, line, static_cast<DWORD>(length), &written, nullptr);
    TerminateProcess(GetCurrentProcess(), code);
    return EXCEPTION_EXECUTE_HANDLER;
}

void ToSystemTime(ULONGLONG fileTime, SYSTEMTIME* time) {
    FILETIME value = {static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
    FileTimeToSystemTime(&value, time);
}

// The virtual clock: the event's alert file is named at its time; its alerts
// are stamped a second later, after the pause the service makes.
void WINAPI EventTimeUtc(SYSTEMTIME* time) { ToSystemTime(g_eventTime, time); }
void WINAPI AlertTimeLocal(SYSTEMTIME* time) {
    ToSystemTime(g_eventTime + kSecond + static_cast<LONGLONG>(g_utcOffsetMinutes) * 60 * kSecond, time);
}
DWORD WINAPI AlertTimeZone(TIME_ZONE_INFORMATION* zone) {
    memset(zone, 0, sizeof(*zone));
    zone->Bias = -g_utcOffsetMinutes;
    return TIME_ZONE_ID_UNKNOWN;
}

std::string RuleLabel(const RULE* rule) {
    return "rule " + std::to_string(g_recorder->IndexOf(rule)) + " \"" + Utf8(rule->name) + "\"";
}

std::string Hex(unsigned int value) {
    char text[16];
    _snprintf(text, sizeof(text), "0x%x", value);
    text[15] = '\0';
    return text;
}

// The recorded plugins' own entry points, and the stand-ins that record each
// call (one instantiation per table slot, as the calls carry no plugin).
struct RuleCalls {
    std::string name;
    PFN_Rule_Triggered triggered;
};
struct ActionCalls {
    std::string name;
    PFN_Action_BeginEvaluation begin;
    PFN_Action_Execute execute;
    PFN_Action_EndEvaluation end;
};
std::array<RuleCalls, kRecordedPlugins> g_ruleCalls;
std::array<ActionCalls, kRecordedPlugins> g_actionCalls;

template <size_t I>
unsigned int WINAPI RecordTriggered(RULE* rule) {
    PluginCall call("Rule_Triggered of " + g_ruleCalls[I].name + " for " + RuleLabel(rule));
    unsigned int result = g_ruleCalls[I].triggered(rule);
    g_calls["asked"].push_back({{"plugin", g_ruleCalls[I].name},
                                {"rule", g_recorder->IndexOf(rule)},
                                {"result", Hex(result)},
                                {"fires", result == 0}});
    return result;
}

template <size_t I>
void WINAPI RecordBegin() {
    PluginCall call("Action_BeginEvaluation of " + g_actionCalls[I].name);
    g_actionCalls[I].begin();
}

template <size_t I>
unsigned int WINAPI RecordExecute(RULE* rule, const wchar_t* actionXml) {
    PluginCall call("Action_Execute of " + g_actionCalls[I].name + " for " + RuleLabel(rule));
    unsigned int result = g_actionCalls[I].execute(rule, actionXml);
    g_calls["actions"].push_back({{"plugin", g_actionCalls[I].name},
                                  {"rule", g_recorder->IndexOf(rule)},
                                  {"result", Hex(result)},
                                  {"ok", result == 0 || result == 12}});
    return result;
}

template <size_t I>
unsigned int WINAPI RecordEnd() {
    PluginCall call("Action_EndEvaluation of " + g_actionCalls[I].name);
    unsigned int result = g_actionCalls[I].end();
    g_calls["endEvaluation"].push_back(
        {{"plugin", g_actionCalls[I].name}, {"result", Hex(result)}, {"ok", result == 0 || result == 12}});
    return result;
}

template <size_t... I>
void RecordPluginCalls(std::index_sequence<I...>) {
    const PFN_Rule_Triggered triggered[] = {RecordTriggered<I>...};
    const PFN_Action_BeginEvaluation begin[] = {RecordBegin<I>...};
    const PFN_Action_Execute execute[] = {RecordExecute<I>...};
    const PFN_Action_EndEvaluation end[] = {RecordEnd<I>...};
    for (DWORD i = 0; i < g_numRulePlugins && i < kRecordedPlugins; ++i) {
        RULE_PLUGIN& plugin = g_rulePlugins[i];
        g_ruleCalls[i] = {Utf8(plugin.name), plugin.Rule_Triggered};
        plugin.Rule_Triggered = triggered[i];
    }
    for (DWORD i = 0; i < g_numActionPlugins && i < kRecordedPlugins; ++i) {
        ACTION_PLUGIN& plugin = g_actionPlugins[i];
        g_actionCalls[i] = {Utf8(plugin.name), plugin.Action_BeginEvaluation, plugin.Action_Execute,
                            plugin.Action_EndEvaluation};
        plugin.Action_BeginEvaluation = begin[i];
        plugin.Action_Execute = execute[i];
        plugin.Action_EndEvaluation = end[i];
    }
}

json LoadedPlugins() {
    json plugins = json::array();
    for (DWORD i = 0; i < g_numRulePlugins; ++i) {
        plugins.push_back({{"kind", "rule"}, {"name", Utf8(g_rulePlugins[i].name)}, {"dll", Utf8(g_rulePlugins[i].dllPath)}});
    }
    for (DWORD i = 0; i < g_numActionPlugins; ++i) {
        plugins.push_back(
            {{"kind", "action"}, {"name", Utf8(g_actionPlugins[i].name)}, {"dll", Utf8(g_actionPlugins[i].dllPath)}});
    }
    return plugins;
}

std::string ReadText(const std::wstring& path) {
    char* bytes = ReadMultiByteUtf8File(path.c_str());
    if (bytes == nullptr) return std::string();
    std::string text = bytes;
    free(bytes);
    --g_allocCount;
    return text;
}

// What became of the event's alert file: written, kept, stored, signalled.
void DescribeAlertFile(const std::vector<std::string>& log, json* result) {
    const std::wstring path = std::wstring(CDef::GetInstance().FOLDER_OMK_ALERT) + L"\\" + g_alertFileName;
    const bool kept = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    ALERT_DB_RECORD* record = nullptr;
    if ((kept || removeAlertFiles != 0) && AlertDb_Open(0, 0)) {
        AlertDb_ReadByCreationTimeW(GetCreationTimeStampFromAlertFileName(g_alertFileName), &record);
        AlertDb_Close(0);
    }
    (*result)["alertFile"] = nullptr;
    if (!kept && record == nullptr) return;
    (*result)["alertFile"] = Utf8(g_alertFileName);
    (*result)["stored"] = record != nullptr;
    (*result)["kept"] = kept;
    (*result)["signalled"] = WaitForSingleObject(g_alertGeneratedEvent, 0) == WAIT_OBJECT_0;
    (*result)["alert"] = record != nullptr ? std::string(record->xml) : ReadText(path);
    std::vector<std::string> why;
    for (const std::string& line : log) {
        for (const char* step : {"AddToAlertDb", "ReadValidateXmlFile", "addToAlertDbCore", "GetCreationTimeStamp",
                                 "Tolvane_HandleEvents"}) {
            if (line.compare(0, strlen(step), step) == 0) {
                why.push_back(line);
                break;
            }
        }
    }
    if (record == nullptr) (*result)["storeFailure"] = JoinedOrNull(why);
    free(record);
}

json HandleEvent(CTolvane* tolvane, const COLLECTOR_EVENT& event, ErrorLogTail* log) {
    g_calls = {{"asked", json::array()}, {"actions", json::array()}, {"endEvaluation", json::array()}};
    Running("the engine");
    // The service's own object checks and copies the event into a queued item;
    // it is taken back off the queue under the queue's lock, so that the
    // engine thread Tolvane_Init started never sees it, and handled here.
    EnterCriticalSection(&g_workQueueLock);
    HRESULT hr = SendCollectorEvent(tolvane, event, static_cast<long long>(g_eventTime));
    WORK_ITEM* item = RemoveFromWorkQueue();
    LeaveCriticalSection(&g_workQueueLock);
    json result = {{"hresult", Hex(static_cast<unsigned int>(hr))}, {"queued", item != nullptr}};
    if (item != nullptr) {
        Tolvane_HandleEvents(item);
        FreeWorkItem(item);
    }
    result.update(g_calls);
    result["fired"] = json::array();
    for (const RULE* rule = ::g_rules; rule != nullptr; rule = rule->next) {
        if (item == nullptr || rule->triggered != 1) continue;
        result["fired"].push_back({{"rule", g_recorder->IndexOf(rule)},
                                   {"name", Utf8(rule->name)},
                                   {"guid", Utf8(rule->ruleGuid)},
                                   {"alertId", Utf8(rule->alertGuid)}});
    }
    std::vector<std::string> lines = log->Take();
    if (item != nullptr) DescribeAlertFile(lines, &result);
    log->Take();  // the description's own reads are not the engine's
    result["log"] = lines;
    return result;
}

}  // namespace

int RunReplayWorker(const REPLAY_OPTIONS& options) {
    // Results go to the tool over standard output; what plugins print goes nowhere.
    DuplicateHandle(GetCurrentProcess(), GetStdHandle(STD_OUTPUT_HANDLE), GetCurrentProcess(), &g_results, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    freopen("NUL", "w", stdout);
    SetUnhandledExceptionFilter(ReportFault);
    g_utcOffsetMinutes = options.utcOffsetMinutes;

    Sandbox sandbox;
    std::string error;
    if (!sandbox.Open(Wide(options.out), &error)) {
        Send({{"type", "start"}, {"error", error}});
        return OMK_EXIT_USAGE;
    }
    CStrHelper::StrPrintf(g_serviceTag, OMK_SERVICE_TAG_CHARS, L"%hs", GetServiceTag().c_str());
    ErrorLogTail log(std::wstring(g_serviceTag) + L"_OMKW_Errlog.txt");
    if (!StorageIsInside(sandbox.Folder())) {
        Send({{"type", "start"},
              {"error", "the product's data folders would not be under " + Utf8(sandbox.Folder())}});
        return OMK_EXIT_USAGE;
    }
    OverrideMachineIdentity(options.model, options.chassis);
    OMK_PLUGIN_LIST rulePlugins, actionPlugins;
    ParsePluginOptions(options.rulePlugins, &rulePlugins, &error);
    ParsePluginOptions(options.actionPlugins, &actionPlugins, &error);
    if (!rulePlugins.empty()) g_replayRulePlugins = &rulePlugins;
    if (!actionPlugins.empty()) g_replayActionPlugins = &actionPlugins;
    const std::wstring rules = Wide(options.rules);
    g_replayRuleFile = rules.c_str();
    const std::wstring eventName = L"Local\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}-replay-" +
                                   std::to_wstring(GetCurrentProcessId());
    g_replayAlertEventName = eventName.c_str();
    g_handleEventsPauseMs = 0;
    g_handleEventsClock = EventTimeUtc;
    Alert_SetClock(AlertTimeLocal, AlertTimeZone);

    RuleParseRecorder recorder(&log);
    g_recorder = &recorder;
    DWORD status = Tolvane_Init();
    std::vector<std::string> lines = recorder.Before();
    for (std::string& line : log.Take()) lines.push_back(std::move(line));
    if (status == 0) RecordPluginCalls(std::make_index_sequence<kRecordedPlugins>());
    wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(rules.c_str());
    json start = {{"type", "start"},
                  {"status", status},
                  {"message", StatusMeaning(status)},
                  {"serviceTag", Utf8(g_serviceTag)},
                  {"rules", recorder.Rules(recorder.Parsed() ? text : nullptr)},
                  {"plugins", LoadedPlugins()},
                  {"log", lines}};
    if (text != nullptr) {
        free(text);
        --g_allocCount;
    }
    log.Take();
    Send(start);

    if (status == 0) {
        CTolvane tolvane;
        std::string line;
        while (std::getline(std::cin, line)) {
            json command = json::parse(line, nullptr, false);
            COLLECTOR_EVENT event;
            if (command.is_discarded() || !ParseCollectorEvent(command.value("event", ""), &event, &error)) continue;
            g_eventTime = command.value("at", 0ull);
            Send({{"type", "event"}, {"result", HandleEvent(&tolvane, event, &log)}});
        }
    }
    PluginCall teardown("engine teardown (Tolvane_Term)");
    Tolvane_Term();
    Send({{"type", "end"}, {"log", log.Take()}});
    return status == 0 ? OMK_EXIT_OK : OMK_EXIT_FINDING;
}
