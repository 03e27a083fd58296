// Alert files read back: mutated alert files (truncated, huge, invalid UTF-8,
// deeply nested, names whose stamp is out of range) handed to AddToAlertDb as
// the engine hands it a finished alert. An input is one line "<removeXml>
// <maxAlerts> <file name>" followed by the file's bytes. The design's
// promises: the alert is stored exactly when its name carries a valid stamp and
// the file is well-formed XML; what is stored is the file's text; the XML file
// is gone after a store with removeXml; the alert-generated event is set
// exactly when the alert counts as stored; g_allocCount comes back.
#include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

#include <set>
#include <string>
#include <vector>

#include "alertDatabase.h"
#include "cdef.h"
#include "conventions.h"
#include "fuzzMutate.h"
#include "fuzzRunner.h"
#include "omkDb.h"
#include "testSupport.h"
#include "xmlAccess.h"

namespace {

constexpr size_t kMaxFileBytes = 10 * 1024 * 1024;

const std::vector<std::string> kNames = {"TolvaneAlerts", "Alert",   "ServiceTag", "AlertId", "RuleGuid", "RuleType",
                                         "DateTime",      "Message", "Battery",    "Data",    "Source"};

// A file name: this machine's alert name with a stamp that is valid, out of
// range, short, or mutated; now and then another tag (with '_' in it).
std::string FileName(omkfuzz::Random& random) {
    static const std::vector<std::string> tags = {"UNKNOWN", "UNKNOWN", "A_B_C", "", "x-ZORA_Alerts_99"};
    char stamp[64];
    _snprintf(stamp, sizeof(stamp) - 1, "%02u%02u%04u%02u%02u%02u", static_cast<unsigned>(1 + random.Below(12)),
              static_cast<unsigned>(1 + random.Below(28)), static_cast<unsigned>(1601 + random.Below(28000)),
              static_cast<unsigned>(random.Below(24)), static_cast<unsigned>(random.Below(60)),
              static_cast<unsigned>(random.Below(60)));
    stamp[sizeof(stamp) - 1] = '\0';
    std::string name = random.Pick(tags) + "-ZORA_Alerts_" + stamp + ".xml";
    if (random.OneIn(4)) {
        static const std::vector<std::string> odd = {"13", "00", "32", "99", "0000", "1600", "65535", "-1", "+1",
                                                     " 1", "x",  "",   "_",  "0",    "123456789012"};
        size_t at = name.rfind('_') + 1 + random.Below(14);
        name.replace(std::min(at, name.size()), random.Below(5), random.Pick(odd));
    }
    if (random.OneIn(20)) name.insert(random.Below(name.size() + 1), std::string(1 + random.Size(300), 'n'));
    // Characters a file name may hold; the rest would only test the file system.
    for (char& c : name) {
        if (c == '\\' || c == '/' || c == ':' || c == '*' || c == '?' || c == '"' || c == '<' || c == '>' ||
            c == '|' || static_cast<unsigned char>(c) < 32) {
            c = '~';
        }
    }
    return name;
}

// The creation time the name carries, read as the design reads it: the six
// numbers after the last '_'; 0 when there are fewer or the date is invalid.
ULONGLONG StampOf(const wchar_t* name) {
    const wchar_t* underscore = wcsrchr(name, L'_');
    int field[6] = {};
    if (underscore == nullptr || swscanf(underscore + 1, L"%02d%02d%04d%02d%02d%02d", &field[0], &field[1], &field[2],
                                         &field[3], &field[4], &field[5]) < 6) {
        return 0;
    }
    SYSTEMTIME time = {static_cast<WORD>(field[2]), static_cast<WORD>(field[0]), 0, static_cast<WORD>(field[1]),
                       static_cast<WORD>(field[3]), static_cast<WORD>(field[4]), static_cast<WORD>(field[5]), 0};
    FILETIME stamp;
    if (!SystemTimeToFileTime(&time, &stamp)) return 0;
    return (static_cast<ULONGLONG>(stamp.dwHighDateTime) << 32) | stamp.dwLowDateTime;
}

bool IsWellFormed(const std::string& utf8) {
    IXMLDOMDocument* doc = LoadXML(omktest::FromUtf8(utf8.c_str()).c_str());
    ReleaseXML(doc);
    CoUninitialize();
    return doc != nullptr;
}

class AlertFiles : public omkfuzz::Subject {
public:
    const char* Title() const override { return "alert files"; }
    const wchar_t* Extension() const override { return L"alert"; }
    std::string Outcome() const override { return outcome_; }

    std::string Generate(uint64_t seed, uint64_t index, const std::vector<std::string>& corpus) override {
        omkfuzz::Random random = omkfuzz::InputRandom(seed, index);
        const std::string& base = random.Pick(corpus);
        std::string bytes = base.substr(base.find('\n') + 1);
        if (random.OneIn(300)) omkfuzz::Grow(random, bytes, kMaxFileBytes);
        const std::string& other = random.Pick(corpus);
        omkfuzz::Mutate(random, bytes, other.substr(other.find('\n') + 1), kNames, static_cast<int>(random.Size(6)));
        if (bytes.size() > kMaxFileBytes) bytes.resize(kMaxFileBytes);
        static const unsigned kMax[] = {0, 1, 30, 1000};
        return std::to_string(random.Below(2)) + " " + std::to_string(kMax[random.Below(4)]) + " " +
               FileName(random) + "\n" + bytes;
    }

    void Prepare() override {
        event_ = CreateEventW(nullptr, FALSE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
        InitSqliteLib();
        folder_ = CDef::GetInstance().FOLDER_OMK_ALERT;
        CreateDirectoryW(folder_.c_str(), nullptr);
    }

    std::string Run(const std::string& input, long long* allocDifference) override {
        const size_t lineEnd = input.find('\n');
        unsigned removeXml = 0, maxAlerts = 0;
        char nameBytes[1024] = {};
        if (lineEnd == std::string::npos ||
            sscanf(input.substr(0, lineEnd).c_str(), "%u %u %1023[^\n]", &removeXml, &maxAlerts, nameBytes) < 2) {
            return "";  // not an input of this campaign (a mutated corpus file): nothing to run
        }
        const std::string bytes = input.substr(lineEnd + 1);
        const std::wstring name = omktest::FromUtf8(nameBytes);
        wcsncpy(g_alertFileName, name.c_str(), OMK_ALERT_FILE_NAME_CHARS - 1);
        g_alertFileName[OMK_ALERT_FILE_NAME_CHARS - 1] = L'\0';
        const std::wstring path = folder_ + L"\\" + g_alertFileName;
        const bool written = path.size() < MAX_PATH && omktest::WriteFileBytes(path, bytes);
        const std::string text = bytes.c_str();  // the store keeps the text up to its first zero byte
        const ULONGLONG stamp = StampOf(g_alertFileName);
        const bool storable = written && stamp != 0 && IsWellFormed(text);

        ResetEvent(event_);
        const int before = g_allocCount;
        const int stored = AddToAlertDb(folder_.c_str(), 0, removeXml, maxAlerts);
        *allocDifference = g_allocCount - before;
        const bool signalled = WaitForSingleObject(event_, 0) == WAIT_OBJECT_0;

        outcome_ = stored ? "stored" : "refused";
        std::string broken;
        if ((stored != 0) != storable) broken = stored ? "a file the design refuses was stored" : "a valid alert was refused";
        if (signalled != (stored != 0)) broken += "; the event does not match the store";
        if (stored && removeXml && omktest::FileExists(path)) broken += "; the stored file was not removed";
        if (stored && maxAlerts > 0) {
            const bool first = stamps_.insert(stamp).second;
            ALERT_DB_RECORD* record = nullptr;
            AlertDb_Open(1, 1);
            if (!AlertDb_ReadByCreationTimeW(stamp, &record)) {
                broken += "; the stored alert is not in the database";
            } else if (first && text != record->xml) {
                broken += "; the database holds other text than the file";
            }
            free(record);
            AlertDb_Close(1);
        }
        DeleteFileW(path.c_str());
        return broken;
    }

private:
    HANDLE event_ = nullptr;
    std::wstring folder_;
    std::string outcome_;
    std::set<ULONGLONG> stamps_;  // stored by this process: a later file of the same stamp keeps the first text
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
    AlertFiles subject;
    return omkfuzz::CampaignMain(subject, argc, argv);
}
