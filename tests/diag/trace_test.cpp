// The trace channel's line layout and its silence without a sink.
#include "diag/trace.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <vector>

using namespace kw;

TEST(TraceTest, LineLayoutLevelsAndSilenceWithoutASink) {
    kwtest::ScopedSink cap;
    const std::wstring big(10000, L'a');
    KW_INFO("CPlugDeepScan::UnInit", "CPlugDeepScan::UnInit enter");
    KW_ERROR("CAnalizyOperate::AnalyzItem", "RegPathMatch Fail");
    KW_INFO("ConfigRuleParse::Json2RuleArry", "x=%d s=%ls n=%s", 42, L"wide", "narrow");
    KW_ERROR("CPlugDeepScan::Init", "初始化阶段申请内存失败");
    KW_INFO("f", "%ls", L"100%d %s");  // an argument is never reinterpreted as a format
    KW_INFO("f", "%ls", big.c_str());  // a long message arrives whole
    const std::vector<std::pair<std::wstring, int>> expected{
        {L"[kwRegAnalyze][INFO ][CPlugDeepScan::UnInit] CPlugDeepScan::UnInit enter", 50},
        {L"[kwRegAnalyze][ERROR][CAnalizyOperate::AnalyzItem] RegPathMatch Fail", 31},
        {L"[kwRegAnalyze][INFO ][ConfigRuleParse::Json2RuleArry] x=42 s=wide n=narrow", 50},
        {L"[kwRegAnalyze][ERROR][CPlugDeepScan::Init] \u521d\u59cb\u5316\u9636\u6bb5\u7533\u8bf7\u5185\u5b58\u5931\u8d25", 31},
        {L"[kwRegAnalyze][INFO ][f] 100%d %s", 50},
        {L"[kwRegAnalyze][INFO ][f] " + big, 50}};
    std::vector<std::pair<std::wstring, int>> got;
    for (const auto& l : cap.sink.Lines()) got.emplace_back(l.text, l.level);
    EXPECT_EQ(expected, got);
    // Once the sink is cleared nothing is written.
    SetLogSink(nullptr);
    KW_INFO("f", "never %d", 1);
    EXPECT_EQ(expected.size(), cap.sink.Lines().size());
}
