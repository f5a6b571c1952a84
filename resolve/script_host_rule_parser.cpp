#include "resolve/script_host_rule_parser.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "resolve/expand_path.h"
#include "resolve/parse_file_view.h"
#include "resolve/parse_text.h"
#include "rules/ds_conf.h"

#include <shlwapi.h>

#include <cwctype>

namespace kw {

namespace {

const char kExpandFn[] = "CScriptHostRuleParser::ExpandNoPECmdLine";
const char kInternalFn[] = "CScriptHostRuleParser::IsInternalCmd";
const char kExternalFn[] = "CScriptHostRuleParser::IsExternalCmd";

// File associations are read where the native shell reads them.
constexpr REGSAM kClassesView = KEY_WOW64_64KEY;
// A shell command is value data: at most 1024 characters with the terminator.
constexpr size_t kCchCommand = 1024;

bool StartsWithQuotedCmd(const std::wstring& line) {
    return line.size() >= 4 && line[0] == L'"' && towlower(line[1]) == L'c' &&
           towlower(line[2]) == L'm' && towlower(line[3]) == L'd';
}

std::wstring FileNamePart(const std::wstring& path) {
    size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool CScriptHostRuleParser::IsFile(const std::wstring& path) const {
    const BOOL view32 = m_bWow64Parse == 1;
    const std::wstring inView = PathInView(path, view32);
    return m_fileTests ? m_fileTests->IsFile(inView, view32) : IsFileInView(inView, view32);
}

bool CScriptHostRuleParser::FindShellCommand(const wchar_t* sid, const std::wstring& ext,
                                             std::wstring& command) {
    command.clear();
    struct Base {
        HKEY root;
        std::wstring prefix;
    };
    std::vector<Base> bases;
    wchar_t szSid[MAX_PATH] = {0};
    CopyBounded(szSid, MAX_PATH, sid, MAX_PATH);
    if (szSid[0]) bases.push_back({HKEY_USERS, std::wstring(szSid) + L"\\SOFTWARE\\Classes\\"});
    bases.push_back({HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\"});

    // The extension key names the class (its program id); as in the merged
    // classes view, the user's choice wins and the class itself may live in
    // either hive. An extension key with a "shell" key of its own is a class too.
    std::wstring progId;
    for (const Base& b : bases) {
        std::wstring v;
        if (ReadRegString(b.root, b.prefix + ext, nullptr, kClassesView, MAX_PATH, v)) {
            progId = TrimBlanks(v);
            if (!progId.empty()) break;
        }
    }
    std::vector<std::pair<HKEY, std::wstring>> classKeys;
    if (!progId.empty())
        for (const Base& b : bases) classKeys.emplace_back(b.root, b.prefix + progId);
    for (const Base& b : bases) classKeys.emplace_back(b.root, b.prefix + ext);

    for (const auto& ck : classKeys) {
        std::wstring verb;
        ReadRegString(ck.first, ck.second + L"\\shell", nullptr, kClassesView, MAX_PATH, verb);
        // The default verb may be an ordered list; its first entry is the one used.
        size_t comma = verb.find(L',');
        if (comma != std::wstring::npos) verb.erase(comma);
        verb = TrimBlanks(verb);
        std::vector<std::wstring> verbs;
        if (!verb.empty()) verbs.push_back(verb);
        if (verb.empty() || !EqualsNoCase(verb, L"open")) verbs.push_back(L"open");
        for (const std::wstring& v : verbs) {
            std::wstring cmd;
            if (ReadRegString(ck.first, ck.second + L"\\shell\\" + v + L"\\command", nullptr,
                              kClassesView, kCchCommand, cmd) &&
                !TrimBlanks(cmd).empty()) {
                command = TrimBlanks(cmd);
                return true;
            }
        }
    }
    return false;
}

int CScriptHostRuleParser::ExpandNoPECmdLine(std::wstring& cmdLine, const wchar_t* sid,
                                             HANDLE hUserToken, BOOL bWow64Expand,
                                             DWORD ruleId) {
    try {
        wchar_t head[MAX_PATH] = {0};
        CopyBounded(head, MAX_PATH, cmdLine.c_str());
        const std::wstring line(head);
        if (StartsWithQuotedCmd(line)) {
            KW_INFO(kExpandFn, "Special cmd line: \"cmd /c ...\"");
            return 0;
        }
        // Only a document can have a shell verb: a candidate without an
        // extension is none, and a relative one would be looked for in this
        // process's current folder, which says nothing about where the
        // command runs. Neither is asked of the file system.
        auto isFile = [&](const std::wstring& p) {
            std::wstring expanded;
            ExpandPathString(p, expanded, hUserToken, sid, bWow64Expand);
            const std::wstring& path = expanded.empty() ? p : expanded;
            return !PathExtensionOf(path).empty() && !PathIsRelativeW(path.c_str()) && IsFile(path);
        };
        std::wstring file, rest;
        if (!ScriptFirstArgument(line, file, rest, isFile)) return 0;
        const std::wstring ext = PathExtensionOf(file);
        // A program or library runs as it is; a name without extension is left
        // to the search along PATHEXT.
        if (ext.size() < 2 || IsExecutableImageExtension(ext)) return 0;

        int ret = 0;
        std::wstring command;
        if (FindShellCommand(sid, ext, command)) {
            std::wstring expanded;
            ExpandPathString(command, expanded, hUserToken, sid, bWow64Expand);
            cmdLine = ReplaceShellMarkers(expanded.empty() ? command : expanded, file, rest);
            ret = 1;
            if (IsExternalCmd(cmdLine))
                KW_INFO(kExpandFn, "File shell open is ExternalCmd: %ls", cmdLine.c_str());
        }
        KW_INFO(kExpandFn, "ret: %d, ruleId: %d, cmdline: %ls", ret, static_cast<int>(ruleId),
                cmdLine.c_str());
        return ret;
    } catch (...) {
        KW_ERROR(kExpandFn, "no memory for the command line, left alone");
        return 0;
    }
}

bool CScriptHostRuleParser::IsInternalCmd(const std::wstring& command) {
    const std::wstring t = TrimBlanks(command);
    if (t.empty()) return false;
    if (t[0] == L'"') {
        KW_INFO(kInternalFn, "not internal cmd, lead by quote.");
        return false;
    }
    if (ContainsAbsolutePath(t)) {
        KW_INFO(kInternalFn, "not internal cmd, contains absolute path.");
        return false;
    }
    // The interpreter ends a command word at a blank, a switch, a parenthesis
    // or one of its argument delimiters: "dir/s", "if(", "echo,x".
    size_t end = t.find_first_of(L" \t/(,;=");
    const std::wstring name = end == std::wstring::npos ? t : t.substr(0, end);
    if (!IsInternalCommandName(name)) return false;
    KW_INFO(kInternalFn, "is internal cmd.");
    return true;
}

bool CScriptHostRuleParser::IsExternalCmd(const std::wstring& command) {
    std::wstring file, rest;
    if (!ScriptFirstArgument(command, file, rest, nullptr)) return false;
    const std::wstring ext = PathExtensionOf(file);
    if ((EqualsNoCase(ext, L".bat") || EqualsNoCase(ext, L".cmd")) && IsFile(file)) return true;
    const std::wstring name = FileNamePart(file);
    const std::wstring base = ext.empty() ? name : name.substr(0, name.size() - ext.size());
    CDSConf* conf = CDSConf::Instance();
    if (!conf) return false;
    for (const std::wstring& configured : conf->GetExternalCommands()) {
        if (configured.empty()) continue;
        if (EqualsNoCase(name, configured) || EqualsNoCase(base, configured)) {
            KW_INFO(kExternalFn, "is external cmd, with org name %ls.", file.c_str());
            return true;
        }
    }
    return false;
}

std::vector<std::wstring> CScriptHostRuleParser::ReadPathExt() {
    std::vector<std::wstring> out;
    for (const std::wstring& piece : SplitAny(ReadEnvironmentVariable(L"PATHEXT"), L";")) {
        std::wstring e = TrimBlanks(piece);
        if (!e.empty()) out.push_back(e);
    }
    return out;
}

}  // namespace kw
