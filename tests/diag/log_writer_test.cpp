// The file channel as a process sees it. The configuration is read once per
// process from "Holmlog.ini" beside the executable, so every case copies the
// probe program (tests/helpers/logprobe.cpp) into a folder of its own, writes
// that case's Holmlog.ini beside it, runs it under a small debugger loop that
// collects its debugger output, and checks what the probe reported, the log
// file's name and every line in it.
#include "support/fixtures.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string TestName(const char* title) {
    std::string s;
    for (const char* p = title; *p; ++p) s += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    return s;
}

// A file built beside this test program.
std::wstring BesideTests(const wchar_t* name) {
    wchar_t self[MAX_PATH + 1] = {0};
    DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, n > MAX_PATH ? MAX_PATH : n);
    return path.substr(0, path.find_last_of(L'\\') + 1) + name;
}
std::wstring ProbePath() { return BesideTests(L"logprobe.exe"); }

std::wstring FromAnsi(const std::string& s) {
    if (s.empty()) return std::wstring();
    int n = MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), &out[0], n);
    return out;
}

std::wstring FromUtf8(const std::string& s) {
    if (s.empty()) return std::wstring();
    int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], n);
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
    std::string output;                   // the probe's "key=value" lines
    std::vector<std::wstring> debugLines; // strings it sent to the debugger

    std::string Value(const std::string& key) const {
        size_t pos = 0;
        while (pos < output.size()) {
            size_t end = output.find('\n', pos);
            if (end == std::string::npos) end = output.size();
            std::string line = output.substr(pos, end - pos);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.compare(0, key.size() + 1, key + "=") == 0) return line.substr(key.size() + 1);
            pos = end + 1;
        }
        return std::string();
    }
    int Int(const std::string& key) const {
        std::string v = Value(key);
        return v.empty() ? -12345 : atoi(v.c_str());
    }
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
    return FromAnsi(s);
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
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
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
    bool firstBreak = true;
    for (;;) {
        DEBUG_EVENT ev{};
        if (!WaitForDebugEvent(&ev, 60000)) {
            TerminateProcess(pi.hProcess, 99);
            break;
        }
        DWORD status = DBG_CONTINUE;
        bool exited = false;
        switch (ev.dwDebugEventCode) {
        case CREATE_PROCESS_DEBUG_EVENT:
            if (ev.u.CreateProcessInfo.hFile) CloseHandle(ev.u.CreateProcessInfo.hFile);
            break;
        case LOAD_DLL_DEBUG_EVENT:
            if (ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
            break;
        case OUTPUT_DEBUG_STRING_EVENT:
            run.debugLines.push_back(ReadDebugString(pi.hProcess, ev.u.DebugString));
            break;
        case EXCEPTION_DEBUG_EVENT:
            if (firstBreak && ev.u.Exception.ExceptionRecord.ExceptionCode == EXCEPTION_BREAKPOINT) {
                firstBreak = false;  // the loader's initial breakpoint
            } else {
                status = DBG_EXCEPTION_NOT_HANDLED;
            }
            break;
        case EXIT_PROCESS_DEBUG_EVENT:
            run.exitCode = static_cast<int>(ev.u.ExitProcess.dwExitCode);
            exited = true;
            break;
        default:
            break;
        }
        ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, status);
        if (exited) break;
    }
    WaitForSingleObject(pi.hProcess, 60000);
    reader.join();
    CloseHandle(rd);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return run;
}

// One line of the file channel, split into its parts.
const std::wregex kLineLayout(
    L"^(\\[INFO\\]|\\[ERROR\\]|\\[LevelNull\\])"
    L"\\[(\\d{4})-([1-9]|1[0-2])-([1-9]|[12]\\d|3[01]) ([01]\\d|2[0-3]):([0-5]\\d):([0-5]\\d)\\]"
    L"\\[kwdeepscan\\]\\[(\\d+)-logprobe-LogProbe::Main-86\\]::(.*)\r\n$");

struct ProbeRow {
    const char* name;
    const wchar_t* exeName;   // the name the probe is copied to
    const char* ini;          // Holmlog.ini's content; null: no file
    const wchar_t* args;      // the probe's options
    // What the writer read: enabled, OutFile, DebugView, DataSize, WriteSyn.
    int enabled, outFile, debugView, dataSize, writeSyn;
    const wchar_t* logNameEnd;  // the log file's name after "<date>_<pid>_"
    const wchar_t* tag;         // level tag of every line
    std::vector<std::wstring> fileMessages;   // message parts in the file, in order; empty: no file
    std::vector<std::wstring> debugMessages;  // message parts sent to the debugger, in order
    bool withLib = false;             // logprobelib.dll is copied beside the probe
    const char* reports = nullptr;    // a "key=value" line the probe must print
};
void PrintTo(const ProbeRow& r, std::ostream* os) { *os << r.name; }

std::vector<std::wstring> Numbered(const std::wstring& text, int count) {
    std::vector<std::wstring> out;
    for (int i = 1; i <= count; ++i) out.push_back(text + L" #" + std::to_wstring(i));
    return out;
}
std::vector<std::wstring> Join(std::vector<std::wstring> a, const std::vector<std::wstring>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
const std::vector<std::wstring> kNone;
const std::vector<std::wstring> kOneLine{L"probe line"};

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
        EXPECT_EQ(FromUtf8(run.Value("tid")), m[8].str()) << "the writing thread's id";
        EXPECT_EQ(messages[i], m[9].str());
    }
}

class LogWriterProbe : public ::testing::TestWithParam<ProbeRow> {};

TEST_P(LogWriterProbe, ConfigurationFileNameAndLines) {
    const ProbeRow& r = GetParam();
    kwtest::TempDir dir(L"kwlogprobe");
    const std::wstring exe = dir.Path() + L"\\" + r.exeName;
    ASSERT_TRUE(CopyFileW(ProbePath().c_str(), exe.c_str(), FALSE)) << "logprobe.exe beside the tests";
    if (r.withLib) {
        ASSERT_TRUE(CopyFileW(BesideTests(L"logprobelib.dll").c_str(),
                              (dir.Path() + L"\\logprobelib.dll").c_str(), FALSE));
    }
    if (r.ini) dir.File(L"Holmlog.ini", r.ini);

    const std::wstring dayBefore = Today();
    ProbeRun run = RunProbe(exe, r.args, dir.Path());
    const std::wstring dayAfter = Today();
    ASSERT_EQ(0, run.exitCode) << run.output;
    ASSERT_EQ("1", run.Value("done")) << run.output;
    if (r.reports) {
        std::string report = r.reports;
        size_t eq = report.find('=');
        EXPECT_EQ(report.substr(eq + 1), run.Value(report.substr(0, eq))) << run.output;
    }

    EXPECT_EQ(r.enabled, run.Int("enabled"));
    EXPECT_EQ(r.outFile, run.Int("outFile"));
    EXPECT_EQ(r.debugView, run.Int("debugView"));
    EXPECT_EQ(r.dataSize, run.Int("dataSize"));
    EXPECT_EQ(r.writeSyn, run.Int("writeSyn"));

    // The log path is computed whether or not anything is written.
    const std::wstring pid = FromUtf8(run.Value("pid"));
    const std::wstring logPath = FromUtf8(run.Value("logPath"));
    const std::wstring nameBefore = dayBefore + L"_" + pid + L"_" + r.logNameEnd;
    const std::wstring nameAfter = dayAfter + L"_" + pid + L"_" + r.logNameEnd;
    EXPECT_TRUE(logPath == dir.Path() + L"\\" + nameBefore || logPath == dir.Path() + L"\\" + nameAfter)
        << testing::PrintToString(logPath);
    const std::wstring logName = logPath.substr(logPath.find_last_of(L'\\') + 1);

    std::set<std::wstring> expectedFiles{r.exeName};
    if (r.ini) expectedFiles.insert(L"Holmlog.ini");
    if (r.withLib) expectedFiles.insert(L"logprobelib.dll");
    if (!r.fileMessages.empty()) expectedFiles.insert(logName);
    EXPECT_EQ(expectedFiles, FilesIn(dir.Path())) << "nothing but the log file is written";

    std::vector<std::wstring> fileLines;
    if (!r.fileMessages.empty()) {
        const std::wstring text = FromAnsi(ReadBytes(dir.Path() + L"\\" + logName));
        ASSERT_GE(text.size(), 2u);
        EXPECT_EQ(L"\r\n", text.substr(text.size() - 2)) << "the file ends with a whole line";
        size_t pos = 0;
        while (pos < text.size()) {
            size_t end = text.find(L"\r\n", pos);
            if (end == std::wstring::npos) end = text.size() - 2;
            fileLines.push_back(text.substr(pos, end + 2 - pos));
            pos = end + 2;
        }
        {
            SCOPED_TRACE("log file");
            CheckLines(fileLines, r.fileMessages, r, run);
        }
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

const char kSync10[] = "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=10\r\nWriteSyn=1\r\n";
const char kAsync[] = "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=0\r\n";
const char kSync100[] = "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=1\r\n";
const wchar_t kText40[] = L"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcd";

INSTANTIATE_TEST_SUITE_P(
    Rows, LogWriterProbe,
    ::testing::Values(
        ProbeRow{"no Holmlog ini writes nothing but computes the path", L"logprobe.exe", nullptr,
                 L"--lines 1", 0, 0, 0, 2048, 0, L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"only OutFile set is off because DataSize is missing", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\n", L"--lines 1", 0, 1, -1, -1, -1, L"logprobe.log",
                 L"[INFO]", kNone, kNone},
        ProbeRow{"keys outside the OUTLOG section are not read", L"logprobe.exe",
                 "[OTHER]\r\nOutFile=1\r\nDataSize=10\r\n", L"--lines 1", 0, -1, -1, -1, -1,
                 L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"empty Holmlog ini is off", L"logprobe.exe", "", L"--lines 1", 0, -1, -1, -1, -1,
                 L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"synchronous DataSize 10 cuts the message to 19 characters", L"logprobe.exe", kSync10,
                 L"--lines 1 --text 0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcd", 1, 1, 0, 10, 1,
                 L"logprobe.log", L"[INFO]", {std::wstring(kText40, 19)}, kNone},
        ProbeRow{"synchronous DataSize 10 keeps 19 characters whole", L"logprobe.exe", kSync10,
                 L"--lines 1 --text 0123456789ABCDEFGHI", 1, 1, 0, 10, 1, L"logprobe.log", L"[INFO]",
                 {std::wstring(kText40, 19)}, kNone},
        ProbeRow{"DataSize 1 keeps one character", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=1\r\nWriteSyn=1\r\n",
                 L"--lines 1 --text abc", 1, 1, 0, 1, 1, L"logprobe.log", L"[INFO]", {L"a"}, kNone},
        ProbeRow{"DataSize 0 is off", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=1\r\nDataSize=0\r\n", L"--lines 1", 0, 1, 1, 0,
                 -1, L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"negative DataSize is off", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=1\r\nDataSize=-5\r\n", L"--lines 1", 0, 1, 1, -5,
                 -1, L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"non-numeric DataSize reads 0 and is off", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=1\r\nDataSize=big\r\n", L"--lines 1", 0, 1, 1, 0,
                 -1, L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"non-numeric switches read 0 and are off", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=yes\r\nDebugView=on\r\nDataSize=100\r\n", L"--lines 1", 0, 0, 0,
                 100, -1, L"logprobe.log", L"[INFO]", kNone, kNone},
        ProbeRow{"non-numeric WriteSyn reads 0 and selects the background writer", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=0\r\nDataSize=100\r\nWriteSyn=sync\r\n",
                 L"--lines 3 --stop", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 Numbered(L"probe line", 3), kNone},
        ProbeRow{"debugger output only", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=0\r\nDebugView=1\r\nDataSize=100\r\n", L"--lines 2", 1, 0, 1, 100,
                 -1, L"logprobe.log", L"[INFO]", kNone, Numbered(L"probe line", 2)},
        ProbeRow{"only DataSize set: file and debugger, synchronous", L"logprobe.exe",
                 "[OUTLOG]\r\nDataSize=100\r\n", L"--lines 2", 1, -1, -1, 100, -1, L"logprobe.log",
                 L"[INFO]", Numbered(L"probe line", 2), Numbered(L"probe line", 2)},
        ProbeRow{"background writer: file and debugger", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDataSize=100\r\nWriteSyn=0\r\n", L"--lines 3 --stop", 1, 1,
                 -1, 100, 0, L"logprobe.log", L"[INFO]", Numbered(L"probe line", 3),
                 Numbered(L"probe line", 3)},
        ProbeRow{"background writer: many lines in order, all flushed by the stop", L"logprobe.exe",
                 kAsync, L"--lines 300 --stop", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 Numbered(L"probe line", 300), kNone},
        ProbeRow{"background writer: lines after a stop start a new writer", L"logprobe.exe", kAsync,
                 L"--lines 3 --stop --again 2", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 Join(Numbered(L"probe line", 3), Numbered(L"again", 2)), kNone},
        ProbeRow{"synchronous lines after a stop reopen the file", L"logprobe.exe", kSync100,
                 L"--lines 2 --stop --again 2", 1, 1, 0, 100, 1, L"logprobe.log", L"[INFO]",
                 Join(Numbered(L"probe line", 2), Numbered(L"again", 2)), kNone},
        ProbeRow{"DataSize past what could be allocated writes short lines whole", L"logprobe.exe",
                 "[OUTLOG]\r\nOutFile=1\r\nDebugView=1\r\nDataSize=2000000000\r\nWriteSyn=0\r\n",
                 L"--lines 2 --stop", 1, 1, 1, 2000000000, 0, L"logprobe.log", L"[INFO]",
                 Numbered(L"probe line", 2), Numbered(L"probe line", 2)},
        ProbeRow{"executable without a dot keeps the bracket in the log name", L"logprobe", kSync100,
                 L"--lines 1", 1, 1, 0, 100, 1, L"logprobe]log", L"[INFO]", kOneLine, kNone},
        ProbeRow{"executable with two dots: stem ends at the first", L"log.probe.exe", kSync100,
                 L"--lines 1", 1, 1, 0, 100, 1, L"log.log", L"[INFO]", kOneLine, kNone},
        ProbeRow{"level 0 through the writer is INFO", L"logprobe.exe", kSync100, L"--lines 1 --level 0",
                 1, 1, 0, 100, 1, L"logprobe.log", L"[INFO]", kOneLine, kNone},
        ProbeRow{"level 1 is ERROR", L"logprobe.exe", kSync100, L"--lines 1 --level 1", 1, 1, 0, 100, 1,
                 L"logprobe.log", L"[ERROR]", kOneLine, kNone},
        ProbeRow{"level 2 is LevelNull", L"logprobe.exe", kSync100, L"--lines 1 --level 2", 1, 1, 0,
                 100, 1, L"logprobe.log", L"[LevelNull]", kOneLine, kNone},
        ProbeRow{"level 5 is LevelNull", L"logprobe.exe", kSync100, L"--lines 1 --level 5", 1, 1, 0,
                 100, 1, L"logprobe.log", L"[LevelNull]", kOneLine, kNone},
        ProbeRow{"FileLogIfOpen writes nothing before the writer exists", L"logprobe.exe", kSync100,
                 L"--if-open --lines 1", 1, 1, 0, 100, 1, L"logprobe.log", L"[INFO]", kOneLine, kNone},
        ProbeRow{"text outside ASCII is written in the ANSI code page", L"logprobe.exe", kSync100,
                 L"--lines 1 --text caf\u00e9", 1, 1, 0, 100, 1, L"logprobe.log", L"[INFO]",
                 {L"caf\u00e9"}, kNone},
        ProbeRow{"writer in a DLL: stop, unload and load again, three rounds", L"logprobe.exe", kAsync,
                 L"--dll 3", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 {L"dll1 #1", L"dll1 #2", L"dll2 #1", L"dll2 #2", L"dll3 #1", L"dll3 #2"}, kNone, true,
                 "dllUnloaded=3"},
        ProbeRow{"writer in a DLL unloaded without a stop keeps its module until done", L"logprobe.exe",
                 kAsync, L"--dll-no-stop", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 Numbered(L"dll", 3), kNone, true, "dllLoadedAfterFree=1"},
        ProbeRow{"lines still queued when the program exits are written", L"logprobe.exe", kAsync,
                 L"--hold --lines 500", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 Numbered(L"probe line", 500), kNone},
        ProbeRow{"lines still queued in a DLL when the process ends are written", L"logprobe.exe",
                 kAsync, L"--dll-exit 500", 1, 1, 0, 100, 0, L"logprobe.log", L"[INFO]",
                 Numbered(L"dll", 500), kNone, true},
        ProbeRow{"synchronous writer in a DLL unloads after its stop", L"logprobe.exe", kSync100,
                 L"--dll 2", 1, 1, 0, 100, 1, L"logprobe.log", L"[INFO]",
                 {L"dll1 #1", L"dll1 #2", L"dll2 #1", L"dll2 #2"}, kNone, true, "dllUnloaded=2"}),
    [](const ::testing::TestParamInfo<ProbeRow>& i) { return TestName(i.param.name); });

// Runs the probe with the background writer and reports the process's CPU
// time over an idle period. A writer that polled its queue would use about
// one processor for the whole period.
double MeasureCpu(const wchar_t* mode, const char* key, std::string* output) {
    kwtest::TempDir dir(L"kwlogidle");
    const std::wstring exe = dir.Path() + L"\\logprobe.exe";
    if (!CopyFileW(ProbePath().c_str(), exe.c_str(), FALSE)) return -1;
    dir.File(L"Holmlog.ini", kAsync);
    ProbeRun run = RunProbe(exe, std::wstring(L"--lines 1 --stop ") + mode, dir.Path());
    *output = run.output;
    std::string v = run.Value(key);
    return run.exitCode == 0 && !v.empty() ? atof(v.c_str()) : -1;
}

}  // namespace

TEST(LogWriterIdleCpu, BackgroundWriterUsesNoCpuWhileIdle) {
    std::string out;
    const double idleMs = MeasureCpu(L"--idle-ms 2000", "idleCpuMs", &out);
    ASSERT_GE(idleMs, 0.0) << out;
    // The measurement itself sees a busy thread (calibration).
    std::string burnOut;
    const double burnMs = MeasureCpu(L"--burn-ms 1000", "burnCpuMs", &burnOut);
    printf("[ figure ] process CPU over 2000 ms idle with the background writer: %.1f ms\n", idleMs);
    printf("[ figure ] process CPU over 1000 ms with one busy thread (calibration): %.1f ms\n", burnMs);
    RecordProperty("idleCpuMs", std::to_string(idleMs));
    RecordProperty("burnCpuMs", std::to_string(burnMs));
    EXPECT_LT(idleMs, 200.0) << "a polling writer would use about 2000 ms";
    // Not a bound on speed: only proof that the measurement sees work at all
    // (a busy thread on a loaded machine still gets some of a processor).
    EXPECT_GT(burnMs, 0.0) << "the CPU-time measurement sees no work: " << burnOut;
}

// Twenty rounds of load, write, stop, unload: the writer's objects go with
// the module. What the system keeps per load (measured by as many rounds that
// only load and unload) is not the writer's; a writer left behind would add
// about a dozen heap blocks per round.
TEST(LogWriterDll, NothingLeftBehindPerLoadAndUnload) {
    kwtest::TempDir dir(L"kwlogleak");
    const std::wstring exe = dir.Path() + L"\\logprobe.exe";
    ASSERT_TRUE(CopyFileW(ProbePath().c_str(), exe.c_str(), FALSE));
    ASSERT_TRUE(CopyFileW(BesideTests(L"logprobelib.dll").c_str(),
                          (dir.Path() + L"\\logprobelib.dll").c_str(), FALSE));
    dir.File(L"Holmlog.ini", kAsync);
    ProbeRun run = RunProbe(exe, L"--dll 20", dir.Path());
    ASSERT_EQ(0, run.exitCode) << run.output;
    ASSERT_EQ(20, run.Int("dllUnloaded")) << run.output;
    EXPECT_LT(run.Int("heapGrowth") - run.Int("bareGrowth"), 2 * 19) << run.output;
}
