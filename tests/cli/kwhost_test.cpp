// kwhost as a user runs it: the real program in this prefix, its standard
// output and error read from files, against registrations the tests plant
// under keys of their own.
#include "support/fixtures.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

std::wstring Bin() {
    wchar_t buf[MAX_PATH] = {0};
    GetModuleFileNameW(nullptr, buf, MAX_PATH - 1);
    std::wstring s(buf);
    return s.substr(0, s.find_last_of(L'\\') + 1);
}

std::string Slurp(const std::wstring& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> Lines(const std::string& s) {
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// A started kwhost whose two output streams go to files.
struct Kwhost {
    PROCESS_INFORMATION pi = {};
    std::wstring out, err;
    Kwhost(const std::wstring& args, const std::wstring& tag) {
        wchar_t tmp[MAX_PATH];
        GetTempPathW(MAX_PATH, tmp);
        out = std::wstring(tmp) + L"kwhost-" + tag + L"-" + std::to_wstring(GetCurrentProcessId()) + L".out";
        err = out + L".err";
        SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
        HANDLE o = CreateFileW(out.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
        HANDLE e = CreateFileW(err.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
        STARTUPINFOW si = {};
        si.cb = sizeof(si);
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = o;
        si.hStdError = e;
        si.hStdInput = nullptr;
        std::wstring cmd = L"\"" + Bin() + L"kwhost.exe\" " + args;
        CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
        CloseHandle(o);
        CloseHandle(e);
    }
    int Wait(DWORD ms = 120000) {
        if (!pi.hProcess) return -1;
        if (WaitForSingleObject(pi.hProcess, ms) != WAIT_OBJECT_0) TerminateProcess(pi.hProcess, 99);
        DWORD rc = 0;
        GetExitCodeProcess(pi.hProcess, &rc);
        return static_cast<int>(rc);
    }
    ~Kwhost() {
        if (pi.hProcess) {
            TerminateProcess(pi.hProcess, 99);
            CloseHandle(pi.hProcess);
            CloseHandle(pi.hThread);
        }
        DeleteFileW(out.c_str());
        DeleteFileW(err.c_str());
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
    const std::wstring rules = dir.File(L"rules.json", "{\"RegParseConfig\": [{\"ParseID\": 301, \"FunctionID\": 5, "
                                                       "\"CheckID\": 1, \"RegRootkey\": 2147483650, \"RegSubkey\": \"" +
                                                           Json(key) + "\"}, {\"ParseID\": 302, \"FunctionID\": 5}]}");
    void Set(const std::wstring& name, const std::wstring& data) {
        kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key, name, data);
    }
};

TEST(KwhostScan, PlantedRegistrationsGiveExactlyTheirRows) {
    Planted p;
    const std::wstring tool = p.dir.File(L"tool.exe");
    p.Set(L"Tool", L"\"" + tool + L"\" --with, a comma");
    p.Set(L"Gone", p.dir.Path() + L"\\gone.exe");
    Kwhost run(L"scan --no-files --format csv --rules \"" + p.rules + L"\"", L"scan");
    ASSERT_EQ(0, run.Wait());
    std::vector<std::string> rows = Lines(Slurp(run.out));
    ASSERT_EQ(3u, rows.size()) << Slurp(run.out);
    EXPECT_EQ(0u, rows[0].find("location,value,rule,function_id,analyzer,data,target,exists"));
    const std::string loc = "HKEY_LOCAL_MACHINE\\" + Narrow(p.key);
    // Rows in the order the registry lists the values; each ends with the
    // identity the event was analysed as.
    auto hasRow = [&](const std::string& prefix) {
        for (size_t i = 1; i < rows.size(); ++i)
            if (rows[i].compare(0, prefix.size(), prefix) == 0) return true;
        return false;
    };
    // The data holds quotes and a comma: CSV quotes the field and doubles its quotes.
    EXPECT_TRUE(hasRow(loc + ",Tool,301,5,AnalyzRegvalueAsFilePath,\"\"\"" + Narrow(tool) + "\"\" --with, a comma\"," +
                       Upper(tool) + ",yes,,,,,this process (pid "))
        << Slurp(run.out);
    EXPECT_TRUE(hasRow(loc + ",Gone,301,5,AnalyzRegvalueAsFilePath," + Narrow(p.dir.Path()) + "\\gone.exe," +
                       Upper(p.dir.Path() + L"\\gone.exe") + ",no,"))
        << Slurp(run.out);
    // The summary counts what was read, on standard error.
    const std::string err = Slurp(run.err);
    EXPECT_NE(std::string::npos, err.find("2 registrations found, 2 targets, 1 missing files; 1 rules without a root key skipped"))
        << err;

    // JSON lines: one object per target, the data's quotes escaped; --quiet
    // drops the summary.
    Kwhost json(L"scan --no-files --quiet --format json --rules \"" + p.rules + L"\"", L"json");
    ASSERT_EQ(0, json.Wait());
    const std::string out = Slurp(json.out);
    rows = Lines(out);
    ASSERT_EQ(2u, rows.size()) << out;
    EXPECT_EQ(0u, rows[0].find("{\"location\":\"HKEY_LOCAL_MACHINE\\\\SOFTWARE\\\\kwtest-")) << out;
    EXPECT_NE(std::string::npos, out.find("\"data\":\"\\\"" + Json(tool) + "\\\" --with, a comma\",\"target\":\"" +
                                          Json(kwtest::Upper(tool)) + "\",\"exists\":true,"))
        << out;
    EXPECT_NE(std::string::npos, out.find(Json(kwtest::Upper(p.dir.Path() + L"\\gone.exe")) + "\",\"exists\":false,")) << out;
    EXPECT_EQ("", Slurp(json.err));
}

TEST(KwhostArgs, BadArgumentsExitTwoWithAMessage) {
    struct Row {
        const wchar_t* args;
        const char* message;
    } rows[] = {
        {L"scan --format xml", "--format takes table, csv or json"},
        {L"scan --rules C:\\no\\such\\rules.json", "cannot read the rule file"},
        {L"scan --bogus", "unknown option --bogus"},
        {L"watch --for -3", "--for takes a positive number"},
        {L"replay", "give one events file"},
        {L"frobnicate", "unknown command 'frobnicate'"},
    };
    for (const Row& r : rows) {
        Kwhost run(r.args, L"args");
        EXPECT_EQ(2, run.Wait()) << Narrow(r.args);
        EXPECT_NE(std::string::npos, Slurp(run.err).find(r.message)) << Narrow(r.args) << ": " << Slurp(run.err);
        EXPECT_EQ("", Slurp(run.out)) << Narrow(r.args);
    }
    Kwhost help(L"--help", L"help");
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
    Kwhost run(L"replay \"" + events + L"\" --trace --rules \"" + p.rules + L"\"", L"replay");
    ASSERT_EQ(0, run.Wait());
    const std::string out = Slurp(run.out), err = Slurp(run.err);
    EXPECT_NE(std::string::npos, out.find("event 1 (line 1)")) << out;
    EXPECT_NE(std::string::npos, out.find("  -> " + Upper(tool))) << out;
    EXPECT_NE(std::string::npos, out.find("Start AnalyzRegvalueAsFilePath FunctionID=5")) << out;
    EXPECT_NE(std::string::npos, out.find("event 4 (line 4)")) << out;
    EXPECT_NE(std::string::npos, out.find("Skip OperType  = VALUE_DELETE")) << out;
    EXPECT_NE(std::string::npos, err.find("line 2 skipped: not JSON")) << err;
    EXPECT_NE(std::string::npos, err.find("line 3 skipped: not a JSON object")) << err;
    EXPECT_NE(std::string::npos, err.find("2 events replayed, 2 lines skipped")) << err;
}

TEST(KwhostWatch, SeesARunValueWrittenWhileItRuns) {
    Planted p;
    p.Set(L"Before", p.dir.File(L"before.exe"));
    const std::wstring later = p.dir.File(L"later.exe");
    Kwhost run(L"watch --for 30 --format csv --rules \"" + p.rules + L"\"", L"watch");
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
    Kwhost run(L"init \"" + Bin() + L"autorun-rules.json\"", L"init");
    ASSERT_EQ(0, run.Wait());
    const std::string out = Slurp(run.out);
    EXPECT_EQ(std::string::npos, out.find("Not meet the requirement")) << out;
    EXPECT_NE(std::string::npos, out.find("LoadParseRules Success")) << out;
    std::set<int> fids;
    for (size_t at = out.find("FunctionID:"); at != std::string::npos; at = out.find("FunctionID:", at + 1))
        fids.insert(atoi(out.c_str() + at + 11));
    std::set<int> expected;
    for (int i = 1; i <= 22; ++i)
        if (i != 6 && i != 16) expected.insert(i);
    EXPECT_EQ(expected, fids);
}

}  // namespace
