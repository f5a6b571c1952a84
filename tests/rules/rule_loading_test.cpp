// How the host's rule text reaches the rule table: LoadParseRules and its
// result lines, the engine's once-per-process loading (each case that needs
// another rule text runs in a process of its own), and the plug-in's Init.
#include "analyze/analizy_operate.h"
#include "plugin/kw_autorun_impl.h"
#include "plugin/plug_deep_scan.h"

#include "support/child.h"
#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kw;
using kwtest::LineMatches;
using kwtest::ScopedSink;

namespace {

#define LINE_SUCCESS L"[kwRegAnalyze][INFO ][CAnalizyOperate::LoadParseRules] [regscan] LoadParseRules Success"
#define LINE_FAIL L"[kwRegAnalyze][ERROR][CAnalizyOperate::LoadParseRules] [regscan] LoadParseRules Fail,{n}"
#define LINE_EMPTY \
    L"[kwRegAnalyze][ERROR][ConfigRuleParse::ConfigFileToRegditRule] ConfigFileToRegditRule ConfigContent.length = 0  Fail:{n}"
#define LINE_EX L"[kwRegAnalyze][INFO ][ConfigRuleParse::PRINTF_REGRULE_EX] "
#define LINE_NO_RULES L"[kwRegAnalyze][ERROR][CKwAutoRunImpl::Init] m_co.LoadParseRules Fail,{n}"

const std::string kOneRule =
    R"({"RegParseConfig":[{"ParseID":5,"FunctionID":5,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"Software\\x","RegValueName":"v"}]})";
const std::wstring kOneRuleLine =
    LINE_EX L"[0]parseID:5 FunctionID:5 CheckID:1 HKEY:HKEY_LOCAL_MACHINE SubKey:Software\\x value:v";
const std::string kHalfValid =
    R"({"RegParseConfig":[{"ParseID":1,"FunctionID":0},{"ParseID":2,"FunctionID":3,"Parameter1":"p"}]})";
const std::vector<std::wstring> kHalfValidLines = {
    L"[kwRegAnalyze][ERROR][ConfigRuleParse::Json2RuleArry] Rule[0] ParseID:1 Not meet the requirement",
    L"[kwRegAnalyze][INFO ][ConfigRuleParse::PRINTF_REGRULE] parseID:1 FunctionID:0 CheckID:0 ",
    LINE_EX L"[1]parseID:2 FunctionID:3 CheckID:0 HKEY:0 Parameter1:p(1)", LINE_FAIL};
const std::string kOtherRule = R"({"RegParseConfig":[{"ParseID":9,"FunctionID":9}]})";

// Every recorded line against its pattern ("{n}" for an unknown number).
void ExpectLines(const std::vector<std::wstring>& want, const std::vector<std::wstring>& got) {
    ASSERT_EQ(want.size(), got.size()) << testing::PrintToString(got);
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_TRUE(LineMatches(got[i], want[i])) << testing::PrintToString(got[i]) << "\n vs " << testing::PrintToString(want[i]);
}

// ---------------------------------------------------------------------------
// LoadParseRules answers true whatever the text; its lines and table for each
// kind of text are checked through the engine's Init below.
TEST(LoadParseRules, TrueEvenForBadTexts) {
    for (const std::string& text : {kOneRule, std::string(), std::string("{\"RegParseConfig\":["), kHalfValid}) {
        RuleTable table;
        EXPECT_TRUE(CAnalizyOperate::LoadParseRules(table, text)) << text;
    }
}

// ---------------------------------------------------------------------------
// The engine loads the rules once per process, from the first text that
// gives a valid rule; every engine reads that one table.

std::vector<int32_t> Ids(CKwAutoRunImpl& engine) {
    std::vector<int32_t> ids;
    for (const auto& kv : engine.GetRules()) ids.push_back(kv.first);
    return ids;
}

// Until a text gives a valid rule, each Init (of any engine) loads its own.
KW_CHILD_TEST(RuleLoadingProcess, TextsWithoutRulesDoNotCount) {
    const struct {
        const char* name;
        const char* text;  // null: no text at all
        unsigned long cb;
        bool result;
        std::vector<int32_t> ids;
        std::vector<std::wstring> lines;
    } rows[] = {
        {"no text", nullptr, 100, false, {}, {LINE_EMPTY, LINE_FAIL, LINE_NO_RULES}},
        {"length cuts the text", kOneRule.c_str(), 10, false, {},
         {L"[kwRegAnalyze][ERROR][ConfigRuleParse::Json2RuleArry] ConfigRuleParse::Json2RuleArry parse json error=11, offset=10",
          LINE_FAIL, LINE_NO_RULES}},
        {"only invalid rules", R"({"RegParseConfig":[{"ParseID":1}]})", 34, false, {},
         {L"[kwRegAnalyze][ERROR][ConfigRuleParse::Json2RuleArry] Rule[0] ParseID:1 Not meet the requirement",
          L"[kwRegAnalyze][INFO ][ConfigRuleParse::PRINTF_REGRULE] parseID:1 FunctionID:0 CheckID:0 ", LINE_FAIL,
          LINE_NO_RULES}},
        {"no rule array", "{}", 2, false, {}, {LINE_SUCCESS, LINE_NO_RULES}},
        {"the first text with a valid rule, although another is invalid", kHalfValid.c_str(),
         static_cast<unsigned long>(kHalfValid.size()), true, {2}, kHalfValidLines},
        {"a later text is not loaded", kOtherRule.c_str(), static_cast<unsigned long>(kOtherRule.size()), true, {2}, {}},
    };
    ScopedSink cap;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        cap.sink.Clear();
        CKwAutoRunImpl engine;
        EXPECT_EQ(row.result, engine.Init(&cap.sink, row.text, row.cb));
        EXPECT_EQ(row.result, AreRulesLoaded());
        EXPECT_EQ(row.ids, Ids(engine));
        ExpectLines(row.lines, cap.Texts());
    }
    RegRule rule;
    CKwAutoRunImpl engine;
    ASSERT_TRUE(engine.GetParseRule(2, &rule));
    EXPECT_EQ(L"p", rule.Parameter1);
}

KW_CHILD_TEST(RuleLoadingProcess, ConcurrentInitLoadsOnce) {
    ScopedSink cap;
    CKwAutoRunImpl engine;
    auto init = [&] { return engine.Init(&cap.sink, kOneRule.data(), static_cast<unsigned long>(kOneRule.size())); };
    // int, not bool: the threads would write neighbouring bits of one vector<bool>.
    EXPECT_EQ(std::vector<int>(8, 1), kwtest::RaceFirstUse<int>(8, init));
    EXPECT_EQ(std::vector<int32_t>{5}, Ids(engine));
    ExpectLines({kOneRuleLine, LINE_SUCCESS}, cap.Texts());
}

KW_CHILD_TEST(RuleLoadingProcess, PlugInInitLoadsTheHostRules) {
    ScopedSink cap;
    CPlugDeepScan plug;
    EXPECT_TRUE(plug.Init(&cap.sink, kOneRule.data(), static_cast<unsigned long>(kOneRule.size())));
    ASSERT_NE(nullptr, plug.autoRunImpl);
    EXPECT_EQ(std::vector<int32_t>{5}, Ids(*plug.autoRunImpl));
    EXPECT_EQ((std::vector<std::wstring>{L"[kwRegAnalyze][INFO ][CPlugDeepScan::Init] CPlugDeepScan::Init enter", kOneRuleLine,
                                         LINE_SUCCESS, L"[kwRegAnalyze][INFO ][CPlugDeepScan::Init] CPlugDeepScan::Init ok"}),
              cap.Texts());
    // The engine and translator live until the module unloads; this test owns them.
    delete plug.autoRunImpl;
    delete plug.regKeyTranslate;
}

}  // namespace
