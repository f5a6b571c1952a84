// The file channel: a per-process log file and/or debugger output, switched
// on by "Holmlog.ini" (section "OUTLOG") beside the host executable and read
// once, when the writer is first created. Lines look like
// "[INFO][2024-3-5 09:07:03][kwdeepscan][1234-AnalizyOperate-CAnalizyOperate::Init-86]::message\r\n".
#pragma once
#include "common/strutil.h"

#include <windows.h>

#include <string>

namespace kw {

class CLogWriter;

// The process-wide writer, created (and its configuration read) on first call.
CLogWriter* GetLogWriter() noexcept;

// Writes one line through the process-wide writer, creating it if needed.
// srcFile: the source file's name as the line shows it ("AnalizyOperate");
// function: the qualified name; line: the source line number.
void FileLog(const char* srcFile, const char* function, int line, const char* fmt, ...) noexcept
    KW_PRINTF(4, 5);
// Writes through the writer only when it already exists (never creates it).
void FileLogIfOpen(const char* srcFile, const char* function, int line, const char* fmt, ...) noexcept
    KW_PRINTF(4, 5);

// Asks the background writer (asynchronous mode) to flush what is queued and
// exit. Safe to call any number of times and outside DllMain only.
void StopLogWriter() noexcept;

}  // namespace kw
