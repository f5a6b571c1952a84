// The dispatch from a rule's FunctionID to its analyzer.
#include "analyze/analizy_operate.h"

#include "diag/trace.h"

namespace kw {

uint32_t CAnalizyOperate::HandOutRegParse(const ANALYZE_ITEM* pAnalizy, const RegRule& rule) {
    const int id = rule.FunctionID;
    if (id < 1 || id > 22) return ANALYZ_BAD_FUNCTION;
    // These three need the rule's parameter.
    if ((id == 1 || id == 2 || id == 3) && rule.Parameter1.empty()) {
        KW_ERROR("CAnalizyOperate::HandOutRegParse", "FunctionId=%d Invalid parameter", id);
        return ANALYZ_NO_ENTRY;
    }
    switch (id) {
        case 1: return AnalyzRegvalueSpliteAsFilePathByCharset(pAnalizy, rule.Parameter1);
        case 2: return AnalyzInsatlledComponents(pAnalizy, rule.Parameter1);
        case 3: return AnalyzSystemScripts(pAnalizy, rule.Parameter1);
        case 4: return AnalyzRegValueAsCLSID(pAnalizy);
        case 5: return AnalyzRegvalueAsFilePath(pAnalizy);
        case 6: return AnalyzLinkFiles(pAnalizy);
        case 7: return AnalyzValueNameAsCLSID(pAnalizy);
        case 8: return AnalyzKeyOrDefValueAsCLSID(pAnalizy);
        case 9: return AnalyzKeyOrDefValueAsCLSIDJudgeWow64(pAnalizy);
        case 10: return AnalyzSubKeyAsCLSID(pAnalizy);
        case 11: return AnalyzSubKeyAsCLSIDJudgeWow64(pAnalizy);
        case 12: return AnalyzServece(pAnalizy);
        case 13: return AnalyzBootExecute(pAnalizy);
        case 14: return AnalyzMulitRegValueAsFilePath(pAnalizy);
        case 15: return AnalyzFileLink(pAnalizy);
        case 16: return AnalyzDiskAutorun(pAnalizy);
        case 17: return AnalyzIEMenuExt(pAnalizy);
        case 18: return AnalyzFileAssociation(pAnalizy);
        case 19: return AnalyzRegvalueSpliteAsFilePathByVLine(pAnalizy);
        case 20: return AnalyzRegvalueNameAsFilePath(pAnalizy);
        case 21: return AnalyzKnownDlls(pAnalizy);
        case 22: return AnalyzIEExtensions(pAnalizy);
    }
    return ANALYZ_BAD_FUNCTION;
}

}  // namespace kw
