// The analysis engine. The rule table is one per process, shared by every
// engine: it is filled from the first host rule text that yields at least one
// valid rule, and later texts are ignored. Lookups take the table's lock in
// shared mode; each analysis runs on a fresh CAnalizyOperate outside it.
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
    CKwAutoRunImpl() noexcept = default;
    virtual ~CKwAutoRunImpl() = default;

    // 0 when done (found paths, possibly none, are in fileList); -1 when the
    // working analysis object could not start.
    virtual int AnalyzeFiles(ANALYZE_ITEM* item, std::list<std::wstring>* fileList) noexcept;
    // Loads the rule text into the process's table unless a text already gave
    // it a valid rule. True once the table holds rules; false (error line
    // "m_co.LoadParseRules Fail,%d") when this text gave none, in which case
    // the next Init of any engine tries its own text.
    virtual bool Init(IHostRuleEngine* ruleEng, const char* configContent,
                      unsigned long configContentLength) noexcept;
    virtual bool UnInit() noexcept;
    virtual void Reserved3() noexcept;

    // A copy of the rule with that ParseID from the process's table.
    bool GetParseRule(int32_t parseId, RegRule* out) noexcept;
    // A copy of the whole table (for inspection by tests and tools).
    RuleTable GetRules();
};

// Whether some engine of this process has loaded a text with a valid rule.
bool AreRulesLoaded() noexcept;

}  // namespace kw
