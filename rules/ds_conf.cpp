#include "rules/ds_conf.h"

#include "common/handle.h"
#include "common/module.h"

#include <shlwapi.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace kw {

namespace {

// Guards the creation of the instance. Initialised while the module loads,
// before any thread can ask for the instance.
class ProcessLock {
public:
    ProcessLock() noexcept { InitializeCriticalSection(&m_cs); }
    ~ProcessLock() { DeleteCriticalSection(&m_cs); }
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;
    CRITICAL_SECTION& Get() noexcept { return m_cs; }

private:
    CRITICAL_SECTION m_cs;
};

ProcessLock g_instanceLock;
std::atomic<CDSConf*> g_instance{nullptr};

void DestroyInstance() {
    delete g_instance.exchange(nullptr);
}

// The module's own file name with `relative` appended; PathAppendW's
// canonicalisation turns "<module>\..\name" into a name in the module's
// folder. Empty when the module name cannot be read or the result does not fit.
std::wstring ModuleRelativePath(const wchar_t* relative) {
    wchar_t path[MAX_PATH] = {0};
    const DWORD n = GetModuleFileNameW(GetThisModule(), path, MAX_PATH);
    // A name that fills the buffer may lack its terminator (and is cut anyway).
    if (n == 0 || n >= MAX_PATH) return std::wstring();
    if (!PathAppendW(path, relative)) return std::wstring();
    path[MAX_PATH - 1] = L'\0';
    return path;
}

}  // namespace

CDSConf::CDSConf() {
    // The names are built so that a later release can read the files; this
    // release reads neither, so the configuration stays empty.
    try {
        m_confPath = ModuleRelativePath(L"..\\dscon.dat");
        m_confzPath = ModuleRelativePath(L"..\\dsconz.dat");
    } catch (...) {
        m_confPath.clear();
        m_confzPath.clear();
    }
}

CDSConf::~CDSConf() = default;

bool CDSConf::GetCount(int* count) const {
    if (m_count < 1) {
        if (count) *count = 0;
        return false;
    }
    if (count) *count = m_count;
    return true;
}

CDSConf* CDSConf::Instance() {
    CDSConf* p = g_instance.load(std::memory_order_acquire);
    if (p) return p;
    cs_lock lock(g_instanceLock.Get());
    p = g_instance.load(std::memory_order_relaxed);
    if (!p) {
        p = new (std::nothrow) CDSConf();
        if (p) {
            g_instance.store(p, std::memory_order_release);
            atexit(DestroyInstance);
        }
    }
    return p;
}

}  // namespace kw
