// The shipped plugins and the SDK example loaded into this process.
#include <gtest/gtest.h>

#include "omkPluginSdk.h"
#include "pluginFile.h"
#include "testPlugins.h"

namespace {

const unsigned int kBadConfiguration = ERROR_BAD_CONFIGURATION;

std::wstring InFolder(unsigned int folder, const std::wstring& name) {
    wchar_t path[MAX_PATH];
    OmkSdk_GetFolder(folder, path, MAX_PATH);
    return std::wstring(path) + L"\\" + name;
}

class Plugins : public ::testing::Test {
protected:
    void SetUp() override {
        rules_ = LoadLibraryW((omktest::ProgramFolder() + L"\\omkCollectorRules.dll").c_str());
        actions_ = LoadLibraryW((omktest::ProgramFolder() + L"\\omkActionLog.dll").c_str());
        ASSERT_TRUE(rules_ != nullptr && actions_ != nullptr) << GetLastError();
        ruleInit_ = reinterpret_cast<PFN_Rule_Initialize>(GetProcAddress(rules_, "Rule_Initialize"));
        triggered_ = reinterpret_cast<PFN_Rule_Triggered>(GetProcAddress(rules_, "Rule_Triggered"));
        actionInit_ = reinterpret_cast<PFN_Action_Initialize>(GetProcAddress(actions_, "Action_Initialize"));
        execute_ = reinterpret_cast<PFN_Action_Execute>(GetProcAddress(actions_, "Action_Execute"));
        // The record ends where an inaccessible page begins: reading past it faults.
        page_ = static_cast<BYTE*>(VirtualAlloc(nullptr, 8192, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD old = 0;
        VirtualProtect(page_ + 4096, 4096, PAGE_NOACCESS, &old);
        BYTE* data = page_ + 4096 - 4;
        memcpy(data, "\x5A\x01\x64\x00", 4);
        item_ = WORK_ITEM{WORK_PERIODIC_DATA, nullptr, {}};
        item_.u.periodicData = {4097, 2, 133000000000000000ull, 4, data, {}};
        rule_.workItem = &item_;
        rule_.name = const_cast<wchar_t*>(L"Thermal");
        rule_.type = rule_.ruleGuid = rule_.alertMsg = const_cast<wchar_t*>(L"x");
        wcscpy(rule_.alertGuid, L"{A}");
        rule_.onPeriodicData = 1;
        wcscpy(rule_.alertFileName, L"PLUGTEST-ZORA_Alerts_1.xml");
    }
    void TearDown() override {
        DeleteFileW(InFolder(OMK_FOLDER_ALERT, rule_.alertFileName).c_str());
        VirtualFree(page_, 0, MEM_RELEASE);
        FreeLibrary(rules_);
        FreeLibrary(actions_);
    }
    unsigned int Evaluate(const std::wstring& xml) {
        rule_.xml = const_cast<wchar_t*>(xml.c_str());
        return triggered_(&rule_);
    }
    std::string Alert() const { return omktest::ReadFileBytes(InFolder(OMK_FOLDER_ALERT, rule_.alertFileName)); }

    omktest::ErrorLog log_{L"productPlugins_test.txt"};
    HMODULE rules_ = nullptr, actions_ = nullptr;
    PFN_Rule_Initialize ruleInit_ = nullptr;
    PFN_Rule_Triggered triggered_ = nullptr;
    PFN_Action_Initialize actionInit_ = nullptr;
    PFN_Action_Execute execute_ = nullptr;
    BYTE* page_ = nullptr;
    WORK_ITEM item_ = {};
    RULE rule_ = {};
};

// Every bad block is reported, the service still starts (0), and the plugin
// then refuses its work with the configuration error.
TEST_F(Plugins, BadConfigurationBlocksAreReportedAndDisableOnlyThatPlugin) {
    const struct {
        bool action;
        const wchar_t* xml;
        const char* message;
    } cases[] = {
        {false, nullptr, "Rule_Initialize: the rule file has no <RuleConfig Type=\"OMKCollectorRules\"> block"},
        {false, L"<RuleConfig Type=\"OMKCollectorRules\"/>", "<RuleConfig> has no <Source>"},
        {false, L"<RuleConfig><Source></Source></RuleConfig>", "<Source> must be a non-empty text"},
        {false, L"<RuleConfig><Source>a&amp;b</Source></RuleConfig>", "<Source> must be a non-empty text"},
        {false, L"<RuleConfig><Source>collector</RuleConfig>", "<RuleConfig> is not well-formed XML"},
        {false, L"<RuleConfig><Source>c</Source><MaxDataBytes>99999999999999999999</MaxDataBytes></RuleConfig>",
         "<MaxDataBytes> is not a number from 0 to 256"},
        {true, nullptr, "Action_Initialize: the rule file has no <ActionConfig Type=\"OMKActionLog\"> block"},
        {true, L"<ActionConfig Type=\"OMKActionLog\"/>", "<ActionConfig> has no <Log> file name"},
        {true, L"<ActionConfig><Log></Log></ActionConfig>", "<Log> \"\" is refused"},
        {true, L"<ActionConfig><Log>..\\..\\x</Log></ActionConfig>",
         "<Log> \"..\\..\\x\" is refused: give a file name for the log folder "},
        {true, L"<ActionConfig><Log>NUL</Log></ActionConfig>", "<Log> \"NUL\" is refused"},
        {true, L"<ActionConfig><Log>a.txt</Log><MaxSize>99999999999999999999</MaxSize></ActionConfig>",
         "<MaxSize> \"99999999999999999999\" is not a number of bytes from 1024 to 1073741824"},
        {true, L"<ActionConfig><Log>a.txt", "<ActionConfig> is not well-formed XML"},
    };
    for (const auto& c : cases) {
        log_.Mark();
        EXPECT_EQ(0u, c.action ? actionInit_(c.xml) : ruleInit_(c.xml));
        EXPECT_TRUE(log_.Contains(c.message)) << c.message << "\n" << log_.Since();
        EXPECT_EQ(kBadConfiguration, c.action ? execute_(&rule_, L"<Action Type=\"OMKActionLog\"/>")
                                              : Evaluate(L"<Rule><Match Code=\"4097\"/></Rule>"));
    }
}

TEST_F(Plugins, PeriodicRulesFireOnTheirRecordAndNeverReadPastIt) {
    ASSERT_EQ(0u, ruleInit_(L"<RuleConfig><Source>collector</Source><MaxDataBytes>2</MaxDataBytes></RuleConfig>"));
    const struct {
        const wchar_t* xml;
        unsigned int result;
        const char* message;
    } cases[] = {
        {L"<Match Code=\"4097\" SubCode=\"2\" Byte=\"0\" AtLeast=\"90\"/>", OMK_RULE_TRIGGERED, ""},
        {L"<Match Code=\"0x1001\" Byte=\"1\" AtMost=\"1\"/>", OMK_RULE_TRIGGERED, ""},
        {L"<Match Code=\"4097\" SubCode=\"3\"/>", OMK_RULE_NOT_TRIGGERED, ""},
        {L"<Match Code=\"4098\"/>", OMK_RULE_NOT_TRIGGERED, ""},
        {L"<Match Code=\"4097\" Byte=\"0\" AtLeast=\"91\"/>", OMK_RULE_NOT_TRIGGERED, ""},
        {L"<Match Code=\"4097\" Byte=\"4\" AtLeast=\"0\"/>", OMK_RULE_NOT_TRIGGERED, ""},
        {L"<Match Code=\"0x\"/>", kBadConfiguration, "rule Thermal: <Match Code=\"0x\"> is not a number"},
        {L"<Match Code=\"-1\"/>", kBadConfiguration, "<Match Code=\"-1\"> is not a number from 0 to 4294967295"},
        {L"<Match SubCode=\"2\"/>", kBadConfiguration, "rule Thermal: <Match> has no Code"},
        {L"<Match Code=\"1\" Byte=\"0\"/>", kBadConfiguration, "needs Byte together with AtLeast or AtMost"},
        {L"<Match Code=\"1\" Byte=\"0\" AtLeast=\"256\"/>", kBadConfiguration, "<Match AtLeast=\"256\">"},
        {L"", kBadConfiguration, "rule Thermal has no <Match Code=\"...\"/> for periodic data"},
    };
    for (const auto& c : cases) {
        log_.Mark();
        EXPECT_EQ(c.result, Evaluate(std::wstring(L"<Rule>") + c.xml + L"</Rule>")) << omktest::ToUtf8(c.xml);
        EXPECT_TRUE(log_.Contains(c.message)) << c.message << "\n" << log_.Since();
    }
    // A rule with a wrong <Match> is reported once, not at every record.
    log_.Mark();
    EXPECT_EQ(kBadConfiguration, Evaluate(L"<Rule><Match Code=\"0x\"/></Rule>"));
    EXPECT_EQ("", log_.Since());

    std::string alert = Alert();
    EXPECT_NE(std::string::npos, alert.find("\t\t<PeriodicData>\r\n\t\t<Source>collector</Source>\r\n"
                                            "\t\t<Code>4097</Code>\r\n\t\t<SubCode>2</SubCode>\r\n"
                                            "\t\t<TimeStamp>133000000000000000</TimeStamp>\r\n\t\t<Byte0>90</Byte0>\r\n"
                                            "\t\t<Length>4</Length>\r\n\t\t<Data>5A 01</Data>\r\n"
                                            "\t\t</PeriodicData>\r\n"))
        << alert;
    EXPECT_NE(std::string::npos, alert.find("<Byte1>1</Byte1>")) << alert;

    item_.kind = WORK_SUMMARY_CREATED;
    rule_.onPeriodicData = 0;
    rule_.onSummary = 1;
    EXPECT_EQ(OMK_RULE_TRIGGERED, Evaluate(L"<Rule/>"));
    EXPECT_NE(std::string::npos, Alert().find("\t\t<Summary>\r\n\t\t<Source>collector</Source>\r\n\t\t</Summary>"));
}

// The log is a file of the log folder; at <MaxSize> it becomes "<name>.bak".
TEST_F(Plugins, ActionLogAppendsRotatesAtItsSizeAndFailsWithTheReason) {
    const std::wstring path = InFolder(OMK_FOLDER_LOG, L"productPlugins.txt");
    const std::string old(1024, '#');
    ASSERT_TRUE(omktest::WriteFileBytes(path, old));
    ASSERT_EQ(0u, actionInit_(L"<ActionConfig><Log>productPlugins.txt</Log><MaxSize>1024</MaxSize></ActionConfig>"));
    EXPECT_EQ(0u, execute_(&rule_, L"<Action Type=\"OMKActionLog\" Severity=\"Information\"/>"));
    EXPECT_EQ(old, omktest::ReadFileBytes(path + L".bak"));
    const std::string line = omktest::ReadFileBytes(path);
    EXPECT_EQ(19u, line.find("Z Information rule=\"Thermal\" ruleGuid=x alertId={A} "
                             "alertFile=PLUGTEST-ZORA_Alerts_1.xml\r\n"))
        << line;
    DeleteFileW(path.c_str());
    DeleteFileW((path + L".bak").c_str());

    // A folder in the way of the log.
    const std::wstring folder = InFolder(OMK_FOLDER_LOG, L"productPluginsDir");
    CreateDirectoryW(folder.c_str(), nullptr);
    ASSERT_EQ(0u, actionInit_(L"<ActionConfig><Log>productPluginsDir</Log></ActionConfig>"));
    EXPECT_EQ(static_cast<unsigned int>(ERROR_ACCESS_DENIED), execute_(&rule_, L"<Action Type=\"OMKActionLog\"/>"));
    EXPECT_TRUE(log_.Contains("omkActionLog!Action_Execute: cannot append to ")) << log_.Since();
    EXPECT_EQ(static_cast<unsigned int>(ERROR_INVALID_PARAMETER), execute_(nullptr, nullptr));
    RemoveDirectoryW(folder.c_str());
}

// The SDK example, a project of its own built with find_package and signed as
// plugins must be, raises its alert for a record of its configured code.
TEST_F(Plugins, SdkExampleIsSignedAndRaisesItsAlertForItsCode) {
    const std::wstring dll = omktest::ProgramFolder() + L"\\omkSdkExample.dll";
    ASSERT_TRUE(omktest::InstallTestRoot());
    EXPECT_TRUE(IsFileSignatureValid(dll.c_str()));
    HMODULE example = LoadLibraryW(dll.c_str());
    ASSERT_NE(nullptr, example) << GetLastError();
    auto init = reinterpret_cast<PFN_Rule_Initialize>(GetProcAddress(example, "Rule_Initialize"));
    auto triggered = reinterpret_cast<PFN_Rule_Triggered>(GetProcAddress(example, "Rule_Triggered"));
    ASSERT_EQ(0u, init(L"<RuleConfig Type=\"OmkSdkExample\"><Code>0x2A</Code></RuleConfig>"));
    EXPECT_EQ(OMK_RULE_NOT_TRIGGERED, triggered(&rule_)) << "code 4097";
    item_.u.periodicData.code = 42;
    item_.u.periodicData.subCode = 7;
    item_.u.periodicData.dataLen = 3;
    EXPECT_EQ(OMK_RULE_TRIGGERED, triggered(&rule_));
    EXPECT_NE(std::string::npos, Alert().find("<ExampleRecord>\r\n\t\t<Code>42</Code>\r\n\t\t<SubCode>7</SubCode>"
                                              "\r\n\t\t<Length>3</Length>\r\n\t\t</ExampleRecord>"))
        << Alert();
    FreeLibrary(example);
}

}  // namespace
