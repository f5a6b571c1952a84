// The analysis object on records built directly: the record's layout, the
// refusals of AnalyzItem, the dispatch codes and the result steps.
#include "analyze/analizy_operate.h"
#include "support/fixtures.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <memory>

using namespace kw;

namespace {

std::unique_ptr<ANALYZE_ITEM> MakeItem(uint32_t dsid, uint32_t op, const std::wstring& subkey, const std::wstring& valueName,
                                       const std::wstring& data, uint32_t type = REG_SZ) {
    std::unique_ptr<ANALYZE_ITEM> item(new ANALYZE_ITEM{kAnalyzeItemSize, dsid, op, KW_HKEY_LOCAL_MACHINE});
    CopyBounded(item->szSubkey, kSubkeyChars, subkey.c_str());
    CopyBounded(item->szValuename, kValueNameChars, valueName.c_str());
    item->dwProcessId = GetCurrentProcessId();
    item->dwValueType = type;
    size_t cb = std::min<size_t>((data.size() + 1) * 2, kDataBytes);
    memcpy(item->data, data.c_str(), cb);
    item->dwDataSize = static_cast<uint32_t>(cb);
    return item;
}

class AnalyzItemTest : public ::testing::Test {
protected:
    kwtest::ScopedSink log;
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

// Records refused before any analyzer runs write no line; a key operation reaches the analyzer whatever its type
// field holds; a record whose key does not match the rule is refused with its line.
TEST_F(AnalyzItemTest, RecordRefusals) {
    const struct { const char* name; uint32_t size, op, type; RegRule rule; const wchar_t* line; } rows[] = {
        {"record one byte short", kAnalyzeItemSize - 1, 16, REG_SZ, {9, 5}, nullptr},
        {"value write of a type that is no text", kAnalyzeItemSize, 16, REG_DWORD, {9, 5}, nullptr},
        {"key operation, refused by the analyzer", kAnalyzeItemSize, 1, REG_DWORD, {9, 5}, L"Start AnalyzRegvalueAsFilePath FunctionID=5"},
        {"key path does not match the rule", kAnalyzeItemSize, 16, REG_SZ, {9, 5, 2, 0, KW_HKEY_LOCAL_MACHINE, L"SOFTWARE\\*\\y"},
         L"[ERROR][CAnalizyOperate::AnalyzItem] RegPathMatch Fail"},
    };
    std::set<std::wstring> out;  // stays empty
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        log.sink.Clear();
        CAnalizyOperate op;
        auto item = MakeItem(9, r.op, L"SOFTWARE\\x\\y", L"v", L"C:\\a.exe", r.type);
        item->dwSize = r.size;
        EXPECT_EQ(3u, op.AnalyzItem(item.get(), out, r.rule));
        EXPECT_TRUE(out.empty());
        EXPECT_TRUE(r.line ? log.sink.Has(r.line) : log.sink.Lines().empty());
    }
    EXPECT_EQ(3u, CAnalizyOperate().AnalyzItem(nullptr, out, RegRule{9, 5}));
}

// Rules 76 and 77 keep the expandable data's tokens in the record; another rule's record holds the expansion.
TEST_F(AnalyzItemTest, RuleSeventySixKeepsItsTokensInTheRecord) {
    for (uint32_t dsid : {76u, 77u, 9u}) {
        SCOPED_TRACE(dsid);
        std::set<std::wstring> out;
        auto item = MakeItem(dsid, 16, L"SOFTWARE\\x", L"v", L"%SystemRoot%\\kw.exe", REG_EXPAND_SZ);
        CAnalizyOperate().AnalyzItem(item.get(), out, RegRule{9, 5});
        const std::wstring expected = dsid == 9 ? kwtest::WindowsDir() + L"\\kw.exe" : L"%SystemRoot%\\kw.exe";
        EXPECT_EQ(kwtest::Upper(expected), kwtest::Upper(RecordDataText(item.get())));  // the expansion may change case
    }
}

TEST_F(AnalyzItemTest, TraceLineOfTheRecordUsesDollarForPercent) {
    std::set<std::wstring> out;
    // Text holding a token is lower-cased by the 64-bit expansion of a WOW64 process.
    CAnalizyOperate().AnalyzItem(MakeItem(76, 16, L"SOFTWARE\\100%", L"v", L"C:\\kwtest-none\\%x%.exe").get(), out, RegRule{9, 5});
    EXPECT_TRUE(log.sink.Has(L"[INFO ][CAnalizyOperate::AnalyzItem]  [regscan] ||dsid:76||op:modify value||regpath:"
                             L"HKEY_LOCAL_MACHINE\\SOFTWARE\\100$\\[v]||filepath:c:\\kwtest-none\\$x$.exe;||ret:0"))
        << ::testing::PrintToString(log.Texts());
}

TEST_F(AnalyzItemTest, RegPathMatchTable) {
    // The rule (ParseID, FunctionID, check, value-name flag, root, key pattern, value name) against the record
    // "System\Other" with the row's value name.
    const struct { const char* name; RegRule rule; const wchar_t* recordName; bool expected; } rows[] = {
        {"check 0 always", {9, 5, 0}, L"x", true},
        {"check 1, no wildcard, value name case-insensitive", {9, 5, 1, 1, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", L"X"}, L"x", true},
        {"check 1, other value name", {9, 5, 1, 1, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", L"y"}, L"x", false},
        {"check 1, other root", {9, 5, 1, 0, KW_HKEY_USERS, L"Software\\Run"}, L"x", false},
        {"check 1, empty sub-key", {9, 5, 1, 0, KW_HKEY_LOCAL_MACHINE, L""}, L"x", false},
        {"check 1, value name flag with empty name", {9, 5, 1, 1, KW_HKEY_LOCAL_MACHINE, L"Software\\Run", L""}, L"", false},
        {"check 3 never", {9, 5, 3, 0, KW_HKEY_LOCAL_MACHINE, L"Software\\Run"}, L"x", false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.expected, CAnalizyOperate().RegPathMatch(MakeItem(9, 16, L"System\\Other", r.recordName, L"a").get(), r.rule));
    }
}

TEST_F(AnalyzItemTest, DispatchCodes) {
    CAnalizyOperate op;
    auto item = MakeItem(9, 16, L"SOFTWARE\\x", L"v", L"C:\\a.exe");
    EXPECT_EQ(2u, op.HandOutRegParse(item.get(), RegRule{9, 23}));
    EXPECT_EQ(2u, op.HandOutRegParse(item.get(), RegRule{9, 0}));
    EXPECT_TRUE(log.sink.Lines().empty());
    for (int id : {1, 2, 3}) {
        EXPECT_EQ(1u, op.HandOutRegParse(item.get(), RegRule{9, id}));
        EXPECT_TRUE(log.sink.Has(L"[ERROR][CAnalizyOperate::HandOutRegParse] FunctionId=" + std::to_wstring(id) + L" Invalid parameter"));
    }
    // Every other id reaches an analyzer, which writes its start line.
    for (int id = 4; id <= 22; ++id) {
        log.sink.Clear();
        op.HandOutRegParse(item.get(), RegRule{9, id});
        ASSERT_FALSE(log.sink.Lines().empty()) << id;
        EXPECT_NE(std::wstring::npos, log.sink.Lines()[0].text.find(L"FunctionID=" + std::to_wstring(id))) << id;
    }
}

// Three files give consecutive sequence numbers; text that names no file is kept or the entry dropped.
TEST_F(AnalyzItemTest, ParseFillNotifyNumbersFilesAndKeepsOrDropsUnresolvedText) {
    kwtest::TempDir dir;
    std::wstring a = dir.File(L"a.dll"), b = dir.File(L"b.dll"), c = dir.File(L"c.dll");
    CAnalizyOperate op;
    auto entry = op.CreateEntry(9);
    ASSERT_TRUE(entry);
    EXPECT_EQ(1u, entry->seq);
    entry->subKey = L"k";
    EXPECT_EQ(1u, op.ParseFillNotify(L"(" + a + L";" + b + L";" + c + L")", std::move(entry), false, nullptr, false));
    std::vector<std::pair<uint32_t, std::wstring>> got;  // each entry's number and sub-key
    for (const auto& n : op.Results()) got.emplace_back(n.seq, n.subKey);
    EXPECT_EQ((std::vector<std::pair<uint32_t, std::wstring>>{{1, L"k"}, {2, L"k"}, {3, L"k"}}), got);
    EXPECT_TRUE(log.sink.Has(L"ParseFillNotify:out file2="));
    CAnalizyOperate other;
    EXPECT_EQ(1u, other.ParseFillNotify(L"C:\\kwtest-none\\x.exe", other.CreateEntry(9), true, nullptr, false));
    EXPECT_TRUE(other.Results().empty());
    EXPECT_EQ(1u, other.ParseFillNotify(L"C:\\kwtest-none\\x.exe", other.CreateEntry(9), false, nullptr, false));
    ASSERT_EQ(1u, other.Results().size());
    EXPECT_EQ(L"C:\\kwtest-none\\x.exe", other.Results().front().filePath);
}

TEST_F(AnalyzItemTest, PushDropsDirectoriesAndSysnativePaths) {
    kwtest::TempDir dir;
    CAnalizyOperate op;
    auto push = [&op](const std::wstring& path) {  // the number of results after the push
        auto entry = op.CreateEntry(9);
        entry->filePath = path;
        op.PushNotifyEntry(std::move(entry));
        return op.Results().size();
    };
    EXPECT_EQ(0u, push(dir.Path()));
    EXPECT_EQ(0u, push(kwtest::WindowsDir() + L"\\SysNative\\x.exe"));
    op.m_bKeepDirectories = true;
    EXPECT_EQ(1u, push(dir.Path()));
    EXPECT_EQ(1, op.PushNotifyEntry(nullptr));
}

// Every refusal writes one line: "[kwRegAnalyze][ERROR][CAnalizyOperate::<fn>] <fn> <reason>".
TEST_F(AnalyzItemTest, KeyPathTestLines) {
    const wchar_t *kRoot = L"pAnalizy hRootkey not hKey.", *kPath = L"pAnalizy szSubkey not invalid.";
    const wchar_t *kName = L"szValuename null.", *kLevel = L"CountPathLevel < 1.";
    const uint32_t hklm = KW_HKEY_LOCAL_MACHINE;
    // The short test asks for one level below the pattern's end. The record is SOFTWARE\x\y [v] unless named.
    const struct { const char* name; bool useShort; uint32_t root; const wchar_t *pattern, *valueName, *reason;
                   const wchar_t* recordName = L"v"; } rows[] = {
        {"root differs", false, KW_HKEY_USERS, L"SOFTWARE\\*", nullptr, kRoot},
        {"pattern differs", false, hklm, L"SYSTEM\\*", nullptr, kPath},
        {"value name differs", false, hklm, L"SOFTWARE\\*", L"other", kName},
        {"match", false, hklm, L"SOFTWARE\\*", L"V", nullptr},
        {"short: root differs", true, KW_HKEY_USERS, L"SOFTWARE\\*", nullptr, kRoot},
        {"short: nothing below the pattern's end", true, hklm, L"SOFTWARE\\*\\y", nullptr, kLevel},
        {"short: value name differs", true, hklm, L"SOFTWARE", L"other", kName},
        {"short: match one level below", true, hklm, L"SOFTWARE\\*", L"v", nullptr},
        {"default_null names the default value", false, hklm, L"SOFTWARE\\*", L"Default_NULL", nullptr, L""},
        {"default_null is not a named value", false, hklm, L"SOFTWARE\\*", L"default_null", kName},
        {"short: a named rule does not take the default value", true, hklm, L"SOFTWARE\\*", L"v", kName, L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        log.sink.Clear();
        CAnalizyOperate op;
        auto item = MakeItem(9, 16, L"SOFTWARE\\x\\y", r.recordName, L"a");
        bool ok = r.useShort ? op.TestShortRegKeyPathName(item.get(), r.root, r.pattern, 1, r.valueName)
                             : op.TestRegKeyPathName(item.get(), r.root, r.pattern, r.valueName);
        EXPECT_EQ(r.reason == nullptr, ok);
        const std::wstring fn = r.useShort ? L"TestShortRegKeyPathName" : L"TestRegKeyPathName";
        const std::wstring line = L"[kwRegAnalyze][ERROR][CAnalizyOperate::" + fn + L"] " + fn + L" " + (r.reason ? r.reason : L"");
        EXPECT_EQ(r.reason ? std::vector<std::wstring>{line} : std::vector<std::wstring>{}, log.Texts());
    }
}
