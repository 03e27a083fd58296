// Model and chassis class: the real WMI reads of this platform, and the test
// values that stand in for them (mapping, trimming, reports).
#include <windows.h>

#include <objbase.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

#include "conventions.h"
#include "systemIdentity.h"
#include "testSupport.h"

namespace {

class MachineIdentityTest : public ::testing::Test {
protected:
    MachineIdentityTest() : log_(L"systemIdentity_test.log") {}
    ~MachineIdentityTest() override { ClearMachineIdentityForTest(); }

    omktest::ErrorLog log_;
};

TEST_F(MachineIdentityTest, ReadsTheRealModelAndChassisThroughWmi) {
    const int allocations = g_allocCount;
    wchar_t model[OMK_MODEL_CHARS];
    ASSERT_EQ(GetModel(model), 1) << log_.Since();
    ASSERT_NE(model[0], L'\0');
    EXPECT_NE(model[wcslen(model) - 1], L' ');
    const int chassis = GetChassisType();
    EXPECT_TRUE(chassis == CT_DESKTOP || chassis == CT_LAPTOP);
    EXPECT_EQ(g_allocCount, allocations);
    EXPECT_FALSE(log_.Contains("WmiInit")) << log_.Since();
    // Some machine may have an unmapped chassis, but never a value wider than 16
    // bits: that would be the undefined upper half of a 16-bit WMI value.
    const std::string text = log_.Since();
    const size_t at = text.find("raw wmiChassisType is 0x");
    if (at != std::string::npos) {
        EXPECT_LE(strtoul(text.c_str() + at + 24, nullptr, 16), 0xFFFFul);
    }
}

DWORD WINAPI ReadInSingleThreadedApartment(void* parameter) {
    auto* after = static_cast<HRESULT*>(parameter);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
    wchar_t model[OMK_MODEL_CHARS];
    const int read = GetModel(model);
    GetChassisType();
    *after = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);  // S_FALSE: still initialised, same apartment
    CoUninitialize();
    CoUninitialize();
    return read == 1 ? 0 : 2;
}

TEST_F(MachineIdentityTest, LeavesTheCallersComApartmentAsItWas) {
    HRESULT after = E_FAIL;
    HANDLE thread = CreateThread(nullptr, 0, ReadInSingleThreadedApartment, &after, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, 60000), WAIT_OBJECT_0);
    DWORD code = 99;
    GetExitCodeThread(thread, &code);
    CloseHandle(thread);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(after, S_FALSE);
    EXPECT_TRUE(log_.Contains("WmiInit(): CoInitializeEx(COINIT_MULTITHREADED) hr=")) << log_.Since();

    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    wchar_t model[OMK_MODEL_CHARS];
    EXPECT_EQ(GetModel(model), 1);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
    CoUninitialize();
    CoUninitialize();
}

TEST_F(MachineIdentityTest, MapsEveryListedChassisTypeAndCallsTheRestDesktops) {
    for (DWORD raw : {1, 2, 3, 4, 5, 6, 7, 13, 15, 16, 24, 25, 34, 35, 36}) {
        SetChassisTypeForTest(raw);
        EXPECT_EQ(GetChassisType(), CT_DESKTOP) << raw;
    }
    for (DWORD raw : {8, 9, 10, 11, 12, 14, 31, 32, 33}) {
        SetChassisTypeForTest(raw);
        EXPECT_EQ(GetChassisType(), CT_LAPTOP) << raw;
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
    const struct {
        const wchar_t* given;
        std::wstring read;
    } cases[] = {{L"  Harbor  500   ", L"  Harbor  500"},
                 {L"Harbor 500\t ", L"Harbor 500\t"},
                 {L"   ", L""},
                 {longModel.c_str(), longModel.substr(0, OMK_MODEL_CHARS - 1)}};
    wchar_t model[OMK_MODEL_CHARS];
    for (const auto& c : cases) {
        SetModelForTest(c.given);
        ASSERT_EQ(GetModel(model), 1);
        EXPECT_EQ(std::wstring(model), c.read);
    }
    SetModelForTest(nullptr);
    EXPECT_EQ(GetModel(model), 0);
    EXPECT_EQ(GetModel(nullptr), 0);
}

}  // namespace
