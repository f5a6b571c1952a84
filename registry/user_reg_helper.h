// One user's registry context: the profile folder named by the user's
// ProfileList entry, the user's hive under HKEY_USERS\<SID> (used where it is
// already loaded, else loaded from the profile's "\NTUSER.dat", with the class
// hive "AppData\Local\Microsoft\Windows\UsrClass.dat" under "<SID>_Classes")
// and the values read from it once: "Volatile Environment", "Environment" and
// "Software\Microsoft\Windows\CurrentVersion\Explorer\User Shell Folders".
// A hive the helper loads is unloaded as soon as those values are read, so
// none stays mounted; a hive file that cannot be loaded is tried again on the
// next Fill.
//
// Values are expanded for this user: %USERPROFILE% is the profile folder of
// the ProfileList entry (never the process's), the user's own variables come
// from the user's keys, variables that belong to a user (TEMP, APPDATA, ...)
// are never taken from the process; any other variable comes from the process
// environment (the system-wide ones: SystemRoot, ProgramFiles, ...).
//
// Not locked by itself: CMultiUserRegManager serialises every call.
#pragma once
#include <windows.h>

#include <functional>
#include <map>
#include <string>

namespace kw_user {

// Resolves an ASCII upper-cased variable name; false when unknown.
using UserVarLookup = std::function<bool(const std::wstring& upperName, std::wstring& value)>;

// Expands the %NAME% tokens of `text` through `lookup` (names ASCII
// upper-cased before the lookup). A token whose name is unknown or empty keeps
// its '%' and scanning goes on after it; a '%' without a closing '%' is kept.
// The result is cut at cchMax characters.
std::wstring ExpandUserText(const std::wstring& text, const UserVarLookup& lookup,
                            size_t cchMax = 4095);

// Variables that belong to one user and are therefore never answered from the
// process environment for another user (name ASCII upper-cased).
bool IsPerUserVariable(const std::wstring& upperName);

// The shell folder id under which a "User Shell Folders" value name is filed:
// the first row of the shell-folder name table whose token name or second
// spelling equals the name after ASCII upper-casing; -1 when none does.
int ShellFolderIdOfValueName(const std::wstring& valueName);

class CUserRegHelper {
public:
    // sid: the SID text; profilePath: the expanded "ProfileImagePath" (may be empty).
    CUserRegHelper(const std::wstring& sid, const std::wstring& profilePath);
    // Does no registry work (see Fill).
    virtual ~CUserRegHelper();
    CUserRegHelper(const CUserRegHelper&) = delete;
    CUserRegHelper& operator=(const CUserRegHelper&) = delete;

    const std::wstring& Sid() const { return m_strSid; }
    const std::wstring& ProfilePath() const { return m_strProfile; }

    // Makes the hive available (loading it when needed), reads the values
    // and unloads what it loaded. Once the values are read, later calls only
    // retry an unload that failed; after a failed load nothing is kept and
    // the next call starts again. May throw std::bad_alloc.
    void Fill();
    bool IsFilled() const { return m_bFilled; }
    bool HasHive() const { return m_bHive; }
    bool LoadedUserHive() const { return m_bLoadedUser; }
    bool LoadedClassesHive() const { return m_bLoadedClasses; }

    // The value of a variable or shell folder (name ASCII upper-cased):
    // "USERPROFILE" from the profile folder; other names from "Volatile
    // Environment", then "Environment"; then the shell folder of the first
    // table row whose token name or second spelling matches (the profile
    // folder for the profile id 0x28 when no value is filed). False when none.
    bool GetVariable(const std::wstring& upperName, std::wstring& out) const;

    // Unloads what this helper loaded and is still loaded.
    void UnloadHives() noexcept;

private:
    // False only when the user's hive file exists and could not be loaded.
    bool LoadHives();
    void ReadValues();
    bool LookupBase(const std::wstring& upperName, std::wstring& value) const;
    bool LookupUser(const std::wstring& upperName, std::wstring& value) const;

    std::wstring m_strSid;
    std::wstring m_strProfile;
    bool m_bFilled = false;
    bool m_bHive = false;
    bool m_bLoadedUser = false;
    bool m_bLoadedClasses = false;
    std::map<std::wstring, std::wstring> m_volatileEnv;  // upper name -> expanded value
    std::map<std::wstring, std::wstring> m_environment;  // upper name -> expanded value
    std::map<int, std::wstring> m_shellFolders;          // folder id -> expanded path
};

}  // namespace kw_user
