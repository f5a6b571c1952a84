#include "registry/easy_clsid.h"

#include "common/handle.h"
#include "common/strutil.h"
#include "registry/clsid_string.h"
#include "registry/reg_util.h"
#include "resolve/wow64.h"

#include <vector>

namespace kw {

namespace {

// Root keys as the 32-bit predefined handle values the analyzers carry.
constexpr DWORD kRootUsers = 0x80000003;
constexpr DWORD kRootMachine = 0x80000002;

// The view of every open of the lookup (the native-view flag, 256).
constexpr REGSAM kNativeView = KEY_WOW64_64KEY;

// Server values are read into a buffer of 4096 bytes.
constexpr size_t kServerValueCch = 4096 / sizeof(wchar_t);

const wchar_t kInprocServer[] = L"InprocServer32";
const wchar_t kLocalServer[] = L"LocalServer32";

bool KeyExists(HKEY root, const wchar_t* path) noexcept {
    unique_hkey key;
    return RegOpenKeyExW(root, path, 0, KEY_READ | kNativeView, key.put()) == ERROR_SUCCESS;
}

// Reads the default value of root\classPath\serverName as text into
// value[kServerValueCch], cut to the buffer.
bool ReadServerValue(HKEY root, const wchar_t* classPath, const wchar_t* serverName,
                     wchar_t (&value)[kServerValueCch]) noexcept {
    value[0] = L'\0';
    wchar_t serverPath[MAX_PATH];
    FormatBounded(serverPath, MAX_PATH, "%ls\\%ls", classPath, serverName);
    unique_hkey key;
    if (RegOpenKeyExW(root, serverPath, 0, KEY_READ | kNativeView, key.put()) != ERROR_SUCCESS)
        return false;
    std::wstring text;
    if (!RegQueryString(key.get(), nullptr, text)) return false;
    CopyBounded(value, kServerValueCch, text.c_str(), text.size());
    return true;
}

}  // namespace

CEasyClsid::CEasyClsid(const wchar_t* userSid, const wchar_t* clsidText, BOOL useWow6432Node)
    : m_bFound(0), m_hRoot(0), m_bWow6432Node(useWow6432Node) {
    m_szClsid[0] = L'\0';
    m_szMachinePath[0] = L'\0';
    m_szUserPath[0] = L'\0';

    CopyBounded(m_szClsid, MAX_PATH, clsidText);
    if (wchar_t* brace = wcschr(m_szClsid, L'}')) brace[1] = L'\0';
    if (!IsClsidString(m_szClsid)) return;

    m_hRoot = kRootMachine;
    wchar_t sid[MAX_PATH];
    CopyBounded(sid, MAX_PATH, userSid, MAX_PATH);
    const bool haveSid = sid[0] != L'\0';
    const bool wow6432 = useWow6432Node && GetWow64Helper()->m_bIsWow64;

    // The classes path below a root, with or without the 32-bit node.
    const wchar_t* const node = wow6432 ? L"Wow6432Node\\" : L"";
    FormatBounded(m_szMachinePath, MAX_PATH, "Software\\Classes\\%lsCLSID\\%ls", node, m_szClsid);
    if (haveSid) {
        FormatBounded(m_szUserPath, MAX_PATH, "%ls\\Software\\Classes\\%lsCLSID\\%ls", sid,
                      node, m_szClsid);
    } else {
        // Without a SID the user path is looked up directly under HKEY_USERS,
        // where it never exists; deliberate: only a SID names per-user classes.
        FormatBounded(m_szUserPath, MAX_PATH, "Software\\Classes\\%lsCLSID\\%ls", node, m_szClsid);
    }

    struct ClassKey {
        HKEY root;
        DWORD rootValue;
        const wchar_t* path;
    };
    const ClassKey classKeys[] = {{HKEY_USERS, kRootUsers, m_szUserPath},
                                  {HKEY_LOCAL_MACHINE, kRootMachine, m_szMachinePath}};
    for (const ClassKey& ck : classKeys) {
        if (!KeyExists(ck.root, ck.path)) continue;
        for (const wchar_t* serverName : {kInprocServer, kLocalServer}) {
            wchar_t value[kServerValueCch];
            if (!ReadServerValue(ck.root, ck.path, serverName, value)) continue;
            try {
                ClsidServer server;
                server.reserved = ck.rootValue;
                server.path = value;
                server.keyName = serverName;
                m_servers.push_back(std::move(server));
            } catch (...) {
                // Out of memory: the list stays shorter, as for a missing value.
            }
        }
        m_bFound = 1;
        m_hRoot = ck.rootValue;
    }
}

}  // namespace kw
