#include "installedService.h"

#include <oleauto.h>

#include <functional>

#include "sqlite3.h"
#include "systemIdentity.h"
#include "testSupport.h"

namespace svctest {

const wchar_t kServiceName[] = L"OMKRulesProcessor";
const wchar_t kBatteryRuleGuid[] = L"{6B1D2C3A-8E4F-4A51-9C7D-0E2F3A4B5C61}";
const wchar_t kCollectorPluginId[] = L"OMKCollectorRules";

namespace {

std::vector<std::wstring> ErrorLogs() {
    const std::wstring name = L"\\Log\\" + omktest::FromUtf8(GetServiceTag()) + L"_OMKW_Errlog.txt";
    std::vector<std::wstring> logs;
    for (const auto& root : ProductDataRoots()) logs.push_back(root + name);
    return logs;
}

}  // namespace

std::wstring PackagePath() {
    return omktest::ProgramFolder() + L"\\" OMK_PACKAGE_FILE_NAME;
}

DWORD Msiexec(const std::wstring& arguments, const std::wstring& log) {
    return omktest::RunProcess(L"msiexec " + arguments + L" /qn /l*v \"" + log + L"\"", 180000) & 0xFF;
}

DWORD RunInstaller(const wchar_t* action, const std::wstring& folder) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring package = L"\"" + PackagePath() + L"\"";
    return Msiexec(wcscmp(action, L"install") == 0 ? L"/i " + package + L" INSTALLDIR=\"" + folder + L"\""
                                                   : L"/x " + package,
                   std::wstring(temp) + L"omkInstaller.log");
}

std::vector<std::wstring> ProductDataRoots() {
    return {L"C:\\users\\Public\\Varn\\Orlemark", L"C:\\ProgramData\\Varn\\Orlemark"};
}

namespace {

// Runs `sql` with one integer parameter on the service's alert database and
// hands each row to `row`.
void QueryAlerts(const char* sql, ULONGLONG parameter, const std::function<void(sqlite3_stmt*)>& row) {
    for (const auto& root : ProductDataRoots()) {
        const std::wstring path = root + L"\\Data\\omkAlerts.db";
        if (!omktest::FileExists(path)) continue;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(omktest::ToUtf8(path).c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
            sqlite3_busy_timeout(db, 5000);
            sqlite3_stmt* select = nullptr;
            if (sqlite3_prepare_v2(db, sql, -1, &select, nullptr) == SQLITE_OK) {
                sqlite3_bind_int64(select, 1, static_cast<sqlite3_int64>(parameter));
                while (sqlite3_step(select) == SQLITE_ROW) row(select);
            }
            sqlite3_finalize(select);
        }
        sqlite3_close(db);
        return;
    }
}

}  // namespace

ULONGLONG LatestAlertTime() {
    ULONGLONG latest = 0;
    QueryAlerts("SELECT ifnull(max(creation_time), ?1) FROM alerts", 0,
                [&](sqlite3_stmt* row) { latest = static_cast<ULONGLONG>(sqlite3_column_int64(row, 0)); });
    return latest;
}

std::vector<std::string> AlertsStoredAfter(ULONGLONG creationTime) {
    std::vector<std::string> alerts;
    QueryAlerts("SELECT xml FROM alerts WHERE creation_time > ?1 ORDER BY creation_time", creationTime,
                [&](sqlite3_stmt* row) {
                    alerts.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(row, 0)));
                });
    return alerts;
}

InstalledService::InstalledService() {
    manager_ = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (manager_ != nullptr) service_ = OpenServiceW(manager_, kServiceName, SERVICE_ALL_ACCESS);
    MarkLogs();
}

InstalledService::~InstalledService() {
    Close();
    if (manager_ != nullptr) CloseServiceHandle(manager_);
}

void InstalledService::Close() {
    if (service_ != nullptr) CloseServiceHandle(service_);
    service_ = nullptr;
}

SERVICE_STATUS InstalledService::Status() const {
    SERVICE_STATUS status = {};
    if (service_ != nullptr) QueryServiceStatus(service_, &status);
    return status;
}

bool InstalledService::WaitForState(DWORD state, DWORD timeoutMs) const {
    return omktest::WaitFor([&] { return Status().dwCurrentState == state; }, timeoutMs);
}

bool InstalledService::Start() { return StartServiceW(service_, 0, nullptr) != FALSE; }

bool InstalledService::StopAndWait(DWORD timeoutMs) {
    if (service_ == nullptr) return true;  // closed for an uninstallation
    SERVICE_STATUS status;
    if (Status().dwCurrentState != SERVICE_STOPPED) ControlService(service_, SERVICE_CONTROL_STOP, &status);
    return WaitForState(SERVICE_STOPPED, timeoutMs);
}

DWORD InstalledService::ProcessId() const {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    if (service_ == nullptr || !QueryServiceStatusEx(service_, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                                     sizeof(status), &needed)) {
        return 0;
    }
    return status.dwProcessId;
}

void InstalledService::MarkLogs() {
    logStarts_.clear();
    for (const auto& log : ErrorLogs()) logStarts_.push_back(omktest::ReadFileBytes(log).size());
}

std::string InstalledService::LogSince() const {
    std::string since;
    std::vector<std::wstring> logs = ErrorLogs();
    for (size_t i = 0; i < logs.size() && i < logStarts_.size(); ++i) {
        std::string text = omktest::ReadFileBytes(logs[i]);
        if (text.size() >= logStarts_[i]) {
            since += text.substr(logStarts_[i]);
        } else {  // rotated since the mark: the rest of the backup, then the new log
            const std::string backup = omktest::ReadFileBytes(logs[i] + L".bak");
            if (backup.size() > logStarts_[i]) since += backup.substr(logStarts_[i]);
            since += text;
        }
    }
    return since;
}

Collector::Collector() { initialised_ = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }

Collector::~Collector() {
    Release();
    if (initialised_) CoUninitialize();
}

HRESULT Collector::Connect() {
    Release();
    return CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane,
                            reinterpret_cast<void**>(&tolvane_));
}

void Collector::Release() {
    if (tolvane_ != nullptr) tolvane_->Release();
    tolvane_ = nullptr;
}

HRESULT Collector::RuleTriggered(const wchar_t* guid, const wchar_t* tag, const wchar_t* name, const wchar_t* value) {
    SAFEARRAY* names = omktest::BstrArray({name});
    SAFEARRAY* values = omktest::BstrArray({value});
    BSTR texts[] = {SysAllocString(kCollectorPluginId), SysAllocString(guid), SysAllocString(tag)};
    HRESULT hr = tolvane_->Tolvane_RuleTriggered(texts[0], texts[1], texts[2], names, values);
    for (BSTR text : texts) SysFreeString(text);
    SafeArrayDestroy(names);
    SafeArrayDestroy(values);
    return hr;
}

HRESULT Collector::SummaryCreated() { return tolvane_->Tolvane_SummaryCreated(); }

}  // namespace svctest
