// The names by which this machine can be addressed (host name, IPv4
// addresses), to turn UNC paths that point back here into local paths.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace kw {

class CHostNetworkInfo {
public:
    CHostNetworkInfo();
    virtual ~CHostNetworkInfo();

    bool Init();
    bool IsLocalHost(const wchar_t* name, size_t length, bool allowLocalhost);
    // \\host\share\rest -> the share's local path + rest; false when not local.
    bool ToLocalPath(const std::wstring& path, std::wstring& out);

    bool _getHostname();
    bool _getIpAddr();

    BOOL m_bInit = 0;
    std::vector<std::wstring> m_names;
    CRITICAL_SECTION m_lock;
    bool m_wsaStarted = false;
};

// The process-wide instance, created on first use under a lock.
CHostNetworkInfo* GetHostNetworkInfo();

}  // namespace kw
