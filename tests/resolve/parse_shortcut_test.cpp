// The shortcut parser: which files count as shortcuts and what resolving one
// yields in this release (success with an empty target).
#include "resolve/parse_shortcut.h"

#include "common/strutil.h"
#include "support/child.h"
#include "support/fixtures.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

using namespace kw;

TEST(ResolveShortcutFile, OnlyExistingShortcutsAreParsed) {
    kwtest::TempDir dir;
    // lines: trace lines of the parse; the extension's case is left to the list's own test
    const struct { const char* name; std::wstring path; int ret; size_t lines; } cases[] = {
        {"existing .lnk", dir.File(L"a.lnk"), 1, 2},
        {"missing .lnk", dir.Path() + L"\\gone.lnk", 0, 0},
        {"existing, other extension", dir.File(L"c.lnk.txt"), 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kwtest::ScopedSink sink;
        std::wstring target = L"t", param = L"p", third = L"3";
        std::list<std::wstring> paths{L"old"};
        DWORD flag = 7;
        EXPECT_EQ(c.ret, ResolveShortcutFile(c.path, target, param, third, &paths, &flag));
        EXPECT_EQ(L"", target + param + third);  // every output cleared, whatever the answer
        EXPECT_TRUE(paths.empty());
        EXPECT_EQ(0u, flag);
        EXPECT_EQ(c.lines, sink.sink.Lines().size());
        EXPECT_EQ(c.lines > 0, sink.sink.Has(L"[LNK] link file " + c.path + L", strPath=, strParam="));
    }
    EXPECT_EQ(0, GetLnkFileExt()->IsLnkExt(nullptr));
}

// The list is built once per process: registered before its first use here.
KW_CHILD_TEST(LnkFileExt, ClassWithTheShortcutHandlerCounts) {
    const std::wstring tag = std::to_wstring(GetCurrentProcessId()), classes = L"SOFTWARE\\Classes\\";
    const std::wstring withHandler = L".kwtlnk" + tag, without = L".kwtplain" + tag;
    const std::wstring cls = L"kwtlnkfile" + tag, plainCls = L"kwtplainfile" + tag;
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, classes + withHandler, L"", cls));
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, classes + without, L"", plainCls));
    const std::wstring handler = L"\\shellex\\ContextMenuHandlers\\{00021401-0000-0000-C000-000000000046}";
    ASSERT_TRUE(kwtest::RegCreate(HKEY_LOCAL_MACHINE, classes + cls + handler));
    ASSERT_TRUE(kwtest::RegCreate(HKEY_LOCAL_MACHINE, classes + plainCls + L"\\shellex\\ContextMenuHandlers\\other"));
    CLnkFileExt* ext = GetLnkFileExt();
    EXPECT_EQ(1, ext->IsLnkExt(kwtest::Upper(withHandler).c_str()));
    EXPECT_EQ(0, ext->IsLnkExt(without.c_str()));
    EXPECT_EQ(1, ext->IsLnkExt(L".LnK"));
    for (const auto& e : ext->m_extensions) EXPECT_FALSE(EqualsNoCase(e, L".lnk"));
    for (const auto& key : {withHandler, without, cls, plainCls})
        kwtest::RegDeleteTreeView(HKEY_LOCAL_MACHINE, classes + key);
}
