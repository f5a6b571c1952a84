// A child program for the file log writer's tests: the writer reads its
// configuration once per process from beside the executable, so every
// configuration runs in a process of its own. Prints what the writer read
// ("key=value" lines, UTF-8), then writes lines as the options say.
//
//   --text T        message text (default "probe line")
//   --lines N       lines to write (default 0); with more than one, "T #i"
//   --level N       write through the writer with this level, not FileLog
//   --if-open       write through FileLogIfOpen, and try one line before the
//                   writer exists (it must not appear)
//   --stop          call StopLogWriter() after the lines
//   --again N       after the stop, write N more lines "again #i" and stop again
//   --idle-ms N     after the lines, report this process's CPU time over N ms
//                   of idling (idleCpuMs=...)
//   --burn-ms N     the same measurement over N ms of a busy loop
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
//                   writer thread keeps it mapped, then waits (at most 5 s)
//                   for the three lines to reach the file
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
    std::wstring text = L"probe line";
    int lines = 0;
    int level = -1;  // -1: FileLog
    bool ifOpen = false;
    bool stop = false;
    int again = 0;
    int idleMs = 0;
    int burnMs = 0;
    int dllRounds = 0;
    bool dllNoStop = false;
    bool hold = false;
    int dllExit = 0;
};

std::string Utf8(const std::wstring& s) {
    if (s.empty()) return std::string();
    int n = WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0,
                                nullptr, nullptr);
    std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], n, nullptr,
                            nullptr);
    return out;
}

Options ParseOptions() {
    Options o;
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv) return o;
    for (int i = 1; i < argc; ++i) {
        std::wstring a = argv[i];
        auto next = [&]() -> std::wstring { return i + 1 < argc ? argv[++i] : L""; };
        if (a == L"--text") o.text = next();
        else if (a == L"--lines") o.lines = _wtoi(next().c_str());
        else if (a == L"--level") o.level = _wtoi(next().c_str());
        else if (a == L"--if-open") o.ifOpen = true;
        else if (a == L"--stop") o.stop = true;
        else if (a == L"--again") o.again = _wtoi(next().c_str());
        else if (a == L"--idle-ms") o.idleMs = _wtoi(next().c_str());
        else if (a == L"--burn-ms") o.burnMs = _wtoi(next().c_str());
        else if (a == L"--dll") o.dllRounds = _wtoi(next().c_str());
        else if (a == L"--dll-no-stop") o.dllNoStop = true;
        else if (a == L"--hold") o.hold = true;
        else if (a == L"--dll-exit") o.dllExit = _wtoi(next().c_str());
    }
    LocalFree(argv);
    return o;
}

void WriteOne(const Options& o, const std::wstring& message) {
    if (o.level >= 0 || o.level < -1) {
        kw::GetLogWriter()->Write(o.level, kSource, kFunction, kLine, "%ls", message.c_str());
    } else if (o.ifOpen) {
        kw::FileLogIfOpen(kSource, kFunction, kLine, "%ls", message.c_str());
    } else {
        kw::FileLog(kSource, kFunction, kLine, "%ls", message.c_str());
    }
}

void WriteLines(const Options& o, const std::wstring& text, int count) {
    if (count == 1) {
        WriteOne(o, text);
        return;
    }
    for (int i = 1; i <= count; ++i) WriteOne(o, text + L" #" + std::to_wstring(i));
}

ULONGLONG ProcessCpu100ns() {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    ULARGE_INTEGER k, u;
    k.LowPart = kernel.dwLowDateTime;
    k.HighPart = kernel.dwHighDateTime;
    u.LowPart = user.dwLowDateTime;
    u.HighPart = user.dwHighDateTime;
    return k.QuadPart + u.QuadPart;
}

volatile LONG g_burning = 1;
DWORD WINAPI Burn(void*) {
    volatile unsigned long long x = 0;
    while (InterlockedCompareExchange(&g_burning, 1, 1)) ++x;
    return 0;
}

// CPU time of the whole process (all threads) over `ms` of idling or of a
// busy thread, in milliseconds.
double MeasureCpuMs(int ms, bool burn) {
    ULONGLONG before = ProcessCpu100ns();
    ULONGLONG wallBefore = GetTickCount64();
    HANDLE burner = burn ? CreateThread(nullptr, 0, Burn, nullptr, 0, nullptr) : nullptr;
    Sleep(static_cast<DWORD>(ms));
    if (burner) {
        InterlockedExchange(&g_burning, 0);
        WaitForSingleObject(burner, INFINITE);
        CloseHandle(burner);
    }
    ULONGLONG after = ProcessCpu100ns();
    printf("wallMs=%llu\n", GetTickCount64() - wallBefore);
    return static_cast<double>(after - before) / 10000.0;
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

size_t CountLines(const std::wstring& path) {
    std::string text;
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return 0;
    char buf[4096];
    DWORD got = 0;
    while (ReadFile(h, buf, sizeof(buf), &got, nullptr) && got) text.append(buf, got);
    CloseHandle(h);
    size_t n = 0;
    for (size_t pos = 0; (pos = text.find("\r\n", pos)) != std::string::npos; pos += 2) ++n;
    return n;
}

bool DllNoStop(const std::wstring& logPath) {
    HMODULE lib = LoadLibraryW(LibPath().c_str());
    if (!lib) return false;
    auto write = Export<LogProbeWrite_t>(lib, "LogProbeWrite");
    if (!write) return false;
    for (int i = 1; i <= 3; ++i) write((L"dll #" + std::to_wstring(i)).c_str());
    FreeLibrary(lib);
    // The writer thread still holds its own reference to the module.
    Sleep(300);
    printf("dllLoadedAfterFree=%d\n", GetModuleHandleW(kLibName) ? 1 : 0);
    for (int waited = 0; waited < 5000 && CountLines(logPath) < 3; waited += 10) Sleep(10);
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
    printf("logPath=%s\n", Utf8(w->LogPath()).c_str());
    printf("enabled=%d\n", w->IsEnabled() ? 1 : 0);
    printf("outFile=%d\ndebugView=%d\ndataSize=%d\nwriteSyn=%d\n", w->OutFile(), w->DebugView(),
           w->DataSize(), w->WriteSyn());
    printf("pid=%lu\ntid=%lu\n", GetCurrentProcessId(), GetCurrentThreadId());
    fflush(stdout);

    if (o.hold) {
        kw::CLogWriterState* state = kw::GetLogWriterState();
        if (!state) return 5;
        state->HoldWriter(true);
    }
    WriteLines(o, o.text, o.lines);
    if (o.idleMs > 0 || o.burnMs > 0) {
        // Let the writer finish the lines so that only the idle period counts.
        Sleep(200);
        double cpuMs = MeasureCpuMs(o.idleMs > 0 ? o.idleMs : o.burnMs, o.burnMs > 0);
        printf("%s=%.1f\n", o.idleMs > 0 ? "idleCpuMs" : "burnCpuMs", cpuMs);
    }
    if (o.stop) kw::StopLogWriter();
    if (o.again > 0) {
        WriteLines(o, L"again", o.again);
        kw::StopLogWriter();
    }
    if (o.dllRounds > 0) printf("dllUnloaded=%d\n", DllRounds(o.dllRounds));
    if (o.dllNoStop && !DllNoStop(w->LogPath())) return 4;
    if (o.dllExit > 0 && !DllExit(o.dllExit)) return 6;
    printf("done=1\n");
    fflush(stdout);
    return 0;
}
