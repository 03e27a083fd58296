#include "rulesTest.h"

#include <stdlib.h>

#include "actionPlugin.h"
#include "conventions.h"
#include "ruleParser.h"
#include "rulePlugin.h"
#include "systemIdentity.h"
#include "textFileHelpers.h"

const wchar_t kRulePluginA[] = L"EventRules";
const wchar_t kRulePluginB[] = L"DataRules";
const wchar_t kActionPluginA[] = L"Notify";
const wchar_t kActionPluginB[] = L"Collect";

namespace {

// Signed plugins verify as on a Windows test machine only with the test root trusted.
class TestRootEnvironment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_TRUE(omktest::InstallTestRoot()) << "test root not installed"; }
};

[[maybe_unused]] ::testing::Environment* const g_rootEnvironment =
    ::testing::AddGlobalTestEnvironment(new TestRootEnvironment);

}  // namespace

RulesTest::RulesTest() : log_(L"OmkRules_test.log"), allocBefore_(g_allocCount) {}

void RulesTest::SetUp() {
    struct Registration {
        omktest::PluginKey& key;
        const wchar_t* name;
        const wchar_t* built;
        const wchar_t* copy;
    };
    const Registration registrations[] = {
        {ruleKey_, kRulePluginA, omktest::kTestRulePlugin, L"ruleA.dll"},
        {ruleKey_, kRulePluginB, omktest::kTestRulePlugin, L"ruleB.dll"},
        {actionKey_, kActionPluginA, omktest::kTestActionPlugin, L"actA.dll"},
        {actionKey_, kActionPluginB, omktest::kTestActionPlugin, L"actB.dll"},
    };
    for (const Registration& r : registrations) {
        std::wstring copy = folder_.File(r.copy);
        ASSERT_TRUE(CopyFileW(omktest::BuiltFile(r.built).c_str(), copy.c_str(), FALSE));
        ASSERT_EQ(ERROR_SUCCESS, r.key.Add(r.name, copy));
    }
    ASSERT_EQ(0u, LoadRulePlugins());
    ASSERT_EQ(0u, LoadActionPlugins());
    ASSERT_EQ(2u, g_numRulePlugins);
    ASSERT_EQ(2u, g_numActionPlugins);
    Machine(kDesktopChassis, L"Wine");
    allocLoaded_ = g_allocCount;
    log_.Mark();
}

void RulesTest::TearDown() {
    ClearMachineIdentityForTest();
    FreeRuleDefinitions();
    UnloadActionPlugins();
    UnloadRulePlugins();
    EXPECT_EQ(allocBefore_ + expectedLeaks_, g_allocCount) << "live allocations must come back";
    g_allocCount = allocBefore_;
}

DWORD RulesTest::ParseFile(const std::string& utf8) {
    std::wstring path = folder_.File(L"insvcAlerts.xml");
    EXPECT_TRUE(omktest::WriteFileBytes(path, utf8));
    wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(path.c_str());
    EXPECT_NE(nullptr, text);
    if (text == nullptr) return 0xFFFFFFFF;
    DWORD status = ParseRuleDefinitions(text);
    free(text);
    --g_allocCount;
    return status;
}

std::vector<RULE*> RulesTest::Rules() const {
    std::vector<RULE*> rules;
    for (RULE* rule = g_rules; rule != nullptr; rule = rule->next) rules.push_back(rule);
    return rules;
}

void RulesTest::Machine(DWORD rawChassisType, const wchar_t* model) {
    SetChassisTypeForTest(rawChassisType);
    SetModelForTest(model);
}

std::string RuleElement(const std::string& attributes, const std::string& guid, const std::string& extra) {
    return "<Rule " + attributes + "><Name>name of " + guid + "</Name><Descr>what " + guid + " does</Descr><RuleGuid>" +
           guid + "</RuleGuid><AlertMsg>alert of " + guid + "</AlertMsg>" + extra + "</Rule>";
}

const char kQuietSettings[] = "<MaxAlertFiles>30</MaxAlertFiles>";

std::string RuleFile(const std::string& body, const std::string& settings) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Tolvane>\n" + settings + "\n" + body + "\n</Tolvane>\n";
}

std::string U8(const wchar_t* text) {
    return text == nullptr ? "<null>" : omktest::ToUtf8(text);
}
