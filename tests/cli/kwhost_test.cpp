// kwhost as a user runs it: the real program in this prefix, its standard
// output and error read from files, against registrations the tests plant
// under keys of their own.
#include "support/fixtures.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <iterator>
#include <string>

namespace {

std::wstring Bin() {
    std::wstring self(MAX_PATH, L'\0');
    self.resize(GetModuleFileNameW(nullptr, &self[0], MAX_PATH - 1));
    return self.substr(0, self.find_last_of(L'\\') + 1);
}

std::string Slurp(const std::wstring& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

size_t LineCount(const std::string& s) { return std::count(s.begin(), s.end(), '\n'); }

// A started kwhost whose two output streams go to files of its own folder.
struct Kwhost {
    kwtest::TempDir dir{L"kwhost"};
    const std::wstring out = dir.Path() + L"\\out.txt", err = dir.Path() + L"\\err.txt";
    PROCESS_INFORMATION pi = {};
    explicit Kwhost(const std::wstring& args) {
        SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
        STARTUPINFOW si = {sizeof(si)};
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = CreateFileW(out.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
        si.hStdError = CreateFileW(err.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
        std::wstring cmd = L"\"" + Bin() + L"kwhost.exe\" " + args;
        CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
        CloseHandle(si.hStdOutput);
        CloseHandle(si.hStdError);
    }
    int Wait() {  // the exit code; 99 when it had to be stopped after two minutes
        if (!pi.hProcess) return -1;
        if (WaitForSingleObject(pi.hProcess, 120000) != WAIT_OBJECT_0) TerminateProcess(pi.hProcess, 99);
        DWORD rc = 0;
        return GetExitCodeProcess(pi.hProcess, &rc) ? static_cast<int>(rc) : -1;
    }
    ~Kwhost() {
        if (!pi.hProcess) return;
        TerminateProcess(pi.hProcess, 99);
        WaitForSingleObject(pi.hProcess, 10000);  // its output files close with it
        CloseHandle(pi.hProcess);
        CloseHandle(pi.hThread);
    }
};

// Text as a JSON string's content (the paths here need only their
// backslashes doubled).
std::string Json(const std::wstring& w) {
    std::string s;
    for (wchar_t c : w) s += c == L'\\' ? std::string("\\\\") : std::string(1, static_cast<char>(c));
    return s;
}

std::string Narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }
std::string Upper(const std::wstring& w) { return Narrow(kwtest::Upper(w)); }

// A rule file and a Run-style key of this test's own.
struct Planted {
    kwtest::TempRegKey base{HKEY_LOCAL_MACHINE, L"SOFTWARE"};
    kwtest::TempDir dir;
    const std::wstring key = base.Path() + L"\\Run";
    const std::wstring rules = dir.File(L"rules.json", R"({"RegParseConfig": [{"ParseID": 301, "FunctionID": 5, "CheckID": 1, )"
                                                       R"("RegRootkey": 2147483650, "RegSubkey": ")" + Json(key) +
                                                       R"("}, {"ParseID": 302, "FunctionID": 5}]})");
    void Set(const std::wstring& name, const std::wstring& data) { kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key, name, data); }
};

TEST(KwhostScan, PlantedRegistrationsGiveExactlyTheirRows) {
    Planted p;
    const std::wstring tool = p.dir.File(L"tool.exe");
    p.Set(L"Tool", L"\"" + tool + L"\" --with, a comma");
    p.Set(L"Gone", p.dir.Path() + L"\\gone.exe");
    Kwhost run(L"scan --no-files --format csv --rules \"" + p.rules + L"\"");
    ASSERT_EQ(0, run.Wait());
    // Each row (after the header) starts with its location and ends with the
    // identity the event was analysed as. The data holds quotes and a comma:
    // CSV quotes the field and doubles its quotes.
    const std::string csv = Slurp(run.out), loc = "\nHKEY_LOCAL_MACHINE\\" + Narrow(p.key);
    ASSERT_EQ(3u, LineCount(csv)) << csv;
    EXPECT_EQ(0u, csv.find("location,value,rule,function_id,analyzer,data,target,exists"));
    EXPECT_NE(std::string::npos, csv.find(loc + ",Tool,301,5,AnalyzRegvalueAsFilePath,\"\"\"" + Narrow(tool) +
                                          "\"\" --with, a comma\"," + Upper(tool) + ",yes,,,,,this process (pid "))
        << csv;
    EXPECT_NE(std::string::npos, csv.find(loc + ",Gone,301,5,AnalyzRegvalueAsFilePath," + Narrow(p.dir.Path()) + "\\gone.exe," +
                                          Upper(p.dir.Path() + L"\\gone.exe") + ",no,"))
        << csv;
    // The summary counts what was read, on standard error.
    const std::string err = Slurp(run.err);
    EXPECT_NE(std::string::npos, err.find("2 registrations found, 2 targets, 1 missing files; 1 rules without a root key skipped"))
        << err;

    // JSON lines: one object per target, the data's quotes escaped; --quiet
    // drops the summary.
    Kwhost json(L"scan --no-files --quiet --format json --rules \"" + p.rules + L"\"");
    ASSERT_EQ(0, json.Wait());
    const std::string out = Slurp(json.out);
    ASSERT_EQ(2u, LineCount(out)) << out;
    EXPECT_EQ(0u, out.find("{\"location\":\"HKEY_LOCAL_MACHINE\\\\SOFTWARE\\\\kwtest-")) << out;
    EXPECT_NE(std::string::npos, out.find("\"data\":\"\\\"" + Json(tool) + "\\\" --with, a comma\",\"target\":\"" +
                                          Json(kwtest::Upper(tool)) + "\",\"exists\":true,"))
        << out;
    EXPECT_NE(std::string::npos, out.find(Json(kwtest::Upper(p.dir.Path() + L"\\gone.exe")) + "\",\"exists\":false,")) << out;
    EXPECT_EQ("", Slurp(json.err));
}

TEST(KwhostArgs, BadArgumentsExitTwoWithAMessage) {
    const struct { const wchar_t* args; const char* message; } rows[] = {
        {L"scan --format xml", "--format takes table, csv or json"},
        {L"scan --rules C:\\no\\such\\rules.json", "cannot read the rule file"},
        {L"scan --bogus", "unknown option --bogus"},
        {L"watch --for -3", "--for takes a positive number"},
        {L"replay", "give one events file"},
        {L"frobnicate", "unknown command 'frobnicate'"},
    };
    for (const auto& r : rows) {
        Kwhost run(r.args);
        EXPECT_EQ(2, run.Wait()) << Narrow(r.args);
        EXPECT_NE(std::string::npos, Slurp(run.err).find(r.message)) << Narrow(r.args) << ": " << Slurp(run.err);
        EXPECT_EQ("", Slurp(run.out)) << Narrow(r.args);
    }
    Kwhost help(L"--help");
    EXPECT_EQ(0, help.Wait());
    EXPECT_NE(std::string::npos, Slurp(help.out).find("usage: kwhost"));
}

TEST(KwhostReplay, GoodLinesReplayedMalformedOnesReportedAndSkipped) {
    Planted p;
    const std::wstring tool = p.dir.File(L"replayed.exe");
    const std::string key = "{\"key\": \"HKEY_LOCAL_MACHINE\\\\" + Json(p.key) + "\", \"op\": ";
    const std::wstring events = p.dir.File(L"events.jsonl", key + "\"set\", \"value\": \"R\", \"data\": \"" + Json(tool) +
                                                                " /x\", \"parseId\": 301}\n" + key + "\n[1, 2]\n" + key +
                                                                "\"delete-value\", \"value\": \"R\", \"parseId\": 301}\n");
    Kwhost run(L"replay \"" + events + L"\" --trace --rules \"" + p.rules + L"\"");
    ASSERT_EQ(0, run.Wait());
    const std::string out = Slurp(run.out), err = Slurp(run.err);
    // The set value's target and the analysis trace; the deletion refused with its trace.
    for (const std::string& text : std::vector<std::string>{"event 1 (line 1)", "  -> " + Upper(tool), "event 4 (line 4)",
                                                            "Start AnalyzRegvalueAsFilePath FunctionID=5", "Skip OperType  = VALUE_DELETE"})
        EXPECT_NE(std::string::npos, out.find(text)) << out;
    for (const char* text : {"line 2 skipped: not JSON", "line 3 skipped: not a JSON object", "2 events replayed, 2 lines skipped"})
        EXPECT_NE(std::string::npos, err.find(text)) << err;
}

TEST(KwhostWatch, SeesARunValueWrittenWhileItRuns) {
    Planted p;
    p.Set(L"Before", p.dir.File(L"before.exe"));
    const std::wstring later = p.dir.File(L"later.exe");
    Kwhost run(L"watch --for 30 --format csv --rules \"" + p.rules + L"\"");
    // Polls an output file (for at most about 30 s) until it holds the text.
    auto waitFor = [](const std::wstring& file, const std::string& text) {
        for (int i = 0; i < 300; ++i, Sleep(100))
            if (Slurp(file).find(text) != std::string::npos) return true;
        return false;
    };
    ASSERT_TRUE(waitFor(run.err, "kwhost watch: watching")) << Slurp(run.err);  // armed once it says so
    p.Set(L"Later", later);
    EXPECT_TRUE(waitFor(run.out, Upper(later))) << Slurp(run.out) << Slurp(run.err);
    // What existed before the watch began is not news.
    EXPECT_EQ(std::string::npos, Slurp(run.out).find("BEFORE.EXE"));
}

TEST(KwhostRules, DefaultRuleSetIsAcceptedWholeAndUsesEveryRegistryAnalyzer) {
    Kwhost run(L"init \"" + Bin() + L"autorun-rules.json\"");
    ASSERT_EQ(0, run.Wait());
    const std::string out = Slurp(run.out);
    EXPECT_EQ(std::string::npos, out.find("Not meet the requirement")) << out;
    EXPECT_NE(std::string::npos, out.find("LoadParseRules Success")) << out;
    std::set<int> fids;
    for (size_t at = out.find("FunctionID:"); at != std::string::npos; at = out.find("FunctionID:", at + 1))
        fids.insert(atoi(out.c_str() + at + 11));
    EXPECT_EQ((std::set<int>{1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 13, 14, 15, 17, 18, 19, 20, 21, 22}), fids);  // all but 6 and 16
}

}  // namespace
