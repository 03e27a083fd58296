// Orlemark plugin SDK: the records the rules processor hands to rule and
// action plugins, and the exports a plugin DLL provides.
//
// Rule plugins export Rule_Initialize, Rule_Triggered and Rule_CloseDll;
// action plugins export Action_Initialize, Action_BeginEvaluation,
// Action_Execute, Action_EndEvaluation and Action_CloseDll (extern "C", the
// platform's calling convention for exported functions). The layouts below are
// a binary contract between separately built modules: 4-byte packing, 64-bit
// pointers, little-endian. Plugins read them; only the service writes them.
#pragma once

#include <oaidl.h>
#include <stddef.h>
#include <wtypes.h>

#ifdef __cplusplus
extern "C" {
#endif

// Kinds of event a collector reports.
enum {
    WORK_SUMMARY_CREATED = 0,
    WORK_RULE_TRIGGERED = 1,
    WORK_PERIODIC_DATA = 2,
};

#pragma pack(push, 4)

// One event waiting for (or under evaluation by) the engine. The payload is
// chosen by `kind`; bytes a kind does not use hold 0x24 ('$').
typedef struct WORK_ITEM {
    unsigned int kind;
    struct WORK_ITEM* next;  // queue link, owned by the queue
    union {
        struct {
            wchar_t* rulePluginId;              // may be null
            wchar_t* ruleGuid;                  // never null in a queued item
            wchar_t* dataItemsEnclosingXmlTag;  // may be null
            unsigned int numDataItems;
            SAFEARRAY* dataItemName;  // BSTR array, or null
            SAFEARRAY* dataItemVal;   // BSTR array, or null
        } ruleTriggered;
        struct {
            unsigned int code;
            unsigned int subCode;
            unsigned long long timeStamp;
            unsigned int dataLen;
            unsigned char* data;  // null when dataLen is 0
            unsigned char unused[16];
        } periodicData;
    } u;
} WORK_ITEM;

struct RULE_PLUGIN;
struct ACTION_PLUGIN;

// One action of a rule.
typedef struct RULE_ACTION {
    wchar_t* xml;                  // the action element's outer XML
    wchar_t* type;                 // action plugin name
    struct ACTION_PLUGIN* plugin;  // never null in a parsed action
    struct RULE_ACTION* next;
} RULE_ACTION;

// One parsed rule with the state of the evaluation under way.
typedef struct RULE {
    unsigned int enabled;
    unsigned int onSummary;
    unsigned int onPeriodicData;
    wchar_t* type;  // rule plugin name
    wchar_t* platform;
    wchar_t* name;
    wchar_t* descr;
    wchar_t* ruleGuid;
    wchar_t* xml;  // the rule element's outer XML
    wchar_t* alertMsg;
    int maxTriggerPerBoot;  // 0: no limit
    unsigned int numTriggers;
    struct RULE_PLUGIN* plugin;  // null when no plugin of that name is loaded
    RULE_ACTION* actions;
    struct RULE* next;
    unsigned int triggered;
    wchar_t alertGuid[128];
    wchar_t alertFileName[260];
    WORK_ITEM* workItem;  // the event under evaluation
    unsigned int removeAlertFiles;
    unsigned int maxAlertFiles;
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

// Results of Action_Execute and Action_EndEvaluation that also mean success.
#define OMK_ACTION_SUCCESS_ALT 12u

// For plugin authors: define OMK_RULE_PLUGIN_EXPORTS or OMK_ACTION_PLUGIN_EXPORTS
// before including this header to have the exports declared, so that the
// compiler checks each definition against the contract above. The service
// looks the exports up by these exact, undecorated names.
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

#ifdef __cplusplus
}  // extern "C"

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
