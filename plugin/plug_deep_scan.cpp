#include "plugin/plug_deep_scan.h"

#include "diag/trace.h"

#include <new>

namespace kw {

bool CPlugDeepScan::Init(IHostRuleEngine* host, const char* configContent,
                         unsigned long configContentLength) {
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

    ruleAnalyze = std::make_shared<CRuleAnalyze>();
    ruleAnalyze->SetEngine(autoRunImpl);

    KW_INFO("CPlugDeepScan::Init", "CPlugDeepScan::Init ok");
    return true;
}

void CPlugDeepScan::UnInit() {
    KW_INFO("CPlugDeepScan::UnInit", "CPlugDeepScan::UnInit enter");
    if (autoRunImpl) autoRunImpl->UnInit();
}

void CPlugDeepScan::SetEnable(unsigned long, unsigned long) {
    KW_INFO("CPlugDeepScan::SetEnable", "CPlugDeepScan::SetEnable hello");
}

unsigned long CPlugDeepScan::FirstProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ctx) {
    KW_INFO("CPlugDeepScan::FirstProcessEvent", "CPlugDeepScan::FirstProcessEvent enter");
    return 0;
}

unsigned long CPlugDeepScan::PreProcessEvent(IHostEvent*, IHostRuleEngine*) {
    KW_INFO("CPlugDeepScan::PreProcessEvent", "CPlugDeepScan::PreProcessEvent enter");
    return 0;
}

unsigned long CPlugDeepScan::PostProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ctx) {
    KW_INFO("CPlugDeepScan::PostProcessEvent", "CPlugDeepScan::PostProcessEvent enter");
    return 0;
}

unsigned long CPlugDeepScan::LastProcessEvent(IHostEvent*, IHostRuleEngine*) {
    KW_INFO("CPlugDeepScan::LastProcessEvent", "CPlugDeepScan::LastProcessEvent enter");
    return 0;
}

void CPlugDeepScan::DestroyAsBase(CPlugDeepScan* obj) noexcept {
    if (!obj) return;
    obj->IKwRulePlug::~IKwRulePlug();
    ::operator delete(static_cast<void*>(obj));
}

bool CPlugDeepScan::AfterProcessEvent(unsigned long, unsigned long, unsigned long) {
    KW_INFO("CPlugDeepScan::AfterProcessEvent", "CPlugDeepScan::AfterProcessEvent enter");
    return true;
}

}  // namespace kw
