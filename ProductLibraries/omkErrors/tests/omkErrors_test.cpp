// omkErrors.dll: its formatter through the library's own export, and the log file.
#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include <set>
#include <thread>

#include "omkErrors.h"
#include "testSupport.h"

extern "C" void ReportFromC(unsigned long error);

namespace {

template <typename... Args>
std::wstring Format(const wchar_t* format, const Args&... args) {
    const OMK_ERROR_ARG packed[sizeof...(Args) + 1] = {omk_errors_detail::MakeArg(args)..., OMK_ERROR_ARG{}};
    wchar_t buffer[1024];
    OMK_FormatErrorArgs(buffer, 1024, format, packed, static_cast<int>(sizeof...(Args)));
    return buffer;
}

TEST(ErrorFormatter, EveryConversionFollowsTheWindowsRules) {
    EXPECT_EQ(L"-7 -7 4294967289", Format(L"%d %i %u", -7, -7, -7));
    EXPECT_EQ(L"123 4000000000", Format(L"%ld %lu", 123L, 4000000000UL));
    EXPECT_EQ(L"ff FF 0xff 000000FF", Format(L"%x %X %#x %.8X", 255, 255, 255, 255u));
    EXPECT_EQ(L"05 +05 -05 5", Format(L"%02d %+03d %03d %0x", 5, 5, -5, 5));
    EXPECT_EQ(L"[   42][42   ]", Format(L"[%5d][%-5d]", 42, 42));
    EXPECT_EQ(L"18446744073709551615 -9000000000", Format(L"%zu %I64d", ~0ULL, -9000000000LL));
    EXPECT_EQ(L"100%", Format(L"%d%%", 100));
    EXPECT_EQ(L"0000000000001234", Format(L"%p", reinterpret_cast<void*>(0x1234)));
    // A 64-bit value under %x shows its low 32 bits, as the real printf would.
    EXPECT_EQ(L"89abcdef", Format(L"%x", 0x0123456789abcdefULL));
    EXPECT_EQ(L"-1", Format(L"%hd", 0xFFFF));
    EXPECT_EQ(L"0x80070057", Format(L"0x%x", static_cast<long>(0x80070057)));
    EXPECT_EQ(L"wide narrow wide wide narrow",
              Format(L"%s %hs %ls %ws %S", L"wide", "narrow", L"wide", L"wide", "narrow"));
    // The width letter in the format cannot make a narrow string read as wide.
    EXPECT_EQ(L"narrow", Format(L"%s", "narrow"));
    EXPECT_EQ(L"wide", Format(L"%hs", L"wide"));
    EXPECT_EQ(L"(null)", Format(L"%s", static_cast<const wchar_t*>(nullptr)));
    EXPECT_EQ(L"[  ab][ab  ][abc]", Format(L"[%4.2s][%-4.2hs][%.3s]", L"abcdef", "abcdef", L"abcdef"));
    EXPECT_EQ(L"x W", Format(L"%c %C", L'x', 'W'));
    EXPECT_EQ(L"caf\u00e9", Format(L"%hs", "caf\xc3\xa9"));
}

TEST(ErrorFormatter, MismatchedArgumentListsNeverReadPastTheirEndAndTheBufferIsCutSafely) {
    EXPECT_EQ(L"a=1 b=%d c=%s", Format(L"a=%d b=%d c=%s", 1));
    EXPECT_EQ(L"code %x at %p", Format(L"code %x at %p"));
    EXPECT_EQ(L"number text", Format(L"number %d", "text"));
    EXPECT_EQ(L"text 42", Format(L"text %s", 42));
    EXPECT_EQ(L"%q %", Format(L"%q %"));
    EXPECT_EQ(L"%*d", Format(L"%*d"));
    const OMK_ERROR_ARG arg = omk_errors_detail::MakeArg(L"abcdefgh");
    wchar_t small[4];
    EXPECT_EQ(10, OMK_FormatErrorArgs(small, 4, L"%s!!", &arg, 1));
    EXPECT_STREQ(L"abc", small);
    EXPECT_EQ(13, OMK_FormatErrorArgs(nullptr, 0, L"(null format)", nullptr, 5));
}

using omktest::ErrorLog;

TEST(ErrorLog, OneUtf8LinePerReportFromCxxAndFromC) {
    ErrorLog log(L"omkErrors_test_layout.txt");
    wchar_t programData[MAX_PATH];
    GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH);
    EXPECT_EQ(std::wstring(programData) + L"\\Varn\\Orlemark\\Log\\omkErrors_test_layout.txt", log.Path());

    OMK_ReportError(7, L"%hs(): SetEvent(%hs) err=%lu \u00e9 %d", "StartTolvaneThread", "g_TolvaneEvent", 6ul);
    ReportFromC(5);
    std::string text = omktest::ReadFileBytes(log.Path());
    EXPECT_NE(0, text.compare(0, 3, "\xEF\xBB\xBF")) << "no byte-order mark";
    char head[64];
    snprintf(head, sizeof(head), " %lu %lu 7 StartTolvaneThread", GetCurrentProcessId(), GetCurrentThreadId());
    EXPECT_NE(std::string::npos, text.find(head)) << text;
    ASSERT_GE(text.size(), 24u);
    EXPECT_EQ("-: .", text.substr(4, 1) + text.substr(13, 1) + text.substr(10, 1) + text.substr(19, 1));
    EXPECT_EQ((std::vector<std::string>{"StartTolvaneThread(): SetEvent(g_TolvaneEvent) err=6 \xC3\xA9 %d",
                                        "ReportFromC(): from C \xC3\xA9 err=5 0xff"}),
              log.Messages());

    omktest::TempFolder temp;
    std::wstring path = temp.File(L"deeper\\still\\errors.txt");
    OMK_SetErrorLogName(path.c_str());
    OMK_ReportError(0, L"into %s", L"a new folder");
    EXPECT_NE(std::string::npos, omktest::ReadFileBytes(path).find("into a new folder"));
}

TEST(ErrorLog, KeepsOneBackupAtOneMebibyteAndStopsAtTwoWhileTheBackupCannotBeMade) {
    ErrorLog log(L"omkErrors_test_rotation.txt");
    const std::string line(99, 'x');
    std::string mebibyte;
    while (mebibyte.size() < 1024 * 1024) mebibyte += line + "\r\n";
    ASSERT_TRUE(omktest::WriteFileBytes(log.Path(), mebibyte));
    {
        // Another program reads the log without delete sharing: no backup can be made.
        HANDLE holder = CreateFileW(log.Path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, holder);
        OMK_ReportError(0, L"still written below two mebibytes");
        EXPECT_TRUE(log.Contains("still written below two mebibytes"));
        ASSERT_TRUE(omktest::WriteFileBytes(log.Path(), mebibyte + mebibyte));
        for (int i = 0; i < 3; ++i) OMK_ReportError(0, L"dropped %d", i);
        EXPECT_EQ(2u * mebibyte.size(), omktest::FileSize(log.Path()));
        EXPECT_FALSE(omktest::FileExists(log.Path() + L".bak"));
        CloseHandle(holder);
    }
    OMK_ReportError(0, L"first line of the new file");
    EXPECT_EQ(2u * mebibyte.size(), omktest::FileSize(log.Path() + L".bak"));
    std::string fresh = omktest::ReadFileBytes(log.Path());
    EXPECT_NE(std::string::npos, fresh.find("first line of the new file"));
    EXPECT_LT(fresh.size(), 200u);
}

TEST(ErrorLog, ThreadsAndProcessesShareOneLockThatEveryUserMayWaitOn) {
    ErrorLog log(L"omkErrors_test_concurrent.txt");
    constexpr int kPerWriter = 300;
    std::vector<std::thread> writers;
    std::vector<std::string> names;
    for (int w = 0; w < 6; ++w) {
        names.push_back((w < 4 ? "thread" : "process") + std::to_string(w));
        writers.emplace_back([&, w] {
            if (w < 4) {
                for (int i = 0; i < kPerWriter; ++i) OMK_ReportError(0, L"line thread%d %d end", w, i);
                return;
            }
            EXPECT_EQ(0u, omktest::RunProcess(L"\"" + omktest::ProgramFolder() + L"\\omkErrorsLogWriter.exe\" \"" +
                                              log.Path() + L"\" process" + std::to_wstring(w) + L" " +
                                              std::to_wstring(kPerWriter)));
        });
    }
    for (auto& writer : writers) writer.join();
    // Every line present exactly once and whole.
    std::multiset<std::string> seen;
    for (const std::string& message : log.Messages()) seen.insert(message);
    for (const std::string& name : names) {
        for (int i = 0; i < kPerWriter; ++i) {
            EXPECT_EQ(1u, seen.count("line " + name + " " + std::to_string(i) + " end")) << name << " " << i;
        }
    }
    EXPECT_EQ(names.size() * kPerWriter, seen.size());

    // The lock a service creates must let a standard user's process wait on it and release it.
    std::wstring name = L"Global\\OMKErrorLog:";
    for (wchar_t c : log.Path()) name += c == L'\\' ? L'/' : static_cast<wchar_t>(towlower(c));
    HANDLE mutex = OpenMutexW(READ_CONTROL, FALSE, name.c_str());
    ASSERT_NE(nullptr, mutex) << "no lock named " << omktest::ToUtf8(name);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL dacl = nullptr;
    ASSERT_EQ(0u, GetSecurityInfo(mutex, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                                  &descriptor));
    wchar_t* sddl = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &sddl,
                                                         nullptr);
    EXPECT_EQ(L"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x100001;;;AU)", std::wstring(sddl != nullptr ? sddl : L"(none)"));
    LocalFree(sddl);
    LocalFree(descriptor);
    CloseHandle(mutex);
}

}  // namespace
