#include "diag/log_writer.h"

#include "common/module.h"
#include "diag/log_line.h"
#include "diag/log_writer_state.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace kw {

namespace {

const wchar_t kConfigName[] = L"Holmlog.ini";
const wchar_t kSection[] = L"OUTLOG";
// How long StopLogWriter waits for the background writer to empty its queue.
const DWORD kStopTimeoutMs = 5000;

// A missing key gives the default -1; GetPrivateProfileIntW returns it as UINT.
int ReadConfigInt(const wchar_t* key, const std::wstring& configPath) {
    return static_cast<int>(GetPrivateProfileIntW(kSection, key, -1, configPath.c_str()));
}

}  // namespace

CLogWriter::CLogWriter(const std::wstring& modulePath) : m_dataSize(kDefaultLogDataSize) {
    SYSTEMTIME today;
    GetLocalTime(&today);
    m_configPath = LogDirectoryOf(modulePath) + L"\\" + kConfigName;
    // The log path is known even when the configuration leaves logging off.
    m_logPath = MakeLogPath(modulePath, today, GetCurrentProcessId());

    if (GetFileAttributesW(m_configPath.c_str()) == INVALID_FILE_ATTRIBUTES) return;
    m_outFile = ReadConfigInt(L"OutFile", m_configPath);
    m_debugView = ReadConfigInt(L"DebugView", m_configPath);
    m_dataSize = ReadConfigInt(L"DataSize", m_configPath);
    m_writeSyn = ReadConfigInt(L"WriteSyn", m_configPath);
    if ((m_outFile == 0 && m_debugView == 0) || m_dataSize <= 0) return;

    m_enabled = 1;
    if (m_outFile != 0) {
        m_writerState = GetLogWriterState();
        if (m_writerState) m_writerState->SetPath(m_logPath);
    }
}

void CLogWriter::Write(int level, const char* sourceFile, const char* functionName,
                       int sourceLine, const char* messageFormat, ...) noexcept {
    va_list ap;
    va_start(ap, messageFormat);
    WriteV(level, sourceFile, functionName, sourceLine, messageFormat, ap);
    va_end(ap);
}

void CLogWriter::WriteV(int level, const char* sourceFile, const char* functionName,
                        int sourceLine, const char* messageFormat, va_list ap) noexcept {
    if (!m_enabled) return;
    SYSTEMTIME now;
    GetLocalTime(&now);
    std::wstring line;
    if (!ComposeLogLineV(line, level, now, m_dataSize, static_cast<int>(GetCurrentThreadId()),
                         sourceFile, functionName, sourceLine, messageFormat, ap))
        return;
    if (m_outFile != 0 && m_writerState) {
        if (m_writeSyn == 0) {
            try {
                m_writerState->Push(m_debugView != 0 ? std::wstring(line) : std::move(line));
            } catch (...) {
                // Out of memory for the copy: the file misses this line.
            }
        } else {
            m_writerState->WriteNow(line);
        }
    }
    if (m_debugView != 0 && !line.empty()) OutputDebugStringW(line.c_str());
}

namespace {

INIT_ONCE g_writerOnce = INIT_ONCE_STATIC_INIT;
std::atomic<CLogWriter*> g_writer{nullptr};

std::wstring ProcessModulePath() {
    wchar_t path[MAX_PATH + 1] = {0};
    // GetModuleFileNameW leaves a buffer that is too small unterminated and
    // returns its size: keep at most MAX_PATH characters and terminate.
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    if (n > MAX_PATH) n = MAX_PATH;
    path[n] = L'\0';
    return path;
}

// Runs when the program exits or the module that holds this code is
// unloaded (a DLL's exit handlers run when it is unloaded).
//  - Program exit through exit(): other threads still run; the writer is
//    asked to write what is queued and leave (bounded wait).
//  - Process termination: the system has already ended every other thread,
//    the writer among them; what it had not written is appended from here.
//  - DLL unload: the writer thread holds a reference to the module, so it has
//    left already; the writer and its state are freed with the module.
// Objects are not freed at program exit: threads that still run may write.
void EndLogWriter() noexcept {
    CLogWriterState* state = PeekLogWriterState();
    if (IsProcessEnding()) {
        if (state) state->WriteRestAfterThreadsEnded();
        return;
    }
    if (state) state->Stop(kStopTimeoutMs);
    if (IsThisCodeInTheProgram()) return;
    delete g_writer.exchange(nullptr);
    ReleaseLogWriterState();
}

BOOL CALLBACK CreateWriter(PINIT_ONCE, PVOID, PVOID*) {
    try {
        g_writer.store(new CLogWriter(ProcessModulePath()));
        atexit(EndLogWriter);
    } catch (...) {
        g_writer.store(nullptr);
    }
    return TRUE;
}

void WriteV(CLogWriter* writer, const char* srcFile, const char* function, int line,
            const char* fmt, va_list ap) noexcept {
    if (writer) writer->WriteV(0, srcFile, function, line, fmt, ap);
}

}  // namespace

CLogWriter* GetLogWriter() noexcept {
    InitOnceExecuteOnce(&g_writerOnce, CreateWriter, nullptr, nullptr);
    return g_writer.load();
}

void FileLog(const char* srcFile, const char* function, int line, const char* fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    WriteV(GetLogWriter(), srcFile, function, line, fmt, ap);
    va_end(ap);
}

void FileLogIfOpen(const char* srcFile, const char* function, int line, const char* fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    WriteV(g_writer.load(), srcFile, function, line, fmt, ap);
    va_end(ap);
}

void StopLogWriter() noexcept {
    // Only a writer that writes to a file has a writer state to stop.
    CLogWriter* writer = g_writer.load();
    if (!writer || !writer->IsEnabled() || writer->OutFile() == 0) return;
    CLogWriterState* state = GetLogWriterState();
    if (state) state->Stop(kStopTimeoutMs);
}

}  // namespace kw
