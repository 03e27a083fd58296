// The action plugin loader: what it shares with the rule plugin loader is
// checked there; here are its own exports, statuses and messages.
#include <shlwapi.h>
#include <stdlib.h>

#include <memory>

#include "actionPlugin.h"
#include "conventions.h"
#include "debugOutput.h"
#include "importPatch.h"
#include "pluginTests.h"

namespace {

using omktest::kTestActionPlugin;

class ActionPluginLoader : public PluginTest {
protected:
    omktest::PluginKey key_{omktest::kActionPluginKey};
};

TEST_F(ActionPluginLoader, MissingKeyGives5WithoutNamingIt) {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, omktest::kActionPluginKey);
    EXPECT_EQ(5u, LoadActionPlugins());
    EXPECT_EQ(nullptr, g_actionPlugins);
    EXPECT_EQ((std::vector<std::string>{"LoadActionPlugins: no root key"}), Messages());
}

TEST_F(ActionPluginLoader, KeyWithoutSubkeysGives1) {
    EXPECT_EQ(1u, LoadActionPlugins());
    EXPECT_EQ(0u, g_numActionPlugins);
    EXPECT_TRUE(Messages().empty());
}

TEST_F(ActionPluginLoader, SignedPluginIsLoadedWithItsVersionAndFiveExports) {
    std::wstring path = omktest::BuiltFile(kTestActionPlugin);
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"TestAction", path));

    ASSERT_EQ(0u, LoadActionPlugins());
    ASSERT_EQ(1u, g_numActionPlugins);
    const ACTION_PLUGIN& plugin = g_actionPlugins[0];
    EXPECT_STREQ(L"TestAction", plugin.name);
    EXPECT_STREQ(path.c_str(), plugin.dllPath);
    EXPECT_EQ(GetModuleHandleW(path.c_str()), plugin.hModule);
    EXPECT_EQ(2, plugin.versionMajor);
    EXPECT_EQ(0, plugin.versionMinor);
    EXPECT_EQ(65535, plugin.versionBuild);
    EXPECT_EQ(1, plugin.versionRevision);
    auto proc = [&](const char* name) { return reinterpret_cast<void*>(GetProcAddress(plugin.hModule, name)); };
    EXPECT_EQ(proc("Action_Initialize"), reinterpret_cast<void*>(plugin.Action_Initialize));
    EXPECT_EQ(proc("Action_BeginEvaluation"), reinterpret_cast<void*>(plugin.Action_BeginEvaluation));
    EXPECT_EQ(proc("Action_Execute"), reinterpret_cast<void*>(plugin.Action_Execute));
    EXPECT_EQ(proc("Action_EndEvaluation"), reinterpret_cast<void*>(plugin.Action_EndEvaluation));
    EXPECT_EQ(proc("Action_CloseDll"), reinterpret_cast<void*>(plugin.Action_CloseDll));
    EXPECT_EQ(nullptr, plugin.configXml);
    EXPECT_TRUE(Messages().empty());
}

TEST_F(ActionPluginLoader, PluginWithoutEndEvaluationIsRefusedUnloadedAndLeftUnnamed) {
    std::wstring path = Copy(omktest::kTestActionPluginNoEndEval, L"noEndEval.dll");
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"NoEndEval", path));

    EXPECT_EQ(1u, LoadActionPlugins());
    EXPECT_EQ(0u, g_numActionPlugins);
    EXPECT_FALSE(IsLoaded(path));
    // The failed record was zeroed and never named, so no lookup can find it.
    EXPECT_EQ(L'\0', g_actionPlugins[0].name[0]);
    EXPECT_EQ(nullptr, g_actionPlugins[0].hModule);
    EXPECT_EQ((std::vector<std::string>{
                  "LoadActionPlugin: GetProcAddress Action_EndEvaluation failed 0x7f for plugin " + U8(path),
                  "LoadActionPlugins: LoadActionPlugin " + U8(path) + " failed 0x1",
              }),
              Messages());
}

TEST_F(ActionPluginLoader, RefusedPluginsLeaveTheirSlotToTheNext) {
    std::wstring noEndEval = Copy(omktest::kTestActionPluginNoEndEval, L"noEndEval.dll");
    std::wstring unsignedPath = Copy(omktest::kTestActionPluginUnsigned, L"unsigned.dll");
    std::wstring tampered = Copy(omktest::kTestActionPluginTampered, L"tampered.dll");
    std::wstring good = Copy(kTestActionPlugin, L"good.dll");
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"a_noEndEval", noEndEval));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"b_expand", good, REG_EXPAND_SZ));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"c_unsigned", unsignedPath));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"d_tampered", tampered));
    ASSERT_EQ(ERROR_SUCCESS, key_.AddEmpty(L"e_noValue"));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"f_good", good));

    ASSERT_EQ(0u, LoadActionPlugins());
    ASSERT_EQ(1u, g_numActionPlugins);
    EXPECT_STREQ(L"f_good", g_actionPlugins[0].name);
    EXPECT_STREQ(good.c_str(), g_actionPlugins[0].dllPath);
    EXPECT_NE(nullptr, g_actionPlugins[0].Action_EndEvaluation);
    EXPECT_FALSE(IsLoaded(unsignedPath));
    EXPECT_FALSE(IsLoaded(tampered));
    EXPECT_FALSE(IsLoaded(noEndEval));
    EXPECT_EQ((std::vector<std::string>{
                  "LoadActionPlugin: GetProcAddress Action_EndEvaluation failed 0x7f for plugin " + U8(noEndEval),
                  "LoadActionPlugins: LoadActionPlugin " + U8(noEndEval) + " failed 0x1",
                  "LoadActionPlugins: DllPath under b_expand is wrong type 2",
                  "LoadActionPlugin: Verify " + U8(unsignedPath) + " digital signature failed!",
                  "LoadActionPlugins: LoadActionPlugin " + U8(unsignedPath) + " failed 0x1",
                  "LoadActionPlugin: Verify " + U8(tampered) + " digital signature failed!",
                  "LoadActionPlugins: LoadActionPlugin " + U8(tampered) + " failed 0x1",
                  "LoadActionPlugins: RegQueryValueEx e_noValue failed 0x2",
              }),
              Messages());
}

TEST_F(ActionPluginLoader, PluginWithoutVersionResourceLoadsAs0000) {
    std::wstring path = omktest::BuiltFile(omktest::kTestActionPluginNoVersion);
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"NoVersion", path));

    ASSERT_EQ(0u, LoadActionPlugins());
    ASSERT_EQ(1u, g_numActionPlugins);
    EXPECT_EQ(0, g_actionPlugins[0].versionMajor);
    EXPECT_EQ(0, g_actionPlugins[0].versionMinor);
    EXPECT_EQ(0, g_actionPlugins[0].versionBuild);
    EXPECT_EQ(0, g_actionPlugins[0].versionRevision);
    EXPECT_EQ((std::vector<std::string>{"LoadActionPlugin: Could not file FILE VERSION in " + U8(path)}), Messages());
}

LSTATUS WINAPI FailingQueryInfoKey(HKEY, LPWSTR, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD,
                                   LPDWORD, PFILETIME) {
    SetLastError(4321);
    return ERROR_ACCESS_DENIED;
}

TEST_F(ActionPluginLoader, UnreadableSubkeyCountGives1NotLikeTheRuleLoader) {
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"TestAction", omktest::BuiltFile(kTestActionPlugin)));
    ScopedImportPatch patch("ADVAPI32.dll", "RegQueryInfoKeyW", reinterpret_cast<const void*>(&FailingQueryInfoKey));
    ASSERT_TRUE(patch.Patched());

    EXPECT_EQ(1u, LoadActionPlugins());
    EXPECT_EQ(nullptr, g_actionPlugins);
    EXPECT_EQ((std::vector<std::string>{"LoadActionPlugins: Error 4321 getting numkeys"}), Messages());
}

TEST_F(ActionPluginLoader, FindIgnoresCaseAndReturnsTheFirstMatch) {
    std::wstring upper(127, L'A');
    std::wstring lower(127, L'a');
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(upper + L"-1", Copy(kTestActionPlugin, L"upper.dll")));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(lower + L"-2", Copy(kTestActionPlugin, L"lower.dll")));

    ASSERT_EQ(0u, LoadActionPlugins());
    ASSERT_EQ(2u, g_numActionPlugins);
    EXPECT_STREQ(lower.c_str(), g_actionPlugins[1].name);
    EXPECT_EQ(&g_actionPlugins[0], FindActionPlugin(lower.c_str()));
    EXPECT_EQ(&g_actionPlugins[0], FindActionPlugin((L"aA" + std::wstring(125, L'a')).c_str()));
    EXPECT_EQ(nullptr, FindActionPlugin(L"a"));
    EXPECT_EQ(nullptr, FindActionPlugin(nullptr));
}

class ActionPluginCalls : public ActionPluginLoader {
protected:
    void SetUp() override {
        callLog_ = Scratch(L"calls.txt");
        for (const wchar_t* name : {L"actA", L"actB", L"actC"}) {
            std::wstring file = std::wstring(name) + L".dll";
            ASSERT_EQ(ERROR_SUCCESS, key_.Add(name, Copy(kTestActionPlugin, file)));
            behaviours_.emplace_back(new omktest::TestPluginBehaviour(file));
            behaviours_.back()->SetCallLog(callLog_);
        }
        ASSERT_EQ(0u, LoadActionPlugins());
        ASSERT_EQ(3u, g_numActionPlugins);
    }
    std::vector<std::string> Calls() const { return omktest::CallSequence(omktest::ReadPluginCalls(callLog_)); }

    std::wstring callLog_;
    std::vector<std::unique_ptr<omktest::TestPluginBehaviour>> behaviours_;
};

TEST_F(ActionPluginCalls, InitialiseStopsAtTheFirstFailureAndNamesIt) {
    const wchar_t config[] = L"<ActionConfig Type=\"actA\"/>";
    g_actionPlugins[0].configXml = _wcsdup(config);
    ++g_allocCount;
    behaviours_[1]->Set(L"InitializeResult", 7);

    EXPECT_EQ(7u, InitActionPlugins());
    auto calls = omktest::ReadPluginCalls(callLog_);
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_Initialize", "actB.dll Action_Initialize"}),
              omktest::CallSequence(calls));
    EXPECT_EQ(U8(config), calls[0].Get("config"));
    EXPECT_EQ((std::vector<std::string>{"InitActionPlugins: Failed to init plugin 1: actB - err 0x7"}), Messages());
}

TEST_F(ActionPluginCalls, InitialiseSucceedsWhenEveryPluginDoes) {
    EXPECT_EQ(0u, InitActionPlugins());
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_Initialize", "actB.dll Action_Initialize",
                                        "actC.dll Action_Initialize"}),
              Calls());
    EXPECT_TRUE(Messages().empty());
}

TEST_F(ActionPluginCalls, TeardownClosesActionsBeforeRulesThenUnloads) {
    omktest::PluginKey ruleKey(omktest::kRulePluginKey);
    ASSERT_EQ(ERROR_SUCCESS, ruleKey.Add(L"rule", Copy(omktest::kTestRulePlugin, L"rule.dll")));
    omktest::TestPluginBehaviour ruleBehaviour(L"rule.dll");
    ruleBehaviour.SetCallLog(callLog_);
    ASSERT_EQ(0u, LoadRulePlugins());

    // The service's teardown order.
    CloseActionPlugins();
    CloseRulePlugins();
    UnloadActionPlugins();
    UnloadRulePlugins();
    EXPECT_EQ((std::vector<std::string>{"actA.dll Action_CloseDll", "actB.dll Action_CloseDll",
                                        "actC.dll Action_CloseDll", "rule.dll Rule_CloseDll", "actA.dll DllDetach",
                                        "actB.dll DllDetach", "actC.dll DllDetach", "rule.dll DllDetach"}),
              Calls());
    EXPECT_EQ(nullptr, g_actionPlugins);
    EXPECT_EQ(0u, g_numActionPlugins);
}

TEST(ActionPluginTable, MissingTableWritesTheAssertionLinesAndGoesOn) {
    DebugOutputCapture capture;
    ASSERT_TRUE(capture.Ready());
    g_actionPlugins = nullptr;
    g_numActionPlugins = 1;
    EXPECT_EQ(nullptr, FindActionPlugin(L"x"));
    EXPECT_EQ(0u, InitActionPlugins());
    CloseActionPlugins();
    g_numActionPlugins = 0;

    std::string pid = std::to_string(GetCurrentProcessId()) + ": " + std::to_string(GetCurrentThreadId()) + ": ";
    for (int line : {340, 362, 385}) {
        auto lines = capture.LinesContaining("line " + std::to_string(line) + " ");
        ASSERT_EQ(1u, lines.size()) << "line " << line;
        EXPECT_EQ(pid + "**** ERROR **** Assertion failed at line " + std::to_string(line) + " file actionPlugin.cpp\n",
                  lines[0]);
    }
}

}  // namespace
