// Runs a campaign of many inputs through one subject, each input in a child
// process that the campaign restarts after a crash or a hang, so that a fault
// is counted and its input kept instead of ending the campaign. Prints one line:
// inputs, crashes, hangs, failures of the design's promises, distinct
// messages logged, the g_allocCount balance, time.
//
//   program [--seed N] [--count N] [--corpus FOLDER] [--also FILE]... [--hang-ms N] [--messages] [--verbose] [--first N]
//
// The inputs are the corpus folder's files and the --also files first
// (replayed as they are: the regression inputs), then `count` inputs generated from `seed`. A failing
// input is written into the corpus folder as <crash|hang|fail>-<seed>-<n>.<ext>.
// --messages lists the distinct messages on stderr; --verbose shows every
// logged line of every input there. --first N starts at input N (replays count).
// Exit code 0 when nothing failed.
#pragma once

#include <windows.h>

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

namespace omkfuzz {

// What a campaign found, for its line.
struct Tally {
    uint64_t inputs = 0;
    uint64_t crashes = 0;
    uint64_t hangs = 0;
    uint64_t failures = 0;
    std::set<std::string> messages;  // normalised (NormaliseMessage)
    bool allocKnown = false;         // false: the balance lives in another process
    long long allocBalance = 0;      // sum of g_allocCount differences the design does not allow
    double seconds = 0;
};

// "<campaign>: N inputs, N crashes, N hangs, N failures, N distinct messages,
// g_allocCount balance +N|n/a, N.N s[, extra]"
void PrintLine(const char* campaign, const Tally& tally, const std::string& extra = std::string());

// A logged message reduced to its kind: the text after the log line's time,
// process, thread and code fields, up to the first line break, digits as '#',
// at most 60 characters.
std::string NormaliseMessage(const std::string& logLine);

// Reads the lines a log file got since the last call (a log that was backed up
// meanwhile is read from its start).
class LogTail {
public:
    explicit LogTail(const std::wstring& path) : path_(path) {}
    std::vector<std::string> NewLines();
    void Skip() { NewLines(); }

private:
    std::wstring path_;
    ULONGLONG offset_ = 0;
};

// Starts this program again with `arguments`; its process handle or null.
HANDLE StartSelf(const std::wstring& arguments);

// One kind of input and what the design promises for it.
class Subject {
public:
    virtual ~Subject() = default;
    // Title of the line, and the corpus file extension.
    virtual const char* Title() const = 0;
    virtual const wchar_t* Extension() const = 0;
    // Input `index` of a campaign with `seed`, made from the corpus.
    virtual std::string Generate(uint64_t seed, uint64_t index, const std::vector<std::string>& corpus) = 0;
    // False when the subject's code keeps no g_allocCount (a DLL of its own).
    virtual bool CountsAllocations() const { return true; }
    // Inputs one child process runs before a fresh one takes over (0: all).
    virtual uint64_t InputsPerProcess() const { return 0; }
    // In each child process, once, before its first input.
    virtual void Prepare() {}
    // Runs one input: empty when every promise held, else what broke.
    // `allocDifference` receives the g_allocCount change the design does not explain.
    virtual std::string Run(const std::string& input, long long* allocDifference) = 0;
    // How the last input ended, in a word the line counts ("stored", "status 7"); empty: not counted.
    virtual std::string Outcome() const { return std::string(); }
};

int CampaignMain(Subject& subject, int argc, wchar_t** argv);

}  // namespace omkfuzz
