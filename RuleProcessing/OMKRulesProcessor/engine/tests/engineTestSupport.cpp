#include "engineTestSupport.h"

#include <stdlib.h>
#include <string.h>

#include "conventions.h"
#include "testSupport.h"
#include "workQueue.h"

namespace omktest {
namespace {

wchar_t* CountedCopy(const wchar_t* text) {
    size_t chars = wcslen(text) + 1;
    auto* copy = static_cast<wchar_t*>(malloc(chars * sizeof(wchar_t)));
    OmkFill(copy, chars * sizeof(wchar_t));
    memcpy(copy, text, chars * sizeof(wchar_t));
    ++g_allocCount;
    return copy;
}

}  // namespace

WORK_ITEM* NewWorkItem(unsigned int kind) {
    auto* item = static_cast<WORK_ITEM*>(malloc(sizeof(WORK_ITEM)));
    OmkFill(item, sizeof(WORK_ITEM));
    ++g_allocCount;
    item->kind = kind;
    item->next = nullptr;
    return item;
}

WORK_ITEM* RuleTriggeredItem(const wchar_t* pluginId, const wchar_t* guid, const wchar_t* tag,
                             const std::vector<std::wstring>& names, const std::vector<std::wstring>& values) {
    WORK_ITEM* item = NewWorkItem(WORK_RULE_TRIGGERED);
    auto& rule = item->u.ruleTriggered;
    memset(&rule, 0, sizeof(rule));
    rule.rulePluginId = CountedCopy(pluginId);
    rule.ruleGuid = CountedCopy(guid);
    if (!names.empty()) {
        rule.dataItemsEnclosingXmlTag = tag != nullptr ? CountedCopy(tag) : nullptr;
        rule.numDataItems = static_cast<unsigned int>(names.size());
        rule.dataItemName = BstrArray(names);
        rule.dataItemVal = BstrArray(values);
    }
    return item;
}

}  // namespace omktest
