// Shortcut files: which extensions count as shortcuts on this machine, and the
// entry point that turns a shortcut file into its target and parameters.
//
// The target extraction is deliberately empty in this release: _Parse clears
// its outputs, writes its two trace lines and reports success with an empty
// target, so callers must cope with a successful parse that yields no path.
// Nothing here reads a shortcut's contents.
#pragma once
#include <windows.h>

#include <list>
#include <string>
#include <vector>

namespace kw {

// The process-wide list of registered shortcut extensions (".lnk" is always
// one and never stored). Built once, on the first GetLnkFileExt call, from the
// 64-bit registry view under WOW64 (the process's own view otherwise): every
// HKLM\SOFTWARE\Classes\.<ext> whose class (its default value, at most 259
// characters) has the key shellex\ContextMenuHandlers\{00021401-0000-0000-C000-000000000046}.
// Extensions registered later are not seen by this process.
class CLnkFileExt {
public:
    CLnkFileExt() = default;
    virtual ~CLnkFileExt() = default;

    // 1 for ".lnk" or a listed extension (case-insensitive), 0 for a null
    // extension or no match.
    int IsLnkExt(const wchar_t* extension) const;
    // Builds the list unless m_bLoaded is set (the caller holds the lock).
    void Load();

    std::vector<std::wstring> m_extensions;  // with their leading '.'
    volatile LONG m_bLoaded = 0;
};

// The instance, its list built (under a process-wide critical section, with a
// second test inside it; later readers take no lock).
CLnkFileExt* GetLnkFileExt();

class CParseShortcut {
public:
    // Clears every output, traces "[LNK] parse link file %s" and
    // "[LNK] link file %s, strPath=%s, strParam=%s" (host trace and, when it
    // is open, the file log) and returns 0 (success).
    static int _Parse(const std::wstring& linkPath, std::wstring& strPath, std::wstring& strParam,
                      std::wstring& strThird, DWORD* value, std::list<std::wstring>* paths,
                      DWORD* flag);
};

// _Parse with file-system redirection paused on this thread when the process
// is a 32-bit process on 64-bit Windows. Returns what _Parse returned.
int ParseShortcutFile(const std::wstring& linkPath, std::wstring& strPath, std::wstring& strParam,
                      std::wstring& strThird, DWORD* value, std::list<std::wstring>* paths,
                      DWORD* flag);

// 1 when the file exists and its extension is a shortcut extension and the
// parse succeeded (outputs filled); 0 otherwise, with empty outputs and no
// trace. `paths` (emptied) and `flag` (set to 0) are optional.
int ResolveShortcutFile(const std::wstring& filePath, std::wstring& strPath, std::wstring& strParam,
                        std::wstring& strThird, std::list<std::wstring>* paths = nullptr,
                        DWORD* flag = nullptr);

}  // namespace kw
