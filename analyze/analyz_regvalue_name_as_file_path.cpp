// FunctionID 20: the written value's name is the file path (the data is not
// read).
#include "analyze/analizy_operate.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzRegvalueNameAsFilePath(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;
    const std::wstring name = RecordValueName(pAnalizy);
    if (name.empty()) return ANALYZ_NOTHING;
    return ReportPiece(pAnalizy, name, true) ? ANALYZ_OK : ANALYZ_NO_ENTRY;
}

}  // namespace kw
