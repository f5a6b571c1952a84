#include "registry/user_reg_helper.h"

#include "support/kit.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

using namespace kw_user;

namespace {

// A user whose profile is C:\Users\Second, with A=1 and B=2.
bool Lookup(const std::wstring& upperName, std::wstring& value) {
    if (upperName == L"USERPROFILE")
        value = L"C:\\Users\\Second";
    else if (upperName == L"A")
        value = L"1";
    else if (upperName == L"B")
        value = L"2";
    else if (upperName == L"EMPTY")
        value = L"";
    else
        return false;
    return true;
}

}  // namespace

struct ExpandRow {
    const char* name;
    const wchar_t* text;
    size_t cchMax;
    const wchar_t* expected;
};
// Test names show the row title, not the bytes of the row.
void PrintTo(const ExpandRow& r, std::ostream* os) { *os << r.name; }

class ExpandUserTextRows : public ::testing::TestWithParam<ExpandRow> {};

TEST_P(ExpandUserTextRows, Expands) {
    const ExpandRow& r = GetParam();
    EXPECT_EQ(std::wstring(r.expected), ExpandUserText(r.text, Lookup, r.cchMax));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ExpandUserTextRows,
    ::testing::Values(
        ExpandRow{"no token", L"C:\\a.exe", 4095, L"C:\\a.exe"},
        ExpandRow{"profile token", L"%USERPROFILE%\\x", 4095, L"C:\\Users\\Second\\x"},
        ExpandRow{"name in lower case", L"%userProfile%\\x", 4095, L"C:\\Users\\Second\\x"},
        ExpandRow{"two tokens side by side", L"%A%%B%", 4095, L"12"},
        ExpandRow{"unknown token stays", L"%NOPE%\\x", 4095, L"%NOPE%\\x"},
        ExpandRow{"unknown then known shares a percent", L"%NOPE%A%", 4095, L"%NOPE1"},
        ExpandRow{"empty name", L"%%A%", 4095, L"%1"},
        ExpandRow{"percent without closing percent", L"a%b", 4095, L"a%b"},
        ExpandRow{"variable with an empty value", L"[%EMPTY%]", 4095, L"[]"},
        ExpandRow{"cut at the limit", L"%USERPROFILE%\\x", 5, L"C:\\Us"},
        ExpandRow{"limit equal to the length", L"%A%%B%", 2, L"12"},
        ExpandRow{"limit one below the length", L"%A%%B%", 1, L"1"}),
    kwtest::ByRowName());

TEST(ExpandUserText, NullLookupKeepsTokens) {
    EXPECT_EQ(L"%A%", ExpandUserText(L"%A%", UserVarLookup()));
}

struct NameRow {
    const char* name;
    const wchar_t* valueName;
    int expected;
};
void PrintTo(const NameRow& r, std::ostream* os) { *os << r.name; }

class ShellFolderIds : public ::testing::TestWithParam<NameRow> {};
TEST_P(ShellFolderIds, FirstMatchingRow) {
    EXPECT_EQ(GetParam().expected, ShellFolderIdOfValueName(GetParam().valueName));
}
INSTANTIATE_TEST_SUITE_P(
    Rows, ShellFolderIds,
    ::testing::Values(
        NameRow{"token name", L"AppData", 0x1A}, NameRow{"second spelling", L"Local AppData", 0x1C},
        NameRow{"second spelling of DESKTOPDIR", L"Desktop", 0x10},
        NameRow{"Programs is PROGRAMS before DEFAULT_PROGRAMS", L"Programs", 0x02},
        NameRow{"Startup in the system's spelling", L"StartUp", 0x07},
        NameRow{"My Videos is not in the table", L"My Videos", -1},
        NameRow{"Cache is not in the table", L"Cache", -1}, NameRow{"empty", L"", -1}),
    kwtest::ByRowName());

TEST(PerUserVariables, UserNamesAndSystemNames) {
    for (const wchar_t* n :
         {L"USERPROFILE", L"TEMP", L"TMP", L"APPDATA", L"LOCALAPPDATA", L"HOMEPATH", L"USERNAME"})
        EXPECT_TRUE(IsPerUserVariable(n)) << std::wstring(n).size();
    for (const wchar_t* n : {L"SYSTEMROOT", L"PROGRAMFILES", L"WINDIR", L"temp", L""})
        EXPECT_FALSE(IsPerUserVariable(n));
}
