// Special-folder resolvers: the system's own folder ids 256..263 in the native
// and the 64-bit view, and shell folder ids through the shell.
#include "resolve/expand_path.h"

#include "common/handle.h"
#include "common/strutil.h"
#include "common/sys_text.h"
#include "registry/reg_util.h"

#include <shlobj.h>

namespace kw {

namespace {

const wchar_t kCurrentVersionKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion";

// Byte sizes of the registry reads. "CommonFilesDir" deliberately gets half the
// buffer of "ProgramFilesDir" (130 characters with the terminator) in both
// resolvers: a longer value leaves PATHID_COMMONFILES empty.
constexpr DWORD kCbProgramFilesDir = 520;
constexpr DWORD kCbCommonFilesDir = 260;

constexpr int kFirstPathId = PATHID_SYSTEMDRIVE;
constexpr int kNativeLastId = PATHID_COMMONFILES;
constexpr int kWow64LastId = PATHID_TEMP;

// The process-wide folder tables: filled once, never refreshed, then read
// without a lock (the one-time fill is guarded by its INIT_ONCE).
wchar_t g_nativeTable[kNativeLastId - kFirstPathId + 1][MAX_PATH];
wchar_t g_wow64Table[kWow64LastId - kFirstPathId + 1][MAX_PATH];
INIT_ONCE g_nativeOnce = INIT_ONCE_STATIC_INIT;
INIT_ONCE g_wow64Once = INIT_ONCE_STATIC_INIT;

// Expands with the process environment into out[cchOut]; a text that does not
// fit together with its terminator leaves out empty.
bool ExpandProcessEnv(const wchar_t* text, wchar_t* out, DWORD cchOut) {
    out[0] = L'\0';
    std::wstring full;
    if (!ExpandEnvironmentText(text, full) || full.size() >= cchOut) return false;
    CopyBounded(out, cchOut, full.c_str(), full.size());
    return true;
}

// Reads a string value of HKLM\Software\Microsoft\Windows\CurrentVersion into a
// buffer of cbBuffer bytes. A value that does not fit that buffer together with
// its terminator, of another type, or missing, leaves out empty. REG_EXPAND_SZ
// data is expanded with the process environment when `expand` is set.
void ReadCurrentVersionFolder(REGSAM sam, const wchar_t* valueName, DWORD cbBuffer, bool expand,
                              wchar_t* out /* MAX_PATH */) {
    out[0] = L'\0';
    unique_hkey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kCurrentVersionKey, 0, sam, key.put()) != ERROR_SUCCESS)
        return;
    std::wstring data;
    DWORD type = 0, cb = 0;
    if (!RegQueryString(key.get(), valueName, data, &type, &cb) || cb > cbBuffer) return;
    // No room left for the terminator: does not fit.
    if (data.size() >= cbBuffer / sizeof(wchar_t)) return;
    if (expand && type == REG_EXPAND_SZ) {
        ExpandProcessEnv(data.c_str(), out, MAX_PATH);
        return;
    }
    CopyBounded(out, MAX_PATH, data.c_str());
}

void FillCommonEntries(wchar_t (*table)[MAX_PATH]) {
    wchar_t windir[MAX_PATH] = {0};
    UINT n = GetSystemWindowsDirectoryW(windir, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) windir[0] = L'\0';
    CopyBounded(table[PATHID_WINDIR - kFirstPathId], MAX_PATH, windir);

    wchar_t* drive = table[PATHID_SYSTEMDRIVE - kFirstPathId];
    CopyBounded(drive, MAX_PATH, windir);
    if (wchar_t* colon = wcschr(drive, L':')) colon[1] = L'\0';

    wchar_t* system = table[PATHID_SYSTEM - kFirstPathId];
    n = GetSystemDirectoryW(system, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) system[0] = L'\0';
}

BOOL CALLBACK FillNativeTable(PINIT_ONCE, PVOID, PVOID*) {
    FillCommonEntries(g_nativeTable);
    // The process's own registry view on purpose: the 32-bit folders for a
    // 32-bit process on 64-bit Windows.
    ReadCurrentVersionFolder(KEY_READ, L"ProgramFilesDir", kCbProgramFilesDir, false,
                             g_nativeTable[PATHID_PROGRAMFILES - kFirstPathId]);
    ReadCurrentVersionFolder(KEY_READ, L"CommonFilesDir", kCbCommonFilesDir, false,
                             g_nativeTable[PATHID_COMMONFILES - kFirstPathId]);
    return TRUE;
}

BOOL CALLBACK FillWow64Table(PINIT_ONCE, PVOID, PVOID*) {
    FillCommonEntries(g_wow64Table);
    ReadCurrentVersionFolder(KEY_READ | KEY_WOW64_64KEY, L"ProgramFilesDir", kCbProgramFilesDir,
                             true, g_wow64Table[PATHID_PROGRAMFILES - kFirstPathId]);
    ReadCurrentVersionFolder(KEY_READ | KEY_WOW64_64KEY, L"CommonFilesDir", kCbCommonFilesDir, true,
                             g_wow64Table[PATHID_COMMONFILES - kFirstPathId]);
    ExpandProcessEnv(L"%UserProfile%", g_wow64Table[PATHID_USERPROFILE - kFirstPathId], MAX_PATH);
    ExpandProcessEnv(L"%AllUserProfile%", g_wow64Table[PATHID_ALLUSERSPROFILE - kFirstPathId],
                     MAX_PATH);
    wchar_t* temp = g_wow64Table[PATHID_TEMP - kFirstPathId];
    DWORD n = GetTempPathW(MAX_PATH, temp);
    if (n == 0 || n >= MAX_PATH) {
        temp[0] = L'\0';
    } else if (temp[n - 1] == L'\\') {
        temp[n - 1] = L'\0';
    }
    return TRUE;
}

// Shell folder ids go to the shell unchanged; the item list is freed through
// the shell's allocator.
void QueryShellFolder(int folderId, wchar_t* out /* MAX_PATH */) {
    IMalloc* shellMalloc = nullptr;
    if (FAILED(SHGetMalloc(&shellMalloc)) || !shellMalloc) return;
    LPITEMIDLIST pidl = nullptr;
    if (SUCCEEDED(SHGetSpecialFolderLocation(nullptr, folderId, &pidl)) && pidl) {
        if (!SHGetPathFromIDListW(pidl, out)) out[0] = L'\0';
        out[MAX_PATH - 1] = L'\0';
        shellMalloc->Free(pidl);
    }
    shellMalloc->Release();
}

// Thread-local result buffers (host threads resolve folders concurrently).
thread_local wchar_t t_literalResult[MAX_PATH];
thread_local wchar_t t_folderResult[MAX_PATH];
thread_local wchar_t t_folder64Result[MAX_PATH];

}  // namespace

void QueryFolderPath(int folderId, wchar_t* out) {
    if (!out) return;
    SecureZeroMemory(out, MAX_PATH * sizeof(wchar_t));
    if (folderId >= kFirstPathId) {
        InitOnceExecuteOnce(&g_nativeOnce, FillNativeTable, nullptr, nullptr);
        if (folderId <= kNativeLastId)
            CopyBounded(out, MAX_PATH, g_nativeTable[folderId - kFirstPathId], MAX_PATH);
        return;
    }
    QueryShellFolder(folderId, out);
}

void QueryFolderPath64(int folderId, wchar_t* out) {
    if (!out) return;
    SecureZeroMemory(out, MAX_PATH * sizeof(wchar_t));
    if (folderId >= kFirstPathId) {
        InitOnceExecuteOnce(&g_wow64Once, FillWow64Table, nullptr, nullptr);
        if (folderId <= kWow64LastId)
            CopyBounded(out, MAX_PATH, g_wow64Table[folderId - kFirstPathId], MAX_PATH);
        return;
    }
    QueryShellFolder(folderId, out);
}

const wchar_t* GetFolderPathById(int folderId) {
    if (folderId == PATHID_USERPROFILE) {
        CopyBounded(t_literalResult, MAX_PATH, L"%USERPROFILE%");
        return t_literalResult;
    }
    if (folderId == PATHID_TEMP) {
        CopyBounded(t_literalResult, MAX_PATH, L"%TEMP%");
        return t_literalResult;
    }
    QueryFolderPath(folderId, t_folderResult);
    return t_folderResult;
}

const wchar_t* GetFolderPathById64(int folderId) {
    QueryFolderPath64(folderId, t_folder64Result);
    return t_folder64Result;
}

}  // namespace kw
