// The CLSID text test: the first 38 characters must follow
// "{HHHHHHHH-HHHH-HHHH-HHHH-HHHHHHHHHHHH}" (H a hex digit of either case);
// characters after the 38th are not looked at.
#pragma once

namespace kw {
bool IsClsidString(const wchar_t* text) noexcept;
}
