// Key-path pattern matching for rules whose sub-key holds '*'. Plain strings
// in, no system calls; all comparisons ignore case.
//
// Each '*' stands for the rest of the current key name and, when the segment
// before it ended exactly at a key boundary, for the whole next key name.
// Every comparison is a prefix comparison, so keys below a matching path match
// too. A pattern without '*' is not compared at all (the host has already
// chosen the rule for this key): that is the intended behaviour.
#pragma once
#include <cstddef>
#include <string>

namespace kw {

constexpr size_t kNoPos = static_cast<size_t>(-1);

bool MatchRegPathPattern(const std::wstring& text, const std::wstring& pattern);

// The position in `text` just past the pattern's last segment. A segment that
// is not found gives kNoPos plus the segment's length, which wraps around;
// callers count levels from there and that is kept as it is.
size_t FindPatternEnd(const std::wstring& text, const std::wstring& pattern, bool skipMatch);

// The number of non-empty names in a '\'-separated text.
size_t CountPathLevel(const wchar_t* text);

// True for the name of a key's unnamed default value: the empty name, or
// "default_null" (any case), which rules and records use to name it.
bool IsDefaultValueName(const std::wstring& name);

}  // namespace kw
