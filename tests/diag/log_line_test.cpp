// The file channel's text: level tags, timestamps, log file names and the
// composed line with its two limits (the message capacity of fewer than
// 2 x DataSize characters and the fixed prefix buffer).
#include "diag/log_line.h"

#include "common/strutil.h"

#include <gtest/gtest.h>

#include <string>

using namespace kw;

namespace {

SYSTEMTIME Time(WORD y, WORD mo, WORD d, WORD h = 9, WORD mi = 7, WORD s = 3) {
    return SYSTEMTIME{y, mo, 0, d, h, mi, s, 0};
}

bool Compose(std::wstring& line, int level, int dataSize, int threadId, const char* src,
             const char* function, int srcLine, const char* fmt, ...) KW_PRINTF(8, 9);
bool Compose(std::wstring& line, int level, int dataSize, int threadId, const char* src,
             const char* function, int srcLine, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool ok = ComposeLogLineV(line, level, Time(2024, 3, 5), dataSize, threadId, src, function,
                              srcLine, fmt, ap);
    va_end(ap);
    return ok;
}

TEST(LogWriterLine, LogPathFromDatePidAndStem) {
    struct {
        const char* name;
        const wchar_t* modulePath;
        DWORD pid;
        const wchar_t* expected;
    } rows[] = {
        {"ordinary executable", L"C:\\Program Files\\Host\\host.exe", 1234,
         L"C:\\Program Files\\Host\\2024-3-5_1234_host.log"},
        {"name without a dot keeps the bracket", L"C:\\h\\host", 1234, L"C:\\h\\2024-3-5_1234_host]log"},
        {"first dot ends the stem", L"C:\\h\\my.app.exe", 1234, L"C:\\h\\2024-3-5_1234_my.log"},
        {"name that starts with a dot", L"C:\\h\\.exe", 1234, L"C:\\h\\2024-3-5_1234_.log"},
        {"dot in the folder does not count", L"C:\\a.b\\host", 1234, L"C:\\a.b\\2024-3-5_1234_host]log"},
        {"largest process id", L"C:\\h\\host.exe", 4294967295u, L"C:\\h\\2024-3-5_4294967295_host.log"},
    };
    for (const auto& r : rows)
        EXPECT_EQ(std::wstring(r.expected), MakeLogPath(r.modulePath, Time(2024, 3, 5), r.pid)) << r.name;
}

TEST(LogWriterLine, LevelTagsTimestampsAndLayout) {
    struct {
        int level;
        const wchar_t* tag;
    } levels[] = {{0, L"[INFO]"}, {1, L"[ERROR]"}, {2, L"[LevelNull]"}, {-1, L"[LevelNull]"}};
    for (const auto& r : levels) EXPECT_EQ(std::wstring(r.tag), LogLevelTag(r.level)) << r.level;
    // Month and day unpadded, year at least two digits, the time padded.
    EXPECT_EQ(L"[2024-3-5 09:07:03]", FormatLogTime(Time(2024, 3, 5)));
    EXPECT_EQ(L"[07-12-31 23:59:59]", FormatLogTime(Time(7, 12, 31, 23, 59, 59)));
    std::wstring line;
    ASSERT_TRUE(Compose(line, 0, 2048, 1234, "AnalizyOperate", "CAnalizyOperate::Init", 86,
                        "[regscan] Autorun Init Success"));
    EXPECT_EQ(L"[INFO][2024-3-5 09:07:03][kwdeepscan][1234-AnalizyOperate-CAnalizyOperate::Init-86]::"
              L"[regscan] Autorun Init Success\r\n",
              line);
    // A null file or function name shows as an empty field; an argument's
    // "%" is never taken as a format.
    ASSERT_TRUE(Compose(line, 1, 100, -1, nullptr, nullptr, -5, "w=%ls n=%s d=%d p=%ls", L"wide",
                        "narrow", 7, L"100%d"));
    EXPECT_EQ(L"[ERROR][2024-3-5 09:07:03][kwdeepscan][-1----5]::w=wide n=narrow d=7 p=100%d\r\n", line);
}

TEST(LogWriterLine, MessageCutBelowTwiceDataSize) {
    struct {
        const char* name;
        int dataSize;
        size_t messageLength;  // characters of the message given
        bool written;
        size_t keptLength;     // characters of the message in the line
    } rows[] = {
        {"DataSize 10, 18 characters kept", 10, 18, true, 18},
        {"DataSize 10, 19 characters kept", 10, 19, true, 19},
        {"DataSize 10, 20 characters cut to 19", 10, 20, true, 19},
        {"DataSize 1, 2 characters cut to 1", 1, 2, true, 1},
        {"DataSize 0 drops the line", 0, 5, false, 0},
        // Only what the message needs is allocated, whatever the capacity.
        {"largest integer keeps a short message", 2147483647, 5, true, 5},
    };
    const std::wstring head = L"[INFO][2024-3-5 09:07:03][kwdeepscan][1-f-F-1]::";
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        std::string message;
        for (size_t i = 0; i < r.messageLength; ++i) message += static_cast<char>('a' + i % 26);
        std::wstring line = L"stale";
        ASSERT_EQ(r.written, Compose(line, 0, r.dataSize, 1, "f", "F", 1, "%s", message.c_str()));
        const std::wstring kept(message.begin(), message.begin() + r.keptLength);
        EXPECT_EQ(r.written ? head + kept + L"\r\n" : L"", line);
    }
}

TEST(LogWriterLine, PrefixCutAtItsBuffer) {
    // "[kwdeepscan][7-s-" + function + "-1]::"
    const size_t fixed = std::wstring(L"[kwdeepscan][7-s-").size() + std::wstring(L"-1]::").size();
    const size_t limit = kCchLogPrefix - 1;  // characters the prefix buffer holds
    for (size_t prefixLength : {limit - 1, limit, limit + 1}) {
        SCOPED_TRACE(prefixLength);
        std::string function(prefixLength - fixed, 'x');
        std::wstring full = L"[kwdeepscan][7-s-" + std::wstring(function.begin(), function.end()) + L"-1]::";
        std::wstring line;
        ASSERT_TRUE(Compose(line, 0, 10, 7, "s", function.c_str(), 1, "m"));
        EXPECT_EQ(L"[INFO][2024-3-5 09:07:03]" + full.substr(0, limit) + L"m\r\n", line);
    }
}

}  // namespace
