// The bridge for file events: parses a newly written .inf or .lnk file and
// returns the files it refers to.
#pragma once
#include "common/host_iface.h"

#include <list>
#include <string>

namespace kw {

class CKwAutoRunImpl;

class CRuleAnalyze {
public:
    CRuleAnalyze() = default;
    virtual ~CRuleAnalyze() = default;

    void SetEngine(CKwAutoRunImpl* engine) noexcept { m_engine = engine; }
    CKwAutoRunImpl* GetEngine() const noexcept { return m_engine; }

private:
    CKwAutoRunImpl* m_engine = nullptr;
};

}  // namespace kw
