// FunctionID 14: a REG_MULTI_SZ list of command lines. Only the strings that
// the change adds are reported (every string with the report-all switch):
// the value's previous strings are read from the registry in the record's
// view before the record's own are compared with them.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "registry/reg_util.h"
#include "resolve/parse_text.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzMulitRegValueAsFilePath(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;

    std::wstring oldRaw;
    DWORD oldType = REG_NONE;
    // Without a previous value every piece is new.
    if (!RegReadRawText(RootKeyHandle(pAnalizy->hRootkey), pAnalizy->szSubkey,
                        pAnalizy->szValuename, RecordViewAccess(), &oldType, oldRaw))
        oldRaw.clear();
    if (oldRaw.size() > 32768) oldRaw.resize(32768);
    const std::vector<std::wstring> before = SplitMultiString(oldRaw);

    // Expandable data holds one string, expanded in place before the analyzer
    // runs: it ends at its terminator, while the record's data size still
    // counts the bytes of the text as written.
    std::wstring newRaw;
    if (pAnalizy->dwValueType == REG_EXPAND_SZ) {
        newRaw = RecordDataText(pAnalizy);
    } else {
        uint32_t cb = pAnalizy->dwDataSize > kDataBytes ? kDataBytes : pAnalizy->dwDataSize;
        newRaw.assign(reinterpret_cast<const wchar_t*>(pAnalizy->data), cb / sizeof(wchar_t));
    }
    for (const std::wstring& s : SplitMultiString(newRaw)) {
        if (!before.empty() && ContainsNoCase(before, s) && !m_bReportAll) continue;
        if (!ReportPiece(pAnalizy, s, false)) return ANALYZ_NO_ENTRY;
    }
    return ANALYZ_OK;
}

}  // namespace kw
