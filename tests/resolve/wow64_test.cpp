// The 32/64-bit view, checked against what the system really does: these tests
// run as a 32-bit program in a 64-bit prefix, so the process is under WOW64.
#include "resolve/wow64.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <tuple>
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

// {W} stands for the Windows directory ({W/} with forward slashes), {T} for the
// target folder ("SysWow64" or "Sysnative"), {LONG} for a 300-character name.
std::wstring Expand(const wchar_t* pattern, const std::wstring& target) {
    std::wstring windir = kwtest::WindowsDir(), s = pattern, slashes = windir;
    ReplaceAll(slashes, L"\\", L"/");
    ReplaceAll(s, L"{W/}", slashes);
    ReplaceAll(s, L"{W}", windir);
    ReplaceAll(s, L"{LONG}", std::wstring(300, L'a'));
    ReplaceAll(s, L"{T}", target);
    return s;
}

// A version record as major, minor, build and whether the kernel file corrected it.
using Version = std::tuple<DWORD, DWORD, DWORD, LONG>;

Version Of(const OSVERSIONINFOEXW& v, LONG corrected) {
    return Version{v.dwMajorVersion, v.dwMinorVersion, v.dwBuildNumber, corrected};
}

DWORD Score(DWORD major, DWORD minor) { return major * 10 + minor; }

bool KernelFileVersion(VS_FIXEDFILEINFO* out) {
    const std::wstring kernel = kwtest::WindowsDir() + L"\\Sysnative\\ntoskrnl.exe";
    DWORD ignored = 0;
    std::vector<BYTE> block(GetFileVersionInfoSizeW(kernel.c_str(), &ignored));
    VS_FIXEDFILEINFO* ffi = nullptr;
    UINT len = 0;
    if (block.empty() || !GetFileVersionInfoW(kernel.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
        !VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&ffi), &len) || !ffi)
        return false;
    *out = *ffi;
    return true;
}

// What the version record must hold, read from the system by other routes.
Version ExpectedFromSystem() {
    OSVERSIONINFOEXW v{};
    v.dwOSVersionInfoSize = sizeof(v);
    GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&v));
    if (v.dwMajorVersion == 5) return Of(v, 0);  // kept as reported under WOW64

    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    auto rtl = reinterpret_cast<RtlGetVersionFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll"), "RtlGetVersion")));
    OSVERSIONINFOEXW real{};
    real.dwOSVersionInfoSize = sizeof(real);
    if (rtl && rtl(reinterpret_cast<OSVERSIONINFOW*>(&real)) >= 0 &&
        Score(real.dwMajorVersion, real.dwMinorVersion) > Score(v.dwMajorVersion, v.dwMinorVersion))
        v = real;

    VS_FIXEDFILEINFO ffi{};
    if (!KernelFileVersion(&ffi)) return Of(v, 0);
    const DWORD fileMajor = HIWORD(ffi.dwFileVersionMS), fileMinor = LOWORD(ffi.dwFileVersionMS);
    if (Score(v.dwMajorVersion, v.dwMinorVersion) < Score(fileMajor, fileMinor))
        return Version{fileMajor, fileMinor, HIWORD(ffi.dwFileVersionLS), 1};
    return Of(v, 0);
}

}  // namespace

// ---------------------------------------------------------------------------
// Detection and the process-wide helper

TEST(Wow64Helper, ReportsWow64LikeTheSystem) {
    ASSERT_TRUE(kwtest::ProcessIsWow64()) << "the tests must run as a 32-bit program on 64-bit Wine";
    CWow64Helper* helper = GetWow64Helper();
    EXPECT_EQ(1, helper->m_bIsWow64);
    EXPECT_EQ(1, IsProcessWow64());
    EXPECT_EQ(helper, GetWow64Helper()) << "one instance per process";
    EXPECT_EQ(kwtest::WindowsDir() + L"\\SysNative", std::wstring(helper->m_szSystemDir));
    SetLastError(12345);
    EXPECT_EQ(1, IsOsWow6432());
    EXPECT_EQ(0u, GetLastError()) << "IsOsWow6432 clears the last error";
}

// The three process-wide first uses (version record, helper, control-set
// name), each raced by many threads: every caller sees one finished result.
KW_CHILD_TEST(Wow64Helper, FirstUseFromManyThreadsSeesOneFinishedInstance) {
    struct Seen {
        const COSVersionCheck* check;
        LONG corrected;
        CWow64Helper* helper;
        BOOL wow64;
        LONG initialized;
        std::wstring controlSet;
    };
    auto seen = kwtest::RaceFirstUse<Seen>(16, [] {
        const COSVersionCheck* check = GetOSVersionCheck();
        const LONG corrected = check->m_nCorrected;
        CWow64Helper* h = GetWow64Helper();
        return Seen{check, corrected, h, h->m_bIsWow64, h->m_bInitialized, GetCurrentControlSetName()};
    });
    for (const Seen& s : seen) {
        EXPECT_EQ(seen[0].check, s.check);
        EXPECT_TRUE(s.corrected == 0 || s.corrected == 1) << "a caller saw a record being built";
        EXPECT_EQ(seen[0].helper, s.helper);
        EXPECT_EQ(1, s.wow64) << "a caller returned before the initialisation finished";
        EXPECT_EQ(1, s.initialized);
        EXPECT_EQ(kwtest::ControlSetNameFromRegistry(), s.controlSet);
    }
}

// ---------------------------------------------------------------------------
// Redirection pausing

TEST(Wow64Redirection, SysnativeFileSeenAtSystem32OnlyWhilePaused) {
    const std::wstring name = L"kwtest-redir-" + std::to_wstring(GetCurrentProcessId()) + L".tmp";
    const std::wstring native = kwtest::WindowsDir() + L"\\Sysnative\\" + name;
    const std::wstring system32 = kwtest::WindowsDir() + L"\\System32\\" + name;
    ASSERT_TRUE(kwtest::MakeFile(native));
    EXPECT_FALSE(FileExists(system32)) << "System32 must lead to the 32-bit folder";
    {
        CAutoWow64PauseDisable pause;
        EXPECT_NE(0, pause.m_bDisabled);
        EXPECT_TRUE(FileExists(system32));
        {
            CAutoWow64PauseDisable nested;
            EXPECT_NE(0, nested.m_bDisabled);
        }
        EXPECT_TRUE(FileExists(system32)) << "the inner scope must restore the paused state";
    }
    EXPECT_FALSE(FileExists(system32)) << "redirection must be back after the scope";
    DeleteFileW(native.c_str());  // Sysnative is never redirected
}

// ---------------------------------------------------------------------------
// System32 mapping, into both targets ({W}, {T}, {LONG}: see Expand above).

TEST(MapSystem32, BothTargets) {
    const struct {
        const char* name;
        const wchar_t *input, *expected;
    } rows[] = {
        {"mixed and repeated separators collapse", L"{W/}///System32\\\\drivers\\x.sys", L"{W}\\{T}\\drivers\\x.sys"},
        {"exact prefix with nothing after", L"{W}\\System32", L"{W}\\{T}"},
        {"upper case is matched", L"{W}\\SYSTEM32\\A.DLL", L"{W}\\{T}\\A.DLL"},
        {"System32x is not mapped and keeps its own separators", L"{W/}//System32x/a.dll", L"{W/}//System32x/a.dll"},
        {"System32 elsewhere is not mapped", L"D:\\Other\\System32\\a.dll", L"D:\\Other\\System32\\a.dll"},
        {"empty path stays empty", L"", L""},
        {"missing short name is kept as given", L"{W}\\System32\\NOSUCH~1\\a.dll", L"{W}\\{T}\\NOSUCH~1\\a.dll"},
        {"long tail is not cut", L"{W}\\System32\\{LONG}.dll", L"{W}\\{T}\\{LONG}.dll"},
    };
    const struct {
        const wchar_t* folder;
        BOOL (*map)(const std::wstring&, std::wstring&);
    } targets[] = {{L"SysWow64", &MapSystem32ToSysWow64}, {L"Sysnative", &MapSystem32ToSysnative}};
    for (const auto& r : rows) {
        for (const auto& t : targets) {
            SCOPED_TRACE(::testing::Message() << r.name << ", into " << t.folder);
            std::wstring out = L"stale";
            EXPECT_EQ(1, t.map(Expand(r.input, t.folder), out));
            EXPECT_EQ(Expand(r.expected, t.folder), out);
        }
    }
}

TEST(MapSystem32, ShortNameIsReplacedByTheLongName) {
    kwtest::TempDir dir(L"kwtest long folder name");
    const std::wstring file = dir.File(L"a file with a long name.txt");
    wchar_t shortPath[MAX_PATH] = {0};
    ASSERT_NE(0u, GetShortPathNameW(file.c_str(), shortPath, MAX_PATH));
    ASSERT_NE(nullptr, wcschr(shortPath, L'~')) << "the system gave no short name";
    for (auto map : {&MapSystem32ToSysWow64, &MapSystem32ToSysnative}) {
        std::wstring out;
        EXPECT_EQ(1, map(shortPath, out));
        EXPECT_EQ(kwtest::Upper(file), kwtest::Upper(out));
    }
}

// ---------------------------------------------------------------------------
// OS version

TEST(OsVersion, RecordAgreesWithTheSystem) {
    const COSVersionCheck* check = GetOSVersionCheck();
    EXPECT_EQ(284u, check->m_osvi.dwOSVersionInfoSize);
    EXPECT_EQ(static_cast<DWORD>(VER_PLATFORM_WIN32_NT), check->m_osvi.dwPlatformId);
    EXPECT_EQ(ExpectedFromSystem(), Of(check->m_osvi, check->m_nCorrected));

    OSVERSIONINFOEXW fresh{};
    LONG corrected = -1;
    check->Read(&fresh, &corrected);
    EXPECT_EQ(check->m_nCorrected, corrected);
    EXPECT_EQ(0, std::memcmp(&fresh, &check->m_osvi, sizeof(fresh))) << "reading is repeatable";
}

// The whole record, its size field included, is copied up to the caller's size.
TEST(OsVersion, CopiesOnlyTheCallersSize) {
    const struct {
        const char* name;
        DWORD size;
    } rows[] = {{"zero", 0}, {"size field only", 4}, {"long record minus one", 283}, {"long record", 284},
                {"long record plus one", 285}};
    const COSVersionCheck* check = GetOSVersionCheck();
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        unsigned char buf[512], expected[512];
        std::memset(buf, 0xCC, sizeof(buf));
        std::memcpy(buf, &r.size, sizeof(r.size));
        std::memcpy(expected, buf, sizeof(buf));
        std::memcpy(expected, &check->m_osvi, std::min<size_t>(r.size, 284));
        ASSERT_EQ(1, GetOsVersionInfo(reinterpret_cast<OSVERSIONINFOW*>(buf)));
        EXPECT_EQ(0, std::memcmp(expected, buf, sizeof(buf))) << "not the record up to the caller's size, and nothing more";
    }
    EXPECT_EQ(0, GetOsVersionInfo(nullptr));
}

// The prefix can make one program see another Windows version; the kernel file
// keeps its own. A copy of this program under a name of its own gets the
// setting, so other test programs running meanwhile are not affected.
const struct ReportedVersionRow {
    const char* name;
    const wchar_t* prefixVersion;  // the prefix's name for the version the program sees
    DWORD reportedMajor, reportedMinor;
    LONG corrected;
    BOOL win7OrLater, vistaOrLater;
} kReportedVersionRows[] = {
    {"reported 6.0 below the kernel file's 6.1 is raised from the file", L"vista", 6, 0, 1, 1, 1},
    {"reported 5.1 under WOW64 is kept as reported", L"winxp", 5, 1, 0, 0, 0},
    {"capped report 6.2 loses to RtlGetVersion's 10.0", L"win10", 6, 2, 0, 1, 1},
};

TEST(OsVersion, ReportedVersionRows) {
    wchar_t self[MAX_PATH] = {0};
    ASSERT_NE(0u, GetModuleFileNameW(nullptr, self, MAX_PATH - 1));
    kwtest::TempDir dir(L"kwtest-osver");
    for (size_t i = 0; i < std::size(kReportedVersionRows); ++i) {
        SCOPED_TRACE(kReportedVersionRows[i].name);
        const std::wstring exeName = L"kwtest-osver-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(i) + L".exe";
        const std::wstring exe = dir.Path() + L"\\" + exeName, key = L"Software\\Wine\\AppDefaults\\" + exeName;
        ASSERT_TRUE(CopyFileW(self, exe.c_str(), FALSE));
        ASSERT_TRUE(kwtest::RegSetSz(HKEY_CURRENT_USER, key, L"Version", kReportedVersionRows[i].prefixVersion));
        kwtest::ScopedEnv child(L"KW_TEST_CHILD", L"1"), rowEnv(L"KW_OSVER_ROW", std::to_wstring(i).c_str());
        std::string out;
        int rc = kwtest::RunProgram(exe, L"--gtest_filter=OsVersion.ReportedVersionRows_Child", dir.Path(), &out);
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
    OSVERSIONINFOEXW v{};
    v.dwOSVersionInfoSize = sizeof(v);
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&v)));
    ASSERT_EQ(std::make_pair(row.reportedMajor, row.reportedMinor), std::make_pair(v.dwMajorVersion, v.dwMinorVersion))
        << "the prefix setting did not apply";

    const Version expected = ExpectedFromSystem();
    ASSERT_EQ(1, GetOsVersionInfo(reinterpret_cast<OSVERSIONINFOW*>(&v)));
    EXPECT_EQ(row.corrected, std::get<3>(expected));
    EXPECT_EQ(expected, Of(v, GetOSVersionCheck()->m_nCorrected));
    EXPECT_EQ(std::make_pair(row.win7OrLater, row.vistaOrLater), std::make_pair(IsWin7OrLater(), IsVistaOrLater()));
    const CWow64Helper* helper = GetWow64Helper();
    EXPECT_EQ(std::make_pair(row.win7OrLater, row.vistaOrLater), std::make_pair(helper->m_bWin7OrLater, helper->m_bVistaOrLater));
}

TEST(OsVersion, KernelPathAndItsFileVersion) {
    wchar_t path[MAX_PATH];
    wmemset(path, L'#', MAX_PATH);
    ASSERT_EQ(S_OK, GetNtoskrnlPath(path));
    EXPECT_EQ(kwtest::WindowsDir() + L"\\SysNative\\ntoskrnl.exe", std::wstring(path));
    EXPECT_TRUE(FileExists(path)) << "reachable without pausing redirection";
    EXPECT_EQ(E_FAIL, GetNtoskrnlPath(nullptr));

    VS_FIXEDFILEINFO ours{}, theirs{};
    ASSERT_NE(0, GetFileFixedVersion(path, &ours));
    ASSERT_TRUE(KernelFileVersion(&theirs));
    EXPECT_EQ(0xFEEF04BDu, ours.dwSignature);
    EXPECT_EQ(0, std::memcmp(&theirs, &ours, sizeof(ours))) << "the version API reads the same block";
    EXPECT_EQ(0, GetFileFixedVersion(path, nullptr));
}

TEST(OsVersion, FileFixedVersionRefusals) {
    kwtest::TempDir dir(L"kwtest-version");
    wchar_t self[MAX_PATH] = {0};
    GetModuleFileNameW(nullptr, self, MAX_PATH - 1);
    const std::wstring missing = dir.Path() + L"\\missing.dll", text = dir.File(L"plain.txt", "not an image");
    const struct {
        const char* name;
        const wchar_t* path;
    } rows[] = {{"missing file", missing.c_str()}, {"text file, not an image", text.c_str()},
                {"image without a version resource", self}, {"empty path", L""}, {"null path", nullptr}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        VS_FIXEDFILEINFO ffi{};
        EXPECT_EQ(0, GetFileFixedVersion(row.path, &ffi));
    }
}

// ---------------------------------------------------------------------------
// Current control set. These tests change HKLM\System\Select, which every
// process of the prefix reads: scripts/run-tests runs them one at a time, the
// change lasts only as long as the child needs and is undone in the child and
// again in the parent (which survives a child that crashed).

TEST(ControlSet, LookupsInOneProcess) {
    kwtest::SelectRestorer restore;
    ASSERT_TRUE(restore.HadValue()) << "the prefix has no System\\Select \"Current\"";
    std::string out;
    EXPECT_EQ(0, kwtest::RunChild("ControlSet.LookupsInOneProcess_Child", {}, &out)) << out;
}

// In order, in one process: a failed lookup is not cached, so the next call
// reads "Current" again; the first success is cached for the process.
TEST(ControlSet, LookupsInOneProcess_Child) {
    if (!kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";
    const struct {
        const char* name;
        DWORD type;  // REG_NONE: no value
        std::vector<BYTE> data;
        const wchar_t* expected;
    } steps[] = {
        {"no value", REG_NONE, {}, L""},
        {"value of string type", REG_SZ, {'1', 0, 0, 0}, L""},
        {"dword value of 2 bytes", REG_DWORD, {1, 0}, L""},
        {"value 10 keeps the fixed 00", REG_DWORD, {10, 0, 0, 0}, L"ControlSet0010"},
        {"value 3 after a success is not read", REG_DWORD, {3, 0, 0, 0}, L"ControlSet0010"},
    };
    kwtest::SelectRestorer restore;
    for (const auto& s : steps) {
        SCOPED_TRACE(s.name);
        if (s.type == REG_NONE)
            ASSERT_TRUE(restore.DeleteCurrent());
        else
            ASSERT_TRUE(kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, L"System\\Select", L"Current", s.type, s.data.data(),
                                          static_cast<DWORD>(s.data.size())));
        EXPECT_EQ(std::wstring(s.expected), GetCurrentControlSetName());
    }
}
