// Events the plug-in must refuse: each yields no target and the trace that
// says why, and never a crash.
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <memory>

using namespace e2e;
using hostsim::Event;
using hostsim::Target;

namespace {
const std::wstring kKey = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Refusals", kExe = L"C:\\windows\\system32\\kwtest-refused.exe";
bool Traced(const std::wstring& fragment) { return Host().Engine().HasLine(fragment); }
}  // namespace

TEST(Refusal, OperationsModesTypesAndRules) {
    // The operation (6 value set, 7 value deleted, 4 key deleted, 3 write, 1 key created), the analysis mode and id,
    // the value type, the key and a trace line that must have been written.
    const struct { const char* name; uint32_t operation, mode, parseId, valueType; std::wstring key; const wchar_t* trace; } rows[] = {
        {"analysis mode 1", 6, 1, 5, REG_SZ, kKey, L"[ERROR][CPlugDeepScan::FillAnalyzeItem] Scan Mode Error,nAnalyzeMode=1 Parseid=5"},
        {"value deletion", 7, 2, 6, REG_SZ, kKey, L"Skip OperType  = VALUE_DELETE"},
        {"key deletion", 4, 2, 6, 0, kKey, L"Skip OperType  = REG_DELETE"},
        {"plain write", 3, 2, 6, 0, kKey, L"Skip OperType  = REG_WRITE"},
        {"REG_DWORD value write", 6, 2, 6, REG_DWORD, kKey, L"co.GetParseRule Success,6"},
        {"unknown ParseID", 6, 2, 999, REG_SZ, kKey, L"[ERROR][CKwAutoRunImpl::AnalyzeFiles] co.GetParseRule Fail,"},
        {"key created under a value-write analyzer", 1, 2, 6, 0, kKey, L"Start AnalyzRegvalueAsFilePath FunctionID=5"},
        {"unknown root key", 6, 2, 6, REG_SZ, L"HKEY_NOWHERE\\x", L"TransformRegPath Fail"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        Host().Engine().ClearLines();
        const wchar_t* name = r.operation == 6 || r.operation == 7 ? L"v" : nullptr;  // value operations name their value
        EXPECT_TRUE(PostValue(r.operation, r.key, name, r.valueType, kExe, r.parseId, 0, 0, r.mode).empty());
        EXPECT_TRUE(Traced(r.trace)) << "missing trace";
    }
}

// A file request, no driver event, no target from the host, a target without an analysis id.
TEST(Refusal, NoRegistryRequestTargetOrAnalysisId) {
    Host().Engine().ClearLines();
    std::unique_ptr<Event> ev(Event::File(1, L"C:\\x.inf"));
    EXPECT_TRUE(Post(*ev, 5).empty());
    auto lines = Host().Engine().Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(L"[kwRegAnalyze][INFO ][CPlugDeepScan::PostProcessEvent] Class=1(rd=2)", lines[1].text);
    EXPECT_EQ(std::wstring(L"C:\\x.inf"), ev->Req().KeyPath);
    Event none;
    none.SetNoDriverEvent(true);
    EXPECT_TRUE(Post(none, 5).empty());
    std::unique_ptr<Event> reg(Event::RegistrySz(kKey, L"v", kExe));
    hostsim::RuleEngine::SetThreadTarget(nullptr);
    Host().Plugin()->PostProcessEvent(reg.get(), &Host().Engine());
    EXPECT_TRUE(Traced(L"GetTarget error: ruleEng="));
    EXPECT_TRUE(Traced(L"GetAnalyzeId fail pTarget=nullptr"));
    EXPECT_TRUE(Traced(L"Scan Mode Error,nAnalyzeMode=0 Parseid=0"));
    // The target's property getter fails.
    Target target(0x20005, 0x80004005);
    Host().PostRegistry(*reg, 0, &target);
    EXPECT_TRUE(target.Paths().empty());
    EXPECT_TRUE(Traced(L"GetAnalyzeId GetProperty fail ret=0x80004005"));
}

TEST(BadInput, FullDataWithoutTerminatorOddSizesLongNamesAndPaths) {
    // 1,024 bytes of text with no NUL, an odd size, a 1,021-character value
    // name and a 2,000-character key path: cut, never overrun.
    const std::wstring data(512, L'a'), name(1021, L'n'), key = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\" + std::wstring(2000, L'k');
    std::unique_ptr<Event> ev(Event::Registry(6, key, &name, REG_SZ, data.data(), 1024, GetCurrentProcessId(),
                                              /*inlineStrings=*/false));
    auto targets = Post(*ev, 6);
    ASSERT_EQ(1u, targets.size());
    EXPECT_EQ(510u, targets[0].size());  // the last four bytes of the field are zeroed
    EXPECT_LE(PostValue(6, kKey, name.c_str(), REG_SZ, data, 6, 7).size(), 1u);
    EXPECT_LE(PostValue(6, kKey, name.c_str(), REG_MULTI_SZ, data, 14, 1024).size(), 1u);
}
