// Splitting a full registry path into root key and sub-key: the long names and
// the kernel paths, their order, the unchecked separator, paths that end at
// the prefix, and bounded sub-key buffers.
#include "plugin/transform_reg_path.h"

#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kw;
using kwtest::ScopedSink;

namespace {

constexpr wchar_t kGuard = L'#';

struct SplitRow {
    const char* name;
    std::wstring path;
    uint32_t root;
    std::wstring subKey;
};

std::ostream& operator<<(std::ostream& os, const SplitRow& r) { return os << r.name; }

class TransformRegPathTest : public ::testing::TestWithParam<SplitRow> {};

TEST_P(TransformRegPathTest, SplitsIntoStringAndBuffer) {
    const SplitRow& row = GetParam();
    ScopedSink cap;
    uint32_t root = 0x1234;
    std::wstring sub = L"stale";
    EXPECT_TRUE(TransformRegPath(row.path.c_str(), &root, &sub));
    EXPECT_EQ(row.root, root);
    EXPECT_EQ(row.subKey, sub);

    std::vector<wchar_t> buf(1025, kGuard);
    root = 0;
    EXPECT_TRUE(TransformRegPath(row.path.c_str(), &root, buf.data(), 1024));
    EXPECT_EQ(row.root, root);
    EXPECT_EQ(row.subKey, buf.data());
    EXPECT_EQ(kGuard, buf[1024]);
    EXPECT_TRUE(cap.Texts().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TransformRegPathTest,
    ::testing::Values(
        SplitRow{"users", L"HKEY_USERS\\S-1-5-18\\x", KW_HKEY_USERS, L"S-1-5-18\\x"},
        SplitRow{"local machine", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft", KW_HKEY_LOCAL_MACHINE,
                 L"SOFTWARE\\Microsoft"},
        SplitRow{"kernel user", L"\\REGISTRY\\USER\\S-1-5-18\\x", KW_HKEY_USERS, L"S-1-5-18\\x"},
        SplitRow{"kernel hardware profile",
                 L"\\REGISTRY\\MACHINE\\SYSTEM\\CURRENTCONTROLSET\\HARDWARE PROFILES\\CURRENT\\Software",
                 KW_HKEY_CURRENT_CONFIG, L"Software"},
        SplitRow{"kernel classes", L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES\\.exe", KW_HKEY_CLASSES_ROOT, L".exe"},
        SplitRow{"kernel machine software outside classes", L"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft",
                 KW_HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft"},
        SplitRow{"kernel hardware profile of a concrete set is plain machine",
                 L"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Hardware Profiles\\Current\\x", KW_HKEY_LOCAL_MACHINE,
                 L"SYSTEM\\ControlSet001\\Hardware Profiles\\Current\\x"},
        SplitRow{"long name in other case", L"hkey_local_machine\\x", KW_HKEY_LOCAL_MACHINE, L"x"},
        SplitRow{"kernel path in other case", L"\\registry\\machine\\software\\classes\\CLSID", KW_HKEY_CLASSES_ROOT,
                 L"CLSID"},
        SplitRow{"separator is not checked", L"HKEY_USERSX\\a", KW_HKEY_USERS, L"a"},
        SplitRow{"doubled separator", L"HKEY_LOCAL_MACHINE\\\\SOFTWARE", KW_HKEY_LOCAL_MACHINE, L"SOFTWARE"},
        SplitRow{"classes prefix inside a longer name", L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES2\\x",
                 KW_HKEY_CLASSES_ROOT, L"x"},
        SplitRow{"long name alone", L"HKEY_USERS", KW_HKEY_USERS, L""},
        SplitRow{"long name and separator", L"HKEY_LOCAL_MACHINE\\", KW_HKEY_LOCAL_MACHINE, L""},
        SplitRow{"kernel classes one short is plain machine", L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSE",
                 KW_HKEY_LOCAL_MACHINE, L"SOFTWARE\\CLASSE"}),
    ::kwtest::ByRowName());

TEST(TransformRegPath, UnknownRootIsRefusedWithItsLine) {
    const wchar_t* paths[] = {L"HKEY_USER", L"", L"\\REGISTRY\\MACHIN", L" HKEY_USERS\\x"};
    for (const wchar_t* path : paths) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(path)));
        ScopedSink cap;
        uint32_t root = 0x1234;
        std::wstring sub = L"stale";
        EXPECT_FALSE(TransformRegPath(path, &root, &sub));
        EXPECT_EQ(0x1234u, root);
        EXPECT_EQ(L"stale", sub);
        EXPECT_EQ(std::vector<std::wstring>{L"[kwRegAnalyze][ERROR][TransformRegPath] error ===> unknown reg root key: " +
                                            std::wstring(path)},
                  cap.Texts());
    }
}

TEST(TransformRegPath, NullArguments) {
    ScopedSink cap;
    uint32_t root = 0;
    std::wstring sub;
    EXPECT_FALSE(TransformRegPath(nullptr, &root, &sub));
    EXPECT_FALSE(TransformRegPath(L"HKEY_USERS\\x", nullptr, &sub));
    EXPECT_TRUE(TransformRegPath(L"HKEY_USERS\\x", &root, static_cast<std::wstring*>(nullptr)));
    EXPECT_EQ(KW_HKEY_USERS, root);
    EXPECT_TRUE(TransformRegPath(L"HKEY_USERS\\x", &root, static_cast<wchar_t*>(nullptr), 0));
    EXPECT_TRUE(cap.Texts().empty());
}

// The buffer form cuts the sub-key to the buffer: N-1, N and N+1 characters.
TEST(TransformRegPath, SubKeyBufferBoundaries) {
    struct Row {
        const char* name;
        size_t cchSub;
        size_t cchBuffer;
        size_t cchExpected;
    };
    const Row rows[] = {
        {"sub-key fills the buffer (N-1)", 1023, 1024, 1023},
        {"sub-key of N characters is cut by one", 1024, 1024, 1023},
        {"sub-key of N+1 characters is cut by two", 1025, 1024, 1023},
        {"one-character buffer holds the terminator", 5, 1, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::wstring sub(row.cchSub, L's');
        const std::wstring path = L"\\REGISTRY\\MACHINE\\" + sub;
        std::vector<wchar_t> buf(row.cchBuffer + 1, kGuard);
        uint32_t root = 0;
        EXPECT_TRUE(TransformRegPath(path.c_str(), &root, buf.data(), row.cchBuffer));
        EXPECT_EQ(sub.substr(0, row.cchExpected), buf.data());
        EXPECT_EQ(kGuard, buf[row.cchBuffer]);
    }
}

}  // namespace
