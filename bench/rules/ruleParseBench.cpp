// Prints how long parsing a rule file of 100, 1,000 and 10,000 rules (two
// actions each) takes against one MSXML load of the same text, and how much of
// the parse is the file-level walk that selects the i-th rule again for each rule
// (against the same walk over one selection).
//
// Usage: ruleParseBench [rule counts...]   (default: 100 1000 10000)
// The signed test plugins are registered and loaded so that every action binds.
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "actionPlugin.h"
#include "benchSupport.h"
#include "conventions.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "testPlugins.h"
#include "xmlAccess.h"

namespace {

std::wstring RuleFileText(int rules) {
    std::wstring text =
        L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Tolvane>\n<MaxAlertFiles>30</MaxAlertFiles>\n"
        L"<CreateXmls>1</CreateXmls>\n";
    for (int i = 0; i < rules; ++i) {
        std::wstring n = std::to_wstring(i);
        text += L"<Rule Enabled=\"1\" Platform=\"All\" OnSummary=\"1\" MaxTriggerPerBoot=\"3\" Type=\"BenchRules\">";
        text += L"<Name>Rule " + n + L"</Name>";
        text += L"<Descr>Description of rule " + n + L"</Descr>";
        text += L"<RuleGuid>" + omkbench::RuleGuidW(i) + L"</RuleGuid>";
        text += L"<AlertMsg>Alert message of rule " + n + L"</AlertMsg>";
        text += L"<Action Type=\"BenchNotify\" Level=\"2\"><Text>notify " + n + L"</Text></Action>";
        text += L"<Action Type=\"BenchNotify\" Level=\"1\"/></Rule>\n";
    }
    return text + L"</Tolvane>\n";
}

// One load of the whole text, released again.
double LoadOnceMs(const std::wstring& text) {
    double start = omkbench::NowMs();
    IXMLDOMDocument* doc = LoadXML(text.c_str());
    double elapsed = omkbench::NowMs() - start;
    if (doc == nullptr) {
        fprintf(stderr, "load failed\n");
        exit(1);
    }
    doc->Release();
    CoUninitialize();
    return elapsed;
}

// The file-level walk alone: load, count, and take each rule's outer XML.
double WalkMs(const std::wstring& text) {
    double start = omkbench::NowMs();
    IXMLDOMDocument* doc = LoadXML(text.c_str());
    unsigned int count = 0;
    GetNumInstancesInXml(doc, L"/Tolvane/Rule", &count);
    for (unsigned int i = 0; i < count; ++i) {
        BSTR xml = nullptr;
        ReadIthXmlTree(doc, L"/Tolvane/Rule", i, &xml);
        SysFreeString(xml);
    }
    doc->Release();
    CoUninitialize();
    return omkbench::NowMs() - start;
}

// The same walk over one node list selected once, for comparison.
double SingleSelectionWalkMs(const std::wstring& text) {
    double start = omkbench::NowMs();
    IXMLDOMDocument* doc = LoadXML(text.c_str());
    BSTR path = SysAllocString(L"/Tolvane/Rule");
    IXMLDOMNodeList* list = nullptr;
    doc->selectNodes(path, &list);
    SysFreeString(path);
    long count = 0;
    list->get_length(&count);
    for (long i = 0; i < count; ++i) {
        IXMLDOMNode* node = nullptr;
        list->get_item(i, &node);
        BSTR xml = nullptr;
        node->get_xml(&xml);
        SysFreeString(xml);
        node->Release();
    }
    list->Release();
    doc->Release();
    CoUninitialize();
    return omkbench::NowMs() - start;
}

double ParseMs(const std::wstring& text, int rules) {
    double start = omkbench::NowMs();
    DWORD status = ParseRuleDefinitions(text.c_str());
    double elapsed = omkbench::NowMs() - start;
    if (status != RULES_OK || g_numRules != static_cast<DWORD>(rules)) {
        fprintf(stderr, "parse failed: status %lu, %lu rules\n", status, g_numRules);
        exit(1);
    }
    FreeRuleDefinitions();
    return elapsed;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::vector<int> counts;
    for (int i = 1; i < argc; ++i) counts.push_back(_wtoi(argv[i]));
    if (counts.empty()) counts = {100, 1000, 10000};

    omktest::InstallTestRoot();
    omktest::PluginKey ruleKey(omktest::kRulePluginKey);
    omktest::PluginKey actionKey(omktest::kActionPluginKey);
    ruleKey.Add(L"BenchRules", omktest::BuiltFile(omktest::kTestRulePlugin));
    actionKey.Add(L"BenchNotify", omktest::BuiltFile(omktest::kTestActionPlugin));
    if (LoadRulePlugins() != 0 || LoadActionPlugins() != 0) {
        fprintf(stderr, "test plugins did not load\n");
        return 1;
    }

    printf("%7s %6s %9s %10s %10s %10s %10s %9s\n", "rules", "KiB", "load ms", "walk ms", "1-sel ms", "parse ms",
           "parse/load", "ms/rule");
    for (int rules : counts) {
        std::wstring text = RuleFileText(rules);
        int repeats = rules <= 100 ? 5 : 1;
        double load = 1e300, walk = 1e300, single = 1e300, parse = 1e300;
        LoadOnceMs(text);  // the first load of the process also loads MSXML itself
        for (int r = 0; r < repeats; ++r) {
            double l = LoadOnceMs(text), w = WalkMs(text), s = SingleSelectionWalkMs(text), p = ParseMs(text, rules);
            load = l < load ? l : load;
            walk = w < walk ? w : walk;
            single = s < single ? s : single;
            parse = p < parse ? p : parse;
        }
        printf("%7d %6.0f %9.1f %10.1f %10.1f %10.1f %10.0f %9.3f\n", rules, text.size() / 1024.0, load, walk, single,
               parse, parse / load, parse / rules);
        fflush(stdout);
    }
    UnloadActionPlugins();
    UnloadRulePlugins();
    return 0;
}
