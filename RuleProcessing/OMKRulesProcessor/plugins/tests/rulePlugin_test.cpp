// The rule plugin loader against real registry keys, real signed DLLs and
// real signature checks; the table's lookup, initialise and close loops.
#include <shlwapi.h>
#include <stdlib.h>

#include <memory>

#include "conventions.h"
#include "debugOutput.h"
#include "importPatch.h"
#include "pluginTests.h"
#include "rulePlugin.h"

namespace {

using omktest::kTestRulePlugin;

const std::string kKeyText = "Software\\Varn Inc.\\Orlemark\\RulePlugin";

class RulePluginLoader : public PluginTest {
protected:
    omktest::PluginKey key_{omktest::kRulePluginKey};
};

TEST_F(RulePluginLoader, MissingKeyGives5AndAllocatesNothing) {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, omktest::kRulePluginKey);
    EXPECT_EQ(5u, LoadRulePlugins());
    EXPECT_EQ(nullptr, g_rulePlugins);
    EXPECT_EQ((std::vector<std::string>{"LoadRulePlugins: missing key " + kKeyText}), Messages());
}

TEST_F(RulePluginLoader, KeyWithoutSubkeysGives1AndNoPlugin) {
    EXPECT_EQ(1u, LoadRulePlugins());
    EXPECT_EQ(0u, g_numRulePlugins);
    EXPECT_EQ(nullptr, FindRulePlugin(L"anything"));
    EXPECT_TRUE(Messages().empty());
}

TEST_F(RulePluginLoader, SignedPluginIsLoadedWithItsVersionAndExports) {
    std::wstring path = omktest::BuiltFile(kTestRulePlugin);
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"TestRule", path));

    ASSERT_EQ(0u, LoadRulePlugins());
    ASSERT_EQ(1u, g_numRulePlugins);
    const RULE_PLUGIN& plugin = g_rulePlugins[0];
    EXPECT_STREQ(L"TestRule", plugin.name);
    EXPECT_STREQ(path.c_str(), plugin.dllPath);
    EXPECT_EQ(GetModuleHandleW(path.c_str()), plugin.hModule);
    EXPECT_EQ(7, plugin.versionMajor);
    EXPECT_EQ(12, plugin.versionMinor);
    EXPECT_EQ(345, plugin.versionBuild);
    EXPECT_EQ(6789, plugin.versionRevision);
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(plugin.hModule, "Rule_Initialize")),
              reinterpret_cast<void*>(plugin.Rule_Initialize));
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(plugin.hModule, "Rule_Triggered")),
              reinterpret_cast<void*>(plugin.Rule_Triggered));
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(plugin.hModule, "Rule_CloseDll")),
              reinterpret_cast<void*>(plugin.Rule_CloseDll));
    EXPECT_EQ(nullptr, plugin.configXml);
    EXPECT_TRUE(Messages().empty());

    UnloadRulePlugins();
    EXPECT_FALSE(IsLoaded(path));
    EXPECT_EQ(nullptr, g_rulePlugins);
    EXPECT_EQ(0u, g_numRulePlugins);
}

// Every refused subkey leaves its slot to the next one, in enumeration
// (alphabetical) order; nothing refused stays loaded.
TEST_F(RulePluginLoader, RefusedPluginsLeaveTheirSlotToTheNext) {
    std::wstring first = Copy(kTestRulePlugin, L"first.dll");
    std::wstring unsignedPath = Copy(omktest::kTestRulePluginUnsigned, L"unsigned.dll");
    std::wstring tampered = Copy(omktest::kTestRulePluginTampered, L"tampered.dll");
    std::wstring missing = Scratch(L"missing.dll");
    std::wstring noTriggered = Copy(omktest::kTestRulePluginNoTriggered, L"noTriggered.dll");
    std::wstring last = Copy(kTestRulePlugin, L"last.dll");
    // 130 characters: one more than the 260 bytes offered to the read.
    std::wstring longPath = L"C:\\" + std::wstring(123, L'p') + L".dll";
    ASSERT_EQ(130u, longPath.size());

    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"a_first", first));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"b_expand", first, REG_EXPAND_SZ));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"c_unsigned", unsignedPath));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"d_tampered", tampered));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"e_missing", missing));
    ASSERT_EQ(ERROR_SUCCESS, key_.AddEmpty(L"f_noValue"));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"g_longPath", longPath));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"h_multiString", first, REG_MULTI_SZ));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"i_noTriggered", noTriggered));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"j_last", last));

    ASSERT_EQ(0u, LoadRulePlugins());
    ASSERT_EQ(2u, g_numRulePlugins);
    EXPECT_STREQ(L"a_first", g_rulePlugins[0].name);
    EXPECT_STREQ(L"j_last", g_rulePlugins[1].name);
    EXPECT_STREQ(last.c_str(), g_rulePlugins[1].dllPath);
    EXPECT_NE(nullptr, g_rulePlugins[1].Rule_Triggered);

    EXPECT_FALSE(IsLoaded(unsignedPath));
    EXPECT_FALSE(IsLoaded(tampered));
    EXPECT_FALSE(IsLoaded(noTriggered)) << "unloaded after the missing export";

    EXPECT_EQ((std::vector<std::string>{
                  "LoadRulePlugins: DllPath under b_expand is wrong type 2",
                  "LoadRulePlugin: Verify " + U8(unsignedPath) + " digital signature failed!",
                  "LoadRulePlugins: LoadRulePlugin " + U8(unsignedPath) + " failed 0x1",
                  "LoadRulePlugin: Verify " + U8(tampered) + " digital signature failed!",
                  "LoadRulePlugins: LoadRulePlugin " + U8(tampered) + " failed 0x1",
                  "LoadRulePlugin: Verify " + U8(missing) + " digital signature failed!",
                  "LoadRulePlugins: LoadRulePlugin " + U8(missing) + " failed 0x1",
                  "LoadRulePlugins: RegQueryValueEx f_noValue failed 0x2",
                  "LoadRulePlugins: RegQueryValueEx g_longPath failed 0xea",
                  "LoadRulePlugins: DllPath under h_multiString is wrong type 7",
                  "LoadRulePlugin: GetProcAddress Rule_Triggered failed 0x7f for plugin " + U8(noTriggered),
                  "LoadRulePlugins: LoadRulePlugin " + U8(noTriggered) + " failed 0x1",
              }),
              Messages());
}

TEST_F(RulePluginLoader, OnlyRefusedPluginsGive1) {
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"unsigned", omktest::BuiltFile(omktest::kTestRulePluginUnsigned)));
    EXPECT_EQ(1u, LoadRulePlugins());
    EXPECT_EQ(0u, g_numRulePlugins);
}

TEST_F(RulePluginLoader, PluginWithoutVersionResourceLoadsAs0000) {
    std::wstring path = omktest::BuiltFile(omktest::kTestRulePluginNoVersion);
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"NoVersion", path));

    ASSERT_EQ(0u, LoadRulePlugins());
    ASSERT_EQ(1u, g_numRulePlugins);
    const RULE_PLUGIN& plugin = g_rulePlugins[0];
    EXPECT_EQ(0, plugin.versionMajor);
    EXPECT_EQ(0, plugin.versionMinor);
    EXPECT_EQ(0, plugin.versionBuild);
    EXPECT_EQ(0, plugin.versionRevision);
    EXPECT_NE(nullptr, plugin.hModule);
    EXPECT_EQ((std::vector<std::string>{"LoadRulePlugin: Could not file FILE VERSION in " + U8(path)}), Messages());
}

TEST_F(RulePluginLoader, FailedLoadLibraryIsReportedWithItsError) {
    std::wstring path = Copy(kTestRulePlugin, L"refusesToLoad.dll");
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"RefusesToLoad", path));
    SetEnvironmentVariableW(omktest::kTestPluginFailLoadVariable, L"refusesToLoad.dll");
    DWORD status = LoadRulePlugins();
    SetEnvironmentVariableW(omktest::kTestPluginFailLoadVariable, nullptr);

    EXPECT_EQ(1u, status);
    EXPECT_FALSE(IsLoaded(path));
    EXPECT_EQ((std::vector<std::string>{
                  "LoadRulePlugin: LoadLibrary " + U8(path) + " failed 0x45a",
                  "LoadRulePlugins: LoadRulePlugin " + U8(path) + " failed 0x1",
              }),
              Messages());
}

// Names longer than a record holds are cut to 127 characters, so two subkeys
// can end up with names that differ only in letter case: both load, and the
// lookup, which ignores case, finds the first in enumeration order.
TEST_F(RulePluginLoader, FindIgnoresCaseAndReturnsTheFirstMatch) {
    std::wstring upper(127, L'R');
    std::wstring lower(127, L'r');
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(upper + L"-1", Copy(kTestRulePlugin, L"upper.dll")));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(lower + L"-2", Copy(kTestRulePlugin, L"lower.dll")));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"Mixed", Copy(kTestRulePlugin, L"mixed.dll")));

    ASSERT_EQ(0u, LoadRulePlugins());
    ASSERT_EQ(3u, g_numRulePlugins);
    EXPECT_STREQ(upper.c_str(), g_rulePlugins[1].name);
    EXPECT_STREQ(lower.c_str(), g_rulePlugins[2].name);

    EXPECT_EQ(&g_rulePlugins[0], FindRulePlugin(L"mIXED"));
    EXPECT_EQ(&g_rulePlugins[1], FindRulePlugin(lower.c_str())) << "the first of the two, not the exact match";
    EXPECT_EQ(&g_rulePlugins[1], FindRulePlugin(upper.c_str()));
    EXPECT_EQ(nullptr, FindRulePlugin((upper + L"-1").c_str())) << "the registry name was cut";
    EXPECT_EQ(nullptr, FindRulePlugin(L"Mixe"));
    EXPECT_EQ(nullptr, FindRulePlugin(nullptr));

    UnloadRulePlugins();
    EXPECT_EQ(nullptr, FindRulePlugin(L"Mixed"));
}

TEST_F(RulePluginLoader, EnumerationFailureEndsTheWalk) {
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"a_first", Copy(kTestRulePlugin, L"first.dll")));
    // A 255-character name does not fit the 255-character name buffer with its terminator.
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"b" + std::wstring(254, L'x'), omktest::BuiltFile(kTestRulePlugin)));
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"c_after", Copy(kTestRulePlugin, L"after.dll")));

    EXPECT_EQ(0u, LoadRulePlugins());
    EXPECT_EQ(1u, g_numRulePlugins);
    EXPECT_EQ((std::vector<std::string>{"LoadRulePlugins: RegEnumKey 1 failed 0xea"}), Messages());
}

LSTATUS WINAPI FailingQueryInfoKey(HKEY, LPWSTR, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD,
                                   LPDWORD, PFILETIME) {
    SetLastError(1234);
    return ERROR_ACCESS_DENIED;
}

LSTATUS WINAPI FailingOpenKey(HKEY, LPCWSTR, PHKEY) {
    return ERROR_ACCESS_DENIED;
}

TEST_F(RulePluginLoader, UnreadableSubkeyCountGives5WithTheThreadsLastError) {
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"TestRule", omktest::BuiltFile(kTestRulePlugin)));
    ScopedImportPatch patch("ADVAPI32.dll", "RegQueryInfoKeyW", reinterpret_cast<const void*>(&FailingQueryInfoKey));
    ASSERT_TRUE(patch.Patched());

    EXPECT_EQ(5u, LoadRulePlugins());
    EXPECT_EQ(nullptr, g_rulePlugins);
    EXPECT_EQ((std::vector<std::string>{"LoadRulePlugins: Error 1234 getting numkeys under " + kKeyText}), Messages());
}

TEST_F(RulePluginLoader, SubkeyThatCannotBeOpenedEndsTheWalkQuietly) {
    ASSERT_EQ(ERROR_SUCCESS, key_.Add(L"TestRule", omktest::BuiltFile(kTestRulePlugin)));
    ScopedImportPatch patch("ADVAPI32.dll", "RegOpenKeyW", reinterpret_cast<const void*>(&FailingOpenKey));
    ASSERT_TRUE(patch.Patched());

    EXPECT_EQ(1u, LoadRulePlugins());
    EXPECT_EQ((std::vector<std::string>{"LoadRulePlugins: RegOpenKey TestRule failed 0x5"}), Messages());
}

// Three copies of the test plugin recording into one call log.
class RulePluginCalls : public RulePluginLoader {
protected:
    void SetUp() override {
        callLog_ = Scratch(L"calls.txt");
        for (const wchar_t* name : {L"ruleA", L"ruleB", L"ruleC"}) {
            std::wstring file = std::wstring(name) + L".dll";
            ASSERT_EQ(ERROR_SUCCESS, key_.Add(name, Copy(kTestRulePlugin, file)));
            behaviours_.emplace_back(new omktest::TestPluginBehaviour(file));
            behaviours_.back()->SetCallLog(callLog_);
        }
        ASSERT_EQ(0u, LoadRulePlugins());
        ASSERT_EQ(3u, g_numRulePlugins);
    }
    std::vector<std::string> Calls() const { return omktest::CallSequence(omktest::ReadPluginCalls(callLog_)); }

    std::wstring callLog_;
    std::vector<std::unique_ptr<omktest::TestPluginBehaviour>> behaviours_;
};

TEST_F(RulePluginCalls, InitialiseHandsEachPluginItsConfigurationInTableOrder) {
    const wchar_t config[] = L"<RuleConfig Type=\"ruleB\"><Limit>3</Limit></RuleConfig>";
    g_rulePlugins[1].configXml = _wcsdup(config);
    ++g_allocCount;

    EXPECT_EQ(0u, InitRulePlugins());
    auto calls = omktest::ReadPluginCalls(callLog_);
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ((std::vector<std::string>{"ruleA.dll Rule_Initialize", "ruleB.dll Rule_Initialize",
                                        "ruleC.dll Rule_Initialize"}),
              omktest::CallSequence(calls));
    EXPECT_TRUE(calls[0].IsNull("config"));
    EXPECT_EQ(U8(config), calls[1].Get("config"));
}

TEST_F(RulePluginCalls, InitialiseStopsAtTheFirstFailure) {
    behaviours_[1]->Set(L"InitializeResult", 0x2a);
    EXPECT_EQ(0x2au, InitRulePlugins());
    EXPECT_EQ((std::vector<std::string>{"ruleA.dll Rule_Initialize", "ruleB.dll Rule_Initialize"}), Calls());
    EXPECT_TRUE(Messages().empty()) << "the engine reports the failure";
}

TEST_F(RulePluginCalls, CloseCallsEachPluginOnceThenUnloadFreesEverything) {
    g_rulePlugins[0].configXml = _wcsdup(L"<RuleConfig Type=\"ruleA\"/>");
    ++g_allocCount;

    CloseRulePlugins();
    CloseRulePlugins();
    for (DWORD i = 0; i < g_numRulePlugins; ++i) EXPECT_EQ(nullptr, g_rulePlugins[i].Rule_CloseDll);
    EXPECT_EQ(
        (std::vector<std::string>{"ruleA.dll Rule_CloseDll", "ruleB.dll Rule_CloseDll", "ruleC.dll Rule_CloseDll"}),
        Calls());

    UnloadRulePlugins();
    EXPECT_EQ((std::vector<std::string>{"ruleA.dll Rule_CloseDll", "ruleB.dll Rule_CloseDll", "ruleC.dll Rule_CloseDll",
                                        "ruleA.dll DllDetach", "ruleB.dll DllDetach", "ruleC.dll DllDetach"}),
              Calls());
    EXPECT_FALSE(IsLoaded(Scratch(L"ruleA.dll")));
    EXPECT_EQ(nullptr, g_rulePlugins);
    EXPECT_EQ(0u, g_numRulePlugins);
    EXPECT_EQ(allocBefore_, g_allocCount);
}

TEST(RulePluginTable, MissingTableWritesTheAssertionLinesAndGoesOn) {
    DebugOutputCapture capture;
    ASSERT_TRUE(capture.Ready());
    g_rulePlugins = nullptr;
    g_numRulePlugins = 2;
    EXPECT_EQ(nullptr, FindRulePlugin(L"x"));
    EXPECT_EQ(0u, InitRulePlugins());
    CloseRulePlugins();
    g_numRulePlugins = 0;

    std::string pid = std::to_string(GetCurrentProcessId()) + ": " + std::to_string(GetCurrentThreadId()) + ": ";
    for (int line : {316, 338, 361}) {
        std::string expected =
            pid + "**** ERROR **** Assertion failed at line " + std::to_string(line) + " file rulePlugin.cpp\n";
        auto lines = capture.LinesContaining("line " + std::to_string(line) + " ");
        ASSERT_EQ(2u, lines.size()) << "once per missing slot, line " << line;
        EXPECT_EQ(expected, lines[0]);
    }
}

}  // namespace
