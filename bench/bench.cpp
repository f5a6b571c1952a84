// kwbench: pushes run-key events through the plug-in in the host simulator and
// sets each kind of value against its floor: one GetFileAttributesW for each
// file that the plug-in's answer names, timed in the same run, interleaved
// event by event so that a noisy machine affects both alike.
//
//   kwbench [events]   per-kind p50/p99 against the floor; events per second
//                      with 1 and 4 host threads for the plug-in and for a
//                      baseline doing only the floor's calls; private bytes.
//   kwbench --calls    the system calls the plug-in makes per event of each
//                      kind, counted through its import table, plus marker
//                      objects ("kwbench-mark-...") around one event of each
//                      kind so that a tracing wine server can count the round
//                      trips between them (scripts/bench --rounds). With
//                      KWBENCH_TRACE set, the trace lines of that event too.
#include "host_sim.h"

#include <psapi.h>
#include <shellapi.h>
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace hostsim;
using Clock = std::chrono::steady_clock;

namespace {

const wchar_t kRunKey[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
const char kRules[] =
    "{\"RegParseConfig\":[{\"ParseID\":5,\"FunctionID\":5,\"CheckID\":1,\"RegRootkey\":2147483650,"
    "\"RegSubkey\":\"SOFTWARE\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Run\"}]}";

struct Kind {
    const char* name;
    std::wstring data;
    DWORD type;
    std::vector<std::wstring> answer;  // the plug-in's targets, read once before timing
    // The floor's files: those of the answer as found on disk, or for an
    // answer that names none, the one test that finds the value's file missing.
    std::vector<std::wstring> floor;
    bool inMix = true;
};

std::vector<Kind> MakeKinds(const std::wstring& appDir) {
    std::wstring exe = appDir + L"\\Some App\\app.exe";
    return {
        {"quoted path with arguments", L"\"" + exe + L"\" -silent", REG_SZ, {}},
        {"unquoted path with spaces and an option", exe + L" /background", REG_SZ, {}},
        {"environment token", L"%SystemRoot%\\system32\\notepad.exe", REG_EXPAND_SZ, {}},
        {"rundll32 with a DLL", L"rundll32.exe shell32.dll,Control_RunDLL appwiz.cpl", REG_SZ, {}},
        {"bare program name", L"notepad.exe", REG_SZ, {}},
        {"missing file", L"C:\\kwbench-missing\\nothere.exe", REG_SZ, {}},
        // Outside the mix: an applet that no folder holds is searched for as
        // the loader would, along the whole search path, and a missing name in
        // a large folder costs Wine a read of that folder.
        {"rundll32 with a missing applet", L"rundll32.exe shell32.dll,Control_RunDLL x.cpl", REG_SZ, {}, {}, false},
    };
}

SIZE_T PrivateBytes() {
    PROCESS_MEMORY_COUNTERS_EX pmc{};
    pmc.cb = sizeof(pmc);
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&pmc), sizeof(pmc));
    // Some systems leave PrivateUsage at 0; the page-file usage is the same
    // private commit charge.
    return pmc.PrivateUsage ? pmc.PrivateUsage : pmc.PagefileUsage;
}

// The host's event of a kind, built once per thread outside the timed calls
// (the simulator's allocations would otherwise queue the threads on the
// process heap): what is timed is the plug-in's work, as for the floor. The
// plug-in's rewrite of a machine key leaves the event as it was.
Event& EventOf(const Kind& k) {
    thread_local std::map<const Kind*, std::unique_ptr<Event>> events;
    std::unique_ptr<Event>& e = events[&k];
    if (!e) e.reset(Event::RegistrySz(kRunKey, L"Bench", k.data, k.type));
    return *e;
}

void Post(PluginHost& host, const Kind& k, Target& target) {
    RuleEngine::SetThreadTarget(&target);
    host.Plugin()->PostProcessEvent(&EventOf(k), &host.Engine());
    RuleEngine::SetThreadTarget(nullptr);
}

void PostOne(PluginHost& host, const Kind& k) {
    Target target((2u << 16) | 5);
    Post(host, k, target);
}

std::vector<std::wstring> Answer(PluginHost& host, const Kind& k) {
    Target target((2u << 16) | 5);
    Post(host, k, target);
    return target.Paths();
}

// The plug-in names files in the 64-bit view: a 32-bit resolver tests them
// with file-system redirection paused, as the plug-in does.
void Floor(const Kind& k) {
    void* old = nullptr;
    const BOOL paused = Wow64DisableWow64FsRedirection(&old);
    for (const std::wstring& f : k.floor) GetFileAttributesW(f.c_str());
    if (paused) Wow64RevertWow64FsRedirection(old);
}

double Seconds(Clock::time_point a) { return std::chrono::duration<double>(Clock::now() - a).count(); }

double Percentile(std::vector<double>& v, int pct) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[std::min(v.size() - 1, v.size() * pct / 100)];
}

// Events per second of `work` over `total` events shared by `threads` threads.
template <typename Work>
double Throughput(int threads, int total, Work work) {
    std::atomic<int> next{0};
    auto t0 = Clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&] {
            int i;
            while ((i = next++) < total) work(i);
        });
    for (auto& p : pool) p.join();
    return total / Seconds(t0);
}

// ---- Call counting through the DLL's import table ----

// Each imported function is replaced by a 12-byte stub: "inc dword [count]"
// then "jmp dword [real]". Addresses returned by GetProcAddress get stubs too,
// so functions the plug-in resolves at run time are counted as well.
struct Counted {
    std::string name;
    volatile LONG count = 0;
    void* real = nullptr;
};
std::deque<Counted> g_counted;
std::map<void*, void*> g_stubOf;  // real function -> its stub
BYTE* g_stubs = nullptr;
size_t g_stubsUsed = 0;
const size_t kStubBytes = 12, kMaxStubs = 4096;
FARPROC(WINAPI* g_realGetProcAddress)(HMODULE, LPCSTR) = nullptr;

void* StubFor(void* real, const std::string& name) {
    auto it = g_stubOf.find(real);
    if (it != g_stubOf.end()) return it->second;
    if (!real || g_stubsUsed == kMaxStubs) return real;
    g_counted.push_back(Counted{name, 0, real});
    Counted& c = g_counted.back();
    BYTE* s = g_stubs + kStubBytes * g_stubsUsed++;
    void* countAt = const_cast<LONG*>(&c.count);
    void* realAt = &c.real;
    s[0] = 0xFF, s[1] = 0x05, memcpy(s + 2, &countAt, 4);
    s[6] = 0xFF, s[7] = 0x25, memcpy(s + 8, &realAt, 4);
    g_stubOf[real] = s;
    return s;
}

FARPROC WINAPI CountingGetProcAddress(HMODULE m, LPCSTR name) {
    FARPROC p = g_realGetProcAddress(m, name);
    if (!p || reinterpret_cast<uintptr_t>(name) <= 0xFFFF) return p;
    return reinterpret_cast<FARPROC>(StubFor(reinterpret_cast<void*>(p), std::string(name) + " (resolved)"));
}

bool IsCode(void* p) {
    MEMORY_BASIC_INFORMATION mbi{};
    return VirtualQuery(p, &mbi, sizeof(mbi)) &&
           (mbi.Protect & (PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY));
}

bool CountImports(HMODULE module) {
    g_stubs = static_cast<BYTE*>(
        VirtualAlloc(nullptr, kStubBytes * kMaxStubs, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    if (!g_stubs) return false;
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS32*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* d = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); d->Name; ++d) {
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA32*>(base + d->OriginalFirstThunk);
        auto* iat = reinterpret_cast<IMAGE_THUNK_DATA32*>(base + d->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++iat) {
            if (IMAGE_SNAP_BY_ORDINAL32(names->u1.Ordinal)) continue;
            std::string name(reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name);
            void* real = reinterpret_cast<void*>(iat->u1.Function);
            if (!IsCode(real)) continue;  // an imported variable (_iob, ...) stays as it is
            void* stub;
            if (name == "GetProcAddress") {
                g_realGetProcAddress = reinterpret_cast<decltype(g_realGetProcAddress)>(real);
                stub = reinterpret_cast<void*>(&CountingGetProcAddress);
            } else {
                stub = StubFor(real, name);
            }
            DWORD old;
            VirtualProtect(&iat->u1.Function, 4, PAGE_READWRITE, &old);
            iat->u1.Function = reinterpret_cast<uintptr_t>(stub);
            VirtualProtect(&iat->u1.Function, 4, old, &old);
        }
    }
    return true;
}

int CountCalls(PluginHost& host, std::vector<Kind>& kinds, bool verbose) {
    const int kEvents = 10;
    printf("system calls per event (the plug-in's imports, mean of %d warm events):\n", kEvents);
    for (size_t k = 0; k < kinds.size(); ++k) {
        for (int i = 0; i < 3; ++i) PostOne(host, kinds[k]);  // first-use tables filled
        for (auto& c : g_counted) c.count = 0;
        size_t lines = host.Engine().Counted();
        for (int i = 0; i < kEvents; ++i) PostOne(host, kinds[k]);
        printf("  %s: %.1f trace lines\n", kinds[k].name, (host.Engine().Counted() - lines) / double(kEvents));
        for (auto& c : g_counted)
            if (c.count) printf("    %6.1f  %s\n", c.count / double(kEvents), c.name.c_str());
        // One event between two named objects: a tracing wine server sees
        // exactly this event's round trips between the two open requests.
        std::wstring mark = L"kwbench-mark-" + std::to_wstring(k);
        host.Engine().ClearLines();
        host.Engine().SetRecording(verbose);
        if (HANDLE h = OpenEventW(SYNCHRONIZE, FALSE, (mark + L"-begin").c_str())) CloseHandle(h);
        PostOne(host, kinds[k]);
        if (HANDLE h = OpenEventW(SYNCHRONIZE, FALSE, (mark + L"-end").c_str())) CloseHandle(h);
        host.Engine().SetRecording(false);
        for (const TraceLine& l : host.Engine().Lines()) printf("    | %ls\n", l.text.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool calls = argc > 1 && strcmp(argv[1], "--calls") == 0;
    const int total = argc > 1 && !calls ? atoi(argv[1]) : 100000;
    std::wstring appDir = L"C:\\Program Files\\kwbench-" + std::to_wstring(GetCurrentProcessId());
    SHCreateDirectoryExW(nullptr, (appDir + L"\\Some App").c_str(), nullptr);
    HANDLE h = CreateFileW((appDir + L"\\Some App\\app.exe").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0,
                           nullptr);
    CloseHandle(h);
    std::vector<Kind> kinds = MakeKinds(appDir);

    PluginHost host;
    if (!host.Load() || (calls && !CountImports(host.Module())) || !host.Create() || !host.Init(kRules)) {
        fprintf(stderr, "kwbench: cannot load the plug-in\n");
        return 1;
    }
    for (Kind& k : kinds) {
        // The targets are upper-cased; the record's trace line names the
        // files as found on disk, which is what the floor tests (a name in
        // another case costs a search of its folder under Wine).
        host.Engine().ClearLines();
        k.answer = Answer(host, k);
        for (const TraceLine& l : host.Engine().Lines()) {
            const size_t from = l.text.find(L"||filepath:"), to = l.text.find(L"||ret:");
            if (from == std::wstring::npos || to == std::wstring::npos) continue;
            std::wstring files = l.text.substr(from + 11, to - from - 11);
            for (size_t a = 0, b; a < files.size(); a = b + 1) {
                b = files.find(L';', a);
                if (b == std::wstring::npos) b = files.size();
                if (b > a) k.floor.push_back(files.substr(a, b - a));
            }
        }
        if (k.floor.empty()) k.floor.push_back(k.data);
    }
    host.Engine().SetRecording(false);

    int rc = 0;
    if (calls) {
        rc = CountCalls(host, kinds, getenv("KWBENCH_TRACE") != nullptr);
    } else {

        for (int i = 0; i < 600; ++i) PostOne(host, kinds[i % kinds.size()]);  // first-use tables
        const int perKind = std::max(1, total / 20);
        printf("per kind of value, 1 thread, %d events each, interleaved with its floor\n", perKind);
        printf("(floor: one GetFileAttributesW per file of the answer, or of the missing file)\n");
        printf("  %-40s %5s %9s %9s %9s %7s %8s\n", "kind", "tests", "p50 us", "p99 us", "floor us", "ratio",
               "p99/p50");
        double logSum = 0;
        int mix = 0;
        for (const Kind& k : kinds) {
            std::vector<double> lat, flo;
            lat.reserve(perKind), flo.reserve(perKind);
            for (int i = 0; i < perKind; ++i) {
                auto a = Clock::now();
                PostOne(host, k);
                lat.push_back(Seconds(a) * 1e6);
                a = Clock::now();
                Floor(k);
                flo.push_back(Seconds(a) * 1e6);
            }
            double p50 = Percentile(lat, 50), p99 = Percentile(lat, 99), f50 = Percentile(flo, 50);
            double ratio = p50 / std::max(f50, 0.01);
            if (!k.inMix) printf("  geometric mean of the ratios: %.1fx\n  outside the mix:\n", std::exp(logSum / mix));
            if (k.inMix) logSum += std::log(ratio), ++mix;
            printf("  %-40s %5u %9.1f %9.1f %9.2f %6.1fx %7.1fx\n", k.name, static_cast<unsigned>(k.floor.size()),
                   p50, p99, f50, ratio, p99 / p50);
        }
        printf("\n");
        kinds.pop_back();  // the throughput runs use the mix only

        auto plugin = [&](int i) { PostOne(host, kinds[i % kinds.size()]); };
        auto baseline = [&](int i) { Floor(kinds[i % kinds.size()]); };
        // Warm-up: process-wide tables, caches, thread start-up and the heap
        // reach their working size, so that private bytes measure growth.
        Throughput(8, 4000, plugin);
        Throughput(1, 2000, plugin);
        printf("kwbench: %d events per run, mix of the %u kinds, best of 3 rounds\n", total,
               static_cast<unsigned>(kinds.size()));
        printf("  %-9s %7s %12s %14s %14s\n", "what", "threads", "events/s", "private before", "private after");
        // Three rounds of the four runs, interleaved; each figure is the best
        // of its three, so that a burst of other work on the machine hits
        // one run, not one side of the comparison.
        double eps[2][2] = {{0, 0}, {0, 0}};
        SIZE_T before[2] = {0, 0}, after[2] = {0, 0};
        for (int round = 0; round < 3; ++round)
            for (int t = 0; t < 2; ++t) {
                const int threads = t ? 4 : 1;
                const SIZE_T b = PrivateBytes();
                eps[0][t] = std::max(eps[0][t], Throughput(threads, total, plugin));
                if (round == 0) before[t] = b;
                after[t] = PrivateBytes();
                eps[1][t] = std::max(eps[1][t], Throughput(threads, total, baseline));
            }
        for (int t = 0; t < 2; ++t) {
            printf("  %-9s %7d %12.0f %14lu %14lu  %+.2f%%\n", "plug-in", t ? 4 : 1, eps[0][t],
                   static_cast<unsigned long>(before[t]), static_cast<unsigned long>(after[t]),
                   100.0 * (double(after[t]) - double(before[t])) / double(before[t]));
            printf("  %-9s %7d %12.0f\n", "baseline", t ? 4 : 1, eps[1][t]);
        }
        double gp = eps[0][1] / eps[0][0], gb = eps[1][1] / eps[1][0];
        printf("  1 to 4 threads: plug-in %.2fx, baseline %.2fx; the plug-in's gain is %.0f%% of the baseline's\n", gp,
               gb, 100 * (gp - 1) / (gb - 1));
    }
    SHFILEOPSTRUCTW op{};
    std::wstring from = appDir + std::wstring(2, L'\0');
    op.wFunc = FO_DELETE;
    op.pFrom = from.c_str();
    op.fFlags = FOF_NO_UI;
    SHFileOperationW(&op);
    return rc;
}
