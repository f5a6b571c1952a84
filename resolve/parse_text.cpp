#include "resolve/parse_text.h"

#include "common/handle.h"
#include "common/strutil.h"

#include <shellapi.h>

#include <cwctype>

namespace kw {

namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

bool IsHex(wchar_t c) {
    return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
}

int HexValue(wchar_t c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    return c - L'A' + 10;
}

bool IsAsciiLetter(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

// Extensions of images that the loader maps or that start as programs of their
// own: the executable and screen-saver programs (.exe, .com, .scr), dynamic
// libraries and the kinds the system loads as libraries (.dll, .ocx control
// libraries, .cpl control-panel items, .drv drivers of the user-mode subsystems,
// .ax media filters, .acm audio codecs, .tsp telephony providers), kernel-mode
// images (.sys) and boot-time images (.efi). A file of any other kind is opened
// through the shell verb of its class.
const wchar_t* const kExecutableExtensions[] = {
    L".exe", L".com", L".scr", L".dll", L".ocx", L".cpl", L".drv",
    L".ax",  L".acm", L".tsp", L".sys", L".efi",
};

// Commands that the command interpreter runs itself: the built-in commands that
// its own help lists as internal (they have no program file of their own),
// plus DPATH and KEYS, which it also accepts without a program.
const wchar_t* const kInternalCommands[] = {
    L"ASSOC", L"BREAK",  L"CALL",  L"CD",     L"CHDIR",    L"CLS",   L"COLOR",  L"COPY",
    L"DATE",  L"DEL",    L"DIR",   L"DPATH",  L"ECHO",     L"ENDLOCAL", L"ERASE", L"EXIT",
    L"FOR",   L"FTYPE",  L"GOTO",  L"IF",     L"KEYS",     L"MD",    L"MKDIR",  L"MKLINK",
    L"MOVE",  L"PATH",   L"PAUSE", L"POPD",   L"PROMPT",   L"PUSHD", L"RD",     L"REM",
    L"REN",   L"RENAME", L"RMDIR", L"SET",    L"SETLOCAL", L"SHIFT", L"START",  L"TIME",
    L"TITLE", L"TYPE",   L"VER",   L"VERIFY", L"VOL",
};

}  // namespace

std::wstring PathExtensionOf(const std::wstring& path) {
    size_t slash = path.find_last_of(L"\\/");
    size_t nameStart = slash == std::wstring::npos ? 0 : slash + 1;
    size_t dot = path.find_last_of(L'.');
    if (dot == std::wstring::npos || dot < nameStart) return std::wstring();
    std::wstring ext = path.substr(dot);
    // As the shell's own extension lookup: a "dot" followed by a blank is text.
    if (ext.find_first_of(L" \t") != std::wstring::npos) return std::wstring();
    return ext;
}

bool IsExecutableImageExtension(const std::wstring& ext) {
    for (const wchar_t* e : kExecutableExtensions)
        if (EqualsNoCase(ext, e)) return true;
    return false;
}

bool IsInternalCommandName(const std::wstring& name) {
    for (const wchar_t* c : kInternalCommands)
        if (EqualsNoCase(name, c)) return true;
    return false;
}

bool ContainsAbsolutePath(const std::wstring& text) {
    for (size_t i = 0; i + 2 < text.size(); ++i) {
        if (IsAsciiLetter(text[i]) && text[i + 1] == L':' &&
            (text[i + 2] == L'\\' || text[i + 2] == L'/'))
            return true;
    }
    return text.find(L"\\\\") != std::wstring::npos;
}

bool IsValidFileCandidate(const std::wstring& c) {
    if (c.empty() || c.size() >= MAX_PATH) return false;
    size_t start = 0;
    if (c.compare(0, 4, L"\\\\.\\") == 0) return false;
    if (c.compare(0, 4, L"\\\\?\\") == 0 || c.compare(0, 4, L"\\??\\") == 0) start = 4;
    for (size_t i = start; i < c.size(); ++i) {
        wchar_t ch = c[i];
        if (ch < 0x20) return false;
        switch (ch) {
        case L'<': case L'>': case L'"': case L'|': case L'?': case L'*':
            return false;
        case L':':
            if (i != start + 1 || !IsAsciiLetter(c[start])) return false;
            break;
        default:
            break;
        }
    }
    return true;
}

std::wstring FileUrlToPath(const std::wstring& text) {
    if (!StartsWithNoCase(text, L"file:")) return text;
    std::wstring r = text.substr(5);
    bool unc = false;
    if (r.compare(0, 2, L"//") == 0) {
        r.erase(0, 2);
        if (!r.empty() && r[0] == L'/') {
            r.erase(0, 1);  // file:///C:/x: empty authority
        } else if (StartsWithNoCase(r, L"localhost/")) {
            r.erase(0, 10);
        } else {
            unc = true;  // file://host/share/x
        }
    } else if (r.size() >= 3 && r[0] == L'/' && r[2] == L':') {
        r.erase(0, 1);  // file:/C:/x
    }
    for (wchar_t& ch : r)
        if (ch == L'/') ch = L'\\';
    if (!unc && r.size() >= 2 && IsAsciiLetter(r[0]) && r[1] == L'|') r[1] = L':';
    return unc ? L"\\\\" + r : r;
}

bool HasUrlEscape(const std::wstring& text) {
    for (size_t i = 0; i + 2 < text.size(); ++i)
        if (text[i] == L'%' && IsHex(text[i + 1]) && IsHex(text[i + 2])) return true;
    return false;
}

std::wstring UrlUnescapeText(const std::wstring& text) {
    const size_t cchOut = text.size() + 10;
    std::wstring out;
    out.reserve(cchOut);
    size_t i = 0;
    while (i < text.size() && out.size() < cchOut - 1) {
        if (!(text[i] == L'%' && i + 2 < text.size() && IsHex(text[i + 1]) && IsHex(text[i + 2]))) {
            out.push_back(text[i++]);
            continue;
        }
        std::string bytes;
        while (i + 2 < text.size() && text[i] == L'%' && IsHex(text[i + 1]) && IsHex(text[i + 2])) {
            bytes.push_back(static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2])));
            i += 3;
        }
        std::wstring decoded;
        int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(),
                                    static_cast<int>(bytes.size()), nullptr, 0);
        if (n > 0) {
            decoded.resize(static_cast<size_t>(n));
            MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(),
                                static_cast<int>(bytes.size()), &decoded[0], n);
        } else {
            for (char b : bytes) decoded.push_back(static_cast<wchar_t>(static_cast<unsigned char>(b)));
        }
        for (wchar_t ch : decoded) {
            if (out.size() >= cchOut - 1) break;
            out.push_back(ch);
        }
    }
    return out;
}

std::wstring TrimBlanks(const std::wstring& text) {
    size_t b = 0, e = text.size();
    while (b < e && IsBlank(text[b])) ++b;
    while (e > b && IsBlank(text[e - 1])) --e;
    return text.substr(b, e - b);
}

std::wstring StripQuotes(const std::wstring& text) {
    std::wstring t = TrimBlanks(text);
    if (t.size() >= 2 && t.front() == L'"' && t.back() == L'"') t = TrimBlanks(t.substr(1, t.size() - 2));
    return t;
}

std::vector<std::wstring> SplitAny(const std::wstring& text, const wchar_t* separators) {
    std::vector<std::wstring> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t next = text.find_first_of(separators, pos);
        if (next == std::wstring::npos) next = text.size();
        if (next > pos) out.push_back(text.substr(pos, next - pos));
        pos = next + 1;
    }
    return out;
}

bool ScriptFirstArgument(const std::wstring& line, std::wstring& file, std::wstring& rest,
                         const std::function<bool(const std::wstring&)>& isFile) {
    file.clear();
    rest.clear();
    std::wstring t = TrimBlanks(line);
    if (t.empty()) return false;
    int argc = 0;
    unique_argv argv(CommandLineToArgvW(t.c_str(), &argc));
    if (!argv || argc < 1) return false;
    file = argv.get()[0];
    const bool quoted = t[0] == L'"';
    if (quoted) {
        size_t close = t.find(L'"', 1);
        rest = close == std::wstring::npos ? std::wstring() : TrimBlanks(t.substr(close + 1));
    } else {
        size_t blank = t.find_first_of(L" \t");
        rest = blank == std::wstring::npos ? std::wstring() : TrimBlanks(t.substr(blank));
    }
    if (argc == 1 && !quoted) {
        size_t cut = file.find_first_of(L";,\"/");
        if (cut != std::wstring::npos) file.erase(cut);
        return !file.empty();
    }
    if (!quoted && isFile && !isFile(file)) {
        // An unquoted program path with spaces: the longest run of words is not
        // taken; as process creation does, the first prefix that ends at a blank
        // and names an existing file wins.
        for (size_t k = file.size(); k <= t.size(); ++k) {
            if (k < t.size() && !(IsBlank(t[k]) && !IsBlank(t[k - 1]))) continue;
            std::wstring prefix = t.substr(0, k);
            if (isFile(prefix)) {
                file = prefix;
                rest = TrimBlanks(t.substr(k));
                break;
            }
        }
    }
    return !file.empty();
}

std::wstring ReplaceShellMarkers(const std::wstring& command, const std::wstring& file,
                                 const std::wstring& rest) {
    const std::wstring quotedFile = L"\"" + file + L"\"";
    const std::wstring bareFile = file.find_first_of(L" \t") != std::wstring::npos ? quotedFile : file;
    auto isFileMarker = [](wchar_t m) {
        return m == L'1' || m == L'L' || m == L'l' || m == L'V' || m == L'v';
    };
    std::wstring out;
    bool hasFileMarker = false;
    const size_t n = command.size();
    size_t i = 0;
    while (i < n) {
        wchar_t ch = command[i];
        if (ch == L'"' && i + 3 < n && command[i + 1] == L'%' && command[i + 3] == L'"' &&
            (isFileMarker(command[i + 2]) || command[i + 2] == L'*')) {
            out += quotedFile;
            hasFileMarker = true;
            i += 4;
            continue;
        }
        // A one-letter marker ends at a character that cannot continue a name:
        // "%SystemRoot%" or "%LocalAppData%" left unexpanded are not markers.
        const bool markerEnds = i + 2 >= n || !(iswalnum(command[i + 2]) || command[i + 2] == L'_');
        if (ch == L'%' && i + 1 < n && markerEnds) {
            wchar_t m = command[i + 1];
            if (isFileMarker(m)) {
                out += bareFile;
                hasFileMarker = true;
                i += 2;
                continue;
            }
            if (m == L'*') {
                out += rest;
                i += 2;
                continue;
            }
            if ((m >= L'2' && m <= L'9') || (m != L'\0' && wcschr(L"IiDdWwSsHh", m))) {
                i += 2;
                continue;
            }
        }
        out.push_back(ch);
        ++i;
    }
    out = TrimBlanks(out);
    if (!hasFileMarker) out += (out.empty() ? L"" : L" ") + quotedFile;
    return out;
}

}  // namespace kw
