// The file channel's writer state on its own: the file write (append, ANSI
// code page, a file that cannot be opened), the queue and its background
// writer (order across threads, stop and restart). Each test owns a state and
// a folder of its own.
#include "diag/log_writer_state.h"
#include "support/fixtures.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace kw;

namespace {

std::string ReadBytes(const std::wstring& path) {
    std::string out;
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return out;
    char buf[8192];
    DWORD got = 0;
    while (ReadFile(h, buf, sizeof(buf), &got, nullptr) && got) out.append(buf, got);
    CloseHandle(h);
    return out;
}

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string Ansi(const std::wstring& s) {
    int n = WideCharToMultiByte(CP_ACP, 0, s.data(), static_cast<int>(s.size()), nullptr, 0,
                                nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_ACP, 0, s.data(), static_cast<int>(s.size()), &out[0], n, nullptr,
                        nullptr);
    return out;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find("\r\n", pos);
        if (end == std::string::npos) {
            lines.push_back(text.substr(pos));  // an unterminated tail
            break;
        }
        lines.push_back(text.substr(pos, end - pos));
        pos = end + 2;
    }
    return lines;
}

class LogWriterState : public ::testing::Test {
protected:
    kwtest::TempDir dir{L"kwlogstate"};
    std::wstring path = dir.Path() + L"\\2024-3-5_1_probe.log";
};

}  // namespace

TEST_F(LogWriterState, SynchronousLinesAppendToWhatIsThere) {
    ASSERT_TRUE(kwtest::MakeFile(path, "earlier\r\n"));
    CLogWriterState state;
    state.SetPath(path);
    EXPECT_TRUE(state.WriteNow(L"one\r\n"));
    // Each line is flushed: another reader sees it while the stream is open.
    EXPECT_EQ("earlier\r\none\r\n", ReadBytes(path));
    EXPECT_TRUE(state.WriteNow(L"two\r\n"));
    EXPECT_TRUE(state.Stop(1000));
    EXPECT_EQ("earlier\r\none\r\ntwo\r\n", ReadBytes(path));
    // After the stop the file is closed; the next line opens it again.
    EXPECT_TRUE(state.WriteNow(L"three\r\n"));
    EXPECT_EQ("earlier\r\none\r\ntwo\r\nthree\r\n", ReadBytes(path));
}

TEST_F(LogWriterState, LineConvertedToTheAnsiCodePage) {
    CLogWriterState state;
    state.SetPath(path);
    const std::wstring line = L"caf\u00e9 \u00fc\u00df\r\n";
    ASSERT_TRUE(state.WriteNow(line));
    state.Stop(1000);
    EXPECT_EQ(Ansi(line), ReadBytes(path));
    EXPECT_EQ(line.size(), ReadBytes(path).size()) << "one byte per character, no UTF-16, no UTF-8";
}

TEST_F(LogWriterState, UnopenableFileDropsTheLineAndTheNextLineTriesAgain) {
    const std::wstring missing = dir.Path() + L"\\later";
    const std::wstring file = missing + L"\\x.log";
    CLogWriterState state;
    state.SetPath(file);
    EXPECT_FALSE(state.WriteNow(L"lost\r\n"));
    EXPECT_FALSE(Exists(file));
    dir.Dir(L"later");
    EXPECT_TRUE(state.WriteNow(L"kept\r\n"));
    state.Stop(1000);
    EXPECT_EQ("kept\r\n", ReadBytes(file));
}

TEST_F(LogWriterState, NoPathWritesNothing) {
    CLogWriterState state;
    EXPECT_FALSE(state.WriteNow(L"x\r\n"));
}

TEST_F(LogWriterState, QueuedLinesKeepEachThreadsOrderAndAllArriveByTheStop) {
    CLogWriterState state;
    state.SetPath(path);
    const int threads = 4, perThread = 250;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&state, t] {
            for (int i = 0; i < perThread; ++i)
                state.Push(L"t" + std::to_wstring(t) + L" " + std::to_wstring(i) + L"\r\n");
        });
    }
    for (auto& th : pool) th.join();
    ASSERT_TRUE(state.Stop(10000));
    EXPECT_FALSE(state.IsWriterRunning());

    std::vector<std::string> lines = SplitLines(ReadBytes(path));
    ASSERT_EQ(static_cast<size_t>(threads * perThread), lines.size());
    std::map<int, int> next;  // thread -> next expected index
    for (const std::string& l : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(2, sscanf(l.c_str(), "t%d %d", &t, &i)) << l;
        EXPECT_EQ(next[t], i) << "thread " << t << " out of order";
        next[t] = i + 1;
    }
    for (int t = 0; t < threads; ++t) EXPECT_EQ(perThread, next[t]);
}

TEST_F(LogWriterState, WriterSleepsWhenIdleAndWritesEachNewLine) {
    CLogWriterState state;
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

TEST_F(LogWriterState, StopRestartStop) {
    CLogWriterState state;
    state.SetPath(path);
    EXPECT_TRUE(state.Stop(1000)) << "stop without a writer";
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        state.Push(L"round " + std::to_wstring(round) + L" a\r\n");
        state.Push(L"round " + std::to_wstring(round) + L" b\r\n");
        EXPECT_TRUE(state.IsWriterRunning());
        EXPECT_TRUE(state.Stop(5000));
        EXPECT_FALSE(state.IsWriterRunning());
        EXPECT_TRUE(state.Stop(1000)) << "a second stop is harmless";
    }
    EXPECT_EQ("round 0 a\r\nround 0 b\r\nround 1 a\r\nround 1 b\r\nround 2 a\r\nround 2 b\r\n",
              ReadBytes(path));
}

TEST_F(LogWriterState, StopRacingWithWritersLosesNothingQueuedBeforeIt) {
    CLogWriterState state;
    state.SetPath(path);
    std::thread producer([&state] {
        for (int i = 0; i < 300; ++i) state.Push(L"p" + std::to_wstring(i) + L"\r\n");
    });
    // Stops while lines are arriving: each stop ends one writer; the next
    // line starts another.
    for (int i = 0; i < 20; ++i) state.Stop(5000);
    producer.join();
    ASSERT_TRUE(state.Stop(5000));
    std::vector<std::string> lines = SplitLines(ReadBytes(path));
    ASSERT_EQ(300u, lines.size());
    for (int i = 0; i < 300; ++i) EXPECT_EQ("p" + std::to_string(i), lines[i]);
}

// A queue of 3 lines while the writer is held: what is written once it goes on.
struct OverflowRow {
    const char* name;
    int pushed;
    std::vector<std::string> lines;  // the file's lines; "<n dropped>" stands for the notice
};
void PrintTo(const OverflowRow& r, std::ostream* os) { *os << r.name; }
class LogQueueBound : public ::testing::TestWithParam<OverflowRow> {};

TEST_P(LogQueueBound, FullQueueDropsAndSaysSoOnce) {
    const OverflowRow& r = GetParam();
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
INSTANTIATE_TEST_SUITE_P(
    Rows, LogQueueBound,
    ::testing::Values(OverflowRow{"one below the bound", 2, {"l1", "l2"}},
                      OverflowRow{"at the bound", 3, {"l1", "l2", "l3"}},
                      OverflowRow{"one past the bound", 4, {"l1", "l2", "l3", "<1 dropped>"}},
                      OverflowRow{"many past the bound, one notice", 9,
                                  {"l1", "l2", "l3", "<6 dropped>"}}),
    [](const ::testing::TestParamInfo<OverflowRow>& i) {
        std::string s;
        for (const char* p = i.param.name; *p; ++p) s += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
        return s;
    });
