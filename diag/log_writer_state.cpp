#include "diag/log_writer_state.h"

#include "common/handle.h"

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

CLogWriterState::CLogWriterState() noexcept {
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
    std::deque<std::wstring> batch;
    for (;;) {
        {
            cs_lock lock(m_queueLock);
            while (m_queue.empty() && !m_stopping)
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
            batch.swap(m_queue);
        }
        {
            cs_lock file(m_fileLock);
            for (const std::wstring& l : batch) WriteLocked(l);
        }
        batch.clear();
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
    // Never freed: see the class comment.
    g_state = new (std::nothrow) CLogWriterState();
    return TRUE;
}
}  // namespace

CLogWriterState* GetLogWriterState() noexcept {
    InitOnceExecuteOnce(&g_stateOnce, CreateState, nullptr, nullptr);
    return g_state;
}

}  // namespace kw
