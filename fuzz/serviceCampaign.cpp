#include "serviceCampaign.h"

#include <psapi.h>
#include <stdio.h>

#include "omkPluginSdk.h"
#include "testPlugins.h"
#include "testSupport.h"

namespace omkfuzz {

const wchar_t kFuzzInstall[] = L"C:\\omkfuzz";
const wchar_t kDiskRuleGuid[] = L"{0C4E8A21-5F6B-4D7C-8E9F-1A2B3C4D5E62}";

InstalledProduct::InstalledProduct(unsigned maxAlertFiles) {
    omktest::InstallTestRoot();
    UninstallProduct();
    ok_ = svctest::RunInstaller(L"install", kFuzzInstall) == 0;
    if (ok_ && maxAlertFiles != 0) {
        // The package started the service with the sample's limit; it reads the new one at its next start.
        ok_ = svctest::InstalledService().StopAndWait();
        const std::wstring rules = std::wstring(kFuzzInstall) + L"\\insvcAlerts.xml";
        std::string text = omktest::ReadFileBytes(rules);
        const size_t at = text.find("<MaxAlertFiles>30<");
        ok_ = ok_ && at != std::string::npos &&
              omktest::WriteFileBytes(rules, text.replace(at + 15, 2, std::to_string(maxAlertFiles)));
    }
}

InstalledProduct::~InstalledProduct() {
    if (!keep_) UninstallProduct();
}

void UninstallProduct() { svctest::RunInstaller(L"uninstall", kFuzzInstall); }

Memory ProcessMemory(DWORD processId) {
    Memory memory;
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId);
    PROCESS_MEMORY_COUNTERS_EX counters = {};
    if (process != nullptr &&
        GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters), sizeof(counters))) {
        memory.working = counters.WorkingSetSize / 1048576.0;
        memory.peak = counters.PeakWorkingSetSize / 1048576.0;
        memory.privateBytes = counters.PrivateUsage / 1048576.0;
    }
    if (process != nullptr) CloseHandle(process);
    return memory;
}

bool CampaignService::Settle(const char* campaign) {
    if (!product.Ok() || FAILED(collector.Connect()) || !service.WaitForState(SERVICE_RUNNING)) {
        fprintf(stderr, "%s: the product did not install or the service does not run\n", campaign);
        return false;
    }
    process = service.ProcessId();
    Sleep(2000);  // settled after its start
    settled = ProcessMemory(process);
    service.MarkLogs();
    return true;
}

void AddMessageKinds(const std::string& logText, std::set<std::string>* kinds) {
    for (size_t s = 0, e; s < logText.size(); s = e + 1) {
        e = logText.find('\n', s);
        if (e == std::string::npos) e = logText.size();
        if (e > s && logText[s] >= '0' && logText[s] <= '9') kinds->insert(NormaliseMessage(logText.substr(s, e - s)));
    }
}

bool CampaignService::CheckAfterCalls(Tally& tally, std::vector<std::string>& problems) {
    HANDLE handle = OpenProcess(SYNCHRONIZE, FALSE, process);
    const bool alive = handle != nullptr && WaitForSingleObject(handle, 0) == WAIT_TIMEOUT;
    if (handle != nullptr) CloseHandle(handle);
    if (!alive || service.ProcessId() != process) {
        ++tally.crashes;
        problems.push_back("the service process did not survive the calls");
    }
    if (alive && collector.RuleTriggered(kDiskRuleGuid, L"Disk", L"Fuzz", L"after-the-calls") != S_OK) {
        ++tally.failures;
        problems.push_back("a well-formed call after the calls was not answered S_OK");
    }
    collector.Release();
    AddMessageKinds(service.LogSince(), &tally.messages);
    if (alive && (!service.StopAndWait(15000) || service.Status().dwWin32ExitCode != 0)) {
        ++tally.failures;
        problems.push_back("the stop with the queue full did not end in time with exit code 0");
    }
    service.StopAndWait(60000);
    return alive;
}

namespace {

size_t Block(size_t bytes) { return (bytes + 15) / 16 * 16 + 16; }

}  // namespace

size_t QueuedRuleBytes(const QueuedRule& rule) {
    size_t bytes = Block(sizeof(WORK_ITEM)) + Block((rule.pluginChars + 1) * 2) + Block((rule.guidChars + 1) * 2);
    if (!rule.arrays) return bytes;
    if (rule.tag) bytes += Block((rule.tagChars + 1) * 2);
    bytes += 2 * (Block(sizeof(SAFEARRAY) + 16) + Block(rule.elements * sizeof(BSTR)));
    return bytes + rule.strings * Block(sizeof(DWORD) + sizeof(wchar_t)) + rule.textChars * sizeof(wchar_t);
}

size_t QueuedPeriodicBytes(size_t dataBytes) {
    return Block(sizeof(WORK_ITEM)) + (dataBytes != 0 ? Block(dataBytes) : 0);
}

bool WaitForAlert(ULONGLONG creationTime, const std::string& text, DWORD timeoutMs) {
    return omktest::WaitFor(
        [&] {
            for (const std::string& alert : svctest::AlertsStoredAfter(creationTime)) {
                if (alert.find(text) != std::string::npos) return true;
            }
            return false;
        },
        timeoutMs);
}

}  // namespace omkfuzz
