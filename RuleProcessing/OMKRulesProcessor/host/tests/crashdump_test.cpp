// A rule plugin that makes an access violation on the installed service's
// engine thread: the crash filter logs the exception with one line per
// parameter and writes a minidump into the minidump folder, then the process
// ends through the system's handling. Wine's service manager is left believing
// the dead service runs; the test's CTest cleanup restarts the prefix's server.
#include <windows.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "installedService.h"
#include "testPlugins.h"
#include "testSupport.h"

namespace {

const std::wstring kInstall = L"C:\\omkcrash";

std::set<std::wstring> Dumps() {
    std::set<std::wstring> dumps;
    for (const auto& root : svctest::ProductDataRoots()) {
        WIN32_FIND_DATAW found;
        HANDLE find = FindFirstFileW((root + L"\\Archive\\omkcrash_*.mdmp").c_str(), &found);
        if (find == INVALID_HANDLE_VALUE) continue;
        do dumps.insert(root + L"\\Archive\\" + found.cFileName);
        while (FindNextFileW(find, &found));
        FindClose(find);
    }
    return dumps;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(CrashDump, AccessViolationInARulePluginOnTheEngineThread) {
    ASSERT_TRUE(omktest::InstallTestRoot());
    svctest::RunInstaller(L"uninstall", kInstall);
    ASSERT_EQ(0u, svctest::RunInstaller(L"install", kInstall));

    // A summary rule of the test rule plugin, whose Rule_Triggered writes to an unmapped address.
    ASSERT_TRUE(CopyFileW(omktest::BuiltFile(omktest::kTestRulePlugin).c_str(), (kInstall + L"\\ruleA.dll").c_str(),
                          FALSE));
    omktest::PluginKey ruleKey(omktest::kRulePluginKey);
    ruleKey.Add(L"ruleA", kInstall + L"\\ruleA.dll");
    omktest::TestPluginBehaviour ruleA(L"ruleA.dll");
    ruleA.Set(L"TriggeredRaise", EXCEPTION_ACCESS_VIOLATION);
    ASSERT_TRUE(omktest::WriteFileBytes(
        kInstall + L"\\insvcAlerts.xml",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Tolvane><Rule Enabled=\"1\" Platform=\"All\" OnSummary=\"1\" "
        "Type=\"ruleA\"><Name>faults</Name><Descr>d</Descr><RuleGuid>{0D1E2F30-4152-6374-8596-A7B8C9DAEBFC}"
        "</RuleGuid><AlertMsg>never written</AlertMsg></Rule></Tolvane>\r\n"));
    const std::set<std::wstring> dumpsBefore = Dumps();

    svctest::InstalledService service;
    ASSERT_TRUE(service.IsOpen());
    ASSERT_TRUE(service.Start()) << GetLastError();
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING)) << service.LogSince();
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, service.ProcessId());
    ASSERT_NE(nullptr, process);

    svctest::Collector collector;
    ASSERT_EQ(S_OK, collector.Connect());
    EXPECT_EQ(S_OK, collector.SummaryCreated());

    // The dump of a whole process takes Wine several seconds.
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(process, 90000)) << "the crashed process ends";
    CloseHandle(process);
    const std::string log = service.LogSince();
    EXPECT_TRUE(Contains(log, "OMKExceptionFilter: EXCEPTION Code 0xc0000005, Flags 0x0, Address ")) << log;
    // An access violation has two parameters: the write flag and the address written.
    EXPECT_TRUE(Contains(log, "OMKExceptionFilter: EXCEPTION Parameter/Argument[0] = 0000000000000001")) << log;
    EXPECT_TRUE(Contains(log, "OMKExceptionFilter: EXCEPTION Parameter/Argument[1] = 0000000000000010")) << log;
    EXPECT_FALSE(Contains(log, "Parameter/Argument[2]")) << log;
    EXPECT_TRUE(Contains(log, "GenetateUserModeMinidumpFilePath: ")) << log;
    // The argument list is short of its placeholder: the log shows it unfilled.
    EXPECT_TRUE(Contains(log, "OMKExceptionFilter: User-mode minidump has been written to %ls.")) << log;

    std::set<std::wstring> dumps = Dumps();
    std::wstring dump;
    for (const auto& file : dumps)
        if (dumpsBefore.count(file) == 0) dump = file;
    ASSERT_FALSE(dump.empty()) << "a new omkcrash_<UTC time>.mdmp";
    EXPECT_TRUE(Contains(log, omktest::ToUtf8(dump.substr(dump.rfind(L'\\'))))) << log;
    EXPECT_EQ("MDMP", omktest::ReadFileBytes(dump).substr(0, 4));
    EXPECT_EQ(std::wstring(L"omkcrash_").size() + 17 + std::wstring(L".mdmp").size(),
              dump.size() - dump.rfind(L'\\') - 1);
    DeleteFileW(dump.c_str());

    // The proxy's server is gone: no call may hang or crash the collector.
    EXPECT_TRUE(FAILED(collector.SummaryCreated()));
}

}  // namespace
