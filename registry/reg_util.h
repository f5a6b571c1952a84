// Registry helpers shared by the analyzers: the expanded string read, the
// sub-key enumerator and the 32-bit (Wow6432Node) view test.
#pragma once
#include "common/handle.h"

#include <windows.h>

#include <string>

namespace kw {

// Reads a string value (REG_SZ or REG_EXPAND_SZ; REG_EXPAND_SZ is expanded
// with the process environment) under root\subKey, opened with KEY_READ plus
// `extraAccess` (view flags). The result is cut to 520 characters. Data
// without a terminator and odd sizes are tolerated. False (out empty) when the
// key or value is missing or of another type.
bool RegReadExpandedString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                           REGSAM extraAccess, std::wstring& out);

// Reads a REG_MULTI_SZ (or REG_SZ) value whole into its strings; a missing final
// NUL is tolerated. False when missing.
bool RegReadMultiString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                        REGSAM extraAccess, std::wstring& raw);

// Whether subKey under root (HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER) lies in
// the 32-bit registry view, i.e. names a Wow6432Node key.
bool IsWow6432NodePath(HKEY root, const wchar_t* subKey);

// Enumerates the sub-key names of root\subKey (opened with 0x20019 | extraAccess,
// or root itself when subKey is empty) by index from 0.
class CEnumKey {
public:
    CEnumKey(HKEY root, const wchar_t* subKey, REGSAM extraAccess);
    virtual ~CEnumKey() = default;
    bool IsOpen() const { return m_key.valid() || m_useRoot; }
    // The name at `index`; false when the enumeration ends or fails.
    bool Next(DWORD index, std::wstring& name);

private:
    unique_hkey m_key;
    HKEY m_root;
    bool m_useRoot = false;
};

}  // namespace kw
