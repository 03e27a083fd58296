// A rule plugin for tests: records each call and returns what the test chose.
// Built with OMK_TEST_WITHOUT_RULE_TRIGGERED it lacks that export.
#define OMK_RULE_PLUGIN_EXPORTS
#include "testPluginCore.h"

using testplugin::Call;
using testplugin::Record;

unsigned int WINAPI Rule_Initialize(const wchar_t* configXml) {
    return Call(Record("Rule_Initialize").Text("config", configXml), L"Initialize", L"TestInitializeResult", configXml);
}

#ifndef OMK_TEST_WITHOUT_RULE_TRIGGERED
unsigned int WINAPI Rule_Triggered(RULE* rule) {
    return Call(Record("Rule_Triggered").Rule(rule), L"Triggered", L"TestTriggeredResult",
                rule != nullptr ? rule->xml : nullptr);
}
#endif

void WINAPI Rule_CloseDll(void) {
    Call(Record("Rule_CloseDll"), L"CloseDll", nullptr, nullptr, false);
}
