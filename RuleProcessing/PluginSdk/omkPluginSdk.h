// Orlemark plugin SDK: what the rules processor hands to rule and action
// plugins, the exports a plugin DLL provides, and the omkPluginSdk library
// that raises alerts and reads configuration. docs/plugin-sdk.md tells how to
// build, sign, register, configure and debug a plugin.
//
// Exports. A rule plugin exports Rule_Initialize, Rule_Triggered and
// Rule_CloseDll; an action plugin exports Action_Initialize,
// Action_BeginEvaluation, Action_Execute, Action_EndEvaluation and
// Action_CloseDll. Each is extern "C" with WINAPI (on x64, the platform's one
// calling convention), exported under exactly that undecorated name; a module
// lacking one of them is not loaded. Results are unsigned 32-bit codes:
//
//   Rule_Initialize, Action_Initialize  0 = ready; anything else stops the
//                                       service's start (the code is logged)
//   Rule_Triggered                      0 = the rule fires for the event;
//                                       anything else = it does not
//   Action_Execute, Action_EndEvaluation 0 and 12 = success; anything else is
//                                       logged with the action and the rule
//   Action_BeginEvaluation, the CloseDll exports: no result
//
// Threads and calls. Initialize runs once on the service's start-up thread
// after every plugin is loaded and the rule file is parsed; CloseDll once on
// its stop thread. Everything else runs on the engine thread, one event at a
// time: no two exports of any plugin ever run at once, and no export is
// re-entered. Per event: Action_BeginEvaluation of every action plugin, then
// Rule_Triggered for each rule of the plugin that takes part (summary and
// periodic-data events only: a rule named by a collector fires without its
// plugin being asked), then Action_Execute for each action of each fired
// rule, then Action_EndEvaluation of every action plugin. The engine pauses
// 1 s before each event, so an export that takes long delays every later
// event. No exception may leave an export: the engine does not catch one and
// the service would end; OmkSdk_Guard below turns one into a result.
//
// Records. The layouts below are a binary contract between separately built
// modules: 4-byte packing, 64-bit pointers, little-endian. Every field is
// read-only to plugins: a plugin changes what the engine does only through
// its results and the alert file it writes with OmkSdk_RaiseAlert. Pointers
// handed to an export, and everything reached through them, are valid during
// that call only; copy what is needed later. Text is UTF-16, zero-terminated;
// the data of a periodic record is raw bytes as the collector sent them.
//
// Configuration. Rule_Initialize receives the outer XML of the rule file's
// <RuleConfig Type="name"> block and Action_Initialize that of its
// <ActionConfig Type="name"> block, as UTF-16 text re-serialised by the XML
// parser (attribute quoting and indentation may differ from the file), or
// null when the file has no block for the plugin. Action_Execute receives the
// outer XML of the <Action> element it runs; a rule's own XML, with any
// elements of the plugin's choosing, is RULE::xml. OmkSdk_ReadConfigText reads
// values from all three.
#pragma once

#include <oaidl.h>
#include <stddef.h>
#include <wtypes.h>

#ifdef __cplusplus
extern "C" {
#endif

// Kinds of event a collector reports (WORK_ITEM::kind).
enum {
    WORK_SUMMARY_CREATED = 0,
    WORK_RULE_TRIGGERED = 1,
    WORK_PERIODIC_DATA = 2,
};

#pragma pack(push, 4)

// One collector event, under evaluation during Rule_Triggered and
// Action_Execute (RULE::workItem). The payload is chosen by `kind`; bytes a
// kind does not use hold 0x24 ('$'). A summary event carries no payload.
typedef struct WORK_ITEM {
    unsigned int kind;       // WORK_SUMMARY_CREATED, WORK_RULE_TRIGGERED or WORK_PERIODIC_DATA
    struct WORK_ITEM* next;  // the engine's queue link: not for plugins
    union {
        // WORK_RULE_TRIGGERED: a collector names the rule that fired.
        struct {
            wchar_t* rulePluginId;              // rule plugin name the collector gave; may be null
            wchar_t* ruleGuid;                  // the fired rule's RuleGuid; never null
            wchar_t* dataItemsEnclosingXmlTag;  // element around the data items in the alert; may be null
            unsigned int numDataItems;          // elements of each array
            SAFEARRAY* dataItemName;            // one-dimensional BSTR array of element names, or null
            SAFEARRAY* dataItemVal;             // one-dimensional BSTR array of values, or null
        } ruleTriggered;
        // WORK_PERIODIC_DATA: a record the collector generated.
        struct {
            unsigned int code;            // record code (the collector's signed int, as sent)
            unsigned int subCode;         // record sub-code
            unsigned long long timeStamp;  // as sent; collectors send a FILETIME (100 ns since 1601, UTC)
            unsigned int dataLen;         // bytes at `data`
            unsigned char* data;          // the record's bytes; null when there are none
            unsigned char unused[16];
        } periodicData;
    } u;
} WORK_ITEM;

struct RULE_PLUGIN;
struct ACTION_PLUGIN;

// One <Action> of a rule.
typedef struct RULE_ACTION {
    wchar_t* xml;                  // the <Action> element's outer XML
    wchar_t* type;                 // its Type attribute: the action plugin's name
    struct ACTION_PLUGIN* plugin;  // the engine's plugin record: not for plugins
    struct RULE_ACTION* next;      // the rule's next action, or null
} RULE_ACTION;

// One rule of the rule file with the state of the event under evaluation.
// Fields from `enabled` to `next` are the rule file's and never change while
// the service runs; `triggered` to `workItem` are set by the engine for each
// event before the rule's plugin is asked.
typedef struct RULE {
    unsigned int enabled;         // 1 (disabled rules are not loaded)
    unsigned int onSummary;       // 1: the rule takes part in summary events
    unsigned int onPeriodicData;  // 1: the rule takes part in periodic-data events
    wchar_t* type;                // Type attribute: the rule plugin's name
    wchar_t* platform;            // Platform attribute ("All" when absent)
    wchar_t* name;                // <Name>
    wchar_t* descr;               // <Descr>
    wchar_t* ruleGuid;            // <RuleGuid>, unique in the file
    wchar_t* xml;                 // the <Rule> element's outer XML, plugin elements included
    wchar_t* alertMsg;            // <AlertMsg>, the alert's Message
    int maxTriggerPerBoot;        // MaxTriggerPerBoot; 0: no limit
    unsigned int numTriggers;     // times the rule fired since the service started
    struct RULE_PLUGIN* plugin;   // the engine's plugin record: not for plugins
    RULE_ACTION* actions;         // the rule's actions in file order, or null
    struct RULE* next;            // the next rule in file order, or null
    unsigned int triggered;       // 1 once the rule fired for this event (set after Rule_Triggered)
    wchar_t alertGuid[128];       // this event's alert id for the rule, "{...}" upper-case
    wchar_t alertFileName[260];   // this event's alert file name, in the product's alert folder
    WORK_ITEM* workItem;          // the event under evaluation
    unsigned int removeAlertFiles;  // 1: alert files are deleted once stored (<CreateXmls>0</CreateXmls>)
    unsigned int maxAlertFiles;     // <MaxAlertFiles>
} RULE;

#pragma pack(pop)

// Plugin exports.
typedef unsigned int(WINAPI* PFN_Rule_Initialize)(const wchar_t* configXml);
typedef unsigned int(WINAPI* PFN_Rule_Triggered)(RULE* rule);
typedef void(WINAPI* PFN_Rule_CloseDll)(void);
typedef unsigned int(WINAPI* PFN_Action_Initialize)(const wchar_t* configXml);
typedef void(WINAPI* PFN_Action_BeginEvaluation)(void);
typedef unsigned int(WINAPI* PFN_Action_Execute)(RULE* rule, const wchar_t* actionXml);
typedef unsigned int(WINAPI* PFN_Action_EndEvaluation)(void);
typedef void(WINAPI* PFN_Action_CloseDll)(void);

// Results of Rule_Triggered.
#define OMK_RULE_TRIGGERED 0u
#define OMK_RULE_NOT_TRIGGERED 1u
// Results of Action_Execute and Action_EndEvaluation that also mean success.
#define OMK_ACTION_SUCCESS_ALT 12u

// For plugin authors: define OMK_RULE_PLUGIN_EXPORTS or OMK_ACTION_PLUGIN_EXPORTS
// before including this header to have the exports declared, so that the
// compiler checks each definition against the contract above.
#define OMK_PLUGIN_EXPORT __declspec(dllexport)

#ifdef OMK_RULE_PLUGIN_EXPORTS
OMK_PLUGIN_EXPORT unsigned int WINAPI Rule_Initialize(const wchar_t* configXml);
OMK_PLUGIN_EXPORT unsigned int WINAPI Rule_Triggered(RULE* rule);
OMK_PLUGIN_EXPORT void WINAPI Rule_CloseDll(void);
#endif

#ifdef OMK_ACTION_PLUGIN_EXPORTS
OMK_PLUGIN_EXPORT unsigned int WINAPI Action_Initialize(const wchar_t* configXml);
OMK_PLUGIN_EXPORT void WINAPI Action_BeginEvaluation(void);
OMK_PLUGIN_EXPORT unsigned int WINAPI Action_Execute(RULE* rule, const wchar_t* actionXml);
OMK_PLUGIN_EXPORT unsigned int WINAPI Action_EndEvaluation(void);
OMK_PLUGIN_EXPORT void WINAPI Action_CloseDll(void);
#endif

// ---------------------------------------------------------------------------
// The omkPluginSdk library (find_package(OmkPluginSdk), target
// OmkPluginSdk::omkPluginSdk). Its functions return 0 or a Windows error code,
// never throw, and report failures of their own to the product's error log
// (omkErrors.h, which plugins may use for their own messages). Call them from
// the exports only, on the thread the export runs on.

// One data item of an alert: element name and text. A null name writes the
// value alone; a null value is reported and skipped.
typedef struct OMK_ALERT_ITEM {
    const wchar_t* name;
    const wchar_t* value;
} OMK_ALERT_ITEM;

// Raises the alert of `rule` for the event under evaluation, exactly as the
// engine writes the alert of a rule a collector reports: appended to the
// rule's alertFileName in the product's alert folder, with the rule's
// alertGuid, ruleGuid, type, the local time and alertMsg, then
// <enclosingTag> (when not null) around the items in order. The engine stores
// the file in the alert database once the event's rules and actions have run.
// Call it from Rule_Triggered and return OMK_RULE_TRIGGERED when it gives 0.
// Names and values are written as they are (no XML escaping): keep "<", "&"
// and "%" out of them. An item that cannot be written is reported and skipped,
// as the engine does. Results: 0; ERROR_INVALID_PARAMETER (null rule, or items
// null with a count); ERROR_INVALID_DATA (no alertMsg or alertFileName);
// ERROR_PATH_NOT_FOUND (no alert folder); ERROR_OPEN_FAILED (the file could
// not be opened); ERROR_WRITE_FAULT (the alert's head could not be written;
// the alert is closed as it stands); ERROR_NOT_ENOUGH_MEMORY.
unsigned int OmkSdk_RaiseAlert(const RULE* rule, const wchar_t* enclosingTag, const OMK_ALERT_ITEM* items,
                               unsigned int itemCount);

// Reads a value of the XML `xml` (a configuration block, an <Action> or a
// rule's xml) into `buffer` (`bufferChars` characters with the terminator),
// with leading and trailing white space removed: the text of the first child
// element `element` of the root element (a path such as L"Match/Limit" goes
// deeper), or, when `attribute` is given, that attribute of it. A null or
// empty `element` means the root element itself. Results: 0 (an empty element
// or attribute gives ""); ERROR_NOT_FOUND (null `xml`, or no such element or
// attribute); ERROR_INVALID_DATA (`xml` is not well-formed); ERROR_INSUFFICIENT_BUFFER
// (buffer emptied); ERROR_INVALID_PARAMETER (no buffer, or a name with other
// characters than letters, digits, '_', '-', '.' and '/' between names).
unsigned int OmkSdk_ReadConfigText(const wchar_t* xml, const wchar_t* element, const wchar_t* attribute,
                                   wchar_t* buffer, unsigned int bufferChars);

// Parses `text` as a whole number: decimal digits, or "0x" and hex digits,
// with white space around allowed and no sign. Results: 0 with `*value` set;
// ERROR_INVALID_DATA (empty, "0x" alone, a sign or any other character);
// ERROR_ARITHMETIC_OVERFLOW (above `maxValue`); ERROR_INVALID_PARAMETER.
unsigned int OmkSdk_ParseNumber(const wchar_t* text, unsigned long long maxValue, unsigned long long* value);

// OmkSdk_ReadConfigText followed by OmkSdk_ParseNumber, with the results of both.
unsigned int OmkSdk_ReadConfigNumber(const wchar_t* xml, const wchar_t* element, const wchar_t* attribute,
                                     unsigned long long maxValue, unsigned long long* value);

// The product's folders a plugin may write into.
enum {
    OMK_FOLDER_ALERT = 1,  // alert XML files
    OMK_FOLDER_LOG = 2,    // log files (the error log's folder)
};

// Copies the full path of an OMK_FOLDER_* folder, without a trailing
// backslash. Results: 0; ERROR_PATH_NOT_FOUND (the folder could not be
// determined); ERROR_INSUFFICIENT_BUFFER; ERROR_INVALID_PARAMETER.
unsigned int OmkSdk_GetFolder(unsigned int folder, wchar_t* buffer, unsigned int bufferChars);

// The Windows code for an exception nobody handled; some winerror.h lack it.
#ifndef ERROR_UNHANDLED_EXCEPTION
#define ERROR_UNHANDLED_EXCEPTION 574L
#endif

// To be called only inside a catch handler: reports the exception being
// handled as "<exportName>: ..." and returns ERROR_NOT_ENOUGH_MEMORY for
// std::bad_alloc, ERROR_UNHANDLED_EXCEPTION for anything else.
unsigned int OmkSdk_ExceptionResult(const char* exportName);

#ifdef __cplusplus
}  // extern "C"

// Runs `body` (returning unsigned int) so that no exception leaves the export
// that calls it: an exception becomes the OmkSdk_ExceptionResult code.
//   return OmkSdk_Guard("Rule_Triggered", [&] { return Evaluate(rule); });
template <typename Body>
inline unsigned int OmkSdk_Guard(const char* exportName, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return OmkSdk_ExceptionResult(exportName);
    }
}

static_assert(sizeof(WORK_ITEM) == 56, "WORK_ITEM is 56 bytes");
static_assert(offsetof(WORK_ITEM, kind) == 0, "WORK_ITEM.kind");
static_assert(offsetof(WORK_ITEM, next) == 4, "WORK_ITEM.next");
static_assert(offsetof(WORK_ITEM, u.ruleTriggered.rulePluginId) == 12, "rulePluginId");
static_assert(offsetof(WORK_ITEM, u.ruleTriggered.ruleGuid) == 20, "ruleGuid");
static_assert(offsetof(WORK_ITEM, u.ruleTriggered.dataItemsEnclosingXmlTag) == 28, "dataItemsEnclosingXmlTag");
static_assert(offsetof(WORK_ITEM, u.ruleTriggered.numDataItems) == 36, "numDataItems");
static_assert(offsetof(WORK_ITEM, u.ruleTriggered.dataItemName) == 40, "dataItemName");
static_assert(offsetof(WORK_ITEM, u.ruleTriggered.dataItemVal) == 48, "dataItemVal");
static_assert(offsetof(WORK_ITEM, u.periodicData.code) == 12, "code");
static_assert(offsetof(WORK_ITEM, u.periodicData.subCode) == 16, "subCode");
static_assert(offsetof(WORK_ITEM, u.periodicData.timeStamp) == 20, "timeStamp");
static_assert(offsetof(WORK_ITEM, u.periodicData.dataLen) == 28, "dataLen");
static_assert(offsetof(WORK_ITEM, u.periodicData.data) == 32, "data");
static_assert(offsetof(WORK_ITEM, u.periodicData.unused) == 40, "periodic tail");

static_assert(sizeof(RULE_ACTION) == 32, "RULE_ACTION is 32 bytes");
static_assert(offsetof(RULE_ACTION, type) == 8 && offsetof(RULE_ACTION, plugin) == 16 &&
                  offsetof(RULE_ACTION, next) == 24,
              "RULE_ACTION layout");

static_assert(sizeof(RULE) == 896, "RULE is 896 bytes");
static_assert(offsetof(RULE, enabled) == 0, "enabled");
static_assert(offsetof(RULE, onSummary) == 4, "onSummary");
static_assert(offsetof(RULE, onPeriodicData) == 8, "onPeriodicData");
static_assert(offsetof(RULE, type) == 12, "type");
static_assert(offsetof(RULE, platform) == 20, "platform");
static_assert(offsetof(RULE, name) == 28, "name");
static_assert(offsetof(RULE, descr) == 36, "descr");
static_assert(offsetof(RULE, ruleGuid) == 44, "ruleGuid");
static_assert(offsetof(RULE, xml) == 52, "xml");
static_assert(offsetof(RULE, alertMsg) == 60, "alertMsg");
static_assert(offsetof(RULE, maxTriggerPerBoot) == 68, "maxTriggerPerBoot");
static_assert(offsetof(RULE, numTriggers) == 72, "numTriggers");
static_assert(offsetof(RULE, plugin) == 76, "plugin");
static_assert(offsetof(RULE, actions) == 84, "actions");
static_assert(offsetof(RULE, next) == 92, "next");
static_assert(offsetof(RULE, triggered) == 100, "triggered");
static_assert(offsetof(RULE, alertGuid) == 104, "alertGuid");
static_assert(offsetof(RULE, alertFileName) == 360, "alertFileName");
static_assert(offsetof(RULE, workItem) == 880, "workItem");
static_assert(offsetof(RULE, removeAlertFiles) == 888, "removeAlertFiles");
static_assert(offsetof(RULE, maxAlertFiles) == 892, "maxAlertFiles");
#endif
