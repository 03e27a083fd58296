// What the rule parser tests share: real rule files in a scratch folder read
// through the text helpers, the signed test plugins registered and loaded under
// the names the files use, the machine identity chosen per test, the error log
// read back and the allocation balance checked after everything is freed.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "omkPluginSdk.h"
#include "testPlugins.h"
#include "testSupport.h"

class RulesTest : public ::testing::Test {
protected:
    RulesTest();
    void SetUp() override;
    void TearDown() override;

    // Writes `utf8` as a rule file, reads it with the text helpers and parses it.
    DWORD ParseFile(const std::string& utf8);
    // The accepted rules in table order.
    std::vector<RULE*> Rules() const;
    std::vector<std::string> Messages() const { return log_.Messages(); }
    // Chooses what the machine reports: its raw chassis type and its model (null: unreadable).
    void Machine(DWORD rawChassisType, const wchar_t* model);

    omktest::ErrorLog log_;
    omktest::TempFolder folder_;
    omktest::PluginKey ruleKey_{omktest::kRulePluginKey};
    omktest::PluginKey actionKey_{omktest::kActionPluginKey};
    int allocBefore_;      // before the plugins were loaded: what teardown must come back to
    int allocLoaded_ = 0;  // with the plugins loaded: what a test's own blocks are counted from
    // Heap blocks a test leaves behind on purpose (an overwritten configuration).
    int expectedLeaks_ = 0;
};

// Rule plugins "EventRules" and "DataRules", action plugins "Notify" and
// "Collect", each loaded from its own copy of a signed test plugin.
extern const wchar_t kRulePluginA[];
extern const wchar_t kRulePluginB[];
extern const wchar_t kActionPluginA[];
extern const wchar_t kActionPluginB[];

// A rule element with every required child. `attributes` go into the start
// tag as written; `guid` is its RuleGuid; `extra` is appended inside.
std::string RuleElement(const std::string& attributes, const std::string& guid, const std::string& extra = "");
// Settings that need no message: what most files give.
extern const char kQuietSettings[];
// A whole file: the root element around `settings` and `body`.
std::string RuleFile(const std::string& body, const std::string& settings = kQuietSettings);

std::string U8(const wchar_t* text);

// Raw chassis types the machine may report: a notebook and a desktop.
constexpr DWORD kNotebookChassis = 10;
constexpr DWORD kDesktopChassis = 3;
