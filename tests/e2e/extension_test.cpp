// Scripts, installed components, menu and toolbar extensions and default
// verbs, from a host registry event to the targets: FunctionIDs 2, 3, 17, 18, 22.
#include "e2e_support.h"

#include <gtest/gtest.h>
#include <objbase.h>

#include <algorithm>
#include <memory>

using namespace e2e;
using hostsim::Event;

namespace {

const uint32_t kNoSid = 0xFFFFFFF3;  // no such process: the analysis runs without a user SID
const int kAnyRet = -1;              // the result code depends on another analyzer

struct Row {
    const char* name;
    uint32_t parseId, op;  // op: 1 key created, 6 value set
    std::wstring key, value, data;
    std::vector<std::wstring> targets;
    int ret;
    std::wstring trace;  // a fragment some trace line must hold
    uint32_t pid;
};

// A class registered under the machine classes, removed on scope exit.
struct MachineClass {
    explicit MachineClass(const std::wstring& server) {
        GUID g;
        CoCreateGuid(&g);
        wchar_t text[64];
        StringFromGUID2(g, text, 64);
        clsid = text;
        kwtest::RegSetSz(HKEY_LOCAL_MACHINE, Key() + L"\\InprocServer32", L"", server);
    }
    ~MachineClass() { kwtest::RegDeleteTreeView(HKEY_LOCAL_MACHINE, Key()); }
    std::wstring Key() const { return L"Software\\Classes\\CLSID\\" + clsid; }
    std::wstring clsid;
};

}  // namespace

TEST(Extensions, HostEventToTargets) {
    kwtest::TempDir dir;
    kwtest::TempRegKey base(HKEY_LOCAL_MACHINE, L"SOFTWARE");
    const std::wstring hklm = L"HKEY_LOCAL_MACHINE\\", b = base.Path(), pol = dir.Path() + L"\\Pol";
    auto set = [&](const std::wstring& key, const std::wstring& name, const std::wstring& v) {
        ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, b + L"\\" + key, name, v));
    };
    std::wstring f[3];
    for (int i = 0; i < 3; ++i) {
        f[i] = dir.File(L"Pol\\Scripts\\Startup\\s" + std::to_wstring(i) + L".cmd");
        set(L"Scripts\\Startup\\0\\" + std::to_wstring(i), L"Script", L"s" + std::to_wstring(i) + L".cmd");
    }
    set(L"Scripts\\Startup\\0\\3", L"Script", L"");
    set(L"Scripts\\Startup\\0", L"FileSysPath", pol);
    set(L"Scripts\\Startup\\1", L"FileSysPath", L"");
    const std::wstring solo = dir.File(L"solo.cmd"), open = dir.File(L"open.exe"), edit = dir.File(L"edit.exe"),
                       lng = dir.File(L"long.exe"), menu = dir.File(L"menu.dll"), exe = dir.File(L"tool.exe");
    set(L"cls\\shell\\open\\command", L"", L"\"" + open + L"\" \"%1\"");
    set(L"cls\\shell\\Edit\\command", L"", edit);
    const DWORD dw = 1;
    kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, b + L"\\cls\\shell\\num\\command", L"", REG_DWORD, &dw, 4);
    std::wstring longCmd[3];  // 1022, 1023, 1024 characters: 2046, 2048, 2050 bytes with the NUL
    for (int i = 0; i < 3; ++i) {
        longCmd[i] = lng + L" " + std::wstring(1022 + i - lng.size() - 5, L'a') + L" END";
        set(L"cls\\shell\\n" + std::to_wstring(i) + L"\\command", L"", longCmd[i]);
    }
    MachineClass comp(dir.File(L"comp.dll"));
    const std::wstring comps = hklm + L"SOFTWARE\\kwtest-comp\\", sid = kwtest::CurrentUserSid();
    const std::wstring ext = L"\\Software\\Microsoft\\Internet Explorer\\MenuExt\\&Send";
    const std::wstring pad(239, L'k');  // "Startup" at 249: its key ends at the 259th character

    const Row rows[] = {
        {"policy folder: one file per numbered script", 203, 6, hklm + b + L"\\Scripts\\Startup\\0", L"FileSysPath", pol,
         {f[0], f[1], f[2]}, 0},
        {"script in a policy with a folder", 203, 6, hklm + b + L"\\Scripts\\Startup\\0\\1", L"script", L"s1.cmd", {f[1]}, 0},
        {"script in a policy without folder", 203, 6, hklm + b + L"\\Scripts\\Startup\\1\\0", L"Script", solo, {solo}, 0},
        {"empty script", 203, 6, hklm + b + L"\\Scripts\\Startup\\1\\0", L"Script", L"", {}, 4},
        {"other value name", 203, 6, hklm + b + L"\\Scripts\\Startup\\1\\0", L"Parameters", solo, {}, 3},
        {"policy key ends at the 259th character", 203, 6, hklm + L"SOFTWARE\\" + pad + L"\\Startup\\0\\0", L"Script",
         solo, {solo}, 0},
        {"policy key ends at the 260th character", 203, 6, hklm + L"SOFTWARE\\" + pad + L"x\\Startup\\0\\0", L"Script",
         solo, {}, 3},
        {"component named by a CLSID and more", 202, 1, comps + comp.clsid + L"xyz", L"", L"", {dir.Path() + L"\\comp.dll"}, 0},
        {"component not named by a CLSID", 202, 1, comps + L"{not-a-clsid}", L"", L"", {}, 4},
        {"rule key not followed by a separator", 202, 1, comps.substr(0, comps.size() - 1) + L"X\\" + comp.clsid, L"",
         L"", {}, 3},
        {"stub path with a program", 202, 6, comps + comp.clsid, L"StubPath", L"\"" + exe + L"\" /install", {exe}, 0,
         L"Start AnalyzRegvalueAsFilePath FunctionID=5"},
        {"empty stub path", 202, 6, comps + comp.clsid, L"StubPath", L"", {}, 3},
        {"menu entry names a resource", 217, 6, L"HKEY_USERS\\" + sid + ext, L"", L"res://" + menu + L"/201", {menu}, 0},
        {"menu entry names a web page", 217, 6, L"HKEY_USERS\\" + sid + ext, L"", L"http://example.test/a.htm", {}, 0},
        {"menu entry of only the scheme", 217, 6, L"HKEY_USERS\\" + sid + ext, L"", L"res://", {}, 0},
        {"menu key itself", 217, 6, L"HKEY_USERS\\" + sid + ext.substr(0, ext.rfind(L'\\')), L"",
         L"res://" + menu, {}, 3},
        {"no SID: any ordinary user", 217, 6, L"HKEY_USERS\\S-1-5-21-7-8-9-1001" + ext, L"", L"res://" + menu,
         {menu}, 0, L"", kNoSid},
        {"no SID: service account", 217, 6, L"HKEY_USERS\\S-1-5-18" + ext, L"", L"res://" + menu, {}, 3, L"", kNoSid},
        {"empty default verb runs open", 218, 6, hklm + b + L"\\cls\\shell", L"", L"", {open}, 0},
        {"named verb, other case", 218, 6, hklm + b + L"\\cls\\shell", L"", L"edit", {edit}, 0},
        {"verb without command", 218, 6, hklm + b + L"\\cls\\shell", L"", L"print", {}, 4},
        {"command of the wrong type", 218, 6, hklm + b + L"\\cls\\shell", L"", L"num", {}, 4},
        {"command of 2046 bytes", 218, 6, hklm + b + L"\\cls\\shell", L"", L"n0", {lng}, 0, L"cmdline=" + longCmd[0]},
        {"command of 2048 bytes", 218, 6, hklm + b + L"\\cls\\shell", L"", L"n1", {lng}, 0, L"cmdline=" + longCmd[1]},
        {"command of 2050 bytes", 218, 6, hklm + b + L"\\cls\\shell", L"", L"n2", {lng}, 0, L"cmdline=" + longCmd[2]},
        {"toolbar program, lower-case name", 222, 6, hklm + b, L"exec", exe, {exe}, 0},
        {"toolbar class", 222, 6, hklm + b, L"CLSID", L"{00000000-6B77-7465-7374-000000000022}", {}, kAnyRet,
         L"Start AnalyzRegValueAsCLSID FunctionID=4"},
        {"toolbar other value", 222, 6, hklm + b, L"ButtonText", exe, {}, 3},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        Host().Engine().ClearLines();
        std::unique_ptr<Event> ev(Event::Registry(r.op, r.key, r.op == 6 ? &r.value : nullptr, REG_SZ, r.data.c_str(),
                                                  static_cast<uint32_t>((r.data.size() + 1) * 2),
                                                  r.pid ? r.pid : GetCurrentProcessId()));
        std::vector<std::wstring> expected = Upper(r.targets);
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(expected, Post(*ev, r.parseId));
        EXPECT_TRUE(r.ret == kAnyRet || Host().Engine().HasLine(L"||ret:" + std::to_wstring(r.ret)));
        EXPECT_TRUE(r.trace.empty() || Host().Engine().HasLine(r.trace));
    }
}
