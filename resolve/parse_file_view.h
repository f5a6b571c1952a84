// File and registry look-ups of command-line resolution, in a chosen view.
//
// The view: bWow64View 0 is the native view. On a 32-bit process under WOW64
// its file tests run with file-system redirection paused for the test only, so
// "C:\Windows\System32" means the 64-bit folder. bWow64View 1 is the 32-bit
// view: tests run with redirection on, and paths under System32 are first
// rewritten to SysWow64 so that the path reported names the file that a 32-bit
// process really gets. On a native process both views are the same.
#pragma once
#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace kw {

// True for a UNC path ("\\host\...", "//host/...", "\\?\UNC\host\...") whose
// host is not this machine by one of its exact names (host name, IPv4
// address, "localhost"). Text only: such a path is never handed to the file
// system here, so that no test waits on the network.
bool IsRemotePath(const std::wstring& path);

// True when `path` names an existing file (not a folder) in the view. A remote
// path is not tested: false.
bool IsFileInView(const std::wstring& path, BOOL bWow64View);

// The file tests of one analysis: each path is asked of the file system once
// per view, however many steps (the script-host step, each parse, each search)
// ask for it. Cleared when the next record begins.
class FileTestMemo {
public:
    // IsFileInView, answered from the memo after the first test of `path`.
    bool IsFile(const std::wstring& path, BOOL bWow64View);
    // Whether `path` is a folder as this process sees it (file-system
    // redirection as it stands), when a test of this analysis already told:
    // a test in the 32-bit view, or in either view for a path that
    // redirection leaves alone. False when no test told.
    bool KnownFolder(const std::wstring& path, bool* isFolder) const;
    void Clear() { m_known.clear(); }

private:
    std::map<std::wstring, DWORD> m_known;  // view digit + upper-cased path -> attributes
};

// The path as the view names it: System32 rewritten to SysWow64 in the 32-bit
// view on WOW64, unchanged otherwise.
std::wstring PathInView(const std::wstring& path, BOOL bWow64View);

// GetLongPathNameW in the view; the path unchanged when that fails, when the long
// form does not fit 260 characters, or when the path is remote.
std::wstring LongPathInView(const std::wstring& path, BOOL bWow64View);

// The system folders in the loader's order for the view: the system directory
// (SysWow64 in the 32-bit view on WOW64), the Windows directory's "System"
// folder, the Windows directory.
std::vector<std::wstring> SystemSearchFolders(BOOL bWow64View);

// An environment variable of this process: a 260-character buffer first, then
// a heap buffer of the size the system reports. Empty when it is not set.
std::wstring ReadEnvironmentVariable(const wchar_t* name);

// A REG_SZ or REG_EXPAND_SZ value read as raw bytes (not expanded), under
// root\subKey opened with KEY_QUERY_VALUE | sam. The data need not be
// terminated or even-sized; the text ends at its first NUL and is cut to
// cchMax - 1 characters. A value of the default (unnamed) kind: name null.
// False (out empty) when the key or value is missing or of another type.
bool ReadRegString(HKEY root, const std::wstring& subKey, const wchar_t* name, REGSAM sam,
                   size_t cchMax, std::wstring& out, DWORD* type = nullptr);

}  // namespace kw
