// Rule definition files, grouped by concern: file-wide settings, which rules are
// accepted, the platform filter, binding to plugins, whole-file failures.
#include <string>
#include <vector>

#include "actionPlugin.h"
#include "conventions.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "rulesTest.h"
#include "systemIdentity.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kEvent = "Type=\"EventRules\"";

// ---- File-wide settings ----

class Settings : public RulesTest {};

TEST_F(Settings, NumbersAreReadUpToTheFirstNonDigitAndEveryRuleCarriesThem) {
    ASSERT_EQ(RULES_OK, ParseFile(RuleFile("<MaxAlertFiles>12abc</MaxAlertFiles><MaxAlertFiles>99</MaxAlertFiles>"
                                           "<CreateXmls>0</CreateXmls>" +
                                               RuleElement(kEvent, "{A}") + RuleElement(kEvent, "{B}"),
                                           "")));
    EXPECT_EQ(12u, MaxAlertFiles);
    EXPECT_EQ(1u, removeAlertFiles);
    for (RULE* rule : Rules()) {
        EXPECT_EQ(12u, rule->maxAlertFiles);
        EXPECT_EQ(1u, rule->removeAlertFiles);
    }
    EXPECT_EQ(Strings{}, Messages());
}

TEST_F(Settings, MissingOrEmptyMaxAlertFilesGives30WithItsMessage) {
    ASSERT_EQ(RULES_OK, ParseFile(RuleFile(RuleElement(kEvent, "{A}"), "")));
    EXPECT_EQ(30u, MaxAlertFiles);
    EXPECT_EQ(0u, removeAlertFiles) << "a missing CreateXmls keeps alert files, silently";
    EXPECT_EQ(Strings{"ReadMaxAlertFiles: default MaxAlertFiles"}, Messages());
    FreeRuleDefinitions();

    log_.Mark();
    ASSERT_EQ(RULES_OK,
              ParseFile(RuleFile("<MaxAlertFiles/><CreateXmls></CreateXmls>" + RuleElement(kEvent, "{A}"), "")));
    EXPECT_EQ(30u, MaxAlertFiles);
    EXPECT_EQ(0u, removeAlertFiles);
    EXPECT_EQ((Strings{"ReadMaxAlertFiles: null bstr - default MaxAlertFiles",
                       "ReadCreateAlertFiles: null bstr - default CreateAlertFiles 1"}),
              Messages());
}

TEST_F(Settings, CreateXmlsZeroOrNoNumberRemovesAlertFilesAnyOtherNumberKeepsThem) {
    const struct {
        const char* text;
        unsigned int remove;
    } cases[] = {{"0", 1}, {"no", 1}, {" 00", 1}, {"1", 0}, {"-2", 0}, {"7 files", 0}};
    for (const auto& c : cases) {
        ASSERT_EQ(RULES_OK, ParseFile(RuleFile("<MaxAlertFiles>5</MaxAlertFiles><CreateXmls>" + std::string(c.text) +
                                                   "</CreateXmls>" + RuleElement(kEvent, "{A}"),
                                               "")));
        EXPECT_EQ(c.remove, removeAlertFiles) << c.text;
        EXPECT_EQ(c.remove, g_rules->removeAlertFiles) << c.text;
        FreeRuleDefinitions();
    }
    EXPECT_EQ(Strings{}, Messages());
}

// ---- Which rules are accepted ----

class RuleAcceptance : public RulesTest {};

// Every field as a plugin reads it is checked in PluginBinding; here what only the file shows.
TEST_F(RuleAcceptance, AcceptedRuleKeepsItsWholeElementAndDecodedTexts) {
    ASSERT_EQ(RULES_OK, ParseFile(RuleFile("<Rule Type=\"EventRules\"><Name>Disk full</Name><Descr>Disk is &lt;full&gt;"
                                           "</Descr><RuleGuid>{7E1C}</RuleGuid><AlertMsg>m</AlertMsg>"
                                           "<Unknown>ignored</Unknown></Rule>")));
    ASSERT_EQ(1u, g_numRules);
    EXPECT_EQ("Disk is <full>", U8(g_rules->descr));
    EXPECT_EQ("All", U8(g_rules->platform));
    std::string xml = U8(g_rules->xml);
    EXPECT_EQ(0u, xml.find("<Rule ")) << xml;
    EXPECT_NE(std::string::npos, xml.find("<Unknown>ignored</Unknown>")) << xml;
    EXPECT_NE(nullptr, g_ruleFileText);
}

TEST_F(RuleAcceptance, OnlyEnabledOneEnablesAndAbsenceNeedsOtherAttributes) {
    ASSERT_EQ(RULES_OK,
              ParseFile(RuleFile(
                  RuleElement("Enabled=\"1\" " + kEvent, "{0}") + RuleElement("Enabled=\"yes\" " + kEvent, "{1}") +
                  RuleElement("Enabled=\"true\" " + kEvent, "{2}") + RuleElement(kEvent, "{3}") +
                  RuleElement("Enabled=\"\" " + kEvent, "{4}") + RuleElement("", "{5}") +
                  RuleElement("enabled=\"1\" " + kEvent, "{6}") + RuleElement("Enabled=\"0\" " + kEvent, "{7}"))));
    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(3u, rules.size());
    EXPECT_EQ("{0}", U8(rules[0]->ruleGuid));
    EXPECT_EQ("{3}", U8(rules[1]->ruleGuid));
    EXPECT_EQ("{6}", U8(rules[2]->ruleGuid)) << "an attribute of another letter case is another attribute";
    EXPECT_EQ((Strings{"ParseRule: Rule 1 is not enabled", "ParseRule: Rule 2 is not enabled",
                       "ParseRule: read NULL for attribute Enabled in rule 4",
                       "ParseRule: attribute Enabled not found in rule 5", "ParseRule: Rule 7 is not enabled"}),
              Messages());
}

TEST_F(RuleAcceptance, ExecFlagsAndTriggerLimit) {
    ASSERT_EQ(RULES_OK,
              ParseFile(RuleFile(RuleElement("OnSummary=\"1\" OnPeriodicData=\"1\" " + kEvent, "{0}") +
                                 RuleElement("OnPeriodicData=\"1\" MaxTriggerPerBoot=\"abc\" " + kEvent, "{1}") +
                                 RuleElement("OnSummary=\"yes\" MaxTriggerPerBoot=\"-4\" " + kEvent, "{2}") +
                                 RuleElement("OnSummary=\"\" " + kEvent, "{3}") +
                                 RuleElement("MaxTriggerPerBoot=\"\" " + kEvent, "{4}"))));
    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(2u, rules.size());
    EXPECT_EQ(0u, rules[0]->onSummary);
    EXPECT_EQ(1u, rules[0]->onPeriodicData);
    EXPECT_EQ(0, rules[0]->maxTriggerPerBoot) << "no digits: no limit";
    EXPECT_EQ(0u, rules[1]->onSummary) << "neither flag: triggered events only";
    EXPECT_EQ(0u, rules[1]->onPeriodicData);
    EXPECT_EQ(-4, rules[1]->maxTriggerPerBoot);
    EXPECT_EQ((Strings{"ParseRule: How can Rule 0 exec on SUMMARY as well as PERIODIC DATA ?",
                       "ParseRule: read NULL attribute OnSummary in rule 3",
                       "ParseRule: read NULL for attribute MaxTriggerPerBoot in rule 4"}),
              Messages());
}

TEST_F(RuleAcceptance, GuidsAreUniqueIgnoringCaseAndSingle) {
    ASSERT_EQ(
        RULES_OK,
        ParseFile(RuleFile(RuleElement(kEvent, "{ab-CD}") + RuleElement(kEvent, "{AB-cd}") +
                           RuleElement(kEvent, "{X}", "<RuleGuid>{Y}</RuleGuid>") + RuleElement(kEvent, "") +
                           "<Rule Type=\"EventRules\"><Name>n</Name><Descr>d</Descr><AlertMsg>m</AlertMsg></Rule>" +
                           RuleElement(kEvent, "{Y}"))));
    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(2u, rules.size());
    EXPECT_EQ("{ab-CD}", U8(rules[0]->ruleGuid));
    EXPECT_EQ("{Y}", U8(rules[1]->ruleGuid)) << "a dropped rule does not hold its GUID";
    EXPECT_EQ((Strings{"IsDuplicateRuleGuid: Rule name of {ab-CD} is already using GUID {ab-CD}",
                       "ParseRule: Ignoring rule 1", "ParseRule: rule 2 has multiple ruleGuids 2",
                       "ParseRule: rule 3 read NULL ruleGuid", "ParseRule: unable to read ruleGuid for rule 4"}),
              Messages());
}

TEST_F(RuleAcceptance, FirstOfRepeatedChildrenIsUsedAndMissingOrEmptyChildrenDropTheRule) {
    const std::string tail = "<RuleGuid>{G}</RuleGuid><AlertMsg>m</AlertMsg>";
    ASSERT_EQ(RULES_OK,
              ParseFile(RuleFile(
                  "<Rule Type=\"EventRules\"><Name>first</Name><Name>second</Name><Descr>d1</Descr><Descr>d2</Descr>"
                  "<RuleGuid>{0}</RuleGuid><AlertMsg>m1</AlertMsg><AlertMsg>m2</AlertMsg></Rule>"
                  "<Rule Type=\"EventRules\"><Descr>d</Descr>" +
                  tail +
                  "</Rule>"
                  "<Rule Type=\"EventRules\"><Name/><Descr>d</Descr>" +
                  tail +
                  "</Rule>"
                  "<Rule Type=\"EventRules\"><Name>n</Name>" +
                  tail +
                  "</Rule>"
                  "<Rule Type=\"EventRules\"><Name>n</Name><Descr></Descr>" +
                  tail +
                  "</Rule>"
                  "<Rule Type=\"EventRules\"><Name>n</Name><Descr>d</Descr><RuleGuid>{5}</RuleGuid></Rule>"
                  "<Rule Type=\"EventRules\"><Name>n</Name><Descr>d</Descr><RuleGuid>{6}</RuleGuid><AlertMsg/></Rule>"
                  "<Rule Enabled=\"1\"><Name>n</Name><Descr>d</Descr><RuleGuid>{7}</RuleGuid><AlertMsg>m</AlertMsg>"
                  "</Rule>"
                  "<Rule Type=\"\"><Name>n</Name><Descr>d</Descr><RuleGuid>{8}</RuleGuid><AlertMsg>m</AlertMsg></Rule>"
                  "<Rule Type=\"EventRules\"><name>n</name><Descr>d</Descr><RuleGuid>{9}</RuleGuid><AlertMsg>m"
                  "</AlertMsg></Rule>")));
    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(1u, rules.size());
    EXPECT_EQ("first", U8(rules[0]->name));
    EXPECT_EQ("d1", U8(rules[0]->descr));
    EXPECT_EQ("m1", U8(rules[0]->alertMsg));
    EXPECT_EQ((Strings{"ParseRule: unable to read rule 1 name", "ParseRule: read NULL for rule 2 name",
                       "ParseRule: unable to read rule 3 descr", "ParseRule: read NULL as rule 4 descr",
                       "ParseRule: unable to read alertMsg in rule 5 ", "ParseRule: read NULL rule 6 alertMsg",
                       "ParseRule: attribute Type not found in rule 7", "ParseRule: Read NULL attribute Type in rule 8",
                       "ParseRule: unable to read rule 9 name"}),
              Messages());
}

// ---- Platform filter ----

class PlatformFilter : public RulesTest {
protected:
    // Whether a rule with this Platform value is accepted on the machine chosen.
    bool Applies(const std::string& platform) {
        FreeRuleDefinitions();
        log_.Mark();
        ParseFile(RuleFile(RuleElement("Platform=\"" + platform + "\" " + kEvent, "{P}")));
        bool accepted = g_rules != nullptr;
        Strings expected;
        if (!accepted) {
            expected = {"ParseRule: Rule 0 does not apply (rule platform " + platform + ")",
                        "ParseRuleDefintions: No rules got added (numRules 1) !"};
        }
        EXPECT_EQ(expected, Messages()) << platform;
        return accepted;
    }
};

TEST_F(PlatformFilter, KeywordsFollowTheChassisClassInAnyLetterCase) {
    Machine(kNotebookChassis, L"Harbor 500");
    EXPECT_TRUE(Applies("All"));
    EXPECT_TRUE(Applies("aLL"));
    EXPECT_TRUE(Applies("Laptops"));
    EXPECT_TRUE(Applies("LAPTOPS"));
    EXPECT_FALSE(Applies("Desktops"));
    Machine(kDesktopChassis, L"Harbor 500");
    EXPECT_FALSE(Applies("laptops"));
    EXPECT_TRUE(Applies("desktops"));
    EXPECT_FALSE(Applies("Tablets"));
    EXPECT_FALSE(Applies("All "));
    EXPECT_FALSE(Applies("Laptop"));
}

TEST_F(PlatformFilter, SeriesIsACaseSensitiveSubstringAndModelACaseInsensitiveMatch) {
    Machine(kDesktopChassis, L"Harbor 500");
    EXPECT_TRUE(Applies("Series: Harbor"));
    EXPECT_TRUE(Applies("series: Harbor")) << "the keyword's case is free";
    EXPECT_FALSE(Applies("Series: harbor")) << "the text's case is not";
    EXPECT_TRUE(Applies("Series: 50"));
    EXPECT_TRUE(Applies("Model: harbor 500"));
    EXPECT_TRUE(Applies("MODEL: HARBOR 500"));
    EXPECT_FALSE(Applies("Model: Harbor"));
    EXPECT_FALSE(Applies("Model: Harbor 5000"));
}

TEST_F(PlatformFilter, TheCharacterAfterTheColonIsAlwaysSkipped) {
    Machine(kDesktopChassis, L"Harbor 500");
    EXPECT_TRUE(Applies("Series:XHarbor"));
    EXPECT_TRUE(Applies("Series:harbor")) << "looks for arbor, letter case and all";
    EXPECT_TRUE(Applies("Model:_harbor 500"));
    EXPECT_FALSE(Applies("Model:Harbor 500")) << "looks for arbor 500";
    EXPECT_FALSE(Applies("Series:")) << "nothing to skip";
    EXPECT_FALSE(Applies("Model:"));
    EXPECT_TRUE(Applies("Series: ")) << "an empty text is part of every model";
}

TEST_F(PlatformFilter, AnUnreadableModelMatchesNoSeriesOrModel) {
    Machine(kNotebookChassis, nullptr);
    EXPECT_FALSE(Applies("Series: Harbor"));
    EXPECT_FALSE(Applies("Model: Harbor 500"));
    EXPECT_FALSE(Applies("Series: "));
    EXPECT_TRUE(Applies("Laptops"));
}

TEST_F(PlatformFilter, TheMachineReadThroughWmiMatchesItsOwnModel) {
    ClearMachineIdentityForTest();
    wchar_t model[OMK_MODEL_CHARS] = {};
    ASSERT_EQ(1, GetModel(model));
    std::string text = U8(model);
    ASSERT_EQ(std::string::npos, text.find_first_of("<>&\"")) << text;
    EXPECT_TRUE(Applies("Model: " + text));
    EXPECT_FALSE(Applies("Model: " + text + "?"));
}

// ---- Binding to plugins ----

class PluginBinding : public RulesTest {};

TEST_F(PluginBinding, RulesBindByNameIgnoringCaseAndAnUnknownTypeKeepsTheRule) {
    ASSERT_EQ(RULES_OK,
              ParseFile(RuleFile(RuleElement("Type=\"eventrules\"", "{0}") + RuleElement("Type=\"DataRules\"", "{1}") +
                                 RuleElement("Type=\"NoSuchRules\"", "{2}"))));
    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(3u, rules.size());
    EXPECT_EQ(FindRulePlugin(kRulePluginA), rules[0]->plugin);
    EXPECT_EQ(FindRulePlugin(kRulePluginB), rules[1]->plugin);
    EXPECT_NE(rules[0]->plugin, rules[1]->plugin);
    EXPECT_EQ(nullptr, rules[2]->plugin);
    EXPECT_EQ("NoSuchRules", U8(rules[2]->type));
    EXPECT_EQ(Strings{}, Messages());
}

TEST_F(PluginBinding, ActionsKeepDocumentOrderAndAnUnknownActionDropsItsRule) {
    ASSERT_EQ(RULES_OK,
              ParseFile(RuleFile(RuleElement(kEvent, "{0}",
                                             "<Action Type=\"Notify\" To=\"ops\"><Text>disk</Text></Action>"
                                             "<Action Type=\"collect\"/><Action Type=\"Notify\" To=\"desk\"/>") +
                                 RuleElement(kEvent, "{1}", "<Action Type=\"Notify\"/><Action Type=\"Mail\"/>") +
                                 RuleElement(kEvent, "{2}", "<Action To=\"nobody\"/>") +
                                 RuleElement(kEvent, "{3}", "<Action Type=\"\"/>"))));
    std::vector<RULE*> rules = Rules();
    ASSERT_EQ(1u, rules.size());
    std::vector<RULE_ACTION*> actions;
    for (RULE_ACTION* a = rules[0]->actions; a != nullptr; a = a->next) actions.push_back(a);
    ASSERT_EQ(3u, actions.size());
    EXPECT_EQ("Notify", U8(actions[0]->type));
    EXPECT_EQ("collect", U8(actions[1]->type));
    EXPECT_EQ(FindActionPlugin(kActionPluginA), actions[0]->plugin);
    EXPECT_EQ(FindActionPlugin(kActionPluginB), actions[1]->plugin);
    EXPECT_EQ(FindActionPlugin(kActionPluginA), actions[2]->plugin);
    std::string first = U8(actions[0]->xml);
    EXPECT_EQ(0u, first.find("<Action ")) << first;
    EXPECT_NE(std::string::npos, first.find("To=\"ops\"")) << first;
    EXPECT_NE(std::string::npos, first.find("<Text>disk</Text>")) << first;
    EXPECT_NE(std::string::npos, U8(actions[2]->xml).find("desk"));
    EXPECT_EQ((Strings{"ParseRuleAction: Could not find action plugin Mail for rule 1 action 1",
                       "ParseRule: ParseRuleAction failed for rule 1 action 1",
                       "ParseRuleAction: attribute Type not found in rule 2 action 0",
                       "ParseRule: ParseRuleAction failed for rule 2 action 0",
                       "ParseRuleAction: Read NULL attribute Type in rule 3 action 0",
                       "ParseRule: ParseRuleAction failed for rule 3 action 0"}),
              Messages());
}

TEST_F(PluginBinding, ConfigurationBlocksReachTheirPluginsAndALaterBlockWins) {
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

TEST_F(PluginBinding, ARulePluginReadsTheParsedRuleThroughTheSharedLayout) {
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
    EXPECT_EQ("1", call.Get("rule.enabled"));
    EXPECT_EQ("0", call.Get("rule.onSummary"));
    EXPECT_EQ("1", call.Get("rule.onPeriodicData"));
    EXPECT_EQ("EventRules", call.Get("rule.type"));
    EXPECT_EQ("all", call.Get("rule.platform")) << "as the file writes it";
    EXPECT_EQ("Heat", call.Get("rule.name"));
    EXPECT_EQ("Too hot", call.Get("rule.descr"));
    EXPECT_EQ("{H}", call.Get("rule.ruleGuid"));
    EXPECT_EQ(U8(rule->xml), call.Get("rule.xml"));
    EXPECT_EQ("Cool down", call.Get("rule.alertMsg"));
    EXPECT_EQ("2", call.Get("rule.maxTriggerPerBoot"));
    EXPECT_EQ("0", call.Get("rule.numTriggers"));
    EXPECT_EQ("set", call.Get("rule.plugin"));
    EXPECT_EQ("1", call.Get("rule.actions"));
    EXPECT_EQ("Collect", call.Get("rule.action.0.type"));
    EXPECT_EQ(U8(rule->actions->xml), call.Get("rule.action.0.xml"));
    EXPECT_EQ("set", call.Get("rule.action.0.plugin"));
    EXPECT_EQ("0", call.Get("rule.triggered"));
    EXPECT_EQ("", call.Get("rule.alertGuid"));
    EXPECT_EQ("", call.Get("rule.alertFileName"));
    EXPECT_EQ("1", call.Get("rule.removeAlertFiles"));
    EXPECT_EQ("7", call.Get("rule.maxAlertFiles"));
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

TEST_F(WholeFile, NoRuleElementGives7) {
    EXPECT_EQ(RULES_PARSE_FAILED, ParseFile(RuleFile("<MaxAlertFiles>3</MaxAlertFiles><rule/><Rules/>", "")));
    EXPECT_EQ(Strings{"ParseRuleDefintions: GetNumInstancesInXml /Tolvane/Rule ret 0"}, Messages());
    ExpectEmptyTable();
    log_.Mark();
    EXPECT_EQ(RULES_PARSE_FAILED, ParseFile("<Other>" + RuleElement(kEvent, "{0}") + "</Other>"));
    EXPECT_EQ((Strings{"ReadMaxAlertFiles: default MaxAlertFiles",
                       "ParseRuleDefintions: GetNumInstancesInXml /Tolvane/Rule ret 0"}),
              Messages());
    ExpectEmptyTable();
}

TEST_F(WholeFile, EveryRuleDroppedGives7AndEachSaysWhy) {
    EXPECT_EQ(RULES_PARSE_FAILED,
              ParseFile(RuleFile("<MaxAlertFiles>3</MaxAlertFiles>" + RuleElement("Enabled=\"0\" " + kEvent, "{0}") +
                                     RuleElement("Platform=\"Tablets\" " + kEvent, "{1}") + "<Rule/>" +
                                     RuleElement(kEvent, "{3}", "<Action Type=\"Mail\"/>"),
                                 "")));
    EXPECT_EQ((Strings{"ParseRule: Rule 0 is not enabled", "ParseRule: Rule 1 does not apply (rule platform Tablets)",
                       "ParseRule: attribute Enabled not found in rule 2",
                       "ParseRuleAction: Could not find action plugin Mail for rule 3 action 0",
                       "ParseRule: ParseRuleAction failed for rule 3 action 0",
                       "ParseRuleDefintions: No rules got added (numRules 4) !"}),
              Messages());
    ExpectEmptyTable();
}

TEST_F(WholeFile, UnknownElementsAndAByteOrderMarkDoNotGetInTheWay) {
    std::string noise;
    for (int i = 0; i < 200; ++i) {
        noise += "<Noise" + std::to_string(i) + " a=\"" + std::to_string(i) + "\"><Rule>inner</Rule></Noise" +
                 std::to_string(i) + ">";
    }
    ASSERT_EQ(RULES_OK, ParseFile("\xEF\xBB\xBF" + RuleFile("<MaxAlertFiles>4</MaxAlertFiles>" + noise +
                                                                RuleElement(kEvent, "{0}", noise) + noise +
                                                                RuleElement(kEvent, "{1}") + "<!-- <Rule/> --><?pi x?>",
                                                            "")));
    EXPECT_EQ(2u, Rules().size()) << "only direct children of the root are rules";
    EXPECT_EQ(Strings{}, Messages());
}

}  // namespace
