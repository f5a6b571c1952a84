#include "registry/reg_util.h"

#include "support/fixtures.h"
#include "support/kit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace kw;
using kwtest::TempRegKey;

namespace {

// Raw value data: the bytes of a wide text, optionally without its terminator
// and with extra odd bytes.
std::vector<BYTE> WideBytes(const std::wstring& text, bool terminate, size_t extraOddBytes = 0) {
    std::vector<BYTE> b(reinterpret_cast<const BYTE*>(text.data()),
                        reinterpret_cast<const BYTE*>(text.data() + text.size()));
    if (terminate) b.insert(b.end(), {0, 0});
    for (size_t i = 0; i < extraOddBytes; ++i) b.push_back('x');
    return b;
}

std::vector<std::wstring> EnumAll(CEnumKey& e) {
    std::vector<std::wstring> names;
    std::wstring name;
    for (DWORD i = 0; i < 100 && e.Next(i, name); ++i) names.push_back(name);
    return names;
}

// ---------------------------------------------------------------------------
// RegReadExpandedString and (rows "multi: ...") RegReadMultiString: one value
// per row, written raw into one fresh key.

TEST(RegReadExpandedString, ReadsCutsAndExpands) {
    kwtest::ScopedEnv shortVar(L"KWTEST_REGUTIL_SHORT", L"C:\\kw");  // 5 characters
    kwtest::ScopedEnv longVar(L"KWTEST_REGUTIL_LONG", std::wstring(600, L'L').c_str());
    auto chars = [](size_t n) { return std::wstring(n, L'a'); };
    const struct {
        const char* name;
        DWORD type;
        std::vector<BYTE> data;
        bool expectedOk;
        std::wstring expected;
        bool multi = false;        // read with RegReadMultiString
        const wchar_t* read = L"v";  // the value read; "v" is the one written
    } rows[] = {
        {"REG_SZ of 519 characters is kept whole", REG_SZ, WideBytes(chars(519), true), true, chars(519)},
        {"REG_SZ of 520 characters is cut to 519", REG_SZ, WideBytes(chars(520), true), true, chars(519)},
        {"REG_SZ of 521 characters is cut to 519", REG_SZ, WideBytes(chars(521), true), true, chars(519)},
        {"REG_SZ tokens are not expanded", REG_SZ, WideBytes(L"%KWTEST_REGUTIL_SHORT%\\a.exe", true), true,
         L"%KWTEST_REGUTIL_SHORT%\\a.exe"},
        {"REG_EXPAND_SZ is expanded", REG_EXPAND_SZ, WideBytes(L"%KWTEST_REGUTIL_SHORT%\\a.exe", true), true, L"C:\\kw\\a.exe"},
        {"REG_EXPAND_SZ expanding to 519 characters is kept whole", REG_EXPAND_SZ, WideBytes(L"%KWTEST_REGUTIL_SHORT%" + chars(514), true),
         true, L"C:\\kw" + chars(514)},
        {"REG_EXPAND_SZ expanding to 520 characters is cut to 519", REG_EXPAND_SZ, WideBytes(L"%KWTEST_REGUTIL_SHORT%" + chars(515), true),
         true, L"C:\\kw" + chars(514)},
        {"REG_EXPAND_SZ short text expanding past the buffer is cut", REG_EXPAND_SZ, WideBytes(L"%KWTEST_REGUTIL_LONG%\\x", true), true,
         std::wstring(519, L'L')},
        {"data without terminator", REG_SZ, WideBytes(L"abc", false), true, L"abc"},
        {"odd byte count drops the last byte", REG_SZ, WideBytes(L"abc", false, 1), true, L"abc"},
        {"text ends at an embedded NUL", REG_SZ, WideBytes(std::wstring(L"ab\0cd", 5), true), true, L"ab"},
        {"empty data (0 bytes) reads as empty text", REG_SZ, {}, true, L""},
        {"one byte of data reads as empty text", REG_SZ, {'a'}, true, L""},
        {"REG_DWORD is refused", REG_DWORD, {1, 0, 0, 0}, false, L""},
        {"REG_BINARY is refused", REG_BINARY, WideBytes(L"abc", true), false, L""},
        {"missing value", REG_SZ, WideBytes(L"abc", true), false, L"", false, L"absent"},
        {"multi: two strings with both terminators", REG_MULTI_SZ, WideBytes(std::wstring(L"a.exe\0b.exe\0", 12), true), true,
         std::wstring(L"a.exe\0b.exe", 11), true},
        {"multi: final list NUL missing", REG_MULTI_SZ, WideBytes(std::wstring(L"a.exe\0b.exe", 11), true), true,
         std::wstring(L"a.exe\0b.exe", 11), true},
        {"multi: odd byte count", REG_MULTI_SZ, WideBytes(std::wstring(L"a\0b", 3), false, 1), true, std::wstring(L"a\0b", 3), true},
        {"multi: empty string inside the list stays", REG_MULTI_SZ, WideBytes(std::wstring(L"a\0\0b\0", 5), true), true,
         std::wstring(L"a\0\0b", 4), true},
        {"multi: empty list", REG_MULTI_SZ, WideBytes(L"", true), true, L"", true},
        {"multi: REG_SZ is one string", REG_SZ, WideBytes(L"x.dll", true), true, L"x.dll", true},
        {"multi: REG_EXPAND_SZ is not expanded", REG_EXPAND_SZ, WideBytes(L"%KWTEST_REGUTIL_SHORT%", true), true,
         L"%KWTEST_REGUTIL_SHORT%", true},
        {"multi: REG_DWORD is refused", REG_DWORD, {7, 0, 0, 0}, false, L"", true},
        {"multi: missing value", REG_MULTI_SZ, WideBytes(L"abc", true), false, L"", true, L"absent"},
    };
    TempRegKey key(HKEY_CURRENT_USER, L"Software");
    const wchar_t* path = key.Path().c_str();
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(kwtest::RegSetRaw(HKEY_CURRENT_USER, key.Path(), L"v", r.type, r.data.data(), static_cast<DWORD>(r.data.size())));
        std::wstring out = L"stale";
        EXPECT_EQ(r.expectedOk, r.multi ? RegReadMultiString(HKEY_CURRENT_USER, path, r.read, KEY_WOW64_64KEY, out)
                                        : RegReadExpandedString(HKEY_CURRENT_USER, path, r.read, KEY_WOW64_64KEY, out));
        EXPECT_EQ(r.expected.size(), out.size());
        EXPECT_EQ(r.expected, out);
    }
}

// A missing key reads as nothing; the default value is read with a null name;
// an empty or null sub-key reads from the root handle itself.
TEST(RegReadExpandedString, MissingKeyDefaultValueAndRootHandle) {
    TempRegKey key(HKEY_CURRENT_USER, L"Software");
    std::wstring out = L"stale";
    EXPECT_FALSE(RegReadExpandedString(HKEY_CURRENT_USER, (key.Path() + L"\\absent").c_str(), L"v", KEY_WOW64_64KEY, out));
    EXPECT_TRUE(out.empty());

    ASSERT_TRUE(kwtest::RegSetSz(HKEY_CURRENT_USER, key.Path(), L"", L"default text"));
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_CURRENT_USER, key.Path(), L"v", L"from the handle"));
    EXPECT_TRUE(RegReadExpandedString(HKEY_CURRENT_USER, key.Path().c_str(), nullptr, KEY_WOW64_64KEY, out));
    EXPECT_EQ(L"default text", out);
    unique_hkey h;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, key.Path().c_str(), 0, KEY_READ, h.put()));
    for (const wchar_t* sub : {L"", static_cast<const wchar_t*>(nullptr)}) {
        EXPECT_TRUE(RegReadExpandedString(h.get(), sub, L"v", 0, out));
        EXPECT_EQ(L"from the handle", out);
    }
}

// HKLM\Software has two views on 64-bit Windows: a value and a sub-key written
// only in the 32-bit view are seen with KEY_WOW64_32KEY (and the analyzers'
// high bit may be added for values) and not with KEY_WOW64_64KEY.
TEST(RegUtilViews, EachReadSeesTheViewItIsAskedFor) {
    if (!kwtest::ProcessIsWow64()) GTEST_SKIP() << "needs a 32-bit process on 64-bit Windows";
    TempRegKey key(HKEY_LOCAL_MACHINE, L"Software", KEY_WOW64_32KEY);
    const wchar_t* path = key.Path().c_str();
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_LOCAL_MACHINE, key.Path(), L"v", L"32-bit text", KEY_WOW64_32KEY));
    ASSERT_TRUE(kwtest::RegCreate(HKEY_LOCAL_MACHINE, key.Path() + L"\\sub32", KEY_WOW64_32KEY));
    std::wstring out;
    EXPECT_TRUE(RegReadExpandedString(HKEY_LOCAL_MACHINE, path, L"v", KEY_WOW64_32KEY, out));
    EXPECT_EQ(L"32-bit text", out);
    EXPECT_TRUE(RegReadExpandedString(HKEY_LOCAL_MACHINE, path, L"v", 0x80000000, out)) << "the process's own view with the high bit";
    EXPECT_EQ(L"32-bit text", out);
    EXPECT_FALSE(RegReadExpandedString(HKEY_LOCAL_MACHINE, path, L"v", KEY_WOW64_64KEY, out));
    EXPECT_TRUE(out.empty());
    CEnumKey e32(HKEY_LOCAL_MACHINE, path, KEY_WOW64_32KEY);
    EXPECT_EQ((std::vector<std::wstring>{L"sub32"}), EnumAll(e32));
    CEnumKey e64(HKEY_LOCAL_MACHINE, path, KEY_WOW64_64KEY);
    EXPECT_FALSE(e64.IsOpen());
}

// ---------------------------------------------------------------------------
// IsWow6432NodePath

struct NodeRow {
    const char* name;
    HKEY root;
    const wchar_t* subKey;
    bool expected;
};

TEST(IsWow6432NodePath, Classifies) {
    const NodeRow rows[] = {
        {"HKLM 32-bit software run key", HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run", true},
        {"HKLM node key itself at the end", HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node", true},
        {"HKLM leading backslash is ignored", HKEY_LOCAL_MACHINE, L"\\SOFTWARE\\Wow6432Node\\x", true},
        {"HKLM 32-bit machine classes", HKEY_LOCAL_MACHINE, L"Software\\Classes\\Wow6432Node\\CLSID\\{0123ABCD}", true},
        {"HKLM Wow6432NodeX is another key", HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432NodeX\\x", false},
        {"HKLM Wow6432Nod is too short", HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Nod\\x", false},
        {"HKLM SoftwareX is another key", HKEY_LOCAL_MACHINE, L"SoftwareX\\Wow6432Node\\x", false},
        {"HKLM node deeper than the view root", HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Wow6432Node\\x", false},
        {"HKLM node below CLSID is an ordinary key", HKEY_LOCAL_MACHINE, L"Software\\Classes\\CLSID\\Wow6432Node", false},
        {"HKLM software key alone", HKEY_LOCAL_MACHINE, L"SOFTWARE", false},
        {"HKLM null path", HKEY_LOCAL_MACHINE, nullptr, false},
        {"HKCU 32-bit user classes", HKEY_CURRENT_USER, L"Software\\Classes\\Wow6432Node\\CLSID\\{0123ABCD}", true},
        {"HKCU classes node lower case at the end", HKEY_CURRENT_USER, L"software\\classes\\wow6432node", true},
        {"HKCU software node is a shared ordinary key", HKEY_CURRENT_USER, L"Software\\Wow6432Node\\Microsoft", false},
        {"HKU user classes node", HKEY_USERS, L"S-1-5-21-1-2-3-1000\\Software\\Classes\\Wow6432Node\\CLSID", true},
        {"HKU class hive node, any case", HKEY_USERS, L"S-1-5-21-1-2-3-1000_classes\\WOW6432NODE\\CLSID", true},
        {"HKU key named _Classes alone is no hive", HKEY_USERS, L"_Classes\\Wow6432Node\\CLSID", false},
        {"HKU software node is a shared ordinary key", HKEY_USERS, L"S-1-5-21-1-2-3-1000\\Software\\Wow6432Node\\x", false},
        {"HKCR node", HKEY_CLASSES_ROOT, L"Wow6432Node\\CLSID\\{0123ABCD-4567-89EF-ABCD-0123456789EF}", true},
        {"HKCR native CLSID", HKEY_CLASSES_ROOT, L"CLSID\\{0123ABCD-4567-89EF-ABCD-0123456789EF}", false},
        {"root carried as the value 0x80000002", reinterpret_cast<HKEY>(ULONG_PTR{0x80000002}), L"SOFTWARE\\Wow6432Node\\x", true},
    };
    for (const NodeRow& r : rows) EXPECT_EQ(r.expected, IsWow6432NodePath(r.root, r.subKey)) << r.name;
}

// ---------------------------------------------------------------------------
// CEnumKey


// Three sub-keys (and a value) then the end; an empty path enumerates the root
// handle itself, which the enumerator never closes; an empty or missing key
// yields nothing.
TEST(CEnumKey, SubKeysThenTheEnd) {
    TempRegKey key(HKEY_CURRENT_USER, L"Software");
    for (const wchar_t* n : {L"beta", L"Alpha", L"gamma"}) ASSERT_TRUE(kwtest::RegCreate(HKEY_CURRENT_USER, key.Path() + L"\\" + n));
    ASSERT_TRUE(kwtest::RegSetSz(HKEY_CURRENT_USER, key.Path(), L"value", L"not a key"));
    CEnumKey e(HKEY_CURRENT_USER, key.Path().c_str(), KEY_WOW64_64KEY);
    EXPECT_TRUE(e.IsOpen());
    std::vector<std::wstring> names = EnumAll(e);
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::wstring>{L"Alpha", L"beta", L"gamma"}), names);
    std::wstring name = L"stale";
    EXPECT_FALSE(e.Next(3, name));
    EXPECT_TRUE(name.empty());
    EXPECT_FALSE(e.Next(1000, name));

    unique_hkey h;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, (key.Path() + L"\\beta").c_str(), 0, KEY_READ, h.put()));
    ASSERT_TRUE(kwtest::RegCreate(HKEY_CURRENT_USER, key.Path() + L"\\beta\\only"));
    for (const wchar_t* sub : {L"", static_cast<const wchar_t*>(nullptr)}) {
        CEnumKey root(h.get(), sub, 0);
        EXPECT_TRUE(root.IsOpen());
        EXPECT_EQ((std::vector<std::wstring>{L"only"}), EnumAll(root));
    }
    EXPECT_EQ(ERROR_SUCCESS, RegQueryInfoKeyW(h.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr)) << "the root handle is still open";

    for (const std::wstring& path : {key.Path() + L"\\gamma", key.Path() + L"\\absent"}) {
        CEnumKey empty(HKEY_CURRENT_USER, path.c_str(), KEY_WOW64_64KEY);
        EXPECT_EQ(path != key.Path() + L"\\absent", empty.IsOpen());
        name = L"stale";
        EXPECT_FALSE(empty.Next(0, name));
        EXPECT_TRUE(name.empty());
    }
}

// Key names up to the registry's limit come back whole; a registry that holds
// a longer name (Wine accepts 256 characters) makes the buffer grow.
TEST(CEnumKey, LongNamesComeBackWhole) {
    TempRegKey key(HKEY_CURRENT_USER, L"Software");
    for (size_t length : {254u, 255u, 256u}) {
        SCOPED_TRACE(length);
        std::wstring sub = key.Path() + L"\\" + std::to_wstring(length);
        std::wstring longName(length, L'n');
        if (!kwtest::RegCreate(HKEY_CURRENT_USER, sub + L"\\" + longName)) {
            ASSERT_GT(length, 255u) << "the registry must accept names up to 255 characters";
            continue;  // this registry refuses longer names: nothing to enumerate
        }
        CEnumKey e(HKEY_CURRENT_USER, sub.c_str(), 0);
        std::wstring name;
        ASSERT_TRUE(e.Next(0, name));
        EXPECT_EQ(longName, name);
        EXPECT_FALSE(e.Next(1, name));
    }
}

}  // namespace

// Multi-string text as the registry may hold it: empty strings inside, a
// missing final NUL, nothing at all.
TEST(SplitMultiString, Pieces) {
    struct Row {
        const char* name;
        std::wstring raw;
        std::vector<std::wstring> expected;
    } rows[] = {
        {"two strings, both NULs", std::wstring(L"a\0b\0\0", 5), {L"a", L"b"}},
        {"final NUL missing", std::wstring(L"a\0bc", 4), {L"a", L"bc"}},
        {"empty string inside is left out", std::wstring(L"a\0\0b", 4), {L"a", L"b"}},
        {"leading NUL", std::wstring(L"\0a", 2), {L"a"}},
        {"empty text", L"", {}},
    };
    for (const Row& r : rows) EXPECT_EQ(r.expected, SplitMultiString(r.raw)) << r.name;
}
