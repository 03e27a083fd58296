// The SMBIOS walk on tables built here, placed against an inaccessible page so
// that any read past the end faults; the service tag with replaced firmware and
// computer-name calls, and with the real ones.
#include <windows.h>

#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "systemIdentity.h"

namespace {

using Bytes = std::vector<BYTE>;

// One SMBIOS structure: type, formatted part (after the 4-byte header) and strings.
Bytes Structure(BYTE type, const Bytes& formatted, const std::vector<std::string>& strings) {
    Bytes out = {type, static_cast<BYTE>(4 + formatted.size()), 0x00, 0x10};
    out.insert(out.end(), formatted.begin(), formatted.end());
    for (const std::string& s : strings) {
        out.insert(out.end(), s.begin(), s.end());
        out.push_back(0);
    }
    if (strings.empty()) out.push_back(0);
    out.push_back(0);
    return out;
}

// System information with the given string numbers for manufacturer,
// product, version and serial number.
Bytes SystemInformation(BYTE serialNumber, const std::vector<std::string>& strings) {
    Bytes formatted(0x17, 0);
    formatted[0] = 1;  // manufacturer
    formatted[1] = 2;  // product
    formatted[2] = 0;  // version
    formatted[3] = serialNumber;
    return Structure(1, formatted, strings);
}

Bytes Bios() {
    return Structure(0, Bytes(0x14, 0x11), {"Varn BIOS", "1.02"});
}
Bytes EndOfTable() {
    return Structure(127, {}, {});
}

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// Copies bytes so that they end exactly where an inaccessible page begins.
class GuardedBytes {
public:
    explicit GuardedBytes(const Bytes& bytes) {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        page_ = info.dwPageSize;
        pages_ = (bytes.size() + page_ - 1) / page_ + 1;
        base_ = static_cast<BYTE*>(VirtualAlloc(nullptr, pages_ * page_, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
        DWORD old = 0;
        VirtualProtect(base_ + (pages_ - 1) * page_, page_, PAGE_NOACCESS, &old);
        data_ = base_ + (pages_ - 1) * page_ - bytes.size();
        if (!bytes.empty()) memcpy(data_, bytes.data(), bytes.size());
        size_ = bytes.size();
    }
    ~GuardedBytes() { VirtualFree(base_, 0, MEM_RELEASE); }
    const BYTE* Data() const { return data_; }
    size_t Size() const { return size_; }

private:
    size_t page_ = 0;
    size_t pages_ = 0;
    BYTE* base_ = nullptr;
    BYTE* data_ = nullptr;
    size_t size_ = 0;
};

IDENTITY_RESULT Serial(const Bytes& table) {
    GuardedBytes guarded(table);
    return SmbiosSystemSerialNumber(guarded.Data(), guarded.Size());
}

TEST(SmbiosSerialNumber, ReadsTheSerialOfTheSystemInformation) {
    IDENTITY_RESULT result =
        Serial(Join({Bios(), SystemInformation(3, {"Varn", "Harbor 500", "ABC1234 "}), EndOfTable()}));
    EXPECT_EQ(result.error, 0u);
    ASSERT_TRUE(result.hasValue);
    EXPECT_EQ(result.value, "ABC1234 ");  // taken as it stands

    // Last thing in the table, with no end-of-table structure after it.
    result = Serial(Join({Bios(), SystemInformation(1, {"XYZ"})}));
    EXPECT_EQ(result.error, 0u);
    EXPECT_EQ(result.value, "XYZ");
}

TEST(SmbiosSerialNumber, TheFirstSystemInformationDecides) {
    IDENTITY_RESULT result = Serial(Join({SystemInformation(1, {"FIRST"}), SystemInformation(1, {"SECOND"})}));
    EXPECT_EQ(result.value, "FIRST");
    result = Serial(Join({SystemInformation(0, {"a", "b"}), SystemInformation(1, {"SECOND"})}));
    EXPECT_EQ(result.error, static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_FALSE(result.hasValue);
}

TEST(SmbiosSerialNumber, GivesTheErrorOfEachKindOfBadTable) {
    // String number 0: no serial.
    EXPECT_EQ(Serial(Join({Bios(), SystemInformation(0, {"Varn"})})).error, static_cast<DWORD>(ERROR_INVALID_DATA));
    // A zero structure length.
    Bytes zeroLength = Join({Bios(), Bytes{7, 0, 0, 0, 0, 0}, SystemInformation(1, {"X"})});
    EXPECT_EQ(Serial(zeroLength).error, static_cast<DWORD>(ERROR_INVALID_DATA));
    // A system-information structure cut off inside its formatted part.
    Bytes system = SystemInformation(1, {"X"});
    EXPECT_EQ(Serial(Join({Bios(), Bytes(system.begin(), system.begin() + 12)})).error,
              static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_EQ(Serial(Join({Bios(), Bytes(system.begin(), system.begin() + 6)})).error,
              static_cast<DWORD>(ERROR_INVALID_DATA));
    // Cut off inside its strings: the serial is unterminated.
    EXPECT_EQ(Serial(Join({Bios(), Bytes(system.begin(), system.end() - 2)})).error, static_cast<DWORD>(ERROR_NO_DATA));
    // Another structure whose formatted part or strings run past the end.
    Bytes bios = Bios();
    EXPECT_EQ(Serial(Bytes(bios.begin(), bios.begin() + 10)).error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(Serial(Bytes(bios.begin(), bios.end() - 1)).error, static_cast<DWORD>(ERROR_NO_DATA));
    // No system information at all, and nothing at all.
    EXPECT_EQ(Serial(Join({Bios(), EndOfTable()})).error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(Serial(Bytes{}).error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(Serial(Bytes{1}).error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(SmbiosSystemSerialNumber(nullptr, 10).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(SmbiosString, NumbersFromOneAndStopsAtAnEmptyString) {
    const Bytes set = {'a', 0, 'b', 'c', 0, 0, 'd', 0};
    GuardedBytes guarded(set);
    const BYTE* end = guarded.Data() + guarded.Size();
    EXPECT_EQ(SmbiosString(guarded.Data(), end, 1).value, "a");
    EXPECT_EQ(SmbiosString(guarded.Data(), end, 2).value, "bc");
    // String 3 would be "d" but the empty string before it ends the set.
    EXPECT_EQ(SmbiosString(guarded.Data(), end, 3).error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(SmbiosString(guarded.Data(), end, 0).error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(SmbiosString(nullptr, end, 1).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(SmbiosString(guarded.Data(), nullptr, 1).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    // Missing terminator at the very end.
    const Bytes open = {'a', 0, 'b', 'c'};
    GuardedBytes unterminated(open);
    EXPECT_EQ(SmbiosString(unterminated.Data(), unterminated.Data() + unterminated.Size(), 2).error,
              static_cast<DWORD>(ERROR_NO_DATA));
}

// The firmware's form: version bytes, 32-bit little-endian table length, table.
Bytes RawTable(const Bytes& table) {
    const size_t length = table.size();
    Bytes raw = {0,
                 3,
                 4,
                 0,
                 static_cast<BYTE>(length),
                 static_cast<BYTE>(length >> 8),
                 static_cast<BYTE>(length >> 16),
                 static_cast<BYTE>(length >> 24)};
    raw.insert(raw.end(), table.begin(), table.end());
    return raw;
}

TEST(SmbiosCheckRawTable, AcceptsOnlyAConsistentTable) {
    Bytes good = RawTable(Join({Bios(), SystemInformation(1, {"X"}), EndOfTable()}));
    EXPECT_EQ(SmbiosCheckRawTable(good.data(), good.size()), 0u);
    // Fetched size differs from the header's length.
    EXPECT_EQ(SmbiosCheckRawTable(good.data(), good.size() - 1), static_cast<DWORD>(ERROR_INVALID_DATA));
    // No 00 00 at the end.
    Bytes noEnd = RawTable(Bytes{1, 2, 3, 0});
    EXPECT_EQ(SmbiosCheckRawTable(noEnd.data(), noEnd.size()), static_cast<DWORD>(ERROR_INVALID_DATA));
    // Too short a table length.
    Bytes tiny = RawTable(Bytes{0});
    EXPECT_EQ(SmbiosCheckRawTable(tiny.data(), tiny.size()), static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_EQ(SmbiosCheckRawTable(good.data(), 4), static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_EQ(SmbiosCheckRawTable(nullptr, 20), static_cast<DWORD>(ERROR_INVALID_DATA));
}

// What the replaced firmware and computer-name calls give.
struct FakeSources {
    Bytes raw;                // the table handed out
    UINT growOnFetch = 0;     // added to the size the fetch (second call) reports
    DWORD firmwareError = 0;  // non-zero: the firmware call fails with it
    int firmwareCalls = 0;
    std::string computerName;  // empty with computerNameError 0: an empty name
    DWORD computerNameError = 0;
};
FakeSources g_fake;

UINT WINAPI FakeFirmware(DWORD provider, DWORD tableId, PVOID buffer, DWORD bytes) {
    ++g_fake.firmwareCalls;
    if (provider != (('R' << 24) | ('S' << 16) | ('M' << 8) | 'B') || tableId != 0 || g_fake.firmwareError != 0) {
        SetLastError(g_fake.firmwareError != 0 ? g_fake.firmwareError : ERROR_INVALID_FUNCTION);
        return 0;
    }
    const UINT size = static_cast<UINT>(g_fake.raw.size()) + (buffer != nullptr ? g_fake.growOnFetch : 0);
    if (buffer != nullptr) memcpy(buffer, g_fake.raw.data(), g_fake.raw.size() < bytes ? g_fake.raw.size() : bytes);
    return size;
}

BOOL WINAPI FakeComputerName(LPSTR buffer, LPDWORD chars) {
    if (g_fake.computerNameError != 0) {
        SetLastError(g_fake.computerNameError);
        return FALSE;
    }
    if (*chars != 16) return FALSE;
    strcpy_s(buffer, *chars, g_fake.computerName.c_str());
    *chars = static_cast<DWORD>(g_fake.computerName.size());
    return TRUE;
}

class ServiceTagTest : public ::testing::Test {
protected:
    ServiceTagTest() {
        g_fake = FakeSources();
        g_fake.computerName = "VARN-PC";
        SetServiceTagSourcesForTest(FakeFirmware, FakeComputerName);
    }
    ~ServiceTagTest() override { SetServiceTagSourcesForTest(nullptr, nullptr); }
};

TEST_F(ServiceTagTest, IsTheSerialNumberReadOnceFromTheFirmware) {
    g_fake.raw = RawTable(Join({Bios(), SystemInformation(3, {"Varn", "Harbor", "7XK2Q93"}), EndOfTable()}));
    EXPECT_EQ(GetServiceTag(), "7XK2Q93");
    const int calls = g_fake.firmwareCalls;
    EXPECT_EQ(GetServiceTag(), "7XK2Q93");
    EXPECT_EQ(g_fake.firmwareCalls, calls) << "the table is cached";
}

TEST_F(ServiceTagTest, FallsBackToTheComputerNameThenToUnknown) {
    // No serial in the table, a failing firmware call, and inconsistent tables.
    std::vector<FakeSources> cases(6);
    cases[0].raw = RawTable(Join({Bios(), SystemInformation(0, {"Varn"}), EndOfTable()}));
    cases[1].firmwareError = ERROR_ACCESS_DENIED;
    cases[2].raw = Bytes(9, 0);  // shorter than header and end marker
    cases[3].raw = RawTable(Join({SystemInformation(1, {"X"})}));
    cases[3].growOnFetch = 4;                                    // grew between the two calls
    cases[4].raw = RawTable(Bytes{1, 2, 3, 4});                  // no 00 00 at its end
    cases[5].raw = RawTable(Join({Bios(), Bytes{1, 0, 0, 0}}));  // zero-length structure
    for (size_t i = 0; i < cases.size(); ++i) {
        g_fake = cases[i];
        g_fake.computerName = "VARN-PC";
        SetServiceTagSourcesForTest(FakeFirmware, FakeComputerName);
        EXPECT_EQ(GetServiceTag(), "VARN-PC") << "case " << i;
    }

    g_fake.computerName = "";
    SetServiceTagSourcesForTest(FakeFirmware, FakeComputerName);
    EXPECT_EQ(ReadComputerName().error, static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(GetServiceTag(), "UNKNOWN");
    g_fake.computerNameError = ERROR_BUFFER_OVERFLOW;
    EXPECT_EQ(ReadComputerName().error, static_cast<DWORD>(ERROR_BUFFER_OVERFLOW));
    EXPECT_EQ(GetServiceTag(), "UNKNOWN");
}

TEST(ServiceTag, ComesFromTheRealFirmwareTableOrComputerName) {
    SetServiceTagSourcesForTest(nullptr, nullptr);
    UINT size = GetSystemFirmwareTable(('R' << 24) | ('S' << 16) | ('M' << 8) | 'B', 0, nullptr, 0);
    if (size != 0) {
        Bytes raw(size);
        ASSERT_EQ(GetSystemFirmwareTable(('R' << 24) | ('S' << 16) | ('M' << 8) | 'B', 0, raw.data(), size), size);
        EXPECT_EQ(SmbiosCheckRawTable(raw.data(), raw.size()), 0u);
    }
    char name[16] = {};
    DWORD chars = 16;
    ASSERT_TRUE(GetComputerNameA(name, &chars));
    IDENTITY_RESULT computerName = ReadComputerName();
    EXPECT_EQ(computerName.error, 0u);
    EXPECT_EQ(computerName.value, name);

    const std::string tag = GetServiceTag();
    EXPECT_FALSE(tag.empty());
    EXPECT_NE(tag, "UNKNOWN");
}

}  // namespace
