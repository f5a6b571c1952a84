// Command lines as autorun data holds them, resolved against files, classes,
// CLSIDs and application paths that the tests create themselves (and remove).
// Expected lists are whole and ordered; the system decides the case of what it
// inserts (expanded folders), so paths are compared without regard to case.
#include "resolve/parse_command_line.h"
#include "resolve/parse_text.h"
#include "resolve/wow64.h"

#include "common/strutil.h"
#include "diag/host_network_info.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>
#include <objbase.h>

#include <cctype>
#include <memory>
#include <list>
#include <ostream>
#include <string>
#include <vector>

using kw::CParseComandLine;

namespace {

bool SameList(const std::list<std::wstring>& a, const std::vector<std::wstring>& b) {
    if (a.size() != b.size()) return false;
    size_t i = 0;
    for (const auto& x : a)
        if (!kw::EqualsNoCase(x, b[i++])) return false;
    return true;
}

std::string Show(const std::list<std::wstring>& l) {
    std::string out;
    for (const auto& s : l) out += "\n  [" + kw::WideToUtf8(s) + "]";
    return out.empty() ? "\n  (none)" : out;
}
std::string Show(const std::vector<std::wstring>& v) {
    return Show(std::list<std::wstring>(v.begin(), v.end()));
}

// File operations in the 64-bit view (redirection paused for the call).
using NativeView = kw::CAutoWow64PauseDisable;

bool ExistsNative(const std::wstring& path) {
    NativeView v;
    DWORD a = GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring NewClsid() {
    GUID g{};
    CoCreateGuid(&g);
    wchar_t buf[64] = {0};
    StringFromGUID2(g, buf, 64);
    return buf;
}

// Everything the cases resolve against, made once per test program run and
// removed at its end.
struct World {
    std::wstring u;  // unique part of every name
    std::unique_ptr<kwtest::TempDir> temp;
    std::wstring T, PF, PF86, SYS, WOW, WIN, EXT, PROGID, CLSID, CLSID2, CLSID32;
    std::wstring UNC;  // \\host\share of a share that only a file test would see (Wine)
    std::vector<std::wstring> nativeFiles;  // created in the 64-bit System32
    std::vector<std::wstring> trees;        // folders outside the temp folder
    std::vector<std::pair<HKEY, std::wstring>> keys;
    HANDLE token = nullptr;
    std::wstring sid;
    bool wow64 = false;

    void Build() {
        u = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount());
        temp.reset(new kwtest::TempDir(L"kwparse"));
        T = temp->Path();
        WIN = kwtest::WindowsDir();
        wchar_t buf[MAX_PATH] = {0};
        GetSystemDirectoryW(buf, MAX_PATH);
        SYS = buf;
        wow64 = kwtest::ProcessIsWow64();
        if (wow64 && GetSystemWow64DirectoryW(buf, MAX_PATH)) WOW = buf;
        const std::wstring pf64 = kwtest::EnvText(L"ProgramW6432");
        const std::wstring pf86 = kwtest::EnvText(L"ProgramFiles(x86)");
        PF = (pf64.empty() ? kwtest::EnvText(L"ProgramFiles") : pf64) + L"\\kwtest-" + u;
        PF86 = (pf86.empty() ? kwtest::EnvText(L"ProgramFiles") : pf86) + L"\\kwtest-" + u;
        trees = {PF, PF86};

        for (const wchar_t* f : {L"tools\\cfg.exe", L"tools\\run.exe", L"x.cpl", L"a.dll", L"b.dll", L"Begin.exe",
                                 L"srv.dll", L"srv32.dll", L"apppath\\kwapp.exe",
                                 L"Some Dir\\prog.exe", L"Long File Name Test.exe", L"semi;colon.exe",
                                 L"order\\pick.bat", L"order\\pick.exe"})
            temp->File(f);
        temp->File(L"kwbare" + u + L".dll");
        temp->File(L"Acme Windows explorer.exe");
        temp->File(L"a b c d e f g h i j k l m n o p q r\\x.exe");  // 18 words
        UNC = L"\\\\kwunc" + u + L"\\share";
        const std::wstring uncFolder = kwtest::WineUncHostFolder(L"kwunc" + u);
        if (!uncFolder.empty()) {
            kwtest::MakeFile(uncFolder + L"\\share\\tool.exe");
            kwtest::MakeFile(uncFolder + L"\\share\\kwremote" + u + L".exe");
            trees.push_back(uncFolder);
        }
        kwtest::MakeFile(PF + L"\\Some App\\app.exe");
        kwtest::MakeFile(PF + L"\\Some App\\data\\in.dll");
        kwtest::MakeFile(PF86 + L"\\Some App\\app.exe");

        if (wow64) {
            const std::wstring only64 = WIN + L"\\System32\\kwt64-" + u + L".dll";
            {
                NativeView v;
                kwtest::MakeFile(only64);
            }
            nativeFiles.push_back(only64);
            kwtest::MakeFile(WOW + L"\\kwt32-" + u + L".dll");
            trees.push_back(WOW + L"\\kwt32-" + u + L".dll");
        }

        // A key of ours under HKLM holding one default value below it.
        auto reg = [this](const std::wstring& key, const wchar_t* below, const std::wstring& value) {
            keys.emplace_back(HKEY_LOCAL_MACHINE, key);
            kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key + below, L"", value);
        };
        // A script class of our own.
        EXT = L".kwps" + std::to_wstring(GetCurrentProcessId());
        PROGID = L"kwtest.parse." + u;
        temp->File(L"script" + EXT);
        reg(L"SOFTWARE\\Classes\\" + EXT, L"", PROGID);
        reg(L"SOFTWARE\\Classes\\" + PROGID, L"\\shell\\open\\command", L"wscript.exe \"%1\"");

        // CLSIDs: an in-process server, a local server given as a command line,
        // and a 32-bit registration.
        CLSID = NewClsid();
        CLSID2 = NewClsid();
        CLSID32 = NewClsid();
        reg(L"SOFTWARE\\Classes\\CLSID\\" + CLSID, L"\\InprocServer32", T + L"\\srv.dll");
        reg(L"SOFTWARE\\Classes\\CLSID\\" + CLSID2, L"\\LocalServer32", L"\"" + T + L"\\tools\\run.exe\" /automation");
        reg(L"SOFTWARE\\Classes\\Wow6432Node\\CLSID\\" + CLSID32, L"\\InprocServer32", T + L"\\srv32.dll");

        // Application paths: a plain one, one quoted, one padded beyond the buffer, one too long.
        const std::wstring ap = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\";
        reg(ap + L"kwapp" + u + L".exe", L"", T + L"\\apppath\\kwapp.exe");
        reg(ap + L"kwquoted" + u + L".exe", L"", L"\"" + T + L"\\apppath\\kwapp.exe\"");
        reg(ap + L"kwpad" + u + L".exe", L"", T + L"\\apppath\\kwapp.exe" + std::wstring(300, L' '));
        reg(ap + L"kwlong" + u + L".exe", L"", T + L"\\" + std::wstring(300, L'x') + L".exe");

        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE,
                         &token);
        sid = kwtest::CurrentUserSid();
    }

    void Destroy() {
        for (auto it = keys.rbegin(); it != keys.rend(); ++it)
            kwtest::RegDeleteTreeView(it->first, it->second, KEY_WOW64_64KEY);
        for (const auto& f : nativeFiles) {
            NativeView v;
            DeleteFileW(f.c_str());
        }
        for (const auto& t : trees) kwtest::RemoveTree(t);
        temp.reset();
        if (token) CloseHandle(token);
        token = nullptr;
    }

    std::wstring Subst(std::wstring s) const {
        std::wstring turl = T;
        for (auto& c : turl)
            if (c == L'\\') c = L'/';
        std::wstring shortClsid = CLSID.substr(0, CLSID.size() - 2) + L"}";
        const std::pair<const wchar_t*, std::wstring> map[] = {
            {L"{TURL}", turl},        {L"{T}", T},       {L"{PF86}", PF86},   {L"{PF}", PF},
            {L"{SYS}", SYS},          {L"{WOW}", WOW},   {L"{WIN}", WIN},     {L"{U}", u},
            {L"{EXT}", EXT},          {L"{CLSID2}", CLSID2}, {L"{CLSID32}", CLSID32},
            {L"{CLSIDSHORT}", shortClsid}, {L"{CLSID}", CLSID}, {L"{UNC}", UNC},
        };
        for (const auto& m : map) kw::ReplaceAll(s, m.first, m.second);
        return s;
    }

    std::list<std::wstring> Parse(const std::wstring& line, BOOL view32, BOOL expand32,
                                  const std::wstring& overridePath = L"") {
        CParseComandLine p;
        p.SetWow64Parse(view32);
        if (!overridePath.empty()) p.SetOverridePath(overridePath);
        std::list<std::wstring> files;
        p.Parse(line, token, sid.c_str(), expand32, files);
        return files;
    }
};

World* g_world = nullptr;

// Which view a row parses in, and whether it needs a 32-bit process on 64-bit Windows.
enum View { kNative, kWow64Native, kWow64View32 };

struct Row {
    const char* name;
    const wchar_t* line;
    std::vector<const wchar_t*> expected;  // system files among them must exist, else the row is skipped
    View view = kNative;
    const wchar_t* overridePath = L"";
    std::vector<const wchar_t*> needs = {};  // further system files the row relies on
};

// Test listings show the row's title, not its bytes.
void PrintTo(const Row& r, std::ostream* os) { *os << r.name; }

// The world is made once per test program run and removed at its end.
class ParseWorld : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        g_world = new World;
        g_world->Build();
    }
    static void TearDownTestSuite() {
        g_world->Destroy();
        delete g_world;
        g_world = nullptr;
    }
};
class ParseCases : public ParseWorld, public ::testing::WithParamInterface<Row> {};

// The search order under test: the caller's folder, the system directory of
// the view, the Windows directory's System folder, the Windows directory,
// PATH, the browser's folder, the registered application paths.
const Row kResolution[] = {
    {"unquoted path with spaces and a path argument", L"{PF}\\Some App\\app.exe /config {T}\\tools\\cfg.exe",
     {L"{PF}\\Some App\\app.exe", L"{T}\\tools\\cfg.exe"}},
    {"quoted path with path arguments",
     L"\"{PF}\\Some App\\app.exe\" \"{PF}\\Some App\\data\\in.dll\" {T}\\tools\\cfg.exe",
     {L"{PF}\\Some App\\app.exe", L"{PF}\\Some App\\data\\in.dll", L"{T}\\tools\\cfg.exe"}},
    {"value in double parentheses", L"(({T}\\a.dll))", {L"{T}\\a.dll"}},
    {"two groups side by side", L"({T}\\a.dll);({T}\\b.dll)", {L"{T}\\a.dll", L"{T}\\b.dll"}},
    {"doubly quoted command", L"\"\"{PF}\\Some App\\app.exe\" -x\"", {L"{PF}\\Some App\\app.exe"}},
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
    {"bare program name", L"explorer.exe", {L"{SYS}\\explorer.exe"}},
    {"bare library name in the caller's folder", L"kwbare{U}", {L"{T}\\kwbare{U}.dll"}, kNative, L"{T}"},
    {"script with arguments", L"\"{T}\\script{EXT}\" /b", {L"{SYS}\\wscript.exe", L"{T}\\script{EXT}"}},
    {"group of two bare libraries", L"(a.dll;b.dll)", {L"{T}\\a.dll", L"{T}\\b.dll"}, kNative, L"{T}"},
    {"several paths in one value", L"{T}\\a.dll;{T}\\b.dll", {L"{T}\\a.dll", L"{T}\\b.dll"}},
    {"the same path twice", L"{T}\\a.dll {T}\\A.DLL", {L"{T}\\a.dll"}},
    {"file name holding a semicolon", L"{T}\\semi;colon.exe", {L"{T}\\semi;colon.exe"}},
    {"shell name of a CLSID", L"::{CLSID}", {L"{T}\\srv.dll"}},
    {"CLSID local server given as a command line", L"::{CLSID2}", {L"{T}\\tools\\run.exe"}},
    {"CLSID of the 32-bit view", L"::{CLSID32}", {L"{T}\\srv32.dll"}, kWow64View32},
    {"file URL with escaped spaces", L"file:///{TURL}/Some%20Dir/prog.exe", {L"{T}\\Some Dir\\prog.exe"}},
    {"URL-escaped path", L"{T}\\Some%20Dir\\prog.exe /x", {L"{T}\\Some Dir\\prog.exe"}},
    {"program files token, native view", L"%ProgramFiles%\\kwtest-{U}\\Some App\\app.exe",
     {L"{PF}\\Some App\\app.exe"}, kWow64Native},
    {"program files token, 32-bit view", L"%ProgramFiles%\\kwtest-{U}\\Some App\\app.exe",
     {L"{PF86}\\Some App\\app.exe"}, kWow64View32},
    {"System32 file of the 64-bit folder, native view", L"{WIN}\\System32\\kwt64-{U}.dll",
     {L"{WIN}\\System32\\kwt64-{U}.dll"}, kWow64Native},
    {"System32 file of the 64-bit folder, 32-bit view", L"{WIN}\\System32\\kwt64-{U}.dll", {}, kWow64View32},
    {"System32 file of the 32-bit folder, native view", L"{WIN}\\System32\\kwt32-{U}.dll", {}, kWow64Native},
    {"System32 file of the 32-bit folder, 32-bit view", L"{WIN}\\System32\\kwt32-{U}.dll",
     {L"{WOW}\\kwt32-{U}.dll"}, kWow64View32},
    {"bare name of the 32-bit system folder, 32-bit view", L"kwt32-{U}", {L"{WOW}\\kwt32-{U}.dll"}, kWow64View32},
    {"bare name of the 64-bit system folder, native view", L"kwt64-{U}.dll", {L"{SYS}\\kwt64-{U}.dll"},
     kWow64Native},
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
    {"joined path wins over a system program named by its last word", L"{T}\\Acme Windows explorer.exe",
     {L"{T}\\Acme Windows explorer.exe"}, kNative, L"", {L"{SYS}\\explorer.exe"}},
    {"unquoted path of 18 words and an option", L"{T}\\a b c d e f g h i j k l m n o p q r\\x.exe /s",
     {L"{T}\\a b c d e f g h i j k l m n o p q r\\x.exe"}},
    {"remote share: reported as written", L"\\\\kw-no-such-host-{U}\\share\\x.exe",
     {L"\\\\kw-no-such-host-{U}\\share\\x.exe"}},
    {"unquoted remote path with spaces ends at the first extension",
     L"\\\\kw-no-such-host-{U}\\pub\\My Tools\\x.exe /s x.dll", {L"\\\\kw-no-such-host-{U}\\pub\\My Tools\\x.exe"}},
    {"remote path is not completed by a file test", L"{UNC}\\tool", {L"{UNC}\\tool"}, kNative, L"",
     {L"{UNC}\\tool.exe"}},
};

// Bad input: the result is whatever the rules give (mostly nothing), never a
// crash or an overrun.
const Row kBadInput[] = {
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
    {"UNC path of five characters", L"\\\\a\\b", {}},
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
    for (const wchar_t* need : needs) {
        const std::wstring p = w.Subst(need);
        bool there = p.find(w.WOW) == 0 && !w.WOW.empty() ? GetFileAttributesW(p.c_str()) != INVALID_FILE_ATTRIBUTES
                                                            : ExistsNative(p);
        if (!there) GTEST_SKIP() << "the system has no " << kw::WideToUtf8(p);
    }
    std::vector<std::wstring> expected;
    for (const wchar_t* e : r.expected) expected.push_back(w.Subst(e));
    const std::wstring line = w.Subst(r.line);
    const BOOL view32 = r.view == kWow64View32;
    const auto files = w.Parse(line, view32, view32, w.Subst(r.overridePath));
    EXPECT_TRUE(SameList(files, expected)) << "line: " << kw::WideToUtf8(line) << "\nexpected:"
                                           << Show(expected) << "\nactual:" << Show(files);
}

INSTANTIATE_TEST_SUITE_P(Resolution, ParseCases, ::testing::ValuesIn(kResolution), kwtest::ByRowName());
INSTANTIATE_TEST_SUITE_P(BadInput, ParseCases, ::testing::ValuesIn(kBadInput), kwtest::ByRowName());

TEST_F(ParseWorld, LongCommandLines) {
    World& w = *g_world;
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe";
    auto fill = [](std::wstring (*word)(int)) {
        std::wstring s;
        for (int i = 0; s.size() < 4096; ++i) s += word(i);
        return s.substr(0, 4096);
    };
    struct Case {
        const char* name;
        std::wstring line;
        std::vector<std::wstring> expected;
    } cases[] = {
        {"one word of 4096 characters", std::wstring(4096, L'a'), {}},
        {"4096 characters of distinct words", fill([](int i) { return L"w" + std::to_wstring(i) + L" "; }), {}},
        {"4096 characters of path-like words", fill([](int) { return std::wstring(L"C:\\x y\\"); }), {}},
        {"4096 opening parentheses", std::wstring(4096, L'('), {}},
        {"a path at the end of 4096 characters", std::wstring(4096 - cfg.size() - 1, L'-') + L" " + cfg, {cfg}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto files = w.Parse(c.line, 0, 0);
        EXPECT_TRUE(SameList(files, c.expected)) << Show(files);
    }
}

TEST_F(ParseWorld, ShortNamesComeBackLong) {
    World& w = *g_world;
    const std::wstring longPath = w.T + L"\\Long File Name Test.exe";
    wchar_t shortPath[MAX_PATH] = {0};
    DWORD n = GetShortPathNameW(longPath.c_str(), shortPath, MAX_PATH);
    if (n == 0 || n >= MAX_PATH || std::wstring(shortPath).find(L'~') == std::wstring::npos)
        GTEST_SKIP() << "the file system gives no 8.3 short name for " << kw::WideToUtf8(longPath);
    for (const auto& line : {std::wstring(shortPath), L"\"" + std::wstring(shortPath) + L"\" /x"}) {
        SCOPED_TRACE(kw::WideToUtf8(line));
        EXPECT_TRUE(SameList(w.Parse(line, 0, 0), {longPath})) << Show(w.Parse(line, 0, 0));
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
    const std::wstring rel = w.T.substr(2) + L"\\tools\\cfg.exe";
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe";
    const std::wstring drive = std::wstring(1, static_cast<wchar_t>(towlower(w.T[0]))) + L"$";
    for (const auto& line : {L"\\\\localhost\\" + drive + rel, L"\\\\" + std::wstring(host) + L"\\" + drive + rel,
                             L"\"\\\\localhost\\" + drive + rel + L"\" /x"}) {
        SCOPED_TRACE(kw::WideToUtf8(line));
        const auto files = w.Parse(line, 0, 0);
        EXPECT_TRUE(SameList(files, {cfg})) << Show(files);
    }
}

TEST_F(ParseWorld, PathFoldersAreSearched) {
    World& w = *g_world;
    const std::wstring dir = w.temp->Dir(L"pathdir");
    const std::wstring exe = w.temp->File(L"pathdir\\kwpath" + w.u + L".exe");
    const std::wstring path = kwtest::EnvText(L"PATH") + L";relative\\dir;" + w.UNC + L";\"" + dir + L"\"";
    kwtest::ScopedEnv env(L"PATH", path.c_str());
    EXPECT_TRUE(SameList(w.Parse(L"kwpath" + w.u + L".exe /x", 0, 0), {exe}));
    EXPECT_TRUE(SameList(w.Parse(L"kwpath" + w.u, 0, 0), {exe}));
    // A folder on another machine's share is never searched, although a file
    // test would find the name there.
    if (ExistsNative(w.UNC + L"\\kwremote" + w.u + L".exe")) {
        EXPECT_TRUE(SameList(w.Parse(L"kwremote" + w.u, 0, 0), {}));
    }
}

TEST_F(ParseWorld, JoinedPathLengthLimit) {
    World& w = *g_world;
    const std::wstring dir = w.temp->Dir(L"len x");
    for (size_t len : {258u, 259u, 260u}) {
        SCOPED_TRACE(len);
        const std::wstring file = dir + L"\\" + std::wstring(len - dir.size() - 5, L'n') + L".exe";
        ASSERT_EQ(len, file.size());
        HANDLE h = CreateFileW((L"\\\\?\\" + file).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, h);
        CloseHandle(h);
        const auto files = w.Parse(file + L" /s", 0, 0);
        EXPECT_TRUE(SameList(files, len < MAX_PATH ? std::vector<std::wstring>{file} : std::vector<std::wstring>{}))
            << Show(files);
    }
}

TEST_F(ParseWorld, PathExtOrderDecidesTheExtension) {
    World& w = *g_world;
    const std::wstring order = w.T + L"\\order";
    struct Case {
        const char* name;
        const wchar_t* pathext;
        std::wstring expected;
    } cases[] = {
        {"program first", L".COM;.EXE;.BAT", order + L"\\pick.exe"},
        {"batch first", L".BAT;.EXE", order + L"\\pick.bat"},
        {"neither listed: .exe is still tried", L".COM", order + L"\\pick.exe"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kwtest::ScopedEnv env(L"PATHEXT", c.pathext);
        EXPECT_TRUE(SameList(w.Parse(L"pick", 0, 0, order), {c.expected})) << Show(w.Parse(L"pick", 0, 0, order));
    }
}

TEST_F(ParseWorld, FilesAreAppendedOnceAndCounted) {
    World& w = *g_world;
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe";
    const std::wstring run = w.T + L"\\tools\\run.exe";
    CParseComandLine p;
    std::list<std::wstring> files{L"C:\\earlier.exe", cfg};
    EXPECT_EQ(1, p.Parse(cfg + L" " + run, w.token, w.sid.c_str(), FALSE, files));
    EXPECT_TRUE(SameList(files, {L"C:\\earlier.exe", cfg, run})) << Show(files);

    // Only the second parse finds something: the first parse's count is 0.
    std::list<std::wstring> second;
    EXPECT_EQ(0, p.Parse(L"\"" + run + L" --silent\"", w.token, w.sid.c_str(), FALSE, second));
    EXPECT_TRUE(SameList(second, {run})) << Show(second);

    // A SID longer than its buffer is cut, and no SID is no SID: neither is a crash.
    const std::wstring longSid(1000, L'S');
    for (const wchar_t* sid : {longSid.c_str(), static_cast<const wchar_t*>(nullptr)}) {
        std::list<std::wstring> more;
        EXPECT_EQ(1, p.Parse(cfg, nullptr, sid, FALSE, more));
        EXPECT_TRUE(SameList(more, {cfg}));
    }
}

TEST_F(ParseWorld, RuleIdReachesTheScriptStep) {
    World& w = *g_world;
    const std::wstring script = w.T + L"\\script" + w.EXT;
    kwtest::ScopedSink sink;
    std::list<std::wstring> files;
    CParseComandLine().Parse(script, w.token, w.sid.c_str(), FALSE, files, 65535);
    const std::wstring want = L"[CScriptHostRuleParser::ExpandNoPECmdLine] ret: 1, ruleId: 65535, cmdline: ";
    EXPECT_TRUE(sink.sink.Has(want + L"wscript.exe \"" + script + L"\"")) << Show(sink.Texts());
}

TEST_F(ParseWorld, TraceLines) {
    World& w = *g_world;
    const std::wstring cfg = w.T + L"\\tools\\cfg.exe";
    const std::wstring run = w.T + L"\\tools\\run.exe";
    const std::wstring app = w.PF + L"\\Some App\\app.exe";
    struct Case {
        const char* name;
        std::wstring line;
        std::vector<std::wstring> lines;  // must appear, in this order
    } cases[] = {
        {"one file",
         cfg,
         {L"[kwRegAnalyze][INFO ][CParseComandLine::_Parse] enter MyParse app=null, cmd=" + cfg,
          L"[kwRegAnalyze][INFO ][CParseComandLine::MyParse] MySearchPath exist=1, File=" + cfg,
          L"[kwRegAnalyze][INFO ][CParseComandLine::Parse] CParseComandLine::Parse first parse nFiles=1, lastCmd=",
          L"[kwRegAnalyze][INFO ][CParseComandLine::Parse] CParseComandLine::Parse after first parse nFiles=1"}},
        {"quoted, joined, grouped and after a semicolon",
         L"\"" + cfg + L"\" " + app + L" (" + run + L");" + cfg,
         {L"[CParseComandLine::MyParse] MySearchPath 5 exist=1, File=" + cfg,
          L"[CParseComandLine::MyParse] MySearchPath 4 exist=1, File=" + app,
          L"[CParseComandLine::MyParse] MySearchPath 3 exist=1, File=" + run,
          L"[CParseComandLine::MyParse] MySearchPath after semicolon exist=1, File=" + cfg}},
        {"second parse",
         L"cmd.exe /c \"" + run + L" --silent\"",
         {L"[CParseComandLine::Parse] CParseComandLine::Parse first parse nFiles=1, lastCmd=" + run + L" --silent",
          L"[CParseComandLine::Parse] CParseComandLine::Parse second parse",
          L"[CParseComandLine::_Parse] enter MyParse app=null, cmd=" + run + L" --silent",
          L"[CParseComandLine::Parse] CParseComandLine::Parse after second parse otherFiles=1",
          L"[CParseComandLine::Parse] CParseComandLine::Parse after second parse add file=" + run}},
        {"invalid file name",
         L"C:\\a<b>.exe",
         {L"[CParseComandLine::MySearchPath] Skip C:\\a<b>.exe: invalid file name",
          L"[CParseComandLine::MyParse] MySearchPath exist=0, File=C:\\a<b>.exe"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kwtest::ScopedSink sink;
        w.Parse(c.line, 0, 0);
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
    struct Row {
        const char* name;
        const wchar_t* cmd;
        bool dll, rundll, exe, vbs;
    } rows[] = {
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
    const std::wstring there = dir.File(L"a b.exe");
    const std::wstring missing = dir.Path() + L"\\missing.exe";
    struct Row {
        std::string name;
        std::wstring path;
        bool check;
        std::wstring expected;
    } rows[] = {
        {"wrapped", L"C:\\a b\\x.exe", false, L"\"C:\\a b\\x.exe\""},
        {"already quoted", L"\"C:\\x.exe\"", false, L"\"C:\\x.exe\""},
        {"holding a quote", L"C:\\x\".exe", false, L"C:\\x\".exe"},
        {"existing file checked", there, true, L"\"" + there + L"\""},
        {"missing file checked", missing, true, missing},
        {"missing file unchecked", missing, false, L"\"" + missing + L"\""},
        {"empty", L"", false, L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.expected, kw::QuotePath(r.path, r.check));
    }
}

// ---------------------------------------------------------------------------
// Text rules of the tokenizer

TEST(ParseText, FileNameValidity) {
    struct Row {
        const char* name;
        std::wstring text;
        bool valid;
    } rows[] = {
        {"drive path", L"C:\\x\\y.exe", true},
        {"259 characters", L"C:\\" + std::wstring(256, L'a'), true},
        {"260 characters", L"C:\\" + std::wstring(257, L'a'), false},
        {"261 characters", L"C:\\" + std::wstring(258, L'a'), false},
        {"empty", L"", false},
        {"less-than", L"C:\\a<b", false},
        {"star", L"*.exe", false},
        {"colon after the drive", L"C:\\a:b", false},
        {"long-path prefix", L"\\\\?\\C:\\x.exe", true},
        {"device path", L"\\\\.\\pipe\\x", false},
        {"UNC", L"\\\\host\\share\\x.exe", true},
        {"semicolon and comma are file characters", L"C:\\a;b,c.exe", true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.valid, kw::IsValidFileCandidate(r.text));
    }
}

TEST(ParseText, FileUrlsAndEscapes) {
    struct Row {
        const char* name;
        const wchar_t* in;
        const wchar_t* out;
    } urls[] = {
        {"three slashes", L"file:///C:/a/b.exe", L"C:\\a\\b.exe"},
        {"host and share", L"file://srv/share/a.exe", L"\\\\srv\\share\\a.exe"},
        {"one slash", L"file:/C:/a.exe", L"C:\\a.exe"},
        {"old drive bar", L"file:///C|/a.exe", L"C:\\a.exe"},
        {"no prefix", L"C:/a.exe", L"C:/a.exe"},
        {"prefix only", L"file:", L""},
    };
    for (const auto& r : urls) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(std::wstring(r.out), kw::FileUrlToPath(r.in));
    }
    Row escapes[] = {
        {"space", L"C:\\Some%20Dir\\a.exe", L"C:\\Some Dir\\a.exe"},
        {"lower-case hex", L"a%2fb", L"a/b"},
        {"UTF-8 sequence", L"caf%C3%A9.exe", L"caf\x00e9.exe"},
        {"byte that is no UTF-8", L"a%E9b", L"a\x00e9" L"b"},
        {"one digit only", L"a%2", L"a%2"},
        {"not hexadecimal", L"%SystemRoot%", L"%SystemRoot%"},
        {"escaped percent", L"%2541", L"%41"},
    };
    for (const auto& r : escapes) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(std::wstring(r.out), kw::UrlUnescapeText(r.in));
    }
}

}  // namespace
