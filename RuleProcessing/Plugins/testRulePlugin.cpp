// A rule plugin for tests: records each call and returns what the test chose.
// Built with OMK_TEST_WITHOUT_RULE_TRIGGERED it lacks that export.
#define OMK_RULE_PLUGIN_EXPORTS
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

unsigned int WINAPI Rule_Initialize(const wchar_t* configXml) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"Initialize", L"TestInitializeResult", configXml);
    testplugin::Record record("Rule_Initialize");
    record.Text("config", configXml);
    record.Number("result", behaviour.result);
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
    return behaviour.result;
}

#ifndef OMK_TEST_WITHOUT_RULE_TRIGGERED
unsigned int WINAPI Rule_Triggered(RULE* rule) {
    testplugin::Behaviour behaviour =
        testplugin::ReadBehaviour(L"Triggered", L"TestTriggeredResult", rule != nullptr ? rule->xml : nullptr);
    testplugin::Record record("Rule_Triggered");
    record.Rule(rule);
    record.Number("result", behaviour.result);
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
    return behaviour.result;
}
#endif

void WINAPI Rule_CloseDll(void) {
    testplugin::Behaviour behaviour = testplugin::ReadBehaviour(L"CloseDll", nullptr, nullptr);
    testplugin::Record record("Rule_CloseDll");
    record.Write(behaviour.callLog);
    testplugin::Act(behaviour);
}
