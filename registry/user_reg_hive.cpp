#include "registry/user_reg_hive.h"

#include "common/func_resolver.h"
#include "diag/trace.h"

namespace kw_user {

namespace {

const wchar_t* const kHivePrivileges[] = {SE_BACKUP_NAME, SE_RESTORE_NAME};
constexpr DWORD kPrivilegeCount = sizeof(kHivePrivileges) / sizeof(kHivePrivileges[0]);

}  // namespace

CUserRegPrivilegeScope::CUserRegPrivilegeScope() noexcept {
    static const char kFn[] = "CUserRegPrivilegeScope::CUserRegPrivilegeScope";
    // A thread that already impersonates someone gets that token back at the end.
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, m_previousThreadToken.put()) &&
        GetLastError() != ERROR_NO_TOKEN) {
        KW_ERROR(kFn, "OpenThreadToken failed, error=%lu", GetLastError());
        return;
    }
    // The privileges are enabled on a copy of the process token that only this
    // thread wears: the process token, which every other thread of the host
    // uses, is never changed.
    if (!ImpersonateSelf(SecurityImpersonation)) {
        KW_ERROR(kFn, "ImpersonateSelf failed, error=%lu", GetLastError());
        return;
    }
    m_bImpersonating = true;
    kw::unique_handle token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, TRUE,
                         token.put())) {
        KW_ERROR(kFn, "OpenThreadToken failed, error=%lu", GetLastError());
        return;
    }
    BYTE buffer[sizeof(TOKEN_PRIVILEGES) + kPrivilegeCount * sizeof(LUID_AND_ATTRIBUTES)] = {0};
    auto* tp = reinterpret_cast<TOKEN_PRIVILEGES*>(buffer);
    tp->PrivilegeCount = kPrivilegeCount;
    for (DWORD i = 0; i < kPrivilegeCount; ++i) {
        if (!LookupPrivilegeValueW(nullptr, kHivePrivileges[i], &tp->Privileges[i].Luid)) {
            KW_ERROR(kFn, "LookupPrivilegeValueW %ls failed, error=%lu", kHivePrivileges[i],
                     GetLastError());
            return;
        }
        tp->Privileges[i].Attributes = SE_PRIVILEGE_ENABLED;
    }
    if (!AdjustTokenPrivileges(token.get(), FALSE, tp, 0, nullptr, nullptr)) {
        KW_ERROR(kFn, "AdjustTokenPrivileges failed, error=%lu", GetLastError());
        return;
    }
    // AdjustTokenPrivileges succeeds also when the token lacks a privilege.
    if (GetLastError() == ERROR_NOT_ALL_ASSIGNED) {
        KW_ERROR(kFn, "the process token does not hold SeBackupPrivilege and SeRestorePrivilege");
        return;
    }
    m_bEnabled = true;
}

CUserRegPrivilegeScope::~CUserRegPrivilegeScope() {
    if (!m_bImpersonating) return;
    DWORD err = GetLastError();
    // The thread's copy goes away with the impersonation.
    if (m_previousThreadToken)
        SetThreadToken(nullptr, m_previousThreadToken.get());
    else
        RevertToSelf();
    SetLastError(err);
}

bool IsUserHiveLoaded(const std::wstring& name) noexcept {
    if (name.empty()) return false;
    kw::unique_hkey key;
    return kw::DynRegOpenKeyExW(HKEY_USERS, name.c_str(), 0, KEY_READ | KEY_WOW64_64KEY,
                                key.put()) == ERROR_SUCCESS;
}

LONG LoadUserHive(const std::wstring& name, const std::wstring& file) noexcept {
    static const char kFn[] = "CUserRegHelper::LoadHive";
    CUserRegPrivilegeScope privileges;
    LONG rc = RegLoadKeyW(HKEY_USERS, name.c_str(), file.c_str());
    if (rc != ERROR_SUCCESS)
        KW_ERROR(kFn, "RegLoadKeyW %ls from %ls failed, error=%ld", name.c_str(), file.c_str(), rc);
    else
        KW_INFO(kFn, "loaded %ls from %ls", name.c_str(), file.c_str());
    return rc;
}

LONG UnloadUserHive(const std::wstring& name) noexcept {
    static const char kFn[] = "CUserRegHelper::UnloadHive";
    CUserRegPrivilegeScope privileges;
    LONG rc = RegUnLoadKeyW(HKEY_USERS, name.c_str());
    if (rc != ERROR_SUCCESS)
        KW_ERROR(kFn, "RegUnLoadKeyW %ls failed, error=%ld", name.c_str(), rc);
    else
        KW_INFO(kFn, "unloaded %ls", name.c_str());
    return rc;
}

}  // namespace kw_user
