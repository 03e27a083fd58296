// The test side of tolvaneTestHost: starts it, reads its record file and its
// error log, stops it (or kills it when it does not stop in time).
#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testSupport.h"

namespace comtest {

// One line of the host's record: its type, the rest of the line and its
// key=value fields.
struct Record {
    std::string type;
    std::string text;
    std::map<std::string, std::string> fields;

    std::string operator[](const std::string& key) const {
        auto found = fields.find(key);
        return found == fields.end() ? std::string("<missing>") : found->second;
    }
};

class TestHost {
public:
    // Starts a host named after `tag` and waits (20 s at most) until it serves.
    explicit TestHost(const std::wstring& tag);
    // Stops the host if it still runs.
    ~TestHost();
    TestHost(const TestHost&) = delete;
    TestHost& operator=(const TestHost&) = delete;

    // True once the host has registered the class and runs its engine thread.
    bool Serving() const { return serving_; }

    // The complete lines of the record of one type, in the order written;
    // Items() are the engine thread's items in the order it handled them.
    std::vector<Record> Records(const std::string& type) const;
    std::vector<Record> Items() const { return Records("item"); }
    bool WaitForItems(size_t count) const;

    // Stops engine and COM server as the service does and waits for the
    // "stopped" record; the process stays until Stop().
    bool StopServing();
    // Stops the host and waits for it to exit; a host that does not exit in
    // time is killed. True when it exited with 0.
    bool Stop();

    // The host's error log (the messages of the code under test).
    const omktest::ErrorLog& Log() const { return *log_; }

private:
    omktest::TempFolder folder_;
    std::wstring recordPath_;
    std::unique_ptr<omktest::ErrorLog> log_;
    HANDLE events_[3] = {};  // ready, stop, exit
    PROCESS_INFORMATION process_ = {};
    bool serving_ = false;
    bool running_ = false;
};

}  // namespace comtest
