// Model and chassis class: the real WMI reads of this platform, and the test
// values that stand in for them (mapping, trimming, reports).
#include <objbase.h>
#include <stdio.h>

#include <thread>

#include <gtest/gtest.h>

#include "conventions.h"
#include "systemIdentity.h"
#include "testSupport.h"

namespace {

class MachineIdentityTest : public ::testing::Test {
protected:
    ~MachineIdentityTest() override { ClearMachineIdentityForTest(); }
    omktest::ErrorLog log_{L"systemIdentity_test.log"};
};

TEST_F(MachineIdentityTest, ReadsTheRealModelAndChassisAndLeavesComAsItWas) {
    const int allocations = g_allocCount;
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    wchar_t model[OMK_MODEL_CHARS];
    ASSERT_EQ(GetModel(model), 1) << log_.Since();
    ASSERT_NE(model[0], L'\0');
    EXPECT_NE(model[wcslen(model) - 1], L' ');
    const int chassis = GetChassisType();
    EXPECT_TRUE(chassis == CT_DESKTOP || chassis == CT_LAPTOP);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
    CoUninitialize();
    CoUninitialize();
    EXPECT_EQ(g_allocCount, allocations);
    EXPECT_FALSE(log_.Contains("WmiInit")) << log_.Since();

    // In a single-threaded apartment the read still works, is reported, and
    // leaves the thread's apartment as it was.
    int read = 0;
    HRESULT after = E_FAIL;
    std::thread([&] {
        if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return;
        read = GetModel(model);
        GetChassisType();
        after = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);  // S_FALSE: still there
        CoUninitialize();
        CoUninitialize();
    }).join();
    EXPECT_EQ(read, 1);
    EXPECT_EQ(after, S_FALSE);
    EXPECT_TRUE(log_.Contains("WmiInit(): CoInitializeEx(COINIT_MULTITHREADED) hr=")) << log_.Since();
}

TEST_F(MachineIdentityTest, MapsEveryListedChassisTypeAndReportsTheRestAsDesktops) {
    const std::pair<int, std::vector<DWORD>> mapped[] = {
        {CT_DESKTOP, {1, 2, 3, 4, 5, 6, 7, 13, 15, 16, 24, 25, 34, 35, 36}},
        {CT_LAPTOP, {8, 9, 10, 11, 12, 14, 31, 32, 33}}};
    for (const auto& chassis : mapped) {
        for (DWORD raw : chassis.second) {
            SetChassisTypeForTest(raw);
            EXPECT_EQ(GetChassisType(), chassis.first) << raw;
        }
    }
    EXPECT_EQ(log_.Since(), "");
    for (DWORD raw : {0, 17, 23, 26, 30, 37, 0x10009}) {  // 30 is a tablet
        log_.Mark();
        SetChassisTypeForTest(raw);
        EXPECT_EQ(GetChassisType(), CT_DESKTOP) << raw;
        char expected[96];
        sprintf_s(expected, "GetChassisType is CT_UNKNOWN , raw wmiChassisType is 0x%x", static_cast<unsigned>(raw));
        EXPECT_EQ(log_.Messages(), std::vector<std::string>{expected});
    }
}

TEST_F(MachineIdentityTest, ModelLosesTrailingBlanksOnly) {
    const std::wstring longModel(300, L'm');
    const std::pair<const wchar_t*, std::wstring> cases[] = {{L"  Harbor  500   ", L"  Harbor  500"},
                                                             {L"Harbor 500\t ", L"Harbor 500\t"},
                                                             {L"   ", L""},
                                                             {longModel.c_str(), longModel.substr(0, 255)}};
    wchar_t model[OMK_MODEL_CHARS];
    for (const auto& c : cases) {
        SetModelForTest(c.first);
        ASSERT_EQ(GetModel(model), 1);
        EXPECT_EQ(std::wstring(model), c.second);
    }
    SetModelForTest(nullptr);
    EXPECT_EQ(GetModel(model), 0);
    EXPECT_EQ(GetModel(nullptr), 0);
}

}  // namespace
