// Which server files a CLSID has: InprocServer32 and LocalServer32 of the
// per-user classes (under HKEY_USERS\<sid>) first, then of the machine classes,
// in the Wow6432Node view when asked and the process runs under WOW64.
//
// The whole lookup runs in the constructor; the results are read from the
// members afterwards. The CLSID text is copied (at most 259 characters) and cut
// after its first '}'; a text that then fails IsClsidString finds nothing
// (root key 0). Otherwise the class keys are
//   machine  HKLM "Software\Classes\CLSID\{clsid}"
//   user     HKU  "<sid>\Software\Classes\CLSID\{clsid}" (no SID: the same path
//            without "<sid>\")
// or, when `useWow6432Node` is set and the process runs under WOW64, the same
// paths with "Classes\Wow6432Node\CLSID". Every open (the class-key existence
// test and the server reads alike) uses the 64-bit view (KEY_WOW64_64KEY):
// the Wow6432Node forms are explicit paths, and the 64-bit view is the one in
// which "Software\Classes\Wow6432Node" is a real key, so the same paths resolve
// whether or not the registry would redirect the process's own view.
// A server is the default value (REG_SZ or REG_EXPAND_SZ, not expanded; other
// types are not server paths) of the class key's "InprocServer32" and
// "LocalServer32" sub-keys, read into a 4096-byte buffer (at most 2047
// characters, longer text is cut; the data need not be terminated). The user
// servers come first; the root key names the last class key found (HKEY_USERS
// 0x80000003, then HKEY_LOCAL_MACHINE 0x80000002). Nothing is traced.
#pragma once
#include <windows.h>

#include <list>
#include <string>

namespace kw {

struct ClsidServer {
    DWORD reserved = 0;    // the root key (0x80000003 or 0x80000002) the entry was read under
    std::wstring path;     // the registered command line / path
    std::wstring keyName;  // "InprocServer32" or "LocalServer32"
};

class CEasyClsid {
public:
    CEasyClsid(const wchar_t* userSid, const wchar_t* clsidText, BOOL useWow6432Node);
    virtual ~CEasyClsid() = default;

    BOOL Found() const { return m_bFound; }
    DWORD RootKey() const { return m_hRoot; }
    const std::list<ClsidServer>& Servers() const { return m_servers; }
    const wchar_t* Clsid() const { return m_szClsid; }

    wchar_t m_szClsid[MAX_PATH];
    BOOL m_bFound;
    DWORD m_hRoot;
    wchar_t m_szMachinePath[MAX_PATH];
    wchar_t m_szUserPath[MAX_PATH];
    BOOL m_bWow6432Node;
    std::list<ClsidServer> m_servers;
};

}  // namespace kw
