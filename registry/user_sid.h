// The security identifier of the user a process runs as.
#pragma once
#include "common/handle.h"

#include <windows.h>

#include <vector>

namespace kw {

// Opens the process (0x410) and its token (TOKEN_QUERY), reads the token's
// user and converts the SID to text into sidText (cut to sidTextLimit bytes,
// i.e. at most sidTextLimit/2 - 1 characters). Handles and the token-user
// buffer are handed back to the caller, who owns them. Traces the SID text.
// On any failure sidText is left empty; what was opened so far is still
// handed back.
void GetUserSidByPid(DWORD processId, std::vector<BYTE>* tokenUserOut, unique_handle* processOut,
                     unique_handle* tokenOut, wchar_t* sidText, size_t sidTextLimit);

}  // namespace kw
