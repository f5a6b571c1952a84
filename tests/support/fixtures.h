// Registry and file fixtures: each creates its own keys and folders under a
// name unique to the test run and removes them afterwards.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace kwtest {

// A registry key created under `root` (in the given view) at a unique path
// "<base>\kwtest-<pid>-<counter>", deleted with everything below it on scope exit.
class TempRegKey {
public:
    TempRegKey(HKEY root, const std::wstring& base, REGSAM view = KEY_WOW64_64KEY);
    ~TempRegKey();
    TempRegKey(const TempRegKey&) = delete;
    TempRegKey& operator=(const TempRegKey&) = delete;

    const std::wstring& Path() const { return m_path; }  // below root
    HKEY Root() const { return m_root; }
    REGSAM View() const { return m_view; }

private:
    HKEY m_root;
    REGSAM m_view;
    std::wstring m_path;
};

// Registry writes for fixtures (explicit view each time). Return true on success.
bool RegSetSz(HKEY root, const std::wstring& key, const std::wstring& name,
              const std::wstring& value, REGSAM view = KEY_WOW64_64KEY, DWORD type = REG_SZ);
bool RegSetRaw(HKEY root, const std::wstring& key, const std::wstring& name, DWORD type,
               const void* data, DWORD cb, REGSAM view = KEY_WOW64_64KEY);
bool RegSetDword(HKEY root, const std::wstring& key, const std::wstring& name, DWORD value,
                 REGSAM view = KEY_WOW64_64KEY);
bool RegSetMulti(HKEY root, const std::wstring& key, const std::wstring& name,
                 const std::vector<std::wstring>& values, REGSAM view = KEY_WOW64_64KEY);
bool RegCreate(HKEY root, const std::wstring& key, REGSAM view = KEY_WOW64_64KEY);
bool RegKeyExists(HKEY root, const std::wstring& key, REGSAM view = KEY_WOW64_64KEY);
bool RegDeleteTreeView(HKEY root, const std::wstring& key, REGSAM view = KEY_WOW64_64KEY);
bool RegGetDword(HKEY root, const std::wstring& key, const std::wstring& name, DWORD* out,
                 REGSAM view = KEY_WOW64_64KEY);

// A folder created under the Windows temp folder with a unique name, removed
// with its content on scope exit. Paths are native (C:\...).
class TempDir {
public:
    explicit TempDir(const std::wstring& hint = L"kwtest");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::wstring& Path() const { return m_path; }
    // Creates a file (and its folders) below the folder; returns its full path.
    std::wstring File(const std::wstring& relative, const std::string& content = "x");
    std::wstring Dir(const std::wstring& relative);

private:
    std::wstring m_path;
};

// Creates a file at an absolute path (folders included). True on success.
bool MakeFile(const std::wstring& path, const std::string& content = "x");
bool RemoveTree(const std::wstring& path);

// The SID text of this process's user.
std::wstring CurrentUserSid();
std::wstring WindowsDir();
std::wstring Upper(std::wstring s);

// Under Wine, the local folder that the UNC host \\<host> stands for (the
// prefix's dosdevices\unc\<host>): files made there exist for a program that
// does ask the share. Empty when not under Wine. The caller removes it.
std::wstring WineUncHostFolder(const std::wstring& host);

}  // namespace kwtest
