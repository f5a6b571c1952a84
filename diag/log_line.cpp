#include "diag/log_line.h"

#include "common/strutil.h"

#include <cstdint>
#include <memory>
#include <new>

namespace kw {

const char kLogModuleName[] = "kwdeepscan";

const wchar_t* LogLevelTag(int level) noexcept {
    switch (level) {
    case 0:
        return L"[INFO]";
    case 1:
        return L"[ERROR]";
    default:
        return L"[LevelNull]";
    }
}

std::wstring FormatLogTime(const SYSTEMTIME& time) {
    wchar_t buf[64];
    FormatBounded(buf, 64, "[%02d-%d-%d %02d:%02d:%02d]", time.wYear, time.wMonth, time.wDay,
                  time.wHour, time.wMinute, time.wSecond);
    return buf;
}

std::wstring LogDirectoryOf(const std::wstring& modulePath) {
    size_t slash = modulePath.find_last_of(L'\\');
    return slash == std::wstring::npos ? std::wstring() : modulePath.substr(0, slash);
}

std::wstring MakeLogPath(const std::wstring& modulePath, const SYSTEMTIME& date, DWORD processId) {
    size_t slash = modulePath.find_last_of(L'\\');
    std::wstring fileName =
        slash == std::wstring::npos ? modulePath : modulePath.substr(slash + 1);
    // The stem is cut out of the bracketed name, so a name without a dot keeps
    // its closing bracket ("host]log"); deliberate: existing log names follow it.
    std::wstring bracketed = L"[" + fileName + L"]";
    size_t dot = bracketed.find(L'.');
    std::wstring stem = dot == std::wstring::npos ? bracketed.substr(1) : bracketed.substr(1, dot);
    wchar_t datePid[64];
    FormatBounded(datePid, 64, "%02d-%d-%d_%lu_", date.wYear, date.wMonth, date.wDay,
                  static_cast<unsigned long>(processId));
    return LogDirectoryOf(modulePath) + L"\\" + datePid + stem + L"log";
}

namespace {

// A narrow argument for %s: never null.
const char* OrEmpty(const char* s) { return s ? s : ""; }

}  // namespace

bool ComposeLogLineV(std::wstring& line, int level, const SYSTEMTIME& time, int dataSize,
                     int threadId, const char* sourceFile, const char* functionName,
                     int sourceLine, const char* messageFormat, va_list ap) noexcept {
    line.clear();
    if (dataSize <= 0) return false;
    try {
        // The message takes what it needs; a longer one is cut to fewer than
        // 2 x dataSize characters, not rejected.
        va_list cp;
        va_copy(cp, ap);
        const std::wstring message = FormatWV(messageFormat ? messageFormat : "", cp,
                                              static_cast<size_t>(dataSize) * 2 - 1);
        va_end(cp);

        wchar_t prefix[kCchLogPrefix] = {0};
        FormatBounded(prefix, kCchLogPrefix, "[%s][%d-%s-%s-%d]::", kLogModuleName, threadId,
                      OrEmpty(sourceFile), OrEmpty(functionName), sourceLine);

        line = LogLevelTag(level);
        line += FormatLogTime(time);
        line += prefix;
        line += message;
        line += L"\r\n";
        return true;
    } catch (...) {
        line.clear();
        return false;
    }
}

}  // namespace kw
