// The analyzer table: one row per FunctionID. HandOutRegParse and every
// analyzer that hands a record on to another one go through it, so the range
// check, the Parameter1 refusal and each analyzer's start line
// ("Start <Name> FunctionID=<n>") are written in one place.
//
// Adding an analyzer: define its member function in its own file under
// analyze/, put the function into its row below, and give it a test file
// under tests/analyze/. A row whose function is empty is an analyzer not yet
// built: it writes its start line and reports the record as not handled (3).
#pragma once
#include "analyze/analizy_operate.h"

namespace kw {

using AnalyzerFn = uint32_t (CAnalizyOperate::*)(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);

struct AnalyzerRow {
    int functionId;
    const char* qualifiedName;  // "CAnalizyOperate::AnalyzServece": the trace's function name
    AnalyzerFn run;             // empty while the analyzer is not built
    bool needsParameter1;       // refused with "FunctionId=%d Invalid parameter" (1) when empty
};

constexpr int kFirstFunctionId = 1;
constexpr int kLastFunctionId = 22;

// The row of a FunctionID, or null outside 1..22.
[[nodiscard]] const AnalyzerRow* FindAnalyzerRow(int functionId) noexcept;

}  // namespace kw
