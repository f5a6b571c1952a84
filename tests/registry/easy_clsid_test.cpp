#include "registry/easy_clsid.h"

#include "support/class_registration.h"
#include "support/fixtures.h"
#include "support/kit.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace kw;
using kwtest::ClassRegistration;
using kwtest::FreshClsid;

namespace {

constexpr DWORD kUsers = 0x80000003;
constexpr DWORD kMachine = 0x80000002;

std::wstring UserClassPath(const std::wstring& sid, const std::wstring& clsid, bool wow6432 = false) {
    return sid + (wow6432 ? L"\\Software\\Classes\\Wow6432Node\\CLSID\\" : L"\\Software\\Classes\\CLSID\\") + clsid;
}
std::wstring MachineClassPath(const std::wstring& clsid) { return L"Software\\Classes\\CLSID\\" + clsid; }

// A server as "<key name> <root> <path>", readable in a failure message.
std::wstring Server(const std::wstring& keyName, DWORD root, const std::wstring& path) {
    return keyName + L" " + std::to_wstring(root) + L" " + path;
}
std::wstring Inproc(DWORD root, const std::wstring& path) { return Server(L"InprocServer32", root, path); }
std::wstring Local(DWORD root, const std::wstring& path) { return Server(L"LocalServer32", root, path); }

std::vector<std::wstring> ServersOf(const CEasyClsid& c) {
    std::vector<std::wstring> out;
    for (const ClsidServer& s : c.Servers()) out.push_back(Server(s.keyName, s.reserved, s.path));
    return out;
}

// ---------------------------------------------------------------------------
// Where a class is registered, and which servers it has.

const wchar_t kUserDll[] = L"C:\\Users\\kw\\AppData\\user.dll";
const wchar_t kUserExe[] = L"\"C:\\Users\\kw\\AppData\\user.exe\" /automation";
const wchar_t kMachineDll[] = L"%SystemRoot%\\system32\\machine.dll";
const wchar_t kMachineExe[] = L"C:\\Program Files\\kw\\machine.exe -Embedding";

TEST(CEasyClsidRegistration, FindsServersInOrder) {
    const struct {
        const char* name;
        const wchar_t* userInproc;  // null: no such server key
        const wchar_t* userLocal;
        const wchar_t* machineInproc;
        const wchar_t* machineLocal;
        bool userClassKey;     // create the per-user class key
        bool machineClassKey;  // create the per-machine class key
        bool passSid;
        BOOL expectedFound;
        DWORD expectedRoot;
        std::vector<std::wstring> expected;
    } rows[] = {
        {"per-user and per-machine: user servers first, root HKLM", kUserDll, kUserExe, kMachineDll, kMachineExe, true, true, true, 1,
         kMachine, {Inproc(kUsers, kUserDll), Local(kUsers, kUserExe), Inproc(kMachine, kMachineDll), Local(kMachine, kMachineExe)}},
        {"per-user only: root HKU", kUserDll, kUserExe, nullptr, nullptr, true, false, true, 1, kUsers,
         {Inproc(kUsers, kUserDll), Local(kUsers, kUserExe)}},
        {"per-user only but no SID given: not found", kUserDll, kUserExe, nullptr, nullptr, true, false, false, 0, kMachine, {}},
        {"both but no SID given: machine servers only", kUserDll, kUserExe, kMachineDll, kMachineExe, true, true, false, 1, kMachine,
         {Inproc(kMachine, kMachineDll), Local(kMachine, kMachineExe)}},
        {"LocalServer32 only", nullptr, nullptr, nullptr, kMachineExe, false, true, true, 1, kMachine, {Local(kMachine, kMachineExe)}},
        {"user class key without servers: found under HKU", nullptr, nullptr, nullptr, nullptr, true, false, true, 1, kUsers, {}},
        {"nothing registered: not found, root HKLM", nullptr, nullptr, nullptr, nullptr, false, false, true, 0, kMachine, {}},
    };
    const std::wstring sid = kwtest::CurrentUserSid();
    ASSERT_FALSE(sid.empty());
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::wstring clsid = FreshClsid();
        std::vector<std::unique_ptr<ClassRegistration>> regs;
        auto add = [&](bool make, HKEY root, const std::wstring& path, const wchar_t* inproc, const wchar_t* local) {
            if (!make) return;
            regs.emplace_back(new ClassRegistration(root, path, KEY_WOW64_64KEY));
            ASSERT_TRUE(regs.back()->Created());
            for (const auto& server : {std::make_pair(L"InprocServer32", inproc), std::make_pair(L"LocalServer32", local)})
                EXPECT_TRUE(!server.second || regs.back()->SetServer(server.first, server.second)) << server.first;
        };
        add(r.userClassKey, HKEY_USERS, UserClassPath(sid, clsid), r.userInproc, r.userLocal);
        add(r.machineClassKey, HKEY_LOCAL_MACHINE, MachineClassPath(clsid), r.machineInproc, r.machineLocal);

        CEasyClsid lookup(r.passSid ? sid.c_str() : nullptr, clsid.c_str(), FALSE);
        EXPECT_EQ(r.expectedFound, lookup.Found());
        EXPECT_EQ(r.expectedRoot, lookup.RootKey());
        EXPECT_EQ(r.expected, ServersOf(lookup));
        EXPECT_EQ(clsid, lookup.Clsid());
    }
}

// ---------------------------------------------------------------------------
// The server value as the registry holds it.

std::vector<BYTE> WideBytes(const std::wstring& text, bool terminate, size_t extraOddBytes = 0) {
    std::vector<BYTE> b(reinterpret_cast<const BYTE*>(text.data()), reinterpret_cast<const BYTE*>(text.data() + text.size()));
    if (terminate) b.insert(b.end(), {0, 0});
    for (size_t i = 0; i < extraOddBytes; ++i) b.push_back('x');
    return b;
}

TEST(CEasyClsidValue, ReadsTheDefaultValue) {
    const struct {
        const char* name;
        bool setValue;  // false: the server key exists without a default value
        DWORD type;
        std::vector<BYTE> data;
        std::vector<std::wstring> expected;
    } rows[] = {
        {"terminated REG_SZ", true, REG_SZ, WideBytes(L"C:\\a.dll", true), {Inproc(kMachine, L"C:\\a.dll")}},
        {"value without terminator", true, REG_SZ, WideBytes(L"C:\\a.dll", false), {Inproc(kMachine, L"C:\\a.dll")}},
        {"odd size without terminator", true, REG_SZ, WideBytes(L"C:\\a.dll", false, 1), {Inproc(kMachine, L"C:\\a.dll")}},
        {"REG_EXPAND_SZ is kept unexpanded", true, REG_EXPAND_SZ, WideBytes(L"%SystemRoot%\\a.dll", true),
         {Inproc(kMachine, L"%SystemRoot%\\a.dll")}},
        {"2047 characters fill the 4096-byte buffer", true, REG_SZ, WideBytes(std::wstring(2047, L'p'), true),
         {Inproc(kMachine, std::wstring(2047, L'p'))}},
        {"2048 characters are cut to 2047", true, REG_SZ, WideBytes(std::wstring(2048, L'p'), true),
         {Inproc(kMachine, std::wstring(2047, L'p'))}},
        {"REG_DWORD is not a server path", true, REG_DWORD, {1, 0, 0, 0}, {}},
        {"server key without a default value adds nothing", false, REG_NONE, {}, {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::wstring clsid = FreshClsid();
        ClassRegistration machine(HKEY_LOCAL_MACHINE, MachineClassPath(clsid), KEY_WOW64_64KEY);
        ASSERT_TRUE(machine.Created());
        ASSERT_TRUE(r.setValue ? machine.SetServerRaw(L"InprocServer32", r.type, r.data) : machine.CreateServerKey(L"InprocServer32"));
        CEasyClsid lookup(nullptr, clsid.c_str(), FALSE);
        EXPECT_EQ(1, lookup.Found());
        EXPECT_EQ(r.expected, ServersOf(lookup));
    }
}

// ---------------------------------------------------------------------------
// The CLSID text as the caller passes it.

// Characters after the closing brace are cut off; lower case finds the class.
TEST(CEasyClsidText, TrailingCharactersAndCase) {
    const std::wstring clsid = FreshClsid();
    ClassRegistration machine(HKEY_LOCAL_MACHINE, MachineClassPath(clsid), KEY_WOW64_64KEY);
    ASSERT_TRUE(machine.SetServer(L"InprocServer32", L"C:\\t.dll"));
    std::wstring lower = clsid;
    CharLowerBuffW(&lower[0], static_cast<DWORD>(lower.size()));
    for (const std::wstring& text : {clsid + L"\\InprocServer32", clsid + L"}", lower}) {
        SCOPED_TRACE(::testing::PrintToString(text));
        CEasyClsid lookup(nullptr, text.c_str(), FALSE);
        EXPECT_EQ(text.substr(0, clsid.size()), lookup.Clsid());
        EXPECT_EQ(1, lookup.Found());
        EXPECT_EQ(std::vector<std::wstring>{Inproc(kMachine, L"C:\\t.dll")}, ServersOf(lookup));
    }
}

TEST(CEasyClsidText, InvalidTextFindsNothing) {
    const std::wstring x400(400, L'x'), x259(259, L'x');
    const struct {
        const char* name;
        const wchar_t* text;
        const wchar_t* expectedClsidBuffer;
    } rows[] = {
        {"null text", nullptr, L""},
        {"closing brace missing", L"{0123ABCD-4567-89EF-ABCD-0123456789EF", L"{0123ABCD-4567-89EF-ABCD-0123456789EF"},
        {"early brace cuts the text short", L"{0123ABCD}-4567-89EF-ABCD-0123456789EF}", L"{0123ABCD}"},
        {"not hex", L"{0123ABCD-4567-89EF-ABCD-0123456789EG}", L"{0123ABCD-4567-89EF-ABCD-0123456789EG}"},
        {"long text is cut to the buffer", x400.c_str(), x259.c_str()},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        CEasyClsid lookup(kwtest::CurrentUserSid().c_str(), r.text, TRUE);
        EXPECT_EQ(0, lookup.Found());
        EXPECT_EQ(0u, lookup.RootKey());
        EXPECT_TRUE(lookup.Servers().empty());
        EXPECT_EQ(std::wstring(r.expectedClsidBuffer), lookup.Clsid());
        EXPECT_EQ(std::wstring(), lookup.m_szMachinePath);
        EXPECT_EQ(std::wstring(), lookup.m_szUserPath);
    }
}

TEST(CEasyClsidPaths, LongSidIsCutToThePathBuffer) {
    const std::wstring clsid = FreshClsid();
    std::wstring sid = L"S-1-5-21-" + std::wstring(300, L'9');
    CEasyClsid lookup(sid.c_str(), clsid.c_str(), FALSE);
    EXPECT_EQ(259u, wcslen(lookup.m_szUserPath));
    EXPECT_EQ(0, wcsncmp(lookup.m_szUserPath, sid.c_str(), 259));
    EXPECT_EQ(0, lookup.Found());
}

// ---------------------------------------------------------------------------
// The 32-bit registry view of a WOW64 process. Both machine views hold the
// class with different servers; the user's 32-bit classes live physically
// under "<sid>\Software\Classes\Wow6432Node\CLSID" (the fixture writes that key
// directly: Wine does not redirect a 32-bit writer's per-user classes). Each
// lookup sees only the servers of its own view.
TEST(CEasyClsidViews, EachLookupSeesOnlyItsOwnView) {
    if (!kwtest::ProcessIsWow64()) GTEST_SKIP() << "needs a 32-bit process on 64-bit Windows";
    const std::wstring sid = kwtest::CurrentUserSid();
    const std::wstring clsid = FreshClsid();
    ClassRegistration reg64(HKEY_LOCAL_MACHINE, MachineClassPath(clsid), KEY_WOW64_64KEY);
    ClassRegistration reg32(HKEY_LOCAL_MACHINE, MachineClassPath(clsid), KEY_WOW64_32KEY);
    ClassRegistration user32(HKEY_USERS, UserClassPath(sid, clsid, true), KEY_WOW64_64KEY);
    ASSERT_TRUE(reg64.SetServer(L"InprocServer32", L"C:\\native.dll"));
    ASSERT_TRUE(reg32.SetServer(L"InprocServer32", L"C:\\wow.dll"));
    ASSERT_TRUE(user32.SetServer(L"LocalServer32", L"C:\\u32.exe"));
    CEasyClsid with32(sid.c_str(), clsid.c_str(), TRUE);
    EXPECT_EQ(1, with32.Found());
    EXPECT_EQ(kMachine, with32.RootKey());
    EXPECT_EQ((std::vector<std::wstring>{Local(kUsers, L"C:\\u32.exe"), Inproc(kMachine, L"C:\\wow.dll")}), ServersOf(with32));
    EXPECT_EQ(std::vector<std::wstring>{Inproc(kMachine, L"C:\\native.dll")}, ServersOf(CEasyClsid(sid.c_str(), clsid.c_str(), FALSE)));
}

}  // namespace
