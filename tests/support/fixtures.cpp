#include "support/fixtures.h"

#include <sddl.h>
#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <atomic>

namespace kwtest {

namespace {
std::atomic<unsigned> g_counter{0};

std::wstring UniqueName(const std::wstring& hint) {
    return hint + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(GetTickCount()) + L"-" + std::to_wstring(++g_counter);
}

HKEY OpenKey(HKEY root, const std::wstring& key, REGSAM view, bool create) {
    HKEY h = nullptr;
    LONG r = create ? RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view,
                                      nullptr, &h, nullptr)
                    : RegOpenKeyExW(root, key.c_str(), 0, KEY_ALL_ACCESS | view, &h);
    return r == ERROR_SUCCESS ? h : nullptr;
}
}  // namespace

TempRegKey::TempRegKey(HKEY root, const std::wstring& base, REGSAM view)
    : m_root(root), m_view(view) {
    m_path = (base.empty() ? std::wstring() : base + L"\\") + UniqueName(L"kwtest");
    RegCreate(root, m_path, view);
}

TempRegKey::~TempRegKey() { RegDeleteTreeView(m_root, m_path, m_view); }

bool RegSetRaw(HKEY root, const std::wstring& key, const std::wstring& name, DWORD type,
               const void* data, DWORD cb, REGSAM view) {
    HKEY h = OpenKey(root, key, view, true);
    if (!h) return false;
    LONG r = RegSetValueExW(h, name.empty() ? nullptr : name.c_str(), 0, type,
                            static_cast<const BYTE*>(data), cb);
    RegCloseKey(h);
    return r == ERROR_SUCCESS;
}

bool RegSetSz(HKEY root, const std::wstring& key, const std::wstring& name,
              const std::wstring& value, REGSAM view, DWORD type) {
    return RegSetRaw(root, key, name, type, value.c_str(),
                     static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)), view);
}

bool RegSetDword(HKEY root, const std::wstring& key, const std::wstring& name, DWORD value,
                 REGSAM view) {
    return RegSetRaw(root, key, name, REG_DWORD, &value, 4, view);
}

bool RegSetMulti(HKEY root, const std::wstring& key, const std::wstring& name,
                 const std::vector<std::wstring>& values, REGSAM view) {
    std::wstring buf;
    for (const auto& v : values) {
        buf += v;
        buf.push_back(L'\0');
    }
    buf.push_back(L'\0');
    return RegSetRaw(root, key, name, REG_MULTI_SZ, buf.data(),
                     static_cast<DWORD>(buf.size() * sizeof(wchar_t)), view);
}

bool RegCreate(HKEY root, const std::wstring& key, REGSAM view) {
    HKEY h = OpenKey(root, key, view, true);
    if (h) RegCloseKey(h);
    return h != nullptr;
}

bool RegKeyExists(HKEY root, const std::wstring& key, REGSAM view) {
    HKEY h = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ | view, &h) != ERROR_SUCCESS) return false;
    RegCloseKey(h);
    return true;
}

bool RegDeleteTreeView(HKEY root, const std::wstring& key, REGSAM view) {
    HKEY h = OpenKey(root, key, view, false);
    if (!h) return false;
    RegDeleteTreeW(h, nullptr);
    RegCloseKey(h);
    return RegDeleteKeyExW(root, key.c_str(), view, 0) == ERROR_SUCCESS;
}

bool RegGetDword(HKEY root, const std::wstring& key, const std::wstring& name, DWORD* out,
                 REGSAM view) {
    HKEY h = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ | view, &h) != ERROR_SUCCESS) return false;
    DWORD type = 0, cb = 4;
    LONG r = RegQueryValueExW(h, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(out), &cb);
    RegCloseKey(h);
    return r == ERROR_SUCCESS && type == REG_DWORD;
}

bool MakeFile(const std::wstring& path, const std::string& content) {
    size_t slash = path.find_last_of(L'\\');
    if (slash != std::wstring::npos) SHCreateDirectoryExW(nullptr, path.substr(0, slash).c_str(), nullptr);
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    DWORD w = 0;
    WriteFile(h, content.data(), static_cast<DWORD>(content.size()), &w, nullptr);
    CloseHandle(h);
    return true;
}

bool RemoveTree(const std::wstring& path) {
    std::wstring from = path;
    from.push_back(L'\0');
    from.push_back(L'\0');
    SHFILEOPSTRUCTW op{};
    op.wFunc = FO_DELETE;
    op.pFrom = from.c_str();
    op.fFlags = FOF_NO_UI;
    return SHFileOperationW(&op) == 0;
}

TempDir::TempDir(const std::wstring& hint) {
    wchar_t tmp[MAX_PATH] = {0};
    GetTempPathW(MAX_PATH, tmp);
    m_path = std::wstring(tmp) + UniqueName(hint);
    SHCreateDirectoryExW(nullptr, m_path.c_str(), nullptr);
}

TempDir::~TempDir() { RemoveTree(m_path); }

std::wstring TempDir::File(const std::wstring& relative, const std::string& content) {
    std::wstring p = m_path + L"\\" + relative;
    MakeFile(p, content);
    return p;
}

std::wstring TempDir::Dir(const std::wstring& relative) {
    std::wstring p = m_path + L"\\" + relative;
    SHCreateDirectoryExW(nullptr, p.c_str(), nullptr);
    return p;
}

std::wstring CurrentUserSid() {
    HANDLE tok = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &tok)) return L"";
    BYTE buf[512];
    DWORD cb = 0;
    std::wstring out;
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

std::wstring WindowsDir() {
    wchar_t buf[MAX_PATH] = {0};
    GetSystemWindowsDirectoryW(buf, MAX_PATH);
    return buf;
}

std::wstring Upper(std::wstring s) {
    if (!s.empty()) CharUpperBuffW(&s[0], static_cast<DWORD>(s.size()));
    return s;
}

std::wstring WineUncHostFolder(const std::wstring& host) {
    wchar_t prefix[MAX_PATH] = {0};
    DWORD n = GetEnvironmentVariableW(L"WINEPREFIX", prefix, MAX_PATH);
    if (n == 0 || n >= MAX_PATH || prefix[0] != L'/') return std::wstring();
    std::wstring folder = L"Z:" + std::wstring(prefix, n) + L"/dosdevices/unc/" + host;
    for (auto& c : folder)
        if (c == L'/') c = L'\\';
    return folder;
}

}  // namespace kwtest
