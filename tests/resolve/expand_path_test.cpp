#include "resolve/expand_path.h"

#include "diag/trace.h"
#include "registry/multi_user_reg.h"
#include "support/child.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/recording_sink.h"
#include "support/second_user_profile.h"

#include <gtest/gtest.h>
#include <shlobj.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

using namespace kw;

namespace {

const wchar_t kCurrentVersion[] = L"Software\\Microsoft\\Windows\\CurrentVersion";

std::wstring RegString(REGSAM view, const wchar_t* name, bool expand) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kCurrentVersion, 0, KEY_READ | view, &key) !=
        ERROR_SUCCESS)
        return L"";
    wchar_t buf[1024] = {0};
    DWORD cb = sizeof(buf) - sizeof(wchar_t), type = 0;
    LONG rc = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buf), &cb);
    RegCloseKey(key);
    if (rc != ERROR_SUCCESS) return L"";
    if (expand && type == REG_EXPAND_SZ) {
        wchar_t out[1024] = {0};
        ExpandEnvironmentStringsW(buf, out, 1024);
        return out;
    }
    return buf;
}

using kwtest::ScopedEnv;
std::wstring Env(const wchar_t* name) { return kwtest::EnvText(name); }

// What the system says, read without the code under test.
struct SystemFacts {
    std::wstring windir, sysdir, drive, pf32, pf64, cf32, cf64, temp, profile;
    SystemFacts() {
        wchar_t buf[MAX_PATH] = {0};
        GetSystemWindowsDirectoryW(buf, MAX_PATH);
        windir = buf;
        drive = windir.substr(0, windir.find(L':') + 1);
        GetSystemDirectoryW(buf, MAX_PATH);
        sysdir = buf;
        pf32 = RegString(KEY_WOW64_32KEY, L"ProgramFilesDir", false);
        cf32 = RegString(KEY_WOW64_32KEY, L"CommonFilesDir", false);
        pf64 = RegString(KEY_WOW64_64KEY, L"ProgramFilesDir", true);
        cf64 = RegString(KEY_WOW64_64KEY, L"CommonFilesDir", true);
        GetTempPathW(MAX_PATH, buf);
        temp = buf;
        if (!temp.empty() && temp.back() == L'\\') temp.pop_back();
        profile = Env(L"USERPROFILE");
    }
    std::wstring Fill(std::wstring s) const {
        const std::pair<const wchar_t*, const std::wstring*> keys[] = {
            {L"{WINDIR}", &windir}, {L"{SYSDIR}", &sysdir}, {L"{DRIVE}", &drive},
            {L"{PF32}", &pf32},     {L"{PF64}", &pf64},     {L"{CF32}", &cf32},
            {L"{CF64}", &cf64},     {L"{TEMP}", &temp},     {L"{PROFILE}", &profile}};
        for (const auto& k : keys) ReplaceAll(s, k.first, *k.second);
        return s;
    }
};

const SystemFacts& Facts() {
    static SystemFacts facts;
    return facts;
}

// Replaces a value of HKLM\...\CurrentVersion in one view and puts the
// original (type and bytes) back on scope exit.
class RegValueRestorer {
public:
    RegValueRestorer(REGSAM view, const wchar_t* name) : m_view(view), m_name(name) {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kCurrentVersion, 0, KEY_READ | view, &key) !=
            ERROR_SUCCESS)
            return;
        m_data.resize(4096);
        DWORD cb = static_cast<DWORD>(m_data.size());
        m_had = RegQueryValueExW(key, name, nullptr, &m_type, m_data.data(), &cb) == ERROR_SUCCESS;
        m_data.resize(m_had ? cb : 0);
        RegCloseKey(key);
    }
    ~RegValueRestorer() {
        if (m_had)
            kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, kCurrentVersion, m_name, m_type, m_data.data(),
                              static_cast<DWORD>(m_data.size()), m_view);
    }
    bool Set(DWORD type, const void* data, DWORD cb) {
        return m_had && kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, kCurrentVersion, m_name, type, data,
                                          cb, m_view);
    }

private:
    REGSAM m_view;
    std::wstring m_name;
    DWORD m_type = 0;
    std::vector<BYTE> m_data;
    bool m_had = false;
};

// Read before any test changes the process environment.
class TraceCapture : public ::testing::Test {
protected:
    void SetUp() override {
        Facts();
        SetLogSink(&sink);
    }
    void TearDown() override { SetLogSink(nullptr); }
    kwtest::RecordingSink sink;
};

}  // namespace

// ---------------------------------------------------------------------------
// Both entry points over the same rows; {...} stand for facts read from the
// system. ExpandPath traces every text with a '%' and nothing else.
struct ExpandRow {
    const char* name;
    const wchar_t* input;
    BOOL bWow64Expand;
    const wchar_t* expected;
};
// Test names show the row title, not the bytes of the row.
void PrintTo(const ExpandRow& r, std::ostream* os) { *os << r.name; }

enum : BOOL { VIEW64 = 0, NATIVE = 1 };

const ExpandRow kExpandRows[] = {
    {"no percent sign", L"C:\\Dir\\A.exe", NATIVE, L"C:\\Dir\\A.exe"},
    {"program files 64-bit view lower-cases around the token", L"%ProgramFiles%\\A\\b.exe", VIEW64,
     L"{PF64}\\a\\b.exe"},
    {"program files with the flag set is the 32-bit folder", L"%ProgramFiles%\\A\\b.exe", NATIVE,
     L"{PF32}\\A\\b.exe"},
    {"common files 64-bit view", L"%CommonProgramFiles%\\Sub\\X.dll", VIEW64, L"{CF64}\\sub\\x.dll"},
    {"both program tokens lower case in the 64-bit view", L"%programfiles%;%commonprogramfiles%",
     VIEW64, L"{PF64};{CF64}"},
    {"WinSystem that no environment defines", L"%WinSystem%\\x.dll", NATIVE, L"{SYSDIR}\\x.dll"},
    {"AllUserProfile is removed", L"%AllUserProfile%\\x", NATIVE, L"\\x"},
    {"Temp is the user's TEMP", L"%Temp%\\a.exe", NATIVE, L"{TEMP}\\a.exe"},
    {"TEMP in the 64-bit view", L"%TEMP%\\X.exe", VIEW64, L"{TEMP}\\x.exe"},
    {"percent without closing percent", L"C:\\100%\\A.exe", NATIVE, L"C:\\100%\\A.exe"},
    {"unknown variable stays", L"%KwNoSuchVariable%\\A.exe", NATIVE, L"%KwNoSuchVariable%\\A.exe"},
};

// VIEW64 rows need this 32-bit program on 64-bit Windows, as all tests here.
class ExpandRows : public TraceCapture, public ::testing::WithParamInterface<ExpandRow> {
protected:
    std::wstring Expected() const { return Facts().Fill(GetParam().expected); }
};

TEST_P(ExpandRows, ExpandPathInPlace) {
    const ExpandRow& r = GetParam();
    wchar_t buf[261] = {0};
    CopyBounded(buf, 261, r.input);
    EXPECT_EQ(buf, ExpandPath(buf, sizeof(buf), nullptr, nullptr, r.bWow64Expand));
    EXPECT_EQ(Expected(), std::wstring(buf));
    EXPECT_EQ(!wcschr(r.input, L'%'), sink.Messages().empty()) << "text without '%' is not traced";
}

// The closing line of each branch, once per format.
class ExpandPathTrace : public TraceCapture {};
TEST_F(ExpandPathTrace, ClosingLineOncePerFormat) {
    wchar_t buf[261] = L"%SystemDrive%\\x";
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, NATIVE);
    EXPECT_EQ(L"ExpandPath szEnviePath=%SystemDrive%\\x outputPath=" + Facts().drive + L"\\x",
              sink.Messages().back());
    sink.Clear();
    CopyBounded(buf, 261, L"%TEMP%\\X.exe");
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, VIEW64);
    EXPECT_EQ((std::vector<std::wstring>{L"ExpandEnvironmentStrings in=%TEMP%\\X.exe, out=" +
                                         Facts().temp + L"\\x.exe"}),
              sink.Messages());
}

TEST_P(ExpandRows, ExpandPathStringLogsNothing) {
    const ExpandRow& r = GetParam();
    std::wstring out = L"stale";
    ExpandPathString(r.input, out, nullptr, nullptr, r.bWow64Expand);
    EXPECT_EQ(Expected(), out);
    EXPECT_TRUE(sink.Lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, ExpandRows, ::testing::ValuesIn(kExpandRows),
                         kwtest::ByRowName());

// ---------------------------------------------------------------------------
// The caller's buffer: the result is cut to cbPath/2 - 1 characters and
// nothing is written at or beyond cbPath/2 characters. The input is
// "%CommonProgramFiles%\" and a tail sized so that the full result has the
// length the row names.
struct BufferRow {
    const char* name;
    size_t resultLength;
    DWORD cbPath;
    size_t expectedLength;  // of the result; kUntouched: buffer left as it was
};
void PrintTo(const BufferRow& r, std::ostream* os) { *os << r.name; }

const size_t kUntouched = static_cast<size_t>(-1);

class ExpandPathBuffer : public ::testing::TestWithParam<BufferRow> {};

TEST_P(ExpandPathBuffer, CutsToTheBuffer) {
    const BufferRow& r = GetParam();
    const std::wstring folder = Env(L"CommonProgramFiles");
    ASSERT_FALSE(folder.empty());
    ASSERT_GT(r.resultLength, folder.size() + 1);
    const std::wstring tail(r.resultLength - folder.size() - 1, L't');
    const std::wstring input = L"%CommonProgramFiles%\\" + tail;
    ASSERT_LE(input.size(), 260u) << "the input must fit the 522-byte buffer";
    const std::wstring full = folder + L"\\" + tail;

    std::vector<wchar_t> buf(600, L'#');
    std::copy(input.begin(), input.end(), buf.begin());
    buf[input.size()] = L'\0';
    const std::vector<wchar_t> before = buf;
    ExpandPath(buf.data(), r.cbPath, nullptr, nullptr, NATIVE);
    if (r.expectedLength == kUntouched) {
        EXPECT_TRUE(before == buf) << "buffer changed";
        return;
    }
    EXPECT_EQ(full.substr(0, r.expectedLength), std::wstring(buf.data()));
    for (size_t i = r.cbPath / 2; i < buf.size(); ++i)
        ASSERT_EQ(before[i], buf[i]) << "written at character " << i;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ExpandPathBuffer,
    ::testing::Values(BufferRow{"result of 259 characters fits 522 bytes", 259, 522, 259},
                      BufferRow{"result of 260 characters fills 522 bytes", 260, 522, 260},
                      BufferRow{"result of 261 characters is cut to 260", 261, 522, 260},
                      BufferRow{"odd byte count 523 still holds 260", 270, 523, 260},
                      BufferRow{"cbPath 1 copies nothing", 270, 1, kUntouched}),
    kwtest::ByRowName());

TEST(ExpandPathBuffer, TwoBytesHoldOnlyTheTerminator) {
    wchar_t buf[4] = {L'%', L'x', L'%', L'\0'};
    ExpandPath(buf, 2, nullptr, nullptr, NATIVE);
    EXPECT_EQ(L'\0', buf[0]);
    EXPECT_EQ(L'x', buf[1]);
}

TEST(ExpandPathBuffer, NullPathIsReturned) {
    EXPECT_EQ(nullptr, ExpandPath(nullptr, 522, nullptr, nullptr, NATIVE));
}

// ---------------------------------------------------------------------------
// Expansion results: 1..4095 characters count, 4096 and more are failures.
struct LengthRow {
    const char* name;
    size_t valueLength;
    bool expanded;
};
void PrintTo(const LengthRow& r, std::ostream* os) { *os << r.name; }

class ExpansionLength : public TraceCapture, public ::testing::WithParamInterface<LengthRow> {};

TEST_P(ExpansionLength, NativeBranch) {
    const LengthRow& r = GetParam();
    const std::wstring value(r.valueLength, L'v');
    ScopedEnv big(L"KWBIGVALUE", value.c_str());
    std::wstring out;
    ExpandPathString(L"%KWBIGVALUE%", out, nullptr, nullptr, NATIVE);
    EXPECT_EQ(r.expanded ? value : std::wstring(L"%KWBIGVALUE%"), out);

    wchar_t buf[511] = L"%KWBIGVALUE%";
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, NATIVE);
    EXPECT_EQ(r.expanded ? value.substr(0, 510) : std::wstring(L"%KWBIGVALUE%"), buf);
}

TEST_P(ExpansionLength, View64BranchKeepsLowerCasedTextOnFailure) {
    const LengthRow& r = GetParam();
    const std::wstring value(r.valueLength, L'v');
    ScopedEnv big(L"KWBIGVALUE", value.c_str());
    std::wstring out;
    ExpandPathString(L"%KWBIGVALUE%", out, nullptr, nullptr, VIEW64);
    EXPECT_EQ(r.expanded ? value : std::wstring(L"%kwbigvalue%"), out);
}

INSTANTIATE_TEST_SUITE_P(Rows, ExpansionLength,
                         ::testing::Values(LengthRow{"4095 characters", 4095, true},
                                           LengthRow{"4096 characters fail", 4096, false}),
                         kwtest::ByRowName());

// ---------------------------------------------------------------------------
// The 64-bit branch when the environment cannot give the 64-bit folders: the
// registry fallback for the lower-case tokens only.
struct FallbackRow {
    const char* name;
    const wchar_t* input;
    const wchar_t* expected;        // ExpandPath
    const wchar_t* expectedString;  // ExpandPathString (no fallback)
};
void PrintTo(const FallbackRow& r, std::ostream* os) { *os << r.name; }

class View64Fallback : public TraceCapture, public ::testing::WithParamInterface<FallbackRow> {};

TEST_P(View64Fallback, RegistryFolders) {
    const FallbackRow& r = GetParam();
    ScopedEnv noProgramW6432(L"ProgramW6432", nullptr);
    ScopedEnv noCommonW6432(L"CommonProgramW6432", nullptr);
    const std::wstring expected = Facts().Fill(r.expected);

    wchar_t buf[511] = {0};
    CopyBounded(buf, 511, r.input);
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, VIEW64);
    EXPECT_EQ(expected, std::wstring(buf));

    std::wstring pre = r.input;
    ReplaceAll(pre, L"%programfiles%", Facts().pf64);
    ReplaceAll(pre, L"%commonprogramfiles%", Facts().cf64);
    std::vector<std::wstring> m = sink.Messages();
    ASSERT_EQ(4u, m.size());
    EXPECT_EQ(L"64的命令行解析失败，使用注册表解析", m[1]);
    EXPECT_EQ(L"Pre ExpandEnvironmentStrings " + pre, m[2]);
    EXPECT_EQ(L"ExpandEnvironmentStrings_x64 in=" + pre + L", out=" + expected, m[3]);
    EXPECT_EQ(TRACE_ERROR, sink.Lines()[1].level);
    EXPECT_NE(std::wstring::npos, sink.Lines()[1].text.find(L"[ExpandPath]"));

    std::wstring out;
    ExpandPathString(r.input, out, nullptr, nullptr, VIEW64);
    EXPECT_EQ(std::wstring(r.expectedString), out);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, View64Fallback,
    ::testing::Values(FallbackRow{"lower-case program files gets the 64-bit registry folder",
                                  L"%programfiles%\\A\\b.exe", L"{PF64}\\A\\b.exe",
                                  L"%programw6432%\\a\\b.exe"},
                      FallbackRow{"lower-case common files gets the 64-bit registry folder",
                                  L"%commonprogramfiles%\\X.dll", L"{CF64}\\X.dll",
                                  L"%commonprogramw6432%\\x.dll"},
                      FallbackRow{"other spellings are left to the process environment",
                                  L"%ProgramFiles%\\A\\b.exe", L"{PF32}\\A\\b.exe",
                                  L"%programw6432%\\a\\b.exe"}),
    kwtest::ByRowName());

// ---------------------------------------------------------------------------
struct FolderRow {
    const char* name;
    int id;
    bool view64;
    const wchar_t* expected;
};
void PrintTo(const FolderRow& r, std::ostream* os) { *os << r.name; }

// The rows the process-wide race below does not cover: the ends of both
// tables and what each view makes of ids 261..263.
class FolderById : public ::testing::TestWithParam<FolderRow> {};
TEST_P(FolderById, BothViews) {
    const FolderRow& r = GetParam();
    const wchar_t* got = r.view64 ? GetFolderPathById64(r.id) : GetFolderPathById(r.id);
    std::wstring expected = Facts().Fill(r.expected);
    if (r.view64 && r.id == PATHID_ALLUSERSPROFILE) {
        wchar_t buf[MAX_PATH] = {0};
        ExpandEnvironmentStringsW(L"%AllUserProfile%", buf, MAX_PATH);
        expected = buf;
    }
    EXPECT_EQ(expected, std::wstring(got));
}
INSTANTIATE_TEST_SUITE_P(
    Rows, FolderById,
    ::testing::Values(FolderRow{"native 262 is empty", 262, false, L""},
                      FolderRow{"native 263 is the literal token", 263, false, L"%TEMP%"},
                      FolderRow{"native 264 is not a folder", 264, false, L""},
                      FolderRow{"native shell id 0x24 windows", 0x24, false, L"{WINDIR}"},
                      FolderRow{"64-bit 256 system drive", 256, true, L"{DRIVE}"},
                      FolderRow{"64-bit 261 the process profile", 261, true, L"{PROFILE}"},
                      FolderRow{"64-bit 262 AllUserProfile as the environment expands it", 262,
                                true, L""},
                      FolderRow{"64-bit 264 is not a folder", 264, true, L""}),
    kwtest::ByRowName());

TEST(QueryFolderPath, ClearsTheWholeBufferAndIgnoresNull) {
    wchar_t buf[MAX_PATH];
    wmemset(buf, L'#', MAX_PATH);
    QueryFolderPath(PATHID_ALLUSERSPROFILE, buf);
    for (wchar_t c : buf) ASSERT_EQ(L'\0', c);
    wmemset(buf, L'#', MAX_PATH);
    QueryFolderPath64(999, buf);
    for (wchar_t c : buf) ASSERT_EQ(L'\0', c);
    QueryFolderPath(PATHID_WINDIR, nullptr);
    QueryFolderPath64(PATHID_WINDIR, nullptr);
}

// ---------------------------------------------------------------------------
class SpecialPath : public TraceCapture {};

TEST_F(SpecialPath, FolderIdsGoToTheNativeResolver) {
    wchar_t out[MAX_PATH] = L"stale";
    EXPECT_TRUE(GetSpecialPathByToken(nullptr, nullptr, PATHID_SYSTEM, out));
    EXPECT_EQ(Facts().sysdir, out);
    EXPECT_EQ(std::vector<std::wstring>{L"nFolder=258 exPath=" + Facts().sysdir}, sink.Messages());
    EXPECT_NE(std::wstring::npos, sink.Lines()[0].text.find(L"[GetSpecialPathByToken]"));
}

TEST_F(SpecialPath, ProfileAndTempFromTheEnvironment) {
    wchar_t out[MAX_PATH] = {0};
    EXPECT_TRUE(GetSpecialPathByToken(nullptr, nullptr, PATHID_USERPROFILE, out));
    EXPECT_EQ(Facts().profile, out);
    EXPECT_TRUE(GetSpecialPathByToken(nullptr, nullptr, PATHID_TEMP, out));
    EXPECT_EQ(Env(L"TEMP"), out);
    std::vector<std::wstring> m = sink.Messages();
    ASSERT_EQ(4u, m.size());
    EXPECT_EQ(
        L"ExpandEnvironmentStringsForUserW Success szLinkEnvir=%USERPROFILE% "
        L"szExpandEnvirPath=" +
            Facts().profile,
        m[0]);
    EXPECT_EQ(L"GetSpecialPathByToken Success,szEnvir=USERPROFILE exPath=" + Facts().profile, m[1]);
    EXPECT_EQ(L"GetSpecialPathByToken Success,szEnvir=TEMP exPath=" + Env(L"TEMP"), m[3]);
}

// Without the variable in the environment the SID decides; without a usable
// SID the answer is a refusal with an empty result and one closing line.
TEST_F(SpecialPath, Refusals) {
    const struct {
        const char* name;
        const wchar_t* variable;  // removed from the environment
        const wchar_t* sid;
        int folderId;
        const wchar_t* lastLine;
    } rows[] = {
        {"no sid", L"USERPROFILE", nullptr, PATHID_USERPROFILE, L"UserSid=0"},
        {"empty sid", L"USERPROFILE", L"", PATHID_USERPROFILE, L"UserSid=0"},
        {"unknown sid", L"TEMP", L"S-1-5-21-9-9-9-424242", PATHID_TEMP,
         L"GetSpecialShellVariableBySid Error"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        ScopedEnv unset(r.variable, nullptr);
        sink.Clear();
        wchar_t out[MAX_PATH] = L"stale";
        EXPECT_FALSE(GetSpecialPathByToken(nullptr, r.sid, r.folderId, out));
        EXPECT_EQ(std::wstring(), out);
        ASSERT_FALSE(sink.Messages().empty());
        EXPECT_EQ(L"ExpandEnvironmentStringsForUserW Fail", sink.Messages().front());
        EXPECT_EQ(r.lastLine, sink.Messages().back());
    }
    EXPECT_FALSE(GetSpecialPathByToken(nullptr, nullptr, PATHID_TEMP, nullptr));
}

TEST_F(SpecialPath, NoEnvironmentAsksTheManagerForTheSid) {
    const std::wstring sid = kwtest::CurrentUserSid();
    ASSERT_FALSE(sid.empty());
    ScopedEnv noProfile(L"USERPROFILE", nullptr);
    wchar_t out[MAX_PATH] = {0};
    EXPECT_TRUE(GetSpecialPathByToken(nullptr, sid.c_str(), PATHID_USERPROFILE, out));
    EXPECT_EQ(Facts().profile, out);
    std::vector<std::wstring> m = sink.Messages();
    ASSERT_EQ(3u, m.size());
    EXPECT_EQ(L"ExpandEnvironmentStringsForUserW Fail", m[0]);
    EXPECT_EQ(L"GetSpecialShellVariableBySid Success szEnvir=USERPROFILE szExpandEnvirPath=" +
                  Facts().profile,
              m[1]);
}

TEST_F(SpecialPath, ExpandPathStringUsesWhateverTheResolverLeft) {
    // Without USERPROFILE in the environment and without a SID the resolver
    // fails: ExpandPath keeps the token, ExpandPathString drops it.
    ScopedEnv noProfile(L"USERPROFILE", nullptr);
    std::wstring out;
    ExpandPathString(L"%UserProfile%\\a.exe", out, nullptr, nullptr, NATIVE);
    EXPECT_EQ(L"\\a.exe", out);
    wchar_t buf[261] = L"%UserProfile%\\a.exe";
    ExpandPath(buf, sizeof(buf), nullptr, nullptr, NATIVE);
    EXPECT_EQ(std::wstring(L"%UserProfile%\\a.exe"), buf);
}

TEST(ExpandForUser, LengthAndRefusals) {
    wchar_t out[32];
    EXPECT_EQ(0u, ExpandForUser(nullptr, L"%SystemDrive%", nullptr, 16));
    EXPECT_EQ(Facts().drive.size(), ExpandForUser(nullptr, L"%SystemDrive%", out, 16));
    EXPECT_EQ(Facts().drive, out);
    ScopedEnv v(L"KWSIXTEEN", L"0123456789abcdef");
    EXPECT_EQ(0u, ExpandForUser(nullptr, L"%KWSIXTEEN%", out, 16)) << "16 characters need 17";
    EXPECT_EQ(16u, ExpandForUser(nullptr, L"%KWSIXTEEN%", out, 17));
    EXPECT_EQ(std::wstring(L"0123456789abcdef"), out);
    EXPECT_EQ(0u, ExpandForUser(nullptr, L"", out, 17)) << "an empty result has length 0";
}

// ---------------------------------------------------------------------------
// ---------------------------------------------------------------------------
// "CommonFilesDir" is read into 260 bytes: 129 characters and the terminator.
// The folder tables are filled once per process, so each row runs in a child
// that changes the value in the view its resolver reads, fills the table and
// puts the value back at once.
struct CommonFilesRow {
    const char* name;
    bool view64;
    DWORD type;
    size_t length;  // of the value, in characters (0: the text below)
    bool terminated;
    const wchar_t* text;  // when length is 0
    bool expectEmpty;
    const wchar_t* expectedText;  // when not empty and length is 0
};

const CommonFilesRow kCommonFilesRows[] = {
    {"native 129 characters fit", false, REG_SZ, 129, true, nullptr, false, nullptr},
    {"native 130 characters leave it empty", false, REG_SZ, 130, true, nullptr, true, nullptr},
    {"native 130 characters without terminator leave it empty", false, REG_SZ, 130, false, nullptr,
     true, nullptr},
    {"native REG_EXPAND_SZ is not expanded", false, REG_EXPAND_SZ, 0, true, L"%SystemDrive%\\CF",
     false, L"%SystemDrive%\\CF"},
    {"64-bit 130 characters leave it empty", true, REG_SZ, 130, true, nullptr, true, nullptr},
    {"64-bit REG_EXPAND_SZ is expanded", true, REG_EXPAND_SZ, 0, true, L"%SystemDrive%\\CF", false,
     L"{DRIVE}\\CF"},
};

TEST(ExpandPathCommonFilesDir, Row_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const CommonFilesRow& r = kCommonFilesRows[kwtest::RowIndex("KW_EXPAND_ROW")];
    std::wstring value = r.length ? L"C:\\" + std::wstring(r.length - 3, L'c') : r.text;
    // The system stores an unterminated string together with a NUL that follows
    // it in memory: a character follows it here so that it stays unterminated.
    const std::wstring stored = r.terminated ? value : value + L"x";
    const DWORD cb = static_cast<DWORD>((value.size() + (r.terminated ? 1 : 0)) * sizeof(wchar_t));
    wchar_t out[MAX_PATH] = {0};
    std::wstring programFiles;
    {
        RegValueRestorer restore(r.view64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY, L"CommonFilesDir");
        ASSERT_TRUE(restore.Set(r.type, stored.c_str(), cb));
        if (r.view64) {
            QueryFolderPath64(PATHID_COMMONFILES, out);
            programFiles = GetFolderPathById64(PATHID_PROGRAMFILES);
        } else {
            QueryFolderPath(PATHID_COMMONFILES, out);
            programFiles = GetFolderPathById(PATHID_PROGRAMFILES);
        }
    }
    const std::wstring expected =
        r.expectEmpty ? L"" : (r.length ? value : Facts().Fill(r.expectedText));
    EXPECT_EQ(expected, std::wstring(out));
    EXPECT_EQ(r.view64 ? Facts().pf64 : Facts().pf32, programFiles) << "520 bytes unaffected";
    // Filled once: the restored value is not seen again.
    EXPECT_EQ(expected, std::wstring(r.view64 ? GetFolderPathById64(PATHID_COMMONFILES)
                                              : GetFolderPathById(PATHID_COMMONFILES)));
}

TEST(ExpandPathCommonFilesDir, Rows) {
    const std::wstring cf32 = Facts().cf32, cf64 = Facts().cf64;
    kwtest::RunRowsInChildren("ExpandPathCommonFilesDir.Row_Child",
                              sizeof(kCommonFilesRows) / sizeof(kCommonFilesRows[0]),
                              "KW_EXPAND_ROW");
    EXPECT_EQ(cf32, RegString(KEY_WOW64_32KEY, L"CommonFilesDir", false)) << "restored";
    EXPECT_EQ(cf64, RegString(KEY_WOW64_64KEY, L"CommonFilesDir", true)) << "restored";
}

// ---------------------------------------------------------------------------
// Host threads resolve at the same time: the first fill of the process-wide
// tables races here, and each thread's results stay its own.
KW_CHILD_TEST(ExpandPathThreads, TablesAndResultBuffers) {
    const SystemFacts& f = Facts();
    const std::wstring sid = kwtest::CurrentUserSid();
    const std::wstring temp = Env(L"TEMP");
    struct Want {
        int id;
        bool view64;
        std::wstring text;
    };
    const std::vector<Want> wants = {
        {256, false, f.drive},   {257, false, f.windir}, {258, false, f.sysdir},
        {259, false, f.pf32},    {260, false, f.cf32},   {261, false, L"%USERPROFILE%"},
        {263, false, L"%TEMP%"}, {259, true, f.pf64},    {260, true, f.cf64},
        {263, true, f.temp},
    };
    std::atomic<bool> go{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            while (!go.load()) Sleep(0);
            for (int i = 0; i < 50; ++i) {
                const Want& w = wants[(i + t) % wants.size()];
                const wchar_t* p = w.view64 ? GetFolderPathById64(w.id) : GetFolderPathById(w.id);
                Sleep(0);  // let the other threads write their results
                if (w.text != p) ++wrong;
                wchar_t out[MAX_PATH] = {0};
                if (!kw_user::GetMultiUserRegManager()->GetSpecialShellVariableBySid(
                        sid.c_str(), L"TEMP", out) ||
                    temp != out)
                    ++wrong;
            }
        });
    }
    go = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, wrong.load());
}

// ---------------------------------------------------------------------------
// A second user, through the process-wide manager: no usable token, so the
// environment cannot answer and the user's SID decides. The child runs with
// no USERPROFILE, TEMP or TMP of its own.
TEST(ExpandPathSecondUser, Run_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const std::wstring sid = Env(L"KW_SECOND_SID");
    const std::wstring profile = Env(L"KW_SECOND_PROFILE");
    ASSERT_FALSE(sid.empty());
    ScopedEnv noProfile(L"USERPROFILE", nullptr);
    ScopedEnv noTemp(L"TEMP", nullptr);
    ScopedEnv noTmp(L"TMP", nullptr);
    kwtest::RecordingSink sink;
    SetLogSink(&sink);  // this process ends with the test
    const std::wstring temp = profile + L"\\AppData\\Local\\Temp";

    wchar_t out[MAX_PATH] = {0};
    EXPECT_TRUE(GetSpecialPathByToken(nullptr, sid.c_str(), PATHID_USERPROFILE, out));
    EXPECT_EQ(profile, out);
    EXPECT_TRUE(
        sink.Has(L"GetSpecialShellVariableBySid Success szEnvir=USERPROFILE "
                 L"szExpandEnvirPath=" +
                 profile));
    EXPECT_TRUE(GetSpecialPathByToken(nullptr, sid.c_str(), PATHID_TEMP, out));
    EXPECT_EQ(temp, out);
    EXPECT_FALSE(kwtest::RegKeyExists(HKEY_USERS, sid)) << "the user's hive is unloaded once read";

    struct Row {
        const char* name;
        const wchar_t* input;
        std::wstring expected;
    } rows[] = {
        {"profile", L"%UserProfile%\\Desktop\\a.lnk", profile + L"\\Desktop\\a.lnk"},
        {"temp", L"%Temp%\\x.exe", temp + L"\\x.exe"},
        {"tmp", L"%Tmp%\\x.exe", temp + L"\\x.exe"},
        {"upper-case TMP is left to the environment", L"%TMP%\\x.exe", L"%TMP%\\x.exe"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        std::wstring s;
        ExpandPathString(r.input, s, nullptr, sid.c_str(), NATIVE);
        EXPECT_EQ(r.expected, s);
        wchar_t buf[261] = {0};
        CopyBounded(buf, 261, r.input);
        ExpandPath(buf, sizeof(buf), nullptr, sid.c_str(), NATIVE);
        EXPECT_EQ(r.expected, std::wstring(buf));
    }
}

TEST(ExpandPathSecondUser, ProcessManagerAnswersWithoutToken) {
    kwtest::SecondUserProfile user;
    ASSERT_TRUE(user.Ready()) << std::string(user.Error().begin(), user.Error().end());
    const std::string sid(user.Sid().begin(), user.Sid().end());
    const std::string profile(user.Profile().begin(), user.Profile().end());
    std::string out;
    int rc = kwtest::RunChild("ExpandPathSecondUser.Run_Child",
                              {"KW_SECOND_SID=" + sid, "KW_SECOND_PROFILE=" + profile}, &out);
    EXPECT_EQ(0, rc) << out;
    EXPECT_NE(std::string::npos, out.find("[  PASSED  ] 1 test")) << out;
    EXPECT_FALSE(kwtest::RegKeyExists(HKEY_USERS, user.Sid()))
        << "no hive of the process-wide manager outlives the process";
    EXPECT_FALSE(kwtest::RegKeyExists(HKEY_USERS, user.Sid() + L"_Classes"));
}
