#include "resolve/parse_file_view.h"

#include "common/handle.h"
#include "common/strutil.h"
#include "diag/host_network_info.h"
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

bool IsFileInView(const std::wstring& path, BOOL bWow64View) {
    if (path.empty() || path.size() >= 32767 || IsRemotePath(path)) return false;
    DWORD attr = AttributesInView(path, bWow64View);
    return attr != INVALID_FILE_ATTRIBUTES && !(attr & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring PathInView(const std::wstring& path, BOOL bWow64View) {
    if (!bWow64View || !GetWow64Helper()->m_bIsWow64) return path;
    std::wstring mapped;
    if (!MapSystem32ToSysWow64(path, mapped) || mapped.empty()) return path;
    return mapped;
}

std::wstring LongPathInView(const std::wstring& path, BOOL bWow64View) {
    if (IsRemotePath(path)) return path;
    wchar_t buf[MAX_PATH] = {0};
    DWORD n = 0;
    {
        ScopedQuietErrors quiet;
        if (NeedsPause(bWow64View)) {
            CAutoWow64PauseDisable pause;
            n = GetLongPathNameW(path.c_str(), buf, MAX_PATH);
        } else {
            n = GetLongPathNameW(path.c_str(), buf, MAX_PATH);
        }
    }
    // The count excludes the NUL when the name fits, and is the size needed
    // (NUL included) when it does not.
    if (n == 0 || n >= MAX_PATH) return path;
    return std::wstring(buf, n);
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
    if (!name || !*name) return std::wstring();
    // Returns the length without the NUL when it fits, else the size needed
    // with the NUL; 0 when the variable is not set (or is empty).
    wchar_t buf[MAX_PATH] = {0};
    DWORD n = GetEnvironmentVariableW(name, buf, MAX_PATH);
    if (n == 0) return std::wstring();
    if (n < MAX_PATH) return std::wstring(buf, n);
    const DWORD cch = n;
    unique_heap heap(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, static_cast<SIZE_T>(cch) * sizeof(wchar_t)));
    if (!heap) return std::wstring();
    wchar_t* big = static_cast<wchar_t*>(heap.get());
    n = GetEnvironmentVariableW(name, big, cch);
    if (n == 0 || n >= cch) return std::wstring();  // changed in between: give up
    return std::wstring(big, n);
}

bool ReadRegString(HKEY root, const std::wstring& subKey, const wchar_t* name, REGSAM sam,
                   size_t cchMax, std::wstring& out, DWORD* type) {
    out.clear();
    if (type) *type = REG_NONE;
    if (cchMax == 0) return false;
    unique_hkey key;
    if (RegOpenKeyExW(root, subKey.c_str(), 0, KEY_QUERY_VALUE | sam, key.put()) != ERROR_SUCCESS)
        return false;
    DWORD t = REG_NONE;
    alignas(wchar_t) BYTE small[1024];
    DWORD cb = sizeof(small);
    LONG r = RegQueryValueExW(key.get(), name, nullptr, &t, small, &cb);
    std::unique_ptr<BYTE[]> large;
    const BYTE* data = small;
    if (r == ERROR_MORE_DATA) {
        // Only the first cchMax characters are kept, but the whole value has
        // to be read before it can be cut. Values beyond 1 MB are not text.
        if (cb > (1u << 20)) return false;
        large.reset(new (std::nothrow) BYTE[cb + 2]);
        if (!large) return false;
        r = RegQueryValueExW(key.get(), name, nullptr, &t, large.get(), &cb);
        data = large.get();
    }
    if (r != ERROR_SUCCESS || (t != REG_SZ && t != REG_EXPAND_SZ)) return false;
    const size_t cch = cb / sizeof(wchar_t);  // an odd last byte is dropped
    std::wstring text(cch, L'\0');
    if (cch) memcpy(&text[0], data, cch * sizeof(wchar_t));
    size_t nul = text.find(L'\0');
    if (nul != std::wstring::npos) text.erase(nul);
    if (text.size() > cchMax - 1) text.erase(cchMax - 1);
    out.swap(text);
    if (type) *type = t;
    return true;
}

}  // namespace kw
