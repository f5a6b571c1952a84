// Reading the strings of a host registry request. KeyPath, RenamePath and
// ValueName may point into the request's Inline storage or be strings of the
// process heap. A pointer into Inline is read at most to the end of Inline,
// whether or not a NUL comes first: an unterminated name at the end of the
// request must not be read past it. Heap strings are read to their NUL.
#pragma once
#include "common/host_iface.h"

#include <string>

namespace kw {

// Whether p points into req's Inline storage.
bool PointsIntoInline(const KW_REQUEST* req, const void* p) noexcept;

// The text p points to, bounded as above; empty for a null p. May throw
// std::bad_alloc.
std::wstring RequestText(const KW_REQUEST* req, const wchar_t* p);

}  // namespace kw
