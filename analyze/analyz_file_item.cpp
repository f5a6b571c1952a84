// A written file analysed without a rule: the file events' way into the
// analyzers (FunctionID 16 for an autorun file, 6 for a shortcut).
#include "analyze/analizy_operate.h"

#include "common/strutil.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzFileItem(ANALYZE_ITEM* pAnalizy, int functionId,
                                         std::set<std::wstring>& resultSet) noexcept {
    if (!pAnalizy || pAnalizy->dwSize < kAnalyzeItemSize) return ANALYZ_NOT_HANDLED;
    try {
        // A file has no registry view: native view and native file system;
        // the writer's user, for the expansion of per-user tokens.
        pAnalizy->szSubkey[kSubkeyChars - 1] = L'\0';
        BeginRecord(pAnalizy);
        m_results.clear();

        const uint32_t ret = RunAnalyzer(functionId, pAnalizy, std::wstring());
        for (const ResultEntry& e : m_results)
            if (!e.filePath.empty()) resultSet.insert(ToUpper(e.filePath));
        EndRecord();
        return ret;
    } catch (...) {
        // Out of memory while analysing: what was found so far stays in resultSet.
        EndRecord();
        return ANALYZ_NO_ENTRY;
    }
}

}  // namespace kw
