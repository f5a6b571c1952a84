// The writer state of the file channel: the log file's stream, the queue of
// pending lines and the background writer thread that empties it. One per
// process, created on first use and never destroyed (a writer thread may
// still be using it while the process exits).
#pragma once
#include <windows.h>

#include <cstdio>
#include <deque>
#include <string>

namespace kw {

class CLogWriterState {
public:
    CLogWriterState() noexcept;
    ~CLogWriterState();
    CLogWriterState(const CLogWriterState&) = delete;
    CLogWriterState& operator=(const CLogWriterState&) = delete;

    // The file that lines are appended to (kept for the life of the process).
    void SetPath(const std::wstring& logPath);

    // Appends one line on the caller's thread, under the file lock: opens the
    // file ("ab+") if needed, converts the line to the ANSI code page, writes
    // it and flushes. False when the file cannot be opened or written (the
    // line is dropped; the next line tries to open the file again).
    bool WriteNow(const std::wstring& line) noexcept;

    // Queues one line for the background writer, starting the writer thread
    // if none is running. Lines are written in the order they were queued.
    // When no thread can be started the queued lines are written at once.
    void Push(std::wstring line) noexcept;

    // Wakes the writer, lets it write everything queued and exit, waiting at
    // most timeoutMs for that; then closes the stream. Must not be called
    // inside DllMain. Returns false when the writer was still running at the
    // deadline (it finishes on its own and keeps the module loaded until then).
    bool Stop(DWORD timeoutMs) noexcept;

    // True while a writer thread is alive (for tests).
    bool IsWriterRunning() noexcept;

private:
    static DWORD WINAPI WriterThreadProc(void* param) noexcept;
    void RunWriter() noexcept;
    bool StartWriterLocked() noexcept;
    bool WriteLocked(const std::wstring& line) noexcept;
    void CloseLocked() noexcept;

    // Order when both are held: m_queueLock first, then m_fileLock.
    CRITICAL_SECTION m_queueLock;   // m_queue, m_running, m_stopping, m_writerModule
    CRITICAL_SECTION m_fileLock;    // m_stream, m_path
    CONDITION_VARIABLE m_wake;      // signalled when a line is queued or a stop is asked
    CONDITION_VARIABLE m_finished;  // signalled when the writer thread leaves
    std::deque<std::wstring> m_queue;
    bool m_running = false;
    bool m_stopping = false;
    HMODULE m_writerModule = nullptr;  // the reference the next writer thread takes over
    FILE* m_stream = nullptr;
    std::wstring m_path;
};

// The process-wide writer state (null only when it could not be allocated).
CLogWriterState* GetLogWriterState() noexcept;

}  // namespace kw
