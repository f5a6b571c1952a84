// Hostile and unusual input at the host boundary, through the DLL: rules
// shared by every plug-in object and every Init, request strings read only
// within the request's storage, shared request strings, events without a
// driver event.
#include "host_sim.h"
#include "support/child.h"
#include "support/fixtures.h"

#include <gtest/gtest.h>

#include <memory>

using namespace hostsim;

namespace {

const wchar_t kLinePrefix[] = L"[kwRegAnalyze][INFO ][";

// The rule table is one per process: each step's host analyses with the first
// text that gave a valid rule. Rule 6 takes the data as a path (FunctionID 5);
// the ignored text would take the value name instead (FunctionID 20).
KW_CHILD_TEST(RuleSharing, EveryObjectAndEveryInitAnalysesWithTheRules) {
    kwtest::TempDir dir;
    const std::wstring exe = dir.File(L"app.exe");
    const std::string dataRule = R"({"RegParseConfig":[{"ParseID":6,"FunctionID":5}]})";
    const std::string nameRule = R"({"RegParseConfig":[{"ParseID":6,"FunctionID":20}]})";
    PluginHost a, b;
    ASSERT_TRUE(a.Load() && a.Create() && b.Load() && b.Create());
    struct Step {
        const char* name;
        PluginHost* host;
        std::string text;
        std::vector<std::wstring> targets;
    } steps[] = {
        {"first Init before the rule text is ready", &a, "", {}},
        {"a text without rules", &a, "{}", {}},
        {"the same object with the rule text", &a, dataRule, {kwtest::Upper(exe)}},
        {"a second object with no text", &b, "", {kwtest::Upper(exe)}},
        {"a later text is ignored", &a, nameRule, {kwtest::Upper(exe)}},
    };
    for (Step& s : steps) {
        SCOPED_TRACE(s.name);
        EXPECT_TRUE(s.host->Init(s.text));
        s.host->Engine().ClearLines();
        std::unique_ptr<Event> ev(Event::RegistrySz(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest-rules", L"vn", exe));
        std::vector<std::wstring> targets = s.host->PostRegistry(*ev, (2u << 16) | 6);
        for (auto& t : targets) t = kwtest::Upper(t);
        EXPECT_EQ(s.targets, targets);
        EXPECT_EQ(s.targets.empty(), s.host->Engine().HasLine(L"co.GetParseRule Fail"));
    }
}

// Events whose strings end exactly where the request's memory ends: the next
// page is inaccessible, so reading one character past Inline faults. And one
// heap string given as both key path and rename path: read before anything is
// freed, then replaced by two copies, and never freed twice.
struct TailRow {
    const char* name;
    uint32_t operation;
    const wchar_t* tail;      // written at the end of Inline, unterminated (field 3: a heap string)
    int field;                // 0 key path, 1 rename path, 2 value name, 3 key path and rename path
    bool terminated;          // the tail's last character is a NUL
    const wchar_t* expected;  // a line the host must receive
};

TEST(RequestStrings, ReadNoFurtherThanTheEndOfInline) {
    const TailRow rows[] = {
        {"value name unterminated", 6, L"tailname", 2, false,
         L"CPlugDeepScan::FillAnalyzeItem] root key=80000002, sub key=SOFTWARE\\kwtest, valuename=tailname"},
        {"value name ending in the last character", 6, L"tailname", 2, true,
         L"CPlugDeepScan::FillAnalyzeItem] root key=80000002, sub key=SOFTWARE\\kwtest, valuename=tailnam"},
        {"key path unterminated", 1, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtail", 0, false,
         L"CPlugDeepScan::TransformEventRegPath]  postkey=HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtail"},
        {"rename path unterminated", 5, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtail", 1, false,
         L"CPlugDeepScan::TransformEventRegPath]  postrename_key=HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtail"},
        {"key path and rename path as one string", 5, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwshared", 3, false,
         L"CPlugDeepScan::TransformEventRegPath]  postrename_key=HKEY_LOCAL_MACHINE\\SOFTWARE\\kwshared"},
    };
    PluginHost host;
    ASSERT_TRUE(host.Load() && host.Create() && host.Init("{}"));
    for (const TailRow& r : rows) {
        SCOPED_TRACE(r.name);
        Event ev(true);
        Request& q = ev.Req();
        q.Class = 2;
        q.Operation = r.operation;
        q.Context.ProcessId = GetCurrentProcessId();
        if (r.field == 1 || r.field == 2) q.KeyPath = ev.Place(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest", true);
        wchar_t* tail = r.field == 3 ? ev.Place(r.tail, false) : ev.PlaceInlineTail(r.tail);
        if (r.terminated) q.Inline[2047] = 0;
        if (r.field == 0 || r.field == 3) q.KeyPath = tail;
        if (r.field == 1 || r.field == 3) q.RenamePath = tail;
        if (r.field == 2) q.ValueName = tail;
        host.Engine().ClearLines();
        host.PostRegistry(ev, (2u << 16) | 999);
        EXPECT_TRUE(host.Engine().HasLine(kLinePrefix + std::wstring(r.expected)));
        EXPECT_NE(q.KeyPath, q.RenamePath);
        EXPECT_TRUE(HeapValidate(GetProcessHeap(), 0, nullptr));
    }
}

TEST(PostProcessEvent, ClassLineOnlyForARequestThatExists) {
    struct {
        const char* name;
        bool driverEvent;
        uint32_t cls;
        const wchar_t* classLine;  // null: no class line at all
    } rows[] = {{"no driver event", false, 2, nullptr},
                             {"file request", true, 1, L"Class=1(rd=2)"},
                             {"unknown class", true, 0, L"Class=0(rd=2)"}};
    PluginHost host;
    ASSERT_TRUE(host.Load() && host.Create() && host.Init("{}"));
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        Event ev;
        ev.Req().Class = r.cls;
        ev.SetNoDriverEvent(!r.driverEvent);
        host.Engine().ClearLines();
        host.PostRegistry(ev, 0);
        EXPECT_EQ(r.classLine != nullptr, host.Engine().HasLine(L"(rd=2)"));
        EXPECT_TRUE(!r.classLine || host.Engine().HasLine(r.classLine)) << "no line " << testing::PrintToString(r.classLine);
    }
}

}  // namespace
