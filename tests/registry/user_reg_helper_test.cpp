#include "registry/user_reg_helper.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

using namespace kw_user;

namespace {

// A user whose profile is C:\Users\Second, with A=1, B=2 and EMPTY empty.
bool Lookup(const std::wstring& upperName, std::wstring& value) {
    static const std::map<std::wstring, std::wstring> vars = {
        {L"USERPROFILE", L"C:\\Users\\Second"}, {L"A", L"1"}, {L"B", L"2"}, {L"EMPTY", L""}};
    const auto it = vars.find(upperName);
    if (it == vars.end()) return false;
    value = it->second;
    return true;
}

}  // namespace

TEST(ExpandUserText, Expands) {
    const struct {
        const char* name;
        const wchar_t* text;
        size_t cchMax;
        const wchar_t* expected;
    } rows[] = {
        {"no token", L"C:\\a.exe", 4095, L"C:\\a.exe"},
        {"profile token", L"%USERPROFILE%\\x", 4095, L"C:\\Users\\Second\\x"},
        {"name in lower case", L"%userProfile%\\x", 4095, L"C:\\Users\\Second\\x"},
        {"two tokens side by side", L"%A%%B%", 4095, L"12"},
        {"unknown token stays", L"%NOPE%\\x", 4095, L"%NOPE%\\x"},
        {"unknown then known shares a percent", L"%NOPE%A%", 4095, L"%NOPE1"},
        {"empty name", L"%%A%", 4095, L"%1"},
        {"percent without closing percent", L"a%b", 4095, L"a%b"},
        {"variable with an empty value", L"[%EMPTY%]", 4095, L"[]"},
        {"cut at the limit", L"%USERPROFILE%\\x", 5, L"C:\\Us"},
        {"limit equal to the length", L"%A%%B%", 2, L"12"},
        {"limit one below the length", L"%A%%B%", 1, L"1"},
    };
    for (const auto& r : rows) EXPECT_EQ(std::wstring(r.expected), ExpandUserText(r.text, Lookup, r.cchMax)) << r.name;
    EXPECT_EQ(L"%A%", ExpandUserText(L"%A%", UserVarLookup())) << "no lookup keeps the tokens";
}

TEST(ShellFolderIds, FirstMatchingRow) {
    const struct {
        const char* name;
        const wchar_t* valueName;
        int expected;
    } rows[] = {
        {"token name", L"AppData", 0x1A}, {"second spelling", L"Local AppData", 0x1C},
        {"second spelling of DESKTOPDIR", L"Desktop", 0x10},
        {"Programs is PROGRAMS before DEFAULT_PROGRAMS", L"Programs", 0x02},
        {"Startup in the system's spelling", L"StartUp", 0x07},
        {"My Videos is not in the table", L"My Videos", -1},
        {"Cache is not in the table", L"Cache", -1}, {"empty", L"", -1},
    };
    for (const auto& r : rows) EXPECT_EQ(r.expected, ShellFolderIdOfValueName(r.valueName)) << r.name;
}

TEST(PerUserVariables, UserNamesAndSystemNames) {
    for (const wchar_t* n :
         {L"USERPROFILE", L"TEMP", L"TMP", L"APPDATA", L"LOCALAPPDATA", L"HOMEPATH", L"USERNAME"})
        EXPECT_TRUE(IsPerUserVariable(n)) << std::wstring(n).size();
    for (const wchar_t* n : {L"SYSTEMROOT", L"PROGRAMFILES", L"WINDIR", L"temp", L""})
        EXPECT_FALSE(IsPerUserVariable(n));
}
