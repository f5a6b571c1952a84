// The DLL's three exports and its start-up hook. No C++ exception leaves here.
#include "common/module.h"
#include "diag/log_writer.h"
#include "common/func_resolver.h"
#include "diag/trace.h"
#include "plugin/plug_deep_scan.h"

#include <atomic>
#include <new>

using namespace kw;

namespace {
// Plug-in objects handed out and not yet released. When the last one goes,
// the file log's background writer is stopped here, outside DllMain, so that
// unloading the module never has to wait for it.
std::atomic<long> g_liveObjects{0};

void ObjectReleased() noexcept {
    long count = g_liveObjects.load();
    // A release without a matching creation never drives the count below 0.
    while (count > 0 && !g_liveObjects.compare_exchange_weak(count, count - 1)) {
    }
    if (count == 1) StopLogWriter();
}
}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) noexcept {
    if (reason == DLL_PROCESS_ATTACH) SetThisModule(instance);
    // From here on the module's exit handlers and static destructors run
    // (after this DllMain returns), under the loader lock and, at process
    // end, after the host's threads are gone: the host object that receives
    // the trace lines may already be destroyed. Nothing is traced from here.
    if (reason == DLL_PROCESS_DETACH) SetLogSink(nullptr);
    return TRUE;
}

extern "C" bool CreatePlugObjectV2(const GUID* iid, IKwRulePlug** out) noexcept {
    if (!iid || !out) return false;
    if (memcmp(iid, &IID_IKwRulePlug, sizeof(GUID)) != 0) return false;
    CPlugDeepScan* obj = new (std::nothrow) CPlugDeepScan();
    if (!obj) return false;
    *out = obj;
    g_liveObjects.fetch_add(1);
    return true;
}

extern "C" void ReleasePlugObjectV2(IKwRulePlug* obj) noexcept {
    if (!obj) return;
    CPlugDeepScan::DestroyAsBase(static_cast<CPlugDeepScan*>(obj));
    ObjectReleased();
}

typedef LONG(WINAPI* RegDeleteKeyExW_t)(HKEY, LPCWSTR, REGSAM, DWORD);

extern "C" LONG WINAPI Compatible_RegDeleteKeyExW(HKEY key, LPCWSTR subKey, REGSAM samDesired,
                                                  DWORD reserved) noexcept {
    // Called without a null test: the resolved address exists on every
    // system this plug-in supports.
    auto fn = reinterpret_cast<RegDeleteKeyExW_t>(
        GetFuncResolver()->Resolve(L"Advapi32.dll", "RegDeleteKeyExW"));
    return fn(key, subKey, samDesired, reserved);
}
