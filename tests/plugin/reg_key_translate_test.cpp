// The user-level rewrite of monitored key paths: concrete control set to
// CurrentControlSet, the hardware profile to HKEY_CURRENT_CONFIG, the acting
// user's hive and class hive to HKEY_CURRENT_USER; bounded outputs.
#include "plugin/reg_key_translate.h"

#include "common/strutil.h"
#include "support/control_set_select.h"
#include "support/fixtures.h"
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

// The output buffer holds kCchOut characters unless a row gives its byte size;
// the character after that size must stay untouched.
TEST(ReplaceCurrentControlSet, Rewrites) {
    const DWORD kCbOut = kCchOut * sizeof(wchar_t);
    struct {
        const char* name;
        const wchar_t* key;
        const wchar_t* expected;  // out when replaced; null: refused
        DWORD cbOut = kCbOut;
        const wchar_t* controlSet = L"ControlSet001";
    } rows[] = {
        {"control set 1", L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\x", L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\x"},
        {"name found without regard to case", L"hklm\\system\\CONTROLSET001\\x", L"hklm\\system\\CurrentControlSet\\x"},
        {"name at the start has nothing in front", L"ControlSet001\\x", L"\\CurrentControlSet\\x"},
        {"only the first occurrence", L"A\\ControlSet001\\B\\ControlSet001", L"A\\CurrentControlSet\\B\\ControlSet001"},
        {"set 1 also matches inside ControlSet0010", L"SYSTEM\\ControlSet0010\\x", L"SYSTEM\\CurrentControlSet0\\x"},
        {"another control set is not replaced", L"SYSTEM\\ControlSet002\\x", nullptr},
        {"empty name", L"SYSTEM\\ControlSet001\\x", nullptr, kCbOut, L""},
        {"missing key", nullptr, nullptr},
        {"output of one byte holds no character", L"S\\ControlSet001", nullptr, 1},
        {"output cut to its byte size", L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001", L"HKEY_LOCA", 20},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CRegKeyTranslate t;
        SetName(t, row.controlSet);
        ScopedSink cap;
        std::vector<wchar_t> out(kCchOut + 1, kGuard);
        EXPECT_EQ(row.expected != nullptr, t.ReplaceCurrentControlSet(row.key, out.data(), row.cbOut));
        EXPECT_EQ(kGuard, out[row.cbOut / sizeof(wchar_t)]) << "wrote past the output";
        if (!row.expected) {
            EXPECT_EQ(kGuard, out[0]) << "out is untouched on refusal";
            EXPECT_TRUE(cap.Texts().empty());
            continue;
        }
        EXPECT_EQ(std::wstring(row.expected), out.data());
        EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][INFO ][CRegKeyTranslate::ReplaceCurrentControlSet] "
                                            L"m_szCurrentControlSet=" + std::wstring(row.controlSet) + L" old = " +
                                            row.key + L" ==> new = " + row.expected},
                  cap.Texts());
    }
    CRegKeyTranslate t;
    SetName(t, L"ControlSet001");
    EXPECT_FALSE(t.ReplaceCurrentControlSet(L"S\\ControlSet001", nullptr, 64)) << "no output buffer";
}

// ---------------------------------------------------------------------------
// Translate for this process's user (or for no process: pid 0).

std::wstring WithSid(std::wstring s) {
    ReplaceAll(s, L"<SID>", kwtest::CurrentUserSid());
    return s;
}

TEST(Translate, UserLevelForm) {
    ASSERT_FALSE(kwtest::CurrentUserSid().empty());
    const std::wstring kLong(2000, L'k'), hklm = L"HKEY_LOCAL_MACHINE\\", profile = L"\\Hardware Profiles\\0001\\Software";
    struct {
        const char* name;
        std::wstring key;  // "<SID>" stands for this process's SID
        bool result;
        std::wstring expected;
        bool ownProcess = true;  // false: process id 0
        size_t cchOut = kCchOut;
        const wchar_t* controlSet = L"ControlSet001";
    } rows[] = {
        {"machine key with control set 1", hklm + L"SYSTEM\\ControlSet001\\x", true, hklm + L"SYSTEM\\CurrentControlSet\\x"},
        {"machine key of another control set stays", hklm + L"SYSTEM\\ControlSet002\\x", true, hklm + L"SYSTEM\\ControlSet002\\x"},
        {"root name in other case is written in capitals", L"hkey_local_machine\\software\\x", true, hklm + L"software\\x"},
        {"machine root alone", hklm, true, hklm},
        {"root found inside the key: the remainder counts from the key start", L"X" + hklm + L"a", true, hklm + L"\\a"},
        {"hardware profile of set 1 when the current set is 2", hklm + L"SYSTEM\\ControlSet001" + profile + L"\\Fonts", true,
         L"HKEY_CURRENT_CONFIG\\Software\\Fonts", true, kCchOut, L"ControlSet002"},
        {"hardware profile with the current set 1 keeps the machine root", hklm + L"SYSTEM\\ControlSet001" + profile, true,
         hklm + L"SYSTEM\\CurrentControlSet" + profile},
        {"own hive", L"HKEY_USERS\\<SID>\\Software\\Run", true, L"HKEY_CURRENT_USER\\Software\\Run"},
        {"own class hive in capitals", L"HKEY_USERS\\<SID>_CLASSES\\.exe", true, L"HKEY_CURRENT_USER\\Software\\Classes\\.exe"},
        {"own hive key itself", L"HKEY_USERS\\<SID>", true, L"HKEY_USERS\\<SID>"},
        {"another user's hive stays", L"HKEY_USERS\\S-1-5-21-1\\Software\\Run", true, L"HKEY_USERS\\S-1-5-21-1\\Software\\Run"},
        {"a SID that extends ours is another user", L"HKEY_USERS\\<SID>0\\x", true, L"HKEY_USERS\\<SID>0\\x"},
        {"current user root is not a monitored form", L"HKEY_CURRENT_USER\\Software", false, L""},
        {"long machine key is cut to the output", hklm + kLong, true, (hklm + kLong).substr(0, kCchOut - 1)},
        {"long replaced key is cut to the scratch buffer", hklm + L"SYSTEM\\ControlSet001\\" + kLong, true,
         (hklm + L"SYSTEM\\CurrentControlSet\\" + kLong).substr(0, kCchOut - 1)},
        {"small output is not overrun", L"HKEY_USERS\\<SID>\\Software", true, L"HKEY_CU", true, 8},
        {"machine keys need no process", hklm + L"SOFTWARE\\x", true, hklm + L"SOFTWARE\\x", false},
        {"no process: user keys are refused with the empty text", L"HKEY_USERS\\<SID>\\Software", false, L"", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CRegKeyTranslate t;
        SetName(t, row.controlSet);
        std::vector<wchar_t> out(row.cchOut + 1, kGuard);
        const std::wstring key = WithSid(row.key);
        EXPECT_EQ(row.result, t.Translate(row.ownProcess ? GetCurrentProcessId() : 0, key.c_str(), out.data(),
                                          static_cast<DWORD>(row.cchOut * sizeof(wchar_t))));
        EXPECT_EQ(WithSid(row.expected), out.data());
        EXPECT_EQ(kGuard, out[row.cchOut]) << "wrote past the output";
    }
    CRegKeyTranslate t;
    wchar_t out[4] = {kGuard};
    EXPECT_FALSE(t.Translate(GetCurrentProcessId(), nullptr, out, sizeof(out))) << "no key";
    EXPECT_FALSE(t.Translate(GetCurrentProcessId(), L"HKEY_LOCAL_MACHINE\\x", nullptr, 2048)) << "no output";
    EXPECT_FALSE(t.Translate(GetCurrentProcessId(), L"HKEY_LOCAL_MACHINE\\x", out, 0)) << "output of no bytes";
    EXPECT_EQ(kGuard, out[0]);
}

// ---------------------------------------------------------------------------
// Init reads the control set of the registry.

TEST(RegKeyTranslateInit, TakesTheCurrentControlSetOfTheRegistry) {
    const std::wstring name = kwtest::ControlSetNameFromRegistry();
    ASSERT_FALSE(name.empty());
    CRegKeyTranslate t;
    EXPECT_TRUE(t.Init());
    EXPECT_EQ(name, t.m_szCurrentControlSet);
}

}  // namespace
