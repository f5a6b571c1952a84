// Runs one test of this program in a process of its own. Process-wide state
// (rules loaded once, the control-set name cached once, the log writer's
// configuration) needs a fresh process per case: the parent starts the child
// with --gtest_filter and KW_TEST_CHILD set; the child test body runs only
// when that variable is present.
#pragma once
#include <string>
#include <vector>

namespace kwtest {

// True inside a child started by RunChild.
bool IsChild();
// Starts this program with --gtest_filter=<filter>, KW_TEST_CHILD=1 and the
// extra environment variables ("NAME=value"), waits, returns the exit code
// (-1 when it could not start). The child's output goes to `output` if given.
int RunChild(const std::string& filter, const std::vector<std::string>& env = {},
             std::string* output = nullptr);
// Starts any program with a command line and working folder; returns its exit code.
int RunProgram(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd,
               std::string* output = nullptr, unsigned timeoutMs = 60000);

}  // namespace kwtest

// Declares a test that runs only in a child process; the parent test named
// `Name` starts the child and checks that it passed.
#define KW_CHILD_TEST(Suite, Name)                                                       \
    static void Suite##_##Name##_Body();                                                 \
    TEST(Suite, Name##_Child) {                                                          \
        if (!::kwtest::IsChild()) GTEST_SKIP() << "runs in its own process";            \
        Suite##_##Name##_Body();                                                         \
    }                                                                                    \
    TEST(Suite, Name) {                                                                  \
        std::string out;                                                                 \
        int rc = ::kwtest::RunChild(#Suite "." #Name "_Child", {}, &out);                \
        EXPECT_EQ(0, rc) << out;                                                         \
    }                                                                                    \
    static void Suite##_##Name##_Body()
