// omkTolvaneReg run as the installer runs it, on the service's executable; the
// interface keys are proven by use in the COM server's and the service's tests.
#include <gtest/gtest.h>

#include <stdio.h>

#include "testSupport.h"

namespace {

const std::wstring kClassKey = L"Software\\Classes\\CLSID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}";
const std::wstring kAppIdKey = L"Software\\Classes\\AppID\\{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}";
const std::wstring kTypeLibKey = L"Software\\Classes\\TypeLib\\{6E2B90D4-1A7C-4E35-B8F2-3C9D05A7E1B6}";
const std::wstring kInterfaceKey = L"Software\\Classes\\Interface\\{9A47C1E2-3B58-4D6F-A0C4-E51F2D8B7C93}";
const std::wstring kHost = omktest::ProgramFolder() + L"\\OMKRulesProcessor.exe";

using omktest::RegKeyExists;
using omktest::RegString;

DWORD Reg(const std::wstring& arguments) {
    return omktest::RunProcess(L"\"" + omktest::ProgramFolder() + L"\\omkTolvaneReg.exe\" " + arguments);
}

class OmkTolvaneReg : public ::testing::Test {
protected:
    void TearDown() override { Reg(L"/unregister"); }
};

// The class is marshalled through the type library, which is registered both
// for its language and for LCID 0, the copy Wine's marshaller looks for.
TEST_F(OmkTolvaneReg, EachRegistrationReplacesTheOtherAndUnregisterRemovesEveryKey) {
    ASSERT_EQ(0u, Reg(L"/regserver \"" + kHost + L"\""));
    EXPECT_EQ(kHost, RegString(kTypeLibKey + L"\\1.0\\409\\win64"));
    EXPECT_EQ(kHost, RegString(kTypeLibKey + L"\\1.0\\0\\win64"));
    EXPECT_EQ(L"\"" + kHost + L"\"", RegString(kClassKey + L"\\LocalServer32"));
    EXPECT_EQ(L"<absent>", RegString(kClassKey, L"AppID"));

    ASSERT_EQ(0u, Reg(L"/regservice \"" + kHost + L"\""));
    EXPECT_EQ(L"{C15D8E37-7F24-4A9B-9E61-08B3F4A2D5C7}", RegString(kClassKey, L"AppID"));
    EXPECT_EQ(L"OMKRulesProcessor", RegString(kAppIdKey, L"LocalService"));
    EXPECT_FALSE(RegKeyExists(kClassKey + L"\\LocalServer32"));
    ASSERT_EQ(0u, Reg(L"/regservice \"" + kHost + L"\" OtherService"));
    EXPECT_EQ(L"OtherService", RegString(kAppIdKey, L"LocalService"));
    ASSERT_EQ(0u, Reg(L"/regserver \"" + kHost + L"\""));
    EXPECT_EQ(L"<absent>", RegString(kClassKey, L"AppID"));
    EXPECT_FALSE(RegKeyExists(kAppIdKey));

    EXPECT_EQ(0u, Reg(L"/unregister"));
    for (const std::wstring& key : {kClassKey, kAppIdKey, kTypeLibKey, kInterfaceKey}) {
        EXPECT_FALSE(RegKeyExists(key)) << omktest::ToUtf8(key);
    }
    EXPECT_EQ(0u, Reg(L"/unregister"));
}

TEST_F(OmkTolvaneReg, BadCommandLinesAreRefusedAndWriteNothing) {
    omktest::ErrorLog log(L"omkTolvaneReg.txt");
    const std::wstring tool = omktest::ProgramFolder() + L"\\omkTolvaneReg.exe";  // has no type library
    const struct {
        std::wstring arguments;
        DWORD code;  // 0: any failure
        std::string message;
    } cases[] = {
        {L"", 87, "omkTolvaneReg: wrong command line"},
        {L"/regserver", 87, "omkTolvaneReg: wrong command line"},
        {L"/register \"" + kHost + L"\"", 87, "omkTolvaneReg: wrong command line"},
        {L"/regservice \"" + kHost + L"\" \"\"", 87, "omkTolvaneReg: wrong command line"},
        {L"/regserver C:\\nowhere\\missing.exe", 0x80070002,
         "omkTolvaneReg: finding C:\\nowhere\\missing.exe failed 0x80070002"},
        {L"/regserver \"" + tool + L"\"", 0,
         "omkTolvaneReg: registering the type library of " + omktest::ToUtf8(tool) + " failed 0x"},
    };
    for (const auto& c : cases) {
        log.Mark();
        DWORD code = Reg(c.arguments);
        EXPECT_EQ(c.code != 0 ? c.code : code, code) << omktest::ToUtf8(c.arguments);
        char hex[16];
        snprintf(hex, sizeof(hex), "%lx", static_cast<unsigned long>(code));
        EXPECT_NE(0u, code);
        EXPECT_EQ(std::vector<std::string>{c.code != 0 ? c.message : c.message + hex}, log.Messages());
    }
    for (const std::wstring& key : {kClassKey, kAppIdKey, kTypeLibKey, kInterfaceKey}) {
        EXPECT_FALSE(RegKeyExists(key)) << omktest::ToUtf8(key);
    }
}

}  // namespace
