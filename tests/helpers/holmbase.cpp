// Stand-in for the host's base library. Its converter object converts with
// the system converter for code page 65001 only, and counts what it does so
// that a test can tell that text went through it:
//   HolmBaseConvertCalls()  conversions asked for (size queries included)
//   HolmBaseLiveObjects()   objects created and not yet released
//   HolmBaseLastCodePage()  the code page of the last conversion
#include <windows.h>

#include <new>

namespace {

volatile LONG g_convertCalls = 0;
volatile LONG g_liveObjects = 0;
volatile LONG g_lastCodePage = 0;

// {AA40D0F0-0DF8-4E97-B142-9DEF8DA7EEF6}
const GUID kIid = {0xAA40D0F0, 0x0DF8, 0x4E97, {0xB1, 0x42, 0x9D, 0xEF, 0x8D, 0xA7, 0xEE, 0xF6}};

class HolmObject final {
public:
    virtual long __stdcall QueryInterface(const GUID* iid, void** out) {
        if (!out) return E_POINTER;
        const bool known = iid && memcmp(iid, &kIid, sizeof(GUID)) == 0;
        if (known) AddRef();
        *out = known ? this : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    virtual unsigned long __stdcall AddRef() { return InterlockedIncrement(&m_refs); }
    virtual unsigned long __stdcall Release() {
        LONG n = InterlockedDecrement(&m_refs);
        if (n == 0) {
            InterlockedDecrement(&g_liveObjects);
            delete this;
        }
        return static_cast<unsigned long>(n);
    }
    virtual long __stdcall ConvertToWide(unsigned long codePage, const char* text,
                                         unsigned long cbText, wchar_t* out, unsigned long cchOut) {
        InterlockedIncrement(&g_convertCalls);
        InterlockedExchange(&g_lastCodePage, static_cast<LONG>(codePage));
        if (codePage != CP_UTF8 || !text || cbText == 0) return 0;
        int n = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(cbText), out,
                                    out ? static_cast<int>(cchOut) : 0);
        return n > 0 ? n : 0;
    }

private:
    volatile LONG m_refs = 1;
};

}  // namespace

extern "C" __declspec(dllexport) long __stdcall CreateHolmObject(const GUID* iid, void** out) {
    if (!out) return E_POINTER;
    *out = nullptr;
    if (!iid || memcmp(iid, &kIid, sizeof(GUID)) != 0) return E_NOINTERFACE;
    HolmObject* obj = new (std::nothrow) HolmObject();
    if (!obj) return E_OUTOFMEMORY;
    InterlockedIncrement(&g_liveObjects);
    *out = obj;
    return S_OK;
}

extern "C" __declspec(dllexport) long __stdcall HolmBaseConvertCalls() { return g_convertCalls; }
extern "C" __declspec(dllexport) long __stdcall HolmBaseLiveObjects() { return g_liveObjects; }
extern "C" __declspec(dllexport) long __stdcall HolmBaseLastCodePage() { return g_lastCodePage; }
