// The trace channel's line layout and its silence without a sink.
#include "diag/trace.h"
#include "support/recording_sink.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace kw;

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override { SetLogSink(&sink); }
    void TearDown() override { SetLogSink(nullptr); }
    kwtest::RecordingSink sink;
};

TEST_F(TraceTest, LineLayoutAndLevels) {
    KW_INFO("CPlugDeepScan::UnInit", "CPlugDeepScan::UnInit enter");
    KW_ERROR("CAnalizyOperate::AnalyzItem", "RegPathMatch Fail");
    KW_INFO("ConfigRuleParse::Json2RuleArry", "x=%d s=%ls n=%s", 42, L"wide", "narrow");
    auto lines = sink.Lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(L"[kwRegAnalyze][INFO ][CPlugDeepScan::UnInit] CPlugDeepScan::UnInit enter", lines[0].text);
    EXPECT_EQ(50, lines[0].level);
    EXPECT_EQ(L"[kwRegAnalyze][ERROR][CAnalizyOperate::AnalyzItem] RegPathMatch Fail", lines[1].text);
    EXPECT_EQ(31, lines[1].level);
    EXPECT_EQ(L"[kwRegAnalyze][INFO ][ConfigRuleParse::Json2RuleArry] x=42 s=wide n=narrow", lines[2].text);
}

TEST_F(TraceTest, NonAsciiMessageAndPercentInArguments) {
    KW_ERROR("CPlugDeepScan::Init", "初始化阶段申请内存失败");
    KW_INFO("f", "%ls", L"100%d %s");  // an argument is never reinterpreted as a format
    auto lines = sink.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(L"[kwRegAnalyze][ERROR][CPlugDeepScan::Init] \u521d\u59cb\u5316\u9636\u6bb5\u7533\u8bf7\u5185\u5b58\u5931\u8d25",
              lines[0].text);
    EXPECT_EQ(L"[kwRegAnalyze][INFO ][f] 100%d %s", lines[1].text);
}

TEST_F(TraceTest, LongMessageArrivesWhole) {
    std::wstring big(10000, L'a');
    KW_INFO("f", "%ls", big.c_str());
    auto lines = sink.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(std::wstring(L"[kwRegAnalyze][INFO ][f] ") + big, lines[0].text);
}

TEST(TraceNoSink, NothingIsWritten) {
    kwtest::RecordingSink sink;
    SetLogSink(nullptr);
    KW_INFO("f", "never %d", 1);
    EXPECT_TRUE(sink.Lines().empty());
    EXPECT_EQ(nullptr, GetLogSink());
}

TEST_F(TraceTest, ConcurrentWritersNeverTearLines) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) KW_INFO("Worker::Run", "thread=%d line=%d tail", t, i);
        });
    for (auto& th : threads) th.join();
    auto lines = sink.Lines();
    ASSERT_EQ(2000u, lines.size());
    for (const auto& l : lines) {
        ASSERT_EQ(0u, l.text.find(L"[kwRegAnalyze][INFO ][Worker::Run] thread=")) << l.text;
        ASSERT_EQ(l.text.size() - 5, l.text.rfind(L" tail")) << l.text;
    }
}
