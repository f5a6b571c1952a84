// The DLL's three exports and its start-up hook. No C++ exception leaves here.
#include "common/module.h"
#include "plugin/func_resolver.h"
#include "plugin/plug_deep_scan.h"

#include <new>

using namespace kw;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) SetThisModule(instance);
    return TRUE;
}

extern "C" bool CreatePlugObjectV2(const GUID* iid, IKwRulePlug** out) {
    if (!iid || !out) return false;
    if (memcmp(iid, &IID_IKwRulePlug, sizeof(GUID)) != 0) return false;
    CPlugDeepScan* obj = new (std::nothrow) CPlugDeepScan();
    if (!obj) return false;
    *out = obj;
    return true;
}

extern "C" void ReleasePlugObjectV2(IKwRulePlug* obj) {
    if (!obj) return;
    CPlugDeepScan::DestroyAsBase(static_cast<CPlugDeepScan*>(obj));
}

typedef LONG(WINAPI* RegDeleteKeyExW_t)(HKEY, LPCWSTR, REGSAM, DWORD);

extern "C" LONG WINAPI Compatible_RegDeleteKeyExW(HKEY key, LPCWSTR subKey, REGSAM samDesired,
                                                  DWORD reserved) {
    // Called without a null test: the resolved address exists on every
    // system this plug-in supports.
    auto fn = reinterpret_cast<RegDeleteKeyExW_t>(
        GetFuncResolver()->Resolve(L"Advapi32.dll", "RegDeleteKeyExW"));
    return fn(key, subKey, samDesired, reserved);
}
