// The rule table: the rules of "insvcAlerts.xml" parsed into a list of RULE
// records, each bound to its rule plugin and its actions to action plugins,
// plus the file-wide alert-file settings. Parsed once on the start-up thread,
// after the plugins are loaded and before they are initialised; read by the
// engine thread afterwards and freed at shutdown. No lock guards any of it.
#pragma once

#include <windows.h>

#include <msxml.h>

#include "omkPluginSdk.h"

// Results of Tolvane_LoadRuleDefinitions and ParseRuleDefinitions.
constexpr DWORD RULES_OK = 0;
constexpr DWORD RULES_NOT_XML = 6;       // the text is no XML document
constexpr DWORD RULES_PARSE_FAILED = 7;  // every other parse failure
constexpr DWORD RULES_READ_FAILED = 9;   // the rule file could not be read

// Limit on kept alert files when the file gives none.
constexpr unsigned int DEFAULT_MAX_ALERT_FILES = 30;
// Size of the line DumpRules composes, in characters.
constexpr int RULE_DUMP_CHARS = 4096;

// Head of the rule table in document order; null while empty. Owns its rules.
extern RULE* g_rules;
// Number of rules added to the table by the last parse.
extern DWORD g_numRules;
// Limit on alert files and database records ("/Tolvane/MaxAlertFiles", default 30).
extern unsigned int MaxAlertFiles;
// 1 when "/Tolvane/CreateXmls" is 0: each alert XML file is deleted once stored.
extern unsigned int removeAlertFiles;
// Private heap copy of the rule file's text, kept from a successful parse until
// FreeRuleDefinitions; null otherwise. Counted in g_allocCount.
extern wchar_t* g_ruleFileText;

// Reads "insvcAlerts.xml" from the install folder and parses it. RULES_OK (the
// table dumped), RULES_READ_FAILED or RULES_PARSE_FAILED; the read text is
// freed in every case.
DWORD Tolvane_LoadRuleDefinitions();

// Parses the rule file's text into g_rules, MaxAlertFiles and removeAlertFiles,
// and hands each plugin its configuration block. RULES_OK when at least one rule
// was added; RULES_NOT_XML or RULES_PARSE_FAILED, with the table left empty.
DWORD ParseRuleDefinitions(const wchar_t* text);

// Parses one rule element's outer XML. A new rule (the caller appends it), or
// null when the rule is not added; the reason is logged with `ruleIndex`.
RULE* ParseRule(int ruleIndex, const wchar_t* ruleXml);

// Parses one action element's outer XML of rule `ruleIndex`. A new action bound
// to its action plugin, or null (logged).
RULE_ACTION* ParseRuleAction(int ruleIndex, int actionIndex, const wchar_t* actionXml);

// Store each "/Tolvane/ActionConfig" (or "/Tolvane/RuleConfig") element's outer
// XML as the configXml of the plugin its "Type" names. 0 only when a copy ran
// out of memory.
int LoadActionPluginConfig(IXMLDOMDocument* doc);
int LoadRulePluginConfig(IXMLDOMDocument* doc);

// True (and logged) when a rule already in the table has `guid` as its
// ruleGuid, letter case ignored.
bool IsDuplicateRuleGuid(const wchar_t* guid);

// Frees a rule, its strings and its actions; null is fine. The caller unlinks it.
void FreeRule(RULE* rule);

// Frees the kept file text and every rule of the table, and empties the table.
void FreeRuleDefinitions();

// Composes one line per rule and action; the lines are not written anywhere.
void DumpRules();

// True when a rule with this "Platform" value applies to this machine: "All",
// "Laptops", "Desktops" (keywords in any letter case), "Series:" and "Model:"
// followed by one skipped character and the text to look for in the model.
bool RuleAppliesToPlatform(const wchar_t* platform);

#ifdef OMK_REPLAY_SEAMS
// Replay builds only (omk-rules). The rule file Tolvane_LoadRuleDefinitions
// reads instead of the install folder's "insvcAlerts.xml", when set.
extern const wchar_t* g_replayRuleFile;
// Called by ParseRuleDefinitions around each "/Tolvane/Rule" element: before
// it (`parsed` false, no rule) and after it, with the rule added (null when
// it was dropped), so that the reasons logged for each rule can be told
// apart. The rule may be freed later.
extern void (*g_replayRuleObserver)(int ruleIndex, bool parsed, const RULE* rule);
#endif
