// Turns a command line, as found in registry data, into the existing files it
// would start or load, in order.
#pragma once
#include <windows.h>

#include <list>
#include <string>

namespace kw {

class CParseComandLine {
public:
    CParseComandLine();
    virtual ~CParseComandLine();

    // Returns the number of files appended to `files` by the first parse
    // (the second parse may append more).
    int Parse(const std::wstring& commandLine, HANDLE hToken, const wchar_t* sid,
              BOOL bWow64Expand, std::list<std::wstring>& files, DWORD ruleId = 0);

    // The folder searched first for relative names, for one call (empty: none).
    void SetOverridePath(const std::wstring& folder) { m_overridePath = folder; }
    void ClearOverridePath() { m_overridePath.clear(); }
    void SetWow64Parse(BOOL v) { m_bWow64Parse = v; }

    std::wstring m_overridePath;
    BOOL m_bWow64Parse = 0;
};

// Argument helpers (each splits with CommandLineToArgvW).
bool HasDllArgument(const std::wstring& cmd);
bool IsRundll32Form(const std::wstring& cmd);
bool HasExeArgument(const std::wstring& cmd);
bool HasVbsArgument(const std::wstring& cmd);
// Wraps a path holding no double quote in quotes ("\"%s\""); with checkExists,
// only when the file exists.
std::wstring QuotePath(const std::wstring& path, bool checkExists);

}  // namespace kw
