// Time to store one 2 KB alert with the engine's AddToAlertDb (read the alert
// file, check it is well-formed XML, look its creation time up, store it,
// delete the file, trim the database, set the alert-generated event) against
// the floor: one SQLite insert of the same bytes on an open connection in the
// library's transaction mode (WAL, every commit synced). Both run on
// databases of 30 and of 10,000 records that every round keeps at that size
// (AddToAlertDb trims one record per store; the floor deletes its oldest
// untimed), each on its own file, a floor round and an AddToAlertDb round in
// turn so that both see the same machine. Writing the alert file beforehand
// is not timed. As in the service, another thread holds the process's COM
// apartment (the COM server thread does there). A third round makes
// AddToAlertDb's steps one at a time and times each, to show what the store
// must do besides its insert. Target: AddToAlertDb at most 2 x the floor.
//
// Run under Wine in the build's prefix (it replaces the alert database there):
//   WINEPREFIX=$PWD/build/wineprefix WINEDEBUG=-all wine build/bin/alertDbBench.exe [rounds]
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "alertDatabase.h"
#include "benchSupport.h"
#include "cdef.h"
#include "conventions.h"
#include "omkDb.h"
#include "omkErrors.h"
#include "sqlite3.h"
#include "textFileHelpers.h"
#include "utf8Text.h"
#include "xmlAccess.h"

namespace {

// A 2 KB alert file's text (2048 bytes).
std::string Alert(unsigned long long creationTime) {
    const std::string tail = "\t</Alert>\r\n</TolvaneAlerts>\r\n";
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<TolvaneAlerts>\r\n<ServiceTag>ABC1234</ServiceTag>";
    text += "\r\n\t<Alert>\r\n\t\t<AlertId>" + std::to_string(creationTime) + "</AlertId>\r\n";
    while (text.size() + 64 + tail.size() < 2048)
        text += "\t\t<Item>some collected value " + std::to_string(text.size()) + "</Item>\r\n";
    text.append(2048 - tail.size() - text.size(), ' ');
    return text + tail;
}

bool Exec(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        fprintf(stderr, "%s: %s\n", sql.c_str(), error != nullptr ? error : "?");
        sqlite3_free(error);
        return false;
    }
    return true;
}

void RemoveDatabase(const std::wstring& path) {
    for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((path + suffix).c_str());
}

// The library's database (made by it, for its schema) and a copy for the
// floor, each filled with `records` alerts; the floor's connection is
// returned open, ready for its inserts.
sqlite3* MakeDatabases(const std::wstring& path, const std::wstring& floorPath, unsigned records) {
    FreeSqliteLib();
    RemoveDatabase(path);
    RemoveDatabase(floorPath);
    if (!InitSqliteLib() || !AlertDb_Open(1, 1)) return nullptr;
    AlertDb_Close(1);
    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
    bool ok =
        sqlite3_open_v2(Utf8(path).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK && Exec(db, "BEGIN");
    ok = ok && sqlite3_prepare_v2(db, "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(?1, ?2, 0)", -1,
                                  &insert, nullptr) == SQLITE_OK;
    for (unsigned i = 0; ok && i < records; ++i) {
        std::string xml = Alert(i + 1);
        sqlite3_bind_int64(insert, 1, i + 1);
        sqlite3_bind_text(insert, 2, xml.c_str(), -1, SQLITE_TRANSIENT);
        ok = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    ok = ok && Exec(db, "COMMIT") && Exec(db, "VACUUM INTO '" + Utf8(floorPath) + "'");
    sqlite3_close(db);
    db = nullptr;
    ok = ok && sqlite3_open_v2(Utf8(floorPath).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
         Exec(db, "PRAGMA journal_mode=WAL") && Exec(db, "PRAGMA synchronous=FULL");
    if (!ok) {
        sqlite3_close(db);
        return nullptr;
    }
    return db;
}

// One floor round: the timed insert, then the untimed delete of the oldest.
bool FloorRound(sqlite3_stmt* insert, sqlite3_stmt* trim, unsigned long long t, std::vector<double>& samples) {
    std::string xml = Alert(t);
    double from = omkbench::NowMs();
    sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(t));
    sqlite3_bind_text(insert, 2, xml.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(insert, 3, static_cast<sqlite3_int64>(t));
    bool ok = sqlite3_step(insert) == SQLITE_DONE;
    samples.push_back(omkbench::NowMs() - from);
    sqlite3_reset(insert);
    ok = ok && sqlite3_step(trim) == SQLITE_DONE;
    sqlite3_reset(trim);
    return ok;
}

// Writes the alert file stamped `t` (whole seconds) as the engine names it; its path.
std::wstring PutAlertFile(const std::wstring& folder, unsigned long long t) {
    FILETIME ft = {static_cast<DWORD>(t), static_cast<DWORD>(t >> 32)};
    SYSTEMTIME st;
    FileTimeToSystemTime(&ft, &st);
    swprintf(g_alertFileName, OMK_ALERT_FILE_NAME_CHARS, L"%s%s_%02d%02d%04d%02d%02d%02d%s", g_serviceTag,
             L"-ZORA_Alerts", st.wMonth, st.wDay, st.wYear, st.wHour, st.wMinute, st.wSecond, L".xml");
    const std::wstring path = folder + L"\\" + g_alertFileName;
    const std::string xml = Alert(t);
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    bool ok = file != INVALID_HANDLE_VALUE &&
              WriteFile(file, xml.data(), static_cast<DWORD>(xml.size()), &written, nullptr) && written == xml.size();
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    return ok ? path : std::wstring();
}

// One AddToAlertDb round on a fresh alert file stamped `t`.
bool AddRound(const std::wstring& folder, unsigned records, unsigned long long t, std::vector<double>& samples) {
    bool ok = !PutAlertFile(folder, t).empty();
    double from = omkbench::NowMs();
    ok = ok && AddToAlertDb(folder.c_str(), 0, 1, records) != 0;
    samples.push_back(omkbench::NowMs() - from);
    return ok;
}

// AddToAlertDb's steps made one at a time through the calls it makes, each
// timed: what a store must do besides its insert (read the file, check it,
// look the creation time up, delete the file, signal), and the insert with
// the trim in its commit. The keys lie half a second after AddRound's.
enum Step { kRead, kCheck, kLookup, kStore, kDelete, kSignal, kSteps };
const char* const kStepNames[kSteps] = {"read", "XML check", "look up", "store+trim", "delete file", "signal"};

bool StepsRound(const std::wstring& folder, unsigned records, unsigned long long t,
                std::vector<double> (&samples)[kSteps]) {
    const std::wstring path = PutAlertFile(folder, t);
    double at[kSteps + 1];
    at[kRead] = omkbench::NowMs();
    char* bytes = ReadMultiByteUtf8File(path.c_str());
    at[kCheck] = omkbench::NowMs();
    wchar_t* wide = bytes != nullptr ? MultiByteUTF8_To_WideCHAR(bytes) : nullptr;
    bool ok = wide != nullptr && CheckXML(wide) != 0;
    at[kLookup] = omkbench::NowMs();
    ALERT_DB_RECORD* record = nullptr;
    ok = ok && AlertDb_Open(1, 1) && !AlertDb_ReadByCreationTimeW(t + 5000000, &record);
    at[kStore] = omkbench::NowMs();
    ok = ok && AlertDb_WriteAndTrim(t + 5000000, bytes, records);
    AlertDb_Close(1);
    at[kDelete] = omkbench::NowMs();
    ok = ok && DeleteFileW(path.c_str());
    at[kSignal] = omkbench::NowMs();
    HANDLE event = OpenEventW(0x1F0003, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
    ok = ok && event != nullptr && SetEvent(event);
    if (event != nullptr) CloseHandle(event);
    at[kSteps] = omkbench::NowMs();
    for (int step = 0; step < kSteps; ++step) samples[step].push_back(1000 * (at[step + 1] - at[step]));
    for (void* block : {static_cast<void*>(bytes), static_cast<void*>(wide)}) {
        if (block == nullptr) continue;
        free(block);
        --g_allocCount;
    }
    return ok;
}

// The COM server thread's part: the process's multithreaded apartment, held until told.
DWORD WINAPI HoldApartment(void* stop) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    WaitForSingleObject(stop, INFINITE);
    CoUninitialize();
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"alertDbBench.txt");
    int rounds = argc > 1 ? _wtoi(argv[1]) : 200;
    if (rounds < 1) rounds = 1;
    HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE apartment = CreateThread(nullptr, 0, HoldApartment, stop, 0, nullptr);
    // Engine initialisation owns this event in the service; here the bench does.
    HANDLE alertEvent = CreateEventW(nullptr, FALSE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
    wcscpy(g_serviceTag, L"ABC1234");
    const std::wstring path = std::wstring(CDef::GetInstance().FOLDER_OMK_DATABASE) + L"\\omkAlerts.db";
    const std::wstring floorPath = path + L".floor";
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring folder = std::wstring(temp) + L"alertDbBench";
    CreateDirectoryW(folder.c_str(), nullptr);

    printf("store one 2 KB alert: %d rounds each, milliseconds (target: ratio <= 2.0)\n", rounds);
    printf("%8s  %28s  %28s  %14s\n", "records", "floor: one insert (median)", "AddToAlertDb (median)", "ratio");
    int status = 0;
    for (unsigned records : {30u, 10000u}) {
        sqlite3* floorDb = MakeDatabases(path, floorPath, records);
        sqlite3_stmt* insert = nullptr;
        sqlite3_stmt* trim = nullptr;
        bool ok = floorDb != nullptr &&
                  sqlite3_prepare_v2(floorDb, "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(?1, ?2, ?3)",
                                     -1, &insert, nullptr) == SQLITE_OK &&
                  sqlite3_prepare_v2(floorDb, "DELETE FROM alerts WHERE id=(SELECT min(id) FROM alerts)", -1, &trim,
                                     nullptr) == SQLITE_OK;
        std::vector<double> floor, add, steps[kSteps];
        // Creation times from 5 January 2021 on, one second apart.
        const unsigned long long first = 132544224000000000ull;
        for (int i = 0; ok && i < rounds; ++i) {
            unsigned long long t = first + static_cast<unsigned long long>(i) * 10000000ull;
            ok = FloorRound(insert, trim, t, floor) && AddRound(folder, records, t, add) &&
                 StepsRound(folder, records, t, steps);
        }
        sqlite3_finalize(insert);
        sqlite3_finalize(trim);
        sqlite3_close(floorDb);
        if (!ok) {
            fprintf(stderr, "the run for %u records failed\n", records);
            status = 2;
            break;
        }
        double f = omkbench::Median(floor);
        double a = omkbench::Median(add);
        printf("%8u  %28.3f  %28.3f  %14.2f\n", records, f, a, a / f);
        printf("          its steps on their own (median, us):");
        for (int step = 0; step < kSteps; ++step) printf(" %s %.0f", kStepNames[step], omkbench::Median(steps[step]));
        printf("\n          store+trim alone is %.2f x the floor\n", omkbench::Median(steps[kStore]) / (1000 * f));
    }
    FreeSqliteLib();
    ReleaseThreadXML();
    RemoveDatabase(floorPath);
    RemoveDirectoryW(folder.c_str());
    SetEvent(stop);
    WaitForSingleObject(apartment, INFINITE);
    if (alertEvent != nullptr) CloseHandle(alertEvent);
    return status;
}
