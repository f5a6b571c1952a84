// The SID text of a process's user: the byte limit of the text, refusals that
// leave it empty, and the cache that answers every later event of a process.
#include "registry/user_sid.h"

#include "support/fixtures.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kw;
using kwtest::ScopedSink;

namespace {

constexpr wchar_t kGuard = L'#';

// The limit counts bytes and keeps room for the terminator; the line traced
// is the text as cut.
TEST(GetUserSidByPid, TextIsCutToTheByteLimitAndTraced) {
    const std::wstring full = kwtest::CurrentUserSid();
    ASSERT_FALSE(full.empty());
    const size_t n = full.size();
    struct Row {
        const char* name;
        size_t limit;
        std::wstring expected;
    };
    const Row rows[] = {
        {"room for text and terminator (N)", 2 * (n + 1), full},
        {"one byte more than needed", 2 * (n + 1) + 1, full},
        {"one character short (N-1)", 2 * n, full.substr(0, n - 1)},
        {"odd byte count rounds down", 2 * n + 1, full.substr(0, n - 1)},
        {"room for the terminator only", 2, L""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ScopedSink cap;
        wchar_t sid[MAX_PATH];
        wmemset(sid, kGuard, MAX_PATH);
        auto user = GetUserSidByPid(GetCurrentProcessId(), sid, row.limit);
        ASSERT_TRUE(user && user->token.valid());
        EXPECT_EQ(full, user->sid);
        EXPECT_EQ(row.expected, sid);
        EXPECT_EQ(kGuard, sid[row.limit / 2]) << "wrote past the limit";
        EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][INFO ][GetUserSidByPid] " + row.expected}, cap.Texts());
    }
}

TEST(GetUserSidByPid, NothingWrittenOrTracedWithoutRoomOrProcess) {
    const struct {
        DWORD pid;
        size_t limit;
        wchar_t first;
    } rows[] = {{GetCurrentProcessId(), 0, kGuard}, {GetCurrentProcessId(), 1, kGuard}, {0, 260, L'\0'},
                {0xFFFFFFF0, 260, L'\0'}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.pid << " limit " << row.limit);
        ScopedSink cap;
        wchar_t sid[4];
        wmemset(sid, kGuard, 4);
        auto user = GetUserSidByPid(row.pid, sid, row.limit);
        EXPECT_EQ(row.pid != 0 && row.pid != 0xFFFFFFF0, user != nullptr);
        EXPECT_EQ(row.first, sid[0]);
        EXPECT_TRUE(cap.Texts().empty());
    }
}

// A process of this program, started suspended: alive until terminated.
struct Suspended {
    PROCESS_INFORMATION pi{};
    Suspended() {
        wchar_t exe[MAX_PATH] = {0};
        GetModuleFileNameW(nullptr, exe, MAX_PATH);
        STARTUPINFOW si{};
        si.cb = sizeof(si);
        std::wstring cmd = L"\"" + std::wstring(exe) + L"\" --gtest_list_tests";
        CreateProcessW(exe, &cmd[0], nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr, &si, &pi);
        if (pi.hThread) CloseHandle(pi.hThread);
    }
    void End() {
        if (!pi.hProcess) return;
        TerminateProcess(pi.hProcess, 1);
        WaitForSingleObject(pi.hProcess, 10000);
        CloseHandle(pi.hProcess);
        pi.hProcess = nullptr;
    }
    ~Suspended() { End(); }
};

TEST(ProcessUserCache, AnswersAgainUntilTheProcessEndsAndASweepDropsIt) {
    Suspended child;
    ASSERT_TRUE(child.pi.hProcess);
    auto first = LookUpProcessUser(child.pi.dwProcessId);
    ASSERT_TRUE(first);
    EXPECT_EQ(kwtest::CurrentUserSid(), first->sid);
    EXPECT_EQ(first, LookUpProcessUser(child.pi.dwProcessId)) << "the second event reads nothing again";
    const size_t held = SweepProcessUsers();
    child.End();
    EXPECT_EQ(held - 1, SweepProcessUsers()) << "the ended process is dropped";
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(first->process.get(), &code) && code == 1) << "a holder keeps its handles";
}

TEST(ProcessUserCache, HoldsAtMostThirtyTwoProcesses) {
    std::vector<std::unique_ptr<Suspended>> children;
    for (int i = 0; i < 34; ++i) {
        children.emplace_back(new Suspended);
        ASSERT_TRUE(LookUpProcessUser(children.back()->pi.dwProcessId));
    }
    EXPECT_EQ(32u, SweepProcessUsers());
    children.clear();
    ASSERT_TRUE(LookUpProcessUser(GetCurrentProcessId()));
    EXPECT_EQ(1u, SweepProcessUsers()) << "the ended ones are dropped";
}

}  // namespace
