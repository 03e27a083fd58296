// omk-rules.exe run as a rule author runs it.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include <nlohmann/json.hpp>

#include "actionPlugin.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "systemIdentity.h"
#include "testPlugins.h"

namespace {

using nlohmann::json;
using omktest::BuiltFile;
using omktest::ToUtf8;

struct ToolRun {
    DWORD exit = 0xDEAD;
    std::string out;
    std::string err;
    json doc;
};

class OmkRulesTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(omktest::InstallTestRoot()); }

    // Runs omk-rules.exe with `args`.
    static ToolRun Tool(const std::wstring& args) {
        omktest::Child child(L"\"" + BuiltFile(L"omk-rules.exe") + L"\" " + args);
        const DWORD exit = child.Wait();
        return {exit, child.Out(), child.Err(), json::parse(child.Out(), nullptr, false)};
    }

    // A data file of this test (copied beside the programs by the build).
    static std::wstring Data(const wchar_t* name) { return BuiltFile(L"omkRulesData\\") + name; }
    // A copy of a test plugin under a name of its own, whose behaviour is then chosen by that name.
    std::wstring Plugin(const wchar_t* built, const wchar_t* name) {
        CopyFileW(BuiltFile(built).c_str(), temp_.File(name).c_str(), FALSE);
        return temp_.File(name);
    }
    std::wstring Write(const wchar_t* name, const std::string& text) {
        omktest::WriteFileBytes(temp_.File(name), text);
        return temp_.File(name);
    }

    omktest::TempFolder temp_;
};

// The rule numbers a message names ("rule 3", "Rule 3"), so that each reason
// can be held to the rule it is reported for.
std::set<int> RulesNamed(const std::string& message) {
    static const std::regex number(R"([Rr]ule (\d+))");
    std::set<int> rules;
    for (std::sregex_iterator it(message.begin(), message.end(), number), end; it != end; ++it) {
        rules.insert(std::stoi((*it)[1]));
    }
    return rules;
}

// Every drop reason of the parser, every platform keyword, three machines.
TEST_F(OmkRulesTest, CheckReportsEachRuleAsTheServicesParserLogsIt) {
    struct Machine {
        const wchar_t* chassis;
        DWORD rawChassis;
        const wchar_t* model;
        std::set<int> accepted;
    };
    const Machine machines[] = {
        {L"laptop", 10, L"Harbor 500", {0, 5, 7, 8, 19, 32}},
        {L"desktop", 3, L"Other", {0, 6, 19, 32}},
        // Keywords in any case, a series in its own case, a model in any; an unknown chassis is a desktop.
        {L"unknown", 0, L"harbor 500", {0, 6, 8, 19, 22, 32}},
    };
    omktest::PluginKey rulePlugins(omktest::kRulePluginKey), actionPlugins(omktest::kActionPluginKey);
    rulePlugins.Add(L"ruleA", BuiltFile(omktest::kTestRulePlugin));
    actionPlugins.Add(L"actA", BuiltFile(omktest::kTestActionPlugin));
    const std::string text = omktest::ReadFileBytes(Data(L"checkRules.xml"));

    for (const Machine& machine : machines) {
        SCOPED_TRACE(ToUtf8(machine.model));
        // The service's parser, in this process, on the same file and machine.
        SetModelForTest(machine.model);
        SetChassisTypeForTest(machine.rawChassis);
        omktest::ErrorLog log(L"omkRules_test.log");
        ASSERT_EQ(0u, LoadRulePlugins());
        ASSERT_EQ(0u, LoadActionPlugins());
        ASSERT_EQ(0u, ParseRuleDefinitions(omktest::FromUtf8(text).c_str()));
        const std::vector<std::string> logged = log.Messages();
        EXPECT_EQ(machine.accepted.size(), g_numRules);
        FreeRuleDefinitions();
        UnloadActionPlugins();
        UnloadRulePlugins();
        ClearMachineIdentityForTest();

        ToolRun run = Tool(L"check --json --rules \"" + Data(L"checkRules.xml") + L"\" --chassis " + machine.chassis +
                       L" --model \"" + machine.model + L"\"");
        ASSERT_EQ(0u, run.exit) << run.out << run.err;
        ASSERT_EQ(33u, run.doc["rules"].size());
        // The reasons, rule by rule, are what the parser logged, in its order, but for the file's own lines.
        std::vector<std::string> reasons, ruleMessages;
        for (const json& rule : run.doc["rules"]) {
            const int index = rule["index"].get<int>();
            EXPECT_EQ(machine.accepted.count(index) == 1, rule["accepted"].get<bool>()) << index;
            EXPECT_EQ(rule["accepted"].get<bool>(), !rule["reason"].is_string()) << index;
            EXPECT_TRUE(!rule["name"].is_string() || rule["name"] == "R" + std::to_string(index)) << index;
            std::string said = rule.contains("log") ? rule["log"] : rule["reason"].is_string() ? rule["reason"] : json("");
            for (size_t start = 0, end = 0; !said.empty() && end != std::string::npos; start = end + 2) {
                end = said.find("; ", start);
                reasons.push_back(said.substr(start, end - start));
                const std::set<int> named = RulesNamed(reasons.back());
                EXPECT_TRUE(named.empty() || named == std::set<int>{index}) << reasons.back();
            }
        }
        const json fileLines = json::array({"LoadActionPluginConfig: Did not load plugin NoSuchAction"});
        for (const std::string& message : logged) {
            if (std::find(fileLines.begin(), fileLines.end(), message) == fileLines.end()) ruleMessages.push_back(message);
        }
        EXPECT_EQ(ruleMessages, reasons);
        EXPECT_EQ(fileLines, run.doc["log"]);
        EXPECT_EQ(12u, run.doc["settings"]["MaxAlertFiles"].get<unsigned>());
        EXPECT_FALSE(run.doc["settings"]["alertFilesKept"].get<bool>());
        EXPECT_TRUE(run.doc["configBlocks"][1]["plugin"].is_null());
        EXPECT_EQ("7.12.345.6789", run.doc["plugins"][0]["version"]);
    }
}

// Each start status check can come to, from the rule file or the plugins.
TEST_F(OmkRulesTest, CheckTellsWhetherTheServiceWouldStart) {
    const std::string sample = omktest::ReadFileBytes(BuiltFile(L"insvcAlerts.xml"));
    std::string utf16 = "\xFF\xFE";
    for (char c : sample) utf16 += std::string(1, c) + '\0';
    // A rule file of 4 GiB, sparse: the service refuses to read it.
    HANDLE huge = CreateFileW(temp_.File(L"huge.xml").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    LARGE_INTEGER size;
    size.QuadPart = 4LL << 30;
    SetFilePointerEx(huge, size, nullptr, FILE_BEGIN);
    SetEndOfFile(huge);
    CloseHandle(huge);
    const std::wstring declared = L" --rule-plugin OMKCollectorRules --action-plugin OMKActionLog";
    // Without plugins named, the registry's: a good pair, then changed by a case.
    omktest::PluginKey rulePlugins(omktest::kRulePluginKey), actionPlugins(omktest::kActionPluginKey);
    actionPlugins.Add(L"OMKActionLog", BuiltFile(omktest::kTestActionPlugin));
    const std::wstring unsignedPlugin = Plugin(L"omkTestRulePlugin-unsigned.dll", L"u.dll");
    const struct {
        const char* name;
        std::wstring rules, plugins;
        const wchar_t* ruleDll;  // registered for a case naming no plugins; null there: no action key
        unsigned status;
        DWORD exit;
        const char* said;  // in the log or a note
    } cases[] = {
        {"sample", BuiltFile(L"insvcAlerts.xml"), declared, nullptr, 0, 0, ""},
        {"not XML", Write(L"a.xml", "rules: none"), declared, nullptr, 7, 1, "ParseRuleDefintions: LoadXML failed"},
        {"UTF-16", Write(L"b.xml", utf16), declared, nullptr, 7, 1, "the file is UTF-16"},
        {"no rule", Write(L"c.xml", "<Tolvane/>"), declared, nullptr, 7, 1, "GetNumInstancesInXml /Tolvane/Rule ret 0"},
        {"none added", Write(L"d.xml", "<Tolvane><Rule Enabled=\"0\"/></Tolvane>"), declared, nullptr, 7, 1,
         "No rules got added (numRules 1)"},
        {"missing", temp_.File(L"missing.xml"), declared, nullptr, 9, 2, "Failed to read file"},
        {"huge", temp_.File(L"huge.xml"), declared, nullptr, 9, 2, "too big 0x1 0x0"},
        {"unsigned plugin", BuiltFile(L"insvcAlerts.xml"), L"", unsignedPlugin.c_str(), 1, 1, "digital signature failed"},
        {"no action plugin key", BuiltFile(L"insvcAlerts.xml"), L"", nullptr, 5, 1, "LoadActionPlugins: no root key"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.ruleDll != nullptr) rulePlugins.Add(L"OMKCollectorRules", c.ruleDll);
        if (c.plugins.empty() && c.ruleDll == nullptr) {
            rulePlugins.Add(L"OMKCollectorRules", BuiltFile(omktest::kTestRulePlugin));
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, omktest::kActionPluginKey);
        }
        ToolRun run = Tool(L"check --json --chassis desktop --rules \"" + c.rules + L"\"" + c.plugins);
        EXPECT_EQ(c.exit, run.exit) << run.out << run.err;
        EXPECT_EQ(c.status, run.doc["status"].get<unsigned>());
        EXPECT_EQ(c.status == 0, run.doc["wouldStart"].get<bool>());
        EXPECT_NE(std::string::npos, run.out.find(c.said)) << run.out;
    }
    ToolRun text = Tool(L"check --chassis desktop --rules \"" + Write(L"d.xml", "<Tolvane><Rule Enabled=\"0\"/></Tolvane>") +
                    L"\"" + declared);
    EXPECT_NE(std::string::npos, text.out.find("rule 0: dropped, (none), (none): ParseRule: Rule 0 is not enabled\r\n"));
    EXPECT_NE(std::string::npos, text.out.find("would start: no, G_STATUS 7:")) << text.out;
}

// The README's golden test of the sample rule file; the alert event stays in the replay.
TEST_F(OmkRulesTest, ReplayOfTheSampleMatchesItsGoldenFile) {
    HANDLE machineWide = CreateEventW(nullptr, FALSE, FALSE, L"Global\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}");
    const std::wstring sample = L"\" --events \"" + Data(L"insvcAlerts.events.jsonl") +
                                L"\" --clock 2024-03-03T14:05:09Z --chassis desktop --rule-plugin OMKCollectorRules=\"" +
                                BuiltFile(L"omkCollectorRules.dll") + L"\" --action-plugin OMKActionLog=\"" +
                                BuiltFile(L"omkActionLog.dll") + L"\" --expect \"" + Data(L"insvcAlerts.golden.json") + L"\"";
    ToolRun run = Tool(L"replay --json --rules \"" + BuiltFile(L"insvcAlerts.xml") + sample + L" --out \"" +
                       temp_.File(L"out") + L"\"");
    EXPECT_EQ(0u, run.exit) << run.err;
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(machineWide, 0));
    CloseHandle(machineWide);
    const json& first = run.doc["results"][0];
    EXPECT_TRUE(first["signalled"].get<bool>());
    // The alert the engine writes carries the virtual clock, a second after the file's name.
    EXPECT_NE(std::string::npos, first["alert"].get<std::string>().find("<DateTime>2024-03-03T14:05:10+00:00<"));
    EXPECT_TRUE(omktest::FileExists(temp_.File(L"out\\Varn\\Orlemark\\Data\\omkAlerts.db")));
    EXPECT_TRUE(omktest::FileExists(temp_.File(L"out\\Varn\\Orlemark\\Archive\\") +
                                    omktest::FromUtf8(first["alertFile"].get<std::string>())));
    // A changed rule file is a difference.
    std::string changedRules = omktest::ReadFileBytes(BuiltFile(L"insvcAlerts.xml"));
    changedRules.replace(changedRules.find("plan a battery replacement"), 4, "book");
    ToolRun changed = Tool(L"replay --rules \"" + Write(L"changed.xml", changedRules) + sample);
    EXPECT_EQ(1u, changed.exit);
    EXPECT_NE(std::string::npos, changed.err.find("results[0].alert: expected")) << changed.err;
}

// A bad line, a faulting and a hanging plugin: reported, and the replay goes on.
TEST_F(OmkRulesTest, ReplayReportsBadInputAndGoesOn) {
    omktest::TestPluginBehaviour crashing(L"ruleA.dll"), hanging(L"ruleB.dll");
    crashing.Set(L"TriggeredRaise", 0xC0000005);
    hanging.Set(L"TriggeredDelayMs", 600000);
    const std::wstring rules = Write(L"rules.xml", R"(<Tolvane>
      <Rule OnSummary="1" Type="ruleA"><Name>S</Name><Descr>d</Descr><RuleGuid>{S}</RuleGuid><AlertMsg>m</AlertMsg></Rule>
      <Rule OnPeriodicData="1" Type="ruleB"><Name>P</Name><Descr>d</Descr><RuleGuid>{P}</RuleGuid><AlertMsg>m</AlertMsg></Rule>
      <Rule Type="ruleA"><Name>C</Name><Descr>d</Descr><RuleGuid>{C}</RuleGuid><AlertMsg>m</AlertMsg></Rule></Tolvane>)");
    const std::wstring events = Write(L"events.jsonl",
                                      "{\"kind\":\"rule\",\"plugin\":\"ruleA\",\"guid\":\"{c}\"}\n"
                                      "not json\n"
                                      "{\"kind\":\"summary\"}\n\n"
                                      "{\"kind\":\"periodic\",\"code\":1,\"subcode\":2,\"hex\":\"0g\"}\n"
                                      "{\"kind\":\"periodic\",\"code\":1,\"subcode\":2}\n"
                                      "{\"kind\":\"rule\",\"plugin\":\"ruleA\",\"guid\":\"{C}\",\"items\":[[\"a\",\"1\"]]}\n");
    const std::wstring plugins = L" --rule-plugin ruleA=\"" + Plugin(omktest::kTestRulePlugin, L"ruleA.dll") +
                                 L"\" --rule-plugin ruleB=\"" + Plugin(omktest::kTestRulePlugin, L"ruleB.dll") +
                                 L"\" --action-plugin actA=\"" + BuiltFile(omktest::kTestActionPlugin) + L"\"";
    ToolRun run = Tool(L"replay --json --timeout 2 --rules \"" + rules + L"\" --events \"" + events + L"\"" + plugins);
    EXPECT_EQ(1u, run.exit) << run.err;
    const json& results = run.doc["results"];
    ASSERT_EQ(6u, results.size()) << run.out;
    EXPECT_TRUE(results[0]["stored"].get<bool>());
    EXPECT_EQ(json({{"line", 2}, {"error", "not a JSON value"}}), results[1]);
    EXPECT_EQ("exception 0xC0000005 in Rule_Triggered of ruleA for rule 0 \"S\"", results[2]["fault"]);
    EXPECT_EQ(json({{"line", 5}, {"error", "\"hex\" must be pairs of hex digits"}}), results[3]);
    EXPECT_EQ("no answer within 2 s from Rule_Triggered of ruleB for rule 1 \"P\"", results[4]["timeout"]);
    EXPECT_TRUE(results[4]["restarted"].get<bool>());
    EXPECT_TRUE(results[5]["stored"].get<bool>());
    EXPECT_EQ(json({{"replayed", 2}, {"stored", 2}, {"badLines", 2}, {"faults", 1}, {"timeouts", 1}}),
              run.doc["summary"]);

    ToolRun strict = Tool(L"replay --strict --rules \"" + rules + L"\" --events \"" + events + L"\"" + plugins);
    EXPECT_EQ(2u, strict.exit);
    EXPECT_NE(std::string::npos, strict.err.find(":2: not a JSON value")) << strict.err;

    // An unsigned plugin is not loaded, and the engine does not start without one.
    ToolRun unsigned_ = Tool(L"replay --json --rules \"" + rules + L"\" --events \"" + events + L"\" --rule-plugin ruleA=\"" +
                         Plugin(L"omkTestRulePlugin-unsigned.dll", L"u.dll") + L"\"");
    EXPECT_EQ(1u, unsigned_.exit);
    EXPECT_EQ(1u, unsigned_.doc["start"]["status"].get<unsigned>());
    EXPECT_NE(std::string::npos, unsigned_.out.find("LoadRulePlugin: Verify ")) << unsigned_.out;
    EXPECT_EQ("the engine is not running", unsigned_.doc["results"][0]["skipped"]);

    // A plugin's initialiser code is the start status.
    ToolRun refused = Tool(L"replay --json --rules \"" +
                       Write(L"init.xml", R"(<Tolvane><RuleConfig Type="ruleA" TestInitializeResult="32"/>
      <Rule Type="ruleA"><Name>C</Name><Descr>d</Descr><RuleGuid>{C}</RuleGuid><AlertMsg>m</AlertMsg></Rule></Tolvane>)") +
                       L"\" --events \"" + events + L"\"" + plugins);
    EXPECT_EQ(32u, refused.doc["start"]["status"].get<unsigned>()) << refused.out;
}

}  // namespace
