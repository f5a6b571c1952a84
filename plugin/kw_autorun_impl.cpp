#include "plugin/kw_autorun_impl.h"

#include "common/handle.h"
#include "diag/trace.h"

namespace kw {

namespace {
volatile LONG g_rulesLoaded = 0;
}

bool AreRulesLoaded() noexcept { return g_rulesLoaded != 0; }

CKwAutoRunImpl::CKwAutoRunImpl() { InitializeCriticalSection(&m_cs); }

CKwAutoRunImpl::~CKwAutoRunImpl() { DeleteCriticalSection(&m_cs); }

int CKwAutoRunImpl::AnalyzeFiles(ANALYZE_ITEM* item, std::list<std::wstring>* fileList) {
    // The rule matching and the analyzers are not part of this engine yet:
    // nothing is found.
    return 0;
}

bool CKwAutoRunImpl::Init(IHostRuleEngine* ruleEng, const char* configContent,
                          unsigned long configContentLength) {
    // Rule loading is not part of this engine yet: the table stays empty.
    return g_rulesLoaded != 0;
}

bool CKwAutoRunImpl::UnInit() { return true; }

void CKwAutoRunImpl::Reserved3() {}

bool CKwAutoRunImpl::GetParseRule(int32_t parseId, RegRule* out) {
    cs_lock lock(m_cs);
    auto it = m_co.find(parseId);
    if (it == m_co.end()) return false;
    if (out) *out = it->second;
    return true;
}

RuleTable CKwAutoRunImpl::GetRules() {
    cs_lock lock(m_cs);
    return m_co;
}

}  // namespace kw
