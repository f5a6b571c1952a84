// Optional system functions, looked up by name on first use: the process-wide
// function resolver and the registry entry points that are loaded on demand.
// A missing module or function gives a null address (the Dyn* calls: -1), so
// callers degrade to their safe answer.
#pragma once
#include <windows.h>

namespace kw {

// A procedure of an already loaded module (by name or ordinal); null when the
// module or the procedure is missing.
template <typename Fn>
Fn ProcAddress(HMODULE module, const char* proc) noexcept {
    if (!module) return nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, proc)));
}

class CFuncResolver {
public:
    // Loads `module` if it is not loaded yet (it then stays loaded for the
    // life of the process) and returns the address of `proc`, or null.
    [[nodiscard]] FARPROC Resolve(const wchar_t* module, const char* proc) noexcept;
};

CFuncResolver* GetFuncResolver() noexcept;

// The same, typed.
template <typename Fn>
Fn ResolveProc(const wchar_t* module, const char* proc) noexcept {
    CFuncResolver* resolver = GetFuncResolver();
    if (!resolver) return nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(resolver->Resolve(module, proc)));
}

// Registry entry points loaded on demand from Advapi32.dll (resolved once and
// kept); -1 when missing.
[[nodiscard]] LONG DynRegOpenKeyExW(HKEY key, const wchar_t* subKey, DWORD options, REGSAM sam,
                                    HKEY* out) noexcept;
[[nodiscard]] LONG DynRegQueryValueExW(HKEY key, const wchar_t* name, DWORD* reserved, DWORD* type,
                                       BYTE* data, DWORD* cbData) noexcept;
void DynRegCloseKey(HKEY key) noexcept;

}  // namespace kw
