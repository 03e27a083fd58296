#include "testPlugins.h"

#include <shlwapi.h>

#include "testRoot.h"
#include "testSupport.h"

namespace omktest {

const wchar_t kRulePluginKey[] = L"Software\\Varn Inc.\\Orlemark\\RulePlugin";
const wchar_t kActionPluginKey[] = L"Software\\Varn Inc.\\Orlemark\\ActionPlugin";
const wchar_t kTestPluginBehaviourKey[] = L"Software\\Varn Inc.\\Orlemark\\TestPlugins";

const wchar_t kTestRulePlugin[] = L"omkTestRulePlugin.dll";
const wchar_t kTestRulePluginNoVersion[] = L"omkTestRulePluginNoVersion.dll";
const wchar_t kTestRulePluginNoTriggered[] = L"omkTestRulePluginNoTriggered.dll";
const wchar_t kTestRulePluginUnsigned[] = L"omkTestRulePlugin-unsigned.dll";
const wchar_t kTestRulePluginTampered[] = L"omkTestRulePlugin-tampered.dll";
const wchar_t kTestActionPlugin[] = L"omkTestActionPlugin.dll";
const wchar_t kTestActionPluginNoVersion[] = L"omkTestActionPluginNoVersion.dll";
const wchar_t kTestActionPluginNoEndEval[] = L"omkTestActionPluginNoEndEvaluation.dll";
const wchar_t kTestActionPluginUnsigned[] = L"omkTestActionPlugin-unsigned.dll";
const wchar_t kTestActionPluginTampered[] = L"omkTestActionPlugin-tampered.dll";
const wchar_t kTestPluginFailLoadVariable[] = L"OMK_TEST_PLUGIN_FAIL_LOAD";

std::wstring BuiltFile(const wchar_t* fileName) {
    return ProgramFolder() + L"\\" + fileName;
}

bool InstallTestRoot(const std::wstring& cerPath) {
    return AddCertificateToMachineRoot(cerPath.empty() ? BuiltFile(L"omkTestRoot.cer") : cerPath);
}

bool IsTestRootInstalled(const std::wstring& cerPath) {
    return IsCertificateInMachineRoot(cerPath.empty() ? BuiltFile(L"omkTestRoot.cer") : cerPath);
}

PluginKey::PluginKey(const wchar_t* keyPath) : path_(keyPath) {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, path_.c_str());
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) ==
        ERROR_SUCCESS) {
        RegCloseKey(key);
    }
}

PluginKey::~PluginKey() {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, path_.c_str());
}

LONG PluginKey::Add(const std::wstring& name, const std::wstring& dllPath, DWORD type) {
    HKEY key = nullptr;
    LONG status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, (path_ + L"\\" + name).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS) return status;
    status = RegSetValueExW(key, L"DllPath", 0, type, reinterpret_cast<const BYTE*>(dllPath.c_str()),
                            static_cast<DWORD>((dllPath.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(key);
    return status;
}

LONG PluginKey::AddEmpty(const std::wstring& name) {
    HKEY key = nullptr;
    LONG status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, (path_ + L"\\" + name).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &key, nullptr);
    if (status == ERROR_SUCCESS) RegCloseKey(key);
    return status;
}

TestPluginBehaviour::TestPluginBehaviour(const std::wstring& moduleFileName)
    : path_(std::wstring(kTestPluginBehaviourKey) + L"\\" + moduleFileName) {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, path_.c_str());
}

TestPluginBehaviour::~TestPluginBehaviour() {
    SHDeleteKeyW(HKEY_LOCAL_MACHINE, path_.c_str());
}

void TestPluginBehaviour::SetCallLog(const std::wstring& path) {
    SHSetValueW(HKEY_LOCAL_MACHINE, path_.c_str(), L"CallLog", REG_SZ, path.c_str(),
                static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
}

void TestPluginBehaviour::Set(const std::wstring& valueName, DWORD value) {
    SHSetValueW(HKEY_LOCAL_MACHINE, path_.c_str(), valueName.c_str(), REG_DWORD, &value, sizeof(value));
}

bool PluginCall::Has(const std::string& key) const {
    for (const auto& field : fields)
        if (field.first == key) return true;
    return IsNull(key);
}

bool PluginCall::IsNull(const std::string& key) const {
    for (const auto& name : nullFields)
        if (name == key) return true;
    return false;
}

std::string PluginCall::Get(const std::string& key) const {
    for (const auto& field : fields)
        if (field.first == key) return field.second;
    return std::string();
}

namespace {

std::vector<std::string> SplitTabs(const std::string& line) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t tab = line.find('\t', start);
        parts.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
        if (tab == std::string::npos) break;
        start = tab + 1;
    }
    return parts;
}

std::string Unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char next = text[++i];
        out += next == 't' ? '\t' : next == 'n' ? '\n' : next == 'r' ? '\r' : next;
    }
    return out;
}

}  // namespace

std::vector<PluginCall> ReadPluginCalls(const std::wstring& callLog) {
    std::vector<PluginCall> calls;
    std::string text = ReadFileBytes(callLog);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::vector<std::string> parts = SplitTabs(text.substr(start, end - start));
        start = end + 1;
        if (parts.size() < 2) continue;
        PluginCall call;
        call.module = parts[0];
        call.function = parts[1];
        for (size_t i = 2; i < parts.size(); ++i) {
            size_t equals = parts[i].find('=');
            std::string key = parts[i].substr(0, equals);
            std::string value = equals == std::string::npos ? std::string() : parts[i].substr(equals + 1);
            if (value == "\\0") {
                call.nullFields.push_back(key);
            } else {
                call.fields.emplace_back(key, Unescape(value));
            }
        }
        calls.push_back(call);
    }
    return calls;
}

std::vector<std::string> CallSequence(const std::vector<PluginCall>& calls) {
    std::vector<std::string> sequence;
    for (const auto& call : calls) sequence.push_back(call.module + " " + call.function);
    return sequence;
}

}  // namespace omktest
