// Finds what actually runs for a non-executable file named by a command line:
// the command of the file class's shell verb, with the file put in its place.
//
// The class of an extension is looked up in the user's classes
// (HKEY_USERS\<sid>\SOFTWARE\Classes) before the machine's
// (HKEY_LOCAL_MACHINE\SOFTWARE\Classes), both in the 64-bit registry view,
// which is where the native shell reads file associations. Traces go to
// "CScriptHostRuleParser::ExpandNoPECmdLine", "CScriptHostRuleParser::IsInternalCmd"
// and "CScriptHostRuleParser::IsExternalCmd".
#pragma once
#include "resolve/parse_file_view.h"

#include <windows.h>

#include <string>
#include <vector>

namespace kw {

class CScriptHostRuleParser {
public:
    // Rewrites `cmdLine` in place when its first argument is a non-executable
    // file whose class has a shell command. Returns 0 when left alone, 1 when
    // rewritten. ruleId: the analysis record's dsid, 0 outside an analysis.
    // Only the first 259 characters of the line are looked at (a rewritten
    // line is built from them). File tests run in the view set by SetWow64Parse.
    int ExpandNoPECmdLine(std::wstring& cmdLine, const wchar_t* sid, HANDLE hUserToken,
                          BOOL bWow64Expand, DWORD ruleId);
    // A command run by the command interpreter itself (DIR, COPY, START, ...).
    bool IsInternalCmd(const std::wstring& command);
    // A command line whose program is an existing .bat or .cmd file, or whose
    // program name is on the configured external-command list.
    bool IsExternalCmd(const std::wstring& command);
    // The extensions of PATHEXT (".COM", ".EXE", ...), in order; empty pieces
    // are dropped; an unset variable gives an empty list.
    static std::vector<std::wstring> ReadPathExt();

    // The file-system view of the file tests: 1 the 32-bit view, anything else
    // the native view (see resolve/parse_file_view.h).
    void SetWow64Parse(BOOL v) { m_bWow64Parse = v; }
    BOOL m_bWow64Parse = 0;
    // The analysis's file tests, shared with its parses (none: every test is made).
    void SetFileTests(FileTestMemo* memo) { m_fileTests = memo; }

private:
    FileTestMemo* m_fileTests = nullptr;
    bool FindShellCommand(const wchar_t* sid, const std::wstring& ext, std::wstring& command);
    bool IsFile(const std::wstring& path) const;
};

}  // namespace kw
