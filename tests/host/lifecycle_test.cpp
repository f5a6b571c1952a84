// The plug-in's lifecycle as a host drives it through the DLL's exports and
// the interface's slots: creation, Init, the tracing callbacks, UnInit,
// release, the registry shim, and every bad call a host could make.
#include "host_sim.h"
#include "support/child.h"
#include "support/fixtures.h"

#include <gtest/gtest.h>

using namespace hostsim;

static PluginHost& Loaded(PluginHost& h) {
    EXPECT_TRUE(h.Load());
    return h;
}

TEST(Lifecycle, CreateInitCallbacksRelease) {
    PluginHost host;
    ASSERT_TRUE(Loaded(host).Create());
    // A fresh object: empty host string (16 zero bytes, capacity 15), zero value.
    for (char c : host.Plugin()->name.buf) EXPECT_EQ(0, c);
    EXPECT_EQ(0u, host.Plugin()->name.size);
    EXPECT_EQ(15u, host.Plugin()->name.capacity);
    EXPECT_EQ(0u, host.Plugin()->value);
    ASSERT_TRUE(host.Init("{\"RegParseConfig\":[]}"));
    EXPECT_EQ(1, host.Engine().Refs());
    IPlugin* p = host.Plugin();
    p->SetEnable(1, 2);
    EXPECT_EQ(0u, p->PreProcessEvent(nullptr, &host.Engine()));
    EXPECT_EQ(0u, p->LastProcessEvent(nullptr, &host.Engine()));
    EXPECT_TRUE(p->AfterProcessEvent(1, 2, 3));
    p->UnInit();
    const wchar_t* expected[] = {
        L"[kwRegAnalyze][INFO ][CPlugDeepScan::Init] CPlugDeepScan::Init ok",
        L"[kwRegAnalyze][INFO ][CPlugDeepScan::SetEnable] CPlugDeepScan::SetEnable hello",
        L"[kwRegAnalyze][INFO ][CPlugDeepScan::PreProcessEvent] CPlugDeepScan::PreProcessEvent enter",
        L"[kwRegAnalyze][INFO ][CPlugDeepScan::LastProcessEvent] CPlugDeepScan::LastProcessEvent enter",
        L"[kwRegAnalyze][INFO ][CPlugDeepScan::AfterProcessEvent] CPlugDeepScan::AfterProcessEvent enter",
        L"[kwRegAnalyze][INFO ][CPlugDeepScan::UnInit] CPlugDeepScan::UnInit enter",
    };
    for (const wchar_t* line : expected) EXPECT_TRUE(host.Engine().HasLine(line)) << line;
    for (const auto& l : host.Engine().Lines()) EXPECT_TRUE(l.level == 50 || l.level == 31);
    EXPECT_EQ(0, host.Engine().ReservedCalls());
    host.Release();
    // Releasing the object does not release the host's engine: it stays the log sink.
    EXPECT_EQ(1, host.Engine().Refs());
}

// A wrong interface id (any one byte off) or a null argument creates
// nothing; a null rule text with a length still initialises.
TEST(Lifecycle, BadArgumentsToTheExports) {
    PluginHost host;
    Loaded(host);
    for (int i = 0; i < 16; ++i) {
        GUID g = kPluginIid;
        reinterpret_cast<uint8_t*>(&g)[i] ^= 0x01;
        IPlugin* sentinel = reinterpret_cast<IPlugin*>(0x1234);
        IPlugin* out = sentinel;
        EXPECT_FALSE(host.create(&g, &out)) << "byte " << i;
        EXPECT_EQ(sentinel, out) << "byte " << i;
    }
    IPlugin* out = nullptr;
    EXPECT_FALSE(host.create(nullptr, &out));
    EXPECT_FALSE(host.create(&kPluginIid, nullptr));
    EXPECT_EQ(nullptr, out);
    host.release(nullptr);  // ignored
    ASSERT_TRUE(host.Create());
    EXPECT_TRUE(host.InitRaw(&host.Engine(), nullptr, 100));
}

// Before any Init the process has no log sink: nothing may crash and nothing
// is traced, and the first Init (empty rule text: rule loading fails, Init
// still succeeds) has no enter line, the second has. A process of its own,
// since the sink is process-wide.
KW_CHILD_TEST(LifecycleFresh, CallbacksBeforeInitThenFirstAndSecondInit) {
    PluginHost host;
    ASSERT_TRUE(Loaded(host).Create());
    IPlugin* p = host.Plugin();
    RuleEngine ctx;
    Event ev;
    p->UnInit();
    p->SetEnable(0, 0);
    EXPECT_EQ(0u, p->FirstProcessEvent(nullptr, nullptr));
    EXPECT_EQ(0u, p->FirstProcessEvent(&ev, &ctx));
    EXPECT_EQ(0u, p->PostProcessEvent(nullptr, nullptr));
    EXPECT_EQ(0u, p->PostProcessEvent(&ev, nullptr));
    EXPECT_EQ(0u, p->PreProcessEvent(nullptr, nullptr));
    EXPECT_EQ(0u, p->LastProcessEvent(nullptr, nullptr));
    EXPECT_TRUE(p->AfterProcessEvent(0, 0, 0));
    EXPECT_FALSE(p->Init(nullptr, "{}", 2));
    // Still no sink: a later callback traces nothing.
    p->SetEnable(0, 0);
    EXPECT_EQ(0u, host.Engine().LineCount());
    EXPECT_EQ(0u, ctx.LineCount());
    EXPECT_EQ(0, host.Engine().Refs());

    ASSERT_TRUE(host.Init(""));
    EXPECT_FALSE(host.Engine().HasLine(L"CPlugDeepScan::Init enter"));
    EXPECT_TRUE(host.Engine().HasLine(L"CPlugDeepScan::Init ok"));
    host.Engine().ClearLines();
    ASSERT_TRUE(host.Init(""));
    EXPECT_TRUE(host.Engine().HasLine(L"[kwRegAnalyze][INFO ][CPlugDeepScan::Init] CPlugDeepScan::Init enter"));
}

// Init with the same engine changes no count; a new engine is taken (+1) and
// the old one let go (-1), and becomes the log sink. A second object lives
// beside the first and goes on when the first is released.
TEST(Lifecycle, HostReferencesAndSeveralObjects) {
    PluginHost host, b;
    ASSERT_TRUE(Loaded(host).Create());
    ASSERT_TRUE(Loaded(b).Create());
    EXPECT_NE(host.Plugin(), b.Plugin());
    RuleEngine other;
    ASSERT_TRUE(host.Init("{}"));
    EXPECT_EQ(1, host.Engine().Refs());
    ASSERT_TRUE(host.Init("{}"));
    EXPECT_EQ(1, host.Engine().Refs());
    ASSERT_TRUE(host.InitRaw(&other, "{}", 2));
    EXPECT_EQ(1, other.Refs());
    EXPECT_EQ(0, host.Engine().Refs());
    host.Plugin()->SetEnable(0, 0);
    EXPECT_TRUE(other.HasLine(L"CPlugDeepScan::SetEnable hello"));
    // b's engine is the process's sink from here on, while `other` goes out of scope.
    ASSERT_TRUE(b.Init("{}"));
    host.Release();
    b.Plugin()->SetEnable(0, 0);
    EXPECT_TRUE(b.Engine().HasLine(L"CPlugDeepScan::SetEnable hello"));
}

TEST(Lifecycle, RegistryShimDeletesInTheRequestedView) {
    PluginHost host;
    ASSERT_TRUE(Loaded(host).regDelete);
    for (REGSAM view : {KEY_WOW64_64KEY, KEY_WOW64_32KEY}) {
        SCOPED_TRACE(view == KEY_WOW64_64KEY ? "64-bit view" : "32-bit view");
        std::wstring key = L"Software\\kwtest-shim-" + std::to_wstring(GetCurrentProcessId());
        ASSERT_TRUE(kwtest::RegCreate(HKEY_LOCAL_MACHINE, key, view));
        EXPECT_EQ(ERROR_SUCCESS, host.regDelete(HKEY_LOCAL_MACHINE, key.c_str(), view, 0));
        EXPECT_FALSE(kwtest::RegKeyExists(HKEY_LOCAL_MACHINE, key, view));
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, host.regDelete(HKEY_LOCAL_MACHINE, key.c_str(), view, 0));
    }
}
