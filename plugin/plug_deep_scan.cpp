#include "plugin/plug_deep_scan.h"

#include "diag/trace.h"
#include "plugin/request_text.h"

#include <cstring>
#include <iterator>
#include <new>

namespace kw {

bool CPlugDeepScan::Init(IHostRuleEngine* host, const char* configContent,
                         unsigned long configContentLength) noexcept {
    if (GetLogSink()) KW_INFO("CPlugDeepScan::Init", "CPlugDeepScan::Init enter");
    if (!host) return false;

    ruleEng = host;
    SetLogSink(host);

    // The engine's storage is zero-filled before construction.
    void* mem = ::operator new(sizeof(CKwAutoRunImpl), std::nothrow);
    if (!mem) {
        KW_ERROR("CPlugDeepScan::Init", "初始化阶段申请内存失败");
        return false;
    }
    ZeroMemory(mem, sizeof(CKwAutoRunImpl));
    autoRunImpl = new (mem) CKwAutoRunImpl();

    // A failure to load the rules leaves the plug-in initialised, with no
    // rules; the engine traces the failure itself.
    (void)autoRunImpl->Init(host, configContent, configContentLength);

    regKeyTranslate = new (std::nothrow) CRegKeyTranslate();
    if (regKeyTranslate) regKeyTranslate->Init();

    try {
        ruleAnalyze = std::make_shared<CRuleAnalyze>();
        ruleAnalyze->SetEngine(autoRunImpl);
    } catch (const std::bad_alloc&) {
        // Only file events use the bridge: registry events still work.
        KW_ERROR("CPlugDeepScan::Init", "CRuleAnalyze alloc fail");
    }

    KW_INFO("CPlugDeepScan::Init", "CPlugDeepScan::Init ok");
    return true;
}

void CPlugDeepScan::UnInit() noexcept {
    KW_INFO("CPlugDeepScan::UnInit", "CPlugDeepScan::UnInit enter");
    if (autoRunImpl) autoRunImpl->UnInit();
}

void CPlugDeepScan::SetEnable(unsigned long, unsigned long) noexcept {
    KW_INFO("CPlugDeepScan::SetEnable", "CPlugDeepScan::SetEnable hello");
}

unsigned long CPlugDeepScan::PreProcessEvent(IHostEvent*, IHostRuleEngine*) noexcept {
    KW_INFO("CPlugDeepScan::PreProcessEvent", "CPlugDeepScan::PreProcessEvent enter");
    return 0;
}

unsigned long CPlugDeepScan::LastProcessEvent(IHostEvent*, IHostRuleEngine*) noexcept {
    KW_INFO("CPlugDeepScan::LastProcessEvent", "CPlugDeepScan::LastProcessEvent enter");
    return 0;
}

bool CPlugDeepScan::TransformRegPath(DWORD processId, const wchar_t* key, std::wstring& out) {
    if (!key || !regKeyTranslate) return false;
    wchar_t translated[1024] = {0};  // 2048 bytes
    const DWORD start = GetTickCount();
    const bool ok = regKeyTranslate->Translate(processId, key, translated, sizeof(translated));
    out = translated;
    const DWORD elapsed = GetTickCount() - start;
    KW_INFO("CPlugDeepScan::TransformRegPath", "[kws] ===> time= %u  ret= %d old key: %ls \r\n new key:%ls",
            static_cast<unsigned>(elapsed), ok ? 1 : 0, key, translated);
    return ok;
}

namespace {

// Puts a process-heap copy of text into *slot. The previous string is freed
// unless it lives in the request's inline storage (the host owns that) or
// another field of the request still points to it (a host may give the key
// path and the rename path as one string).
bool ReplaceRequestString(KW_REQUEST* req, wchar_t** slot, const std::wstring& text) noexcept {
    const size_t cb = (text.size() + 1) * sizeof(wchar_t);
    auto* copy = static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), 0, cb));
    if (!copy) return false;
    memcpy(copy, text.c_str(), cb);
    wchar_t* old = *slot;
    *slot = copy;
    const bool shared = old == req->KeyPath || old == req->RenamePath || old == req->ValueName;
    if (old && !shared && !PointsIntoInline(req, old)) HeapFree(GetProcessHeap(), 0, old);
    return true;
}

}  // namespace

bool CPlugDeepScan::TransformEventRegPath(IHostEvent* pEvent) noexcept {
    const char* fn = "CPlugDeepScan::TransformEventRegPath";
    if (!pEvent) {
        KW_ERROR(fn, "pEvent == nullptr");
        return false;
    }
    KW_DRV_EVENT* drvEvent = pEvent->GetDriverEvent();
    KW_REQUEST* pReq = drvEvent ? &drvEvent->Request : nullptr;
    if (!pReq) {
        KW_ERROR(fn, "pReq == nullptr");
        return false;
    }
    if (pReq->Class != RCLASS_REGISTRY) return true;

    try {
        const DWORD processId = pReq->Context.ProcessId;
        std::wstring result;
        const std::wstring key = RequestText(pReq, pReq->KeyPath);
        KW_INFO(fn, "start Transform  prekey=%ls", key.c_str());
        TransformRegPath(processId, pReq->KeyPath ? key.c_str() : nullptr, result);
        if (!result.empty()) {
            if (ReplaceRequestString(pReq, &pReq->KeyPath, result))
                KW_INFO(fn, " postkey=%ls", pReq->KeyPath);
            else
                KW_ERROR(fn, "HeapAlloc fail, key path kept");
        }
        if (pReq->Operation == REQ_OP_KEY_RENAMED) {
            result.clear();
            const std::wstring renameKey = RequestText(pReq, pReq->RenamePath);
            KW_INFO(fn, " prerenamekey=%ls", renameKey.c_str());
            TransformRegPath(processId, pReq->RenamePath ? renameKey.c_str() : nullptr, result);
            if (!result.empty()) {
                if (ReplaceRequestString(pReq, &pReq->RenamePath, result))
                    KW_INFO(fn, " postrename_key=%ls", pReq->RenamePath);
                else
                    KW_ERROR(fn, "HeapAlloc fail, rename key path kept");
            }
        }
    } catch (...) {
        // Out of memory while translating: the request keeps what it holds.
    }
    return true;
}

void CPlugDeepScan::DestroyAsBase(CPlugDeepScan* obj) noexcept {
    if (!obj) return;
    obj->IKwRulePlug::~IKwRulePlug();
    ::operator delete(static_cast<void*>(obj));
}

bool CPlugDeepScan::AfterProcessEvent(unsigned long, unsigned long, unsigned long) noexcept {
    KW_INFO("CPlugDeepScan::AfterProcessEvent", "CPlugDeepScan::AfterProcessEvent enter");
    return true;
}

}  // namespace kw
