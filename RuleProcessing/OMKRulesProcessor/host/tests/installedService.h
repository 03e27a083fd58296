// The product installed by its package into the test prefix, and its service
// driven through the service manager.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tolvane.h"

namespace svctest {

extern const wchar_t kServiceName[];
// The sample rule file's battery rule, reported by the product's collector rule plugin.
extern const wchar_t kBatteryRuleGuid[];
extern const wchar_t kCollectorPluginId[];

// This build's package, "<program folder>\Orlemark-RulesProcessor-<version>-x64.msi".
std::wstring PackagePath();
// msiexec `arguments` quietly with a verbose log into `log`: the exit code's
// low 8 bits (Wine passes no more on).
DWORD Msiexec(const std::wstring& arguments, const std::wstring& log);
// "install" the package into `folder` (which starts the service; a second
// install repairs in place) or "uninstall" it; the log is %TEMP%\omkInstaller.log.
DWORD RunInstaller(const wchar_t* action, const std::wstring& folder);

// The product's data roots ("<ProgramData>\Varn\Orlemark") the service may use:
// its own %ProgramData% (C:\users\Public under Wine) and that of this process.
std::vector<std::wstring> ProductDataRoots();

// The creation time of the newest alert in the service's alert database (0:
// none), and the XML of the alerts created after a time, oldest first.
ULONGLONG LatestAlertTime();
std::vector<std::string> AlertsStoredAfter(ULONGLONG creationTime);

// The service, opened for a test: its state, controls and what it logged.
class InstalledService {
public:
    InstalledService();
    ~InstalledService();
    InstalledService(const InstalledService&) = delete;
    InstalledService& operator=(const InstalledService&) = delete;

    bool IsOpen() const { return service_ != nullptr; }
    // Closes the service handle, so that an uninstall can delete the service.
    void Close();

    SERVICE_STATUS Status() const;
    bool WaitForState(DWORD state, DWORD timeoutMs = 30000) const;
    bool Start();
    // Asks for a stop unless already stopped and waits for the stopped state.
    bool StopAndWait(DWORD timeoutMs = 30000);
    // The service process's id while it runs, else 0.
    DWORD ProcessId() const;
    SC_HANDLE Handle() const { return service_; }

    // Sets the error log marks: LogSince() returns what was logged after this.
    void MarkLogs();
    std::string LogSince() const;

private:
    SC_HANDLE manager_ = nullptr;
    SC_HANDLE service_ = nullptr;
    std::vector<size_t> logStarts_;
};

// A collector: an ITolvane proxy of the service in this thread's
// multithreaded apartment.
class Collector {
public:
    Collector();
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    // CoCreateInstance of the class (which starts a stopped service).
    HRESULT Connect();
    void Release();
    // Tolvane_RuleTriggered for the collector rule plugin with one name=value data item.
    HRESULT RuleTriggered(const wchar_t* guid, const wchar_t* tag, const wchar_t* name, const wchar_t* value);
    HRESULT SummaryCreated();
    // The proxy itself, for calls of any shape; null before Connect.
    ITolvane* Get() const { return tolvane_; }

private:
    bool initialised_ = false;
    ITolvane* tolvane_ = nullptr;
};

}  // namespace svctest
