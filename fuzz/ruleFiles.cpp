// Rule files: mutations of the sample insvcAlerts.xml and of the corpus, read
// as the service reads its rule file and run through the real start and stop
// path: the plugins loaded (the product's and the test plugins, under the
// names the files use), ParseRuleDefinitions, DumpRules, the plugins
// initialised with the configuration the file gave them, then the teardown.
// Every input must end with one of the parser's statuses, a rule table that
// keeps the parser's promises, and g_allocCount back where it was, less the
// one block the design leaks for each configuration block of a plugin that a
// later block of the same plugin replaced.
#include <windows.h>

#include <stdlib.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "actionPlugin.h"
#include "conventions.h"
#include "fuzzMutate.h"
#include "fuzzRunner.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "testPlugins.h"
#include "textFileHelpers.h"
#include "xmlAccess.h"

namespace {

constexpr size_t kMaxInputBytes = 10 * 1024 * 1024;

const std::vector<std::string> kNames = {
    "Tolvane",  "Rule",         "Action",    "Name",       "Descr",          "RuleGuid",          "AlertMsg",
    "MaxAlertFiles", "CreateXmls", "ActionConfig", "RuleConfig", "Match",  "Log",           "MaxSize",
    "Source",   "MaxDataBytes", "Enabled",   "Platform",   "OnSummary",      "OnPeriodicData",    "MaxTriggerPerBoot",
    "Type",     "Severity",     "Code",      "SubCode",    "Byte",           "AtLeast"};

// The blocks the parser leaks by design: for each plugin, every configuration
// block but the last that names it. Counted with the same reads the parser makes.
long long ReplacedConfigBlocks(const wchar_t* text) {
    IXMLDOMDocument* doc = LoadXML(text);
    if (doc == nullptr) {
        CoUninitialize();
        return 0;
    }
    std::map<const void*, long long> blocks;
    auto count = [&](const wchar_t* xpath, auto find) {
        unsigned int n = 0;
        GetNumInstancesInXml(doc, xpath, &n);
        for (unsigned int i = 0; i < n; ++i) {
            BSTR type = nullptr;
            if (ReadXmlElementAttribute(doc, xpath, i, L"Type", nullptr, &type) != XML_ATTRIBUTE_FOUND ||
                type == nullptr) {
                continue;
            }
            const void* plugin = find(type);
            SysFreeString(type);
            BSTR xml = nullptr;
            if (plugin != nullptr && ReadIthXmlTree(doc, xpath, i, &xml) && xml != nullptr) ++blocks[plugin];
            SysFreeString(xml);
        }
    };
    count(L"/Tolvane/ActionConfig", [](const wchar_t* name) { return static_cast<const void*>(FindActionPlugin(name)); });
    count(L"/Tolvane/RuleConfig", [](const wchar_t* name) { return static_cast<const void*>(FindRulePlugin(name)); });
    ReleaseXML(doc);
    CoUninitialize();
    long long leaked = 0;
    for (const auto& entry : blocks) leaked += entry.second - 1;
    return leaked;
}

std::wstring AsciiLower(const wchar_t* text) {
    std::wstring lower = text;
    for (wchar_t& c : lower) {
        if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c + 32);
    }
    return lower;
}

bool Empty(const wchar_t* text) { return text == nullptr || text[0] == L'\0'; }

// What the parser promises about the table it leaves.
std::string CheckTable(DWORD status) {
    if (status != RULES_OK && status != RULES_NOT_XML && status != RULES_PARSE_FAILED) {
        return "status " + std::to_string(status);
    }
    if (status != RULES_OK) {
        return g_rules == nullptr && g_numRules == 0 && g_ruleFileText == nullptr ? ""
                                                                                  : "a failed parse left a table";
    }
    if (g_rules == nullptr || g_ruleFileText == nullptr) return "status 0 without rules";
    DWORD count = 0;
    std::set<std::wstring> guids;
    for (const RULE* rule = g_rules; rule != nullptr; rule = rule->next, ++count) {
        const std::string at = " in rule " + std::to_string(count);
        if (rule->enabled != 1) return "a disabled rule" + at;
        if (Empty(rule->xml) || Empty(rule->platform) || Empty(rule->name) || Empty(rule->descr) ||
            Empty(rule->ruleGuid) || Empty(rule->alertMsg) || Empty(rule->type)) {
            return "a missing text" + at;
        }
        if (rule->onSummary > 1 || rule->onPeriodicData > 1 || (rule->onSummary && rule->onPeriodicData)) {
            return "summary and periodic flags" + at;
        }
        if (rule->maxAlertFiles != MaxAlertFiles || rule->removeAlertFiles != removeAlertFiles) {
            return "file settings" + at;
        }
        if (rule->plugin != FindRulePlugin(rule->type)) return "rule plugin binding" + at;
        if (!guids.insert(AsciiLower(rule->ruleGuid)).second) return "duplicate rule GUID" + at;
        for (const RULE_ACTION* action = rule->actions; action != nullptr; action = action->next) {
            if (Empty(action->xml) || Empty(action->type) || action->plugin == nullptr ||
                action->plugin != FindActionPlugin(action->type)) {
                return "an action without its plugin" + at;
            }
        }
    }
    return count == g_numRules ? "" : "g_numRules is not the table's length";
}

class RuleFiles : public omkfuzz::Subject {
public:
    const char* Title() const override { return "rule files"; }
    const wchar_t* Extension() const override { return L"xml"; }
    std::string Outcome() const override { return outcome_; }
    // Each load and unload of a plugin built with mingw-w64 whose code used a
    // thread_local keeps one TLS index of the process (the runtime's emulated
    // TLS never frees its key): harmless to the service, which loads its
    // plugins once, but a process runs out after about 1,400 of them.
    uint64_t InputsPerProcess() const override { return 500; }

    std::string Generate(uint64_t seed, uint64_t index, const std::vector<std::string>& corpus) override {
        omkfuzz::Random random = omkfuzz::InputRandom(seed, index);
        std::string text = random.Pick(corpus);
        if (random.OneIn(400)) omkfuzz::Grow(random, text, kMaxInputBytes);
        omkfuzz::Mutate(random, text, random.Pick(corpus), kNames, 1 + static_cast<int>(random.Size(3)));
        if (text.size() > kMaxInputBytes) text.resize(kMaxInputBytes);
        return text;
    }

    // The product's plugins and a test plugin of each kind, under the names the
    // corpus uses. Each is checked and loaded again for every input, as at a
    // service start: their signature checks are most of an input's time.
    void Prepare() override {
        omktest::InstallTestRoot();
        folder_ = std::make_unique<omktest::TempFolder>();
        file_ = folder_->File(L"insvcAlerts.xml");
        ruleKey_ = std::make_unique<omktest::PluginKey>(omktest::kRulePluginKey);
        actionKey_ = std::make_unique<omktest::PluginKey>(omktest::kActionPluginKey);
        const std::wstring rule = omktest::BuiltFile(omktest::kTestRulePlugin);
        const std::wstring action = omktest::BuiltFile(omktest::kTestActionPlugin);
        ruleKey_->Add(L"OMKCollectorRules", omktest::BuiltFile(L"omkCollectorRules.dll"));
        ruleKey_->Add(L"EventRules", rule);
        actionKey_->Add(L"OMKActionLog", omktest::BuiltFile(L"omkActionLog.dll"));
        actionKey_->Add(L"Notify", action);
    }

    std::string Run(const std::string& input, long long* allocDifference) override {
        omktest::WriteFileBytes(file_, input);
        const int before = g_allocCount;
        if (LoadRulePlugins() != 0 || LoadActionPlugins() != 0) return "the plugins did not load";
        wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(file_.c_str());
        if (text == nullptr) return "the rule file could not be read";
        const long long leaked = ReplacedConfigBlocks(text);
        const DWORD status = ParseRuleDefinitions(text);
        free(text);
        --g_allocCount;
        std::string broken = CheckTable(status);
        outcome_ = "status " + std::to_string(status);
        bool rulesInited = false, actionsInited = false;
        if (status == RULES_OK) {
            DumpRules();
            rulesInited = InitRulePlugins() == 0;
            actionsInited = rulesInited && InitActionPlugins() == 0;
        }
        // The engine's teardown: every close entry point before any unloading, actions first.
        if (actionsInited) CloseActionPlugins();
        if (rulesInited) CloseRulePlugins();
        UnloadActionPlugins();
        UnloadRulePlugins();
        FreeRuleDefinitions();
        *allocDifference = g_allocCount - before - leaked;
        return broken;
    }

private:
    std::string outcome_;
    std::unique_ptr<omktest::TempFolder> folder_;
    std::wstring file_;
    std::unique_ptr<omktest::PluginKey> ruleKey_;
    std::unique_ptr<omktest::PluginKey> actionKey_;
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
    RuleFiles subject;
    return omkfuzz::CampaignMain(subject, argc, argv);
}
