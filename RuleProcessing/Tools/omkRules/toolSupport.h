// What both omk-rules commands need around the engine's own code: a data
// sandbox, the error log read back, the machine identity and the plugins
// given on the command line, and the per-rule record of a parse.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "eventsFile.h"
#include "rulePlugin.h"

using nlohmann::json;

// Exit codes of both commands.
constexpr int OMK_EXIT_OK = 0;
constexpr int OMK_EXIT_FINDING = 1;  // would not start, a fault, a difference from the golden file
constexpr int OMK_EXIT_USAGE = 2;    // bad command line, unreadable input

// Makes `folder` (created when missing) this process's ProgramData before
// anything computes the product's folders: the engine, omkErrors.dll and
// omkDb.dll then keep every data folder (alerts, database, logs) under it.
// An empty `folder` means a new temporary one, removed again on destruction.
class Sandbox {
public:
    Sandbox() = default;
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    bool Open(const std::wstring& folder, std::string* error);
    const std::wstring& Folder() const { return folder_; }

private:
    std::wstring folder_;
    bool temporary_ = false;
};

// True when the product's storage folder of this process lies in `folder`,
// so that nothing is written to the machine's own product data.
bool StorageIsInside(const std::wstring& folder);

// Names this process's error log (a bare name goes into the product's log
// folder) and reads back what is logged from then on: each report's message,
// without its time, process, thread and code, as the log words it.
class ErrorLogTail {
public:
    explicit ErrorLogTail(const std::wstring& name);
    // The messages logged since construction or the last Take().
    std::vector<std::string> Take();
    const std::wstring& Path() const { return path_; }

private:
    std::string ReadFrom(const std::wstring& path, ULONGLONG from, ULONGLONG* end) const;

    std::wstring path_;
    ULONGLONG offset_ = 0;
};

// --model and --chassis ("desktop", "laptop", "unknown"); empty keeps what
// this machine reports. Must run before the rule file is parsed.
void OverrideMachineIdentity(const std::string& model, const std::string& chassis);
// The identity the platform filter sees, for the reports.
json MachineIdentity();

// Plugins of the command line: "NAME" (named only) or "NAME=DLL". False, with
// `error` set, for an empty name; DLL paths become full paths.
bool ParsePluginOptions(const std::vector<std::string>& options, OMK_PLUGIN_LIST* list, std::string* error);

// A file path of the command line as a full path.
std::wstring FullPath(const std::string& utf8Path);

// The rule file the service reads: "insvcAlerts.xml" in the install folder.
std::wstring InstalledRuleFile();

// Records, for each "/Tolvane/Rule" element the parser goes through, whether
// it was added and the reasons logged for it. Installed while it exists.
class RuleParseRecorder {
public:
    explicit RuleParseRecorder(ErrorLogTail* log);
    ~RuleParseRecorder();
    RuleParseRecorder(const RuleParseRecorder&) = delete;
    RuleParseRecorder& operator=(const RuleParseRecorder&) = delete;

    // The messages logged before the first rule (plugins, settings, blocks).
    const std::vector<std::string>& Before() const { return before_; }
    // True once the parser went through a rule element.
    bool Parsed() const { return parsed_; }
    // The rule's number in the file, or -1 for a rule not seen.
    int IndexOf(const RULE* rule) const;
    // One object per rule element of `ruleFileText`: index, name, guid,
    // accepted, reason (a dropped rule's messages joined with "; "), and for
    // an accepted rule its plugin (null: none loaded) and what was logged.
    json Rules(const wchar_t* ruleFileText);

private:
    static void Observe(int ruleIndex, bool parsed, const RULE* rule);

    struct Seen {
        int index;
        const RULE* rule;
        std::vector<std::string> reasons;
    };
    ErrorLogTail* log_;
    std::vector<std::string> before_;
    std::vector<Seen> seen_;
    bool parsed_ = false;
};

// The G_STATUS of a start-up and a few words on it.
std::string StatusMeaning(DWORD status);

// "a; b; c", or null for none.
json JoinedOrNull(const std::vector<std::string>& lines);

// Writes UTF-8 text to standard output.
void Print(const std::string& text);
