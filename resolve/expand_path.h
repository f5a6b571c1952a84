// Environment and special-folder expansion of registry text, for the user who
// owns the changed key (token and SID text) and in the requested view
// (bWow64Expand 0 on a WOW64 process: the 64-bit program folders).
#pragma once
#include <windows.h>

#include <string>

namespace kw {

enum : int {
    PATHID_SYSTEMDRIVE = 256,
    PATHID_WINDIR = 257,
    PATHID_SYSTEM = 258,
    PATHID_PROGRAMFILES = 259,
    PATHID_COMMONFILES = 260,
    PATHID_USERPROFILE = 261,
    PATHID_ALLUSERSPROFILE = 262,
    PATHID_TEMP = 263,
};

// In place; cbPath is the buffer size in bytes (result cut to cbPath/2 - 1
// characters; nothing copied when cbPath < 2). Returns path.
wchar_t* ExpandPath(wchar_t* path, DWORD cbPath, HANDLE hUserToken, const wchar_t* userSid,
                    BOOL bWow64Expand);
// The same into a growable string, without logging and without the registry fallback.
void ExpandPathString(const std::wstring& text, std::wstring& result, HANDLE hUserToken,
                      const wchar_t* userSid, BOOL bWow64Expand);

BOOL GetSpecialPathByToken(HANDLE hUserToken, const wchar_t* userSid, int folderId,
                           wchar_t* out /* MAX_PATH */);
const wchar_t* GetFolderPathById(int folderId);    // thread-local result buffer
const wchar_t* GetFolderPathById64(int folderId);  // thread-local result buffer
void QueryFolderPath(int folderId, wchar_t* out /* MAX_PATH */);
void QueryFolderPath64(int folderId, wchar_t* out /* MAX_PATH */);
DWORD ExpandForUser(HANDLE hUserToken, const wchar_t* text, wchar_t* out, DWORD cchOut);
int GetCsidlByName(const std::wstring& name);

// The 40-row shell-folder name table.
struct CsidlName {
    const wchar_t* token;
    int csidl;
    const wchar_t* second;  // null when none
};
const CsidlName* GetCsidlNameTable(size_t* count);

}  // namespace kw
