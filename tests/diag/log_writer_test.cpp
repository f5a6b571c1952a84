// The file channel as a process sees it. The configuration is read once per
// process from "Holmlog.ini" beside the executable, so every case copies the
// probe program (tests/helpers/logprobe.cpp) into a folder of its own, writes
// that case's Holmlog.ini beside it, runs it under a small debugger loop that
// collects its debugger output, and checks what the probe reported, the log
// file's name and every line in it.
#include "support/fixtures.h"
#include "support/kit.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

// A file built beside this test program.
std::wstring BesideTests(const wchar_t* name) {
    wchar_t self[MAX_PATH + 1] = {0};
    DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, n > MAX_PATH ? MAX_PATH : n);
    return path.substr(0, path.find_last_of(L'\\') + 1) + name;
}

// Text in a code page (the log file: ANSI; the probe's report: UTF-8).
std::wstring Widen(const std::string& s, UINT codePage = CP_ACP) {
    if (s.empty()) return std::wstring();
    int n = MultiByteToWideChar(codePage, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(codePage, 0, s.data(), static_cast<int>(s.size()), &out[0], n);
    return out;
}

std::string ReadBytes(const std::wstring& path) {
    std::string out;
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return out;
    char buf[8192];
    DWORD got = 0;
    while (ReadFile(h, buf, sizeof(buf), &got, nullptr) && got) out.append(buf, got);
    CloseHandle(h);
    return out;
}

std::set<std::wstring> FilesIn(const std::wstring& dir) {
    std::set<std::wstring> names;
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileW((dir + L"\\*").c_str(), &fd);
    if (h == INVALID_HANDLE_VALUE) return names;
    do {
        std::wstring n = fd.cFileName;
        if (n != L"." && n != L"..") names.insert(n);
    } while (FindNextFileW(h, &fd));
    FindClose(h);
    return names;
}

std::wstring Today() {
    SYSTEMTIME t;
    GetLocalTime(&t);
    return std::to_wstring(t.wYear) + L"-" + std::to_wstring(t.wMonth) + L"-" + std::to_wstring(t.wDay);
}

// What one probe run produced.
struct ProbeRun {
    int exitCode = -1;
    std::string output;                   // the probe's "key=value" lines (UTF-8)
    std::vector<std::wstring> debugLines; // strings it sent to the debugger

    std::string Value(const std::string& key) const {
        const size_t at = ("\n" + output).find("\n" + key + "=");
        if (at == std::string::npos) return std::string();
        const size_t start = at + key.size() + 1;
        return output.substr(start, output.find_first_of("\r\n", start) - start);
    }
    std::wstring Text(const std::string& key) const { return Widen(Value(key), CP_UTF8); }
};

// Reads a string out of the debuggee: `cch` characters (its NUL included),
// wide or narrow (narrow text is in the ANSI code page).
std::wstring ReadDebugString(HANDLE process, const OUTPUT_DEBUG_STRING_INFO& info) {
    const size_t cch = info.nDebugStringLength;
    if (cch == 0 || cch > (1u << 20)) return std::wstring();
    SIZE_T got = 0;
    if (info.fUnicode) {
        std::wstring s(cch, L'\0');
        ReadProcessMemory(process, info.lpDebugStringData, &s[0], cch * sizeof(wchar_t), &got);
        s.resize(got / sizeof(wchar_t));
        while (!s.empty() && s.back() == L'\0') s.pop_back();
        return s;
    }
    std::string s(cch, '\0');
    ReadProcessMemory(process, info.lpDebugStringData, &s[0], cch, &got);
    s.resize(got);
    while (!s.empty() && s.back() == '\0') s.pop_back();
    return Widen(s);
}

// Starts exe as a debuggee with the working folder cwd, collects its standard
// output and every string it sends to the debugger, and waits for its exit.
ProbeRun RunProbe(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd) {
    ProbeRun run;
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    HANDLE rd = nullptr, wr = nullptr;
    if (!CreatePipe(&rd, &wr, &sa, 0)) return run;
    SetHandleInformation(rd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = wr;
    si.hStdError = wr;
    PROCESS_INFORMATION pi{};
    std::wstring cmd = L"\"" + exe + L"\" " + args;
    std::vector<wchar_t> cmdBuf(cmd.begin(), cmd.end());
    cmdBuf.push_back(0);
    BOOL ok = CreateProcessW(exe.c_str(), cmdBuf.data(), nullptr, nullptr, TRUE,
                             DEBUG_ONLY_THIS_PROCESS, nullptr, cwd.c_str(), &si, &pi);
    CloseHandle(wr);
    if (!ok) {
        CloseHandle(rd);
        return run;
    }
    // The pipe is drained on a thread of its own so a chatty child never blocks.
    std::thread reader([rd, &run] {
        char chunk[4096];
        DWORD got = 0;
        while (ReadFile(rd, chunk, sizeof(chunk), &got, nullptr) && got) run.output.append(chunk, got);
    });
    bool firstBreak = true;  // the loader's initial breakpoint is the debugger's own
    DEBUG_EVENT ev{};
    while (WaitForDebugEvent(&ev, 60000)) {
        const DWORD code = ev.dwDebugEventCode;
        DWORD status = DBG_CONTINUE;
        if (code == CREATE_PROCESS_DEBUG_EVENT && ev.u.CreateProcessInfo.hFile)
            CloseHandle(ev.u.CreateProcessInfo.hFile);
        if (code == LOAD_DLL_DEBUG_EVENT && ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
        if (code == OUTPUT_DEBUG_STRING_EVENT)
            run.debugLines.push_back(ReadDebugString(pi.hProcess, ev.u.DebugString));
        if (code == EXCEPTION_DEBUG_EVENT) {
            if (!firstBreak || ev.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT)
                status = DBG_EXCEPTION_NOT_HANDLED;
            firstBreak = false;
        }
        if (code == EXIT_PROCESS_DEBUG_EVENT) run.exitCode = static_cast<int>(ev.u.ExitProcess.dwExitCode);
        ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
        if (code == EXIT_PROCESS_DEBUG_EVENT) break;
    }
    if (run.exitCode == -1) TerminateProcess(pi.hProcess, 99);
    WaitForSingleObject(pi.hProcess, 60000);
    reader.join();
    CloseHandle(rd);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return run;
}

// Copies the probe (and with withLib its DLL) into dir beside a Holmlog.ini
// with this content (none when null) and runs it there.
ProbeRun RunProbeIn(kwtest::TempDir& dir, const char* ini, bool withLib, const std::wstring& args) {
    const std::wstring exe = dir.Path() + L"\\logprobe.exe";
    ProbeRun failed;
    failed.output = "logprobe.exe or logprobelib.dll not found beside the tests";
    if (!CopyFileW(BesideTests(L"logprobe.exe").c_str(), exe.c_str(), FALSE)) return failed;
    if (withLib && !CopyFileW(BesideTests(L"logprobelib.dll").c_str(),
                              (dir.Path() + L"\\logprobelib.dll").c_str(), FALSE))
        return failed;
    if (ini) dir.File(L"Holmlog.ini", ini);
    return RunProbe(exe, args, dir.Path());
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
void CheckLines(const std::vector<std::wstring>& lines, const std::vector<std::wstring>& messages,
                const ProbeRow& r, const ProbeRun& run) {
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
    ASSERT_EQ("1", run.Value("done")) << run.output;
    if (r.reports) {
        std::string report = r.reports;
        size_t eq = report.find('=');
        EXPECT_EQ(report.substr(eq + 1), run.Value(report.substr(0, eq))) << run.output;
    }

    // The log path is computed whether or not anything is written.
    const std::wstring logPath = run.Text("logPath");
    const std::wstring nameEnd = L"_" + run.Text("pid") + L"_logprobe.log";
    EXPECT_TRUE(logPath == dir.Path() + L"\\" + dayBefore + nameEnd ||
                logPath == dir.Path() + L"\\" + dayAfter + nameEnd)
        << testing::PrintToString(logPath);
    const std::wstring logName = logPath.substr(logPath.find_last_of(L'\\') + 1);

    std::set<std::wstring> expectedFiles{L"logprobe.exe"};
    if (r.ini) expectedFiles.insert(L"Holmlog.ini");
    if (r.withLib) expectedFiles.insert(L"logprobelib.dll");
    if (!r.fileMessages.empty()) expectedFiles.insert(logName);
    EXPECT_EQ(expectedFiles, FilesIn(dir.Path())) << "nothing but the log file is written";

    std::vector<std::wstring> fileLines;
    if (!r.fileMessages.empty()) {
        const std::wstring text = Widen(ReadBytes(dir.Path() + L"\\" + logName));
        ASSERT_GE(text.size(), 2u);
        ASSERT_EQ(L"\r\n", text.substr(text.size() - 2)) << "the file ends with a whole line";
        for (size_t pos = 0, end; pos < text.size(); pos = end + 2) {
            end = text.find(L"\r\n", pos);
            fileLines.push_back(text.substr(pos, end + 2 - pos));
        }
        SCOPED_TRACE("log file");
        CheckLines(fileLines, r.fileMessages, r, run);
    }
    {
        SCOPED_TRACE("debugger output");
        CheckLines(run.debugLines, r.debugMessages, r, run);
    }
    // With both outputs on, the debugger receives the very lines of the file.
    if (!r.fileMessages.empty() && !r.debugMessages.empty()) {
        EXPECT_EQ(fileLines, run.debugLines);
    }
}

const char kAsync[] = "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=0\r\n";
const char kSync[] = "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=1\r\n";

// Each key defaults to -1 when missing and reads 0 when not a number; output
// is on when OutFile or DebugView is non-zero and DataSize is above 0.
INSTANTIATE_TEST_SUITE_P(
    Rows, LogWriterProbe,
    ::testing::Values(
        ProbeRow{"no Holmlog ini writes nothing but computes the path", nullptr, L"--lines 1", kNone, kNone},
        ProbeRow{"DataSize 0 is off", "[OUTLOG]\r\nOutFile=1\r\nDebugView=1\r\nDataSize=0\r\n",
                 L"--lines 1", kNone, kNone, false, "enabled=0"},
        ProbeRow{"DataSize 1 keeps one character",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=1\r\nWriteSyn=1\r\n",
                 L"--lines 1", {L"p"}, kNone},
        ProbeRow{"non-numeric switches read 0 and are off",
                 "[OUTLOG]\r\nOutFile=yes\r\nDebugView=on\r\nDataSize=100\r\n", L"--lines 1", kNone, kNone},
        ProbeRow{"debugger output only", "[OUTLOG]\r\nOutFile=0\r\nDebugView=1\r\nDataSize=100\r\n",
                 L"--lines 2", kNone, Numbered(L"probe line", 2)},
        ProbeRow{"only DataSize set: file and debugger, synchronous", "[OUTLOG]\r\nDataSize=100\r\n",
                 L"--lines 2", Numbered(L"probe line", 2), Numbered(L"probe line", 2)},
        ProbeRow{"background writer: file and debugger, flushed by the stop",
                 "[OUTLOG]\r\nOutFile=1\r\nDataSize=100\r\nWriteSyn=0\r\n", L"--lines 3 --stop",
                 Numbered(L"probe line", 3), Numbered(L"probe line", 3)},
        ProbeRow{"level 1 through the writer is ERROR", kSync, L"--lines 1 --level 1", {L"probe line #1"},
                 kNone, false, nullptr, L"[ERROR]"},
        ProbeRow{"FileLogIfOpen writes nothing before the writer exists", kSync, L"--if-open --lines 1",
                 {L"probe line #1"}, kNone},
        ProbeRow{"writer in a DLL unloaded without a stop keeps its module until done", kAsync,
                 L"--dll-no-stop", Numbered(L"dll", 3), kNone, true, "dllLoadedAfterFree=1"},
        ProbeRow{"lines still queued when the program exits are written", kAsync, L"--hold --lines 500",
                 Numbered(L"probe line", 500), kNone},
        ProbeRow{"lines still queued in a DLL when the process ends are written", kAsync,
                 L"--dll-exit 500", Numbered(L"dll", 500), kNone, true}),
    kwtest::ByRowName());

}  // namespace

// A writer that polled its queue would use about one processor for the whole
// idle period.
TEST(LogWriterIdleCpu, BackgroundWriterUsesNoCpuWhileIdle) {
    kwtest::TempDir dir(L"kwlogidle");
    ProbeRun run = RunProbeIn(dir, kAsync, false, L"--lines 1 --idle-ms 2000 --stop");
    ASSERT_EQ(0, run.exitCode) << run.output;
    ASSERT_NE("", run.Value("idleCpuMs")) << run.output;
    EXPECT_LT(atof(run.Value("idleCpuMs").c_str()), 200.0) << "process CPU (ms) over 2000 ms idle";
}

// Twenty rounds of load, write, stop, unload: the writer's objects go with
// the module. What the system keeps per load (measured by as many rounds that
// only load and unload) is not the writer's; a writer left behind would add
// about a dozen heap blocks per round.
TEST(LogWriterDll, NothingLeftBehindPerLoadAndUnload) {
    kwtest::TempDir dir(L"kwlogleak");
    ProbeRun run = RunProbeIn(dir, kAsync, true, L"--dll 20");
    ASSERT_EQ(0, run.exitCode) << run.output;
    ASSERT_EQ("20", run.Value("dllUnloaded")) << run.output;
    EXPECT_LT(atoi(run.Value("heapGrowth").c_str()) - atoi(run.Value("bareGrowth").c_str()), 2 * 19)
        << run.output;
}
