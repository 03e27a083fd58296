// Alerts raised by plugins, through the engine's own alert file and alert
// record writers, so that a plugin's alert and the engine's alert for the same
// rule and data are the same bytes.
#include <windows.h>

#include <wchar.h>

#include <new>
#include <stdexcept>

#include "alertRecord.h"
#include "cdef.h"
#include "conventions.h"
#include "omkErrors.h"
#include "omkPluginSdk.h"
#include "strHelper.h"
#include "systemIdentity.h"
#include "xmlLog.h"

namespace {

constexpr int kMarkupChars = 1024;

const wchar_t* OrNull(const wchar_t* text) { return text != nullptr ? text : L"null"; }

// A plugin module has its own copy of the service tag that new alert files
// carry; it is read as the service reads it at start-up.
void EnsureServiceTag() {
    static bool known = false;
    if (known) return;
    if (wcscmp(g_serviceTag, L"UNKNOWN") == 0) {
        CStrHelper::StrPrintf(g_serviceTag, OMK_SERVICE_TAG_CHARS, L"%hs", GetServiceTag().c_str());
    }
    known = true;
}

// "\t\t<tag>\n" or "\t\t</tag>\n", composed as the engine composes it.
void WriteEnclosingTag(XMLLOG_HANDLE* log, const wchar_t* format, const wchar_t* tag) {
    wchar_t markup[kMarkupChars];
    CStrHelper::StrPrintf(markup, kMarkupChars, format, tag);
    xmlLogWriteString(log->fp, markup);
}

unsigned int RaiseAlert(const RULE* rule, const wchar_t* enclosingTag, const OMK_ALERT_ITEM* items,
                        unsigned int itemCount) {
    if (rule == nullptr || (itemCount > 0 && items == nullptr)) {
        OMK_ReportError(0, L"OmkSdk_RaiseAlert: null rule or items (%u items)", itemCount);
        return ERROR_INVALID_PARAMETER;
    }
    if (rule->alertMsg == nullptr) {
        OMK_ReportError(0, L"OmkSdk_RaiseAlert: Rule %ws is missing the alert msg !!", OrNull(rule->name));
        return ERROR_INVALID_DATA;
    }
    if (wcsnlen(rule->alertFileName, ARRAYSIZE(rule->alertFileName)) == 0 ||
        wcsnlen(rule->alertFileName, ARRAYSIZE(rule->alertFileName)) == ARRAYSIZE(rule->alertFileName)) {
        OMK_ReportError(0, L"OmkSdk_RaiseAlert: Rule %ws has no alert file name", OrNull(rule->name));
        return ERROR_INVALID_DATA;
    }
    const wchar_t* folder = CDef::GetInstance().FOLDER_OMK_ALERT;
    if (folder[0] == L'\0') {
        OMK_ReportError(0, L"OmkSdk_RaiseAlert: Rule %ws: the alert folder is not known", OrNull(rule->name));
        return ERROR_PATH_NOT_FOUND;
    }
    EnsureServiceTag();
    XMLLOG_HANDLE* log = xmlLogOpen(folder, nullptr, rule->alertFileName);
    if (log == nullptr) {
        OMK_ReportError(0, L"OmkSdk_RaiseAlert: xmlLogOpen %ls %ls %ls failed", folder, rule->alertFileName, L"Alert");
        return ERROR_OPEN_FAILED;
    }
    unsigned int result = 0;
    if (!Rule_Alert_WriteHeader(log, rule, rule->alertMsg)) {
        OMK_ReportError(0, L"OmkSdk_RaiseAlert: Rule %ws  - failed to log alert %ws", OrNull(rule->name),
                        rule->alertMsg);
        result = ERROR_WRITE_FAULT;
    } else {
        if (enclosingTag != nullptr) WriteEnclosingTag(log, L"\t\t<%ws>\n", enclosingTag);
        for (unsigned int i = 0; i < itemCount; ++i) {
            if (!Alert_AddData(log, rule, items[i].name, items[i].value)) {
                OMK_ReportError(0, L"OmkSdk_RaiseAlert: Alert_AddData %u: %ws %ws failed", i, OrNull(items[i].name),
                                OrNull(items[i].value));
            }
        }
        if (enclosingTag != nullptr) WriteEnclosingTag(log, L"\t\t</%ws>\n", enclosingTag);
    }
    xmlLogClose(log);
    return result;
}

}  // namespace

extern "C" unsigned int OmkSdk_RaiseAlert(const RULE* rule, const wchar_t* enclosingTag, const OMK_ALERT_ITEM* items,
                                          unsigned int itemCount) {
    return OmkSdk_Guard("OmkSdk_RaiseAlert", [&] { return RaiseAlert(rule, enclosingTag, items, itemCount); });
}

extern "C" unsigned int OmkSdk_GetFolder(unsigned int folder, wchar_t* buffer, unsigned int bufferChars) {
    if (buffer == nullptr || bufferChars == 0) return ERROR_INVALID_PARAMETER;
    buffer[0] = L'\0';
    return OmkSdk_Guard("OmkSdk_GetFolder", [&]() -> unsigned int {
        const CDef& paths = CDef::GetInstance();
        const wchar_t* path = folder == OMK_FOLDER_ALERT ? paths.FOLDER_OMK_ALERT
                              : folder == OMK_FOLDER_LOG ? paths.FOLDER_OMK_LOG
                                                         : nullptr;
        if (path == nullptr) return ERROR_INVALID_PARAMETER;
        if (path[0] == L'\0') return ERROR_PATH_NOT_FOUND;
        return CStrHelper::StrCopy(buffer, bufferChars, path) == S_OK ? 0u : ERROR_INSUFFICIENT_BUFFER;
    });
}

extern "C" unsigned int OmkSdk_ExceptionResult(const char* exportName) {
    const char* where = exportName != nullptr ? exportName : "plugin";
    try {
        throw;
    } catch (const std::bad_alloc&) {
        OMK_ReportError(0, L"%hs: out of memory", where);
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::exception& e) {
        OMK_ReportError(0, L"%hs: exception %hs", where, e.what());
    } catch (...) {
        OMK_ReportError(0, L"%hs: unknown exception", where);
    }
    return ERROR_UNHANDLED_EXCEPTION;
}
