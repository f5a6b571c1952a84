// The boot-execute analyzer on records built directly: the report-existing
// switch that only the dispatch side sets, and a record claiming more data
// than it holds.
#include "analyze/analizy_operate.h"
#include "support/saved_reg_value.h"

#include <gtest/gtest.h>

using namespace kw;

TEST(BootExecuteRecord, ExistingProgramsOnlyWithTheSwitchAndNoReadBeyondTheRecord) {
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    kwtest::SavedRegValue saved(key, L"BootExecute");
    ASSERT_TRUE(kwtest::RegSetMulti(HKEY_LOCAL_MACHINE, key, L"BootExecute", {L"C:\\kwtest-none\\old.exe"}));
    std::unique_ptr<ANALYZE_ITEM> item(new ANALYZE_ITEM());
    const wchar_t data[] = L"c:\\kwtest-none\\OLD.exe\0C:\\kwtest-none\\new.exe\0", *fresh = L"C:\\kwtest-none\\new.exe";
    memcpy(item->data, data, sizeof(data));
    item->dwDataSize = sizeof(data);
    for (bool on : {false, true}) {
        CAnalizyOperate op;
        op.m_bReportExisting = on;
        EXPECT_EQ(0u, op.AnalyzBootExecute(item.get(), std::wstring()));
        std::vector<std::wstring> paths;
        for (const auto& e : op.Results()) paths.push_back(e.filePath);
        // With the switch, the first string of the data (already in the list) comes first.
        EXPECT_EQ((on ? std::vector<std::wstring>{data, fresh} : std::vector<std::wstring>{fresh}), paths) << on;
    }
    // A record claiming more data than it holds, none of it terminated.
    std::fill_n(reinterpret_cast<wchar_t*>(item->data), kDataBytes / 2, L'x');
    item->dwDataSize = 0xFFFFFFFFu;
    CAnalizyOperate op;
    EXPECT_EQ(0u, op.AnalyzBootExecute(item.get(), std::wstring()));
    ASSERT_EQ(1u, op.Results().size());
    EXPECT_EQ(std::wstring(512, L'x'), op.Results().front().valueData);
}
