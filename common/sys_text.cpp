#include "common/sys_text.h"

#include <vector>

namespace kw {

namespace {

// Longest text any of the calls is asked for (the environment block's limit).
constexpr DWORD kCchTextMax = 32767;

// Runs `call(buffer, cch)` with growing buffers. `countsNul` says whether the
// answer includes the terminator when the text fits.
template <typename Call>
bool CallForText(Call call, bool countsNul, std::wstring& out) noexcept {
    out.clear();
    try {
        std::vector<wchar_t> buf(MAX_PATH, L'\0');
        for (int attempt = 0; attempt < 4; ++attempt) {
            const DWORD cch = static_cast<DWORD>(buf.size());
            const DWORD n = call(buf.data(), cch);
            if (n == 0) return false;
            const bool fits = countsNul ? n <= cch : n < cch;
            if (fits) {
                const DWORD len = countsNul ? n - 1 : n;
                out.assign(buf.data(), len);
                // A count that runs past an earlier NUL is not trusted either.
                out.resize(wcsnlen(out.c_str(), len));
                return true;
            }
            if (n > kCchTextMax + 1) return false;
            buf.assign(n, L'\0');
        }
    } catch (...) {
        out.clear();
    }
    return false;
}

}  // namespace

bool ExpandEnvironmentText(const wchar_t* text, std::wstring& out) noexcept {
    if (!text) {
        out.clear();
        return false;
    }
    return CallForText([text](wchar_t* buf, DWORD cch) { return ExpandEnvironmentStringsW(text, buf, cch); },
                       true, out);
}

bool GetEnvironmentText(const wchar_t* name, std::wstring& out) noexcept {
    if (!name || !*name) {
        out.clear();
        return false;
    }
    return CallForText([name](wchar_t* buf, DWORD cch) { return GetEnvironmentVariableW(name, buf, cch); },
                       false, out);
}

bool GetLongPathText(const wchar_t* path, std::wstring& out) noexcept {
    if (!path || !*path) {
        out.clear();
        return false;
    }
    return CallForText([path](wchar_t* buf, DWORD cch) { return GetLongPathNameW(path, buf, cch); },
                       false, out);
}

}  // namespace kw
