// The module's operator new and delete. An event's analysis makes a few
// hundred allocations (path strings, lists, maps, the record), and the C runtime's
// heap serves every thread under one lock: host threads analysing at once
// would queue on it for each of them. Blocks of up to 8 KB are therefore recycled
// through a few caches, each guarded by a try-lock and given to threads in
// turn; a cache that is busy, empty or full hands the call on to the
// heap, so a block may be freed on any thread. Every block carries its size
// class in front of it (the heap's own alignment is kept).
#include <windows.h>

#include <cstdlib>
#include <new>

namespace {

// Classes 1 to 16 hold blocks of 16 to 256 bytes in steps of 16, classes 17
// to 21 blocks of 512 to 8,192 bytes (an analysis record, a record's trace
// line); anything larger always comes from the heap.
constexpr size_t kGranule = 16;
constexpr size_t kSmallClasses = 16;
constexpr size_t kClasses = 21;
constexpr size_t kCaches = 8;            // more than the host's analysing threads
constexpr unsigned kPerSmallClass = 16;  // a cache holds at most about 36 KB of small
constexpr unsigned kPerLargeClass = 2;   // and 31 KB of large blocks
constexpr size_t kHeader = 8;            // the class number, then padding

size_t ClassOf(size_t n) noexcept {
    if (n <= kGranule * kSmallClasses) return n == 0 ? 1 : (n + kGranule - 1) / kGranule;
    size_t cls = kSmallClasses + 1;
    for (size_t bytes = 2 * kGranule * kSmallClasses; bytes < n; bytes *= 2)
        if (++cls > kClasses) return 0;
    return cls;
}

size_t ClassBytes(size_t cls) noexcept {
    return cls <= kSmallClasses ? cls * kGranule : (kGranule * kSmallClasses) << (cls - kSmallClasses);
}

unsigned ClassLimit(size_t cls) noexcept { return cls <= kSmallClasses ? kPerSmallClass : kPerLargeClass; }

struct FreeBlock {
    FreeBlock* next;
};

struct alignas(64) Cache {
    volatile LONG busy;
    FreeBlock* blocks[kClasses];
    unsigned count[kClasses];
};

Cache g_caches[kCaches];
volatile LONG g_closing = 0;  // the module unloads: blocks go back to the heap

// Each thread takes the next cache on its first allocation, so that up to
// kCaches threads never share one. The choice is kept in a system TLS slot,
// not in a thread_local, whose per-thread storage would outlive an unloaded
// module.
volatile LONG g_nextCache = 0;
volatile LONG g_tlsIndex = -1;  // TLS_OUT_OF_INDEXES until the first allocation

Cache* TryLockCache() noexcept {
    if (g_closing) return nullptr;
    LONG index = g_tlsIndex;
    if (index == -1) {
        const DWORD fresh = TlsAlloc();
        if (fresh == TLS_OUT_OF_INDEXES) return nullptr;
        index = InterlockedCompareExchange(&g_tlsIndex, static_cast<LONG>(fresh), -1);
        if (index != -1) TlsFree(fresh);  // another thread was first
        else index = static_cast<LONG>(fresh);
    }
    // TlsGetValue clears the thread's last error, which a caller that
    // allocates before reading it must still find.
    const DWORD lastError = GetLastError();
    Cache* c = static_cast<Cache*>(TlsGetValue(static_cast<DWORD>(index)));
    SetLastError(lastError);
    if (!c) {
        c = &g_caches[static_cast<size_t>(InterlockedIncrement(&g_nextCache)) % kCaches];
        TlsSetValue(static_cast<DWORD>(index), c);
        SetLastError(lastError);
    }
    return InterlockedExchange(&c->busy, 1) == 0 ? c : nullptr;
}

void Unlock(Cache* c) noexcept { InterlockedExchange(&c->busy, 0); }

void* Allocate(size_t n) noexcept {
    const size_t cls = ClassOf(n);  // 1-based; 0: no class
    if (cls != 0) {
        if (Cache* c = TryLockCache()) {
            FreeBlock* b = c->blocks[cls - 1];
            if (b) {
                c->blocks[cls - 1] = b->next;
                --c->count[cls - 1];
            }
            Unlock(c);
            if (b) return b;
        }
    }
    const size_t bytes = cls != 0 ? ClassBytes(cls) : n;
    if (bytes > static_cast<size_t>(-1) - kHeader) return nullptr;
    char* raw = static_cast<char*>(malloc(bytes + kHeader));
    if (!raw) return nullptr;
    *reinterpret_cast<size_t*>(raw) = cls;
    return raw + kHeader;
}

void Release(void* p) noexcept {
    if (!p) return;
    char* raw = static_cast<char*>(p) - kHeader;
    const size_t cls = *reinterpret_cast<size_t*>(raw);
    if (cls >= 1 && cls <= kClasses) {
        if (Cache* c = TryLockCache()) {
            const bool kept = c->count[cls - 1] < ClassLimit(cls);
            if (kept) {
                FreeBlock* b = static_cast<FreeBlock*>(p);
                b->next = c->blocks[cls - 1];
                c->blocks[cls - 1] = b;
                ++c->count[cls - 1];
            }
            Unlock(c);
            if (kept) return;
        }
    }
    free(raw);
}

// At unload every cached block goes back to the heap, and so does every block
// freed later by the module's other static objects.
struct Drain {
    ~Drain() {
        InterlockedExchange(&g_closing, 1);
        for (Cache& c : g_caches) {
            // A cache still locked belongs to a thread the process ended
            // while it held it: left as it is, never waited for.
            if (InterlockedExchange(&c.busy, 1) != 0) continue;
            for (size_t i = 0; i < kClasses; ++i) {
                while (FreeBlock* b = c.blocks[i]) {
                    c.blocks[i] = b->next;
                    free(reinterpret_cast<char*>(b) - kHeader);
                }
                c.count[i] = 0;
            }
            Unlock(&c);
        }
        if (g_tlsIndex != -1) TlsFree(static_cast<DWORD>(g_tlsIndex));
    }
} g_drain;

void* AllocateOrThrow(size_t n) {
    void* p = Allocate(n);
    if (!p) throw std::bad_alloc();
    return p;
}

}  // namespace

void* operator new(size_t n) { return AllocateOrThrow(n); }
void* operator new[](size_t n) { return AllocateOrThrow(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return Allocate(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return Allocate(n); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Release(p); }
