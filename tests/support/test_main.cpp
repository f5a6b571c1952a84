#include <gtest/gtest.h>

#include <windows.h>
#include <tlhelp32.h>

#include <atomic>

// Every test program ends here. GoogleTest starts a thread of its own in each
// program (it watches the main thread for the end of its thread-local values),
// and a test may end just after starting threads. Under Wine, a thread that the
// end of the process catches while it is still being set up by the system dies
// of a segmentation fault, which kills the whole process after its tests have
// passed. So the program does not end while one of its threads is still
// starting: the loader calls KwThreadStarted on every new thread once the
// system has set it up, and main waits (bounded) until each thread it can see
// has been counted.
namespace {

std::atomic<long> g_threadsRunning{0};  // threads past their set-up, not yet ended
HANDLE g_threadChange = CreateEventW(nullptr, FALSE, FALSE, nullptr);

void NTAPI KwThreadStarted(PVOID, DWORD reason, PVOID) {
    if (reason == DLL_THREAD_ATTACH) ++g_threadsRunning;
    else if (reason == DLL_THREAD_DETACH) --g_threadsRunning;
    else return;
    if (g_threadChange) SetEvent(g_threadChange);
}

// The other threads of this process as the system lists them.
long OtherThreads() {
    HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snap == INVALID_HANDLE_VALUE) return 0;
    long count = 0;
    THREADENTRY32 te{};
    te.dwSize = sizeof(te);
    const DWORD pid = GetCurrentProcessId(), self = GetCurrentThreadId();
    for (BOOL ok = Thread32First(snap, &te); ok; ok = Thread32Next(snap, &te))
        if (te.th32OwnerProcessID == pid && te.th32ThreadID != self) ++count;
    CloseHandle(snap);
    return count;
}

// Waits until no thread is between its creation and the end of its set-up
// (at most about 30 s, so that a thread the loader never reports cannot hold
// the program forever).
void WaitForStartingThreads() {
    for (int round = 0; round < 300 && OtherThreads() > g_threadsRunning.load(); ++round)
        WaitForSingleObject(g_threadChange, 100);
}

}  // namespace

// The loader's thread notifications reach a program through its TLS callbacks.
extern "C" __attribute__((section(".CRT$XLY"), used))
const PIMAGE_TLS_CALLBACK kw_thread_started_callback = KwThreadStarted;

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    WaitForStartingThreads();
    return rc;
}
