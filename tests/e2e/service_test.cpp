// Services and drivers, boot-execute programs and known DLLs (FunctionIDs 12,
// 13 and 21) from a host registry event to the targets. Events carry the
// concrete control set, as the monitor reports them; the rules are written
// with CurrentControlSet, as the host's rule authors write them.
#include "e2e_support.h"
#include "support/control_set_select.h"
#include "support/saved_reg_value.h"

#include <gtest/gtest.h>

#include <memory>

using namespace e2e;
using hostsim::Event;
using kwtest::Upper;

namespace {

const std::wstring kCs = kwtest::ControlSetNameFromRegistry();
const std::wstring kPid = std::to_wstring(GetCurrentProcessId());

// Strings each followed by a NUL (the event adds the list's final NUL).
std::wstring Multi(const std::vector<std::wstring>& strings) {
    std::wstring s;
    for (const auto& x : strings) s += x + L'\0';
    return s;
}

}  // namespace

TEST(Service, ImagesDllsAndDriversFromTheServiceKey) {
    const std::wstring stem = L"kwsvc" + kPid, svc = L"HKEY_LOCAL_MACHINE\\SYSTEM\\" + kCs + L"\\Services\\" + stem;
    const std::wstring drivers = kwtest::WindowsDir() + L"\\Sysnative\\drivers\\", sys32 = kwtest::WindowsDir() + L"\\system32\\";
    const std::wstring driver = sys32 + L"drivers\\" + stem + L".sys", joined = sys32 + L"drivers\\" + stem + L"Parameters.sys";
    ASSERT_TRUE(kwtest::MakeFile(drivers + stem + L".sys") && kwtest::MakeFile(drivers + stem + L"Parameters.sys"));
    kwtest::TempDir dir;
    const std::wstring img = dir.File(L"img.sys"), dll = dir.File(L"svc.dll"), repaired = dir.File(L"repair.dll"),
                       loose = dir.File(L"repair.exe");
    const std::wstring exe = L"C:\\Program Files\\kwtest-" + kPid + L"\\Some App\\svc.exe";
    kwtest::MakeFile(exe);
    const std::wstring viaTemp = L"%TEMP%" + dir.Path().substr(kwtest::EnvText(L"TEMP").size());
    // Sub-keys of 258, 259 and 260 characters ending in "\Parameters": the
    // analyzer reads 259 of them.
    auto longKey = [&](size_t n) {
        return L"HKEY_LOCAL_MACHINE\\SYSTEM\\" + kCs + L"\\Services\\" + std::wstring(n - 17 - kCs.size() - 11, L's') +
               L"\\Parameters";
    };
    const struct { const char* name; uint32_t op; std::wstring key; const wchar_t* value; std::wstring data; uint32_t parseId;
                   std::wstring expected; } rows[] = {
        {"boot form", 6, svc, L"ImagePath", L"\\SystemRoot\\System32\\drivers\\" + stem + L".sys", 31, driver},
        {"relative system32 form", 6, svc, L"ImagePath", L"system32\\DRIVERS\\" + stem + L".sys", 31, driver},
        {"object-manager form", 6, svc, L"ImagePath", L"\\??\\" + img, 31, img},
        {"svchost group", 6, svc, L"ImagePath", L"%SystemRoot%\\system32\\svchost.exe -k netsvcs -p", 31, sys32 + L"svchost.exe"},
        {"unquoted Program Files image with argument", 6, svc, L"imagepath", exe + L" /run", 31, exe},
        {"empty ImagePath: the driver of that name", 6, svc, L"ImagePath", L"", 31, driver},
        {"new key: the driver of that name", 1, svc, nullptr, L"", 31, driver},
        {"new key below the service: names joined", 1, svc + L"\\Parameters", nullptr, L"", 31, joined},
        {"new key, no such driver", 1, svc + L"x", nullptr, L"", 31, L""},
        {"ServiceDll under Parameters", 6, svc + L"\\Parameters", L"ServiceDll", dll, 31, dll},
        {"ServiceDll under the service key", 6, svc, L"ServiceDll", dll, 31, L""},
        {"ServiceDll below Parameters", 6, svc + L"\\Parameters\\x", L"ServiceDll", dll, 31, L""},
        // Beside repair.exe, which a command line without extension would name.
        {"ServiceDll without extension, rule 76", 6, svc + L"\\parameters", L"ServiceDll", viaTemp + L"\\repair", 76, repaired},
        {"ServiceDll without extension, other rule", 6, svc + L"\\Parameters", L"ServiceDll", viaTemp + L"\\repair", 31, loose},
        {"another control set", 6, L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet009\\Services\\" + stem, L"ImagePath", img, 31, L""},
        {"sub-key of 258 characters", 6, longKey(258), L"ServiceDll", dll, 31, dll},
        {"sub-key of 259 characters", 6, longKey(259), L"ServiceDll", dll, 31, dll},
        {"sub-key of 260 characters", 6, longKey(260), L"ServiceDll", dll, 31, L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.expected.empty() ? Targets({}) : Targets({r.expected}),
                  PostValue(r.op, r.key, r.value, REG_EXPAND_SZ, r.data, r.parseId));
    }
    for (const wchar_t* file : {L".sys", L"Parameters.sys"}) DeleteFileW((drivers + stem + file).c_str());
    kwtest::RemoveTree(L"C:\\Program Files\\kwtest-" + kPid);

    std::unique_ptr<Event> ev(Event::RegistrySz(svc, L"Description", img));
    EXPECT_TRUE(Post(*ev, 31).empty());
    EXPECT_TRUE(Host().Engine().HasLine(L"[CAnalizyOperate::AnalyzServece] 注册表ValueName无效。ValueName必须是ImagePath或ServiceDll"));
    EXPECT_EQ(L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\" + stem, std::wstring(ev->Req().KeyPath));
}

TEST(BootExecute, OnlyAddedProgramsAreReported) {
    // The list before the change is read through CurrentControlSet (under
    // Wine a key of its own, not a link to the concrete set).
    const std::wstring current = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    const std::wstring key = L"SYSTEM\\" + kCs + L"\\Control\\Session Manager";
    kwtest::SavedRegValue saved(current, L"BootExecute");
    ASSERT_TRUE(kwtest::RegSetMulti(HKEY_LOCAL_MACHINE, current, L"BootExecute", {L"autocheck autochk *"}));
    kwtest::TempDir dir;
    const std::wstring tool = dir.File(L"tool.exe");
    const struct { const char* name; std::wstring data; uint32_t claimed; std::vector<std::wstring> expected; const wchar_t* ret; }
        rows[] = {
        {"a program next to the checker", Multi({L"autocheck autochk *", tool + L" /q"}), 0, {Upper(tool)}, L"||ret:0"},
        {"trailing star removed", Multi({L"autocheck autochk *", tool + L"*"}), 0, {Upper(tool)}, L"||ret:0"},
        {"the checker again, other case", Multi({L"AUTOCHECK AUTOCHK *"}), 0, {}, L"||ret:4"},
        {"no strings", Multi({}), 0, {}, L"||ret:4"},
        // 1,024 bytes without a final NUL, claiming 4,000: the record's last
        // two characters are zeroed, the rest of the second string is kept.
        {"data longer than the record", tool + std::wstring(1, L'\0') + std::wstring(600, L'x'), 4000,
         {Upper(tool), std::wstring(510 - tool.size() - 1, L'X')}, L"||ret:0"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        Host().Engine().ClearLines();
        EXPECT_EQ(r.expected, PostValue(6, L"HKEY_LOCAL_MACHINE\\" + key, L"BootExecute", REG_MULTI_SZ, r.data, 32, r.claimed));
        EXPECT_TRUE(Host().Engine().HasLine(r.ret));
    }
}

TEST(KnownDlls, NamesResolveInTheKnownDllDirectory) {
    const std::wstring key = L"SYSTEM\\" + kCs + L"\\Control\\Session Manager\\KnownDlls";
    kwtest::SavedRegValue saved(key, L"DllDirectory32");  // a 32-bit process on 64-bit Windows reads this one
    kwtest::TempDir dir;
    const std::wstring dll = dir.File(L"kwkd" + kPid + L".dll"), event = L"HKEY_LOCAL_MACHINE\\" + key;
    const std::wstring blanks = L"  %TEMP%" + dir.Path().substr(kwtest::EnvText(L"TEMP").size()) + L" \t";
    auto longDir = [](size_t n) { return L"C:\\" + std::wstring(n - 3, L'd'); };
    // The known-DLL directory (and its type), the event's key, value name and data, the one target or none.
    const struct { const char* name; std::wstring directory; DWORD type; std::wstring key; const wchar_t* value; std::wstring data;
                   std::wstring expected; } rows[] = {
        {"name without extension: its .dll", blanks, REG_EXPAND_SZ, event, L"kw", L"kwkd" + kPid, dll},
        {"name as written when it exists", blanks, REG_EXPAND_SZ, event, L"kw", L"kwkd" + kPid + L".dll", dll},
        {"neither exists: as written", blanks, REG_EXPAND_SZ, event, L"kw", L"gone", dir.Path() + L"\\gone"},
        {"kernel path, key in upper case", blanks, REG_SZ, L"\\REGISTRY\\MACHINE\\" + Upper(key), L"kw", L"kwkd" + kPid, dll},
        {"a key below KnownDlls", blanks, REG_SZ, event + L"\\Sub", L"kw", L"kwkd" + kPid, L""},
        {"DllDirectory", blanks, REG_SZ, event, L"DllDirectory", dir.Path(), L""},
        {"DllDirectory32, other case", blanks, REG_SZ, event, L"dlldirectory32", dir.Path(), L""},
        {"directory of 521 characters", longDir(521), REG_SZ, event, L"kw", L"foo", longDir(521) + L"\\foo"},
        {"directory of 522 characters: cut", longDir(522), REG_SZ, event, L"kw", L"foo", longDir(521) + L"\\foo"},
        {"directory value of another type", L"", REG_DWORD, event, L"kw", L"foo", L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(kwtest::RegSetRaw(HKEY_LOCAL_MACHINE, key, L"DllDirectory32", r.type, r.directory.c_str(),
                                      r.type == REG_DWORD ? 4 : static_cast<DWORD>((r.directory.size() + 1) * 2)));
        EXPECT_EQ(r.expected.empty() ? Targets({}) : Targets({r.expected}), PostValue(6, r.key, r.value, REG_SZ, r.data, 33));
    }
}
