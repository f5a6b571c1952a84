#include "resolve/wow64.h"

#include <atomic>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>

#include "common/func_resolver.h"
#include "common/handle.h"
#include "common/strutil.h"
#include "common/sys_text.h"

namespace kw {

namespace {

using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
using Wow64DisableFn = BOOL(WINAPI*)(PVOID*);
using Wow64RevertFn = BOOL(WINAPI*)(PVOID);
using IsOSFn = BOOL(WINAPI*)(DWORD);
using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);

constexpr DWORD kOsWow6432 = 30;          // IsOS: 32-bit program on 64-bit Windows
constexpr WORD kIsOsOrdinal = 437;        // IsOS is exported by ordinal only on old systems
constexpr DWORD kErrorOldWinVersion = 1150;
constexpr DWORD kVersionRecordSize = sizeof(OSVERSIONINFOEXW);  // 284 bytes
constexpr WORD kVersionResourceId = 1;
constexpr WORD kVersionResourceType = 16;  // RT_VERSION
constexpr REGSAM kSelectAccess = 0x20019;  // KEY_READ

static_assert(sizeof(OSVERSIONINFOEXW) == 284, "published layout of the version record");
static_assert(sizeof(OSVERSIONINFOW) == 276, "published layout of the short version record");

// Joins a folder and a name with one backslash into a fixed buffer. False when
// the folder is empty or the result does not fit (dst then holds the empty string).
bool JoinPath(wchar_t* dst, size_t cchDst, const wchar_t* dir, const wchar_t* name) noexcept {
    if (cchDst == 0) return false;
    dst[0] = L'\0';
    size_t len = LenBounded(dir, cchDst);
    if (len == 0) return false;
    const bool hasSlash = dir[len - 1] == L'\\';
    if (!FormatBounded(dst, cchDst, hasSlash ? "%ls%ls" : "%ls\\%ls", dir, name)) {
        dst[0] = L'\0';
        return false;
    }
    return true;
}

// GetSystemWindowsDirectoryW returns the length without the NUL when it fits,
// else the size needed with the NUL; 0 on failure.
bool ReadWindowsDir(wchar_t* dst, size_t cchDst) noexcept {
    UINT n = GetSystemWindowsDirectoryW(dst, static_cast<UINT>(cchDst));
    if (n == 0 || n >= cchDst) {
        if (cchDst) dst[0] = L'\0';
        return false;
    }
    return true;
}

DWORD VersionScore(DWORD major, DWORD minor) noexcept { return major * 10 + minor; }

// The version check is built once behind a three-state word and never destroyed.
constexpr LONG kStateIdle = 0;
constexpr LONG kStateBuilding = 1;
constexpr LONG kStateReady = 2;
volatile LONG g_osVersionState = kStateIdle;
alignas(COSVersionCheck) unsigned char g_osVersionStorage[sizeof(COSVersionCheck)];
COSVersionCheck* g_osVersionCheck = nullptr;

// The control-set name is filled once under this lock; a failed lookup leaves
// it empty and is tried again by the next caller.
wchar_t g_szControlSet[MAX_PATH] = {0};
volatile LONG g_controlSetReady = 0;
SRWLOCK g_controlSetLock = SRWLOCK_INIT;

// Reads HKLM\System\Select "Current" into dst as the control-set name.
bool ReadControlSetName(wchar_t* dst, size_t cchDst) noexcept {
    HKEY key = nullptr;
    // Process default view on purpose: System\Select is shared by both views.
    if (DynRegOpenKeyExW(HKEY_LOCAL_MACHINE, L"System\\Select", 0, kSelectAccess, &key) !=
        ERROR_SUCCESS)
        return false;
    DWORD type = 0, value = 0, cb = sizeof(value);
    LONG rc = DynRegQueryValueExW(key, L"Current", nullptr, &type,
                                  reinterpret_cast<BYTE*>(&value), &cb);
    DynRegCloseKey(key);
    if (rc != ERROR_SUCCESS || type != REG_DWORD || cb != sizeof(value)) return false;
    // Deliberate: the fixed "00" is kept, so 10 reads "ControlSet0010"; path rewriting matches it.
    return FormatBounded(dst, cchDst, "ControlSet00%ld", static_cast<long>(value));
}

BOOL MapSystem32ToFolder(const std::wstring& path, std::wstring& out,
                         const wchar_t* target) noexcept {
    try {
        std::wstring current = path;
        if (current.find(L'~') != std::wstring::npos) {
            std::wstring longName;
            if (GetLongPathText(current.c_str(), longName) && longName.size() < MAX_PATH)
                current = longName;
        }
        wchar_t windowsDir[MAX_PATH] = {0};
        wchar_t system32[MAX_PATH] = {0};
        if (!GetWow64Helper()->m_bIsWow64 || !ReadWindowsDir(windowsDir, MAX_PATH) ||
            !JoinPath(system32, MAX_PATH, windowsDir, L"System32")) {
            out = current;
            return 1;
        }
        std::wstring copy = current;
        for (wchar_t& c : copy)
            if (c == L'/') c = L'\\';
        while (ReplaceAll(copy, L"\\\\", L"\\") != 0) {
        }
        const size_t len = wcslen(system32);
        const bool underSystem32 = copy.size() >= len &&
                                   _wcsnicmp(copy.c_str(), system32, len) == 0 &&
                                   (copy.size() == len || copy[len] == L'\\');
        if (!underSystem32) {
            out = current;
            return 1;
        }
        wchar_t mapped[MAX_PATH] = {0};
        if (!JoinPath(mapped, MAX_PATH, windowsDir, target)) {
            out.clear();
            return 0;
        }
        out = FormatW("%ls%ls", mapped, copy.c_str() + len);
        return 1;
    } catch (...) {
        out.clear();
        return 0;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// WOW64 detection and redirection

BOOL IsProcessWow64() noexcept {
    static IsWow64ProcessFn const fn =
        ResolveProc<IsWow64ProcessFn>(L"kernel32", "IsWow64Process");
    if (!fn) return 0;
    BOOL wow64 = 0;
    if (!fn(GetCurrentProcess(), &wow64)) return 0;
    return wow64 ? 1 : 0;
}

BOOL IsOsWow6432() noexcept {
    HMODULE module = GetModuleHandleW(L"shlwapi.dll");
    unique_module loaded;
    if (!module) {
        loaded.reset(LoadLibraryW(L"shlwapi.dll"));
        module = loaded.get();
    }
    if (!module) {
        SetLastError(kErrorOldWinVersion);
        return 0;
    }
    IsOSFn fn = ProcAddress<IsOSFn>(module, MAKEINTRESOURCEA(kIsOsOrdinal));
    BOOL result = fn ? fn(kOsWow6432) : 0;
    loaded.reset();
    SetLastError(0);
    return result ? 1 : 0;
}

BOOL DisableFsRedirection(PVOID* pOldValue) noexcept {
    static Wow64DisableFn const fn = ResolveProc<Wow64DisableFn>(
        L"Kernel32.dll", "Wow64DisableWow64FsRedirection");
    if (!fn) return 0;
    return fn(pOldValue);
}

BOOL RevertFsRedirection(PVOID oldValue) noexcept {
    static Wow64RevertFn const fn = ResolveProc<Wow64RevertFn>(
        L"Kernel32.dll", "Wow64RevertWow64FsRedirection");
    if (!fn) return 0;
    return fn(oldValue);
}

CAutoWow64PauseDisable::CAutoWow64PauseDisable() {
    m_bDisabled = DisableFsRedirection(&m_pOldValue);
}

CAutoWow64PauseDisable::~CAutoWow64PauseDisable() {
    if (m_bDisabled) RevertFsRedirection(m_pOldValue);
}

// ---------------------------------------------------------------------------
// The process-wide helper

CWow64Helper::CWow64Helper() { InitializeCriticalSection(&m_lock); }

CWow64Helper::~CWow64Helper() { DeleteCriticalSection(&m_lock); }

void CWow64Helper::EnsureInitialized() {
    if (InterlockedCompareExchange(&m_bInitialized, 0, 0) != 0) return;
    cs_lock lock(m_lock);
    if (m_bInitialized) return;

    const BOOL processWow64 = IsProcessWow64();
    m_szSystemDir[0] = L'\0';
    wchar_t windowsDir[MAX_PATH] = {0};
    // Left empty when the Windows directory cannot be read.
    if (ReadWindowsDir(windowsDir, MAX_PATH))
        JoinPath(m_szSystemDir, MAX_PATH, windowsDir, processWow64 ? L"SysNative" : L"System32");

    m_bIsWow64 = (processWow64 || IsOsWow6432()) ? 1 : 0;
    m_bWin7OrLater = IsWin7OrLater();
    m_bVistaOrLater = IsVistaOrLater();
    InterlockedExchange(&m_bInitialized, 1);
}

CWow64Helper* GetWow64Helper() {
    static CWow64Helper helper;
    helper.EnsureInitialized();
    return &helper;
}

// ---------------------------------------------------------------------------
// OS version

COSVersionCheck::COSVersionCheck() {
    std::memset(&m_osvi, 0, sizeof(m_osvi));
    m_nCorrected = -1;
    Read(&m_osvi, &m_nCorrected);
}

COSVersionCheck::~COSVersionCheck() = default;

void COSVersionCheck::Read(OSVERSIONINFOEXW* osvi, LONG* corrected) const {
    std::memset(osvi, 0, sizeof(*osvi));
    osvi->dwOSVersionInfoSize = kVersionRecordSize;
    GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(osvi));

    // The helper is not used here: its own initialisation asks for the version.
    const BOOL wow64 = IsProcessWow64();
    if (osvi->dwMajorVersion == 5 && wow64) {
        // Older 64-bit systems report their version correctly to 32-bit programs.
        *corrected = 0;
        return;
    }

    static RtlGetVersionFn const rtlGetVersion =
        ResolveProc<RtlGetVersionFn>(L"ntdll", "RtlGetVersion");
    if (rtlGetVersion) {
        OSVERSIONINFOEXW rtl;
        std::memset(&rtl, 0, sizeof(rtl));
        rtl.dwOSVersionInfoSize = kVersionRecordSize;
        if (rtlGetVersion(reinterpret_cast<OSVERSIONINFOW*>(&rtl)) >= 0 &&
            VersionScore(rtl.dwMajorVersion, rtl.dwMinorVersion) >
                VersionScore(osvi->dwMajorVersion, osvi->dwMinorVersion))
            *osvi = rtl;
    }

    // The kernel's own file version is the last word when the system still
    // reports a lower version to programs without a compatibility manifest.
    wchar_t kernelPath[MAX_PATH] = {0};
    VS_FIXEDFILEINFO ffi;
    std::memset(&ffi, 0, sizeof(ffi));
    if (SUCCEEDED(GetNtoskrnlPath(kernelPath)) && GetFileFixedVersion(kernelPath, &ffi)) {
        const DWORD fileMajor = HIWORD(ffi.dwFileVersionMS);
        const DWORD fileMinor = LOWORD(ffi.dwFileVersionMS);
        if (VersionScore(osvi->dwMajorVersion, osvi->dwMinorVersion) <
            VersionScore(fileMajor, fileMinor)) {
            osvi->dwMajorVersion = fileMajor;
            osvi->dwMinorVersion = fileMinor;
            osvi->dwBuildNumber = HIWORD(ffi.dwFileVersionLS);
            *corrected = 1;
            return;
        }
    }
    *corrected = 0;
}

COSVersionCheck* GetOSVersionCheck() {
    LONG state = InterlockedCompareExchange(&g_osVersionState, kStateBuilding, kStateIdle);
    if (state == kStateIdle) {
        // Placement into static storage cannot fail and is never destroyed.
        g_osVersionCheck = new (g_osVersionStorage) COSVersionCheck();
        InterlockedExchange(&g_osVersionState, kStateReady);
        return g_osVersionCheck;
    }
    while (InterlockedCompareExchange(&g_osVersionState, kStateReady, kStateReady) !=
           kStateReady)
        Sleep(1);
    return g_osVersionCheck;
}

BOOL GetOsVersionInfo(OSVERSIONINFOW* osvi) noexcept {
    if (!osvi) return 0;
    const COSVersionCheck* check = GetOSVersionCheck();
    OSVERSIONINFOEXW fresh;
    const OSVERSIONINFOEXW* source = &check->m_osvi;
    if (check->m_nCorrected == -1) {
        LONG corrected = -1;
        check->Read(&fresh, &corrected);
        source = &fresh;
    }
    // The whole record is copied, its size field included, cut at the caller's size.
    const size_t cb = osvi->dwOSVersionInfoSize < kVersionRecordSize
                          ? osvi->dwOSVersionInfoSize
                          : kVersionRecordSize;
    std::memcpy(osvi, source, cb);
    return 1;
}

BOOL IsWin7OrLater() noexcept {
    OSVERSIONINFOW osvi;
    std::memset(&osvi, 0, sizeof(osvi));
    osvi.dwOSVersionInfoSize = sizeof(osvi);
    if (!GetOsVersionInfo(&osvi)) return 0;
    return (osvi.dwMajorVersion > 6 || (osvi.dwMajorVersion == 6 && osvi.dwMinorVersion >= 1))
               ? 1
               : 0;
}

BOOL IsVistaOrLater() noexcept {
    OSVERSIONINFOW osvi;
    std::memset(&osvi, 0, sizeof(osvi));
    osvi.dwOSVersionInfoSize = sizeof(osvi);
    if (!GetOsVersionInfo(&osvi)) return 0;
    return osvi.dwMajorVersion >= 6 ? 1 : 0;
}

HRESULT GetNtoskrnlPath(wchar_t* out) {
    if (!out) return E_FAIL;
    out[0] = L'\0';
    wchar_t windowsDir[MAX_PATH] = {0};
    if (!ReadWindowsDir(windowsDir, MAX_PATH)) return E_FAIL;
    const wchar_t* name = IsProcessWow64() ? L"SysNative\\ntoskrnl.exe" : L"System32\\ntoskrnl.exe";
    if (!JoinPath(out, MAX_PATH, windowsDir, name)) return E_FAIL;
    return S_OK;
}

BOOL GetFileFixedVersion(const wchar_t* path, VS_FIXEDFILEINFO* out) {
    if (!path || !out) return 0;
    std::unique_ptr<BYTE[]> copy;
    {
        unique_module module(LoadLibraryExW(path, nullptr, LOAD_LIBRARY_AS_DATAFILE));
        if (!module) return 0;
        HRSRC res = FindResourceW(module.get(), MAKEINTRESOURCEW(kVersionResourceId),
                                  MAKEINTRESOURCEW(kVersionResourceType));
        if (!res) return 0;
        const DWORD cb = SizeofResource(module.get(), res);
        HGLOBAL loaded = LoadResource(module.get(), res);
        const void* data = loaded ? LockResource(loaded) : nullptr;
        if (!data || cb == 0) return 0;
        copy.reset(new (std::nothrow) BYTE[cb]);
        if (!copy) return 0;
        std::memcpy(copy.get(), data, cb);
    }  // the module is freed here; only the copy is read from now on
    void* block = nullptr;
    UINT cbBlock = 0;
    if (!VerQueryValueW(copy.get(), L"\\", &block, &cbBlock) || !block ||
        cbBlock < sizeof(VS_FIXEDFILEINFO))
        return 0;
    const auto* ffi = static_cast<const VS_FIXEDFILEINFO*>(block);
    if (ffi->dwSignature != 0xFEEF04BD) return 0;
    *out = *ffi;
    return 1;
}

// ---------------------------------------------------------------------------
// System32 mapping

BOOL MapSystem32ToSysWow64(const std::wstring& path, std::wstring& out) {
    return MapSystem32ToFolder(path, out, L"SysWow64");
}

BOOL MapSystem32ToSysnative(const std::wstring& path, std::wstring& out) {
    return MapSystem32ToFolder(path, out, L"Sysnative");
}

// ---------------------------------------------------------------------------
// Control set

const wchar_t* GetCurrentControlSetName() noexcept {
    if (InterlockedCompareExchange(&g_controlSetReady, 0, 0) != 0) return g_szControlSet;
    srw_exclusive lock(g_controlSetLock);
    if (!g_controlSetReady) {
        wchar_t name[MAX_PATH] = {0};
        if (ReadControlSetName(name, MAX_PATH)) {
            CopyBounded(g_szControlSet, MAX_PATH, name);
            InterlockedExchange(&g_controlSetReady, 1);
        } else if (g_szControlSet[0]) {
            // Deliberate: the fallback applies only to a filled name, never the case
            // here, so a failed lookup answers the empty name and is retried later.
            CopyBounded(g_szControlSet, MAX_PATH, L"ontrolSet001");
        }
    }
    return g_szControlSet;
}

}  // namespace kw
