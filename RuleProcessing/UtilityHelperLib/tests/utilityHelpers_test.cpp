// The text helpers: whole-file reads on real files in the prefix, bounded
// formatting and copying at the exact size edges, and HRESULT texts.
#include <gtest/gtest.h>

#include <stdlib.h>

#include "comErrorMessage.h"
#include "conventions.h"
#include "strHelper.h"
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

constexpr HRESULT kInvalidArgument = static_cast<HRESULT>(0x80070057);
constexpr HRESULT kInsufficientBuffer = static_cast<HRESULT>(0x8007007A);

// Each case writes into a buffer of '$': the result, the text, zeros up to the
// given size and nothing after it. A null source formats "%s-%hs-%d".
TEST(StrHelper, FormatsAndCopiesWithinTheGivenSizeOnly) {
    const struct {
        size_t size;
        const wchar_t* source;
        HRESULT hr;
        std::wstring text;
    } cases[] = {
        {9, nullptr, S_OK, L"ab-cd-12"},  // fits exactly with its terminator
        {16, nullptr, S_OK, L"ab-cd-12"},
        {8, nullptr, kInsufficientBuffer, L""},  // one short: no truncated text
        {8, L"1234567", S_OK, L"1234567"},
        {7, L"1234567", kInsufficientBuffer, L""},
        {1, L"", S_OK, L""},
        {0, nullptr, kInvalidArgument, L""},  // size 0 touches nothing
        {0, L"a", kInvalidArgument, L""},
    };
    for (const auto& c : cases) {
        wchar_t buffer[16];
        wmemset(buffer, L'$', 16);
        HRESULT hr = c.source == nullptr ? CStrHelper::StrPrintf(buffer, c.size, L"%s-%hs-%d", L"ab", "cd", 12)
                                         : CStrHelper::StrCopy(buffer, c.size, c.source);
        EXPECT_EQ(c.hr, hr) << c.size;
        EXPECT_EQ(c.text + std::wstring(c.size - c.text.size(), L'\0') + std::wstring(16 - c.size, L'$'),
                  std::wstring(buffer, 16))
            << c.size;
    }
    wchar_t buffer[4] = L"xyz";
    EXPECT_EQ(kInvalidArgument, CStrHelper::StrCopy(buffer, 0x80000000ull, L"a"));
    EXPECT_EQ(L'\0', buffer[0]);
}

TEST(ComErrorMessage, SystemTextWithoutItsLineEndElseTheFallbackForms) {
    std::wstring text = ComErrorMessage(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)).Text();
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(std::wstring::npos, text.find_first_of(L"\r\n"));
    EXPECT_STREQ(L"IDispatch error #1", ComErrorMessage(static_cast<HRESULT>(0x80040201)).Text());
    EXPECT_STREQ(L"IDispatch error #65023", ComErrorMessage(static_cast<HRESULT>(0x8004FFFF)).Text());
    EXPECT_STREQ(L"Unknown error 0x80040200", ComErrorMessage(static_cast<HRESULT>(0x80040200)).Text());
    EXPECT_STREQ(L"Unknown error 0xA0001234", ComErrorMessage(static_cast<HRESULT>(0xA0001234)).Text());
}

}  // namespace
