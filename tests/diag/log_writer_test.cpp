// The file channel as a process sees it. The configuration is read once per
// process from "Holmlog.ini" beside the executable, so every case copies the
// probe program (tests/helpers/logprobe.cpp) into a folder of its own, writes
// that case's Holmlog.ini beside it, runs it, and checks what the probe reported, the log
// file's name and every line in it.
#include "common/strutil.h"
#include "support/child.h"
#include "support/fixtures.h"
#include "support/kit.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// A file built beside this test program.
std::wstring BesideTests(const wchar_t* name) {
    wchar_t self[MAX_PATH + 1] = {0};
    DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, n > MAX_PATH ? MAX_PATH : n);
    return path.substr(0, path.find_last_of(L'\\') + 1) + name;
}

// The log file and the debugger output hold ASCII text only in these cases.
std::wstring Ascii(const std::string& s) { return std::wstring(s.begin(), s.end()); }

std::string ReadBytes(const std::wstring& path) {
    std::ifstream f(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::set<std::wstring> FilesIn(const std::wstring& dir) {
    std::set<std::wstring> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename().wstring());
    return names;
}

std::wstring Today() {
    SYSTEMTIME t;
    GetLocalTime(&t);
    return kw::FormatW("%d-%d-%d", t.wYear, t.wMonth, t.wDay);
}

// What one probe run produced.
struct ProbeRun {
    int exitCode = -1;
    std::string output;                   // the probe's "key=value" lines (UTF-8)
    std::vector<std::wstring> debugLines; // strings it sent to the debugger, in order

    std::string Value(const std::string& key) const {
        const size_t at = ("\n" + output).find("\n" + key + "=");
        if (at == std::string::npos) return std::string();
        const size_t start = at + key.size() + 1;
        return output.substr(start, output.find_first_of("\r\n", start) - start);
    }
    std::wstring Text(const std::string& key) const {
        const std::string v = Value(key);
        return kw::Utf8ToWide(v.data(), v.size());
    }
};

// Copies the probe (and with withLib its DLL) into dir beside a Holmlog.ini
// with this content (none when null) and runs it there. The probe reports
// what it sends to the debugger as "debug=" lines, CR and LF written as \r, \n.
ProbeRun RunProbeIn(kwtest::TempDir& dir, const char* ini, bool withLib, const std::wstring& args) {
    ProbeRun run;
    run.output = "logprobe.exe or logprobelib.dll not found beside the tests";
    for (const wchar_t* file : {L"logprobe.exe", withLib ? L"logprobelib.dll" : nullptr})
        if (file && !CopyFileW(BesideTests(file).c_str(), (dir.Path() + L"\\" + file).c_str(), FALSE)) return run;
    if (ini) dir.File(L"Holmlog.ini", ini);
    run.exitCode = kwtest::RunProgram(dir.Path() + L"\\logprobe.exe", args, dir.Path(), &run.output);
    std::istringstream lines(run.output);
    for (std::string l; std::getline(lines, l);) {
        if (l.compare(0, 6, "debug=") != 0) continue;
        std::wstring text = Ascii(l.substr(6, l.size() - 6 - (l.back() == '\r' ? 1 : 0)));
        kw::ReplaceAll(text, L"\\r", L"\r");
        kw::ReplaceAll(text, L"\\n", L"\n");
        run.debugLines.push_back(text);
    }
    return run;
}

// One line of the file channel, split into its parts.
const std::wregex kLineLayout(
    L"^(\\[INFO\\]|\\[ERROR\\]|\\[LevelNull\\])"
    L"\\[(\\d{4})-([1-9]|1[0-2])-([1-9]|[12]\\d|3[01]) ([01]\\d|2[0-3]):([0-5]\\d):([0-5]\\d)\\]"
    L"\\[kwdeepscan\\]\\[(\\d+)-logprobe-LogProbe::Main-86\\]::(.*)\r\n$");

struct ProbeRow {
    const char* name;
    const char* ini;          // Holmlog.ini's content; null: no file
    const wchar_t* args;      // the probe's options
    std::vector<std::wstring> fileMessages;   // message parts in the file, in order; empty: no file
    std::vector<std::wstring> debugMessages;  // message parts sent to the debugger, in order
    bool withLib = false;             // logprobelib.dll is copied beside the probe
    const char* reports = nullptr;    // a "key=value" line the probe must print
    const wchar_t* tag = L"[INFO]";   // level tag of every line
};

std::vector<std::wstring> Numbered(const std::wstring& text, int count) {
    std::vector<std::wstring> out;
    for (int i = 1; i <= count; ++i) out.push_back(text + L" #" + std::to_wstring(i));
    return out;
}
const std::vector<std::wstring> kNone;

// Checks that `lines` are file-channel lines of this probe with these message
// parts, in order, written by the probe's main thread.
void CheckLines(const char* where, const std::vector<std::wstring>& lines, const std::vector<std::wstring>& messages,
                const ProbeRow& r, const ProbeRun& run) {
    SCOPED_TRACE(where);
    ASSERT_EQ(messages.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        SCOPED_TRACE("line " + std::to_string(i));
        std::wsmatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, kLineLayout)) << testing::PrintToString(lines[i]);
        EXPECT_EQ(std::wstring(r.tag), m[1].str());
        EXPECT_EQ(run.Text("tid"), m[8].str()) << "the writing thread's id";
        EXPECT_EQ(messages[i], m[9].str());
    }
}

class LogWriterProbe : public ::testing::TestWithParam<ProbeRow> {};

TEST_P(LogWriterProbe, ConfigurationFileNameAndLines) {
    const ProbeRow& r = GetParam();
    kwtest::TempDir dir(L"kwlogprobe");
    const std::wstring dayBefore = Today();
    ProbeRun run = RunProbeIn(dir, r.ini, r.withLib, r.args);
    const std::wstring dayAfter = Today();
    ASSERT_EQ(0, run.exitCode) << run.output;
    const std::string report = r.reports ? r.reports : "done=1";
    EXPECT_EQ(report.substr(report.find('=') + 1), run.Value(report.substr(0, report.find('=')))) << run.output;

    // The log path is computed whether or not anything is written.
    const std::wstring logPath = run.Text("logPath");
    const std::wstring nameEnd = L"_" + run.Text("pid") + L"_logprobe.log";
    EXPECT_TRUE(logPath == dir.Path() + L"\\" + dayBefore + nameEnd || logPath == dir.Path() + L"\\" + dayAfter + nameEnd)
        << testing::PrintToString(logPath);
    const std::wstring logName = logPath.substr(logPath.find_last_of(L'\\') + 1);

    std::set<std::wstring> expectedFiles{L"logprobe.exe"};
    if (r.ini) expectedFiles.insert(L"Holmlog.ini");
    if (r.withLib) expectedFiles.insert(L"logprobelib.dll");
    if (!r.fileMessages.empty()) expectedFiles.insert(logName);
    EXPECT_EQ(expectedFiles, FilesIn(dir.Path())) << "nothing but the log file is written";

    // Every line, the last included, ends in CR LF (the layout checks it).
    std::vector<std::wstring> fileLines;
    const std::wstring text = Ascii(ReadBytes(dir.Path() + L"\\" + logName));
    for (size_t pos = 0, end; pos < text.size(); pos = end) {
        end = text.find(L"\r\n", pos);
        end = end == std::wstring::npos ? text.size() : end + 2;
        fileLines.push_back(text.substr(pos, end - pos));
    }
    CheckLines("log file", fileLines, r.fileMessages, r, run);
    CheckLines("debugger output", run.debugLines, r.debugMessages, r, run);
    // With both outputs on, the debugger receives the very lines of the file.
    if (!r.fileMessages.empty() && !r.debugMessages.empty()) {
        EXPECT_EQ(fileLines, run.debugLines);
    }
}

#define OUTLOG "[OUTLOG]\r\n"
const char kAsync[] = OUTLOG "OutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=0\r\n";
const char kSync[] = OUTLOG "OutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=1\r\n";
std::vector<std::wstring> Probe(int count) { return Numbered(L"probe line", count); }
std::vector<std::wstring> Dll(int count) { return Numbered(L"dll", count); }

// Each key defaults to -1 when missing and reads 0 when not a number; output
// is on when OutFile or DebugView is non-zero and DataSize is above 0.
const ProbeRow kProbeRows[] = {
    {"no Holmlog ini writes nothing but computes the path", nullptr, L"--lines 1", kNone, kNone},
    {"DataSize 0 is off", OUTLOG "OutFile=1\r\nDebugView=1\r\nDataSize=0\r\n", L"--lines 1", kNone, kNone, false, "enabled=0"},
    {"DataSize 1 keeps one character", OUTLOG "OutFile=1\r\nDebugView=0\r\nDataSize=1\r\nWriteSyn=1\r\n", L"--lines 1", {L"p"}, kNone},
    {"non-numeric switches read 0 and are off", OUTLOG "OutFile=yes\r\nDebugView=on\r\nDataSize=100\r\n", L"--lines 1", kNone, kNone},
    {"debugger output only", OUTLOG "OutFile=0\r\nDebugView=1\r\nDataSize=100\r\n", L"--lines 2", kNone, Probe(2)},
    {"only DataSize set: file and debugger, synchronous", OUTLOG "DataSize=100\r\n", L"--lines 2", Probe(2), Probe(2)},
    {"background writer: file and debugger, flushed by the stop", OUTLOG "OutFile=1\r\nDataSize=100\r\nWriteSyn=0\r\n",
     L"--lines 3 --stop", Probe(3), Probe(3)},
    {"level 1 through the writer is ERROR", kSync, L"--lines 1 --level 1", Probe(1), kNone, false, nullptr, L"[ERROR]"},
    {"FileLogIfOpen writes nothing before the writer exists", kSync, L"--if-open --lines 1", Probe(1), kNone},
    {"writer in a DLL unloaded without a stop keeps its module until done", kAsync, L"--dll-no-stop", Dll(3), kNone, true,
     "dllLoadedAfterFree=1"},
    {"lines still queued when the program exits are written", kAsync, L"--hold --lines 500", Probe(500), kNone},
    {"lines still queued in a DLL when the process ends are written", kAsync, L"--dll-exit 500", Dll(500), kNone, true},
};
INSTANTIATE_TEST_SUITE_P(Rows, LogWriterProbe, ::testing::ValuesIn(kProbeRows), kwtest::ByRowName());

}  // namespace

// The background writer's resources, in one probe run. A writer that polled
// its queue would use about one processor for the whole idle period. Then
// twenty rounds of load, write, stop, unload: the writer's objects go with
// the module. What the system keeps per load (measured by as many rounds that
// only load and unload) is not the writer's; a writer left behind would add
// about a dozen heap blocks per round.
TEST(LogWriterResources, NoCpuWhileIdleAndNothingLeftBehindPerDllUnload) {
    kwtest::TempDir dir(L"kwlogres");
    ProbeRun run = RunProbeIn(dir, kAsync, true, L"--lines 1 --idle-ms 2000 --stop --dll 20");
    ASSERT_EQ(0, run.exitCode) << run.output;
    ASSERT_NE("", run.Value("idleCpuMs")) << run.output;
    EXPECT_LT(atof(run.Value("idleCpuMs").c_str()), 200.0) << "process CPU (ms) over 2000 ms idle";
    ASSERT_EQ("20", run.Value("dllUnloaded")) << run.output;
    EXPECT_LT(atoi(run.Value("heapGrowth").c_str()) - atoi(run.Value("bareGrowth").c_str()), 2 * 19) << run.output;
}
