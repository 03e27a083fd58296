// Which machines a rule applies to, from its "Platform" value.
#include <wchar.h>

#include "ruleParser.h"
#include "systemIdentity.h"

namespace {

const wchar_t kSeries[] = L"Series:";
const wchar_t kModel[] = L"Model:";
constexpr size_t kSeriesChars = sizeof(kSeries) / sizeof(kSeries[0]) - 1;
constexpr size_t kModelChars = sizeof(kModel) / sizeof(kModel[0]) - 1;

// The text after a selector: the character after the colon is skipped whatever
// it is (the file writes a blank there). Null when there is none to skip.
const wchar_t* SelectorText(const wchar_t* platform, size_t selectorChars) {
    if (platform[selectorChars] == L'\0') return nullptr;
    return platform + selectorChars + 1;
}

}  // namespace

bool RuleAppliesToPlatform(const wchar_t* platform) {
    if (platform == nullptr) return false;
    if (_wcsicmp(platform, L"All") == 0) return true;
    if (_wcsicmp(platform, L"Laptops") == 0) return GetChassisType() == CT_LAPTOP;
    if (_wcsicmp(platform, L"Desktops") == 0) return GetChassisType() == CT_DESKTOP;

    bool series = _wcsnicmp(platform, kSeries, kSeriesChars) == 0;
    bool model = !series && _wcsnicmp(platform, kModel, kModelChars) == 0;
    if (!series && !model) return false;
    const wchar_t* wanted = SelectorText(platform, series ? kSeriesChars : kModelChars);
    if (wanted == nullptr) return false;

    wchar_t machineModel[OMK_MODEL_CHARS + 1] = {};
    if (!GetModel(machineModel)) return false;
    machineModel[OMK_MODEL_CHARS] = L'\0';
    // A series is part of the model text, letter case significant; a model is the whole text, case ignored.
    if (series) return wcsstr(machineModel, wanted) != nullptr;
    return _wcsicmp(machineModel, wanted) == 0;
}
