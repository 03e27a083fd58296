// Second process of the alert database tests.
//   alertDbClient write <first> <count>         stores first, first+1, ... and is killed right after
//   alertDbClient read <first> <count> <event>  opens read-only, sets the event, then reads each record
//                                               in turn (waiting up to 60 s for it) and checks its text
//   alertDbClient store <time>                  stores one record and reports it to the error log
// Exit code 0 means everything went as expected.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "alertDbTestData.h"
#include "omkDb.h"
#include "omkErrors.h"

namespace {

// Killed (exit code 7) right after the last store was reported, with nothing closed.
int Write(unsigned long long first, unsigned long long count) {
    if (!InitSqliteLib() || !AlertDb_Open(1, 1)) return 10;
    for (unsigned long long t = first; t < first + count; ++t) {
        if (!AlertDb_Write(t, alertdbtest::AlertXml(t).c_str())) return 11;
    }
    TerminateProcess(GetCurrentProcess(), 7);
    return 12;
}

int Read(unsigned long long first, unsigned long long count, const wchar_t* eventName) {
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, eventName);
    if (ready == nullptr || !InitSqliteLib() || !AlertDb_OpenReadOnly(nullptr)) return 20;
    SetEvent(ready);
    const DWORD start = GetTickCount();
    for (unsigned long long t = first; t < first + count;) {
        ALERT_DB_RECORD* record = nullptr;
        if (AlertDb_ReadByCreationTimeW(t, &record)) {
            bool whole = record->creationTime == t && alertdbtest::AlertXml(t) == record->xml;
            free(record);
            if (!whole) return 21;
            ++t;
        } else if (GetTickCount() - start > 60000) {
            return 22;
        } else {
            Sleep(1);
        }
    }
    AlertDb_CloseReadOnly();
    FreeSqliteLib();
    return 0;
}

int Store(unsigned long long time) {
    if (!InitSqliteLib() || !AlertDb_Open(1, 1) || !AlertDb_Write(time, "<stored/>")) return 40;
    OMK_ReportError(0, L"stored %I64u", time);
    FreeSqliteLib();
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"alertDbClient.txt");
    const unsigned long long n = argc > 2 ? _wcstoui64(argv[2], nullptr, 10) : 0;
    if (argc == 4 && wcscmp(argv[1], L"write") == 0) return Write(n, _wcstoui64(argv[3], nullptr, 10));
    if (argc == 5 && wcscmp(argv[1], L"read") == 0) return Read(n, _wcstoui64(argv[3], nullptr, 10), argv[4]);
    if (argc == 3 && wcscmp(argv[1], L"store") == 0) return Store(n);
    return 2;
}
