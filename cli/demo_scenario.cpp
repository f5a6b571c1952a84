// The demo: plants a handful of real-looking autorun registrations with their
// files, sends each registry write through the plug-in as the monitor would
// report it, and prints what went in and which files came back.
#include "host_sim.h"

#include <sddl.h>
#include <shellapi.h>
#include <shlobj.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace hostsim;

namespace {

struct Registration {
    const wchar_t* what;      // a short description
    std::wstring hive;        // "HKLM" or "HKU\<sid>", for the printout
    HKEY root;
    std::wstring key;         // below root
    std::wstring valueName;
    DWORD type;
    std::wstring data;
    std::wstring previous;    // data before the write (empty: none)
    REGSAM view;
    uint32_t parseId;
    std::vector<std::wstring> files;  // files planted for it
};

std::wstring Env(const wchar_t* name) {
    wchar_t buf[MAX_PATH] = {0};
    GetEnvironmentVariableW(name, buf, MAX_PATH);
    return buf;
}

std::wstring WinDir() {
    wchar_t buf[MAX_PATH] = {0};
    GetSystemWindowsDirectoryW(buf, MAX_PATH);
    return buf;
}

std::wstring UserSid() {
    HANDLE tok = nullptr;
    std::wstring out;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &tok)) return out;
    BYTE buf[512];
    DWORD cb = 0;
    if (GetTokenInformation(tok, TokenUser, buf, sizeof(buf), &cb)) {
        LPWSTR s = nullptr;
        if (ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buf)->User.Sid, &s)) {
            out = s;
            LocalFree(s);
        }
    }
    CloseHandle(tok);
    return out;
}

void Plant(const std::wstring& path) {
    SHCreateDirectoryExW(nullptr, path.substr(0, path.find_last_of(L'\\')).c_str(), nullptr);
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
}

bool SetValue(HKEY root, const std::wstring& key, const std::wstring& name, DWORD type,
              const std::wstring& data, REGSAM view) {
    HKEY h = nullptr;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_SET_VALUE | view, nullptr, &h, nullptr) != 0)
        return false;
    LONG r = RegSetValueExW(h, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.c_str()),
                            static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(h);
    return r == 0;
}

}  // namespace

int RunDemo(PluginHost& host) {
    const std::wstring pf = L"C:\\Program Files\\Demo Vendor";
    const std::wstring sys = WinDir() + L"\\System32";
    const std::wstring sid = UserSid();
    const std::wstring run = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
    const std::wstring userRun = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
    const std::wstring winlogon = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
    const std::wstring localApp = Env(L"LOCALAPPDATA").empty() ? Env(L"TEMP") : Env(L"LOCALAPPDATA");

    std::vector<Registration> regs = {
        {L"quoted path with spaces and an option", L"HKLM", HKEY_LOCAL_MACHINE, run, L"SomeApp", REG_SZ,
         L"\"" + pf + L"\\Some App\\app.exe\" -silent", L"", KEY_WOW64_64KEY, 101, {pf + L"\\Some App\\app.exe"}},
        {L"unquoted path with spaces and an option", L"HKLM", HKEY_LOCAL_MACHINE, run, L"Updater", REG_SZ,
         pf + L"\\Updater\\update.exe /background", L"", KEY_WOW64_64KEY, 101, {pf + L"\\Updater\\update.exe"}},
        {L"environment token (REG_EXPAND_SZ)", L"HKLM", HKEY_LOCAL_MACHINE, run, L"Tray", REG_EXPAND_SZ,
         L"%ProgramFiles%\\Demo Vendor\\Tray\\tray.exe", L"", KEY_WOW64_64KEY, 101, {pf + L"\\Tray\\tray.exe"}},
        {L"rundll32 with a DLL and a control panel item", L"HKLM", HKEY_LOCAL_MACHINE, run, L"Panel", REG_SZ,
         L"rundll32.exe demohelper.dll,Control_RunDLL demopanel.cpl", L"", KEY_WOW64_64KEY, 101,
         {sys + L"\\demohelper.dll", sys + L"\\demopanel.cpl"}},
        {L"service host with a group name", L"HKLM", HKEY_LOCAL_MACHINE, run, L"Host", REG_EXPAND_SZ,
         L"%SystemRoot%\\system32\\svchost.exe -k netsvcs", L"", KEY_WOW64_64KEY, 101, {}},
        {L"per-user Run value", L"HKU\\" + sid, HKEY_USERS, sid + L"\\" + userRun, L"Agent", REG_SZ,
         localApp + L"\\Demo\\agent.exe --autostart", L"", KEY_WOW64_64KEY, 102, {localApp + L"\\Demo\\agent.exe"}},
        {L"Winlogon Userinit list: only the new entry", L"HKLM", HKEY_LOCAL_MACHINE, winlogon, L"Userinit", REG_SZ,
         sys + L"\\userinit.exe,C:\\ProgramData\\Demo\\helper.exe,", sys + L"\\userinit.exe,", KEY_WOW64_64KEY, 103,
         {L"C:\\ProgramData\\Demo\\helper.exe"}},
        {L"32-bit Run key, bare name found in the 32-bit system folder", L"HKLM",
         HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run", L"Legacy", REG_SZ,
         L"legacy32.exe", L"", KEY_WOW64_64KEY, 104, {WinDir() + L"\\SysWOW64\\legacy32.exe"}},
        {L"a file that does not exist", L"HKLM", HKEY_LOCAL_MACHINE, run, L"Gone", REG_SZ,
         L"C:\\Program Files\\Removed App\\gone.exe", L"", KEY_WOW64_64KEY, 101, {}},
    };

    printf("\nPlanted registrations and the deep-scan targets the plug-in handed back:\n");
    int n = 0;
    for (Registration& r : regs) {
        // Files in the 64-bit system folder are written through Sysnative.
        for (const auto& f : r.files) {
            std::wstring path = f;
            if (path.compare(0, sys.size(), sys) == 0) path = WinDir() + L"\\Sysnative" + path.substr(sys.size());
            Plant(path);
        }
        if (!r.previous.empty()) SetValue(r.root, r.key, r.valueName, r.type, r.previous, r.view);

        // The event as the monitor reports it: the long root name and the full key.
        std::wstring keyPath = (r.root == HKEY_USERS ? L"HKEY_USERS\\" : L"HKEY_LOCAL_MACHINE\\") + r.key;
        std::unique_ptr<Event> ev(Event::RegistrySz(keyPath, r.valueName, r.data, r.type));
        std::vector<std::wstring> targets = host.PostRegistry(*ev, (2u << 16) | r.parseId);
        SetValue(r.root, r.key, r.valueName, r.type, r.data, r.view);

        std::wstring shownKey = r.root == HKEY_USERS ? r.key.substr(sid.size() + 1) : r.key;
        printf("\n[%d] %ls\n    %ls\\%ls\n    value \"%ls\": %ls\n", ++n, r.what, r.hive.c_str(), shownKey.c_str(),
               r.valueName.c_str(), r.data.c_str());
        if (targets.empty()) printf("    -> (no target)\n");
        for (const auto& t : targets) printf("    -> %ls\n", t.c_str());
        printf("    key path handed back to the host: %ls\n", ev->Req().KeyPath);
    }
    size_t errors = 0;
    for (const auto& l : host.Engine().Lines())
        if (l.level == 31) ++errors;
    printf("\n%u trace lines received by the host (%u errors).\n",
           static_cast<unsigned>(host.Engine().LineCount()), static_cast<unsigned>(errors));
    host.Plugin()->UnInit();
    host.Release();
    return 0;
}
