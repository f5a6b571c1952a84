#include "common/func_resolver.h"

#include <atomic>
#include <new>

namespace kw {

FARPROC CFuncResolver::Resolve(const wchar_t* module, const char* proc) noexcept {
    if (!module || !proc) return nullptr;
    // The module stays loaded for the life of the process: resolved addresses
    // are called long after this returns.
    HMODULE h = GetModuleHandleW(module);
    if (!h) h = LoadLibraryW(module);
    return h ? GetProcAddress(h, proc) : nullptr;
}

CFuncResolver* GetFuncResolver() noexcept {
    static CFuncResolver* instance = new (std::nothrow) CFuncResolver();
    return instance;
}

namespace {

using RegOpenKeyExWFn = LONG(WINAPI*)(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY);
using RegQueryValueExWFn = LONG(WINAPI*)(HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
using RegCloseKeyFn = LONG(WINAPI*)(HKEY);

template <typename Fn>
Fn AdvapiProc(std::atomic<Fn>& cache, const char* name) noexcept {
    Fn fn = cache.load(std::memory_order_acquire);
    if (!fn) {
        fn = ResolveProc<Fn>(L"Advapi32.dll", name);
        if (fn) cache.store(fn, std::memory_order_release);
    }
    return fn;
}

std::atomic<RegOpenKeyExWFn> g_pRegOpenKeyExW{nullptr};
std::atomic<RegQueryValueExWFn> g_pRegQueryValueExW{nullptr};
std::atomic<RegCloseKeyFn> g_pRegCloseKey{nullptr};

}  // namespace

LONG DynRegOpenKeyExW(HKEY key, const wchar_t* subKey, DWORD options, REGSAM sam,
                      HKEY* out) noexcept {
    RegOpenKeyExWFn fn = AdvapiProc(g_pRegOpenKeyExW, "RegOpenKeyExW");
    if (!fn) {
        if (out) *out = nullptr;
        return -1;
    }
    return fn(key, subKey, options, sam, out);
}

LONG DynRegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data,
                         DWORD* cbData) noexcept {
    RegQueryValueExWFn fn = AdvapiProc(g_pRegQueryValueExW, "RegQueryValueExW");
    if (!fn) return -1;
    return fn(key, name, reserved, type, data, cbData);
}

void DynRegCloseKey(HKEY key) noexcept {
    RegCloseKeyFn fn = AdvapiProc(g_pRegCloseKey, "RegCloseKey");
    if (fn && key) fn(key);
}

}  // namespace kw
