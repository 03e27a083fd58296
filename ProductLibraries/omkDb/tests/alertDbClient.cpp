// Second process of the alert database tests.
//   alertDbClient write <first> <count> <mapping>   stores records, counting each stored one in the mapping
//   alertDbClient read <first> <count> <timeoutMs> <event>
//                                                   sets the event once open, then waits for each record
//                                                   in turn and checks its text
//   alertDbClient hold <ms> <event>                 holds the write lock for that long, setting the event once held
// Exit code 0 means everything went as expected.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "alertDbTestData.h"
#include "omkDb.h"
#include "omkErrors.h"
#include "sqlite3.h"

namespace {

int Write(unsigned long long first, unsigned long long count, const wchar_t* mappingName) {
    HANDLE mapping = OpenFileMappingW(FILE_MAP_WRITE, FALSE, mappingName);
    if (mapping == nullptr) return 10;
    auto* stored = static_cast<volatile LONG*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(LONG)));
    if (stored == nullptr) return 11;
    if (!InitSqliteLib() || !AlertDb_Open(1, 1)) return 12;
    for (unsigned long long i = 0; i < count; ++i) {
        if (!AlertDb_Write(first + i, alertdbtest::AlertXml(first + i).c_str())) return 13;
        InterlockedIncrement(stored);  // only after the library said it is stored
    }
    AlertDb_Close(1);
    FreeSqliteLib();
    return 0;
}

bool Matches(ALERT_DB_RECORD* record, unsigned long long time) {
    bool ok = record->creationTime == time && alertdbtest::AlertXml(time) == record->xml;
    free(record);
    return ok;
}

int Read(unsigned long long first, unsigned long long count, DWORD timeoutMs, const wchar_t* eventName) {
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, eventName);
    if (ready == nullptr) return 25;
    if (!InitSqliteLib() || !AlertDb_Open(0, 0)) return 20;
    SetEvent(ready);
    DWORD start = GetTickCount();
    unsigned long long next = first;
    unsigned waits = 0;
    while (next < first + count) {
        ALERT_DB_RECORD* record = nullptr;
        if (AlertDb_ReadByCreationTimeW(next, &record)) {
            if (!Matches(record, next)) return 21;
            // An earlier record must still read whole while the writer goes on.
            record = nullptr;
            unsigned long long earlier = first + (next - first) / 2;
            if (!AlertDb_ReadByCreationTimeW(earlier, &record) || !Matches(record, earlier)) return 22;
            ++next;
        } else {
            ++waits;
            if (GetTickCount() - start > timeoutMs) return 23;
            Sleep(1);
        }
    }
    AlertDb_Close(0);
    FreeSqliteLib();
    return waits > 0 ? 0 : 24;  // 24: never saw the writer at work
}

int Hold(DWORD ms, const wchar_t* eventName) {
    HANDLE held = OpenEventW(EVENT_MODIFY_STATE, FALSE, eventName);
    if (held == nullptr) return 30;
    std::wstring path = alertdbtest::DatabasePath();
    char utf8[MAX_PATH * 3];
    WideCharToMultiByte(CP_UTF8, 0, path.c_str(), -1, utf8, sizeof(utf8), nullptr, nullptr);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(utf8, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return 31;
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) return 32;
    SetEvent(held);
    Sleep(ms);
    if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) return 33;
    sqlite3_close(db);
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"alertDbClient.txt");
    if (argc == 5 && wcscmp(argv[1], L"write") == 0) {
        return Write(_wcstoui64(argv[2], nullptr, 10), _wcstoui64(argv[3], nullptr, 10), argv[4]);
    }
    if (argc == 6 && wcscmp(argv[1], L"read") == 0) {
        return Read(_wcstoui64(argv[2], nullptr, 10), _wcstoui64(argv[3], nullptr, 10),
                    static_cast<DWORD>(_wtoi(argv[4])), argv[5]);
    }
    if (argc == 4 && wcscmp(argv[1], L"hold") == 0) return Hold(static_cast<DWORD>(_wtoi(argv[2])), argv[3]);
    return 2;
}
