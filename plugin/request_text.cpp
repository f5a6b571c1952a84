#include "plugin/request_text.h"

#include "common/strutil.h"

#include <iterator>

namespace kw {

bool PointsIntoInline(const KW_REQUEST* req, const void* p) noexcept {
    const auto first = reinterpret_cast<uintptr_t>(req->Inline);
    const auto end = reinterpret_cast<uintptr_t>(req->Inline + std::size(req->Inline));
    const auto at = reinterpret_cast<uintptr_t>(p);
    return at >= first && at < end;
}

std::wstring RequestText(const KW_REQUEST* req, const wchar_t* p) {
    if (!p) return std::wstring();
    if (!PointsIntoInline(req, p)) return std::wstring(p);
    // Whole characters left before the end of Inline (p may be misaligned).
    const auto end = reinterpret_cast<uintptr_t>(req->Inline + std::size(req->Inline));
    const size_t cchLeft = (end - reinterpret_cast<uintptr_t>(p)) / sizeof(wchar_t);
    return std::wstring(p, LenBounded(p, cchLeft));
}

}  // namespace kw
