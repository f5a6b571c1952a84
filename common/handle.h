// One RAII owner for every kind of system resource. A traits type names the
// handle type, its invalid value and how it is closed. Closing preserves
// GetLastError(), so a refusal's error code survives the cleanup path.
#pragma once
#include <windows.h>
#include <shellapi.h>

namespace kw {

template <typename Traits>
class unique_res {
public:
    using pointer = typename Traits::type;

    unique_res() noexcept = default;
    explicit unique_res(pointer p) noexcept : m_p(p) {}
    ~unique_res() { reset(); }
    unique_res(const unique_res&) = delete;
    unique_res& operator=(const unique_res&) = delete;
    unique_res(unique_res&& o) noexcept : m_p(o.release()) {}
    unique_res& operator=(unique_res&& o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }

    pointer get() const noexcept { return m_p; }
    bool valid() const noexcept { return m_p != Traits::invalid(); }
    explicit operator bool() const noexcept { return valid(); }

    pointer release() noexcept {
        pointer p = m_p;
        m_p = Traits::invalid();
        return p;
    }
    void reset(pointer p = Traits::invalid()) noexcept {
        if (m_p != Traits::invalid()) {
            DWORD err = GetLastError();
            Traits::close(m_p);
            SetLastError(err);
        }
        m_p = p;
    }
    // Releases what is held, then hands out the address for an out-parameter.
    pointer* put() noexcept {
        reset();
        return &m_p;
    }

private:
    pointer m_p = Traits::invalid();
};

struct hkey_traits {
    using type = HKEY;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { RegCloseKey(h); }
};
struct handle_traits {  // kernel handles whose invalid value is null
    using type = HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { CloseHandle(h); }
};
struct file_handle_traits {  // CreateFile-style handles
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { CloseHandle(h); }
};
struct module_traits {
    using type = HMODULE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { FreeLibrary(h); }
};
struct local_traits {
    using type = HLOCAL;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { LocalFree(h); }
};
struct heap_traits {  // blocks of the process heap
    using type = void*;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { HeapFree(GetProcessHeap(), 0, h); }
};
struct argv_traits {  // CommandLineToArgvW arrays
    using type = LPWSTR*;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { LocalFree(h); }
};

using unique_hkey = unique_res<hkey_traits>;
using unique_handle = unique_res<handle_traits>;
using unique_file = unique_res<file_handle_traits>;
using unique_module = unique_res<module_traits>;
using unique_local = unique_res<local_traits>;
using unique_heap = unique_res<heap_traits>;
using unique_argv = unique_res<argv_traits>;

// Holds a critical section for a scope.
class cs_lock {
public:
    explicit cs_lock(CRITICAL_SECTION& cs) noexcept : m_cs(cs) { EnterCriticalSection(&m_cs); }
    ~cs_lock() { LeaveCriticalSection(&m_cs); }
    cs_lock(const cs_lock&) = delete;
    cs_lock& operator=(const cs_lock&) = delete;

private:
    CRITICAL_SECTION& m_cs;
};

// Holds a slim reader/writer lock for a scope, exclusively or shared.
class srw_exclusive {
public:
    explicit srw_exclusive(SRWLOCK& l) noexcept : m_l(l) { AcquireSRWLockExclusive(&m_l); }
    ~srw_exclusive() { ReleaseSRWLockExclusive(&m_l); }
    srw_exclusive(const srw_exclusive&) = delete;
    srw_exclusive& operator=(const srw_exclusive&) = delete;

private:
    SRWLOCK& m_l;
};

class srw_shared {
public:
    explicit srw_shared(SRWLOCK& l) noexcept : m_l(l) { AcquireSRWLockShared(&m_l); }
    ~srw_shared() { ReleaseSRWLockShared(&m_l); }
    srw_shared(const srw_shared&) = delete;
    srw_shared& operator=(const srw_shared&) = delete;

private:
    SRWLOCK& m_l;
};

}  // namespace kw
