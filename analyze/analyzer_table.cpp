// The analyzer table and the dispatch that reads it.
#include "analyze/analyzer_table.h"

#include "diag/trace.h"

namespace kw {

namespace {

using A = CAnalizyOperate;

// Indexed by FunctionID - 1.
const AnalyzerRow kAnalyzers[] = {
    {1, "CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByCharset", &A::AnalyzRegvalueSpliteAsFilePathByCharset, true},
    {2, "CAnalizyOperate::AnalyzInsatlledComponents", &A::AnalyzInsatlledComponents, true},
    {3, "CAnalizyOperate::AnalyzSystemScripts", &A::AnalyzSystemScripts, true},
    {4, "CAnalizyOperate::AnalyzRegValueAsCLSID", &A::AnalyzRegValueAsCLSID, false},
    {5, "CAnalizyOperate::AnalyzRegvalueAsFilePath", &A::AnalyzRegvalueAsFilePath, false},
    {6, "CAnalizyOperate::AnalyzLinkFiles", &A::AnalyzLinkFiles, false},
    {7, "CAnalizyOperate::AnalyzValueNameAsCLSID", &A::AnalyzValueNameAsCLSID, false},
    {8, "CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID", &A::AnalyzKeyOrDefValueAsCLSID, false},
    {9, "CAnalizyOperate::AnalyzKeyOrDefValueAsCLSIDJudgeWow64", &A::AnalyzKeyOrDefValueAsCLSIDJudgeWow64, false},
    {10, "CAnalizyOperate::AnalyzSubKeyAsCLSID", &A::AnalyzSubKeyAsCLSID, false},
    {11, "CAnalizyOperate::AnalyzSubKeyAsCLSIDJudgeWow64", &A::AnalyzSubKeyAsCLSIDJudgeWow64, false},
    {12, "CAnalizyOperate::AnalyzServece", &A::AnalyzServece, false},
    {13, "CAnalizyOperate::AnalyzBootExecute", &A::AnalyzBootExecute, false},
    {14, "CAnalizyOperate::AnalyzMulitRegValueAsFilePath", &A::AnalyzMulitRegValueAsFilePath, false},
    {15, "CAnalizyOperate::AnalyzFileLink", &A::AnalyzFileLink, false},
    {16, "CAnalizyOperate::AnalyzDiskAutorun", &A::AnalyzDiskAutorun, false},
    {17, "CAnalizyOperate::AnalyzIEMenuExt", &A::AnalyzIEMenuExt, false},
    {18, "CAnalizyOperate::AnalyzFileAssociation", &A::AnalyzFileAssociation, false},
    {19, "CAnalizyOperate::AnalyzRegvalueSpliteAsFilePathByVLine", &A::AnalyzRegvalueSpliteAsFilePathByVLine, false},
    {20, "CAnalizyOperate::AnalyzRegvalueNameAsFilePath", &A::AnalyzRegvalueNameAsFilePath, false},
    {21, "CAnalizyOperate::AnalyzKnownDlls", &A::AnalyzKnownDlls, false},
    {22, "CAnalizyOperate::AnalyzIEExtensions", &A::AnalyzIEExtensions, false},
};
static_assert(sizeof(kAnalyzers) / sizeof(kAnalyzers[0]) == kLastFunctionId, "one row per FunctionID");

constexpr size_t kClassPrefixChars = sizeof("CAnalizyOperate::") - 1;

}  // namespace

const AnalyzerRow* FindAnalyzerRow(int functionId) noexcept {
    if (functionId < kFirstFunctionId || functionId > kLastFunctionId) return nullptr;
    return &kAnalyzers[functionId - 1];
}

uint32_t CAnalizyOperate::RunAnalyzer(int functionId, const ANALYZE_ITEM* pAnalizy,
                                      const std::wstring& param) {
    const AnalyzerRow* row = FindAnalyzerRow(functionId);
    if (!row) return ANALYZ_BAD_FUNCTION;
    const char* name = row->qualifiedName + kClassPrefixChars;
    if (functionId == 1) {
        // The split characters are part of this analyzer's start line.
        KW_INFO(row->qualifiedName, "Start %s FunctionID=1,||lpsplit=%ls(len=%u)||", name, param.c_str(),
                static_cast<unsigned>(param.size()));
    } else {
        KW_INFO(row->qualifiedName, "Start %s FunctionID=%d", name, functionId);
    }
    if (!row->run) return ANALYZ_NOT_HANDLED;
    return (this->*(row->run))(pAnalizy, param);
}

uint32_t CAnalizyOperate::HandOutRegParse(const ANALYZE_ITEM* pAnalizy, const RegRule& rule) {
    const AnalyzerRow* row = FindAnalyzerRow(rule.FunctionID);
    if (!row) return ANALYZ_BAD_FUNCTION;
    if (row->needsParameter1 && rule.Parameter1.empty()) {
        KW_ERROR("CAnalizyOperate::HandOutRegParse", "FunctionId=%d Invalid parameter", rule.FunctionID);
        return ANALYZ_NO_ENTRY;
    }
    return RunAnalyzer(rule.FunctionID, pAnalizy, row->needsParameter1 ? rule.Parameter1 : std::wstring());
}

}  // namespace kw
