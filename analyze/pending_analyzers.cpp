// Analyzers whose registry locations this release does not resolve yet
// (COM classes, services, boot-execute and known DLLs, shortcuts, scripts,
// installed components, disk autorun, shell and browser extensions). Each
// writes its start line and reports the record as not handled (3), so that
// no location is ever reported with a made-up result.
#include "analyze/analizy_operate.h"

#include "diag/trace.h"

namespace kw {

#define KW_PENDING_ANALYZER(Name, Id, ...)                                          \
    uint32_t CAnalizyOperate::Name(const ANALYZE_ITEM* __VA_ARGS__) {              \
        KW_INFO("CAnalizyOperate::" #Name, "Start " #Name " FunctionID=" #Id);     \
        return ANALYZ_NOT_HANDLED;                                                 \
    }

KW_PENDING_ANALYZER(AnalyzRegValueAsCLSID, 4)
KW_PENDING_ANALYZER(AnalyzLinkFiles, 6)
KW_PENDING_ANALYZER(AnalyzValueNameAsCLSID, 7)
KW_PENDING_ANALYZER(AnalyzKeyOrDefValueAsCLSID, 8)
KW_PENDING_ANALYZER(AnalyzKeyOrDefValueAsCLSIDJudgeWow64, 9)
KW_PENDING_ANALYZER(AnalyzSubKeyAsCLSID, 10)
KW_PENDING_ANALYZER(AnalyzSubKeyAsCLSIDJudgeWow64, 11)
KW_PENDING_ANALYZER(AnalyzServece, 12)
KW_PENDING_ANALYZER(AnalyzBootExecute, 13)
KW_PENDING_ANALYZER(AnalyzFileLink, 15)
KW_PENDING_ANALYZER(AnalyzDiskAutorun, 16)
KW_PENDING_ANALYZER(AnalyzIEMenuExt, 17)
KW_PENDING_ANALYZER(AnalyzFileAssociation, 18)
KW_PENDING_ANALYZER(AnalyzKnownDlls, 21)
KW_PENDING_ANALYZER(AnalyzIEExtensions, 22)

uint32_t CAnalizyOperate::AnalyzInsatlledComponents(const ANALYZE_ITEM*, const std::wstring&) {
    KW_INFO("CAnalizyOperate::AnalyzInsatlledComponents", "Start AnalyzInsatlledComponents FunctionID=2");
    return ANALYZ_NOT_HANDLED;
}

uint32_t CAnalizyOperate::AnalyzSystemScripts(const ANALYZE_ITEM*, const std::wstring&) {
    KW_INFO("CAnalizyOperate::AnalyzSystemScripts", "Start AnalyzSystemScripts FunctionID=3");
    return ANALYZ_NOT_HANDLED;
}

#undef KW_PENDING_ANALYZER

}  // namespace kw
