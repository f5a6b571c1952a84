// Rewriting the key paths of a registry request for the host: the plug-in's
// TransformRegPath and TransformEventRegPath on requests built as the host
// builds them (strings inline or on the process heap).
#include "plugin/plug_deep_scan.h"

#include "common/strutil.h"
#include "support/fixtures.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace kw;
using kwtest::LineMatches;
using kwtest::ScopedSink;

namespace {

#define LINE_EVENT L"[kwRegAnalyze][INFO ][CPlugDeepScan::TransformEventRegPath] "
#define LINE_EVENT_ERR L"[kwRegAnalyze][ERROR][CPlugDeepScan::TransformEventRegPath] "
#define LINE_KWS L"[kwRegAnalyze][INFO ][CPlugDeepScan::TransformRegPath] [kws] ===> time= {n}  ret= "

class FakeEvent : public IHostEvent {
public:
    void Reserved1() override {}
    void Reserved2() override {}
    void Reserved3() override {}
    void Reserved4() override {}
    KW_DRV_EVENT* GetDriverEvent() override { return drv; }
    KW_DRV_EVENT* drv = nullptr;
};

void ExpectLines(const std::vector<std::wstring>& patterns, const std::vector<std::wstring>& lines) {
    ASSERT_EQ(patterns.size(), lines.size()) << testing::PrintToString(lines);
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_TRUE(LineMatches(lines[i], patterns[i])) << "line " << i << ":\n  " << testing::PrintToString(lines[i])
                                                        << "\npattern\n  " << testing::PrintToString(patterns[i]);
}

bool IsInline(const KW_REQUEST& req, const wchar_t* p) {
    return p >= req.Inline && p < req.Inline + 2048;
}

class TransformEventTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(sid.empty());
        CopyBounded(translator.m_szCurrentControlSet, MAX_PATH, L"ControlSet001");
        plug.regKeyTranslate = &translator;
        event.drv = drv.get();
        Req().Class = RCLASS_REGISTRY;
        Req().Operation = REQ_OP_KEY_CREATED;
        Req().Context.ProcessId = GetCurrentProcessId();
    }
    void TearDown() override {
        plug.regKeyTranslate = nullptr;
        // The host frees what does not live inline when the event ends.
        for (wchar_t* p : {Req().KeyPath, Req().RenamePath})
            if (p && !IsInline(Req(), p)) HeapFree(GetProcessHeap(), 0, p);
    }

    KW_REQUEST& Req() { return drv->Request; }
    wchar_t* Inline(size_t at, const std::wstring& s) {
        CopyBounded(Req().Inline + at, 2048 - at, s.c_str());
        return Req().Inline + at;
    }
    static wchar_t* Heap(const std::wstring& s) {
        auto* p = static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), 0, (s.size() + 1) * sizeof(wchar_t)));
        memcpy(p, s.c_str(), (s.size() + 1) * sizeof(wchar_t));
        return p;
    }

    const std::wstring sid = kwtest::CurrentUserSid();
    std::unique_ptr<KW_DRV_EVENT> drv{new KW_DRV_EVENT()};
    FakeEvent event;
    CPlugDeepScan plug;
    CRegKeyTranslate translator;
    ScopedSink cap;
};

// No event, no request: refused with a line each. A file request: left alone.
TEST_F(TransformEventTest, NullEventOrRequestAndFileRequest) {
    EXPECT_FALSE(plug.TransformEventRegPath(nullptr));
    event.drv = nullptr;
    EXPECT_FALSE(plug.TransformEventRegPath(&event));
    EXPECT_EQ((std::vector<std::wstring>{LINE_EVENT_ERR L"pEvent == nullptr", LINE_EVENT_ERR L"pReq == nullptr"}),
              cap.Texts());
    event.drv = drv.get();
    cap.sink.Clear();
    Req().Class = RCLASS_FILE;
    wchar_t* key = Req().KeyPath = Inline(0, L"HKEY_USERS\\" + sid + L"\\Software");
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_EQ(key, Req().KeyPath);
    EXPECT_TRUE(cap.Texts().empty());
}

TEST_F(TransformEventTest, InlineKeyPathIsReplacedByAHeapCopy) {
    const std::wstring old = L"HKEY_USERS\\" + sid + L"\\Software\\Run";
    wchar_t* key = Req().KeyPath = Inline(0, old);
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    ASSERT_NE(key, Req().KeyPath);
    EXPECT_FALSE(IsInline(Req(), Req().KeyPath));
    EXPECT_STREQ(L"HKEY_CURRENT_USER\\Software\\Run", Req().KeyPath);
    EXPECT_TRUE(HeapValidate(GetProcessHeap(), 0, Req().KeyPath));
    EXPECT_EQ(old, key) << "the inline text is the host's and stays as it was";
    ExpectLines({LINE_EVENT L"start Transform  prekey=" + old,
                 L"[kwRegAnalyze][INFO ][GetUserSidByPid] " + sid,
                 LINE_KWS L"1 old key: " + old + L" \r\n new key:HKEY_CURRENT_USER\\Software\\Run",
                 LINE_EVENT L" postkey=HKEY_CURRENT_USER\\Software\\Run"},
                cap.Texts());
}

TEST_F(TransformEventTest, HeapKeyPathIsFreed) {
    wchar_t* key = Req().KeyPath = Heap(L"HKEY_USERS\\" + sid + L"_Classes\\CLSID\\{1}");
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_STREQ(L"HKEY_CURRENT_USER\\Software\\Classes\\CLSID\\{1}", Req().KeyPath);
    EXPECT_FALSE(HeapValidate(GetProcessHeap(), 0, key)) << "the old heap string was freed";
}

TEST_F(TransformEventTest, RenameRewritesBothPaths) {
    Req().Operation = REQ_OP_KEY_RENAMED;
    const std::wstring oldKey = L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Services\\a";
    const std::wstring oldRename = L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Services\\b";
    Req().KeyPath = Inline(0, oldKey);
    Req().RenamePath = Heap(oldRename);
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_STREQ(L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\a", Req().KeyPath);
    EXPECT_STREQ(L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\b", Req().RenamePath);
    // The rename path's own lines; the key path's lines are those of a create.
    const std::vector<std::wstring> lines = cap.Texts();
    ASSERT_EQ(8u, lines.size());
    EXPECT_EQ(LINE_EVENT L" prerenamekey=" + oldRename, lines[4]);
    EXPECT_EQ(LINE_EVENT L" postrename_key=HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\b", lines[7]);
}

TEST_F(TransformEventTest, OtherOperationsLeaveTheRenamePath) {
    Req().Operation = REQ_OP_VALUE_SET;
    Req().KeyPath = Inline(0, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x");
    wchar_t* rename = Inline(100, L"HKEY_USERS\\" + sid + L"\\y");
    Req().RenamePath = rename;
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_STREQ(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x", Req().KeyPath);
    EXPECT_EQ(rename, Req().RenamePath);
}

// A key the translator refuses, and any key without a translator: kept.
TEST_F(TransformEventTest, UntranslatableKeyAndNoTranslatorKeepTheKey) {
    wchar_t* key = Req().KeyPath = Inline(0, L"\\REGISTRY\\MACHINE\\SOFTWARE\\x");
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_EQ(key, Req().KeyPath);
    ExpectLines({LINE_EVENT L"start Transform  prekey=\\REGISTRY\\MACHINE\\SOFTWARE\\x",
                 L"[kwRegAnalyze][INFO ][GetUserSidByPid] " + sid,
                 LINE_KWS L"0 old key: \\REGISTRY\\MACHINE\\SOFTWARE\\x \r\n new key:"},
                cap.Texts());
    plug.regKeyTranslate = nullptr;
    cap.sink.Clear();
    key = Req().KeyPath = Inline(0, L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\x");
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_EQ(key, Req().KeyPath);
    EXPECT_EQ(std::vector<std::wstring>{LINE_EVENT L"start Transform  prekey=HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\x"},
              cap.Texts());
}

TEST_F(TransformEventTest, NullKeyPathsAreSkipped) {
    Req().Operation = REQ_OP_KEY_RENAMED;
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_EQ(nullptr, Req().KeyPath);
    EXPECT_EQ(nullptr, Req().RenamePath);
    EXPECT_EQ((std::vector<std::wstring>{LINE_EVENT L"start Transform  prekey=", LINE_EVENT L" prerenamekey="}),
              cap.Texts());
}

TEST_F(TransformEventTest, LongKeyPathIsCut) {
    const std::wstring tail(3000, L'a');
    Req().KeyPath = Heap(L"HKEY_LOCAL_MACHINE\\" + tail);
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_EQ((L"HKEY_LOCAL_MACHINE\\" + tail).substr(0, 1023), Req().KeyPath);
}

TEST_F(TransformEventTest, KeyPathNearTheEndOfInlineStorageIsNotFreed) {
    wchar_t* key = Req().KeyPath = Inline(2000, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x");
    EXPECT_TRUE(plug.TransformEventRegPath(&event));
    EXPECT_NE(key, Req().KeyPath);
    EXPECT_STREQ(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x", key);
}

// ---------------------------------------------------------------------------
// CPlugDeepScan::TransformRegPath

TEST_F(TransformEventTest, TransformRegPathResults) {
    std::wstring out = L"stale";
    EXPECT_FALSE(plug.TransformRegPath(GetCurrentProcessId(), nullptr, out));
    EXPECT_EQ(L"stale", out);
    EXPECT_TRUE(cap.Texts().empty());

    EXPECT_TRUE(plug.TransformRegPath(GetCurrentProcessId(), L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x", out));
    EXPECT_EQ(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\x", out);
    ExpectLines({LINE_KWS L"1 old key: HKEY_LOCAL_MACHINE\\SOFTWARE\\x \r\n new key:HKEY_LOCAL_MACHINE\\SOFTWARE\\x"},
                cap.Texts());

    cap.sink.Clear();
    out = L"stale";
    EXPECT_FALSE(plug.TransformRegPath(0, L"HKEY_USERS\\S-1-5-18\\x", out));
    EXPECT_EQ(L"", out) << "the translated text is assigned whatever the result";
    ExpectLines({LINE_KWS L"0 old key: HKEY_USERS\\S-1-5-18\\x \r\n new key:"}, cap.Texts());

    plug.regKeyTranslate = nullptr;
    out = L"stale";
    EXPECT_FALSE(plug.TransformRegPath(GetCurrentProcessId(), L"HKEY_LOCAL_MACHINE\\x", out));
    EXPECT_EQ(L"stale", out);
}

}  // namespace
