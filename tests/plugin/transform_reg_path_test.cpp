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

// Each row through both forms: into a string and into a buffer of 1024
// characters unless the row says otherwise (the character after it stays
// untouched). A refused path leaves the
// outputs as they were and says so once.
TEST(TransformRegPath, SplitsIntoStringAndBuffer) {
    const std::wstring km = L"\\REGISTRY\\MACHINE\\", s1025(1025, L's');
    struct {
        const char* name;
        std::wstring path;
        uint32_t root;  // 0: refused as an unknown root
        std::wstring subKey;
        size_t cchBuffer = 1024;  // the buffer form's size: the sub-key is cut to one less
    } rows[] = {
        {"users", L"HKEY_USERS\\S-1-5-18\\x", KW_HKEY_USERS, L"S-1-5-18\\x"},
        {"local machine", L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x", KW_HKEY_LOCAL_MACHINE, L"SOFTWARE\\x"},
        {"kernel user", L"\\REGISTRY\\USER\\S-1-5-18\\x", KW_HKEY_USERS, L"S-1-5-18\\x"},
        {"kernel hardware profile", L"\\REGISTRY\\MACHINE\\SYSTEM\\CURRENTCONTROLSET\\HARDWARE PROFILES\\CURRENT\\Software",
         KW_HKEY_CURRENT_CONFIG, L"Software"},
        {"kernel classes", L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES\\.exe", KW_HKEY_CLASSES_ROOT, L".exe"},
        {"kernel machine software outside classes", L"\\REGISTRY\\MACHINE\\SOFTWARE\\x", KW_HKEY_LOCAL_MACHINE, L"SOFTWARE\\x"},
        {"kernel hardware profile of a concrete set is plain machine", L"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\"
         L"Hardware Profiles\\Current\\x", KW_HKEY_LOCAL_MACHINE, L"SYSTEM\\ControlSet001\\Hardware Profiles\\Current\\x"},
        {"long name in other case", L"hkey_local_machine\\x", KW_HKEY_LOCAL_MACHINE, L"x"},
        {"kernel path in other case", L"\\registry\\machine\\software\\classes\\CLSID", KW_HKEY_CLASSES_ROOT, L"CLSID"},
        {"separator is not checked", L"HKEY_USERSX\\a", KW_HKEY_USERS, L"a"},
        {"doubled separator", L"HKEY_LOCAL_MACHINE\\\\SOFTWARE", KW_HKEY_LOCAL_MACHINE, L"SOFTWARE"},
        {"classes prefix inside a longer name", L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES2\\x", KW_HKEY_CLASSES_ROOT, L"x"},
        {"long name alone", L"HKEY_USERS", KW_HKEY_USERS, L""},
        {"long name and separator", L"HKEY_LOCAL_MACHINE\\", KW_HKEY_LOCAL_MACHINE, L""},
        {"kernel classes one short is plain machine", L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSE", KW_HKEY_LOCAL_MACHINE,
         L"SOFTWARE\\CLASSE"},
        {"sub-key of N-1 characters fills the buffer", km + s1025.substr(2), KW_HKEY_LOCAL_MACHINE, s1025.substr(2)},
        {"sub-key of N characters is cut by one", km + s1025.substr(1), KW_HKEY_LOCAL_MACHINE, s1025.substr(1)},
        {"sub-key of N+1 characters is cut by two", km + s1025, KW_HKEY_LOCAL_MACHINE, s1025},
        {"one-character buffer holds the terminator", km + L"sssss", KW_HKEY_LOCAL_MACHINE, L"sssss", 1},
        {"long name one short", L"HKEY_USER", 0, L""},
        {"empty path", L"", 0, L""},
        {"kernel name one short", L"\\REGISTRY\\MACHIN", 0, L""},
        {"leading space", L" HKEY_USERS\\x", 0, L""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScopedSink cap;
        uint32_t root = 0x1234;
        std::wstring sub = L"stale";
        std::vector<wchar_t> buf(row.cchBuffer + 1, kGuard);
        uint32_t bufRoot = 0x1234;
        EXPECT_EQ(row.root != 0, TransformRegPath(row.path.c_str(), &root, &sub));
        EXPECT_EQ(row.root != 0, TransformRegPath(row.path.c_str(), &bufRoot, buf.data(), row.cchBuffer));
        EXPECT_EQ(kGuard, buf[row.cchBuffer]);
        if (row.root == 0) {
            EXPECT_EQ(0x1234u, root);
            EXPECT_EQ(L"stale", sub);
            const std::wstring line = L"[kwRegAnalyze][ERROR][TransformRegPath] error ===> unknown reg root key: " + row.path;
            EXPECT_EQ((std::vector<std::wstring>{line, line}), cap.Texts());
            continue;
        }
        EXPECT_EQ(row.root, root);
        EXPECT_EQ(row.subKey, sub);
        EXPECT_EQ(row.root, bufRoot);
        EXPECT_EQ(row.subKey.substr(0, row.cchBuffer - 1), buf.data());
        EXPECT_TRUE(cap.Texts().empty());
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

}  // namespace
