// The demo: plants one realistic autorun registration for every analyzer in
// this prefix (with the files they start, one left missing on purpose, a
// 32-bit and a per-user registration, a shortcut in the start-up folder and
// an autorun file at the drive's root), then scans the prefix.
#include "kwhost.h"

#include <objbase.h>
#include <shlobj.h>

namespace kwhost {

namespace {

std::wstring WinDir() {
    wchar_t buf[MAX_PATH] = {0};
    GetSystemWindowsDirectoryW(buf, MAX_PATH);
    return buf;
}

// Files under System32 are written through Sysnative: the 64-bit folder.
void Plant(std::wstring path) {
    const std::wstring sys = WinDir() + L"\\System32\\";
    if (_wcsnicmp(path.c_str(), sys.c_str(), sys.size()) == 0) path = WinDir() + L"\\Sysnative\\" + path.substr(sys.size());
    SHCreateDirectoryExW(nullptr, path.substr(0, path.find_last_of(L'\\')).c_str(), nullptr);
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
}

void Set(HKEY root, const std::wstring& key, const std::wstring& name, DWORD type, const std::wstring& data,
         REGSAM view = KEY_WOW64_64KEY) {
    HKEY h = nullptr;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_SET_VALUE | view, nullptr, &h, nullptr) != 0) return;
    std::wstring d = data;
    if (type == REG_MULTI_SZ) d.push_back(L'\0');  // the list's final NUL
    RegSetValueExW(h, name.empty() ? nullptr : name.c_str(), 0, type, reinterpret_cast<const BYTE*>(d.c_str()),
                   static_cast<DWORD>((d.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(h);
}

void MakeShortcut(const std::wstring& lnk, const std::wstring& target) {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    IShellLinkW* link = nullptr;
    if (SUCCEEDED(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                   reinterpret_cast<void**>(&link)))) {
        link->SetPath(target.c_str());
        IPersistFile* file = nullptr;
        if (SUCCEEDED(link->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&file)))) {
            file->Save(lnk.c_str(), TRUE);
            file->Release();
        }
        link->Release();
    }
    CoUninitialize();
}

}  // namespace

int CmdDemo(int argc, wchar_t** argv) {
    const std::wstring pf = L"C:\\Program Files\\Demo Vendor";
    const std::wstring sys = WinDir() + L"\\System32";
    const std::wstring sid = SidOfProcess(GetCurrentProcess());
    const HKEY M = HKEY_LOCAL_MACHINE;
    const std::wstring cv = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
    const std::wstring ccs = L"SYSTEM\\CurrentControlSet";
    const std::wstring clsidA = L"{D3E0A1B2-0001-4D5E-9A6B-7C8D9E0F1A2B}";  // 64-bit shell and browser add-ons
    const std::wstring clsidB = L"{D3E0A1B2-0002-4D5E-9A6B-7C8D9E0F1A2B}";  // registered for 32-bit only
    const std::wstring user = sid + L"\\Software\\Microsoft";

    printf("Planting demo registrations and their files...\n");
    for (const wchar_t* f :
         {L"\\Some App\\app.exe", L"\\Updater\\update.exe", L"\\Tray\\tray.exe", L"\\Shell\\demoext.dll",
          L"\\Shell\\demosrv.exe", L"\\Agent\\agent.exe", L"\\Setup\\stub.exe", L"\\Menu\\menu.dll",
          L"\\Toolbar\\button.exe", L"\\Compat\\legacy.exe", L"\\Assoc\\runner.exe", L"\\Service\\demosvc.exe"})
        Plant(pf + f);
    for (const wchar_t* f : {L"\\demohelper.dll", L"\\demopanel.cpl", L"\\demolsa.dll", L"\\demoknown.dll",
                             L"\\demoboot.exe", L"\\drivers\\demodrv.sys", L"\\demosvchost.dll"})
        Plant(sys + f);
    Plant(WinDir() + L"\\SysWOW64\\legacy32.exe");
    Plant(WinDir() + L"\\SysWOW64\\demoext32.dll");
    Plant(L"C:\\ProgramData\\Demo\\helper.exe");
    Plant(L"C:\\Windows\\System32\\GroupPolicy\\Machine\\Scripts\\Startup\\demo-start.cmd");
    Plant(L"C:\\demo-autorun\\setup.exe");

    // Run keys: quoted, unquoted with spaces, environment token, rundll32,
    // 32-bit view, per user, and a file that does not exist.
    Set(M, cv + L"\\Run", L"SomeApp", REG_SZ, L"\"" + pf + L"\\Some App\\app.exe\" -silent");
    Set(M, cv + L"\\Run", L"Updater", REG_SZ, pf + L"\\Updater\\update.exe /background");
    Set(M, cv + L"\\Run", L"Tray", REG_EXPAND_SZ, L"%ProgramFiles%\\Demo Vendor\\Tray\\tray.exe");
    Set(M, cv + L"\\Run", L"Panel", REG_SZ, L"rundll32.exe demohelper.dll,Control_RunDLL demopanel.cpl");
    Set(M, cv + L"\\Run", L"Gone", REG_SZ, L"C:\\Program Files\\Removed App\\gone.exe");
    Set(M, L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run", L"Legacy", REG_SZ, L"legacy32.exe");
    Set(HKEY_USERS, user + L"\\Windows\\CurrentVersion\\Run", L"Agent", REG_SZ, pf + L"\\Agent\\agent.exe --autostart");
    // 1: Winlogon's Userinit list; 19: the command processor's AutoRun.
    Set(M, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon", L"Userinit", REG_SZ,
        sys + L"\\userinit.exe,C:\\ProgramData\\Demo\\helper.exe,");
    Set(M, L"SOFTWARE\\Microsoft\\Command Processor", L"AutoRun", REG_SZ,
        L"\"" + pf + L"\\Tray\\tray.exe\" /quiet|\"" + pf + L"\\Updater\\update.exe\"");
    // 2: an installed component's stub; 3: a start-up script.
    Set(M, L"SOFTWARE\\Microsoft\\Active Setup\\Installed Components\\" + clsidA, L"StubPath", REG_SZ,
        L"\"" + pf + L"\\Setup\\stub.exe\" /install");
    Set(M, cv + L"\\Group Policy\\Scripts\\Startup\\0", L"FileSysPath", REG_SZ,
        L"C:\\Windows\\System32\\GroupPolicy\\Machine");
    Set(M, cv + L"\\Group Policy\\Scripts\\Startup\\0\\0", L"Script", REG_SZ, L"demo-start.cmd");
    // COM: a class with an in-process and a local server, and one registered
    // for 32-bit processes only.
    Set(M, L"SOFTWARE\\Classes\\CLSID\\" + clsidA + L"\\InprocServer32", L"", REG_SZ, pf + L"\\Shell\\demoext.dll");
    Set(M, L"SOFTWARE\\Classes\\CLSID\\" + clsidA + L"\\LocalServer32", L"", REG_SZ, L"\"" + pf + L"\\Shell\\demosrv.exe\" -Embedding");
    Set(M, L"SOFTWARE\\Classes\\Wow6432Node\\CLSID\\" + clsidB + L"\\InprocServer32", L"", REG_SZ,
        WinDir() + L"\\SysWOW64\\demoext32.dll");
    Set(M, cv + L"\\ShellServiceObjectDelayLoad", L"DemoLoader", REG_SZ, clsidA);               // 4
    Set(M, cv + L"\\Explorer\\ShellExecuteHooks", clsidA, REG_SZ, L"Demo hook");                 // 7
    Set(M, L"SOFTWARE\\Classes\\Directory\\shellex\\ContextMenuHandlers\\DemoMenu", L"", REG_SZ, clsidA);  // 8
    Set(M, L"SOFTWARE\\Classes\\*\\shellex\\ContextMenuHandlers\\DemoAll", L"", REG_SZ, clsidA);  // 9
    Set(M, L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Browser Helper Objects\\" + clsidB,
        L"", REG_SZ, L"");                                                                          // 10
    Set(M, cv + L"\\Explorer\\Browser Helper Objects\\" + clsidA, L"", REG_SZ, L"");                // 11
    // 12: a service image and a driver key without one; 13: boot-execute;
    // 14: an LSA package; 21: a known DLL.
    Set(M, ccs + L"\\Services\\DemoSvc", L"ImagePath", REG_EXPAND_SZ,
        L"\"" + pf + L"\\Service\\demosvc.exe\" -service");
    Set(M, ccs + L"\\Services\\DemoHost\\Parameters", L"ServiceDll", REG_EXPAND_SZ, L"%SystemRoot%\\System32\\demosvchost.dll");
    Set(M, ccs + L"\\Services\\demodrv", L"Type", REG_SZ, L"kernel driver");
    Set(M, ccs + L"\\Control\\Session Manager", L"BootExecute", REG_MULTI_SZ,
        std::wstring(L"autocheck autochk *") + L'\0' + L"demoboot");
    Set(M, ccs + L"\\Control\\Lsa", L"Notification Packages", REG_MULTI_SZ, std::wstring(L"scecli") + L'\0' + L"demolsa");
    Set(M, ccs + L"\\Control\\Session Manager\\KnownDLLs", L"demoknown", REG_SZ, L"demoknown");
    // 15 and 18: the open command of a script class and a class's default verb.
    Set(M, L"SOFTWARE\\Classes\\JSFile\\shell\\open\\command", L"", REG_SZ, L"\"" + pf + L"\\Assoc\\runner.exe\" \"%1\"");
    Set(M, L"SOFTWARE\\Classes\\cmdfile\\shell", L"", REG_SZ, L"demo");
    Set(M, L"SOFTWARE\\Classes\\cmdfile\\shell\\demo\\command", L"", REG_SZ, L"\"" + pf + L"\\Assoc\\runner.exe\" /c \"%1\"");
    // 17 and 22: browser menu and toolbar extensions; 20: a compatibility layer.
    Set(HKEY_USERS, user + L"\\Internet Explorer\\MenuExt\\Demo Menu", L"", REG_SZ, L"res://" + pf + L"\\Menu\\menu.dll/201");
    Set(M, L"SOFTWARE\\Microsoft\\Internet Explorer\\Extensions\\" + clsidA, L"Exec", REG_SZ, pf + L"\\Toolbar\\button.exe");
    Set(M, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\AppCompatFlags\\Layers", pf + L"\\Compat\\legacy.exe",
        REG_SZ, L"RUNASADMIN");
    // 6: a shortcut in the common start-up folder; 16: an autorun file at the drive's root.
    for (const std::wstring& folder : Scanner::StartupFolders()) {
        SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
        MakeShortcut(folder + L"\\Demo Agent.lnk", pf + L"\\Agent\\agent.exe");
        break;
    }
    HANDLE inf = CreateFileW(L"C:\\autorun.inf", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (inf != INVALID_HANDLE_VALUE) {
        const char text[] = "[autorun]\r\nopen=demo-autorun\\setup.exe\r\nicon=setup.exe,0\r\n";
        DWORD n = 0;
        WriteFile(inf, text, sizeof(text) - 1, &n, nullptr);
        CloseHandle(inf);
    }

    printf("Scanning the prefix with the default rule set (kwhost scan):\n\n");
    fflush(stdout);
    wchar_t scan[] = L"scan";
    wchar_t* args[] = {argv[0], scan};
    (void)argc;
    return CmdScan(2, args);
}

}  // namespace kwhost
