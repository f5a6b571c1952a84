// For unit tests that link the plug-in's code: a recording sink installed as
// the process's log sink for a scope, and a whole-line matcher for trace
// lines that carry a number the test cannot know (a last-error code, a time).
#pragma once
#include "diag/trace.h"
#include "support/recording_sink.h"

#include <cwctype>
#include <string>
#include <vector>

namespace kwtest {

class ScopedSink {
public:
    ScopedSink() { kw::SetLogSink(&sink); }
    ~ScopedSink() { kw::SetLogSink(nullptr); }
    ScopedSink(const ScopedSink&) = delete;
    ScopedSink& operator=(const ScopedSink&) = delete;

    std::vector<std::wstring> Texts() {
        std::vector<std::wstring> out;
        for (const auto& l : sink.Lines()) out.push_back(l.text);
        return out;
    }

    RecordingSink sink;
};

// True when line equals pattern, where each "{n}" in the pattern stands for
// one decimal number (an optional '-' and at least one digit).
inline bool LineMatches(const std::wstring& line, const std::wstring& pattern) {
    size_t i = 0, p = 0;
    while (p < pattern.size()) {
        if (pattern.compare(p, 3, L"{n}") == 0) {
            if (i < line.size() && line[i] == L'-') ++i;
            size_t digits = 0;
            while (i < line.size() && iswdigit(line[i])) ++i, ++digits;
            if (digits == 0) return false;
            p += 3;
            continue;
        }
        if (i >= line.size() || line[i] != pattern[p]) return false;
        ++i, ++p;
    }
    return i == line.size();
}

}  // namespace kwtest
