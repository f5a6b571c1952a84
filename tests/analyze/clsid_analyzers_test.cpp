// The CLSID analyzers' second pass switches the record's view flags to the
// 32-bit views and gives them back; everything else of these analyzers is
// tested from host events (tests/e2e/clsid_test.cpp).
#include "analyze/analizy_operate.h"
#include "common/strutil.h"
#include "support/class_registration.h"

#include <gtest/gtest.h>

using namespace kw;

TEST(ClsidAnalyzers, SecondPassGivesTheViewFlagsBack) {
    for (int function : {9, 11}) {
        SCOPED_TRACE(function);
        ANALYZE_ITEM item = {kAnalyzeItemSize, 0, REGMONMODE_OPERATE_ADDKEY, KW_HKEY_LOCAL_MACHINE};
        CopyBounded(item.szSubkey, kSubkeyChars, (L"SOFTWARE\\kwtest\\" + kwtest::FreshClsid()).c_str());
        CAnalizyOperate op;
        std::set<std::wstring> out;
        EXPECT_EQ(0u, op.AnalyzItem(&item, out, RegRule{9, function}));
        EXPECT_EQ(std::make_tuple(1, 2, 0), std::make_tuple(op.bNativeView, op.bWow64Parse, op.bWow64Expand));
    }
}
