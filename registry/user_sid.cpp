#include "registry/user_sid.h"

#include "common/func_resolver.h"
#include "common/strutil.h"
#include "diag/trace.h"

#include <atomic>

namespace kw {

namespace {

constexpr DWORD kProcessAccess = PROCESS_QUERY_INFORMATION | PROCESS_VM_READ;  // 0x410

using ConvertSidToStringSidWFn = BOOL(WINAPI*)(PSID, LPWSTR*);

// Resolved by name on first use and kept: the function is optional on the
// systems this module supports.
ConvertSidToStringSidWFn ConvertSidFn() noexcept {
    static std::atomic<ConvertSidToStringSidWFn> cached{nullptr};
    ConvertSidToStringSidWFn fn = cached.load(std::memory_order_acquire);
    if (fn) return fn;
    fn = ResolveProc<ConvertSidToStringSidWFn>(L"Advapi32.dll", "ConvertSidToStringSidW");
    if (fn) cached.store(fn, std::memory_order_release);
    return fn;
}

}  // namespace

void GetUserSidByPid(DWORD processId, std::vector<BYTE>* tokenUserOut, unique_handle* processOut,
                     unique_handle* tokenOut, wchar_t* sidText, size_t sidTextLimit) {
    // The limit counts bytes; the text keeps room for its terminator.
    const size_t cchSid = sidTextLimit / sizeof(wchar_t);
    if (sidText && cchSid) sidText[0] = L'\0';

    unique_handle localProcess, localToken;
    std::vector<BYTE> localBuffer;
    unique_handle& process = processOut ? *processOut : localProcess;
    unique_handle& token = tokenOut ? *tokenOut : localToken;
    std::vector<BYTE>& tokenUser = tokenUserOut ? *tokenUserOut : localBuffer;

    process.reset(OpenProcess(kProcessAccess, FALSE, processId));
    if (!process) return;
    if (!OpenProcessToken(process.get(), TOKEN_QUERY, token.put())) return;

    DWORD cbNeeded = 0;
    if (GetTokenInformation(token.get(), TokenUser, nullptr, 0, &cbNeeded) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER || cbNeeded < sizeof(TOKEN_USER))
        return;
    try {
        tokenUser.assign(cbNeeded, 0);
    } catch (...) {
        return;
    }
    if (!GetTokenInformation(token.get(), TokenUser, tokenUser.data(), cbNeeded, &cbNeeded)) return;

    ConvertSidToStringSidWFn convert = ConvertSidFn();
    if (!convert) return;
    wchar_t* text = nullptr;
    if (!convert(reinterpret_cast<TOKEN_USER*>(tokenUser.data())->User.Sid, &text) || !text) return;
    unique_local owned(text);
    if (!sidText || !cchSid) return;
    CopyBounded(sidText, cchSid, text);
    KW_INFO("GetUserSidByPid", "%ls", sidText);
}

}  // namespace kw
