// The replay's side in the tool: events in, the worker driven, the result
// reported and compared.
#include "replay.h"

#include <stdio.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include "toolSupport.h"

namespace {

constexpr ULONGLONG kSecond = 10000000;  // FILETIME units
constexpr size_t kMaxDifferencesShown = 20;

// One child process of the tool running the engine (RunReplayWorker).
class Worker {
public:
    ~Worker() { Stop(0); }

    bool Start(const std::wstring& commandLine) {
        SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
        HANDLE childIn = nullptr, childOut = nullptr;
        if (!CreatePipe(&childIn, &input_, &inherit, 0)) return false;
        if (!CreatePipe(&output_, &childOut, &inherit, 0)) return false;
        SetHandleInformation(input_, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(output_, HANDLE_FLAG_INHERIT, 0);
        HANDLE nul = CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = childIn;
        startup.hStdOutput = childOut;
        startup.hStdError = nul;
        PROCESS_INFORMATION process = {};
        std::wstring line = commandLine;
        bool started = CreateProcessW(nullptr, &line[0], nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                                      &startup, &process) != 0;
        CloseHandle(childIn);
        CloseHandle(childOut);
        CloseHandle(nul);
        if (!started) return false;
        CloseHandle(process.hThread);
        process_ = process.hProcess;
        reader_ = std::thread([this] { Read(); });
        return true;
    }

    void Send(const json& message) {
        std::string line = message.dump() + "\n";
        DWORD written = 0;
        WriteFile(input_, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    }

    void CloseInput() {
        if (input_ != nullptr) CloseHandle(input_);
        input_ = nullptr;
    }

    // The next result or fault, skipping the notes of plugin calls. False at
    // the end of the output or after `timeoutMs` without one (`*timedOut`).
    bool Next(json* message, DWORD timeoutMs, bool* timedOut) {
        std::unique_lock<std::mutex> lock(lock_);
        *timedOut = false;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            if (!lines_.empty()) {
                *message = json::parse(lines_.front(), nullptr, false);
                lines_.pop_front();
                if (message->value("type", "") == "calling") {
                    lastCall_ = message->value("call", "");
                    continue;
                }
                if (!message->is_discarded()) return true;
                continue;
            }
            if (ended_) return false;
            if (changed_.wait_until(lock, deadline) == std::cv_status::timeout && lines_.empty() && !ended_) {
                *timedOut = true;
                return false;
            }
        }
    }

    std::string LastCall() {
        std::lock_guard<std::mutex> guard(lock_);
        return lastCall_;
    }

    // Waits up to `waitMs` for the process to end, ends it otherwise; its exit code.
    DWORD Stop(DWORD waitMs) {
        CloseInput();
        DWORD code = 0;
        if (process_ != nullptr) {
            if (WaitForSingleObject(process_, waitMs) != WAIT_OBJECT_0) TerminateProcess(process_, ERROR_TIMEOUT);
            WaitForSingleObject(process_, INFINITE);
            GetExitCodeProcess(process_, &code);
            CloseHandle(process_);
            process_ = nullptr;
        }
        if (reader_.joinable()) reader_.join();
        if (output_ != nullptr) CloseHandle(output_);
        output_ = nullptr;
        return code;
    }

private:
    void Read() {
        std::string pending;
        char chunk[4096];
        DWORD read = 0;
        while (ReadFile(output_, chunk, sizeof(chunk), &read, nullptr) && read > 0) {
            pending.append(chunk, read);
            std::lock_guard<std::mutex> guard(lock_);
            for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
                lines_.push_back(pending.substr(0, end));
            }
            changed_.notify_all();
        }
        std::lock_guard<std::mutex> guard(lock_);
        ended_ = true;
        changed_.notify_all();
    }

    HANDLE process_ = nullptr;
    HANDLE input_ = nullptr;
    HANDLE output_ = nullptr;
    std::thread reader_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::string> lines_;
    std::string lastCall_;
    bool ended_ = false;
};

// One argument of a command line, quoted as CommandLineToArgvW reads it back.
std::wstring Quote(const std::wstring& argument) {
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    return quoted.append(2 * backslashes, L'\\') + L"\"";
}

std::wstring WorkerCommandLine(const REPLAY_OPTIONS& options, const std::wstring& rules, const std::wstring& out,
                               int offset) {
    wchar_t self[MAX_PATH * 2];
    GetModuleFileNameW(nullptr, self, MAX_PATH * 2);
    std::wstring line = Quote(self) + L" replay-worker --rules " + Quote(rules) + L" --out " + Quote(out) +
                        L" --utc-offset " + std::to_wstring(offset);
    if (!options.model.empty()) line += L" --model " + Quote(Wide(options.model));
    if (!options.chassis.empty()) line += L" --chassis " + Quote(Wide(options.chassis));
    for (const std::string& plugin : options.rulePlugins) line += L" --rule-plugin " + Quote(Wide(plugin));
    for (const std::string& plugin : options.actionPlugins) line += L" --action-plugin " + Quote(Wide(plugin));
    return line;
}

// "YYYY-MM-DDThh:mm:ss" with "Z" or "+hh:mm"/"-hh:mm" (none: UTC) into UTC
// FILETIME and the offset of the local time it was written in.
bool ParseClock(const std::string& text, ULONGLONG* utc, int* offsetMinutes) {
    SYSTEMTIME time = {};
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
    if (sscanf(text.c_str(), "%4d-%2d-%2d%*1[T ]%2d:%2d:%2d%n", &year, &month, &day, &hour, &minute, &second, &used) <
        6) {
        return false;
    }
    const std::string zone = text.substr(static_cast<size_t>(used));
    int zoneHours = 0, zoneMinutes = 0;
    char sign = '+';
    if (!zone.empty() && zone != "Z" &&
        !(sscanf(zone.c_str(), "%1[+-]%2d:%2d", &sign, &zoneHours, &zoneMinutes) == 3 && zone.size() == 6)) {
        return false;
    }
    *offsetMinutes = (sign == '-' ? -1 : 1) * (zoneHours * 60 + zoneMinutes);
    time.wYear = static_cast<WORD>(year);
    time.wMonth = static_cast<WORD>(month);
    time.wDay = static_cast<WORD>(day);
    time.wHour = static_cast<WORD>(hour);
    time.wMinute = static_cast<WORD>(minute);
    time.wSecond = static_cast<WORD>(second);
    FILETIME local;
    if (!SystemTimeToFileTime(&time, &local) || hour > 23 || minute > 59 || second > 59) return false;
    *utc = ((static_cast<ULONGLONG>(local.dwHighDateTime) << 32) | local.dwLowDateTime) -
           static_cast<LONGLONG>(*offsetMinutes) * 60 * kSecond;
    return true;
}

// What differs between runs and is no finding: the sandbox's path, the
// machine's service tag, the alert ids (random per event), and the alerts'
// time stamps (plugins stamp theirs with the machine's clock).
json Normalised(const json& value, const std::string& out, const std::string& serviceTag) {
    if (value.is_object()) {
        json copy = json::object();
        for (auto it = value.begin(); it != value.end(); ++it) {
            copy[it.key()] = it.key() == "alertId" ? json("{alert-id}") : Normalised(it.value(), out, serviceTag);
        }
        return copy;
    }
    if (value.is_array()) {
        json copy = json::array();
        for (const json& element : value) copy.push_back(Normalised(element, out, serviceTag));
        return copy;
    }
    if (!value.is_string()) return value;
    static const std::regex patterns[] = {std::regex("<AlertId>[^<]*</AlertId>"),
                                          std::regex("<DateTime>[^<]*</DateTime>"),
                                          std::regex("<ServiceTag>[^<]*</ServiceTag>")};
    static const char* const placeholders[] = {"<AlertId>{alert-id}</AlertId>", "<DateTime>{time}</DateTime>",
                                               "<ServiceTag>{service-tag}</ServiceTag>"};
    std::string text = value.get<std::string>();
    const std::pair<std::string, std::string> variables[] = {{out, "{out}"},
                                                             {serviceTag + "-ZORA_Alerts_", "{service-tag}-ZORA_Alerts_"}};
    for (const auto& [variable, placeholder] : variables) {
        for (size_t at = 0; !out.empty() && (at = text.find(variable, at)) != std::string::npos;) {
            text.replace(at, variable.size(), placeholder);
            at += placeholder.size();
        }
    }
    for (size_t i = 0; i < 3; ++i) text = std::regex_replace(text, patterns[i], placeholders[i]);
    return text;
}

// The parts of a result a golden file holds the replay to.
json Compared(const json& result) {
    const std::string out = result.value("out", ""), tag = result.value("serviceTag", "");
    json start = result.contains("start") ? result["start"] : json::object();
    return Normalised({{"start", {{"status", start.value("status", json())}, {"rules", start.value("rules", json())}}},
                       {"results", result.value("results", json::array())}},
                      out, tag);
}

void Differences(const json& expected, const json& actual, const std::string& path, std::vector<std::string>* out) {
    if (expected.type() == actual.type() && expected.is_object()) {
        for (auto it = expected.begin(); it != expected.end(); ++it) {
            Differences(it.value(), actual.contains(it.key()) ? actual[it.key()] : json(), path + "." + it.key(), out);
        }
        for (auto it = actual.begin(); it != actual.end(); ++it) {
            if (!expected.contains(it.key())) Differences(json(), it.value(), path + "." + it.key(), out);
        }
    } else if (expected.type() == actual.type() && expected.is_array()) {
        for (size_t i = 0; i < expected.size() || i < actual.size(); ++i) {
            Differences(i < expected.size() ? expected[i] : json(), i < actual.size() ? actual[i] : json(),
                        path + "[" + std::to_string(i) + "]", out);
        }
    } else if (expected != actual) {
        out->push_back(path.substr(1) + ": expected " + (expected.is_null() ? "nothing" : expected.dump()) + ", got " +
                       (actual.is_null() ? "nothing" : actual.dump()));
    }
}

std::string Text(const json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

std::string EventText(const json& event) {
    const std::string kind = event.value("kind", "");
    if (kind == "rule") return "rule " + Text(event["guid"]) + " from " + Text(event["plugin"]);
    if (kind == "periodic") return "periodic record " + Text(event["code"]) + "/" + Text(event["subcode"]);
    return kind;
}

void PrintText(const json& result) {
    const json& start = result["start"];
    std::string out = "sandbox: " + result["out"].get<std::string>() + "\nclock: " + result["clock"].get<std::string>() +
                      "\nengine: " +
                      (start.contains("error") ? "did not start: " + Text(start["error"])
                                               : "G_STATUS " + Text(start["status"]) + " (" + Text(start["message"]) + ")") +
                      "\n";
    for (const json& rule : start.value("rules", json::array())) {
        out += "  rule " + Text(rule["index"]) + " " + Text(rule["name"]) +
               (rule["accepted"].get<bool>() ? ": loaded\n" : ": dropped: " + Text(rule["reason"]) + "\n");
    }
    for (const json& line : start.value("log", json::array())) out += "  log: " + Text(line) + "\n";
    for (const json& entry : result["results"]) {
        out += "line " + Text(entry["line"]);
        if (entry.contains("error")) {
            out += ": bad line: " + Text(entry["error"]) + "\n";
            continue;
        }
        out += ": " + EventText(entry["event"]) + " at " + Text(entry["at"]) + "\n";
        for (const char* failure : {"fault", "timeout", "restartFailure", "skipped"}) {
            if (entry.contains(failure)) out += "  " + std::string(failure) + ": " + Text(entry[failure]) + "\n";
        }
        if (entry.value("queued", true) == false) out += "  not queued: HRESULT " + Text(entry["hresult"]) + "\n";
        for (const json& asked : entry.value("asked", json::array())) {
            out += "  asked " + Text(asked["plugin"]) + " about rule " + Text(asked["rule"]) + ": " +
                   Text(asked["result"]) + (asked["fires"].get<bool>() ? " (fires)\n" : " (does not fire)\n");
        }
        for (const json& fired : entry.value("fired", json::array())) {
            out += "  fired: rule " + Text(fired["rule"]) + " " + Text(fired["name"]) + ", alert " +
                   Text(fired["alertId"]) + "\n";
        }
        for (const json& action : entry.value("actions", json::array())) {
            out += "  action " + Text(action["plugin"]) + " of rule " + Text(action["rule"]) + ": " +
                   Text(action["result"]) + (action["ok"].get<bool>() ? "\n" : " (failed)\n");
        }
        for (const json& end : entry.value("endEvaluation", json::array())) {
            if (!end["ok"].get<bool>()) out += "  end of evaluation " + Text(end["plugin"]) + ": " + Text(end["result"]) + "\n";
        }
        if (entry.contains("alertFile") && entry["alertFile"].is_string()) {
            out += "  alert file " + Text(entry["alertFile"]) +
                   (entry["stored"].get<bool>() ? ": stored" : ": not stored: " + Text(entry["storeFailure"])) +
                   (entry["kept"].get<bool>() ? ", kept" : ", removed") +
                   (entry["signalled"].get<bool>() ? ", alert event signalled\n" : "\n");
        }
        for (const json& line : entry.value("log", json::array())) out += "  log: " + Text(line) + "\n";
    }
    const json& summary = result["summary"];
    out += "replayed " + Text(summary["replayed"]) + " events: " + Text(summary["stored"]) + " alerts stored, " +
           Text(summary["badLines"]) + " bad lines, " + Text(summary["faults"]) + " faults, " +
           Text(summary["timeouts"]) + " time-outs\n";
    Print(out);
}

int Usage(const std::string& message) {
    fprintf(stderr, "omk-rules replay: %s\n", message.c_str());
    return OMK_EXIT_USAGE;
}

}  // namespace

int RunReplay(const REPLAY_OPTIONS& options) {
    namespace fs = std::filesystem;
    OMK_PLUGIN_LIST plugins;
    std::string error;
    if (!ParsePluginOptions(options.rulePlugins, &plugins, &error) ||
        !ParsePluginOptions(options.actionPlugins, &plugins, &error)) {
        return Usage(error);
    }
    for (const auto& plugin : plugins) {
        if (plugin.second.empty()) return Usage("a replay runs its plugins: give each as NAME=DLL");
    }
    const std::wstring rules = FullPath(options.rules);
    std::error_code failure;
    if (!fs::is_regular_file(rules, failure)) return Usage("cannot read " + options.rules);
    if (rules.size() > 260) return Usage("the rule file's path is longer than the 260 characters the service reads");
    std::vector<EVENTS_FILE_LINE> lines;
    if (!ReadEventsFile(FullPath(options.events), &lines, &error)) return Usage(error);
    for (const EVENTS_FILE_LINE& line : lines) {
        if (!line.ok && options.strict) {
            fprintf(stderr, "%s:%d: %s\n", options.events.c_str(), line.number, line.error.c_str());
            error = "bad line";
        }
    }
    if (!error.empty()) return OMK_EXIT_USAGE;
    ULONGLONG clock = 0;
    int offset = 0;
    if (options.clock.empty()) {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        clock = ((static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime) / kSecond * kSecond;
        TIME_ZONE_INFORMATION zone;
        DWORD kind = GetTimeZoneInformation(&zone);
        offset = -static_cast<int>(zone.Bias + (kind == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightBias : 0));
    } else if (!ParseClock(options.clock, &clock, &offset)) {
        return Usage("--clock takes YYYY-MM-DDThh:mm:ss with Z or +hh:mm: " + options.clock);
    }
    if (!options.out.empty() && fs::exists(FullPath(options.out), failure) &&
        !fs::is_empty(FullPath(options.out), failure)) {
        return Usage("the folder " + options.out + " is not empty");
    }
    Sandbox sandbox;
    if (!sandbox.Open(options.out.empty() ? std::wstring() : FullPath(options.out), &error)) return Usage(error);

    json result = {{"rulesFile", Utf8(rules)},
                   {"eventsFile", Utf8(FullPath(options.events))},
                   {"out", Utf8(sandbox.Folder())},
                   {"clock", IsoUtcText(clock)},
                   {"results", json::array()}};
    json summary = {{"replayed", 0}, {"stored", 0}, {"badLines", 0}, {"faults", 0}, {"timeouts", 0}};
    const std::wstring commandLine = WorkerCommandLine(options, rules, sandbox.Folder(), offset);
    const DWORD timeoutMs = options.timeoutSeconds * 1000;
    std::unique_ptr<Worker> worker;
    bool running = false;
    // Starts a worker and waits for its engine: the start record, or why there is none.
    auto start = [&]() {
        worker = std::make_unique<Worker>();
        json message;
        bool timedOut = false;
        if (!worker->Start(commandLine)) return json({{"error", "cannot start " + Utf8(commandLine)}});
        if (worker->Next(&message, timeoutMs, &timedOut) && message.value("type", "") == "start") {
            running = message.value("status", 1) == 0 && !message.contains("error");
            return message;
        }
        running = false;
        const std::string call = worker->LastCall().empty() ? "engine start-up" : worker->LastCall();
        if (timedOut) return json({{"error", "no answer within the time-out from " + call}});
        if (message.value("type", "") == "fault") {
            return json({{"error", "exception " + Text(message["code"]) + " in " + Text(message["call"])}});
        }
        return json({{"error", "the engine process ended (exit code " + std::to_string(worker->Stop(timeoutMs)) + ")"}});
    };
    // After a fault or a time-out the next event gets a new engine.
    auto restart = [&](json* entry) {
        json again = start();
        (*entry)["restarted"] = running;
        if (!running) (*entry)["restartFailure"] = again.contains("error") ? again["error"] : again;
    };
    result["start"] = start();
    result["serviceTag"] = result["start"].value("serviceTag", "");
    ULONGLONG at = clock;
    for (const EVENTS_FILE_LINE& line : lines) {
        json entry = {{"line", line.number}};
        if (!line.ok) {
            entry["error"] = line.error;
            summary["badLines"] = summary["badLines"].get<int>() + 1;
            result["results"].push_back(entry);
            continue;
        }
        entry["event"] = json::parse(line.text, nullptr, false);
        entry["at"] = IsoUtcText(at);
        if (!running) {
            entry["skipped"] = "the engine is not running";
            result["results"].push_back(entry);
            continue;
        }
        worker->Send({{"at", at}, {"event", line.text}});
        at += kSecond;
        json message;
        bool timedOut = false;
        if (worker->Next(&message, timeoutMs, &timedOut) && message.value("type", "") == "event") {
            entry.update(message["result"]);
            summary["replayed"] = summary["replayed"].get<int>() + 1;
            if (entry.value("stored", false)) summary["stored"] = summary["stored"].get<int>() + 1;
        } else if (timedOut) {
            entry["timeout"] = "no answer within " + std::to_string(options.timeoutSeconds) + " s from " +
                               (worker->LastCall().empty() ? "the engine" : worker->LastCall());
            summary["timeouts"] = summary["timeouts"].get<int>() + 1;
            worker->Stop(0);
            restart(&entry);
        } else {
            DWORD code = worker->Stop(timeoutMs);
            entry["fault"] = message.value("type", "") == "fault"
                                 ? "exception " + Text(message["code"]) + " in " + Text(message["call"])
                                 : "the engine process ended with exit code " + std::to_string(code);
            summary["faults"] = summary["faults"].get<int>() + 1;
            restart(&entry);
        }
        result["results"].push_back(entry);
    }
    if (running) {
        worker->CloseInput();
        json message;
        bool timedOut = false;
        if (worker->Next(&message, timeoutMs, &timedOut)) result["end"] = message;
    }
    worker->Stop(timeoutMs);
    result["summary"] = summary;
    if (options.json) {
        Print(result.dump(2) + "\n");
    } else {
        PrintText(result);
    }

    bool finding = !result["start"].contains("status") || result["start"]["status"] != 0 ||
                   summary["faults"] != 0 || summary["timeouts"] != 0;
    if (!options.expect.empty()) {
        std::ifstream golden(FullPath(options.expect).c_str(), std::ios::binary);
        json expected = json::parse(golden, nullptr, false);
        if (!golden || expected.is_discarded()) return Usage("cannot read the golden file " + options.expect);
        std::vector<std::string> differences;
        Differences(Compared(expected), Compared(result), "", &differences);
        for (size_t i = 0; i < differences.size() && i < kMaxDifferencesShown; ++i) {
            fprintf(stderr, "differs from %s: %s\n", options.expect.c_str(), differences[i].c_str());
        }
        if (differences.size() > kMaxDifferencesShown) {
            fprintf(stderr, "... and %u more differences\n",
                    static_cast<unsigned int>(differences.size() - kMaxDifferencesShown));
        }
        finding = finding || !differences.empty();
    }
    return finding ? OMK_EXIT_FINDING : OMK_EXIT_OK;
}
