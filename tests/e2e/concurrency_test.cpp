// Several host threads push events through one plug-in object at once: every
// event gets exactly its own targets and no trace line is torn.
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace e2e;

TEST(Concurrency, FourThreadsTwoThousandEventsEach) {
    const int kThreads = 4, kEvents = 2000;
    kwtest::TempDir dir;
    std::vector<std::wstring> files;
    for (int t = 0; t < kThreads; ++t) files.push_back(dir.File(L"t" + std::to_wstring(t) + L".exe"));
    Host().Engine().ClearLines();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEvents; ++i) {
                // Each event names its own file: a missing one is reported as written.
                std::wstring path = (i % 2) ? files[t] : files[t] + L"." + std::to_wstring(i);
                const std::wstring run = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
                if (PostSz(run, L"v", path, 5) != std::vector<std::wstring>{kwtest::Upper(path)}) ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, wrong.load());
    for (const auto& l : Host().Engine().Lines()) {
        ASSERT_EQ(0u, l.text.find(L"[kwRegAnalyze][")) << l.text;
        ASSERT_NE(std::wstring::npos, l.text.find(L"] ")) << l.text;
    }
}
