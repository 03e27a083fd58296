// Bounded formatting and copying at the exact size edges, and HRESULT texts.
#include <gtest/gtest.h>

#include <string>

#include "comErrorMessage.h"
#include "strHelper.h"

namespace {

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
