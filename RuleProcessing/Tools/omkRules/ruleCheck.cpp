#include "ruleCheck.h"

#include <stdlib.h>

#include <fstream>

#include "actionPlugin.h"
#include "conventions.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "textFileHelpers.h"
#include "tolvaneInit.h"
#include "toolSupport.h"
#include "xmlAccess.h"

namespace {

const wchar_t kRulePluginKey[] = L"Software\\Varn Inc.\\Orlemark\\RulePlugin";
const wchar_t kActionPluginKey[] = L"Software\\Varn Inc.\\Orlemark\\ActionPlugin";

// The plugins registered under `key`, as a listing (the loader reads them itself).
OMK_PLUGIN_LIST RegisteredPlugins(const wchar_t* key) {
    OMK_PLUGIN_LIST plugins;
    HKEY root = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &root) != ERROR_SUCCESS) return plugins;
    wchar_t name[256];
    for (DWORD i = 0, chars = 256; RegEnumKeyExW(root, i, name, &chars, nullptr, nullptr, nullptr, nullptr) ==
                                   ERROR_SUCCESS;
         ++i, chars = 256) {
        wchar_t path[MAX_PATH * 2] = {};
        DWORD bytes = sizeof(path) - sizeof(wchar_t);
        RegGetValueW(root, name, L"DllPath", RRF_RT_ANY, nullptr, path, &bytes);
        plugins.emplace_back(name, path);
    }
    RegCloseKey(root);
    return plugins;
}

// One plugin's entry: loaded (with its version) or why not, from the lines
// that name its DLL or its registry subkey.
template <typename Plugin>
json PluginEntry(const char* kind, const std::pair<std::wstring, std::wstring>& plugin, const char* source,
                 const Plugin* table, DWORD loaded, std::vector<std::string>* lines) {
    json entry = {{"kind", kind},
                  {"name", Utf8(plugin.first)},
                  {"dll", plugin.second.empty() ? json(nullptr) : json(Utf8(plugin.second))},
                  {"source", plugin.second.empty() && source[0] == 'g' ? "declared" : source}};
    for (DWORD i = 0; i < loaded; ++i) {
        if (plugin.first != table[i].name || (!plugin.second.empty() && plugin.second != table[i].dllPath)) continue;
        entry["loaded"] = table[i].hModule != nullptr;
        entry["version"] = std::to_string(table[i].versionMajor) + "." + std::to_string(table[i].versionMinor) + "." +
                           std::to_string(table[i].versionBuild) + "." + std::to_string(table[i].versionRevision);
        entry["result"] = table[i].hModule != nullptr ? "signature valid, exports found" : "named only, no DLL checked";
        return entry;
    }
    std::vector<std::string> reasons;
    const std::string path = Utf8(plugin.second), name = " " + Utf8(plugin.first) + " ";
    for (auto line = lines->begin(); line != lines->end();) {
        bool mine = (!path.empty() && line->find(path) != std::string::npos) || line->find(name) != std::string::npos;
        if (mine) reasons.push_back(*line);
        line = mine ? lines->erase(line) : line + 1;
    }
    entry["loaded"] = false;
    entry["result"] = reasons.empty() ? json("not loaded: the service stopped before this plugin") : JoinedOrNull(reasons);
    return entry;
}

json ConfigBlocks(IXMLDOMDocument* doc) {
    json blocks = json::array();
    for (const wchar_t* element : {L"ActionConfig", L"RuleConfig"}) {
        const std::wstring xpath = std::wstring(L"/Tolvane/") + element;
        unsigned int count = 0;
        GetNumInstancesInXml(doc, xpath.c_str(), &count);
        for (unsigned int i = 0; i < count; ++i) {
            BSTR type = nullptr;
            ReadXmlElementAttribute(doc, xpath.c_str(), i, L"Type", nullptr, &type);
            const wchar_t* plugin = nullptr;
            if (type != nullptr) {
                if (element[0] == L'A' && FindActionPlugin(type) != nullptr) plugin = FindActionPlugin(type)->name;
                if (element[0] == L'R' && FindRulePlugin(type) != nullptr) plugin = FindRulePlugin(type)->name;
            }
            blocks.push_back({{"element", Utf8(element)},
                              {"type", type != nullptr ? json(Utf8(type)) : json(nullptr)},
                              {"plugin", plugin != nullptr ? json(Utf8(plugin)) : json(nullptr)}});
            SysFreeString(type);
        }
    }
    return blocks;
}

// What the file looks like, for the encodings the service does not read.
json EncodingNotes(const std::wstring& path, DWORD status) {
    json notes = json::array();
    std::ifstream file(path.c_str(), std::ios::binary);
    char head[4] = {};
    file.read(head, sizeof(head));
    // A byte-order mark, or ASCII text with every other byte zero.
    bool utf16 = (head[0] == '\xFF' && head[1] == '\xFE') || (head[0] == '\xFE' && head[1] == '\xFF') ||
                 (file.gcount() == 4 && (head[0] == 0) != (head[1] == 0) && (head[2] == 0) != (head[3] == 0));
    if (utf16) notes.push_back("the file is UTF-16; the service reads rule files as UTF-8");
    if (status == 7 && head[0] == '\xEF' && head[1] == '\xBB' && head[2] == '\xBF') {
        notes.push_back("the file begins with a UTF-8 byte-order mark; save it without one");
    }
    return notes;
}

std::string Quoted(const json& value) {
    return value.is_string() ? "\"" + value.get<std::string>() + "\"" : "(none)";
}

void PrintReport(const json& report) {
    std::string out = "rule file: " + report["rulesFile"].get<std::string>() + "\n";
    const json& machine = report["machine"];
    out += "machine: model " + Quoted(machine["model"]) + ", chassis " + machine["chassis"].get<std::string>() +
           (machine["given"].empty() ? " (this machine)" : " (given)") + "\n";
    for (const json& rule : report["rules"]) {
        out += "rule " + std::to_string(rule["index"].get<int>()) + ": " +
               (rule["accepted"].get<bool>() ? "accepted" : "dropped") + ", " + Quoted(rule["name"]) + ", " +
               Quoted(rule["guid"]);
        if (rule["reason"].is_string()) out += ": " + rule["reason"].get<std::string>();
        if (rule.contains("log")) out += " (logged: " + rule["log"].get<std::string>() + ")";
        if (rule.contains("plugin") && rule["plugin"].is_null()) {
            out += " (its rule plugin is not loaded: it counts as fired on every event it takes part in)";
        }
        out += "\n";
    }
    if (!report["settings"].is_null()) {
        const json& settings = report["settings"];
        out += "settings: MaxAlertFiles " + std::to_string(settings["MaxAlertFiles"].get<unsigned int>()) +
               ", CreateXmls " + Quoted(settings["CreateXmls"]) +
               (settings["alertFilesKept"].get<bool>() ? " (alert files kept)" : " (alert files removed once stored)") +
               "\n";
    }
    for (const json& block : report["configBlocks"]) {
        out += "config: " + block["element"].get<std::string>() + " " + Quoted(block["type"]) +
               (block["plugin"].is_string() ? " binds to plugin " + block["plugin"].get<std::string>()
                                            : " binds to no loaded plugin") +
               "\n";
    }
    for (const json& plugin : report["plugins"]) {
        out += "plugin: " + plugin["kind"].get<std::string>() + " " + plugin["name"].get<std::string>() + " (" +
               plugin["source"].get<std::string>() + (plugin["dll"].is_string() ? ", " + plugin["dll"].get<std::string>() : "") +
               "): " + (plugin["loaded"].get<bool>() ? "loaded, version " + plugin["version"].get<std::string>() + ", " : "") +
               plugin["result"].get<std::string>() + "\n";
    }
    for (const json& note : report["notes"]) out += "note: " + note.get<std::string>() + "\n";
    out += std::string("would start: ") + (report["wouldStart"].get<bool>() ? "yes" : "no") + ", G_STATUS " +
           std::to_string(report["status"].get<unsigned int>()) + ": " + report["message"].get<std::string>() + "\n";
    for (const json& line : report["log"]) out += "  " + line.get<std::string>() + "\n";
    Print(out);
}

}  // namespace

int RunCheck(const CHECK_OPTIONS& options) {
    OMK_PLUGIN_LIST rulePlugins, actionPlugins;
    std::string error;
    Sandbox sandbox;
    if (!ParsePluginOptions(options.rulePlugins, &rulePlugins, &error) ||
        !ParsePluginOptions(options.actionPlugins, &actionPlugins, &error) || !sandbox.Open(L"", &error)) {
        fprintf(stderr, "omk-rules check: %s\n", error.c_str());
        return OMK_EXIT_USAGE;
    }
    ErrorLogTail log(sandbox.Folder() + L"\\omk-rules-check.log");
    OverrideMachineIdentity(options.model, options.chassis);
    const std::wstring path = options.rules.empty() ? InstalledRuleFile() : FullPath(options.rules);
    if (path.size() > 260) {
        fprintf(stderr, "omk-rules check: the rule file's path is longer than the 260 characters the service reads\n");
        return OMK_EXIT_USAGE;
    }
    if (!options.rules.empty()) g_replayRuleFile = path.c_str();
    const OMK_PLUGIN_LIST listedRules = options.rulePlugins.empty() ? RegisteredPlugins(kRulePluginKey) : rulePlugins;
    const OMK_PLUGIN_LIST listedActions =
        options.actionPlugins.empty() ? RegisteredPlugins(kActionPluginKey) : actionPlugins;
    if (!options.rulePlugins.empty()) g_replayRulePlugins = &rulePlugins;
    if (!options.actionPlugins.empty()) g_replayActionPlugins = &actionPlugins;

    RuleParseRecorder recorder(&log);
    const DWORD status = Tolvane_LoadDefinitions();
    std::vector<std::string> lines = recorder.Before();
    for (std::string& line : log.Take()) lines.push_back(std::move(line));

    json report = {{"rulesFile", Utf8(path)}, {"machine", MachineIdentity()}};
    const bool fileRead = status == 0 || status == 7;
    wchar_t* text = fileRead ? ReadMultiByteUtf8FileIntoTCHARString(path.c_str()) : nullptr;
    IXMLDOMDocument* doc = text != nullptr ? LoadXML(text) : nullptr;
    report["rules"] = recorder.Rules(text);
    report["settings"] = nullptr;
    report["configBlocks"] = json::array();
    if (doc != nullptr) {
        unsigned int count = 0;
        BSTR createXmls = nullptr;
        ReadXmlElement(doc, L"/Tolvane/CreateXmls", 0, &count, &createXmls);
        report["settings"] = {{"MaxAlertFiles", MaxAlertFiles},
                              {"CreateXmls", createXmls != nullptr ? json(Utf8(createXmls)) : json(nullptr)},
                              {"alertFilesKept", removeAlertFiles == 0}};
        SysFreeString(createXmls);
        report["configBlocks"] = ConfigBlocks(doc);
        ReleaseXML(doc);
    }
    if (text != nullptr) {
        CoUninitialize();
        free(text);
        --g_allocCount;
    }
    log.Take();  // the report's own reads are not the service's

    report["plugins"] = json::array();
    const char* ruleSource = options.rulePlugins.empty() ? "registry" : "given";
    const char* actionSource = options.actionPlugins.empty() ? "registry" : "given";
    for (const auto& plugin : listedRules) {
        report["plugins"].push_back(
            PluginEntry("rule", plugin, ruleSource, g_rulePlugins, g_numRulePlugins, &lines));
    }
    for (const auto& plugin : listedActions) {
        report["plugins"].push_back(
            PluginEntry("action", plugin, actionSource, g_actionPlugins, g_numActionPlugins, &lines));
    }
    report["notes"] = EncodingNotes(path, status);
    if (!fileRead && status != 9) {
        report["notes"].push_back("the rules were not checked: the service stops before it reads the rule file; "
                                  "--rule-plugin and --action-plugin name plugins instead");
    }
    report["wouldStart"] = status == 0;
    report["status"] = status;
    report["message"] = StatusMeaning(status);
    report["log"] = lines;
    if (options.json) {
        Print(report.dump(2) + "\n");
    } else {
        PrintReport(report);
    }
    return status == 0 ? OMK_EXIT_OK : status == 9 ? OMK_EXIT_USAGE : OMK_EXIT_FINDING;
}
