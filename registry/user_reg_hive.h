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

// Enables "SeBackupPrivilege" and "SeRestorePrivilege" on the process token
// for the scope and puts back their previous state when it ends. Enabled() is
// false when the token could not be adjusted or does not hold both privileges
// (traced as "CUserRegPrivilegeScope::CUserRegPrivilegeScope").
class CUserRegPrivilegeScope {
public:
    CUserRegPrivilegeScope() noexcept;
    ~CUserRegPrivilegeScope();
    CUserRegPrivilegeScope(const CUserRegPrivilegeScope&) = delete;
    CUserRegPrivilegeScope& operator=(const CUserRegPrivilegeScope&) = delete;

    bool Enabled() const noexcept { return m_bEnabled; }

private:
    kw::unique_handle m_token;
    std::vector<BYTE> m_previous;  // TOKEN_PRIVILEGES as they were
    bool m_bEnabled = false;
};

// True while the process is terminating (the loader is running the detach
// notifications of process exit). Hives are then left loaded: other threads
// are gone and registry work under the loader lock is not safe.
bool IsProcessEnding() noexcept;

// Whether HKEY_USERS\<name> exists (a hive loaded there, by anyone).
bool IsUserHiveLoaded(const std::wstring& name) noexcept;

// RegLoadKeyW(HKEY_USERS, name, file) inside a privilege scope. ERROR_SUCCESS
// or the system's code; traced as "CUserRegHelper::LoadHive" on refusal.
LONG LoadUserHive(const std::wstring& name, const std::wstring& file) noexcept;

// RegUnLoadKeyW(HKEY_USERS, name) inside a privilege scope. ERROR_SUCCESS or
// the system's code; traced as "CUserRegHelper::UnloadHive" on refusal.
LONG UnloadUserHive(const std::wstring& name) noexcept;

}  // namespace kw_user
