// Service tag: the SMBIOS system serial number, read from the firmware table
// with an own parser, else the computer name.
#include <string.h>

#include <new>
#include <vector>

#include "systemIdentity.h"

namespace {

constexpr DWORD kRsmbProvider = ('R' << 24) | ('S' << 16) | ('M' << 8) | 'B';
// The raw table's header: four version bytes and the 32-bit table length.
constexpr size_t kRawHeaderBytes = 8;
// Header plus the two-byte end marker.
constexpr DWORD kMinimumRawBytes = 10;
// Reported for a firmware table too short to hold anything.
constexpr DWORD kTableTooShort = 1804;
constexpr BYTE kSystemInformationType = 1;
// Offset of the serial number's string number in the system-information structure.
constexpr size_t kSerialNumberOffset = 7;
constexpr DWORD kComputerNameBytes = 16;
const char kUnknownServiceTag[] = "UNKNOWN";

IDENTITY_RESULT Failure(DWORD error) {
    IDENTITY_RESULT result;
    result.error = error;
    return result;
}

// The structure table (without header), filled once; guarded by g_tableLock.
SRWLOCK g_tableLock = SRWLOCK_INIT;
std::vector<BYTE> g_table;
bool g_tableCached = false;
#ifdef OMK_TEST_SEAMS
SMBIOS_FIRMWARE_READER g_firmwareReader = nullptr;
COMPUTER_NAME_READER g_computerNameReader = nullptr;
#else
constexpr SMBIOS_FIRMWARE_READER g_firmwareReader = nullptr;
constexpr COMPUTER_NAME_READER g_computerNameReader = nullptr;
#endif

UINT CallFirmware(PVOID buffer, DWORD bytes) {
    SMBIOS_FIRMWARE_READER reader = g_firmwareReader != nullptr ? g_firmwareReader : GetSystemFirmwareTable;
    return reader(kRsmbProvider, 0, buffer, bytes);
}

// Reads and checks the firmware table into g_table. Caller holds g_tableLock.
DWORD FillTableCache() {
    UINT size = CallFirmware(nullptr, 0);
    if (size == 0) return GetLastError();
    if (size < kMinimumRawBytes) return kTableTooShort;
    std::vector<BYTE> raw;
    try {
        raw.assign(size, 0);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    UINT fetched = CallFirmware(raw.data(), size);
    if (fetched == 0) return GetLastError();
    if (fetched > size) return ERROR_INSUFFICIENT_BUFFER;
    DWORD error = SmbiosCheckRawTable(raw.data(), fetched);
    if (error != ERROR_SUCCESS) return error;
    try {
        g_table.assign(raw.begin() + kRawHeaderBytes, raw.begin() + fetched);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    g_tableCached = true;
    return ERROR_SUCCESS;
}

IDENTITY_RESULT ReadSystemSerialNumber() {
    AcquireSRWLockExclusive(&g_tableLock);
    DWORD error = g_tableCached ? ERROR_SUCCESS : FillTableCache();
    IDENTITY_RESULT result =
        error == ERROR_SUCCESS ? SmbiosSystemSerialNumber(g_table.data(), g_table.size()) : Failure(error);
    ReleaseSRWLockExclusive(&g_tableLock);
    return result;
}

}  // namespace

DWORD SmbiosCheckRawTable(const BYTE* raw, size_t fetchedBytes) {
    if (raw == nullptr || fetchedBytes < kRawHeaderBytes) return ERROR_INVALID_DATA;
    DWORD tableLength = 0;
    memcpy(&tableLength, raw + 4, sizeof(tableLength));
    if (fetchedBytes != static_cast<size_t>(tableLength) + kRawHeaderBytes || tableLength < 2)
        return ERROR_INVALID_DATA;
    if (raw[fetchedBytes - 1] != 0 || raw[fetchedBytes - 2] != 0) return ERROR_INVALID_DATA;
    return ERROR_SUCCESS;
}

IDENTITY_RESULT SmbiosString(const BYTE* strings, const BYTE* end, BYTE number) {
    if (strings == nullptr || end == nullptr) return Failure(ERROR_INVALID_PARAMETER);
    const BYTE* at = strings;
    for (BYTE index = 1; at < end; ++index) {
        if (*at == 0) return Failure(ERROR_NO_DATA);  // an empty string ends the set
        const BYTE* stop = static_cast<const BYTE*>(memchr(at, 0, static_cast<size_t>(end - at)));
        if (stop == nullptr) return Failure(ERROR_NO_DATA);  // unterminated
        if (index == number) {
            IDENTITY_RESULT result;
            try {
                result.value.assign(reinterpret_cast<const char*>(at), static_cast<size_t>(stop - at));
            } catch (const std::bad_alloc&) {
                return Failure(ERROR_NOT_ENOUGH_MEMORY);
            }
            result.hasValue = true;
            return result;
        }
        at = stop + 1;
    }
    return Failure(ERROR_NO_DATA);
}

IDENTITY_RESULT SmbiosSystemSerialNumber(const BYTE* table, size_t tableBytes) {
    if (table == nullptr) return Failure(ERROR_INVALID_PARAMETER);
    const BYTE* end = table + tableBytes;
    size_t offset = 0;
    while (offset + 1 < tableBytes) {
        const BYTE type = table[offset];
        const size_t length = table[offset + 1];
        if (length == 0) return Failure(ERROR_INVALID_DATA);
        if (type == kSystemInformationType) {
            // The first system-information structure decides, whatever it holds.
            if (offset + kSerialNumberOffset >= tableBytes || offset + length > tableBytes) {
                return Failure(ERROR_INVALID_DATA);
            }
            const BYTE serialNumber = table[offset + kSerialNumberOffset];
            if (serialNumber == 0) return Failure(ERROR_INVALID_DATA);
            return SmbiosString(table + offset + length, end, serialNumber);
        }
        // Skip the formatted part and the string set, which ends with 00 00.
        size_t at = offset + length;
        while (at + 1 < tableBytes && (table[at] != 0 || table[at + 1] != 0)) ++at;
        if (at + 1 >= tableBytes) return Failure(ERROR_NO_DATA);
        offset = at + 2;
    }
    return Failure(ERROR_NO_DATA);
}

IDENTITY_RESULT ReadComputerName() {
    char name[kComputerNameBytes] = {};
    DWORD chars = kComputerNameBytes;
    COMPUTER_NAME_READER reader = g_computerNameReader != nullptr ? g_computerNameReader : GetComputerNameA;
    if (!reader(name, &chars)) return Failure(GetLastError());
    name[kComputerNameBytes - 1] = '\0';
    if (name[0] == '\0') return Failure(ERROR_NO_DATA);
    IDENTITY_RESULT result;
    try {
        result.value = name;
    } catch (const std::bad_alloc&) {
        return Failure(ERROR_NOT_ENOUGH_MEMORY);
    }
    result.hasValue = true;
    return result;
}

std::string GetServiceTag() {
    try {
        IDENTITY_RESULT serial = ReadSystemSerialNumber();
        if (serial.error == ERROR_SUCCESS && serial.hasValue) return serial.value;
        IDENTITY_RESULT computerName = ReadComputerName();
        if (computerName.error == ERROR_SUCCESS && computerName.hasValue) return computerName.value;
        return kUnknownServiceTag;
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

#ifdef OMK_TEST_SEAMS
void SetServiceTagSourcesForTest(SMBIOS_FIRMWARE_READER firmware, COMPUTER_NAME_READER computerName) {
    AcquireSRWLockExclusive(&g_tableLock);
    g_firmwareReader = firmware;
    g_computerNameReader = computerName;
    g_table.clear();
    g_tableCached = false;
    ReleaseSRWLockExclusive(&g_tableLock);
}
#endif
