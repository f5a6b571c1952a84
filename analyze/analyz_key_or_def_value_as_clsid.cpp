// FunctionIDs 8 and 9: a key that names a COM class, by its own name (key
// added or changed) or by its default value's data (value written). The
// class's servers become the results; a class without one is reported as a
// location. FunctionID 9 then looks the class up once more in the 32-bit
// view on a 64-bit system, and reports that pass only when it finds a server.
#include "analyze/analizy_operate.h"

#include "analyze/reg_path_match.h"
#include "diag/trace.h"
#include "registry/clsid_string.h"

namespace kw {

namespace {

// CLSID text is kept in 64 characters (terminator included); longer text is cut.
constexpr size_t kClsidCch = 64;

// The class of the record, resolved and pushed. `function` names the trace
// lines of the refusals; null writes none (FunctionID 9 is silent).
uint32_t KeyOrDefValueAsClsid(CAnalizyOperate& op, const ANALYZE_ITEM* pAnalizy, const char* function,
                              std::wstring& clsid) {
    clsid.clear();
    const std::wstring subkey = RecordSubkey(pAnalizy);
    const size_t slash = subkey.rfind(L'\\');
    if (slash == std::wstring::npos) return ANALYZ_NOT_HANDLED;

    std::wstring candidate;
    if (pAnalizy->dwOperate == REGMONMODE_OPERATE_MODIFYVALUE) {
        const std::wstring name = RecordValueName(pAnalizy);
        if (!IsDefaultValueName(name)) {
            if (function) KW_ERROR(function, "pAnalizy->szValuename err:%ls", name.c_str());
            return ANALYZ_NOT_HANDLED;
        }
        candidate = RecordDataText(pAnalizy);
    } else if (pAnalizy->dwOperate == REGMONMODE_OPERATE_ADDKEY ||
               pAnalizy->dwOperate == REGMONMODE_OPERATE_MODIFYKEY) {
        candidate = subkey.substr(slash + 1);
    } else {
        if (function) KW_ERROR(function, "pAnalizy->dwOperate err:%u", static_cast<unsigned>(pAnalizy->dwOperate));
        return ANALYZ_NOT_HANDLED;
    }

    if (IsClsidString(candidate.c_str())) clsid = candidate.substr(0, kClsidCch - 1);
    if (clsid.empty()) {
        if (function) KW_ERROR(function, "szCLSID err:%ls", clsid.c_str());
        return ANALYZ_NOTHING;
    }

    ResultEntryPtr entry = op.CreateEntry(pAnalizy->dsid);
    if (!entry) {
        if (function) KW_ERROR(function, "CreateEntry err.");
        return ANALYZ_NO_ENTRY;
    }
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = subkey;
    op.ResolveClsidAndPush(std::move(entry), clsid);
    return ANALYZ_OK;
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    static const char kFunction[] = "CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID";
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    KW_INFO(kFunction, "CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID begin dsid is :%u",
            static_cast<unsigned>(pAnalizy->dsid));
    std::wstring clsid;
    const uint32_t ret = KeyOrDefValueAsClsid(*this, pAnalizy, kFunction, clsid);
    if (ret == ANALYZ_OK) KW_INFO(kFunction, "CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID end");
    return ret;
}

uint32_t CAnalizyOperate::AnalyzKeyOrDefValueAsCLSIDJudgeWow64(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    std::wstring clsid;
    const uint32_t ret = KeyOrDefValueAsClsid(*this, pAnalizy, nullptr, clsid);
    if (ret != ANALYZ_OK) return ret;
    return ResolveClsidInWow32View(pAnalizy, clsid, true);
}

}  // namespace kw
