// The 32/64-bit view, checked against what the system really does: these tests
// run as a 32-bit program in a 64-bit prefix, so the process is under WOW64.
#include "resolve/wow64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/strutil.h"
#include "support/child.h"
#include "support/control_set_select.h"
#include "support/fixtures.h"
#include "support/kit.h"

using namespace kw;

namespace {

bool FileExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Deletes a file on scope exit, with redirection as it stands on the thread then.
struct FileRemover {
    std::wstring path;
    ~FileRemover() { DeleteFileW(path.c_str()); }
};

}  // namespace

// ---------------------------------------------------------------------------
// Detection and the process-wide helper

TEST(Wow64Helper, ReportsWow64LikeTheSystem) {
    ASSERT_TRUE(kwtest::ProcessIsWow64()) << "the tests must run as a 32-bit program on 64-bit Wine";

    CWow64Helper* helper = GetWow64Helper();
    ASSERT_NE(nullptr, helper);
    EXPECT_EQ(1, helper->m_bIsWow64);
    EXPECT_EQ(1, helper->m_bInitialized);
    EXPECT_EQ(1, IsProcessWow64());
    EXPECT_EQ(helper, GetWow64Helper()) << "one instance per process";
    EXPECT_EQ(kwtest::WindowsDir() + L"\\SysNative", std::wstring(helper->m_szSystemDir));
}

TEST(Wow64Helper, IsOsWow6432AnswersAndClearsLastError) {
    SetLastError(12345);
    EXPECT_EQ(1, IsOsWow6432());
    EXPECT_EQ(0u, GetLastError());
}

// The three process-wide first uses (version record, helper, control-set
// name), each raced by many threads: every caller sees one finished result.
KW_CHILD_TEST(Wow64Helper, FirstUseFromManyThreadsSeesOneFinishedInstance) {
    struct Seen {
        const COSVersionCheck* check = nullptr;
        LONG corrected = -2;
        CWow64Helper* helper = nullptr;
        BOOL wow64 = 0;
        LONG initialized = 0;
        wchar_t firstChar = 0;
        std::wstring controlSet;
    };
    auto seen = kwtest::RaceFirstUse<Seen>(16, [] {
        Seen s;
        s.check = GetOSVersionCheck();
        s.corrected = s.check->m_nCorrected;
        s.helper = GetWow64Helper();
        s.wow64 = s.helper->m_bIsWow64;
        s.initialized = s.helper->m_bInitialized;
        s.firstChar = s.helper->m_szSystemDir[0];
        s.controlSet = GetCurrentControlSetName();
        return s;
    });
    for (const Seen& s : seen) {
        EXPECT_EQ(seen[0].check, s.check);
        EXPECT_TRUE(s.corrected == 0 || s.corrected == 1) << "a caller saw a record being built";
        EXPECT_EQ(seen[0].helper, s.helper);
        EXPECT_EQ(1, s.wow64) << "a caller returned before the initialisation finished";
        EXPECT_EQ(1, s.initialized);
        EXPECT_NE(0, s.firstChar);
        EXPECT_EQ(kwtest::ControlSetNameFromRegistry(), s.controlSet);
    }
}

// ---------------------------------------------------------------------------
// Redirection pausing

TEST(Wow64Redirection, SysnativeFileSeenAtSystem32OnlyWhilePaused) {
    const std::wstring windir = kwtest::WindowsDir();
    const std::wstring name = L"kwtest-redir-" + std::to_wstring(GetCurrentProcessId()) + L".tmp";
    const std::wstring native = windir + L"\\Sysnative\\" + name;
    const std::wstring system32 = windir + L"\\System32\\" + name;
    ASSERT_TRUE(kwtest::MakeFile(native));
    FileRemover remove{native};  // Sysnative is never redirected

    EXPECT_FALSE(FileExists(system32)) << "System32 must lead to the 32-bit folder";
    {
        CAutoWow64PauseDisable pause;
        EXPECT_NE(0, pause.m_bDisabled);
        EXPECT_TRUE(FileExists(system32));
        {
            CAutoWow64PauseDisable nested;
            EXPECT_NE(0, nested.m_bDisabled);
            EXPECT_TRUE(FileExists(system32));
        }
        EXPECT_TRUE(FileExists(system32)) << "the inner scope must restore the paused state";
    }
    EXPECT_FALSE(FileExists(system32)) << "redirection must be back after the scope";
}

// ---------------------------------------------------------------------------
// System32 mapping. {W} stands for the Windows directory ({W/} with forward
// slashes), {T} for the target folder ("SysWow64" or "Sysnative"), {LONG} for a
// 300-character name.

struct MapRow {
    const char* name;
    const wchar_t* input;
    const wchar_t* expected;
};

void PrintTo(const MapRow& row, std::ostream* os) { *os << row.name; }

class MapSystem32Test : public ::testing::TestWithParam<MapRow> {};

std::wstring Expand(const wchar_t* pattern, const std::wstring& target) {
    std::wstring windir = kwtest::WindowsDir(), s = pattern, slashes = windir;
    ReplaceAll(slashes, L"\\", L"/");
    ReplaceAll(s, L"{W/}", slashes);
    ReplaceAll(s, L"{W}", windir);
    ReplaceAll(s, L"{LONG}", std::wstring(300, L'a'));
    ReplaceAll(s, L"{T}", target);
    return s;
}

TEST_P(MapSystem32Test, MapsBothTargets) {
    const MapRow& row = GetParam();
    struct Target {
        const wchar_t* folder;
        BOOL (*map)(const std::wstring&, std::wstring&);
    } targets[] = {{L"SysWow64", &MapSystem32ToSysWow64}, {L"Sysnative", &MapSystem32ToSysnative}};
    for (const Target& t : targets) {
        SCOPED_TRACE(::testing::Message() << "target " << std::string(t.folder, t.folder + wcslen(t.folder)));
        std::wstring out = L"stale";
        EXPECT_EQ(1, t.map(Expand(row.input, t.folder), out));
        EXPECT_EQ(Expand(row.expected, t.folder), out);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, MapSystem32Test,
    ::testing::Values(
        MapRow{"MixedAndRepeatedSeparatorsCollapse", L"{W/}///System32\\\\drivers\\x.sys",
               L"{W}\\{T}\\drivers\\x.sys"},
        MapRow{"PlainFileUnderSystem32", L"{W}\\System32\\kernel32.dll", L"{W}\\{T}\\kernel32.dll"},
        MapRow{"ExactPrefixWithNothingAfter", L"{W}\\System32", L"{W}\\{T}"},
        MapRow{"UpperCaseIsMatched", L"{W}\\SYSTEM32\\A.DLL", L"{W}\\{T}\\A.DLL"},
        MapRow{"System32xIsNotMapped", L"{W}\\System32x\\a.dll", L"{W}\\System32x\\a.dll"},
        MapRow{"UnmappedPathKeepsItsOwnSeparators", L"{W/}//System32x/a.dll",
               L"{W/}//System32x/a.dll"},
        MapRow{"System32ElsewhereIsNotMapped", L"D:\\Other\\System32\\a.dll",
               L"D:\\Other\\System32\\a.dll"},
        MapRow{"EmptyPathStaysEmpty", L"", L""},
        MapRow{"MissingShortNameIsKeptAsGiven", L"{W}\\System32\\NOSUCH~1\\a.dll",
               L"{W}\\{T}\\NOSUCH~1\\a.dll"},
        MapRow{"LongTailIsNotCut", L"{W}\\System32\\{LONG}.dll", L"{W}\\{T}\\{LONG}.dll"}),
    kwtest::ByRowName());

TEST(MapSystem32, ShortNameIsReplacedByTheLongName) {
    kwtest::TempDir dir(L"kwtest long folder name");
    const std::wstring file = dir.File(L"a file with a long name.txt");
    wchar_t shortPath[MAX_PATH] = {0};
    DWORD n = GetShortPathNameW(file.c_str(), shortPath, MAX_PATH);
    ASSERT_TRUE(n > 0 && n < MAX_PATH);
    ASSERT_NE(std::wstring::npos, std::wstring(shortPath).find(L'~'))
        << "the system gave no short name";

    std::wstring out;
    EXPECT_EQ(1, MapSystem32ToSysWow64(shortPath, out));
    EXPECT_TRUE(kwtest::Upper(out) == kwtest::Upper(file)) << "got a different long name";
    EXPECT_EQ(1, MapSystem32ToSysnative(shortPath, out));
    EXPECT_TRUE(kwtest::Upper(out) == kwtest::Upper(file));
}

// ---------------------------------------------------------------------------
// OS version

namespace {

DWORD Score(DWORD major, DWORD minor) { return major * 10 + minor; }

struct ExpectedVersion {
    DWORD major = 0, minor = 0, build = 0;
    LONG corrected = -1;
};

bool KernelFileVersion(VS_FIXEDFILEINFO* out) {
    const std::wstring kernel = kwtest::WindowsDir() + L"\\Sysnative\\ntoskrnl.exe";
    DWORD ignored = 0;
    DWORD cb = GetFileVersionInfoSizeW(kernel.c_str(), &ignored);
    if (!cb) return false;
    std::vector<BYTE> block(cb);
    VS_FIXEDFILEINFO* ffi = nullptr;
    UINT len = 0;
    if (!GetFileVersionInfoW(kernel.c_str(), 0, cb, block.data()) ||
        !VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&ffi), &len) || !ffi)
        return false;
    *out = *ffi;
    return true;
}

// What the version record must hold, read from the system by other routes.
ExpectedVersion ExpectedFromSystem() {
    OSVERSIONINFOEXW reported{};
    reported.dwOSVersionInfoSize = sizeof(reported);
    GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&reported));
    ExpectedVersion e{reported.dwMajorVersion, reported.dwMinorVersion, reported.dwBuildNumber, 0};
    if (e.major == 5) return e;  // kept as reported under WOW64

    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    auto rtl = reinterpret_cast<RtlGetVersionFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll"), "RtlGetVersion")));
    OSVERSIONINFOEXW real{};
    real.dwOSVersionInfoSize = sizeof(real);
    if (rtl && rtl(reinterpret_cast<OSVERSIONINFOW*>(&real)) >= 0 &&
        Score(real.dwMajorVersion, real.dwMinorVersion) > Score(e.major, e.minor))
        e = {real.dwMajorVersion, real.dwMinorVersion, real.dwBuildNumber, 0};

    VS_FIXEDFILEINFO ffi{};
    if (KernelFileVersion(&ffi) &&
        Score(e.major, e.minor) < Score(HIWORD(ffi.dwFileVersionMS), LOWORD(ffi.dwFileVersionMS)))
        e = {HIWORD(ffi.dwFileVersionMS), LOWORD(ffi.dwFileVersionMS), HIWORD(ffi.dwFileVersionLS),
             1};
    return e;
}

}  // namespace

TEST(OsVersion, RecordIsPlausibleAndAgreesWithTheSystem) {
    const COSVersionCheck* check = GetOSVersionCheck();
    ASSERT_NE(nullptr, check);
    EXPECT_EQ(284u, check->m_osvi.dwOSVersionInfoSize);
    EXPECT_EQ(static_cast<DWORD>(VER_PLATFORM_WIN32_NT), check->m_osvi.dwPlatformId);

    const ExpectedVersion e = ExpectedFromSystem();
    EXPECT_EQ(e.major, check->m_osvi.dwMajorVersion);
    EXPECT_EQ(e.minor, check->m_osvi.dwMinorVersion);
    EXPECT_EQ(e.build, check->m_osvi.dwBuildNumber);
    EXPECT_EQ(e.corrected, check->m_nCorrected);

    OSVERSIONINFOEXW fresh{};
    LONG corrected = -1;
    check->Read(&fresh, &corrected);
    EXPECT_EQ(check->m_nCorrected, corrected);
    EXPECT_EQ(0, std::memcmp(&fresh, &check->m_osvi, sizeof(fresh))) << "reading is repeatable";
}

struct VersionSizeRow {
    const char* id;
    DWORD callerSize;
};

void PrintTo(const VersionSizeRow& row, std::ostream* os) { *os << row.id; }

class OsVersionCallerSize : public ::testing::TestWithParam<VersionSizeRow> {};

TEST_P(OsVersionCallerSize, CopiesOnlyTheCallersSize) {
    const DWORD size = GetParam().callerSize;
    const COSVersionCheck* check = GetOSVersionCheck();
    unsigned char buf[512];
    std::memset(buf, 0xCC, sizeof(buf));
    std::memcpy(buf, &size, sizeof(size));

    ASSERT_EQ(1, GetOsVersionInfo(reinterpret_cast<OSVERSIONINFOW*>(buf)));

    const size_t copied = size < 284 ? size : 284;
    EXPECT_EQ(0, std::memcmp(buf, &check->m_osvi, copied)) << "copied bytes differ";
    if (copied < sizeof(DWORD)) {
        EXPECT_EQ(0, std::memcmp(buf, &size, sizeof(size))) << "size field must stay untouched";
    }
    for (size_t i = copied < sizeof(DWORD) ? sizeof(DWORD) : copied; i < sizeof(buf); ++i)
        ASSERT_EQ(0xCC, buf[i]) << "byte " << i << " past the copy was written";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, OsVersionCallerSize,
    ::testing::Values(VersionSizeRow{"Zero", 0}, VersionSizeRow{"SizeFieldOnly", 4},
                      VersionSizeRow{"LongRecordMinusOne", 283}, VersionSizeRow{"LongRecord", 284},
                      VersionSizeRow{"LongRecordPlusOne", 285}),
    [](const ::testing::TestParamInfo<VersionSizeRow>& info) { return std::string(info.param.id); });

TEST(OsVersion, NullRecordIsRefused) { EXPECT_EQ(0, GetOsVersionInfo(nullptr)); }

// The prefix can make one program see another Windows version; the kernel file
// keeps its own. A copy of this program under a name of its own gets the
// setting, so other test programs running meanwhile are not affected.
namespace {

struct ReportedVersionRow {
    const char* name;
    const wchar_t* prefixVersion;  // the prefix's name for the version the program sees
    DWORD reportedMajor, reportedMinor;
    LONG corrected;
    BOOL win7OrLater, vistaOrLater;
};

const ReportedVersionRow kReportedVersionRows[] = {
    {"reported 6.0 below the kernel file's 6.1 is raised from the file", L"vista", 6, 0, 1, 1, 1},
    {"reported 5.1 under WOW64 is kept as reported", L"winxp", 5, 1, 0, 0, 0},
    {"capped report 6.2 loses to RtlGetVersion's 10.0", L"win10", 6, 2, 0, 1, 1},
};

}  // namespace

TEST(OsVersion, ReportedVersionRows) {
    wchar_t self[MAX_PATH] = {0};
    ASSERT_NE(0u, GetModuleFileNameW(nullptr, self, MAX_PATH - 1));
    kwtest::TempDir dir(L"kwtest-osver");
    for (size_t i = 0; i < sizeof(kReportedVersionRows) / sizeof(kReportedVersionRows[0]); ++i) {
        SCOPED_TRACE(kReportedVersionRows[i].name);
        const std::wstring exeName = L"kwtest-osver-" + std::to_wstring(GetCurrentProcessId()) +
                                     L"-" + std::to_wstring(i) + L".exe";
        const std::wstring exe = dir.Path() + L"\\" + exeName;
        const std::wstring key = L"Software\\Wine\\AppDefaults\\" + exeName;
        ASSERT_TRUE(CopyFileW(self, exe.c_str(), FALSE));
        ASSERT_TRUE(kwtest::RegSetSz(HKEY_CURRENT_USER, key, L"Version", kReportedVersionRows[i].prefixVersion));
        kwtest::ScopedEnv child(L"KW_TEST_CHILD", L"1");
        kwtest::ScopedEnv rowEnv(L"KW_OSVER_ROW", std::to_wstring(i).c_str());
        std::string out;
        int rc = kwtest::RunProgram(exe, L"--gtest_filter=OsVersion.ReportedVersionRows_Child",
                                    dir.Path(), &out);
        kwtest::RegDeleteTreeView(HKEY_CURRENT_USER, key);
        EXPECT_EQ(0, rc) << out;
        EXPECT_NE(std::string::npos, out.find("[  PASSED  ] 1 test")) << out;
    }
}

// The record's source (as reported, RtlGetVersion or the kernel file) is told
// by the row's `corrected` and the reported version it must differ from.
TEST(OsVersion, ReportedVersionRows_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const ReportedVersionRow& row = kReportedVersionRows[kwtest::RowIndex("KW_OSVER_ROW")];
    OSVERSIONINFOEXW reported{};
    reported.dwOSVersionInfoSize = sizeof(reported);
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&reported)));
    ASSERT_EQ(row.reportedMajor, reported.dwMajorVersion) << "the prefix setting did not apply";
    ASSERT_EQ(row.reportedMinor, reported.dwMinorVersion) << "the prefix setting did not apply";

    const ExpectedVersion e = ExpectedFromSystem();
    OSVERSIONINFOEXW v{};
    v.dwOSVersionInfoSize = sizeof(v);
    ASSERT_EQ(1, GetOsVersionInfo(reinterpret_cast<OSVERSIONINFOW*>(&v)));
    EXPECT_EQ(e.major, v.dwMajorVersion);
    EXPECT_EQ(e.minor, v.dwMinorVersion);
    EXPECT_EQ(e.build, v.dwBuildNumber);
    EXPECT_EQ(row.corrected, e.corrected);
    EXPECT_EQ(row.corrected, GetOSVersionCheck()->m_nCorrected);
    EXPECT_EQ(row.win7OrLater, IsWin7OrLater());
    EXPECT_EQ(row.vistaOrLater, IsVistaOrLater());
    EXPECT_EQ(row.win7OrLater, GetWow64Helper()->m_bWin7OrLater);
    EXPECT_EQ(row.vistaOrLater, GetWow64Helper()->m_bVistaOrLater);
}

TEST(OsVersion, NtoskrnlPathGoesThroughSysnative) {
    wchar_t path[MAX_PATH];
    wmemset(path, L'#', MAX_PATH);
    ASSERT_EQ(S_OK, GetNtoskrnlPath(path));
    EXPECT_EQ(kwtest::WindowsDir() + L"\\SysNative\\ntoskrnl.exe", std::wstring(path));
    EXPECT_TRUE(FileExists(path)) << "reachable without pausing redirection";
    EXPECT_EQ(E_FAIL, GetNtoskrnlPath(nullptr));
}

TEST(OsVersion, FileFixedVersionOfTheKernelMatchesTheVersionApi) {
    wchar_t path[MAX_PATH] = {0};
    ASSERT_EQ(S_OK, GetNtoskrnlPath(path));
    VS_FIXEDFILEINFO ours{};
    ASSERT_NE(0, GetFileFixedVersion(path, &ours));
    EXPECT_EQ(0xFEEF04BDu, ours.dwSignature);
    VS_FIXEDFILEINFO theirs{};
    ASSERT_TRUE(KernelFileVersion(&theirs));
    EXPECT_EQ(theirs.dwFileVersionMS, ours.dwFileVersionMS);
    EXPECT_EQ(theirs.dwFileVersionLS, ours.dwFileVersionLS);
    EXPECT_EQ(theirs.dwProductVersionMS, ours.dwProductVersionMS);
}

TEST(OsVersion, FileFixedVersionRefusals) {
    kwtest::TempDir dir(L"kwtest-version");
    wchar_t self[MAX_PATH] = {0};
    GetModuleFileNameW(nullptr, self, MAX_PATH - 1);
    struct Row {
        const char* name;
        std::wstring path;
    } rows[] = {
        {"missing file", dir.Path() + L"\\missing.dll"},
        {"text file, not an image", dir.File(L"plain.txt", "not an image")},
        {"image without a version resource", self},
        {"empty path", L""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        VS_FIXEDFILEINFO ffi{};
        EXPECT_EQ(0, GetFileFixedVersion(row.path.c_str(), &ffi));
    }
    VS_FIXEDFILEINFO ffi{};
    EXPECT_EQ(0, GetFileFixedVersion(nullptr, &ffi));
    wchar_t path[MAX_PATH] = {0};
    ASSERT_EQ(S_OK, GetNtoskrnlPath(path));
    EXPECT_EQ(0, GetFileFixedVersion(path, nullptr));
}

// ---------------------------------------------------------------------------
// Current control set. These tests change HKLM\System\Select, which every
// process of the prefix reads: scripts/run-tests runs them one at a time, each
// change lasts only as long as the child needs and is undone in the child and
// again in the parent (which survives a child that crashed).

namespace {

const wchar_t kSelectKey[] = L"System\\Select";

// What each child writes to "Current" before asking for the name once.
struct ControlSetRow {
    const char* name;
    DWORD type;
    std::vector<BYTE> data;
    const wchar_t* expected;
};

const ControlSetRow kControlSetRows[] = {
    {"value 1", REG_DWORD, {1, 0, 0, 0}, L"ControlSet001"},
    {"value of string type", REG_SZ, {'1', 0, 0, 0}, L""},
    {"dword value of 2 bytes", REG_DWORD, {1, 0}, L""},
};

}  // namespace

// Each row in a fresh process, since the name is cached once per process.
TEST(ControlSet, RowsInChildProcesses) {
    kwtest::SelectRestorer restore;
    ASSERT_TRUE(restore.HadValue()) << "the prefix has no System\\Select \"Current\"";
    kwtest::RunRowsInChildren("ControlSet.RowsInChildProcesses_Child",
                              sizeof(kControlSetRows) / sizeof(kControlSetRows[0]),
                              "KW_CONTROLSET_ROW");
}

TEST(ControlSet, RowsInChildProcesses_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const ControlSetRow& row = kControlSetRows[kwtest::RowIndex("KW_CONTROLSET_ROW")];
    std::wstring got;
    {
        kwtest::SelectRestorer restore;
        ASSERT_TRUE(kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, kSelectKey, L"Current", row.type,
                                      row.data.data(), static_cast<DWORD>(row.data.size())));
        got = GetCurrentControlSetName();
    }
    EXPECT_EQ(std::wstring(row.expected), got);
}

// A failed lookup is not cached: the next call tries again; a success is.
TEST(ControlSet, FailedLookupIsRetriedThenCached) {
    kwtest::SelectRestorer restore;
    std::string out;
    EXPECT_EQ(0, kwtest::RunChild("ControlSet.FailedLookupIsRetriedThenCached_Child", {}, &out))
        << out;
}

TEST(ControlSet, FailedLookupIsRetriedThenCached_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    kwtest::SelectRestorer restore;
    ASSERT_TRUE(restore.DeleteCurrent());
    EXPECT_EQ(std::wstring(), GetCurrentControlSetName());
    EXPECT_EQ(std::wstring(), GetCurrentControlSetName());

    ASSERT_TRUE(restore.Set(10));
    EXPECT_EQ(std::wstring(L"ControlSet0010"), GetCurrentControlSetName()) << "the fixed 00 stays";

    ASSERT_TRUE(restore.Set(3));
    EXPECT_EQ(std::wstring(L"ControlSet0010"), GetCurrentControlSetName())
        << "the name is computed once per process";
}
