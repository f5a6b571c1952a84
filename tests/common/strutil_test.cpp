#include "common/strutil.h"

#include <gtest/gtest.h>

using namespace kw;

struct CopyRow {
    const char* name;
    const wchar_t* src;
    size_t cchDst;
    size_t cchSrcMax;
    const wchar_t* expected;
};

class CopyBoundedTest : public ::testing::TestWithParam<CopyRow> {};

TEST_P(CopyBoundedTest, CutsAndTerminates) {
    const CopyRow& r = GetParam();
    wchar_t buf[16];
    wmemset(buf, L'#', 16);
    size_t n = CopyBounded(buf, r.cchDst, r.src, r.cchSrcMax);
    EXPECT_EQ(std::wstring(r.expected), std::wstring(buf)) << r.name;
    EXPECT_EQ(wcslen(r.expected), n);
    EXPECT_EQ(L'#', buf[r.cchDst]) << "wrote past the buffer";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CopyBoundedTest,
    ::testing::Values(CopyRow{"N-1 characters fill the buffer", L"abcd", 5, static_cast<size_t>(-1), L"abcd"},
                      CopyRow{"N characters are cut by one", L"abcde", 5, static_cast<size_t>(-1), L"abcd"},
                      CopyRow{"N+1 characters are cut by two", L"abcdef", 5, static_cast<size_t>(-1), L"abcd"},
                      CopyRow{"source without terminator is bounded", L"abcdef", 8, 3, L"abc"},
                      CopyRow{"null source gives empty text", nullptr, 4, static_cast<size_t>(-1), L""},
                      CopyRow{"one-character buffer holds only the terminator", L"abc", 1, static_cast<size_t>(-1), L""}));

TEST(FormatBounded, WideAndNarrowArgumentsCutAndNonAsciiFormat) {
    wchar_t buf[12];
    EXPECT_TRUE(FormatBounded(buf, 12, "%ls-%s-%d", L"ab", "cd", 7));
    EXPECT_EQ(std::wstring(L"ab-cd-7"), buf);
    EXPECT_FALSE(FormatBounded(buf, 5, "%ls", L"abcdefgh"));
    EXPECT_EQ(std::wstring(L"abcd"), buf);
    // FormatW takes a UTF-8 format.
    EXPECT_EQ(std::wstring(L"\u521d\u59cb x=1"), FormatW("初始 x=%d", 1));
}

TEST(ReplaceAll, CaseSensitiveAndNoCaseAndFindNoCase) {
    std::wstring s = L"%ProgramFiles%\\a;%programfiles%";
    EXPECT_EQ(1u, ReplaceAll(s, L"%programfiles%", L"X"));
    EXPECT_EQ(std::wstring(L"%ProgramFiles%\\a;X"), s);
    EXPECT_EQ(1u, ReplaceAllNoCase(s, L"%PROGRAMFILES%", L"Y"));
    EXPECT_EQ(std::wstring(L"Y\\a;X"), s);
    // FindNoCase: an empty or longer needle is never found; the search starts at `from`.
    EXPECT_EQ(0u, FindNoCase(L"ControlSet001", L"controlset"));
    EXPECT_EQ(std::wstring::npos, FindNoCase(L"abc", L""));
    EXPECT_EQ(std::wstring::npos, FindNoCase(L"ab", L"abc"));
    EXPECT_EQ(2u, FindNoCase(L"xxABC", L"abc", 1));
}
