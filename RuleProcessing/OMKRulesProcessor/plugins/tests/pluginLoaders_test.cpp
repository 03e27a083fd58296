// The rule and action plugin loaders, one suite over both, on real keys and signed DLLs.
#include <gtest/gtest.h>

#include <shlwapi.h>
#include <stdlib.h>

#include <memory>

#include "actionPlugin.h"
#include "conventions.h"
#include "rulePlugin.h"
#include "testPlugins.h"

namespace {

using omktest::BuiltFile;
using omktest::ToUtf8;
using Strings = std::vector<std::string>;

// What differs between the two loaders. `kBase` names the test plugin and
// its variants: "-unsigned", "-tampered", "NoVersion" and kNoExport, which lacks kMissing.
struct RuleLoader {
    using Record = RULE_PLUGIN;
    static constexpr const char* kName = "LoadRulePlugin";  // messages begin with it, or with it plus "s"
    static constexpr const char* kExport = "Rule_";
    static constexpr const wchar_t* kKey = omktest::kRulePluginKey;
    static constexpr const wchar_t* kBase = L"omkTestRulePlugin";
    static constexpr const wchar_t* kNoExport = L"NoTriggered.dll";
    static constexpr const char* kMissing = "Rule_Triggered";
    static constexpr WORD kVersion[4] = {7, 12, 345, 6789};
    static constexpr int kAssertLines[3] = {316, 338, 361};
    static constexpr DWORD kNoCountStatus = 5;
    static constexpr const char* kNoCount =
        "LoadRulePlugins: Error 1234 getting numkeys under Software\\Varn Inc.\\Orlemark\\RulePlugin";
    static constexpr const char* kNoKey = "LoadRulePlugins: missing key Software\\Varn Inc.\\Orlemark\\RulePlugin";
    static Strings InitFailure() { return {}; }  // the engine reports it
    static Record*& Table() { return g_rulePlugins; }
    static DWORD& Count() { return g_numRulePlugins; }
    static DWORD Load() { return LoadRulePlugins(); }
    static DWORD Init() { return InitRulePlugins(); }
    static void Close() { CloseRulePlugins(); }
    static void Unload() { UnloadRulePlugins(); }
    static Record* Find(const wchar_t* name) { return FindRulePlugin(name); }
    static std::vector<std::pair<const char*, FARPROC>> Exports(const Record& r) {
        return {{"Rule_Initialize", reinterpret_cast<FARPROC>(r.Rule_Initialize)},
                {"Rule_Triggered", reinterpret_cast<FARPROC>(r.Rule_Triggered)},
                {"Rule_CloseDll", reinterpret_cast<FARPROC>(r.Rule_CloseDll)}};
    }
};

struct ActionLoader {
    using Record = ACTION_PLUGIN;
    static constexpr const char* kName = "LoadActionPlugin";
    static constexpr const char* kExport = "Action_";
    static constexpr const wchar_t* kKey = omktest::kActionPluginKey;
    static constexpr const wchar_t* kBase = L"omkTestActionPlugin";
    static constexpr const wchar_t* kNoExport = L"NoEndEvaluation.dll";
    static constexpr const char* kMissing = "Action_EndEvaluation";
    static constexpr WORD kVersion[4] = {2, 0, 65535, 1};
    static constexpr int kAssertLines[3] = {340, 362, 385};
    static constexpr DWORD kNoCountStatus = 1;
    static constexpr const char* kNoCount = "LoadActionPlugins: Error 1234 getting numkeys";
    static constexpr const char* kNoKey = "LoadActionPlugins: no root key";
    static Strings InitFailure() { return {"InitActionPlugins: Failed to init plugin 1: pluginB - err 0x2a"}; }
    static Record*& Table() { return g_actionPlugins; }
    static DWORD& Count() { return g_numActionPlugins; }
    static DWORD Load() { return LoadActionPlugins(); }
    static DWORD Init() { return InitActionPlugins(); }
    static void Close() { CloseActionPlugins(); }
    static void Unload() { UnloadActionPlugins(); }
    static Record* Find(const wchar_t* name) { return FindActionPlugin(name); }
    static std::vector<std::pair<const char*, FARPROC>> Exports(const Record& r) {
        return {{"Action_Initialize", reinterpret_cast<FARPROC>(r.Action_Initialize)},
                {"Action_BeginEvaluation", reinterpret_cast<FARPROC>(r.Action_BeginEvaluation)},
                {"Action_Execute", reinterpret_cast<FARPROC>(r.Action_Execute)},
                {"Action_EndEvaluation", reinterpret_cast<FARPROC>(r.Action_EndEvaluation)},
                {"Action_CloseDll", reinterpret_cast<FARPROC>(r.Action_CloseDll)}};
    }
};

template <typename Loader>
class PluginLoader : public ::testing::Test {
protected:
    // Signed plugins verify as on a Windows test machine only with the test root trusted.
    static void SetUpTestSuite() { ASSERT_TRUE(omktest::InstallTestRoot()); }
    void TearDown() override {
        Loader::Unload();
        EXPECT_EQ(allocBefore_, g_allocCount) << "live allocations must come back";
    }
    // A copy of the test plugin or of a variant under another name (the
    // signature does not cover the name).
    std::wstring Copy(const std::wstring& asName, const wchar_t* variant = L".dll") {
        std::wstring built = BuiltFile((Loader::kBase + std::wstring(variant)).c_str());
        EXPECT_TRUE(CopyFileW(built.c_str(), folder_.File(asName).c_str(), FALSE));
        return folder_.File(asName);
    }
    Strings Messages() const { return log_.Messages(); }

    omktest::ErrorLog log_{L"OmkPlugins_test.log"};
    omktest::TempFolder folder_;
    omktest::PluginKey key_{Loader::kKey};
    int allocBefore_ = g_allocCount;
};

using Loaders = ::testing::Types<RuleLoader, ActionLoader>;
TYPED_TEST_SUITE(PluginLoader, Loaders);

// Every refused subkey leaves its slot to the next one, in enumeration
// (alphabetical) order; nothing refused stays loaded; a name the enumeration
// cannot read ends the walk. Names longer than a record holds are cut to 127
// characters, so two subkeys can end up with names that differ only in letter
// case: both load, and the lookup, which ignores case, finds the first.
TYPED_TEST(PluginLoader, LoadsWhatItMayFindsItAndUnloadsIt) {
    using L = TypeParam;
    const std::wstring good = BuiltFile((L::kBase + std::wstring(L".dll")).c_str());
    const std::wstring unsignedPath = this->Copy(L"unsigned.dll", L"-unsigned.dll");
    const std::wstring tampered = this->Copy(L"tampered.dll", L"-tampered.dll"), missing = this->folder_.File(L"x.dll");
    const std::wstring noExport = this->Copy(L"noExport.dll", L::kNoExport), failsLoad = this->Copy(L"failsLoad.dll");
    const std::wstring noVersion = this->Copy(L"noVersion.dll", L"NoVersion.dll");
    const std::wstring upper = L"k" + std::wstring(126, L'P'), lower = L"k" + std::wstring(126, L'p');
    const std::string one = std::string(L::kName) + ": ", all = std::string(L::kName) + "s: ";
    auto refused = [&](const std::wstring& dll, const std::string& why) {
        return Strings{one + why, all + L::kName + " " + ToUtf8(dll) + " failed 0x1"};
    };
    auto unverified = [&](const std::wstring& dll) {
        return refused(dll, "Verify " + ToUtf8(dll) + " digital signature failed!");
    };
    const struct {
        std::wstring subkey;
        std::wstring dllPath;
        DWORD type;
        Strings messages;
    } rows[] = {
        {L"a_good", good, REG_SZ, {}},
        {L"b_expand", good, REG_EXPAND_SZ, {all + "DllPath under b_expand is wrong type 2"}},
        {L"c_unsigned", unsignedPath, REG_SZ, unverified(unsignedPath)},
        {L"d_tampered", tampered, REG_SZ, unverified(tampered)},
        {L"e_missing", missing, REG_SZ, unverified(missing)},
        {L"f_noValue", L"", REG_NONE, {all + "RegQueryValueEx f_noValue failed 0x2"}},
        // 130 characters: one more than the 260 bytes offered to the read.
        {L"g_longPath", L"C:\\" + std::wstring(123, L'p') + L".dll", REG_SZ,
         {all + "RegQueryValueEx g_longPath failed 0xea"}},
        {L"h_noExport", noExport, REG_SZ,
         refused(noExport, "GetProcAddress " + std::string(L::kMissing) + " failed 0x7f for plugin " + ToUtf8(noExport))},
        {L"i_failsLoad", failsLoad, REG_SZ, refused(failsLoad, "LoadLibrary " + ToUtf8(failsLoad) + " failed 0x45a")},
        {L"j_noVersion", noVersion, REG_SZ, {one + "Could not file FILE VERSION in " + ToUtf8(noVersion)}},
        {upper + L"-1", this->Copy(L"upper.dll"), REG_SZ, {}},
        {lower + L"-2", this->Copy(L"lower.dll"), REG_SZ, {}},
        // 255 characters do not fit the 255-character name buffer with its terminator.
        {L"y" + std::wstring(254, L'y'), good, REG_SZ, {all + "RegEnumKey 12 failed 0xea"}},
        {L"z_after", good, REG_SZ, {}},
    };
    Strings expected;
    for (const auto& row : rows) {
        ASSERT_EQ(ERROR_SUCCESS, this->key_.Add(row.subkey, row.dllPath, row.type));
        expected.insert(expected.end(), row.messages.begin(), row.messages.end());
    }

    SetEnvironmentVariableW(L"OMK_TEST_PLUGIN_FAIL_LOAD", L"failsLoad.dll");
    DWORD status = L::Load();
    SetEnvironmentVariableW(L"OMK_TEST_PLUGIN_FAIL_LOAD", nullptr);
    ASSERT_EQ(0u, status);
    ASSERT_EQ(4u, L::Count());
    EXPECT_EQ(expected, this->Messages());
    const auto& plugin = L::Table()[0];
    EXPECT_STREQ(L"a_good", plugin.name);
    EXPECT_STREQ(good.c_str(), plugin.dllPath);
    EXPECT_EQ(GetModuleHandleW(good.c_str()), plugin.hModule);
    EXPECT_EQ(std::vector<WORD>(L::kVersion, L::kVersion + 4),
              (std::vector<WORD>{plugin.versionMajor, plugin.versionMinor, plugin.versionBuild, plugin.versionRevision}));
    for (const auto& bound : L::Exports(plugin)) {
        EXPECT_EQ(GetProcAddress(plugin.hModule, bound.first), bound.second) << bound.first;
    }
    EXPECT_EQ(nullptr, plugin.configXml);
    const auto& unversioned = L::Table()[1];
    EXPECT_STREQ(noVersion.c_str(), unversioned.dllPath);
    EXPECT_EQ(0, unversioned.versionMajor + unversioned.versionMinor + unversioned.versionBuild +
                     unversioned.versionRevision);
    EXPECT_STREQ(upper.c_str(), L::Table()[2].name);
    EXPECT_STREQ(lower.c_str(), L::Table()[3].name);
    for (const std::wstring& dll : {unsignedPath, tampered, noExport, failsLoad}) {
        EXPECT_EQ(nullptr, GetModuleHandleW(dll.c_str())) << ToUtf8(dll);
    }

    EXPECT_EQ(&L::Table()[1], L::Find(L"J_NOversion"));
    EXPECT_EQ(&L::Table()[2], L::Find(lower.c_str())) << "the first of the two, not the exact match";
    EXPECT_EQ(nullptr, L::Find((upper + L"-1").c_str())) << "the registry name was cut";
    EXPECT_EQ(nullptr, L::Find(L"a_goo"));
    EXPECT_EQ(nullptr, L::Find(nullptr));
    L::Unload();
    EXPECT_EQ(nullptr, GetModuleHandleW(good.c_str()));
    EXPECT_EQ(nullptr, L::Table());
    EXPECT_EQ(0u, L::Count());
}

// Points this program's import slot of `function` at `replacement`; false when
// there is none. The plugins library is linked in, so its registry calls can
// be made to fail in ways no registry content can.
bool PatchImport(FARPROC function, FARPROC replacement) {
    BYTE* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    DWORD imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto* dll = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); dll->Name != 0; ++dll) {
        for (auto* slot = reinterpret_cast<FARPROC*>(base + dll->FirstThunk); *slot != nullptr; ++slot) {
            if (*slot != function) continue;
            DWORD protection = 0;
            VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection);
            *slot = replacement;
            VirtualProtect(slot, sizeof(*slot), protection, &protection);
            return true;
        }
    }
    return false;
}

LSTATUS WINAPI FailingQueryInfoKey(HKEY, LPWSTR, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD, LPDWORD,
                                   LPDWORD, PFILETIME) {
    SetLastError(1234);
    return ERROR_ACCESS_DENIED;
}

LSTATUS WINAPI FailingOpenKey(HKEY, LPCWSTR, PHKEY) {
    return ERROR_ACCESS_DENIED;
}

// An empty key, an unreadable subkey count or subkey, a missing key.
TYPED_TEST(PluginLoader, RegistryWithoutPluginsGivesItsStatusAndMessage) {
    using L = TypeParam;
    EXPECT_EQ(1u, L::Load());
    EXPECT_EQ(0u, L::Count());
    EXPECT_EQ(nullptr, L::Find(L"anything"));
    L::Unload();
    ASSERT_EQ(ERROR_SUCCESS, this->key_.Add(L"plugin", this->Copy(L"plugin.dll")));
    HMODULE advapi = GetModuleHandleW(L"advapi32.dll");
    for (const char* name : {"RegQueryInfoKeyW", "RegOpenKeyW"}) {
        FARPROC real = GetProcAddress(advapi, name);
        FARPROC failing = name[3] == 'Q' ? reinterpret_cast<FARPROC>(&FailingQueryInfoKey)
                                         : reinterpret_cast<FARPROC>(&FailingOpenKey);
        ASSERT_TRUE(PatchImport(real, failing)) << name;
        DWORD status = L::Load();
        PatchImport(failing, real);
        EXPECT_EQ(name[3] == 'Q' ? L::kNoCountStatus : 1u, status) << name;
        EXPECT_EQ(name[3] == 'Q', L::Table() == nullptr) << name;
    }
    L::Unload();
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, L::kKey);
    EXPECT_EQ(5u, L::Load());
    EXPECT_EQ(nullptr, L::Table());
    EXPECT_EQ((Strings{L::kNoCount, std::string(L::kName) + "s: RegOpenKey plugin failed 0x5", L::kNoKey}),
              this->Messages());
}

TYPED_TEST(PluginLoader, CallsRunInTableOrderAndInitialiseStopsAtAFailure) {
    using L = TypeParam;
    const std::wstring callLog = this->folder_.File(L"calls.txt");
    std::vector<std::unique_ptr<omktest::TestPluginBehaviour>> behaviours;
    for (const wchar_t* name : {L"pluginA", L"pluginB", L"pluginC"}) {
        std::wstring file = name + std::wstring(L".dll");
        ASSERT_EQ(ERROR_SUCCESS, this->key_.Add(name, this->Copy(file)));
        behaviours.emplace_back(new omktest::TestPluginBehaviour(file));
        behaviours.back()->SetCallLog(callLog);
    }
    ASSERT_EQ(0u, L::Load());
    ASSERT_EQ(3u, L::Count());
    const wchar_t config[] = L"<Config Type=\"pluginB\"/>";
    L::Table()[1].configXml = _wcsdup(config);
    ++g_allocCount;
    behaviours[1]->Set(L"InitializeResult", 0x2a);
    EXPECT_EQ(0x2au, L::Init());
    EXPECT_EQ(L::InitFailure(), this->Messages());
    behaviours[1]->Set(L"InitializeResult", 0);
    EXPECT_EQ(0u, L::Init());
    L::Close();
    L::Close();
    L::Unload();

    auto calls = omktest::ReadPluginCalls(callLog);
    Strings expected;
    for (const char* step : {"AInitialize", "BInitialize", "AInitialize", "BInitialize", "CInitialize", "ACloseDll",
                             "BCloseDll", "CCloseDll", "ADllDetach", "BDllDetach", "CDllDetach"}) {
        std::string what = step + 1;
        expected.push_back("plugin" + std::string(1, step[0]) + ".dll " + (what == "DllDetach" ? "" : L::kExport) + what);
    }
    EXPECT_EQ(expected, omktest::CallSequence(calls));
    ASSERT_GE(calls.size(), 2u);
    EXPECT_TRUE(calls[0].IsNull("config"));
    EXPECT_EQ(ToUtf8(config), calls[1].Get("config"));
    EXPECT_EQ(nullptr, L::Table());
    EXPECT_EQ(0u, L::Count());
}

// Find, Init and Close each assert once per missing slot, at the lines the messages name.
TYPED_TEST(PluginLoader, MissingTableWritesTheAssertionLinesAndGoesOn) {
    using L = TypeParam;
    omktest::TraceMonitor traces;
    ASSERT_TRUE(traces.Active());
    L::Table() = nullptr;
    L::Count() = 2;
    EXPECT_EQ(nullptr, L::Find(L"x"));
    EXPECT_EQ(0u, L::Init());
    L::Close();
    L::Count() = 0;

    const std::string prefix = std::to_string(GetCurrentProcessId()) + ": " + std::to_string(GetCurrentThreadId()) +
                               ": **** ERROR **** Assertion failed at line ";
    const std::string source = L::kExport[0] == 'R' ? "rulePlugin.cpp" : "actionPlugin.cpp";
    for (int line : L::kAssertLines) {
        const std::string expected = prefix + std::to_string(line) + " file " + source + "\n";
        EXPECT_TRUE(traces.WaitFor(expected, 2, 5000)) << "once per missing slot: " << expected;
        EXPECT_EQ(2u, traces.Count(expected));
    }
}

TEST(PluginFile, NullInputIsRefused) {
    WORD major = 9, minor = 9, build = 9, revision = 9;
    EXPECT_FALSE(IsFileSignatureValid(nullptr));
    EXPECT_FALSE(GetFileVersionNumbers(nullptr, &major, &minor, &build, &revision));
    EXPECT_EQ(0, major + minor + build + revision);
    EXPECT_FALSE(GetFileVersionNumbers(BuiltFile(omktest::kTestRulePlugin).c_str(), &major, &minor, nullptr, &revision));
}

}  // namespace
