#include "eventHandling.h"

#include <objbase.h>
#include <oleauto.h>

#include "cdef.h"
#include "actionPlugin.h"
#include "alertDatabase.h"
#include "alertRecord.h"
#include "conventions.h"
#include "omkErrors.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "strHelper.h"
#include "xmlLog.h"

#ifdef OMK_ENGINE_TEST_SEAMS
DWORD g_handleEventsPauseMs = 1000;
void(WINAPI* g_handleEventsClock)(SYSTEMTIME*) = GetSystemTime;
#define OMK_PAUSE_BEFORE_EVENT_MS g_handleEventsPauseMs
#define OMK_EVENT_CLOCK g_handleEventsClock
#else
#define OMK_PAUSE_BEFORE_EVENT_MS kPauseBeforeEventMs
#define OMK_EVENT_CLOCK GetSystemTime
#endif

namespace {

// Consecutive events must get alert file names (and database keys) at least a
// second apart: the names carry the time to the second.
constexpr DWORD kPauseBeforeEventMs = 1000;

constexpr int kMarkupChars = 1024;
constexpr unsigned int kActionAlsoSucceeded = 12;

bool ActionSucceeded(unsigned int result) { return result == 0 || result == kActionAlsoSucceeded; }

void NameAlertFile() {
    SYSTEMTIME now;
    OMK_EVENT_CLOCK(&now);
    // A name too long for the buffer is cut rather than refused.
    _snwprintf(g_alertFileName, OMK_ALERT_FILE_NAME_CHARS - 1, L"%s%s_%02d%02d%04d%02d%02d%02d%s", g_serviceTag,
               L"-ZORA_Alerts", now.wMonth, now.wDay, now.wYear, now.wHour, now.wMinute, now.wSecond, L".xml");
    g_alertFileName[OMK_ALERT_FILE_NAME_CHARS - 1] = L'\0';
}

// The text form of `guid` exactly as StringFromGUID2 writes it (braces,
// upper-case hex, 39 characters with the terminator, nothing after it
// touched), into a buffer of at least that size. Written here because every
// rule gets one for every event, and the call costs more than the GUID.
void GuidText(const GUID& guid, wchar_t* text) {
    static const wchar_t kHex[] = L"0123456789ABCDEF";
    wchar_t* out = text;
    auto hex = [&out](unsigned long value, int digits) {
        for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) *out++ = kHex[(value >> shift) & 0xF];
    };
    *out++ = L'{';
    hex(guid.Data1, 8);
    *out++ = L'-';
    hex(guid.Data2, 4);
    *out++ = L'-';
    hex(guid.Data3, 4);
    *out++ = L'-';
    for (int i = 0; i < 8; ++i) {
        if (i == 2) *out++ = L'-';
        hex(guid.Data4[i], 2);
    }
    *out++ = L'}';
    *out = L'\0';
}

// InitRuleForAction: fresh run-time state of a rule for the event under handling.
void InitRuleForAction(RULE* rule) {
    rule->triggered = 0;
    CStrHelper::StrCopy(rule->alertFileName, ARRAYSIZE(rule->alertFileName), g_alertFileName);
    GUID guid;
    HRESULT hr = CoCreateGuid(&guid);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"InitRuleForAction: Rule %ws CoCreateGuid failed 0x%x", rule->ruleGuid, hr);
        CStrHelper::StrCopy(rule->alertGuid, ARRAYSIZE(rule->alertGuid), L"-");
    } else {
        GuidText(guid, rule->alertGuid);
    }
}

wchar_t AsciiLower(wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + (L'a' - L'A')) : c; }

// Equal ignoring case, as _wcsicmp finds it; two ASCII characters are decided
// here (every rule is compared for every event), anything else by _wcsicmp.
bool SameIgnoringCase(const wchar_t* a, const wchar_t* b) {
    for (size_t i = 0;; ++i) {
        if (a[i] >= 0x80 || b[i] >= 0x80) return _wcsicmp(a + i, b + i) == 0;
        if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
        if (a[i] == L'\0') return true;
    }
}

bool ReportedByCollector(const RULE* rule, const WORK_ITEM* item) {
    const wchar_t* itemGuid = item->u.ruleTriggered.ruleGuid;
    const wchar_t* itemPlugin = item->u.ruleTriggered.rulePluginId;
    return rule->ruleGuid != nullptr && rule->type != nullptr && itemGuid != nullptr && itemPlugin != nullptr &&
           SameIgnoringCase(rule->ruleGuid, itemGuid) && SameIgnoringCase(rule->type, itemPlugin);
}

// A rule without a plugin counts as fired, so that its actions still run.
unsigned int AskPlugin(RULE* rule) {
    if (rule->plugin == nullptr) {
        OMK_ReportError(0, L"EvaluateRule: rule %ws name %ws does not have a plugin !", rule->ruleGuid, rule->name);
        return 1;
    }
    return rule->plugin->Rule_Triggered(rule) == 0 ? 1 : 0;
}

void RunActionsOfFiredRules() {
    for (RULE* rule = g_rules; rule != nullptr; rule = rule->next) {
        if (rule->triggered != 1) continue;
        for (RULE_ACTION* action = rule->actions; action != nullptr; action = action->next) {
            unsigned int result = action->plugin->Action_Execute(rule, action->xml);
            if (!ActionSucceeded(result)) {
                OMK_ReportError(0, L"Action %ws failed 0x%x in rule %ws", action->type, result, rule->xml);
            }
        }
    }
}

}  // namespace


void BeginRuleEvaluation() {
    // The count is read again after each call, as a plugin call may change the table.
    for (DWORD i = 0; i < g_numActionPlugins; ++i) g_actionPlugins[i].Action_BeginEvaluation();
}

void EndRuleEvaluation() {
    for (DWORD i = 0; i < g_numActionPlugins; ++i) {
        unsigned int result = g_actionPlugins[i].Action_EndEvaluation();
        if (!ActionSucceeded(result)) {
            OMK_ReportError(0, L"EndRuleEvaluation: EndEval Action %ws failed 0x%x", g_actionPlugins[i].name, result);
        }
    }
}

DWORD EvaluateRule(WORK_ITEM* item) {
    DWORD fired = 0;
    for (RULE* rule = g_rules; rule != nullptr; rule = rule->next) {
        InitRuleForAction(rule);
        if (rule->maxTriggerPerBoot != 0 && static_cast<int>(rule->numTriggers) >= rule->maxTriggerPerBoot) continue;
        rule->workItem = item;
        switch (item->kind) {
            case WORK_SUMMARY_CREATED:
                if (rule->onSummary == 1) rule->triggered = AskPlugin(rule);
                break;
            case WORK_RULE_TRIGGERED:
                if (ReportedByCollector(rule, item)) {
                    rule->triggered = 1;
                    Rule_LogAlert(rule, item->u.ruleTriggered.dataItemsEnclosingXmlTag,
                                  item->u.ruleTriggered.numDataItems, item->u.ruleTriggered.dataItemName,
                                  item->u.ruleTriggered.dataItemVal);
                }
                break;
            case WORK_PERIODIC_DATA:
                if (rule->onPeriodicData == 1) rule->triggered = AskPlugin(rule);
                break;
            default:
                break;
        }
        if (rule->triggered == 1) {
            ++fired;
            ++rule->numTriggers;
        }
    }
    return fired;
}

void Rule_LogAlert(RULE* rule, const wchar_t* tag, unsigned int count, SAFEARRAY* names, SAFEARRAY* values) {
    if (rule->alertMsg == nullptr) {
        OMK_ReportError(0, L"Rule_Alert_Init: Rule %ws is missing the alert msg !!", rule->name);
        return;
    }
    const wchar_t* folder = CDef::GetInstance().FOLDER_OMK_ALERT;
    XMLLOG_HANDLE* log = xmlLogOpen(folder, nullptr, rule->alertFileName);
    if (log == nullptr) {
        OMK_ReportError(0, L"Rule_Alert_Init: xmlLogOpen %ls %ls %ls failed", folder, rule->alertFileName, L"Alert");
        return;
    }
    if (!Rule_Alert_WriteHeader(log, rule, rule->alertMsg)) {
        OMK_ReportError(0, L"Rule_Alert_Init: Rule %ws  - failed to log alert %ws", rule->name, rule->alertMsg);
    } else {
        wchar_t markup[kMarkupChars];
        if (tag != nullptr) {
            CStrHelper::StrPrintf(markup, kMarkupChars, L"\t\t<%ws>\n", tag);
            xmlLogWriteString(log->fp, markup);
        }
        for (unsigned int i = 0; i < count; ++i) {
            LONG index = static_cast<LONG>(i);
            BSTR name = nullptr;
            BSTR value = nullptr;
            if (FAILED(SafeArrayGetElement(names, &index, &name))) {
                OMK_ReportError(0, L"Rule_LogAlert: could not get name %d from safeArray", static_cast<int>(i));
            } else if (FAILED(SafeArrayGetElement(values, &index, &value))) {
                OMK_ReportError(0, L"Rule_LogAlert: could not get val %d from safeArray", static_cast<int>(i));
            } else if (!Alert_AddData(log, rule, name, value)) {
                OMK_ReportError(0, L"Rule_LogAlert: Alert_AddData %d: %ws %ws failed", static_cast<int>(i), name,
                                value);
            }
            // The element copies are deliberately not released.
        }
        if (tag != nullptr) {
            CStrHelper::StrPrintf(markup, kMarkupChars, L"\t\t</%ws>\n", tag);
            xmlLogWriteString(log->fp, markup);
        }
    }
    xmlLogClose(log);
}

void Tolvane_HandleEvents(WORK_ITEM* item) {
    NameAlertFile();
    Sleep(OMK_PAUSE_BEFORE_EVENT_MS);
    BeginRuleEvaluation();
    EvaluateRule(item);
    RunActionsOfFiredRules();
    EndRuleEvaluation();

    const wchar_t* folder = CDef::GetInstance().FOLDER_OMK_ALERT;
    wchar_t path[MAX_PATH];
    CStrHelper::StrPrintf(path, MAX_PATH, L"%s\\%s", folder, g_alertFileName);
    if (GetFileAttributesW(path) == INVALID_FILE_ATTRIBUTES) return;  // no alert was written for this event
    if (!AddToAlertDb(folder, 0, removeAlertFiles, MaxAlertFiles)) {
        OMK_ReportError(0, L"Tolvane_HandleEvents: AddToAlertDb %ws failed", g_alertFileName);
    }
}
