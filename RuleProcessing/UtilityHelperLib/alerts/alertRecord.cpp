#include "alertRecord.h"

#include <stdlib.h>
#include <string.h>

#include "conventions.h"
#include "omkErrors.h"
#include "strHelper.h"

namespace {

#ifdef OMK_TEST_SEAMS
PFN_ALERT_GET_LOCAL_TIME g_getLocalTime = GetLocalTime;
PFN_ALERT_GET_TIME_ZONE g_getTimeZoneInformation = GetTimeZoneInformation;
#else
const PFN_ALERT_GET_LOCAL_TIME g_getLocalTime = GetLocalTime;
const PFN_ALERT_GET_TIME_ZONE g_getTimeZoneInformation = GetTimeZoneInformation;
#endif

const wchar_t* OrNull(const wchar_t* text) {
    return text != nullptr ? text : L"null";
}
const wchar_t* RuleName(const RULE* rule) {
    return rule != nullptr ? OrNull(rule->name) : L"null";
}

// Local minus UTC in minutes, from the bias the time-zone query gives for its result.
int UtcOffsetMinutes() {
    TIME_ZONE_INFORMATION zone;
    memset(&zone, 0, sizeof(zone));
    LONG bias = 0;
    switch (g_getTimeZoneInformation(&zone)) {
        case TIME_ZONE_ID_UNKNOWN:
            bias = zone.Bias;
            break;
        case TIME_ZONE_ID_STANDARD:
            bias = zone.Bias + zone.StandardBias;
            break;
        case TIME_ZONE_ID_DAYLIGHT:
            bias = zone.Bias + zone.DaylightBias;
            break;
        default:
            bias = 0;
            break;
    }
    return -static_cast<int>(bias);
}

}  // namespace

#ifdef OMK_TEST_SEAMS
void Alert_SetClock(PFN_ALERT_GET_LOCAL_TIME getLocalTime, PFN_ALERT_GET_TIME_ZONE getTimeZoneInformation) {
    g_getLocalTime = getLocalTime != nullptr ? getLocalTime : GetLocalTime;
    g_getTimeZoneInformation = getTimeZoneInformation != nullptr ? getTimeZoneInformation : GetTimeZoneInformation;
}
#endif

int Rule_Alert_WriteHeader(XMLLOG_HANDLE* handle, const RULE* rule, const wchar_t* message) {
    wchar_t text[1024];
    OmkFill(text, sizeof(text));
    CStrHelper::StrPrintf(text, 1024, L"\n\t<%ws>\n", L"Alert");
    if (handle == nullptr || rule == nullptr) {
        OMK_ReportError(0, L"Rule_Alert_WriteHeader: xmlLogWriteString %ws failed: Rule %ws msg %ws", text,
                        RuleName(rule), OrNull(message));
        return 0;
    }
    xmlLogWriteString(handle->fp, text);

    SYSTEMTIME now;
    memset(&now, 0, sizeof(now));
    g_getLocalTime(&now);
    int offset = UtcOffsetMinutes();
    // Truncation toward zero: an offset of -1 to -59 minutes prints as "+00:mm",
    // losing its sign. Alert readers know this form, so it is kept.
    int hours = offset / 60;
    int minutes = abs(offset - hours * 60);
    wchar_t stamp[512];
    OmkFill(stamp, sizeof(stamp));
    CStrHelper::StrPrintf(stamp, 512, L"%04d-%02d-%02dT%02d:%02d:%02d%+03d:%02d", now.wYear, now.wMonth, now.wDay,
                          now.wHour, now.wMinute, now.wSecond, hours, minutes);

    if (!Alert_AddData(handle, rule, L"AlertId", rule->alertGuid)) return 0;
    if (!Alert_AddData(handle, rule, L"RuleGuid", rule->ruleGuid)) return 0;
    if (!Alert_AddData(handle, rule, L"RuleType", rule->type)) return 0;

    CStrHelper::StrPrintf(text, 1024, L"\t\t<%ws>", L"DateTime");
    xmlLogWriteString(handle->fp, text);
    if (!xmlLogWriteUTF8String(handle, stamp)) {
        OMK_ReportError(0, L"Alert_AddData: xmlLogWriteUTF8String failed: Rule %ws, Data %ws", RuleName(rule), stamp);
        return 0;
    }
    CStrHelper::StrPrintf(text, 1024, L"</%ws>\n", L"DateTime");
    xmlLogWriteString(handle->fp, text);

    return Alert_AddData(handle, rule, L"Message", rule->alertMsg);
}

int Alert_AddData(XMLLOG_HANDLE* handle, const RULE* rule, const wchar_t* tag, const wchar_t* value) {
    wchar_t text[1024];
    OmkFill(text, sizeof(text));
    if (tag != nullptr) {
        CStrHelper::StrPrintf(text, 1024, L"\t\t<%ws>", tag);
        if (handle == nullptr) {
            OMK_ReportError(0, L"Alert_AddData: xmlLogWriteString failed: Rule %ws tag %ws", RuleName(rule), tag);
            return 0;
        }
        xmlLogWriteString(handle->fp, text);
    }
    // A missing or oversized value leaves the opening tag without its close.
    if (!xmlLogWriteUTF8String(handle, value)) {
        OMK_ReportError(0, L"Alert_AddData: xmlLogWriteUTF8String failed: Rule %ws, Data %ws", RuleName(rule),
                        OrNull(value));
        return 0;
    }
    if (tag != nullptr) {
        CStrHelper::StrPrintf(text, 1024, L"</%ws>\n", tag);
        if (handle == nullptr) {
            OMK_ReportError(0, L"Alert_AddData: xmlLogWriteString failed: Rule %ws closing tag %ws", RuleName(rule),
                            tag);
            return 0;
        }
        xmlLogWriteString(handle->fp, text);
    }
    return 1;
}
