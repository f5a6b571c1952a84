// The writer state of the file channel: the log file's stream, the queue of
// pending lines and the background writer thread that empties it. One per
// process, created on first use; see diag/log_writer.h for its end.
#pragma once
#include <windows.h>

#include <cstdio>
#include <deque>
#include <string>

namespace kw {

// Lines the queue holds at most; a line pushed while it is full is dropped.
constexpr size_t kMaxQueuedLogLines = 10000;

class CLogWriterState {
public:
    explicit CLogWriterState(size_t maxQueued = kMaxQueuedLogLines) noexcept;
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
    // While the queue holds maxQueued lines, a new line is dropped and counted;
    // after the lines queued before them, the writer writes one "[ERROR]" line
    // that says how many were dropped.
    void Push(std::wstring line) noexcept;

    // Wakes the writer, lets it write everything queued and exit, waiting at
    // most timeoutMs for that; then closes the stream. Must not be called
    // inside DllMain. Returns false when the writer was still running at the
    // deadline (it finishes on its own and keeps the module loaded until then).
    bool Stop(DWORD timeoutMs) noexcept;

    // For the end of the process, after the system has ended every other
    // thread (the writer among them, perhaps in the middle of a line): appends
    // the lines it had not written yet and those still queued, through a file
    // handle of its own, without waiting for any lock and without allocating.
    // A line that the writer was writing when it ended may appear twice.
    // Nothing is written when a thread ended while it was changing the queue.
    void WriteRestAfterThreadsEnded() noexcept;

    // True while a writer thread is alive (for tests).
    bool IsWriterRunning() noexcept;
    // For tests: while held, the writer leaves the queue alone (lines pile up).
    void HoldWriter(bool hold) noexcept;

private:
    static DWORD WINAPI WriterThreadProc(void* param) noexcept;
    void RunWriter() noexcept;
    bool StartWriterLocked() noexcept;
    bool WriteLocked(const std::wstring& line) noexcept;
    void CloseLocked() noexcept;

    // Order when both are held: m_queueLock first, then m_fileLock.
    CRITICAL_SECTION m_queueLock;   // m_queue, m_batch, m_dropped, m_running, m_stopping, m_hold, m_writerModule
    CRITICAL_SECTION m_fileLock;    // m_stream, m_path
    CONDITION_VARIABLE m_wake;      // signalled when a line is queued or a stop is asked
    CONDITION_VARIABLE m_finished;  // signalled when the writer thread leaves
    const size_t m_maxQueued;
    std::deque<std::wstring> m_queue;
    // The lines the writer took from the queue; m_batchDone of them are
    // written (the writer alone advances it, outside the lock).
    std::deque<std::wstring> m_batch;
    volatile size_t m_batchDone = 0;
    unsigned long m_dropped = 0;      // lines dropped since the last notice
    unsigned long m_batchDropped = 0; // the drops the current batch reports
    bool m_running = false;
    bool m_stopping = false;
    bool m_hold = false;
    HMODULE m_writerModule = nullptr;  // the reference the next writer thread takes over
    FILE* m_stream = nullptr;
    std::wstring m_path;
};

// The process-wide writer state (null only when it could not be allocated).
CLogWriterState* GetLogWriterState() noexcept;
// The process-wide writer state if it exists (never creates it).
CLogWriterState* PeekLogWriterState() noexcept;
// Destroys the process-wide writer state (when its module is unloaded).
void ReleaseLogWriterState() noexcept;

}  // namespace kw
