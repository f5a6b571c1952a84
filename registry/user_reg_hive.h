// Loading and unloading user hives under HKEY_USERS, and the two privileges
// that loading and unloading need. Every call traces its refusal once (module
// "kwRegAnalyze", the function names given below) and leaves GetLastError()
// to the system call that refused.
#pragma once
#include "common/handle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace kw_user {

// Enables "SeBackupPrivilege" and "SeRestorePrivilege" for the calling thread
// only, for the scope: the thread impersonates the process (a copy of the
// process token) and the privileges are enabled on that copy; at the end the
// thread gets back the token it had (none, or the one it was impersonating).
// The process token is never changed. Enabled() is false when the copy could
// not be made or adjusted or the token does not hold both privileges (traced
// as "CUserRegPrivilegeScope::CUserRegPrivilegeScope").
class CUserRegPrivilegeScope {
public:
    CUserRegPrivilegeScope() noexcept;
    ~CUserRegPrivilegeScope();
    CUserRegPrivilegeScope(const CUserRegPrivilegeScope&) = delete;
    CUserRegPrivilegeScope& operator=(const CUserRegPrivilegeScope&) = delete;

    bool Enabled() const noexcept { return m_bEnabled; }

private:
    kw::unique_handle m_previousThreadToken;  // the token the thread impersonated before
    bool m_bImpersonating = false;
    bool m_bEnabled = false;
};

// Whether HKEY_USERS\<name> exists (a hive loaded there, by anyone).
bool IsUserHiveLoaded(const std::wstring& name) noexcept;

// RegLoadKeyW(HKEY_USERS, name, file) inside a privilege scope. ERROR_SUCCESS
// or the system's code; traced as "CUserRegHelper::LoadHive" on refusal.
LONG LoadUserHive(const std::wstring& name, const std::wstring& file) noexcept;

// RegUnLoadKeyW(HKEY_USERS, name) inside a privilege scope. ERROR_SUCCESS or
// the system's code; traced as "CUserRegHelper::UnloadHive" on refusal.
LONG UnloadUserHive(const std::wstring& name) noexcept;

}  // namespace kw_user
