// The file channel's writer state on its own: the file write (append, ANSI
// code page, a file that cannot be opened), the queue and its background
// writer (order across threads, stop and restart, the bound). Each test owns a
// state and a folder of its own.
#include "diag/log_writer_state.h"
#include "support/fixtures.h"
#include "support/kit.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace kw;

namespace {

std::string ReadBytes(const std::wstring& path) {
    std::ifstream f(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t pos = 0; pos < text.size();) {
        size_t end = text.find("\r\n", pos);
        if (end == std::string::npos) end = text.size();  // an unterminated tail
        lines.push_back(text.substr(pos, end - pos));
        pos = end + 2;
    }
    return lines;
}

class LogWriterState : public ::testing::Test {
protected:
    kwtest::TempDir dir{L"kwlogstate"};
    std::wstring path = dir.Path() + L"\\2024-3-5_1_probe.log";
    CLogWriterState state;
};

}  // namespace

// A file that cannot be opened drops the line and the next line tries again;
// each line is appended and flushed.
TEST_F(LogWriterState, SynchronousLinesAppendInTheAnsiCodePage) {
    const std::wstring file = dir.Path() + L"\\later\\x.log";
    state.SetPath(file);
    EXPECT_FALSE(state.WriteNow(L"lost\r\n"));
    ASSERT_TRUE(kwtest::MakeFile(file, "earlier\r\n"));
    EXPECT_TRUE(state.WriteNow(L"one\r\n"));
    // Another reader sees the line while the stream is open.
    EXPECT_EQ("earlier\r\none\r\n", ReadBytes(file));
    EXPECT_TRUE(state.Stop(1000));
    // After the stop the file is closed; the next line opens it again. One
    // byte per character: no UTF-16, no UTF-8.
    EXPECT_TRUE(state.WriteNow(L"caf\u00e9\r\n"));
    EXPECT_EQ("earlier\r\none\r\ncaf\xe9\r\n", ReadBytes(file));
}

// Four threads queue lines while the main thread stops the writer again and
// again: each stop ends one writer, the next line starts another, and every
// line arrives in its thread's order. A second stop is harmless.
TEST_F(LogWriterState, StopsRacingWithWritersLoseNothingAndKeepEachThreadsOrder) {
    state.SetPath(path);
    EXPECT_TRUE(state.Stop(1000)) << "a stop before any writer";
    const int threads = 4, perThread = 150;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([this, t] {
            for (int i = 0; i < perThread; ++i)
                state.Push(L"t" + std::to_wstring(t) + L" " + std::to_wstring(i) + L"\r\n");
        });
    }
    for (int i = 0; i < 20; ++i) state.Stop(5000);
    for (auto& th : pool) th.join();
    ASSERT_TRUE(state.Stop(10000));
    state.Push(L"t9 0\r\n");  // after the last stop: a new writer
    EXPECT_TRUE(state.IsWriterRunning());
    ASSERT_TRUE(state.Stop(10000));
    EXPECT_TRUE(state.Stop(1000));
    EXPECT_FALSE(state.IsWriterRunning());

    std::vector<std::string> lines = SplitLines(ReadBytes(path));
    ASSERT_EQ(static_cast<size_t>(threads * perThread + 1), lines.size());
    EXPECT_EQ("t9 0", lines.back());
    std::map<int, int> next;  // thread -> next expected index
    for (const std::string& l : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(2, sscanf(l.c_str(), "t%d %d", &t, &i)) << l;
        EXPECT_EQ(next[t], i) << "thread " << t << " out of order";
        next[t] = i + 1;
    }
}

TEST_F(LogWriterState, WriterSleepsWhenIdleAndWritesEachNewLine) {
    state.SetPath(path);
    state.Push(L"first\r\n");
    // Wait (bounded) for the writer to take the line; it stays alive, idle.
    for (int i = 0; i < 500 && ReadBytes(path).empty(); ++i) Sleep(10);
    EXPECT_EQ("first\r\n", ReadBytes(path));
    EXPECT_TRUE(state.IsWriterRunning());
    state.Push(L"second\r\n");
    for (int i = 0; i < 500 && ReadBytes(path).size() < 15; ++i) Sleep(10);
    EXPECT_EQ("first\r\nsecond\r\n", ReadBytes(path));
    EXPECT_TRUE(state.Stop(5000));
}

// A queue of 3 lines while the writer is held: what is written once it goes on.
TEST(LogQueueBound, FullQueueDropsAndSaysSoOnce) {
    struct {
        const char* name;
        int pushed;
        std::vector<std::string> lines;  // the file's lines; "<n dropped>" stands for the notice
    } rows[] = {
        {"one below the bound", 2, {"l1", "l2"}},
        {"at the bound", 3, {"l1", "l2", "l3"}},
        {"one past the bound", 4, {"l1", "l2", "l3", "<1 dropped>"}},
        {"many past the bound, one notice", 9, {"l1", "l2", "l3", "<6 dropped>"}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        kwtest::TempDir dir(L"kwlogbound");
        const std::wstring path = dir.Path() + L"\\bound.log";
        CLogWriterState state(3);
        state.SetPath(path);
        state.HoldWriter(true);
        for (int i = 1; i <= r.pushed; ++i) state.Push(L"l" + std::to_wstring(i) + L"\r\n");
        state.HoldWriter(false);
        ASSERT_TRUE(state.Stop(10000));
        std::vector<std::string> lines = SplitLines(ReadBytes(path));
        for (std::string& l : lines) {
            const size_t at = l.find("::log queue full (3 lines): ");
            if (l.compare(0, 7, "[ERROR]") == 0 && at != std::string::npos)
                l = "<" + l.substr(at + 28, l.find(' ', at + 28) - at - 28) + " dropped>";
        }
        EXPECT_EQ(r.lines, lines);
    }
}
