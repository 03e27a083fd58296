#include "alertDatabase.h"

#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

#include "comErrorMessage.h"
#include "conventions.h"
#include "omkDb.h"
#include "omkErrors.h"
#include "strHelper.h"
#include "textFileHelpers.h"
#include "xmlAccess.h"

wchar_t g_alertFileName[OMK_ALERT_FILE_NAME_CHARS];
const wchar_t OMK_ALERT_GENERATED_EVENT_NAME[] = L"Global\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}";

namespace {

constexpr DWORD kEventAllAccess = 0x1F0003;

}  // namespace

char* ReadValidateXmlFile(const wchar_t* path) {
    char* bytes = ReadMultiByteUtf8File(path);
    if (bytes == nullptr) {
        OMK_ReportError(0, L"ReadValidateXmlFile: ReadMultiByteUtf8File %ws failed", path);
        return nullptr;
    }
    wchar_t* wide = MultiByteUTF8_To_WideCHAR(bytes);
    if (wide == nullptr) {
        OMK_ReportError(0, L"ReadValidateXmlFile: MultiByteUTF8_To_WideCHAR %ws failed", path);
        free(bytes);
        --g_allocCount;
        return nullptr;
    }
    // Into the engine thread's own document: a new DOM object per alert costs
    // more than the parse.
    const int wellFormed = CheckXML(wide);
    free(wide);
    --g_allocCount;
    if (!wellFormed) {
        OMK_ReportError(0, L"ReadValidateXmlFile: LoadXML %ws failed", path);
        free(bytes);
        --g_allocCount;
        return nullptr;
    }
    return bytes;
}

namespace {

// Stores the alert. The trim that CheckMaxAlerts makes after it is made in
// the store's own commit already (one synced commit per alert instead of
// two); CheckMaxAlerts then finds nothing left to delete.
int addToAlertDbCore(ULONGLONG creationTime, const char* bytes, DWORD maxAlerts) {
    if (!AlertDb_Open(1, 1)) {
        OMK_ReportError(0, L"addToAlertDbCore: AlertDb_Open () failed");
        return 0;
    }
    int result = 0;
    ALERT_DB_RECORD* record = nullptr;
    if (AlertDb_ReadByCreationTimeW(creationTime, &record)) {
        OMK_ReportError(0, L"addToAlertDbCore: Alert with same creation time exists!");
        result = 1;  // the older record stays; the new file counts as stored
    } else {
        result = AlertDb_WriteAndTrim(creationTime, bytes, maxAlerts);
        if (result == 0) OMK_ReportError(0, L"addToAlertDbCore: AlertDb_Write () failed");
    }
    if (record != nullptr) {
        ++g_allocCount;  // the library's block is ours from here
        free(record);
        --g_allocCount;
    }
    AlertDb_Close(1);
    return result;
}

void CheckMaxAlerts(DWORD maxAlerts) {
    if (!AlertDb_Open(0, 0)) {
        OMK_ReportError(0, L"CheckMaxAlerts: AlertDb_Open failed");
        return;
    }
    AlertDb_DeleteOldestRecords(maxAlerts);
    AlertDb_Close(0);
}

void SignalAlertGeneratedEvent() {
    HANDLE event = OpenEventW(kEventAllAccess, FALSE, OMK_ALERT_EVENT_NAME_IN_USE);
    if (event == nullptr) {
        OMK_ReportError(0, L"%hs(): OpenEventW() err=%lu", "SignalAlertGeneratedEvent", GetLastError());
        return;
    }
    if (!SetEvent(event)) {
        OMK_ReportError(0, L"%hs(): SetEvent() err=%lu", "SignalAlertGeneratedEvent", GetLastError());
    }
    CloseHandle(event);
}

}  // namespace

ULONGLONG GetCreationTimeStampFromAlertFileName(const wchar_t* fileName) {
    const wchar_t* underscore = wcsrchr(fileName, L'_');
    if (underscore == nullptr) {
        OMK_ReportError(0, L"GetCreationTimeStampFromAlertFileName: could not find _ in %ws", fileName);
        return 0;
    }
    int month = 0, day = 0, year = 0, hour = 0, minute = 0, second = 0;
    if (swscanf(underscore + 1, L"%02d%02d%04d%02d%02d%02d", &month, &day, &year, &hour, &minute, &second) < 6) {
        return 0;
    }
    SYSTEMTIME time = {};
    time.wYear = static_cast<WORD>(year);
    time.wMonth = static_cast<WORD>(month);
    time.wDay = static_cast<WORD>(day);
    time.wHour = static_cast<WORD>(hour);
    time.wMinute = static_cast<WORD>(minute);
    time.wSecond = static_cast<WORD>(second);
    FILETIME fileTime;
    if (!SystemTimeToFileTime(&time, &fileTime)) {
        OMK_ReportError(0, L"GetCreationTimeStampFromAlertFileName: SystemTimeToFileTime failed %d - fileName %ws",
                        static_cast<int>(GetLastError()), fileName);
        return 0;
    }
    return (static_cast<ULONGLONG>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime;
}

void CheckMaxAlertFiles(DWORD maxFiles, const wchar_t* alertFolder) {
    wchar_t pattern[MAX_PATH];
    HRESULT hr = CStrHelper::StrPrintf(pattern, MAX_PATH, L"%ls\\%ls-%ls_*.%ls", alertFolder, g_serviceTag,
                                       L"ZORA_Alerts", L"xml");
    if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CStrHelper::StrPrintf() made query filename failed! hr=0x%x(%s)",
                        "CheckMaxAlertFiles", hr, ComErrorMessage(hr).Text());
        return;
    }
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW(pattern, &found);
    if (find == INVALID_HANDLE_VALUE) return;

    auto creation = [](const WIN32_FIND_DATAW& data) {
        return (static_cast<ULONGLONG>(data.ftCreationTime.dwHighDateTime) << 32) | data.ftCreationTime.dwLowDateTime;
    };
    constexpr size_t kOldestChars = 512;
    wchar_t oldest[kOldestChars];
    ULONGLONG oldestTime = creation(found);
    DWORD count = 1;
    hr = CStrHelper::StrPrintf(oldest, kOldestChars, L"%ls\\%ls", alertFolder, found.cFileName);
    while (SUCCEEDED(hr) && FindNextFileW(find, &found)) {
        ++count;
        if (creation(found) < oldestTime) {
            oldestTime = creation(found);
            hr = CStrHelper::StrPrintf(oldest, kOldestChars, L"%ls\\%ls", alertFolder, found.cFileName);
        }
    }
    if (FAILED(hr)) {
        OMK_ReportError(0, L"%hs(): CStrHelper::StrPrintf() made oldest filename failed! hr=0x%x(%s)",
                        "CheckMaxAlertFiles", hr, ComErrorMessage(hr).Text());
    }
    FindClose(find);
    if (count <= maxFiles) return;
    OMK_ReportError(0, L"%hs(): deleting oldest alert file %ls...", "CheckMaxAlertFiles", oldest);
    if (!DeleteFileW(oldest)) {
        OMK_ReportError(0, L"%hs(): DeleteFileW(%ls) failed! err=%lu", "CheckMaxAlertFiles", oldest, GetLastError());
    }
}

int AddToAlertDb(const wchar_t* alertFolder, DWORD /*reserved*/, DWORD removeXml, DWORD maxAlerts) {
    wchar_t path[OMK_ALERT_FILE_NAME_CHARS];
    CStrHelper::StrPrintf(path, OMK_ALERT_FILE_NAME_CHARS, L"%s\\%s", alertFolder, g_alertFileName);

    const ULONGLONG creationTime = GetCreationTimeStampFromAlertFileName(g_alertFileName);
    if (creationTime == 0) return 0;

    char* bytes = ReadValidateXmlFile(path);
    if (bytes == nullptr) {
        OMK_ReportError(0, L"AddToAlertDb: ReadValidateXmlFile %ls failed", path);
        return 0;
    }
    const int result = addToAlertDbCore(creationTime, bytes, maxAlerts);
    if (result == 0) {
        OMK_ReportError(0, L"AddToAlertDb: addToAlertDbCore %ls failed", path);
        free(bytes);
        --g_allocCount;
        return 0;
    }
    if (removeXml != 0 && !DeleteFileW(path)) {
        OMK_ReportError(0, L"AddToAlertDb: DeleteFile %ls failed %lu", path, GetLastError());
    }
    CheckMaxAlerts(maxAlerts);
    if (removeXml == 0) CheckMaxAlertFiles(maxAlerts, alertFolder);
    SignalAlertGeneratedEvent();
    free(bytes);
    --g_allocCount;
    return result;
}
