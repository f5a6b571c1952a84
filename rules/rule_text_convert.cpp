#include "rules/rule_text_convert.h"

#include <windows.h>

#include <climits>
#include <vector>

namespace kw {

// The base library's counted object (COM layout, all slots stdcall). Declared
// outside the unnamed namespace on purpose: with internal linkage the compiler
// may conclude that no object of an interface implemented elsewhere exists and
// drop the calls through it.
// ConvertToWide returns the characters written without a terminator, 0 on
// failure; with a null `out` it returns the count needed.
class IHolmObject {
public:
    virtual long __stdcall QueryInterface(const GUID* iid, void** out) = 0;
    virtual unsigned long __stdcall AddRef() = 0;
    virtual unsigned long __stdcall Release() = 0;
    virtual long __stdcall ConvertToWide(unsigned long codePage, const char* text,
                                         unsigned long cbText, wchar_t* out,
                                         unsigned long cchOut) = 0;
};

namespace {

constexpr unsigned long kCodePageUtf8 = 65001;

// {AA40D0F0-0DF8-4E97-B142-9DEF8DA7EEF6}
constexpr GUID kIidHolmObject = {0xAA40D0F0, 0x0DF8, 0x4E97,
                                 {0xB1, 0x42, 0x9D, 0xEF, 0x8D, 0xA7, 0xEE, 0xF6}};

using CreateHolmObjectFn = long(__stdcall*)(const GUID* iid, void** out);

// The base library's converter, when that library is loaded and gives one.
IHolmObject* CreateBaseConverter() noexcept {
    HMODULE base = GetModuleHandleW(L"HolmBase.dll");
    if (!base) return nullptr;
    auto create = reinterpret_cast<CreateHolmObjectFn>(
        reinterpret_cast<void*>(GetProcAddress(base, "CreateHolmObject")));
    if (!create) return nullptr;
    void* obj = nullptr;
    if (create(&kIidHolmObject, &obj) != 0 || !obj) return nullptr;
    return static_cast<IHolmObject*>(obj);
}

// True when the base library's converter produced the text.
bool ConvertWithBase(IHolmObject* conv, const char* text, unsigned long cb, std::wstring& out) {
    long need = conv->ConvertToWide(kCodePageUtf8, text, cb, nullptr, 0);
    if (need <= 0) return false;
    std::vector<wchar_t> buf(static_cast<size_t>(need) + 1, L'\0');
    long got = conv->ConvertToWide(kCodePageUtf8, text, cb, buf.data(),
                                   static_cast<unsigned long>(buf.size()));
    if (got <= 0) return false;
    if (got > need) got = need;  // never trust a count beyond the buffer we gave
    out.assign(buf.data(), static_cast<size_t>(got));
    return true;
}

std::wstring ConvertWithSystem(const char* text, int cb) {
    int n = MultiByteToWideChar(CP_UTF8, 0, text, cb, nullptr, 0);
    if (n <= 0) return std::wstring();
    std::wstring out(static_cast<size_t>(n), L'\0');
    n = MultiByteToWideChar(CP_UTF8, 0, text, cb, &out[0], n);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

}  // namespace

CRuleTextConverter::CRuleTextConverter() noexcept : m_base(CreateBaseConverter()) {}

CRuleTextConverter::~CRuleTextConverter() {
    if (m_base) m_base->Release();
}

std::wstring CRuleTextConverter::ToWide(const char* text, size_t cb) const {
    if (!text || cb == 0) return std::wstring();
    if (cb > static_cast<size_t>(INT_MAX)) cb = static_cast<size_t>(INT_MAX);
    std::wstring out;
    if (m_base && ConvertWithBase(m_base, text, static_cast<unsigned long>(cb), out)) return out;
    return ConvertWithSystem(text, static_cast<int>(cb));
}

}  // namespace kw
