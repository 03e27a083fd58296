// Test support for everything that loads plugins: the test signing root, the
// plugin registrations under HKLM, the behaviour of the test plugins and the
// calls they recorded. Used by test programs only, from their main thread.
#pragma once

#include <map>

#include "testSupport.h"

namespace omktest {

// The keys the plugin loaders enumerate.
extern const wchar_t kRulePluginKey[];
extern const wchar_t kActionPluginKey[];

// File names of the test plugins in the program folder (their variants: README.md).
extern const wchar_t kTestRulePlugin[];
extern const wchar_t kTestActionPlugin[];

// Full path of a test plugin (or any file) in the program folder.
std::wstring BuiltFile(const wchar_t* fileName);

// Adds the test root certificate ("omkTestRoot.cer" beside the running
// program, or `cerPath`) to the LocalMachine Root store; replacing an older
// copy is fine. True on success, else the last error tells why.
bool InstallTestRoot(const std::wstring& cerPath = std::wstring());

// A plugin key (kRulePluginKey or kActionPluginKey) made empty for one test
// and removed with all its subkeys on destruction.
class PluginKey : public ScopedRegKey {
public:
    explicit PluginKey(const wchar_t* keyPath);
    // Adds subkey `name` whose "DllPath" value has `type`; REG_NONE adds no value.
    LONG Add(const std::wstring& name, const std::wstring& dllPath, DWORD type = REG_SZ);
};

// The behaviour of one test plugin module (by its file name, e.g. "ruleA.dll"),
// removed on destruction. Values, all REG_DWORD, per export stem
// ("Initialize", "Triggered", "CloseDll", "BeginEvaluation", "Execute",
// "EndEvaluation"): "<stem>Result", "<stem>DelayMs", "<stem>Raise".
class TestPluginBehaviour : public ScopedRegKey {
public:
    explicit TestPluginBehaviour(const std::wstring& moduleFileName);
    // The file every call of this module is appended to.
    void SetCallLog(const std::wstring& path) { SetString(L"CallLog", path); }
    void Set(const std::wstring& valueName, DWORD value) { SetDword(valueName.c_str(), value); }
};

// One recorded call: the module's file name, the export, and its fields.
struct PluginCall {
    std::string module;
    std::string function;
    std::map<std::string, std::string> fields;  // as written, escaped

    bool IsNull(const std::string& key) const;
    // The field's text (UTF-8, unescaped); empty when absent or null.
    std::string Get(const std::string& key) const;
};

// Reads a call log; empty when it does not exist.
std::vector<PluginCall> ReadPluginCalls(const std::wstring& callLog);

// "module function" of each call, for compact order checks.
std::vector<std::string> CallSequence(const std::vector<PluginCall>& calls);

}  // namespace omktest
