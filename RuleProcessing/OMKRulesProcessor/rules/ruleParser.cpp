#include "ruleParser.h"

#include <stdlib.h>
#include <wchar.h>

#include "actionPlugin.h"
#include "conventions.h"
#include "omkErrors.h"
#include "rulePlugin.h"
#include "xmlAccess.h"

RULE* g_rules = nullptr;
DWORD g_numRules = 0;
unsigned int MaxAlertFiles = DEFAULT_MAX_ALERT_FILES;
unsigned int removeAlertFiles = 0;
wchar_t* g_ruleFileText = nullptr;
#ifdef OMK_REPLAY_SEAMS
void (*g_replayRuleObserver)(int ruleIndex, bool parsed, const RULE* rule) = nullptr;
#endif

namespace {

const char kSourceFile[] = "ruleParser.cpp";

const wchar_t kRulePath[] = L"/Tolvane/Rule";
const wchar_t kActionConfigPath[] = L"/Tolvane/ActionConfig";
const wchar_t kRuleConfigPath[] = L"/Tolvane/RuleConfig";
const wchar_t kRuleElementPath[] = L"/Rule";
const wchar_t kRuleActionPath[] = L"/Rule/Action";
const wchar_t kActionElementPath[] = L"/Action";

// A counted heap copy of `text`, or null when out of memory.
wchar_t* CopyText(const wchar_t* text) {
    size_t bytes = (wcslen(text) + 1) * sizeof(wchar_t);
    wchar_t* copy = static_cast<wchar_t*>(malloc(bytes));
    if (copy == nullptr) return nullptr;
    OmkFill(copy, bytes);
    ++g_allocCount;
    memcpy(copy, text, bytes);
    return copy;
}

void FreeText(wchar_t* text) {
    if (text == nullptr) return;
    free(text);
    --g_allocCount;
}

// The number in `text` as a wide-text integer conversion reads it: leading
// blanks, a sign, digits up to the first non-digit; no digits give 0.
int DecimalValue(const wchar_t* text) {
    return _wtoi(text);
}

// Releases a document made by LoadXML and leaves the apartment it entered.
void CloseDocument(IXMLDOMDocument* doc) {
    ReleaseXML(doc);
    CoUninitialize();
}

// The rule GUIDs of the table while a file is parsed, so that checking a new
// GUID against every earlier one does not make a large file quadratic. Open
// addressing over one counted block, at most half full.
struct GuidIndex {
    RULE** slots = nullptr;
    size_t mask = 0;

    // The same for any two GUIDs that compare equal ignoring case: only the
    // digits, which no case mapping changes, and the positions of the rest.
    static size_t Hash(const wchar_t* guid) {
        unsigned long long hash = 14695981039346656037ull;
        for (; *guid != L'\0'; ++guid) {
            wchar_t c = *guid >= L'0' && *guid <= L'9' ? *guid : L'*';
            hash = (hash ^ static_cast<unsigned long long>(c)) * 1099511628211ull;
        }
        return static_cast<size_t>(hash);
    }

    // Room for `rules` GUIDs; without it the check compares with every rule.
    void Open(unsigned int rules) {
        size_t size = 16;
        while (size < 2 * static_cast<size_t>(rules)) size *= 2;
        slots = static_cast<RULE**>(calloc(size, sizeof(RULE*)));
        if (slots == nullptr) return;
        ++g_allocCount;
        mask = size - 1;
    }

    void Close() {
        if (slots == nullptr) return;
        free(slots);
        --g_allocCount;
        slots = nullptr;
    }

    void Add(RULE* rule) {
        if (slots == nullptr) return;
        size_t at = Hash(rule->ruleGuid) & mask;
        while (slots[at] != nullptr) at = (at + 1) & mask;
        slots[at] = rule;
    }

    RULE* Find(const wchar_t* guid) const {
        for (size_t at = Hash(guid) & mask; slots[at] != nullptr; at = (at + 1) & mask) {
            if (_wcsicmp(slots[at]->ruleGuid, guid) == 0) return slots[at];
        }
        return nullptr;
    }
};

GuidIndex g_guidIndex;

// The documents of the rules and of the actions. Within a file parse one object
// each is loaded again for every rule and action (creating a document object
// costs far more than loading a rule into one) and released when the file is
// done; outside it, each parse of a rule or action has its own.
bool g_inFileParse = false;

struct ReusedDocument {
    IXMLDOMDocument* doc = nullptr;

    // Like LoadXML; the document stays here for the next load.
    IXMLDOMDocument* Load(const wchar_t* text) { return ReloadXML(&doc, text); }
    // Ends one load: the document is kept within a file parse, else released.
    // A failed load leaves its apartment entered, as LoadXML's caller does.
    void Close(bool loaded) {
        if (!g_inFileParse) Release();
        if (loaded) CoUninitialize();
    }
    void Release() {
        ReleaseXML(doc);
        doc = nullptr;
    }
};

ReusedDocument g_ruleDocument;
ReusedDocument g_actionDocument;

// One rule attribute, read as ParseRule reads them all: found with a value (maybe
// null), or not found, which is logged here. A failure after an earlier value
// was read also writes the assertion line.
struct RuleAttributeReader {
    IXMLDOMDocument* doc;
    int ruleIndex;
    bool valueRead = false;

    // True with `value` set (the caller frees it), false when not found.
    bool Read(const wchar_t* name, const wchar_t* defaultValue, BSTR* value, int line) {
        if (ReadXmlElementAttribute(doc, kRuleElementPath, 0, name, defaultValue, value) == XML_ATTRIBUTE_FOUND) {
            valueRead = true;
            return true;
        }
        OMK_ReportError(0, L"ParseRule: attribute %ws not found in rule %d", name, ruleIndex);
        if (valueRead) OmkAssertLine(line, kSourceFile);
        return false;
    }
};

// The text of the first `xpath` element of a rule document, copied to the heap.
// Each failure is logged with the caller's formats (each takes the rule index).
bool ReadRuleChild(IXMLDOMDocument* doc, const wchar_t* xpath, int ruleIndex, const wchar_t* readFailed,
                   const wchar_t* readNull, const wchar_t* copyFailed, wchar_t** out) {
    unsigned int count = 0;
    BSTR text = nullptr;
    if (!ReadXmlElement(doc, xpath, 0, &count, &text)) {
        OMK_ReportError(0, readFailed, ruleIndex);
        return false;
    }
    if (text == nullptr) {
        OMK_ReportError(0, readNull, ruleIndex);
        return false;
    }
    *out = CopyText(text);
    SysFreeString(text);
    if (*out == nullptr) {
        OMK_ReportError(0, copyFailed, ruleIndex);
        return false;
    }
    return true;
}

void ReadMaxAlertFiles(IXMLDOMDocument* doc) {
    unsigned int count = 0;
    BSTR text = nullptr;
    if (!ReadXmlElement(doc, L"/Tolvane/MaxAlertFiles", 0, &count, &text)) {
        OMK_ReportError(0, L"ReadMaxAlertFiles: default MaxAlertFiles");
        MaxAlertFiles = DEFAULT_MAX_ALERT_FILES;
        return;
    }
    if (text == nullptr) {
        OMK_ReportError(0, L"ReadMaxAlertFiles: null bstr - default MaxAlertFiles");
        MaxAlertFiles = DEFAULT_MAX_ALERT_FILES;
        return;
    }
    MaxAlertFiles = static_cast<unsigned int>(DecimalValue(text));
    SysFreeString(text);
}

// The file says whether alert files are created (kept); the flag stored is
// the inverse, whether they are removed.
void ReadCreateAlertFiles(IXMLDOMDocument* doc) {
    unsigned int count = 0;
    BSTR text = nullptr;
    removeAlertFiles = 0;
    if (!ReadXmlElement(doc, L"/Tolvane/CreateXmls", 0, &count, &text)) return;
    if (text == nullptr) {
        OMK_ReportError(0, L"ReadCreateAlertFiles: null bstr - default CreateAlertFiles %d", 1);
        return;
    }
    removeAlertFiles = DecimalValue(text) == 0 ? 1 : 0;
    SysFreeString(text);
}

// Walks the configuration blocks under `xpath` and stores each one's outer XML
// in the plugin that `find` returns for its "Type". `configOf` gives the plugin
// record's configXml; `unknownFormat` is logged for a type with no plugin, or
// null to go on silently.
template <typename Plugin>
int LoadPluginConfig(IXMLDOMDocument* doc, const wchar_t* xpath, Plugin* (*find)(const wchar_t*),
                     const wchar_t* unknownFormat) {
    unsigned int count = 0;
    if (!GetNumInstancesInXml(doc, xpath, &count) || count == 0) return 1;
    for (unsigned int i = 0; i < count; ++i) {
        BSTR type = nullptr;
        if (ReadXmlElementAttribute(doc, xpath, i, L"Type", nullptr, &type) != XML_ATTRIBUTE_FOUND) continue;
        if (type == nullptr) continue;
        Plugin* plugin = find(type);
        if (plugin == nullptr) {
            if (unknownFormat != nullptr) OMK_ReportError(0, unknownFormat, type);
            SysFreeString(type);
            continue;
        }
        SysFreeString(type);
        BSTR xml = nullptr;
        if (!ReadIthXmlTree(doc, xpath, i, &xml) || xml == nullptr) continue;
        // A later block for the same plugin wins; the earlier copy stays allocated.
        plugin->configXml = CopyText(xml);
        SysFreeString(xml);
        if (plugin->configXml == nullptr) return 0;
    }
    return 1;
}

}  // namespace

int LoadActionPluginConfig(IXMLDOMDocument* doc) {
    return LoadPluginConfig<ACTION_PLUGIN>(doc, kActionConfigPath, FindActionPlugin,
                                           L"LoadActionPluginConfig: Did not load plugin %ws");
}

int LoadRulePluginConfig(IXMLDOMDocument* doc) {
    return LoadPluginConfig<RULE_PLUGIN>(doc, kRuleConfigPath, FindRulePlugin, nullptr);
}

bool IsDuplicateRuleGuid(const wchar_t* guid) {
    // The table's GUIDs differ pairwise (ignoring case), so at most one matches.
    RULE* other = nullptr;
    if (g_guidIndex.slots != nullptr) {
        other = g_guidIndex.Find(guid);
    } else {
        for (RULE* rule = g_rules; rule != nullptr && other == nullptr; rule = rule->next) {
            if (rule->ruleGuid != nullptr && _wcsicmp(rule->ruleGuid, guid) == 0) other = rule;
        }
    }
    if (other == nullptr) return false;
    OMK_ReportError(0, L"IsDuplicateRuleGuid: Rule %ws is already using GUID %ws", other->name, other->ruleGuid);
    return true;
}

void FreeRule(RULE* rule) {
    if (rule == nullptr) return;
    FreeText(rule->xml);
    FreeText(rule->platform);
    FreeText(rule->descr);
    FreeText(rule->name);
    FreeText(rule->type);
    FreeText(rule->alertMsg);
    FreeText(rule->ruleGuid);
    RULE_ACTION* action = rule->actions;
    while (action != nullptr) {
        RULE_ACTION* next = action->next;
        FreeText(action->xml);
        FreeText(action->type);
        free(action);
        --g_allocCount;
        action = next;
    }
    free(rule);
    --g_allocCount;
}

void FreeRuleDefinitions() {
    FreeText(g_ruleFileText);
    g_ruleFileText = nullptr;
    RULE* rule = g_rules;
    while (rule != nullptr) {
        RULE* next = rule->next;
        FreeRule(rule);
        rule = next;
    }
    g_rules = nullptr;
    g_numRules = 0;
}

RULE_ACTION* ParseRuleAction(int ruleIndex, int actionIndex, const wchar_t* actionXml) {
    if (actionXml == nullptr) {
        OMK_ReportError(0, L"ParseRuleAction: rule %d action %d null xml", ruleIndex, actionIndex);
        return nullptr;
    }
    IXMLDOMDocument* doc = g_actionDocument.Load(actionXml);
    if (doc == nullptr) {
        OMK_ReportError(0, L"ParseRuleAction: unable to load XML for rule %d action %d %ws", ruleIndex, actionIndex,
                        actionXml);
        g_actionDocument.Close(false);
        return nullptr;
    }
    RULE_ACTION* action = static_cast<RULE_ACTION*>(calloc(1, sizeof(RULE_ACTION)));
    if (action == nullptr) {
        OMK_ReportError(0, L"ParseRuleAction: Error mallocing mem for rule %d action %d", ruleIndex, actionIndex);
        g_actionDocument.Close(true);
        return nullptr;
    }
    ++g_allocCount;

    bool ok = false;
    BSTR type = nullptr;
    action->xml = CopyText(actionXml);
    if (action->xml == nullptr) {
        OMK_ReportError(0, L"ParseRuleAction: Could not alloc mem for xml for rule %d action %d", ruleIndex,
                        actionIndex);
    } else if (ReadXmlElementAttribute(doc, kActionElementPath, 0, L"Type", nullptr, &type) != XML_ATTRIBUTE_FOUND) {
        OMK_ReportError(0, L"ParseRuleAction: attribute %ws not found in rule %d action %d", L"Type", ruleIndex,
                        actionIndex);
    } else if (type == nullptr) {
        OMK_ReportError(0, L"ParseRuleAction: Read NULL attribute %ws in rule %d action %d", L"Type", ruleIndex,
                        actionIndex);
    } else if ((action->type = CopyText(type)) == nullptr) {
        OMK_ReportError(0, L"ParseRuleAction: Could not alloc mem for type for rule %d action %d", ruleIndex,
                        actionIndex);
    } else if ((action->plugin = FindActionPlugin(action->type)) == nullptr) {
        // Unlike a rule, an action cannot wait for its plugin: it fails, and its rule with it.
        OMK_ReportError(0, L"ParseRuleAction: Could not find action plugin %ws for rule %d action %d", action->type,
                        ruleIndex, actionIndex);
    } else {
        ok = true;
    }
    SysFreeString(type);
    g_actionDocument.Close(true);
    if (ok) return action;
    FreeText(action->xml);
    FreeText(action->type);
    free(action);
    --g_allocCount;
    return nullptr;
}

namespace {

// The steps of ParseRule after the record exists. False drops the rule (the
// reason logged); the caller frees it and closes the document.
bool FillRule(IXMLDOMDocument* doc, int i, RULE* rule) {
    RuleAttributeReader attributes{doc, i};
    BSTR value = nullptr;

    if (!attributes.Read(L"Enabled", L"1", &value, __LINE__)) return false;
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: read NULL for attribute %ws in rule %d", L"Enabled", i);
        return false;
    }
    rule->enabled = _wcsicmp(value, L"1") == 0 ? 1 : 0;
    SysFreeString(value);
    if (!rule->enabled) {
        OMK_ReportError(0, L"ParseRule: Rule %d is not enabled", i);
        return false;
    }

    if (!attributes.Read(L"Platform", L"All", &value, __LINE__)) return false;
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: read NULL attribute %ws in rule %d", L"Platform", i);
        return false;
    }
    rule->platform = CopyText(value);
    SysFreeString(value);
    if (rule->platform == nullptr || !RuleAppliesToPlatform(rule->platform)) {
        OMK_ReportError(0, L"ParseRule: Rule %d does not apply (rule platform %ws)", i, rule->platform);
        return false;
    }

    if (!ReadRuleChild(doc, L"/Rule/Name", i, L"ParseRule: unable to read rule %d name",
                       L"ParseRule: read NULL for rule %d name", L"ParseRule: rule %d could not copy name - out of mem",
                       &rule->name)) {
        return false;
    }
    if (!ReadRuleChild(doc, L"/Rule/Descr", i, L"ParseRule: unable to read rule %d descr",
                       L"ParseRule: read NULL as rule %d descr",
                       L"ParseRule: rule %d could not copy descr - out of mem", &rule->descr)) {
        return false;
    }

    unsigned int count = 0;
    if (!ReadXmlElement(doc, L"/Rule/RuleGuid", 0, &count, &value)) {
        OMK_ReportError(0, L"ParseRule: unable to read ruleGuid for rule %d", i);
        return false;
    }
    if (count > 1) {
        OMK_ReportError(0, L"ParseRule: rule %d has multiple ruleGuids %d", i, static_cast<int>(count));
        SysFreeString(value);
        return false;
    }
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: rule %d read NULL ruleGuid", i);
        return false;
    }
    if (IsDuplicateRuleGuid(value)) {
        OMK_ReportError(0, L"ParseRule: Ignoring rule %d", i);
        SysFreeString(value);
        return false;
    }
    rule->ruleGuid = CopyText(value);
    SysFreeString(value);
    if (rule->ruleGuid == nullptr) {
        OMK_ReportError(0, L"ParseRule: rule %d could not copy ruleGuid - out of mem", i);
        return false;
    }

    if (!attributes.Read(L"OnSummary", L"0", &value, __LINE__)) return false;
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: read NULL attribute %ws in rule %d", L"OnSummary", i);
        return false;
    }
    rule->onSummary = _wcsicmp(value, L"1") == 0 ? 1 : 0;
    SysFreeString(value);
    if (!attributes.Read(L"OnPeriodicData", L"0", &value, __LINE__)) return false;
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: read NULL attribute %ws in rule %d", L"OnPeriodicData", i);
        return false;
    }
    rule->onPeriodicData = _wcsicmp(value, L"1") == 0 ? 1 : 0;
    SysFreeString(value);
    if (rule->onSummary && rule->onPeriodicData) {
        OMK_ReportError(0, L"ParseRule: How can Rule %d exec on SUMMARY as well as PERIODIC DATA ?", i);
        return false;
    }

    if (!attributes.Read(L"MaxTriggerPerBoot", L"0", &value, __LINE__)) return false;
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: read NULL for attribute %ws in rule %d", L"MaxTriggerPerBoot", i);
        return false;
    }
    rule->maxTriggerPerBoot = DecimalValue(value);
    SysFreeString(value);

    if (!ReadRuleChild(doc, L"/Rule/AlertMsg", i, L"ParseRule: unable to read alertMsg in rule %d ",
                       L"ParseRule: read NULL rule %d alertMsg",
                       L"ParseRule: rule %d could not copy alertMsg - out of mem", &rule->alertMsg)) {
        return false;
    }

    if (!attributes.Read(L"Type", nullptr, &value, __LINE__)) return false;
    if (value == nullptr) {
        OMK_ReportError(0, L"ParseRule: Read NULL attribute %ws in rule %d", L"Type", i);
        return false;
    }
    rule->type = CopyText(value);
    SysFreeString(value);
    if (rule->type == nullptr) {
        OMK_ReportError(0, L"ParseRule: rule %d could not copy type - out of mem", i);
        return false;
    }
    // No plugin of that name keeps the rule; it is reported when evaluated.
    rule->plugin = FindRulePlugin(rule->type);

    unsigned int numActions = 0;
    if (!GetNumInstancesInXml(doc, kRuleActionPath, &numActions)) {
        OMK_ReportError(0, L"ParseRule: Rule %d GetNumInstancesInXml %ws failed", i, kRuleActionPath);
        return false;
    }
    RULE_ACTION** tail = &rule->actions;
    for (unsigned int j = 0; j < numActions; ++j) {
        BSTR actionXml = nullptr;
        if (!ReadIthXmlTree(doc, kRuleActionPath, j, &actionXml)) {
            OMK_ReportError(0, L"ParseRule: unable to read XML for action %d from rule %d", static_cast<int>(j), i);
            return false;
        }
        if (actionXml == nullptr) {
            OMK_ReportError(0, L"ParseRule: read NULL XML for action %d from rule %d", static_cast<int>(j), i);
            return false;
        }
        RULE_ACTION* action = ParseRuleAction(i, static_cast<int>(j), actionXml);
        SysFreeString(actionXml);
        if (action == nullptr) {
            OMK_ReportError(0, L"ParseRule: ParseRuleAction failed for rule %d action %d", i, static_cast<int>(j));
            return false;
        }
        *tail = action;
        tail = &action->next;
    }
    return true;
}

}  // namespace

RULE* ParseRule(int ruleIndex, const wchar_t* ruleXml) {
    if (ruleXml == nullptr) return nullptr;
    IXMLDOMDocument* doc = g_ruleDocument.Load(ruleXml);
    if (doc == nullptr) {
        OMK_ReportError(0, L"ParseRule: unable to load XML for rule %d\n%ws", ruleIndex, ruleXml);
        g_ruleDocument.Close(false);
        return nullptr;
    }
    RULE* rule = static_cast<RULE*>(calloc(1, sizeof(RULE)));
    if (rule == nullptr) {
        OMK_ReportError(0, L"ParseRule: Error mallocing mem for rule %d", ruleIndex);
        g_ruleDocument.Close(true);
        return nullptr;
    }
    ++g_allocCount;
    // Settings are read before any rule, so every rule carries the file's values.
    rule->removeAlertFiles = removeAlertFiles;
    rule->maxAlertFiles = MaxAlertFiles;

    bool ok = false;
    rule->xml = CopyText(ruleXml);
    if (rule->xml == nullptr) {
        OMK_ReportError(0, L"ParseRule: Error mallocing mem for rule %d xml", ruleIndex);
    } else {
        ok = FillRule(doc, ruleIndex, rule);
    }
    g_ruleDocument.Close(true);
    if (ok) return rule;
    FreeRule(rule);
    return nullptr;
}

DWORD ParseRuleDefinitions(const wchar_t* text) {
    g_ruleFileText = nullptr;
    g_rules = nullptr;
    g_numRules = 0;

    IXMLDOMDocument* doc = LoadXML(text);
    if (doc == nullptr) {
        OMK_ReportError(0, L"ParseRuleDefintions: LoadXML failed");
        CoUninitialize();
        return RULES_NOT_XML;
    }
    // Only kept: nothing reads it back, and a copy that cannot be made costs nothing else.
    g_ruleFileText = CopyText(text);

    ReadMaxAlertFiles(doc);
    ReadCreateAlertFiles(doc);

    DWORD status = RULES_OK;
    unsigned int numRuleElements = 0;
    if (!LoadActionPluginConfig(doc)) {
        OMK_ReportError(0, L"ParseRuleDefintions: LoadActionPluginConfig failed");
        status = RULES_PARSE_FAILED;
    } else if (!LoadRulePluginConfig(doc)) {
        OMK_ReportError(0, L"ParseRuleDefintions: LoadRulePluginConfig failed");
        status = RULES_PARSE_FAILED;
    } else if (!GetNumInstancesInXml(doc, kRulePath, &numRuleElements)) {
        OMK_ReportError(0, L"ParseRuleDefintions: GetNumInstancesInXml %ws failed", kRulePath);
        status = RULES_PARSE_FAILED;
    } else if (numRuleElements == 0) {
        OMK_ReportError(0, L"ParseRuleDefintions: GetNumInstancesInXml %ws ret %d", kRulePath, 0);
        status = RULES_PARSE_FAILED;
    }

    RULE** tail = &g_rules;  // rules are appended in document order
    g_inFileParse = true;
    if (status == RULES_OK) g_guidIndex.Open(numRuleElements);
    for (unsigned int i = 0; status == RULES_OK && i < numRuleElements; ++i) {
        BSTR ruleXml = nullptr;
#ifdef OMK_REPLAY_SEAMS
        if (g_replayRuleObserver != nullptr) g_replayRuleObserver(static_cast<int>(i), false, nullptr);
#endif
        if (!ReadIthXmlTree(doc, kRulePath, i, &ruleXml)) {
            OMK_ReportError(0, L"ParseRuleDefintions: unable to read rule %d: xPath %ws", static_cast<int>(i),
                            kRulePath);
            status = RULES_PARSE_FAILED;
            break;
        }
        RULE* rule = ParseRule(static_cast<int>(i), ruleXml);
        SysFreeString(ruleXml);
#ifdef OMK_REPLAY_SEAMS
        if (g_replayRuleObserver != nullptr) g_replayRuleObserver(static_cast<int>(i), true, rule);
#endif
        if (rule == nullptr) continue;
        *tail = rule;
        tail = &rule->next;
        ++g_numRules;
        g_guidIndex.Add(rule);
    }
    g_guidIndex.Close();
    g_inFileParse = false;
    g_ruleDocument.Release();
    g_actionDocument.Release();
    if (status == RULES_OK && g_rules == nullptr) {
        OMK_ReportError(0, L"ParseRuleDefintions: No rules got added (numRules %d) !",
                        static_cast<int>(numRuleElements));
        status = RULES_PARSE_FAILED;
    }

    CloseDocument(doc);
    if (status != RULES_OK) FreeRuleDefinitions();
    return status;
}

void DumpRules() {
    wchar_t line[RULE_DUMP_CHARS];
    int number = 0;
    for (RULE* rule = g_rules; rule != nullptr; rule = rule->next, ++number) {
        OmkFill(line, sizeof(line));
        int used =
            _snwprintf(line, RULE_DUMP_CHARS - 1, L"RULE %d: %s, TYPE: %s, NAME: %s, EXEC: %s, ACTION(S): ", number,
                       rule->enabled ? L"Enabled" : L"Disabled", rule->type != nullptr ? rule->type : L"null",
                       rule->name != nullptr ? rule->name : L"null", rule->onSummary ? L"onSummary " : L"");
        for (RULE_ACTION* action = rule->actions; action != nullptr && used >= 0; action = action->next) {
            int added = _snwprintf(line + used, RULE_DUMP_CHARS - 1 - used, L"%s%s",
                                   action->type != nullptr ? action->type : L"null",
                                   action->plugin != nullptr ? L", " : L" *** NO PLUGIN **, ");
            used = added < 0 ? -1 : used + added;
        }
        line[RULE_DUMP_CHARS - 1] = L'\0';
        // Silent on purpose in this build: the line is composed for a debugger to look at.
    }
}
