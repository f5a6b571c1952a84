// Bounded wide-string helpers. These are the only routines that write into a
// fixed buffer: every copy and format always terminates and cuts at the limit
// (counts in characters, `cch`), never rejects longer input.
#pragma once
#include <windows.h>
#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

#define KW_PRINTF(fmt, args) __attribute__((format(gnu_printf, fmt, args)))

namespace kw {

// Copies at most cchDst-1 characters of src (and at most cchSrcMax when src may
// lack a terminator), always terminating. Returns the characters copied.
// A null src copies the empty string; cchDst 0 writes nothing.
size_t CopyBounded(wchar_t* dst, size_t cchDst, const wchar_t* src,
                   size_t cchSrcMax = static_cast<size_t>(-1)) noexcept;

// Length of s, but never more than cchMax (for buffers that may lack a NUL).
size_t LenBounded(const wchar_t* s, size_t cchMax) noexcept;

// Widens ASCII text into dst (cch characters with the terminator) without
// allocating; false for non-ASCII text or text that does not fit.
bool WidenAscii(wchar_t* dst, size_t cch, const char* text, size_t* written) noexcept;

// Formats into a fixed buffer, cutting at cchDst-1 characters. The format is
// narrow and checked by the compiler: wide arguments use %ls, narrow ones %s.
// Returns false when the text was cut or the format failed (dst still holds
// what fitted, terminated).
bool FormatBounded(wchar_t* dst, size_t cchDst, const char* fmt, ...) noexcept KW_PRINTF(3, 4);
bool FormatBoundedV(wchar_t* dst, size_t cchDst, const char* fmt, va_list ap) noexcept;

// The same into a growable string, cut at cchMax characters.
std::wstring FormatW(const char* fmt, ...) KW_PRINTF(1, 2);
std::wstring FormatWV(const char* fmt, va_list ap, size_t cchMax = 65536);

// UTF-8 <-> UTF-16 with the system converter. Invalid input is replaced, not rejected.
std::wstring Utf8ToWide(const char* s, size_t cb);
std::string WideToUtf8(const std::wstring& s);

// Replaces every occurrence of `from` (case-sensitive). Returns the count.
size_t ReplaceAll(std::wstring& s, const std::wstring& from, const std::wstring& to);
// Replaces every occurrence of `from`, compared without regard to case.
size_t ReplaceAllNoCase(std::wstring& s, const std::wstring& from, const std::wstring& to);

// Case-insensitive search; npos when absent or either side empty.
size_t FindNoCase(const std::wstring& text, const std::wstring& what, size_t from = 0);
bool StartsWithNoCase(const std::wstring& text, const std::wstring& prefix);
bool EqualsNoCase(const std::wstring& a, const std::wstring& b);
// True when some element of `list` equals `s` without regard to case.
bool ContainsNoCase(const std::vector<std::wstring>& list, const std::wstring& s);

// Upper-cases with the system's character mapping (CharUpperBuffW).
std::wstring ToUpper(std::wstring s);
std::wstring ToLower(std::wstring s);

}  // namespace kw
