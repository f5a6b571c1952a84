// The 32/64-bit view of this process: whether it is a 32-bit process on 64-bit
// Windows, the real OS version, redirection pausing for a scope, System32 path
// mapping and the name of the current control set. All state is process-wide
// and computed once; a missing system function degrades to the safe answer
// (not WOW64, redirection not paused, the version as reported).
#pragma once
#include <windows.h>

#include <string>

namespace kw {

class CWow64Helper {
public:
    CWow64Helper();
    virtual ~CWow64Helper();

    void EnsureInitialized();

    BOOL m_bIsWow64 = 0;
    BOOL m_bWin7OrLater = 0;
    BOOL m_bVistaOrLater = 0;
    wchar_t m_szSystemDir[MAX_PATH] = {0};
    volatile LONG m_bInitialized = 0;
    CRITICAL_SECTION m_lock;
};

// The process-wide helper, initialised on first use.
CWow64Helper* GetWow64Helper();

BOOL IsProcessWow64() noexcept;
BOOL IsOsWow6432() noexcept;
BOOL DisableFsRedirection(PVOID* pOldValue) noexcept;
BOOL RevertFsRedirection(PVOID oldValue) noexcept;

// Pauses file-system redirection on this thread for the object's scope.
class CAutoWow64PauseDisable {
public:
    CAutoWow64PauseDisable();
    virtual ~CAutoWow64PauseDisable();
    CAutoWow64PauseDisable(const CAutoWow64PauseDisable&) = delete;
    CAutoWow64PauseDisable& operator=(const CAutoWow64PauseDisable&) = delete;

    PVOID m_pOldValue = nullptr;
    BOOL m_bDisabled = 0;
};

class COSVersionCheck {
public:
    COSVersionCheck();
    virtual ~COSVersionCheck();
    void Read(OSVERSIONINFOEXW* osvi, LONG* corrected) const;

    LONG m_nCorrected = -1;
    OSVERSIONINFOEXW m_osvi;
};

// The process-wide version record, built once; concurrent first callers wait
// (1 ms sleeps) until it is ready.
COSVersionCheck* GetOSVersionCheck();
// Copies the version record into osvi, at most min(osvi->dwOSVersionInfoSize, 284)
// bytes (the size field is copied too). Returns 1; 0 for a null record.
BOOL GetOsVersionInfo(OSVERSIONINFOW* osvi) noexcept;
BOOL IsWin7OrLater() noexcept;
BOOL IsVistaOrLater() noexcept;

// Under WOW64, a path below <Windows>\System32 (any case, '/' or doubled '\'
// allowed) becomes <Windows>\SysWow64 or <Windows>\Sysnative plus the rest;
// any other path (after its short names are made long) is returned as given.
// Returns 1, or 0 with out empty when the mapped path cannot be formed.
[[nodiscard]] BOOL MapSystem32ToSysWow64(const std::wstring& path, std::wstring& out);
[[nodiscard]] BOOL MapSystem32ToSysnative(const std::wstring& path, std::wstring& out);
// <Windows>\SysNative\ntoskrnl.exe under WOW64, else <Windows>\System32\ntoskrnl.exe.
// S_OK, or E_FAIL when the Windows directory cannot be read or does not fit.
[[nodiscard]] HRESULT GetNtoskrnlPath(wchar_t* out /* MAX_PATH */);
// The fixed part of a file's version resource; nonzero on success.
[[nodiscard]] BOOL GetFileFixedVersion(const wchar_t* path, VS_FIXEDFILEINFO* out);

// "ControlSet00%d" of HKLM\System\Select "Current", computed once per process;
// empty when the key or value cannot be read (then retried on the next call).
const wchar_t* GetCurrentControlSetName() noexcept;

}  // namespace kw
