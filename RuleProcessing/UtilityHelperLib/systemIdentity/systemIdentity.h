// The machine's identity: service tag (SMBIOS serial number or computer name),
// model text and chassis class (WMI).
#pragma once

#include <windows.h>

#include <wbemidl.h>

#include <stddef.h>

#include <string>

// ---------------------------------------------------------------------------
// Service tag

// Result of the SMBIOS and computer-name readers: a Windows error (0 on
// success) or a narrow text value.
struct IDENTITY_RESULT {
    DWORD error = ERROR_SUCCESS;  // 13, 87, 122, 232, 1804 or a last error
    bool hasValue = false;
    std::string value;  // as found: not trimmed
};

// The machine's service tag: the SMBIOS system serial number, else the computer
// name, else "UNKNOWN". Never fails. Reads the firmware table once per process
// (cached under a mutex); any thread. Start-up prints it into g_serviceTag.
std::string GetServiceTag();

// Checks a raw SMBIOS table as GetSystemFirmwareTable('RSMB') returns it: 8-byte
// header whose 32-bit field at offset 4 is the table length, then the table.
// 0 when `fetchedBytes` equals that length plus 8, the length is at least 2 and
// the table ends with 00 00; else 13. Reads nothing outside `fetchedBytes`.
DWORD SmbiosCheckRawTable(const BYTE* raw, size_t fetchedBytes);

// The serial number of the first system-information structure (type 1) of an
// SMBIOS structure table (the raw table without its 8-byte header). Errors:
// 13 for a zero structure length, a serial string number of 0 or a type-1
// structure reaching past the table; 232 when the walk or the string set runs
// past the table or the string set ends first; 87 for a null table.
IDENTITY_RESULT SmbiosSystemSerialNumber(const BYTE* table, size_t tableBytes);

// String `number` (from 1) of the string set at `strings`, which must end before
// `end`. An empty string ends the set (232); so does the end of the data.
// Null pointers give 87.
IDENTITY_RESULT SmbiosString(const BYTE* strings, const BYTE* end, BYTE number);

// The computer's NetBIOS name (GetComputerNameA, 16-byte buffer). An empty
// name gives 232, a failure the last error.
IDENTITY_RESULT ReadComputerName();

typedef UINT(WINAPI* SMBIOS_FIRMWARE_READER)(DWORD provider, DWORD tableId, PVOID buffer, DWORD bufferBytes);
typedef BOOL(WINAPI* COMPUTER_NAME_READER)(LPSTR buffer, LPDWORD chars);
#ifdef OMK_TEST_SEAMS
// Test builds only: replaces the firmware call (same contract as
// GetSystemFirmwareTable) and the computer-name call (same contract as
// GetComputerNameA) that the service tag is read from, and empties the
// firmware table cache, so the next GetServiceTag reads again. Null restores
// the real call.
void SetServiceTagSourcesForTest(SMBIOS_FIRMWARE_READER firmware, COMPUTER_NAME_READER computerName);
#endif

// ---------------------------------------------------------------------------
// Model and chassis class

// Chassis classes. CT_UNKNOWN is only reported, never returned.
constexpr int CT_UNKNOWN = 0;
constexpr int CT_DESKTOP = 1;
constexpr int CT_LAPTOP = 2;

// Characters of the buffer GetModel fills, terminator included.
constexpr size_t OMK_MODEL_CHARS = 256;

// Connects to the WMI namespace `nameSpace` (e.g. L"ROOT\\CIMV2") on the calling
// thread, putting it into the multithreaded apartment. On success returns true
// with both interfaces; the caller releases them and then calls CoUninitialize
// when `*uninitialize` is true (the thread's COM initialisation was counted).
// On failure everything is released and reported to the error log.
bool WmiInit(const wchar_t* nameSpace, IWbemLocator** locator, IWbemServices** services, bool* uninitialize);

// The machine's model (Win32_ComputerSystem.Model) into `model`, a buffer of
// OMK_MODEL_CHARS wide characters, without trailing spaces. 1 on success, 0
// when it cannot be read. Calling thread; COM is left as it was found.
int GetModel(wchar_t* model);

// The machine's chassis class from the first Win32_SystemEnclosure.ChassisTypes
// value: CT_LAPTOP (2) or CT_DESKTOP (1). An unmapped value or a failed read is
// reported as CT_UNKNOWN and gives CT_DESKTOP. Calling thread.
int GetChassisType();

// Maps one raw SMBIOS/WMI chassis type value to CT_DESKTOP, CT_LAPTOP or CT_UNKNOWN.
int MapChassisType(DWORD rawChassisType);

#ifdef OMK_TEST_SEAMS
// Test builds only, for whatever depends on the machine's identity (such as the rule
// platform filter): while set, GetModel and GetChassisType use these values
// instead of asking WMI, and treat them exactly as read values (trailing
// spaces removed, raw chassis value mapped and reported). A null `model` makes
// the model unreadable (GetModel gives 0). Typical raw chassis values: 3 for a
// desktop, 10 for a notebook. Clear restores the WMI reads. Tests only; set
// them before the code under test runs.
void SetModelForTest(const wchar_t* model);
void SetChassisTypeForTest(DWORD rawChassisType);
void ClearMachineIdentityForTest();
#endif
