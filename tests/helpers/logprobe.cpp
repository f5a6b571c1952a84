// A child program for the file log writer's tests: the writer reads its
// configuration once per process from beside the executable, so every
// configuration runs in a process of its own. Prints the log path, its process
// and thread ids and whether the writer is on ("key=value" lines, UTF-8), then
// writes lines as the options say. Every string it sends to the debugger is
// printed too (debug=...). An option that no number follows counts as 1.
//
//   --lines N       lines to write (default 0): "probe line #i"
//   --level N       write through the writer with this level, not FileLog
//   --if-open       write through FileLogIfOpen, and try one line before the
//                   writer exists (it must not appear)
//   --stop          call StopLogWriter() after the lines
//   --idle-ms N     after the lines, report this process's CPU time over N ms
//                   of idling (idleCpuMs=...)
//   --dll N         N rounds of: load logprobelib.dll (beside the probe), write
//                   "dll<round> #1" and "#2" through it, stop its writer,
//                   unload it; reports dllUnloaded=<rounds after which the
//                   module was gone within 5 s>; heapGrowth=<heap blocks in
//                   use after the last round minus after the first> and
//                   bareGrowth=<the same for as many rounds that only load and
//                   unload the DLL>: what the system itself keeps per load
//   --hold          hold the background writer before the lines: they stay
//                   queued until a stop or the end of the process
//   --dll-exit N    load logprobelib.dll, hold its writer, write "dll #1".."#N"
//                   through it and end the process without unloading it
//   --dll-no-stop   load logprobelib.dll, write "dll #1".."#3", unload it
//                   without a stop; reports dllLoadedAfterFree=1 while its
//                   writer thread keeps it mapped
#include "common/handle.h"
#include "common/strutil.h"
#include "diag/log_writer.h"
#include "diag/log_writer_state.h"

#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace {

const char kSource[] = "logprobe";
const char kFunction[] = "LogProbe::Main";
const int kLine = 86;
// Loaded by name: the program's own folder comes first in the search.
const wchar_t kLibName[] = L"logprobelib.dll";

// Each option with its number; an option that no number follows is 1.
std::map<std::wstring, int> ParseOptions() {
    std::map<std::wstring, int> options;
    int argc = 0;
    kw::unique_argv argv(CommandLineToArgvW(GetCommandLineW(), &argc));
    for (int i = 1; argv && i < argc; ++i) {
        const std::wstring name = argv.get()[i];
        const bool numbered = i + 1 < argc && argv.get()[i + 1][0] != L'-';
        options[name] = numbered ? _wtoi(argv.get()[++i]) : 1;
    }
    return options;
}

// What the process sends to the debugger: OutputDebugString raises it as an
// exception, seen here first. Printed as a "debug=" line, CR and LF as \r, \n.
LONG CALLBACK PrintDebugString(EXCEPTION_POINTERS* e) {
    const EXCEPTION_RECORD* r = e->ExceptionRecord;
    if (r->ExceptionCode != DBG_PRINTEXCEPTION_C || r->NumberParameters < 2) return EXCEPTION_CONTINUE_SEARCH;
    const char* p = reinterpret_cast<const char*>(r->ExceptionInformation[1]);
    std::string text(p, strnlen(p, r->ExceptionInformation[0]));
    for (size_t at = 0; (at = text.find_first_of("\r\n", at)) != std::string::npos; at += 2)
        text.replace(at, 1, text[at] == '\r' ? "\\r" : "\\n");
    printf("debug=%s\n", text.c_str());
    return EXCEPTION_CONTINUE_EXECUTION;
}

ULONGLONG ProcessCpu100ns() {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    auto ticks = [](const FILETIME& f) { return (ULONGLONG(f.dwHighDateTime) << 32) | f.dwLowDateTime; };
    return ticks(kernel) + ticks(user);
}

typedef void (*LogProbeFn_t)(const wchar_t*);
typedef void (*LogProbeStop_t)();

template <typename Fn>
Fn Export(HMODULE lib, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(lib, name)));
}

// Waits (at most timeoutMs) until the module is no longer loaded.
bool WaitUnloaded(DWORD timeoutMs) {
    for (DWORD waited = 0; GetModuleHandleW(kLibName); waited += 10) {
        if (waited >= timeoutMs) return false;
        Sleep(10);
    }
    return true;
}

// Blocks in use in every heap of the process.
long BusyHeapBlocks() {
    HANDLE heaps[64];
    DWORD n = GetProcessHeaps(64, heaps);
    long busy = 0;
    for (DWORD i = 0; i < n && i < 64; ++i) {
        if (!HeapLock(heaps[i])) continue;
        PROCESS_HEAP_ENTRY e{};
        while (HeapWalk(heaps[i], &e))
            if (e.wFlags & PROCESS_HEAP_ENTRY_BUSY) ++busy;
        HeapUnlock(heaps[i]);
    }
    return busy;
}

// `rounds` rounds of: load logprobelib.dll, (with write) write "dll<round> #1"
// and "#2" through it and stop its writer, unload it. Prints `growth`=<heap
// blocks in use after the last round minus after the first>; returns the
// rounds after which the module was gone within 5 s.
int DllRounds(int rounds, bool write, const char* growth) {
    int unloaded = 0;
    long afterFirst = 0;
    for (int r = 1; r <= rounds; ++r) {
        HMODULE lib = LoadLibraryW(kLibName);
        auto writeFn = lib ? Export<LogProbeFn_t>(lib, "LogProbeWrite") : nullptr;
        auto stopFn = lib ? Export<LogProbeStop_t>(lib, "LogProbeStop") : nullptr;
        if (!writeFn || !stopFn) return 0;
        for (int i = 1; write && i <= 2; ++i) writeFn((L"dll" + std::to_wstring(r) + L" #" + std::to_wstring(i)).c_str());
        if (write) stopFn();
        FreeLibrary(lib);
        if (WaitUnloaded(5000)) ++unloaded;
        if (r == 1) afterFirst = BusyHeapBlocks();
    }
    printf("%s=%ld\n", growth, BusyHeapBlocks() - afterFirst);
    return unloaded;
}

// Loads logprobelib.dll and writes "dll #1".."#count" through it. With hold
// its writer is held first and the process ends with the lines queued;
// without, the module is unloaded with no stop.
bool DllWrite(int count, bool hold) {
    HMODULE lib = LoadLibraryW(kLibName);
    auto writeFn = lib ? Export<LogProbeFn_t>(lib, "LogProbeWrite") : nullptr;
    auto holdFn = lib ? Export<LogProbeStop_t>(lib, "LogProbeHold") : nullptr;
    if (!writeFn || !holdFn) return false;
    if (hold) holdFn();
    for (int i = 1; i <= count; ++i) writeFn((L"dll #" + std::to_wstring(i)).c_str());
    if (hold) return true;
    FreeLibrary(lib);
    // The writer thread still holds its own reference to the module.
    Sleep(300);
    printf("dllLoadedAfterFree=%d\n", GetModuleHandleW(kLibName) ? 1 : 0);
    return true;
}

}  // namespace

int main() {
    AddVectoredExceptionHandler(1, PrintDebugString);
    const std::map<std::wstring, int> options = ParseOptions();
    auto option = [&options](const wchar_t* name, int otherwise = 0) {
        const auto it = options.find(name);
        return it == options.end() ? otherwise : it->second;
    };
    const int level = option(L"--level", -1);  // -1: FileLog
    const bool ifOpen = option(L"--if-open") != 0;
    if (ifOpen) kw::FileLogIfOpen(kSource, kFunction, kLine, "%s", "before the writer exists");

    kw::CLogWriter* w = kw::GetLogWriter();
    if (!w) return 3;
    printf("logPath=%s\npid=%lu\ntid=%lu\nenabled=%d\n", kw::WideToUtf8(w->LogPath()).c_str(),
           GetCurrentProcessId(), GetCurrentThreadId(), w->IsEnabled() ? 1 : 0);
    fflush(stdout);

    if (option(L"--hold")) {
        kw::CLogWriterState* state = kw::GetLogWriterState();
        if (!state) return 5;
        state->HoldWriter(true);
    }
    for (int i = 1; i <= option(L"--lines"); ++i) {
        const std::wstring message = L"probe line #" + std::to_wstring(i);
        if (level != -1)
            w->Write(level, kSource, kFunction, kLine, "%ls", message.c_str());
        else if (ifOpen)
            kw::FileLogIfOpen(kSource, kFunction, kLine, "%ls", message.c_str());
        else
            kw::FileLog(kSource, kFunction, kLine, "%ls", message.c_str());
    }
    if (option(L"--idle-ms") > 0) {
        // Let the writer finish the lines so that only the idle period counts.
        Sleep(200);
        const ULONGLONG before = ProcessCpu100ns();
        Sleep(static_cast<DWORD>(option(L"--idle-ms")));
        printf("idleCpuMs=%.1f\n", static_cast<double>(ProcessCpu100ns() - before) / 10000.0);
    }
    if (option(L"--stop")) kw::StopLogWriter();
    if (option(L"--dll") > 0) {
        DllRounds(option(L"--dll"), false, "bareGrowth");  // what the system itself keeps per load
        printf("dllUnloaded=%d\n", DllRounds(option(L"--dll"), true, "heapGrowth"));
    }
    if (option(L"--dll-no-stop") && !DllWrite(3, false)) return 4;
    if (option(L"--dll-exit") > 0 && !DllWrite(option(L"--dll-exit"), true)) return 6;
    printf("done=1\n");
    fflush(stdout);
    return 0;
}
