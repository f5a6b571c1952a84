// A child program for the file log writer's tests: the writer reads its
// configuration once per process from beside the executable, so every
// configuration runs in a process of its own. Prints the log path, its process
// and thread ids and whether the writer is on ("key=value" lines, UTF-8), then
// writes lines as the options say.
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
#include "common/strutil.h"
#include "diag/log_writer.h"
#include "diag/log_writer_state.h"

#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const char kSource[] = "logprobe";
const char kFunction[] = "LogProbe::Main";
const int kLine = 86;

struct Options {
    int lines = 0;
    int level = -1;  // -1: FileLog
    bool ifOpen = false;
    bool stop = false;
    int idleMs = 0;
    int dllRounds = 0;
    bool dllNoStop = false;
    bool hold = false;
    int dllExit = 0;
};

Options ParseOptions() {
    Options o;
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv) return o;
    for (int i = 1; i < argc; ++i) {
        std::wstring a = argv[i];
        auto next = [&]() -> std::wstring { return i + 1 < argc ? argv[++i] : L""; };
        if (a == L"--lines") o.lines = _wtoi(next().c_str());
        else if (a == L"--level") o.level = _wtoi(next().c_str());
        else if (a == L"--if-open") o.ifOpen = true;
        else if (a == L"--stop") o.stop = true;
        else if (a == L"--idle-ms") o.idleMs = _wtoi(next().c_str());
        else if (a == L"--dll") o.dllRounds = _wtoi(next().c_str());
        else if (a == L"--dll-no-stop") o.dllNoStop = true;
        else if (a == L"--hold") o.hold = true;
        else if (a == L"--dll-exit") o.dllExit = _wtoi(next().c_str());
    }
    LocalFree(argv);
    return o;
}

void WriteOne(const Options& o, const std::wstring& message) {
    if (o.level != -1) {
        kw::GetLogWriter()->Write(o.level, kSource, kFunction, kLine, "%ls", message.c_str());
    } else if (o.ifOpen) {
        kw::FileLogIfOpen(kSource, kFunction, kLine, "%ls", message.c_str());
    } else {
        kw::FileLog(kSource, kFunction, kLine, "%ls", message.c_str());
    }
}

void WriteLines(const Options& o, int count) {
    for (int i = 1; i <= count; ++i) WriteOne(o, L"probe line #" + std::to_wstring(i));
}

ULONGLONG ProcessCpu100ns() {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    auto ticks = [](const FILETIME& f) { return (ULONGLONG(f.dwHighDateTime) << 32) | f.dwLowDateTime; };
    return ticks(kernel) + ticks(user);
}

// CPU time of the whole process (all threads) over `ms` of idling, in milliseconds.
double IdleCpuMs(int ms) {
    ULONGLONG before = ProcessCpu100ns();
    Sleep(static_cast<DWORD>(ms));
    return static_cast<double>(ProcessCpu100ns() - before) / 10000.0;
}

typedef void (*LogProbeWrite_t)(const wchar_t*);
typedef void (*LogProbeStop_t)();
const wchar_t kLibName[] = L"logprobelib.dll";

template <typename Fn>
Fn Export(HMODULE lib, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(lib, name)));
}

std::wstring LibPath() {
    wchar_t self[MAX_PATH + 1] = {0};
    DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, n > MAX_PATH ? MAX_PATH : n);
    return path.substr(0, path.find_last_of(L'\\') + 1) + kLibName;
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

long BareRounds(int rounds) {
    long afterFirst = 0;
    for (int r = 1; r <= rounds; ++r) {
        HMODULE lib = LoadLibraryW(LibPath().c_str());
        if (!lib) return -1;
        FreeLibrary(lib);
        WaitUnloaded(5000);
        if (r == 1) afterFirst = BusyHeapBlocks();
    }
    return BusyHeapBlocks() - afterFirst;
}

int DllRounds(int rounds) {
    printf("bareGrowth=%ld\n", BareRounds(rounds));
    int unloaded = 0;
    long afterFirst = 0;
    for (int r = 1; r <= rounds; ++r) {
        HMODULE lib = LoadLibraryW(LibPath().c_str());
        if (!lib) return 0;
        auto write = Export<LogProbeWrite_t>(lib, "LogProbeWrite");
        auto stop = Export<LogProbeStop_t>(lib, "LogProbeStop");
        if (!write || !stop) return 0;
        for (int i = 1; i <= 2; ++i)
            write((L"dll" + std::to_wstring(r) + L" #" + std::to_wstring(i)).c_str());
        stop();
        FreeLibrary(lib);
        if (WaitUnloaded(5000)) ++unloaded;
        if (r == 1) afterFirst = BusyHeapBlocks();
    }
    printf("heapGrowth=%ld\n", BusyHeapBlocks() - afterFirst);
    return unloaded;
}

bool DllNoStop() {
    HMODULE lib = LoadLibraryW(LibPath().c_str());
    if (!lib) return false;
    auto write = Export<LogProbeWrite_t>(lib, "LogProbeWrite");
    if (!write) return false;
    for (int i = 1; i <= 3; ++i) write((L"dll #" + std::to_wstring(i)).c_str());
    FreeLibrary(lib);
    // The writer thread still holds its own reference to the module.
    Sleep(300);
    printf("dllLoadedAfterFree=%d\n", GetModuleHandleW(kLibName) ? 1 : 0);
    return true;
}

// Lines queued in the DLL's writer when the process ends.
bool DllExit(int lines) {
    HMODULE lib = LoadLibraryW(LibPath().c_str());
    if (!lib) return false;
    auto write = Export<LogProbeWrite_t>(lib, "LogProbeWrite");
    auto hold = Export<LogProbeStop_t>(lib, "LogProbeHold");
    if (!write || !hold) return false;
    hold();
    for (int i = 1; i <= lines; ++i) write((L"dll #" + std::to_wstring(i)).c_str());
    return true;
}

}  // namespace

int main() {
    Options o = ParseOptions();
    if (o.ifOpen) kw::FileLogIfOpen(kSource, kFunction, kLine, "%s", "before the writer exists");

    kw::CLogWriter* w = kw::GetLogWriter();
    if (!w) return 3;
    printf("logPath=%s\npid=%lu\ntid=%lu\nenabled=%d\n", kw::WideToUtf8(w->LogPath()).c_str(),
           GetCurrentProcessId(), GetCurrentThreadId(), w->IsEnabled() ? 1 : 0);
    fflush(stdout);

    if (o.hold) {
        kw::CLogWriterState* state = kw::GetLogWriterState();
        if (!state) return 5;
        state->HoldWriter(true);
    }
    WriteLines(o, o.lines);
    if (o.idleMs > 0) {
        // Let the writer finish the lines so that only the idle period counts.
        Sleep(200);
        printf("idleCpuMs=%.1f\n", IdleCpuMs(o.idleMs));
    }
    if (o.stop) kw::StopLogWriter();
    if (o.dllRounds > 0) printf("dllUnloaded=%d\n", DllRounds(o.dllRounds));
    if (o.dllNoStop && !DllNoStop()) return 4;
    if (o.dllExit > 0 && !DllExit(o.dllExit)) return 6;
    printf("done=1\n");
    fflush(stdout);
    return 0;
}
