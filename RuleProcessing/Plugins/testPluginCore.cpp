#include "testPluginCore.h"

#include <oleauto.h>
#include <wchar.h>

namespace testplugin {

namespace {

const wchar_t kBehaviourRoot[] = L"Software\\Varn Inc.\\Orlemark\\TestPlugins\\";
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
    int bytes =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(bytes), '\0');
    if (bytes > 0) {
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], bytes, nullptr, nullptr);
    }
    return out;
}

DWORD ReadDword(HKEY key, const std::wstring& name) {
    DWORD value = 0;
    DWORD bytes = sizeof(value);
    return RegGetValueW(key, nullptr, name.c_str(), RRF_RT_REG_DWORD, nullptr, &value, &bytes) == ERROR_SUCCESS ? value
                                                                                                                : 0;
}

// Appends one line; appends are atomic per write, so plugins sharing one log keep the call order.
void Append(const wchar_t* callLog, const std::string& line) {
    if (callLog[0] == L'\0') return;
    HANDLE file = CreateFileW(callLog, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
}

// Records the elements of a one-dimensional BSTR array as key.count, key.0, key.1 ...
void BstrArray(Record& record, const std::string& key, SAFEARRAY* array) {
    LONG lower = 0;
    LONG upper = -1;
    if (array == nullptr) {
        record.Field(key, kNull);
    } else if (SafeArrayGetDim(array) != 1 || FAILED(SafeArrayGetLBound(array, 1, &lower)) ||
               FAILED(SafeArrayGetUBound(array, 1, &upper))) {
        record.Text(key, L"(not a one-dimensional array)");
    } else {
        record.Number(key + ".count", upper - lower + 1);
        for (LONG i = lower; i <= upper; ++i) {
            BSTR element = nullptr;
            bool read = SUCCEEDED(SafeArrayGetElement(array, &i, &element));
            record.Text(key + "." + std::to_string(i - lower), read ? element : L"(unreadable)");
            SysFreeString(element);
        }
    }
}

void WorkItem(Record& record, const WORK_ITEM* item) {
    if (item == nullptr) {
        record.Field("workItem", kNull);
        return;
    }
    record.Number("workItem.kind", item->kind);
    if (item->kind == WORK_RULE_TRIGGERED) {
        const auto& event = item->u.ruleTriggered;
        record.Text("workItem.rulePluginId", event.rulePluginId)
            .Text("workItem.ruleGuid", event.ruleGuid)
            .Text("workItem.dataItemsEnclosingXmlTag", event.dataItemsEnclosingXmlTag)
            .Number("workItem.numDataItems", event.numDataItems);
        BstrArray(record, "workItem.dataItemName", event.dataItemName);
        BstrArray(record, "workItem.dataItemVal", event.dataItemVal);
    } else if (item->kind == WORK_PERIODIC_DATA) {
        const auto& event = item->u.periodicData;
        record.Number("workItem.code", event.code)
            .Number("workItem.subCode", event.subCode)
            .Number("workItem.timeStamp", event.timeStamp)
            .Number("workItem.dataLen", event.dataLen);
        std::string hex;
        for (unsigned int i = 0; event.data != nullptr && i < event.dataLen; ++i) {
            hex += "0123456789abcdef"[event.data[i] >> 4];
            hex += "0123456789abcdef"[event.data[i] & 0x0f];
        }
        record.Field("workItem.data", event.data != nullptr ? hex : kNull);
    }
}

// A copy of a fixed-size text field, cut at its size when it lacks a terminator.
std::wstring Bounded(const wchar_t* field, size_t chars) {
    return std::wstring(field, wcsnlen(field, chars));
}

}  // namespace

Record::Record(const char* function) : line(Utf8(g_moduleName) + "\t" + function) {}

Record& Record::Field(const std::string& key, const std::string& text) {
    line += "\t" + key + "=" + text;
    return *this;
}

// Keeps one record on one line: tabs, line ends and backslashes are escaped.
Record& Record::Text(const std::string& key, const wchar_t* value) {
    if (value == nullptr) return Field(key, kNull);
    static const wchar_t kSpecial[] = L"\\\t\n\r";
    std::wstring escaped;
    for (const wchar_t* p = value; *p != L'\0'; ++p) {
        const wchar_t* special = wcschr(kSpecial, *p);
        if (special != nullptr) {
            escaped += {L'\\', L"\\tnr"[special - kSpecial]};
        } else {
            escaped += *p;
        }
    }
    return Field(key, Utf8(escaped));
}

Record& Record::Rule(const RULE* rule) {
    if (rule == nullptr) return Field("rule", kNull);
    Number("rule.enabled", rule->enabled).Number("rule.onSummary", rule->onSummary);
    Number("rule.onPeriodicData", rule->onPeriodicData).Text("rule.type", rule->type);
    Text("rule.platform", rule->platform).Text("rule.name", rule->name).Text("rule.descr", rule->descr);
    Text("rule.ruleGuid", rule->ruleGuid).Text("rule.xml", rule->xml).Text("rule.alertMsg", rule->alertMsg);
    Number("rule.maxTriggerPerBoot", rule->maxTriggerPerBoot).Number("rule.numTriggers", rule->numTriggers);
    Text("rule.plugin", rule->plugin != nullptr ? L"set" : nullptr);
    unsigned int actions = 0;
    // A cap keeps a damaged list from running forever.
    for (const RULE_ACTION* action = rule->actions; action != nullptr && actions < 1000;
         action = action->next, ++actions) {
        std::string key = "rule.action." + std::to_string(actions);
        Text(key + ".type", action->type).Text(key + ".xml", action->xml);
        Text(key + ".plugin", action->plugin != nullptr ? L"set" : nullptr);
    }
    Number("rule.actions", actions).Number("rule.triggered", rule->triggered);
    Text("rule.alertGuid", Bounded(rule->alertGuid, 128).c_str());
    Text("rule.alertFileName", Bounded(rule->alertFileName, 260).c_str());
    Number("rule.removeAlertFiles", rule->removeAlertFiles).Number("rule.maxAlertFiles", rule->maxAlertFiles);
    WorkItem(*this, rule->workItem);
    return *this;
}

unsigned int Call(Record record, const wchar_t* stem, const wchar_t* attribute, const wchar_t* xml, bool withResult) {
    DWORD result = 0;
    DWORD delayMs = 0;
    DWORD raise = 0;
    wchar_t callLog[MAX_PATH] = L"";
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, (kBehaviourRoot + std::wstring(g_moduleName)).c_str(), 0, KEY_READ, &key) ==
        ERROR_SUCCESS) {
        result = ReadDword(key, stem + std::wstring(L"Result"));
        delayMs = ReadDword(key, stem + std::wstring(L"DelayMs"));
        raise = ReadDword(key, stem + std::wstring(L"Raise"));
        DWORD bytes = sizeof(callLog);
        if (RegGetValueW(key, nullptr, L"CallLog", RRF_RT_REG_SZ, nullptr, callLog, &bytes) != ERROR_SUCCESS) {
            callLog[0] = L'\0';
        }
        RegCloseKey(key);
    }
    const std::wstring pattern = attribute != nullptr ? attribute + std::wstring(L"=\"") : L"";
    const wchar_t* chosen = xml != nullptr && attribute != nullptr ? wcsstr(xml, pattern.c_str()) : nullptr;
    if (chosen != nullptr) result = wcstoul(chosen + pattern.size(), nullptr, 10);
    if (withResult) record.Number("result", result);
    lstrcpynW(g_lastCallLog, callLog, MAX_PATH);
    Append(callLog, record.line);

    if (delayMs != 0) Sleep(delayMs);
    if (raise == EXCEPTION_ACCESS_VIOLATION) {
        // A real fault, so the exception carries what the processor reports: the
        // access kind and the address.
        const ULONG_PTR address = g_faultAddress;
        *reinterpret_cast<volatile int*>(address) = 1;
    } else if (raise != 0) {
        RaiseException(raise, 0, 0, nullptr);
    }
    return result;
}

}  // namespace testplugin

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    using testplugin::g_moduleName;
    if (reason == DLL_PROCESS_ATTACH) {
        DisableThreadLibraryCalls(instance);
        wchar_t path[MAX_PATH];
        DWORD length = GetModuleFileNameW(instance, path, MAX_PATH);
        if (length == 0 || length >= MAX_PATH) return TRUE;
        const wchar_t* slash = wcsrchr(path, L'\\');
        lstrcpynW(g_moduleName, slash != nullptr ? slash + 1 : path, MAX_PATH);
        // The environment can make this module's load fail.
        wchar_t failLoad[MAX_PATH];
        DWORD chars = GetEnvironmentVariableW(L"OMK_TEST_PLUGIN_FAIL_LOAD", failLoad, MAX_PATH);
        return chars > 0 && chars < MAX_PATH && _wcsicmp(failLoad, g_moduleName) == 0 ? FALSE : TRUE;
    }
    // A null `reserved` means FreeLibrary, not process exit.
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr && testplugin::g_lastCallLog[0] != L'\0') {
        testplugin::Append(testplugin::g_lastCallLog, testplugin::Record("DllDetach").line);
    }
    return TRUE;
}
