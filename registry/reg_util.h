// Registry helpers shared by the analyzers: the expanded string read, the
// multi-string read, the sub-key enumerator and the 32-bit (Wow6432Node) view
// test. Every open names its view through `extraAccess` (KEY_WOW64_64KEY or
// KEY_WOW64_32KEY); without one, the process's own view is used, which is what
// the analyzers ask for on purpose when they read the 32-bit view of a WOW64
// process. Registry data is never trusted to be terminated or sized as its
// type says: the raw bytes are read into a buffer of our own, an odd last byte
// is dropped, and the text ends at its first NUL or at the data's end.
#pragma once
#include "common/handle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace kw {

// Characters of the expanded-value buffer, terminator included: a value read by
// RegReadExpandedString holds at most kExpandedValueCch - 1 (519) characters.
constexpr size_t kExpandedValueCch = 520;

// The one reader of a value of an open key: its raw bytes whole (the size the
// registry reports; retried when the value grows in between). ERROR_SUCCESS
// or the registry's code.
[[nodiscard]] LONG RegQueryRaw(HKEY key, const wchar_t* valueName, DWORD& type,
                               std::vector<BYTE>& data) noexcept;
// The text of raw string data of cb bytes: an odd last byte is dropped and the
// text ends at the first NUL or at the data's end.
std::wstring RegDataText(const void* data, size_t cb);
// A string value (REG_SZ or REG_EXPAND_SZ, never expanded) of an open key as
// RegDataText gives it; `cbData` receives the raw size. False (text empty) when
// the value is missing or of another type.
[[nodiscard]] bool RegQueryString(HKEY key, const wchar_t* valueName, std::wstring& text,
                                  DWORD* type = nullptr, DWORD* cbData = nullptr) noexcept;

// Reads a string value (REG_SZ or REG_EXPAND_SZ) under root\subKey (an empty
// or null subKey reads from root itself), opened with KEY_READ plus
// `extraAccess`. REG_EXPAND_SZ text is expanded with the process environment;
// REG_SZ text is taken as it is. The result is cut to 519 characters (a
// 520-character buffer with its terminator); longer text is cut, not refused.
// A null valueName reads the default value. False (out empty) when the key or
// value is missing or of another type. Refusals are not traced (a missing
// value is the normal case for the callers).
[[nodiscard]] bool RegReadExpandedString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                           REGSAM extraAccess, std::wstring& out);

// Reads a value whole as characters, whatever its type: NULs are kept (a
// multi-string stays whole) and an odd last byte is dropped. `type` receives
// the value's type. False (text empty) when the key or value cannot be read.
[[nodiscard]] bool RegReadRawText(HKEY root, const wchar_t* subKey, const wchar_t* valueName, REGSAM extraAccess,
                    DWORD* type, std::wstring& text);

// The strings of a multi-string text: split at NULs, empty strings left out,
// a missing final NUL tolerated.
std::vector<std::wstring> SplitMultiString(const std::wstring& raw);

// Reads a REG_MULTI_SZ value (REG_SZ and REG_EXPAND_SZ are accepted as one
// string, never expanded) whole. `raw` receives the value's characters with
// every trailing NUL removed, so its strings are separated by single NULs
// ("a\0b"; empty strings inside the data stay as they are; callers skip empty
// pieces). A missing final NUL and an odd byte count are tolerated. False (raw
// empty) when the key or value is missing or of another type.
[[nodiscard]] bool RegReadMultiString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                        REGSAM extraAccess, std::wstring& raw);

// Whether subKey under root names a key of the 32-bit registry view, as 64-bit
// Windows lays that view out physically:
//   HKEY_LOCAL_MACHINE  "Software\Wow6432Node[\...]" (32-bit HKLM\Software)
//                       "Software\Classes\Wow6432Node[\...]" (32-bit machine classes)
//   HKEY_CURRENT_USER   "Software\Classes\Wow6432Node[\...]" (32-bit per-user
//                       classes; the rest of HKCU\Software is shared by both
//                       views, so a "Software\Wow6432Node" there is an
//                       ordinary key)
//   HKEY_CLASSES_ROOT   "Wow6432Node[\...]" (the merged 32-bit classes)
//   HKEY_USERS          "<user>_Classes\Wow6432Node[\...]" (a user's class hive)
//                       "<user>\Software\Classes\Wow6432Node[\...]" (the same
//                       classes reached through the user's own hive)
// Names are whole path components compared without regard to case
// ("Wow6432NodeX" is not the node); leading and repeated backslashes are
// ignored. Any other root gives false.
bool IsWow6432NodePath(HKEY root, const wchar_t* subKey);

// Enumerates the sub-key names of root\subKey (opened with 0x20019 | extraAccess,
// or root itself when subKey is null or empty) by index from 0. Names of any
// length the registry allows (up to 255 characters, longer ones where the
// registry holds them) are returned whole.
class CEnumKey {
public:
    CEnumKey(HKEY root, const wchar_t* subKey, REGSAM extraAccess);
    virtual ~CEnumKey() = default;
    bool IsOpen() const { return m_key.valid() || m_useRoot; }
    // The name at `index`; false (name empty) when the enumeration ends or fails.
    [[nodiscard]] bool Next(DWORD index, std::wstring& name);

private:
    unique_hkey m_key;
    HKEY m_root;
    bool m_useRoot = false;
};

}  // namespace kw
