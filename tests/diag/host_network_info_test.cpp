// Host names and UNC paths that point back to this machine.
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <lm.h>

#include "common/strutil.h"
#include "diag/host_network_info.h"
#include "support/child.h"
#include "support/fixtures.h"
#include "support/kit.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

#include <string>
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
        out.push_back(FormatW("%u.%u.%u.%u", b[0], b[1], b[2], b[3]));
    }
    return out;
}

class HostNetworkInfoTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(host.empty()); }
    kwtest::ScopedSink cap;
    kwtest::RecordingSink& sink = cap.sink;
    const std::wstring host = SystemHostName();
    CHostNetworkInfo info;
};

TEST_F(HostNetworkInfoTest, InitCollectsAddressesThenHostNameOnceAndTraces) {
    EXPECT_TRUE(info.m_wsaStarted);
    ASSERT_TRUE(info.Init());
    const std::vector<std::wstring> addresses = SystemIpv4Addresses();
    ASSERT_EQ(addresses.size() + 1, info.m_names.size());
    for (size_t i = 0; i < addresses.size(); ++i) EXPECT_EQ(addresses[i], info.m_names[i]);
    EXPECT_EQ(0, _wcsicmp(host.c_str(), info.m_names.back().c_str())) << "host name last";

    std::vector<std::wstring> expected;
    for (size_t i = 0; i < addresses.size(); ++i)
        expected.push_back(L"[ENT]CHostNetworkInfo::_getIpAddr: IP" + std::to_wstring(i) + L"=" + addresses[i] + L" ");
    expected.push_back(L"[ENT]CHostNetworkInfo::_getHostname: hostname=" + info.m_names.back());
    expected.push_back(L"CHostNetworkInfo::Init: m_bInit=1");
    EXPECT_EQ(expected, sink.Messages());

    // A second Init collects nothing again and only says it is done.
    sink.Clear();
    EXPECT_TRUE(info.Init());
    EXPECT_EQ(addresses.size() + 1, info.m_names.size());
    EXPECT_EQ(std::vector<std::wstring>{L"CHostNetworkInfo::Init: m_bInit=1"}, sink.Messages());
}

// The first `length` characters are compared, without regard to case.
// "{HOST}" stands for the real host name in upper case.
TEST_F(HostNetworkInfoTest, IsLocalHost) {
    struct {
        const char* name;
        const wchar_t* text;
        int length;  // -1: the text's own length
        bool allowLocalhost;
        bool expected;
    } rows[] = {
        {"host name, any case", L"{HOST}", -1, false, true},
        {"host name plus one character", L"{HOST}x", -1, false, false},
        {"first character only, length 1 (prefix rule)", L"{HOST}-not-this-machine", 1, false, true},
        {"localhost allowed", L"localhost", -1, true, true},
        {"localhost not allowed", L"localhost", -1, false, false},
        {"prefix of localhost allowed", L"loc", -1, true, true},
        {"localhost plus one character", L"localhostx", -1, true, false},
        {"unknown name", L"kw-no-such-host-0123", -1, true, false},
        {"documentation address, never local", L"203.0.113.77", -1, true, false},
        {"length 0 names no machine", L"{HOST}", 0, true, false},
    };
    for (const auto& r : rows) {
        std::wstring text = r.text;
        ReplaceAll(text, L"{HOST}", kwtest::Upper(host));
        const size_t length = r.length < 0 ? text.size() : static_cast<size_t>(r.length);
        EXPECT_EQ(r.expected, info.IsLocalHost(text.c_str(), length, r.allowLocalhost))
            << r.name << ": " << ::testing::PrintToString(text);
    }
    EXPECT_FALSE(info.IsLocalHost(nullptr, 5, true));
    for (const std::wstring& address : SystemIpv4Addresses()) {
        const std::wstring longer = address + L"9";
        EXPECT_TRUE(info.IsLocalHost(address.c_str(), address.size(), false)) << address;
        EXPECT_FALSE(info.IsLocalHost(longer.c_str(), longer.size(), false)) << longer;
    }
}

TEST(UncPath, SplitIntoHostShareAndRestAndJoinTheRest) {
    struct {
        const char* name;
        const wchar_t* path;
        bool ok;
        const wchar_t* expected;  // host|share|rest
    } rows[] = {
        {"host share and file", L"\\\\localhost\\c$\\x.exe", true, L"localhost|c$|\\x.exe"},
        {"share without rest", L"\\\\srv\\share", true, L"srv|share|"},
        {"share with trailing backslash", L"\\\\srv\\share\\", true, L"srv|share|\\"},
        {"5 characters", L"\\\\a\\b", true, L"a|b|"},
        {"4 characters", L"\\\\a\\", false, L"||"},
        {"device path", L"\\\\?\\C:\\x", false, L"||"},
        {"local namespace pipe", L"\\\\.\\pipe\\x", false, L"||"},
        {"one leading backslash", L"\\srv\\share\\x", false, L"||"},
        {"no share", L"\\\\server", false, L"||"},
        {"empty share", L"\\\\server\\\\x", false, L"||"},
        {"empty host", L"\\\\\\share\\x", false, L"||"},
    };
    for (const auto& r : rows) {
        std::wstring host = L"h", share = L"s", rest = L"r";
        EXPECT_EQ(r.ok, SplitUncPath(r.path, host, share, rest)) << r.name;
        EXPECT_EQ(std::wstring(r.expected), host + L"|" + share + L"|" + rest) << r.name;
    }
    // Joining a share's local path and the rest leaves exactly one separator.
    struct {
        const wchar_t* local;
        const wchar_t* rest;
        const wchar_t* expected;
    } joins[] = {
        {L"C:\\", L"\\x.exe", L"C:\\x.exe"},        // both have one
        {L"C:\\data", L"\\x.exe", L"C:\\data\\x.exe"},  // the rest has one
        {L"C:\\data", L"x", L"C:\\data\\x"},         // neither has one
        {L"C:\\data", L"", L"C:\\data"},             // no rest
        {L"C:\\", L"\\", L"C:\\"},                   // the rest is a lone backslash
    };
    for (const auto& r : joins) EXPECT_EQ(std::wstring(r.expected), JoinShareLocalPath(r.local, r.rest));
}

// \\localhost\C$\x.exe and \\<host name>\C$\x.exe become the share's local
// path plus the rest. Wine reports no shares at all (NetShareGetInfo answers
// NERR_NetNameNotFound): then the rewrite is refused and its half is skipped.
TEST_F(HostNetworkInfoTest, ToLocalPath) {
    for (const wchar_t* path : {L"\\\\?\\C:\\x", L"\\\\localhost", L"\\\\kw-no-such-host-0123\\C$\\x.exe",
                                L"\\\\localhost\\kw-no-such-share-0123\\x.exe"}) {
        std::wstring out = L"stale";
        EXPECT_FALSE(info.ToLocalPath(path, out)) << ::testing::PrintToString(std::wstring(path));
        EXPECT_TRUE(out.empty());
    }
    LPBYTE buf = nullptr;
    const NET_API_STATUS status = NetShareGetInfo(nullptr, const_cast<LMSTR>(L"C$"), 502, &buf);
    const std::wstring sharePath =
        status == NERR_Success && buf ? reinterpret_cast<SHARE_INFO_502*>(buf)->shi502_path : L"";
    if (buf) NetApiBufferFree(buf);
    for (const std::wstring& hostName : {std::wstring(L"localhost"), host}) {
        std::wstring out = L"stale";
        const std::wstring path = L"\\\\" + hostName + L"\\c$\\dir\\x.exe";
        EXPECT_EQ(!sharePath.empty(), info.ToLocalPath(path, out)) << ::testing::PrintToString(path);
        EXPECT_EQ(sharePath.empty() ? L"" : JoinShareLocalPath(sharePath, L"\\dir\\x.exe"), out);
    }
    if (sharePath.empty())
        GTEST_SKIP() << "the system reports no share C$ (NetShareGetInfo level 502 answered " << status
                     << "); Wine has no shares, so the rewrite cannot be shown here";
}

// The process-wide instance: created once, even when first asked for by
// several threads at the same time.
KW_CHILD_TEST(HostNetworkInfoInstance, CreatedOnceUnderConcurrentFirstUse) {
    auto seen = kwtest::RaceFirstUse<CHostNetworkInfo*>(8, [] { return GetHostNetworkInfo(); });
    ASSERT_NE(nullptr, seen[0]);
    for (CHostNetworkInfo* p : seen) EXPECT_EQ(seen[0], p);
    EXPECT_EQ(seen[0], GetHostNetworkInfo());
    EXPECT_TRUE(GetHostNetworkInfo()->IsLocalHost(L"localhost", 9, true));
}

}  // namespace
