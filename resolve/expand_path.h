// Environment and special-folder expansion of registry text, for the user who
// owns the changed key (token and SID text) and in the requested view
// (bWow64Expand 0 on a WOW64 process: the 64-bit program folders).
//
// Trace lines go out under "ExpandPath" and "GetSpecialPathByToken". Nothing
// here refuses its caller: a token that cannot be expanded stays in the text.
// The folder tables are filled once per process (thread-safe) and never
// refreshed; expansions of 4096 characters or more count as failures.
#pragma once
#include "registry/folder_names.h"

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
// characters; nothing copied when cbPath < 2; the text is never read beyond
// the buffer). Text without '%' returns at once, untouched and untraced.
// Returns path.
wchar_t* ExpandPath(wchar_t* path, DWORD cbPath, HANDLE hUserToken, const wchar_t* userSid,
                    BOOL bWow64Expand);
// The same into a growable string, without logging and without the registry fallback.
void ExpandPathString(const std::wstring& text, std::wstring& result, HANDLE hUserToken,
                      const wchar_t* userSid, BOOL bWow64Expand);

// Folder ids other than 261 and 263: QueryFolderPath, always nonzero. 261 and
// 263: the user's USERPROFILE / TEMP through the token, else (with a SID) from
// the multi-user registry manager; 0 with out empty when neither answers.
BOOL GetSpecialPathByToken(HANDLE hUserToken, const wchar_t* userSid, int folderId,
                           wchar_t* out /* MAX_PATH */);
// 261 and 263: the literal "%USERPROFILE%" / "%TEMP%"; others: QueryFolderPath.
const wchar_t* GetFolderPathById(int folderId);    // thread-local result buffer
const wchar_t* GetFolderPathById64(int folderId);  // thread-local result buffer
// Clear out (260 characters), then: ids below 256 through the shell; 256..260
// (native, the process's registry view) or 256..263 (64-bit view) from the
// process-wide tables; other ids leave out empty.
void QueryFolderPath(int folderId, wchar_t* out /* MAX_PATH */);
void QueryFolderPath64(int folderId, wchar_t* out /* MAX_PATH */);
// ExpandEnvironmentStringsForUserW; 0 when it fails (also: the result did not
// fit cchOut) or out is null, else the length of out.
DWORD ExpandForUser(HANDLE hUserToken, const wchar_t* text, wchar_t* out, DWORD cchOut);
}  // namespace kw
