// Test support for everything that loads plugins: the test signing root, the
// plugin registrations under HKLM, the behaviour of the test plugins and the
// calls they recorded. Used by test programs only, from their main thread.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

namespace omktest {

// The keys the plugin loaders enumerate, and the one the test plugins read
// their behaviour from (one subkey per plugin module file name).
extern const wchar_t kRulePluginKey[];
extern const wchar_t kActionPluginKey[];
extern const wchar_t kTestPluginBehaviourKey[];

// File names of the test plugins and their variants, all in the program folder.
extern const wchar_t kTestRulePlugin[];             // version 7.12.345.6789
extern const wchar_t kTestRulePluginNoVersion[];    // no version resource
extern const wchar_t kTestRulePluginNoTriggered[];  // lacks Rule_Triggered
extern const wchar_t kTestRulePluginUnsigned[];     // the rule plugin before signing
extern const wchar_t kTestRulePluginTampered[];     // signed, then one byte changed
extern const wchar_t kTestActionPlugin[];           // version 2.0.65535.1
extern const wchar_t kTestActionPluginNoVersion[];  // no version resource
extern const wchar_t kTestActionPluginNoEndEval[];  // lacks Action_EndEvaluation
extern const wchar_t kTestActionPluginUnsigned[];
extern const wchar_t kTestActionPluginTampered[];
// Environment variable: a module file name whose DllMain then fails its load.
extern const wchar_t kTestPluginFailLoadVariable[];

// Full path of a test plugin (or any file) in the program folder.
std::wstring BuiltFile(const wchar_t* fileName);

// Adds the build's test root certificate ("omkTestRoot.cer" in the program
// folder, or `cerPath`) to the LocalMachine Root store; replacing an older copy
// is fine. True on success.
bool InstallTestRoot(const std::wstring& cerPath = std::wstring());
// True when the LocalMachine Root store holds that certificate.
bool IsTestRootInstalled(const std::wstring& cerPath = std::wstring());

// A plugin key (kRulePluginKey or kActionPluginKey) made empty for one test
// and removed with all its subkeys on destruction.
class PluginKey {
public:
    explicit PluginKey(const wchar_t* keyPath);
    ~PluginKey();
    PluginKey(const PluginKey&) = delete;
    PluginKey& operator=(const PluginKey&) = delete;

    // Adds subkey `name` whose "DllPath" value has `type` (REG_SZ unless a test wants otherwise).
    LONG Add(const std::wstring& name, const std::wstring& dllPath, DWORD type = REG_SZ);
    // Adds subkey `name` without a "DllPath" value.
    LONG AddEmpty(const std::wstring& name);

private:
    std::wstring path_;
};

// The behaviour of one test plugin module (by its file name, e.g. "ruleA.dll"),
// removed on destruction. Values, all REG_DWORD, per export stem
// ("Initialize", "Triggered", "CloseDll", "BeginEvaluation", "Execute",
// "EndEvaluation"): "<stem>Result", "<stem>DelayMs", "<stem>Raise".
class TestPluginBehaviour {
public:
    explicit TestPluginBehaviour(const std::wstring& moduleFileName);
    ~TestPluginBehaviour();
    TestPluginBehaviour(const TestPluginBehaviour&) = delete;
    TestPluginBehaviour& operator=(const TestPluginBehaviour&) = delete;

    // The file every call of this module is appended to.
    void SetCallLog(const std::wstring& path);
    void Set(const std::wstring& valueName, DWORD value);

private:
    std::wstring path_;
};

// One recorded call: the module's file name, the export, and its fields in
// the order written ("rule.name", "workItem.kind", "result", ...).
struct PluginCall {
    std::string module;
    std::string function;
    std::vector<std::pair<std::string, std::string>> fields;
    std::vector<std::string> nullFields;  // fields recorded as a null pointer

    bool Has(const std::string& key) const;
    bool IsNull(const std::string& key) const;
    // The field's text (UTF-8, unescaped); empty when absent or null.
    std::string Get(const std::string& key) const;
};

// Reads a call log; empty when it does not exist.
std::vector<PluginCall> ReadPluginCalls(const std::wstring& callLog);

// "module function" of each call, for compact order checks.
std::vector<std::string> CallSequence(const std::vector<PluginCall>& calls);

}  // namespace omktest
