#include "registry/multi_user_reg.h"

#include "registry/user_reg_hive.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/trace_capture.h"
#include "support/second_user_profile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

using kw_user::CMultiUserRegManager;
using kwtest::EnvText;
using kwtest::SecondUserProfile;

namespace {

std::string Narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }

// Asks a manager; returns the answer or "<failed>". The answer buffer holds
// MAX_PATH characters: nothing is written past it.
std::wstring Ask(CMultiUserRegManager& m, const std::wstring& sid, const wchar_t* name) {
    wchar_t out[MAX_PATH + 8];
    wmemset(out, L'#', MAX_PATH + 8);
    const bool ok = m.GetSpecialShellVariableBySid(sid.c_str(), name, out);
    EXPECT_EQ(std::wstring(8, L'#'), std::wstring(out + MAX_PATH, 8)) << "wrote past MAX_PATH";
    if (!ok) {
        EXPECT_EQ(L'\0', out[0]) << "a refusal leaves the output empty";
        return L"<failed>";
    }
    out[MAX_PATH] = L'\0';
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// A second user whose hive the manager loads from the profile's NTUSER.dat,
// while the process's own values point elsewhere.
TEST(SecondUser, AnswersFromTheLoadedHiveNeverTheProcess) {
    SecondUserProfile user;
    ASSERT_TRUE(user.Ready()) << Narrow(user.Error());
    kwtest::ScopedEnv profile(L"USERPROFILE", L"C:\\KwNotThisProfile");
    kwtest::ScopedEnv temp(L"TEMP", L"C:\\KwNotThisTemp");
    kwtest::ScopedEnv tmp(L"TMP", L"C:\\KwNotThisTemp");
    kwtest::ScopedEnv appData(L"APPDATA", L"C:\\KwNotThisAppData");
    const struct {
        const char* name;
        const wchar_t* variable;
        std::wstring expected;
    } rows[] = {
        {"USERPROFILE from ProfileList", L"USERPROFILE", user.Profile()},
        {"TEMP", L"TEMP", user.Temp()},
        {"Tmp in mixed case", L"Tmp", user.Temp()},
        {"system variable inside a user variable", L"KWSYSTEMVAR", kwtest::WindowsDir() + L"\\kw"},
        {"REG_SZ value is expanded for the user too", L"KwPlainVar", user.Profile() + L"\\plain"},
        {"DWORD variable is not a string", L"KWDWORDVAR", L"<failed>"},
        {"APPDATA falls to the shell folder", L"APPDATA", user.AppData()},
        {"Local AppData second spelling", L"Local AppData", user.Profile() + L"\\AppData\\Local"},
        {"DESKTOPDIR token name in lower case", L"desktopdir", user.Desktop()},
        {"MYDOCUMENTS shares the id of PERSONAL", L"MYDOCUMENTS", user.Profile() + L"\\Documents"},
        {"DEFAULT_PROFILE is the profile folder", L"DEFAULT_PROFILE", user.Profile()},
        {"shell folder without a value", L"FAVORITES", L"<failed>"},
        {"name nowhere", L"KWNOSUCHNAME", L"<failed>"},
        {"300 characters are cut to 259", L"KWLONGVAR", SecondUserProfile::LongValue().substr(0, MAX_PATH - 1)},
    };
    CMultiUserRegManager manager;
    for (const auto& r : rows) EXPECT_EQ(r.expected, Ask(manager, user.Sid(), r.variable)) << r.name;
    EXPECT_FALSE(SecondUserProfile::IsLoaded(user.Sid())) << "unloaded once its values are read";
    EXPECT_FALSE(SecondUserProfile::IsLoaded(user.Sid() + L"_Classes"));
    for (const auto& r : rows) EXPECT_EQ(r.expected, Ask(manager, user.Sid(), r.variable)) << "answered from what was read: " << r.name;
}

// A profile created after the list was read is found; its hive file, while it
// cannot be loaded (held open, as while its user logs off), is tried again on
// the next question.
TEST(SecondUserManager, LateProfileAndFailedLoadIsRetried) {
    CMultiUserRegManager manager;
    const std::vector<std::wstring> before = manager.GetUserSids();
    SecondUserProfile user;
    ASSERT_TRUE(user.Ready()) << Narrow(user.Error());
    for (const auto& sid : before) EXPECT_NE(user.Sid(), sid);
    EXPECT_TRUE(manager.HasUser(user.Sid().c_str()));
    {
        kwtest::ScopedSink cap;
        kw::unique_file locked(CreateFileW((user.Profile() + L"\\NTUSER.dat").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(locked);
        EXPECT_EQ(L"<failed>", Ask(manager, user.Sid(), L"TEMP"));
        EXPECT_TRUE(cap.sink.Has(L"[CUserRegHelper::LoadHive] RegLoadKeyW"));
    }
    EXPECT_EQ(user.Temp(), Ask(manager, user.Sid(), L"TEMP"));
    EXPECT_FALSE(SecondUserProfile::IsLoaded(user.Sid()));
    EXPECT_EQ(before.size() + 1, manager.GetUserSids().size());
}

TEST(SecondUserManager, HiveAlreadyUnderUsersIsReadThereAndLeftLoaded) {
    SecondUserProfile user(SecondUserProfile::Hive::KeysUnderUsers);
    ASSERT_TRUE(user.Ready()) << Narrow(user.Error());
    {
        CMultiUserRegManager manager;
        EXPECT_EQ(user.Temp(), Ask(manager, user.Sid(), L"TEMP"));
        EXPECT_EQ(user.Desktop(), Ask(manager, user.Sid(), L"DESKTOP"));
    }
    EXPECT_TRUE(kwtest::RegKeyExists(HKEY_USERS, user.Sid() + L"\\Environment"))
        << "a hive the manager did not load stays";
}

// ---------------------------------------------------------------------------
// The user this test runs as: Wine keeps that user's hive loaded. Questions
// that cannot be answered fail with an empty output.
TEST(CurrentUserManager, AnswersFromTheLoadedHiveAndLeavesItRefusesTheRest) {
    const std::wstring me = kwtest::CurrentUserSid();
    ASSERT_FALSE(me.empty());
    const struct {
        const char* name;
        const wchar_t* sid;
        const wchar_t* variable;
    } refusals[] = {
        {"null SID", nullptr, L"TEMP"},
        {"empty SID", L"", L"TEMP"},
        {"null name", me.c_str(), nullptr},
        {"empty name", me.c_str(), L""},
        {"SID not in ProfileList", L"S-1-5-21-9-9-9-424242", L"TEMP"},
        {"SID text with a path", L"S-1-5-21-1\\..\\.Default", L"TEMP"},
    };
    {
        CMultiUserRegManager manager;
        EXPECT_EQ(EnvText(L"USERPROFILE"), Ask(manager, me, L"USERPROFILE"));
        EXPECT_EQ(EnvText(L"TEMP"), Ask(manager, me, L"TEMP"));
        EXPECT_EQ(EnvText(L"TMP"), Ask(manager, me, L"tmp"));
        EXPECT_EQ(EnvText(L"APPDATA"), Ask(manager, me, L"APPDATA"));
        EXPECT_EQ(EnvText(L"LOCALAPPDATA"), Ask(manager, me, L"Local AppData"));
        const std::vector<std::wstring> sids = manager.GetUserSids();
        EXPECT_NE(sids.end(), std::find(sids.begin(), sids.end(), kwtest::Upper(me)));
        EXPECT_TRUE(manager.HasUser(me.c_str()));
        for (const auto& r : refusals) {
            wchar_t out[MAX_PATH] = L"stale";
            EXPECT_FALSE(manager.GetSpecialShellVariableBySid(r.sid, r.variable, out)) << r.name;
            EXPECT_EQ(std::wstring(), out) << r.name;
        }
        EXPECT_FALSE(manager.GetSpecialShellVariableBySid(me.c_str(), L"TEMP", nullptr)) << "no output buffer";
        EXPECT_FALSE(manager.HasUser(nullptr));
        EXPECT_FALSE(manager.HasUser(L"S-1-5-21-9-9-9-424242"));
    }
    EXPECT_TRUE(kwtest::RegKeyExists(HKEY_USERS, me)) << "the logged-on user's hive stays";
}

// ---------------------------------------------------------------------------
// Several threads ask at once, before anything is filled.
TEST(ManagerThreads, ConcurrentFirstQuestions) {
    SecondUserProfile user;
    ASSERT_TRUE(user.Ready()) << Narrow(user.Error());
    const std::wstring me = kwtest::CurrentUserSid();
    const std::wstring myTemp = EnvText(L"TEMP");
    {
        CMultiUserRegManager manager;
        std::atomic<int> next{0};
        const std::vector<int> wrong = kwtest::RaceFirstUse<int>(8, [&] {
            int t = next++, bad = 0;
            for (int i = 0; i < 40; ++i) {
                if ((i + t) % 2) {
                    bad += Ask(manager, user.Sid(), L"TEMP") != user.Temp();
                    bad += Ask(manager, user.Sid(), L"APPDATA") != user.AppData();
                } else {
                    bad += Ask(manager, me, L"TEMP") != myTemp;
                }
            }
            return bad;
        });
        EXPECT_EQ(std::vector<int>(8, 0), wrong);
    }
    EXPECT_FALSE(SecondUserProfile::IsLoaded(user.Sid()));
}

// ---------------------------------------------------------------------------
TEST(SidText, Recognised) {
    const struct {
        const char* name;
        std::wstring text;
        bool sid;
    } rows[] = {
        {"user SID", L"S-1-5-21-1111-2222-3333-1001", true},
        {"lower-case s", L"s-1-5-18", true},
        {"empty", L"", false},
        {"only S-", L"S-", false},
        {"classes key", L"S-1-5-21-1-2-3-1000_Classes", false},
        {"backslash", L"S-1-5\\x", false},
        {"184 characters", L"S-" + std::wstring(182, L'1'), true},
        {"185 characters", L"S-" + std::wstring(183, L'1'), false},
    };
    for (const auto& r : rows) EXPECT_EQ(r.sid, kw_user::IsSidText(r.text)) << r.name;
}

// A profile without a hive answers only the profile folder; its path is read
// expanded and without a trailing separator.
TEST(ProfileImagePath, ProfileWithoutHiveAndTrailingSeparator) {
    SecondUserProfile user(SecondUserProfile::Hive::None);
    ASSERT_TRUE(user.Ready()) << Narrow(user.Error());
    {
        kwtest::ScopedSink cap;
        CMultiUserRegManager manager;
        EXPECT_EQ(user.Profile(), Ask(manager, user.Sid(), L"USERPROFILE"));
        EXPECT_EQ(L"<failed>", Ask(manager, user.Sid(), L"TEMP"));
        EXPECT_TRUE(cap.sink.Has(L"[CUserRegHelper::LoadHive] no hive file"));
        EXPECT_TRUE(cap.sink.Has(L"[CMultiUserRegManager::GetSpecialShellVariableBySid]"));
    }
    std::wstring path;
    bool exists = false;
    EXPECT_TRUE(kw_user::ReadProfileImagePath(user.Sid(), path, &exists));
    EXPECT_TRUE(exists);
    EXPECT_EQ(user.Profile(), path);

    const std::wstring key = std::wstring(SecondUserProfile::kProfileList) + L"\\" + user.Sid();
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key, L"ProfileImagePath", user.Profile() + L"\\"));
    EXPECT_TRUE(kw_user::ReadProfileImagePath(user.Sid(), path));
    EXPECT_EQ(user.Profile(), path);

    ASSERT_TRUE(kwtest::RegSetDword(HKEY_LOCAL_MACHINE, key, L"ProfileImagePath", 1));
    EXPECT_FALSE(kw_user::ReadProfileImagePath(user.Sid(), path, &exists));
    EXPECT_TRUE(exists) << "the entry is there, its value is not a path";
    EXPECT_EQ(std::wstring(), path);

    EXPECT_FALSE(kw_user::ReadProfileImagePath(L"S-1-5-21-9-9-9-424242", path, &exists));
    EXPECT_FALSE(exists);
}

// Whether a privilege is enabled in a token (the thread's when it has one).
bool PrivilegeOn(HANDLE token, const wchar_t* name) {
    LUID luid{};
    LookupPrivilegeValueW(nullptr, name, &luid);
    PRIVILEGE_SET set{1, PRIVILEGE_SET_ALL_NECESSARY, {{luid, 0}}};
    BOOL result = FALSE;
    PrivilegeCheck(token, &set, &result);
    return result != FALSE;
}
bool ProcessPrivilegeOn(const wchar_t* name) {
    kw::unique_handle token;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
    return PrivilegeOn(token.get(), name);
}
// The impersonation level of the thread's token; -1 when it has none.
int ThreadTokenLevel() {
    kw::unique_handle token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) return -1;
    SECURITY_IMPERSONATION_LEVEL level{};
    DWORD cb = 0;
    GetTokenInformation(token.get(), TokenImpersonationLevel, &level, sizeof(level), &cb);
    return level;
}

// Before the scope the thread has no token, or already impersonates.
TEST(PrivilegeScope, OnTheCallingThreadOnly) {
    for (const int before : {-1, static_cast<int>(SecurityIdentification)}) {
        SCOPED_TRACE(before);
        EXPECT_TRUE(before < 0 || ImpersonateSelf(static_cast<SECURITY_IMPERSONATION_LEVEL>(before)));
        const bool processBefore = ProcessPrivilegeOn(SE_RESTORE_NAME);
        {
            kw_user::CUserRegPrivilegeScope scope;
            EXPECT_TRUE(scope.Enabled());
            kw::unique_handle token;
            EXPECT_TRUE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()));
            EXPECT_TRUE(PrivilegeOn(token.get(), SE_RESTORE_NAME));
            EXPECT_TRUE(PrivilegeOn(token.get(), SE_BACKUP_NAME));
            EXPECT_EQ(processBefore, ProcessPrivilegeOn(SE_RESTORE_NAME)) << "process token untouched";
            bool otherThread = true;
            std::thread([&] { otherThread = ThreadTokenLevel() == -1; }).join();
            EXPECT_TRUE(otherThread) << "another thread keeps the process token";
        }
        EXPECT_EQ(before, ThreadTokenLevel()) << "the thread gets back what it had";
        EXPECT_EQ(processBefore, ProcessPrivilegeOn(SE_RESTORE_NAME));
        RevertToSelf();
    }
}
