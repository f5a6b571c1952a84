#include "analyze/reg_path_match.h"

#include "common/strutil.h"

namespace kw {

namespace {
// True when `text` holds `what` at `pos` (over the length of `what`).
bool HasAt(const std::wstring& text, size_t pos, const std::wstring& what) {
    if (pos > text.size() || what.size() > text.size() - pos) return false;
    return text.compare(pos, what.size(), what) == 0;
}
}  // namespace

bool MatchRegPathPattern(const std::wstring& rawText, const std::wstring& rawPattern) {
    const std::wstring text = ToUpper(rawText);
    const std::wstring pattern = ToUpper(rawPattern);
    size_t star = pattern.find(L'*');
    if (star == std::wstring::npos) return true;

    size_t t = 0;
    size_t p = 0;
    for (;;) {
        const std::wstring segment = pattern.substr(p, star - p);
        if (!HasAt(text, t, segment)) return false;
        t += segment.size();
        if (t < text.size() && text[t] == L'\\') ++t;
        size_t sep = text.find(L'\\', t);
        t = (sep == std::wstring::npos) ? kNoPos : sep + 1;
        p = star + 1;
        if (p < pattern.size() && pattern[p] == L'\\') ++p;
        star = pattern.find(L'*', p);
        if (star == std::wstring::npos) break;
        // The text ends while the pattern still holds another '*': no match.
        if (t == kNoPos) return false;
    }
    if (t == kNoPos) return true;  // the tail is not compared
    return HasAt(text, t, pattern.substr(p));
}

size_t FindPatternEnd(const std::wstring& rawText, const std::wstring& rawPattern, bool skipMatch) {
    if (!skipMatch && !MatchRegPathPattern(rawText, rawPattern)) return kNoPos;
    const std::wstring text = ToUpper(rawText);
    const std::wstring pattern = ToUpper(rawPattern);
    size_t t = 0;
    size_t p = 0;
    size_t star;
    while ((star = pattern.find(L'*', p)) != std::wstring::npos) {
        const std::wstring segment = pattern.substr(p, star - p);
        // Deliberate: a missing segment yields npos + length (wrapped).
        t = text.find(segment, t) + segment.size();
        p = star + 1;
    }
    const std::wstring tail = pattern.substr(p);
    return text.find(tail, t) + tail.size();
}

size_t CountPathLevel(const wchar_t* text) {
    if (!text) return 0;
    size_t count = 0;
    bool inName = false;
    for (const wchar_t* c = text; *c; ++c) {
        if (*c == L'\\') {
            inName = false;
        } else if (!inName) {
            inName = true;
            ++count;
        }
    }
    return count;
}

bool IsDefaultValueName(const std::wstring& name) {
    return name.empty() || EqualsNoCase(name, L"default_null");
}

}  // namespace kw
