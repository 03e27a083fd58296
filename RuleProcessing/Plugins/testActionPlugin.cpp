// An action plugin for tests: records each call and returns what the test
// chose. Built with OMK_TEST_WITHOUT_ACTION_END_EVALUATION it lacks that export.
#define OMK_ACTION_PLUGIN_EXPORTS
#include "testPluginCore.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance);
        return testplugin::Attach(instance) ? TRUE : FALSE;
    }
    // A null `reserved` means FreeLibrary, not process exit.
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr) testplugin::Detach();
    return TRUE;
}

unsigned int WINAPI Action_Initialize(const wchar_t* configXml) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"Initialize", L"TestInitializeResult", configXml);
    testplugin::Record record("Action_Initialize");
    record.Text("config", configXml);
    record.Number("result", behaviour.result);
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
    return behaviour.result;
}

void WINAPI Action_BeginEvaluation(void) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"BeginEvaluation", nullptr, nullptr);
    testplugin::Record record("Action_BeginEvaluation");
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
}

unsigned int WINAPI Action_Execute(RULE* rule, const wchar_t* actionXml) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"Execute", L"TestExecuteResult", actionXml);
    testplugin::Record record("Action_Execute");
    record.Text("actionXml", actionXml);
    record.Rule(rule);
    record.Number("result", behaviour.result);
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
    return behaviour.result;
}

#ifndef OMK_TEST_WITHOUT_ACTION_END_EVALUATION
unsigned int WINAPI Action_EndEvaluation(void) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"EndEvaluation", nullptr, nullptr);
    testplugin::Record record("Action_EndEvaluation");
    record.Number("result", behaviour.result);
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
    return behaviour.result;
}
#endif

void WINAPI Action_CloseDll(void) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"CloseDll", nullptr, nullptr);
    testplugin::Record record("Action_CloseDll");
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
}
