#include "registry/user_reg_hive.h"

#include "common/func_resolver.h"
#include "diag/trace.h"

namespace kw_user {

namespace {

const wchar_t* const kHivePrivileges[] = {SE_BACKUP_NAME, SE_RESTORE_NAME};
constexpr DWORD kPrivilegeCount = sizeof(kHivePrivileges) / sizeof(kHivePrivileges[0]);

using RtlDllShutdownInProgressFn = BOOLEAN(WINAPI*)();

}  // namespace

CUserRegPrivilegeScope::CUserRegPrivilegeScope() noexcept {
    static const char kFn[] = "CUserRegPrivilegeScope::CUserRegPrivilegeScope";
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY,
                          m_token.put())) {
        KW_ERROR(kFn, "OpenProcessToken failed, error=%lu", GetLastError());
        return;
    }
    // TOKEN_PRIVILEGES holds one entry inline; room for the rest follows it.
    std::vector<BYTE> wanted;
    try {
        const size_t cb = sizeof(TOKEN_PRIVILEGES) + kPrivilegeCount * sizeof(LUID_AND_ATTRIBUTES);
        wanted.assign(cb, 0);
        m_previous.assign(cb, 0);
    } catch (...) {
        KW_ERROR(kFn, "out of memory");
        return;
    }
    auto* tp = reinterpret_cast<TOKEN_PRIVILEGES*>(wanted.data());
    tp->PrivilegeCount = kPrivilegeCount;
    for (DWORD i = 0; i < kPrivilegeCount; ++i) {
        if (!LookupPrivilegeValueW(nullptr, kHivePrivileges[i], &tp->Privileges[i].Luid)) {
            KW_ERROR(kFn, "LookupPrivilegeValueW %ls failed, error=%lu", kHivePrivileges[i],
                     GetLastError());
            return;
        }
        tp->Privileges[i].Attributes = SE_PRIVILEGE_ENABLED;
    }
    DWORD cbPrevious = static_cast<DWORD>(m_previous.size());
    if (!AdjustTokenPrivileges(m_token.get(), FALSE, tp, cbPrevious,
                               reinterpret_cast<TOKEN_PRIVILEGES*>(m_previous.data()),
                               &cbPrevious)) {
        KW_ERROR(kFn, "AdjustTokenPrivileges failed, error=%lu", GetLastError());
        m_previous.clear();
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
    if (!m_token || m_previous.empty()) return;
    auto* previous = reinterpret_cast<TOKEN_PRIVILEGES*>(m_previous.data());
    // Only the privileges whose state changed are listed; an empty list is a no-op.
    if (previous->PrivilegeCount == 0) return;
    DWORD err = GetLastError();
    AdjustTokenPrivileges(m_token.get(), FALSE, previous, 0, nullptr, nullptr);
    SetLastError(err);
}

bool IsProcessEnding() noexcept {
    static RtlDllShutdownInProgressFn fn =
        kw::ResolveProc<RtlDllShutdownInProgressFn>(L"ntdll.dll", "RtlDllShutdownInProgress");
    return fn && fn() != FALSE;
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
