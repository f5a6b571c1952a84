// Reads a value as it stands in the registry before the change is analysed,
// in the record's registry view.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace kw {

// The raw text of a value (NULs kept, so multi-strings stay whole), cut to
// cchMax characters; odd byte counts drop the last byte. False when the key or
// value cannot be read; `type` receives the value's type.
bool ReadValueText(HKEY root, const wchar_t* subKey, const wchar_t* valueName, REGSAM access,
                   DWORD* type, std::wstring& text, size_t cchMax);

// The strings of a multi-string text (a missing final NUL tolerated; empty
// strings left out).
std::vector<std::wstring> SplitMultiString(const std::wstring& raw);
// The pieces of a text split at every character of `separators` (empty pieces left out).
std::vector<std::wstring> SplitAtAny(const std::wstring& text, const std::wstring& separators);

}  // namespace kw
