// The SID text of a process's user: the real SID of this process and of a
// child, the byte limit of the text, and refusals that leave it empty.
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

TEST(GetUserSidByPid, OwnProcessGivesTheTokenUserAndTracesIt) {
    const std::wstring expected = kwtest::CurrentUserSid();
    ASSERT_FALSE(expected.empty());
    ScopedSink cap;
    std::vector<BYTE> tokenUser;
    unique_handle process, token;
    wchar_t sid[MAX_PATH];
    wmemset(sid, kGuard, MAX_PATH);
    GetUserSidByPid(GetCurrentProcessId(), &tokenUser, &process, &token, sid, 260);
    EXPECT_EQ(expected, sid);
    EXPECT_TRUE(process.valid());
    EXPECT_TRUE(token.valid());
    EXPECT_GE(tokenUser.size(), sizeof(TOKEN_USER));
    EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][INFO ][GetUserSidByPid] " + expected}, cap.Texts());
}

// The limit counts bytes and keeps room for the terminator; the outputs
// other than the text may be omitted.
TEST(GetUserSidByPid, TextIsCutToTheByteLimit) {
    const std::wstring full = kwtest::CurrentUserSid();
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
        GetUserSidByPid(GetCurrentProcessId(), nullptr, nullptr, nullptr, sid, row.limit);
        EXPECT_EQ(row.expected, sid);
        EXPECT_EQ(kGuard, sid[row.limit / 2]) << "wrote past the limit";
        EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][INFO ][GetUserSidByPid] " + row.expected}, cap.Texts());
    }
}

TEST(GetUserSidByPid, LimitBelowOneCharacterWritesNothing) {
    for (size_t limit : {0u, 1u}) {
        SCOPED_TRACE(limit);
        ScopedSink cap;
        wchar_t sid[4];
        wmemset(sid, kGuard, 4);
        unique_handle process;
        GetUserSidByPid(GetCurrentProcessId(), nullptr, &process, nullptr, sid, limit);
        EXPECT_EQ(kGuard, sid[0]);
        EXPECT_TRUE(process.valid()) << "the process is still opened";
        EXPECT_TRUE(cap.Texts().empty());
    }
}

TEST(GetUserSidByPid, ProcessThatCannotBeOpenedLeavesTheTextEmpty) {
    for (DWORD pid : {DWORD(0), DWORD(0xFFFFFFF0)}) {
        SCOPED_TRACE(pid);
        ScopedSink cap;
        wchar_t sid[MAX_PATH];
        wmemset(sid, kGuard, MAX_PATH);
        unique_handle process, token;
        std::vector<BYTE> tokenUser;
        GetUserSidByPid(pid, &tokenUser, &process, &token, sid, 260);
        EXPECT_EQ(L'\0', sid[0]);
        EXPECT_FALSE(process.valid());
        EXPECT_FALSE(token.valid());
        EXPECT_TRUE(tokenUser.empty());
        EXPECT_TRUE(cap.Texts().empty());
    }
}

// Handles the caller held before are replaced, not leaked or kept.
TEST(GetUserSidByPid, PreviousHandlesAreReplaced) {
    unique_handle process(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    HANDLE before = process.get();
    wchar_t sid[MAX_PATH] = {0};
    GetUserSidByPid(GetCurrentProcessId(), nullptr, &process, nullptr, sid, sizeof(sid));
    EXPECT_NE(before, process.get());
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(before, 0)) << "the old handle was closed";
}

}  // namespace
