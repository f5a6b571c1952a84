// Finds what actually runs for a non-executable file named by a command line:
// the command of the file class's shell verb, with the file put in its place.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace kw {

class CScriptHostRuleParser {
public:
    // Rewrites `cmdLine` in place when its first argument is a non-executable
    // file whose class has a shell command. Returns 0 when left alone, 1 when
    // rewritten. ruleId: the analysis record's dsid, 0 outside an analysis.
    int ExpandNoPECmdLine(std::wstring& cmdLine, const wchar_t* sid, HANDLE hUserToken,
                          BOOL bWow64Expand, DWORD ruleId);
    bool IsInternalCmd(const std::wstring& command);
    bool IsExternalCmd(const std::wstring& command);
    // The extensions of PATHEXT (".COM", ".EXE", ...).
    static std::vector<std::wstring> ReadPathExt();
};

}  // namespace kw
