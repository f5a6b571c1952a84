// FunctionID 16 on autorun files written by the test: which lines yield a
// command, the per-section dedup and the section and line limits.
#include "analyze/analizy_operate.h"
#include "common/strutil.h"
#include "support/fixtures.h"

#include <gtest/gtest.h>

#include <memory>

using namespace kw;

namespace {

// The entries' paths (commands that name no file are reported as written).
std::vector<std::wstring> Analyse(const std::wstring& ini) {
    std::unique_ptr<ANALYZE_ITEM> item(new ANALYZE_ITEM{kAnalyzeItemSize});
    CopyBounded(item->szSubkey, kSubkeyChars, ini.c_str());
    CAnalizyOperate op;
    std::set<std::wstring> found;
    EXPECT_EQ(0u, op.AnalyzFileItem(item.get(), 16, found));
    std::vector<std::wstring> paths;
    for (const auto& e : op.Results()) paths.push_back(e.filePath);
    return paths;
}

std::string Filler(size_t lines) {
    std::string s;
    for (size_t i = 0; i < lines; ++i) s += "k" + std::to_string(i) + "=" + std::string(60, 'f') + "\r\n";
    return s;
}

}  // namespace

TEST(DiskAutorun, SectionLines) {
    kwtest::TempDir dir;
    const std::string cmd(1100, 'c');
    const struct { const char* name; std::string content; std::vector<std::wstring> paths; } cases[] = {
        {"keys in order of test, repeat in a section skipped",
         "[autorun]\r\nicon=i.exe\r\nxopen=a.exe\r\nOpen=a.exe\r\nSHELLEXECUTE=b.exe\r\nshell\\x=n.exe\r\n"
         "shell\\x\\command=c.exe\r\ncommand=shell\\d.exe\r\nopen=\r\n",
         {L"a.exe", L"b.exe", L"c.exe"}},
        {"same command in both sections", "[AutoRun.alpha]\r\nopen=a.exe\r\n[AUTORUN]\r\nopen=a.exe\r\n", {L"a.exe", L"a.exe"}},
        {"other section", "[autorun.x]\r\nopen=a.exe\r\n", {}},
        {"line of 1,022 characters", "[autorun]\r\nopen=" + cmd.substr(0, 1017) + "\r\n", {std::wstring(1017, L'c')}},
        {"line of 1,023 characters", "[autorun]\r\nopen=" + cmd.substr(0, 1018) + "\r\n", {std::wstring(1018, L'c')}},
        {"line of 1,024 characters: cut", "[autorun]\r\nopen=" + cmd.substr(0, 1019) + "\r\n", {std::wstring(1018, L'c')}},
        {"section over 65,536 characters: walked as far as read",
         "[autorun]\r\nopen=first.exe\r\n" + Filler(1200) + "open=last.exe\r\n", {L"first.exe"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.paths, Analyse(dir.File(L"autorun.inf", c.content)));
    }
    EXPECT_TRUE(Analyse(dir.Path() + L"\\missing.inf").empty());
}
