// The text of the file channel, without any system call: the log file's name,
// the level tag, the timestamp and the composed line. The writer
// (diag/log_writer.h) feeds these with the clock, the process id and the
// executable's path; tests feed them with plain values.
#pragma once
#include <windows.h>

#include <cstdarg>
#include <string>

namespace kw {

// The module name every file-channel line carries.
extern const char kLogModuleName[];          // "kwdeepscan"
// The prefix is formatted into a fixed buffer of this many wide characters
// (4096 bytes); a longer prefix is cut to one character less.
constexpr size_t kCchLogPrefix = 4096 / sizeof(wchar_t);
// The message capacity used before the configuration is read.
constexpr int kDefaultLogDataSize = 2048;

// 0 -> "[INFO]", 1 -> "[ERROR]", anything else -> "[LevelNull]".
const wchar_t* LogLevelTag(int level) noexcept;

// "[yyyy-m-d hh:mm:ss]": year at least two digits, month and day unpadded,
// hour, minute and second two digits.
std::wstring FormatLogTime(const SYSTEMTIME& time);

// The folder of a module path: everything before its last backslash (empty
// when there is none).
std::wstring LogDirectoryOf(const std::wstring& modulePath);

// "<dir>\<yyyy>-<m>-<d>_<pid>_<stem>log". The stem is taken from
// "[" + file name + "]" from its second character up to and including the
// first dot: "host.exe" -> "host.", "my.app.exe" -> "my.", and a name without
// a dot keeps its closing bracket: "host" -> "host]".
std::wstring MakeLogPath(const std::wstring& modulePath, const SYSTEMTIME& date, DWORD processId);

// Composes one line: level tag, timestamp, the prefix "[%s][%d-%s-%s-%d]::"
// (kLogModuleName, threadId, sourceFile, functionName, sourceLine; cut to
// kCchLogPrefix - 1 characters), the message formatted from messageFormat
// and cut to fewer than 2 x dataSize characters, then "\r\n".
// Only what the formatted message needs is allocated, whatever dataSize is;
// false (line left empty) when dataSize is 0 or less or an allocation fails:
// the line is dropped.
bool ComposeLogLineV(std::wstring& line, int level, const SYSTEMTIME& time, int dataSize,
                     int threadId, const char* sourceFile, const char* functionName,
                     int sourceLine, const char* messageFormat, va_list ap) noexcept;

}  // namespace kw
