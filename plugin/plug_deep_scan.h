// The plug-in object the host drives through IKwRulePlug. Init creates the
// analysis engine, the path translator and the file-event bridge; they live
// until the module unloads (UnInit and ReleasePlugObjectV2 free none of them).
#pragma once
#include "common/host_iface.h"
#include "plugin/host_ref.h"
#include "plugin/kw_autorun_impl.h"
#include "plugin/reg_key_translate.h"
#include "plugin/rule_analyze.h"

#include <memory>
#include <string>

namespace kw {

class CPlugDeepScan : public IKwRulePlug {
public:
    CPlugDeepScan() noexcept = default;
    ~CPlugDeepScan() = default;

    bool Init(IHostRuleEngine* ruleEng, const char* configContent,
              unsigned long configContentLength) override;
    void UnInit() override;
    void SetEnable(unsigned long a, unsigned long b) override;
    unsigned long FirstProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) override;
    unsigned long PreProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) override;
    unsigned long PostProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) override;
    unsigned long LastProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) override;
    bool AfterProcessEvent(unsigned long a, unsigned long b, unsigned long c) override;

    // Destroys the object as the host's interface sees it (the base part
    // only) and frees its storage. The engine, translator, host reference and
    // bridge are deliberately left alive: they live until the module unloads.
    static void DestroyAsBase(CPlugDeepScan* obj) noexcept;

    CKwAutoRunImpl* autoRunImpl = nullptr;       // owned; lives until the module unloads
    CRegKeyTranslate* regKeyTranslate = nullptr; // owned; lives until the module unloads
    HostRuleEngineRef ruleEng;
    std::shared_ptr<CRuleAnalyze> ruleAnalyze;
};

}  // namespace kw
