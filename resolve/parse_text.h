// Text rules of command-line resolution that read neither files nor the registry: file-name
// validity, extensions, file URLs, URL escapes, the shell's command markers,
// the first argument of a command line and the command interpreter's built-in
// command names. All functions take plain strings so they are tested with
// plain tables; none of them touches the file system or the registry (a file
// test, where one is needed, is the caller's predicate).
#pragma once
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace kw {

// The extension of the last path component, dot included (".exe"), or empty
// when that component has none. A dot that is followed by a blank, a comma or
// a separator is not an extension dot ("x. y" has none).
std::wstring PathExtensionOf(const std::wstring& path);

// True when `ext` (with its dot, any case) names an image the loader maps or
// the shell starts directly: such a file is its own program, it has no shell
// verb to look up.
bool IsExecutableImageExtension(const std::wstring& ext);

// True when `name` (any case) is a command built into the command interpreter
// (it has no executable file of its own).
bool IsInternalCommandName(const std::wstring& name);

// True when the text holds a drive-qualified path ("C:\", "C:/") or a UNC path
// ("\\host") anywhere.
bool ContainsAbsolutePath(const std::wstring& text);

// Whether a candidate can name a file at all: 1 to 259 characters, no control
// character, none of < > " | ? *, a ':' only after the drive letter. The
// prefixes "\\?\" (its '?' allowed) and "\??\" are accepted; device paths
// ("\\.\") are not files.
bool IsValidFileCandidate(const std::wstring& candidate);

// "file:" URLs to paths: "file:///C:/x" and "file://localhost/C:/x" give
// "C:\x", "file://host/share/x" gives "\\host\share\x". Forward slashes of the
// URL become backslashes. Text without the prefix comes back unchanged.
std::wstring FileUrlToPath(const std::wstring& text);

// True when the text holds '%' followed by two hexadecimal digits.
bool HasUrlEscape(const std::wstring& text);
// Replaces every %XX by the byte it stands for; byte runs that form UTF-8 are
// decoded as such, other bytes stand for themselves (Latin-1). The output is
// bounded to the text's length plus 10 characters.
std::wstring UrlUnescapeText(const std::wstring& text);

// Removes blanks (space, tab) at both ends.
std::wstring TrimBlanks(const std::wstring& text);
// Removes blanks, then one pair of enclosing double quotes, then blanks again.
std::wstring StripQuotes(const std::wstring& text);

// Splits at any of `separators`, dropping empty pieces.
std::vector<std::wstring> SplitAny(const std::wstring& text, const wchar_t* separators);

// The first argument of a command line as the script-host step reads it:
// `file` (quotes removed) and `rest` (the text after it, blanks trimmed).
// `isFile`, when given, tests whether a prefix of an unquoted line names an
// existing file: an unquoted line whose first word is not a file is extended
// at each blank, as the platform's process creation does for unquoted paths
// with spaces. False for an empty or blank line.
bool ScriptFirstArgument(const std::wstring& line, std::wstring& file, std::wstring& rest,
                         const std::function<bool(const std::wstring&)>& isFile);

// Puts `file` into a shell verb's command: "%1", "%L" and "%V" (any case,
// quoted or not) become the file, quoted when it holds a blank; a quoted
// "%*" becomes the quoted file as well; a bare %* becomes `rest`; %2..%9 and
// the shell's other markers (%I, %D, %W, %S, %H) are dropped. A command
// without any file marker gets the file appended.
std::wstring ReplaceShellMarkers(const std::wstring& command, const std::wstring& file,
                                 const std::wstring& rest);

}  // namespace kw
