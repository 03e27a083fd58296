// Time to store one 2 KB alert in the alert database of 30 and of 10,000
// records. The floor is one SQLite insert of the same bytes on an open
// connection in the library's transaction mode (WAL, synchronous=FULL, one
// transaction per alert); against it stands the database work the engine does
// per alert through omkDb: open the store connection, look the creation time
// up, write, close, open the trim connection, keep the newest n, close.
// Last comes the engine's whole step, AddToAlertDb: read the alert file, check
// it is well-formed XML, the database work above, delete the file and set the
// alert-generated event (writing the file beforehand is not timed).
//
// Run under Wine in the build's prefix (it replaces the alert database there):
//   WINEPREFIX=$PWD/build/wineprefix WINEDEBUG=-all wine build/bin/alertDbBench.exe [rounds]
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "alertDatabase.h"
#include "conventions.h"
#include "omkDb.h"
#include "omkErrors.h"
#include "sqlite3.h"

namespace {

std::wstring DatabasePath() {
    wchar_t programData[MAX_PATH];
    DWORD n = GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH);
    std::wstring folder = (n > 0 && n < MAX_PATH) ? std::wstring(programData, n) : std::wstring(L"C:\\ProgramData");
    return folder + L"\\Varn\\Orlemark\\Data\\omkAlerts.db";
}

std::string Utf8(const std::wstring& text) {
    char buffer[MAX_PATH * 3];
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, buffer, sizeof(buffer), nullptr, nullptr);
    return buffer;
}

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

double Microseconds(const LARGE_INTEGER& from, const LARGE_INTEGER& to) {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(to.QuadPart - from.QuadPart) * 1e6 / static_cast<double>(frequency.QuadPart);
}

struct Figures {
    double median;
    double mean;
};

Figures Summarise(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    double sum = 0;
    for (double s : samples) sum += s;
    return {samples[samples.size() / 2], sum / static_cast<double>(samples.size())};
}

bool Exec(sqlite3* db, const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        fprintf(stderr, "%s: %s\n", sql, error != nullptr ? error : "?");
        sqlite3_free(error);
        return false;
    }
    return true;
}

// A new database of `records` alerts, made through the library (for its
// schema and mode) and filled in one transaction.
bool MakeDatabase(unsigned records) {
    std::wstring path = DatabasePath();
    DeleteFileW(path.c_str());
    DeleteFileW((path + L"-wal").c_str());
    DeleteFileW((path + L"-shm").c_str());
    if (!AlertDb_Open(1, 1)) return false;
    AlertDb_Close(1);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(Utf8(path).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
    bool ok = Exec(db, "BEGIN");
    sqlite3_stmt* insert = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "INSERT INTO alerts VALUES(?1, ?2, 0)", -1, &insert, nullptr) == SQLITE_OK;
    for (unsigned i = 0; ok && i < records; ++i) {
        std::string xml = Alert(i + 1);
        sqlite3_bind_int64(insert, 1, i + 1);
        sqlite3_bind_text(insert, 2, xml.c_str(), -1, SQLITE_TRANSIENT);
        ok = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    ok = ok && Exec(db, "COMMIT") && Exec(db, "PRAGMA wal_checkpoint(TRUNCATE)");
    sqlite3_close(db);
    return ok;
}

// One insert per transaction on an open connection; the oldest record is
// removed after each (untimed) so the database keeps its size.
bool Floor(unsigned records, int rounds, std::vector<double>& samples) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(Utf8(DatabasePath()).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
    bool ok = Exec(db, "PRAGMA journal_mode=WAL") && Exec(db, "PRAGMA synchronous=FULL");
    sqlite3_stmt* insert = nullptr;
    sqlite3_stmt* trim = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "INSERT INTO alerts VALUES(?1, ?2, ?3)", -1, &insert, nullptr) == SQLITE_OK;
    ok = ok && sqlite3_prepare_v2(db, "DELETE FROM alerts WHERE creation_time=(SELECT min(creation_time) FROM alerts)",
                                  -1, &trim, nullptr) == SQLITE_OK;
    for (int i = 0; ok && i < rounds; ++i) {
        unsigned long long t = 1000000ull + records + static_cast<unsigned long long>(i);
        std::string xml = Alert(t);
        LARGE_INTEGER from, to;
        QueryPerformanceCounter(&from);
        sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(t));
        sqlite3_bind_text(insert, 2, xml.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(insert, 3, static_cast<sqlite3_int64>(t));
        ok = sqlite3_step(insert) == SQLITE_DONE;
        QueryPerformanceCounter(&to);
        sqlite3_reset(insert);
        samples.push_back(Microseconds(from, to));
        ok = ok && sqlite3_step(trim) == SQLITE_DONE;
        sqlite3_reset(trim);
    }
    sqlite3_finalize(insert);
    sqlite3_finalize(trim);
    sqlite3_close(db);
    return ok;
}

// The engine's database calls for one alert, through omkDb; each step is
// timed too, so the cost of opening and closing shows apart from the insert.
const char* const kSteps[] = {"open store", "look up", "write", "close store", "open trim", "trim", "close trim"};
constexpr int kStepCount = 7;

bool StoreCycle(unsigned records, int rounds, std::vector<double>& samples, std::vector<double> (&steps)[kStepCount]) {
    for (int i = 0; i < rounds; ++i) {
        unsigned long long t = 2000000ull + records + static_cast<unsigned long long>(i);
        std::string xml = Alert(t);
        LARGE_INTEGER marks[kStepCount + 1];
        QueryPerformanceCounter(&marks[0]);
        if (!AlertDb_Open(1, 1)) return false;
        QueryPerformanceCounter(&marks[1]);
        ALERT_DB_RECORD* record = nullptr;
        bool found = AlertDb_ReadByCreationTimeW(t, &record) != 0;
        QueryPerformanceCounter(&marks[2]);
        bool ok = found || AlertDb_Write(t, xml.c_str()) != 0;
        QueryPerformanceCounter(&marks[3]);
        free(record);
        AlertDb_Close(1);
        QueryPerformanceCounter(&marks[4]);
        if (!ok || !AlertDb_Open(0, 0)) return false;
        QueryPerformanceCounter(&marks[5]);
        AlertDb_DeleteOldestRecords(records);
        QueryPerformanceCounter(&marks[6]);
        AlertDb_Close(0);
        QueryPerformanceCounter(&marks[7]);
        samples.push_back(Microseconds(marks[0], marks[kStepCount]));
        for (int s = 0; s < kStepCount; ++s) steps[s].push_back(Microseconds(marks[s], marks[s + 1]));
    }
    return true;
}

// AddToAlertDb on a fresh 2 KB alert file per round, stamped a second after
// the one before so every round stores a new record.
bool AddCycle(unsigned records, int rounds, std::vector<double>& samples) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring folder = std::wstring(temp) + L"alertDbBench";
    CreateDirectoryW(folder.c_str(), nullptr);
    SYSTEMTIME start = {2021, 1, 5, 1, 0, 0, 0, 0};
    FILETIME startTime;
    SystemTimeToFileTime(&start, &startTime);
    const unsigned long long first =
        (static_cast<unsigned long long>(startTime.dwHighDateTime) << 32) | startTime.dwLowDateTime;
    for (int i = 0; i < rounds; ++i) {
        unsigned long long t = first + static_cast<unsigned long long>(i) * 10000000ull;
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
                  WriteFile(file, xml.data(), static_cast<DWORD>(xml.size()), &written, nullptr) &&
                  written == xml.size();
        if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
        if (!ok) return false;
        LARGE_INTEGER from, to;
        QueryPerformanceCounter(&from);
        ok = AddToAlertDb(folder.c_str(), 0, 1, records) != 0;
        QueryPerformanceCounter(&to);
        if (!ok) return false;
        samples.push_back(Microseconds(from, to));
    }
    RemoveDirectoryW(folder.c_str());
    return true;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"alertDbBench.txt");
    int rounds = argc > 1 ? _wtoi(argv[1]) : 200;
    if (rounds < 1) rounds = 1;
    if (!InitSqliteLib()) return 1;
    // Engine initialisation owns this event in the service; here the bench does.
    HANDLE alertEvent = CreateEventW(nullptr, FALSE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
    wcscpy(g_serviceTag, L"ABC1234");
    printf("store one 2 KB alert: %d rounds each, microseconds (median / mean)\n", rounds);
    printf("%8s  %22s  %22s  %14s  %22s  %14s\n", "records", "floor: one insert", "omkDb store + trim",
           "ratio (median)", "AddToAlertDb", "ratio (median)");
    for (unsigned records : {30u, 10000u}) {
        std::vector<double> floor, cycle, add, steps[kStepCount];
        if (!MakeDatabase(records) || !Floor(records, rounds, floor)) {
            fprintf(stderr, "floor run failed for %u records\n", records);
            return 2;
        }
        if (!MakeDatabase(records) || !StoreCycle(records, rounds, cycle, steps)) {
            fprintf(stderr, "omkDb run failed for %u records\n", records);
            return 3;
        }
        if (!MakeDatabase(records) || !AddCycle(records, rounds, add)) {
            fprintf(stderr, "AddToAlertDb run failed for %u records\n", records);
            return 4;
        }
        Figures f = Summarise(floor);
        Figures c = Summarise(cycle);
        Figures a = Summarise(add);
        printf("%8u  %10.0f / %9.0f  %10.0f / %9.0f  %14.2f  %10.0f / %9.0f  %14.2f\n", records, f.median, f.mean,
               c.median, c.mean, c.median / f.median, a.median, a.mean, a.median / f.median);
        printf("          omkDb steps (median):");
        for (int s = 0; s < kStepCount; ++s)
            printf(" %s %.0f%s", kSteps[s], Summarise(steps[s]).median, s + 1 < kStepCount ? "," : "\n");
    }
    FreeSqliteLib();
    if (alertEvent != nullptr) CloseHandle(alertEvent);
    return 0;
}
