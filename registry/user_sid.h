// The security identifier of the user a process runs as.
#pragma once
#include "common/handle.h"

#include <windows.h>

#include <memory>
#include <string>

namespace kw {

// What an analysis needs of the acting process: its handle (0x410), its token
// (TOKEN_QUERY) and the SID text of the token's user. Shared by every holder;
// the handles stay open until the last holder lets go.
struct ProcessUser {
    unique_handle process;
    unique_handle token;
    std::wstring sid;
};

// The user of a process, from a small cache keyed by process id. An entry
// holds its process handle open, so the id cannot name another process while
// the entry lives; entries of processes that have ended are dropped by a
// sweep at most once a second, and the oldest entry makes room when the cache
// is full. Null when the process, its token or its user cannot be read (not
// cached: the next event asks again). No lock is held across a system call.
std::shared_ptr<const ProcessUser> LookUpProcessUser(DWORD processId);

// LookUpProcessUser, with the SID text copied into sidText (cut to
// sidTextLimit bytes, i.e. at most sidTextLimit/2 - 1 characters) and traced.
// On any failure sidText is left empty and null is returned.
std::shared_ptr<const ProcessUser> GetUserSidByPid(DWORD processId, wchar_t* sidText, size_t sidTextLimit);

// Drops the entries whose process has ended (what the periodic sweep does);
// returns how many entries remain.
size_t SweepProcessUsers();

}  // namespace kw
