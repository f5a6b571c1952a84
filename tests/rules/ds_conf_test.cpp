// The deep-scan configuration object: one instance per process, created once
// even when many threads ask at the same time, with two file names in the
// module's folder and nothing read from either file.
#include "rules/ds_conf.h"

#include "common/module.h"
#include "support/child.h"
#include "support/kit.h"
#include "support/fixtures.h"

#include <gtest/gtest.h>

#include <vector>

using namespace kw;

namespace {

std::wstring ModuleDir() {
    wchar_t path[MAX_PATH] = {0};
    GetModuleFileNameW(GetThisModule(), path, MAX_PATH);
    std::wstring p(path);
    return p.substr(0, p.find_last_of(L'\\'));
}

// The two file names are beside the module; files there are never read.
TEST(DSConf, EmptyEvenWhenTheFilesExist) {
    const std::wstring confPath = ModuleDir() + L"\\dscon.dat", confzPath = ModuleDir() + L"\\dsconz.dat";
    EXPECT_TRUE(kwtest::MakeFile(confPath, "[x]\r\ncount=5\r\n"));
    EXPECT_TRUE(kwtest::MakeFile(confzPath, std::string(64, '\x01')));
    CDSConf conf;
    EXPECT_EQ(kwtest::Upper(confPath), kwtest::Upper(conf.m_confPath));
    EXPECT_EQ(kwtest::Upper(confzPath), kwtest::Upper(conf.m_confzPath));
    int count = 77;
    EXPECT_FALSE(conf.GetCount(&count));
    EXPECT_EQ(0, count);
    EXPECT_TRUE(conf.GetList().empty());
    EXPECT_TRUE(conf.GetExternalCommands().empty());
    EXPECT_TRUE(conf.m_atl1.empty() && conf.m_atl2.empty() && conf.m_str1.empty() && conf.m_str2.empty() &&
                conf.m_str3.empty());
    DeleteFileW(confPath.c_str());
    DeleteFileW(confzPath.c_str());
}

TEST(DSConf, CountIsReportedFromOne) {
    const struct {
        const char* name;
        int stored;
        bool result;
        int reported;
    } rows[] = {{"negative", -1, false, 0}, {"zero", 0, false, 0}, {"one", 1, true, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CDSConf conf;
        conf.m_count = row.stored;
        int count = -5;
        EXPECT_EQ(row.result, conf.GetCount(&count));
        EXPECT_EQ(row.reported, count);
        EXPECT_EQ(row.result, conf.GetCount(nullptr));
    }
}

// The first request races from many threads: all of them get the same object.
KW_CHILD_TEST(DSConfProcess, ConcurrentFirstUse) {
    auto seen = kwtest::RaceFirstUse<CDSConf*>(16, [] { return CDSConf::Instance(); });
    ASSERT_NE(nullptr, seen[0]);
    for (CDSConf* p : seen) EXPECT_EQ(seen[0], p);
    // The process ends normally with the exit handler destroying the instance.
}

}  // namespace
