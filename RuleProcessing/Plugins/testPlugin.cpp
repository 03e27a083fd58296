// The test rule plugin (built with OMK_RULE_PLUGIN_EXPORTS) or action plugin
// (OMK_ACTION_PLUGIN_EXPORTS): records each call and returns what the test
// chose. OMK_TEST_WITHOUT_RULE_TRIGGERED and OMK_TEST_WITHOUT_ACTION_END_EVALUATION
// leave out that export. README.md beside this file gives the registry values
// and the record format.
#include <windows.h>

#include <wchar.h>

#include <string>

#include "omkPluginSdk.h"

// Not in an unnamed namespace: the variants without an export use only part of it.
namespace testplugin {

// "\0" cannot come from escaping (a real backslash is doubled), so it marks null.
const char kNull[] = "\\0";

wchar_t g_moduleName[MAX_PATH] = L"";
// The call log of the latest call, for the detach record (written under the
// loader lock, where the registry must not be read).
wchar_t g_lastCallLog[MAX_PATH] = L"";
// Never mapped: a write there is an access violation. Volatile, so the compiler
// neither folds the address nor judges the write out of bounds.
volatile ULONG_PTR g_faultAddress = 0x10;

std::string Utf8(const std::wstring& text) {
    std::string out(text.size() * 3, '\0');
    out.resize(static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                       &out[0], static_cast<int>(out.size()), nullptr, nullptr)));
    return out;
}

// Appends one line; appends are atomic per write, so plugins sharing one log keep the call order.
void Append(const wchar_t* callLog, const std::string& line) {
    const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    HANDLE file = callLog[0] == L'\0' ? INVALID_HANDLE_VALUE
                                       : CreateFileW(callLog, FILE_APPEND_DATA, share, nullptr, OPEN_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    DWORD written = 0;
    WriteFile(file, (line + "\n").data(), static_cast<DWORD>(line.size() + 1), &written, nullptr);
    CloseHandle(file);
}

// One line of the call log: module file name, export, then key=value fields.
struct Record {
    explicit Record(const char* function) : line(Utf8(g_moduleName) + "\t" + function) {}

    Record& Field(const std::string& key, const std::string& text) {
        line += "\t" + key + "=" + text;
        return *this;
    }
    template <typename T>
    Record& Number(const std::string& key, T value) {
        return Field(key, std::to_string(value));
    }
    // Keeps one record on one line: tabs, line ends and backslashes are escaped.
    Record& Text(const std::string& key, const wchar_t* value) {
        static const wchar_t kSpecial[] = L"\\\t\n\r";
        std::wstring escaped;
        for (const wchar_t* p = value; p != nullptr && *p != L'\0'; ++p) {
            const wchar_t* special = wcschr(kSpecial, *p);
            escaped += special != nullptr ? std::wstring{L'\\', L"\\tnr"[special - kSpecial]} : std::wstring(1, *p);
        }
        return Field(key, value != nullptr ? Utf8(escaped) : kNull);
    }
    // What the tests read of a rule: its identity, its alert and its event.
    Record& Rule(const RULE* rule) {
        if (rule == nullptr) return Field("rule", kNull);
        Text("rule.ruleGuid", rule->ruleGuid).Number("rule.triggered", rule->triggered);
        Text("rule.alertGuid", std::wstring(rule->alertGuid, wcsnlen(rule->alertGuid, 128)).c_str());
        Text("rule.alertFileName", std::wstring(rule->alertFileName, wcsnlen(rule->alertFileName, 260)).c_str());
        const WORK_ITEM* item = rule->workItem;
        if (item == nullptr) return Field("workItem", kNull);
        Number("workItem.kind", item->kind);
        if (item->kind != WORK_PERIODIC_DATA) return *this;
        const auto& event = item->u.periodicData;
        Number("workItem.code", event.code).Number("workItem.subCode", event.subCode);
        Number("workItem.timeStamp", event.timeStamp).Number("workItem.dataLen", event.dataLen);
        std::string hex;
        for (unsigned int i = 0; event.data != nullptr && i < event.dataLen; ++i) {
            hex += {"0123456789abcdef"[event.data[i] >> 4], "0123456789abcdef"[event.data[i] & 0x0f]};
        }
        return Field("workItem.data", event.data != nullptr ? hex : kNull);
    }

    std::string line;
};

// Completes a call of an export whose behaviour is chosen under `stem`
// ("Triggered"): reads the behaviour, appends the record (with the result when
// `withResult`), sleeps and raises as chosen, and returns the result, which
// the number in `attribute`="N" inside `xml` overrides.
unsigned int Call(Record record, const wchar_t* stem, const wchar_t* attribute = nullptr, const wchar_t* xml = nullptr,
                  bool withResult = true) {
    const std::wstring key = L"Software\\Varn Inc.\\Orlemark\\TestPlugins\\" + std::wstring(g_moduleName);
    DWORD values[3] = {};  // <stem>Result, <stem>DelayMs, <stem>Raise; 0 when absent
    const wchar_t* names[3] = {L"Result", L"DelayMs", L"Raise"};
    for (int i = 0; i < 3; ++i) {
        DWORD bytes = sizeof(values[i]);
        RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), (stem + std::wstring(names[i])).c_str(),
                     RRF_RT_REG_DWORD | RRF_ZEROONFAILURE, nullptr, &values[i], &bytes);
    }
    // Wine's RegGetValueW leaves the buffer as it was when the key is missing.
    wchar_t callLog[MAX_PATH] = L"";
    DWORD bytes = sizeof(callLog);
    RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"CallLog", RRF_RT_REG_SZ | RRF_ZEROONFAILURE, nullptr, callLog, &bytes);
    const std::wstring pattern = attribute != nullptr ? attribute + std::wstring(L"=\"") : L"";
    const wchar_t* chosen = xml != nullptr && attribute != nullptr ? wcsstr(xml, pattern.c_str()) : nullptr;
    const unsigned int result = chosen != nullptr ? wcstoul(chosen + pattern.size(), nullptr, 10) : values[0];
    if (withResult) record.Number("result", result);
    lstrcpynW(g_lastCallLog, callLog, MAX_PATH);
    Append(callLog, record.line);

    if (values[1] != 0) Sleep(values[1]);
    if (values[2] == EXCEPTION_ACCESS_VIOLATION) {
        // A real fault, so the exception carries what the processor reports: the
        // access kind and the address.
        const ULONG_PTR address = g_faultAddress;
        *reinterpret_cast<volatile int*>(address) = 1;
    } else if (values[2] != 0) {
        RaiseException(values[2], 0, 0, nullptr);
    }
    return result;
}

}  // namespace testplugin

using namespace testplugin;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance);
        wchar_t path[MAX_PATH];
        DWORD length = GetModuleFileNameW(instance, path, MAX_PATH);
        const wchar_t* slash = wcsrchr(path, L'\\');
        if (length == 0 || length >= MAX_PATH || slash == nullptr) return TRUE;
        lstrcpynW(g_moduleName, slash + 1, MAX_PATH);
        // The environment can make this module's load fail.
        wchar_t failLoad[MAX_PATH];
        DWORD chars = GetEnvironmentVariableW(L"OMK_TEST_PLUGIN_FAIL_LOAD", failLoad, MAX_PATH);
        return chars > 0 && chars < MAX_PATH && _wcsicmp(failLoad, g_moduleName) == 0 ? FALSE : TRUE;
    }
    // A null `reserved` means FreeLibrary, not process exit.
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr && g_lastCallLog[0] != L'\0') {
        Append(g_lastCallLog, Record("DllDetach").line);
    }
    return TRUE;
}

#ifdef OMK_RULE_PLUGIN_EXPORTS
unsigned int WINAPI Rule_Initialize(const wchar_t* configXml) {
    return Call(Record("Rule_Initialize").Text("config", configXml), L"Initialize", L"TestInitializeResult", configXml);
}

#ifndef OMK_TEST_WITHOUT_RULE_TRIGGERED
unsigned int WINAPI Rule_Triggered(RULE* rule) {
    return Call(Record("Rule_Triggered").Rule(rule), L"Triggered", L"TestTriggeredResult",
                rule != nullptr ? rule->xml : nullptr);
}
#endif

void WINAPI Rule_CloseDll(void) {
    Call(Record("Rule_CloseDll"), L"CloseDll", nullptr, nullptr, false);
}
#endif

#ifdef OMK_ACTION_PLUGIN_EXPORTS
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
#endif
