// The script-host step: a non-executable file's command line becomes the
// command of its class's shell verb; internal and external commands; PATHEXT.
#include "resolve/parse_text.h"
#include "resolve/script_host_rule_parser.h"

#include "common/strutil.h"
#include "support/class_registration.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

using kw::CScriptHostRuleParser;

namespace {

std::atomic<unsigned> g_seq{0};

std::wstring Unique(const wchar_t* prefix) {
    return prefix + std::to_wstring(GetCurrentProcessId()) + L"x" + std::to_wstring(GetTickCount()) +
           L"x" + std::to_wstring(++g_seq);
}

// Class keys created by a test, each removed (with everything below it) when the test ends.
struct KeyJanitor : std::vector<std::unique_ptr<kwtest::ClassRegistration>> {
    void Add(HKEY root, const std::wstring& key) { emplace_back(new kwtest::ClassRegistration(root, key, KEY_WOW64_64KEY)); }
};

}  // namespace

// ---------------------------------------------------------------------------
// Text rules

TEST(ScriptHostText, ExtensionOfTheLastComponent) {
    const struct { const char* name; const wchar_t* path; const wchar_t* ext; } rows[] = {
        {"two dots", L"C:\\a\\b.tar.gz", L".gz"},
        {"dot in a folder only", L"C:\\a.b\\c", L""},
        {"forward slashes", L"C:/a.b/c.js", L".js"},
        {"trailing dot", L"x.", L"."},
        {"dot followed by a blank is text", L"C:\\a. b", L""},
        {"empty", L"", L""},
    };
    for (const auto& r : rows) EXPECT_EQ(std::wstring(r.ext), kw::PathExtensionOf(r.path)) << r.name;
}

TEST(ScriptHostText, ExecutableImageExtensions) {
    // The first and last of the list, any case; near misses are not images.
    for (const wchar_t* e : {L".exe", L".EXE", L".efi"}) EXPECT_TRUE(kw::IsExecutableImageExtension(e)) << e;
    for (const wchar_t* e : {L".vbs", L".exe2", L"exe", L""}) EXPECT_FALSE(kw::IsExecutableImageExtension(e)) << e;
}

TEST(ScriptHostText, FirstArgument) {
    const std::set<std::wstring> existing = {L"C:\\Some Dir\\a b.vbs", L"C:\\x.vbs"};
    auto isFile = [&](const std::wstring& p) { return existing.count(p) != 0; };
    const struct { const char* name; const wchar_t* line; bool ok; const wchar_t* file; const wchar_t* rest; } rows[] = {
        {"quoted file with arguments", L"\"C:\\a b\\x.vbs\" /b /x", true, L"C:\\a b\\x.vbs", L"/b /x"},
        {"unquoted file with arguments", L"C:\\x.vbs arg1 arg2", true, L"C:\\x.vbs", L"arg1 arg2"},
        {"single unquoted argument cut at a comma", L"C:\\x.vbs,1", true, L"C:\\x.vbs", L""},
        {"unquoted path with spaces found by prefix", L"C:\\Some Dir\\a b.vbs /s", true, L"C:\\Some Dir\\a b.vbs", L"/s"},
        {"unquoted path with spaces, none exists", L"C:\\No Dir\\a b.vbs /s", true, L"C:\\No", L"Dir\\a b.vbs /s"},
        {"unbalanced quote", L"\"C:\\a b\\x.vbs", true, L"C:\\a b\\x.vbs", L""},
        {"blank", L"  \t ", false, L"", L""},
        {"only a comma", L",", false, L"", L""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        std::wstring file, rest;
        EXPECT_EQ(r.ok, kw::ScriptFirstArgument(r.line, file, rest, isFile));
        EXPECT_EQ(std::wstring(r.file) + L"|" + r.rest, file + L"|" + rest);  // file|rest
    }
}

TEST(ScriptHostText, ShellMarkers) {
    const struct { const char* name; const wchar_t *command, *file, *rest, *expected; } rows[] = {
        {"quoted %1 and %*", L"\"C:\\w.exe\" \"%1\" %*", L"C:\\x.vbs", L"/b /x", L"\"C:\\w.exe\" \"C:\\x.vbs\" /b /x"},
        {"bare %1 with a blank in the file", L"notepad.exe %1", L"C:\\a b.txt", L"", L"notepad.exe \"C:\\a b.txt\""},
        {"lower-case marker after a lower-casing expansion", L"c:\\w.exe \"%l\"", L"C:\\a.x", L"", L"c:\\w.exe \"C:\\a.x\""},
        {"quoted %* takes the file", L"host.exe \"%*\"", L"C:\\a.x", L"r", L"host.exe \"C:\\a.x\""},
        {"other markers dropped", L"host.exe %1 %2 %I %D", L"C:\\a.x", L"", L"host.exe C:\\a.x"},
        {"no marker: file appended", L"viewer.exe /open", L"C:\\a b.x", L"", L"viewer.exe /open \"C:\\a b.x\""},
        {"environment token left for expansion", L"%SystemRoot%\\w.exe \"%1\"", L"C:\\a.x", L"",
         L"%SystemRoot%\\w.exe \"C:\\a.x\""},
        {"percent at the end", L"w.exe \"%1\" %", L"C:\\a.x", L"", L"w.exe \"C:\\a.x\" %"},
        {"empty command", L"", L"C:\\a.x", L"", L"\"C:\\a.x\""},
    };
    for (const auto& r : rows) EXPECT_EQ(std::wstring(r.expected), kw::ReplaceShellMarkers(r.command, r.file, r.rest)) << r.name;
}

// ---------------------------------------------------------------------------
// Internal and external commands

TEST(ScriptHostRules, InternalCommands) {
    const std::wstring kLine = L"[kwRegAnalyze][INFO ][CScriptHostRuleParser::IsInternalCmd] ";
    // trace: the message traced, or null for none
    const struct { const char* name; const wchar_t* command; bool internal; const wchar_t* trace; } rows[] = {
        {"upper case with switch", L"DIR /s /b", true, L"is internal cmd."},
        {"switch glued to the name", L"dir/s", true, L"is internal cmd."},
        {"leading blanks", L"  copy a b", true, L"is internal cmd."},
        {"lead by quote", L"\"dir\"", false, L"not internal cmd, lead by quote."},
        {"absolute path in an argument", L"type C:\\x.txt", false, L"not internal cmd, contains absolute path."},
        {"UNC path", L"copy \\\\srv\\s\\a b", false, L"not internal cmd, contains absolute path."},
        {"program file named like a command", L"dir.exe", false, nullptr},
        {"empty", L"", false, nullptr},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        kwtest::ScopedSink sink;
        EXPECT_EQ(r.internal, CScriptHostRuleParser().IsInternalCmd(r.command));
        EXPECT_EQ(r.trace ? std::vector<std::wstring>{kLine + r.trace} : std::vector<std::wstring>{}, sink.Texts());
    }
}

TEST(ScriptHostRules, ExternalCommands) {
    kwtest::TempDir dir(L"kwshx");
    // A batch file on another machine's share that a file test would find.
    const std::wstring uncHost = L"kwshx" + std::to_wstring(GetCurrentProcessId());
    const std::wstring uncFolder = kwtest::WineUncHostFolder(uncHost);
    if (!uncFolder.empty()) kwtest::MakeFile(uncFolder + L"\\share\\far.bat", "@echo off");
    const struct { const char* name; std::wstring command; bool external; } rows[] = {
        {"existing command script in upper case", dir.File(L"RUN2.CMD", "@echo off"), true},
        {"quoted batch path with spaces", L"\"" + dir.File(L"Some Dir\\go now.bat", "@echo off") + L"\" x", true},
        {"missing batch file", dir.Path() + L"\\missing.bat", false},
        {"a folder named like a batch file", dir.Dir(L"folder.bat"), false},
        {"batch file on a remote share is not tested", L"\\\\" + uncHost + L"\\share\\far.bat", false},
    };
    for (const auto& r : rows) EXPECT_EQ(r.external, CScriptHostRuleParser().IsExternalCmd(r.command)) << r.name;
    if (!uncFolder.empty()) kwtest::RemoveTree(uncFolder);
}

// ---------------------------------------------------------------------------
// PATHEXT

TEST(ScriptHostRules, PathExtPieces) {
    // The first read uses 260 characters; longer values take a larger buffer.
    auto ofLength = [](size_t len) { return L".COM;" + std::wstring(len - 5, L'Z'); };
    const struct { const char* name; std::wstring value; std::vector<std::wstring> expected; } rows[] = {  // "-": unset
        {"usual value", L".COM;.EXE;.BAT", {L".COM", L".EXE", L".BAT"}},
        {"empty pieces dropped", L";.COM;;.EXE;", {L".COM", L".EXE"}},
        {"blanks around pieces", L" .COM ; .EXE", {L".COM", L".EXE"}},
        {"unset", L"-", {}},
        {"259 characters", ofLength(259), {L".COM", ofLength(259).substr(5)}},
        {"260 characters", ofLength(260), {L".COM", ofLength(260).substr(5)}},
        {"261 characters", ofLength(261), {L".COM", ofLength(261).substr(5)}},
    };
    for (const auto& r : rows) {
        kwtest::ScopedEnv env(L"PATHEXT", r.value == L"-" ? nullptr : r.value.c_str());
        EXPECT_EQ(r.expected, CScriptHostRuleParser::ReadPathExt()) << r.name;
    }
}

// ---------------------------------------------------------------------------
// ExpandNoPECmdLine with classes registered by the test

namespace {

std::wstring UserClasses() { return kwtest::CurrentUserSid() + L"\\SOFTWARE\\Classes\\"; }

// A file class of its own: an extension (unique unless given) whose class, a
// unique program id, has the given verbs; under HKLM or under the user's classes.
struct TestClass { std::wstring ext, progId; };

TestClass RegisterClass(KeyJanitor& keys, const std::wstring& defaultVerb,
                        const std::vector<std::pair<std::wstring, std::wstring>>& verbs, HKEY root = HKEY_LOCAL_MACHINE,
                        const std::wstring& ext = Unique(L".kwt"), DWORD type = REG_SZ) {
    const std::wstring base = root == HKEY_USERS ? UserClasses() : L"SOFTWARE\\Classes\\";
    TestClass c{ext, Unique(L"kwtest.class")};
    keys.Add(root, base + c.ext);
    keys.Add(root, base + c.progId);
    kwtest::RegSetSz(root, base + c.ext, L"", c.progId);
    kwtest::RegCreate(root, base + c.progId + L"\\shell");
    if (!defaultVerb.empty()) kwtest::RegSetSz(root, base + c.progId + L"\\shell", L"", defaultVerb);
    for (const auto& v : verbs)
        kwtest::RegSetSz(root, base + c.progId + L"\\shell\\" + v.first + L"\\command", L"", v.second, KEY_WOW64_64KEY, type);
    return c;
}

// A machine class with only the open verb.
TestClass OpenClass(KeyJanitor& keys, const std::wstring& command) { return RegisterClass(keys, L"", {{L"open", command}}); }

}  // namespace

TEST(ScriptHostExpand, VerbCommands) {
    const std::wstring sid = kwtest::CurrentUserSid();
    ASSERT_FALSE(sid.empty());
    KeyJanitor keys;
    kwtest::TempDir dir(L"kwshe");
    const auto open = OpenClass(keys, L"wscript.exe \"%1\"");
    const auto withArgs = OpenClass(keys, L"\"C:\\host\\w.exe\" \"%1\" %*");
    const auto edit = RegisterClass(keys, L"edit", {{L"open", L"open.exe \"%1\""}, {L"edit", L"edit.exe \"%1\""}});
    const auto verbList = RegisterClass(keys, L"print,open", {{L"open", L"open.exe \"%1\""}, {L"print", L"print.exe \"%1\""}});
    const auto missingVerb = RegisterClass(keys, L"play", {{L"open", L"open.exe \"%1\""}});
    const auto expandSz =
        RegisterClass(keys, L"", {{L"open", L"%SystemRoot%\\kwhost.exe \"%1\""}}, HKEY_LOCAL_MACHINE, Unique(L".kwt"), REG_EXPAND_SZ);
    // A class named directly by the extension key (no program id).
    const std::wstring directExt = Unique(L".kwd");
    keys.Add(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\" + directExt);
    kwtest::RegSetSz(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\" + directExt + L"\\shell\\open\\command", L"", L"direct.exe \"%1\"");
    // An extension whose class has no command at all.
    const auto noCommand = RegisterClass(keys, L"", {});
    const std::wstring unknown = L"C:\\x" + Unique(L".kwnone");
    // One extension in both hives; and a user's extension naming a class that only the machine holds.
    const std::wstring both = L"C:\\a" + Unique(L".kwu");
    RegisterClass(keys, L"", {{L"open", L"machine.exe \"%1\""}}, HKEY_LOCAL_MACHINE, kw::PathExtensionOf(both));
    RegisterClass(keys, L"", {{L"open", L"user.exe \"%1\""}}, HKEY_USERS, kw::PathExtensionOf(both));
    const std::wstring userExt = L"C:\\b" + Unique(L".kwu");
    keys.Add(HKEY_USERS, UserClasses() + kw::PathExtensionOf(userExt));
    kwtest::RegSetSz(HKEY_USERS, UserClasses() + kw::PathExtensionOf(userExt), L"", OpenClass(keys, L"m2.exe \"%1\"").progId);

    const std::wstring f = dir.File(L"a" + open.ext), spaced = dir.File(L"Some Dir\\b c" + withArgs.ext);
    dir.File(L"Some Dir\\b");  // a file without extension is no document: the longer run still wins
    // Lines of n characters and what becomes of them: only the first 259 are used.
    const std::wstring head = L"C:\\x" + withArgs.ext;
    auto ofLength = [&](size_t n) { return head + L" " + std::wstring(n - head.size() - 1, L'a'); };
    auto wrapped = [&](size_t n) { return L"\"C:\\host\\w.exe\" \"" + head + L"\" " + std::wstring(n - head.size() - 1, L'a'); };
    const struct { const char* name; std::wstring line; int ret; std::wstring expected; const wchar_t* sid; } rows[] = {
        {"quoted %1 in the open verb", f, 1, L"wscript.exe \"" + f + L"\""},
        {"arguments go to %*", L"\"" + head + L"\" /b /x", 1, L"\"C:\\host\\w.exe\" \"" + head + L"\" /b /x"},
        {"unquoted script path with spaces and an argument", spaced + L" /q", 1, L"\"C:\\host\\w.exe\" \"" + spaced + L"\" /q"},
        {"default verb names another verb", L"C:\\x" + edit.ext, 1, L"edit.exe \"C:\\x" + edit.ext + L"\""},
        {"default verb list takes its first entry", L"C:\\x" + verbList.ext, 1, L"print.exe \"C:\\x" + verbList.ext + L"\""},
        {"default verb without a command falls back to open", L"C:\\x" + missingVerb.ext, 1,
         L"open.exe \"C:\\x" + missingVerb.ext + L"\""},
        {"expandable command is expanded", L"C:\\x" + expandSz.ext, 1,
         kwtest::WindowsDir() + L"\\kwhost.exe \"C:\\x" + expandSz.ext + L"\""},
        {"class on the extension key itself", L"C:\\x" + directExt, 1, L"direct.exe \"C:\\x" + directExt + L"\""},
        {"with the SID the user's class wins", both, 1, L"user.exe \"" + both + L"\"", sid.c_str()},
        {"without a SID only the machine's class", both, 1, L"machine.exe \"" + both + L"\""},
        {"user's extension, machine's class", userExt, 1, L"m2.exe \"" + userExt + L"\"", sid.c_str()},
        {"line of 258 characters", ofLength(258), 1, wrapped(258)},
        {"line of 259 characters", ofLength(259), 1, wrapped(259)},
        {"line of 260 characters: the last one is not used", ofLength(260), 1, wrapped(259)},
        {"class without a command", L"C:\\x" + noCommand.ext, 0, L"C:\\x" + noCommand.ext},
        {"unknown extension", unknown, 0, unknown},
        {"program left alone", L"C:\\x\\app.exe /s", 0, L"C:\\x\\app.exe /s"},
        {"name without extension", L"notepad /a", 0, L"notepad /a"},
        {"quoted CMD.EXE", L"\"CMD.EXE\" /c C:\\x" + open.ext, 0, L"\"CMD.EXE\" /c C:\\x" + open.ext},
        {"blank", L"   ", 0, L"   "},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        std::wstring line = r.line;
        EXPECT_EQ(r.ret, CScriptHostRuleParser().ExpandNoPECmdLine(line, r.sid, nullptr, FALSE, 0));
        EXPECT_TRUE(kw::EqualsNoCase(r.expected, line)) << kw::WideToUtf8(line);
    }
}

TEST(ScriptHostExpand, TraceLines) {
    KeyJanitor keys;
    const auto open = OpenClass(keys, L"wscript.exe \"%1\"");
    const struct { const char* name; std::wstring line; DWORD ruleId; std::vector<std::wstring> messages; } rows[] = {
        {"rewritten", L"C:\\s" + open.ext, 4242, {L"ret: 1, ruleId: 4242, cmdline: wscript.exe \"C:\\s" + open.ext + L"\""}},
        {"no class", L"C:\\s.kwnoclass", 7, {L"ret: 0, ruleId: 7, cmdline: C:\\s.kwnoclass"}},
        {"special cmd line", L"\"Cmd /c C:\\s" + open.ext + L"\"", 7, {L"Special cmd line: \"cmd /c ...\""}},
        {"program: nothing traced", L"C:\\x.exe", 7, {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        kwtest::ScopedSink sink;
        std::wstring line = r.line;
        CScriptHostRuleParser().ExpandNoPECmdLine(line, nullptr, nullptr, FALSE, r.ruleId);
        EXPECT_EQ(r.messages, sink.sink.Messages());
        for (const auto& l : sink.Texts())
            EXPECT_EQ(0u, l.find(L"[kwRegAnalyze][INFO ][CScriptHostRuleParser::ExpandNoPECmdLine] ")) << kw::WideToUtf8(l);
    }
}

TEST(ScriptHostExpand, BatchFileClassIsAnExternalCommand) {
    // The user's own .bat association, created for the test only: the machine's
    // association (if any) is not touched, and a user that already has one is
    // left alone.
    const std::wstring sid = kwtest::CurrentUserSid();
    ASSERT_FALSE(sid.empty());
    if (kwtest::RegKeyExists(HKEY_USERS, UserClasses() + L".bat"))
        GTEST_SKIP() << "this user already has a .bat association of its own";
    KeyJanitor keys;
    RegisterClass(keys, L"", {{L"open", L"\"%1\" %*"}}, HKEY_USERS, L".bat");
    kwtest::TempDir dir(L"kwshb");
    const std::wstring bat = dir.File(L"job.bat", "@echo off"), expected = L"\"" + bat + L"\" /now";
    kwtest::ScopedSink sink;
    std::wstring line = bat + L" /now";
    EXPECT_EQ(1, CScriptHostRuleParser().ExpandNoPECmdLine(line, sid.c_str(), nullptr, FALSE, 12));
    EXPECT_EQ((std::vector<std::wstring>{L"File shell open is ExternalCmd: " + expected, L"ret: 1, ruleId: 12, cmdline: " + expected}),
              sink.sink.Messages());
}
