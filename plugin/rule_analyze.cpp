#include "plugin/rule_analyze.h"

#include "analyze/analizy_operate.h"
#include "analyze/analysis_record.h"
#include "common/strutil.h"
#include "diag/trace.h"

#include <memory>
#include <new>
#include <set>

namespace kw {

bool CRuleAnalyze::GetTargetFilesEx(const KW_DRV_EVENT* drvEvent, uint32_t sourceKind,
                                    const std::wstring& path, std::list<std::wstring>* files) {
    static const char kFn[] = "CRuleAnalyze::GetTargetFilesEx";
    if (!drvEvent || !files || path.empty()) {
        KW_ERROR(kFn, "param is null, so fail");
        return false;
    }
    // The record is large (5 KiB): on the heap, not on a host thread's stack.
    std::unique_ptr<ANALYZE_ITEM> item(new (std::nothrow) ANALYZE_ITEM());
    if (!item) {
        KW_ERROR(kFn, "alloc file item fail");
        return false;
    }
    memset(item.get(), 0, sizeof(ANALYZE_ITEM));
    // A cut path would name another file: such a file is not analysed.
    const int functionId = sourceKind == FILE_SOURCE_INF ? 16 : sourceKind == FILE_SOURCE_LNK ? 6 : 0;
    if (functionId == 0 || path.size() >= kSubkeyChars) {
        KW_ERROR(kFn, "get file item fail");
        return false;
    }
    item->dwSize = kAnalyzeItemSize;
    CopyBounded(item->szSubkey, kSubkeyChars, path.c_str(), path.size());
    item->dwProcessId = drvEvent->Request.Context.ProcessId;

    CAnalizyOperate op;
    (void)op.Init();  // the file log is optional
    std::set<std::wstring> found;
    op.AnalyzFileItem(item.get(), functionId, found);
    files->insert(files->end(), found.begin(), found.end());
    return true;
}

}  // namespace kw
