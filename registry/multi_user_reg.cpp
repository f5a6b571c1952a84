#include "registry/multi_user_reg.h"

#include "common/func_resolver.h"
#include "common/handle.h"
#include "common/strutil.h"
#include "common/sys_text.h"
#include "diag/trace.h"
#include "registry/folder_names.h"
#include "registry/reg_util.h"

#include <vector>

namespace kw_user {

namespace {

const wchar_t kProfileList[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
constexpr size_t kCchSidMax = 184;
constexpr DWORD kCbProfilePathMax = 4096 * sizeof(wchar_t);

// Variables in a ProfileImagePath are system-wide (%SystemDrive%); a user's
// own variables never come from the process.
bool SystemVariable(const std::wstring& upperName, std::wstring& value) {
    if (IsPerUserVariable(upperName)) return false;
    std::wstring text;
    if (!kw::GetEnvironmentText(upperName.c_str(), text) || text.size() >= MAX_PATH) return false;
    value.swap(text);
    return true;
}

}  // namespace

bool IsSidText(const std::wstring& sid) {
    if (sid.size() < 3 || sid.size() > kCchSidMax) return false;
    if ((sid[0] != L'S' && sid[0] != L's') || sid[1] != L'-') return false;
    for (size_t i = 2; i < sid.size(); ++i)
        if (!(sid[i] >= L'0' && sid[i] <= L'9') && sid[i] != L'-') return false;
    return true;
}

bool ReadProfileImagePath(const std::wstring& sid, std::wstring& path, bool* entryExists) {
    path.clear();
    if (entryExists) *entryExists = false;
    kw::unique_hkey key;
    const std::wstring subKey = std::wstring(kProfileList) + L"\\" + sid;
    if (kw::DynRegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey.c_str(), 0, KEY_READ | KEY_WOW64_64KEY,
                             key.put()) != ERROR_SUCCESS)
        return false;
    if (entryExists) *entryExists = true;
    std::wstring raw;
    DWORD cb = 0;
    if (!kw::RegQueryString(key.get(), L"ProfileImagePath", raw, nullptr, &cb) ||
        cb > kCbProfilePathMax)
        return false;
    path = ExpandUserText(raw, SystemVariable);
    // A trailing separator would double the one of "\NTUSER.dat".
    while (path.size() > 3 && path.back() == L'\\') path.pop_back();
    return !path.empty();
}

CMultiUserRegManager::CMultiUserRegManager() noexcept { InitializeCriticalSection(&m_lock); }

CMultiUserRegManager::~CMultiUserRegManager() {
    // No registry work and no trace: hives were unloaded when they were read.
    m_users.clear();
    DeleteCriticalSection(&m_lock);
}

void CMultiUserRegManager::EnsureProfileList() {
    if (m_bListed) return;
    m_bListed = true;
    kw::unique_hkey key;
    const LONG rc = kw::DynRegOpenKeyExW(HKEY_LOCAL_MACHINE, kProfileList, 0,
                                         KEY_READ | KEY_WOW64_64KEY, key.put());
    if (rc != ERROR_SUCCESS) {
        KW_ERROR("CMultiUserRegManager::EnsureProfileList", "cannot open ProfileList, error=%ld",
                 rc);
        return;
    }
    for (DWORD index = 0;; ++index) {
        wchar_t name[256] = {0};
        DWORD cchName = 256;
        LONG rc =
            RegEnumKeyExW(key.get(), index, name, &cchName, nullptr, nullptr, nullptr, nullptr);
        if (rc == ERROR_MORE_DATA) continue;  // longer than any SID
        if (rc != ERROR_SUCCESS) break;
        const std::wstring sid(name, kw::LenBounded(name, cchName));
        if (!IsSidText(sid)) continue;  // e.g. the ".bak" copies of damaged profiles
        std::wstring profile;
        ReadProfileImagePath(sid, profile);
        const std::wstring upper = kw::AsciiUpperName(sid);
        if (!m_users.count(upper)) m_users[upper].reset(new CUserRegHelper(upper, profile));
    }
}

CUserRegHelper* CMultiUserRegManager::FindUser(const std::wstring& upperSid) {
    EnsureProfileList();
    auto it = m_users.find(upperSid);
    if (it != m_users.end()) return it->second.get();
    // A profile created after the list was read.
    std::wstring profile;
    bool exists = false;
    ReadProfileImagePath(upperSid, profile, &exists);
    if (!exists) return nullptr;
    std::unique_ptr<CUserRegHelper> user(new CUserRegHelper(upperSid, profile));
    CUserRegHelper* found = user.get();
    m_users[upperSid] = std::move(user);
    return found;
}

BOOL CMultiUserRegManager::GetSpecialShellVariableBySid(const wchar_t* userSid, const wchar_t* name,
                                                        wchar_t* out) noexcept {
    static const char kFn[] = "CMultiUserRegManager::GetSpecialShellVariableBySid";
    if (!out) {
        KW_ERROR(kFn, "no output buffer");
        return FALSE;
    }
    out[0] = L'\0';
    if (!userSid || !userSid[0] || !name || !name[0]) {
        KW_ERROR(kFn, "empty SID or variable name");
        return FALSE;
    }
    try {
        const std::wstring upperSid = kw::AsciiUpperName(userSid);
        if (!IsSidText(upperSid)) {
            KW_ERROR(kFn, "not a SID: %ls", userSid);
            return FALSE;
        }
        const std::wstring upperName = kw::AsciiUpperName(name);
        std::wstring value;
        {
            kw::cs_lock lock(m_lock);
            CUserRegHelper* user = FindUser(upperSid);
            if (!user) {
                KW_ERROR(kFn, "no user profile for %ls", userSid);
                return FALSE;
            }
            user->Fill();
            if (!user->GetVariable(upperName, value)) {
                KW_ERROR(kFn, "%ls has no value for %ls", userSid, name);
                return FALSE;
            }
        }
        kw::CopyBounded(out, MAX_PATH, value.c_str(), value.size());
        return TRUE;
    } catch (...) {
        out[0] = L'\0';
        KW_ERROR(kFn, "out of memory");
        return FALSE;
    }
}

std::vector<std::wstring> CMultiUserRegManager::GetUserSids() noexcept {
    std::vector<std::wstring> sids;
    try {
        kw::cs_lock lock(m_lock);
        EnsureProfileList();
        for (const auto& entry : m_users) sids.push_back(entry.first);
    } catch (...) {
        sids.clear();
    }
    return sids;
}

bool CMultiUserRegManager::HasUser(const wchar_t* userSid) noexcept {
    if (!userSid || !userSid[0]) return false;
    try {
        const std::wstring upperSid = kw::AsciiUpperName(userSid);
        if (!IsSidText(upperSid)) return false;
        kw::cs_lock lock(m_lock);
        return FindUser(upperSid) != nullptr;
    } catch (...) {
        return false;
    }
}

CMultiUserRegManager* GetMultiUserRegManager() noexcept {
    static CMultiUserRegManager s_manager;
    return &s_manager;
}

}  // namespace kw_user
