// A written file analysed without a rule: the file events' way into the
// analyzers (FunctionID 16 for an autorun file, 6 for a shortcut).
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "registry/user_sid.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzFileItem(ANALYZE_ITEM* pAnalizy, int functionId,
                                         std::set<std::wstring>& resultSet) noexcept {
    if (!pAnalizy || pAnalizy->dwSize < kAnalyzeItemSize) return ANALYZ_NOT_HANDLED;
    try {
        // A file has no registry view: native view and native file system.
        bWow64Expand = 0;
        bNativeView = 1;
        bWow64Parse = 2;
        ReleaseUserContext();
        m_szSid[0] = L'\0';
        m_results.clear();
        pAnalizy->szSubkey[kSubkeyChars - 1] = L'\0';
        m_pCurrent = pAnalizy;
        // The writer's user, for the expansion of per-user tokens.
        GetUserSidByPid(pAnalizy->dwProcessId, &m_tokenUser, &m_hProcess, &m_hToken, m_szSid,
                        260 /* bytes */);

        const uint32_t ret = RunAnalyzer(functionId, pAnalizy, std::wstring());
        for (const NotifyEntry& e : m_results)
            if (!e.filePath.empty()) resultSet.insert(ToUpper(e.filePath));
        ReleaseUserContext();
        m_pCurrent = nullptr;
        return ret;
    } catch (...) {
        // Out of memory while analysing: what was found so far stays in resultSet.
        ReleaseUserContext();
        m_pCurrent = nullptr;
        return ANALYZ_NO_ENTRY;
    }
}

}  // namespace kw
