// The plug-in's lifecycle as a host drives it: exports, Init, callbacks,
// UnInit and release, with the trace lines the host receives.
#include "host_sim.h"

#include <gtest/gtest.h>

using namespace hostsim;

TEST(Lifecycle, CreateInitCallbacksRelease) {
    PluginHost host;
    ASSERT_TRUE(host.Load());
    ASSERT_TRUE(host.Create());
    ASSERT_TRUE(host.Init("{\"RegParseConfig\":[]}"));
    EXPECT_EQ(1, host.Engine().Refs());
    IPlugin* p = host.Plugin();
    p->SetEnable(1, 2);
    EXPECT_EQ(0u, p->PreProcessEvent(nullptr, &host.Engine()));
    EXPECT_EQ(0u, p->LastProcessEvent(nullptr, &host.Engine()));
    EXPECT_TRUE(p->AfterProcessEvent(1, 2, 3));
    p->UnInit();
    EXPECT_TRUE(host.Engine().HasLine(L"[kwRegAnalyze][INFO ][CPlugDeepScan::Init] CPlugDeepScan::Init ok"));
    EXPECT_TRUE(host.Engine().HasLine(L"[kwRegAnalyze][INFO ][CPlugDeepScan::SetEnable] CPlugDeepScan::SetEnable hello"));
    EXPECT_TRUE(host.Engine().HasLine(L"[kwRegAnalyze][INFO ][CPlugDeepScan::UnInit] CPlugDeepScan::UnInit enter"));
    host.Release();
}
