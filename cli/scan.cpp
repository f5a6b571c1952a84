// The scan: walks the registry locations the rules name (each '*' of a
// sub-key pattern enumerated) and the start-up folders and drive roots, and
// sends each registration to the plug-in as the event the monitor would have
// reported for its creation.
#include "kwhost.h"

#include <shlobj.h>
#include <tlhelp32.h>
#include <sddl.h>

#include <algorithm>
#include <cwctype>
#include <memory>

namespace kwhost {

namespace {

// The registry is always read in the 64-bit view: rules for 32-bit
// registrations name Wow6432Node themselves, as the monitor's paths do.
constexpr REGSAM kView = KEY_WOW64_64KEY;
// A bound on what one pattern may expand to, so a scan always ends.
constexpr size_t kMaxKeysPerRule = 50000;

struct Key {
    HKEY h = nullptr;
    ~Key() {
        if (h) RegCloseKey(h);
    }
};

bool OpenKey(HKEY root, const std::wstring& path, Key& key) {
    return RegOpenKeyExW(root, path.c_str(), 0, KEY_READ | kView, &key.h) == ERROR_SUCCESS;
}

std::vector<std::wstring> SubkeyNames(HKEY root, const std::wstring& path) {
    std::vector<std::wstring> names;
    Key k;
    if (!OpenKey(root, path, k)) return names;
    wchar_t name[256];
    for (DWORD i = 0;; ++i) {
        DWORD cch = 256;
        LONG r = RegEnumKeyExW(k.h, i, name, &cch, nullptr, nullptr, nullptr, nullptr);
        if (r == ERROR_MORE_DATA) continue;
        if (r != ERROR_SUCCESS) break;
        names.emplace_back(name, cch);
    }
    return names;
}

struct Value {
    std::wstring name;
    DWORD type = 0;
    std::vector<uint8_t> data;
};

std::vector<Value> StringValues(HKEY root, const std::wstring& path) {
    std::vector<Value> values;
    Key k;
    if (!OpenKey(root, path, k)) return values;
    std::vector<wchar_t> name(16384);
    std::vector<uint8_t> data(65536);
    for (DWORD i = 0;; ++i) {
        DWORD cch = static_cast<DWORD>(name.size()), cb = static_cast<DWORD>(data.size()), type = 0;
        LONG r = RegEnumValueW(k.h, i, name.data(), &cch, nullptr, &type, data.data(), &cb);
        if (r == ERROR_MORE_DATA) continue;  // larger than any host event carries
        if (r != ERROR_SUCCESS) break;
        // Only string data can name a file; the plug-in refuses the rest.
        if (type != REG_SZ && type != REG_EXPAND_SZ && type != REG_MULTI_SZ && type != REG_LINK) continue;
        Value v;
        v.name.assign(name.data(), cch);
        v.type = type;
        v.data.assign(data.begin(), data.begin() + cb);
        values.push_back(std::move(v));
    }
    return values;
}

// '*' in a key name pattern stands for any run of characters; case ignored.
bool GlobMatch(const wchar_t* p, const wchar_t* s) {
    if (*p == 0) return *s == 0;
    if (*p == L'*') {
        for (;; ++s) {
            if (GlobMatch(p + 1, s)) return true;
            if (*s == 0) return false;
        }
    }
    return *s && towupper(*p) == towupper(*s) &&
           GlobMatch(p + 1, s + 1);
}

std::vector<std::wstring> SplitPath(const std::wstring& s) {
    std::vector<std::wstring> parts;
    size_t start = 0;
    while (start <= s.size()) {
        size_t bs = s.find(L'\\', start);
        if (bs == std::wstring::npos) bs = s.size();
        if (bs > start) parts.push_back(s.substr(start, bs - start));
        start = bs + 1;
    }
    return parts;
}

// Every existing key that the pattern names.
void ExpandPattern(HKEY root, const std::vector<std::wstring>& parts, size_t i, const std::wstring& prefix,
                   std::vector<std::wstring>& out) {
    if (out.size() >= kMaxKeysPerRule) return;
    if (i == parts.size()) {
        out.push_back(prefix);
        return;
    }
    const std::wstring& part = parts[i];
    if (part.find(L'*') == std::wstring::npos) {
        std::wstring next = prefix.empty() ? part : prefix + L"\\" + part;
        Key k;
        if (OpenKey(root, next, k)) ExpandPattern(root, parts, i + 1, next, out);
        return;
    }
    for (const std::wstring& name : SubkeyNames(root, prefix))
        if (GlobMatch(part.c_str(), name.c_str()))
            ExpandPattern(root, parts, i + 1, prefix.empty() ? name : prefix + L"\\" + name, out);
}

bool ReadsKeyNames(int fid) { return fid == 2 || fid == 8 || fid == 9 || fid == 10 || fid == 11 || fid == 12; }
bool ReadsValues(int fid) { return fid != 10 && fid != 11; }

std::wstring DataText(const Value& v) {
    std::wstring s(reinterpret_cast<const wchar_t*>(v.data.data()), v.data.size() / sizeof(wchar_t));
    if (v.type == REG_MULTI_SZ) {
        while (!s.empty() && s.back() == 0) s.pop_back();
        std::replace(s.begin(), s.end(), L'\0', L'|');
        return s;
    }
    size_t nul = s.find(L'\0');
    return nul == std::wstring::npos ? s : s.substr(0, nul);
}

}  // namespace

std::wstring SidOfProcess(HANDLE process) {
    HANDLE tok = nullptr;
    std::wstring out;
    if (!OpenProcessToken(process, TOKEN_QUERY, &tok)) return out;
    BYTE buf[512];
    DWORD cb = 0;
    if (GetTokenInformation(tok, TokenUser, buf, sizeof(buf), &cb)) {
        LPWSTR s = nullptr;
        if (ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buf)->User.Sid, &s)) {
            out = s;
            LocalFree(s);
        }
    }
    CloseHandle(tok);
    return out;
}

std::wstring CurrentControlSetName() {
    DWORD current = 0, cb = sizeof(current);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\Select", L"Current", RRF_RT_REG_DWORD, nullptr, &current, &cb) !=
        ERROR_SUCCESS)
        return L"ControlSet001";
    wchar_t buf[32];
    swprintf(buf, 32, L"ControlSet%03lu", current);
    return buf;
}

uint32_t Scanner::ProcessFor(const std::wstring& keyPath, std::wstring& identity) {
    const uint32_t own = GetCurrentProcessId();
    const std::wstring users = L"HKEY_USERS\\";
    if (keyPath.compare(0, users.size(), users) != 0) {
        identity = L"this process (pid " + std::to_wstring(own) + L")";
        return own;
    }
    std::wstring sid = keyPath.substr(users.size());
    sid = sid.substr(0, sid.find(L'\\'));
    const std::wstring classes = L"_Classes";
    if (sid.size() > classes.size() && _wcsicmp(sid.c_str() + sid.size() - classes.size(), classes.c_str()) == 0)
        sid.resize(sid.size() - classes.size());
    if (!m_pidMapBuilt) {
        m_pidMapBuilt = true;
        HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
        if (snap != INVALID_HANDLE_VALUE) {
            PROCESSENTRY32W pe = {};
            pe.dwSize = sizeof(pe);
            for (BOOL ok = Process32FirstW(snap, &pe); ok; ok = Process32NextW(snap, &pe)) {
                HANDLE p = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, pe.th32ProcessID);
                if (!p) continue;
                std::wstring s = SidOfProcess(p);
                CloseHandle(p);
                if (!s.empty() && !m_pidBySid.count(s)) m_pidBySid[s] = pe.th32ProcessID;
            }
            CloseHandle(snap);
        }
        // This process answers for its own user.
        m_pidBySid[SidOfProcess(GetCurrentProcess())] = own;
    }
    auto it = m_pidBySid.find(sid);
    if (it != m_pidBySid.end()) {
        identity = sid + L" (pid " + std::to_wstring(it->second) + L")";
        return it->second;
    }
    identity = L"this process (pid " + std::to_wstring(own) + L"; no process of " + sid + L")";
    return own;
}

std::vector<std::wstring> Scanner::PostRegistry(uint32_t op, const std::wstring& keyPath,
                                                const std::wstring* valueName, uint32_t type,
                                                const std::vector<uint8_t>& data, uint32_t pid, int parseId) {
    std::unique_ptr<hostsim::Event> ev(hostsim::Event::Registry(
        op, keyPath, valueName, type, data.empty() ? nullptr : data.data(), static_cast<uint32_t>(data.size()), pid));
    return m_host.PostRegistry(*ev, (2u << 16) | static_cast<uint32_t>(parseId & 0xFFFF));
}

std::vector<std::wstring> Scanner::PostFile(uint32_t op, const std::wstring& path, const std::wstring& rename) {
    std::unique_ptr<hostsim::Event> ev(hostsim::Event::File(op, path, rename));
    hostsim::Target target;
    hostsim::RuleEngine::SetThreadTarget(&target);
    m_host.Plugin()->FirstProcessEvent(ev.get(), &m_host.Engine());
    hostsim::RuleEngine::SetThreadTarget(nullptr);
    return target.Paths();
}

void Scanner::WalkRule(const ScanRule& rule, ScanStats& stats, void (*sink)(const Row&, void*), void* ctx) {
    HKEY root = rule.root == 0x80000002u ? HKEY_LOCAL_MACHINE : rule.root == 0x80000003u ? HKEY_USERS : nullptr;
    if (!root) {
        ++stats.rulesSkipped;
        return;
    }
    const std::wstring rootName = root == HKEY_LOCAL_MACHINE ? L"HKEY_LOCAL_MACHINE\\" : L"HKEY_USERS\\";
    const std::wstring ccs = CurrentControlSetName();
    std::vector<std::wstring> locations;
    ExpandPattern(root, SplitPath(rule.subkey), 0, std::wstring(), locations);

    for (const std::wstring& location : locations) {
        // Keys whose creation or values are the registrations: the location
        // itself, or for a rule that asks for a key below its own, the keys
        // one and two levels below it.
        std::vector<std::pair<std::wstring, int>> keys;  // path, depth below the location
        if (rule.checkId == 2) {
            for (const std::wstring& a : SubkeyNames(root, location)) {
                keys.emplace_back(location + L"\\" + a, 1);
                for (const std::wstring& b : SubkeyNames(root, location + L"\\" + a))
                    keys.emplace_back(location + L"\\" + a + L"\\" + b, 2);
            }
        } else {
            keys.emplace_back(location, 0);
        }
        for (const auto& kd : keys) {
            ++stats.locations;
            if (m_progress && stats.locations - m_lastProgress >= 500) {
                m_lastProgress = stats.locations;
                fprintf(stderr, "kwhost: %u keys read, %u registrations, %u targets\n",
                        static_cast<unsigned>(stats.locations), static_cast<unsigned>(stats.registrations),
                        static_cast<unsigned>(stats.targets));
            }
            // The monitor reports the concrete control set.
            std::wstring eventKey = kd.first;
            const std::wstring token = L"CurrentControlSet";
            size_t at = eventKey.find(token);
            if (at != std::wstring::npos) eventKey.replace(at, token.size(), ccs);
            eventKey = rootName + eventKey;
            std::wstring identity;
            const uint32_t pid = ProcessFor(eventKey, identity);
            std::vector<Value> values = ReadsValues(rule.functionId) ? StringValues(root, kd.first)
                                                                      : std::vector<Value>();

            auto emit = [&](const std::vector<std::wstring>& targets, const std::wstring& valueLabel,
                            const std::wstring& data) {
                ++stats.registrations;
                for (const std::wstring& t : targets) {
                    Row row;
                    row.location = eventKey;
                    row.value = valueLabel;
                    row.parseId = rule.parseId;
                    row.functionId = rule.functionId;
                    row.data = data;
                    row.target = t;
                    row.identity = identity;
                    DescribeTarget(row);
                    ++stats.targets;
                    if (!row.exists) ++stats.missing;
                    sink(row, ctx);
                }
            };

            bool hasImagePath = false;
            for (const Value& v : values)
                if (_wcsicmp(v.name.c_str(), L"ImagePath") == 0) hasImagePath = true;
            // A key that is itself the registration (a CLSID, a service or
            // driver without an image path, a component): its creation.
            if (ReadsKeyNames(rule.functionId) && (kd.second == 1 || rule.checkId != 2) &&
                !(rule.functionId == 12 && hasImagePath)) {
                emit(PostRegistry(1, eventKey, nullptr, 0, {}, pid, rule.parseId), L"(key)", std::wstring());
            }
            for (const Value& v : values) {
                if (rule.hasValueName) {
                    const bool wantsDefault = _wcsicmp(rule.valueName.c_str(), L"default_null") == 0;
                    if (wantsDefault ? !v.name.empty() : _wcsicmp(rule.valueName.c_str(), v.name.c_str()) != 0)
                        continue;
                }
                // Analyzers that read a key's default value read only that one.
                if ((rule.functionId == 8 || rule.functionId == 9) && !v.name.empty()) continue;
                emit(PostRegistry(6, eventKey, &v.name, v.type, v.data, pid, rule.parseId),
                     v.name.empty() ? L"(default)" : v.name, DataText(v));
            }
        }
    }
}

void Scanner::ScanFile(const std::wstring& path, ScanStats& stats, void (*sink)(const Row&, void*), void* ctx) {
    ++stats.locations;
    const wchar_t* dot = wcsrchr(path.c_str(), L'.');
    if (!dot || (_wcsicmp(dot, L".lnk") != 0 && _wcsicmp(dot, L".inf") != 0)) return;
    ++stats.registrations;
    const int fid = _wcsicmp(dot, L".inf") == 0 ? 16 : 6;
    for (const std::wstring& t : PostFile(1, path, std::wstring())) {
        Row row;
        row.location = path;
        row.functionId = fid;
        row.target = t;
        row.identity = L"this process (pid " + std::to_wstring(GetCurrentProcessId()) + L")";
        DescribeTarget(row);
        ++stats.targets;
        if (!row.exists) ++stats.missing;
        sink(row, ctx);
    }
}

void Scanner::ScanFolder(const std::wstring& folder, ScanStats& stats, void (*sink)(const Row&, void*), void* ctx) {
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileW((folder + L"\\*").c_str(), &fd);
    if (h == INVALID_HANDLE_VALUE) return;
    std::vector<std::wstring> files;
    do {
        if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) files.push_back(folder + L"\\" + fd.cFileName);
    } while (FindNextFileW(h, &fd));
    FindClose(h);
    std::sort(files.begin(), files.end());
    for (const auto& f : files) ScanFile(f, stats, sink, ctx);
}

std::vector<std::wstring> Scanner::StartupFolders() {
    std::vector<std::wstring> out;
    for (int csidl : {CSIDL_COMMON_STARTUP, CSIDL_STARTUP}) {
        wchar_t buf[MAX_PATH] = {0};
        if (SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, buf) == S_OK && buf[0]) out.push_back(buf);
    }
    return out;
}

std::vector<std::wstring> Scanner::DriveRoots() {
    std::vector<std::wstring> out;
    wchar_t buf[512] = {0};
    DWORD n = GetLogicalDriveStringsW(511, buf);
    for (const wchar_t* p = buf; n && p < buf + n && *p; p += wcslen(p) + 1) {
        UINT type = GetDriveTypeW(p);
        if (type == DRIVE_FIXED || type == DRIVE_REMOVABLE) out.push_back(std::wstring(p, 2));  // "C:"
    }
    return out;
}

void Scanner::ScanRules(const std::vector<size_t>& ruleIndexes, ScanStats& stats, void (*sink)(const Row&, void*),
                        void* ctx) {
    for (size_t i : ruleIndexes) WalkRule(m_rules[i], stats, sink, ctx);
}

ScanStats Scanner::Run(const ScanOptions& options, void (*sink)(const Row&, void*), void* ctx) {
    ScanStats stats;
    m_progress = options.progress;
    for (const ScanRule& rule : m_rules) WalkRule(rule, stats, sink, ctx);
    if (options.files) {
        for (const std::wstring& folder : StartupFolders()) ScanFolder(folder, stats, sink, ctx);
        // The files at each drive's root (not below it): its autorun file and
        // any other ".inf" or ".lnk" there.
        for (const std::wstring& drive : DriveRoots()) ScanFolder(drive, stats, sink, ctx);
    }
    return stats;
}

}  // namespace kwhost
