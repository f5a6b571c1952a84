#include "registry/reg_util.h"

#include "common/strutil.h"
#include "common/sys_text.h"

#include <vector>

namespace kw {

// Reads a value's raw bytes whole into `data` (its size is the size the
// registry reports). Retries when the value grows between the size query and
// the read.
LONG RegQueryRaw(HKEY key, const wchar_t* valueName, DWORD& type, std::vector<BYTE>& data) noexcept {
    try {
        for (int attempt = 0; attempt < 4; ++attempt) {
            DWORD cb = 0;
            LONG rc = RegQueryValueExW(key, valueName, nullptr, &type, nullptr, &cb);
            if (rc != ERROR_SUCCESS) return rc;
            data.assign(cb, 0);
            DWORD cbRead = cb;
            rc = RegQueryValueExW(key, valueName, nullptr, &type, cb ? data.data() : nullptr, &cbRead);
            if (rc == ERROR_MORE_DATA) continue;
            if (rc != ERROR_SUCCESS) return rc;
            data.resize(cbRead);
            return ERROR_SUCCESS;
        }
        return ERROR_MORE_DATA;
    } catch (...) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

std::wstring RegDataText(const void* data, size_t cb) {
    const wchar_t* p = static_cast<const wchar_t*>(data);
    return p ? std::wstring(p, LenBounded(p, cb / sizeof(wchar_t))) : std::wstring();
}

bool RegQueryString(HKEY key, const wchar_t* valueName, std::wstring& text, DWORD* type,
                    DWORD* cbData) noexcept {
    text.clear();
    if (type) *type = REG_NONE;
    if (cbData) *cbData = 0;
    try {
        DWORD t = REG_NONE;
        std::vector<BYTE> data;
        if (RegQueryRaw(key, valueName, t, data) != ERROR_SUCCESS) return false;
        if (t != REG_SZ && t != REG_EXPAND_SZ) return false;
        text = RegDataText(data.data(), data.size());
        if (type) *type = t;
        if (cbData) *cbData = static_cast<DWORD>(data.size());
        return true;
    } catch (...) {
        text.clear();
        return false;
    }
}

namespace {

// Read access used by the enumerator: KEY_READ spelt as its value.
constexpr REGSAM kEnumAccess = 0x20019;
// Longest sub-key name the enumerator grows its buffer to.
constexpr DWORD kKeyNameMaxCch = 32767;

// Opens root\subKey for reading in the view that `extraAccess` names; an empty
// sub-key path opens root itself again.
LONG OpenForRead(HKEY root, const wchar_t* subKey, REGSAM extraAccess, unique_hkey& key) noexcept {
    return RegOpenKeyExW(root, subKey ? subKey : L"", 0, KEY_READ | extraAccess, key.put());
}

// The characters of raw registry data: an odd last byte is dropped.
size_t CharCount(const std::vector<BYTE>& data) noexcept { return data.size() / sizeof(wchar_t); }

std::wstring TextOf(const std::vector<BYTE>& data) { return RegDataText(data.data(), data.size()); }

// Expands environment tokens of `src` into dst[cchDst], cutting the result at
// cchDst - 1 characters and always terminating.
bool ExpandEnvBounded(const wchar_t* src, wchar_t* dst, size_t cchDst) noexcept {
    if (!dst || cchDst == 0) return false;
    dst[0] = L'\0';
    std::wstring full;
    if (!ExpandEnvironmentText(src, full)) return false;
    CopyBounded(dst, cchDst, full.c_str(), full.size());
    return true;
}

// Whether `s` from `pos` holds the path component `name` (whole, any case);
// on a match `pos` moves past it and past the separators that follow.
bool TakeComponent(const wchar_t* s, size_t& pos, const wchar_t* name) noexcept {
    size_t len = wcslen(name);
    size_t end = pos;
    while (s[end] && s[end] != L'\\') ++end;
    if (end - pos != len) return false;
    if (CompareStringOrdinal(s + pos, static_cast<int>(len), name, static_cast<int>(len), TRUE) !=
        CSTR_EQUAL)
        return false;
    pos = end;
    while (s[pos] == L'\\') ++pos;
    return true;
}

}  // namespace

bool RegReadExpandedString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                           REGSAM extraAccess, std::wstring& out) {
    out.clear();
    unique_hkey key;
    if (OpenForRead(root, subKey, extraAccess, key) != ERROR_SUCCESS) return false;
    DWORD type = 0;
    std::vector<BYTE> data;
    if (RegQueryRaw(key.get(), valueName, type, data) != ERROR_SUCCESS) return false;
    if (type != REG_SZ && type != REG_EXPAND_SZ) return false;

    std::wstring text = TextOf(data);
    wchar_t value[kExpandedValueCch];
    if (type == REG_EXPAND_SZ) {
        if (!ExpandEnvBounded(text.c_str(), value, kExpandedValueCch)) return false;
    } else {
        CopyBounded(value, kExpandedValueCch, text.c_str());
    }
    out.assign(value);
    return true;
}

bool RegReadRawText(HKEY root, const wchar_t* subKey, const wchar_t* valueName, REGSAM extraAccess,
                    DWORD* type, std::wstring& text) {
    text.clear();
    if (type) *type = REG_NONE;
    unique_hkey key;
    if (OpenForRead(root, subKey, extraAccess, key) != ERROR_SUCCESS) return false;
    DWORD t = 0;
    std::vector<BYTE> data;
    if (RegQueryRaw(key.get(), valueName, t, data) != ERROR_SUCCESS) return false;
    text.assign(reinterpret_cast<const wchar_t*>(data.data()), CharCount(data));
    if (type) *type = t;
    return true;
}

std::vector<std::wstring> SplitMultiString(const std::wstring& raw) {
    std::vector<std::wstring> out;
    size_t start = 0;
    while (start < raw.size()) {
        size_t end = raw.find(L'\0', start);
        if (end == std::wstring::npos) end = raw.size();
        if (end > start) out.push_back(raw.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

bool RegReadMultiString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                        REGSAM extraAccess, std::wstring& raw) {
    DWORD type = 0;
    if (!RegReadRawText(root, subKey, valueName, extraAccess, &type, raw)) return false;
    if (type != REG_MULTI_SZ && type != REG_SZ && type != REG_EXPAND_SZ) {
        raw.clear();
        return false;
    }
    while (!raw.empty() && raw.back() == L'\0') raw.pop_back();
    return true;
}

bool IsWow6432NodePath(HKEY root, const wchar_t* subKey) {
    if (!subKey) return false;
    size_t pos = 0;
    while (subKey[pos] == L'\\') ++pos;

    if (root == HKEY_CLASSES_ROOT) return TakeComponent(subKey, pos, L"Wow6432Node");
    if (root == HKEY_USERS) {
        // The first component is the user's key: "<sid>_Classes" is the
        // user's class hive itself, "<sid>" holds it as Software\Classes.
        const size_t user = pos;
        while (subKey[pos] && subKey[pos] != L'\\') ++pos;
        const size_t suffix = sizeof("_Classes") - 1;
        if (pos == user) return false;
        const bool classHive = pos - user > suffix &&
                               CompareStringOrdinal(subKey + pos - suffix, static_cast<int>(suffix),
                                                    L"_Classes", static_cast<int>(suffix), TRUE) == CSTR_EQUAL;
        while (subKey[pos] == L'\\') ++pos;
        if (classHive) return TakeComponent(subKey, pos, L"Wow6432Node");
        return TakeComponent(subKey, pos, L"Software") && TakeComponent(subKey, pos, L"Classes") &&
               TakeComponent(subKey, pos, L"Wow6432Node");
    }

    const bool machine = root == HKEY_LOCAL_MACHINE;
    if (!machine && root != HKEY_CURRENT_USER) return false;
    if (!TakeComponent(subKey, pos, L"Software")) return false;
    if (machine) {
        size_t afterSoftware = pos;
        if (TakeComponent(subKey, pos, L"Wow6432Node")) return true;
        pos = afterSoftware;
    }
    return TakeComponent(subKey, pos, L"Classes") && TakeComponent(subKey, pos, L"Wow6432Node");
}

CEnumKey::CEnumKey(HKEY root, const wchar_t* subKey, REGSAM extraAccess) : m_root(root) {
    if (!subKey || !subKey[0]) {
        m_useRoot = true;
        return;
    }
    RegOpenKeyExW(root, subKey, 0, kEnumAccess | extraAccess, m_key.put());
}

bool CEnumKey::Next(DWORD index, std::wstring& name) {
    name.clear();
    HKEY key = m_useRoot ? m_root : m_key.get();
    if (!key) return false;
    try {
        // A registry key name has at most 255 characters; a longer one (which
        // some registries hold) makes the buffer grow instead of ending the walk.
        std::vector<wchar_t> buf(256, L'\0');
        for (;;) {
            DWORD cch = static_cast<DWORD>(buf.size());
            LONG rc = RegEnumKeyExW(key, index, buf.data(), &cch, nullptr, nullptr, nullptr, nullptr);
            if (rc == ERROR_SUCCESS) {
                name.assign(buf.data(), LenBounded(buf.data(), cch < buf.size() ? cch : buf.size()));
                return true;
            }
            if (rc != ERROR_MORE_DATA || buf.size() > kKeyNameMaxCch) return false;
            buf.assign(buf.size() * 2, L'\0');
        }
    } catch (...) {
        name.clear();
        return false;
    }
}

}  // namespace kw
