// FunctionID 22: the browser's toolbar-button extensions. The value name says
// what the data is: a class identifier ("CLSID") or a program ("Exec").
#include "analyze/analizy_operate.h"

#include "common/strutil.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzIEExtensions(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    const std::wstring name = RecordValueName(pAnalizy);
    if (EqualsNoCase(name, L"CLSID")) return RunAnalyzer(4, pAnalizy, std::wstring());
    if (EqualsNoCase(name, L"Exec")) return RunAnalyzer(5, pAnalizy, std::wstring());
    return ANALYZ_NOT_HANDLED;
}

}  // namespace kw
