// kwbench: pushes a fixed mix of run-key events through the plug-in in the
// host simulator and prints events per second, p50/p99 latency per event and
// the process's private bytes before and after, for 1 and 4 host threads.
// The same figures for a baseline that performs only the unavoidable system
// calls (one registry read and one GetFileAttributesW per expected file) give
// the plug-in's overhead as a ratio measured in the same run.
#include "host_sim.h"

#include <psapi.h>
#include <shellapi.h>
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
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

struct Sample {
    std::wstring data;
    DWORD type;
    std::wstring expectedFile;  // what the baseline tests
};

std::vector<Sample> MakeMix(const std::wstring& appDir) {
    std::wstring exe = appDir + L"\\Some App\\app.exe";
    return {
        {L"\"" + exe + L"\" -silent", REG_SZ, exe},
        {exe + L" /background", REG_SZ, exe},
        {L"%SystemRoot%\\system32\\notepad.exe", REG_EXPAND_SZ, L"C:\\windows\\system32\\notepad.exe"},
        {L"rundll32.exe shell32.dll,Control_RunDLL x.cpl", REG_SZ, L"C:\\windows\\system32\\rundll32.exe"},
        {L"%SystemRoot%\\system32\\svchost.exe -k netsvcs", REG_EXPAND_SZ, L"C:\\windows\\system32\\svchost.exe"},
        {L"C:\\kwbench-missing\\nothere.exe", REG_SZ, L"C:\\kwbench-missing\\nothere.exe"},
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

struct Figures {
    double eventsPerSec;
    double p50us, p99us;
};

template <typename Work>
Figures Run(int threads, int total, Work work) {
    std::vector<std::vector<double>> lat(threads);
    std::atomic<int> next{0};
    auto t0 = Clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            lat[t].reserve(total / threads + 1);
            int i;
            while ((i = next++) < total) {
                auto a = Clock::now();
                work(i);
                lat[t].push_back(std::chrono::duration<double, std::micro>(Clock::now() - a).count());
            }
        });
    for (auto& p : pool) p.join();
    double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    std::vector<double> all;
    for (auto& v : lat) all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    return Figures{total / secs, all[all.size() / 2], all[all.size() * 99 / 100]};
}

}  // namespace

int main(int argc, char** argv) {
    int total = argc > 1 ? atoi(argv[1]) : 100000;
    wchar_t tmp[MAX_PATH];
    GetTempPathW(MAX_PATH, tmp);
    std::wstring appDir = L"C:\\Program Files\\kwbench-" + std::to_wstring(GetCurrentProcessId());
    SHCreateDirectoryExW(nullptr, (appDir + L"\\Some App").c_str(), nullptr);
    HANDLE h = CreateFileW((appDir + L"\\Some App\\app.exe").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    CloseHandle(h);
    const std::vector<Sample> mix = MakeMix(appDir);

    PluginHost host;
    if (!host.Load() || !host.Create() || !host.Init(kRules)) {
        fprintf(stderr, "kwbench: cannot load the plug-in\n");
        return 1;
    }

    auto pluginEvent = [&](int i) {
        const Sample& s = mix[i % mix.size()];
        std::unique_ptr<Event> ev(Event::RegistrySz(kRunKey, L"Bench", s.data, s.type));
        Target target((2u << 16) | 5);
        RuleEngine::SetThreadTarget(&target);
        host.Plugin()->PostProcessEvent(ev.get(), &host.Engine());
        RuleEngine::SetThreadTarget(nullptr);
    };
    auto baselineEvent = [&](int i) {
        const Sample& s = mix[i % mix.size()];
        HKEY k;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", 0,
                          KEY_READ | KEY_WOW64_64KEY, &k) == ERROR_SUCCESS) {
            wchar_t buf[512];
            DWORD cb = sizeof(buf);
            RegQueryValueExW(k, L"Bench", nullptr, nullptr, reinterpret_cast<BYTE*>(buf), &cb);
            RegCloseKey(k);
        }
        GetFileAttributesW(s.expectedFile.c_str());
    };

    // The host's log sink only counts lines: its memory is not what we measure.
    host.Engine().SetRecording(false);
    // Warm-up: process-wide tables, caches and the heap reach their working size.
    Run(1, 2000, pluginEvent);
    Run(1, 2000, baselineEvent);

    // Where the time goes: each kind of value alone.
    printf("per kind of value, 1 thread, %d events each:\n", total / 20 > 0 ? total / 20 : 1);
    for (size_t k = 0; k < mix.size(); ++k) {
        auto one = [&](int) {
            const Sample& s = mix[k];
            std::unique_ptr<Event> ev(Event::RegistrySz(kRunKey, L"Bench", s.data, s.type));
            Target target((2u << 16) | 5);
            RuleEngine::SetThreadTarget(&target);
            host.Plugin()->PostProcessEvent(ev.get(), &host.Engine());
            RuleEngine::SetThreadTarget(nullptr);
        };
        Figures f = Run(1, total / 20 > 0 ? total / 20 : 1, one);
        printf("  p50 %8.1f us  p99 %8.1f us  %ls\n", f.p50us, f.p99us, mix[k].data.c_str());
    }
    size_t linesBefore = host.Engine().Counted();
    Run(1, 100, pluginEvent);
    printf("trace lines per event: %.1f\n\n", (host.Engine().Counted() - linesBefore) / 100.0);

    printf("kwbench: %d events per run, mix of %u run-key values\n", total, static_cast<unsigned>(mix.size()));
    printf("%-9s %7s %12s %10s %10s %14s %14s\n", "what", "threads", "events/s", "p50 us", "p99 us",
           "private before", "private after");
    for (int threads : {1, 4}) {
        SIZE_T before = PrivateBytes();
        Figures f = Run(threads, total, pluginEvent);
        SIZE_T after = PrivateBytes();
        printf("%-9s %7d %12.0f %10.1f %10.1f %14lu %14lu\n", "plug-in", threads, f.eventsPerSec, f.p50us, f.p99us,
               static_cast<unsigned long>(before), static_cast<unsigned long>(after));
        SIZE_T b2 = PrivateBytes();
        Figures g = Run(threads, total, baselineEvent);
        SIZE_T a2 = PrivateBytes();
        printf("%-9s %7d %12.0f %10.1f %10.1f %14lu %14lu\n", "baseline", threads, g.eventsPerSec, g.p50us, g.p99us,
               static_cast<unsigned long>(b2), static_cast<unsigned long>(a2));
        printf("overhead  %7d %11.1fx %9.1fx %9.1fx\n", threads, g.eventsPerSec / f.eventsPerSec, f.p50us / g.p50us,
               f.p99us / g.p99us);
    }
    SHFILEOPSTRUCTW op{};
    std::wstring from = appDir + std::wstring(2, L'\0');
    op.wFunc = FO_DELETE;
    op.pFrom = from.c_str();
    op.fFlags = FOF_NO_UI;
    SHFileOperationW(&op);
    return 0;
}
