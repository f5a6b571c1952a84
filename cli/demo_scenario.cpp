// The demo: the registrations planted and the events sent through the plug-in.
#include "host_sim.h"

#include <cstdio>

using namespace hostsim;

int RunDemo(PluginHost& host) {
    printf("Trace lines received by the host:\n");
    for (const auto& l : host.Engine().Lines()) printf("  %ls\n", l.text.c_str());
    host.Plugin()->UnInit();
    host.Release();
    return 0;
}
