// What the campaigns against the installed service share: the product
// installed by its package (through the service tests' driver), the
// service's process and memory, its messages, other processes of the same
// campaign program, and what one queued event costs the service.
#pragma once

#include <windows.h>

#include <set>
#include <string>
#include <vector>

#include "fuzzRunner.h"
#include "installedService.h"

namespace omkfuzz {

// The install folder of every service campaign (short: the plugin loaders
// read at most 129 characters of a plugin's path).
extern const wchar_t kFuzzInstall[];
// The rule of the sample file the campaigns report: no limit per boot.
extern const wchar_t kDiskRuleGuid[];

// Installs the product's package into kFuzzInstall (removing an earlier
// installation first), which starts the service; with `maxAlertFiles` (0: the
// sample's own) the service is stopped and its rule file given that limit.
// Removes the product on destruction.
class InstalledProduct {
public:
    explicit InstalledProduct(unsigned maxAlertFiles = 0);
    ~InstalledProduct();
    InstalledProduct(const InstalledProduct&) = delete;
    InstalledProduct& operator=(const InstalledProduct&) = delete;
    bool Ok() const { return ok_; }
    void Keep() { keep_ = true; }

private:
    bool ok_ = false;
    bool keep_ = false;
};

// Removes the product from kFuzzInstall.
void UninstallProduct();

// Working set, its peak and private bytes of a process, in MiB.
struct Memory {
    double working = 0;
    double peak = 0;
    double privateBytes = 0;
};
Memory ProcessMemory(DWORD processId);

// The product installed by its package and the service it started, with a
// collector connected: what a campaign of calls to the service works on.
struct CampaignService {
    InstalledProduct product;  // first: the service exists once it is made
    svctest::InstalledService service;
    svctest::Collector collector;
    DWORD process = 0;
    Memory settled;  // the service's memory before the campaign's calls

    // Connects and lets the service settle: its process and memory taken, its
    // logs marked. False, told on stderr under `campaign`, when the product
    // did not install or the service does not run.
    bool Settle(const char* campaign);
    // After the campaign's calls: the same service process still runs and
    // answers a well-formed call, and its stop with the queue full ends in
    // time with exit code 0. What broke is counted in `tally` and told in
    // `problems`; the service's messages since its mark are added; the
    // service is stopped after. False when the process did not survive.
    bool CheckAfterCalls(Tally& tally, std::vector<std::string>& problems);
};

// Adds the kinds of the messages in an error log's text to `kinds`.
void AddMessageKinds(const std::string& logText, std::set<std::string>* kinds);

// Heap bytes the service keeps for one queued rule event: the item, its copies
// of the strings (the tag only with arrays), and SafeArrayCopy of each of the
// two BSTR arrays (descriptor, element slots, each string with its length
// prefix); every block with a heap header, rounded as the heap rounds it.
struct QueuedRule {
    size_t pluginChars = 0;
    size_t guidChars = 0;
    bool arrays = false;   // both arrays given (else the tag is not kept either)
    bool tag = false;
    size_t tagChars = 0;
    size_t elements = 0;   // of each array
    size_t strings = 0;    // non-null strings in both arrays
    size_t textChars = 0;  // their characters
};
size_t QueuedRuleBytes(const QueuedRule& rule);
// The same for a periodic-data event of `dataBytes` bytes.
size_t QueuedPeriodicBytes(size_t dataBytes);

// Waits until an alert stored after `creationTime` contains `text`.
bool WaitForAlert(ULONGLONG creationTime, const std::string& text, DWORD timeoutMs);

}  // namespace omkfuzz
