// The analysis object on records built directly: the record's layout, the
// refusals of AnalyzItem, the dispatch codes and the result steps.
#include "analyze/analizy_operate.h"
#include "support/fixtures.h"
#include "support/recording_sink.h"

#include "diag/trace.h"

#include <gtest/gtest.h>

#include <memory>

using namespace kw;

namespace {

std::unique_ptr<ANALYZE_ITEM> MakeItem(uint32_t dsid, uint32_t op, const std::wstring& subkey,
                                       const std::wstring& valueName, const std::wstring& data,
                                       uint32_t type = REG_SZ) {
    std::unique_ptr<ANALYZE_ITEM> item(new ANALYZE_ITEM());
    memset(item.get(), 0, sizeof(ANALYZE_ITEM));
    item->dwSize = kAnalyzeItemSize;
    item->dsid = dsid;
    item->dwOperate = op;
    item->hRootkey = KW_HKEY_LOCAL_MACHINE;
    CopyBounded(item->szSubkey, kSubkeyChars, subkey.c_str());
    CopyBounded(item->szValuename, kValueNameChars, valueName.c_str());
    item->dwProcessId = GetCurrentProcessId();
    item->dwValueType = type;
    size_t cb = std::min<size_t>((data.size() + 1) * 2, kDataBytes);
    memcpy(item->data, data.c_str(), cb);
    item->dwDataSize = static_cast<uint32_t>(cb);
    return item;
}

RegRule Rule(int function, uint32_t check = 0, const std::wstring& param = L"") {
    RegRule r;
    r.ParseID = 9;
    r.FunctionID = function;
    r.CheckID = check;
    r.Parameter1 = param;
    return r;
}

std::string Dump(kwtest::RecordingSink& sink) {
    std::string out;
    for (const auto& l : sink.Lines()) out += std::string(l.text.begin(), l.text.end()) + "\n";
    return out;
}

class AnalyzItemTest : public ::testing::Test {
protected:
    void SetUp() override { SetLogSink(&sink); }
    void TearDown() override { SetLogSink(nullptr); }
    kwtest::RecordingSink sink;
};

}  // namespace

TEST(AnalysisRecord, EveryOffset) {
    EXPECT_EQ(0u, offsetof(ANALYZE_ITEM, dwSize));
    EXPECT_EQ(4u, offsetof(ANALYZE_ITEM, dsid));
    EXPECT_EQ(8u, offsetof(ANALYZE_ITEM, dwOperate));
    EXPECT_EQ(12u, offsetof(ANALYZE_ITEM, hRootkey));
    EXPECT_EQ(16u, offsetof(ANALYZE_ITEM, szSubkey));
    EXPECT_EQ(16u + 2048, offsetof(ANALYZE_ITEM, szValuename));
    EXPECT_EQ(4112u, offsetof(ANALYZE_ITEM, dwValueType));
    EXPECT_EQ(4116u, offsetof(ANALYZE_ITEM, data));
    EXPECT_EQ(5140u, offsetof(ANALYZE_ITEM, dwDataSize));
}

TEST(AnalysisRecord, TraceWords) {
    // The odd rows: the last operation, a combination of bits, the last root.
    EXPECT_STREQ("del value", OperateTraceWord(32));
    EXPECT_STREQ("opt err", OperateTraceWord(3));
    EXPECT_STREQ(L"HKEY_PERFORMANCE_NLSTEXT\\", RootKeyTracePrefix(0x80000060));
    EXPECT_STREQ(L"", RootKeyTracePrefix(0x12345678));
}

TEST_F(AnalyzItemTest, RecordRefusalsWriteNothing) {
    CAnalizyOperate op;
    std::set<std::wstring> out;
    auto item = MakeItem(9, 16, L"SOFTWARE\\x", L"v", L"C:\\a.exe");
    item->dwSize = 5143;
    EXPECT_EQ(3u, op.AnalyzItem(item.get(), out, Rule(5)));
    item->dwSize = kAnalyzeItemSize;
    item->dwValueType = REG_DWORD;
    EXPECT_EQ(3u, op.AnalyzItem(item.get(), out, Rule(5)));
    EXPECT_EQ(3u, op.AnalyzItem(nullptr, out, Rule(5)));
    EXPECT_TRUE(sink.Lines().empty());
    EXPECT_TRUE(out.empty());
    // A key operation is accepted whatever its type field holds.
    auto key = MakeItem(9, 1, L"SOFTWARE\\x", L"", L"", REG_DWORD);
    EXPECT_EQ(3u, op.AnalyzItem(key.get(), out, Rule(5)));  // the analyzer refuses a key operation
    EXPECT_TRUE(sink.Has(L"Start AnalyzRegvalueAsFilePath FunctionID=5"));
}

TEST_F(AnalyzItemTest, RuleSeventySixKeepsItsTokensInTheRecord) {
    for (uint32_t dsid : {76u, 77u, 9u}) {
        SCOPED_TRACE(dsid);
        CAnalizyOperate op;
        std::set<std::wstring> out;
        auto item = MakeItem(dsid, 16, L"SOFTWARE\\x", L"v", L"%SystemRoot%\\kw.exe", REG_EXPAND_SZ);
        op.AnalyzItem(item.get(), out, Rule(5));
        std::wstring after = RecordDataText(item.get());
        if (dsid == 9)
            EXPECT_EQ(std::wstring::npos, after.find(L'%')) << after;
        else
            EXPECT_EQ(L"%SystemRoot%\\kw.exe", after);
    }
}

TEST_F(AnalyzItemTest, TraceLineOfTheRecordUsesDollarForPercent) {
    CAnalizyOperate op;
    std::set<std::wstring> out;
    // Text holding a token is lower-cased by the 64-bit expansion of a WOW64 process.
    auto item = MakeItem(76, 16, L"SOFTWARE\\100%", L"v", L"C:\\kwtest-none\\%x%.exe");
    op.AnalyzItem(item.get(), out, Rule(5));
    EXPECT_TRUE(sink.Has(L"[INFO ][CAnalizyOperate::AnalyzItem]  [regscan] ||dsid:76||op:modify value||regpath:"
                         L"HKEY_LOCAL_MACHINE\\SOFTWARE\\100$\\[v]||filepath:c:\\kwtest-none\\$x$.exe;||ret:0"))
        << Dump(sink);
}

TEST_F(AnalyzItemTest, PathMismatchIsThreeWithItsLine) {
    CAnalizyOperate op;
    std::set<std::wstring> out;
    RegRule rule = Rule(5, 2);
    rule.RegRootkey = KW_HKEY_LOCAL_MACHINE;
    rule.RegSubkey = L"SOFTWARE\\Classes\\*\\shellex";
    auto item = MakeItem(9, 16, L"software\\classes\\txtfile\\shellex", L"v", L"C:\\a.exe");
    EXPECT_EQ(3u, op.AnalyzItem(item.get(), out, rule));
    EXPECT_TRUE(sink.Has(L"[ERROR][CAnalizyOperate::TestShortRegKeyPathName] TestShortRegKeyPathName CountPathLevel < 1."));
    EXPECT_TRUE(sink.Has(L"[ERROR][CAnalizyOperate::AnalyzItem] RegPathMatch Fail"));
    CopyBounded(item->szSubkey, kSubkeyChars, L"software\\classes\\txtfile\\shellex\\Menu");
    EXPECT_EQ(0u, op.AnalyzItem(item.get(), out, rule));
}

struct MatchCase {
    const char* name;
    uint32_t check;
    uint32_t root;
    const wchar_t* pattern;
    int valueFlag;
    const wchar_t* valueName;
    bool expected;
};

TEST_F(AnalyzItemTest, RegPathMatchTable) {
    const MatchCase rows[] = {
        {"check 0 always", 0, 0, L"", 0, L"", true},
        {"check 1, no wildcard, value name case-insensitive", 1, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", 1, L"X", true},
        {"check 1, other value name", 1, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", 1, L"y", false},
        {"check 1, other root", 1, KW_HKEY_USERS, L"Software\\Run", 0, L"", false},
        {"check 1, empty sub-key", 1, KW_HKEY_LOCAL_MACHINE, L"", 0, L"", false},
        {"check 1, value name flag with empty name", 1, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", 1, L"", false},
        {"check 3 never", 3, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", 0, L"", false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        CAnalizyOperate op;
        RegRule rule = Rule(5, r.check);
        rule.RegRootkey = r.root;
        rule.RegSubkey = r.pattern;
        rule.bValueName = r.valueFlag;
        rule.RegValueName = r.valueName;
        auto item = MakeItem(9, 16, L"System\\Other", L"x", L"a");
        EXPECT_EQ(r.expected, op.RegPathMatch(item.get(), rule));
    }
}

TEST_F(AnalyzItemTest, DispatchCodes) {
    CAnalizyOperate op;
    auto item = MakeItem(9, 16, L"SOFTWARE\\x", L"v", L"C:\\a.exe");
    EXPECT_EQ(2u, op.HandOutRegParse(item.get(), Rule(23)));
    EXPECT_EQ(2u, op.HandOutRegParse(item.get(), Rule(0)));
    EXPECT_TRUE(sink.Lines().empty());
    for (int id : {1, 2, 3}) {
        EXPECT_EQ(1u, op.HandOutRegParse(item.get(), Rule(id)));
        EXPECT_TRUE(sink.Has(L"[ERROR][CAnalizyOperate::HandOutRegParse] FunctionId=" + std::to_wstring(id) +
                             L" Invalid parameter"));
    }
    // Every other id reaches an analyzer, which writes its start line.
    for (int id = 4; id <= 22; ++id) {
        sink.Clear();
        op.HandOutRegParse(item.get(), Rule(id));
        ASSERT_FALSE(sink.Lines().empty()) << id;
        EXPECT_NE(std::wstring::npos, sink.Lines()[0].text.find(L"FunctionID=" + std::to_wstring(id))) << id;
    }
}

TEST_F(AnalyzItemTest, ThreeFilesGiveConsecutiveSequenceNumbers) {
    kwtest::TempDir dir;
    std::wstring a = dir.File(L"a.dll"), b = dir.File(L"b.dll"), c = dir.File(L"c.dll");
    CAnalizyOperate op;
    auto entry = op.CreateEntry(9);
    ASSERT_TRUE(entry);
    EXPECT_EQ(1u, entry->seq);
    entry->subKey = L"k";
    EXPECT_EQ(1u, op.ParseFillNotify(L"(" + a + L";" + b + L";" + c + L")", std::move(entry), false, nullptr, false));
    ASSERT_EQ(3u, op.Results().size());
    uint32_t seq = 1;
    for (const auto& n : op.Results()) {
        EXPECT_EQ(seq++, n.seq);
        EXPECT_EQ(L"k", n.subKey);
    }
    EXPECT_TRUE(sink.Has(L"ParseFillNotify:out file2="));
}

TEST_F(AnalyzItemTest, NothingResolvedKeepsTheTextOrDropsTheEntry) {
    CAnalizyOperate op;
    EXPECT_EQ(1u, op.ParseFillNotify(L"C:\\kwtest-none\\x.exe", op.CreateEntry(9), true, nullptr, false));
    EXPECT_TRUE(op.Results().empty());
    EXPECT_EQ(1u, op.ParseFillNotify(L"C:\\kwtest-none\\x.exe", op.CreateEntry(9), false, nullptr, false));
    ASSERT_EQ(1u, op.Results().size());
    EXPECT_EQ(L"C:\\kwtest-none\\x.exe", op.Results().front().filePath);
}

TEST_F(AnalyzItemTest, PushDropsDirectoriesAndSysnativePaths) {
    kwtest::TempDir dir;
    CAnalizyOperate op;
    auto dirEntry = op.CreateEntry(9);
    dirEntry->filePath = dir.Path();
    op.PushNotifyEntry(std::move(dirEntry));
    auto sysnative = op.CreateEntry(9);
    sysnative->filePath = kwtest::WindowsDir() + L"\\SysNative\\x.exe";
    op.PushNotifyEntry(std::move(sysnative));
    EXPECT_TRUE(op.Results().empty());
    op.m_bKeepDirectories = true;
    auto kept = op.CreateEntry(9);
    kept->filePath = dir.Path();
    op.PushNotifyEntry(std::move(kept));
    EXPECT_EQ(1u, op.Results().size());
    EXPECT_EQ(1, op.PushNotifyEntry(nullptr));
}

struct KeyTestRow {
    const char* name;
    bool useShort;
    uint32_t root;
    const wchar_t* pattern;
    const wchar_t* valueName;
    const wchar_t* reason;  // the end of the error line, or null for a match
    const wchar_t* recordName = L"v";  // the record's value name
};

// Every refusal writes one line: "[kwRegAnalyze][ERROR][CAnalizyOperate::<fn>] <fn> <reason>".
TEST_F(AnalyzItemTest, KeyPathTestLines) {
    const wchar_t* kRoot = L"pAnalizy hRootkey not hKey.";
    const wchar_t* kPath = L"pAnalizy szSubkey not invalid.";
    const wchar_t* kName = L"szValuename null.";
    const uint32_t hklm = KW_HKEY_LOCAL_MACHINE;
    const KeyTestRow rows[] = {
        {"root differs", false, KW_HKEY_USERS, L"SOFTWARE\\*", nullptr, kRoot},
        {"pattern differs", false, hklm, L"SYSTEM\\*", nullptr, kPath},
        {"value name differs", false, hklm, L"SOFTWARE\\*", L"other", kName},
        {"match", false, hklm, L"SOFTWARE\\*", L"V", nullptr},
        {"short: root differs", true, KW_HKEY_USERS, L"SOFTWARE\\*", nullptr, kRoot},
        {"short: pattern differs", true, hklm, L"SYSTEM\\*", nullptr, kPath},
        {"short: value name differs", true, hklm, L"SOFTWARE", L"other", kName},
        {"short: match one level below", true, hklm, L"SOFTWARE\\*", L"v", nullptr},
        {"default_null names the default value", false, hklm, L"SOFTWARE\\*", L"Default_NULL", nullptr, L""},
        {"short: default_null names the default value", true, hklm, L"SOFTWARE\\*", L"default_null", nullptr, L""},
        {"default_null is not a named value", false, hklm, L"SOFTWARE\\*", L"default_null", kName},
        {"short: a named rule does not take the default value", true, hklm, L"SOFTWARE\\*", L"v", kName, L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        sink.Clear();
        CAnalizyOperate op;
        auto item = MakeItem(9, 16, L"SOFTWARE\\x\\y", r.recordName, L"a");
        bool ok = r.useShort ? op.TestShortRegKeyPathName(item.get(), r.root, r.pattern, 1, r.valueName)
                             : op.TestRegKeyPathName(item.get(), r.root, r.pattern, r.valueName);
        EXPECT_EQ(r.reason == nullptr, ok);
        auto lines = sink.Lines();
        if (r.reason) {
            const std::wstring fn = r.useShort ? L"TestShortRegKeyPathName" : L"TestRegKeyPathName";
            ASSERT_EQ(1u, lines.size());
            EXPECT_EQ(L"[kwRegAnalyze][ERROR][CAnalizyOperate::" + fn + L"] " + fn + L" " + r.reason, lines[0].text);
        } else {
            EXPECT_TRUE(lines.empty());
        }
    }
}
