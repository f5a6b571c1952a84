// Run-key style registrations from a host registry event to the targets the
// host receives: FunctionIDs 5, 20, 19, 14 and 1.
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

using namespace e2e;
using hostsim::Event;

namespace {

const std::wstring kRun = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";

// A folder under C:\Program Files with a space in its path, removed afterwards.
struct ProgramFilesApp {
    ProgramFilesApp() {
        root = L"C:\\Program Files\\kwtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
               std::to_wstring(GetTickCount());
        exe = root + L"\\Some App\\app.exe";
        kwtest::MakeFile(exe);
    }
    ~ProgramFilesApp() { kwtest::RemoveTree(root); }
    std::wstring root, exe;
};

}  // namespace

TEST(RunKey, QuotedPathWithOptionYieldsTheProgramOnly) {
    ProgramFilesApp app;
    auto targets = PostSz(kRun, L"SomeApp", L"\"" + app.exe + L"\" -silent", 5);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(app.exe)}, targets);
}

TEST(RunKey, UnquotedPathWithSpacesAndOption) {
    ProgramFilesApp app;
    auto targets = PostSz(kRun, L"SomeApp", app.exe + L" /background", 5);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(app.exe)}, targets);
}

TEST(RunKey, KeyPathIsRewrittenForTheHostAfterAnalysis) {
    ProgramFilesApp app;
    std::unique_ptr<Event> ev(Event::RegistrySz(kRun, L"SomeApp", app.exe, REG_SZ));
    auto targets = Post(*ev, 5);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(app.exe)}, targets);
    EXPECT_EQ(kRun, std::wstring(ev->Req().KeyPath));
}

TEST(RunKey, KernelPathOfTheMachineHive) {
    ProgramFilesApp app;
    auto targets = PostSz(L"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run",
                          L"SomeApp", L"\"" + app.exe + L"\"", 5);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(app.exe)}, targets);
}

TEST(RunKey, EnvironmentTokenInExpandableData) {
    kwtest::TempDir dir;
    std::wstring exe = dir.File(L"tok.exe");
    // %TEMP% of this user holds the folder; write the data with the token.
    wchar_t temp[MAX_PATH];
    GetEnvironmentVariableW(L"TEMP", temp, MAX_PATH);
    std::wstring rel = exe.substr(wcslen(temp));
    auto targets = PostSz(kRun, L"Tok", L"%TEMP%" + rel, 5, REG_EXPAND_SZ);
    ASSERT_EQ(1u, targets.size());
    EXPECT_EQ(kwtest::Upper(exe), kwtest::Upper(targets[0]));
}

TEST(RunKey, MissingFileIsReportedAsWritten) {
    auto targets = PostSz(kRun, L"Gone", L"C:\\kwtest-missing\\nothere.exe", 5);
    EXPECT_EQ(std::vector<std::wstring>{L"C:\\KWTEST-MISSING\\NOTHERE.EXE"}, targets);
}

TEST(RunKey, RemotePathIsReportedUntouched) {
    // A folder named like a program, on a share that only a file test would see:
    // the folder test of the push would drop it.
    const std::wstring host = L"kwe2e" + std::to_wstring(GetCurrentProcessId());
    const std::wstring folder = kwtest::WineUncHostFolder(host);
    if (folder.empty() || !kwtest::MakeFile(folder + L"\\share\\other.txt") ||
        !CreateDirectoryW((folder + L"\\share\\dir.exe").c_str(), nullptr))
        GTEST_SKIP() << "no folder behind a UNC host here";
    const std::wstring path = L"\\\\" + host + L"\\share\\dir.exe";
    auto targets = PostSz(kRun, L"Far", path + L" /s", 5);
    kwtest::RemoveTree(folder);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(path)}, targets);
}

TEST(RunKey, EmptyDataYieldsNothing) {
    EXPECT_TRUE(PostSz(kRun, L"Empty", L"", 5).empty());
}

TEST(ValueName, TheNameIsThePath) {
    kwtest::TempDir dir;
    std::wstring exe = dir.File(L"byname.exe");
    auto targets = PostSz(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Names", exe, L"ignored", 20);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(exe)}, targets);
}

TEST(VerticalBar, EachPieceInOrder) {
    kwtest::TempDir dir;
    std::wstring a = dir.File(L"b.exe"), b = dir.File(L"a.exe");
    auto targets = PostSz(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Bar", L"v", b + L"||" + a, 19);
    // The result set is ordered: upper-cased paths in standard string order.
    std::vector<std::wstring> expected{kwtest::Upper(b), kwtest::Upper(a)};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, targets);
}

struct PreviousCase {
    const char* name;
    std::vector<std::wstring> before;  // empty: no previous value
    std::vector<std::wstring> after;
    std::vector<int> expected;          // indexes into `after`
};

TEST(MultiString, OnlyNewStringsAreReported) {
    kwtest::TempDir dir;
    std::wstring f[3] = {dir.File(L"one.dll"), dir.File(L"two.dll"), dir.File(L"three.dll")};
    const PreviousCase cases[] = {
        {"no previous value: all", {}, {f[0], f[1]}, {0, 1}},
        {"repeats only: none", {f[0], f[1]}, {f[1], f[0]}, {}},
        {"one added", {f[0]}, {f[0], f[2]}, {1}},
        {"case differs: not new", {kwtest::Upper(f[0])}, {f[0]}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kwtest::TempRegKey key(HKEY_LOCAL_MACHINE, L"SOFTWARE");
        if (!c.before.empty()) {
            ASSERT_TRUE(kwtest::RegSetMulti(HKEY_LOCAL_MACHINE, key.Path(), L"List", c.before));
        }
        std::wstring data;
        for (const auto& s : c.after) data += s + std::wstring(1, L'\0');
        data.push_back(L'\0');
        std::wstring name = L"List";
        std::unique_ptr<Event> ev(Event::Registry(6, L"HKEY_LOCAL_MACHINE\\" + key.Path(), &name, REG_MULTI_SZ,
                                                  data.data(), static_cast<uint32_t>(data.size() * 2)));
        auto targets = Post(*ev, 14);
        std::vector<std::wstring> expected;
        for (int i : c.expected) expected.push_back(kwtest::Upper(c.after[i]));
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(expected, targets);
    }
}

TEST(MultiString, MissingFinalNulsTolerated) {
    kwtest::TempDir dir;
    std::wstring a = dir.File(L"nonul.dll");
    std::wstring name = L"List";
    std::unique_ptr<Event> ev(Event::Registry(6, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest-none", &name, REG_MULTI_SZ,
                                              a.data(), static_cast<uint32_t>(a.size() * 2)));
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(a)}, Post(*ev, 14));
}

TEST(MultiString, ExpandableDataIsSplitAfterExpansion) {
    wchar_t pf[MAX_PATH] = {0};
    if (!GetEnvironmentVariableW(L"ProgramW6432", pf, MAX_PATH)) GetEnvironmentVariableW(L"ProgramFiles", pf, MAX_PATH);
    const struct {
        const char* name;
        std::wstring data;
        std::wstring expected;
    } rows[] = {
        {"expansion shorter than the text", L"%SystemRoot%\\kw.exe", kwtest::WindowsDir() + L"\\kw.exe"},
        {"expansion longer than the text", L"%ProgramFiles%\\kw.exe", std::wstring(pf) + L"\\kw.exe"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(r.expected)},
                  PostSz(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest-none", L"List", r.data, 14, REG_EXPAND_SZ));
    }
}

TEST(SplitByCharset, UserinitReportsOnlyWhatIsNew) {
    kwtest::TempDir dir;
    std::wstring evil = dir.File(L"evil.exe");
    std::wstring winlogon = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
    DWORD dummy;
    (void)dummy;
    // Previous data in the registry (64-bit view, where a native key lives).
    std::wstring before = L"C:\\Windows\\system32\\userinit.exe,";
    std::wstring saved;
    HKEY k;
    bool had = false;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, winlogon.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &k) == 0) {
        wchar_t buf[1024];
        DWORD cb = sizeof(buf), type = 0;
        if (RegQueryValueExW(k, L"Userinit", nullptr, &type, reinterpret_cast<BYTE*>(buf), &cb) == 0) {
            had = true;
            saved.assign(buf, cb / 2 ? cb / 2 - 1 : 0);
        }
        RegCloseKey(k);
    }
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, winlogon, L"Userinit", before));
    auto targets = PostSz(L"HKEY_LOCAL_MACHINE\\" + winlogon, L"Userinit", before + evil + L",", 2);
    if (had) kwtest::RegSetSz(HKEY_LOCAL_MACHINE, winlogon, L"Userinit", saved);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(evil)}, targets);
}

TEST(SplitByCharset, AppInitStarsCompareAsDots) {
    kwtest::TempDir dir;
    std::wstring a = dir.File(L"x.dll"), b = dir.File(L"y.dll");
    kwtest::TempRegKey key(HKEY_LOCAL_MACHINE, L"SOFTWARE");
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key.Path(), L"AppInit_DLLs", a));
    // The new data spells the old piece with '*' for '.': still the same piece.
    std::wstring starred = a;
    starred.replace(starred.rfind(L'.'), 1, L"*");
    auto targets = PostSz(L"HKEY_LOCAL_MACHINE\\" + key.Path(), L"AppInit_DLLs", starred + L"," + b, 1);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(b)}, targets);
}

TEST(PatternRule, WildcardWithOneLevelBelow) {
    kwtest::TempDir dir;
    std::wstring exe = dir.File(L"pat.exe");
    const std::wstring base = L"HKEY_USERS\\S-1-5-21-9-9-9-1001\\Software\\kwtest\\";
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(exe)},
              PostSz(base + L"Vendor\\Run\\Sub", L"v", exe, 7));
    // The key itself is not one level below the pattern: refused.
    EXPECT_TRUE(PostSz(base + L"Vendor\\Run", L"v", exe, 7).empty());
    // Another tail: refused.
    EXPECT_TRUE(PostSz(base + L"Vendor\\Other\\Sub", L"v", exe, 7).empty());
}

TEST(PatternRule, ValueNameMustMatchIgnoringCase) {
    kwtest::TempDir dir;
    std::wstring exe = dir.File(L"vn.exe");
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(exe)},
              PostSz(L"HKEY_LOCAL_MACHINE\\Elsewhere", L"WANTED", exe, 23));
    EXPECT_TRUE(PostSz(L"HKEY_LOCAL_MACHINE\\Elsewhere", L"other", exe, 23).empty());
}

TEST(PatternRule, DefaultNullNamesTheDefaultValue) {
    kwtest::TempDir dir;
    std::wstring exe = dir.File(L"def.exe");
    const std::wstring key = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Def";
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(exe)}, PostSz(key, L"", exe, 25));
    EXPECT_TRUE(PostSz(key, L"named", exe, 25).empty());
}
