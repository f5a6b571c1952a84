// FunctionID 5: the written value's data is one command line.
#include "analyze/analizy_operate.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzRegvalueAsFilePath(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;
    const std::wstring data = RecordDataText(pAnalizy);
    if (data.empty()) return ANALYZ_NOTHING;
    return ReportPiece(pAnalizy, data, true) ? ANALYZ_OK : ANALYZ_NO_ENTRY;
}

}  // namespace kw
