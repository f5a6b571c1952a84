// Rewrites registry key paths as the monitor reports them (concrete control
// set, the acting user's hive under HKEY_USERS) into the user-level view
// (CurrentControlSet, HKEY_CURRENT_USER, HKEY_CLASSES_ROOT).
#pragma once
#include <windows.h>

namespace kw {

class CRegKeyTranslate {
public:
    CRegKeyTranslate();
    virtual ~CRegKeyTranslate();

    // Copies the current control set's name (at most 260 characters); true.
    bool Init();
    // outSize is in bytes.
    bool ReplaceCurrentControlSet(const wchar_t* key, wchar_t* out, DWORD outSize);
    // outSize is in bytes.
    bool Translate(DWORD processId, const wchar_t* key, wchar_t* out, DWORD outSize);

    wchar_t m_szCurrentControlSet[MAX_PATH];
    wchar_t m_szReserved[MAX_PATH];
    void* m_reserved[3];
};

}  // namespace kw
