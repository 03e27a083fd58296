// tolvaneTestHost: serves the Tolvane class the way the service does (COM
// server thread and engine thread over the real queue), with a
// Tolvane_HandleEvents that writes each item it is given to a record file.
//
//   tolvaneTestHost <name> <record file> <error log name> [engine-later]
//
// The test drives it through the manual-reset events Local\<name>.ready (set
// by the host once it serves), .engine (start the engine thread, with
// engine-later) and .stop (stop as the service does: engine, then COM server).
// Started by COM from its LocalServer32 registration ("-Embedding"), it runs
// under the name tolvaneTestHost-embedded, recording into
// %TEMP%\tolvaneTestHost-embedded.txt.
#include <windows.h>

#include <mutex>
#include <string>

#include "comServer.h"
#include "conventions.h"
#include "engineTestSupport.h"
#include "hostRecord.h"
#include "omkErrors.h"
#include "workQueue.h"

namespace {

// The host does not outlive a test that forgot it.
constexpr DWORD kLifetimeMs = 180000;

HANDLE g_record = INVALID_HANDLE_VALUE;
std::mutex g_recordLock;

void WriteRecord(const std::string& line) {
    std::lock_guard<std::mutex> guard(g_recordLock);
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(g_record, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

// True when bytes [from, to) of the item all hold the fill byte.
std::string FillState(const WORK_ITEM* item, size_t from, size_t to) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(item);
    for (size_t i = from; i < to; ++i) {
        if (bytes[i] != OMK_FILL_BYTE) return "bad";
    }
    return "ok";
}

HANDLE HostEvent(const std::wstring& name, const wchar_t* which) {
    return CreateEventW(nullptr, TRUE, FALSE, hostrecord::EventName(name, which).c_str());
}

}  // namespace

void Tolvane_HandleEvents(WORK_ITEM* item) {
    using namespace hostrecord;
    std::string line = "item tid=" + std::to_string(GetCurrentThreadId()) + " alloc=" + std::to_string(g_allocCount) +
                       " kind=" + std::to_string(item->kind);
    if (item->kind == WORK_SUMMARY_CREATED) {
        line += " fill=" + FillState(item, offsetof(WORK_ITEM, u), sizeof(WORK_ITEM));
    } else if (item->kind == WORK_RULE_TRIGGERED) {
        const auto& rule = item->u.ruleTriggered;
        line += " plugin=" + RecordText(rule.rulePluginId) + " guid=" + RecordText(rule.ruleGuid) +
                " tag=" + RecordText(rule.dataItemsEnclosingXmlTag) + " n=" + std::to_string(rule.numDataItems) +
                " names=" + RecordArray(rule.dataItemName) + " vals=" + RecordArray(rule.dataItemVal);
    } else if (item->kind == WORK_PERIODIC_DATA) {
        const auto& periodic = item->u.periodicData;
        line += " code=" + std::to_string(periodic.code) + " sub=" + std::to_string(periodic.subCode) +
                " ts=" + std::to_string(periodic.timeStamp) + " len=" + std::to_string(periodic.dataLen) +
                " data=" + RecordBytes(periodic.data, periodic.dataLen) +
                " fill=" + FillState(item, offsetof(WORK_ITEM, u.periodicData.unused), sizeof(WORK_ITEM));
    }
    WriteRecord(line);
}

int wmain(int argc, wchar_t** argv) {
    std::wstring name;
    std::wstring recordPath;
    std::wstring logName;
    if (argc == 2 && (_wcsicmp(argv[1], L"-Embedding") == 0 || _wcsicmp(argv[1], L"/Embedding") == 0)) {
        name = L"tolvaneTestHost-embedded";
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        recordPath = std::wstring(temp) + name + L".txt";
        logName = name + L".txt";
    } else if (argc >= 4) {
        name = argv[1];
        recordPath = argv[2];
        logName = argv[3];
    } else {
        return 87;
    }
    const bool engineLater = argc > 4 && wcscmp(argv[4], L"engine-later") == 0;
    OMK_SetErrorLogName(logName.c_str());
    g_record = CreateFileW(recordPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, CREATE_ALWAYS, 0, nullptr);
    if (g_record == INVALID_HANDLE_VALUE) return 2;
    HANDLE ready = HostEvent(name, L"ready");
    HANDLE engine = HostEvent(name, L"engine");
    HANDLE stop = HostEvent(name, L"stop");

    // What engine start-up does before anything can be queued.
    omktest::InitWorkQueueLock();
    DWORD error = StartComServerThread();
    if (error != 0) {
        WriteRecord("failed com=" + std::to_string(error));
        return 3;
    }
    if (!engineLater) {
        error = StartTolvaneThread();
        WriteRecord("engine tid=" + std::to_string(g_TolvaneThreadId) + " start=" + std::to_string(error));
    }
    WriteRecord("host pid=" + std::to_string(GetCurrentProcessId()) + " com=" + std::to_string(g_ComServerThreadId));
    SetEvent(ready);

    const HANDLE startOrStop[2] = {engine, stop};
    if (engineLater && WaitForMultipleObjects(2, startOrStop, FALSE, kLifetimeMs) == WAIT_OBJECT_0) {
        error = StartTolvaneThread();
        WriteRecord("engine tid=" + std::to_string(g_TolvaneThreadId) + " start=" + std::to_string(error));
    }
    if (WaitForSingleObject(stop, kLifetimeMs) != WAIT_OBJECT_0) WriteRecord("lifetime over");

    // The service's order: engine teardown first, then the COM server.
    DWORD start = GetTickCount();
    StopTolvaneThread();
    omktest::DeleteWorkQueueLock();
    DWORD engineMs = GetTickCount() - start;
    start = GetTickCount();
    StopComServerThread();
    DWORD comMs = GetTickCount() - start;
    WriteRecord("stopped engine=" + std::to_string(engineMs) + " com=" + std::to_string(comMs) +
                " alloc=" + std::to_string(g_allocCount));
    CloseHandle(g_record);
    return 0;
}
