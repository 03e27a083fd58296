// Rule file parse time against one MSXML load of the same text (target: parse
// at most 5 times the load) and against the floor of the DOM work the parser
// cannot do without: the file's load, one selection of its rules, and for each
// rule its outer XML, its own document and the six selections it is read by
// (the rule, name, description, GUID, alert message, actions), for each action
// its outer XML, its own document and one selection, all through MSXML
// directly on two reused documents. Rules have two actions each; the signed
// test plugins are registered and loaded so that every action binds. Load,
// floor and parse are measured in turn, round after round; each prints its
// best round.
//
//   WINEPREFIX=$PWD/build/wineprefix WINEDEBUG=-all wine build/bin/ruleParseBench.exe [rule counts...]
// (default 100 1000 10000)
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "actionPlugin.h"
#include "benchSupport.h"
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

void Fail(const char* what) {
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

double LoadMs(const std::wstring& text) {
    double start = omkbench::NowMs();
    IXMLDOMDocument* doc = LoadXML(text.c_str());
    double elapsed = omkbench::NowMs() - start;
    if (doc == nullptr) Fail("load");
    ReleaseXML(doc);
    CoUninitialize();
    return elapsed;
}

IXMLDOMNodeList* Select(IXMLDOMDocument* doc, const wchar_t* xpath) {
    BSTR path = SysAllocString(xpath);
    IXMLDOMNodeList* list = nullptr;
    if (FAILED(doc->selectNodes(path, &list))) Fail("selectNodes");
    SysFreeString(path);
    return list;
}

IXMLDOMNode* Item(IXMLDOMNodeList* list, long i) {
    IXMLDOMNode* node = nullptr;
    if (list->get_item(i, &node) != S_OK) Fail("get_item");
    return node;
}

BSTR OuterXml(IXMLDOMNodeList* list, long i) {
    IXMLDOMNode* node = Item(list, i);
    BSTR xml = nullptr;
    node->get_xml(&xml);
    node->Release();
    return xml;
}

void Load(IXMLDOMDocument* doc, BSTR xml) {
    VARIANT_BOOL loaded = VARIANT_FALSE;
    if (FAILED(doc->loadXML(xml, &loaded)) || loaded != VARIANT_TRUE) Fail("loadXML");
}

// Reads the first attribute of the first node (the rule's and action's reads
// walk their attributes the same way).
void ReadAttribute(IXMLDOMNodeList* list) {
    IXMLDOMNode* node = Item(list, 0);
    IXMLDOMNamedNodeMap* attributes = nullptr;
    node->get_attributes(&attributes);
    IXMLDOMNode* attribute = nullptr;
    attributes->get_item(0, &attribute);
    BSTR text = nullptr;
    attribute->get_text(&text);
    SysFreeString(text);
    attribute->Release();
    attributes->Release();
    node->Release();
}

// Loads the outer XML of each node `xpath` selects in `doc` into `into`, in
// turn, and reads each with `read`.
template <typename Read>
void ForEachLoaded(IXMLDOMDocument* doc, const wchar_t* xpath, IXMLDOMDocument* into, Read read) {
    IXMLDOMNodeList* list = Select(doc, xpath);
    long count = 0;
    list->get_length(&count);
    for (long i = 0; i < count; ++i) {
        BSTR xml = OuterXml(list, i);
        Load(into, xml);
        SysFreeString(xml);
        read();
    }
    list->Release();
}

double FloorMs(const std::wstring& text) {
    double start = omkbench::NowMs();
    IXMLDOMDocument* file = LoadXML(text.c_str());
    IXMLDOMDocument* rule = nullptr;
    IXMLDOMDocument* action = nullptr;
    // Made once through the layer, loaded directly from here on.
    if (file == nullptr || ReloadXML(&rule, L"<a/>") == nullptr || ReloadXML(&action, L"<a/>") == nullptr)
        Fail("floor documents");
    ForEachLoaded(file, L"/Tolvane/Rule", rule, [rule, action] {
        IXMLDOMNodeList* root = Select(rule, L"/Rule");
        ReadAttribute(root);
        root->Release();
        for (const wchar_t* child : {L"/Rule/Name", L"/Rule/Descr", L"/Rule/RuleGuid", L"/Rule/AlertMsg"}) {
            IXMLDOMNodeList* list = Select(rule, child);
            IXMLDOMNode* node = Item(list, 0);
            BSTR value = nullptr;
            node->get_text(&value);
            SysFreeString(value);
            node->Release();
            list->Release();
        }
        ForEachLoaded(rule, L"/Rule/Action", action, [action] {
            IXMLDOMNodeList* list = Select(action, L"/Action");
            ReadAttribute(list);
            list->Release();
        });
    });
    ReleaseXML(action);
    ReleaseXML(rule);
    ReleaseXML(file);
    for (int i = 0; i < 3; ++i) CoUninitialize();
    return omkbench::NowMs() - start;
}

double ParseMs(const std::wstring& text, int rules) {
    double start = omkbench::NowMs();
    DWORD status = ParseRuleDefinitions(text.c_str());
    double elapsed = omkbench::NowMs() - start;
    if (status != RULES_OK || g_numRules != static_cast<DWORD>(rules)) Fail("parse");
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
    if (LoadRulePlugins() != 0 || LoadActionPlugins() != 0) Fail("loading the test plugins");

    printf("Rule file parse against one load of the file (target parse/load <= 5) and against the floor of\n"
           "the DOM work it needs (best of the rounds, measured in turn)\n");
    printf("%7s %6s %7s %9s %9s %10s %10s %11s\n", "rules", "KiB", "rounds", "load ms", "floor ms", "parse ms",
           "parse/load", "parse/floor");
    for (int rules : counts) {
        std::wstring text = RuleFileText(rules);
        const int rounds = rules <= 1000 ? 7 : 3;
        double load = 1e300, floor = 1e300, parse = 1e300;
        LoadMs(text);  // the first load of the process also loads MSXML itself
        for (int r = 0; r < rounds; ++r) {
            load = std::min(load, LoadMs(text));
            floor = std::min(floor, FloorMs(text));
            parse = std::min(parse, ParseMs(text, rules));
        }
        printf("%7d %6.0f %7d %9.1f %9.1f %10.1f %10.1f %11.2f\n", rules, text.size() / 1024.0, rounds, load, floor,
               parse, parse / load, parse / floor);
        fflush(stdout);
    }
    UnloadActionPlugins();
    UnloadRulePlugins();
    return 0;
}
