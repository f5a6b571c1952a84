// The shell-folder name table that the expansion of folder tokens and the
// per-user "User Shell Folders" filing share, and the ASCII upper-casing by
// which those names and environment variable names are compared.
#pragma once
#include <string>

namespace kw {

// The id of the first table row whose token name equals the ASCII upper-cased
// name, or -1.
int GetCsidlByName(const std::wstring& name);

// The 40-row shell-folder name table.
struct CsidlName {
    const wchar_t* token;
    int csidl;
    const wchar_t* second;  // null when none
};
const CsidlName* GetCsidlNameTable(size_t* count);

// Shell-folder and variable names are compared after ASCII upper-casing: only
// 'a'..'z' change, everything else is compared exactly.
std::wstring AsciiUpperName(const std::wstring& name);
// Whether `name`, ASCII upper-cased, equals `upperText` exactly (no allocation).
bool EqualsAsciiUpper(const std::wstring& name, const wchar_t* upperText);

}  // namespace kw
