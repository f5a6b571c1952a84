// FunctionIDs 4 and 7: a written value names a COM class, in its data (4) or
// in its own name (7). The class's servers become the results; a class
// without one is reported as a location. Only value writes are handled (3);
// a text that is not a CLSID gives 4; only its first 38 characters are
// tested, so "{...}xyz" is accepted and looked up up to its '}'.
#include "analyze/analizy_operate.h"

#include "registry/clsid_string.h"

namespace kw {

namespace {

uint32_t ValueAsClsid(CAnalizyOperate& op, const ANALYZE_ITEM* pAnalizy, const std::wstring& clsid) {
    if (!IsClsidString(clsid.c_str())) return ANALYZ_NOTHING;
    ResultEntryPtr entry = op.CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = RecordSubkey(pAnalizy);
    entry->valueName = RecordValueName(pAnalizy);
    op.ResolveClsidAndPush(std::move(entry), clsid);
    return ANALYZ_OK;
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzRegValueAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;
    return ValueAsClsid(*this, pAnalizy, RecordDataText(pAnalizy));
}

uint32_t CAnalizyOperate::AnalyzValueNameAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy || pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) return ANALYZ_NOT_HANDLED;
    return ValueAsClsid(*this, pAnalizy, RecordValueName(pAnalizy));
}

}  // namespace kw
