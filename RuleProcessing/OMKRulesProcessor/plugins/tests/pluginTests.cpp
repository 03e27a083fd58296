#include "pluginTests.h"

#include "actionPlugin.h"
#include "conventions.h"
#include "rulePlugin.h"

namespace {

// The signed test plugins must verify as on a Windows test machine, where the
// test root has to be trusted.
class TestRootEnvironment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_TRUE(omktest::InstallTestRoot()) << "test root not installed"; }
};

[[maybe_unused]] ::testing::Environment* const g_rootEnvironment =
    ::testing::AddGlobalTestEnvironment(new TestRootEnvironment);

}  // namespace

PluginTest::PluginTest() : log_(L"OmkPlugins_test.log"), allocBefore_(g_allocCount) {}

void PluginTest::TearDown() {
    // Action plugins go first, as at the service's teardown.
    UnloadActionPlugins();
    UnloadRulePlugins();
    EXPECT_EQ(allocBefore_, g_allocCount) << "live allocations must come back";
}

std::wstring PluginTest::Copy(const wchar_t* builtName, const std::wstring& asName) {
    std::wstring target = folder_.File(asName);
    EXPECT_TRUE(CopyFileW(omktest::BuiltFile(builtName).c_str(), target.c_str(), FALSE)) << U8(target);
    return target;
}

std::string U8(const std::wstring& text) {
    return omktest::ToUtf8(text);
}

bool IsLoaded(const std::wstring& path) {
    return GetModuleHandleW(path.c_str()) != nullptr;
}
