// The file channel's text: level tags, timestamps, log file names and the
// composed line with its two limits (the message capacity of fewer than
// 2 x DataSize characters and the fixed prefix buffer).
#include "diag/log_line.h"

#include "common/strutil.h"

#include <gtest/gtest.h>

#include <string>

using namespace kw;

namespace {

std::string TestName(const char* title) {
    std::string s;
    for (const char* p = title; *p; ++p) s += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    return s;
}

SYSTEMTIME Time(WORD y, WORD mo, WORD d, WORD h, WORD mi, WORD s) {
    SYSTEMTIME t{};
    t.wYear = y;
    t.wMonth = mo;
    t.wDay = d;
    t.wHour = h;
    t.wMinute = mi;
    t.wSecond = s;
    return t;
}

bool Compose(std::wstring& line, int level, const SYSTEMTIME& time, int dataSize, int threadId,
             const char* src, const char* function, int srcLine, const char* fmt, ...)
    KW_PRINTF(9, 10);
bool Compose(std::wstring& line, int level, const SYSTEMTIME& time, int dataSize, int threadId,
             const char* src, const char* function, int srcLine, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool ok = ComposeLogLineV(line, level, time, dataSize, threadId, src, function, srcLine, fmt, ap);
    va_end(ap);
    return ok;
}

TEST(LogWriterLine, LevelTags) {
    struct Row {
        const char* name;
        int level;
        const wchar_t* tag;
    } rows[] = {
        {"level 0 is information", 0, L"[INFO]"},
        {"level 1 is error", 1, L"[ERROR]"},
        {"level 2, next after error, has no name", 2, L"[LevelNull]"},
        {"level 5 has no name", 5, L"[LevelNull]"},
        {"negative level has no name", -1, L"[LevelNull]"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(std::wstring(r.tag), LogLevelTag(r.level));
    }
}

TEST(LogWriterLine, Timestamps) {
    struct Row {
        const char* name;
        SYSTEMTIME time;
        const wchar_t* expected;
    } rows[] = {
        {"month and day unpadded, time padded", Time(2024, 3, 5, 9, 7, 3), L"[2024-3-5 09:07:03]"},
        {"two-digit month and day", Time(2024, 12, 31, 23, 59, 59), L"[2024-12-31 23:59:59]"},
        {"midnight", Time(2025, 1, 1, 0, 0, 0), L"[2025-1-1 00:00:00]"},
        {"year below 10 padded to two digits", Time(7, 1, 2, 3, 4, 5), L"[07-1-2 03:04:05]"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(std::wstring(r.expected), FormatLogTime(r.time));
    }
}

struct PathRow {
    const char* name;
    const wchar_t* modulePath;
    SYSTEMTIME date;
    DWORD pid;
    const wchar_t* expected;
};
void PrintTo(const PathRow& r, std::ostream* os) { *os << r.name; }

class LogWriterLogPath : public ::testing::TestWithParam<PathRow> {};

TEST_P(LogWriterLogPath, NameFromDatePidAndStem) {
    const PathRow& r = GetParam();
    EXPECT_EQ(std::wstring(r.expected), MakeLogPath(r.modulePath, r.date, r.pid));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LogWriterLogPath,
    ::testing::Values(
        PathRow{"ordinary executable", L"C:\\Program Files\\Host\\host.exe", Time(2024, 3, 5, 9, 7, 3),
                1234, L"C:\\Program Files\\Host\\2024-3-5_1234_host.log"},
        PathRow{"two-digit month and day", L"C:\\h\\host.exe", Time(2024, 11, 25, 0, 0, 0), 8,
                L"C:\\h\\2024-11-25_8_host.log"},
        PathRow{"name without a dot keeps the bracket", L"C:\\h\\host", Time(2024, 3, 5, 0, 0, 0), 1234,
                L"C:\\h\\2024-3-5_1234_host]log"},
        PathRow{"first dot ends the stem", L"C:\\h\\my.app.exe", Time(2024, 3, 5, 0, 0, 0), 1234,
                L"C:\\h\\2024-3-5_1234_my.log"},
        PathRow{"name that starts with a dot", L"C:\\h\\.exe", Time(2024, 3, 5, 0, 0, 0), 1234,
                L"C:\\h\\2024-3-5_1234_.log"},
        PathRow{"dot in the folder does not count", L"C:\\a.b\\host", Time(2024, 3, 5, 0, 0, 0), 1234,
                L"C:\\a.b\\2024-3-5_1234_host]log"},
        PathRow{"largest process id", L"C:\\h\\host.exe", Time(2024, 3, 5, 0, 0, 0), 4294967295u,
                L"C:\\h\\2024-3-5_4294967295_host.log"},
        PathRow{"executable at the root of a drive", L"C:\\host.exe", Time(2024, 3, 5, 0, 0, 0), 1,
                L"C:\\2024-3-5_1_host.log"}),
    [](const ::testing::TestParamInfo<PathRow>& i) { return TestName(i.param.name); });

TEST(LogWriterLine, ExactLayout) {
    std::wstring line;
    ASSERT_TRUE(Compose(line, 0, Time(2024, 3, 5, 9, 7, 3), 2048, 1234, "AnalizyOperate",
                        "CAnalizyOperate::Init", 86, "[regscan] Autorun Init Success"));
    EXPECT_EQ(L"[INFO][2024-3-5 09:07:03][kwdeepscan][1234-AnalizyOperate-CAnalizyOperate::Init-86]::"
              L"[regscan] Autorun Init Success\r\n",
              line);
}

TEST(LogWriterLine, ArgumentsAndMissingNames) {
    std::wstring line;
    ASSERT_TRUE(Compose(line, 1, Time(2024, 3, 5, 9, 7, 3), 100, -1, nullptr, nullptr, -5,
                        "w=%ls n=%s d=%d p=%ls", L"wide", "narrow", 7, L"100%d"));
    // A null file or function name shows as an empty field; an argument's
    // "%" is never taken as a format.
    EXPECT_EQ(L"[ERROR][2024-3-5 09:07:03][kwdeepscan][-1----5]::w=wide n=narrow d=7 p=100%d\r\n", line);
}

struct CapacityRow {
    const char* name;
    int dataSize;
    size_t messageLength;  // characters of the message given
    bool written;
    size_t keptLength;     // characters of the message in the line
};
void PrintTo(const CapacityRow& r, std::ostream* os) { *os << r.name; }

class LogWriterMessageCapacity : public ::testing::TestWithParam<CapacityRow> {};

TEST_P(LogWriterMessageCapacity, CutBelowTwiceDataSize) {
    const CapacityRow& r = GetParam();
    std::string message;
    for (size_t i = 0; i < r.messageLength; ++i) message += static_cast<char>('a' + i % 26);
    std::wstring line = L"stale";
    bool ok = Compose(line, 0, Time(2024, 3, 5, 9, 7, 3), r.dataSize, 1, "f", "F", 1, "%s",
                      message.c_str());
    ASSERT_EQ(r.written, ok);
    if (!r.written) {
        EXPECT_TRUE(line.empty());
        return;
    }
    const std::wstring head = L"[INFO][2024-3-5 09:07:03][kwdeepscan][1-f-F-1]::";
    ASSERT_EQ(head, line.substr(0, head.size()));
    std::wstring expected(message.begin(), message.begin() + r.keptLength);
    EXPECT_EQ(expected + L"\r\n", line.substr(head.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LogWriterMessageCapacity,
    ::testing::Values(
        CapacityRow{"DataSize 10, 18 characters kept", 10, 18, true, 18},
        CapacityRow{"DataSize 10, 19 characters kept", 10, 19, true, 19},
        CapacityRow{"DataSize 10, 20 characters cut to 19", 10, 20, true, 19},
        CapacityRow{"DataSize 10, 40 characters cut to 19", 10, 40, true, 19},
        CapacityRow{"DataSize 1, empty message", 1, 0, true, 0},
        CapacityRow{"DataSize 1, 1 character kept", 1, 1, true, 1},
        CapacityRow{"DataSize 1, 2 characters cut to 1", 1, 2, true, 1},
        CapacityRow{"default capacity, 4095 characters kept", kDefaultLogDataSize, 4095, true, 4095},
        CapacityRow{"default capacity, 4096 characters cut to 4095", kDefaultLogDataSize, 4096, true, 4095},
        CapacityRow{"DataSize 0 drops the line", 0, 5, false, 0},
        CapacityRow{"negative DataSize drops the line", -1, 5, false, 0},
        // Only what the message needs is allocated, whatever the capacity.
        CapacityRow{"capacity past what could be allocated keeps a short message", 536870911, 5, true, 5},
        CapacityRow{"capacity past the address space keeps a short message", 1073741824, 5, true, 5},
        CapacityRow{"largest integer keeps a short message", 2147483647, 5, true, 5}),
    [](const ::testing::TestParamInfo<CapacityRow>& i) { return TestName(i.param.name); });

TEST(LogWriterLine, PrefixCutAtItsBuffer) {
    // "[kwdeepscan][7-s-" + function + "-1]::"
    const size_t fixed = std::wstring(L"[kwdeepscan][7-s-").size() + std::wstring(L"-1]::").size();
    const size_t limit = kCchLogPrefix - 1;  // characters the prefix buffer holds
    struct Row {
        const char* name;
        size_t prefixLength;
    } rows[] = {
        {"prefix one below the buffer", limit - 1},
        {"prefix filling the buffer", limit},
        {"prefix one past the buffer", limit + 1},
        {"prefix far past the buffer", limit + 500},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        std::string function(r.prefixLength - fixed, 'x');
        std::wstring full = L"[kwdeepscan][7-s-" + std::wstring(function.begin(), function.end()) + L"-1]::";
        ASSERT_EQ(r.prefixLength, full.size());
        std::wstring line;
        ASSERT_TRUE(Compose(line, 0, Time(2024, 3, 5, 9, 7, 3), 10, 7, "s", function.c_str(), 1, "m"));
        std::wstring expected = L"[INFO][2024-3-5 09:07:03]" + full.substr(0, limit) + L"m\r\n";
        EXPECT_EQ(expected, line);
    }
}

}  // namespace
