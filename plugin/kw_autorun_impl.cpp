#include "plugin/kw_autorun_impl.h"

#include "analyze/analizy_operate.h"
#include "analyze/analysis_record.h"

#include <set>
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
    // A working object per call: analyses of concurrent events never share state.
    CAnalizyOperate op;
    if (!op.Init()) return -1;
    if (!item) return 0;

    // The rule is copied out under the lock; the analysis runs outside it.
    RegRule rule;
    bool found = GetParseRule(static_cast<int32_t>(item->dsid), &rule);
    if (!found) {
        KW_ERROR("CKwAutoRunImpl::AnalyzeFiles", "co.GetParseRule Fail,%d", static_cast<int>(GetLastError()));
        return 0;
    }
    KW_INFO("CKwAutoRunImpl::AnalyzeFiles", "co.GetParseRule Success,%d", static_cast<int>(item->dsid));
    std::set<std::wstring> resultSet;
    uint32_t ret = op.AnalyzItem(item, resultSet, rule);
    KW_INFO("CKwAutoRunImpl::AnalyzeFiles", "co.AnalyzItem Complete,%d", static_cast<int>(ret));
    if (fileList) fileList->insert(fileList->end(), resultSet.begin(), resultSet.end());
    return 0;
}

bool CKwAutoRunImpl::Init(IHostRuleEngine* ruleEng, const char* configContent,
                          unsigned long configContentLength) {
    if (g_rulesLoaded) return true;
    try {
        // The copy keeps the length the host gave, embedded NULs included;
        // the parser decides how far it reads.
        std::string content;
        if (configContent) content.assign(configContent, configContentLength);
        cs_lock lock(m_cs);
        // A caller that waited on the lock finds the rules loaded.
        if (g_rulesLoaded) return true;
        if (CAnalizyOperate::LoadParseRules(m_co, content)) {
            InterlockedExchange(&g_rulesLoaded, 1);
            return true;
        }
    } catch (...) {
        // The host's text could not even be copied: reported below.
    }
    KW_ERROR("CKwAutoRunImpl::Init", "m_co.LoadParseRules Fail,%d", static_cast<int>(GetLastError()));
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
