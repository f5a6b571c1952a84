// The shell-folder name table and the ASCII upper-casing of names.
#include "registry/folder_names.h"

#include "support/kit.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

using namespace kw;

namespace {

struct CsidlRow {
    const char* name;
    const wchar_t* input;
    int expected;
};
void PrintTo(const CsidlRow& r, std::ostream* os) { *os << r.name; }

class CsidlByName : public ::testing::TestWithParam<CsidlRow> {};
TEST_P(CsidlByName, Lookup) { EXPECT_EQ(GetParam().expected, GetCsidlByName(GetParam().input)); }
INSTANTIATE_TEST_SUITE_P(
    Rows, CsidlByName,
    ::testing::Values(
        CsidlRow{"first row", L"APPDATA", 0x1A}, CsidlRow{"lower-case input", L"appdata", 0x1A},
        CsidlRow{"second spelling is not a token name", L"Local AppData", -1},
        CsidlRow{"two rows share 0x05 MYDOCUMENTS", L"MYDOCUMENTS", 0x05},
        CsidlRow{"PROGRAMFILESX86 before PROGRAMFILES", L"ProgramFilesX86", 0x2A},
        CsidlRow{"PROGRAMFILES", L"PROGRAMFILES", 0x26},
        CsidlRow{"last row", L"DEFAULT_STARTUP", 0x07},
        CsidlRow{"underscore names", L"common_video", 0x37}, CsidlRow{"empty name", L"", -1},
        CsidlRow{"trailing space", L"APPDATA ", -1}, CsidlRow{"prefix of a name", L"APP", -1},
        CsidlRow{"non-ASCII letter is not upper-cased", L"\u00e4PPDATA", -1}),
    kwtest::ByRowName());

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
