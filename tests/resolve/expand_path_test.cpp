#include "resolve/expand_path.h"

#include "diag/trace.h"
#include "registry/multi_user_reg.h"
#include "support/child.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/saved_reg_value.h"
#include "support/second_user_profile.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <iterator>
#include <string>
#include <vector>

using namespace kw;
using kwtest::EnvText;
using kwtest::ScopedEnv;

namespace {

// What the system says, read without the code under test before any test
// changes the process environment; {NAME} in the tables below. A 32-bit
// process's folder variables hold the registry's folders of both views.
struct SystemFacts {
    std::wstring windir = kwtest::WindowsDir(), drive = windir.substr(0, windir.find(L':') + 1);
    std::wstring pf32 = EnvText(L"ProgramFiles"), cf32 = EnvText(L"CommonProgramFiles");
    std::wstring pf64 = EnvText(L"ProgramW6432"), cf64 = EnvText(L"CommonProgramW6432");
    std::wstring profile = EnvText(L"USERPROFILE"), sid = kwtest::CurrentUserSid();
    std::wstring sysdir, temp, allUsers;
    SystemFacts() {
        wchar_t buf[MAX_PATH] = {0};
        GetSystemDirectoryW(buf, MAX_PATH);
        sysdir = buf;
        GetTempPathW(MAX_PATH, buf);
        temp.assign(buf, wcslen(buf) - 1);  // without the final backslash
        ExpandEnvironmentStringsW(L"%AllUserProfile%", buf, MAX_PATH);
        allUsers = buf;
    }
    std::wstring Fill(std::wstring s) const {
        const std::pair<const wchar_t*, const std::wstring*> keys[] = {
            {L"{WINDIR}", &windir}, {L"{SYSDIR}", &sysdir}, {L"{DRIVE}", &drive}, {L"{PF32}", &pf32},
            {L"{PF64}", &pf64}, {L"{CF32}", &cf32}, {L"{CF64}", &cf64}, {L"{TEMP}", &temp},
            {L"{PROFILE}", &profile}, {L"{SID}", &sid}, {L"{ALLUSERS}", &allUsers}};
        for (const auto& k : keys) ReplaceAll(s, k.first, *k.second);
        return s;
    }
};

const SystemFacts facts;

// The messages of the trace lines under the function's name, joined with '|'.
std::wstring Traced(kwtest::RecordingSink& sink, const wchar_t* function) {
    const std::vector<kwtest::RecordingSink::Line> lines = sink.Lines();
    const std::vector<std::wstring> messages = sink.Messages();
    std::wstring s;
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].text.find(std::wstring(L"][") + function + L"] ") != std::wstring::npos)
            s += (s.empty() ? L"" : L"|") + messages[i];
    return s;
}

enum : BOOL { VIEW64 = 0, NATIVE = 1 };

}  // namespace

// Both entry points over the same rows. ExpandPath traces every text with a
// '%' and nothing else; ExpandPathString traces nothing.
TEST(ExpandPath, BothEntryPoints) {
    const struct {
        const char* name;
        const wchar_t* input;
        BOOL bWow64Expand;
        const wchar_t* expected;
    } rows[] = {
        {"no percent sign", L"C:\\Dir\\A.exe", NATIVE, L"C:\\Dir\\A.exe"},
        {"64-bit view: both program folders, the text lower-cased around them",
         L"%ProgramFiles%\\A;%CommonProgramFiles%\\Sub\\X.dll", VIEW64, L"{PF64}\\a;{CF64}\\sub\\x.dll"},
        {"program files with the flag set is the 32-bit folder", L"%ProgramFiles%\\A\\b.exe", NATIVE, L"{PF32}\\A\\b.exe"},
        {"WinSystem that no environment defines", L"%WinSystem%\\x.dll", NATIVE, L"{SYSDIR}\\x.dll"},
        {"AllUserProfile is removed", L"%AllUserProfile%\\x", NATIVE, L"\\x"},
        {"Temp is the user's TEMP", L"%Temp%\\a.exe", NATIVE, L"{TEMP}\\a.exe"},
        {"unknown variable stays", L"%KwNoSuchVariable%\\A.exe", NATIVE, L"%KwNoSuchVariable%\\A.exe"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        kwtest::ScopedSink trace;
        wchar_t buf[261] = {0};
        CopyBounded(buf, 261, r.input);
        EXPECT_EQ(buf, ExpandPath(buf, sizeof(buf), nullptr, nullptr, r.bWow64Expand));
        EXPECT_EQ(facts.Fill(r.expected), buf);
        EXPECT_EQ(!wcschr(r.input, L'%'), trace.sink.Lines().empty()) << "text without '%' is not traced";
        trace.sink.Clear();
        std::wstring out = L"stale";
        ExpandPathString(r.input, out, nullptr, nullptr, r.bWow64Expand);
        EXPECT_EQ(facts.Fill(r.expected), out);
        EXPECT_TRUE(trace.sink.Lines().empty());
    }
}

// The closing line of each branch, once per format.
TEST(ExpandPath, ClosingLineOncePerFormat) {
    kwtest::ScopedSink trace;
    wchar_t buf[261] = L"%SystemDrive%\\x";
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, NATIVE);
    EXPECT_EQ(facts.Fill(L"ExpandEnvironmentStringsByToken Success,szEnviePath=%SystemDrive%\\x outputPath={DRIVE}\\x|"
                         L"ExpandPath szEnviePath=%SystemDrive%\\x outputPath={DRIVE}\\x"),
              Traced(trace.sink, L"ExpandPath"));
    trace.sink.Clear();
    CopyBounded(buf, 261, L"%TEMP%\\X.exe");
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, VIEW64);
    EXPECT_EQ(L"ExpandEnvironmentStrings in=%TEMP%\\X.exe, out=" + facts.temp + L"\\x.exe", Traced(trace.sink, L"ExpandPath"));
}

// The caller's buffer: the result is cut to cbPath/2 - 1 characters and nothing
// is written at or beyond cbPath/2 characters. The input is
// "%CommonProgramFiles%\" and a tail that gives the full result the length the
// row names.
TEST(ExpandPath, CutsToTheCallersBuffer) {
    const size_t kUntouched = static_cast<size_t>(-1);
    const struct {
        const char* name;
        size_t resultLength;
        DWORD cbPath;
        size_t expectedLength;  // of the result; kUntouched: buffer left as it was
    } rows[] = {
        {"result of 259 characters fits 522 bytes", 259, 522, 259},
        {"result of 260 characters fills 522 bytes", 260, 522, 260},
        {"result of 261 characters is cut to 260", 261, 522, 260},
        {"odd byte count 523 still holds 260", 270, 523, 260},
        {"2 bytes hold only the terminator", 270, 2, 0},
        {"1 byte copies nothing", 270, 1, kUntouched},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::wstring tail(r.resultLength - facts.cf32.size() - 1, L't');
        const std::wstring input = L"%CommonProgramFiles%\\" + tail, full = facts.cf32 + L"\\" + tail;
        std::vector<wchar_t> buf(600, L'#');
        CopyBounded(buf.data(), buf.size(), input.c_str());
        const std::vector<wchar_t> before = buf;
        ExpandPath(buf.data(), r.cbPath, nullptr, nullptr, NATIVE);
        if (r.expectedLength != kUntouched) {
            EXPECT_EQ(full.substr(0, r.expectedLength), buf.data());
        }
        for (size_t i = r.expectedLength == kUntouched ? 0 : r.cbPath / 2; i < buf.size(); ++i)
            ASSERT_EQ(before[i], buf[i]) << "written at character " << i;
    }
}

// Expansion results of 1..4095 characters count, 4096 and more are failures;
// the 64-bit branch then keeps the lower-cased text.
TEST(ExpandPath, ExpansionLength) {
    const struct {
        const char* name;
        size_t length;
        const wchar_t *native, *view64;  // null: the value
    } rows[] = {
        {"4095 characters", 4095, nullptr, nullptr},
        {"4096 characters fail", 4096, L"%KWBIGVALUE%", L"%kwbigvalue%"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::wstring value(r.length, L'v');
        ScopedEnv big(L"KWBIGVALUE", value.c_str());
        std::wstring out;
        ExpandPathString(L"%KWBIGVALUE%", out, nullptr, nullptr, NATIVE);
        EXPECT_EQ(r.native ? r.native : value, out);
        ExpandPathString(L"%KWBIGVALUE%", out, nullptr, nullptr, VIEW64);
        EXPECT_EQ(r.view64 ? r.view64 : value, out);
        wchar_t buf[511] = L"%KWBIGVALUE%";
        ExpandPath(buf, sizeof(buf), nullptr, nullptr, NATIVE);
        EXPECT_EQ(r.native ? r.native : value.substr(0, 510), buf);
    }
}

// The 64-bit branch when the environment cannot give the 64-bit folders: the
// registry's folders for the lower-case tokens only. ExpandPathString has no
// such fallback and keeps the rewritten text.
TEST(ExpandPath, View64RegistryFallback) {
    const struct {
        const char* name;
        // expectedString: ExpandPathString's answer; registryText: the text once the registry's folders are in
        const wchar_t *input, *expectedString, *registryText, *expected;
    } rows[] = {
        {"lower-case program files gets the 64-bit registry folder", L"%programfiles%\\A\\b.exe", L"%programw6432%\\a\\b.exe",
         L"{PF64}\\A\\b.exe", L"{PF64}\\A\\b.exe"},
        {"lower-case common files gets the 64-bit registry folder", L"%commonprogramfiles%\\X.dll", L"%commonprogramw6432%\\x.dll",
         L"{CF64}\\X.dll", L"{CF64}\\X.dll"},
        {"other spellings are left to the process environment", L"%ProgramFiles%\\A\\b.exe", L"%programw6432%\\a\\b.exe",
         L"%ProgramFiles%\\A\\b.exe", L"{PF32}\\A\\b.exe"},
    };
    ScopedEnv noProgramW6432(L"ProgramW6432", nullptr);
    ScopedEnv noCommonW6432(L"CommonProgramW6432", nullptr);
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        kwtest::ScopedSink trace;
        wchar_t buf[511] = {0};
        CopyBounded(buf, 511, r.input);
        ExpandPath(buf, sizeof(buf), nullptr, nullptr, VIEW64);
        EXPECT_EQ(facts.Fill(r.expected), buf);
        const std::wstring pre = facts.Fill(r.registryText);
        EXPECT_EQ(std::wstring(L"ExpandEnvironmentStrings in=") + r.input + L", out=" + r.expectedString +
                      L"|64的命令行解析失败，使用注册表解析|Pre ExpandEnvironmentStrings " + pre +
                      L"|ExpandEnvironmentStrings_x64 in=" + pre + L", out=" + facts.Fill(r.expected),
                  Traced(trace.sink, L"ExpandPath"));
        EXPECT_EQ(TRACE_ERROR, trace.sink.Lines().at(1).level);
        std::wstring out;
        ExpandPathString(r.input, out, nullptr, nullptr, VIEW64);
        EXPECT_EQ(r.expectedString, out);
    }
}

TEST(ExpandPath, NullBuffersAreRefusedOrIgnored) {
    EXPECT_EQ(nullptr, ExpandPath(nullptr, 522, nullptr, nullptr, NATIVE));
    EXPECT_FALSE(GetSpecialPathByToken(nullptr, nullptr, PATHID_TEMP, nullptr));
    EXPECT_EQ(0u, ExpandForUser(nullptr, L"%SystemDrive%", nullptr, 16));
    QueryFolderPath(PATHID_WINDIR, nullptr);
    QueryFolderPath64(PATHID_WINDIR, nullptr);
}

// The ends of both folder tables and what each view makes of ids 261..263
// (the race below covers the rest). A missing folder clears the whole buffer.
TEST(FolderPath, ByIdInBothViews) {
    const struct {
        const char* name;
        int id;
        bool view64;
        const wchar_t* expected;
    } rows[] = {
        {"native 262 is empty", 262, false, L""},
        {"native 263 is the literal token", 263, false, L"%TEMP%"},
        {"native shell id 0x24 windows", 0x24, false, L"{WINDIR}"},
        {"64-bit 256 system drive", 256, true, L"{DRIVE}"},
        {"64-bit 261 the process profile", 261, true, L"{PROFILE}"},
        {"64-bit 262 AllUserProfile as the environment expands it", 262, true, L"{ALLUSERS}"},
        {"64-bit 264 is not a folder", 264, true, L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(facts.Fill(r.expected), r.view64 ? GetFolderPathById64(r.id) : GetFolderPathById(r.id));
    }
    for (auto query : {&QueryFolderPath, &QueryFolderPath64}) {
        wchar_t buf[MAX_PATH];
        wmemset(buf, L'#', MAX_PATH);
        query(999, buf);
        EXPECT_EQ(std::wstring(MAX_PATH, L'\0'), std::wstring(buf, MAX_PATH));
    }
}

// The per-user folders: the environment first, then (with a SID) the user's
// registry through the process-wide manager; other ids go to the folder
// resolver.
TEST(SpecialPath, ByToken) {
    const std::wstring fail = L"ExpandEnvironmentStringsForUserW Fail|";
    const std::wstring profileOk = L"|GetSpecialPathByToken Success,szEnvir=USERPROFILE exPath={PROFILE}";
    const struct {
        const char* name;
        const wchar_t* unset;  // removed from the environment
        const wchar_t* sid;
        int folderId;
        BOOL ok;
        const wchar_t* expected;
        std::wstring trace;
    } rows[] = {
        {"folder ids go to the resolver", nullptr, nullptr, PATHID_SYSTEM, TRUE, L"{SYSDIR}", L"nFolder=258 exPath={SYSDIR}"},
        {"profile from the environment", nullptr, nullptr, PATHID_USERPROFILE, TRUE, L"{PROFILE}",
         L"ExpandEnvironmentStringsForUserW Success szLinkEnvir=%USERPROFILE% szExpandEnvirPath={PROFILE}" + profileOk},
        {"temp from the environment", nullptr, nullptr, PATHID_TEMP, TRUE, L"{TEMP}",
         L"ExpandEnvironmentStringsForUserW Success szLinkEnvir=%TEMP% szExpandEnvirPath={TEMP}|"
         L"GetSpecialPathByToken Success,szEnvir=TEMP exPath={TEMP}"},
        {"no sid", L"USERPROFILE", nullptr, PATHID_USERPROFILE, FALSE, L"", fail + L"UserSid=0"},
        {"empty sid", L"USERPROFILE", L"", PATHID_USERPROFILE, FALSE, L"", fail + L"UserSid=0"},
        {"unknown sid", L"TEMP", L"S-1-5-21-9-9-9-424242", PATHID_TEMP, FALSE, L"", fail + L"GetSpecialShellVariableBySid Error"},
        {"the manager answers for the sid", L"USERPROFILE", L"{SID}", PATHID_USERPROFILE, TRUE, L"{PROFILE}",
         fail + L"GetSpecialShellVariableBySid Success szEnvir=USERPROFILE szExpandEnvirPath={PROFILE}" + profileOk},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        ScopedEnv unset(r.unset ? r.unset : L"KW_NOT_SET", nullptr);
        const std::wstring sid = r.sid ? facts.Fill(r.sid) : L"";
        kwtest::ScopedSink trace;
        wchar_t out[MAX_PATH] = L"stale";
        EXPECT_EQ(r.ok, GetSpecialPathByToken(nullptr, r.sid ? sid.c_str() : nullptr, r.folderId, out));
        EXPECT_EQ(facts.Fill(r.expected), out);
        EXPECT_EQ(facts.Fill(r.trace), Traced(trace.sink, L"GetSpecialPathByToken"));
    }
}

// Without USERPROFILE in the environment and without a SID the resolver fails:
// ExpandPath keeps the token, ExpandPathString drops it.
TEST(SpecialPath, ExpandPathStringUsesWhateverTheResolverLeft) {
    ScopedEnv noProfile(L"USERPROFILE", nullptr);
    std::wstring out;
    ExpandPathString(L"%UserProfile%\\a.exe", out, nullptr, nullptr, NATIVE);
    EXPECT_EQ(L"\\a.exe", out);
    wchar_t buf[261] = L"%UserProfile%\\a.exe";
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, NATIVE);
    EXPECT_EQ(std::wstring(L"%UserProfile%\\a.exe"), buf);
}

// The length without the terminator; 0 when the result and its terminator do
// not fit, and for an empty result.
TEST(ExpandForUser, LengthAndRefusals) {
    wchar_t out[32];
    ScopedEnv v(L"KWSIXTEEN", L"0123456789abcdef");
    EXPECT_EQ(0u, ExpandForUser(nullptr, L"%KWSIXTEEN%", out, 16)) << "16 characters need 17";
    EXPECT_EQ(16u, ExpandForUser(nullptr, L"%KWSIXTEEN%", out, 17));
    EXPECT_EQ(std::wstring(L"0123456789abcdef"), out);
    EXPECT_EQ(0u, ExpandForUser(nullptr, L"", out, 17));
}

// "CommonFilesDir" is read into 260 bytes: 129 characters and the terminator.
// The folder tables are filled once per process, so each row runs in a child
// that changes the value in the view its resolver reads, fills the tables and
// puts the value back at once.
const wchar_t kCurrentVersion32[] = L"Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion";
const wchar_t kCurrentVersion64[] = L"Software\\Microsoft\\Windows\\CurrentVersion";

static std::wstring Long(size_t length) { return L"C:\\" + std::wstring(length - 3, L'c'); }

const struct CommonFilesRow {
    const char* name;
    bool view64;
    DWORD type;
    std::wstring value;
    bool terminated;
    std::wstring expected;
} kCommonFilesRows[] = {
    {"native 129 characters fit", false, REG_SZ, Long(129), true, Long(129)},
    {"native 130 characters leave it empty", false, REG_SZ, Long(130), true, L""},
    {"native 130 characters without terminator leave it empty", false, REG_SZ, Long(130), false, L""},
    {"native REG_EXPAND_SZ is not expanded", false, REG_EXPAND_SZ, L"%SystemDrive%\\CF", true, L"%SystemDrive%\\CF"},
    {"64-bit 130 characters leave it empty", true, REG_SZ, Long(130), true, L""},
    {"64-bit REG_EXPAND_SZ is expanded", true, REG_EXPAND_SZ, L"%SystemDrive%\\CF", true, L"{DRIVE}\\CF"},
};

TEST(ExpandPathCommonFilesDir, Row_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const CommonFilesRow& r = kCommonFilesRows[kwtest::RowIndex("KW_EXPAND_ROW")];
    const wchar_t* key = r.view64 ? kCurrentVersion64 : kCurrentVersion32;
    const auto folder = r.view64 ? &GetFolderPathById64 : &GetFolderPathById;
    // The system stores an unterminated string together with a NUL that follows
    // it in memory: a character follows it here so that it stays unterminated.
    const std::wstring stored = r.terminated ? r.value : r.value + L"x";
    const DWORD cb = static_cast<DWORD>((r.value.size() + (r.terminated ? 1 : 0)) * sizeof(wchar_t));
    std::wstring got;
    {
        kwtest::SavedRegValue saved(key, L"CommonFilesDir");
        ASSERT_TRUE(kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, key, L"CommonFilesDir", r.type, stored.c_str(), cb));
        got = folder(PATHID_COMMONFILES);
    }
    EXPECT_EQ(facts.Fill(r.expected), got);
    EXPECT_EQ(r.view64 ? facts.pf64 : facts.pf32, folder(PATHID_PROGRAMFILES)) << "520 bytes unaffected";
    EXPECT_EQ(got, folder(PATHID_COMMONFILES)) << "filled once: the restored value is not seen";
}

TEST(ExpandPathCommonFilesDir, Rows) {
    // Put back here too, should a child end before its own restore.
    kwtest::SavedRegValue saved32(kCurrentVersion32, L"CommonFilesDir"), saved64(kCurrentVersion64, L"CommonFilesDir");
    kwtest::RunRowsInChildren("ExpandPathCommonFilesDir.Row_Child", std::size(kCommonFilesRows), "KW_EXPAND_ROW");
}

// Host threads resolve at the same time: the first fill of the process-wide
// tables races here, and each thread's results stay its own.
KW_CHILD_TEST(ExpandPathThreads, TablesAndResultBuffers) {
    const struct {
        int id;
        bool view64;
        std::wstring text;
    } wants[] = {
        {256, false, facts.drive}, {257, false, facts.windir}, {258, false, facts.sysdir}, {259, false, facts.pf32},
        {260, false, facts.cf32}, {261, false, L"%USERPROFILE%"}, {263, false, L"%TEMP%"}, {259, true, facts.pf64},
        {260, true, facts.cf64}, {263, true, facts.temp},
    };
    std::atomic<size_t> threads{0};
    const std::vector<int> wrong = kwtest::RaceFirstUse<int>(8, [&] {
        const size_t t = threads++;
        int bad = 0;
        for (size_t i = 0; i < 50; ++i) {
            const auto& w = wants[(i + t) % std::size(wants)];
            const wchar_t* p = w.view64 ? GetFolderPathById64(w.id) : GetFolderPathById(w.id);
            Sleep(0);  // let the other threads write their results
            wchar_t out[MAX_PATH] = {0};
            if (w.text != p ||
                !kw_user::GetMultiUserRegManager()->GetSpecialShellVariableBySid(facts.sid.c_str(), L"TEMP", out) ||
                facts.temp != out)
                ++bad;
        }
        return bad;
    });
    EXPECT_EQ(std::vector<int>(8, 0), wrong);
}

// A second user, through the process-wide manager: no usable token, so the
// environment cannot answer and the user's SID decides. The child runs with
// no USERPROFILE, TEMP or TMP of its own.
TEST(ExpandPathSecondUser, Run_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const std::wstring sid = EnvText(L"KW_SECOND_SID"), profile = EnvText(L"KW_SECOND_PROFILE");
    const std::wstring temp = profile + L"\\AppData\\Local\\Temp";
    ASSERT_FALSE(sid.empty());
    ScopedEnv noProfile(L"USERPROFILE", nullptr), noTemp(L"TEMP", nullptr), noTmp(L"TMP", nullptr);
    kwtest::ScopedSink trace;
    const struct {
        const char* name;
        const wchar_t* input;
        std::wstring expected;
    } rows[] = {
        {"profile", L"%UserProfile%\\Desktop\\a.lnk", profile + L"\\Desktop\\a.lnk"},
        {"temp", L"%Temp%\\x.exe", temp + L"\\x.exe"},
        {"tmp", L"%Tmp%\\x.exe", temp + L"\\x.exe"},
        {"upper-case TMP is left to the environment", L"%TMP%\\x.exe", L"%TMP%\\x.exe"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        std::wstring s;
        ExpandPathString(r.input, s, nullptr, sid.c_str(), NATIVE);
        EXPECT_EQ(r.expected, s);
        wchar_t buf[261] = {0};
        CopyBounded(buf, 261, r.input);
        ExpandPath(buf, sizeof(buf), nullptr, sid.c_str(), NATIVE);
        EXPECT_EQ(r.expected, buf);
    }
    EXPECT_TRUE(trace.sink.Has(L"GetSpecialShellVariableBySid Success szEnvir=USERPROFILE szExpandEnvirPath=" + profile));
    EXPECT_FALSE(kwtest::RegKeyExists(HKEY_USERS, sid)) << "the user's hive is unloaded once read";
}

TEST(ExpandPathSecondUser, ProcessManagerAnswersWithoutToken) {
    kwtest::SecondUserProfile user;
    ASSERT_TRUE(user.Ready()) << std::string(user.Error().begin(), user.Error().end());
    const std::string sid(user.Sid().begin(), user.Sid().end()), profile(user.Profile().begin(), user.Profile().end());
    std::string out;
    EXPECT_EQ(0, kwtest::RunChild("ExpandPathSecondUser.Run_Child", {"KW_SECOND_SID=" + sid, "KW_SECOND_PROFILE=" + profile}, &out))
        << out;
    EXPECT_NE(std::string::npos, out.find("[  PASSED  ] 1 test")) << out;
    EXPECT_FALSE(kwtest::RegKeyExists(HKEY_USERS, user.Sid())) << "no hive of the process-wide manager outlives the process";
    EXPECT_FALSE(kwtest::RegKeyExists(HKEY_USERS, user.Sid() + L"_Classes"));
}
