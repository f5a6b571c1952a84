// The module handle of this plug-in (the DLL, or the test program that links
// the plug-in's code), remembered by the start-up hook.
#pragma once
#include <windows.h>

namespace kw {
void SetThisModule(HMODULE module) noexcept;
// The remembered handle; when none was set, the module that holds this code.
HMODULE GetThisModule() noexcept;
}  // namespace kw
