#include "registry/user_sid.h"

#include "common/func_resolver.h"
#include "common/strutil.h"
#include "diag/trace.h"

#include <atomic>
#include <vector>

namespace kw {

namespace {

constexpr DWORD kProcessAccess = PROCESS_QUERY_INFORMATION | PROCESS_VM_READ;  // 0x410
// Events come in bursts from a few processes; 32 covers them with room.
constexpr size_t kCacheEntries = 32;
constexpr DWORD kSweepIntervalMs = 1000;

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

// Opens the process and its token and reads the token user's SID text.
std::shared_ptr<ProcessUser> ReadProcessUser(DWORD processId) {
    auto user = std::make_shared<ProcessUser>();
    user->process.reset(OpenProcess(kProcessAccess, FALSE, processId));
    if (!user->process) return nullptr;
    if (!OpenProcessToken(user->process.get(), TOKEN_QUERY, user->token.put())) return nullptr;
    DWORD cbNeeded = 0;
    if (GetTokenInformation(user->token.get(), TokenUser, nullptr, 0, &cbNeeded) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER || cbNeeded < sizeof(TOKEN_USER))
        return nullptr;
    std::vector<BYTE> tokenUser(cbNeeded, 0);
    if (!GetTokenInformation(user->token.get(), TokenUser, tokenUser.data(), cbNeeded, &cbNeeded)) return nullptr;
    ConvertSidToStringSidWFn convert = ConvertSidFn();
    wchar_t* text = nullptr;
    if (!convert || !convert(reinterpret_cast<TOKEN_USER*>(tokenUser.data())->User.Sid, &text) || !text)
        return nullptr;
    unique_local owned(text);
    user->sid = text;
    return user;
}

bool HasEnded(const ProcessUser& user) noexcept {
    DWORD code = 0;
    return GetExitCodeProcess(user.process.get(), &code) && code != STILL_ACTIVE;
}

struct Entry {
    DWORD pid = 0;
    std::shared_ptr<const ProcessUser> user;  // empty: a free slot
};

// The lock guards the slots only: lookups share it, and every system call
// (opening a process, testing whether it has ended) is made outside it.
SRWLOCK g_lock = SRWLOCK_INIT;
Entry g_entries[kCacheEntries];
size_t g_oldest = 0;  // the slot a full cache gives up next
std::atomic<DWORD> g_lastSweep{0};

std::shared_ptr<const ProcessUser> Find(DWORD pid) {
    srw_shared shared(g_lock);
    for (const Entry& e : g_entries)
        if (e.user && e.pid == pid) return e.user;
    return nullptr;
}

std::shared_ptr<const ProcessUser> Insert(DWORD pid, std::shared_ptr<const ProcessUser> user) {
    srw_exclusive exclusive(g_lock);
    Entry* slot = nullptr;
    for (Entry& e : g_entries) {
        if (e.user && e.pid == pid) return e.user;  // another thread was first
        if (!e.user && !slot) slot = &e;
    }
    if (!slot) {
        slot = &g_entries[g_oldest];
        g_oldest = (g_oldest + 1) % kCacheEntries;
    }
    slot->pid = pid;
    slot->user = user;
    return user;
}

void SweepWhenDue() {
    const DWORD now = GetTickCount();
    DWORD last = g_lastSweep.load();
    if (now - last < kSweepIntervalMs || !g_lastSweep.compare_exchange_strong(last, now)) return;
    SweepProcessUsers();
}

}  // namespace

size_t SweepProcessUsers() {
    Entry seen[kCacheEntries];
    {
        srw_shared shared(g_lock);
        for (size_t i = 0; i < kCacheEntries; ++i) seen[i] = g_entries[i];
    }
    bool ended[kCacheEntries] = {false};
    for (size_t i = 0; i < kCacheEntries; ++i) ended[i] = seen[i].user && HasEnded(*seen[i].user);
    size_t left = 0;
    srw_exclusive exclusive(g_lock);
    for (size_t i = 0; i < kCacheEntries; ++i) {
        // Only the entry that was tested: the slot may hold another by now.
        if (ended[i] && g_entries[i].user == seen[i].user) g_entries[i] = Entry();
        if (g_entries[i].user) ++left;
    }
    return left;
}

std::shared_ptr<const ProcessUser> LookUpProcessUser(DWORD processId) {
    try {
        SweepWhenDue();
        if (std::shared_ptr<const ProcessUser> known = Find(processId)) return known;
        std::shared_ptr<ProcessUser> fresh = ReadProcessUser(processId);
        if (!fresh) return nullptr;
        return Insert(processId, std::move(fresh));
    } catch (...) {
        return nullptr;  // out of memory: no user, as for a process that cannot be read
    }
}

std::shared_ptr<const ProcessUser> GetUserSidByPid(DWORD processId, wchar_t* sidText, size_t sidTextLimit) {
    // The limit counts bytes; the text keeps room for its terminator.
    const size_t cchSid = sidTextLimit / sizeof(wchar_t);
    if (sidText && cchSid) sidText[0] = L'\0';
    std::shared_ptr<const ProcessUser> user = LookUpProcessUser(processId);
    if (!user || !sidText || !cchSid) return user;
    CopyBounded(sidText, cchSid, user->sid.c_str());
    KW_INFO("GetUserSidByPid", "%ls", sidText);
    return user;
}

}  // namespace kw
