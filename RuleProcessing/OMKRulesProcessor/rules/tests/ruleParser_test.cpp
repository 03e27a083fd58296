// The parser's entry points on their own, its COM balance, deeply nested
// files, and the rule file read from the install folder.
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cdef.h"
#include "conventions.h"
#include "ruleParser.h"
#include "rulesTest.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kEvent = "Type=\"EventRules\"";

void OnFreshThread(const std::function<void()>& body) {
    std::thread(body).join();
}

// Whether the calling thread still holds a COM initialisation.
bool ComStillInitialised() {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(hr)) CoUninitialize();
    return hr == S_FALSE;
}

class RuleParser : public RulesTest {};

TEST_F(RuleParser, UnloadableRuleOrActionXmlIsReportedWithItsNumbers) {
    EXPECT_EQ(nullptr, ParseRule(3, nullptr));
    EXPECT_EQ(nullptr, ParseRule(3, L"<Rule Type=\"EventRules\">"));
    EXPECT_EQ(nullptr, ParseRuleAction(4, 1, nullptr));
    EXPECT_EQ(nullptr, ParseRuleAction(4, 2, L"<Action"));
    // Each failed load left the apartment it entered.
    CoUninitialize();
    CoUninitialize();
    EXPECT_EQ((Strings{"ParseRule: unable to load XML for rule 3\n<Rule Type=\"EventRules\">",
                       "ParseRuleAction: rule 4 action 1 null xml",
                       "ParseRuleAction: unable to load XML for rule 4 action 2 <Action"}),
              Messages());
}

TEST_F(RuleParser, EveryDocumentIsReleasedAndItsApartmentLeft) {
    const std::string good =
        RuleFile(RuleElement(kEvent, "{0}", "<Action Type=\"Notify\"/>") + RuleElement("Enabled=\"0\"", "{1}") +
                 RuleElement(kEvent, "{2}", "<Action Type=\"Mail\"/>"));
    std::wstring text = omktest::FromUtf8(good);
    for (const std::wstring& input : {text, std::wstring(L"<Tolvane>"), std::wstring(L"<Tolvane/>")}) {
        OnFreshThread([&input] {
            DWORD status = ParseRuleDefinitions(input.c_str());
            EXPECT_FALSE(ComStillInitialised()) << "status " << status;
        });
        FreeRuleDefinitions();
    }
}

TEST_F(RuleParser, DeepNestingIsRefusedOrIgnoredButNeverCrashes) {
    std::string deep;
    const int kDepth = 5000;
    for (int i = 0; i < kDepth; ++i) deep += "<d>";
    for (int i = 0; i < kDepth; ++i) deep += "</d>";
    DWORD status = ParseFile(RuleFile(RuleElement(kEvent, "{0}", deep) + RuleElement(kEvent, "{1}")));
    if (status == RULES_OK) {
        EXPECT_EQ(2u, Rules().size());
    } else {
        EXPECT_EQ(RULES_NOT_XML, status);
        EXPECT_EQ(Strings{"ParseRuleDefintions: LoadXML failed"}, Messages());
    }

    std::string shallow;
    for (int i = 0; i < 100; ++i) shallow += "<d>";
    shallow += "text";
    for (int i = 0; i < 100; ++i) shallow += "</d>";
    FreeRuleDefinitions();
    log_.Mark();
    ASSERT_EQ(RULES_OK, ParseFile(RuleFile(RuleElement(kEvent, "{0}", shallow))));
    EXPECT_NE(std::string::npos, U8(g_rules->xml).find("text"));
}

// The install folder is the folder of the collector service's executable, so
// the tests point its "ImagePath" at a scratch folder.
class RuleFileLoad : public RulesTest {
protected:
    void SetUp() override {
        RulesTest::SetUp();
        std::wstring collector = folder_.File(L"OMKCollectorSvcApi.exe");
        ASSERT_TRUE(omktest::WriteFileBytes(collector, "MZ"));
        collectorKey_ = std::make_unique<omktest::ScopedRegKey>(HKEY_LOCAL_MACHINE, kCollectorKey);
        ASSERT_EQ(ERROR_SUCCESS, collectorKey_->SetString(L"ImagePath", L"\"" + collector + L"\""));
        CDef::ResetForTest();
        ruleFile_ = std::wstring(CDef::GetInstance().FOLDER_OMK_INSTALL_LOCATION) + L"\\insvcAlerts.xml";
        ASSERT_EQ(_wcsicmp(folder_.File(L"insvcAlerts.xml").c_str(), ruleFile_.c_str()), 0) << U8(ruleFile_.c_str());
    }
    void TearDown() override {
        collectorKey_.reset();
        CDef::ResetForTest();
        RulesTest::TearDown();
    }
    std::string RuleFilePath() const { return omktest::ToUtf8(ruleFile_); }

    static constexpr const wchar_t* kCollectorKey = L"SYSTEM\\CurrentControlSet\\Services\\OMKCollectorSvcApi";
    std::unique_ptr<omktest::ScopedRegKey> collectorKey_;
    std::wstring ruleFile_;
};

TEST_F(RuleFileLoad, TheInstallFoldersFileIsReadParsedAndItsTextFreed) {
    ASSERT_TRUE(omktest::WriteFileBytes(ruleFile_,
                                        RuleFile("<MaxAlertFiles>9</MaxAlertFiles>" + RuleElement(kEvent, "{0}"), "")));
    EXPECT_EQ(RULES_OK, Tolvane_LoadRuleDefinitions());
    ASSERT_EQ(1u, Rules().size());
    EXPECT_EQ(9u, MaxAlertFiles);
    EXPECT_EQ(allocLoaded_ + 1 + 1 + 7, g_allocCount) << "the kept text and the rule; the read text is freed";
    EXPECT_EQ(Strings{}, Messages());
}

TEST_F(RuleFileLoad, MissingFileGives9AndAFailedParse7) {
    EXPECT_EQ(RULES_READ_FAILED, Tolvane_LoadRuleDefinitions());
    Strings messages = Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ("Tolvane_LoadRuleDefinitions: Failed to read file " + RuleFilePath(), messages.back());

    ASSERT_TRUE(omktest::WriteFileBytes(ruleFile_, "<Tolvane><Rule/></Tolvane>"));
    log_.Mark();
    EXPECT_EQ(RULES_PARSE_FAILED, Tolvane_LoadRuleDefinitions());
    EXPECT_EQ((Strings{"ReadMaxAlertFiles: default MaxAlertFiles", "ParseRule: attribute Enabled not found in rule 0",
                       "ParseRuleDefintions: No rules got added (numRules 1) !",
                       "Tolvane_LoadRuleDefinitions: ParseRuleDefinitions failed"}),
              Messages());
    EXPECT_EQ(allocLoaded_, g_allocCount);

    ASSERT_TRUE(omktest::WriteFileBytes(ruleFile_, "<Tolvane>"));
    log_.Mark();
    EXPECT_EQ(RULES_PARSE_FAILED, Tolvane_LoadRuleDefinitions()) << "not XML is a failed parse here";
    EXPECT_EQ(
        (Strings{"ParseRuleDefintions: LoadXML failed", "Tolvane_LoadRuleDefinitions: ParseRuleDefinitions failed"}),
        Messages());
}

}  // namespace
