// What `omk-alerts export` costs on alert databases of 1,000 and of 100,000
// alerts: time, throughput and the peak memory of the tool's process, for
// each format. The export reads through a cursor, one record at a time, so
// its peak memory must not grow with the number of alerts: the smaller
// database is the floor the larger one is held to (target: peak working set
// of 100,000 within 1.2 x that of 1,000).
//
// The databases are made in %TEMP% with SQLite directly, in the layout
// omkDb.dll writes (WAL, one record per alert file of 8 data items).
//   WINEPREFIX=$PWD/build/wineprefix WINEDEBUG=-all wine build/bin/omkAlertsBench.exe [alerts ...]
#include <windows.h>

#include <psapi.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "benchSupport.h"
#include "sqlite3.h"
#include "utf8Text.h"

namespace {

// An alert file as the service writes it for a collector event of 8 items.
std::string Alert(int i) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<TolvaneAlerts>\r\n<ServiceTag>ABC1234</ServiceTag>\r\n"
        "\t<Alert>\r\n\t\t<AlertId>" +
        omkbench::RuleGuid(i + 1000000) + "</AlertId>\r\n\t\t<RuleGuid>" + omkbench::RuleGuid(i % 50) +
        "</RuleGuid>\r\n\t\t<RuleType>OMKCollectorRules</RuleType>\r\n"
        "\t\t<DateTime>2024-05-01T14:00:00+02:00</DateTime>\r\n\t\t<Message>Battery capacity is degraded; plan a "
        "battery replacement.</Message>\r\n\t\t<Battery>\r\n";
    for (int item = 0; item < 8; ++item) {
        text += "\t\t<Item" + std::to_string(item) + ">value " + std::to_string(i * 8 + item) + "</Item" +
                std::to_string(item) + ">\r\n";
    }
    return text + "\t\t</Battery>\r\n\t</Alert>\r\n</TolvaneAlerts>\r\n";
}

bool MakeDatabase(const std::wstring& path, int alerts) {
    for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((path + suffix).c_str());
    sqlite3* db = nullptr;
    bool ok = sqlite3_open(Utf8(path).c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db,
                           "PRAGMA journal_mode=WAL; CREATE TABLE alerts(id INTEGER PRIMARY KEY, creation_time "
                           "INTEGER NOT NULL UNIQUE, xml TEXT NOT NULL, stored_utc INTEGER NOT NULL); BEGIN",
                           nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_stmt* insert = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(?1, ?2, ?3)", -1,
                                  &insert, nullptr) == SQLITE_OK;
    const unsigned long long first = 133500000000000000ull;
    for (int i = 0; ok && i < alerts; ++i) {
        const std::string xml = Alert(i);
        sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(first + i * 10000000ull));
        sqlite3_bind_text(insert, 2, xml.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 3, static_cast<sqlite3_int64>(first + i * 10000000ull + 5000000));
        ok = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
    }
    sqlite3_finalize(insert);
    ok = ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

struct Figures {
    DWORD exitCode = 0xDEAD;
    double seconds = 0;
    double peakWorkingSetMiB = 0;
    double peakPrivateMiB = 0;
};

Figures Run(const std::wstring& arguments) {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring folder(self);
    folder.erase(folder.find_last_of(L'\\'));
    std::wstring command = L"\"" + folder + L"\\omk-alerts.exe\" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    Figures figures;
    const double start = omkbench::NowMs();
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        return figures;
    }
    // Peaks sampled while it runs as well, in case the figures of an ended
    // process are not kept.
    PROCESS_MEMORY_COUNTERS counters = {};
    SIZE_T peakWorkingSet = 0, peakPrivate = 0;
    while (WaitForSingleObject(process.hProcess, 20) == WAIT_TIMEOUT) {
        if (GetProcessMemoryInfo(process.hProcess, &counters, sizeof(counters))) {
            peakWorkingSet = std::max(peakWorkingSet, counters.PeakWorkingSetSize);
            peakPrivate = std::max(peakPrivate, counters.PeakPagefileUsage);
        }
    }
    figures.seconds = (omkbench::NowMs() - start) / 1000.0;
    if (GetProcessMemoryInfo(process.hProcess, &counters, sizeof(counters))) {
        peakWorkingSet = std::max(peakWorkingSet, counters.PeakWorkingSetSize);
        peakPrivate = std::max(peakPrivate, counters.PeakPagefileUsage);
    }
    GetExitCodeProcess(process.hProcess, &figures.exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    figures.peakWorkingSetMiB = static_cast<double>(peakWorkingSet) / (1024.0 * 1024.0);
    figures.peakPrivateMiB = static_cast<double>(peakPrivate) / (1024.0 * 1024.0);
    return figures;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(_wtoi(argv[i]));
    if (sizes.empty()) sizes = {1000, 100000};
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring output = std::wstring(temp) + L"omkAlertsBench.out";

    printf("%8s %-6s %9s %10s %14s %13s %11s %s\n", "alerts", "format", "seconds", "alerts/s", "peak WS MiB",
           "peak priv MiB", "output MiB", "WS / smallest");
    double floorWorkingSet[3] = {0, 0, 0};
    for (int alerts : sizes) {
        const std::wstring db = std::wstring(temp) + L"omkAlertsBench-" + std::to_wstring(alerts) + L".db";
        if (!MakeDatabase(db, alerts)) {
            fprintf(stderr, "could not make a database of %d alerts\n", alerts);
            return 1;
        }
        const wchar_t* formats[] = {L"json", L"csv", L"xml"};
        for (int f = 0; f < 3; ++f) {
            Figures figures = Run(L"export --format " + std::wstring(formats[f]) + L" --db \"" + db +
                                  L"\" --output \"" + output + L"\"");
            if (floorWorkingSet[f] == 0) floorWorkingSet[f] = figures.peakWorkingSetMiB;
            WIN32_FILE_ATTRIBUTE_DATA data = {};
            GetFileAttributesExW(output.c_str(), GetFileExInfoStandard, &data);
            const double outputMiB =
                static_cast<double>((static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow) /
                (1024.0 * 1024.0);
            printf("%8d %-6ls %9.2f %10.0f %14.1f %13.1f %11.1f %.2f%s\n", alerts, formats[f], figures.seconds,
                   alerts / figures.seconds, figures.peakWorkingSetMiB, figures.peakPrivateMiB, outputMiB,
                   figures.peakWorkingSetMiB / floorWorkingSet[f],
                   figures.exitCode == 0 ? "" : ("  exit code " + std::to_string(figures.exitCode)).c_str());
            fflush(stdout);
        }
        for (const wchar_t* suffix : {L"", L"-wal", L"-shm"}) DeleteFileW((db + suffix).c_str());
    }
    DeleteFileW(output.c_str());
    return 0;
}
