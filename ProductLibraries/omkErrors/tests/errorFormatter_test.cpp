// The log's formatter through the library's own export: every conversion the
// service uses, and argument lists that do not match their format.
#include <gtest/gtest.h>

#include <string>

#include "omkErrors.h"

namespace {

template <typename... Args>
std::wstring Format(const wchar_t* format, const Args&... args) {
    const OMK_ERROR_ARG packed[sizeof...(Args) + 1] = {omk_errors_detail::MakeArg(args)..., OMK_ERROR_ARG{}};
    wchar_t buffer[1024];
    OMK_FormatErrorArgs(buffer, 1024, format, packed, static_cast<int>(sizeof...(Args)));
    return buffer;
}

TEST(ErrorFormatter, IntegerConversions) {
    EXPECT_EQ(L"-7 -7 4294967289", Format(L"%d %i %u", -7, -7, -7));
    EXPECT_EQ(L"123 4000000000", Format(L"%ld %lu", 123L, 4000000000UL));
    EXPECT_EQ(L"ff FF 0xff 000000FF", Format(L"%x %X %#x %.8X", 255, 255, 255, 255u));
    EXPECT_EQ(L"05 +05 -05 5", Format(L"%02d %+03d %03d %0x", 5, 5, -5, 5));
    EXPECT_EQ(L"[   42][42   ]", Format(L"[%5d][%-5d]", 42, 42));
    EXPECT_EQ(L"18446744073709551615 -9000000000", Format(L"%zu %I64d", ~0ULL, -9000000000LL));
    EXPECT_EQ(L"100%", Format(L"%d%%", 100));
    EXPECT_EQ(L"0000000000001234", Format(L"%p", reinterpret_cast<void*>(0x1234)));
}

TEST(ErrorFormatter, NarrowingFollowsTheLengthLikePrintf) {
    // A 64-bit value under %x shows its low 32 bits, as the real printf would.
    EXPECT_EQ(L"89abcdef", Format(L"%x", 0x0123456789abcdefULL));
    EXPECT_EQ(L"-1", Format(L"%hd", 0xFFFF));
    EXPECT_EQ(L"0x80070057", Format(L"0x%x", static_cast<long>(0x80070057)));
}

TEST(ErrorFormatter, StringsFollowTheirRealWidth) {
    EXPECT_EQ(L"wide narrow wide wide narrow", Format(L"%s %hs %ls %ws %S", L"wide", "narrow", L"wide", L"wide",
                                                      "narrow"));
    // The width letter in the format cannot make a narrow string read as wide.
    EXPECT_EQ(L"narrow", Format(L"%s", "narrow"));
    EXPECT_EQ(L"wide", Format(L"%hs", L"wide"));
    EXPECT_EQ(L"(null)", Format(L"%s", static_cast<const wchar_t*>(nullptr)));
    EXPECT_EQ(L"[  ab][ab  ][abc]", Format(L"[%4.2s][%-4.2hs][%.3s]", L"abcdef", "abcdef", L"abcdef"));
    EXPECT_EQ(L"x W", Format(L"%c %C", L'x', 'W'));
    EXPECT_EQ(L"caf\u00e9", Format(L"%hs", "caf\xc3\xa9"));
}

TEST(ErrorFormatter, MismatchedArgumentListsNeverReadPastTheirEnd) {
    EXPECT_EQ(L"a=1 b=%d c=%s", Format(L"a=%d b=%d c=%s", 1));
    EXPECT_EQ(L"code %x at %p", Format(L"code %x at %p"));
    EXPECT_EQ(L"number text", Format(L"number %d", "text"));
    EXPECT_EQ(L"text 42", Format(L"text %s", 42));
    EXPECT_EQ(L"%q %", Format(L"%q %"));
    EXPECT_EQ(L"%*d", Format(L"%*d"));
}

TEST(ErrorFormatter, ReportsTheFullLengthAndTruncatesTheBuffer) {
    const OMK_ERROR_ARG arg = omk_errors_detail::MakeArg(L"abcdefgh");
    wchar_t small[4];
    EXPECT_EQ(10, OMK_FormatErrorArgs(small, 4, L"%s!!", &arg, 1));
    EXPECT_STREQ(L"abc", small);
    EXPECT_EQ(13, OMK_FormatErrorArgs(nullptr, 0, L"(null format)", nullptr, 5));
}

}  // namespace
