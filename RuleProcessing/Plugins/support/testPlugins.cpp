#include "testPlugins.h"

#include <shlwapi.h>

#include <sstream>

namespace omktest {

const wchar_t kRulePluginKey[] = L"Software\\Varn Inc.\\Orlemark\\RulePlugin";
const wchar_t kActionPluginKey[] = L"Software\\Varn Inc.\\Orlemark\\ActionPlugin";

const wchar_t kTestRulePlugin[] = L"omkTestRulePlugin.dll";
const wchar_t kTestActionPlugin[] = L"omkTestActionPlugin.dll";

namespace {

// Removes what an earlier, interrupted run left under `path`.
std::wstring Fresh(const std::wstring& path) {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
    return path;
}

}  // namespace

std::wstring BuiltFile(const wchar_t* fileName) {
    return ProgramFolder() + L"\\" + fileName;
}

PluginKey::PluginKey(const wchar_t* keyPath) : ScopedRegKey(HKEY_LOCAL_MACHINE, Fresh(keyPath)) {}

LONG PluginKey::Add(const std::wstring& name, const std::wstring& dllPath, DWORD type) {
    HKEY key = nullptr;
    LONG status = RegCreateKeyExW(Get(), name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS || type == REG_NONE) return status;
    status = RegSetValueExW(key, L"DllPath", 0, type, reinterpret_cast<const BYTE*>(dllPath.c_str()),
                            static_cast<DWORD>((dllPath.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(key);
    return status;
}

TestPluginBehaviour::TestPluginBehaviour(const std::wstring& moduleFileName)
    : ScopedRegKey(HKEY_LOCAL_MACHINE, Fresh(L"Software\\Varn Inc.\\Orlemark\\TestPlugins\\" + moduleFileName)) {}

bool PluginCall::IsNull(const std::string& key) const {
    auto found = fields.find(key);
    return found != fields.end() && found->second == "\\0";
}

std::string PluginCall::Get(const std::string& key) const {
    auto found = fields.find(key);
    std::string out;
    if (found == fields.end() || IsNull(key)) return out;
    for (size_t i = 0; i < found->second.size(); ++i) {
        char c = found->second[i];
        if (c == '\\' && i + 1 < found->second.size()) {
            c = found->second[++i];
            c = c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
        }
        out += c;
    }
    return out;
}

std::vector<PluginCall> ReadPluginCalls(const std::wstring& callLog) {
    std::vector<PluginCall> calls;
    std::istringstream lines(ReadFileBytes(callLog));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream parts(line);
        PluginCall call;
        std::getline(std::getline(parts, call.module, '\t'), call.function, '\t');
        for (std::string field; std::getline(parts, field, '\t');) {
            size_t equals = field.find('=');
            call.fields[field.substr(0, equals)] = equals == std::string::npos ? "" : field.substr(equals + 1);
        }
        if (!call.function.empty()) calls.push_back(call);
    }
    return calls;
}

std::vector<std::string> CallSequence(const std::vector<PluginCall>& calls) {
    std::vector<std::string> sequence;
    for (const auto& call : calls) sequence.push_back(call.module + " " + call.function);
    return sequence;
}

}  // namespace omktest
