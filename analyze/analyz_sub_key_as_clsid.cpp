// FunctionIDs 10 and 11: a key added or changed whose own name is a COM
// class (the last component of its path). The class's servers become the
// results; a class without one is reported as a location. FunctionID 11 then
// always makes a second entry resolved in the 32-bit view on a 64-bit system,
// so a class with no 32-bit server still yields one more location entry.
#include "analyze/analizy_operate.h"

#include "registry/clsid_string.h"

namespace kw {

namespace {

// Key names are taken within 260 characters (terminator included).
constexpr size_t kKeyNameCch = MAX_PATH;

uint32_t SubKeyAsClsid(CAnalizyOperate& op, const ANALYZE_ITEM* pAnalizy, std::wstring& clsid) {
    clsid.clear();
    if (pAnalizy->dwOperate != REGMONMODE_OPERATE_ADDKEY && pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYKEY)
        return ANALYZ_NOT_HANDLED;
    const std::wstring subkey = RecordSubkey(pAnalizy);
    const size_t slash = subkey.rfind(L'\\');
    if (slash == std::wstring::npos) return ANALYZ_NOT_HANDLED;
    const std::wstring candidate = subkey.substr(slash + 1, kKeyNameCch - 1);
    if (!IsClsidString(candidate.c_str())) return ANALYZ_NOTHING;

    ResultEntryPtr entry = op.CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = subkey;
    clsid = candidate;
    op.ResolveClsidAndPush(std::move(entry), clsid);
    return ANALYZ_OK;
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzSubKeyAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    std::wstring clsid;
    return SubKeyAsClsid(*this, pAnalizy, clsid);
}

uint32_t CAnalizyOperate::AnalyzSubKeyAsCLSIDJudgeWow64(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    std::wstring clsid;
    const uint32_t ret = SubKeyAsClsid(*this, pAnalizy, clsid);
    if (ret != ANALYZ_OK) return ret;
    return ResolveClsidInWow32View(pAnalizy, clsid, false);
}

}  // namespace kw
