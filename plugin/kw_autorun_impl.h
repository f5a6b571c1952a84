// The analysis engine: the rule table (loaded once per process from the host's
// rule text) and the lock that serialises rule loading and rule lookup. Each
// analysis runs on a fresh CAnalizyOperate outside the lock.
#pragma once
#include "common/host_iface.h"
#include "rules/reg_rule.h"

#include <windows.h>

#include <list>
#include <string>

namespace kw {

struct ANALYZE_ITEM;

class CKwAutoRunImpl {
public:
    CKwAutoRunImpl();
    virtual ~CKwAutoRunImpl();

    // 0 when done (found paths, possibly none, are in fileList); -1 when the
    // working analysis object could not start.
    virtual int AnalyzeFiles(ANALYZE_ITEM* item, std::list<std::wstring>* fileList);
    // Loads the rule text once per process; returns the process-wide flag.
    virtual bool Init(IHostRuleEngine* ruleEng, const char* configContent,
                      unsigned long configContentLength);
    virtual bool UnInit();
    virtual void Reserved3();

    // A copy of the rule with that ParseID, looked up under the engine lock.
    bool GetParseRule(int32_t parseId, RegRule* out);
    // A copy of the whole table (for inspection by tests and tools).
    RuleTable GetRules();

    CRITICAL_SECTION m_cs;
    RuleTable m_co;
};

// Whether some engine of this process has loaded the rules.
bool AreRulesLoaded() noexcept;

}  // namespace kw
