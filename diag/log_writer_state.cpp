#include "diag/log_writer_state.h"

#include "common/handle.h"
#include "diag/log_line.h"

#include <climits>
#include <new>
#include <utility>

namespace kw {

// How the background writer lives and dies.
//
// The writer thread sleeps on m_wake while the queue is empty, so an idle
// process spends no processor time on it; Push wakes it for every line, and it
// takes the whole queue at once and writes it in order outside the queue lock.
//
// The thread runs code of this module, which the host may unload. So that it
// can never run unmapped code, the thread owns a reference to the module for
// its whole life: StartWriterLocked takes it (GetModuleHandleExW from the
// address of the thread procedure) before the thread exists, and the thread
// gives it back through FreeLibraryAndExitThread, which does not return into
// this module. Nothing ever waits for the thread inside DllMain (that would
// deadlock on the loader lock). Instead Stop, called outside DllMain when the
// last plug-in object is released, asks the thread to write what is queued,
// close the file and leave, and waits (bounded) for it to say it has left.
// If the wait runs out, the thread still holds its module reference, so a
// later unload is deferred until it has finished. A line written after a stop
// starts a new writer thread with a reference of its own.
//
// The queue is bounded (kMaxQueuedLogLines): a producer never waits for the
// disk, so while the file cannot keep up new lines are dropped and counted,
// and the writer reports the count in one line of its own.

namespace {

// The line that reports dropped lines, in the layout of every other line.
std::wstring DropNotice(unsigned long dropped, size_t maxQueued, ...) noexcept {
    SYSTEMTIME now;
    GetLocalTime(&now);
    std::wstring line;
    va_list ap;
    va_start(ap, maxQueued);
    ComposeLogLineV(line, 1, now, 64, static_cast<int>(GetCurrentThreadId()), "log_writer_state",
                    "CLogWriterState::Push", 0, "log queue full (%lu lines): %lu lines dropped", ap);
    va_end(ap);
    return line;
}

}  // namespace

CLogWriterState::CLogWriterState(size_t maxQueued) noexcept : m_maxQueued(maxQueued) {
    InitializeCriticalSection(&m_queueLock);
    InitializeCriticalSection(&m_fileLock);
    InitializeConditionVariable(&m_wake);
    InitializeConditionVariable(&m_finished);
}

CLogWriterState::~CLogWriterState() {
    // Only states owned by a scope are ever destroyed (the process-wide one is
    // not): its writer must be gone before the locks are.
    Stop(INFINITE);
    DeleteCriticalSection(&m_fileLock);
    DeleteCriticalSection(&m_queueLock);
}

void CLogWriterState::SetPath(const std::wstring& logPath) {
    cs_lock lock(m_fileLock);
    if (logPath == m_path) return;
    CloseLocked();
    m_path = logPath;
}

bool CLogWriterState::WriteNow(const std::wstring& line) noexcept {
    cs_lock lock(m_fileLock);
    return WriteLocked(line);
}

void CLogWriterState::Push(std::wstring line) noexcept {
    cs_lock lock(m_queueLock);
    if (m_queue.size() >= m_maxQueued) {
        ++m_dropped;
        return;
    }
    try {
        m_queue.push_back(std::move(line));
    } catch (...) {
        return;  // out of memory: the line is dropped
    }
    if (m_running) {
        WakeConditionVariable(&m_wake);
        return;
    }
    if (StartWriterLocked()) return;
    // No writer thread: write what is queued now, still under the queue lock
    // so that the order of lines is kept.
    std::deque<std::wstring> pending;
    pending.swap(m_queue);
    cs_lock file(m_fileLock);
    for (const std::wstring& l : pending) WriteLocked(l);
}

bool CLogWriterState::Stop(DWORD timeoutMs) noexcept {
    cs_lock lock(m_queueLock);
    if (m_running) {
        m_stopping = true;
        WakeConditionVariable(&m_wake);
        const ULONGLONG start = GetTickCount64();
        while (m_running) {
            DWORD wait = INFINITE;
            if (timeoutMs != INFINITE) {
                const ULONGLONG spent = GetTickCount64() - start;
                if (spent >= timeoutMs) break;
                wait = static_cast<DWORD>(timeoutMs - spent);
            }
            SleepConditionVariableCS(&m_finished, &m_queueLock, wait);
        }
        if (m_running) return false;
    }
    cs_lock file(m_fileLock);
    CloseLocked();
    return true;
}

bool CLogWriterState::IsWriterRunning() noexcept {
    cs_lock lock(m_queueLock);
    return m_running;
}

void CLogWriterState::HoldWriter(bool hold) noexcept {
    cs_lock lock(m_queueLock);
    m_hold = hold;
    WakeConditionVariable(&m_wake);
}

bool CLogWriterState::StartWriterLocked() noexcept {
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                            reinterpret_cast<LPCWSTR>(&CLogWriterState::WriterThreadProc), &self))
        return false;
    m_writerModule = self;
    m_stopping = false;
    unique_handle thread(CreateThread(nullptr, 0, &CLogWriterState::WriterThreadProc, this, 0, nullptr));
    if (!thread) {
        m_writerModule = nullptr;
        FreeLibrary(self);
        return false;
    }
    // Nobody waits on the thread handle: the thread reports its end through
    // m_finished.
    m_running = true;
    return true;
}

DWORD WINAPI CLogWriterState::WriterThreadProc(void* param) noexcept {
    CLogWriterState* state = static_cast<CLogWriterState*>(param);
    HMODULE self = nullptr;
    {
        cs_lock lock(state->m_queueLock);
        self = state->m_writerModule;
        state->m_writerModule = nullptr;
    }
    state->RunWriter();
    // Gives back the module reference taken for this thread; never returns.
    FreeLibraryAndExitThread(self, 0);
    return 0;
}

void CLogWriterState::RunWriter() noexcept {
    for (;;) {
        {
            cs_lock lock(m_queueLock);
            while ((m_queue.empty() || m_hold) && !m_stopping)
                SleepConditionVariableCS(&m_wake, &m_queueLock, INFINITE);
            if (m_queue.empty()) {
                // Asked to stop and everything is written: close and leave.
                {
                    cs_lock file(m_fileLock);
                    CloseLocked();
                }
                m_running = false;
                m_stopping = false;
                WakeAllConditionVariable(&m_finished);
                return;
            }
            m_batch.swap(m_queue);
            m_batchDone = 0;
            // The drops happened after every line of this batch was queued.
            m_batchDropped = m_dropped;
            m_dropped = 0;
        }
        for (size_t i = 0; i < m_batch.size(); ++i) {
            {
                cs_lock file(m_fileLock);
                WriteLocked(m_batch[i]);
            }
            m_batchDone = i + 1;
        }
        if (m_batchDropped != 0) {
            const std::wstring notice = DropNotice(m_batchDropped, m_maxQueued, m_maxQueued,
                                                   m_batchDropped);
            cs_lock file(m_fileLock);
            WriteLocked(notice);
        }
        cs_lock lock(m_queueLock);
        m_batch.clear();
        m_batchDone = 0;
        m_batchDropped = 0;
    }
}

namespace {

// Appends a line in the ANSI code page through h, a piece at a time from a
// buffer on the stack (no allocation: see WriteRestAfterThreadsEnded).
void AppendAnsi(HANDLE h, const std::wstring& line) noexcept {
    constexpr size_t kCchPiece = 512;
    char bytes[kCchPiece * 4];
    for (size_t pos = 0; pos < line.size();) {
        size_t cch = line.size() - pos < kCchPiece ? line.size() - pos : kCchPiece;
        // Never split a surrogate pair between two pieces.
        if (cch > 1 && IS_HIGH_SURROGATE(line[pos + cch - 1])) --cch;
        const int cb = WideCharToMultiByte(CP_ACP, 0, line.data() + pos, static_cast<int>(cch),
                                           bytes, sizeof(bytes), nullptr, nullptr);
        DWORD written = 0;
        if (cb > 0) WriteFile(h, bytes, static_cast<DWORD>(cb), &written, nullptr);
        pos += cch;
    }
}

}  // namespace

void CLogWriterState::WriteRestAfterThreadsEnded() noexcept {
    // Every other thread is gone: a lock still held belongs to a thread that
    // ended while it held it, and what that lock guards cannot be trusted.
    if (!TryEnterCriticalSection(&m_queueLock)) return;
    const size_t done = m_batchDone;
    if (m_path.empty() || (done >= m_batch.size() && m_queue.empty() && m_dropped == 0)) return;
    unique_file file(CreateFileW(m_path.c_str(), FILE_APPEND_DATA,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return;
    for (size_t i = done; i < m_batch.size(); ++i) AppendAnsi(file.get(), m_batch[i]);
    for (const std::wstring& l : m_queue) AppendAnsi(file.get(), l);
    const unsigned long dropped = m_batchDropped + m_dropped;
    if (dropped != 0) {
        // The short form: composing the full layout would allocate.
        wchar_t notice[128] = {0};
        _snwprintf(notice, 127, L"[ERROR]log queue full (%lu lines): %lu lines dropped\r\n",
                   static_cast<unsigned long>(m_maxQueued), dropped);
        AppendAnsi(file.get(), notice);
    }
}

bool CLogWriterState::WriteLocked(const std::wstring& line) noexcept {
    if (line.empty()) return true;
    if (!m_stream) {
        if (m_path.empty()) return false;
        m_stream = _wfopen(m_path.c_str(), L"ab+");
        if (!m_stream) return false;
    }
    if (line.size() > static_cast<size_t>(INT_MAX)) return false;
    const int cch = static_cast<int>(line.size());
    const int cb = WideCharToMultiByte(CP_ACP, 0, line.data(), cch, nullptr, 0, nullptr, nullptr);
    if (cb <= 0) return false;
    try {
        std::string bytes(static_cast<size_t>(cb), '\0');
        if (WideCharToMultiByte(CP_ACP, 0, line.data(), cch, &bytes[0], cb, nullptr, nullptr) != cb)
            return false;
        const size_t written = fwrite(bytes.data(), 1, bytes.size(), m_stream);
        fflush(m_stream);
        return written == bytes.size();
    } catch (...) {
        return false;
    }
}

void CLogWriterState::CloseLocked() noexcept {
    if (!m_stream) return;
    fclose(m_stream);
    m_stream = nullptr;
}

namespace {
INIT_ONCE g_stateOnce = INIT_ONCE_STATIC_INIT;
CLogWriterState* g_state = nullptr;

BOOL CALLBACK CreateState(PINIT_ONCE, PVOID, PVOID*) {
    g_state = new (std::nothrow) CLogWriterState();
    return TRUE;
}
}  // namespace

CLogWriterState* GetLogWriterState() noexcept {
    InitOnceExecuteOnce(&g_stateOnce, CreateState, nullptr, nullptr);
    return g_state;
}

CLogWriterState* PeekLogWriterState() noexcept { return g_state; }

void ReleaseLogWriterState() noexcept {
    delete g_state;
    g_state = nullptr;
}

}  // namespace kw
