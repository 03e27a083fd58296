// What the bench programs share: a millisecond clock, the median, and rule
// files with rule GUIDs as generated GUIDs look.
#pragma once

#include <windows.h>

#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

namespace omkbench {

// Milliseconds of the performance counter.
inline double NowMs() {
    static const LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return 1000.0 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// A FILETIME duration (100 ns units) in milliseconds.
inline double FileTimeMs(const FILETIME& time) {
    return static_cast<double>((static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime) /
           10000.0;
}

inline double Median(std::vector<double> samples) {
    if (samples.empty()) return 0.0;
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

// A GUID text that differs from its neighbours from the first digit on, as
// generated GUIDs do (a shared prefix would make every comparison slower).
inline std::string RuleGuid(int i) {
    unsigned long long x = 0x9E3779B97F4A7C15ull * static_cast<unsigned long long>(i + 1);
    char text[64];
    _snprintf(text, 63, "{%08X-%04X-%04X-%04X-%012llX}", static_cast<unsigned int>(x >> 32),
              static_cast<unsigned int>((x >> 16) & 0xFFFF), static_cast<unsigned int>(x & 0xFFFF),
              static_cast<unsigned int>(i & 0xFFFF), static_cast<unsigned long long>(i));
    text[63] = '\0';
    return text;
}

inline std::wstring RuleGuidW(int i) {
    std::string narrow = RuleGuid(i);
    return std::wstring(narrow.begin(), narrow.end());
}

// A rule file of `rules` rules of the product's collector rule plugin, each
// with one action of the product's action plugin, as the service reads it.
inline std::string CollectorRulesFile(int rules) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Tolvane>\r\n<MaxAlertFiles>30</MaxAlertFiles>\r\n"
        "<CreateXmls>1</CreateXmls>\r\n"
        "<ActionConfig Type=\"OMKActionLog\"><Log>omkActionLog.txt</Log></ActionConfig>\r\n"
        "<RuleConfig Type=\"OMKCollectorRules\"><Source>collector</Source></RuleConfig>\r\n";
    for (int i = 0; i < rules; ++i) {
        std::string n = std::to_string(i);
        text += "<Rule Enabled=\"1\" Platform=\"All\" Type=\"OMKCollectorRules\"><Name>Rule " + n +
                "</Name><Descr>Description of rule " + n + "</Descr><RuleGuid>" + RuleGuid(i) +
                "</RuleGuid><AlertMsg>Alert message of rule " + n +
                "</AlertMsg><Action Type=\"OMKActionLog\" Severity=\"Warning\"/></Rule>\r\n";
    }
    return text + "</Tolvane>\r\n";
}

}  // namespace omkbench
