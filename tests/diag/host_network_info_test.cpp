// Host names and UNC paths that point back to this machine.
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <lm.h>

#include "diag/host_network_info.h"
#include "diag/trace.h"
#include "support/child.h"
#include "support/kit.h"
#include "support/recording_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

using namespace kw;

namespace {

// The machine's host name as the system reports it (read here, independently
// of the unit under test).
std::wstring SystemHostName() {
    wchar_t name[260] = {0};
    DWORD cch = 260;
    if (!GetComputerNameExW(ComputerNameDnsHostname, name, &cch)) return L"";
    return name;
}

// Every IPv4 address of the machine in dotted form, from the system's table.
std::vector<std::wstring> SystemIpv4Addresses() {
    std::vector<std::wstring> out;
    ULONG cb = 0;
    if (GetIpAddrTable(nullptr, &cb, FALSE) != ERROR_INSUFFICIENT_BUFFER) return out;
    std::vector<BYTE> buf(cb);
    auto* table = reinterpret_cast<MIB_IPADDRTABLE*>(buf.data());
    if (GetIpAddrTable(table, &cb, FALSE) != NO_ERROR) return out;
    for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const BYTE* b = reinterpret_cast<const BYTE*>(&table->table[i].dwAddr);
        wchar_t text[16];
        swprintf(text, 16, L"%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
        out.push_back(text);
    }
    return out;
}

// The local path of a share as the system reports it; empty when the system
// has no such share (the status goes to `status`).
std::wstring SystemSharePath(const wchar_t* share, NET_API_STATUS* status) {
    LPBYTE buf = nullptr;
    *status = NetShareGetInfo(nullptr, const_cast<LMSTR>(share), 502, &buf);
    std::wstring path;
    if (*status == NERR_Success && buf) path = reinterpret_cast<SHARE_INFO_502*>(buf)->shi502_path;
    if (buf) NetApiBufferFree(buf);
    return path;
}

class HostNetworkInfoTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetLogSink(&sink);
        host = SystemHostName();
        ASSERT_FALSE(host.empty());
    }
    void TearDown() override { SetLogSink(nullptr); }
    kwtest::RecordingSink sink;
    std::wstring host;
};

TEST_F(HostNetworkInfoTest, InitCollectsAddressesThenHostNameAndTraces) {
    CHostNetworkInfo info;
    EXPECT_TRUE(info.m_wsaStarted);
    ASSERT_TRUE(info.Init());
    EXPECT_EQ(1, info.m_bInit);

    std::vector<std::wstring> addresses = SystemIpv4Addresses();
    ASSERT_EQ(addresses.size() + 1, info.m_names.size());
    for (size_t i = 0; i < addresses.size(); ++i) EXPECT_EQ(addresses[i], info.m_names[i]);
    EXPECT_EQ(0, _wcsicmp(host.c_str(), info.m_names.back().c_str())) << "host name last";

    std::vector<std::wstring> messages = sink.Messages();
    std::vector<std::wstring> expected;
    for (size_t i = 0; i < addresses.size(); ++i)
        expected.push_back(L"[ENT]CHostNetworkInfo::_getIpAddr: IP" + std::to_wstring(i) + L"=" + addresses[i] + L" ");
    expected.push_back(L"[ENT]CHostNetworkInfo::_getHostname: hostname=" + info.m_names.back());
    expected.push_back(L"CHostNetworkInfo::Init: m_bInit=1");
    EXPECT_EQ(expected, messages);
    ASSERT_FALSE(sink.Lines().empty());
    EXPECT_EQ(0u, sink.Lines().back().text.find(L"[kwRegAnalyze][INFO ][CHostNetworkInfo::Init] "));
}

TEST_F(HostNetworkInfoTest, SecondInitDoesNotCollectAgain) {
    CHostNetworkInfo info;
    ASSERT_TRUE(info.Init());
    size_t count = info.m_names.size();
    sink.Clear();
    EXPECT_TRUE(info.Init());
    EXPECT_EQ(count, info.m_names.size());
    EXPECT_EQ(std::vector<std::wstring>{L"CHostNetworkInfo::Init: m_bInit=1"}, sink.Messages());
}

struct LocalHostRow {
    const char* name;
    std::wstring (*text)(const std::wstring& host);  // built from the real host name
    int length;                                      // -1: the text's own length
    bool allowLocalhost;
    bool expected;
};

void PrintTo(const LocalHostRow& row, std::ostream* os) { *os << row.name; }

class IsLocalHostTest : public ::testing::TestWithParam<LocalHostRow> {};

TEST_P(IsLocalHostTest, ComparesTheFirstLengthCharacters) {
    const LocalHostRow& r = GetParam();
    std::wstring host = SystemHostName();
    ASSERT_FALSE(host.empty());
    std::wstring text = r.text(host);
    size_t length = r.length < 0 ? text.size() : static_cast<size_t>(r.length);
    CHostNetworkInfo info;
    EXPECT_EQ(r.expected, info.IsLocalHost(text.c_str(), length, r.allowLocalhost))
        << "text " << ::testing::PrintToString(text) << " length " << length;
}

std::wstring Same(const std::wstring& h) { return h; }
std::wstring UpperHost(const std::wstring& h) {
    std::wstring s = h;
    CharUpperBuffW(&s[0], static_cast<DWORD>(s.size()));
    return s;
}
std::wstring LowerHost(const std::wstring& h) {
    std::wstring s = h;
    CharLowerBuffW(&s[0], static_cast<DWORD>(s.size()));
    return s;
}
std::wstring HostWithShare(const std::wstring& h) { return h + L"\\C$\\x.exe"; }
std::wstring HostPlusX(const std::wstring& h) { return h + L"x"; }
std::wstring HostFirstChar(const std::wstring& h) { return h.substr(0, 1) + L"-not-this-machine"; }
std::wstring Localhost(const std::wstring&) { return L"localhost"; }
std::wstring LocalhostUpper(const std::wstring&) { return L"LocalHost"; }
std::wstring Loc(const std::wstring&) { return L"loc"; }
std::wstring LocalhostX(const std::wstring&) { return L"localhostx"; }
std::wstring Unknown(const std::wstring&) { return L"kw-no-such-host-0123"; }

INSTANTIATE_TEST_SUITE_P(
    Rows, IsLocalHostTest,
    ::testing::Values(
        LocalHostRow{"real host name", Same, -1, false, true},
        LocalHostRow{"real host name upper case", UpperHost, -1, false, true},
        LocalHostRow{"real host name lower case", LowerHost, -1, false, true},
        LocalHostRow{"host name plus one character", HostPlusX, -1, false, false},
        LocalHostRow{"first character only, length 1 (prefix rule)", HostFirstChar, 1, false, true},
        LocalHostRow{"first character then other text, full length", HostFirstChar, -1, true, false},
        LocalHostRow{"localhost allowed", Localhost, -1, true, true},
        LocalHostRow{"localhost not allowed", Localhost, -1, false, false},
        LocalHostRow{"localhost any case allowed", LocalhostUpper, -1, true, true},
        LocalHostRow{"prefix of localhost allowed", Loc, -1, true, true},
        LocalHostRow{"localhost plus one character", LocalhostX, -1, true, false},
        LocalHostRow{"localhost plus one, length 9", LocalhostX, 9, true, true},
        LocalHostRow{"unknown name", Unknown, -1, true, false},
        LocalHostRow{"length 0 names no machine", Same, 0, true, false}),
    kwtest::ByRowName());

TEST(IsLocalHost, NullNameAndEveryAddress) {
    CHostNetworkInfo info;
    EXPECT_FALSE(info.IsLocalHost(nullptr, 5, true));
    for (const std::wstring& address : SystemIpv4Addresses()) {
        SCOPED_TRACE(::testing::PrintToString(address));
        EXPECT_TRUE(info.IsLocalHost(address.c_str(), address.size(), false));
        std::wstring longer = address + L"9";
        EXPECT_FALSE(info.IsLocalHost(longer.c_str(), longer.size(), false));
    }
    EXPECT_FALSE(info.IsLocalHost(L"203.0.113.77", 12, false)) << "documentation address, never local";
}

// A host name taken from a path: only the host's own length is compared.
TEST(IsLocalHost, HostNameFollowedByPathComparesOnlyTheHost) {
    CHostNetworkInfo info;
    std::wstring host = SystemHostName();
    std::wstring text = HostWithShare(host);
    EXPECT_TRUE(info.IsLocalHost(text.c_str(), host.size(), false));
}

// ---------------------------------------------------------------------------
// UNC splitting and joining: plain strings.

struct SplitRow {
    const char* name;
    const wchar_t* path;
    bool expectedOk;
    const wchar_t* host;
    const wchar_t* share;
    const wchar_t* rest;
};

void PrintTo(const SplitRow& row, std::ostream* os) { *os << row.name; }

class SplitUncPathTest : public ::testing::TestWithParam<SplitRow> {};

TEST_P(SplitUncPathTest, Splits) {
    const SplitRow& r = GetParam();
    std::wstring host = L"h", share = L"s", rest = L"r";
    EXPECT_EQ(r.expectedOk, SplitUncPath(r.path, host, share, rest));
    EXPECT_EQ(std::wstring(r.host), host);
    EXPECT_EQ(std::wstring(r.share), share);
    EXPECT_EQ(std::wstring(r.rest), rest);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SplitUncPathTest,
    ::testing::Values(
        SplitRow{"host share and file", L"\\\\localhost\\c$\\x.exe", true, L"localhost", L"c$", L"\\x.exe"},
        SplitRow{"deep rest", L"\\\\srv\\share\\a\\b\\c.dll", true, L"srv", L"share", L"\\a\\b\\c.dll"},
        SplitRow{"share without rest", L"\\\\srv\\share", true, L"srv", L"share", L""},
        SplitRow{"share with trailing backslash", L"\\\\srv\\share\\", true, L"srv", L"share", L"\\"},
        SplitRow{"5 characters", L"\\\\a\\b", true, L"a", L"b", L""},
        SplitRow{"4 characters", L"\\\\a\\", false, L"", L"", L""},
        SplitRow{"device path", L"\\\\?\\C:\\x", false, L"", L"", L""},
        SplitRow{"local namespace pipe", L"\\\\.\\pipe\\x", false, L"", L"", L""},
        SplitRow{"one leading backslash", L"\\srv\\share\\x", false, L"", L"", L""},
        SplitRow{"drive path", L"C:\\share\\x.exe", false, L"", L"", L""},
        SplitRow{"no share", L"\\\\server", false, L"", L"", L""},
        SplitRow{"empty share", L"\\\\server\\\\x", false, L"", L"", L""},
        SplitRow{"empty host", L"\\\\\\share\\x", false, L"", L"", L""},
        SplitRow{"empty text", L"", false, L"", L"", L""}),
    kwtest::ByRowName());

TEST(JoinShareLocalPath, ExactlyOneSeparator) {
    struct Row {
        const char* name;
        const wchar_t* local;
        const wchar_t* rest;
        const wchar_t* expected;
    } rows[] = {
        {"drive root share", L"C:\\", L"\\x.exe", L"C:\\x.exe"},
        {"folder share", L"C:\\data", L"\\x.exe", L"C:\\data\\x.exe"},
        {"folder share with trailing backslash", L"C:\\data\\", L"\\a\\x.exe", L"C:\\data\\a\\x.exe"},
        {"no rest", L"C:\\data", L"", L"C:\\data"},
        {"rest is a lone backslash", L"C:\\", L"\\", L"C:\\"},
        {"rest without separator", L"C:\\data", L"x", L"C:\\data\\x"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(std::wstring(r.expected), JoinShareLocalPath(r.local, r.rest));
    }
}

// ---------------------------------------------------------------------------
// ToLocalPath

TEST_F(HostNetworkInfoTest, ToLocalPathLeavesForeignAndDevicePathsAlone) {
    CHostNetworkInfo info;
    struct Row {
        const char* name;
        std::wstring path;
    } rows[] = {
        {"device path", L"\\\\?\\C:\\x"},
        {"pipe", L"\\\\.\\pipe\\x"},
        {"4 characters", L"\\\\a\\"},
        {"drive path", L"C:\\Windows\\x.exe"},
        {"unknown host", L"\\\\kw-no-such-host-0123\\C$\\x.exe"},
        {"address never local", L"\\\\203.0.113.77\\C$\\x.exe"},
        {"local host without share", L"\\\\localhost"},
        {"empty host", L"\\\\\\C$\\x.exe"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        std::wstring out = L"stale";
        EXPECT_FALSE(info.ToLocalPath(r.path, out));
        EXPECT_TRUE(out.empty());
    }
}

TEST_F(HostNetworkInfoTest, ToLocalPathRefusesAShareTheSystemDoesNotHave) {
    CHostNetworkInfo info;
    std::wstring out = L"stale";
    EXPECT_FALSE(info.ToLocalPath(L"\\\\localhost\\kw-no-such-share-0123\\x.exe", out));
    EXPECT_TRUE(out.empty());
}

// \\localhost\C$\x.exe and \\<host name>\C$\x.exe become the share's local
// path plus the rest. The share table is read from the system first: Wine
// reports no shares at all (NetShareGetInfo answers NERR_NetNameNotFound), and
// then the rewrite is refused and the positive half of the test is skipped.
TEST_F(HostNetworkInfoTest, ToLocalPathRewritesLocalSharePaths) {
    NET_API_STATUS status = 0;
    const std::wstring sharePath = SystemSharePath(L"C$", &status);
    CHostNetworkInfo info;
    const std::wstring paths[] = {L"\\\\localhost\\C$\\x.exe", L"\\\\" + host + L"\\C$\\x.exe",
                                  L"\\\\" + UpperHost(host) + L"\\c$\\dir\\x.exe"};
    if (sharePath.empty()) {
        for (const std::wstring& p : paths) {
            std::wstring out = L"stale";
            EXPECT_FALSE(info.ToLocalPath(p, out)) << ::testing::PrintToString(p);
            EXPECT_TRUE(out.empty());
        }
        GTEST_SKIP() << "the system reports no share C$ (NetShareGetInfo level 502 answered " << status
                     << "); Wine has no shares, so the rewrite cannot be shown here";
    }
    std::wstring out;
    EXPECT_TRUE(info.ToLocalPath(paths[0], out));
    EXPECT_EQ(JoinShareLocalPath(sharePath, L"\\x.exe"), out);
    EXPECT_TRUE(info.ToLocalPath(paths[1], out));
    EXPECT_EQ(JoinShareLocalPath(sharePath, L"\\x.exe"), out);
    EXPECT_TRUE(info.ToLocalPath(paths[2], out));
    EXPECT_EQ(JoinShareLocalPath(sharePath, L"\\dir\\x.exe"), out);
}

// ---------------------------------------------------------------------------
// The process-wide instance: created once, even when first asked for by
// several threads at the same time.
KW_CHILD_TEST(HostNetworkInfoInstance, CreatedOnceUnderConcurrentFirstUse) {
    auto seen = kwtest::RaceFirstUse<CHostNetworkInfo*>(8, [] { return GetHostNetworkInfo(); });
    ASSERT_NE(nullptr, seen[0]);
    for (CHostNetworkInfo* p : seen) EXPECT_EQ(seen[0], p);
    EXPECT_EQ(seen[0], GetHostNetworkInfo());
    EXPECT_TRUE(GetHostNetworkInfo()->IsLocalHost(L"localhost", 9, true));
    EXPECT_EQ(1, GetHostNetworkInfo()->m_bInit);
}

}  // namespace
