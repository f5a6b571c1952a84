// kwhost: a command-line host for the plug-in. It loads kwdeepscan.dll from
// beside itself and drives it through its exports, as a real host does.
#include "kwhost.h"

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstring>

namespace {

const char kUsage[] =
    "usage: kwhost <command> [options]\n"
    "\n"
    "commands:\n"
    "  scan    [--rules FILE] [--format table|csv|json] [--all-users] [--no-files] [--quiet]\n"
    "          walk every registry location the rules name, the start-up folders and the\n"
    "          drives' autorun files, and print one row per deep-scan target\n"
    "  replay  EVENTS.jsonl [--rules FILE] [--trace]\n"
    "          send recorded events (one JSON object per line) through the plug-in and\n"
    "          print each event's targets (with --trace, its trace lines too)\n"
    "  watch   [--rules FILE] [--for SECONDS] [--format table|csv|json]\n"
    "          watch the rule keys and the start-up folders and print each new\n"
    "          autorun's targets as it appears; Ctrl+C stops\n"
    "  demo    plant a set of autorun registrations in this prefix, then scan it\n"
    "  init    RULES.json: initialise the plug-in and print its trace lines\n"
    "\n"
    "Without --rules, scan and watch use autorun-rules.json (beside kwhost.exe or in\n"
    "the source tree's config folder). Exit code 0, 2 for bad arguments or an\n"
    "unreadable rule file, 1 when the plug-in cannot be loaded.\n";

int CmdInit(int argc, wchar_t** argv) {
    if (argc < 3) {
        fprintf(stderr, "kwhost init: missing rule file\n%s", kUsage);
        return 2;
    }
    std::string text, error;
    std::vector<kwhost::ScanRule> rules;
    if (!kwhost::LoadRuleFile(argv[2], text, rules, error)) {
        fprintf(stderr, "kwhost: %s\n", error.c_str());
        return 2;
    }
    hostsim::PluginHost host;
    if (!kwhost::StartPlugin(host, text)) return 1;
    printf("Trace lines received by the host:\n");
    for (const auto& l : host.Engine().Lines())
        printf("  %-5s %s\n", l.level == 31 ? "ERROR" : "INFO", kwhost::Utf8(l.text).c_str());
    host.Plugin()->UnInit();
    host.Release();
    return 0;
}

}  // namespace

int main() {
    // Output is UTF-8 bytes with "\n" line ends, for pipes and files alike.
    _setmode(_fileno(stdout), _O_BINARY);
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv) return 2;
    int rc = 2;
    if (argc < 2) {
        fputs(kUsage, stderr);
    } else if (!wcscmp(argv[1], L"--help") || !wcscmp(argv[1], L"-h") || !wcscmp(argv[1], L"help")) {
        fputs(kUsage, stdout);
        rc = 0;
    } else if (!wcscmp(argv[1], L"scan")) {
        rc = kwhost::CmdScan(argc, argv);
    } else if (!wcscmp(argv[1], L"replay")) {
        rc = kwhost::CmdReplay(argc, argv);
    } else if (!wcscmp(argv[1], L"watch")) {
        rc = kwhost::CmdWatch(argc, argv);
    } else if (!wcscmp(argv[1], L"demo")) {
        rc = kwhost::CmdDemo(argc, argv);
    } else if (!wcscmp(argv[1], L"init")) {
        rc = CmdInit(argc, argv);
    } else {
        fprintf(stderr, "kwhost: unknown command '%s'\n%s", kwhost::Utf8(argv[1]).c_str(), kUsage);
    }
    LocalFree(argv);
    return rc;
}
