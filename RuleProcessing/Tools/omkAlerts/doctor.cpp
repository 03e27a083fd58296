// doctor: what someone supporting a machine checks first, each finding with
// what to do about it. Exit code 1 when anything needs attention.
#include <windows.h>

#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "alertDatabase.h"
#include "alertOutput.h"
#include "cdef.h"
#include "commands.h"
#include "conventions.h"
#include "pluginFile.h"
#include "pluginRegistry.h"
#include "readOnlyDatabase.h"
#include "storedAlert.h"

namespace omkalerts {

namespace {

const wchar_t kServiceName[] = L"OMKRulesProcessor";
constexpr size_t kErrorLogLines = 10;

// The report: lines for a person, findings marked with "!" and counted.
class Report {
public:
    void Line(const std::string& text) { StdOut().Write("  " + text + "\r\n"); }
    void Finding(const std::string& text) {
        StdOut().Write("! " + text + "\r\n");
        ++findings_;
    }
    int Findings() const { return findings_; }

private:
    int findings_ = 0;
};

void CheckService(Report& report) {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service = manager != nullptr ? OpenServiceW(manager, kServiceName, SERVICE_QUERY_STATUS) : nullptr;
    const DWORD error = GetLastError();
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    const bool queried =
        service != nullptr && QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                                   sizeof(status), &needed);
    const std::string name = "Service OMKRulesProcessor";
    if (service == nullptr) {
        report.Finding(name + (error == ERROR_SERVICE_DOES_NOT_EXIST
                                   ? " is not installed"
                                   : " cannot be queried (error " + std::to_string(error) + ")"));
    } else if (!queried) {
        report.Finding(name + " cannot be queried (error " + std::to_string(GetLastError()) + ")");
    } else if (status.dwCurrentState == SERVICE_RUNNING) {
        report.Line(name + " is running (process " + std::to_string(status.dwProcessId) + ")");
    } else if (status.dwCurrentState == SERVICE_STOPPED) {
        report.Finding(name + " is stopped (exit code " + std::to_string(status.dwWin32ExitCode) +
                       "): no event is handled; start it with: net start OMKRulesProcessor");
    } else {
        report.Finding(name + " is starting, stopping or paused (state " + std::to_string(status.dwCurrentState) + ")");
    }
    if (service != nullptr) CloseServiceHandle(service);
    if (manager != nullptr) CloseServiceHandle(manager);
}

bool CheckDatabase(Report& report, ReadOnlyDatabase& database, const std::wstring& path) {
    report.Line("Database " + Utf8(path));
    std::string problem;
    if (!database.Open(path, &problem)) {
        report.Finding(problem);
        return false;
    }
    char integrity[2048];
    if (AlertDb_CheckIntegrity(integrity, sizeof(integrity))) {
        report.Line("  integrity_check: ok");
    } else {
        report.Finding("the database fails its integrity check: " + std::string(integrity));
    }
    const ALERT_DB_SUMMARY& summary = database.Summary();
    report.Line("  " + std::to_string(summary.count) + " records" +
                (summary.count == 0 ? std::string()
                                    : ", the newest created " + IsoUtcText(summary.newestCreationTime) + " (stored " +
                                          IsoUtcText(summary.newestStoredUtc) + ")"));
    return true;
}

// Why an alert file of the archive has no record, or "" when it has one.
std::string WhyUnstored(const std::wstring& folder, const std::wstring& name) {
    const ULONGLONG creationTime = GetCreationTimeStampFromAlertFileName(name.c_str());
    if (creationTime == 0) return "the time stamp in its name gives no creation time, so it is never stored";
    ALERT_DB_RECORD* record = nullptr;
    if (AlertDb_ReadByCreationTimeW(creationTime, &record)) {
        free(record);
        return std::string();
    }
    const std::wstring path = folder + L"\\" + name;
    char* bytes = ReadValidateXmlFile(path.c_str());
    if (bytes == nullptr) {
        return "not well-formed XML (a value with \"&\" or \"<\" is written as it is), so it is never stored";
    }
    free(bytes);
    --g_allocCount;
    return "well-formed, but no record has its creation time " + IsoUtcText(creationTime) +
           " (its store failed, or the record was trimmed)";
}

void CheckArchive(Report& report, const std::wstring& folder) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((folder + L"\\*-ZORA_Alerts_*.xml").c_str(), &found);
    if (find != INVALID_HANDLE_VALUE) {
        do names.push_back(found.cFileName);
        while (FindNextFileW(find, &found));
        FindClose(find);
    }
    std::sort(names.begin(), names.end());
    std::vector<std::string> unstored;
    for (const std::wstring& name : names) {
        const std::string why = WhyUnstored(folder, name);
        if (why.empty()) continue;
        unstored.push_back(Utf8(name) + ": " + why + "\r\n      inspect it with: type \"" +
                           Utf8(folder + L"\\" + name) + "\"");
    }
    report.Line("Archive " + Utf8(folder) + ": " + std::to_string(names.size()) + " alert files, " +
                std::to_string(unstored.size()) + " not in the database");
    for (const std::string& line : unstored) report.Finding("  " + line);
}

struct PluginWalk {
    Report* report;
    const char* kind;
    DWORD visited = 0;  // subkeys with a DllPath the walk could read
    DWORD usable = 0;
};

bool CheckPlugin(void* context, const wchar_t* name, const wchar_t* dllPath) {
    PluginWalk* walk = static_cast<PluginWalk*>(context);
    ++walk->visited;
    const std::string line = std::string(walk->kind) + "\\" + Utf8(name) + ": " + Utf8(dllPath);
    WORD version[4] = {};
    if (GetFileAttributesW(dllPath) == INVALID_FILE_ATTRIBUTES) {
        walk->report->Finding("  " + line + ": the file is missing");
    } else if (!IsFileSignatureValid(dllPath)) {
        walk->report->Finding("  " + line + ": its signature is not valid, so the service does not load it");
    } else {
        GetFileVersionNumbers(dllPath, &version[0], &version[1], &version[2], &version[3]);
        walk->report->Line("  " + line + ", version " + std::to_string(version[0]) + "." + std::to_string(version[1]) +
                           "." + std::to_string(version[2]) + "." + std::to_string(version[3]) + ", signature valid");
        ++walk->usable;
    }
    return false;  // nothing is loaded: the walk closes the subkey
}

void CheckPlugins(Report& report) {
    report.Line("Plugins under HKLM\\Software\\Varn Inc.\\Orlemark");
    const struct {
        const char* kind;
        const wchar_t* key;
    } kinds[] = {{"RulePlugin", OMK_RULE_PLUGIN_KEY}, {"ActionPlugin", OMK_ACTION_PLUGIN_KEY}};
    for (const auto& kind : kinds) {
        HKEY key = nullptr;
        DWORD subkeys = 0;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kind.key, 0, KEY_READ, &key) != ERROR_SUCCESS ||
            RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr) != ERROR_SUCCESS) {
            report.Finding(std::string("  no ") + kind.kind + " is registered: the service does not start without one");
            if (key != nullptr) RegCloseKey(key);
            continue;
        }
        PluginWalk walk{&report, kind.kind};
        WalkPluginSubkeys("omk-alerts doctor", key, subkeys, CheckPlugin, &walk);
        RegCloseKey(key);
        if (walk.visited < subkeys) {
            report.Finding("  " + std::to_string(subkeys - walk.visited) + " " + kind.kind +
                           " registrations have no readable DllPath of type REG_SZ, so the service skips them");
        }
        if (walk.usable == 0) {
            report.Finding(std::string("  no ") + kind.kind + " can be loaded: the service does not start");
        }
    }
}

// The service's error log: the newest "<service tag>_OMKW_Errlog.txt" in the log folder.
void ShowErrorLog(Report& report, const std::wstring& folder) {
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((folder + L"\\*_OMKW_Errlog.txt").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) {
        report.Line("Error log: none in " + Utf8(folder));
        return;
    }
    std::wstring newest;
    FILETIME newestTime = {};
    do {
        if (newest.empty() || CompareFileTime(&found.ftLastWriteTime, &newestTime) > 0) {
            newest = found.cFileName;
            newestTime = found.ftLastWriteTime;
        }
    } while (FindNextFileW(find, &found));
    FindClose(find);
    const std::wstring path = folder + L"\\" + newest;
    std::string tail;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER size = {};
    if (file != INVALID_HANDLE_VALUE && GetFileSizeEx(file, &size)) {
        const LONGLONG start = size.QuadPart > 16384 ? size.QuadPart - 16384 : 0;
        LARGE_INTEGER at;
        at.QuadPart = start;
        tail.resize(static_cast<size_t>(size.QuadPart - start));
        DWORD read = 0;
        if (!SetFilePointerEx(file, at, nullptr, FILE_BEGIN) ||
            !ReadFile(file, &tail[0], static_cast<DWORD>(tail.size()), &read, nullptr)) {
            read = 0;
        }
        tail.resize(read);
    }
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < tail.size()) {
        size_t end = tail.find('\n', begin);
        if (end == std::string::npos) end = tail.size();
        std::string line = tail.substr(begin, end - begin);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) lines.push_back(line);
        begin = end + 1;
    }
    if (lines.size() > kErrorLogLines) lines.erase(lines.begin(), lines.end() - kErrorLogLines);
    report.Line("Error log " + Utf8(path) + ", its last lines:");
    for (const std::string& line : lines) report.Line("  " + line);
}

}  // namespace

int DoctorCommand(const Options& options) {
    Report report;
    CheckService(report);

    // The service's own data folder may differ from this process's (under
    // Wine a service's %ProgramData% is C:\users\Public): say which was read.
    std::wstring data = Wide(options.data), archive, log, databasePath;
    if (data.empty()) {
        const CDef& folders = CDef::GetInstance();
        data = folders.FOLDER_OMK_STORAGE_LOCATION;
        archive = folders.FOLDER_OMK_ALERT;
        log = folders.FOLDER_OMK_LOG;
        databasePath = ReadOnlyDatabase::Resolve(Wide(options.db));
        report.Line("Data folder " + Utf8(data) +
                    " (this process's; --data FOLDER looks in another, such as the service's)");
    } else {
        archive = data + L"\\Archive";
        log = data + L"\\Log";
        databasePath = options.db.empty() ? data + L"\\Data\\omkAlerts.db" : Wide(options.db);
        report.Line("Data folder " + Utf8(data));
    }

    ReadOnlyDatabase database;
    if (CheckDatabase(report, database, databasePath)) {
        CheckArchive(report, archive);
    } else {
        report.Line("Archive " + Utf8(archive) + ": not checked, since the database cannot be read");
    }
    CheckPlugins(report);
    ShowErrorLog(report, log);

    const int findings = report.Findings();
    StdOut().Write(findings == 0 ? "All is well.\r\n"
                                 : std::to_string(findings) + (findings == 1 ? " finding needs" : " findings need") +
                                       " attention (the lines marked !).\r\n");
    return findings == 0 ? kExitOk : kExitAttention;
}

}  // namespace omkalerts
