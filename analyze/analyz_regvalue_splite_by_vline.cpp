// FunctionID 19: the written data is a list of command lines separated by '|';
// each non-empty piece is reported, in order.
#include "analyze/analizy_operate.h"

#include "resolve/parse_text.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByVLine(const ANALYZE_ITEM* pAnalizy,
                                                                const std::wstring&) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;
    for (const std::wstring& piece : SplitAny(RecordDataText(pAnalizy), L"|"))
        if (!ReportPiece(pAnalizy, piece, true)) return ANALYZ_NO_ENTRY;
    return ANALYZ_OK;
}

}  // namespace kw
