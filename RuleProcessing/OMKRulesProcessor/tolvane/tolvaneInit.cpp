#include "tolvaneInit.h"

#include <sddl.h>
#include <stdlib.h>

#include "actionPlugin.h"
#include "alertDatabase.h"
#include "conventions.h"
#include "omkDb.h"
#include "omkErrors.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "workQueue.h"

HANDLE g_alertGeneratedEvent = nullptr;
#ifdef OMK_REPLAY_SEAMS
const wchar_t* g_replayAlertEventName = OMK_ALERT_GENERATED_EVENT_NAME;
#endif

namespace {

constexpr wchar_t kAlertEventSddl[] = L"D:(A;;0x001F0003;;;BA)(A;;0x001F0003;;;SY)(A;;0x00100000;;;WD)";

// Set once by Tolvane_Init, read only by Tolvane_Term.
DWORD g_sqliteReady = 0;
DWORD g_rulePluginsLoaded = 0;
DWORD g_actionPluginsLoaded = 0;
DWORD g_rulesLoaded = 0;
DWORD g_rulePluginsInited = 0;
DWORD g_actionPluginsInited = 0;

}  // namespace

#ifdef OMK_ENGINE_TEST_SEAMS
void Tolvane_ForgetStepsForTest() {
    g_sqliteReady = g_rulePluginsLoaded = g_actionPluginsLoaded = 0;
    g_rulesLoaded = g_rulePluginsInited = g_actionPluginsInited = 0;
}
#endif

DWORD CreateAlertGeneratedEvent() {
    g_alertGeneratedEvent = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(kAlertEventSddl, SDDL_REVISION_1, &descriptor, nullptr)) {
        DWORD error = GetLastError();
        OMK_ReportError(0, L"%hs: ConvertStringSecurityDescriptorToSecurityDescriptorW() err=%lu",
                        "CreateAlertGeneratedEvent", error);
        return error;
    }
    // The descriptor is kept for the life of the process, as the event is.
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), descriptor, FALSE};
    HANDLE event = CreateEventW(&attributes, FALSE, FALSE, OMK_ALERT_EVENT_NAME_IN_USE);
    if (event == nullptr || event == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        OMK_ReportError(0, L"%hs: CreateEventW() err=%lu", "CreateAlertGeneratedEvent", error);
        return error;
    }
    g_alertGeneratedEvent = event;
    return 0;
}

void CloseAlertGeneratedEvent() {
    if (!CloseHandle(g_alertGeneratedEvent)) {
        OMK_ReportError(0, L"%hs: CloseHandle() err=%lu", "CloseAlertGeneratedEvent", GetLastError());
    }
    g_alertGeneratedEvent = nullptr;
}

DWORD Tolvane_LoadDefinitions() {
    DWORD status = LoadRulePlugins();
    if (status != 0) {
        OMK_ReportError(0, L"Tolvane_Init: LoadRulePlugins failed 0x%x", status);
        return status;
    }
    g_rulePluginsLoaded = 1;

    status = LoadActionPlugins();
    if (status != 0) {
        OMK_ReportError(0, L"Tolvane_Init: LoadActionPlugins failed 0x%x", status);
        return status;
    }
    g_actionPluginsLoaded = 1;

    // Plugins are loaded first so that the parser can bind rules to them and
    // hand them their configuration before they are initialised.
    status = Tolvane_LoadRuleDefinitions();
    if (status != 0) {
        OMK_ReportError(0, L"Tolvane_Init: Tolvane_LoadRuleDefinitions failed - G_STATUS 0x%x", status);
        return status;
    }
    g_rulesLoaded = 1;
    return 0;
}

DWORD Tolvane_Init() {
    InitWorkQueueLock();

    // Without a failure code the engine runs on without the event.
    if (CreateAlertGeneratedEvent() != 0) return 1;

    if (!InitSqliteLib()) {
        OMK_ReportError(0, L"Tolvane_Init: InitSqliteLib failed");
        return 1;
    }
    g_sqliteReady = 1;

    DWORD status = Tolvane_LoadDefinitions();
    if (status != 0) return status;

    status = InitRulePlugins();
    if (status != 0) {
        OMK_ReportError(0, L"Tolvane_Init: InitRulePlugins failed 0x%x", status);
        return status;
    }
    g_rulePluginsInited = 1;

    status = InitActionPlugins();
    if (status != 0) {
        OMK_ReportError(0, L"Tolvane_Init: InitActionPlugins failed 0x%x", status);
        return status;
    }
    g_actionPluginsInited = 1;

    return StartTolvaneThread() == 0 ? 0 : 1;
}

DWORD Tolvane_Term() {
    // No plugin may be running while it is closed or unloaded. An engine thread
    // that outlived the stop wait may be inside a plugin or the database still:
    // then nothing it uses is released (plugins, rules, the database library,
    // the alert event, the queue lock), and the process exit takes them.
    if (!StopTolvaneThread()) {
        OMK_ReportError(0, L"Tolvane_Term: engine thread still running, plugins left loaded");
        return 0;
    }
    // Every close entry point runs before any module is unloaded, actions first.
    if (g_actionPluginsInited) CloseActionPlugins();
    if (g_rulePluginsInited) CloseRulePlugins();
    if (g_actionPluginsLoaded) UnloadActionPlugins();
    if (g_rulePluginsLoaded) UnloadRulePlugins();
    if (g_rulesLoaded) FreeRuleDefinitions();
    if (g_sqliteReady) FreeSqliteLib();
    CloseAlertGeneratedEvent();
    DeleteWorkQueueLock();
    return 0;
}
