#include "plugin/func_resolver.h"

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

}  // namespace kw
