// The module handle of this plug-in (the DLL, or the test program that links
// the plug-in's code), remembered by the start-up hook.
#pragma once
#include <windows.h>

namespace kw {
void SetThisModule(HMODULE module) noexcept;
// The remembered handle; when none was set, the module that holds this code.
HMODULE GetThisModule() noexcept;
// True when the code calling it is part of the program (the .exe) rather
// than of a DLL that can be unloaded.
bool IsThisCodeInTheProgram() noexcept;
// True while the process is terminating: the system has ended every other
// thread and runs the detach notifications (and a DLL's exit handlers).
bool IsProcessEnding() noexcept;
}  // namespace kw
