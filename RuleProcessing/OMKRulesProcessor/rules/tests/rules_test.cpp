// The rule parser with signed test plugins loaded under the names the rules use
// (rule plugins EventRules and DataRules, action plugins Notify and Collect).
#include <gtest/gtest.h>

#include <thread>

#include "actionPlugin.h"
#include "conventions.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "systemIdentity.h"
#include "testPlugins.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kEvent = "Type=\"EventRules\"";
// Raw chassis types the machine may report.
constexpr DWORD kNotebookChassis = 10;
constexpr DWORD kDesktopChassis = 3;

std::string U8(const wchar_t* text) {
    return text == nullptr ? "<null>" : omktest::ToUtf8(text);
}

// A rule element with every required child; `attributes` go into the start tag.
std::string RuleElement(const std::string& attributes, const std::string& guid, const std::string& extra = "") {
    return "<Rule " + attributes + "><Name>name of " + guid + "</Name><Descr>what " + guid + " does</Descr><RuleGuid>" +
           guid + "</RuleGuid><AlertMsg>alert of " + guid + "</AlertMsg>" + extra + "</Rule>";
}

// A whole file; the default settings need no message.
std::string RuleFile(const std::string& body, const std::string& settings = "<MaxAlertFiles>30</MaxAlertFiles>") {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Tolvane>\n" + settings + "\n" + body + "\n</Tolvane>\n";
}

// Replaces every `from` in `text` by `to`.
std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

class RulesTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Signed plugins verify as on a Windows test machine only with the test root trusted.
        static const bool rootInstalled = omktest::InstallTestRoot();
        ASSERT_TRUE(rootInstalled);
        allocBefore_ = g_allocCount;
        const wchar_t* const names[] = {L"EventRules", L"DataRules", L"Notify", L"Collect"};
        const wchar_t* const copies[] = {L"ruleA.dll", L"ruleB.dll", L"actA.dll", L"actB.dll"};
        for (int i = 0; i < 4; ++i) {
            std::wstring copy = folder_.File(copies[i]);
            const wchar_t* built = i < 2 ? omktest::kTestRulePlugin : omktest::kTestActionPlugin;
            ASSERT_TRUE(CopyFileW(omktest::BuiltFile(built).c_str(), copy.c_str(), FALSE));
            ASSERT_EQ(ERROR_SUCCESS, (i < 2 ? ruleKey_ : actionKey_).Add(names[i], copy));
        }
        ASSERT_EQ(0u, LoadRulePlugins());
        ASSERT_EQ(0u, LoadActionPlugins());
        Machine(kDesktopChassis, L"Wine");
        allocLoaded_ = g_allocCount;
        log_.Mark();
    }
    void TearDown() override {
        ClearMachineIdentityForTest();
        FreeRuleDefinitions();
        UnloadActionPlugins();
        UnloadRulePlugins();
        EXPECT_EQ(allocBefore_ + expectedLeaks_, g_allocCount) << "live allocations must come back";
        g_allocCount = allocBefore_;
    }

    DWORD ParseFile(const std::string& utf8) { return ParseRuleDefinitions(omktest::FromUtf8(utf8).c_str()); }
    std::vector<RULE*> Rules() const {
        std::vector<RULE*> rules;
        for (RULE* rule = g_rules; rule != nullptr; rule = rule->next) rules.push_back(rule);
        return rules;
    }
    Strings Messages() const { return log_.Messages(); }
    // What the machine reports: its raw chassis type and its model (null: unreadable).
    void Machine(DWORD rawChassisType, const wchar_t* model) {
        SetChassisTypeForTest(rawChassisType);
        SetModelForTest(model);
    }

    omktest::ErrorLog log_{L"OmkRules_test.log"};
    omktest::TempFolder folder_;
    omktest::PluginKey ruleKey_{omktest::kRulePluginKey};
    omktest::PluginKey actionKey_{omktest::kActionPluginKey};
    int allocBefore_ = 0;  // before the plugins were loaded: what teardown comes back to
    int allocLoaded_ = 0;  // with the plugins loaded
    int expectedLeaks_ = 0;  // blocks a test leaves behind on purpose
};

TEST_F(RulesTest, SettingsAreReadUpToTheFirstNonDigitAndEveryRuleCarriesThem) {
    const struct {
        const char* settings;
        unsigned int max;
        unsigned int remove;
        Strings messages;
    } cases[] = {
        {"<MaxAlertFiles>12abc</MaxAlertFiles><MaxAlertFiles>99</MaxAlertFiles><CreateXmls>0</CreateXmls>", 12, 1, {}},
        {"", 30, 0, {"ReadMaxAlertFiles: default MaxAlertFiles"}},
        {"<MaxAlertFiles/><CreateXmls></CreateXmls>", 30, 0,
         {"ReadMaxAlertFiles: null bstr - default MaxAlertFiles",
          "ReadCreateAlertFiles: null bstr - default CreateAlertFiles 1"}},
        {"<MaxAlertFiles>5</MaxAlertFiles><CreateXmls>no</CreateXmls>", 5, 1, {}},
        {"<MaxAlertFiles>5</MaxAlertFiles><CreateXmls>7 files</CreateXmls>", 5, 0, {}},
    };
    for (const auto& c : cases) {
        log_.Mark();
        ASSERT_EQ(RULES_OK, ParseFile(RuleFile(RuleElement(kEvent, "{A}") + RuleElement(kEvent, "{B}"), c.settings)));
        EXPECT_EQ(c.max, MaxAlertFiles) << c.settings;
        EXPECT_EQ(c.remove, removeAlertFiles) << c.settings;
        for (RULE* rule : Rules()) {
            EXPECT_EQ(c.max, rule->maxAlertFiles) << c.settings;
            EXPECT_EQ(c.remove, rule->removeAlertFiles) << c.settings;
        }
        EXPECT_EQ(c.messages, Messages()) << c.settings;
        FreeRuleDefinitions();
    }
}

// One kind of rule element of the mixed file: "#" stands for the rule's
// number, "@" for the number of the rule before it.
struct RuleKind {
    std::string xml;
    Strings messages;  // what dropping it logs; none for a kept rule
};

const std::string kTail = "<RuleGuid>{g#}</RuleGuid><AlertMsg>m</AlertMsg></Rule>";

std::vector<RuleKind> MixedKinds() {
    auto rule = [](const std::string& attributes, const std::string& extra = "") {
        return RuleElement(attributes, "{g#}", extra);
    };
    std::string nested = "text";
    for (int i = 0; i < 100; ++i) nested = "<d>" + nested + "</d>";
    return {
        {rule("Enabled=\"1\" " + kEvent), {}},
        {RuleElement(kEvent, "{G@}"),
         {"IsDuplicateRuleGuid: Rule name of {g@} is already using GUID {g@}", "ParseRule: Ignoring rule #"}},
        {rule("Enabled=\"yes\" " + kEvent), {"ParseRule: Rule # is not enabled"}},
        {rule("Enabled=\"0\" " + kEvent), {"ParseRule: Rule # is not enabled"}},
        {rule("Enabled=\"\" " + kEvent), {"ParseRule: read NULL for attribute Enabled in rule #"}},
        {rule(""), {"ParseRule: attribute Enabled not found in rule #"}},
        // Another letter case is another attribute; plugin names ignore case.
        {rule("enabled=\"0\" Type=\"eventrules\""), {}},
        {rule("OnSummary=\"1\" OnPeriodicData=\"1\" " + kEvent),
         {"ParseRule: How can Rule # exec on SUMMARY as well as PERIODIC DATA ?"}},
        {rule("OnPeriodicData=\"1\" MaxTriggerPerBoot=\"abc\" Type=\"DataRules\""), {}},
        {rule("OnSummary=\"yes\" MaxTriggerPerBoot=\"-4\" Platform=\"aLL\" Type=\"NoSuchRules\""), {}},
        {rule("OnSummary=\"\" " + kEvent), {"ParseRule: read NULL attribute OnSummary in rule #"}},
        {rule("MaxTriggerPerBoot=\"\" " + kEvent), {"ParseRule: read NULL for attribute MaxTriggerPerBoot in rule #"}},
        {rule("Platform=\"\" " + kEvent), {"ParseRule: read NULL attribute Platform in rule #"}},
        {rule("Platform=\"Tablets\" " + kEvent), {"ParseRule: Rule # does not apply (rule platform Tablets)"}},
        {rule(kEvent, "<RuleGuid>{x}</RuleGuid>"), {"ParseRule: rule # has multiple ruleGuids 2"}},
        {RuleElement(kEvent, ""), {"ParseRule: rule # read NULL ruleGuid"}},
        {"<Rule " + kEvent + "><Name>n</Name><Descr>d</Descr><AlertMsg>m</AlertMsg></Rule>",
         {"ParseRule: unable to read ruleGuid for rule #"}},
        {"<Rule " + kEvent + "><Descr>d</Descr>" + kTail, {"ParseRule: unable to read rule # name"}},
        {"<Rule " + kEvent + "><name>n</name><Descr>d</Descr>" + kTail, {"ParseRule: unable to read rule # name"}},
        {"<Rule " + kEvent + "><Name/><Descr>d</Descr>" + kTail, {"ParseRule: read NULL for rule # name"}},
        {"<Rule " + kEvent + "><Name>n</Name>" + kTail, {"ParseRule: unable to read rule # descr"}},
        {"<Rule " + kEvent + "><Name>n</Name><Descr></Descr>" + kTail, {"ParseRule: read NULL as rule # descr"}},
        {"<Rule " + kEvent + "><Name>n</Name><Descr>d</Descr><RuleGuid>{g#}</RuleGuid></Rule>",
         {"ParseRule: unable to read alertMsg in rule # "}},
        {"<Rule " + kEvent + "><Name>n</Name><Descr>d</Descr><RuleGuid>{g#}</RuleGuid><AlertMsg/></Rule>",
         {"ParseRule: read NULL rule # alertMsg"}},
        // Fails after other attributes were read: also the assertion line.
        {rule("Enabled=\"1\""), {"ParseRule: attribute Type not found in rule #"}},
        {rule("Type=\"\""), {"ParseRule: Read NULL attribute Type in rule #"}},
        {"<Rule " + kEvent + "><Name>first</Name><Name>second</Name><Descr>Disk &lt;full&gt;</Descr><Descr>d2</Descr>"
         "<RuleGuid>{g#}</RuleGuid><AlertMsg>m1</AlertMsg><AlertMsg>m2</AlertMsg><Unknown>kept</Unknown></Rule>",
         {}},
        {rule(kEvent, "<Action Type=\"Notify\" To=\"ops\"><Text>disk</Text></Action><Action Type=\"collect\"/>"
                      "<Action Type=\"Notify\" To=\"desk\"/>"),
         {}},
        {rule(kEvent, "<Action Type=\"Notify\"/><Action Type=\"Mail\"/>"),
         {"ParseRuleAction: Could not find action plugin Mail for rule # action 1",
          "ParseRule: ParseRuleAction failed for rule # action 1"}},
        {rule(kEvent, "<Action To=\"nobody\"/>"),
         {"ParseRuleAction: attribute Type not found in rule # action 0",
          "ParseRule: ParseRuleAction failed for rule # action 0"}},
        {rule(kEvent, "<Action Type=\"\"/>"),
         {"ParseRuleAction: Read NULL attribute Type in rule # action 0",
          "ParseRule: ParseRuleAction failed for rule # action 0"}},
        {rule(kEvent, nested), {}},
    };
}

// Every message of a large file, in file order, and every kept rule as it was
// written; elements that are not direct children of the root are no rules.
TEST_F(RulesTest, ALargeMixedFileLogsEveryDroppedRuleInOrderAndKeepsTheRest) {
    const std::vector<RuleKind> kinds = MixedKinds();
    const int kRounds = 40;
    const std::string noise = "<Noise a=\"1\"><Rule>inner</Rule></Noise><!-- <Rule/> --><?pi x?>";
    std::string body;
    Strings expected;
    std::vector<int> kept;
    int number = 0;
    for (int round = 0; round < kRounds; ++round, body += noise) {
        for (const RuleKind& kind : kinds) {
            auto fill = [number](const std::string& text) {
                return Replace(Replace(text, "@", std::to_string(number - 1)), "#", std::to_string(number));
            };
            body += fill(kind.xml) + "\n";
            for (const std::string& message : kind.messages) expected.push_back(fill(message));
            if (kind.messages.empty()) kept.push_back(number);
            ++number;
        }
    }
    // Configuration blocks go to the plugin their "Type" names; a later block wins
    // (the earlier copy stays allocated).
    const std::string configs =
        "<MaxAlertFiles>30</MaxAlertFiles><ActionConfig Type=\"notify\"><Server>one</Server></ActionConfig>"
        "<ActionConfig Type=\"Mail\"/><ActionConfig><Server>untyped</Server></ActionConfig>"
        "<RuleConfig Type=\"DataRules\" Interval=\"5\"/><RuleConfig Type=\"Unknown\"/>"
        "<ActionConfig Type=\"Notify\"><Server>two</Server></ActionConfig>";
    expected.insert(expected.begin(), "LoadActionPluginConfig: Did not load plugin Mail");
    expectedLeaks_ = 1;
    omktest::TraceMonitor capture;
    ASSERT_TRUE(capture.Active());
    ASSERT_EQ(RULES_OK, ParseFile("\xEF\xBB\xBF" + RuleFile(body, configs)));
    EXPECT_EQ(expected, Messages());
    const std::string notifyConfig = U8(FindActionPlugin(L"Notify")->configXml);
    EXPECT_EQ(0u, notifyConfig.find("<ActionConfig Type=\"Notify\">")) << notifyConfig;
    EXPECT_NE(std::string::npos, notifyConfig.find("<Server>two</Server>")) << notifyConfig;
    EXPECT_EQ(nullptr, FindActionPlugin(L"Collect")->configXml);
    EXPECT_EQ(nullptr, FindRulePlugin(L"EventRules")->configXml);
    EXPECT_EQ(0u, U8(FindRulePlugin(L"DataRules")->configXml).find("<RuleConfig Type=\"DataRules\" Interval=\"5\"/>"));
    Strings assertions = capture.Matching("Assertion failed");
    ASSERT_EQ(static_cast<size_t>(kRounds), assertions.size());
    EXPECT_NE(std::string::npos, assertions[0].find(" file ruleParser.cpp\n")) << assertions[0];

    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(kept.size(), rules.size());
    EXPECT_EQ(kept.size(), g_numRules);
    for (size_t k = 0; k < kept.size(); ++k) {
        const RULE* r = rules[k];
        ASSERT_EQ("{g" + std::to_string(kept[k]) + "}", U8(r->ruleGuid));
        EXPECT_EQ(0u, U8(r->xml).find("<Rule ")) << U8(r->xml);
        EXPECT_TRUE(r->numTriggers == 0 && r->triggered == 0 && r->alertGuid[0] == 0 && r->alertFileName[0] == 0 &&
                    r->workItem == nullptr && r->maxAlertFiles == 30 && r->removeAlertFiles == 0);
    }
    // The first round's kept rules as plugins see them: first of repeated children, bound by name.
    auto describe = [](const RULE* r) {
        std::string text = U8(r->name) + "|" + U8(r->descr) + "|" + U8(r->alertMsg) + "|" + U8(r->platform) + "|" +
                           std::to_string(r->enabled) + std::to_string(r->onSummary) +
                           std::to_string(r->onPeriodicData) + "|" + std::to_string(r->maxTriggerPerBoot) + "|" +
                           U8(r->type) + (r->plugin != nullptr ? "=" + U8(r->plugin->name) : "");
        for (RULE_ACTION* a = r->actions; a != nullptr; a = a->next) text += "|" + U8(a->type) + "=" + U8(a->plugin->name);
        return text;
    };
    EXPECT_EQ((Strings{"name of {g0}|what {g0} does|alert of {g0}|All|100|0|EventRules=EventRules",
                       "name of {g6}|what {g6} does|alert of {g6}|All|100|0|eventrules=EventRules",
                       "name of {g8}|what {g8} does|alert of {g8}|All|101|0|DataRules=DataRules",
                       "name of {g9}|what {g9} does|alert of {g9}|aLL|100|-4|NoSuchRules",
                       "first|Disk <full>|m1|All|100|0|EventRules=EventRules",
                       "name of {g27}|what {g27} does|alert of {g27}|All|100|0|EventRules=EventRules|Notify=Notify|"
                       "collect=Collect|Notify=Notify"}),
              (Strings{describe(rules[0]), describe(rules[1]), describe(rules[2]), describe(rules[3]),
                       describe(rules[4]), describe(rules[5])}));
    EXPECT_NE(std::string::npos, U8(rules[4]->xml).find("<Unknown>kept</Unknown>"));
    EXPECT_NE(std::string::npos, U8(rules[6]->xml).find("text")) << "under 100 levels of nesting";
    std::string first = U8(rules[5]->actions->xml);
    EXPECT_EQ(0u, first.find("<Action Type=\"Notify\" To=\"ops\">")) << first;
    EXPECT_NE(std::string::npos, first.find("<Text>disk</Text>")) << first;
    EXPECT_NE(nullptr, g_ruleFileText);
}

// Keywords in any letter case follow the chassis class; "Series:" looks for a
// case-sensitive part of the model, "Model:" for the whole model in any case,
// and the character after the colon is always skipped.
TEST_F(RulesTest, PlatformKeywordsSeriesAndModel) {
    auto ExpectApplies = [this](const std::vector<std::pair<std::string, bool>>& cases) {
        for (const auto& c : cases) {
            FreeRuleDefinitions();
            ParseFile(RuleFile(RuleElement("Platform=\"" + c.first + "\" " + kEvent, "{P}")));
            EXPECT_EQ(c.second, g_rules != nullptr) << c.first;
        }
    };
    Machine(kNotebookChassis, L"Harbor 500");
    ExpectApplies({{"All", true}, {"aLL", true}, {"Laptops", true}, {"LAPTOPS", true}, {"Desktops", false}});
    Machine(kDesktopChassis, L"Harbor 500");
    ExpectApplies({{"laptops", false}, {"desktops", true}, {"Tablets", false}, {"All ", false}, {"Laptop", false},
                   {"Series: Harbor", true}, {"series: Harbor", true}, {"Series: harbor", false},
                   {"Series: 50", true}, {"Model: harbor 500", true}, {"MODEL: HARBOR 500", true},
                   {"Model: Harbor", false}, {"Model: Harbor 5000", false}, {"Series:XHarbor", true},
                   {"Series:harbor", true}, {"Model:_harbor 500", true}, {"Model:Harbor 500", false},
                   {"Series:", false}, {"Model:", false}, {"Series: ", true}});
    Machine(kNotebookChassis, nullptr);
    ExpectApplies({{"Series: Harbor", false}, {"Model: Harbor 500", false}, {"Series: ", false}, {"Laptops", true}});
}

// Whole-file failures leave the table empty.
TEST_F(RulesTest, NoDocumentGives6AndNoRuleElementOrNoRuleKept7) {
    const struct {
        std::string text;
        DWORD status;
        Strings messages;
    } cases[] = {
        {"", RULES_NOT_XML, {"ParseRuleDefintions: LoadXML failed"}},
        {RuleFile("<rule/><Rules/>"), RULES_PARSE_FAILED,
         {"ParseRuleDefintions: GetNumInstancesInXml /Tolvane/Rule ret 0"}},
        {"<Other>" + RuleElement(kEvent, "{0}") + "</Other>", RULES_PARSE_FAILED,
         {"ReadMaxAlertFiles: default MaxAlertFiles", "ParseRuleDefintions: GetNumInstancesInXml /Tolvane/Rule ret 0"}},
        {RuleFile(RuleElement("Enabled=\"0\" " + kEvent, "{0}") + RuleElement(kEvent, "{1}", "<Action Type=\"Mail\"/>")),
         RULES_PARSE_FAILED,
         {"ParseRule: Rule 0 is not enabled", "ParseRuleAction: Could not find action plugin Mail for rule 1 action 0",
          "ParseRule: ParseRuleAction failed for rule 1 action 0",
          "ParseRuleDefintions: No rules got added (numRules 2) !"}},
    };
    for (const auto& c : cases) {
        log_.Mark();
        EXPECT_EQ(c.status, ParseFile(c.text)) << c.text;
        EXPECT_EQ(c.messages, Messages()) << c.text;
        EXPECT_TRUE(g_rules == nullptr && g_numRules == 0 && g_ruleFileText == nullptr);
        EXPECT_EQ(allocLoaded_, g_allocCount) << "a failed parse keeps nothing";
    }
}

// Loads that fail are reported with the rule's and action's numbers and leave
// the apartment they entered; every loaded document is released and its
// apartment left, with or without a file to parse; nesting too deep for the DOM
// refuses the file, and never crashes it.
TEST_F(RulesTest, EntryPointsOnTheirOwnAndTheApartmentBalance) {
    EXPECT_EQ(nullptr, ParseRule(3, nullptr));
    EXPECT_EQ(nullptr, ParseRule(3, L"<Rule Type=\"EventRules\">"));
    EXPECT_EQ(nullptr, ParseRuleAction(4, 1, nullptr));
    EXPECT_EQ(nullptr, ParseRuleAction(4, 2, L"<Action"));
    CoUninitialize();
    CoUninitialize();
    EXPECT_EQ((Strings{"ParseRule: unable to load XML for rule 3\n<Rule Type=\"EventRules\">",
                       "ParseRuleAction: rule 4 action 1 null xml",
                       "ParseRuleAction: unable to load XML for rule 4 action 2 <Action"}),
              Messages());

    const std::wstring good = omktest::FromUtf8(RuleFile(RuleElement(kEvent, "{0}", "<Action Type=\"Notify\"/>") +
                                                         RuleElement("Enabled=\"0\"", "{1}") +
                                                         RuleElement(kEvent, "{2}", "<Action Type=\"Mail\"/>")));
    for (const std::wstring& input : {good, std::wstring(L"<Tolvane>"), std::wstring(L"<Tolvane/>")}) {
        std::thread([&input] {
            DWORD status = ParseRuleDefinitions(input.c_str());
            HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            if (SUCCEEDED(hr)) CoUninitialize();
            EXPECT_EQ(S_OK, hr) << "status " << status << ": the thread left every apartment it entered";
        }).join();
        FreeRuleDefinitions();
    }

    std::string deep = "<d>";
    for (int i = 0; i < 13; ++i) deep += deep;  // 8192 levels
    log_.Mark();
    DWORD status = ParseFile(RuleFile(RuleElement(kEvent, "{0}", deep + Replace(deep, "<", "</"))));
    EXPECT_TRUE(status == RULES_NOT_XML || (status == RULES_OK && Rules().size() == 1)) << status;
}

}  // namespace
