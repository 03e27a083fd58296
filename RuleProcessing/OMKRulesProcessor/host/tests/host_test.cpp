// The service host's functions in this process: the setup state from the
// registry and from State.ini, status reports and controls without the service
// manager, and the crash filter on exception records made here.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "cdef.h"
#include "crashDumpFilter.h"
#include "serviceMain.h"
#include "testSupport.h"
#include "windowsSetupState.h"

namespace {

const wchar_t kSetupStateKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\State";
const std::wstring kStateFolder = L"C:\\windows\\Setup\\State";
const std::wstring kStateIni = kStateFolder + L"\\State.ini";

class SetupState : public ::testing::Test {
protected:
    void SetUp() override {
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSetupStateKey);
        CreateDirectoryW(L"C:\\windows\\Setup", nullptr);
        CreateDirectoryW(kStateFolder.c_str(), nullptr);
        DeleteFileW(kStateIni.c_str());
    }
    void TearDown() override {
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSetupStateKey);
        DeleteFileW(kStateIni.c_str());
    }
    void WriteIni(const std::string& imageStateLine) {
        ASSERT_TRUE(omktest::WriteFileBytes(kStateIni, "[State]\r\n" + imageStateLine + "\r\n"));
    }
    DWORD Get() {
        wmemset(state_, L'#', MAX_PATH);
        return GetWindowsSetupState(state_);
    }
    wchar_t state_[MAX_PATH];
};

TEST_F(SetupState, TheRegistryValueComesFirstAndAnEmptyOneFallsBackToStateIni) {
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetWindowsSetupState(nullptr));
    WriteIni("ImageState=IMAGE_STATE_COMPLETE");
    {
        omktest::ScopedRegKey key(HKEY_LOCAL_MACHINE, kSetupStateKey);
        key.SetString(L"ImageState", L"IMAGE_STATE_UNDEPLOYABLE");
        EXPECT_EQ(0u, Get());
        EXPECT_STREQ(L"IMAGE_STATE_UNDEPLOYABLE", state_);

        key.SetString(L"ImageState", L"");
        EXPECT_EQ(0u, Get());
        EXPECT_STREQ(L"IMAGE_STATE_COMPLETE", state_) << "an empty value is no answer";

        // Only a string value counts.
        key.SetDword(L"ImageState", 7);
        EXPECT_EQ(0u, Get());
        EXPECT_STREQ(L"IMAGE_STATE_COMPLETE", state_);
    }
    EXPECT_EQ(0u, Get());
    EXPECT_STREQ(L"IMAGE_STATE_COMPLETE", state_) << "no registry key";
}

TEST_F(SetupState, WithoutAnyStateTextTheBufferStaysEmpty) {
    // Nothing read is not a failure of its own: the status is the last error,
    // which an empty value leaves at 0 (the caller logs the empty text then).
    WriteIni("ImageState=");
    EXPECT_EQ(0u, Get());
    EXPECT_EQ(L'\0', state_[0]);

    WriteIni("OtherKey=IMAGE_STATE_COMPLETE");
    Get();
    EXPECT_EQ(L'\0', state_[0]);

    DeleteFileW(kStateIni.c_str());
    EXPECT_NE(0u, Get()) << "neither registry value nor State.ini";
    EXPECT_EQ(L'\0', state_[0]);
}

// Without the service manager: no status handle, no stop event.
TEST(ServiceControlWithoutServiceManager, ReportsAndControlsFailSoftly) {
    omktest::ErrorLog log(L"host_test.txt");
    ASSERT_EQ(nullptr, g_ServiceStatusHandle);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), ReportStatusToSCMgr(SERVICE_RUNNING, 0, 0));

    EXPECT_EQ(0u, ServiceCtrlHandlerEx(SERVICE_CONTROL_INTERROGATE, 0, nullptr, nullptr));
    EXPECT_TRUE(log.Contains("ServiceCtrlHandlerEx(SERVICE_CONTROL_INTERROGATE): g_ServiceStatusHandle is NULL!"))
        << log.Since();
    EXPECT_EQ(static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED),
              ServiceCtrlHandlerEx(SERVICE_CONTROL_PARAMCHANGE, 0, nullptr, nullptr));

    log.Mark();
    EXPECT_EQ(0u, ServiceCtrlHandlerEx(SERVICE_CONTROL_SHUTDOWN, 0, nullptr, nullptr));
    EXPECT_TRUE(log.Contains("ServiceCtrlHandlerEx(SERVICE_CONTROL_SHUTDOWN) ...")) << log.Since();
    EXPECT_TRUE(log.Contains("ServiceCtrlHandlerEx(SERVICE_CONTROL_SHUTDOWN): SetServiceStatus(SERVICE_STOP_PENDING) err=6!"))
        << log.Since();
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

class CrashFilter : public ::testing::Test {
protected:
    void SetUp() override {
        CDef::ResetForTest();
        archive_ = CDef::GetInstance().FOLDER_OMK_CRASHDUMP;
    }
    std::wstring archive_;
    omktest::ErrorLog log_{L"host_test.txt"};
};

TEST_F(CrashFilter, OtherExceptionsPassTheVectoredHandlerUntouched) {
    FakeException access(EXCEPTION_ACCESS_VIOLATION, 2);
    EXPECT_EQ(EXCEPTION_CONTINUE_SEARCH, OMKVectoredExceptionHandler(&access.pointers));
    EXPECT_EQ("", log_.Since());
}

TEST_F(CrashFilter, HeapCorruptionIsLoggedAndDumpedThroughTheVectoredHandler) {
    FakeException heap(0xC0000374, 3);
    EXPECT_EQ(EXCEPTION_CONTINUE_SEARCH, OMKVectoredExceptionHandler(&heap.pointers));
    const std::string log = log_.Since();
    EXPECT_TRUE(log_.Contains("OMKExceptionFilter: EXCEPTION Code 0xc0000374, Flags 0x0, Address 0000000012345678"))
        << log;
    EXPECT_TRUE(log_.Contains("OMKExceptionFilter: EXCEPTION Parameter/Argument[0] = 00000000000000A0")) << log;
    EXPECT_TRUE(log_.Contains("OMKExceptionFilter: EXCEPTION Parameter/Argument[2] = 00000000000000A2")) << log;
    EXPECT_FALSE(log_.Contains("Parameter/Argument[3]")) << log;
    EXPECT_TRUE(log_.Contains("OMKExceptionFilter: User-mode minidump has been written to %ls.")) << log;

    const std::string prefix = "GenetateUserModeMinidumpFilePath: ";
    size_t at = log.find(prefix);
    ASSERT_NE(std::string::npos, at) << log;
    const std::string path = log.substr(at + prefix.size(), log.find_first_of("\r\n", at) - at - prefix.size());
    const std::string folder = omktest::ToUtf8(archive_) + "\\omkcrash_";
    ASSERT_EQ(folder, path.substr(0, folder.size())) << path;
    EXPECT_EQ(17u + 5u, path.size() - folder.size()) << "UTC time to the millisecond and .mdmp: " << path;
    EXPECT_EQ(".mdmp", path.substr(path.size() - 5));
    const std::wstring dump = omktest::FromUtf8(path);
    EXPECT_EQ("MDMP", omktest::ReadFileBytes(dump).substr(0, 4));
    DeleteFileW(dump.c_str());
}

TEST_F(CrashFilter, WithoutTheMinidumpFolderTheSystemHandlesTheException) {
    const std::wstring held = archive_ + L"-held";
    ASSERT_TRUE(MoveFileW(archive_.c_str(), held.c_str())) << GetLastError();
    FakeException access(EXCEPTION_ACCESS_VIOLATION, 2);
    LONG result = OMKExceptionFilter(&access.pointers);
    MoveFileW(held.c_str(), archive_.c_str());
    EXPECT_EQ(EXCEPTION_EXECUTE_HANDLER, result);
    EXPECT_TRUE(log_.Contains("OMKExceptionFilter: EXCEPTION Parameter/Argument[1] = 00000000000000A1")) << log_.Since();
    EXPECT_TRUE(log_.Contains("OMKExceptionFilter: CreateFileW(" + omktest::ToUtf8(archive_) + "\\omkcrash_"))
        << log_.Since();
    EXPECT_TRUE(log_.Contains(".mdmp) failed! err=3")) << log_.Since();
}

}  // namespace
