#include "registry/clsid_string.h"

#include <cstddef>

namespace kw {

namespace {

// 'H' stands for one hex digit of either case; every other character must be
// matched literally.
const wchar_t kClsidTemplate[] = L"{HHHHHHHH-HHHH-HHHH-HHHH-HHHHHHHHHHHH}";
constexpr size_t kClsidLength = sizeof(kClsidTemplate) / sizeof(kClsidTemplate[0]) - 1;
static_assert(kClsidLength == 38, "a CLSID text has 38 characters");

bool IsHexDigit(wchar_t c) noexcept {
    return (c >= L'0' && c <= L'9') || (c >= L'A' && c <= L'F') || (c >= L'a' && c <= L'f');
}

}  // namespace

bool IsClsidString(const wchar_t* text) noexcept {
    if (!text) return false;
    // Compared character by character, so a shorter text stops at its NUL (which
    // matches no template character) and is never read past.
    for (size_t i = 0; i < kClsidLength; ++i) {
        const wchar_t c = text[i];
        if (c == L'\0') return false;
        if (kClsidTemplate[i] == L'H') {
            if (!IsHexDigit(c)) return false;
        } else if (c != kClsidTemplate[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace kw
