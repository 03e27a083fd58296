// The log file itself: line layout, the size backup, and many writers at once.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "omkErrors.h"
#include "testSupport.h"

namespace {

using omktest::ErrorLog;

TEST(ErrorLog, OneUtf8LinePerReportInTheProductLogFolder) {
    ErrorLog log(L"omkErrors_test_layout.txt");
    wchar_t programData[MAX_PATH];
    GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH);
    EXPECT_EQ(std::wstring(programData) + L"\\Varn\\Orlemark\\Log\\omkErrors_test_layout.txt", log.Path());

    OMK_ReportError(7, L"%hs(): SetEvent(%hs) err=%lu \u00e9", "StartTolvaneThread", "g_TolvaneEvent", 6ul);
    std::string text = omktest::ReadFileBytes(log.Path());
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ("\r\n", text.substr(text.size() - 2));
    EXPECT_NE(0, text.compare(0, 3, "\xEF\xBB\xBF")) << "no byte-order mark";

    char expectedHead[64];
    snprintf(expectedHead, sizeof(expectedHead), " %lu %lu 7 ", GetCurrentProcessId(), GetCurrentThreadId());
    EXPECT_NE(std::string::npos, text.find(expectedHead)) << text;
    std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ("StartTolvaneThread(): SetEvent(g_TolvaneEvent) err=6 \xC3\xA9", messages[0]);
    // yyyy-mm-dd hh:mm:ss.mmm
    ASSERT_GE(text.size(), 24u);
    EXPECT_EQ('-', text[4]);
    EXPECT_EQ(' ', text[10]);
    EXPECT_EQ('.', text[19]);
}

TEST(ErrorLog, CreatesAMissingFolderAndTakesFullPaths) {
    omktest::TempFolder temp;
    std::wstring path = temp.File(L"deeper\\still\\errors.txt");
    OMK_SetErrorLogName(path.c_str());
    OMK_ReportError(0, L"into %s", L"a new folder");
    EXPECT_NE(std::string::npos, omktest::ReadFileBytes(path).find("into a new folder"));
}

TEST(ErrorLog, KeepsOneBackupAtOneMebibyte) {
    ErrorLog log(L"omkErrors_test_rotation.txt");
    const std::wstring filler(200, L'x');
    int reports = 0;
    while (omktest::FileSize(log.Path()) < 1024 * 1024) {
        OMK_ReportError(0, L"%d %s", reports++, filler.c_str());
    }
    ASSERT_FALSE(omktest::FileExists(log.Path() + L".bak"));
    OMK_ReportError(0, L"first line of the new file");
    ASSERT_TRUE(omktest::FileExists(log.Path() + L".bak"));
    EXPECT_GE(omktest::FileSize(log.Path() + L".bak"), 1024u * 1024u);
    EXPECT_LT(omktest::FileSize(log.Path() + L".bak"), 1024u * 1024u + 512u);
    std::string fresh = omktest::ReadFileBytes(log.Path());
    EXPECT_NE(std::string::npos, fresh.find("first line of the new file"));
    EXPECT_LT(fresh.size(), 200u);
}

// Every line "writer-N-I" must be present exactly once and whole.
void ExpectAllLines(const std::string& text, const std::vector<std::string>& writers, int perWriter) {
    std::multiset<std::string> seen;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find("\r\n", start);
        ASSERT_NE(std::string::npos, end) << "torn last line";
        std::string line = text.substr(start, end - start);
        size_t tag = line.find("line ");
        ASSERT_NE(std::string::npos, tag) << "torn line: " << line;
        seen.insert(line.substr(tag));
        start = end + 2;
    }
    for (const std::string& writer : writers) {
        for (int i = 0; i < perWriter; ++i) {
            std::string expected = "line " + writer + " " + std::to_string(i) + " end";
            EXPECT_EQ(1u, seen.count(expected)) << expected;
        }
    }
}

TEST(ErrorLog, ThreadsAndProcessesLogAtOnceWithoutLosingOrTearingLines) {
    ErrorLog log(L"omkErrors_test_concurrent.txt");
    constexpr int kPerWriter = 300;
    const std::wstring writer = omktest::ProgramFolder() + L"\\omkErrorsLogWriter.exe";
    const std::wstring logPath = log.Path();

    std::vector<std::thread> threads;
    std::vector<std::string> names;
    for (int t = 0; t < 4; ++t) {
        names.push_back("thread" + std::to_string(t));
        threads.emplace_back([t] {
            for (int i = 0; i < kPerWriter; ++i) OMK_ReportError(0, L"line thread%d %d end", t, i);
        });
    }
    std::vector<std::thread> children;
    for (int p = 0; p < 2; ++p) {
        names.push_back("process" + std::to_string(p));
        children.emplace_back([&, p] {
            std::wstring command = L"\"" + writer + L"\" \"" + logPath + L"\" process" + std::to_wstring(p) + L" " +
                                   std::to_wstring(kPerWriter);
            EXPECT_EQ(0u, omktest::RunProcess(command));
        });
    }
    for (auto& thread : threads) thread.join();
    for (auto& child : children) child.join();
    ExpectAllLines(omktest::ReadFileBytes(log.Path()), names, kPerWriter);
}

}  // namespace
