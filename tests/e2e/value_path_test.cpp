// Run-key style registrations and the open commands of file classes, from a
// host registry event to the targets the host receives: FunctionIDs 5 (and the
// rule checks of its keys and value names), 20, 19, 14, 1 and 15.
#include "e2e_support.h"
#include "support/saved_reg_value.h"

#include <gtest/gtest.h>

#include <memory>

using namespace e2e;
using hostsim::Event;

const std::wstring kRun = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";

TEST(ValuePath, HostEventToTargets) {
    kwtest::TempDir dir;
    const std::wstring exe = dir.File(L"v.exe"), a = dir.File(L"a.exe"), b = dir.File(L"b.exe"),
                       x = dir.File(L"x.dll"), y = dir.File(L"y.dll");
    const std::wstring viaTemp = L"%TEMP%" + exe.substr(kwtest::EnvText(L"TEMP").size()), win = kwtest::WindowsDir();
    const std::wstring pf = kwtest::EnvText(kwtest::EnvText(L"ProgramW6432").empty() ? L"ProgramFiles" : L"ProgramW6432");
    // Previous data in the registry (64-bit view, where a native key lives):
    // only pieces added to it are reported.
    const std::wstring winlogon = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
    kwtest::SavedRegValue saved(winlogon, L"Userinit");
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, winlogon, L"Userinit", L"C:\\Windows\\system32\\userinit.exe,"));
    kwtest::TempRegKey prev(HKEY_LOCAL_MACHINE, L"SOFTWARE");
    const std::wstring prevKey = L"HKEY_LOCAL_MACHINE\\" + prev.Path();
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, prev.Path(), L"AppInit_DLLs", x));
    ASSERT_TRUE(kwtest::RegSetMulti(HKEY_LOCAL_MACHINE, prev.Path(), L"Both", {a, b}) &&
                kwtest::RegSetMulti(HKEY_LOCAL_MACHINE, prev.Path(), L"One", {a}) &&
                kwtest::RegSetMulti(HKEY_LOCAL_MACHINE, prev.Path(), L"Upper", {kwtest::Upper(a)}));
    const std::wstring starred = x.substr(0, x.size() - 4) + L"*dll";  // the old piece with '*' for '.': still the same piece
    // A program in a folder under C:\Program Files, with a space in its path.
    const std::wstring appRoot = L"C:\\Program Files\\kwtest-run-" + std::to_wstring(GetCurrentProcessId()),
                       app = appRoot + L"\\Some App\\app.exe";
    ASSERT_TRUE(kwtest::MakeFile(app));
    // A file class's open command, under the user's or the machine's classes and elsewhere.
    const std::wstring cls = L"kwtestfile-" + std::to_wstring(GetCurrentProcessId()), shellOpen = cls + L"\\shell\\open\\command";
    const std::wstring userClasses = L"HKEY_USERS\\" + kwtest::CurrentUserSid() + L"_Classes\\", open = L"\"" + exe + L"\" \"%1\"";
    const std::wstring pattern = L"HKEY_USERS\\S-1-5-21-9-9-9-1001\\Software\\kwtest\\Vendor\\",
                       def = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Def", other = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest-none";
    // A value write (REG_SZ unless given; the data size claimed when not 0) and its targets, in any case and order.
    const struct { const char* name; std::wstring key, value, data; uint32_t parseId; std::vector<std::wstring> expected;
                   uint32_t type, claimed; } rows[] = {
        {"5: quoted path with option: the program only", kRun, L"SomeApp", L"\"" + app + L"\" -silent", 5, {app}},
        {"5: unquoted path with spaces and option", kRun, L"SomeApp", app + L" /background", 5, {app}},
        {"5: kernel path of the machine hive", L"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run",
         L"SomeApp", L"\"" + app + L"\"", 5, {app}},
        {"5: environment token in expandable data", kRun, L"Tok", viaTemp, 5, {exe}, REG_EXPAND_SZ},
        {"5: missing file reported as written", kRun, L"Gone", L"C:\\kwtest-missing\\nothere.exe", 5, {L"C:\\kwtest-missing\\nothere.exe"}},
        {"5: empty data", kRun, L"Empty", L"", 5, {}},
        {"5: a folder is no target", kRun, L"Dir", dir.Path(), 5, {}},
        {"20: the value name is the path", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Names", exe, L"ignored", 20, {exe}},
        {"19: each piece of a vertical-bar list", other, L"v", b + L"||" + a, 19, {a, b}},
        {"5, rule pattern: one level below", pattern + L"Run\\Sub", L"v", exe, 7, {exe}},
        {"5, rule pattern: its key itself", pattern + L"Run", L"v", exe, 7, {}},
        {"5, rule pattern: another tail", pattern + L"Other\\Sub", L"v", exe, 7, {}},
        {"5, rule value name in other case", L"HKEY_LOCAL_MACHINE\\Elsewhere", L"WANTED", exe, 23, {exe}},
        {"5, rule value name: another name", L"HKEY_LOCAL_MACHINE\\Elsewhere", L"other", exe, 23, {}},
        {"5, rule on the default value: empty name", def, L"", exe, 25, {exe}},
        {"5, rule on the default value: a named value", def, L"named", exe, 25, {}},
        {"14: expansion shorter than the text", other, L"List", L"%SystemRoot%\\kw.exe", 14, {win + L"\\kw.exe"}, REG_EXPAND_SZ},
        {"14: expansion longer than the text", other, L"List", L"%ProgramFiles%\\kw.exe", 14, {pf + L"\\kw.exe"}, REG_EXPAND_SZ},
        {"1: only the piece added to Userinit", L"HKEY_LOCAL_MACHINE\\" + winlogon, L"Userinit",
         L"C:\\Windows\\system32\\userinit.exe," + exe + L",", 2, {exe}},
        {"1: AppInit pieces with '*' for '.' are not new", prevKey, L"AppInit_DLLs", starred + L"," + y, 1, {y}},
        // Multi-string data (the last NUL is added by the event).
        {"14: no previous value: all", prevKey, L"None", a + L'\0' + b + L'\0', 14, {a, b}, REG_MULTI_SZ},
        {"14: repeats only: none", prevKey, L"Both", b + L'\0' + a + L'\0', 14, {}, REG_MULTI_SZ},
        {"14: one added", prevKey, L"One", a + L'\0' + x + L'\0', 14, {x}, REG_MULTI_SZ},
        {"14: case differs: not new", prevKey, L"Upper", a + L'\0', 14, {}, REG_MULTI_SZ},
        {"14: list without its final NULs", other, L"List", y, 14, {y}, REG_MULTI_SZ, static_cast<uint32_t>(y.size() * 2)},
        {"15: user's classes, default value", userClasses + shellOpen, L"", open, 15, {exe}},
        {"15: kernel path of the machine's classes", L"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\" + shellOpen, L"default_null", open, 15,
         {exe}},
        {"15: machine classes", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\" + cls + L"\\Shell\\Open\\Command", L"", open, 15, {exe}},
        {"15: named value", userClasses + shellOpen, L"x", open, 15, {}},
        {"15: not an open command", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\" + cls + L"\\DefaultIcon", L"", open, 15, {}},
        {"15: outside the classes", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\" + shellOpen, L"", open, 15, {}},
        {"15: current user root", L"HKEY_CURRENT_USER\\Software\\Classes\\" + shellOpen, L"", open, 15, {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(Targets(r.expected), PostValue(6, r.key, r.value.c_str(), r.type ? r.type : REG_SZ, r.data, r.parseId, r.claimed));
    }
    // The key path is given back to the host as it sent it.
    std::unique_ptr<Event> ev(Event::RegistrySz(kRun, L"SomeApp", app, REG_SZ));
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(app)}, Post(*ev, 5));
    EXPECT_EQ(kRun, std::wstring(ev->Req().KeyPath));
    kwtest::RemoveTree(appRoot);
}

TEST(RunKey, RemotePathIsReportedUntouched) {
    // A folder named like a program, on a share that only a file test would see:
    // the folder test of the push would drop it.
    const std::wstring host = L"kwe2e" + std::to_wstring(GetCurrentProcessId()), folder = kwtest::WineUncHostFolder(host);
    if (folder.empty() || !kwtest::MakeFile(folder + L"\\share\\other.txt") ||
        !CreateDirectoryW((folder + L"\\share\\dir.exe").c_str(), nullptr))
        GTEST_SKIP() << "no folder behind a UNC host here";
    const std::wstring path = L"\\\\" + host + L"\\share\\dir.exe";
    auto targets = PostSz(kRun, L"Far", path + L" /s", 5);
    kwtest::RemoveTree(folder);
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(path)}, targets);
}
