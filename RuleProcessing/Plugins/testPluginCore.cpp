#include "testPluginCore.h"

#include <oleauto.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

namespace testplugin {

namespace {

const wchar_t kBehaviourRoot[] = L"Software\\Varn Inc.\\Orlemark\\TestPlugins";
const wchar_t kFailLoadVariable[] = L"OMK_TEST_PLUGIN_FAIL_LOAD";

wchar_t g_moduleName[MAX_PATH] = L"";
// The call log of the latest call, for the detach record (written under the loader lock).
wchar_t g_lastCallLog[MAX_PATH] = L"";
// Never mapped: a write there is an access violation. Volatile, so the compiler
// neither folds the address nor judges the write out of bounds.
volatile ULONG_PTR g_faultAddress = 0x10;

std::string Utf8(const std::wstring& text) {
    if (text.empty()) return std::string();
    int bytes =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], bytes, nullptr, nullptr);
    return out;
}

// Keeps one record on one line: tabs, line ends and backslashes are escaped.
std::string Escape(const wchar_t* value) {
    std::wstring escaped;
    for (const wchar_t* p = value; *p != L'\0'; ++p) {
        switch (*p) {
            case L'\\':
                escaped += L"\\\\";
                break;
            case L'\t':
                escaped += L"\\t";
                break;
            case L'\n':
                escaped += L"\\n";
                break;
            case L'\r':
                escaped += L"\\r";
                break;
            default:
                escaped += *p;
                break;
        }
    }
    return Utf8(escaped);
}

bool ReadDword(HKEY key, const std::wstring& name, DWORD* value) {
    DWORD type = 0;
    DWORD bytes = sizeof(*value);
    return RegQueryValueExW(key, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(value), &bytes) ==
               ERROR_SUCCESS &&
           type == REG_DWORD;
}

// The number in `attribute`="N" inside `xml`; false when the attribute is absent.
bool FindAttributeNumber(const wchar_t* xml, const wchar_t* attribute, unsigned int* value) {
    if (xml == nullptr || attribute == nullptr) return false;
    std::wstring pattern = std::wstring(attribute) + L"=\"";
    const wchar_t* found = wcsstr(xml, pattern.c_str());
    if (found == nullptr) return false;
    *value = static_cast<unsigned int>(wcstoul(found + pattern.size(), nullptr, 10));
    return true;
}

}  // namespace

bool Attach(HMODULE module) {
    wchar_t path[MAX_PATH];
    DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return true;
    const wchar_t* slash = wcsrchr(path, L'\\');
    lstrcpynW(g_moduleName, slash != nullptr ? slash + 1 : path, MAX_PATH);

    wchar_t failLoad[MAX_PATH];
    DWORD chars = GetEnvironmentVariableW(kFailLoadVariable, failLoad, MAX_PATH);
    return !(chars > 0 && chars < MAX_PATH && _wcsicmp(failLoad, g_moduleName) == 0);
}

void Detach() {
    if (g_lastCallLog[0] == L'\0') return;
    Record record("DllDetach");
    record.Write(g_lastCallLog);
}

Behaviour ReadBehaviour(const wchar_t* stem, const wchar_t* attribute, const wchar_t* xml) {
    Behaviour behaviour;
    std::wstring keyPath = std::wstring(kBehaviourRoot) + L"\\" + g_moduleName;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS) {
        DWORD value = 0;
        if (ReadDword(key, std::wstring(stem) + L"Result", &value)) behaviour.result = value;
        if (ReadDword(key, std::wstring(stem) + L"DelayMs", &value)) behaviour.delayMs = value;
        if (ReadDword(key, std::wstring(stem) + L"Raise", &value)) behaviour.raiseCode = value;

        wchar_t log[MAX_PATH] = L"";
        DWORD type = 0;
        DWORD bytes = sizeof(log) - sizeof(wchar_t);
        if (RegQueryValueExW(key, L"CallLog", nullptr, &type, reinterpret_cast<BYTE*>(log), &bytes) == ERROR_SUCCESS &&
            type == REG_SZ) {
            log[bytes / sizeof(wchar_t)] = L'\0';
            behaviour.callLog = log;
        }
        RegCloseKey(key);
    }
    unsigned int fromXml = 0;
    if (FindAttributeNumber(xml, attribute, &fromXml)) behaviour.result = fromXml;
    lstrcpynW(g_lastCallLog, behaviour.callLog.c_str(), MAX_PATH);
    return behaviour;
}

void Act(const Behaviour& behaviour) {
    if (behaviour.delayMs != 0) Sleep(behaviour.delayMs);
    if (behaviour.raiseCode == EXCEPTION_ACCESS_VIOLATION) {
        // A real fault, so the exception carries what the processor reports: the
        // access kind and the address.
        const ULONG_PTR address = g_faultAddress;
        *reinterpret_cast<volatile int*>(address) = 1;
    } else if (behaviour.raiseCode != 0) {
        RaiseException(behaviour.raiseCode, 0, 0, nullptr);
    }
}

Record::Record(const char* function) {
    line_ = Utf8(g_moduleName);
    line_ += '\t';
    line_ += function;
}

void Record::Text(const char* key, const wchar_t* value) {
    if (value == nullptr) {
        Null(key);
        return;
    }
    line_ += '\t';
    line_ += key;
    line_ += '=';
    line_ += Escape(value);
}

void Record::Number(const char* key, unsigned long long value) {
    char text[32];
    snprintf(text, sizeof(text), "%llu", value);
    line_ += '\t';
    line_ += key;
    line_ += '=';
    line_ += text;
}

void Record::SignedNumber(const char* key, long long value) {
    char text[32];
    snprintf(text, sizeof(text), "%lld", value);
    line_ += '\t';
    line_ += key;
    line_ += '=';
    line_ += text;
}

// "\0" cannot come from Escape (a real backslash is doubled), so it marks null.
void Record::Null(const char* key) {
    line_ += '\t';
    line_ += key;
    line_ += "=\\0";
}

namespace {

// Records the elements of a one-dimensional BSTR array as key.count, key.0, key.1 ...
void BstrArray(Record* record, const std::string& key, SAFEARRAY* array) {
    if (array == nullptr) {
        record->Null(key.c_str());
        return;
    }
    LONG lower = 0;
    LONG upper = -1;
    if (SafeArrayGetDim(array) != 1 || FAILED(SafeArrayGetLBound(array, 1, &lower)) ||
        FAILED(SafeArrayGetUBound(array, 1, &upper))) {
        record->Text(key.c_str(), L"(not a one-dimensional array)");
        return;
    }
    record->Number((key + ".count").c_str(), static_cast<unsigned long long>(upper - lower + 1));
    for (LONG i = lower; i <= upper; ++i) {
        BSTR element = nullptr;
        std::string elementKey = key + "." + std::to_string(i - lower);
        if (SUCCEEDED(SafeArrayGetElement(array, &i, &element))) {
            record->Text(elementKey.c_str(), element);
            SysFreeString(element);
        } else {
            record->Text(elementKey.c_str(), L"(unreadable)");
        }
    }
}

void WorkItem(Record* record, const WORK_ITEM* item) {
    if (item == nullptr) {
        record->Null("workItem");
        return;
    }
    record->Number("workItem.kind", item->kind);
    if (item->kind == WORK_RULE_TRIGGERED) {
        record->Text("workItem.rulePluginId", item->u.ruleTriggered.rulePluginId);
        record->Text("workItem.ruleGuid", item->u.ruleTriggered.ruleGuid);
        record->Text("workItem.dataItemsEnclosingXmlTag", item->u.ruleTriggered.dataItemsEnclosingXmlTag);
        record->Number("workItem.numDataItems", item->u.ruleTriggered.numDataItems);
        BstrArray(record, "workItem.dataItemName", item->u.ruleTriggered.dataItemName);
        BstrArray(record, "workItem.dataItemVal", item->u.ruleTriggered.dataItemVal);
    } else if (item->kind == WORK_PERIODIC_DATA) {
        record->Number("workItem.code", item->u.periodicData.code);
        record->Number("workItem.subCode", item->u.periodicData.subCode);
        record->Number("workItem.timeStamp", item->u.periodicData.timeStamp);
        record->Number("workItem.dataLen", item->u.periodicData.dataLen);
        if (item->u.periodicData.data == nullptr) {
            record->Null("workItem.data");
        } else {
            static const wchar_t kHex[] = L"0123456789abcdef";
            std::wstring hex;
            for (unsigned int i = 0; i < item->u.periodicData.dataLen; ++i) {
                hex += kHex[item->u.periodicData.data[i] >> 4];
                hex += kHex[item->u.periodicData.data[i] & 0x0f];
            }
            record->Text("workItem.data", hex.c_str());
        }
    }
}

// A copy of a fixed-size text field, cut at its size when it lacks a terminator.
std::wstring Bounded(const wchar_t* field, size_t chars) {
    return std::wstring(field, wcsnlen(field, chars));
}

}  // namespace

void Record::Rule(const RULE* rule) {
    if (rule == nullptr) {
        Null("rule");
        return;
    }
    Number("rule.enabled", rule->enabled);
    Number("rule.onSummary", rule->onSummary);
    Number("rule.onPeriodicData", rule->onPeriodicData);
    Text("rule.type", rule->type);
    Text("rule.platform", rule->platform);
    Text("rule.name", rule->name);
    Text("rule.descr", rule->descr);
    Text("rule.ruleGuid", rule->ruleGuid);
    Text("rule.xml", rule->xml);
    Text("rule.alertMsg", rule->alertMsg);
    SignedNumber("rule.maxTriggerPerBoot", rule->maxTriggerPerBoot);
    Number("rule.numTriggers", rule->numTriggers);
    if (rule->plugin == nullptr) {
        Null("rule.plugin");
    } else {
        Text("rule.plugin", L"set");
    }
    unsigned long long actions = 0;
    // A cap keeps a damaged list from running forever.
    for (const RULE_ACTION* action = rule->actions; action != nullptr && actions < 1000;
         action = action->next, ++actions) {
        std::string key = "rule.action." + std::to_string(actions);
        Text((key + ".type").c_str(), action->type);
        Text((key + ".xml").c_str(), action->xml);
        if (action->plugin == nullptr) {
            Null((key + ".plugin").c_str());
        } else {
            Text((key + ".plugin").c_str(), L"set");
        }
    }
    Number("rule.actions", actions);
    Number("rule.triggered", rule->triggered);
    Text("rule.alertGuid", Bounded(rule->alertGuid, 128).c_str());
    Text("rule.alertFileName", Bounded(rule->alertFileName, 260).c_str());
    Number("rule.removeAlertFiles", rule->removeAlertFiles);
    Number("rule.maxAlertFiles", rule->maxAlertFiles);
    WorkItem(this, rule->workItem);
}

void Record::Write(const std::wstring& callLog) {
    if (callLog.empty()) return;
    std::string line = line_ + "\n";
    // Appends are atomic per write, so plugins sharing one log keep the call order.
    HANDLE file = CreateFileW(callLog.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    DWORD written = 0;
    WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(file);
}

}  // namespace testplugin
