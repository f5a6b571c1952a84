// The rule parser: member types, validation, the last-rule-wins table, the
// control-set rewrite of sub-keys, the trace lines, and bad rule texts.
#include "rules/config_rule_parse.h"
#include "rules/rule_text_convert.h"

#include "common/handle.h"
#include "support/control_set_select.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <rapidjson/document.h>
#pragma GCC diagnostic pop

#include <string>
#include <vector>

using namespace kw;
using kwtest::ScopedSink;

namespace {

#define LINE_EX L"[kwRegAnalyze][INFO ][ConfigRuleParse::PRINTF_REGRULE_EX] "
#define LINE_RULE L"[kwRegAnalyze][INFO ][ConfigRuleParse::PRINTF_REGRULE] "
#define LINE_ARRY_ERR L"[kwRegAnalyze][ERROR][ConfigRuleParse::Json2RuleArry] "
#define LINE_PARSE_ERR LINE_ARRY_ERR L"ConfigRuleParse::Json2RuleArry parse json error="
#define LINE_SUBKEY L"[kwRegAnalyze][INFO ][ConfigRuleParse::TranslateSubkey] "

constexpr uint32_t HKLM = 0x80000002;
constexpr uint32_t HKU = 0x80000003;

// Keeps embedded NULs of a literal.
template <size_t N>
std::string Bytes(const char (&s)[N]) {
    return std::string(s, N - 1);
}

// Every field of every rule, keyed by the table's ParseID, embedded NULs kept.
std::vector<std::wstring> Fields(const RuleTable& table) {
    std::vector<std::wstring> out;
    for (const auto& kv : table) {
        const RegRule& r = kv.second;
        out.push_back(std::to_wstring(kv.first) + L"={" + std::to_wstring(r.ParseID) + L"," + std::to_wstring(r.FunctionID) +
                      L"," + std::to_wstring(r.CheckID) + L"," + std::to_wstring(r.bValueName) + L"," +
                      std::to_wstring(r.RegRootkey) + L",[" + r.RegSubkey + L"],[" + r.RegValueName + L"],[" + r.Parameter1 + L"]}");
    }
    return out;
}

void ExpectTable(const std::vector<RegRule>& expected, const RuleTable& table) {
    RuleTable want;
    for (const RegRule& r : expected) want[r.ParseID] = r;
    EXPECT_EQ(Fields(want), Fields(table));
}

// ---------------------------------------------------------------------------
// Json2RuleArry: one rule text per row, the whole table and every trace line.

struct ParseRow {
    const char* name;
    std::string text;
    bool result;
    std::vector<RegRule> rules;
    std::vector<std::wstring> lines;
};

// One valid rule: stored, and traced with index 0.
ParseRow Accepted(const char* name, std::string text, RegRule rule, const std::wstring& line) {
    return {name, std::move(text), true, {std::move(rule)}, {LINE_EX L"[0]" + line}};
}
// One rule refused: the refusal and the rule's plain line.
ParseRow Rejected(const char* name, std::string text, const std::wstring& id, const std::wstring& plain) {
    return {name, std::move(text), false, {},
            {LINE_ARRY_ERR L"Rule[0] ParseID:" + id + L" Not meet the requirement", LINE_RULE + plain}};
}
ParseRow ParseError(const char* name, std::string text, const std::wstring& codeAndOffset) {
    return {name, std::move(text), false, {}, {LINE_PARSE_ERR + codeAndOffset}};
}

// A rule text with the given rule array elements.
std::string Rules(const std::string& elements) { return "{\"RegParseConfig\":[" + elements + "]}"; }

const char kValid5[] =
    R"({"RegParseConfig":[{"ParseID":5,"FunctionID":5,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"Software\\x","RegValueName":"v"}]})";

TEST(Json2RuleArry, TableResultAndLines) {
    const std::wstring cs = kwtest::ControlSetNameFromRegistry();  // this machine's, read from the prefix's registry
    ASSERT_FALSE(cs.empty()) << "the prefix has no System\\Select Current";
    const ParseRow rows[] = {
        Accepted("valid rule with value name", kValid5, RegRule{5, 5, 1, 1, HKLM, L"Software\\x", L"v"},
                 L"parseID:5 FunctionID:5 CheckID:1 HKEY:HKEY_LOCAL_MACHINE SubKey:Software\\x value:v"),
        Accepted("valid rule with a parameter, percent signs are printed as they are",
                 Rules(R"({"ParseID":6,"FunctionID":1,"RegRootkey":2147483651,"RegSubkey":"S\\y","RegValueName":"v","Parameter1":"%s %n"})"),
                 RegRule{6, 1, 0, 1, HKU, L"S\\y", L"v", L"%s %n"},
                 L"parseID:6 FunctionID:1 CheckID:0 HKEY:HKEY_USERS SubKey:S\\y value:v Parameter1:%s %n(5)"),
        Accepted("root key given without value name, the highest CheckID",
                 Rules(R"({"ParseID":8,"FunctionID":2,"CheckID":2,"RegRootkey":2147483651,"RegSubkey":"S\\y","Parameter1":"x"})"),
                 RegRule{8, 2, 2, 0, HKU, L"S\\y", L"", L"x"}, L"parseID:8 FunctionID:2 CheckID:2 HKEY:HKEY_USERS SubKey:S\\y"),
        Accepted("empty value name sets the flag",
                 Rules(R"({"ParseID":8,"FunctionID":2,"RegRootkey":2147483650,"RegSubkey":"S","RegValueName":""})"),
                 RegRule{8, 2, 0, 1, HKLM, L"S"}, L"parseID:8 FunctionID:2 CheckID:0 HKEY:HKEY_LOCAL_MACHINE SubKey:S"),
        Accepted("no root key and no parameter", Rules(R"({"ParseID":7,"FunctionID":1})"), RegRule{7, 1},
                 L"parseID:7 FunctionID:1 CheckID:0 HKEY:0"),
        Accepted("no root key with parameter and any sub-key", Rules(R"({"ParseID":7,"FunctionID":1,"RegSubkey":"a","Parameter1":",;"})"),
                 RegRule{7, 1, 0, 0, 0, L"a", L"", L",;"}, L"parseID:7 FunctionID:1 CheckID:0 HKEY:0 Parameter1:,;(2)"),
        Accepted("FunctionID above the analyzer range is left to dispatch", Rules(R"({"ParseID":1,"FunctionID":23})"),
                 RegRule{1, 23}, L"parseID:1 FunctionID:23 CheckID:0 HKEY:0"),
        Accepted("root key as a float is ignored", Rules(R"({"ParseID":3,"FunctionID":1,"RegRootkey":2147483650.0,"RegSubkey":"x"})"),
                 RegRule{3, 1, 0, 0, 0, L"x"}, L"parseID:3 FunctionID:1 CheckID:0 HKEY:0"),
        Accepted("root key above 32 bits keeps its low 32 bits",
                 Rules(R"({"ParseID":3,"FunctionID":1,"RegRootkey":6442450947,"RegSubkey":"x"})"),
                 RegRule{3, 1, 0, 0, HKU, L"x"}, L"parseID:3 FunctionID:1 CheckID:0 HKEY:HKEY_USERS SubKey:x"),
        Accepted("root key beyond signed 64 bits is ignored", Rules(R"({"ParseID":3,"FunctionID":1,"RegRootkey":18446744073709551615})"),
                 RegRule{3, 1}, L"parseID:3 FunctionID:1 CheckID:0 HKEY:0"),
        Accepted("CheckID beyond signed 32 bits leaves the field 0", Rules(R"({"ParseID":4,"FunctionID":1,"CheckID":4294967295})"),
                 RegRule{4, 1}, L"parseID:4 FunctionID:1 CheckID:0 HKEY:0"),
        Accepted("strings of other JSON types are ignored",
                 Rules(R"({"ParseID":5,"FunctionID":5,"RegSubkey":true,"RegValueName":null,"Parameter1":5})"), RegRule{5, 5},
                 L"parseID:5 FunctionID:5 CheckID:0 HKEY:0"),
        Rejected("HKEY_CURRENT_USER root is rejected",
                 Rules(R"({"ParseID":9,"FunctionID":1,"RegRootkey":2147483649,"RegSubkey":"Software"})"),
                 L"9", L"parseID:9 FunctionID:1 CheckID:0 HKEY:NULL SubKey:Software"),
        Rejected("HKEY_LOCAL_MACHINE without sub-key is rejected",
                 Rules(R"({"ParseID":9,"FunctionID":1,"RegRootkey":2147483650,"RegValueName":"v","Parameter1":"p"})"),
                 L"9", L"parseID:9 FunctionID:1 CheckID:0 HKEY:HKEY_LOCAL_MACHINE SubKey:"),
        Rejected("CheckID 3 is rejected, its line with sub-key and value name",
                 Rules(R"({"ParseID":5,"FunctionID":5,"CheckID":3,"RegRootkey":2147483651,"RegSubkey":"S","RegValueName":"v"})"), L"5",
                 L"parseID:5 FunctionID:5 CheckID:3 HKEY:HKEY_USERS SubKey:S value:v"),
        Rejected("negative CheckID is rejected as a large unsigned number", Rules(R"({"ParseID":5,"FunctionID":5,"CheckID":-1})"), L"5",
                 L"parseID:5 FunctionID:5 CheckID:-1 "),
        Rejected("ParseID 0 is rejected", Rules(R"({"ParseID":0,"FunctionID":5})"), L"0", L"parseID:0 FunctionID:5 CheckID:0 "),
        Rejected("FunctionID -1 is rejected, its line with every field and percent signs as they are",
                 Rules(R"({"ParseID":5,"FunctionID":-1,"RegRootkey":2147483650,"RegSubkey":"%s%d","RegValueName":"%n","Parameter1":"%%"})"),
                 L"5", L"parseID:5 FunctionID:-1 CheckID:0 HKEY:HKEY_LOCAL_MACHINE SubKey:%s%d value:%n Parameter1:%%"),
        Rejected("floating ParseID is not an integer", Rules(R"({"ParseID":5.0,"FunctionID":5})"), L"0",
                 L"parseID:0 FunctionID:5 CheckID:0 "),
        {"invalid rule does not stop the following ones", Rules(R"({"ParseID":1,"FunctionID":1,"CheckID":3},{"ParseID":2,"FunctionID":2})"),
         false, {RegRule{2, 2}},
         {LINE_ARRY_ERR L"Rule[0] ParseID:1 Not meet the requirement", LINE_RULE L"parseID:1 FunctionID:1 CheckID:3 ",
          LINE_EX L"[1]parseID:2 FunctionID:2 CheckID:0 HKEY:0"}},
        {"the later rule with the same ParseID wins",
         Rules(R"({"ParseID":5,"FunctionID":1,"Parameter1":"first"},{"ParseID":5,"FunctionID":2})"), true, {RegRule{5, 2}},
         {LINE_EX L"[0]parseID:5 FunctionID:1 CheckID:0 HKEY:0 Parameter1:first(5)",
          LINE_EX L"[1]parseID:5 FunctionID:2 CheckID:0 HKEY:0"}},
        {"an invalid duplicate does not replace the valid rule", Rules(R"({"ParseID":5,"FunctionID":1},{"ParseID":5,"FunctionID":0})"),
         false, {RegRule{5, 1}},
         {LINE_EX L"[0]parseID:5 FunctionID:1 CheckID:0 HKEY:0", LINE_ARRY_ERR L"Rule[1] ParseID:5 Not meet the requirement",
          LINE_RULE L"parseID:5 FunctionID:0 CheckID:0 "}},
        {"elements that are not objects are skipped", Rules(R"(1,[],{"ParseID":3,"FunctionID":3})"), false, {RegRule{3, 3}},
         {LINE_ARRY_ERR L"Rule[0] is not an object", LINE_ARRY_ERR L"Rule[1] is not an object",
          LINE_EX L"[2]parseID:3 FunctionID:3 CheckID:0 HKEY:0"}},
        {"RegParseConfig that is an object gives an empty table", R"({"RegParseConfig":{"ParseID":3,"FunctionID":3}})", true, {}, {}},
        {"missing RegParseConfig gives an empty table", R"({"Other":[{"ParseID":3,"FunctionID":3}]})", true, {}, {}},
        {"root array gives an empty table", R"([{"RegParseConfig":[]}])", true, {}, {}},
        Accepted("UTF-8 outside the basic plane counts two characters",
                 "{\"RegParseConfig\":[{\"ParseID\":3,\"FunctionID\":3,\"Parameter1\":\"\xF0\x9F\x98\x80\"}]}",
                 RegRule{3, 3, 0, 0, 0, L"", L"", L"\xD83D\xDE00"}, L"parseID:3 FunctionID:3 CheckID:0 HKEY:0 Parameter1:\xD83D\xDE00(2)"),
        Accepted("invalid UTF-8 is replaced, not rejected",
                 "{\"RegParseConfig\":[{\"ParseID\":3,\"FunctionID\":3,\"Parameter1\":\"a\xFF" "b\"}]}",
                 RegRule{3, 3, 0, 0, 0, L"", L"", L"a\xFFFD" L"b"}, L"parseID:3 FunctionID:3 CheckID:0 HKEY:0 Parameter1:a\xFFFD" L"b(3)"),
        Accepted("an escaped NUL ends a string value", Rules(R"({"ParseID":3,"FunctionID":3,"Parameter1":"ab\u0000cd"})"),
                 RegRule{3, 3, 0, 0, 0, L"", L"", L"ab"}, L"parseID:3 FunctionID:3 CheckID:0 HKEY:0 Parameter1:ab(2)"),
        Accepted("text after a NUL byte is ignored", Bytes("{\"RegParseConfig\":[{\"ParseID\":3,\"FunctionID\":3}]}\0garbage"),
                 RegRule{3, 3}, L"parseID:3 FunctionID:3 CheckID:0 HKEY:0"),
        {"CurrentControlSet in the sub-key is this machine's control set",
         Rules(R"({"ParseID":2,"FunctionID":9,"RegRootkey":2147483650,"RegSubkey":"SYSTEM\\CurrentControlSet\\Services\\*"})"), true,
         {RegRule{2, 9, 0, 0, HKLM, L"SYSTEM\\" + cs + L"\\Services\\*"}},
         {LINE_SUBKEY L"TranslateSubkey old=SYSTEM\\CurrentControlSet\\Services\\* New= SYSTEM\\" + cs + L"\\Services\\*",
          LINE_EX L"[0]parseID:2 FunctionID:9 CheckID:0 HKEY:HKEY_LOCAL_MACHINE SubKey:SYSTEM\\" + cs + L"\\Services\\*"}},
        ParseError("a NUL byte inside the document ends the text", Bytes("{\"RegParseConfig\":[\0{\"ParseID\":3,\"FunctionID\":3}]}"),
                   L"3, offset=19"),
        ParseError("a leading NUL byte reads as empty text", Bytes("\0{\"RegParseConfig\":[]}"), L"1, offset=0"),
    };
    for (const ParseRow& row : rows) {
        SCOPED_TRACE(row.name);
        ScopedSink cap;
        RuleTable table{{999, RegRule{999, 1}}};  // a table that is not empty beforehand
        EXPECT_EQ(row.result, ConfigRuleParse().Json2RuleArry(row.text, table));
        ExpectTable(row.rules, table);
        EXPECT_EQ(row.lines, cap.Texts());
    }
}

// Iterative parsing must report what the recursive default reports.
TEST(Json2RuleArry, ParseErrorsMatchTheDefaultParser) {
    const char* texts[] = {"", "   ", "{", "{\"RegParseConfig\":[", "{\"RegParseConfig\":[]} x", "[1,]",
                           "{\"a\":1,}", "/*c*/{}", "{\"a\" 1}", "{\"a\":1 \"b\":2}", "[1 2]", "\"\\uZZZZ\"",
                           "\"\\uD800\"", "\"\\x\"", "\"abc", "1.", "1e", "01", "-", "nul", "[1]]",
                           "{\"RegParseConfig\":[{\"ParseID\":1}]}}", "1e999999", "]", "  ]", "}", ",", "x",
                           "\x01"};
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        rapidjson::Document reference;
        reference.Parse(text);
        ASSERT_TRUE(reference.HasParseError());
        ScopedSink cap;
        RuleTable table;
        EXPECT_FALSE(ConfigRuleParse().Json2RuleArry(text, table));
        EXPECT_EQ(std::vector<std::wstring>{LINE_PARSE_ERR + std::to_wstring(reference.GetParseError()) + L", offset=" +
                                            std::to_wstring(reference.GetErrorOffset())},
                  cap.Texts());
    }
}

// ---------------------------------------------------------------------------
// Bad input: no memory, deep nesting, many rules, huge strings.

// Running out of memory while parsing is a parse error (code 16, parsing
// terminated, at the offset reached), never a fault; the cap stands in for the
// machine's memory. Deep nesting parses without recursion: the text's rules are
// read, the nested element skipped and a nested member of a rule ignored.
TEST(Json2RuleArryBadInput, NoMemoryAndDeepNesting) {
    std::string many = "{\"RegParseConfig\":[";
    for (int i = 1; i <= 200; ++i)
        many += (i > 1 ? "," : "") + std::string("{\"ParseID\":") + std::to_string(i) + ",\"FunctionID\":5,\"RegSubkey\":\"" +
                std::string(100, 'k') + "\"}";
    many += "]}";
    const size_t deep = 100000;
    const std::string open(deep, '['), closed(deep, ']');
    std::string deepObjects;
    for (size_t i = 0; i < deep; ++i) deepObjects += "{\"a\":";
    deepObjects += "0" + std::string(deep, '}');
    const struct {
        const char* name;
        std::string text;
        size_t cbLimit;
        bool result;
        size_t rules;
        std::wstring error;  // the parse error line after its "error=", "{n}" for any number
    } rows[] = {
        {"no memory at all", many, 0, false, 0, L"16, offset={n}"},
        {"memory for part of the text", many, 8192, false, 0, L"16, offset={n}"},
        {"enough memory", many, 1u << 20, true, 200, L""},
        {"unclosed arrays", open, SIZE_MAX, false, 0, L"3, offset=100000"},
        {"closed arrays as the root", open + closed, SIZE_MAX, true, 0, L""},
        {"nested element is skipped", "{\"RegParseConfig\":[" + open + closed + ",{\"ParseID\":1,\"FunctionID\":1}]}", SIZE_MAX, false, 1,
         L""},
        {"nested member inside a valid rule", "{\"RegParseConfig\":[{\"ParseID\":1,\"Extra\":" + deepObjects + ",\"FunctionID\":2}]}",
         SIZE_MAX, true, 1, L""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetRuleParseMemoryLimit(row.cbLimit);
        ScopedSink cap;
        RuleTable table;
        const bool ok = ConfigRuleParse().Json2RuleArry(row.text, table);
        SetRuleParseMemoryLimit(SIZE_MAX);
        EXPECT_EQ(row.result, ok);
        EXPECT_EQ(row.rules, table.size());
        if (row.error.empty()) continue;
        ASSERT_EQ(1u, cap.Texts().size());
        EXPECT_TRUE(kwtest::LineMatches(cap.Texts()[0], LINE_PARSE_ERR + row.error)) << testing::PrintToString(cap.Texts()[0]);
    }
}

// Many rules and huge strings are kept whole: no count or length limit.
TEST(Json2RuleArryBadInput, ManyRulesAndHugeStrings) {
    const int count = 100000;
    std::string text = "{\"RegParseConfig\":[";
    for (int i = 1; i <= count; ++i)
        text += "{\"ParseID\":" + std::to_string(i) + ",\"FunctionID\":1,\"RegSubkey\":\"k" + std::to_string(i) + "\"},";
    const std::string big(1000000, 'v');
    text += "{\"ParseID\":" + std::to_string(count + 1) + ",\"FunctionID\":1,\"RegRootkey\":2147483650,\"RegSubkey\":\"" +
            big + "\",\"RegValueName\":\"" + big + "\",\"Parameter1\":\"" + big + "\"}]}";
    ScopedSink cap;
    RuleTable table;
    EXPECT_TRUE(ConfigRuleParse().Json2RuleArry(text, table));
    ASSERT_EQ(static_cast<size_t>(count + 1), table.size());
    EXPECT_EQ(L"k100000", table.at(count).RegSubkey);
    const RegRule& huge = table.at(count + 1);
    EXPECT_EQ((std::vector<size_t>{big.size(), big.size(), big.size()}),
              (std::vector<size_t>{huge.RegSubkey.size(), huge.RegValueName.size(), huge.Parameter1.size()}));
    EXPECT_EQ(static_cast<size_t>(count + 1), cap.Texts().size());
}

// An empty text keeps the table and traces the last error; any other text,
// parsed also without a sink, replaces the table (a parse error clears it).
TEST(ConfigFileToRegditRule, EmptyTextKeepsTheTableOtherTextIsParsed) {
    RuleTable table{{7, RegRule{7, 1}}};
    {
        ScopedSink cap;
        SetLastError(1234);
        EXPECT_FALSE(ConfigRuleParse().ConfigFileToRegditRule(std::string(), table));
        EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][ERROR][ConfigRuleParse::ConfigFileToRegditRule] "
                                            L"ConfigFileToRegditRule ConfigContent.length = 0  Fail:1234"},
                  cap.Texts());
    }
    ExpectTable({RegRule{7, 1}}, table);
    EXPECT_TRUE(ConfigRuleParse().ConfigFileToRegditRule(kValid5, table));
    ExpectTable({RegRule{5, 5, 1, 1, HKLM, L"Software\\x", L"v"}}, table);
    EXPECT_FALSE(ConfigRuleParse().ConfigFileToRegditRule("{", table));
    EXPECT_TRUE(table.empty());
}

// ---------------------------------------------------------------------------
// TranslateSubkey with a given control-set name; a changed sub-key is traced.

TEST(TranslateSubkey, Rewrites) {
    const std::wstring a511(511, L'a'), r1100(1100, L'r'), longName = L"ControlSetWithAVeryLongNameOfFortyChars!";
    const struct {
        const char* name;
        std::wstring subkey;
        std::wstring expected;
        const wchar_t* controlSet = L"ControlSet001";
    } rows[] = {
        {"control set 1", L"SYSTEM\\CurrentControlSet\\Services\\*", L"SYSTEM\\ControlSet001\\Services\\*"},
        {"token in other case", L"system\\currentcontrolset\\services", L"system\\ControlSet001\\services"},
        {"token at the start has no prefix", L"CurrentControlSet\\Services", L"\\ControlSet001\\Services"},
        {"only the first token", L"A\\CurrentControlSet\\B\\CurrentControlSet", L"A\\ControlSet001\\B\\CurrentControlSet"},
        {"the character before the token is replaced by a backslash", L"SYSTEM/CurrentControlSetX", L"SYSTEM\\ControlSet001X"},
        {"no token leaves the sub-key", L"Software\\Microsoft\\Run", L"Software\\Microsoft\\Run"},
        {"prefix of 511 characters is kept", a511 + L"\\CurrentControlSet\\x", a511 + L"\\ControlSet001\\x"},
        {"prefix of 512 characters is cut to 511", a511 + L"a\\CurrentControlSet\\x", a511 + L"\\ControlSet001\\x"},
        {"token ending at character 1023 is found", std::wstring(1005, L'a') + L"\\CurrentControlSet", a511 + L"\\ControlSet001"},
        {"token beyond character 1023 is not seen", std::wstring(1006, L'a') + L"\\CurrentControlSet",
         std::wstring(1006, L'a') + L"\\CurrentControlSet"},
        {"result is cut to 1023 characters", L"S\\CurrentControlSet\\" + r1100, (L"S\\" + longName + L"\\" + r1100).substr(0, 1023),
         longName.c_str()},
        {"null name counts as empty", L"SYSTEM\\CurrentControlSet\\Services", L"SYSTEM\\\\Services", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScopedSink cap;
        RegRule rule{1, 1, 0, 0, HKLM, row.subkey};
        EXPECT_TRUE(ConfigRuleParse().TranslateSubkey(rule, row.controlSet));
        EXPECT_EQ(row.expected, rule.RegSubkey);
        std::vector<std::wstring> lines;
        if (row.expected != row.subkey) lines.push_back(LINE_SUBKEY L"TranslateSubkey old=" + row.subkey + L" New= " + row.expected);
        EXPECT_EQ(lines, cap.Texts());
    }
}

// ---------------------------------------------------------------------------
// Conversion through the host's base library when it is loaded.

TEST(RuleTextConversion, BaseLibraryConvertsWhenLoaded) {
    unique_module base(LoadLibraryW(L"HolmBase.dll"));  // the program's folder is searched first
    ASSERT_TRUE(base) << "stand-in HolmBase.dll not built beside the test";
    using CounterFn = long(__stdcall*)();
    auto counter = [&](const char* name) { return reinterpret_cast<CounterFn>(reinterpret_cast<void*>(GetProcAddress(base.get(), name))); };
    CounterFn calls = counter("HolmBaseConvertCalls"), live = counter("HolmBaseLiveObjects"), codePage = counter("HolmBaseLastCodePage");
    ASSERT_TRUE(calls && live && codePage);

    const long before = calls();
    RuleTable table;
    EXPECT_TRUE(ConfigRuleParse().Json2RuleArry(
        Rules("{\"ParseID\":1,\"FunctionID\":1,\"RegRootkey\":2147483651,\"RegSubkey\":\"S\\\\k\",\"RegValueName\":\"\xE5\x90\x8D\","
              "\"Parameter1\":\"p\"},{\"ParseID\":2,\"FunctionID\":1,\"Parameter1\":\"\"}"),
        table));
    ExpectTable({RegRule{1, 1, 0, 1, HKU, L"S\\k", L"\u540d", L"p"}, RegRule{2, 1}}, table);
    // Three non-empty strings, each a size query and a conversion; the empty one needs none.
    EXPECT_EQ(6, calls() - before);
    EXPECT_EQ(65001, codePage());
    EXPECT_EQ(0, live()) << "every converter object is released";
    {
        CRuleTextConverter conv;
        EXPECT_TRUE(conv.UsesBaseLibrary());
        EXPECT_EQ(1, live()) << "one object serves the whole converter";
        EXPECT_EQ(L"a\u540d", conv.ToWide("a\xE5\x90\x8D", 4));
        EXPECT_EQ(L"", conv.ToWide("", 0));
    }
    EXPECT_EQ(0, live());
}
}  // namespace
