#include "registry/clsid_string.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

using namespace kw;

namespace {

TEST(IsClsidString, AcceptsOnlyTheTemplate) {
    const struct {
        const char* name;
        const wchar_t* text;
        bool expected;
    } rows[] = {
        {"valid upper case", L"{0123ABCD-4567-89EF-ABCD-0123456789EF}", true},
        {"valid lower case", L"{0123abcd-4567-89ef-abcd-0123456789ef}", true},
        {"trailing text is not looked at", L"{0123ABCD-4567-89EF-ABCD-0123456789EF}xyz", true},
        {"37 characters without closing brace", L"{0123ABCD-4567-89EF-ABCD-0123456789EF", false},
        {"empty text", L"", false},
        {"null text", nullptr, false},
        {"braces missing (36 characters)", L"0123ABCD-4567-89EF-ABCD-0123456789EF", false},
        {"closing brace replaced", L"{0123ABCD-4567-89EF-ABCD-0123456789EF)", false},
        {"last dash replaced", L"{0123ABCD-4567-89EF-ABCD_0123456789EF}", false},
        {"G (above F) in the first group", L"{G123ABCD-4567-89EF-ABCD-0123456789EF}", false},
        {"g (above f) in the second group", L"{0123ABCD-g567-89EF-ABCD-0123456789EF}", false},
        {"colon (above 9) in the fourth group", L"{0123ABCD-4567-89EF-AB:D-0123456789EF}", false},
        {"slash (below 0) in the last group", L"{0123ABCD-4567-89EF-ABCD-0123456789E/}", false},
        {"at sign (below A) in the last group", L"{0123ABCD-4567-89EF-ABCD-@123456789EF}", false},
        {"backquote (below a) in the last group", L"{0123ABCD-4567-89EF-ABCD-0123456789`F}", false},
        {"dash where a hex digit belongs", L"{0123ABC--4567-89EF-ABCD-0123456789EF}", false},
        {"hex digit where a dash belongs", L"{0123ABCDE4567-89EF-ABCD-0123456789EF}", false},
    };
    for (const auto& r : rows) EXPECT_EQ(r.expected, IsClsidString(r.text)) << r.name;
}

// Texts that end just before an inaccessible page: reading one character too
// many would fault. A short text must stop at its terminator, a complete one
// (no terminator) after its 38th character.
TEST(IsClsidStringBounds, NeverReadsPastTheTextOrTheThirtyEighthCharacter) {
    SYSTEM_INFO si;
    GetSystemInfo(&si);
    const DWORD page = si.dwPageSize;
    BYTE* base = static_cast<BYTE*>(VirtualAlloc(nullptr, page * 2, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(nullptr, base);
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(base + page, page, PAGE_NOACCESS, &old));
    const struct {
        const wchar_t* text;
        size_t chars;  // copied, terminator included when it is there
        bool expected;
    } rows[] = {{L"", 1, false},
                {L"{", 2, false},
                {L"{0123ABCD-4567-89EF-ABCD-0123456789EF", 38, false},
                {L"{0123ABCD-4567-89EF-ABCD-0123456789EF}", 38, true}};
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << "text length " << wcslen(r.text));
        wchar_t* text = reinterpret_cast<wchar_t*>(base + page - r.chars * sizeof(wchar_t));
        memcpy(text, r.text, r.chars * sizeof(wchar_t));
        EXPECT_EQ(r.expected, IsClsidString(text));
    }
    VirtualFree(base, 0, MEM_RELEASE);
}

}  // namespace
