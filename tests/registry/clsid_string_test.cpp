#include "registry/clsid_string.h"

#include "support/kit.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <ostream>
#include <string>

using namespace kw;

namespace {

struct ClsidTextRow {
    const char* name;
    const wchar_t* text;
    bool expected;
};

void PrintTo(const ClsidTextRow& row, std::ostream* os) { *os << row.name; }

class IsClsidStringTest : public ::testing::TestWithParam<ClsidTextRow> {};

TEST_P(IsClsidStringTest, AcceptsOnlyTheTemplate) {
    const ClsidTextRow& r = GetParam();
    EXPECT_EQ(r.expected, IsClsidString(r.text)) << r.name;
}


INSTANTIATE_TEST_SUITE_P(
    Rows, IsClsidStringTest,
    ::testing::Values(
        ClsidTextRow{"valid upper case", L"{0123ABCD-4567-89EF-ABCD-0123456789EF}", true},
        ClsidTextRow{"valid lower case", L"{0123abcd-4567-89ef-abcd-0123456789ef}", true},
        ClsidTextRow{"valid mixed case", L"{0123AbCd-4567-89eF-aBcD-0123456789Ef}", true},
        ClsidTextRow{"trailing text is not looked at", L"{0123ABCD-4567-89EF-ABCD-0123456789EF}xyz", true},
        ClsidTextRow{"trailing backslash path is not looked at", L"{0123ABCD-4567-89EF-ABCD-0123456789EF}\\InprocServer32", true},
        ClsidTextRow{"37 characters without closing brace", L"{0123ABCD-4567-89EF-ABCD-0123456789EF", false},
        ClsidTextRow{"37 characters missing one hex digit", L"{0123ABCD-4567-89EF-ABCD-0123456789E}", false},
        ClsidTextRow{"empty text", L"", false},
        ClsidTextRow{"null text", nullptr, false},
        ClsidTextRow{"braces missing (36 characters)", L"0123ABCD-4567-89EF-ABCD-0123456789EF", false},
        ClsidTextRow{"braces missing, padded to 38", L"0123ABCD-4567-89EF-ABCD-0123456789EFAB", false},
        ClsidTextRow{"opening brace replaced", L"(0123ABCD-4567-89EF-ABCD-0123456789EF}", false},
        ClsidTextRow{"closing brace replaced", L"{0123ABCD-4567-89EF-ABCD-0123456789EF)", false},
        ClsidTextRow{"square brackets instead of braces", L"[0123ABCD-4567-89EF-ABCD-0123456789EF]", false},
        ClsidTextRow{"first dash replaced", L"{0123ABCD_4567-89EF-ABCD-0123456789EF}", false},
        ClsidTextRow{"last dash replaced", L"{0123ABCD-4567-89EF-ABCD_0123456789EF}", false},
        ClsidTextRow{"G in the first group", L"{G123ABCD-4567-89EF-ABCD-0123456789EF}", false},
        ClsidTextRow{"g in the second group", L"{0123ABCD-g567-89EF-ABCD-0123456789EF}", false},
        ClsidTextRow{"space in the third group", L"{0123ABCD-4567-89 F-ABCD-0123456789EF}", false},
        ClsidTextRow{"colon in the fourth group", L"{0123ABCD-4567-89EF-AB:D-0123456789EF}", false},
        ClsidTextRow{"slash (below 0) in the last group", L"{0123ABCD-4567-89EF-ABCD-0123456789E/}", false},
        ClsidTextRow{"at sign (below A) in the last group", L"{0123ABCD-4567-89EF-ABCD-@123456789EF}", false},
        ClsidTextRow{"backquote (below a) in the last group", L"{0123ABCD-4567-89EF-ABCD-0123456789`F}", false},
        ClsidTextRow{"full-width digit", L"{0123ABCD-4567-89EF-ABCD-0123456789E\xFF11}", false},
        ClsidTextRow{"dash where a hex digit belongs", L"{0123ABC--4567-89EF-ABCD-0123456789EF}", false},
        ClsidTextRow{"hex digit where a dash belongs", L"{0123ABCDE4567-89EF-ABCD-0123456789EF}", false}),
    kwtest::ByRowName());

// A text shorter than 38 characters that ends just before an inaccessible
// page: reading one character past its terminator would fault.
TEST(IsClsidStringBounds, NeverReadsPastAShortTextsTerminator) {
    SYSTEM_INFO si;
    GetSystemInfo(&si);
    const DWORD page = si.dwPageSize;
    BYTE* base = static_cast<BYTE*>(VirtualAlloc(nullptr, page * 2, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(nullptr, base);
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(base + page, page, PAGE_NOACCESS, &old));

    const wchar_t* prefixes[] = {L"", L"{", L"{0123ABCD-4567-89EF-ABCD-0123456789EF"};
    for (const wchar_t* prefix : prefixes) {
        SCOPED_TRACE(::testing::Message() << "prefix length " << wcslen(prefix));
        size_t cb = (wcslen(prefix) + 1) * sizeof(wchar_t);
        wchar_t* text = reinterpret_cast<wchar_t*>(base + page - cb);
        memcpy(text, prefix, cb);
        EXPECT_FALSE(IsClsidString(text));
    }
    VirtualFree(base, 0, MEM_RELEASE);
}

// A complete CLSID text whose 38th character is the last one before an
// inaccessible page: the test stops after the 38th character.
TEST(IsClsidStringBounds, StopsAfterTheThirtyEighthCharacter) {
    SYSTEM_INFO si;
    GetSystemInfo(&si);
    const DWORD page = si.dwPageSize;
    BYTE* base = static_cast<BYTE*>(VirtualAlloc(nullptr, page * 2, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(nullptr, base);
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(base + page, page, PAGE_NOACCESS, &old));
    const wchar_t clsid[] = L"{0123ABCD-4567-89EF-ABCD-0123456789EF}";
    const size_t cb = 38 * sizeof(wchar_t);  // no terminator
    wchar_t* text = reinterpret_cast<wchar_t*>(base + page - cb);
    memcpy(text, clsid, cb);
    EXPECT_TRUE(IsClsidString(text));
    VirtualFree(base, 0, MEM_RELEASE);
}

}  // namespace
