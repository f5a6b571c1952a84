#include "analyze/previous_value.h"

#include "common/handle.h"

namespace kw {

bool ReadValueText(HKEY root, const wchar_t* subKey, const wchar_t* valueName, REGSAM access,
                   DWORD* type, std::wstring& text, size_t cchMax) {
    text.clear();
    if (type) *type = REG_NONE;
    unique_hkey key;
    if (!root || RegOpenKeyExW(root, subKey, 0, KEY_QUERY_VALUE | access, key.put()) != ERROR_SUCCESS)
        return false;
    const wchar_t* name = (valueName && *valueName) ? valueName : nullptr;
    DWORD t = REG_NONE, cb = 0;
    if (RegQueryValueExW(key.get(), name, nullptr, &t, nullptr, &cb) != ERROR_SUCCESS) return false;
    // Never trust the size or the terminator: read into a buffer of our own.
    std::vector<BYTE> buf(static_cast<size_t>(cb) + sizeof(wchar_t) * 2, 0);
    DWORD got = cb;
    LONG r = RegQueryValueExW(key.get(), name, nullptr, &t, buf.data(), &got);
    if (r != ERROR_SUCCESS) return false;
    size_t cch = (got < cb ? got : cb) / sizeof(wchar_t);
    if (cch > cchMax) cch = cchMax;
    text.assign(reinterpret_cast<const wchar_t*>(buf.data()), cch);
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

std::vector<std::wstring> SplitAtAny(const std::wstring& text, const std::wstring& separators) {
    std::vector<std::wstring> out;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = separators.empty() ? std::wstring::npos : text.find_first_of(separators, start);
        if (end == std::wstring::npos) end = text.size();
        if (end > start) out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

}  // namespace kw
