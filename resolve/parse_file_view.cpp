#include "resolve/parse_file_view.h"

#include "common/handle.h"
#include "common/strutil.h"
#include "common/sys_text.h"
#include "diag/host_network_info.h"
#include "registry/reg_util.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

#include <cstring>
#include <memory>
#include <new>

namespace kw {

namespace {

// A test of a missing drive or an empty removable drive must fail quietly,
// never wait for the user: critical-error boxes are off for the scope.
class ScopedQuietErrors {
public:
    ScopedQuietErrors() noexcept {
        m_ok = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &m_old) != FALSE;
    }
    ~ScopedQuietErrors() {
        if (m_ok) SetThreadErrorMode(m_old, nullptr);
    }
    ScopedQuietErrors(const ScopedQuietErrors&) = delete;
    ScopedQuietErrors& operator=(const ScopedQuietErrors&) = delete;

private:
    DWORD m_old = 0;
    bool m_ok = false;
};

bool NeedsPause(BOOL bWow64View) { return !bWow64View && GetWow64Helper()->m_bIsWow64; }

DWORD AttributesInView(const std::wstring& path, BOOL bWow64View) {
    ScopedQuietErrors quiet;
    if (NeedsPause(bWow64View)) {
        CAutoWow64PauseDisable pause;
        return GetFileAttributesW(path.c_str());
    }
    return GetFileAttributesW(path.c_str());
}

}  // namespace

bool IsRemotePath(const std::wstring& path) {
    auto isSlash = [](wchar_t c) { return c == L'\\' || c == L'/'; };
    size_t hostStart;
    if (StartsWithNoCase(path, L"\\\\?\\UNC\\")) {
        hostStart = 8;
    } else if (path.size() >= 2 && isSlash(path[0]) && isSlash(path[1]) &&
               !(path.size() >= 3 && (path[2] == L'?' || path[2] == L'.'))) {
        hostStart = 2;
    } else {
        return false;
    }
    size_t hostEnd = path.find_first_of(L"\\/", hostStart);
    if (hostEnd == std::wstring::npos) hostEnd = path.size();
    const std::wstring host = path.substr(hostStart, hostEnd - hostStart);
    if (host.empty()) return true;  // names no machine: nothing to touch either
    CHostNetworkInfo* info = GetHostNetworkInfo();
    // The terminator is compared too: only a whole local name makes it local.
    return !(info && info->IsLocalHost(host.c_str(), host.size() + 1, true));
}

namespace {

// A remote, empty or overlong path is not asked of the file system: missing.
DWORD TestedAttributes(const std::wstring& path, BOOL bWow64View) {
    if (path.empty() || path.size() >= 32767 || IsRemotePath(path)) return INVALID_FILE_ATTRIBUTES;
    return AttributesInView(path, bWow64View);
}

bool IsFileAttributes(DWORD attr) { return attr != INVALID_FILE_ATTRIBUTES && !(attr & FILE_ATTRIBUTE_DIRECTORY); }

}  // namespace

bool IsFileInView(const std::wstring& path, BOOL bWow64View) {
    return IsFileAttributes(TestedAttributes(path, bWow64View));
}

bool FileTestMemo::IsFile(const std::wstring& path, BOOL bWow64View) {
    std::wstring key = (bWow64View ? L"1" : L"0") + ToUpper(path);
    auto known = m_known.find(key);
    if (known != m_known.end()) return IsFileAttributes(known->second);
    const DWORD attr = TestedAttributes(path, bWow64View);
    m_known.emplace(std::move(key), attr);
    return IsFileAttributes(attr);
}

bool FileTestMemo::KnownFolder(const std::wstring& path, bool* isFolder) const {
    const std::wstring upper = ToUpper(path);
    auto known = m_known.find(L"1" + upper);
    std::wstring mapped;
    if (known == m_known.end() &&
        (!GetWow64Helper()->m_bIsWow64 || (MapSystem32ToSysWow64(path, mapped) && mapped == path)))
        known = m_known.find(L"0" + upper);
    if (known == m_known.end()) return false;
    *isFolder = known->second != INVALID_FILE_ATTRIBUTES && (known->second & FILE_ATTRIBUTE_DIRECTORY);
    return true;
}

std::wstring PathInView(const std::wstring& path, BOOL bWow64View) {
    if (!bWow64View || !GetWow64Helper()->m_bIsWow64) return path;
    std::wstring mapped;
    if (!MapSystem32ToSysWow64(path, mapped) || mapped.empty()) return path;
    return mapped;
}

std::wstring LongPathInView(const std::wstring& path, BOOL bWow64View) {
    if (IsRemotePath(path)) return path;
    std::wstring longPath;
    bool ok = false;
    {
        ScopedQuietErrors quiet;
        if (NeedsPause(bWow64View)) {
            CAutoWow64PauseDisable pause;
            ok = GetLongPathText(path.c_str(), longPath);
        } else {
            ok = GetLongPathText(path.c_str(), longPath);
        }
    }
    if (!ok || longPath.empty() || longPath.size() >= MAX_PATH) return path;
    return longPath;
}

std::vector<std::wstring> SystemSearchFolders(BOOL bWow64View) {
    std::vector<std::wstring> out;
    wchar_t buf[MAX_PATH] = {0};
    UINT n = 0;
    if (bWow64View && GetWow64Helper()->m_bIsWow64) n = GetSystemWow64DirectoryW(buf, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) n = GetSystemDirectoryW(buf, MAX_PATH);
    if (n > 0 && n < MAX_PATH) out.emplace_back(buf, n);
    wchar_t win[MAX_PATH] = {0};
    n = GetSystemWindowsDirectoryW(win, MAX_PATH);
    if (n > 0 && n < MAX_PATH) {
        std::wstring windir(win, n);
        if (!windir.empty() && windir.back() == L'\\') windir.pop_back();
        out.push_back(windir + L"\\System");
        out.push_back(windir);
    }
    return out;
}

std::wstring ReadEnvironmentVariable(const wchar_t* name) {
    std::wstring value;
    if (!GetEnvironmentText(name, value)) value.clear();
    return value;
}

bool ReadRegString(HKEY root, const std::wstring& subKey, const wchar_t* name, REGSAM sam,
                   size_t cchMax, std::wstring& out, DWORD* type) {
    out.clear();
    if (type) *type = REG_NONE;
    if (cchMax == 0) return false;
    unique_hkey key;
    if (RegOpenKeyExW(root, subKey.c_str(), 0, KEY_QUERY_VALUE | sam, key.put()) != ERROR_SUCCESS)
        return false;
    DWORD t = REG_NONE, cb = 0;
    std::wstring text;
    // Only the first cchMax characters are kept; values beyond 1 MB are not text.
    if (!RegQueryString(key.get(), name, text, &t, &cb) || cb > (1u << 20)) return false;
    if (text.size() > cchMax - 1) text.erase(cchMax - 1);
    out.swap(text);
    if (type) *type = t;
    return true;
}

}  // namespace kw
