// Written autorun and shortcut files from the host's file event to the targets,
// and a shortcut named by a Run value.
#include "e2e_support.h"

#include <gtest/gtest.h>
#include <shlobj.h>

#include <memory>

using namespace e2e;
using hostsim::Event;

namespace {

// Test paths are ASCII.
std::string N(const std::wstring& w) { return std::string(w.begin(), w.end()); }

std::vector<std::wstring> PostFile(Event& ev) {
    hostsim::Target target;
    hostsim::RuleEngine::SetThreadTarget(&target);
    Host().Plugin()->FirstProcessEvent(&ev, &Host().Engine());
    hostsim::RuleEngine::SetThreadTarget(nullptr);
    return target.Paths();
}

// A shortcut written by the platform's shell-link object.
void MakeShortcut(const std::wstring& lnk, const std::wstring& target) {
    const CLSID clsidShellLink = {0x00021401, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    CoInitialize(nullptr);
    IShellLinkW* link = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(clsidShellLink, nullptr, CLSCTX_INPROC_SERVER, __uuidof(IShellLinkW),
                                     reinterpret_cast<void**>(&link)));
    link->SetPath(target.c_str());
    IPersistFile* file = nullptr;
    ASSERT_EQ(S_OK, link->QueryInterface(__uuidof(IPersistFile), reinterpret_cast<void**>(&file)));
    EXPECT_EQ(S_OK, file->Save(lnk.c_str(), TRUE));
    file->Release();
    link->Release();
}

}  // namespace

TEST(FileEvent, AutorunAndShortcutFilesYieldTheirPrograms) {
    kwtest::TempDir dir;
    const std::wstring a = dir.File(L"a.exe"), b = dir.File(L"b.exe"), c = dir.File(L"c.exe");
    // A relative command resolves against the root of the autorun file's drive.
    const std::wstring rootDir = L"kwtest-root-" + std::to_wstring(GetCurrentProcessId()), rel = L"C:\\" + rootDir + L"\\rel.exe";
    ASSERT_TRUE(kwtest::MakeFile(rel));
    const std::string autorun = "[AutoRun]\r\nopen=" + N(a) + "\r\nOPEN=" + N(a) + "\r\nShellExecute=" + N(b) +
                                "\r\nshell\\install\\command=" + N(rootDir) + "\\rel.exe\r\nshell\\x=" + N(c) +
                                "\r\n[AutoRun.alpha]\r\nOpen=" + N(a) + "\r\n";
    const std::wstring inf = dir.File(L"autorun.inf", autorun), upperInf = dir.File(L"SETUP.INF", "[autorun]\r\nopen=" + N(b) + "\r\n");
    const std::wstring lnk = dir.Path() + L"\\Start.LNK";
    MakeShortcut(lnk, c);
    const std::wstring longLnk = dir.Path() + L"\\" + std::wstring(300 - dir.Path().size() - 5, L'l') + L".lnk";
    const std::vector<std::wstring> all = Targets({a, b, rel});

    // The event's paths (written, renamed to) and the targets, upper-cased, in order.
    const struct { const char* name; uint32_t operation; std::wstring written, renamedTo; std::vector<std::wstring> targets; } cases[] = {
        {"autorun file: each program once, relative one at the drive root", 1, inf, L"", all},
        {"upper-case extension", 1, upperInf, L"", {kwtest::Upper(b)}},
        {"another extension after .inf", 1, dir.File(L"a.inf.txt", autorun), L"", {}},
        {"renamed to an autorun file: its new name", 2, dir.Path() + L"\\gone.tmp", inf, all},
        {"renamed away from .inf", 2, inf, dir.Path() + L"\\x.tmp", {}},
        {"shortcut yields itself", 1, lnk, L"", {kwtest::Upper(lnk)}},
        {"shortcut of 300 characters, missing", 1, longLnk, L"", {kwtest::Upper(longLnk)}},
        {"shortcut path too long for the record", 1, L"C:\\" + std::wstring(1020, L'x') + L".lnk", L"", {}},
        {"not text", 1, dir.File(L"bin.inf", std::string("\xff\xfe\x00\x01\x02[AutoRun]\x00open", 16)), L"", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<Event> ev(Event::File(c.operation, c.written, c.renamedTo));
        EXPECT_EQ(c.targets, PostFile(*ev));
    }
    // A shortcut named by a Run value goes through the same step.
    Host().Engine().ClearLines();
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(lnk)},
              PostSz(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", L"L", L"\"" + lnk + L"\"", 5));
    EXPECT_TRUE(Host().Engine().HasLine(L"[LNK] parse link file " + lnk));
    kwtest::RemoveTree(L"C:\\" + rootDir);
}
