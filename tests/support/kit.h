// The small tools the test files share: a scoped environment variable, row
// names for parameterised tables, one child process per table row, a race of
// many threads on a first use, and the WOW64 check.
#pragma once
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kwtest {

// Sets (or, with null, removes) a process environment variable for a scope and
// puts the previous value back.
class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const wchar_t* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::wstring m_name, m_old;
    bool m_had = false;
};

// A process environment variable, empty when unset.
std::wstring EnvText(const wchar_t* name);

// Whether this (32-bit) test program runs under WOW64, as the system says.
bool ProcessIsWow64();

// A row title as a test name: every character but letters and digits becomes '_'.
std::string RowName(const char* title);
// For INSTANTIATE_TEST_SUITE_P: names each row by its `name` field.
struct ByRowName {
    template <typename Row>
    std::string operator()(const ::testing::TestParamInfo<Row>& info) const {
        return RowName(info.param.name);
    }
};

// One child process per table row: runs test `childTest` of this program
// `rows` times with `indexVar`=<row> in its environment and expects each run
// to pass one test. The child reads its row with RowIndex(indexVar).
void RunRowsInChildren(const char* childTest, size_t rows, const char* indexVar);
size_t RowIndex(const char* indexVar);

// Starts `count` threads, releases them together once all have started and
// returns what each fn() answered (the race on a process-wide first use).
template <typename T, typename Fn>
std::vector<T> RaceFirstUse(unsigned count, Fn fn) {
    std::vector<T> results(count);
    std::atomic<unsigned> arrived{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            ++arrived;
            while (!go.load()) std::this_thread::yield();
            results[i] = fn();
        });
    while (arrived.load() < count) std::this_thread::yield();
    go.store(true);
    for (auto& t : threads) t.join();
    return results;
}

}  // namespace kwtest
