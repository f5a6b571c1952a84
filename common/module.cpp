#include "common/module.h"

#include "common/func_resolver.h"

namespace kw {
namespace {
HMODULE g_module = nullptr;
}

void SetThisModule(HMODULE module) noexcept { g_module = module; }

HMODULE GetThisModule() noexcept {
    if (g_module) return g_module;
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&SetThisModule), &self);
    return self;
}

bool IsThisCodeInTheProgram() noexcept {
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&IsThisCodeInTheProgram), &self);
    return self == GetModuleHandleW(nullptr);
}

bool IsProcessEnding() noexcept {
    using RtlDllShutdownInProgressFn = BOOLEAN(WINAPI*)();
    // Asked while the process ends: a plain look-up, no resolver object.
    static const RtlDllShutdownInProgressFn fn =
        ProcAddress<RtlDllShutdownInProgressFn>(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
    return fn && fn() != FALSE;
}
}  // namespace kw
