// Whole-file reads and conversions on real files in the prefix.
#include <gtest/gtest.h>

#include <stdlib.h>

#include "conventions.h"
#include "testSupport.h"
#include "textFileHelpers.h"

namespace {

class TextFileHelpers : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(allocStart_, g_allocCount); }
    std::wstring Write(const wchar_t* name, const std::string& bytes) {
        EXPECT_TRUE(omktest::WriteFileBytes(temp_.File(name), bytes));
        return temp_.File(name);
    }
    std::wstring ReadWide(const std::wstring& path) {
        wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(path.c_str());
        if (text == nullptr) return L"<null>";
        std::wstring copy = text;
        free(text);
        --g_allocCount;
        return copy;
    }

    omktest::TempFolder temp_;
    omktest::ErrorLog log_{L"UtilityHelperLib_test.txt"};
    int allocStart_ = g_allocCount;
};

TEST_F(TextFileHelpers, ReadsWholeFilesKeepingTheByteOrderMarkAndReplacingBadBytes) {
    std::wstring empty = Write(L"empty.xml", "");
    char* bytes = ReadMultiByteUtf8File(empty.c_str());
    ASSERT_NE(nullptr, bytes);
    EXPECT_EQ('\0', bytes[0]);
    EXPECT_EQ(allocStart_ + 1, g_allocCount);
    free(bytes);
    --g_allocCount;
    EXPECT_EQ(L"", ReadWide(empty));
    EXPECT_EQ(L"\uFEFF<a>\u00e9</a>", ReadWide(Write(L"bom.xml", "\xEF\xBB\xBF<a>\xC3\xA9</a>")));
    std::wstring invalid = ReadWide(Write(L"invalid.xml", "a\xFF\xC3z"));
    ASSERT_EQ(4u, invalid.size()) << "each bad byte becomes one replacement character";
    EXPECT_EQ(L'a', invalid[0]);
    EXPECT_EQ(L'z', invalid[3]);
    EXPECT_EQ("", log_.Since());
}

TEST_F(TextFileHelpers, ReadsAFileOpenForWritingAndReportsOneItCannotOpen) {
    std::wstring path = Write(L"busy.xml", "<busy/>");
    HANDLE writer = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(L"<busy/>", ReadWide(path));
    CloseHandle(writer);
    HANDLE exclusive = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(nullptr, ReadMultiByteUtf8File(path.c_str()));
    CloseHandle(exclusive);
    std::wstring missing = temp_.File(L"missing.xml");
    EXPECT_EQ(L"<null>", ReadWide(missing));
    EXPECT_EQ((std::vector<std::string>{
                  "ReadMultiByteUtf8File: Error 0x20 opening file for reading " + omktest::ToUtf8(path),
                  "ReadMultiByteUtf8File: Error 0x2 opening file for reading " + omktest::ToUtf8(missing),
                  "ReadMultiByteUtf8FileIntoTCHARString: ReadMultiByteUtf8File " + omktest::ToUtf8(missing) + " failed",
              }),
              log_.Messages());
}

TEST_F(TextFileHelpers, WideToUtf8StopsAtTheBufferOf1024Bytes) {
    char buffer[OMK_UTF8_BUFFER_BYTES];
    EXPECT_TRUE(WcharToUtf8(std::wstring(1023, L'a').c_str(), buffer));
    EXPECT_EQ(1023u, strlen(buffer));
    EXPECT_FALSE(WcharToUtf8(std::wstring(1024, L'a').c_str(), buffer));
    // 341 three-byte characters take 1023 bytes plus the terminator; one more ASCII does not fit.
    EXPECT_TRUE(WcharToUtf8(std::wstring(341, L'\u20AC').c_str(), buffer));
    EXPECT_FALSE(WcharToUtf8((std::wstring(341, L'\u20AC') + L"a").c_str(), buffer));
    EXPECT_TRUE(WcharToUtf8(L"caf\u00e9", buffer));
    EXPECT_STREQ("caf\xC3\xA9", buffer);
}

}  // namespace
