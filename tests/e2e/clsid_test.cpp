// COM class registrations from a host registry event to the targets: the
// class's servers (per-user before per-machine), the 32-bit second pass, and
// classes reported through the 32-bit forms of the classes roots.
#include "e2e_support.h"
#include "support/class_registration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

using namespace e2e;
using hostsim::Event;
using kwtest::ClassRegistration;

namespace {

const wchar_t kNative[] = L"Software\\Classes\\CLSID\\";
const wchar_t kWow[] = L"Software\\Classes\\Wow6432Node\\CLSID\\";

// What the record's trace line lists after "||filepath:": every entry's path
// in list order, each followed by ';' (a location-only entry adds a bare ';'),
// then "||ret:" and the code.
std::wstring Outcome() {
    std::wstring found;
    for (const auto& l : Host().Engine().Lines()) {
        size_t p = l.text.find(L"||filepath:");
        if (l.text.find(L"[regscan] ||dsid:") != std::wstring::npos && p != std::wstring::npos)
            found = l.text.substr(p + 11);
    }
    return found;
}

std::vector<std::wstring> PostKey(const std::wstring& keyPath, uint32_t parseId) {
    Host().Engine().ClearLines();
    std::unique_ptr<Event> ev(Event::Registry(1, keyPath));
    return Post(*ev, parseId);
}

std::vector<std::wstring> Sorted(std::vector<std::wstring> v) {
    std::sort(v.begin(), v.end());
    return v;
}

}  // namespace

TEST(Clsid, ContextMenuHandlerKeyYieldsUserServerBeforeMachineServer) {
    kwtest::TempDir dir;
    const std::wstring user = dir.File(L"user.dll"), machine = dir.File(L"machine.dll");
    const std::wstring c = kwtest::FreshClsid(), sid = kwtest::CurrentUserSid();
    ClassRegistration u(HKEY_USERS, sid + L"\\" + kNative + c, KEY_WOW64_64KEY);
    ClassRegistration m(HKEY_LOCAL_MACHINE, kNative + c, KEY_WOW64_64KEY);
    ASSERT_TRUE(u.SetServer(L"InprocServer32", user) && m.SetServer(L"InprocServer32", machine));
    auto targets = PostKey(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\*\\shellex\\ContextMenuHandlers\\" + c, 110);
    EXPECT_EQ(Sorted({kwtest::Upper(user), kwtest::Upper(machine)}), targets);
    EXPECT_EQ(user + L";" + machine + L";||ret:0", Outcome());
}

TEST(Clsid, NativeOnlyHelperObjectAndTheSecondPass) {
    kwtest::TempDir dir;
    const std::wstring dll = dir.File(L"bho.dll");
    const std::wstring c = kwtest::FreshClsid();
    ClassRegistration m(HKEY_LOCAL_MACHINE, kNative + c, KEY_WOW64_64KEY);
    ASSERT_TRUE(m.SetServer(L"InprocServer32", dll));
    const std::wstring key =
        L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Browser Helper Objects\\" + c;
    // 11 always adds the 32-bit pass's entry, a location only here; 9 only
    // when the 32-bit view has a server.
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(dll)}, PostKey(key, 111));
    EXPECT_EQ(dll + L";;||ret:0", Outcome());
    EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(dll)}, PostKey(key, 109));
    EXPECT_EQ(dll + L";||ret:0", Outcome());
}

struct ViewRow {
    const char* name;
    bool perUser;             // the 32-bit class is registered per user, else per machine
    std::wstring eventKey;    // "<sid>" and "<c>" are replaced
    int parseId;
    bool found;               // the 32-bit server is a target
};

TEST(Clsid, ThirtyTwoBitClassThroughEachFormOfItsKey) {
    // A bare server name found only in the 32-bit system folder.
    const std::wstring name = L"kwclsid" + std::to_wstring(GetCurrentProcessId()) + L".dll";
    const std::wstring file = kwtest::WindowsDir() + L"\\SysWOW64\\" + name;
    ASSERT_TRUE(kwtest::MakeFile(file));
    const std::wstring sid = kwtest::CurrentUserSid();
    const ViewRow rows[] = {
        {"classes root", false, L"HKEY_CLASSES_ROOT\\Wow6432Node\\CLSID\\<c>", 110, true},
        {"kernel path of the machine classes", false, L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES\\Wow6432Node\\CLSID\\<c>", 110, true},
        {"machine software classes", false, L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\Wow6432Node\\CLSID\\<c>", 110, true},
        {"user class hive, per-user class", true, L"HKEY_USERS\\<sid>_Classes\\Wow6432Node\\CLSID\\<c>", 110, true},
        {"user software classes, per-user class", true, L"HKEY_USERS\\<sid>\\Software\\Classes\\Wow6432Node\\CLSID\\<c>", 110, true},
        {"user class hive, machine class", false, L"HKEY_USERS\\<sid>_Classes\\wow6432node\\CLSID\\<c>", 110, true},
        {"native form: not registered there", false, L"HKEY_CLASSES_ROOT\\CLSID\\<c>", 110, false},
        {"native form, second pass finds it", false, L"HKEY_CLASSES_ROOT\\CLSID\\<c>", 111, true},
        {"native form, probe finds it", true, L"HKEY_CLASSES_ROOT\\CLSID\\<c>", 109, true},
    };
    for (const ViewRow& r : rows) {
        SCOPED_TRACE(r.name);
        const std::wstring c = kwtest::FreshClsid();
        ClassRegistration reg(r.perUser ? HKEY_USERS : HKEY_LOCAL_MACHINE,
                              (r.perUser ? sid + L"\\" : std::wstring()) + kWow + c, KEY_WOW64_64KEY);
        ASSERT_TRUE(reg.SetServer(L"InprocServer32", name));
        std::wstring key = r.eventKey;
        key.replace(key.find(L"<c>"), 3, c);
        if (key.find(L"<sid>") != std::wstring::npos) key.replace(key.find(L"<sid>"), 5, sid);
        auto targets = PostKey(key, r.parseId);
        EXPECT_EQ(r.found ? std::vector<std::wstring>{kwtest::Upper(file)} : std::vector<std::wstring>{}, targets);
    }
    DeleteFileW(file.c_str());
}

struct ValueRow {
    const char* name;
    int parseId;
    std::wstring valueName, data;
    const wchar_t* outcome;        // "<srv>" stands for the server's path
};

TEST(Clsid, ClassNamedByAValue) {
    kwtest::TempDir dir;
    const std::wstring srv = dir.File(L"srv.exe");
    const std::wstring c = kwtest::FreshClsid();
    ClassRegistration m(HKEY_LOCAL_MACHINE, kNative + c, KEY_WOW64_64KEY);
    ASSERT_TRUE(m.SetServer(L"LocalServer32", L"\"" + srv + L"\" -Embedding"));
    std::wstring shortC = c, nonHex = c;
    shortC.pop_back();
    nonHex[5] = L'x';
    const ValueRow rows[] = {
        {"4: class text with trailing characters", 104, L"v", c + L"xyz", L"<srv>;||ret:0"},
        {"4: one character short", 104, L"v", shortC, L"||ret:4"},
        {"4: non-hex digit", 104, L"v", nonHex, L"||ret:4"},
        {"7: value name", 107, c, L"x", L"<srv>;||ret:0"},
        {"8: Default_Null", 108, L"Default_Null", c, L"<srv>;||ret:0"},
        {"8: named value", 108, L"x", c, L"||ret:3"},
        {"9: default value, native class only", 109, L"", c, L"<srv>;||ret:0"},
    };
    for (const ValueRow& r : rows) {
        SCOPED_TRACE(r.name);
        std::wstring outcome = r.outcome;
        if (outcome[0] == L'<') outcome.replace(0, 5, srv);
        Host().Engine().ClearLines();
        auto targets = PostSz(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\kwtest\\Handlers", r.valueName, r.data, r.parseId);
        EXPECT_EQ(outcome, Outcome());
        EXPECT_EQ(outcome[0] == L'|' ? std::vector<std::wstring>{} : std::vector<std::wstring>{kwtest::Upper(srv)},
                  targets);
    }
}

TEST(Clsid, ServerValueIsCutToItsBuffer) {
    // 4,096 bytes hold 2,047 characters and the terminator; the registry's
    // data here has none, and a longer value is cut, not refused.
    kwtest::TempDir dir;
    const std::wstring c = kwtest::FreshClsid();
    ClassRegistration m(HKEY_LOCAL_MACHINE, kNative + c, KEY_WOW64_64KEY);
    std::wstring text = dir.Path() + L"\\";
    text.append(2049 - text.size() - 4, L'a');
    text += L".dll";
    for (size_t cb : {4094u, 4096u, 4098u}) {
        SCOPED_TRACE(cb);
        const BYTE* bytes = reinterpret_cast<const BYTE*>(text.data());
        ASSERT_TRUE(m.SetServerRaw(L"InprocServer32", REG_SZ, std::vector<BYTE>(bytes, bytes + cb)));
        EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(text.substr(0, 2047))},
                  PostKey(L"HKEY_CLASSES_ROOT\\CLSID\\" + c, 110));
    }
}
