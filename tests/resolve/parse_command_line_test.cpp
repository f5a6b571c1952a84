// Command lines as autorun data holds them, resolved against files, classes,
// CLSIDs and application paths that the tests create themselves (and remove).
// Expected lists are whole and ordered; the system decides the case of what it
// inserts (expanded folders), so paths are compared without regard to case.
#include "resolve/parse_command_line.h"
#include "resolve/parse_text.h"
#include "resolve/wow64.h"

#include "common/strutil.h"
#include "diag/host_network_info.h"
#include "support/class_registration.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

using kw::CParseComandLine;

namespace {

template <typename List>
std::string Show(const List& l) {
    std::string out;
    for (const auto& s : l) out += "\n  [" + kw::WideToUtf8(s) + "]";
    return out.empty() ? "\n  (none)" : out;
}

// The files of a parse against the whole expected list: same order, any case.
::testing::AssertionResult SameFiles(const std::list<std::wstring>& got, const std::vector<std::wstring>& want) {
    auto same = [](const std::wstring& a, const std::wstring& b) { return kw::EqualsNoCase(a, b); };
    if (got.size() == want.size() && std::equal(got.begin(), got.end(), want.begin(), same))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected:" << Show(want) << "\nactual:" << Show(got);
}

// File operations in the 64-bit view (redirection paused for the call).
using NativeView = kw::CAutoWow64PauseDisable;

bool ExistsNative(const std::wstring& path) {
    NativeView v;
    DWORD a = GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

// Everything the cases resolve against, made once per test suite and removed at its end.
struct World {
    std::wstring u = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount());  // in every name
    kwtest::TempDir temp{L"kwparse"};
    std::wstring T = temp.Path(), WIN = kwtest::WindowsDir(), SYS, WOW, PF, PF86, PROGID, SHORT, LEN;
    std::wstring EXT = L".kwps" + std::to_wstring(GetCurrentProcessId());
    std::wstring CLSID = kwtest::FreshClsid(), CLSID2 = kwtest::FreshClsid(), CLSID32 = kwtest::FreshClsid();
    std::wstring UNC = L"\\\\kwunc" + u + L"\\share";  // a share that only a file test would see (Wine)
    std::wstring only64;                               // created in the 64-bit System32
    std::vector<std::wstring> trees;                   // files and folders outside the temp folder
    std::vector<std::wstring> keys;                    // below HKLM
    HANDLE token = nullptr;
    std::wstring sid = kwtest::CurrentUserSid();
    bool wow64 = kwtest::ProcessIsWow64();

    World() {
        wchar_t buf[MAX_PATH] = {0};
        GetSystemDirectoryW(buf, MAX_PATH);
        SYS = buf;
        if (wow64 && GetSystemWow64DirectoryW(buf, MAX_PATH)) WOW = buf;
        const std::wstring pf64 = kwtest::EnvText(L"ProgramW6432"), pf86 = kwtest::EnvText(L"ProgramFiles(x86)");
        PF = (pf64.empty() ? kwtest::EnvText(L"ProgramFiles") : pf64) + L"\\kwtest-" + u;
        PF86 = (pf86.empty() ? kwtest::EnvText(L"ProgramFiles") : pf86) + L"\\kwtest-" + u;
        trees = {PF, PF86};
        for (const std::wstring& f : std::vector<std::wstring>{
                 L"tools\\cfg.exe", L"tools\\run.exe", L"x.cpl", L"a.dll", L"b.dll", L"Begin.exe", L"srv.dll", L"srv32.dll",
                 L"apppath\\kwapp.exe", L"Some Dir\\prog.exe", L"Long File Name Test.exe", L"semi;colon.exe",
                 L"order\\pick.bat", L"order\\pick.exe", L"kwbare" + u + L".dll", L"pathdir\\kwpath" + u + L".exe",
                 L"Acme Windows explorer.exe", L"script" + EXT, L"a b c d e f g h i j k l m n o p q r\\x.exe", L"kwnoext Tool"})
            temp.File(f);
        const std::wstring uncFolder = kwtest::WineUncHostFolder(L"kwunc" + u);
        if (!uncFolder.empty()) {
            kwtest::MakeFile(uncFolder + L"\\share\\tool.exe");
            kwtest::MakeFile(uncFolder + L"\\share\\kwremote" + u + L".exe");
            trees.push_back(uncFolder);
        }
        for (const std::wstring& f : {PF + L"\\Some App\\app.exe", PF + L"\\Some App\\data\\in.dll", PF86 + L"\\Some App\\app.exe"})
            kwtest::MakeFile(f);
        if (wow64) {
            NativeView v;  // the 64-bit System32 itself; SysWOW64 is not redirected anyway
            only64 = WIN + L"\\System32\\kwt64-" + u + L".dll";
            kwtest::MakeFile(only64);
            trees.push_back(WOW + L"\\kwt32-" + u + L".dll");
            kwtest::MakeFile(trees.back());
        }
        // Joined paths of 258, 259 and 260 characters (the limit is 259).
        LEN = temp.Dir(L"len x") + L"\\";
        for (size_t len : {258u, 259u, 260u}) kwtest::MakeFile(L"\\\\?\\" + LenFile(len));
        // An 8.3 name of the long file name, empty where the file system gives none.
        const DWORD n = GetShortPathNameW((T + L"\\Long File Name Test.exe").c_str(), buf, MAX_PATH);
        if (n && n < MAX_PATH && wcschr(buf, L'~')) SHORT = buf;

        // A key of ours under HKLM holding one default value below it.
        auto reg = [this](const std::wstring& key, const wchar_t* below, const std::wstring& value) {
            keys.push_back(key);
            kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key + below, L"", value);
        };
        PROGID = L"kwtest.parse." + u;
        reg(L"SOFTWARE\\Classes\\" + EXT, L"", PROGID);  // a script class of our own
        reg(L"SOFTWARE\\Classes\\" + PROGID, L"\\shell\\open\\command", L"wscript.exe \"%1\"");
        // CLSIDs: an in-process server, a local server given as a command line, a 32-bit registration.
        reg(L"SOFTWARE\\Classes\\CLSID\\" + CLSID, L"\\InprocServer32", T + L"\\srv.dll");
        reg(L"SOFTWARE\\Classes\\CLSID\\" + CLSID2, L"\\LocalServer32", L"\"" + T + L"\\tools\\run.exe\" /automation");
        reg(L"SOFTWARE\\Classes\\Wow6432Node\\CLSID\\" + CLSID32, L"\\InprocServer32", T + L"\\srv32.dll");
        // Application paths: a plain one, one quoted, one padded beyond the buffer, one too long.
        const std::wstring ap = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\";
        reg(ap + L"kwapp" + u + L".exe", L"", T + L"\\apppath\\kwapp.exe");
        reg(ap + L"kwquoted" + u + L".exe", L"", L"\"" + T + L"\\apppath\\kwapp.exe\"");
        reg(ap + L"kwpad" + u + L".exe", L"", T + L"\\apppath\\kwapp.exe" + std::wstring(300, L' '));
        reg(ap + L"kwlong" + u + L".exe", L"", T + L"\\" + std::wstring(300, L'x') + L".exe");
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE, &token);
    }

    ~World() {
        for (auto it = keys.rbegin(); it != keys.rend(); ++it) kwtest::RegDeleteTreeView(HKEY_LOCAL_MACHINE, *it);
        if (!only64.empty()) {
            NativeView v;
            DeleteFileW(only64.c_str());
        }
        for (const auto& t : trees) kwtest::RemoveTree(t);
        if (token) CloseHandle(token);
    }

    std::wstring LenFile(size_t len) const { return LEN + std::wstring(len - LEN.size() - 4, L'n') + L".exe"; }

    std::wstring Subst(std::wstring s) const {
        std::wstring turl = T;
        std::replace(turl.begin(), turl.end(), L'\\', L'/');
        const std::pair<const wchar_t*, std::wstring> map[] = {
            {L"{TURL}", turl},       {L"{T}", T},         {L"{PF86}", PF86},   {L"{PF}", PF},
            {L"{SYS}", SYS},         {L"{WOW}", WOW},     {L"{WIN}", WIN},     {L"{U}", u},
            {L"{EXT}", EXT},         {L"{CLSID2}", CLSID2}, {L"{CLSID32}", CLSID32},
            {L"{CLSIDSHORT}", CLSID.substr(0, CLSID.size() - 2) + L"}"}, {L"{CLSID}", CLSID}, {L"{UNC}", UNC},
            {L"{SHORT}", SHORT},     {L"{N258}", LenFile(258)}, {L"{N259}", LenFile(259)}, {L"{N260}", LenFile(260)},
        };
        for (const auto& m : map) kw::ReplaceAll(s, m.first, m.second);
        return s;
    }

    // A parse in the given view (expanding in it too) with the caller's folder `overridePath`.
    std::list<std::wstring> Parse(const std::wstring& line, BOOL view32 = FALSE, const std::wstring& overridePath = L"",
                                  DWORD ruleId = 0) {
        CParseComandLine p;
        p.SetWow64Parse(view32);
        if (!overridePath.empty()) p.SetOverridePath(overridePath);
        std::list<std::wstring> files;
        p.Parse(line, token, sid.c_str(), view32, files, ruleId);
        return files;
    }
};

World* g_world = nullptr;

class ParseWorld : public ::testing::Test {
public:
    static void SetUpTestSuite() { g_world = new World; }
    static void TearDownTestSuite() {
        delete g_world;
        g_world = nullptr;
    }
};

// Which view a row parses in, and whether it needs a 32-bit process on 64-bit Windows.
enum View { kNative, kWow64Native, kWow64View32 };

struct Row {
    const char* name;
    const wchar_t* line;
    std::vector<const wchar_t*> expected;  // system files among them must exist, else the row is skipped
    View view = kNative;
    const wchar_t* overridePath = L"";
    std::vector<const wchar_t*> needs = {};                              // further files the row relies on
    std::pair<const wchar_t*, const wchar_t*> env = {nullptr, nullptr};  // an environment variable set for the row
};

void PrintTo(const Row& r, std::ostream* os) { *os << r.name; }  // listings show the title, not the bytes

class ParseCases : public ParseWorld, public ::testing::WithParamInterface<Row> {};

// PATH of the PATH rows: a relative folder (never searched), a share of another machine, a quoted folder of ours.
const wchar_t kPath[] = L"relative\\dir;{UNC};\"{T}\\pathdir\"";

// The search order under test: the caller's folder, the system directory of
// the view, the Windows directory's System folder, the Windows directory,
// PATH, the browser's folder, the registered application paths.
const Row kRows[] = {
    {"unquoted path with spaces and a path argument", L"{PF}\\Some App\\app.exe /config {T}\\tools\\cfg.exe",
     {L"{PF}\\Some App\\app.exe", L"{T}\\tools\\cfg.exe"}},
    {"unquoted run without extension is completed with .exe only", L"{T}\\kwnoext Tool /x", {}},
    {"quoted path with path arguments", L"\"{PF}\\Some App\\app.exe\" \"{PF}\\Some App\\data\\in.dll\" {T}\\tools\\cfg.exe",
     {L"{PF}\\Some App\\app.exe", L"{PF}\\Some App\\data\\in.dll", L"{T}\\tools\\cfg.exe"}},
    {"value in double parentheses", L"(({T}\\a.dll))", {L"{T}\\a.dll"}},
    {"two groups side by side", L"({T}\\a.dll);({T}\\b.dll)", {L"{T}\\a.dll", L"{T}\\b.dll"}},
    {"doubly quoted command", L"\"\"{PF}\\Some App\\app.exe\" -x\"", {L"{PF}\\Some App\\app.exe"}},
    {"second parse adds no file twice", L"{T}\\tools\\run.exe \"{T}\\tools\\run.exe --silent\"", {L"{T}\\tools\\run.exe"}},
    {"rundll32 entry point is a function, not a file of that name", L"rundll32.exe a.dll,Begin x.cpl",
     {L"{SYS}\\rundll32.exe", L"{T}\\a.dll", L"{T}\\x.cpl"}, kNative, L"{T}"},
    {"rundll32 entry point after a quoted library", L"rundll32.exe \"{T}\\a.dll\",Begin",
     {L"{SYS}\\rundll32.exe", L"{T}\\a.dll"}, kNative, L"{T}"},
    {"a second library after a comma outside rundll32 is a file", L"{T}\\a.dll,Begin",
     {L"{T}\\a.dll", L"{T}\\Begin.exe"}, kNative, L"{T}"},
    {"service host with its group", L"%SystemRoot%\\system32\\svchost.exe -k netsvcs",
     {L"{WIN}\\system32\\svchost.exe"}, kNative, L"", {L"{SYS}\\svchost.exe"}},
    {"service host with its group, 32-bit view", L"%SystemRoot%\\system32\\svchost.exe -k netsvcs",
     {L"{WOW}\\svchost.exe"}, kWow64View32},
    {"bare library name in the caller's folder", L"kwbare{U}", {L"{T}\\kwbare{U}.dll"}, kNative, L"{T}"},
    {"script with arguments", L"\"{T}\\script{EXT}\" /b", {L"{SYS}\\wscript.exe", L"{T}\\script{EXT}"}},
    {"several paths in one value", L"{T}\\a.dll;{T}\\b.dll", {L"{T}\\a.dll", L"{T}\\b.dll"}},
    {"the same path twice", L"{T}\\a.dll {T}\\A.DLL", {L"{T}\\a.dll"}},
    {"file name holding a semicolon", L"{T}\\semi;colon.exe", {L"{T}\\semi;colon.exe"}},
    {"shell name of a CLSID", L"::{CLSID}", {L"{T}\\srv.dll"}},
    {"CLSID local server given as a command line", L"::{CLSID2}", {L"{T}\\tools\\run.exe"}},
    {"CLSID of the 32-bit view", L"::{CLSID32}", {L"{T}\\srv32.dll"}, kWow64View32},
    {"file URL with escaped spaces", L"file:///{TURL}/Some%20Dir/prog.exe /x", {L"{T}\\Some Dir\\prog.exe"}},
    {"program files token, native view", L"%ProgramFiles%\\kwtest-{U}\\Some App\\app.exe", {L"{PF}\\Some App\\app.exe"}, kWow64Native},
    {"program files token, 32-bit view", L"%ProgramFiles%\\kwtest-{U}\\Some App\\app.exe",
     {L"{PF86}\\Some App\\app.exe"}, kWow64View32},
    {"System32 file of the 64-bit folder, native view", L"{WIN}\\System32\\kwt64-{U}.dll",
     {L"{WIN}\\System32\\kwt64-{U}.dll"}, kWow64Native},
    {"System32 file of the 64-bit folder, 32-bit view", L"{WIN}\\System32\\kwt64-{U}.dll", {}, kWow64View32},
    {"System32 file of the 32-bit folder, native view", L"{WIN}\\System32\\kwt32-{U}.dll", {}, kWow64Native},
    {"System32 file of the 32-bit folder, 32-bit view", L"{WIN}\\System32\\kwt32-{U}.dll", {L"{WOW}\\kwt32-{U}.dll"}, kWow64View32},
    {"bare name of the 32-bit system folder, 32-bit view", L"kwt32-{U}", {L"{WOW}\\kwt32-{U}.dll"}, kWow64View32},
    {"bare name of the 64-bit system folder, native view", L"kwt64-{U}.dll", {L"{SYS}\\kwt64-{U}.dll"}, kWow64Native},
    {"application path without extension", L"kwapp{U}", {L"{T}\\apppath\\kwapp.exe"}},
    {"application path quoted in the registry", L"kwquoted{U}.exe", {L"{T}\\apppath\\kwapp.exe"}},
    {"application path padded beyond its buffer", L"kwpad{U}.exe", {L"{T}\\apppath\\kwapp.exe"}},
    {"application path longer than its buffer", L"kwlong{U}.exe", {}},
    {"interpreter start with an empty title", L"cmd.exe /c start \"\" {T}\\tools\\run.exe",
     {L"{SYS}\\cmd.exe", L"{T}\\tools\\run.exe"}},
    {"kernel form with SystemRoot", L"\\SystemRoot\\System32\\svchost.exe", {L"{WIN}\\System32\\svchost.exe"},
     kNative, L"", {L"{SYS}\\svchost.exe"}},
    {"kernel form with a drive", L"\\??\\{T}\\tools\\cfg.exe", {L"{T}\\tools\\cfg.exe"}},
    {"relative to the Windows directory", L"system32\\svchost.exe -k x", {L"{WIN}\\system32\\svchost.exe"},
     kNative, L"", {L"{SYS}\\svchost.exe"}},
    {"relative to the caller's folder", L"tools\\cfg.exe", {L"{T}\\tools\\cfg.exe"}, kNative, L"{T}"},
    {"long-path prefix", L"\\\\?\\{T}\\tools\\cfg.exe", {L"\\\\?\\{T}\\tools\\cfg.exe"}},
    {"path without extension completed", L"{T}\\tools\\cfg", {L"{T}\\tools\\cfg.exe"}},
    {"forward slashes", L"{TURL}/tools/cfg.exe", {L"{T}\\tools\\cfg.exe"}},
    {"8.3 short name comes back long", L"{SHORT}", {L"{T}\\Long File Name Test.exe"}, kNative, L"", {L"{SHORT}"}},
    {"joined path wins over a system program named by its last word", L"{T}\\Acme Windows explorer.exe",
     {L"{T}\\Acme Windows explorer.exe"}, kNative, L"", {L"{SYS}\\explorer.exe"}},
    {"unquoted path of 18 words and an option", L"{T}\\a b c d e f g h i j k l m n o p q r\\x.exe /s",
     {L"{T}\\a b c d e f g h i j k l m n o p q r\\x.exe"}},
    {"joined path of 258 characters", L"{N258} /s", {L"{N258}"}},
    {"joined path of 259 characters", L"{N259} /s", {L"{N259}"}},
    {"joined path of 260 characters", L"{N260} /s", {}},
    {"remote share: reported as written", L"\\\\kw-no-such-host-{U}\\share\\x.exe", {L"\\\\kw-no-such-host-{U}\\share\\x.exe"}},
    {"unquoted remote path with spaces ends at the first extension",
     L"\\\\kw-no-such-host-{U}\\pub\\My Tools\\x.exe /s x.dll", {L"\\\\kw-no-such-host-{U}\\pub\\My Tools\\x.exe"}},
    {"remote path is not completed by a file test", L"{UNC}\\tool", {L"{UNC}\\tool"}, kNative, L"", {L"{UNC}\\tool.exe"}},
    {"a quoted PATH folder is searched", L"kwpath{U} /x", {L"{T}\\pathdir\\kwpath{U}.exe"}, kNative, L"", {}, {L"PATH", kPath}},
    {"a PATH folder on another machine's share is not searched", L"kwremote{U}", {}, kNative, L"",
     {L"{UNC}\\kwremote{U}.exe"}, {L"PATH", kPath}},
    {"PATHEXT order: batch first", L"pick", {L"{T}\\order\\pick.bat"}, kNative, L"{T}\\order", {}, {L"PATHEXT", L".BAT;.EXE"}},
    {"PATHEXT without .exe: .exe is still tried", L"pick", {L"{T}\\order\\pick.exe"}, kNative, L"{T}\\order", {},
     {L"PATHEXT", L".COM"}},

    // Bad input: the result is whatever the rules give (mostly nothing), never a crash or an overrun.
    {"empty", L"", {}},
    {"unbalanced opening quote", L"\"{T}\\tools\\cfg.exe", {L"{T}\\tools\\cfg.exe"}},
    {"unbalanced closing quote", L"{T}\\tools\\cfg.exe\" x", {L"{T}\\tools\\cfg.exe"}},
    {"lone quote", L"\"", {}},
    {"unbalanced opening parenthesis", L"({T}\\a.dll;{T}\\b.dll", {L"{T}\\a.dll", L"{T}\\b.dll"}},
    {"unbalanced closing parenthesis", L"{T}\\a.dll)", {}},
    {"percent without its closing percent", L"%SystemRoot\\system32\\svchost.exe", {}},
    {"invalid characters", L"{T}\\tools\\c<f>g.exe", {}},
    {"CLSID one character short", L"::{CLSIDSHORT}", {}},
    {"CLSID not registered", L"::{00000000-0000-0000-0000-0000000000AB}", {}},
    {"drive-relative path", L"C:cfg.exe", {}},
    {"service group name alone", L"netsvcs", {}},
    {"interpreter command alone", L"start", {}},
    {"remote share alone", L"\\\\kw-no-such-host-{U}\\share", {}},
};

TEST_P(ParseCases, YieldsExactlyTheseFiles) {
    const Row& r = GetParam();
    World& w = *g_world;
    if (r.view != kNative && !w.wow64) GTEST_SKIP() << "needs a 32-bit process on 64-bit Windows";
    std::vector<const wchar_t*> needs = r.needs;
    for (const wchar_t* e : r.expected)
        if (!wcsncmp(e, L"{SYS}", 5) || !wcsncmp(e, L"{WOW}", 5)) needs.push_back(e);
    for (const wchar_t* need : needs)
        if (!ExistsNative(w.Subst(need))) GTEST_SKIP() << "the system has no " << kw::WideToUtf8(w.Subst(need));
    std::vector<std::wstring> expected;
    for (const wchar_t* e : r.expected) expected.push_back(w.Subst(e));
    const std::wstring line = w.Subst(r.line), envValue = w.Subst(r.env.second ? r.env.second : L"");
    std::unique_ptr<kwtest::ScopedEnv> env(r.env.first ? new kwtest::ScopedEnv(r.env.first, envValue.c_str()) : nullptr);
    EXPECT_TRUE(SameFiles(w.Parse(line, r.view == kWow64View32, w.Subst(r.overridePath)), expected)) << kw::WideToUtf8(line);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParseCases, ::testing::ValuesIn(kRows), kwtest::ByRowName());

TEST_F(ParseWorld, LongCommandLines) {
    World& w = *g_world;
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe";
    auto fill = [](std::wstring (*word)(int)) {
        std::wstring s;
        for (int i = 0; s.size() < 4096; ++i) s += word(i);
        return s.substr(0, 4096);
    };
    const struct { const char* name; std::wstring line; std::vector<std::wstring> expected; } cases[] = {
        {"one word of 4096 characters", std::wstring(4096, L'a'), {}},
        {"4096 characters of distinct words", fill([](int i) { return L"w" + std::to_wstring(i) + L" "; }), {}},
        {"4096 characters of path-like words", fill([](int) { return std::wstring(L"C:\\x y\\"); }), {}},
        {"4096 opening parentheses", std::wstring(4096, L'('), {}},
        {"a path at the end of 4096 characters", std::wstring(4096 - cfg.size() - 1, L'-') + L" " + cfg, {cfg}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(SameFiles(w.Parse(c.line), c.expected));
    }
}

TEST_F(ParseWorld, UncPathsOfThisMachine) {
    World& w = *g_world;
    std::wstring probe;
    kw::CHostNetworkInfo* info = kw::GetHostNetworkInfo();
    ASSERT_NE(nullptr, info);
    if (!info->ToLocalPath(L"\\\\localhost\\c$\\x", probe) || probe.empty())
        GTEST_SKIP() << "this system reports no share C$: a UNC path of this machine has no local path here";
    ASSERT_EQ(L':', w.T[1]);
    wchar_t host[256] = {0};
    DWORD cch = 256;
    GetComputerNameExW(ComputerNameDnsHostname, host, &cch);
    const std::wstring rel = std::wstring(1, static_cast<wchar_t>(towlower(w.T[0]))) + L"$" + w.T.substr(2) + L"\\tools\\cfg.exe";
    for (const auto& line : {L"\\\\localhost\\" + rel, L"\\\\" + std::wstring(host) + L"\\" + rel,
                             L"\"\\\\localhost\\" + rel + L"\" /x"}) {
        SCOPED_TRACE(kw::WideToUtf8(line));
        EXPECT_TRUE(SameFiles(w.Parse(line), {w.T + L"\\tools\\cfg.exe"}));
    }
}

TEST_F(ParseWorld, FilesAreAppendedOnceAndCounted) {
    World& w = *g_world;
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe", run = w.T + L"\\tools\\run.exe";
    CParseComandLine p;
    std::list<std::wstring> files{L"C:\\earlier.exe", cfg};
    EXPECT_EQ(1, p.Parse(cfg + L" " + run, w.token, w.sid.c_str(), FALSE, files));
    EXPECT_TRUE(SameFiles(files, {L"C:\\earlier.exe", cfg, run}));

    // Only the second parse finds something: the first parse's count is 0.
    std::list<std::wstring> second;
    EXPECT_EQ(0, p.Parse(L"\"" + run + L" --silent\"", w.token, w.sid.c_str(), FALSE, second));
    EXPECT_TRUE(SameFiles(second, {run}));

    // A SID longer than its buffer is cut, and no SID is no SID: neither is a crash.
    const std::wstring longSid(1000, L'S');
    for (const wchar_t* sid : {longSid.c_str(), static_cast<const wchar_t*>(nullptr)}) {
        std::list<std::wstring> more;
        EXPECT_EQ(1, p.Parse(cfg, nullptr, sid, FALSE, more));
        EXPECT_TRUE(SameFiles(more, {cfg}));
    }
}

TEST_F(ParseWorld, TraceLines) {
    World& w = *g_world;
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe", run = w.T + L"\\tools\\run.exe";
    const std::wstring app = w.PF + L"\\Some App\\app.exe", script = w.T + L"\\script" + w.EXT;
    const std::wstring search = L"[CParseComandLine::MyParse] MySearchPath ", parse = L"[CParseComandLine::Parse] ";
    // lines: must appear, in this order
    const struct { const char* name; std::wstring line; std::vector<std::wstring> lines; DWORD ruleId; } cases[] = {
        {"one file", cfg,
         {L"[kwRegAnalyze][INFO ][CParseComandLine::_Parse] enter MyParse app=null, cmd=" + cfg,
          L"[kwRegAnalyze][INFO ]" + search + L"exist=1, File=" + cfg,
          L"[kwRegAnalyze][INFO ]" + parse + L"CParseComandLine::Parse first parse nFiles=1, lastCmd=",
          L"[kwRegAnalyze][INFO ]" + parse + L"CParseComandLine::Parse after first parse nFiles=1"}},
        {"quoted, joined, grouped and after a semicolon", L"\"" + cfg + L"\" " + app + L" (" + run + L");" + cfg,
         {search + L"5 exist=1, File=" + cfg, search + L"4 exist=1, File=" + app, search + L"3 exist=1, File=" + run,
          search + L"after semicolon exist=1, File=" + cfg}},
        {"second parse", L"cmd.exe /c \"" + run + L" --silent\"",
         {parse + L"CParseComandLine::Parse first parse nFiles=1, lastCmd=" + run + L" --silent",
          parse + L"CParseComandLine::Parse second parse",
          L"[CParseComandLine::_Parse] enter MyParse app=null, cmd=" + run + L" --silent",
          parse + L"CParseComandLine::Parse after second parse otherFiles=1",
          parse + L"CParseComandLine::Parse after second parse add file=" + run}},
        {"invalid file name", L"C:\\a<b>.exe",
         {L"[CParseComandLine::MySearchPath] Skip C:\\a<b>.exe: invalid file name", search + L"exist=0, File=C:\\a<b>.exe"}},
        {"the rule id reaches the script step", script,
         {L"[CScriptHostRuleParser::ExpandNoPECmdLine] ret: 1, ruleId: 65535, cmdline: wscript.exe \"" + script + L"\""},
         65535},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kwtest::ScopedSink sink;
        w.Parse(c.line, FALSE, L"", c.ruleId);
        const auto texts = sink.Texts();
        size_t at = 0;
        for (const auto& want : c.lines) {
            bool found = false;
            for (; at < texts.size() && !found; ++at) found = texts[at].find(want) != std::wstring::npos;
            EXPECT_TRUE(found) << "missing or out of order: " << kw::WideToUtf8(want) << "\nlines:" << Show(texts);
        }
    }
}

// ---------------------------------------------------------------------------
// Argument helpers and quoting

TEST(ParseArguments, ExtensionTests) {
    const struct { const char* name; const wchar_t* cmd; bool dll, rundll, exe, vbs; } rows[] = {
        // The rundll32 form looks at the second argument whatever it is, a
        // switch included; the other tests skip switches.
        {"rundll32 form", L"rundll32.exe shell32.dll,Control_RunDLL x.cpl", false, true, false, false},
        {"library argument", L"regsvr32.exe /s C:\\x\\a.DLL", true, false, false, false},
        {"library as a switch is not an argument", L"tool.exe /a.dll", false, true, false, false},
        {"program argument", L"runner.exe \"C:\\a b\\c.exe\"", false, false, true, false},
        {"script argument", L"wscript.exe //B C:\\s\\x.vbs", false, false, false, true},
        {"first argument is not looked at", L"C:\\x.dll C:\\y.txt", false, false, false, false},
        {"rundll32 without entry", L"rundll32 x.dll", true, true, false, false},
        {"empty", L"", false, false, false, false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.dll, kw::HasDllArgument(r.cmd));
        EXPECT_EQ(r.rundll, kw::IsRundll32Form(r.cmd));
        EXPECT_EQ(r.exe, kw::HasExeArgument(r.cmd));
        EXPECT_EQ(r.vbs, kw::HasVbsArgument(r.cmd));
    }
}

TEST(ParseArguments, Quoting) {
    kwtest::TempDir dir(L"kwquote");
    const std::wstring there = dir.File(L"a b.exe"), missing = dir.Path() + L"\\missing.exe";
    const struct { const char* name; std::wstring path; bool check; std::wstring expected; } rows[] = {
        {"wrapped", L"C:\\a b\\x.exe", false, L"\"C:\\a b\\x.exe\""},
        {"already quoted", L"\"C:\\x.exe\"", false, L"\"C:\\x.exe\""},
        {"existing file checked", there, true, L"\"" + there + L"\""},
        {"missing file checked", missing, true, missing},
        {"empty", L"", false, L""},
    };
    for (const auto& r : rows) EXPECT_EQ(r.expected, kw::QuotePath(r.path, r.check)) << r.name;
}

// ---------------------------------------------------------------------------
// Text rules of the tokenizer

TEST(ParseText, FileNameValidity) {
    const struct { const char* name; std::wstring text; bool valid; } rows[] = {
        {"259 characters", L"C:\\" + std::wstring(256, L'a'), true},
        {"260 characters", L"C:\\" + std::wstring(257, L'a'), false},
        {"261 characters", L"C:\\" + std::wstring(258, L'a'), false},
        {"empty", L"", false},
        {"less-than", L"C:\\a<b", false},
        {"colon after the drive", L"C:\\a:b", false},
        {"long-path prefix", L"\\\\?\\C:\\x.exe", true},
        {"device path", L"\\\\.\\pipe\\x", false},
        {"semicolon and comma are file characters", L"C:\\a;b,c.exe", true},
    };
    for (const auto& r : rows) EXPECT_EQ(r.valid, kw::IsValidFileCandidate(r.text)) << r.name;
}

TEST(ParseText, FileUrlsAndEscapes) {
    struct Row { const char* name; const wchar_t* in; const wchar_t* out; };
    const Row urls[] = {
        {"three slashes", L"file:///C:/a/b.exe", L"C:\\a\\b.exe"},
        {"host and share", L"file://srv/share/a.exe", L"\\\\srv\\share\\a.exe"},
        {"one slash", L"file:/C:/a.exe", L"C:\\a.exe"},
        {"old drive bar", L"file:///C|/a.exe", L"C:\\a.exe"},
        {"no prefix", L"C:/a.exe", L"C:/a.exe"},
        {"prefix only", L"file:", L""},
    };
    for (const auto& r : urls) EXPECT_EQ(std::wstring(r.out), kw::FileUrlToPath(r.in)) << r.name;
    const Row escapes[] = {
        {"lower-case hex", L"a%2fb", L"a/b"},
        {"UTF-8 sequence", L"caf%C3%A9.exe", L"caf\x00e9.exe"},
        {"byte that is no UTF-8", L"a%E9b", L"a\x00e9" L"b"},
        {"one digit only", L"a%2", L"a%2"},
        {"not hexadecimal", L"%SystemRoot%", L"%SystemRoot%"},
        {"escaped percent", L"%2541", L"%41"},
    };
    for (const auto& r : escapes) EXPECT_EQ(std::wstring(r.out), kw::UrlUnescapeText(r.in)) << r.name;
}

}  // namespace
