// The service host's functions in this process, and the shipped executable's contents.
#include <gtest/gtest.h>

#include "cdef.h"
#include "crashDumpFilter.h"
#include "serviceMain.h"
#include "testSupport.h"
#include "windowsSetupState.h"

namespace {

const wchar_t kSetupStateKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\State";
const std::wstring kStateIni = L"C:\\windows\\Setup\\State\\State.ini";

TEST(SetupState, TheRegistryStringComesFirstElseStateIni) {
    CreateDirectoryW(L"C:\\windows\\Setup", nullptr);
    CreateDirectoryW(L"C:\\windows\\Setup\\State", nullptr);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetWindowsSetupState(nullptr));
    struct Case {
        const wchar_t* registry;  // null: no key; "#": a DWORD value
        const char* ini;          // null: no file
        const wchar_t* state;     // null: a failure status
    };
    // Nothing read from State.ini is no failure of its own: the caller logs the empty text.
    const Case cases[] = {
        {L"", "ImageState=IMAGE_STATE_COMPLETE", L"IMAGE_STATE_COMPLETE"},
        {L"#", "ImageState=IMAGE_STATE_COMPLETE", L"IMAGE_STATE_COMPLETE"},
        {nullptr, "OtherKey=IMAGE_STATE_COMPLETE", L""},
        {nullptr, nullptr, nullptr},
    };
    for (const Case& c : cases) {
        DeleteFileW(kStateIni.c_str());
        if (c.ini != nullptr) omktest::WriteFileBytes(kStateIni, std::string("[State]\r\n") + c.ini + "\r\n");
        omktest::ScopedRegKey key(HKEY_LOCAL_MACHINE, kSetupStateKey);
        if (c.registry == nullptr)
            RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSetupStateKey);
        else
            c.registry[0] == L'#' ? key.SetDword(L"ImageState", 7) : key.SetString(L"ImageState", c.registry);
        wchar_t state[MAX_PATH];
        wmemset(state, L'#', MAX_PATH);
        EXPECT_EQ(c.state != nullptr, GetWindowsSetupState(state) == 0) << omktest::ToUtf8(state);
        EXPECT_STREQ(c.state != nullptr ? c.state : L"", state);
    }
    DeleteFileW(kStateIni.c_str());
}

// Without the service manager: no status handle, and ServiceMain fails at its
// first step, going straight to the stop sequence.
TEST(ServiceControlWithoutServiceManager, ReportsAndControlsFailSoftlyAndStopChangesNothingOnceStopped) {
    omktest::ErrorLog log(L"host_test.txt");
    ASSERT_EQ(nullptr, g_ServiceStatusHandle);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), ReportStatusToSCMgr(SERVICE_RUNNING, 0, 0));
    EXPECT_EQ(0u, ServiceCtrlHandlerEx(SERVICE_CONTROL_INTERROGATE, 0, nullptr, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED),
              ServiceCtrlHandlerEx(SERVICE_CONTROL_PARAMCHANGE, 0, nullptr, nullptr));
    EXPECT_EQ(0u, ServiceCtrlHandlerEx(SERVICE_CONTROL_SHUTDOWN, 0, nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "ServiceCtrlHandlerEx(SERVICE_CONTROL_INTERROGATE): g_ServiceStatusHandle is NULL!",
                  "ServiceCtrlHandlerEx(SERVICE_CONTROL_SHUTDOWN) ...",
                  "ServiceCtrlHandlerEx(SERVICE_CONTROL_SHUTDOWN): SetServiceStatus(SERVICE_STOP_PENDING) err=6!",
              }),
              log.Messages());

    // The stop sequence after a failed start: an engine teardown without an
    // engine start only reports, the queue's lock missing once.
    ServiceMain(0, nullptr);
    const std::string stopped = log.Since();
    ASSERT_TRUE(log.Contains("OMKRulesProcessor 1.0.0 has stopped.")) << stopped;
    const size_t first = stopped.find("RemoveFromWorkQueue: crit sect not initialized !");
    EXPECT_EQ(std::string::npos, stopped.find("RemoveFromWorkQueue: crit sect not initialized !", first + 1))
        << stopped;
    EXPECT_TRUE(log.Contains("CloseAlertGeneratedEvent: CloseHandle() err=")) << stopped;
    log.Mark();
    EXPECT_EQ(0u, ServiceCtrlHandlerEx(SERVICE_CONTROL_STOP, 0, nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{"ServiceCtrlHandlerEx(SERVICE_CONTROL_STOP) ..."}), log.Messages())
        << "no stop pending after stopped";
}

// An exception record as the system would hand it to the filter.
struct FakeException {
    EXCEPTION_RECORD record = {};
    CONTEXT context = {};
    EXCEPTION_POINTERS pointers = {&record, &context};

    FakeException(DWORD code, DWORD parameters) {
        record.ExceptionCode = code;
        record.ExceptionAddress = reinterpret_cast<void*>(static_cast<ULONG_PTR>(0x12345678));
        record.NumberParameters = parameters;
        for (DWORD i = 0; i < parameters; ++i) record.ExceptionInformation[i] = 0xA0 + i;
        RtlCaptureContext(&context);
    }
};

// The vectored handler dumps heap corruption only (the service's test shows
// the filter on a real fault); a dump that cannot be written is reported.
TEST(CrashFilter, DumpsHeapCorruptionAndReportsWhatKeepsADumpFromBeingWritten) {
    CDef::ResetForTest();
    const std::wstring archive = CDef::GetInstance().FOLDER_OMK_CRASHDUMP;
    omktest::ErrorLog log(L"host_test.txt");
    FakeException access(EXCEPTION_ACCESS_VIOLATION, 2);
    EXPECT_EQ(EXCEPTION_CONTINUE_SEARCH, OMKVectoredExceptionHandler(&access.pointers));
    EXPECT_EQ("", log.Since());

    FakeException heap(0xC0000374, 3);
    EXPECT_EQ(EXCEPTION_CONTINUE_SEARCH, OMKVectoredExceptionHandler(&heap.pointers));
    std::string text = log.Since();
    EXPECT_TRUE(log.Contains("OMKExceptionFilter: EXCEPTION Code 0xc0000374, Flags 0x0, Address 0000000012345678"))
        << text;
    EXPECT_TRUE(log.Contains("OMKExceptionFilter: EXCEPTION Parameter/Argument[2] = 00000000000000A2")) << text;
    EXPECT_FALSE(log.Contains("Parameter/Argument[3]")) << text;
    // "<minidump folder>\omkcrash_<UTC time to the millisecond>.mdmp"
    const std::string prefix = "GenetateUserModeMinidumpFilePath: " + omktest::ToUtf8(archive) + "\\omkcrash_";
    const size_t at = text.find(prefix);
    ASSERT_NE(std::string::npos, at) << text;
    const std::string name = text.substr(at + prefix.size(), text.find_first_of("\r\n", at) - at - prefix.size());
    EXPECT_EQ(17u, name.find_first_not_of("0123456789")) << name;
    EXPECT_EQ(".mdmp", name.substr(17));
    const std::wstring dump = archive + L"\\omkcrash_" + omktest::FromUtf8(name);
    EXPECT_EQ("MDMP", omktest::ReadFileBytes(dump).substr(0, 4));
    DeleteFileW(dump.c_str());

    log.Mark();
    const std::wstring held = archive + L"-held";
    ASSERT_TRUE(MoveFileW(archive.c_str(), held.c_str())) << GetLastError();
    const LONG result = OMKExceptionFilter(&access.pointers);
    MoveFileW(held.c_str(), archive.c_str());
    EXPECT_EQ(EXCEPTION_EXECUTE_HANDLER, result);
    EXPECT_TRUE(log.Contains("OMKExceptionFilter: CreateFileW(" + omktest::ToUtf8(archive) + "\\omkcrash_"))
        << log.Since();
    EXPECT_TRUE(log.Contains(".mdmp) failed! err=3")) << log.Since();

    log.Mark();
    OMK_MINIDUMP_WRITER faults = [](HANDLE, EXCEPTION_POINTERS*) -> BOOL {
        RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
        return TRUE;
    };
    OMK_MINIDUMP_WRITER fails = [](HANDLE, EXCEPTION_POINTERS*) -> BOOL {
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    };
    EXPECT_FALSE(WriteMinidumpReported(faults, nullptr, &access.pointers));
    EXPECT_FALSE(WriteMinidumpReported(fails, nullptr, &access.pointers));
    // The failure's argument list is the product's, one short: the error lands in the path's place.
    EXPECT_EQ((std::vector<std::string>{"OMKExceptionFilter: GetExceptionCode() returns -1073741819 ???",
                                        "OMKExceptionFilter: MiniDumpWriteDump(112) failed! err=%lu"}),
              log.Messages());
}

// The shipped executable, debug information included, holds none of the hooks
// that test builds have, nor the rule tool's replay seam.
TEST(ShippedService, CarriesNoTestHook) {
    const std::string service = omktest::ReadFileBytes(omktest::ProgramFolder() + L"\\OMKRulesProcessor.exe");
    const std::string testBuild = omktest::ReadFileBytes(omktest::ProgramFolder() + L"\\tolvane_test.exe");
    ASSERT_GT(service.size(), 100000u);
    for (const char* hook :
         {"Alert_SetClock", "ResetForTest", "SetServiceTagSourcesForTest", "SetModelForTest", "SetChassisTypeForTest",
          "ClearMachineIdentityForTest", "Tolvane_ForgetStepsForTest", "g_handleEventsPauseMs"}) {
        EXPECT_NE(std::string::npos, testBuild.find(hook)) << hook << " is a hook of the test build";
        EXPECT_EQ(std::string::npos, service.find(hook)) << hook;
    }
    EXPECT_TRUE(omktest::Contains(omktest::ReadFileBytes(omktest::ProgramFolder() + L"\\omk-rules.exe"), "g_replay"));
    EXPECT_EQ(std::string::npos, service.find("g_replay"));
}

}  // namespace
