// Turns a command line, as found in registry data, into the existing files it
// would start or load, in order.
//
// Input: the command line (environment tokens allowed), the acting user's
// token and SID text, the expansion view (bWow64Expand) and, set beforehand,
// the file-system view (SetWow64Parse: 1 the 32-bit view, anything else the
// native view; see resolve/parse_file_view.h) and an optional folder searched
// first. Output: the found files appended to the caller's list, each at most
// once (compared without regard to case). Nothing is thrown; unresolvable
// tokens are dropped with their trace line. Traces go to
// "CParseComandLine::Parse", "CParseComandLine::_Parse",
// "CParseComandLine::MyParse" and "CParseComandLine::MySearchPath".
#pragma once
#include "resolve/parse_file_view.h"

#include <windows.h>

#include <list>
#include <map>
#include <string>
#include <vector>

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
    // File tests shared by every parse (and script-host step) of one analysis;
    // without one, each Parse starts with no file known.
    void SetFileTests(FileTestMemo* memo) { m_sharedFileTests = memo; }
    void SetOverridePath(const std::wstring& folder) { m_overridePath = folder; }
    void ClearOverridePath() { m_overridePath.clear(); }
    void SetWow64Parse(BOOL v) { m_bWow64Parse = v; }

    // Parses one command text: `app`, when given, is resolved first. Returns the
    // number of files appended; `lastCmd` receives the further command text for
    // a second parse (empty when there is none).
    int _Parse(const wchar_t* app, const std::wstring& commandLine, std::list<std::wstring>& files,
               std::wstring* lastCmd, DWORD flag);
    // The tokenizer. `flag` is the nesting depth (0 for the command line
    // itself, 1 inside a CLSID's server command).
    int MyParse(const wchar_t* app, const std::wstring& commandLine,
                std::list<std::wstring>& files, DWORD flag);
    // Resolves one candidate to an existing file and appends it (unless the
    // list holds it already). `flag`: SEARCH_JOINED for a candidate made of
    // several words of an unquoted path with spaces: tried as given and with
    // ".exe" only, as process creation does, never along the search path. A
    // path on another machine's share is appended as written, without any file
    // test.
    bool MySearchPath(const std::wstring& candidate, std::list<std::wstring>& files, DWORD flag);

    enum : DWORD { SEARCH_JOINED = 1 };

    std::wstring m_overridePath;
    BOOL m_bWow64Parse = 0;

private:
    bool View32() const { return m_bWow64Parse == 1; }
    bool ResolveCandidate(const std::wstring& candidate, DWORD flag, std::wstring& found);
    bool SearchBareName(const std::wstring& name, bool hasExtension, std::wstring& found);
    bool TryWithExtensions(const std::wstring& path, bool hasExtension, std::wstring& found,
                           bool exeOnly = false);
    bool IsFileOnce(const std::wstring& path);
    bool SearchWordRuns(const std::wstring& text, size_t start, std::list<std::wstring>& files,
                        size_t* end, bool* joined);
    bool TryAppPaths(const std::wstring& name, bool hasExtension, std::wstring& found);
    const std::vector<std::wstring>& ExtensionsToTry();
    void ResolveClsid(const std::wstring& clsidText, std::list<std::wstring>& files, DWORD flag);

    // State of one Parse call.
    HANDLE m_hToken = nullptr;
    std::wstring m_sid;
    BOOL m_bWow64Expand = 0;
    std::wstring m_lastCmd;
    std::wstring m_lastFound;  // what the last successful MySearchPath found
    bool m_lastInvalid = false;  // the last MySearchPath refused a name no file can have
    FileTestMemo m_ownFileTests;                // cleared by every Parse
    FileTestMemo* m_sharedFileTests = nullptr;  // the analysis's, when it set one
    FileTestMemo& FileTests() { return m_sharedFileTests ? *m_sharedFileTests : m_ownFileTests; }
    std::vector<std::wstring> m_extensions;  // PATHEXT, then .exe and .dll
    bool m_extensionsRead = false;
    unsigned m_bareSearchBudget = 0;
    std::map<std::wstring, std::wstring> m_bareResults;  // upper-cased name -> file or empty
    unsigned m_joinBudget = 0;
};

// Argument helpers (each splits with CommandLineToArgvW).
bool HasDllArgument(const std::wstring& cmd);
bool IsRundll32Form(const std::wstring& cmd);
bool HasExeArgument(const std::wstring& cmd);
bool HasVbsArgument(const std::wstring& cmd);
// Wraps a path holding no double quote in quotes ("\"%s\""); with checkExists,
// only when the file exists. An empty path comes back empty.
std::wstring QuotePath(const std::wstring& path, bool checkExists);

}  // namespace kw
