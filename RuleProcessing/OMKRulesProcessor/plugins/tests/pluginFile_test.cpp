// Signature and version checks on real files, and the test root they rely on.
#include "pluginFile.h"
#include "pluginTests.h"

namespace {

using omktest::BuiltFile;

class PluginFileChecks : public PluginTest {};

TEST_F(PluginFileChecks, OnlyAnIntactSignatureIsValid) {
    EXPECT_TRUE(IsFileSignatureValid(BuiltFile(omktest::kTestRulePlugin).c_str()));
    EXPECT_TRUE(IsFileSignatureValid(BuiltFile(omktest::kTestActionPluginNoEndEval).c_str()));
    EXPECT_TRUE(IsFileSignatureValid(Copy(omktest::kTestRulePlugin, L"renamed.dll").c_str()));
    EXPECT_FALSE(IsFileSignatureValid(BuiltFile(omktest::kTestRulePluginUnsigned).c_str()));
    EXPECT_FALSE(IsFileSignatureValid(BuiltFile(omktest::kTestRulePluginTampered).c_str()));
    EXPECT_FALSE(IsFileSignatureValid(BuiltFile(omktest::kTestActionPluginTampered).c_str()));
    EXPECT_FALSE(IsFileSignatureValid(Scratch(L"missing.dll").c_str()));
    EXPECT_FALSE(IsFileSignatureValid(nullptr));

    // Text that is not a program at all.
    std::wstring text = Scratch(L"text.dll");
    ASSERT_TRUE(omktest::WriteFileBytes(text, "not a program"));
    EXPECT_FALSE(IsFileSignatureValid(text.c_str()));
}

TEST_F(PluginFileChecks, VersionIsSplitIntoItsFourWords) {
    WORD major = 0, minor = 0, build = 0, revision = 0;
    ASSERT_TRUE(GetFileVersionNumbers(BuiltFile(omktest::kTestRulePlugin).c_str(), &major, &minor, &build, &revision));
    EXPECT_EQ(7, major);
    EXPECT_EQ(12, minor);
    EXPECT_EQ(345, build);
    EXPECT_EQ(6789, revision);
    ASSERT_TRUE(
        GetFileVersionNumbers(BuiltFile(omktest::kTestActionPlugin).c_str(), &major, &minor, &build, &revision));
    EXPECT_EQ(2, major);
    EXPECT_EQ(0, minor);
    EXPECT_EQ(65535, build);
    EXPECT_EQ(1, revision);
}

TEST_F(PluginFileChecks, UnreadableVersionGivesFalseAndZeros) {
    WORD major = 9, minor = 9, build = 9, revision = 9;
    EXPECT_FALSE(
        GetFileVersionNumbers(BuiltFile(omktest::kTestRulePluginNoVersion).c_str(), &major, &minor, &build, &revision));
    EXPECT_EQ(0, major + minor + build + revision);

    major = minor = build = revision = 9;
    EXPECT_FALSE(GetFileVersionNumbers(Scratch(L"missing.dll").c_str(), &major, &minor, &build, &revision));
    EXPECT_EQ(0, major + minor + build + revision);

    EXPECT_FALSE(
        GetFileVersionNumbers(BuiltFile(omktest::kTestRulePlugin).c_str(), &major, &minor, nullptr, &revision));
    EXPECT_FALSE(GetFileVersionNumbers(nullptr, &major, &minor, &build, &revision));
}

TEST_F(PluginFileChecks, TestRootIsTrustedByTheMachine) {
    EXPECT_TRUE(omktest::IsTestRootInstalled());
    EXPECT_EQ(0u, omktest::RunProcess(L"\"" + BuiltFile(L"omkInstallTestRoot.exe") + L"\""));
    EXPECT_EQ(1u, omktest::RunProcess(L"\"" + BuiltFile(L"omkInstallTestRoot.exe") + L"\" \"" +
                                      Scratch(L"missing.cer") + L"\""));
}

}  // namespace
