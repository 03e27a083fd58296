// OMKCollectorRules: the product's rule plugin. Rules of this type are mostly
// fired by collectors naming them; for summary and periodic-data events a rule
// may say when it fires:
//   <MatchCode>N</MatchCode>   fires on periodic data whose code is N
//   <EverySummary>1</EverySummary>  fires on every summary
#define OMK_RULE_PLUGIN_EXPORTS
#include <windows.h>

#include <wchar.h>

#include "omkPluginSdk.h"

namespace {

// The decimal (or 0x hex) number inside <tag>...</tag> of `xml`, if present.
bool ReadNumber(const wchar_t* xml, const wchar_t* tag, unsigned long* value) {
    if (xml == nullptr) return false;
    wchar_t open[64];
    _snwprintf(open, 63, L"<%s>", tag);
    open[63] = L'\0';
    const wchar_t* start = wcsstr(xml, open);
    if (start == nullptr) return false;
    wchar_t* end = nullptr;
    *value = wcstoul(start + wcslen(open), &end, 0);
    return end != start + wcslen(open);
}

}  // namespace

extern "C" {

OMK_PLUGIN_EXPORT unsigned int WINAPI Rule_Initialize(const wchar_t* /*configXml*/) { return 0; }

OMK_PLUGIN_EXPORT unsigned int WINAPI Rule_Triggered(RULE* rule) {
    const WORK_ITEM* item = rule != nullptr ? rule->workItem : nullptr;
    if (item == nullptr) return 1;
    unsigned long value = 0;
    if (item->kind == WORK_PERIODIC_DATA) {
        return ReadNumber(rule->xml, L"MatchCode", &value) && value == item->u.periodicData.code ? 0 : 1;
    }
    if (item->kind == WORK_SUMMARY_CREATED) {
        return ReadNumber(rule->xml, L"EverySummary", &value) && value == 1 ? 0 : 1;
    }
    return 1;
}

OMK_PLUGIN_EXPORT void WINAPI Rule_CloseDll(void) {}
}
