// Rule definition files, grouped by concern: file-wide settings, a large file
// mixing every way a rule is kept or dropped, the platform filter, plugin
// configuration and the record plugins read, whole-file failures.
#include <string>
#include <vector>

#include "actionPlugin.h"
#include "conventions.h"
#include "debugOutput.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "rulesTest.h"
#include "systemIdentity.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kEvent = "Type=\"EventRules\"";

// Replaces every `from` in `text` by `to`.
std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

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
        {"<MaxAlertFiles>5</MaxAlertFiles><CreateXmls> 00</CreateXmls>", 5, 1, {}},
        {"<MaxAlertFiles>5</MaxAlertFiles><CreateXmls>-2</CreateXmls>", 5, 0, {}},
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
    return {
        {rule("Enabled=\"1\" " + kEvent), {}},
        {RuleElement(kEvent, "{G@}"),
         {"IsDuplicateRuleGuid: Rule name of {g@} is already using GUID {g@}", "ParseRule: Ignoring rule #"}},
        {rule("Enabled=\"yes\" " + kEvent), {"ParseRule: Rule # is not enabled"}},
        {rule("Enabled=\"true\" " + kEvent), {"ParseRule: Rule # is not enabled"}},
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
    DebugOutputCapture capture;
    ASSERT_TRUE(capture.Ready());
    ASSERT_EQ(RULES_OK, ParseFile("\xEF\xBB\xBF" + RuleFile(body)));
    EXPECT_EQ(expected, Messages());
    Strings assertions = capture.LinesContaining("Assertion failed");
    ASSERT_EQ(static_cast<size_t>(kRounds), assertions.size());
    EXPECT_NE(std::string::npos, assertions[0].find(" file ruleParser.cpp\n")) << assertions[0];

    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(kept.size(), rules.size());
    EXPECT_EQ(kept.size(), g_numRules);
    for (size_t k = 0; k < kept.size(); ++k) {
        ASSERT_EQ("{g" + std::to_string(kept[k]) + "}", U8(rules[k]->ruleGuid));
        EXPECT_EQ(0u, U8(rules[k]->xml).find("<Rule ")) << U8(rules[k]->xml);
    }
    // The first round's kept rules: as written, first of repeated children, bound by name.
    RULE* plain = rules[0];
    EXPECT_EQ("name of {g0}", U8(plain->name));
    EXPECT_EQ("what {g0} does", U8(plain->descr));
    EXPECT_EQ("alert of {g0}", U8(plain->alertMsg));
    EXPECT_EQ("All", U8(plain->platform));
    EXPECT_EQ(1u, plain->enabled);
    EXPECT_EQ(FindRulePlugin(kRulePluginA), rules[1]->plugin);
    RULE* periodic = rules[2];
    EXPECT_EQ(0u, periodic->onSummary);
    EXPECT_EQ(1u, periodic->onPeriodicData);
    EXPECT_EQ(0, periodic->maxTriggerPerBoot) << "no digits: no limit";
    EXPECT_EQ(FindRulePlugin(kRulePluginB), periodic->plugin);
    RULE* unbound = rules[3];
    EXPECT_EQ(0u, unbound->onSummary);
    EXPECT_EQ(-4, unbound->maxTriggerPerBoot);
    EXPECT_EQ("aLL", U8(unbound->platform));
    EXPECT_EQ("NoSuchRules", U8(unbound->type));
    EXPECT_EQ(nullptr, unbound->plugin) << "an unknown rule plugin keeps the rule";
    RULE* repeated = rules[4];
    EXPECT_EQ("first", U8(repeated->name));
    EXPECT_EQ("Disk <full>", U8(repeated->descr));
    EXPECT_EQ("m1", U8(repeated->alertMsg));
    EXPECT_NE(std::string::npos, U8(repeated->xml).find("<Unknown>kept</Unknown>"));
    std::vector<RULE_ACTION*> actions;
    for (RULE_ACTION* a = rules[5]->actions; a != nullptr; a = a->next) actions.push_back(a);
    ASSERT_EQ(3u, actions.size());
    EXPECT_EQ("collect", U8(actions[1]->type));
    EXPECT_EQ(FindActionPlugin(kActionPluginA), actions[0]->plugin);
    EXPECT_EQ(FindActionPlugin(kActionPluginB), actions[1]->plugin);
    EXPECT_EQ(FindActionPlugin(kActionPluginA), actions[2]->plugin);
    std::string first = U8(actions[0]->xml);
    EXPECT_EQ(0u, first.find("<Action ")) << first;
    EXPECT_NE(std::string::npos, first.find("To=\"ops\"")) << first;
    EXPECT_NE(std::string::npos, first.find("<Text>disk</Text>")) << first;
    EXPECT_NE(std::string::npos, U8(actions[2]->xml).find("desk"));
    EXPECT_NE(nullptr, g_ruleFileText);
}

// ---- Platform filter ----

class PlatformFilter : public RulesTest {
protected:
    // Expects each value to be accepted or refused (with its messages) on the machine chosen.
    void ExpectApplies(const std::vector<std::pair<std::string, bool>>& cases) {
        for (const auto& c : cases) {
            FreeRuleDefinitions();
            log_.Mark();
            ParseFile(RuleFile(RuleElement("Platform=\"" + c.first + "\" " + kEvent, "{P}")));
            EXPECT_EQ(c.second, g_rules != nullptr) << c.first;
            Strings expected;
            if (!c.second) {
                expected = {"ParseRule: Rule 0 does not apply (rule platform " + c.first + ")",
                            "ParseRuleDefintions: No rules got added (numRules 1) !"};
            }
            EXPECT_EQ(expected, Messages()) << c.first;
        }
    }
};

TEST_F(PlatformFilter, KeywordsFollowTheChassisClassInAnyLetterCase) {
    Machine(kNotebookChassis, L"Harbor 500");
    ExpectApplies({{"All", true}, {"aLL", true}, {"Laptops", true}, {"LAPTOPS", true}, {"Desktops", false}});
    Machine(kDesktopChassis, L"Harbor 500");
    ExpectApplies({{"laptops", false}, {"desktops", true}, {"Tablets", false}, {"All ", false}, {"Laptop", false}});
}

// "Series:" looks for a case-sensitive part of the model, "Model:" for the
// whole model in any case; the character after the colon is always skipped.
TEST_F(PlatformFilter, SeriesAndModelSkipOneCharacterAndCompareAsTheySay) {
    Machine(kDesktopChassis, L"Harbor 500");
    ExpectApplies({{"Series: Harbor", true},
                   {"series: Harbor", true},
                   {"Series: harbor", false},
                   {"Series: 50", true},
                   {"Model: harbor 500", true},
                   {"MODEL: HARBOR 500", true},
                   {"Model: Harbor", false},
                   {"Model: Harbor 5000", false},
                   {"Series:XHarbor", true},
                   {"Series:harbor", true},
                   {"Model:_harbor 500", true},
                   {"Model:Harbor 500", false},
                   {"Series:", false},
                   {"Model:", false},
                   {"Series: ", true}});
    Machine(kNotebookChassis, nullptr);
    ExpectApplies({{"Series: Harbor", false}, {"Model: Harbor 500", false}, {"Series: ", false}, {"Laptops", true}});
}

TEST_F(PlatformFilter, TheMachineReadThroughWmiMatchesItsOwnModel) {
    ClearMachineIdentityForTest();
    wchar_t model[OMK_MODEL_CHARS] = {};
    ASSERT_EQ(1, GetModel(model));
    std::string text = U8(model);
    ASSERT_EQ(std::string::npos, text.find_first_of("<>&\"")) << text;
    ExpectApplies({{"Model: " + text, true}, {"Model: " + text + "?", false}});
}

// ---- Plugins ----

TEST_F(RulesTest, ConfigurationBlocksReachTheirPluginsAndALaterBlockWins) {
    ASSERT_EQ(RULES_OK, ParseFile(RuleFile("<ActionConfig Type=\"notify\"><Server>one</Server></ActionConfig>"
                                           "<ActionConfig Type=\"Mail\"><Server>x</Server></ActionConfig>"
                                           "<ActionConfig><Server>untyped</Server></ActionConfig>"
                                           "<RuleConfig Type=\"DataRules\" Interval=\"5\"/>"
                                           "<RuleConfig Type=\"Unknown\"/>"
                                           "<ActionConfig Type=\"Notify\"><Server>two</Server></ActionConfig>" +
                                           RuleElement(kEvent, "{0}"))));
    // The first Notify block's copy is overwritten without being freed.
    expectedLeaks_ = 1;
    ACTION_PLUGIN* notify = FindActionPlugin(kActionPluginA);
    std::string notifyConfig = U8(notify->configXml);
    EXPECT_EQ(0u, notifyConfig.find("<ActionConfig Type=\"Notify\">")) << notifyConfig;
    EXPECT_NE(std::string::npos, notifyConfig.find("<Server>two</Server>")) << notifyConfig;
    EXPECT_EQ(nullptr, FindActionPlugin(kActionPluginB)->configXml);
    EXPECT_EQ(nullptr, FindRulePlugin(kRulePluginA)->configXml);
    std::string dataConfig = U8(FindRulePlugin(kRulePluginB)->configXml);
    EXPECT_NE(std::string::npos, dataConfig.find("Interval=\"5\"")) << dataConfig;
    EXPECT_EQ(Strings{"LoadActionPluginConfig: Did not load plugin Mail"}, Messages());

    // The plugins receive their blocks when they are initialised.
    std::wstring callLog = folder_.File(L"calls.log");
    omktest::TestPluginBehaviour data(L"ruleB.dll");
    data.SetCallLog(callLog);
    omktest::TestPluginBehaviour notifyBehaviour(L"actA.dll");
    notifyBehaviour.SetCallLog(callLog);
    ASSERT_EQ(0u, InitRulePlugins());
    ASSERT_EQ(0u, InitActionPlugins());
    std::vector<omktest::PluginCall> calls = omktest::ReadPluginCalls(callLog);
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ("Rule_Initialize", calls[0].function);
    EXPECT_EQ(dataConfig, calls[0].Get("config"));
    EXPECT_EQ("Action_Initialize", calls[1].function);
    EXPECT_EQ(notifyConfig, calls[1].Get("config"));
    CloseActionPlugins();
    CloseRulePlugins();
}

TEST_F(RulesTest, ARulePluginReadsTheParsedRuleThroughTheSharedLayout) {
    ASSERT_EQ(RULES_OK, ParseFile(RuleFile("<CreateXmls>0</CreateXmls><MaxAlertFiles>7</MaxAlertFiles>"
                                           "<Rule OnPeriodicData=\"1\" MaxTriggerPerBoot=\"2\" Platform=\"all\" "
                                           "Type=\"EventRules\"><Name>Heat</Name><Descr>Too hot</Descr>"
                                           "<RuleGuid>{H}</RuleGuid><AlertMsg>Cool down</AlertMsg>"
                                           "<Action Type=\"Collect\" What=\"temps\"/></Rule>",
                                           "")));
    std::wstring callLog = folder_.File(L"calls.log");
    omktest::TestPluginBehaviour behaviour(L"ruleA.dll");
    behaviour.SetCallLog(callLog);
    RULE* rule = g_rules;
    ASSERT_NE(nullptr, rule);
    EXPECT_EQ(0u, rule->plugin->Rule_Triggered(rule));
    std::vector<omktest::PluginCall> calls = omktest::ReadPluginCalls(callLog);
    ASSERT_EQ(1u, calls.size());
    const omktest::PluginCall& call = calls[0];
    const std::pair<const char*, std::string> fields[] = {
        {"rule.enabled", "1"},          {"rule.onSummary", "0"},        {"rule.onPeriodicData", "1"},
        {"rule.type", "EventRules"},    {"rule.platform", "all"},       {"rule.name", "Heat"},
        {"rule.descr", "Too hot"},      {"rule.ruleGuid", "{H}"},       {"rule.xml", U8(rule->xml)},
        {"rule.alertMsg", "Cool down"}, {"rule.maxTriggerPerBoot", "2"}, {"rule.numTriggers", "0"},
        {"rule.plugin", "set"},         {"rule.actions", "1"},          {"rule.action.0.type", "Collect"},
        {"rule.action.0.xml", U8(rule->actions->xml)},                  {"rule.action.0.plugin", "set"},
        {"rule.triggered", "0"},        {"rule.alertGuid", ""},         {"rule.alertFileName", ""},
        {"rule.removeAlertFiles", "1"}, {"rule.maxAlertFiles", "7"},
    };
    for (const auto& field : fields) EXPECT_EQ(field.second, call.Get(field.first)) << field.first;
    EXPECT_TRUE(call.IsNull("workItem"));
    EXPECT_EQ(Strings{}, Messages());
}

// ---- Whole-file failures ----

class WholeFile : public RulesTest {
protected:
    void ExpectEmptyTable() {
        EXPECT_EQ(nullptr, g_rules);
        EXPECT_EQ(0u, g_numRules);
        EXPECT_EQ(nullptr, g_ruleFileText);
        EXPECT_EQ(allocLoaded_, g_allocCount) << "a failed parse keeps nothing";
    }
};

TEST_F(WholeFile, TextThatIsNoDocumentGives6) {
    for (const char* text : {"", "not xml", "<Tolvane><Rule></Tolvane>", "\xEF\xBB", "<Tolvane/><Tolvane/>"}) {
        log_.Mark();
        EXPECT_EQ(RULES_NOT_XML, ParseFile(text)) << text;
        EXPECT_EQ(Strings{"ParseRuleDefintions: LoadXML failed"}, Messages()) << text;
        ExpectEmptyTable();
    }
}

TEST_F(WholeFile, NoRuleElementOrNoRuleKeptGives7) {
    EXPECT_EQ(RULES_PARSE_FAILED, ParseFile(RuleFile("<rule/><Rules/>")));
    EXPECT_EQ(Strings{"ParseRuleDefintions: GetNumInstancesInXml /Tolvane/Rule ret 0"}, Messages());
    ExpectEmptyTable();
    log_.Mark();
    EXPECT_EQ(RULES_PARSE_FAILED, ParseFile("<Other>" + RuleElement(kEvent, "{0}") + "</Other>"));
    EXPECT_EQ((Strings{"ReadMaxAlertFiles: default MaxAlertFiles",
                       "ParseRuleDefintions: GetNumInstancesInXml /Tolvane/Rule ret 0"}),
              Messages());
    ExpectEmptyTable();
    log_.Mark();
    EXPECT_EQ(RULES_PARSE_FAILED,
              ParseFile(RuleFile(RuleElement("Enabled=\"0\" " + kEvent, "{0}") +
                                 RuleElement(kEvent, "{1}", "<Action Type=\"Mail\"/>"))));
    EXPECT_EQ((Strings{"ParseRule: Rule 0 is not enabled",
                       "ParseRuleAction: Could not find action plugin Mail for rule 1 action 0",
                       "ParseRule: ParseRuleAction failed for rule 1 action 0",
                       "ParseRuleDefintions: No rules got added (numRules 2) !"}),
              Messages());
    ExpectEmptyTable();
}

}  // namespace
