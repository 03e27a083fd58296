// OMKCollectorRules: the product's rule plugin. Most of its rules are fired
// by collectors naming them, without the plugin being asked. It decides the
// rules that take part in summary and periodic-data events:
//
//   <RuleConfig Type="OMKCollectorRules">
//     <Source>collector</Source>        written into every alert it raises
//     <MaxDataBytes>64</MaxDataBytes>   optional: record bytes copied into an alert
//   </RuleConfig>
//
//   <Rule OnPeriodicData="1" Type="OMKCollectorRules"> ...
//     <Match Code="4097" SubCode="2" Byte="0" AtLeast="90"/>
//
// A periodic rule fires on a record of its Code (and SubCode, when given)
// whose byte at offset Byte is at least AtLeast and at most AtMost (when
// given; a record too short to have that byte does not fire); a summary rule
// fires on every summary. The alert carries the record's values.
#define OMK_RULE_PLUGIN_EXPORTS
#include <windows.h>

#include <wchar.h>

#include <map>
#include <string>
#include <vector>

#include "omkErrors.h"
#include "omkPluginSdk.h"

namespace {

constexpr unsigned int kBadConfiguration = ERROR_BAD_CONFIGURATION;
constexpr unsigned long long kDefaultMaxDataBytes = 64;
// Three characters a byte in an alert value of at most 1023 bytes.
constexpr unsigned long long kMaxDataBytesLimit = 256;
constexpr unsigned int kSourceChars = 65;

// Why the plugin cannot evaluate, 0 once it is configured.
unsigned int g_configError = ERROR_INVALID_STATE;
std::wstring g_source;
unsigned long long g_maxDataBytes = kDefaultMaxDataBytes;

// A rule's <Match>, read at its first periodic event.
struct Match {
    unsigned int error = 0;  // a configuration error, reported once; the rule never fires
    unsigned long long code = 0;
    bool hasSubCode = false;
    unsigned long long subCode = 0;
    bool hasByte = false;
    unsigned long long byte = 0;
    unsigned long long atLeast = 0;
    unsigned long long atMost = 255;
};
// Keyed by the rule's XML, which never changes while the service runs.
std::map<std::wstring, Match> g_matches;

const wchar_t* OrNull(const wchar_t* text) { return text != nullptr ? text : L"null"; }

// Reads attribute `name` of <Match>; true when present and valid. An invalid
// one sets match.error after reporting it.
bool ReadMatchNumber(const RULE* rule, const wchar_t* name, unsigned long long max, unsigned long long* value,
                     Match& match) {
    unsigned int result = OmkSdk_ReadConfigNumber(rule->xml, L"Match", name, max, value);
    if (result == 0) return true;
    if (result == ERROR_NOT_FOUND) return false;
    wchar_t text[64];
    OmkSdk_ReadConfigText(rule->xml, L"Match", name, text, ARRAYSIZE(text));
    OMK_ReportError(0, L"omkCollectorRules!Rule_Triggered: rule %ws: <Match %ws=\"%ws\"> is not a number from 0 to %I64u",
                    OrNull(rule->name), name, text, max);
    match.error = kBadConfiguration;
    return false;
}

Match ParseMatch(const RULE* rule) {
    Match match;
    wchar_t unused[2];
    unsigned int present = OmkSdk_ReadConfigText(rule->xml, L"Match", nullptr, unused, ARRAYSIZE(unused));
    if (present == ERROR_NOT_FOUND) {
        OMK_ReportError(0, L"omkCollectorRules!Rule_Triggered: rule %ws has no <Match Code=\"...\"/> for periodic data",
                        OrNull(rule->name));
        match.error = kBadConfiguration;
        return match;
    }
    if (!ReadMatchNumber(rule, L"Code", 0xFFFFFFFFull, &match.code, match) && match.error == 0) {
        OMK_ReportError(0, L"omkCollectorRules!Rule_Triggered: rule %ws: <Match> has no Code", OrNull(rule->name));
        match.error = kBadConfiguration;
    }
    match.hasSubCode = ReadMatchNumber(rule, L"SubCode", 0xFFFFFFFFull, &match.subCode, match);
    match.hasByte = ReadMatchNumber(rule, L"Byte", 0xFFFFFFFFull, &match.byte, match);
    bool hasAtLeast = ReadMatchNumber(rule, L"AtLeast", 255, &match.atLeast, match);
    bool hasAtMost = ReadMatchNumber(rule, L"AtMost", 255, &match.atMost, match);
    if (match.error == 0 && match.hasByte != (hasAtLeast || hasAtMost)) {
        OMK_ReportError(0, L"omkCollectorRules!Rule_Triggered: rule %ws: <Match> needs Byte together with AtLeast or "
                           L"AtMost",
                        OrNull(rule->name));
        match.error = kBadConfiguration;
    }
    return match;
}

const Match& MatchOf(const RULE* rule) {
    std::wstring key = rule->xml != nullptr ? rule->xml : L"";
    auto found = g_matches.find(key);
    if (found == g_matches.end()) found = g_matches.emplace(key, ParseMatch(rule)).first;
    return found->second;
}

std::wstring Hex(const unsigned char* data, unsigned int length) {
    static const wchar_t kDigits[] = L"0123456789ABCDEF";
    std::wstring text;
    for (unsigned int i = 0; i < length; ++i) {
        if (i > 0) text += L' ';
        text += kDigits[data[i] >> 4];
        text += kDigits[data[i] & 15];
    }
    return text;
}

unsigned int Raise(const RULE* rule, const wchar_t* tag, const std::vector<std::pair<std::wstring, std::wstring>>& values) {
    std::vector<OMK_ALERT_ITEM> items;
    for (const auto& value : values) items.push_back({value.first.c_str(), value.second.c_str()});
    unsigned int result = OmkSdk_RaiseAlert(rule, tag, items.data(), static_cast<unsigned int>(items.size()));
    return result == 0 ? OMK_RULE_TRIGGERED : result;
}

unsigned int EvaluatePeriodic(const RULE* rule, const WORK_ITEM* item) {
    const Match& match = MatchOf(rule);
    if (match.error != 0) return match.error;
    const auto& record = item->u.periodicData;
    if (record.code != match.code || (match.hasSubCode && record.subCode != match.subCode)) {
        return OMK_RULE_NOT_TRIGGERED;
    }
    const unsigned int length = record.data != nullptr ? record.dataLen : 0;
    std::vector<std::pair<std::wstring, std::wstring>> values = {
        {L"Source", g_source},
        {L"Code", std::to_wstring(record.code)},
        {L"SubCode", std::to_wstring(record.subCode)},
        {L"TimeStamp", std::to_wstring(record.timeStamp)}};
    if (match.hasByte) {
        if (match.byte >= length) return OMK_RULE_NOT_TRIGGERED;
        const unsigned char value = record.data[match.byte];
        if (value < match.atLeast || value > match.atMost) return OMK_RULE_NOT_TRIGGERED;
        values.emplace_back(L"Byte" + std::to_wstring(match.byte), std::to_wstring(value));
    }
    values.emplace_back(L"Length", std::to_wstring(length));
    const unsigned int shown = length < g_maxDataBytes ? length : static_cast<unsigned int>(g_maxDataBytes);
    values.emplace_back(L"Data", Hex(record.data, shown));
    return Raise(rule, L"PeriodicData", values);
}

unsigned int Evaluate(const RULE* rule) {
    const WORK_ITEM* item = rule != nullptr ? rule->workItem : nullptr;
    if (item == nullptr) return ERROR_INVALID_PARAMETER;
    if (g_configError != 0) return g_configError;
    if (item->kind == WORK_PERIODIC_DATA && rule->onPeriodicData == 1) return EvaluatePeriodic(rule, item);
    if (item->kind == WORK_SUMMARY_CREATED && rule->onSummary == 1) return Raise(rule, L"Summary", {{L"Source", g_source}});
    return OMK_RULE_NOT_TRIGGERED;
}

unsigned int Refuse(const wchar_t* what, const wchar_t* configXml) {
    OMK_ReportError(0, L"omkCollectorRules!Rule_Initialize: %ws: %ws", what, OrNull(configXml));
    return kBadConfiguration;
}

unsigned int Configure(const wchar_t* configXml) {
    g_source.clear();
    g_matches.clear();
    if (configXml == nullptr) return Refuse(L"the rule file has no <RuleConfig Type=\"OMKCollectorRules\"> block", nullptr);
    wchar_t source[kSourceChars];
    switch (OmkSdk_ReadConfigText(configXml, L"Source", nullptr, source, kSourceChars)) {
        case 0: break;
        case ERROR_NOT_FOUND: return Refuse(L"<RuleConfig> has no <Source>", configXml);
        case ERROR_INSUFFICIENT_BUFFER: return Refuse(L"<Source> is longer than 64 characters", configXml);
        default: return Refuse(L"<RuleConfig> is not well-formed XML", configXml);
    }
    // Written into alerts as it is: markup or a '%' would spoil them.
    if (source[0] == L'\0' || wcspbrk(source, L"<>&%") != nullptr) {
        return Refuse(L"<Source> must be a non-empty text without <, >, & or %", configXml);
    }
    unsigned long long maxDataBytes = kDefaultMaxDataBytes;
    unsigned int result = OmkSdk_ReadConfigNumber(configXml, L"MaxDataBytes", nullptr, kMaxDataBytesLimit,
                                                  &maxDataBytes);
    if (result == ERROR_NOT_FOUND) {
        maxDataBytes = kDefaultMaxDataBytes;
    } else if (result != 0) {
        return Refuse(L"<MaxDataBytes> is not a number from 0 to 256", configXml);
    }
    g_source = source;
    g_maxDataBytes = maxDataBytes;
    return 0;
}

}  // namespace

extern "C" {

// A wrong configuration is reported here and keeps this plugin's summary and
// periodic rules from firing (Rule_Triggered gives the reason); the service
// still starts, and the rules collectors report go on working.
unsigned int WINAPI Rule_Initialize(const wchar_t* configXml) {
    return OmkSdk_Guard("omkCollectorRules!Rule_Initialize", [&] {
        g_configError = Configure(configXml);
        return 0u;
    });
}

unsigned int WINAPI Rule_Triggered(RULE* rule) {
    return OmkSdk_Guard("omkCollectorRules!Rule_Triggered", [&] { return Evaluate(rule); });
}

void WINAPI Rule_CloseDll(void) {
    OmkSdk_Guard("omkCollectorRules!Rule_CloseDll", [] {
        g_matches.clear();
        return 0u;
    });
}
}
