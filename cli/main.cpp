// kwhost: a command-line host for the plug-in. It loads kwdeepscan.dll from
// beside itself and drives it through its exports, as a real host does.
//   kwhost init <rules.json>   create and initialise the plug-in, print its trace lines
//   kwhost demo <rules.json>   plant autorun registrations and show the targets found
#include "host_sim.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

using namespace hostsim;

int RunDemo(PluginHost& host);  // demo_scenario.cpp

namespace {

bool ReadFile(const char* path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

void PrintLines(const std::vector<TraceLine>& lines) {
    for (const auto& l : lines) printf("  %-5s %ls\n", l.level == 31 ? "ERROR" : "INFO", l.text.c_str());
}

int Usage() {
    fprintf(stderr, "usage: kwhost init|demo <rules.json>\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return Usage();
    std::string cmd = argv[1];
    std::string rules;
    if (!ReadFile(argv[2], rules)) {
        fprintf(stderr, "kwhost: cannot read %s\n", argv[2]);
        return 1;
    }
    PluginHost host;
    if (!host.Load()) {
        fprintf(stderr, "kwhost: cannot load kwdeepscan.dll or its exports (error %lu)\n", GetLastError());
        return 1;
    }
    printf("Loaded kwdeepscan.dll: exports CreatePlugObjectV2, ReleasePlugObjectV2, _Compatible_RegDeleteKeyExW@16 found\n");
    if (!host.Create()) {
        fprintf(stderr, "kwhost: CreatePlugObjectV2 refused\n");
        return 1;
    }
    bool ok = host.Init(rules);
    printf("Init(%s, %u bytes) -> %s\n", argv[2], static_cast<unsigned>(rules.size()), ok ? "true" : "false");
    if (cmd == "init") {
        printf("Trace lines received by the host:\n");
        PrintLines(host.Engine().Lines());
        host.Plugin()->UnInit();
        host.Release();
        return ok ? 0 : 1;
    }
    if (cmd == "demo") return RunDemo(host);
    return Usage();
}
