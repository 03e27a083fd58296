// Model and chassis class: the real WMI reads under this platform, and the
// test values that stand in for them (mapping, trimming, reports).
#include <windows.h>

#include <objbase.h>
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
    EXPECT_NE(model[0], L'\0');
    EXPECT_NE(model[wcslen(model) - 1], L' ');

    const int chassis = GetChassisType();
    EXPECT_TRUE(chassis == CT_DESKTOP || chassis == CT_LAPTOP);
    EXPECT_EQ(g_allocCount, allocations);
    EXPECT_FALSE(log_.Contains("WmiInit")) << log_.Since();
    // An unmapped value is possible on some machine, but never one wider than
    // 16 bits: chassis types are 16-bit values however WMI hands them over.
    const std::string unknown = "raw wmiChassisType is 0x";
    const std::string text = log_.Since();
    size_t at = text.find(unknown);
    if (at != std::string::npos) {
        EXPECT_LE(strtoul(text.c_str() + at + unknown.size(), nullptr, 16), 0xFFFFul);
    }
}

TEST_F(MachineIdentityTest, LeavesTheCallersComApartmentAsItWas) {
    // A thread of its own in the single-threaded apartment.
    struct Outcome {
        int model = 0;
        HRESULT after = E_FAIL;
    } outcome;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](void* parameter) -> DWORD {
            auto* result = static_cast<Outcome*>(parameter);
            if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
            wchar_t model[OMK_MODEL_CHARS];
            result->model = GetModel(model);
            GetChassisType();
            // Still initialised once, in the same apartment.
            result->after = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
            CoUninitialize();
            CoUninitialize();
            return 0;
        },
        &outcome, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, 60000), WAIT_OBJECT_0);
    CloseHandle(thread);
    EXPECT_EQ(outcome.after, S_FALSE);
    EXPECT_EQ(outcome.model, 1);
    EXPECT_TRUE(log_.Contains("CoInitializeEx(COINIT_MULTITHREADED) hr=")) << log_.Since();

    // A thread that is already in the multithreaded apartment stays there.
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
    EXPECT_TRUE(log_.Since().empty()) << log_.Since();

    // Unknown values (30 is a tablet) are reported and count as desktops.
    for (DWORD raw : {0, 17, 23, 26, 30, 37, 0x10009}) {
        log_.Mark();
        SetChassisTypeForTest(raw);
        EXPECT_EQ(GetChassisType(), CT_DESKTOP) << raw;
        char expected[96];
        sprintf_s(expected, "GetChassisType is CT_UNKNOWN , raw wmiChassisType is 0x%x", static_cast<unsigned>(raw));
        ASSERT_EQ(log_.Messages().size(), 1u) << log_.Since();
        EXPECT_EQ(log_.Messages()[0], expected);
    }
}

TEST_F(MachineIdentityTest, ModelLosesTrailingBlanksOnly) {
    wchar_t model[OMK_MODEL_CHARS];
    SetModelForTest(L"  Harbor  500   ");
    ASSERT_EQ(GetModel(model), 1);
    EXPECT_STREQ(model, L"  Harbor  500");
    SetModelForTest(L"Harbor 500\t ");
    ASSERT_EQ(GetModel(model), 1);
    EXPECT_STREQ(model, L"Harbor 500\t");
    SetModelForTest(L"   ");
    ASSERT_EQ(GetModel(model), 1);
    EXPECT_STREQ(model, L"");

    // At most 255 characters and the terminator.
    const std::wstring longModel(300, L'm');
    SetModelForTest(longModel.c_str());
    ASSERT_EQ(GetModel(model), 1);
    EXPECT_EQ(std::wstring(model), longModel.substr(0, OMK_MODEL_CHARS - 1));

    SetModelForTest(nullptr);
    EXPECT_EQ(GetModel(model), 0);
    EXPECT_EQ(GetModel(nullptr), 0);
}

}  // namespace
