// The file channel: a per-process log file and/or debugger output, switched
// on by "Holmlog.ini" (section "OUTLOG") beside the host executable and read
// once, when the writer is first created. Lines look like
// "[INFO][2024-3-5 09:07:03][kwdeepscan][1234-AnalizyOperate-CAnalizyOperate::Init-86]::message\r\n".
#pragma once
#include "common/strutil.h"

#include <windows.h>

#include <cstdarg>
#include <string>

namespace kw {

class CLogWriterState;

// The configuration as read from "Holmlog.ini": OutFile and DebugView switch
// the file and the debugger output on when non-zero, DataSize bounds the
// message (fewer than 2 x DataSize characters; output is off unless it is
// greater than 0), WriteSyn 0 selects the background writer. Each key is read
// as an integer with the default -1 (missing key), a non-numeric value reads 0.
class CLogWriter {
public:
    // Reads the configuration beside modulePath (the executable's full path)
    // and computes the log path. Without a readable "Holmlog.ini" the writer
    // stays disabled. When enabled in asynchronous mode, lines go through the
    // process-wide writer state, whose thread starts with the first line.
    explicit CLogWriter(const std::wstring& modulePath);
    CLogWriter(const CLogWriter&) = delete;
    CLogWriter& operator=(const CLogWriter&) = delete;

    // One line: level 0 "[INFO]", 1 "[ERROR]", else "[LevelNull]"; the prefix
    // carries the module name, the calling thread's id, sourceFile,
    // functionName and sourceLine. Nothing happens while disabled; a line whose
    // message buffer cannot be allocated is dropped.
    void Write(int level, const char* sourceFile, const char* functionName, int sourceLine,
               const char* messageFormat, ...) noexcept KW_PRINTF(6, 7);
    void WriteV(int level, const char* sourceFile, const char* functionName, int sourceLine,
                const char* messageFormat, va_list ap) noexcept;

    bool IsEnabled() const noexcept { return m_enabled != 0; }
    int OutFile() const noexcept { return m_outFile; }
    int DebugView() const noexcept { return m_debugView; }
    int DataSize() const noexcept { return m_dataSize; }
    int WriteSyn() const noexcept { return m_writeSyn; }
    const std::wstring& LogPath() const noexcept { return m_logPath; }
    const std::wstring& ConfigPath() const noexcept { return m_configPath; }

private:
    BOOL m_enabled = 0;
    int m_outFile = 0;
    int m_debugView = 0;
    int m_dataSize;
    int m_writeSyn = 0;
    std::wstring m_configPath;
    std::wstring m_logPath;
    CLogWriterState* m_writerState = nullptr;  // process-wide; null when disabled or unavailable
};

// The process-wide writer, created (and its configuration read) on first call
// from the executable's path (GetModuleFileNameW of the process, up to 260
// characters). Null only when it could not be allocated.
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
