// The CLSID analyzers (FunctionIDs 4, 7-11) on records built directly, for a
// class that no registry holds: which records each accepts, its codes and
// lines, and the location entries it pushes. Servers are covered end to end.
#include "analyze/analizy_operate.h"
#include "support/class_registration.h"
#include "support/recording_sink.h"

#include "diag/trace.h"

#include <gtest/gtest.h>

using namespace kw;

namespace {

struct ClsidRow {
    const char* name;
    int function;
    uint32_t op;
    std::wstring subkey, valueName, data;
    uint32_t ret;
    size_t entries;      // all location-only: the class has no server
    const wchar_t* line; // an expected trace line; null: no ERROR line at all
};

}  // namespace

TEST(ClsidAnalyzers, RecordsCodesAndLocationEntries) {
    const std::wstring c = kwtest::FreshClsid();
    const std::wstring key = L"SOFTWARE\\kwtest\\" + c, wowKey = L"SOFTWARE\\Classes\\Wow6432Node\\CLSID\\" + c;
    const std::wstring shortText = c.substr(0, 37), nonHex = L"{G" + c.substr(2);
    const ClsidRow rows[] = {
        {"4: class text with trailing characters", 4, 16, L"SOFTWARE\\kw", L"v", c + L"xyz", 0, 1, nullptr},
        {"4: one character short", 4, 16, L"SOFTWARE\\kw", L"v", shortText, 4, 0, nullptr},
        {"4: non-hex digit", 4, 16, L"SOFTWARE\\kw", L"v", nonHex, 4, 0, nullptr},
        {"4: key operation", 4, 1, key, L"", c, 3, 0, nullptr},
        {"7: the value name is the class", 7, 16, L"SOFTWARE\\kw", c, L"x", 0, 1, nullptr},
        {"7: the data is not looked at", 7, 16, L"SOFTWARE\\kw", L"v", c, 4, 0, nullptr},
        {"8: Default_Null value", 8, 16, L"SOFTWARE\\kw", L"Default_Null", c, 0, 1,
         L"[INFO ][CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID] CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID end"},
        {"8: named value", 8, 16, L"SOFTWARE\\kw", L"x", c, 3, 0,
         L"[ERROR][CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID] pAnalizy->szValuename err:x"},
        {"8: key name not a class", 8, 1, L"SOFTWARE\\kw", L"", L"", 4, 0,
         L"[ERROR][CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID] szCLSID err:"},
        {"8: key deletion", 8, 4, key, L"", L"", 3, 0,
         L"[ERROR][CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID] pAnalizy->dwOperate err:4"},
        {"8: sub-key without separator", 8, 16, L"CLSID", L"", c, 3, 0, nullptr},
        {"9: named value, silently", 9, 16, L"SOFTWARE\\kw", L"x", c, 3, 0, nullptr},
        {"9: key added, no 32-bit server: native entry only", 9, 1, key, L"", L"", 0, 1, nullptr},
        {"10: sub-key CLSID has no separator", 10, 1, L"CLSID", L"", L"", 3, 0, nullptr},
        {"10: value write", 10, 16, key, L"v", c, 3, 0, nullptr},
        {"10: key name with a non-hex digit", 10, 2, L"SOFTWARE\\" + nonHex, L"", L"", 4, 0, nullptr},
        {"11: key added: native and 32-bit location entries", 11, 1, key, L"", L"", 0, 2, nullptr},
        {"11: Wow6432Node key: two entries, flags kept", 11, 2, wowKey, L"", L"", 0, 2, nullptr},
        {"11: value write", 11, 16, key, L"v", c, 3, 0, nullptr},
    };
    for (const ClsidRow& r : rows) {
        SCOPED_TRACE(r.name);
        kwtest::RecordingSink sink;
        SetLogSink(&sink);
        ANALYZE_ITEM item = {};
        item.dwSize = kAnalyzeItemSize;
        item.dsid = 9;
        item.dwOperate = r.op;
        item.hRootkey = KW_HKEY_LOCAL_MACHINE;
        CopyBounded(item.szSubkey, kSubkeyChars, r.subkey.c_str());
        CopyBounded(item.szValuename, kValueNameChars, r.valueName.c_str());
        item.dwProcessId = GetCurrentProcessId();
        item.dwValueType = REG_SZ;
        memcpy(item.data, r.data.c_str(), (r.data.size() + 1) * 2);
        RegRule rule;
        rule.FunctionID = r.function;
        CAnalizyOperate op;
        std::set<std::wstring> out;
        EXPECT_EQ(r.ret, op.AnalyzItem(&item, out, rule));
        SetLogSink(nullptr);

        ASSERT_EQ(r.entries, op.Results().size());
        uint32_t seq = 1;
        for (const NotifyEntry& e : op.Results()) {
            EXPECT_EQ(seq++, e.seq);
            EXPECT_EQ(L"", e.filePath);
            EXPECT_EQ(KW_HKEY_LOCAL_MACHINE, e.hRootkey);
            EXPECT_EQ(r.subkey, e.subKey);
            EXPECT_EQ(r.function == 4 || r.function == 7 ? r.valueName : L"", e.valueName);
        }
        const bool wow = r.subkey == wowKey;
        EXPECT_EQ(std::make_tuple(wow ? 0 : 1, wow ? 1 : 2, wow ? 1 : 0),
                  std::make_tuple(op.bNativeView, op.bWow64Parse, op.bWow64Expand));
        if (r.line) {
            EXPECT_TRUE(sink.Has(r.line));
        } else {
            for (const auto& l : sink.Lines()) EXPECT_EQ(TRACE_INFO, l.level) << std::string(l.text.begin(), l.text.end());
        }
    }
}
