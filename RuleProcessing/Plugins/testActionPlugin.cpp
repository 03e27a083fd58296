// An action plugin for tests: records each call and returns what the test
// chose. Built with OMK_TEST_WITHOUT_ACTION_END_EVALUATION it lacks that export.
#define OMK_ACTION_PLUGIN_EXPORTS
#include "testPluginCore.h"

using testplugin::Call;
using testplugin::Record;

unsigned int WINAPI Action_Initialize(const wchar_t* configXml) {
    return Call(Record("Action_Initialize").Text("config", configXml), L"Initialize", L"TestInitializeResult",
                configXml);
}

void WINAPI Action_BeginEvaluation(void) {
    Call(Record("Action_BeginEvaluation"), L"BeginEvaluation", nullptr, nullptr, false);
}

unsigned int WINAPI Action_Execute(RULE* rule, const wchar_t* actionXml) {
    return Call(Record("Action_Execute").Text("actionXml", actionXml).Rule(rule), L"Execute", L"TestExecuteResult",
                actionXml);
}

#ifndef OMK_TEST_WITHOUT_ACTION_END_EVALUATION
unsigned int WINAPI Action_EndEvaluation(void) {
    return Call(Record("Action_EndEvaluation"), L"EndEvaluation");
}
#endif

void WINAPI Action_CloseDll(void) {
    Call(Record("Action_CloseDll"), L"CloseDll", nullptr, nullptr, false);
}
