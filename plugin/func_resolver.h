// The process-wide function resolver: loads a module by name (once) and
// returns a procedure address from it. Created on first use.
#pragma once
#include <windows.h>

namespace kw {

class CFuncResolver {
public:
    FARPROC Resolve(const wchar_t* module, const char* proc) noexcept;
};

CFuncResolver* GetFuncResolver() noexcept;

}  // namespace kw
