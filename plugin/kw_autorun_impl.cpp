#include "plugin/kw_autorun_impl.h"

#include "analyze/analizy_operate.h"
#include "analyze/analysis_record.h"
#include "common/handle.h"

#include <set>
#include "diag/trace.h"

namespace kw {

namespace {

// The process's rules. g_tableLock guards g_rules (shared for lookups,
// exclusive to publish); g_loadLock lets one loader parse at a time without
// holding up lookups. Static storage: the table lives until the module unloads.
volatile LONG g_rulesLoaded = 0;
SRWLOCK g_loadLock = SRWLOCK_INIT;
SRWLOCK g_tableLock = SRWLOCK_INIT;
RuleTable g_rules;

}  // namespace

bool AreRulesLoaded() noexcept { return g_rulesLoaded != 0; }

int CKwAutoRunImpl::AnalyzeFiles(ANALYZE_ITEM* item, std::list<std::wstring>* fileList) noexcept {
    try {
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
    } catch (...) {
        // Out of memory while copying the rule or the results: no targets.
    }
    return 0;
}

bool CKwAutoRunImpl::Init(IHostRuleEngine* ruleEng, const char* configContent,
                          unsigned long configContentLength) noexcept {
    if (g_rulesLoaded) return true;
    try {
        // The copy keeps the length the host gave, embedded NULs included;
        // the parser decides how far it reads.
        std::string content;
        if (configContent) content.assign(configContent, configContentLength);
        srw_exclusive loading(g_loadLock);
        // A caller that waited on the lock finds the rules loaded.
        if (g_rulesLoaded) return true;
        RuleTable loaded;
        (void)CAnalizyOperate::LoadParseRules(loaded, content);
        // Deliberately retried until a text gives a valid rule: a host that
        // initialises before its rule text is ready must not run without
        // rules for the life of the process.
        if (!loaded.empty()) {
            srw_exclusive publish(g_tableLock);
            g_rules.swap(loaded);
            InterlockedExchange(&g_rulesLoaded, 1);
            return true;
        }
    } catch (...) {
        // The host's text could not even be copied: reported below.
    }
    KW_ERROR("CKwAutoRunImpl::Init", "m_co.LoadParseRules Fail,%d", static_cast<int>(GetLastError()));
    return false;
}

bool CKwAutoRunImpl::UnInit() noexcept { return true; }

void CKwAutoRunImpl::Reserved3() noexcept {}

bool CKwAutoRunImpl::GetParseRule(int32_t parseId, RegRule* out) noexcept {
    try {
        srw_shared lookup(g_tableLock);
        auto it = g_rules.find(parseId);
        if (it == g_rules.end()) return false;
        if (out) *out = it->second;
        return true;
    } catch (...) {
        // The copy of the rule's strings ran out of memory.
        return false;
    }
}

RuleTable CKwAutoRunImpl::GetRules() {
    srw_shared lookup(g_tableLock);
    return g_rules;
}

}  // namespace kw
