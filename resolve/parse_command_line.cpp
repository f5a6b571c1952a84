#include "resolve/parse_command_line.h"

#include "common/handle.h"
#include "common/strutil.h"
#include "diag/host_network_info.h"
#include "diag/trace.h"
#include "registry/clsid_string.h"
#include "registry/easy_clsid.h"
#include "resolve/expand_path.h"
#include "resolve/parse_file_view.h"
#include "resolve/parse_text.h"
#include "resolve/script_host_rule_parser.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

#include <shellapi.h>

#include <algorithm>

namespace kw {

namespace {

const char kParseFn[] = "CParseComandLine::Parse";
const char kUnderParseFn[] = "CParseComandLine::_Parse";
const char kMyParseFn[] = "CParseComandLine::MyParse";
const char kSearchFn[] = "CParseComandLine::MySearchPath";

// Separators of the main tokenizer. Blanks end a word as in process creation;
// ',' ends a library name before its entry point (rundll32 "x.dll,Entry") and
// ';' separates several paths in one value. A path that holds one of them
// unquoted is still found: failed words are joined again (see MyParse).
bool IsSeparator(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n' || c == L',' || c == L';';
}

// Work bounds of one Parse: bare names searched along the whole search path
// (each costs some hundred file tests) and joined candidates tried. Real
// command lines stay far below both; a line of thousands of words does not
// turn into millions of file tests.
constexpr unsigned kBareSearchBudget = 64;
constexpr unsigned kJoinBudget = 256;

bool IsAsciiLetter(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

bool ListHolds(const std::list<std::wstring>& files, const std::wstring& path) {
    for (const std::wstring& f : files)
        if (EqualsNoCase(f, path)) return true;
    return false;
}

std::wstring JoinPath(const std::wstring& folder, const std::wstring& name) {
    if (folder.empty()) return name;
    if (folder.back() == L'\\') return folder + name;
    return folder + L"\\" + name;
}

// "C:\\x" after a share's path was put in front of the rest: one backslash.
std::wstring CollapseBackslashes(const std::wstring& path) {
    std::wstring out;
    out.reserve(path.size());
    size_t start = 0;
    if (path.compare(0, 2, L"\\\\") == 0) {
        out = L"\\\\";
        start = 2;
    }
    for (size_t i = start; i < path.size(); ++i) {
        if (path[i] == L'\\' && !out.empty() && out.back() == L'\\' && out.size() > 2) continue;
        out.push_back(path[i]);
    }
    return out;
}

std::wstring WindowsDirectory() {
    wchar_t win[MAX_PATH] = {0};
    UINT n = GetSystemWindowsDirectoryW(win, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return std::wstring();
    std::wstring w(win, n);
    if (!w.empty() && w.back() == L'\\') w.pop_back();
    return w;
}

bool IsUncStart(const std::wstring& s) {
    return s.size() >= 2 && s[0] == L'\\' && s[1] == L'\\' && s.compare(0, 4, L"\\\\?\\") != 0 &&
           s.compare(0, 4, L"\\\\.\\") != 0;
}

size_t SkipWord(const std::wstring& text, size_t from) {
    while (from < text.size() && !IsSeparator(text[from]) && text[from] != L'"') ++from;
    return from;
}

size_t SkipSeparators(const std::wstring& text, size_t from) {
    while (from < text.size() && IsSeparator(text[from])) ++from;
    return from;
}

// Where an unquoted path on another machine's share ends, without asking the
// share: at the end of the first run of words from `start` whose name has an
// extension; at `wordEnd` (the first word alone) when none has one.
size_t RemoteRunEnd(const std::wstring& text, size_t start, size_t wordEnd) {
    size_t k = start;
    while (k < text.size() && text[k] != L'"') {
        k = SkipWord(text, k);
        if (k - start >= MAX_PATH) break;
        if (!PathExtensionOf(text.substr(start, k - start)).empty()) return k;
        k = SkipSeparators(text, k);
    }
    return wordEnd;
}

// A UNC path that names this machine becomes the local path behind the share.
bool UncToLocal(const std::wstring& unc, std::wstring& local) {
    local.clear();
    CHostNetworkInfo* info = GetHostNetworkInfo();
    if (!info) return false;
    std::wstring out;
    if (!info->ToLocalPath(unc, out) || out.empty()) return false;
    local = CollapseBackslashes(out);
    return true;
}

// The text starts with '(' and ends with the ')' that closes it: "(a;b)", but
// not "(a);(b)", whose groups the tokenizer takes one by one.
bool EnclosedInParentheses(const std::wstring& text) {
    if (text.size() < 2 || text.front() != L'(' || text.back() != L')') return false;
    size_t depth = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == L'(') {
            ++depth;
        } else if (text[i] == L')') {
            if (depth == 0) return false;
            if (--depth == 0) return i == text.size() - 1;
        }
    }
    return false;
}

bool AnyArgumentHasExtension(const std::wstring& cmd, const wchar_t* ext) {
    if (TrimBlanks(cmd).empty()) return false;  // an empty line would give this program's name
    int argc = 0;
    unique_argv argv(CommandLineToArgvW(cmd.c_str(), &argc));
    if (!argv) return false;
    for (int i = 1; i < argc; ++i) {
        const wchar_t* a = argv.get()[i];
        if (!a || a[0] == L'/') continue;
        if (EqualsNoCase(PathExtensionOf(a), ext)) return true;
    }
    return false;
}

}  // namespace

CParseComandLine::CParseComandLine() = default;
CParseComandLine::~CParseComandLine() = default;

int CParseComandLine::Parse(const std::wstring& commandLine, HANDLE hToken, const wchar_t* sid,
                            BOOL bWow64Expand, std::list<std::wstring>& files, DWORD ruleId) {
    try {
        wchar_t szSid[MAX_PATH] = {0};
        CopyBounded(szSid, MAX_PATH, sid, MAX_PATH);
        m_hToken = hToken;
        m_sid = szSid;
        m_bWow64Expand = bWow64Expand;
        m_lastCmd.clear();
        m_extensions.clear();
        m_extensionsRead = false;
        m_bareSearchBudget = kBareSearchBudget;
        m_bareResults.clear();
        m_joinBudget = kJoinBudget;
        m_ownFileTests.Clear();
        GetWow64Helper();  // initialised before any redirection pause

        std::wstring text = commandLine;
        while (EnclosedInParentheses(text)) text = text.substr(1, text.size() - 2);

        CScriptHostRuleParser script;
        script.SetWow64Parse(m_bWow64Parse);
        script.SetFileTests(&FileTests());
        script.ExpandNoPECmdLine(text, m_sid.c_str(), hToken, bWow64Expand, ruleId);

        std::wstring expanded;
        ExpandPathString(text, expanded, hToken, m_sid.c_str(), bWow64Expand);

        std::wstring lastCmd;
        const int nFiles = _Parse(nullptr, expanded, files, &lastCmd, 0);
        KW_INFO(kParseFn, "CParseComandLine::Parse first parse nFiles=%d, lastCmd=%ls", nFiles,
                lastCmd.c_str());
        KW_INFO(kParseFn, "CParseComandLine::Parse after first parse nFiles=%d", nFiles);

        // The further command text is a quoted argument that is no file but a
        // command line of its own, as in cmd /c "prog.exe arg" or a value that
        // quotes its whole command: the interpreter runs it as one more command.
        if (!lastCmd.empty()) {
            KW_INFO(kParseFn, "CParseComandLine::Parse second parse");
            std::list<std::wstring> other;
            const int nOther = _Parse(nullptr, lastCmd, other, nullptr, 0);
            KW_INFO(kParseFn, "CParseComandLine::Parse after second parse otherFiles=%d", nOther);
            for (const std::wstring& f : other) {
                if (ListHolds(files, f)) continue;
                files.push_back(f);
                KW_INFO(kParseFn, "CParseComandLine::Parse after second parse add file=%ls",
                        f.c_str());
            }
        }
        return nFiles;
    } catch (...) {
        KW_ERROR(kParseFn, "no memory while parsing, %u files kept",
                 static_cast<unsigned>(files.size()));
        return 0;
    }
}

int CParseComandLine::_Parse(const wchar_t* app, const std::wstring& commandLine,
                             std::list<std::wstring>& files, std::wstring* lastCmd, DWORD flag) {
    if (!app || !*app) KW_INFO(kUnderParseFn, "enter MyParse app=null, cmd=%ls", commandLine.c_str());
    m_lastCmd.clear();
    const int n = MyParse(app, commandLine, files, flag);
    if (lastCmd) *lastCmd = m_lastCmd;
    return n;
}

int CParseComandLine::MyParse(const wchar_t* app, const std::wstring& commandLine,
                              std::list<std::wstring>& files, DWORD flag) {
    const size_t before = files.size();
    if (app && *app) MySearchPath(app, files, 0);

    // Normalise: a leading file URL or UNC path (possibly quoted), then URL escapes.
    std::wstring text = commandLine;
    {
        size_t s = 0;
        while (s < text.size() && (text[s] == L' ' || text[s] == L'\t')) ++s;
        const bool quoted = s < text.size() && text[s] == L'"';
        if (quoted) ++s;
        size_t e = quoted ? text.find(L'"', s) : text.find_first_of(L" \t", s);
        if (e == std::wstring::npos) e = text.size();
        std::wstring head = text.substr(s, e - s);
        if (StartsWithNoCase(head, L"file:")) {
            head = FileUrlToPath(head);
            text.replace(s, e - s, head);
            e = s + head.size();
        }
        std::wstring local;
        if (IsUncStart(head) && UncToLocal(head, local)) text.replace(s, e - s, local);
    }
    if (HasUrlEscape(text)) text = UrlUnescapeText(text);

    // Starts of the unresolved words since the last hit that are no paths
    // themselves (a path word tries its own runs of words, see SearchWordRuns).
    // A start that lies a whole path length back can begin no file name.
    std::vector<size_t> window;
    auto forget = [&window](size_t upTo) {
        size_t drop = 0;
        while (drop < window.size() && upTo - window[drop] >= MAX_PATH) ++drop;
        window.erase(window.begin(), window.begin() + drop);
    };
    auto remember = [&window, &forget](size_t start) {
        forget(start);
        window.push_back(start);
    };
    auto wordEnd = [&text](size_t from) { return SkipWord(text, from); };

    const size_t n = text.size();
    size_t i = 0;
    bool afterSemicolon = false;
    // rundll32 takes "library,EntryPoint": the word right after the comma names
    // a function in the library, never a file, so it is not searched for.
    bool rundllLine = false;
    bool entryPointNext = false;
    while (i < n) {
        const wchar_t ch = text[i];
        if (IsSeparator(ch)) {
            if (ch == L';') afterSemicolon = true;
            ++i;
            continue;
        }
        const bool semicolonBefore = afterSemicolon;
        afterSemicolon = false;
        const bool entryPoint = entryPointNext;
        entryPointNext = false;

        if (ch == L'"') {
            const size_t close = text.find(L'"', i + 1);
            const size_t end = close == std::wstring::npos ? n : close;
            std::wstring token = text.substr(i + 1, end - (i + 1));
            i = close == std::wstring::npos ? n : close + 1;
            window.clear();
            if (TrimBlanks(token).empty()) continue;
            bool ok = MySearchPath(token, files, 0);
            KW_INFO(kMyParseFn, "MySearchPath 5 exist=%d, File=%ls", ok ? 1 : 0,
                    (ok ? m_lastFound : token).c_str());
            if (!ok && token[0] == L';' && token.find(L'\\') == std::wstring::npos) {
                token.erase(0, 1);
                ok = MySearchPath(token, files, 0);
                KW_INFO(kMyParseFn, "MySearchPath 5 exist=%d, File=%ls", ok ? 1 : 0,
                        (ok ? m_lastFound : token).c_str());
            }
            if (!ok && flag == 0 && TrimBlanks(token).find_first_of(L" \t") != std::wstring::npos)
                m_lastCmd = TrimBlanks(token);
            if (rundllLine && i < n && text[i] == L',') entryPointNext = true;
            continue;
        }

        if (ch == L'-' || ch == L'/') {  // an option, up to the next separator
            remember(i);
            i = wordEnd(i);
            continue;
        }

        if (ch == L':' && i + 1 < n && text[i + 1] == L':') {
            const size_t j = wordEnd(i);
            if (j - i >= 40 && IsClsidString(text.c_str() + i + 2)) {
                ResolveClsid(text.substr(i + 2, 38), files, flag);
                window.clear();
                i = j;
                continue;
            }
        }

        if (ch == L'(') {
            const size_t close = text.find(L')', i + 1);
            const size_t end = close == std::wstring::npos ? n : close;
            const std::wstring inner = text.substr(i + 1, end - (i + 1));
            remember(i);
            bool any = false;
            for (const std::wstring& piece : SplitAny(inner, L";, \t")) {
                const bool ok = MySearchPath(piece, files, 0);
                KW_INFO(kMyParseFn, "MySearchPath 3 exist=%d, File=%ls", ok ? 1 : 0,
                        (ok ? m_lastFound : piece).c_str());
                any = any || ok;
            }
            if (any) window.clear();
            i = close == std::wstring::npos ? n : close + 1;
            continue;
        }

        const size_t j = wordEnd(i);
        const std::wstring token = text.substr(i, j - i);
        if (entryPoint && token.find_first_of(L"\\:.") == std::wstring::npos) {
            i = j;
            continue;
        }
        // A path on another machine's share is taken as written (nothing may
        // be asked of the share), as far as RemoteRunEnd says.
        size_t end = j;
        std::wstring word = token;
        const bool remote = IsUncStart(token) && IsRemotePath(token);
        if (remote) {
            end = RemoteRunEnd(text, i, j);
            word = text.substr(i, end - i);
        }
        // A path word starts the runs of words of an unquoted path with spaces;
        // when none names a file (and the word can name one at all), the word
        // alone is resolved as any other, with every extension of the search.
        const bool pathWord = token.find_first_of(L"\\:") != std::wstring::npos;
        bool ok = false;
        bool refused = false;
        bool joinedRun = false;
        if (pathWord && !remote) {
            ok = SearchWordRuns(text, i, files, &end, &joinedRun);
            refused = !ok && m_lastInvalid;
        }
        if (!ok && !refused) ok = MySearchPath(word, files, 0);
        if (!joinedRun) {
            if (semicolonBefore)
                KW_INFO(kMyParseFn, "MySearchPath after semicolon exist=%d, File=%ls", ok ? 1 : 0,
                        (ok ? m_lastFound : word).c_str());
            else
                KW_INFO(kMyParseFn, "MySearchPath exist=%d, File=%ls", ok ? 1 : 0,
                        (ok ? m_lastFound : word).c_str());
        }
        if (ok && EqualsNoCase(PathFindFileNameW(m_lastFound.c_str()), L"rundll32.exe")) rundllLine = true;
        if (rundllLine && end < n && text[end] == L',') entryPointNext = true;
        if (ok) {
            window.clear();
        } else {
            // The failed word may end a relative path that began at an earlier
            // bare word ("Some App\app.exe"). The earliest start is tried first;
            // shorter runs from that start were tried when their last word failed.
            forget(j);
            bool joined = false;
            for (size_t start : window) {
                if (m_joinBudget == 0) break;
                const std::wstring cand = TrimBlanks(text.substr(start, j - start));
                if (cand.size() >= MAX_PATH) continue;
                // Only paths are joined; a run of bare words is not a file name.
                if (cand.find_first_of(L"\\:") == std::wstring::npos) continue;
                --m_joinBudget;
                joined = MySearchPath(cand, files, SEARCH_JOINED);
                KW_INFO(kMyParseFn, "MySearchPath 4 exist=%d, File=%ls", joined ? 1 : 0,
                        (joined ? m_lastFound : cand).c_str());
                if (joined) break;
            }
            if (joined)
                window.clear();
            else if (!pathWord)
                remember(i);
        }
        i = end;
    }
    return static_cast<int>(files.size() - before);
}

bool CParseComandLine::SearchWordRuns(const std::wstring& text, size_t start,
                                      std::list<std::wstring>& files, size_t* end, bool* joined) {
    // As process creation runs an unquoted path with spaces: the runs of words
    // from `start`, shortest first, each ending before a separator and tried as
    // given and with ".exe"; the first that names a file is the file, and its
    // words are not resolved on their own. Runs stop at a quote, at the path
    // length limit and at a run that no file name can be. Runs of several words
    // trace each try; `end` and `joined` tell where and whether one was found.
    const size_t n = text.size();
    *joined = false;
    size_t k = SkipWord(text, start);
    const std::wstring first = text.substr(start, k - start);
    if (MySearchPath(first, files, SEARCH_JOINED)) {
        *end = k;
        return true;
    }
    const bool firstInvalid = m_lastInvalid;
    while (!m_lastInvalid) {  // every longer run would hold the same fault
        k = SkipSeparators(text, k);
        if (k >= n || text[k] == L'"') break;
        k = SkipWord(text, k);
        if (k - start >= MAX_PATH || m_joinBudget == 0) break;
        --m_joinBudget;
        const std::wstring run = text.substr(start, k - start);
        const bool ok = MySearchPath(run, files, SEARCH_JOINED);
        KW_INFO(kMyParseFn, "MySearchPath 4 exist=%d, File=%ls", ok ? 1 : 0, (ok ? m_lastFound : run).c_str());
        if (ok) {
            *end = k;
            *joined = true;
            return true;
        }
    }
    m_lastInvalid = firstInvalid;  // the first word's verdict, for the caller
    return false;
}

void CParseComandLine::ResolveClsid(const std::wstring& clsidText, std::list<std::wstring>& files,
                                    DWORD flag) {
    CEasyClsid lookup(m_sid.c_str(), clsidText.c_str(), View32() ? TRUE : FALSE);
    for (const ClsidServer& server : lookup.Servers()) {
        std::wstring expanded;
        ExpandPathString(server.path, expanded, m_hToken, m_sid.c_str(), m_bWow64Expand);
        if (expanded.empty()) expanded = server.path;
        const bool ok = MySearchPath(expanded, files, 0);
        KW_INFO(kMyParseFn, "MySearchPath exist=%d, File=%ls", ok ? 1 : 0,
                (ok ? m_lastFound : expanded).c_str());
        // A server registered as a command line (quoted program, options) is
        // parsed as one; a CLSID inside it is not followed any further.
        if (!ok && flag == 0) MyParse(nullptr, expanded, files, flag + 1);
    }
}

bool CParseComandLine::MySearchPath(const std::wstring& candidate, std::list<std::wstring>& files,
                                    DWORD flag) {
    m_lastFound.clear();
    m_lastInvalid = false;
    std::wstring c = StripQuotes(candidate);
    if (c.empty()) return false;
    if (StartsWithNoCase(c, L"file:")) c = FileUrlToPath(c);
    std::replace(c.begin(), c.end(), L'/', L'\\');
    // The kernel's forms in service and driver image paths.
    if (c.compare(0, 4, L"\\??\\") == 0) {
        c.erase(0, 4);
    } else if (StartsWithNoCase(c, L"\\SystemRoot\\")) {
        c = WindowsDirectory() + c.substr(11);
    }
    bool remote = false;
    if (IsUncStart(c)) {
        std::wstring local;
        if (UncToLocal(c, local))
            c = local;
        else
            remote = IsRemotePath(c);
    }
    if (!IsValidFileCandidate(c)) {
        m_lastInvalid = true;
        KW_INFO(kSearchFn, "Skip %ls: invalid file name", c.c_str());
        return false;
    }
    if (c[0] != L'%' && c[0] != L'-' && EqualsNoCase(c, L"netsvcs")) return false;

    std::wstring found;
    if (remote) {
        // Another machine's file is reported as written and never tested, so
        // that nothing waits on the network: the host decides what to do with
        // it. A share alone names no file.
        std::wstring host, share, rest;
        if (!SplitUncPath(c, host, share, rest) || rest.size() < 2) return false;
        found = c;
    } else {
        if (!ResolveCandidate(c, flag, found)) return false;
        if (found.find(L'~') != std::wstring::npos) found = LongPathInView(found, View32());
    }
    m_lastFound = found;
    if (!ListHolds(files, found)) files.push_back(found);
    return true;
}

bool CParseComandLine::ResolveCandidate(const std::wstring& c, DWORD flag, std::wstring& found) {
    const bool hasExt = !PathExtensionOf(c).empty();
    const bool joined = (flag & SEARCH_JOINED) != 0;
    // Fully qualified: as it stands (and, without extension, as the loader and
    // the shell complete it).
    if (c.size() >= 2 && IsAsciiLetter(c[0]) && c[1] == L':') {
        // "C:x.exe" is relative to a drive's current directory: no file of ours.
        if (c.size() < 3 || c[2] != L'\\') return false;
        return TryWithExtensions(c, hasExt, found, joined);
    }
    if (c.compare(0, 2, L"\\\\") == 0) return TryWithExtensions(c, hasExt, found, joined);
    // Rooted without a drive: the system drive, where the Windows directory is.
    if (c[0] == L'\\') {
        const std::wstring win = WindowsDirectory();
        if (win.size() < 2) return false;
        return TryWithExtensions(win.substr(0, 2) + c, hasExt, found, joined);
    }
    // The current directory of this process says nothing about the process that
    // will run the command, so relative names are never tried against it.
    if (c.find(L'\\') != std::wstring::npos) {
        // Relative with folders: the caller's folder, then the Windows directory
        // (service and driver images are written as "system32\drivers\x.sys").
        if (!m_overridePath.empty() && TryWithExtensions(JoinPath(m_overridePath, c), hasExt, found, joined))
            return true;
        const std::wstring win = WindowsDirectory();
        return !win.empty() && TryWithExtensions(JoinPath(win, c), hasExt, found, joined);
    }
    // An interpreter command (START, COPY, ...) has no file, whatever a search
    // might turn up.
    if (!hasExt && IsInternalCommandName(c)) return false;
    if (joined) return false;
    // A word met again in the same command line is answered from the first search.
    const std::wstring key = ToUpper(c);
    auto known = m_bareResults.find(key);
    if (known != m_bareResults.end()) {
        found = known->second;
        return !found.empty();
    }
    if (m_bareSearchBudget == 0) return false;
    --m_bareSearchBudget;
    const bool ok = SearchBareName(c, hasExt, found);
    m_bareResults[key] = ok ? found : std::wstring();
    return ok;
}

bool CParseComandLine::SearchBareName(const std::wstring& c, bool hasExt, std::wstring& found) {
    // A bare name, in the order of the loader's library search and process
    // creation: the caller's folder (the application's own folder), the system
    // directory, the 16-bit system folder, the Windows directory, the folders of
    // PATH; then the browser's folder, which a shell search also covers; last the
    // shell's registered application paths. All in the view of this parse.
    std::vector<std::wstring> folders;
    // Each folder once: PATH usually repeats the system folders.
    const BOOL v32 = View32() ? TRUE : FALSE;
    auto add = [&folders, v32](std::wstring f) {
        f = PathInView(f, v32);
        while (f.size() > 3 && f.back() == L'\\') f.pop_back();
        if (f.empty()) return;
        for (const std::wstring& have : folders)
            if (EqualsNoCase(have, f)) return;
        folders.push_back(f);
    };
    if (!m_overridePath.empty()) add(m_overridePath);
    for (const std::wstring& f : SystemSearchFolders(v32)) add(f);
    for (const std::wstring& piece : SplitAny(ReadEnvironmentVariable(L"PATH"), L";")) {
        std::wstring f = StripQuotes(piece);
        // Relative PATH entries would depend on the current directory; a folder
        // on another machine's share is skipped untouched, so that no search
        // waits on the network.
        if ((f.size() >= 3 && IsAsciiLetter(f[0]) && f[1] == L':' && f[2] == L'\\') ||
            (f.compare(0, 2, L"\\\\") == 0 && !IsRemotePath(f)))
            add(f);
    }
    {
        std::wstring pf;
        if (!View32() && GetWow64Helper()->m_bIsWow64)
            pf = GetFolderPathById64(PATHID_PROGRAMFILES);
        else
            pf = GetFolderPathById(PATHID_PROGRAMFILES);
        if (!pf.empty()) add(JoinPath(pf, L"Internet Explorer"));
    }
    for (const std::wstring& f : folders) {
        const std::wstring p = JoinPath(f, c);
        if (p.size() >= MAX_PATH) continue;
        if (TryWithExtensions(p, hasExt, found)) return true;
    }
    return TryAppPaths(c, hasExt, found);
}

bool CParseComandLine::TryWithExtensions(const std::wstring& path, bool hasExtension,
                                         std::wstring& found, bool exeOnly) {
    const std::wstring p = PathInView(path, View32() ? TRUE : FALSE);
    if (p.size() >= MAX_PATH) return false;
    // A run of words without extension is what process creation completes
    // with ".exe" only: the run as it stands names no program.
    if (!(exeOnly && !hasExtension) && IsFileOnce(p)) {
        found = p;
        return true;
    }
    if (hasExtension) return false;
    static const std::vector<std::wstring> kExe{L".exe"};
    for (const std::wstring& ext : exeOnly ? kExe : ExtensionsToTry()) {
        const std::wstring q = p + ext;
        if (q.size() >= MAX_PATH) continue;
        if (IsFileOnce(q)) {
            found = q;
            return true;
        }
    }
    return false;
}

bool CParseComandLine::IsFileOnce(const std::wstring& path) {
    // A word is tried alone, in runs and along the search path, and by the
    // script-host step: each file is asked for once per analysis.
    return FileTests().IsFile(path, View32() ? TRUE : FALSE);
}

const std::vector<std::wstring>& CParseComandLine::ExtensionsToTry() {
    if (!m_extensionsRead) {
        // The shell completes a name along PATHEXT; process creation adds
        // ".exe" and the loader ".dll" even when PATHEXT lacks them.
        m_extensions = CScriptHostRuleParser::ReadPathExt();
        for (const wchar_t* e : {L".exe", L".dll"}) {
            bool have = false;
            for (const std::wstring& x : m_extensions) have = have || EqualsNoCase(x, e);
            if (!have) m_extensions.push_back(e);
        }
        m_extensionsRead = true;
    }
    return m_extensions;
}

bool CParseComandLine::TryAppPaths(const std::wstring& name, bool hasExtension,
                                   std::wstring& found) {
    static const wchar_t kAppPaths[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\";
    // The 64-bit view for a native parse, the Wow6432Node copy for the 32-bit one.
    const REGSAM view = View32() ? KEY_WOW64_32KEY : KEY_WOW64_64KEY;
    std::vector<std::pair<HKEY, std::wstring>> bases;
    // The user's registrations come first, as the shell reads them; without a
    // SID only the machine's are known.
    if (!m_sid.empty()) bases.emplace_back(HKEY_USERS, m_sid + L"\\" + kAppPaths);
    bases.emplace_back(HKEY_LOCAL_MACHINE, kAppPaths);
    std::vector<std::wstring> keys{name};
    if (!hasExtension) keys.push_back(name + L".exe");
    for (const std::wstring& key : keys) {
        for (const auto& base : bases) {
            std::wstring value;
            if (!ReadRegString(base.first, base.second + key, nullptr, view, MAX_PATH, value))
                continue;
            value = StripQuotes(value);
            if (value.empty()) continue;
            std::wstring expanded;
            ExpandPathString(value, expanded, m_hToken, m_sid.c_str(), View32() ? TRUE : FALSE);
            if (expanded.empty()) expanded = value;
            if (!(expanded.size() >= 3 && IsAsciiLetter(expanded[0]) && expanded[1] == L':'))
                continue;  // a registered path is always fully qualified
            if (TryWithExtensions(expanded, !PathExtensionOf(expanded).empty(), found)) return true;
        }
    }
    return false;
}

bool HasDllArgument(const std::wstring& cmd) { return AnyArgumentHasExtension(cmd, L".dll"); }
bool HasExeArgument(const std::wstring& cmd) { return AnyArgumentHasExtension(cmd, L".exe"); }
bool HasVbsArgument(const std::wstring& cmd) { return AnyArgumentHasExtension(cmd, L".vbs"); }

bool IsRundll32Form(const std::wstring& cmd) {
    if (TrimBlanks(cmd).empty()) return false;
    int argc = 0;
    unique_argv argv(CommandLineToArgvW(cmd.c_str(), &argc));
    if (!argv || argc < 2 || !argv.get()[1]) return false;
    std::wstring second = argv.get()[1];
    size_t comma = second.find(L',');
    if (comma != std::wstring::npos) second.erase(comma);
    return EqualsNoCase(PathExtensionOf(second), L".dll");
}

std::wstring QuotePath(const std::wstring& path, bool checkExists) {
    if (path.empty() || path.find(L'"') != std::wstring::npos) return path;
    if (checkExists && !IsFileInView(path, FALSE)) return path;
    return FormatW("\"%ls\"", path.c_str());
}

}  // namespace kw
