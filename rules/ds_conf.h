// The deep-scan configuration object: a process-wide singleton that knows its
// two file names ("dscon.dat", "dsconz.dat" in the module's folder) but, in
// this release, reads neither: its count is 0 and its list empty.
#pragma once
#include <windows.h>

#include <list>
#include <string>

namespace kw {

struct DSConfItem {  // 12-byte list element
    DWORD a = 0, b = 0, c = 0;
};

class CDSConf {
public:
    CDSConf();
    virtual ~CDSConf();

    // False and 0 when the count is below 1.
    bool GetCount(int* count) const;
    const std::list<DSConfItem>& GetList() const { return m_list; }
    // The configured external-command names (empty in this release).
    const std::list<std::wstring>& GetExternalCommands() const { return m_externalCmds; }

    static CDSConf* Instance();

    std::wstring m_atl1, m_atl2;
    std::wstring m_str1, m_str2;
    int m_count = 0;
    std::list<DSConfItem> m_list;
    std::wstring m_str3;
    std::list<std::wstring> m_externalCmds;
    // The two file names as built at construction (kept for inspection).
    std::wstring m_confPath, m_confzPath;
};

}  // namespace kw
