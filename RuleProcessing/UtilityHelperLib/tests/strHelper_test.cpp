// Bounded formatting and copying at the exact size edges, and HRESULT texts.
#include <gtest/gtest.h>

#include <string>

#include "comErrorMessage.h"
#include "strHelper.h"

namespace {

constexpr HRESULT kInvalidArgument = static_cast<HRESULT>(0x80070057);
constexpr HRESULT kInsufficientBuffer = static_cast<HRESULT>(0x8007007A);

bool AllZeroFrom(const wchar_t* buffer, size_t from, size_t size) {
    for (size_t i = from; i < size; ++i)
        if (buffer[i] != L'\0') return false;
    return true;
}

TEST(StrHelper, PrintfFitsExactlyAndZeroFillsTheRest) {
    wchar_t buffer[16];
    wmemset(buffer, L'$', 16);
    EXPECT_EQ(S_OK, CStrHelper::StrPrintf(buffer, 6, L"%s-%d", L"ab", 12));  // "ab-12" + terminator
    EXPECT_STREQ(L"ab-12", buffer);
    EXPECT_EQ(L'$', buffer[6]) << "nothing written past the given size";

    wmemset(buffer, L'$', 16);
    EXPECT_EQ(S_OK, CStrHelper::StrPrintf(buffer, 16, L"%hs", "narrow"));
    EXPECT_STREQ(L"narrow", buffer);
    EXPECT_TRUE(AllZeroFrom(buffer, 6, 16));
}

TEST(StrHelper, PrintfOneCharacterShortGivesAnEmptyBuffer) {
    wchar_t buffer[8];
    wmemset(buffer, L'$', 8);
    EXPECT_EQ(kInsufficientBuffer, CStrHelper::StrPrintf(buffer, 5, L"%s-%d", L"ab", 12));
    EXPECT_TRUE(AllZeroFrom(buffer, 0, 5)) << "not a truncated text";
    EXPECT_EQ(L'$', buffer[5]);
}

TEST(StrHelper, RefusesZeroAndHugeSizes) {
    wchar_t buffer[4] = {L'x', L'y', L'z', L'\0'};
    EXPECT_EQ(kInvalidArgument, CStrHelper::StrPrintf(buffer, 0, L"a"));
    EXPECT_EQ(L'x', buffer[0]) << "size 0 touches nothing";
    EXPECT_EQ(kInvalidArgument, CStrHelper::StrCopy(buffer, 0x80000000ull, L"a"));
    EXPECT_EQ(L'\0', buffer[0]);
}

TEST(StrHelper, CopyAtTheEdges) {
    wchar_t buffer[8];
    wmemset(buffer, L'$', 8);
    EXPECT_EQ(S_OK, CStrHelper::StrCopy(buffer, 8, L"1234567"));
    EXPECT_STREQ(L"1234567", buffer);
    EXPECT_EQ(kInsufficientBuffer, CStrHelper::StrCopy(buffer, 8, L"12345678"));
    EXPECT_TRUE(AllZeroFrom(buffer, 0, 8));
    EXPECT_EQ(S_OK, CStrHelper::StrCopy(buffer, 8, L"ab"));
    EXPECT_TRUE(AllZeroFrom(buffer, 2, 8));
    EXPECT_EQ(S_OK, CStrHelper::StrCopy(buffer, 1, L""));
}

TEST(ComErrorMessage, SystemTextWithoutItsLineEnd) {
    std::wstring text = ComErrorMessage(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)).Text();
    ASSERT_FALSE(text.empty());
    EXPECT_NE(L'\n', text.back());
    EXPECT_NE(L'\r', text.back());
}

TEST(ComErrorMessage, FallbackForms) {
    EXPECT_STREQ(L"IDispatch error #1", ComErrorMessage(static_cast<HRESULT>(0x80040201)).Text());
    EXPECT_STREQ(L"IDispatch error #65023", ComErrorMessage(static_cast<HRESULT>(0x8004FFFF)).Text());
    EXPECT_STREQ(L"Unknown error 0x80040200", ComErrorMessage(static_cast<HRESULT>(0x80040200)).Text());
    EXPECT_STREQ(L"Unknown error 0xA0001234", ComErrorMessage(static_cast<HRESULT>(0xA0001234)).Text());
}

}  // namespace
