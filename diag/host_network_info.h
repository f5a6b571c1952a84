// The names by which this machine can be addressed (host name, IPv4
// addresses), to turn UNC paths that point back here into local paths.
//
// One instance per process (GetHostNetworkInfo); tests may make their own.
// Construction starts Winsock 2.2 and destruction stops it. Init fills the
// name list once (under m_lock) and traces "CHostNetworkInfo::Init: m_bInit=%d"
// on every call; the collectors trace each name they add. Refusals answer
// false and leave outputs empty.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace kw {

class CHostNetworkInfo {
public:
    CHostNetworkInfo();
    virtual ~CHostNetworkInfo();

    // Fills the name list (IPv4 addresses first, then the host name) once;
    // returns m_bInit. A failed fill is retried on the next call.
    bool Init();
    // True when the first `length` characters of `name` equal, without regard
    // to case, those of a local name (the comparison stops at `length` and at
    // a NUL, so a name that is a prefix of length `length` of a local name
    // counts), or, with allowLocalhost, those of "localhost". False for a null
    // name, a length of 0 (an empty host names no machine) or a failed Init.
    bool IsLocalHost(const wchar_t* name, size_t length, bool allowLocalhost);
    // \\host\share\rest -> the share's local path + rest; false when not local.
    // Device and local-namespace paths (\\?\..., \\.\...) and paths shorter than
    // 5 characters are refused; `out` is left empty on refusal.
    bool ToLocalPath(const std::wstring& path, std::wstring& out);

    bool _getHostname();
    bool _getIpAddr();

    BOOL m_bInit = 0;
    std::vector<std::wstring> m_names;
    CRITICAL_SECTION m_lock;
    bool m_wsaStarted = false;
};

// The process-wide instance, created on first use under a lock; it lives until
// the process ends. Null only when it could not be allocated.
CHostNetworkInfo* GetHostNetworkInfo();

// Splits "\\host\share[\rest]": host and share are the first two components
// after the two leading backslashes; rest is everything after the share,
// starting with its backslash (empty when nothing follows). False (outputs
// empty) when the path does not start with two backslashes, names a device or
// local namespace (third character '?' or '.'), is shorter than 5 characters,
// or has an empty host or share.
bool SplitUncPath(const std::wstring& path, std::wstring& host, std::wstring& share,
                  std::wstring& rest);

// A share's local path joined with the rest of a UNC path: exactly one
// backslash between them ("C:\" + "\x" gives "C:\x").
std::wstring JoinShareLocalPath(const std::wstring& localPath, const std::wstring& rest);

}  // namespace kw
