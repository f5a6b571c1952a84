// The shell-folder name table and the ASCII upper-casing of names.
#include "registry/folder_names.h"

#include <gtest/gtest.h>

#include <string>

using namespace kw;

namespace {

struct CsidlRow {
    const char* name;
    const wchar_t* input;
    int expected;
};

TEST(CsidlByName, Lookup) {
    const CsidlRow rows[] = {
        {"first row", L"APPDATA", 0x1A}, {"lower-case input", L"appdata", 0x1A},
        {"second spelling is not a token name", L"Local AppData", -1},
        {"two rows share 0x05 MYDOCUMENTS", L"MYDOCUMENTS", 0x05},
        {"PROGRAMFILESX86 before PROGRAMFILES", L"ProgramFilesX86", 0x2A},
        {"PROGRAMFILES", L"PROGRAMFILES", 0x26},
        {"last row", L"DEFAULT_STARTUP", 0x07},
        {"underscore names", L"common_video", 0x37}, {"empty name", L"", -1},
        {"trailing space", L"APPDATA ", -1}, {"prefix of a name", L"APP", -1},
        {"non-ASCII letter is not upper-cased", L"\u00e4PPDATA", -1},
    };
    for (const CsidlRow& r : rows) EXPECT_EQ(r.expected, GetCsidlByName(r.input)) << r.name;
}

TEST(AsciiUpperName, OnlyAsciiLettersChange) {
    const struct {
        const char* name;
        const wchar_t* input;
        const wchar_t* upper;
    } rows[] = {
        {"both ends of the alphabet", L"az_AZ", L"AZ_AZ"},
        {"digits and punctuation stay", L"x1-y2.z3", L"X1-Y2.Z3"},
        {"non-ASCII letter stays", L"\u00e4z", L"\u00e4Z"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(std::wstring(r.upper), AsciiUpperName(r.input)) << r.name;
        EXPECT_TRUE(EqualsAsciiUpper(r.input, r.upper)) << r.name;
    }
    EXPECT_FALSE(EqualsAsciiUpper(L"a", L"AB")) << "a prefix is not equal";
    EXPECT_FALSE(EqualsAsciiUpper(L"ab", L"A")) << "a longer name is not equal";
}

}  // namespace
