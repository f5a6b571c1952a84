// Which server files a CLSID has: InprocServer32 and LocalServer32 of the
// per-user classes (under HKEY_USERS\<sid>) first, then of the machine classes,
// in the Wow6432Node view when asked and the process runs under WOW64.
#pragma once
#include <windows.h>

#include <list>
#include <string>

namespace kw {

struct ClsidServer {
    DWORD reserved = 0;
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
