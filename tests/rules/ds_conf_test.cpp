// The deep-scan configuration object: one instance per process, created once
// even when many threads ask at the same time, with two file names in the
// module's folder and nothing read from either file.
#include "rules/ds_conf.h"

#include "common/module.h"
#include "support/child.h"
#include "support/kit.h"
#include "support/fixtures.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace kw;

namespace {

std::wstring ModuleDir() {
    wchar_t path[MAX_PATH] = {0};
    GetModuleFileNameW(GetThisModule(), path, MAX_PATH);
    std::wstring p(path);
    return p.substr(0, p.find_last_of(L'\\'));
}

// Files beside the module, removed on scope exit.
class BesideModuleFile {
public:
    BesideModuleFile(const wchar_t* name, const std::string& content) : m_path(ModuleDir() + L"\\" + name) {
        kwtest::MakeFile(m_path, content);
    }
    ~BesideModuleFile() { DeleteFileW(m_path.c_str()); }

private:
    std::wstring m_path;
};

TEST(DSConf, FileNamesAreInTheModuleFolder) {
    CDSConf conf;
    EXPECT_EQ(kwtest::Upper(ModuleDir() + L"\\dscon.dat"), kwtest::Upper(conf.m_confPath));
    EXPECT_EQ(kwtest::Upper(ModuleDir() + L"\\dsconz.dat"), kwtest::Upper(conf.m_confzPath));
}

TEST(DSConf, EmptyEvenWhenTheFilesExist) {
    BesideModuleFile a(L"dscon.dat", "[x]\r\ncount=5\r\n");
    BesideModuleFile b(L"dsconz.dat", std::string(64, '\x01'));
    CDSConf conf;
    int count = 77;
    EXPECT_FALSE(conf.GetCount(&count));
    EXPECT_EQ(0, count);
    EXPECT_TRUE(conf.GetList().empty());
    EXPECT_TRUE(conf.GetExternalCommands().empty());
    EXPECT_TRUE(conf.m_atl1.empty() && conf.m_atl2.empty() && conf.m_str1.empty() && conf.m_str2.empty() &&
                conf.m_str3.empty());
}

struct CountRow {
    const char* name;
    int stored;
    bool result;
    int reported;
};

TEST(DSConf, CountIsReportedFromOne) {
    const CountRow rows[] = {
        {"negative", -1, false, 0}, {"zero", 0, false, 0}, {"one", 1, true, 1}};
    for (const CountRow& row : rows) {
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
