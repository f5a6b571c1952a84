// The users of this machine and their registry hives. The user profiles come
// from HKLM "SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList" (64-bit
// view), enumerated once on first use; a SID asked for later that was not in
// that list is looked up in ProfileList again (a profile created since).
// A user's hive is made available on the first question about that user (see
// CUserRegHelper): read where it is loaded under HKEY_USERS, else loaded from
// the profile, read and unloaded at once; a failed load is retried on the next
// question about that user.
//
// Thread-safe: one critical section guards the user list and every one-time
// fill. Refusals are traced under "CMultiUserRegManager::<method>".
#pragma once
#include "registry/user_reg_helper.h"

#include <windows.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kw_user {

class CMultiUserRegManager {
public:
    CMultiUserRegManager() noexcept;
    virtual ~CMultiUserRegManager();
    CMultiUserRegManager(const CMultiUserRegManager&) = delete;
    CMultiUserRegManager& operator=(const CMultiUserRegManager&) = delete;

    // The value of a variable or shell folder for the user with this SID,
    // copied into out (260 characters, cut): "USERPROFILE" is the expanded
    // "ProfileImagePath" of the user's ProfileList entry; TEMP, TMP, APPDATA
    // and the other variables come from the user's "Volatile Environment",
    // else "Environment"; shell-folder names (token names and second
    // spellings of the shell-folder name table) from the user's "User Shell
    // Folders". Names are compared after ASCII upper-casing; %USERPROFILE% in
    // the values is that user's profile folder. FALSE (out empty) when the SID
    // or the name is null or empty, the SID is not a SID text, the manager
    // holds no such user, or the user has no such value.
    BOOL GetSpecialShellVariableBySid(const wchar_t* userSid, const wchar_t* name,
                                      wchar_t* out /* MAX_PATH */) noexcept;

    // The SIDs of the users the manager holds (upper-cased), in SID order.
    std::vector<std::wstring> GetUserSids() noexcept;
    // Whether the manager holds a user with this SID (looking it up in
    // ProfileList when it is not known yet).
    bool HasUser(const wchar_t* userSid) noexcept;

private:
    void EnsureProfileList();
    CUserRegHelper* FindUser(const std::wstring& upperSid);

    CRITICAL_SECTION m_lock;
    bool m_bListed = false;
    std::map<std::wstring, std::unique_ptr<CUserRegHelper>> m_users;  // upper SID -> user
};

// The process-wide manager, created on first use and destroyed at process exit.
CMultiUserRegManager* GetMultiUserRegManager() noexcept;

// Whether `sid` looks like a SID text ("S-" followed by digits and '-',
// at most 184 characters), so that it can name a key below HKEY_USERS.
bool IsSidText(const std::wstring& sid);

// Reads the expanded "ProfileImagePath" of ProfileList\<sid> (64-bit view),
// without a trailing backslash. False (path empty) when the entry or the value
// is missing or not a string; entryExists tells whether the entry itself exists.
bool ReadProfileImagePath(const std::wstring& sid, std::wstring& path, bool* entryExists = nullptr);

}  // namespace kw_user
