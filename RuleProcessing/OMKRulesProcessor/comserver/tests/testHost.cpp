#include "testHost.h"

#include <algorithm>
#include <sstream>

#include "hostRecord.h"

namespace comtest {

namespace {

constexpr DWORD kStopMs = 40000;

}  // namespace

TestHost::TestHost(const std::wstring& tag) {
    static LONG counter = 0;
    const std::wstring name = L"tolvaneTestHost-" + tag + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                              std::to_wstring(InterlockedIncrement(&counter));
    recordPath_ = folder_.File(L"record.txt");
    log_ = std::make_unique<omktest::ErrorLog>(name + L".txt");
    const wchar_t* which[3] = {L"ready", L"stop", L"exit"};
    for (int i = 0; i < 3; ++i) {
        events_[i] = CreateEventW(nullptr, TRUE, FALSE, hostrecord::EventName(name, which[i]).c_str());
    }
    std::wstring command = L"\"" + omktest::ProgramFolder() + L"\\tolvaneTestHost.exe\" " + name + L" \"" +
                           recordPath_ + L"\" " + name + L".txt";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_)) {
        return;
    }
    running_ = true;
    const HANDLE waits[2] = {events_[0], process_.hProcess};
    serving_ = WaitForMultipleObjects(2, waits, FALSE, 20000) == WAIT_OBJECT_0;
}

TestHost::~TestHost() {
    if (running_) Stop();
    for (HANDLE event : events_) {
        if (event != nullptr) CloseHandle(event);
    }
}

std::vector<Record> TestHost::Records(const std::string& type) const {
    std::vector<Record> records;
    std::istringstream text(omktest::ReadFileBytes(recordPath_));
    std::string lineText;
    // Only complete lines: the host may be writing the last one.
    while (std::getline(text, lineText) && !text.eof()) {
        std::istringstream line(lineText);
        Record record;
        line >> record.type;
        if (record.type != type) continue;
        record.text = lineText.substr(std::min(lineText.size(), type.size() + 1));
        std::string field;
        while (line >> field) {
            size_t equals = field.find('=');
            record.fields[field.substr(0, equals)] = equals == std::string::npos ? "" : field.substr(equals + 1);
        }
        records.push_back(record);
    }
    return records;
}

bool TestHost::WaitForItems(size_t count) const {
    return omktest::WaitFor([&] { return Items().size() >= count; }, 30000);
}

bool TestHost::StopServing() {
    SetEvent(events_[1]);
    return omktest::WaitFor([&] { return !Records("stopped").empty(); }, kStopMs);
}

bool TestHost::Stop() {
    if (!running_) return false;
    running_ = false;
    SetEvent(events_[1]);
    SetEvent(events_[2]);
    DWORD code = 0xDEAD;
    if (WaitForSingleObject(process_.hProcess, kStopMs) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process_.hProcess, &code);
    } else {
        TerminateProcess(process_.hProcess, 0xDEAD);
        WaitForSingleObject(process_.hProcess, 5000);
    }
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
    return code == 0;
}

}  // namespace comtest
