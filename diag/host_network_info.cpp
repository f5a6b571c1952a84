// Winsock's header must come before <windows.h>.
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <lm.h>

#include "diag/host_network_info.h"

#include "common/handle.h"
#include "common/strutil.h"
#include "diag/trace.h"

#include <atomic>
#include <cstdio>
#include <new>

namespace kw {

namespace {

constexpr int kHostnameCb = 260;

struct netapi_buffer_traits {  // buffers handed out by the network management functions
    using type = LPBYTE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { NetApiBufferFree(h); }
};
using unique_netapi_buffer = unique_res<netapi_buffer_traits>;

// First `length` characters of a and b equal without regard to case; the
// comparison also ends where both texts end before `length`.
bool EqualPrefixNoCase(const wchar_t* a, const wchar_t* b, size_t length) noexcept {
    return _wcsnicmp(a, b, length) == 0;
}

}  // namespace

CHostNetworkInfo::CHostNetworkInfo() {
    InitializeCriticalSection(&m_lock);
    WSADATA wsa;
    m_wsaStarted = WSAStartup(MAKEWORD(2, 2), &wsa) == 0;
    if (!m_wsaStarted) KW_ERROR("CHostNetworkInfo::CHostNetworkInfo", "WSAStartup failed");
}

CHostNetworkInfo::~CHostNetworkInfo() {
    if (m_wsaStarted) WSACleanup();
    DeleteCriticalSection(&m_lock);
}

bool CHostNetworkInfo::Init() {
    cs_lock lock(m_lock);
    if (!m_bInit) {
        // A failed fill leaves no partial list behind for the next attempt.
        m_names.clear();
        if (_getIpAddr() && _getHostname()) m_bInit = 1;
        else m_names.clear();
    }
    KW_INFO("CHostNetworkInfo::Init", "CHostNetworkInfo::Init: m_bInit=%d", m_bInit);
    return m_bInit != 0;
}

bool CHostNetworkInfo::_getIpAddr() {
    // The size query: with an empty buffer the table must answer
    // ERROR_INSUFFICIENT_BUFFER and the size it needs.
    ULONG cb = 0;
    DWORD rc = GetIpAddrTable(nullptr, &cb, FALSE);
    if (rc != ERROR_INSUFFICIENT_BUFFER || cb == 0) {
        KW_ERROR("CHostNetworkInfo::_getIpAddr", "GetIpAddrTable size query answered %lu", rc);
        return false;
    }
    unique_heap buffer(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, cb));
    if (!buffer) {
        KW_ERROR("CHostNetworkInfo::_getIpAddr", "HeapAlloc of %lu bytes failed", cb);
        return false;
    }
    auto* table = static_cast<MIB_IPADDRTABLE*>(buffer.get());
    rc = GetIpAddrTable(table, &cb, FALSE);
    if (rc != NO_ERROR) {
        KW_ERROR("CHostNetworkInfo::_getIpAddr", "GetIpAddrTable failed: %lu", rc);
        return false;
    }
    try {
        for (DWORD i = 0; i < table->dwNumEntries; ++i) {
            // dwAddr is in network byte order: its first byte is the first number.
            const BYTE* b = reinterpret_cast<const BYTE*>(&table->table[i].dwAddr);
            char dotted[16];
            snprintf(dotted, sizeof(dotted), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
            m_names.push_back(Utf8ToWide(dotted, strlen(dotted)));
            KW_INFO("CHostNetworkInfo::_getIpAddr", "[ENT]CHostNetworkInfo::_getIpAddr: IP%d=%s ",
                    static_cast<int>(i), dotted);
        }
    } catch (...) {
        KW_ERROR("CHostNetworkInfo::_getIpAddr", "out of memory");
        return false;
    }
    return true;
}

bool CHostNetworkInfo::_getHostname() {
    char hostname[kHostnameCb] = {0};
    if (gethostname(hostname, kHostnameCb) != 0) {
        KW_ERROR("CHostNetworkInfo::_getHostname", "gethostname failed: %d", WSAGetLastError());
        return false;
    }
    hostname[kHostnameCb - 1] = '\0';
    try {
        int cch = MultiByteToWideChar(CP_ACP, 0, hostname, -1, nullptr, 0);
        if (cch <= 1) {
            KW_ERROR("CHostNetworkInfo::_getHostname", "empty or unconvertible host name");
            return false;
        }
        std::wstring wide(static_cast<size_t>(cch), L'\0');
        MultiByteToWideChar(CP_ACP, 0, hostname, -1, &wide[0], cch);
        wide.resize(static_cast<size_t>(cch - 1));
        m_names.push_back(std::move(wide));
    } catch (...) {
        KW_ERROR("CHostNetworkInfo::_getHostname", "out of memory");
        return false;
    }
    KW_INFO("CHostNetworkInfo::_getHostname", "[ENT]CHostNetworkInfo::_getHostname: hostname=%s",
            hostname);
    return true;
}

bool CHostNetworkInfo::IsLocalHost(const wchar_t* name, size_t length, bool allowLocalhost) {
    if (!name || length == 0) return false;
    if (!Init()) return false;
    for (const std::wstring& local : m_names)
        if (EqualPrefixNoCase(name, local.c_str(), length)) return true;
    return allowLocalhost && EqualPrefixNoCase(name, L"localhost", length);
}

bool SplitUncPath(const std::wstring& path, std::wstring& host, std::wstring& share,
                  std::wstring& rest) {
    host.clear();
    share.clear();
    rest.clear();
    if (path.size() < 5 || path[0] != L'\\' || path[1] != L'\\') return false;
    if (path[2] == L'?' || path[2] == L'.') return false;
    size_t hostEnd = path.find(L'\\', 2);
    if (hostEnd == std::wstring::npos || hostEnd == 2) return false;
    size_t shareEnd = path.find(L'\\', hostEnd + 1);
    if (shareEnd == std::wstring::npos) shareEnd = path.size();
    if (shareEnd == hostEnd + 1) return false;
    host.assign(path, 2, hostEnd - 2);
    share.assign(path, hostEnd + 1, shareEnd - hostEnd - 1);
    rest.assign(path, shareEnd, std::wstring::npos);
    return true;
}

std::wstring JoinShareLocalPath(const std::wstring& localPath, const std::wstring& rest) {
    std::wstring out = localPath;
    if (rest.empty()) return out;
    const bool endsWithSep = !out.empty() && out.back() == L'\\';
    const bool startsWithSep = rest.front() == L'\\';
    if (endsWithSep && startsWithSep) out.append(rest, 1, std::wstring::npos);
    else if (!endsWithSep && !startsWithSep && !out.empty()) out.append(L"\\").append(rest);
    else out.append(rest);
    return out;
}

bool CHostNetworkInfo::ToLocalPath(const std::wstring& path, std::wstring& out) {
    out.clear();
    try {
        std::wstring host, share, rest;
        if (!SplitUncPath(path, host, share, rest)) return false;
        if (!IsLocalHost(host.c_str(), host.size(), true)) return false;

        unique_netapi_buffer info;
        NET_API_STATUS st = NetShareGetInfo(nullptr, const_cast<LMSTR>(share.c_str()), 502, info.put());
        if (st != NERR_Success || !info) {
            KW_ERROR("CHostNetworkInfo::ToLocalPath", "NetShareGetInfo(%ls) failed: %lu",
                     share.c_str(), static_cast<unsigned long>(st));
            return false;
        }
        const auto* shi = reinterpret_cast<const SHARE_INFO_502*>(info.get());
        if (!shi->shi502_path || !shi->shi502_path[0]) {
            KW_ERROR("CHostNetworkInfo::ToLocalPath", "share %ls has no local path", share.c_str());
            return false;
        }
        out = JoinShareLocalPath(shi->shi502_path, rest);
        return true;
    } catch (...) {
        out.clear();
        return false;
    }
}

namespace {
SRWLOCK g_instanceLock = SRWLOCK_INIT;
std::atomic<CHostNetworkInfo*> g_instance{nullptr};
}  // namespace

CHostNetworkInfo* GetHostNetworkInfo() {
    CHostNetworkInfo* p = g_instance.load(std::memory_order_acquire);
    if (p) return p;
    srw_exclusive lock(g_instanceLock);
    p = g_instance.load(std::memory_order_relaxed);
    if (!p) {
        p = new (std::nothrow) CHostNetworkInfo();
        g_instance.store(p, std::memory_order_release);
    }
    return p;
}

}  // namespace kw
