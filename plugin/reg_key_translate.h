// Rewrites registry key paths as the monitor reports them (concrete control
// set, the acting user's hive under HKEY_USERS) into the user-level view
// (CurrentControlSet, HKEY_CURRENT_USER, HKEY_CLASSES_ROOT).
//
// Text searches ignore case. A "starts with P" test in Translate is, on
// purpose, a search for P anywhere in the key; the remainder is then the key
// after its first length(P) characters.
#pragma once
#include <windows.h>

namespace kw {

class CRegKeyTranslate {
public:
    CRegKeyTranslate();
    virtual ~CRegKeyTranslate();

    // Copies the current control set's name (at most 260 characters); true.
    bool Init();

    // Replaces the first occurrence of m_szCurrentControlSet in key (and the
    // character in front of it) by "\CurrentControlSet"; out is cut to
    // outSize bytes. False, out untouched, when an argument is missing, the
    // name is empty or does not occur. Traces the rewrite.
    bool ReplaceCurrentControlSet(const wchar_t* key, wchar_t* out, DWORD outSize);

    // The user-level form of key for the process's user, into out (cut to
    // outSize bytes). HKEY_LOCAL_MACHINE paths get the symbolic control set
    // and HKEY_CURRENT_CONFIG; the user's own hive and class hive become
    // HKEY_CURRENT_USER. False when the user's SID cannot be read or the key is
    // under no known root; out then holds the empty text.
    bool Translate(DWORD processId, const wchar_t* key, wchar_t* out, DWORD outSize);

    wchar_t m_szCurrentControlSet[MAX_PATH];
    wchar_t m_szReserved[MAX_PATH];
    void* m_reserved[3];
};

}  // namespace kw
