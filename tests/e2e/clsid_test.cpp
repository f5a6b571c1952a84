// COM class registrations from a host registry event to the targets: the
// class's servers (per-user before per-machine), the 32-bit second pass, and
// 32-bit classes reported through every form of their key.
#include "e2e_support.h"
#include "support/class_registration.h"

#include <gtest/gtest.h>

#include <memory>

using namespace e2e;
using kwtest::ClassRegistration;

namespace {

void Replace(std::wstring& s, const std::wstring& from, const std::wstring& to) {
    for (size_t p; (p = s.find(from)) != std::wstring::npos;) s.replace(p, from.size(), to);
}

// The record's trace line from "||filepath:" on: each entry's path and ';'
// in list order (a location-only entry is a bare ';'), then "||ret:" and the code.
std::wstring Outcome() {
    std::wstring found;
    for (const auto& l : Host().Engine().Lines())
        if (l.text.find(L"[regscan] ||dsid:") != std::wstring::npos) found = l.text.substr(l.text.find(L"||filepath:") + 11);
    return found;
}

enum { USER = 1, MACHINE = 2, USER32 = 4, MACHINE32 = 8 };  // where the class is registered

}  // namespace

TEST(Clsid, FromHostEventToServers) {
    kwtest::TempDir dir;
    // The 32-bit server is a bare name found only in the 32-bit system folder.
    const std::wstring u = dir.File(L"u.dll"), m = dir.File(L"m.exe"), bare = L"kwclsid" + std::to_wstring(GetCurrentProcessId()) + L".dll";
    const std::wstring w = kwtest::WindowsDir() + L"\\syswow64\\" + bare, sid = kwtest::CurrentUserSid();
    ASSERT_TRUE(kwtest::MakeFile(w));
    const wchar_t *bho = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Browser Helper Objects\\<c>",
                  *any = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Handlers", *cr = L"HKEY_CLASSES_ROOT\\CLSID\\<c>",
                  *err = L"[ERROR][CAnalizyOperate::AnalyzKeyOrDefValueAsCLSID] ";
    // No value name: the key is added. The outcome as Outcome() gives it, and a trace line the host must have received.
    const struct { const char* name; int parseId, registered; const wchar_t *key, *valueName, *data, *outcome, *line; } rows[] = {
        {"10: handler key, user server first", 110, USER | MACHINE, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\*\\shellex\\ContextMenuHandlers\\<c>",
         nullptr, L"", L"<u>;<m>;||ret:0", nullptr},
        {"11: native helper object, then a 32-bit location", 111, MACHINE, bho, nullptr, L"", L"<m>;;||ret:0", nullptr},
        {"9: native helper object, native only", 109, MACHINE, bho, nullptr, L"", L"<m>;||ret:0", nullptr},
        {"9: probe finds the 32-bit per-user server", 109, USER32, cr, nullptr, L"", L";<w>;||ret:0", nullptr},
        {"11: second pass finds the 32-bit server", 111, MACHINE32, cr, nullptr, L"", L";<w>;||ret:0", nullptr},
        {"10: native key of a 32-bit class: location", 110, MACHINE32, cr, nullptr, L"", L";||ret:0", nullptr},
        {"10: classes root 32-bit key", 110, MACHINE32, L"HKEY_CLASSES_ROOT\\Wow6432Node\\CLSID\\<c>", nullptr, L"", L"<w>;||ret:0", nullptr},
        {"10: user class hive 32-bit key", 110, USER32, L"HKEY_USERS\\<sid>_Classes\\Wow6432Node\\CLSID\\<c>", nullptr, L"", L"<w>;||ret:0", nullptr},
        {"10: user classes 32-bit key", 110, USER32, L"HKEY_USERS\\<sid>\\Software\\Classes\\Wow6432Node\\CLSID\\<c>", nullptr, L"", L"<w>;||ret:0", nullptr},
        {"10: sub-key without separator", 110, MACHINE, L"HKEY_CLASSES_ROOT\\CLSID", nullptr, L"", L"||ret:3", nullptr},
        {"4: class text with trailing characters", 104, MACHINE, any, L"v", L"<c>xyz", L"<m>;||ret:0", nullptr},
        {"4: one character short", 104, MACHINE, any, L"v", L"<c-1>", L"||ret:4", nullptr},
        {"4: non-hex digit", 104, MACHINE, any, L"v", L"<cx>", L"||ret:4", nullptr},
        {"7: the value name", 107, MACHINE, any, L"<c>", L"x", L"<m>;||ret:0", nullptr},
        {"8: Default_Null value", 108, MACHINE, any, L"Default_Null", L"<c>", L"<m>;||ret:0", L"AnalyzKeyOrDefValueAsCLSID end"},
        {"8: named value", 108, MACHINE, any, L"x", L"<c>", L"||ret:3", L"<err>pAnalizy->szValuename err:x"},
        {"8: key name not a class", 108, MACHINE, L"HKEY_CLASSES_ROOT\\CLSID\\<cx>", nullptr, L"", L"||ret:4", L"<err>szCLSID err:"},
    };
    const struct { int bit; HKEY root; std::wstring path; const wchar_t* serverKey; std::wstring server; } places[] = {
        {USER, HKEY_USERS, sid + L"\\Software\\Classes\\CLSID\\", L"InprocServer32", u},
        {MACHINE, HKEY_LOCAL_MACHINE, L"Software\\Classes\\CLSID\\", L"LocalServer32", m},
        {USER32, HKEY_USERS, sid + L"\\Software\\Classes\\Wow6432Node\\CLSID\\", L"InprocServer32", bare},
        {MACHINE32, HKEY_LOCAL_MACHINE, L"Software\\Classes\\Wow6432Node\\CLSID\\", L"InprocServer32", bare},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::wstring c = kwtest::FreshClsid();
        std::wstring text[] = {r.key, r.valueName ? r.valueName : L"", r.data, r.outcome, r.line ? r.line : L""};
        for (std::wstring& s : text) {
            Replace(s, L"<c-1>", c.substr(0, 37));
            Replace(s, L"<cx>", c.substr(0, 5) + L"x" + c.substr(6));
            for (auto p : {std::make_pair(L"<c>", c), {L"<sid>", sid}, {L"<u>", u}, {L"<m>", m}, {L"<w>", w}, {L"<err>", err}})
                Replace(s, p.first, p.second);
        }
        std::vector<std::unique_ptr<ClassRegistration>> regs;
        for (const auto& p : places)
            if (r.registered & p.bit) {
                regs.emplace_back(new ClassRegistration(p.root, p.path + c, KEY_WOW64_64KEY));
                ASSERT_TRUE(regs.back()->SetServer(p.serverKey, p.server));
            }
        Host().Engine().ClearLines();
        auto targets = PostValue(r.valueName ? 6 : 1, text[0], r.valueName ? text[1].c_str() : nullptr, REG_SZ, text[2], r.parseId);
        std::wstring lines;  // shown when the outcome differs
        for (const auto& l : Host().Engine().Lines()) lines += l.text + L"\n";
        EXPECT_EQ(text[3], Outcome()) << ::testing::PrintToString(lines);
        std::vector<std::wstring> expected;  // the listed paths
        for (size_t b = 0, e; (e = text[3].find(L';', b)) != std::wstring::npos; b = e + 1)
            if (e > b) expected.push_back(text[3].substr(b, e - b));
        EXPECT_EQ(Targets(expected), targets);
        EXPECT_TRUE(Host().Engine().HasLine(text[4]));
    }
    DeleteFileW(w.c_str());
}

TEST(Clsid, ServerValueIsCutToItsBuffer) {
    // 4,096 bytes hold 2,047 characters and the terminator; the data here has
    // none, and a longer value is cut, not refused.
    kwtest::TempDir dir;
    const std::wstring c = kwtest::FreshClsid();
    ClassRegistration reg(HKEY_LOCAL_MACHINE, L"Software\\Classes\\CLSID\\" + c, KEY_WOW64_64KEY);
    std::wstring text = dir.Path() + L"\\";
    text.append(2045 - text.size(), L'a') += L".dll";
    for (size_t cb : {4094u, 4096u, 4098u}) {
        SCOPED_TRACE(cb);
        const BYTE* bytes = reinterpret_cast<const BYTE*>(text.data());
        ASSERT_TRUE(reg.SetServerRaw(L"InprocServer32", REG_SZ, std::vector<BYTE>(bytes, bytes + cb)));
        EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(text.substr(0, 2047))},
                  PostValue(1, L"HKEY_CLASSES_ROOT\\CLSID\\" + c, nullptr, 0, L"", 110));
    }
}
