#include "analyze/reg_path_match.h"

#include <gtest/gtest.h>

using namespace kw;

TEST(MatchRegPathPattern, Table) {
    const struct { const char* name; const wchar_t *text, *pattern; bool expected; } rows[] = {
        {"no wildcard: never compared", L"System\\Other", L"Software\\Run", true},
        {"wildcard key then tail", L"software\\classes\\txtfile\\shellex\\ContextMenuHandlers", L"SOFTWARE\\Classes\\*\\shellex", true},
        {"wildcard key, other tail", L"software\\classes\\txtfile\\other", L"SOFTWARE\\Classes\\*\\shellex", false},
        {"text ends inside the wildcard key: tail not compared", L"software\\classes\\txtfile", L"SOFTWARE\\Classes\\*\\shellex", true},
        {"head differs", L"software\\other\\txtfile\\shellex", L"SOFTWARE\\Classes\\*\\shellex", false},
        {"text shorter than the head", L"soft", L"SOFTWARE\\Classes\\*", false},
        {"star inside a name covers its rest", L"SYSTEM\\ControlSet001\\Services\\x", L"SYSTEM\\Control*\\Services", true},
        {"trailing star", L"SYSTEM\\ControlSet001\\Services\\Beep", L"SYSTEM\\ControlSet001\\Services\\*", true},
        {"trailing star: the key itself lacks the separator", L"SYSTEM\\ControlSet001\\Services", L"SYSTEM\\ControlSet001\\Services\\*", false},
        {"leading star (any user hive)", L"S-1-5-21-1\\Software\\Microsoft\\Windows\\CurrentVersion\\Run",
         L"*\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", true},
        {"two stars", L"a\\b\\c\\d", L"A\\*\\C\\*", true},
        {"text ends while a second star remains", L"a\\b", L"A\\*\\C\\*\\D", false},
        {"case of both sides ignored", L"SoFtWaRe\\CLASSES\\x\\SHELLEX", L"software\\classes\\*\\shellex", true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.expected, MatchRegPathPattern(r.text, r.pattern));
    }
}

TEST(CountPathLevel, Table) {
    const struct { const char* name; const wchar_t* text; size_t expected; } rows[] = {
        {"two names", L"a\\b", 2},
        {"leading, doubled and trailing separators", L"\\a\\\\b\\", 2},
        {"empty", L"", 0},
        {"null", nullptr, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.expected, CountPathLevel(r.text));
    }
}

TEST(FindPatternEnd, EndAndWrapAround) {
    const std::wstring pattern = L"SOFTWARE\\Classes\\*\\shellex";
    EXPECT_EQ(32u, FindPatternEnd(L"software\\classes\\txtfile\\shellex", pattern, true));
    EXPECT_EQ(32u, FindPatternEnd(L"software\\classes\\txtfile\\shellex\\x", pattern, true));
    // Refused without skipMatch when the text does not match.
    EXPECT_EQ(kNoPos, FindPatternEnd(L"software\\classes\\txtfile\\other", pattern, false));
    // A tail that is not found: npos + its length, wrapped (deliberately kept).
    EXPECT_EQ(kNoPos + 8, FindPatternEnd(L"software\\classes\\txtfile\\other", pattern, true));
}

TEST(IsDefaultValueName, Table) {
    const struct { const char* name; const wchar_t* text; bool expected; } rows[] = {
        {"empty name", L"", true},
        {"the word in other case", L"DEFAULT_Null", true},
        {"one character short", L"default_nul", false},
        {"one character more", L"default_null ", false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.expected, IsDefaultValueName(r.text));
    }
}
