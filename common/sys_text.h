// The Win32 calls that report text lengths, each wrapped once. They disagree
// on what the count means, so the convention is stated here and nowhere else:
//
//   ExpandEnvironmentStringsW  counts the terminating NUL, both when the text
//                              fits and when it names the size needed.
//   GetEnvironmentVariableW,   the length without the NUL when the text fits,
//   GetLongPathNameW           the size needed with the NUL when it does not.
//
// All three answer 0 on failure (an unset or empty variable, a missing file),
// and a buffer that was too small is not relied on: the call is repeated with
// the size it asked for (a text that grows in between is tried again, a few
// times). Each wrapper returns the whole text, so the caller applies its own
// limit; on failure `out` is left empty and false is returned.
#pragma once
#include <windows.h>

#include <string>

namespace kw {

// The text with the process environment's %NAME% tokens expanded (unknown
// tokens stay as they are).
[[nodiscard]] bool ExpandEnvironmentText(const wchar_t* text, std::wstring& out) noexcept;
// The value of a process environment variable; false when it is unset or empty.
[[nodiscard]] bool GetEnvironmentText(const wchar_t* name, std::wstring& out) noexcept;
// The long form of a path whose components may be short (8.3) names; false when
// the path does not exist.
[[nodiscard]] bool GetLongPathText(const wchar_t* path, std::wstring& out) noexcept;

}  // namespace kw
