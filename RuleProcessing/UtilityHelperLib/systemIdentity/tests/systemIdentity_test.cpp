// The machine's identity: the SMBIOS walk on tables built here, placed against
// an inaccessible page so that any read past the end faults; the service tag,
// model and chassis class from replaced sources and from the real ones.
#include <objbase.h>
#include <stdio.h>
#include <string.h>

#include <thread>

#include <gtest/gtest.h>

#include "conventions.h"
#include "systemIdentity.h"
#include "testSupport.h"

namespace {

using Bytes = std::vector<BYTE>;
constexpr DWORD kRsmb = ('R' << 24) | ('S' << 16) | ('M' << 8) | 'B';

// One structure: type, formatted part after the 4-byte header, string set.
Bytes Structure(BYTE type, const Bytes& formatted, const std::vector<std::string>& strings) {
    Bytes out = {type, static_cast<BYTE>(4 + formatted.size()), 0x00, 0x10};
    out.insert(out.end(), formatted.begin(), formatted.end());
    for (const std::string& s : strings) out.insert(out.end(), s.c_str(), s.c_str() + s.size() + 1);
    if (strings.empty()) out.push_back(0);
    out.push_back(0);
    return out;
}

// System information whose serial number is string number `serial`.
Bytes System(BYTE serial, const std::vector<std::string>& strings) {
    Bytes formatted(0x17, 0);
    formatted[3] = serial;
    return Structure(1, formatted, strings);
}

const Bytes kBios = Structure(0, Bytes(0x14, 0x11), {"Varn BIOS", "1.02"});
const Bytes kEnd = Structure(127, {}, {});

// The parts joined; a negative `cut` drops that many bytes from the end, a
// positive one keeps that many.
Bytes Join(std::initializer_list<Bytes> parts, int cut = 0) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    out.resize(cut > 0 ? static_cast<size_t>(cut) : out.size() + cut);
    return out;
}

// The bytes copied so that they end exactly where an inaccessible page begins.
IDENTITY_RESULT Serial(const Bytes& table) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    const size_t page = info.dwPageSize;
    const size_t pages = table.size() / page + 2;
    BYTE* base = static_cast<BYTE*>(VirtualAlloc(nullptr, pages * page, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    DWORD old = 0;
    VirtualProtect(base + (pages - 1) * page, page, PAGE_NOACCESS, &old);
    BYTE* data = base + (pages - 1) * page - table.size();
    if (!table.empty()) memcpy(data, table.data(), table.size());
    IDENTITY_RESULT result = SmbiosSystemSerialNumber(data, table.size());
    VirtualFree(base, 0, MEM_RELEASE);
    return result;
}

TEST(SmbiosSerialNumber, WalksTablesToTheFirstSystemInformation) {
    const Bytes system = System(1, {"X"});
    const int bios = static_cast<int>(kBios.size());
    const struct {
        const char* what;
        Bytes table;
        DWORD error;
        const char* value;
    } cases[] = {
        {"serial present", Join({kBios, System(3, {"Varn", "Harbor", "ABC1234 "}), kEnd}), 0, "ABC1234 "},
        {"last structure", Join({kBios, System(1, {"XYZ"})}), 0, "XYZ"},
        {"first type 1 decides", Join({System(1, {"FIRST"}), System(1, {"SECOND"})}), 0, "FIRST"},
        {"string number 0", Join({kBios, System(0, {"Varn"}), System(1, {"LATER"})}), 13, nullptr},
        {"empty string ends the set", Join({kBios, System(3, {"Varn", "", "HIDDEN"})}), 232, nullptr},
        {"zero structure length", Join({kBios, Bytes{7, 0, 0, 0, 0, 0}, system}), 13, nullptr},
        {"type 1 past the end", Join({kBios, system}, bios + 12), 13, nullptr},
        {"type 1 serial byte past the end", Join({kBios, system}, bios + 6), 13, nullptr},
        {"unterminated serial", Join({kBios, system}, -2), 232, nullptr},
        {"other structure past the end", Join({kBios}, 10), 232, nullptr},
        {"missing double zero", Join({kBios}, -1), 232, nullptr},
        {"no system information", Join({kBios, kEnd}), 232, nullptr},
        {"empty table", Bytes{}, 232, nullptr},
        {"one byte", Bytes{1}, 232, nullptr},
    };
    for (const auto& c : cases) {
        IDENTITY_RESULT result = Serial(c.table);
        EXPECT_EQ(result.error, c.error) << c.what;
        EXPECT_EQ(result.hasValue, c.value != nullptr) << c.what;
        EXPECT_EQ(result.value, c.value != nullptr ? c.value : "") << c.what;
    }
    EXPECT_EQ(SmbiosSystemSerialNumber(nullptr, 10).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(SmbiosString(nullptr, kBios.data(), 1).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

// What the replaced firmware and computer-name calls give: `table` with the
// firmware's 8-byte header, whose length is off by `lengthError`; a fetch that
// reports `growOnFetch` bytes more than the size query.
struct FakeSources {
    Bytes table;
    int lengthError = 0;
    UINT growOnFetch = 0;
    DWORD firmwareError = 0;
    std::string computerName = "VARN-PC";
    DWORD computerNameError = 0;
    int firmwareCalls = 0;
} g_fake;

UINT WINAPI FakeFirmware(DWORD provider, DWORD tableId, PVOID buffer, DWORD bytes) {
    ++g_fake.firmwareCalls;
    SetLastError(g_fake.firmwareError);
    if (provider != kRsmb || tableId != 0 || g_fake.firmwareError != 0) return 0;
    const size_t n = g_fake.table.size() + g_fake.lengthError;
    Bytes raw = Join({{0, 3, 4, 0, static_cast<BYTE>(n), static_cast<BYTE>(n >> 8), 0, 0}, g_fake.table});
    if (buffer != nullptr) memcpy(buffer, raw.data(), raw.size() < bytes ? raw.size() : bytes);
    return static_cast<UINT>(raw.size()) + (buffer != nullptr ? g_fake.growOnFetch : 0);
}

BOOL WINAPI FakeComputerName(LPSTR buffer, LPDWORD chars) {
    SetLastError(g_fake.computerNameError);
    if (g_fake.computerNameError != 0 || *chars != 16) return FALSE;
    strcpy_s(buffer, *chars, g_fake.computerName.c_str());
    *chars = static_cast<DWORD>(g_fake.computerName.size());
    return TRUE;
}

std::string ServiceTagFrom(const FakeSources& sources) {
    g_fake = sources;
    SetServiceTagSourcesForTest(FakeFirmware, FakeComputerName);
    return GetServiceTag();
}

TEST(ServiceTag, IsTheSerialNumberElseTheComputerNameElseUnknown) {
    EXPECT_EQ(ServiceTagFrom({Join({kBios, System(3, {"Varn", "Harbor", "7XK2Q93"}), kEnd})}), "7XK2Q93");
    EXPECT_EQ(GetServiceTag(), "7XK2Q93");
    EXPECT_EQ(g_fake.firmwareCalls, 2) << "the table is read once (size, then fetch) and cached";
    const FakeSources noSerial[] = {
        {Join({kBios, System(0, {"Varn"}), kEnd})},
        {{}, 0, 0, ERROR_ACCESS_DENIED},
        {Bytes{1}},                // shorter than the end marker
        {System(1, {"X"}), 0, 4},  // grew between size query and fetch
        {Bytes{1, 2, 3, 4}},       // does not end with 00 00
        {System(1, {"X"}), 1},     // header length disagrees with the size
    };
    for (const FakeSources& sources : noSerial) EXPECT_EQ(ServiceTagFrom(sources), "VARN-PC");
    FakeSources unnamed = noSerial[1];
    unnamed.computerName = "";
    EXPECT_EQ(ServiceTagFrom(unnamed), "UNKNOWN");
    unnamed.computerNameError = ERROR_BUFFER_OVERFLOW;
    EXPECT_EQ(ServiceTagFrom(unnamed), "UNKNOWN");

    // The real sources: a raw table that checks, if this machine has one, or the computer name.
    SetServiceTagSourcesForTest(nullptr, nullptr);
    UINT size = GetSystemFirmwareTable(kRsmb, 0, nullptr, 0);
    Bytes raw(size);
    EXPECT_EQ(size, GetSystemFirmwareTable(kRsmb, 0, raw.data(), size));
    EXPECT_TRUE(size == 0 || SmbiosCheckRawTable(raw.data(), raw.size()) == 0);
    char name[16] = {};
    DWORD chars = 16;
    ASSERT_TRUE(GetComputerNameA(name, &chars));
    EXPECT_EQ(ReadComputerName().value, name);
    EXPECT_NE(GetServiceTag(), "UNKNOWN");
    EXPECT_FALSE(GetServiceTag().empty());
}

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
