#include "common/strutil.h"

#include <shlwapi.h>
#include <cstdio>
#include <vector>

extern "C" int __mingw_vsnwprintf(wchar_t*, size_t, const wchar_t*, va_list);

namespace kw {

size_t LenBounded(const wchar_t* s, size_t cchMax) noexcept {
    if (!s) return 0;
    size_t n = 0;
    while (n < cchMax && s[n]) ++n;
    return n;
}

size_t CopyBounded(wchar_t* dst, size_t cchDst, const wchar_t* src, size_t cchSrcMax) noexcept {
    if (!dst || cchDst == 0) return 0;
    size_t n = LenBounded(src, cchSrcMax);
    if (n > cchDst - 1) n = cchDst - 1;
    if (n) memmove(dst, src, n * sizeof(wchar_t));
    dst[n] = L'\0';
    return n;
}

namespace {

// The narrow format is ASCII or UTF-8 (messages may hold non-ASCII text);
// it becomes a wide format with the same conversions. In that wide format,
// with the C99 formatter, %s takes a narrow and %ls a wide argument: exactly
// what the compiler checked against the narrow format.
std::wstring WidenFormat(const char* fmt) {
    if (!fmt) return std::wstring();
    return Utf8ToWide(fmt, strlen(fmt));
}

}  // namespace

bool WidenAscii(wchar_t* dst, size_t cch, const char* text, size_t* written) noexcept {
    if (!dst || !text) return false;
    size_t i = 0;
    for (; text[i]; ++i) {
        if (i + 1 >= cch || static_cast<unsigned char>(text[i]) >= 0x80) return false;
        dst[i] = static_cast<wchar_t>(text[i]);
    }
    if (cch == 0) return false;
    dst[i] = L'\0';
    if (written) *written = i;
    return true;
}

bool FormatBoundedV(wchar_t* dst, size_t cchDst, const char* fmt, va_list ap) noexcept {
    if (!dst || cchDst == 0) return false;
    dst[0] = L'\0';
    try {
        // An ASCII format (the common case) is widened on the stack.
        wchar_t stackFmt[256];
        std::wstring heapFmt;
        const wchar_t* wfmt = stackFmt;
        if (!WidenAscii(stackFmt, 256, fmt, nullptr)) wfmt = (heapFmt = WidenFormat(fmt)).c_str();
        va_list cp;
        va_copy(cp, ap);
        int n = __mingw_vsnwprintf(dst, cchDst, wfmt, cp);
        va_end(cp);
        dst[cchDst - 1] = L'\0';
        return n >= 0 && static_cast<size_t>(n) < cchDst;
    } catch (...) {
        dst[0] = L'\0';
        return false;
    }
}

bool FormatBounded(wchar_t* dst, size_t cchDst, const char* fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    bool ok = FormatBoundedV(dst, cchDst, fmt, ap);
    va_end(ap);
    return ok;
}

std::wstring FormatWV(const char* fmt, va_list ap, size_t cchMax) {
    std::wstring wfmt = WidenFormat(fmt);
    va_list cp;
    va_copy(cp, ap);
    int n = __mingw_vsnwprintf(nullptr, 0, wfmt.c_str(), cp);
    va_end(cp);
    if (n <= 0) return std::wstring();
    size_t want = static_cast<size_t>(n);
    if (want > cchMax) want = cchMax;
    std::vector<wchar_t> buf(want + 1);
    va_copy(cp, ap);
    __mingw_vsnwprintf(buf.data(), buf.size(), wfmt.c_str(), cp);
    va_end(cp);
    buf[want] = L'\0';
    return std::wstring(buf.data(), want);
}

std::wstring FormatW(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::wstring s = FormatWV(fmt, ap);
    va_end(ap);
    return s;
}

std::wstring Utf8ToWide(const char* s, size_t cb) {
    if (!s || cb == 0) return std::wstring();
    if (cb > 0x7fffffff) cb = 0x7fffffff;
    int n = MultiByteToWideChar(CP_UTF8, 0, s, static_cast<int>(cb), nullptr, 0);
    if (n <= 0) return std::wstring();
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s, static_cast<int>(cb), &out[0], n);
    return out;
}

std::string WideToUtf8(const std::wstring& s) {
    if (s.empty()) return std::string();
    int n = WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0,
                                nullptr, nullptr);
    if (n <= 0) return std::string();
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], n, nullptr,
                        nullptr);
    return out;
}

size_t ReplaceAll(std::wstring& s, const std::wstring& from, const std::wstring& to) {
    if (from.empty()) return 0;
    size_t count = 0;
    size_t pos = 0;
    while ((pos = s.find(from, pos)) != std::wstring::npos) {
        s.replace(pos, from.size(), to);
        pos += to.size();
        ++count;
    }
    return count;
}

size_t ReplaceAllNoCase(std::wstring& s, const std::wstring& from, const std::wstring& to) {
    if (from.empty()) return 0;
    size_t count = 0;
    size_t pos = 0;
    while ((pos = FindNoCase(s, from, pos)) != std::wstring::npos) {
        s.replace(pos, from.size(), to);
        pos += to.size();
        ++count;
    }
    return count;
}

size_t FindNoCase(const std::wstring& text, const std::wstring& what, size_t from) {
    if (what.empty() || from >= text.size() || what.size() > text.size() - from)
        return std::wstring::npos;
    const size_t last = text.size() - what.size();
    for (size_t i = from; i <= last; ++i) {
        if (CompareStringOrdinal(text.data() + i, static_cast<int>(what.size()), what.data(),
                                 static_cast<int>(what.size()), TRUE) == CSTR_EQUAL)
            return i;
    }
    return std::wstring::npos;
}

bool StartsWithNoCase(const std::wstring& text, const std::wstring& prefix) {
    if (prefix.size() > text.size()) return false;
    if (prefix.empty()) return true;
    return CompareStringOrdinal(text.data(), static_cast<int>(prefix.size()), prefix.data(),
                                static_cast<int>(prefix.size()), TRUE) == CSTR_EQUAL;
}

bool EqualsNoCase(const std::wstring& a, const std::wstring& b) {
    if (a.size() != b.size()) return false;
    if (a.empty()) return true;
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(),
                                static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

bool ContainsNoCase(const std::vector<std::wstring>& list, const std::wstring& s) {
    for (const auto& x : list)
        if (EqualsNoCase(x, s)) return true;
    return false;
}

std::wstring ToUpper(std::wstring s) {
    if (!s.empty()) CharUpperBuffW(&s[0], static_cast<DWORD>(s.size()));
    return s;
}

std::wstring ToLower(std::wstring s) {
    if (!s.empty()) CharLowerBuffW(&s[0], static_cast<DWORD>(s.size()));
    return s;
}

}  // namespace kw
