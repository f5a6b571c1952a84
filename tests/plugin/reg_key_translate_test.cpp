// The user-level rewrite of monitored key paths: concrete control set to
// CurrentControlSet, the hardware profile to HKEY_CURRENT_CONFIG, the acting
// user's hive and class hive to HKEY_CURRENT_USER; bounded outputs.
#include "plugin/reg_key_translate.h"

#include "common/strutil.h"
#include "resolve/wow64.h"
#include "support/control_set_select.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kw;
using kwtest::ScopedSink;

namespace {

constexpr wchar_t kGuard = L'#';
constexpr size_t kCchOut = 1024;

void SetName(CRegKeyTranslate& t, const wchar_t* name) { CopyBounded(t.m_szCurrentControlSet, MAX_PATH, name); }

// ---------------------------------------------------------------------------
// ReplaceCurrentControlSet

struct ReplaceRow {
    const char* name;
    const wchar_t* controlSet;
    const wchar_t* key;
    bool result;
    const wchar_t* expected;  // out when replaced
};

std::ostream& operator<<(std::ostream& os, const ReplaceRow& r) { return os << r.name; }

class ReplaceCurrentControlSetTest : public ::testing::TestWithParam<ReplaceRow> {};

TEST_P(ReplaceCurrentControlSetTest, Rewrites) {
    const ReplaceRow& row = GetParam();
    CRegKeyTranslate t;
    SetName(t, row.controlSet);
    ScopedSink cap;
    wchar_t out[kCchOut];
    wmemset(out, kGuard, kCchOut);
    EXPECT_EQ(row.result, t.ReplaceCurrentControlSet(row.key, out, sizeof(out)));
    if (row.result) {
        EXPECT_EQ(std::wstring(row.expected), out);
        EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][INFO ][CRegKeyTranslate::ReplaceCurrentControlSet] "
                                            L"m_szCurrentControlSet=" + std::wstring(row.controlSet) + L" old = " +
                                            row.key + L" ==> new = " + row.expected},
                  cap.Texts());
    } else {
        EXPECT_EQ(kGuard, out[0]) << "out is untouched on refusal";
        EXPECT_TRUE(cap.Texts().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReplaceCurrentControlSetTest,
    ::testing::Values(
        ReplaceRow{"control set 1", L"ControlSet001", L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Services\\x", true,
                   L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\x"},
        ReplaceRow{"name found without regard to case", L"ControlSet001", L"hklm\\system\\CONTROLSET001\\x", true,
                   L"hklm\\system\\CurrentControlSet\\x"},
        ReplaceRow{"name at the start has nothing in front", L"ControlSet001", L"ControlSet001\\x", true,
                   L"\\CurrentControlSet\\x"},
        ReplaceRow{"only the first occurrence", L"ControlSet001", L"A\\ControlSet001\\B\\ControlSet001", true,
                   L"A\\CurrentControlSet\\B\\ControlSet001"},
        ReplaceRow{"set 1 also matches inside ControlSet0010", L"ControlSet001", L"SYSTEM\\ControlSet0010\\x", true,
                   L"SYSTEM\\CurrentControlSet0\\x"},
        ReplaceRow{"another control set is not replaced", L"ControlSet001", L"SYSTEM\\ControlSet002\\x", false,
                   nullptr},
        ReplaceRow{"empty name", L"", L"SYSTEM\\ControlSet001\\x", false, nullptr}),
    ::kwtest::ByRowName());

TEST(ReplaceCurrentControlSet, RefusesMissingArguments) {
    CRegKeyTranslate t;
    SetName(t, L"ControlSet001");
    wchar_t out[8] = {kGuard};
    EXPECT_FALSE(t.ReplaceCurrentControlSet(nullptr, out, sizeof(out)));
    EXPECT_FALSE(t.ReplaceCurrentControlSet(L"S\\ControlSet001", nullptr, sizeof(out)));
    EXPECT_FALSE(t.ReplaceCurrentControlSet(L"S\\ControlSet001", out, 0));
    EXPECT_FALSE(t.ReplaceCurrentControlSet(L"S\\ControlSet001", out, 1)) << "less than one character";
    EXPECT_EQ(kGuard, out[0]);
}

// The size is in bytes: nothing is written past outSize / 2 characters.
TEST(ReplaceCurrentControlSet, OutputIsCutToTheByteSize) {
    CRegKeyTranslate t;
    SetName(t, L"ControlSet001");
    wchar_t out[32];
    wmemset(out, kGuard, 32);
    EXPECT_TRUE(t.ReplaceCurrentControlSet(L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001", out, 20));
    EXPECT_EQ(std::wstring(L"HKEY_LOCA"), out);
    EXPECT_EQ(kGuard, out[10]);
}

// ---------------------------------------------------------------------------
// Translate for this process's user.

struct TranslateRow {
    const char* name;
    const wchar_t* controlSet;
    std::wstring key;  // "<SID>" stands for this process's SID
    bool result;
    std::wstring expected;
};

std::ostream& operator<<(std::ostream& os, const TranslateRow& r) { return os << r.name; }

std::wstring WithSid(std::wstring s) {
    ReplaceAll(s, L"<SID>", kwtest::CurrentUserSid());
    return s;
}

class TranslateTest : public ::testing::TestWithParam<TranslateRow> {};

TEST_P(TranslateTest, UserLevelForm) {
    const TranslateRow& row = GetParam();
    ASSERT_FALSE(kwtest::CurrentUserSid().empty());
    CRegKeyTranslate t;
    SetName(t, row.controlSet);
    std::vector<wchar_t> out(kCchOut + 1, kGuard);
    const std::wstring key = WithSid(row.key);
    EXPECT_EQ(row.result, t.Translate(GetCurrentProcessId(), key.c_str(), out.data(), kCchOut * sizeof(wchar_t)));
    EXPECT_EQ(WithSid(row.expected), out.data());
    EXPECT_EQ(kGuard, out[kCchOut]) << "wrote past the output";
}

const std::wstring kLong(2000, L'k');

INSTANTIATE_TEST_SUITE_P(
    Rows, TranslateTest,
    ::testing::Values(
        TranslateRow{"machine key with control set 1", L"ControlSet001",
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Services\\x", true,
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\x"},
        TranslateRow{"machine key of another control set stays", L"ControlSet001",
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet002\\Services", true,
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet002\\Services"},
        TranslateRow{"root name in other case is written in capitals", L"ControlSet001",
                     L"hkey_local_machine\\software\\x", true, L"HKEY_LOCAL_MACHINE\\software\\x"},
        TranslateRow{"machine root alone", L"ControlSet001", L"HKEY_LOCAL_MACHINE\\", true, L"HKEY_LOCAL_MACHINE\\"},
        TranslateRow{"root found inside the key: the remainder counts from the key start", L"ControlSet001",
                     L"XHKEY_LOCAL_MACHINE\\a", true, L"HKEY_LOCAL_MACHINE\\\\a"},
        TranslateRow{"hardware profile of set 1 when the current set is 2", L"ControlSet002",
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Hardware Profiles\\0001\\Software\\Fonts", true,
                     L"HKEY_CURRENT_CONFIG\\Software\\Fonts"},
        TranslateRow{"hardware profile with the current set 1 keeps the machine root", L"ControlSet001",
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Hardware Profiles\\0001\\Software", true,
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Hardware Profiles\\0001\\Software"},
        TranslateRow{"own hive", L"ControlSet001", L"HKEY_USERS\\<SID>\\Software\\Run", true,
                     L"HKEY_CURRENT_USER\\Software\\Run"},
        TranslateRow{"own class hive in capitals", L"ControlSet001", L"HKEY_USERS\\<SID>_CLASSES\\.exe", true,
                     L"HKEY_CURRENT_USER\\Software\\Classes\\.exe"},
        TranslateRow{"own hive key itself", L"ControlSet001", L"HKEY_USERS\\<SID>", true, L"HKEY_USERS\\<SID>"},
        TranslateRow{"another user's hive stays", L"ControlSet001", L"HKEY_USERS\\S-1-5-21-1\\Software\\Run", true,
                     L"HKEY_USERS\\S-1-5-21-1\\Software\\Run"},
        TranslateRow{"a SID that extends ours is another user", L"ControlSet001", L"HKEY_USERS\\<SID>0\\x", true,
                     L"HKEY_USERS\\<SID>0\\x"},
        TranslateRow{"current user root is not a monitored form", L"ControlSet001", L"HKEY_CURRENT_USER\\Software",
                     false, L""},
        TranslateRow{"long machine key is cut to the output", L"ControlSet001", L"HKEY_LOCAL_MACHINE\\" + kLong,
                     true, (L"HKEY_LOCAL_MACHINE\\" + kLong).substr(0, kCchOut - 1)},
        TranslateRow{"long replaced key is cut to the scratch buffer", L"ControlSet001",
                     L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\" + kLong, true,
                     (L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\" + kLong).substr(0, kCchOut - 1)}),
    ::kwtest::ByRowName());

TEST(Translate, MachineKeysNeedNoProcess) {
    CRegKeyTranslate t;
    SetName(t, L"ControlSet001");
    wchar_t out[kCchOut];
    EXPECT_TRUE(t.Translate(0, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x", out, sizeof(out)));
    EXPECT_EQ(std::wstring(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x"), out);
}

TEST(Translate, UnknownProcessRefusesUserKeys) {
    CRegKeyTranslate t;
    SetName(t, L"ControlSet001");
    wchar_t out[kCchOut];
    wmemset(out, kGuard, kCchOut);
    EXPECT_FALSE(t.Translate(0, WithSid(L"HKEY_USERS\\<SID>\\Software").c_str(), out, sizeof(out)));
    EXPECT_EQ(std::wstring(), out) << "a refusal leaves the empty scratch text";
}

TEST(Translate, RefusesMissingArguments) {
    CRegKeyTranslate t;
    wchar_t out[4];
    wmemset(out, kGuard, 4);
    EXPECT_FALSE(t.Translate(GetCurrentProcessId(), nullptr, out, sizeof(out)));
    EXPECT_FALSE(t.Translate(GetCurrentProcessId(), L"HKEY_LOCAL_MACHINE\\x", nullptr, 2048));
    EXPECT_FALSE(t.Translate(GetCurrentProcessId(), L"HKEY_LOCAL_MACHINE\\x", out, 0));
    EXPECT_EQ(kGuard, out[0]);
}

TEST(Translate, SmallOutputIsNotOverrun) {
    CRegKeyTranslate t;
    SetName(t, L"ControlSet001");
    wchar_t out[16];
    wmemset(out, kGuard, 16);
    EXPECT_TRUE(t.Translate(GetCurrentProcessId(), WithSid(L"HKEY_USERS\\<SID>\\Software").c_str(), out, 16));
    EXPECT_EQ(std::wstring(L"HKEY_CU"), out);
    EXPECT_EQ(kGuard, out[8]);
}

// ---------------------------------------------------------------------------
// Init reads the control set of the registry.

TEST(RegKeyTranslateInit, TakesTheCurrentControlSetOfTheRegistry) {
    const std::wstring name = kwtest::ControlSetNameFromRegistry();
    ASSERT_FALSE(name.empty());
    CRegKeyTranslate t;
    EXPECT_TRUE(t.Init());
    EXPECT_EQ(name, t.m_szCurrentControlSet);
    wchar_t out[kCchOut];
    const std::wstring key = L"HKEY_LOCAL_MACHINE\\SYSTEM\\" + name + L"\\Services\\x";
    EXPECT_TRUE(t.Translate(GetCurrentProcessId(), key.c_str(), out, sizeof(out)));
    EXPECT_EQ(std::wstring(L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\x"), out);
}

}  // namespace
