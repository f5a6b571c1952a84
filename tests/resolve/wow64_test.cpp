// The 32/64-bit view, checked against what the system really does: these tests
// run as a 32-bit program in a 64-bit prefix, so the process is under WOW64.
#include "resolve/wow64.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/fixtures.h"
#include "support/kit.h"

using namespace kw;

namespace {

const wchar_t kSelectKey[] = L"System\\Select";
const wchar_t kCurrent[] = L"Current";

bool FileExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring UniqueFileName() {
    static std::atomic<unsigned> counter{0};
    return L"kwtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(GetTickCount()) + L"-" + std::to_wstring(++counter) + L".tmp";
}

// Deletes a file on scope exit, with redirection as it stands on the thread then.
class FileRemover {
public:
    explicit FileRemover(std::wstring path) : m_path(std::move(path)) {}
    ~FileRemover() { DeleteFileW(m_path.c_str()); }
    FileRemover(const FileRemover&) = delete;
    FileRemover& operator=(const FileRemover&) = delete;

private:
    std::wstring m_path;
};

std::wstring ReplaceAllText(std::wstring s, const std::wstring& from, const std::wstring& to) {
    for (size_t pos = s.find(from); pos != std::wstring::npos; pos = s.find(from, pos + to.size()))
        s.replace(pos, from.size(), to);
    return s;
}

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
    EXPECT_EQ(IsWin7OrLater(), helper->m_bWin7OrLater);
    EXPECT_EQ(IsVistaOrLater(), helper->m_bVistaOrLater);
}

TEST(Wow64Helper, IsOsWow6432AnswersAndClearsLastError) {
    SetLastError(12345);
    EXPECT_EQ(1, IsOsWow6432());
    EXPECT_EQ(0u, GetLastError());
}

KW_CHILD_TEST(Wow64Helper, FirstUseFromManyThreadsSeesOneInitialisedInstance) {
    struct Seen {
        CWow64Helper* helper = nullptr;
        BOOL wow64 = 0;
        LONG initialized = 0;
        wchar_t firstChar = 0;
    };
    auto seen = kwtest::RaceFirstUse<Seen>(16, [] {
        CWow64Helper* h = GetWow64Helper();
        return Seen{h, h->m_bIsWow64, h->m_bInitialized, h->m_szSystemDir[0]};
    });
    for (const Seen& s : seen) {
        EXPECT_EQ(seen[0].helper, s.helper);
        EXPECT_EQ(1, s.wow64) << "a caller returned before the initialisation finished";
        EXPECT_EQ(1, s.initialized);
        EXPECT_NE(0, s.firstChar);
    }
}

// ---------------------------------------------------------------------------
// Redirection pausing

TEST(Wow64Redirection, SysnativeFileSeenAtSystem32OnlyWhilePaused) {
    const std::wstring windir = kwtest::WindowsDir();
    const std::wstring name = UniqueFileName();
    const std::wstring native = windir + L"\\Sysnative\\" + name;
    const std::wstring system32 = windir + L"\\System32\\" + name;
    ASSERT_TRUE(kwtest::MakeFile(native));
    FileRemover remove(native);  // Sysnative is never redirected

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

TEST(Wow64Redirection, System32WriteLandsInSysWow64UnlessPaused) {
    const std::wstring windir = kwtest::WindowsDir();
    const std::wstring name = UniqueFileName();
    const std::wstring system32 = windir + L"\\System32\\" + name;
    const std::wstring native = windir + L"\\Sysnative\\" + name;
    const std::wstring wow = windir + L"\\SysWOW64\\" + name;
    FileRemover removeWow(wow);
    FileRemover removeNative(native);

    ASSERT_TRUE(kwtest::MakeFile(system32));
    EXPECT_TRUE(FileExists(wow));
    EXPECT_FALSE(FileExists(native));
    ASSERT_TRUE(DeleteFileW(wow.c_str()));

    {
        CAutoWow64PauseDisable pause;
        ASSERT_TRUE(kwtest::MakeFile(system32));
    }
    EXPECT_TRUE(FileExists(native));
    EXPECT_FALSE(FileExists(wow));
}

TEST(Wow64Redirection, DisableAndRevertPairDirectly) {
    const std::wstring system32 = kwtest::WindowsDir() + L"\\System32\\ntoskrnl.exe";
    PVOID old = nullptr;
    ASSERT_EQ(1, DisableFsRedirection(&old));
    const bool seenPaused = FileExists(system32);
    EXPECT_EQ(1, RevertFsRedirection(old));
    EXPECT_TRUE(seenPaused) << "the 64-bit kernel image is in the native System32";
}

// ---------------------------------------------------------------------------
// System32 mapping. {W} stands for the Windows directory, {T} for the target
// folder ("SysWow64" or "Sysnative").

struct MapRow {
    const char* id;
    const wchar_t* input;
    const wchar_t* expected;
};

void PrintTo(const MapRow& row, std::ostream* os) { *os << row.id; }

class MapSystem32Test : public ::testing::TestWithParam<MapRow> {};

std::wstring Expand(const wchar_t* pattern, const std::wstring& target) {
    std::wstring windir = kwtest::WindowsDir();
    std::wstring s = ReplaceAllText(pattern, L"{W}", windir);
    // The Windows directory with forward slashes, as a caller might write it.
    s = ReplaceAllText(s, L"{W/}", ReplaceAllText(windir, L"\\", L"/"));
    return ReplaceAllText(s, L"{T}", target);
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
        MapRow{"MixedSeparatorsAndDoubledBackslashes", L"{W/}//System32\\\\drivers\\x.sys",
               L"{W}\\{T}\\drivers\\x.sys"},
        MapRow{"PlainFileUnderSystem32", L"{W}\\System32\\kernel32.dll", L"{W}\\{T}\\kernel32.dll"},
        MapRow{"ExactPrefixWithNothingAfter", L"{W}\\System32", L"{W}\\{T}"},
        MapRow{"PrefixWithTrailingBackslash", L"{W}\\System32\\", L"{W}\\{T}\\"},
        MapRow{"TripleBackslashesCollapse", L"{W}\\\\\\System32\\\\\\a.dll", L"{W}\\{T}\\a.dll"},
        MapRow{"UpperCaseIsMatched", L"{W}\\SYSTEM32\\A.DLL", L"{W}\\{T}\\A.DLL"},
        MapRow{"System32xIsNotMapped", L"{W}\\System32x\\a.dll", L"{W}\\System32x\\a.dll"},
        MapRow{"System32DotSuffixIsNotMapped", L"{W}\\System32.old\\a.dll",
               L"{W}\\System32.old\\a.dll"},
        MapRow{"UnmappedPathKeepsItsOwnSeparators", L"{W/}//System32x/a.dll",
               L"{W/}//System32x/a.dll"},
        MapRow{"WindowsFolderItselfIsNotMapped", L"{W}\\notepad.exe", L"{W}\\notepad.exe"},
        MapRow{"System32ElsewhereIsNotMapped", L"D:\\Other\\System32\\a.dll",
               L"D:\\Other\\System32\\a.dll"},
        MapRow{"SysWow64PathIsLeftAlone", L"{W}\\SysWOW64\\a.dll", L"{W}\\SysWOW64\\a.dll"},
        MapRow{"RelativePathIsLeftAlone", L"System32\\a.dll", L"System32\\a.dll"},
        MapRow{"EmptyPathStaysEmpty", L"", L""},
        MapRow{"MissingShortNameIsKeptAsGiven", L"{W}\\System32\\NOSUCH~1\\a.dll",
               L"{W}\\{T}\\NOSUCH~1\\a.dll"},
        MapRow{"LongTailIsNotCut",
               L"{W}\\System32\\aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
               L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
               L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
               L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa.dll",
               L"{W}\\{T}\\aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
               L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
               L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
               L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa.dll"}),
    [](const ::testing::TestParamInfo<MapRow>& info) { return std::string(info.param.id); });

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
    EXPECT_EQ(check, GetOSVersionCheck());
    EXPECT_TRUE(check->m_nCorrected == 0 || check->m_nCorrected == 1) << check->m_nCorrected;
    EXPECT_EQ(284u, check->m_osvi.dwOSVersionInfoSize);
    EXPECT_GE(check->m_osvi.dwMajorVersion, 5u);
    EXPECT_LE(check->m_osvi.dwMajorVersion, 20u);
    EXPECT_LE(check->m_osvi.dwMinorVersion, 9u);
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

TEST(OsVersion, Win7AndVistaFlagsFollowTheRecord) {
    OSVERSIONINFOEXW v{};
    v.dwOSVersionInfoSize = sizeof(v);
    ASSERT_EQ(1, GetOsVersionInfo(reinterpret_cast<OSVERSIONINFOW*>(&v)));
    const DWORD score = Score(v.dwMajorVersion, v.dwMinorVersion);
    EXPECT_EQ(score >= 61 ? 1 : 0, IsWin7OrLater());
    EXPECT_EQ(v.dwMajorVersion >= 6 ? 1 : 0, IsVistaOrLater());
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
                      VersionSizeRow{"MidMajorVersion", 6}, VersionSizeRow{"UpToBuild", 16},
                      VersionSizeRow{"ShortRecordMinusOne", 275}, VersionSizeRow{"ShortRecord", 276},
                      VersionSizeRow{"ShortRecordPlusOne", 277}, VersionSizeRow{"LongRecordMinusOne", 283},
                      VersionSizeRow{"LongRecord", 284}, VersionSizeRow{"LongRecordPlusOne", 285},
                      VersionSizeRow{"Oversized", 500}),
    [](const ::testing::TestParamInfo<VersionSizeRow>& info) { return std::string(info.param.id); });

TEST(OsVersion, NullRecordIsRefused) { EXPECT_EQ(0, GetOsVersionInfo(nullptr)); }

// The prefix can make one program see another Windows version; the kernel file
// keeps its own. A copy of this program under a name of its own gets the
// setting, so other test programs running meanwhile are not affected.
namespace {

enum class VersionSource { KernelFile, AsReported, RtlGetVersion };

struct ReportedVersionRow {
    const char* name;
    const wchar_t* prefixVersion;  // the prefix's name for the version the program sees
    DWORD reportedMajor, reportedMinor;
    VersionSource source;
    LONG corrected;
    BOOL win7OrLater, vistaOrLater;
};

const ReportedVersionRow kReportedVersionRows[] = {
    {"reported 6.0 below the kernel file's 6.1 is raised from the file", L"vista", 6, 0,
     VersionSource::KernelFile, 1, 1, 1},
    {"reported 5.1 under WOW64 is kept as reported", L"winxp", 5, 1, VersionSource::AsReported, 0,
     0, 0},
    {"reported 5.2 under WOW64 is kept as reported", L"win2003", 5, 2, VersionSource::AsReported,
     0, 0, 0},
    {"capped report 6.2 loses to RtlGetVersion's 10.0", L"win10", 6, 2,
     VersionSource::RtlGetVersion, 0, 1, 1},
};

// The per-program settings key of the prefix, removed on scope exit.
class ProgramVersionSetting {
public:
    ProgramVersionSetting(const std::wstring& exeName, const std::wstring& version)
        : m_key(L"Software\\Wine\\AppDefaults\\" + exeName) {
        m_ok = kwtest::RegSetSz(HKEY_CURRENT_USER, m_key, L"Version", version);
    }
    ~ProgramVersionSetting() { kwtest::RegDeleteTreeView(HKEY_CURRENT_USER, m_key); }
    ProgramVersionSetting(const ProgramVersionSetting&) = delete;
    ProgramVersionSetting& operator=(const ProgramVersionSetting&) = delete;
    bool Ok() const { return m_ok; }

private:
    std::wstring m_key;
    bool m_ok = false;
};

}  // namespace

TEST(OsVersion, ReportedVersionRows) {
    wchar_t self[MAX_PATH] = {0};
    ASSERT_NE(0u, GetModuleFileNameW(nullptr, self, MAX_PATH - 1));
    kwtest::TempDir dir(L"kwtest-osver");
    const size_t count = sizeof(kReportedVersionRows) / sizeof(kReportedVersionRows[0]);
    for (size_t i = 0; i < count; ++i) {
        const ReportedVersionRow& row = kReportedVersionRows[i];
        SCOPED_TRACE(row.name);
        const std::wstring exeName = L"kwtest-osver-" + std::to_wstring(GetCurrentProcessId()) +
                                     L"-" + std::to_wstring(i) + L".exe";
        const std::wstring exe = dir.Path() + L"\\" + exeName;
        ASSERT_TRUE(CopyFileW(self, exe.c_str(), FALSE));
        ProgramVersionSetting setting(exeName, row.prefixVersion);
        ASSERT_TRUE(setting.Ok());
        kwtest::ScopedEnv child(L"KW_TEST_CHILD", L"1");
        kwtest::ScopedEnv rowEnv(L"KW_OSVER_ROW", std::to_wstring(i).c_str());
        std::string out;
        int rc = kwtest::RunProgram(exe, L"--gtest_filter=OsVersion.ReportedVersionRows_Child",
                                    dir.Path(), &out);
        EXPECT_EQ(0, rc) << out;
    }
}

TEST(OsVersion, ReportedVersionRows_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    wchar_t buf[16] = {0};
    ASSERT_NE(0u, GetEnvironmentVariableW(L"KW_OSVER_ROW", buf, 16));
    const size_t i = static_cast<size_t>(_wtoi(buf));
    ASSERT_LT(i, sizeof(kReportedVersionRows) / sizeof(kReportedVersionRows[0]));
    const ReportedVersionRow& row = kReportedVersionRows[i];

    OSVERSIONINFOEXW reported{};
    reported.dwOSVersionInfoSize = sizeof(reported);
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&reported)));
    ASSERT_EQ(row.reportedMajor, reported.dwMajorVersion) << "the prefix setting did not apply";
    ASSERT_EQ(row.reportedMinor, reported.dwMinorVersion) << "the prefix setting did not apply";

    DWORD major = 0, minor = 0, build = 0;
    switch (row.source) {
    case VersionSource::AsReported:
        major = reported.dwMajorVersion;
        minor = reported.dwMinorVersion;
        build = reported.dwBuildNumber;
        break;
    case VersionSource::RtlGetVersion: {
        using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
        auto rtl = reinterpret_cast<RtlGetVersionFn>(reinterpret_cast<void*>(
            GetProcAddress(GetModuleHandleW(L"ntdll"), "RtlGetVersion")));
        ASSERT_NE(nullptr, rtl);
        OSVERSIONINFOEXW real{};
        real.dwOSVersionInfoSize = sizeof(real);
        ASSERT_GE(rtl(reinterpret_cast<OSVERSIONINFOW*>(&real)), 0);
        major = real.dwMajorVersion;
        minor = real.dwMinorVersion;
        build = real.dwBuildNumber;
        break;
    }
    case VersionSource::KernelFile: {
        VS_FIXEDFILEINFO ffi{};
        ASSERT_TRUE(KernelFileVersion(&ffi));
        major = HIWORD(ffi.dwFileVersionMS);
        minor = LOWORD(ffi.dwFileVersionMS);
        build = HIWORD(ffi.dwFileVersionLS);
        break;
    }
    }

    OSVERSIONINFOEXW v{};
    v.dwOSVersionInfoSize = sizeof(v);
    ASSERT_EQ(1, GetOsVersionInfo(reinterpret_cast<OSVERSIONINFOW*>(&v)));
    EXPECT_EQ(major, v.dwMajorVersion);
    EXPECT_EQ(minor, v.dwMinorVersion);
    EXPECT_EQ(build, v.dwBuildNumber);
    EXPECT_EQ(row.corrected, GetOSVersionCheck()->m_nCorrected);
    EXPECT_EQ(row.win7OrLater, IsWin7OrLater());
    EXPECT_EQ(row.vistaOrLater, IsVistaOrLater());
    EXPECT_EQ(row.win7OrLater, GetWow64Helper()->m_bWin7OrLater);
    EXPECT_EQ(row.vistaOrLater, GetWow64Helper()->m_bVistaOrLater);
}

KW_CHILD_TEST(OsVersion, FirstUseFromManyThreadsBuildsOneRecord) {
    struct Seen {
        const COSVersionCheck* check = nullptr;
        LONG corrected = -2;
        DWORD major = 0;
    };
    auto seen = kwtest::RaceFirstUse<Seen>(16, [] {
        const COSVersionCheck* c = GetOSVersionCheck();
        return Seen{c, c->m_nCorrected, c->m_osvi.dwMajorVersion};
    });
    for (const Seen& s : seen) {
        EXPECT_EQ(seen[0].check, s.check);
        EXPECT_TRUE(s.corrected == 0 || s.corrected == 1) << "a caller saw a record being built";
        EXPECT_GE(s.major, 5u);
    }
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

    DWORD ignored = 0;
    DWORD cb = GetFileVersionInfoSizeW(path, &ignored);
    ASSERT_NE(0u, cb);
    std::vector<BYTE> block(cb);
    ASSERT_TRUE(GetFileVersionInfoW(path, 0, cb, block.data()));
    VS_FIXEDFILEINFO* theirs = nullptr;
    UINT len = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&theirs), &len));
    EXPECT_EQ(theirs->dwFileVersionMS, ours.dwFileVersionMS);
    EXPECT_EQ(theirs->dwFileVersionLS, ours.dwFileVersionLS);
    EXPECT_EQ(theirs->dwProductVersionMS, ours.dwProductVersionMS);
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
// Current control set. These tests change HKLM\System\Select, which the whole
// machine shares: every change holds a named mutex, lasts only as long as the
// child needs, and is undone by a restorer in the child and again in the parent
// (which survives a child that crashed).

namespace {

// Serialises the tests of this program that read or change System\Select.
class SelectMutex {
public:
    SelectMutex() : m_h(CreateMutexW(nullptr, FALSE, L"kwtest-system-select")) {
        if (m_h) {
            DWORD w = WaitForSingleObject(m_h, 120000);
            m_owned = w == WAIT_OBJECT_0 || w == WAIT_ABANDONED;
        }
    }
    ~SelectMutex() {
        if (m_owned) ReleaseMutex(m_h);
        if (m_h) CloseHandle(m_h);
    }
    SelectMutex(const SelectMutex&) = delete;
    SelectMutex& operator=(const SelectMutex&) = delete;
    bool Owned() const { return m_owned; }

private:
    HANDLE m_h;
    bool m_owned = false;
};

// Snapshot of HKLM\System\Select "Current", written back on scope exit.
class SelectRestorer {
public:
    SelectRestorer() {
        HKEY h = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSelectKey, 0, KEY_READ | KEY_WOW64_64KEY, &h) !=
            ERROR_SUCCESS)
            return;
        m_keyExisted = true;
        DWORD cb = sizeof(m_data);
        m_valueExisted = RegQueryValueExW(h, kCurrent, nullptr, &m_type, m_data, &cb) == ERROR_SUCCESS;
        m_cb = cb;
        RegCloseKey(h);
    }
    ~SelectRestorer() {
        if (!m_keyExisted) {
            RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kSelectKey, KEY_WOW64_64KEY, 0);
            return;
        }
        if (m_valueExisted) {
            kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, kSelectKey, kCurrent, m_type, m_data, m_cb);
        } else {
            DeleteCurrent();
        }
    }
    SelectRestorer(const SelectRestorer&) = delete;
    SelectRestorer& operator=(const SelectRestorer&) = delete;

    static void DeleteCurrent() {
        HKEY h = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSelectKey, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, &h) ==
            ERROR_SUCCESS) {
            RegDeleteValueW(h, kCurrent);
            RegCloseKey(h);
        }
    }
    bool ValueExisted() const { return m_valueExisted; }
    DWORD Type() const { return m_type; }
    DWORD Cb() const { return m_cb; }

private:
    bool m_keyExisted = false;
    bool m_valueExisted = false;
    DWORD m_type = 0;
    DWORD m_cb = 0;
    BYTE m_data[64] = {0};
};

// What each child does to "Current" before asking for the name once.
struct ControlSetRow {
    const char* name;
    bool remove;  // the value is taken away
    DWORD type;
    std::vector<BYTE> data;
    const wchar_t* expected;
};

std::vector<BYTE> Dword(DWORD v) {
    return {BYTE(v), BYTE(v >> 8), BYTE(v >> 16), BYTE(v >> 24)};
}

const std::vector<ControlSetRow>& ControlSetRows() {
    static const std::vector<ControlSetRow> rows = {
        {"value 1", false, REG_DWORD, Dword(1), L"ControlSet001"},
        {"value 2", false, REG_DWORD, Dword(2), L"ControlSet002"},
        {"value 10 keeps the fixed 00", false, REG_DWORD, Dword(10), L"ControlSet0010"},
        {"value 0", false, REG_DWORD, Dword(0), L"ControlSet000"},
        {"value removed", true, REG_NONE, {}, L""},
        {"value of string type", false, REG_SZ, {'1', 0, 0, 0}, L""},
        {"dword value of 2 bytes", false, REG_DWORD, {1, 0}, L""},
        {"value of 8 bytes", false, REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}, L""},
    };
    return rows;
}

bool ApplyRow(const ControlSetRow& row) {
    if (row.remove) {
        SelectRestorer::DeleteCurrent();
        return !kwtest::RegGetDword(HKEY_LOCAL_MACHINE, kSelectKey, kCurrent, nullptr);
    }
    return kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, kSelectKey, kCurrent, row.type, row.data.data(),
                             static_cast<DWORD>(row.data.size()));
}

size_t RowFromEnvironment() {
    wchar_t buf[16] = {0};
    if (!GetEnvironmentVariableW(L"KW_CONTROLSET_ROW", buf, 16)) return static_cast<size_t>(-1);
    return static_cast<size_t>(_wtoi(buf));
}

}  // namespace

TEST(ControlSet, MatchesSelectCurrent) {
    SelectMutex lock;
    ASSERT_TRUE(lock.Owned());
    DWORD current = 0;
    ASSERT_TRUE(kwtest::RegGetDword(HKEY_LOCAL_MACHINE, kSelectKey, kCurrent, &current))
        << "the prefix has no System\\Select \"Current\"";
    const std::wstring expected = L"ControlSet00" + std::to_wstring(current);
    EXPECT_EQ(expected, std::wstring(GetCurrentControlSetName()));
    EXPECT_EQ(GetCurrentControlSetName(), GetCurrentControlSetName()) << "one static buffer";
}

// Each row in a fresh process, since the name is cached once per process.
TEST(ControlSet, RowsInChildProcesses) {
    SelectMutex lock;
    ASSERT_TRUE(lock.Owned());
    SelectRestorer restore;
    ASSERT_TRUE(restore.ValueExisted()) << "the prefix has no System\\Select \"Current\"";
    for (size_t i = 0; i < ControlSetRows().size(); ++i) {
        SCOPED_TRACE(ControlSetRows()[i].name);
        std::string out;
        int rc = kwtest::RunChild("ControlSet.RowsInChildProcesses_Child",
                                  {"KW_CONTROLSET_ROW=" + std::to_string(i)}, &out);
        EXPECT_EQ(0, rc) << out;
    }
}

TEST(ControlSet, RowsInChildProcesses_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const size_t i = RowFromEnvironment();
    ASSERT_LT(i, ControlSetRows().size());
    const ControlSetRow& row = ControlSetRows()[i];
    std::wstring got;
    {
        SelectRestorer restore;
        ASSERT_TRUE(ApplyRow(row));
        got = GetCurrentControlSetName();
    }
    EXPECT_EQ(std::wstring(row.expected), got);
}

// A failed lookup is not cached: the next call tries again; a success is.
TEST(ControlSet, FailedLookupIsRetriedThenCached) {
    SelectMutex lock;
    ASSERT_TRUE(lock.Owned());
    SelectRestorer restore;
    std::string out;
    EXPECT_EQ(0, kwtest::RunChild("ControlSet.FailedLookupIsRetriedThenCached_Child", {}, &out))
        << out;
}

TEST(ControlSet, FailedLookupIsRetriedThenCached_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    SelectRestorer restore;
    SelectRestorer::DeleteCurrent();
    EXPECT_EQ(std::wstring(), GetCurrentControlSetName());
    EXPECT_EQ(std::wstring(), GetCurrentControlSetName());

    ASSERT_TRUE(kwtest::RegSetDword(HKEY_LOCAL_MACHINE, kSelectKey, kCurrent, 10));
    EXPECT_EQ(std::wstring(L"ControlSet0010"), GetCurrentControlSetName());

    ASSERT_TRUE(kwtest::RegSetDword(HKEY_LOCAL_MACHINE, kSelectKey, kCurrent, 3));
    EXPECT_EQ(std::wstring(L"ControlSet0010"), GetCurrentControlSetName())
        << "the name is computed once per process";
}

KW_CHILD_TEST(ControlSet, FirstUseFromManyThreadsAgrees) {
    SelectMutex lock;  // the parent does not hold it here
    ASSERT_TRUE(lock.Owned());
    auto names = kwtest::RaceFirstUse<std::wstring>(16, [] { return std::wstring(GetCurrentControlSetName()); });
    for (const auto& n : names) {
        EXPECT_EQ(names[0], n);
        EXPECT_EQ(0u, n.find(L"ControlSet00"));
    }
}
