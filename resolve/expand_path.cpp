// Expansion of registry text into file paths for the user who owns the changed
// key, in the requested file-system view.
#include "resolve/expand_path.h"

#include "common/strutil.h"
#include "common/sys_text.h"
#include "diag/trace.h"
#include "registry/multi_user_reg.h"
#include "resolve/wow64.h"

#include <userenv.h>

#include <algorithm>
#include <vector>

namespace kw {

namespace {

const char kExpandPath[] = "ExpandPath";
const char kGetSpecialPathByToken[] = "GetSpecialPathByToken";

// Size of the expansion buffers; a result of 1 to kCchExpand-1 characters counts.
constexpr DWORD kCchExpand = 4096;

// ExpandEnvironmentStringsForUserW answers TRUE on Windows but the character
// count including the terminator under Wine (its ExpandEnvironmentStringsW
// result). Either way 0 is failure, and a count above the buffer means the
// text did not fit (Wine then still writes a cut, terminated text).
bool CallExpandForUser(HANDLE hUserToken, const wchar_t* text, wchar_t* out, DWORD cchOut) {
    if (!text || !out || cchOut == 0) return false;
    out[0] = L'\0';
    DWORD n = static_cast<DWORD>(ExpandEnvironmentStringsForUserW(hUserToken, text, out, cchOut));
    if (n == 0 || n > cchOut || LenBounded(out, cchOut) >= cchOut) {
        out[0] = L'\0';
        return false;
    }
    return true;
}

// Expands with the process environment into out[cchOut] (cut, terminated) and
// returns the text's length with its terminator, which the caller judges
// (1..4095 counts); 0 on failure.
DWORD CallExpandProcessEnv(const wchar_t* text, wchar_t* out, DWORD cchOut) {
    std::wstring full;
    if (!ExpandEnvironmentText(text, full)) return 0;
    CopyBounded(out, cchOut, full.c_str(), full.size());
    return static_cast<DWORD>(full.size() + 1);
}

bool Contains(const std::wstring& text, const wchar_t* what) {
    return text.find(what) != std::wstring::npos;
}

// The native-view token replacements shared by both entry points. With
// `requireSuccess`, a per-user token is replaced only by a successful,
// non-empty answer; without it, by whatever the resolver left in its buffer.
void ReplaceNativeTokens(std::wstring& w, HANDLE hUserToken, const wchar_t* userSid,
                         bool requireSuccess) {
    ReplaceAll(w, L"%SystemDrive%", GetFolderPathById(PATHID_SYSTEMDRIVE));
    ReplaceAll(w, L"%WinDir%", GetFolderPathById(PATHID_WINDIR));
    ReplaceAll(w, L"%SystemRoot%", GetFolderPathById(PATHID_WINDIR));
    ReplaceAll(w, L"%WinSystem%", GetFolderPathById(PATHID_SYSTEM));
    ReplaceAll(w, L"%ProgramFiles%", GetFolderPathById(PATHID_PROGRAMFILES));
    ReplaceAll(w, L"%CommonProgramFiles%", GetFolderPathById(PATHID_COMMONFILES));

    auto replaceUserToken = [&](const wchar_t* token, int folderId) {
        if (!Contains(w, token)) return;
        wchar_t buf[MAX_PATH] = {0};
        BOOL ok = GetSpecialPathByToken(hUserToken, userSid, folderId, buf);
        if (requireSuccess && (!ok || !buf[0])) return;
        ReplaceAll(w, token, buf);
    };
    replaceUserToken(L"%UserProfile%", PATHID_USERPROFILE);
    // GetFolderPathById(262) is empty in the native view: the token is
    // deliberately removed, not expanded.
    ReplaceAll(w, L"%AllUserProfile%", GetFolderPathById(PATHID_ALLUSERSPROFILE));
    replaceUserToken(L"%Temp%", PATHID_TEMP);
    replaceUserToken(L"%Tmp%", PATHID_TEMP);
}

// Lower-cases the text and points the two program-folder tokens at their
// 64-bit variables.
std::wstring RewriteFor64BitView(const std::wstring& text) {
    std::wstring w = ToLower(text);
    ReplaceAll(w, L"%programfiles%", L"%programw6432%");
    ReplaceAll(w, L"%commonprogramfiles%", L"%commonprogramw6432%");
    return w;
}

bool Has64BitTokensLeft(const std::wstring& w) {
    return Contains(w, L"%programw6432%") || Contains(w, L"%commonprogramw6432%");
}

bool IsWow64Process32() {
    CWow64Helper* helper = GetWow64Helper();
    return helper && helper->m_bIsWow64;
}

std::wstring ExpandPathCore(const std::wstring& input, HANDLE hUserToken, const wchar_t* userSid,
                            BOOL bWow64Expand) {
    std::wstring w = input;
    std::vector<wchar_t> buf(kCchExpand, L'\0');

    if (IsWow64Process32() && !bWow64Expand) {
        w = RewriteFor64BitView(input);
        DWORD len = ExpandForUser(hUserToken, w.c_str(), buf.data(), kCchExpand);
        KW_INFO(kExpandPath, "ExpandEnvironmentStrings in=%ls, out=%ls", input.c_str(), buf.data());
        bool failed = true;
        if (len >= 1 && len < kCchExpand && buf[0]) {
            w = buf.data();
            failed = false;
        }
        if (Has64BitTokensLeft(w)) failed = true;
        if (failed) {
            KW_ERROR(kExpandPath, "64的命令行解析失败，使用注册表解析");
            w = input;
            // Only the lower-case spellings get the 64-bit folders here; other
            // spellings are deliberately left to the process environment.
            ReplaceAll(w, L"%programfiles%", GetFolderPathById64(PATHID_PROGRAMFILES));
            ReplaceAll(w, L"%commonprogramfiles%", GetFolderPathById64(PATHID_COMMONFILES));
            KW_INFO(kExpandPath, "Pre ExpandEnvironmentStrings %ls", w.c_str());
            std::fill(buf.begin(), buf.end(), L'\0');
            DWORD n = CallExpandProcessEnv(w.c_str(), buf.data(), kCchExpand);
            KW_INFO(kExpandPath, "ExpandEnvironmentStrings_x64 in=%ls, out=%ls", w.c_str(),
                    buf.data());
            if (n >= 1 && n < kCchExpand && buf[0]) w = buf.data();
        }
        return w;
    }

    DWORD len = ExpandForUser(hUserToken, input.c_str(), buf.data(), kCchExpand);
    if (len >= 1 && len < kCchExpand && buf[0]) {
        KW_INFO(kExpandPath,
                "ExpandEnvironmentStringsByToken Success,szEnviePath=%ls outputPath=%ls",
                input.c_str(), buf.data());
        w = buf.data();
    }
    ReplaceNativeTokens(w, hUserToken, userSid, true);
    KW_INFO(kExpandPath, "ExpandPath szEnviePath=%ls outputPath=%ls", input.c_str(), w.c_str());
    return w;
}

}  // namespace

DWORD ExpandForUser(HANDLE hUserToken, const wchar_t* text, wchar_t* out, DWORD cchOut) {
    if (!out) return 0;
    if (!CallExpandForUser(hUserToken, text, out, cchOut)) return 0;
    return static_cast<DWORD>(LenBounded(out, cchOut));
}

BOOL GetSpecialPathByToken(HANDLE hUserToken, const wchar_t* userSid, int folderId, wchar_t* out) {
    if (!out) {
        KW_ERROR(kGetSpecialPathByToken, "out=0 nFolder=%d", folderId);
        return FALSE;
    }
    if (folderId != PATHID_USERPROFILE && folderId != PATHID_TEMP) {
        QueryFolderPath(folderId, out);
        KW_INFO(kGetSpecialPathByToken, "nFolder=%d exPath=%ls", folderId, out);
        return TRUE;
    }
    out[0] = L'\0';
    const wchar_t* variable = folderId == PATHID_USERPROFILE ? L"USERPROFILE" : L"TEMP";
    const wchar_t* text = folderId == PATHID_USERPROFILE ? L"%USERPROFILE%" : L"%TEMP%";

    wchar_t expanded[MAX_PATH] = {0};
    if (CallExpandForUser(hUserToken, text, expanded, MAX_PATH) && wcscmp(expanded, text) != 0) {
        KW_INFO(kGetSpecialPathByToken,
                "ExpandEnvironmentStringsForUserW Success szLinkEnvir=%ls szExpandEnvirPath=%ls",
                text, expanded);
        CopyBounded(out, MAX_PATH, expanded);
    } else {
        KW_ERROR(kGetSpecialPathByToken, "ExpandEnvironmentStringsForUserW Fail");
        if (!userSid || !userSid[0]) {
            KW_ERROR(kGetSpecialPathByToken, "UserSid=0");
            return FALSE;
        }
        wchar_t answer[MAX_PATH] = {0};
        kw_user::CMultiUserRegManager* manager = kw_user::GetMultiUserRegManager();
        if (!manager || !manager->GetSpecialShellVariableBySid(userSid, variable, answer)) {
            KW_ERROR(kGetSpecialPathByToken, "GetSpecialShellVariableBySid Error");
            return FALSE;
        }
        KW_INFO(kGetSpecialPathByToken,
                "GetSpecialShellVariableBySid Success szEnvir=%ls szExpandEnvirPath=%ls", variable,
                answer);
        CopyBounded(out, MAX_PATH, answer);
    }
    KW_INFO(kGetSpecialPathByToken, "GetSpecialPathByToken Success,szEnvir=%ls exPath=%ls",
            variable, out);
    return TRUE;
}

wchar_t* ExpandPath(wchar_t* path, DWORD cbPath, HANDLE hUserToken, const wchar_t* userSid,
                    BOOL bWow64Expand) {
    if (!path) return path;
    const size_t cchPath = cbPath / sizeof(wchar_t);
    // The caller's buffer may lack a terminator: never read past it.
    const size_t inputLen = LenBounded(path, cchPath);
    if (wmemchr(path, L'%', inputLen) == nullptr) return path;
    try {
        const std::wstring input(path, inputLen);
        const std::wstring w = ExpandPathCore(input, hUserToken, userSid, bWow64Expand);
        if (cbPath >= 2) CopyBounded(path, cchPath, w.c_str(), w.size());
    } catch (...) {
        KW_ERROR(kExpandPath, "ExpandPath failed, text kept");
    }
    return path;
}

void ExpandPathString(const std::wstring& text, std::wstring& result, HANDLE hUserToken,
                      const wchar_t* userSid, BOOL bWow64Expand) {
    result = text;
    if (text.find(L'%') == std::wstring::npos) return;
    std::vector<wchar_t> buf(kCchExpand, L'\0');

    if (IsWow64Process32() && !bWow64Expand) {
        // No registry fallback here: a failed or incomplete expansion keeps the
        // lower-cased, rewritten text.
        result = RewriteFor64BitView(text);
        DWORD len = ExpandForUser(hUserToken, result.c_str(), buf.data(), kCchExpand);
        if (len >= 1 && len < kCchExpand && buf[0]) result = buf.data();
        return;
    }

    DWORD len = ExpandForUser(hUserToken, text.c_str(), buf.data(), kCchExpand);
    if (len >= 1 && len < kCchExpand && buf[0]) result = buf.data();
    ReplaceNativeTokens(result, hUserToken, userSid, false);
}

}  // namespace kw
