// Splits a full registry path ("HKEY_LOCAL_MACHINE\...", "\REGISTRY\MACHINE\...")
// into a predefined root key, carried as its 32-bit handle value, and the
// sub-key below it.
#pragma once
#include "common/root_keys.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kw {

// Long root names are tried first, then kernel paths, each prefix compared
// without regard to case; the first match wins. The sub-key starts one
// character after the prefix (that separator is not checked) and is empty
// when the path ends at or right after the prefix. False, with the error
// line "error ===> unknown reg root key: %s", when no prefix matches; false
// without a trace when path or rootKey is null. subKey may be null.
bool TransformRegPath(const wchar_t* path, uint32_t* rootKey, std::wstring* subKey);

// The same into a fixed buffer of cchSubKey characters (cut, always terminated).
bool TransformRegPath(const wchar_t* path, uint32_t* rootKey, wchar_t* subKey, size_t cchSubKey);

}  // namespace kw
