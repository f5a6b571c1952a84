#include "resolve/wow64.h"

#include "common/handle.h"
#include "common/strutil.h"

namespace kw {

namespace {
wchar_t g_controlSet[MAX_PATH] = {0};
}

const wchar_t* GetCurrentControlSetName() {
    if (g_controlSet[0]) return g_controlSet;
    unique_hkey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"System\\Select", 0, 0x20019, key.put()) != ERROR_SUCCESS)
        return g_controlSet;
    DWORD type = 0, value = 0, cb = sizeof(value);
    if (RegQueryValueExW(key.get(), L"Current", nullptr, &type, reinterpret_cast<BYTE*>(&value), &cb) ==
        ERROR_SUCCESS)
        FormatBounded(g_controlSet, MAX_PATH, "ControlSet00%lu", value);
    return g_controlSet;
}

}  // namespace kw
