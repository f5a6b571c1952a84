// A second user of this machine, made up for a test: a ProfileList entry for a
// SID unique to the test run, a profile folder under a TempDir and either a
// real hive file ("NTUSER.dat", written with RegSaveKeyW from a temporary key,
// plus the class hive "UsrClass.dat") or keys made directly under
// HKEY_USERS\<SID> (a hive that is "already loaded"). Everything is removed on
// scope exit: the ProfileList entry, a hive still loaded under the SID, the
// HKEY_USERS keys, the files. Header-only.
#pragma once
#include "support/fixtures.h"

#include <windows.h>

#include <atomic>
#include <string>

namespace kwtest {

class SecondUserProfile {
public:
    enum class Hive { File, KeysUnderUsers, None };

    static constexpr const wchar_t* kProfileList =
        L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
    static constexpr const wchar_t* kShellFolders =
        L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";

    explicit SecondUserProfile(Hive hive = Hive::File) : m_dir(L"kwuser"), m_hive(hive) {
        static std::atomic<unsigned> counter{0};
        m_sid = L"S-1-5-21-1111-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                std::to_wstring(++counter) + L"-1001";
        m_profile = m_dir.Dir(L"Profile");
        m_ready = Build();
    }

    ~SecondUserProfile() {
        RegDeleteTreeView(HKEY_LOCAL_MACHINE, std::wstring(kProfileList) + L"\\" + m_sid);
        if (m_hive == Hive::KeysUnderUsers) {
            RegDeleteTreeView(HKEY_USERS, m_sid);
        } else {
            UnloadIfLoaded(m_sid + L"_Classes");
            UnloadIfLoaded(m_sid);
        }
    }

    SecondUserProfile(const SecondUserProfile&) = delete;
    SecondUserProfile& operator=(const SecondUserProfile&) = delete;

    bool Ready() const { return m_ready; }
    const std::wstring& Error() const { return m_error; }
    const std::wstring& Sid() const { return m_sid; }
    const std::wstring& Profile() const { return m_profile; }
    std::wstring Temp() const { return m_profile + L"\\AppData\\Local\\Temp"; }
    std::wstring AppData() const { return m_profile + L"\\AppData\\Roaming"; }
    std::wstring Desktop() const { return m_profile + L"\\Desktop"; }
    // A variable of 300 characters, longer than any answer buffer.
    static std::wstring LongValue() { return std::wstring(300, L'v'); }

    static bool IsLoaded(const std::wstring& name) { return RegKeyExists(HKEY_USERS, name); }

    // Enables a privilege on the process token (left enabled: tests only).
    static bool EnablePrivilege(const wchar_t* name) {
        HANDLE token = nullptr;
        if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token))
            return false;
        TOKEN_PRIVILEGES tp{};
        tp.PrivilegeCount = 1;
        tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
        bool ok = LookupPrivilegeValueW(nullptr, name, &tp.Privileges[0].Luid) &&
                  AdjustTokenPrivileges(token, FALSE, &tp, sizeof(tp), nullptr, nullptr) &&
                  GetLastError() == ERROR_SUCCESS;
        CloseHandle(token);
        return ok;
    }

    static void UnloadIfLoaded(const std::wstring& name) {
        if (!IsLoaded(name)) return;
        EnablePrivilege(SE_RESTORE_NAME);
        EnablePrivilege(SE_BACKUP_NAME);
        RegUnLoadKeyW(HKEY_USERS, name.c_str());
    }

private:
    bool Fail(const std::wstring& what) {
        m_error = what;
        return false;
    }

    // Writes the user's keys below root\base (a temporary key or HKEY_USERS\<SID>).
    bool WriteUserKeys(HKEY root, const std::wstring& base) {
        const std::wstring env = base + L"\\Environment";
        const std::wstring folders = base + L"\\" + kShellFolders;
        const std::wstring p = L"%USERPROFILE%";
        auto expandSz = [&](const std::wstring& key, const wchar_t* name, const std::wstring& v) {
            return RegSetSz(root, key, name, v, KEY_WOW64_64KEY, REG_EXPAND_SZ);
        };
        return expandSz(env, L"TEMP", p + L"\\AppData\\Local\\Temp") &&
               expandSz(env, L"TMP", p + L"\\AppData\\Local\\Temp") &&
               expandSz(env, L"KwSystemVar", L"%SystemRoot%\\kw") &&
               RegSetSz(root, env, L"KwPlainVar", p + L"\\plain", KEY_WOW64_64KEY, REG_SZ) &&
               RegSetSz(root, env, L"KwLongVar", LongValue()) &&
               RegSetDword(root, env, L"KwDwordVar", 7) &&
               expandSz(folders, L"AppData", p + L"\\AppData\\Roaming") &&
               expandSz(folders, L"Local AppData", p + L"\\AppData\\Local") &&
               expandSz(folders, L"Desktop", p + L"\\Desktop") &&
               expandSz(folders, L"Personal", p + L"\\Documents");
    }

    static bool SaveKey(const std::wstring& keyPath, const std::wstring& file) {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, keyPath.c_str(), 0, KEY_READ | KEY_WOW64_64KEY,
                          &key) != ERROR_SUCCESS)
            return false;
        EnablePrivilege(SE_BACKUP_NAME);
        LONG rc = RegSaveKeyW(key, file.c_str(), nullptr);
        RegCloseKey(key);
        return rc == ERROR_SUCCESS;
    }

    bool Build() {
        if (m_profile.empty()) return Fail(L"no profile folder");
        if (m_hive == Hive::File) {
            TempRegKey user(HKEY_CURRENT_USER, L"Software");
            if (!WriteUserKeys(HKEY_CURRENT_USER, user.Path())) return Fail(L"user keys");
            if (!SaveKey(user.Path(), m_profile + L"\\NTUSER.dat")) return Fail(L"NTUSER.dat");
            TempRegKey classes(HKEY_CURRENT_USER, L"Software");
            if (!RegSetSz(HKEY_CURRENT_USER, classes.Path() + L"\\KwClassMarker", L"", L"x"))
                return Fail(L"class keys");
            m_dir.Dir(L"Profile\\AppData\\Local\\Microsoft\\Windows");
            if (!SaveKey(classes.Path(),
                         m_profile + L"\\AppData\\Local\\Microsoft\\Windows\\UsrClass.dat"))
                return Fail(L"UsrClass.dat");
        } else if (m_hive == Hive::KeysUnderUsers) {
            if (!WriteUserKeys(HKEY_USERS, m_sid)) return Fail(L"keys under HKEY_USERS");
        }
        // The profile path as the system writes it: REG_EXPAND_SZ on %SystemDrive%.
        std::wstring image = m_profile;
        wchar_t drive[8] = {0};
        if (GetEnvironmentVariableW(L"SystemDrive", drive, 8) == 2 && image.size() > 2 &&
            Upper(image.substr(0, 2)) == Upper(drive))
            image = L"%SystemDrive%" + image.substr(2);
        if (!RegSetSz(HKEY_LOCAL_MACHINE, std::wstring(kProfileList) + L"\\" + m_sid,
                      L"ProfileImagePath", image, KEY_WOW64_64KEY, REG_EXPAND_SZ))
            return Fail(L"ProfileList entry");
        return true;
    }

    TempDir m_dir;
    Hive m_hive;
    std::wstring m_sid;
    std::wstring m_profile;
    std::wstring m_error;
    bool m_ready = false;
};

}  // namespace kwtest
