// FunctionID 1: the written data is a list split at any character of the
// rule's Parameter1. Only pieces the previous data did not hold are reported
// (every piece with the report-all switch). For "Appinit_Dlls" a '*' counts
// as '.', in the old data and the new alike.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "registry/reg_util.h"
#include "resolve/expand_path.h"
#include "resolve/parse_text.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByCharset(const ANALYZE_ITEM* pAnalizy,
                                                                  const std::wstring& lpsplit) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;

    // The previous data, in the record's view; expandable data is expanded
    // the way the record's new data was, so both sides compare alike.
    std::wstring oldData;
    DWORD oldType = REG_NONE;
    if (RegReadRawText(RootKeyHandle(pAnalizy->hRootkey), pAnalizy->szSubkey, pAnalizy->szValuename,
                       RecordViewAccess(), &oldType, oldData)) {
        if (oldData.size() > 520) oldData.resize(520);
        oldData.resize(LenBounded(oldData.c_str(), oldData.size()));
        if (oldType == REG_EXPAND_SZ && pAnalizy->dsid != 76 && pAnalizy->dsid != 77) {
            wchar_t buf[511] = {0};
            CopyBounded(buf, 511, oldData.c_str());
            ExpandPath(buf, sizeof(buf), m_hToken, m_szSid, bWow64Expand);
            oldData = buf;
        } else if (oldType != REG_SZ && oldType != REG_EXPAND_SZ) {
            oldData.clear();
        }
    }
    KW_INFO("CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByCharset", "reg old data: %ls", oldData.c_str());

    std::wstring newData = RecordDataText(pAnalizy);
    if (newData.empty()) return ANALYZ_NOTHING;
    if (EqualsNoCase(RecordValueName(pAnalizy), L"Appinit_Dlls")) {
        ReplaceAll(oldData, L"*", L".");
        ReplaceAll(newData, L"*", L".");
    }
    const std::vector<std::wstring> before = SplitAny(oldData, lpsplit.c_str());
    for (const std::wstring& piece : SplitAny(newData, lpsplit.c_str())) {
        if (!m_bReportAll && ContainsNoCase(before, piece)) continue;
        if (!ReportPiece(pAnalizy, piece, true)) return ANALYZ_NO_ENTRY;
    }
    return ANALYZ_OK;
}

}  // namespace kw
