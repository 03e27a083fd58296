#include "testHost.h"

#include <sstream>

#include "hostRecord.h"

namespace comtest {

TestHost::TestHost(const std::wstring& tag, bool engineLater) {
    static LONG counter = 0;
    name_ = L"tolvaneTestHost-" + tag + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
            std::to_wstring(InterlockedIncrement(&counter));
    recordPath_ = folder_.File(L"record.txt");
    log_ = std::make_unique<omktest::ErrorLog>(name_ + L".txt");
    ready_ = CreateEventW(nullptr, TRUE, FALSE, hostrecord::EventName(name_, L"ready").c_str());
    engine_ = CreateEventW(nullptr, TRUE, FALSE, hostrecord::EventName(name_, L"engine").c_str());
    stop_ = CreateEventW(nullptr, TRUE, FALSE, hostrecord::EventName(name_, L"stop").c_str());

    std::wstring command = L"\"" + omktest::ProgramFolder() + L"\\tolvaneTestHost.exe\" " + name_ + L" \"" +
                           recordPath_ + L"\" " + name_ + L".txt" + (engineLater ? L" engine-later" : L"");
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_)) {
        return;
    }
    running_ = true;
    const HANDLE waits[2] = {ready_, process_.hProcess};
    serving_ = WaitForMultipleObjects(2, waits, FALSE, 20000) == WAIT_OBJECT_0;
}

TestHost::~TestHost() {
    if (running_) Stop();
    for (HANDLE handle : {ready_, engine_, stop_}) {
        if (handle != nullptr) CloseHandle(handle);
    }
}

DWORD TestHost::EngineThread() const {
    std::vector<Record> engine = Records("engine");
    return engine.empty() ? 0 : static_cast<DWORD>(std::stoul(engine.back()["tid"]));
}

bool TestHost::StartEngine() {
    SetEvent(engine_);
    DWORD start = GetTickCount();
    while (Records("engine").empty()) {
        if (GetTickCount() - start > 10000) return false;
        Sleep(10);
    }
    return Records("engine").back()["start"] == "0";
}

std::vector<Record> TestHost::Records(const std::string& type) const {
    std::vector<Record> records;
    std::string text = omktest::ReadFileBytes(recordPath_);
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; start = end + 1, end = text.find('\n', start)) {
        std::istringstream line(text.substr(start, end - start));
        Record record;
        line >> record.type;
        if (record.type != type) continue;
        std::string field;
        while (line >> field) {
            size_t equals = field.find('=');
            record.fields[field.substr(0, equals)] = equals == std::string::npos ? "" : field.substr(equals + 1);
        }
        records.push_back(record);
    }
    return records;
}

bool TestHost::WaitForItems(size_t count, DWORD timeoutMs) const {
    DWORD start = GetTickCount();
    while (Items().size() < count) {
        if (GetTickCount() - start > timeoutMs) return false;
        Sleep(20);
    }
    return true;
}

bool TestHost::Stop(DWORD timeoutMs) {
    if (!running_) return false;
    running_ = false;
    SetEvent(stop_);
    DWORD code = 0xDEAD;
    if (WaitForSingleObject(process_.hProcess, timeoutMs) == WAIT_OBJECT_0) {
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
