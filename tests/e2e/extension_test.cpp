// Scripts, installed components, menu and toolbar extensions and default
// verbs, from a host registry event to the targets: FunctionIDs 2, 3, 17, 18, 22.
#include "e2e_support.h"
#include "support/class_registration.h"

#include <gtest/gtest.h>

using namespace e2e;

namespace {

const uint32_t kNoSid = 0xFFFFFFF3;  // no such process: the analysis runs without a user SID
const int kAnyRet = -1;              // the result code is another analyzer's

}  // namespace

TEST(Extensions, HostEventToTargets) {
    kwtest::TempDir dir;
    kwtest::TempRegKey base(HKEY_LOCAL_MACHINE, L"SOFTWARE");
    const std::wstring m = L"HKEY_LOCAL_MACHINE\\" + base.Path() + L"\\", pol = dir.Path() + L"\\Pol";
    auto set = [&](const std::wstring& key, const std::wstring& v, const wchar_t* name = L"") {
        kwtest::RegSetSz(HKEY_LOCAL_MACHINE, base.Path() + L"\\" + key, name, v);
    };
    std::wstring s[3];
    for (int i = 0; i < 3; ++i) {
        s[i] = dir.File(L"Pol\\Scripts\\Startup\\s" + std::to_wstring(i));
        set(L"Scripts\\Startup\\0\\" + std::to_wstring(i), L"s" + std::to_wstring(i), L"Script");
    }
    set(L"Scripts\\Startup\\0", pol, L"FileSysPath");
    set(L"Scripts\\Startup\\1", L"", L"FileSysPath");
    const std::wstring solo = dir.File(L"solo.cmd"), open = dir.File(L"open.exe"), edit = dir.File(L"edit.exe"),
                       lng = dir.File(L"long.exe"), menu = dir.File(L"menu.dll"), exe = dir.File(L"tool.exe"), comp = dir.File(L"comp.dll");
    set(L"cls\\shell\\open\\command", L"\"" + open + L"\" \"%1\"");
    set(L"cls\\shell\\Edit\\command", edit);
    kwtest::RegSetDword(HKEY_LOCAL_MACHINE, base.Path() + L"\\cls\\shell\\num\\command", L"", 1);
    std::wstring cmd[3];  // 1022, 1023, 1024 characters: 2046, 2048, 2050 bytes with the NUL
    for (int i = 0; i < 3; ++i) {
        cmd[i] = lng + L" " + std::wstring(1022 + i - lng.size() - 5, L'a') + L" END";
        set(L"cls\\shell\\n" + std::to_wstring(i) + L"\\command", cmd[i]);
    }
    const std::wstring clsid = kwtest::FreshClsid();
    kwtest::ClassRegistration component(HKEY_LOCAL_MACHINE, L"Software\\Classes\\CLSID\\" + clsid, KEY_WOW64_64KEY);
    component.SetServer(L"InprocServer32", comp);
    const std::wstring comps = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest-comp\\", cls = m + L"cls\\shell";
    const std::wstring ext = L"\\Software\\Microsoft\\Internet Explorer\\MenuExt\\&Send", user = L"HKEY_USERS\\";
    const std::wstring mine = user + kwtest::CurrentUserSid() + ext;
    const std::wstring pad = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\" + std::wstring(239, L'k');  // "Startup" at 249

    // A key created (op 1) or a value set (op 6) by process `pid` (0: this one), the targets, the result code and a
    // fragment some trace line must hold.
    const struct { const char* name; uint32_t parseId, op; std::wstring key, value, data; std::vector<std::wstring> targets; int ret;
                   std::wstring trace; uint32_t pid; } rows[] = {
        {"policy folder: one file per script key", 203, 6, m + L"Scripts\\Startup\\0", L"FileSysPath", pol, {s[0], s[1], s[2]}, 0},
        {"script of a policy with a folder", 203, 6, m + L"Scripts\\Startup\\0\\1", L"script", L"s1", {s[1]}, 0},
        {"script of a policy without folder", 203, 6, m + L"Scripts\\Startup\\1\\0", L"Script", solo, {solo}, 0},
        {"policy key ends at the 259th character", 203, 6, pad + L"\\Startup\\0\\0", L"Script", solo, {solo}, 0},
        {"policy key ends at the 260th character", 203, 6, pad + L"x\\Startup\\0\\0", L"Script", solo, {}, 3},
        {"component named by a CLSID and more", 202, 1, comps + clsid + L"xyz", L"", L"", {comp}, 0},
        {"rule key not followed by '\\'", 202, 1, comps.substr(0, comps.size() - 1) + L"X\\" + clsid, L"", L"", {}, 3},
        {"stub path with a program", 202, 6, comps + clsid, L"StubPath", L"\"" + exe + L"\" /i", {exe}, 0,
         L"Start AnalyzRegvalueAsFilePath FunctionID=5"},
        {"empty stub path", 202, 6, comps + clsid, L"StubPath", L"", {}, 3},
        {"menu entry names a resource", 217, 6, mine, L"", L"res://" + menu + L"/201", {menu}, 0},
        {"menu entry names a web page", 217, 6, mine, L"", L"http://a.test/x.htm", {}, 0},
        {"menu entry of only the scheme", 217, 6, mine, L"", L"res://", {}, 0},
        {"no SID: any ordinary user", 217, 6, user + L"S-1-5-21-7-8-9-1001" + ext, L"", L"res://" + menu, {menu}, 0, L"", kNoSid},
        {"no SID: service account", 217, 6, user + L"S-1-5-18" + ext, L"", L"res://" + menu, {}, 3, L"", kNoSid},
        {"empty default verb runs open", 218, 6, cls, L"", L"", {open}, 0},
        {"named verb, other case", 218, 6, cls, L"", L"edit", {edit}, 0},
        {"command of the wrong type", 218, 6, cls, L"", L"num", {}, 4},
        {"command of 2046 bytes", 218, 6, cls, L"", L"n0", {lng}, 0, L"cmdline=" + cmd[0]},
        {"command of 2048 bytes", 218, 6, cls, L"", L"n1", {lng}, 0, L"cmdline=" + cmd[1]},
        {"command of 2050 bytes", 218, 6, cls, L"", L"n2", {lng}, 0, L"cmdline=" + cmd[2]},
        {"toolbar program, lower-case name", 222, 6, m, L"exec", exe, {exe}, 0},
        {"toolbar class", 222, 6, m, L"CLSID", L"{00000000-6B77-7465-7374-000000000022}", {}, kAnyRet,
         L"Start AnalyzRegValueAsCLSID FunctionID=4"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        Host().Engine().ClearLines();
        EXPECT_EQ(Targets(r.targets), PostValue(r.op, r.key, r.op == 6 ? r.value.c_str() : nullptr, REG_SZ, r.data, r.parseId, 0, r.pid));
        EXPECT_TRUE(r.ret == kAnyRet || Host().Engine().HasLine(L"||ret:" + std::to_wstring(r.ret)));
        EXPECT_TRUE(r.trace.empty() || Host().Engine().HasLine(r.trace));
    }
}
