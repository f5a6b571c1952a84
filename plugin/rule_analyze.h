// The bridge for file events: parses a newly written .inf or .lnk file and
// returns the files it refers to.
#pragma once
#include "common/host_iface.h"

#include <list>
#include <string>

namespace kw {

class CKwAutoRunImpl;

// Source kinds of a written file.
enum : uint32_t { FILE_SOURCE_LNK = 1, FILE_SOURCE_INF = 2 };

class CRuleAnalyze {
public:
    CRuleAnalyze() = default;
    virtual ~CRuleAnalyze() = default;

    void SetEngine(CKwAutoRunImpl* engine) noexcept { m_engine = engine; }
    CKwAutoRunImpl* GetEngine() const noexcept { return m_engine; }

    // Analyses the written file `path` (sourceKind 2: an autorun file, through
    // FunctionID 16; 1: a shortcut, through FunctionID 6) for the user of the
    // writing process (drvEvent's request context) and appends the files it
    // refers to, upper-cased, each once, in standard string order. False with
    // the error "param is null, so fail" (null event or list, empty path),
    // "alloc file item fail" or "get file item fail" (unknown kind, or a path
    // that does not fit the analysis record's 1,023 characters).
    bool GetTargetFilesEx(const KW_DRV_EVENT* drvEvent, uint32_t sourceKind, const std::wstring& path,
                          std::list<std::wstring>* files);

private:
    CKwAutoRunImpl* m_engine = nullptr;
};

}  // namespace kw
