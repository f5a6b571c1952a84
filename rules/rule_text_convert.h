// UTF-8 text of the rule configuration to wide strings (code page 65001).
// When the host's base library "HolmBase.dll" is already loaded in the
// process, its converter object is used (the library is never loaded here);
// otherwise the system converter. Invalid UTF-8 is replaced, not rejected.
#pragma once
#include <cstddef>
#include <string>

namespace kw {

class IHolmObject;

// One converter serves one pass over a rule text: the base library is looked
// up once, when the converter is made (the lookup is slow for a library that
// is not loaded), and its object is released when the converter goes.
class CRuleTextConverter {
public:
    CRuleTextConverter() noexcept;
    ~CRuleTextConverter();
    CRuleTextConverter(const CRuleTextConverter&) = delete;
    CRuleTextConverter& operator=(const CRuleTextConverter&) = delete;

    // Converts cb bytes of text; an empty input gives an empty string. A
    // failed conversion by the base library falls back to the system
    // converter. Throws only std::bad_alloc.
    std::wstring ToWide(const char* text, size_t cb) const;

    // Whether the base library's converter is in use.
    bool UsesBaseLibrary() const noexcept { return m_base != nullptr; }

private:
    IHolmObject* m_base = nullptr;
};

}  // namespace kw
