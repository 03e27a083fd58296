#include "eventsFile.h"

#include <oleauto.h>
#include <string.h>
#include <wchar.h>

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

bool Fail(std::string* error, const std::string& text) {
    *error = text;
    return false;
}

bool AllowedMembers(const json& object, std::initializer_list<const char*> names, std::string* error) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        bool known = false;
        for (const char* name : names) known = known || it.key() == name;
        if (!known) return Fail(error, "unknown member \"" + it.key() + "\"");
    }
    return true;
}

// A string member into `out`; false when it is missing (and required) or no string.
bool StringMember(const json& object, const char* name, bool required, std::wstring* out, bool* present,
                  std::string* error) {
    auto it = object.find(name);
    if (present != nullptr) *present = it != object.end();
    if (it == object.end()) return required ? Fail(error, std::string("\"") + name + "\" is missing") : true;
    if (!it->is_string()) return Fail(error, std::string("\"") + name + "\" must be a string");
    *out = Wide(it->get<std::string>());
    return true;
}

bool IntegerMember(const json& object, const char* name, long long low, long long high, long long* out,
                   std::string* error) {
    const json& value = object.at(name);
    bool fits = value.is_number_integer() &&
                (value.is_number_unsigned() ? value.get<unsigned long long>() <= static_cast<unsigned long long>(high)
                                            : value.get<long long>() >= low && value.get<long long>() <= high);
    if (!fits) {
        return Fail(error, std::string("\"") + name + "\" must be a whole number from " + std::to_string(low) +
                               " to " + std::to_string(high));
    }
    *out = value.get<long long>();
    return true;
}

bool ParseRuleEvent(const json& object, COLLECTOR_EVENT* event, std::string* error) {
    if (!AllowedMembers(object, {"kind", "plugin", "guid", "tag", "items"}, error) ||
        !StringMember(object, "plugin", true, &event->plugin, nullptr, error) ||
        !StringMember(object, "guid", true, &event->guid, nullptr, error) ||
        !StringMember(object, "tag", false, &event->tag, &event->hasTag, error)) {
        return false;
    }
    auto items = object.find("items");
    event->hasItems = items != object.end();
    if (!event->hasItems) return true;
    if (!items->is_array()) return Fail(error, "\"items\" must be a list of [\"name\",\"value\"] pairs");
    for (const json& item : *items) {
        if (!item.is_array() || item.size() != 2 || !item[0].is_string() || !item[1].is_string()) {
            return Fail(error, "\"items\" must be a list of [\"name\",\"value\"] pairs");
        }
        event->items.emplace_back(Wide(item[0].get<std::string>()), Wide(item[1].get<std::string>()));
    }
    return true;
}

bool ParsePeriodicEvent(const json& object, COLLECTOR_EVENT* event, std::string* error) {
    if (!AllowedMembers(object, {"kind", "code", "subcode", "time", "hex"}, error)) return false;
    for (const char* name : {"code", "subcode"}) {
        if (!object.contains(name)) return Fail(error, std::string("\"") + name + "\" is missing");
    }
    long long code = 0, subCode = 0;
    if (!IntegerMember(object, "code", INT_MIN, INT_MAX, &code, error) ||
        !IntegerMember(object, "subcode", INT_MIN, INT_MAX, &subCode, error)) {
        return false;
    }
    event->code = static_cast<int>(code);
    event->subCode = static_cast<int>(subCode);
    event->hasTime = object.contains("time");
    if (event->hasTime && !IntegerMember(object, "time", 0, LLONG_MAX, &event->time, error)) return false;
    std::wstring hex;
    if (!StringMember(object, "hex", false, &hex, nullptr, error)) return false;
    if (!ParseHexBytes(hex, &event->bytes)) return Fail(error, "\"hex\" must be pairs of hex digits");
    return true;
}

SAFEARRAY* BstrArray(const std::vector<std::pair<std::wstring, std::wstring>>& items, bool names) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(items.size()));
    for (LONG i = 0; array != nullptr && i < static_cast<LONG>(items.size()); ++i) {
        BSTR text = SysAllocString((names ? items[i].first : items[i].second).c_str());
        HRESULT hr = text != nullptr ? SafeArrayPutElement(array, &i, text) : E_OUTOFMEMORY;  // copies the string
        SysFreeString(text);
        if (FAILED(hr)) {
            SafeArrayDestroy(array);
            array = nullptr;
        }
    }
    return array;
}

HRESULT SendRule(ITolvane* tolvane, const COLLECTOR_EVENT& event) {
    BSTR plugin = SysAllocString(event.plugin.c_str());
    BSTR guid = SysAllocString(event.guid.c_str());
    BSTR tag = event.hasTag ? SysAllocString(event.tag.c_str()) : nullptr;
    SAFEARRAY* names = event.hasItems ? BstrArray(event.items, true) : nullptr;
    SAFEARRAY* values = event.hasItems ? BstrArray(event.items, false) : nullptr;
    HRESULT hr = E_OUTOFMEMORY;
    if (plugin != nullptr && guid != nullptr && (tag != nullptr) == event.hasTag &&
        (names != nullptr && values != nullptr) == event.hasItems) {
        hr = tolvane->Tolvane_RuleTriggered(plugin, guid, tag, names, values);
    }
    if (names != nullptr) SafeArrayDestroy(names);
    if (values != nullptr) SafeArrayDestroy(values);
    SysFreeString(tag);
    SysFreeString(guid);
    SysFreeString(plugin);
    return hr;
}

HRESULT SendPeriodic(ITolvane* tolvane, const COLLECTOR_EVENT& event, long long defaultTime) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(event.bytes.size()));
    if (array == nullptr) return E_OUTOFMEMORY;
    if (!event.bytes.empty()) {
        void* bytes = nullptr;
        SafeArrayAccessData(array, &bytes);
        memcpy(bytes, event.bytes.data(), event.bytes.size());
        SafeArrayUnaccessData(array);
    }
    HRESULT hr = tolvane->Tolvane_PeriodicDataGenerated(event.code, event.subCode,
                                                        event.hasTime ? event.time : defaultTime, array);
    SafeArrayDestroy(array);
    return hr;
}

}  // namespace

bool ParseHexBytes(const std::wstring& hex, std::vector<unsigned char>* bytes) {
    std::wstring digits;
    for (wchar_t c : hex) {
        if (iswxdigit(c)) digits += c;
        else if (!iswspace(c) && c != L':' && c != L'-') return false;
    }
    if (digits.size() % 2 != 0) return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes->push_back(static_cast<unsigned char>(wcstoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

bool ParseCollectorEvent(const std::string& line, COLLECTOR_EVENT* event, std::string* error) {
    *event = COLLECTOR_EVENT();
    json object = json::parse(line, nullptr, false);
    if (object.is_discarded()) return Fail(error, "not a JSON value");
    if (!object.is_object()) return Fail(error, "not a JSON object");
    auto kind = object.find("kind");
    if (kind == object.end() || !kind->is_string()) return Fail(error, "\"kind\" is missing");
    const std::string name = kind->get<std::string>();
    if (name == "summary") {
        event->kind = COLLECTOR_EVENT::SUMMARY;
        return AllowedMembers(object, {"kind"}, error);
    }
    if (name == "rule") {
        event->kind = COLLECTOR_EVENT::RULE;
        return ParseRuleEvent(object, event, error);
    }
    if (name == "periodic") {
        event->kind = COLLECTOR_EVENT::PERIODIC;
        return ParsePeriodicEvent(object, event, error);
    }
    return Fail(error, "\"kind\" must be \"summary\", \"rule\" or \"periodic\"");
}

bool ReadEventsFile(const std::wstring& path, std::vector<EVENTS_FILE_LINE>* lines, std::string* error) {
    std::ifstream file(path.c_str(), std::ios::binary);
    if (!file) return Fail(error, "cannot read " + Utf8(path));
    std::string text;
    int number = 0;
    while (std::getline(file, text)) {
        ++number;
        if (number == 1 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
        if (!text.empty() && text.back() == '\r') text.pop_back();
        if (text.find_first_not_of(" \t") == std::string::npos) continue;
        EVENTS_FILE_LINE line;
        line.number = number;
        line.text = text;
        line.ok = ParseCollectorEvent(text, &line.event, &line.error);
        lines->push_back(std::move(line));
    }
    if (file.bad()) return Fail(error, "cannot read " + Utf8(path));
    return true;
}

HRESULT SendCollectorEvent(ITolvane* tolvane, const COLLECTOR_EVENT& event, long long defaultTime) {
    switch (event.kind) {
        case COLLECTOR_EVENT::RULE:
            return SendRule(tolvane, event);
        case COLLECTOR_EVENT::PERIODIC:
            return SendPeriodic(tolvane, event, defaultTime);
        default:
            return tolvane->Tolvane_SummaryCreated();
    }
}
