// omkSdkExample: a rule plugin of its own project, built against the
// installed plugin SDK. Its rules fire on periodic records whose code is the
// <Code> of its configuration block:
//
//   <RuleConfig Type="OmkSdkExample"><Code>0x2A</Code></RuleConfig>
//   <Rule Enabled="1" OnPeriodicData="1" Type="OmkSdkExample"> ... </Rule>
//
// and raise the rule's alert with the record's code, sub-code and length.
#define OMK_RULE_PLUGIN_EXPORTS
#include <windows.h>

#include <string>

#include "omkErrors.h"
#include "omkPluginSdk.h"

namespace {

unsigned long long g_code = 0;
// Why the plugin cannot evaluate, 0 once it is configured.
unsigned int g_configError = ERROR_INVALID_STATE;

unsigned int Configure(const wchar_t* configXml) {
    unsigned int result = OmkSdk_ReadConfigNumber(configXml, L"Code", nullptr, 0xFFFFFFFFu, &g_code);
    if (result != 0) {
        OMK_ReportError(0, L"omkSdkExample!Rule_Initialize: <RuleConfig Type=\"OmkSdkExample\"> needs a <Code> "
                           L"from 0 to 0xFFFFFFFF (error %u)", result);
    }
    return result;
}

unsigned int Evaluate(const RULE* rule) {
    const WORK_ITEM* item = rule != nullptr ? rule->workItem : nullptr;
    if (g_configError != 0) return g_configError;
    if (item == nullptr || item->kind != WORK_PERIODIC_DATA) return OMK_RULE_NOT_TRIGGERED;
    if (item->u.periodicData.code != g_code) return OMK_RULE_NOT_TRIGGERED;

    const std::wstring code = std::to_wstring(item->u.periodicData.code);
    const std::wstring subCode = std::to_wstring(item->u.periodicData.subCode);
    const std::wstring length = std::to_wstring(item->u.periodicData.dataLen);
    const OMK_ALERT_ITEM items[] = {{L"Code", code.c_str()}, {L"SubCode", subCode.c_str()}, {L"Length", length.c_str()}};
    unsigned int result = OmkSdk_RaiseAlert(rule, L"ExampleRecord", items, 3);
    return result == 0 ? OMK_RULE_TRIGGERED : result;
}

}  // namespace

extern "C" {

// A wrong configuration is reported and keeps this plugin's rules from firing;
// the service still starts, with every other rule and plugin.
unsigned int WINAPI Rule_Initialize(const wchar_t* configXml) {
    return OmkSdk_Guard("omkSdkExample!Rule_Initialize", [&] {
        g_configError = Configure(configXml);
        return 0u;
    });
}

unsigned int WINAPI Rule_Triggered(RULE* rule) {
    return OmkSdk_Guard("omkSdkExample!Rule_Triggered", [&] { return Evaluate(rule); });
}

void WINAPI Rule_CloseDll(void) {}
}
