#include "toolSupport.h"

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <regex>

#include "cdef.h"
#include "omkErrors.h"
#include "ruleParser.h"
#include "systemIdentity.h"
#include "xmlAccess.h"

namespace fs = std::filesystem;

namespace {

RuleParseRecorder* g_recorder = nullptr;
std::string g_modelGiven;
std::string g_chassisGiven;

// The text of the first `xpath` element of `doc`, or null.
json ElementText(IXMLDOMDocument* doc, const wchar_t* xpath) {
    unsigned int count = 0;
    BSTR text = nullptr;
    json value = nullptr;
    if (ReadXmlElement(doc, xpath, 0, &count, &text) && text != nullptr) value = Utf8(text);
    SysFreeString(text);
    return value;
}

}  // namespace

Sandbox::~Sandbox() {
    std::error_code ignored;
    if (temporary_) fs::remove_all(folder_, ignored);
}

bool Sandbox::Open(const std::wstring& folder, std::string* error) {
    std::error_code failure;
    if (folder.empty()) {
        wchar_t temp[MAX_PATH + 1];
        DWORD chars = GetTempPathW(MAX_PATH, temp);
        folder_ = std::wstring(temp, chars) + L"omk-rules-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                  std::to_wstring(GetTickCount());
        temporary_ = true;
    } else {
        folder_ = folder;
    }
    while (!folder_.empty() && (folder_.back() == L'\\' || folder_.back() == L'/')) folder_.pop_back();
    fs::create_directories(folder_, failure);
    if (!fs::is_directory(folder_, failure)) {
        *error = "cannot create the folder " + Utf8(folder_);
        return false;
    }
    if (!SetEnvironmentVariableW(L"ProgramData", folder_.c_str())) {
        *error = "cannot set ProgramData";
        return false;
    }
    return true;
}

bool StorageIsInside(const std::wstring& folder) {
    const std::wstring storage = CDef::GetInstance().FOLDER_OMK_STORAGE_LOCATION;
    return storage.size() > folder.size() && _wcsnicmp(storage.c_str(), folder.c_str(), folder.size()) == 0 &&
           storage[folder.size()] == L'\\';
}

ErrorLogTail::ErrorLogTail(const std::wstring& name) {
    OMK_SetErrorLogName(name.c_str());
    wchar_t path[MAX_PATH * 2];
    if (OMK_GetErrorLogPath(path, MAX_PATH * 2) != 0) path_ = path;
    std::error_code ignored;
    offset_ = fs::exists(path_, ignored) ? fs::file_size(path_, ignored) : 0;
}

std::string ErrorLogTail::ReadFrom(const std::wstring& path, ULONGLONG from, ULONGLONG* end) const {
    std::string bytes;
    *end = from;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return bytes;
    LARGE_INTEGER size = {}, start = {};
    start.QuadPart = static_cast<LONGLONG>(from);
    if (GetFileSizeEx(file, &size) && static_cast<ULONGLONG>(size.QuadPart) > from &&
        SetFilePointerEx(file, start, nullptr, FILE_BEGIN)) {
        bytes.resize(static_cast<size_t>(size.QuadPart - start.QuadPart));
        DWORD read = 0;
        ReadFile(file, &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr);
        bytes.resize(read);
    }
    CloseHandle(file);
    // Only whole reports: one is written at once and ends with CR LF.
    size_t whole = bytes.rfind("\r\n");
    bytes.resize(whole == std::string::npos ? 0 : whole + 2);
    *end = from + bytes.size();
    return bytes;
}

std::vector<std::string> ErrorLogTail::Take() {
    std::vector<std::string> messages;
    if (path_.empty()) return messages;
    std::error_code ignored;
    ULONGLONG size = fs::exists(path_, ignored) ? fs::file_size(path_, ignored) : 0;
    std::string text;
    ULONGLONG end = 0;
    if (size < offset_) {  // the log was moved to its backup meanwhile
        text = ReadFrom(path_ + L".bak", offset_, &end);
        offset_ = 0;
    }
    text += ReadFrom(path_, offset_, &offset_);
    // "2024-03-03 14:05:09.123 pid tid code message"; a message may span lines.
    static const std::regex head(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \d+ \d+ \d+ )");
    size_t at = 0;
    while (at < text.size()) {
        size_t lineEnd = text.find("\r\n", at);
        std::string line = text.substr(at, lineEnd - at);
        at = lineEnd + 2;
        std::smatch match;
        if (std::regex_search(line, match, head)) {
            messages.push_back(match.suffix());
        } else if (!messages.empty()) {
            messages.back() += "\n" + line;
        } else {
            messages.push_back(line);
        }
    }
    return messages;
}

void OverrideMachineIdentity(const std::string& model, const std::string& chassis) {
    g_modelGiven = model;
    g_chassisGiven = chassis;
    if (!model.empty()) SetModelForTest(Wide(model).c_str());
    // Raw chassis types: 3 a desktop, 10 a notebook, 0 none read (counted as a desktop).
    if (!chassis.empty()) SetChassisTypeForTest(chassis == "laptop" ? 10 : chassis == "desktop" ? 3 : 0);
}

json MachineIdentity() {
    wchar_t model[OMK_MODEL_CHARS] = {};
    json identity;
    identity["model"] = GetModel(model) ? json(Utf8(model)) : json(nullptr);
    identity["chassis"] = g_chassisGiven == "unknown" ? "unknown (counts as desktop)"
                                                      : GetChassisType() == CT_LAPTOP ? "laptop" : "desktop";
    identity["given"] = json::array();
    if (!g_modelGiven.empty()) identity["given"].push_back("model");
    if (!g_chassisGiven.empty()) identity["given"].push_back("chassis");
    return identity;
}

std::wstring FullPath(const std::string& utf8Path) {
    const std::wstring path = Wide(utf8Path);
    std::wstring full(MAX_PATH * 4, L'\0');
    DWORD chars = path.empty() ? 0 : GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), &full[0], nullptr);
    full.resize(chars < full.size() ? chars : 0);
    return full;
}

bool ParsePluginOptions(const std::vector<std::string>& options, OMK_PLUGIN_LIST* list, std::string* error) {
    for (const std::string& option : options) {
        size_t equals = option.find('=');
        std::wstring name = Wide(option.substr(0, equals));
        std::wstring dll = equals == std::string::npos ? std::wstring() : FullPath(option.substr(equals + 1));
        if (name.empty() || name.size() >= OMK_PLUGIN_NAME_CHARS || (equals != std::string::npos && dll.empty())) {
            *error = "a plugin is NAME or NAME=DLL (a name of at most 127 characters): " + option;
            return false;
        }
        if (dll.size() >= OMK_PLUGIN_PATH_CHARS) {
            *error = "the plugin's path is longer than the 259 characters the service takes: " + option;
            return false;
        }
        list->emplace_back(name, dll);
    }
    return true;
}

std::wstring InstalledRuleFile() {
    return std::wstring(CDef::GetInstance().FOLDER_OMK_INSTALL_LOCATION) + L"\\insvcAlerts.xml";
}

RuleParseRecorder::RuleParseRecorder(ErrorLogTail* log) : log_(log) {
    g_recorder = this;
    g_replayRuleObserver = Observe;
}

RuleParseRecorder::~RuleParseRecorder() {
    g_replayRuleObserver = nullptr;
    g_recorder = nullptr;
}

void RuleParseRecorder::Observe(int ruleIndex, bool parsed, const RULE* rule) {
    std::vector<std::string> lines = g_recorder->log_->Take();
    g_recorder->parsed_ = true;
    if (!parsed) {
        // Logged before this rule: the plugins, the settings, the configuration blocks.
        auto& before = g_recorder->before_;
        before.insert(before.end(), lines.begin(), lines.end());
        return;
    }
    g_recorder->seen_.push_back({ruleIndex, rule, lines});
}

int RuleParseRecorder::IndexOf(const RULE* rule) const {
    for (const Seen& seen : seen_) {
        if (seen.rule == rule) return seen.index;
    }
    return -1;
}

json RuleParseRecorder::Rules(const wchar_t* ruleFileText) {
    json rules = json::array();
    IXMLDOMDocument* file = ruleFileText != nullptr ? LoadXML(ruleFileText) : nullptr;
    unsigned int count = 0;
    if (file != nullptr) GetNumInstancesInXml(file, L"/Tolvane/Rule", &count);
    for (unsigned int i = 0; i < count; ++i) {
        json entry = {{"index", i}, {"name", nullptr}, {"guid", nullptr}};
        BSTR xml = nullptr;
        IXMLDOMDocument* rule = ReadIthXmlTree(file, L"/Tolvane/Rule", i, &xml) ? LoadXML(xml) : nullptr;
        if (rule != nullptr) {
            entry["name"] = ElementText(rule, L"/Rule/Name");
            entry["guid"] = ElementText(rule, L"/Rule/RuleGuid");
            ReleaseXML(rule);
        }
        if (xml != nullptr) CoUninitialize();
        SysFreeString(xml);
        const Seen* seen = nullptr;
        for (const Seen& candidate : seen_) {
            if (candidate.index == static_cast<int>(i)) seen = &candidate;
        }
        const bool accepted = seen != nullptr && seen->rule != nullptr;
        entry["accepted"] = accepted;
        entry["reason"] = accepted ? json(nullptr)
                                   : seen != nullptr ? JoinedOrNull(seen->reasons)
                                                     : json("the parse stopped before this rule");
        if (accepted) {
            entry["plugin"] = seen->rule->plugin != nullptr ? json(Utf8(seen->rule->type)) : json(nullptr);
            if (!seen->reasons.empty()) entry["log"] = JoinedOrNull(seen->reasons);
        }
        rules.push_back(entry);
    }
    if (file != nullptr) ReleaseXML(file);
    if (ruleFileText != nullptr) CoUninitialize();
    log_->Take();  // what reading the names logged is not the service's
    return rules;
}

std::string StatusMeaning(DWORD status) {
    switch (status) {
        case 0:
            return "the engine starts";
        case 1:
            return "no plugin of a kind loaded, or no rule in the table (or the alert event, the database library "
                   "or the engine thread failed)";
        case 2:
            return "out of memory loading the plugins";
        case 5:
            return "a plugin registry key is missing";
        case 7:
            return "the rule file was read but could not be parsed";
        case 9:
            return "the rule file could not be read";
        default:
            return "a plugin's initialiser failed with this code";
    }
}

json JoinedOrNull(const std::vector<std::string>& lines) {
    if (lines.empty()) return nullptr;
    std::string joined;
    for (const std::string& line : lines) joined += (joined.empty() ? "" : "; ") + line;
    return joined;
}

void Print(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}
