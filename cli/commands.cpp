// The scan, replay and watch commands.
#include "kwhost.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <fstream>
#include <memory>
#include <set>

namespace kwhost {

namespace {

struct Options {
    std::wstring rules;
    Format format = Format::Table;
    bool allUsers = false;
    bool files = true;
    bool quiet = false;
    bool trace = false;
    double seconds = 0;  // watch: 0 runs until Ctrl+C
    std::vector<std::wstring> positional;
};

// Parses the options a command accepts; false (with a message) for anything else.
bool ParseOptions(int argc, wchar_t** argv, const std::set<std::wstring>& accepted, Options& o) {
    for (int i = 2; i < argc; ++i) {
        std::wstring a = argv[i];
        auto value = [&](std::wstring& out) {
            if (i + 1 >= argc) {
                fprintf(stderr, "kwhost %s: %s needs a value\n", Utf8(argv[1]).c_str(), Utf8(a).c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        if (a.size() > 1 && a[0] == L'-' && !accepted.count(a)) {
            fprintf(stderr, "kwhost %s: unknown option %s (see kwhost --help)\n", Utf8(argv[1]).c_str(),
                    Utf8(a).c_str());
            return false;
        }
        std::wstring v;
        if (a == L"--rules") {
            if (!value(o.rules)) return false;
        } else if (a == L"--format") {
            if (!value(v)) return false;
            if (v == L"table") o.format = Format::Table;
            else if (v == L"csv") o.format = Format::Csv;
            else if (v == L"json") o.format = Format::Json;
            else {
                fprintf(stderr, "kwhost %s: --format takes table, csv or json\n", Utf8(argv[1]).c_str());
                return false;
            }
        } else if (a == L"--for") {
            if (!value(v)) return false;
            wchar_t* end = nullptr;
            o.seconds = wcstod(v.c_str(), &end);
            if (!end || *end || o.seconds <= 0) {
                fprintf(stderr, "kwhost %s: --for takes a positive number of seconds\n", Utf8(argv[1]).c_str());
                return false;
            }
        } else if (a == L"--all-users") {
            o.allUsers = true;
        } else if (a == L"--no-files") {
            o.files = false;
        } else if (a == L"--quiet") {
            o.quiet = true;
        } else if (a == L"--trace") {
            o.trace = true;
        } else {
            o.positional.push_back(a);
        }
    }
    return true;
}

bool LoadRules(const Options& o, std::string& text, std::vector<ScanRule>& rules) {
    std::string error;
    if (!LoadRuleFile(o.rules.empty() ? DefaultRulePath() : o.rules, text, rules, error)) {
        fprintf(stderr, "kwhost: %s\n", error.c_str());
        return false;
    }
    return true;
}

// What every command starts with: its options, its rules, the plug-in
// initialised with them. Returns 0 when ready, else the exit code.
struct Session {
    Options o;
    std::string text;
    std::vector<ScanRule> rules;
    hostsim::PluginHost host;

    int Open(int argc, wchar_t** argv, const std::set<std::wstring>& accepted, size_t positionals,
             const char* positionalsMessage) {
        if (!ParseOptions(argc, argv, accepted, o)) return 2;
        if (o.positional.size() != positionals) {
            fprintf(stderr, "kwhost %s: %s\n", Utf8(argv[1]).c_str(), positionalsMessage);
            return 2;
        }
        if (!LoadRules(o, text, rules)) return 2;
        if (!StartPlugin(host, text)) return 1;
        host.Engine().SetRecording(o.trace);
        return 0;
    }
    ~Session() {
        if (host.Plugin()) {
            host.Plugin()->UnInit();
            host.Release();
        }
    }
};

void ToReporter(const Row& row, void* ctx) { static_cast<Reporter*>(ctx)->Add(row); }

bool EnablePrivilege(const wchar_t* name) {
    HANDLE tok = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &tok)) return false;
    TOKEN_PRIVILEGES tp = {};
    tp.PrivilegeCount = 1;
    tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    bool ok = LookupPrivilegeValueW(nullptr, name, &tp.Privileges[0].Luid) &&
              AdjustTokenPrivileges(tok, FALSE, &tp, sizeof(tp), nullptr, nullptr) &&
              GetLastError() == ERROR_SUCCESS;
    CloseHandle(tok);
    return ok;
}

// The hives of user profiles that are not loaded, loaded under HKEY_USERS for
// the scan and unloaded when it ends.
class ProfileHives {
public:
    void LoadAll() {
        EnablePrivilege(L"SeRestorePrivilege");
        EnablePrivilege(L"SeBackupPrivilege");
        const wchar_t* list = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
        HKEY h = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, list, 0, KEY_READ | KEY_WOW64_64KEY, &h) != ERROR_SUCCESS) return;
        wchar_t sid[256];
        for (DWORD i = 0;; ++i) {
            DWORD cch = 256;
            if (RegEnumKeyExW(h, i, sid, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
            HKEY loaded = nullptr;
            if (RegOpenKeyExW(HKEY_USERS, sid, 0, KEY_READ, &loaded) == ERROR_SUCCESS) {
                RegCloseKey(loaded);
                continue;
            }
            wchar_t dir[MAX_PATH] = {0}, expanded[MAX_PATH] = {0};
            DWORD cb = sizeof(dir) - sizeof(wchar_t);
            if (RegGetValueW(h, sid, L"ProfileImagePath", RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND,
                             nullptr, dir, &cb) != ERROR_SUCCESS)
                continue;
            ExpandEnvironmentStringsW(dir, expanded, MAX_PATH);
            std::wstring hive = std::wstring(expanded) + L"\\NTUSER.DAT";
            if (RegLoadKeyW(HKEY_USERS, sid, hive.c_str()) == ERROR_SUCCESS) m_loaded.push_back(sid);
        }
        RegCloseKey(h);
    }
    ~ProfileHives() {
        for (const auto& sid : m_loaded) RegUnLoadKeyW(HKEY_USERS, sid.c_str());
    }
    size_t Count() const { return m_loaded.size(); }

private:
    std::vector<std::wstring> m_loaded;
};

}  // namespace

int CmdScan(int argc, wchar_t** argv) {
    Session session;
    if (int rc = session.Open(argc, argv, {L"--rules", L"--format", L"--all-users", L"--no-files", L"--quiet"}, 0,
                              "takes no argument besides its options"))
        return rc;
    const Options& o = session.o;
    ProfileHives hives;
    if (o.allUsers) hives.LoadAll();

    Reporter out(o.format, stdout);
    Scanner scanner(session.host, session.rules);
    ScanOptions so;
    so.progress = !o.quiet;
    so.files = o.files;
    const DWORD start = GetTickCount();
    ScanStats st = scanner.Run(so, ToReporter, &out);
    out.Flush();
    if (!o.quiet) {
        fprintf(stderr,
                "kwhost: %u locations read, %u registrations found, %u targets, %u missing files; %u rules without "
                "a root key skipped%s; %.1f s\n",
                static_cast<unsigned>(st.locations), static_cast<unsigned>(st.registrations),
                static_cast<unsigned>(st.targets), static_cast<unsigned>(st.missing),
                static_cast<unsigned>(st.rulesSkipped),
                o.allUsers ? (", " + std::to_string(hives.Count()) + " profile hives loaded for the scan").c_str()
                           : "",
                (GetTickCount() - start) / 1000.0);
    }
    return 0;
}

namespace {

uint32_t OperationCode(const rapidjson::Value& v, bool file, std::string& error) {
    if (v.IsUint()) return v.GetUint();
    if (!v.IsString()) {
        error = "\"op\" must be a number or a name";
        return 0;
    }
    std::string s = v.GetString();
    static const struct {
        const char* name;
        uint32_t reg, file;
    } kOps[] = {{"create", 1, 0}, {"write", 3, 1}, {"delete", 4, 0},       {"rename", 5, 2},
                {"set", 6, 0},    {"delete-value", 7, 0}};
    for (const auto& op : kOps)
        if (s == op.name && (file ? op.file : op.reg)) return file ? op.file : op.reg;
    error = "unknown operation \"" + s + "\"";
    return 0;
}

uint32_t ValueType(const rapidjson::Value& v) {
    if (v.IsUint()) return v.GetUint();
    if (!v.IsString()) return REG_SZ;
    std::string s = v.GetString();
    if (s == "REG_EXPAND_SZ") return REG_EXPAND_SZ;
    if (s == "REG_MULTI_SZ") return REG_MULTI_SZ;
    if (s == "REG_LINK") return REG_LINK;
    if (s == "REG_DWORD") return REG_DWORD;
    if (s == "REG_BINARY") return REG_BINARY;
    return REG_SZ;
}

// One replayed event. False with a reason for a line that is not one.
bool ReplayOne(Scanner& scanner, hostsim::PluginHost& host, const std::string& line, const Options& o,
               size_t lineNo, std::string& error) {
    rapidjson::Document d;
    d.Parse(line.c_str(), line.size());
    if (d.HasParseError()) {
        error = std::string("not JSON: ") + rapidjson::GetParseError_En(d.GetParseError());
        return false;
    }
    if (!d.IsObject()) {
        error = "not a JSON object";
        return false;
    }
    auto text = [&](const char* k) {
        auto it = d.FindMember(k);
        return it != d.MemberEnd() && it->value.IsString()
                   ? Wide(std::string(it->value.GetString(), it->value.GetStringLength()))
                   : std::wstring();
    };
    const bool file = d.HasMember("path");
    const size_t before = host.Engine().LineCount();
    std::vector<std::wstring> targets;
    std::wstring what;
    if (file) {
        uint32_t op = d.HasMember("op") ? OperationCode(d["op"], true, error) : 1;
        if (!op) return false;
        targets = scanner.PostFile(op, text("path"), text("rename"));
        what = L"file " + text("path");
    } else {
        if (!d.HasMember("key") || !d["key"].IsString()) {
            error = "no \"key\" (registry event) or \"path\" (file event)";
            return false;
        }
        if (!d.HasMember("parseId") || !d["parseId"].IsUint()) {
            error = "no \"parseId\"";
            return false;
        }
        uint32_t op = d.HasMember("op") ? OperationCode(d["op"], false, error) : 6;
        if (!op) return false;
        const uint32_t type = d.HasMember("type") ? ValueType(d["type"]) : (op == 6 ? REG_SZ : 0);
        std::vector<uint8_t> data;
        if (d.HasMember("data")) {
            std::wstring w;
            const auto& dv = d["data"];
            if (dv.IsString()) {
                w = Wide(std::string(dv.GetString(), dv.GetStringLength()));
                w.push_back(L'\0');
            } else if (dv.IsArray()) {
                for (const auto& s : dv.GetArray())
                    if (s.IsString()) {
                        w += Wide(std::string(s.GetString(), s.GetStringLength()));
                        w.push_back(L'\0');
                    }
                w.push_back(L'\0');
            } else {
                error = "\"data\" must be a string or an array of strings";
                return false;
            }
            const uint8_t* p = reinterpret_cast<const uint8_t*>(w.data());
            data.assign(p, p + w.size() * sizeof(wchar_t));
        }
        const std::wstring key = text("key");
        const std::wstring name = text("value");
        const bool hasName = d.HasMember("value") || op == 6;
        std::wstring identity;
        uint32_t pid = d.HasMember("pid") && d["pid"].IsUint() ? d["pid"].GetUint() : scanner.ProcessFor(key, identity);
        targets = scanner.PostRegistry(op, key, hasName ? &name : nullptr, type, data, pid,
                                       static_cast<int>(d["parseId"].GetUint()));
        what = key + (hasName ? L" [" + (name.empty() ? std::wstring(L"(default)") : name) + L"]" : L"");
    }
    printf("event %u (line %u): %s\n", static_cast<unsigned>(lineNo), static_cast<unsigned>(lineNo),
           Utf8(what).c_str());
    if (targets.empty()) printf("  (no target)\n");
    for (const auto& t : targets) printf("  -> %s\n", Utf8(t).c_str());
    if (o.trace) {
        auto lines = host.Engine().Lines();
        for (size_t i = before; i < lines.size(); ++i)
            printf("     %s %s\n", lines[i].level == 31 ? "ERROR" : "INFO ", Utf8(lines[i].text).c_str());
    }
    return true;
}

}  // namespace

int CmdReplay(int argc, wchar_t** argv) {
    Session session;
    if (int rc = session.Open(argc, argv, {L"--rules", L"--trace"}, 1,
                              "give one events file (one JSON object per line)"))
        return rc;
    const Options& o = session.o;
    hostsim::PluginHost& host = session.host;
    std::ifstream in(o.positional[0].c_str(), std::ios::binary);
    if (!in) {
        fprintf(stderr, "kwhost replay: cannot read %s\n", Utf8(o.positional[0]).c_str());
        return 2;
    }
    Scanner scanner(host, session.rules);
    std::string line;
    size_t lineNo = 0, events = 0, skipped = 0;
    while (std::getline(in, line)) {
        ++lineNo;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        std::string error;
        if (ReplayOne(scanner, host, line, o, lineNo, error)) {
            ++events;
        } else {
            ++skipped;
            fprintf(stderr, "kwhost replay: line %u skipped: %s\n", static_cast<unsigned>(lineNo), error.c_str());
        }
    }
    fflush(stdout);
    fprintf(stderr, "kwhost replay: %u events replayed, %u lines skipped\n", static_cast<unsigned>(events),
            static_cast<unsigned>(skipped));
    return 0;
}

namespace {

HANDLE g_stop = nullptr;

BOOL WINAPI OnCtrl(DWORD) {
    if (g_stop) SetEvent(g_stop);
    return TRUE;
}

std::wstring RowKey(const Row& r) { return r.location + L"|" + r.value + L"|" + r.target; }

struct WatchState {
    std::set<std::wstring> seen;
    Reporter* out;
    bool initial;
};

void WatchSink(const Row& row, void* ctx) {
    auto* st = static_cast<WatchState*>(ctx);
    if (st->seen.insert(RowKey(row)).second && !st->initial) st->out->Add(row);
}

// The part of a pattern before its first wildcard key name.
std::wstring FixedPrefix(const std::wstring& pattern) {
    size_t star = pattern.find(L'*');
    if (star == std::wstring::npos) return pattern;
    size_t bs = pattern.rfind(L'\\', star);
    return bs == std::wstring::npos ? std::wstring() : pattern.substr(0, bs);
}

}  // namespace

int CmdWatch(int argc, wchar_t** argv) {
    Session session;
    if (int rc = session.Open(argc, argv, {L"--rules", L"--for", L"--format"}, 0,
                              "takes no argument besides its options"))
        return rc;
    const Options& o = session.o;
    const std::vector<ScanRule>& rules = session.rules;
    hostsim::PluginHost& host = session.host;

    // One notification per key that some rule's fixed prefix names (the
    // deepest existing key on the way), one per start-up folder.
    struct Watch {
        HKEY key = nullptr;
        HANDLE event = nullptr;
        std::vector<size_t> rules;
        std::wstring folder;
    };
    std::vector<Watch> watches;
    std::map<std::wstring, size_t> byKey;
    for (size_t i = 0; i < rules.size(); ++i) {
        HKEY root = rules[i].root == 0x80000002u ? HKEY_LOCAL_MACHINE : rules[i].root == 0x80000003u ? HKEY_USERS : nullptr;
        if (!root) continue;
        std::wstring prefix = FixedPrefix(rules[i].subkey);
        HKEY h = nullptr;
        for (;;) {
            if (RegOpenKeyExW(root, prefix.empty() ? nullptr : prefix.c_str(), 0, KEY_NOTIFY | KEY_WOW64_64KEY,
                              &h) == ERROR_SUCCESS)
                break;
            h = nullptr;
            if (prefix.empty()) break;
            size_t bs = prefix.rfind(L'\\');
            prefix = bs == std::wstring::npos ? std::wstring() : prefix.substr(0, bs);
        }
        if (!h) continue;
        std::wstring id = (root == HKEY_LOCAL_MACHINE ? L"M\\" : L"U\\") + prefix;
        auto it = byKey.find(id);
        if (it != byKey.end()) {
            RegCloseKey(h);
            watches[it->second].rules.push_back(i);
            continue;
        }
        Watch w;
        w.key = h;
        w.event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        w.rules.push_back(i);
        byKey[id] = watches.size();
        watches.push_back(w);
    }
    for (const std::wstring& folder : Scanner::StartupFolders()) {
        HANDLE n = FindFirstChangeNotificationW(folder.c_str(), FALSE,
                                                FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE);
        if (n == INVALID_HANDLE_VALUE) continue;
        Watch w;
        w.event = n;
        w.folder = folder;
        watches.push_back(w);
    }
    // WaitForMultipleObjects takes 64 handles, one of them the stop event.
    if (watches.size() > MAXIMUM_WAIT_OBJECTS - 1) watches.resize(MAXIMUM_WAIT_OBJECTS - 1);
    for (Watch& w : watches)
        if (w.key)
            RegNotifyChangeKeyValue(w.key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, w.event, TRUE);

    Reporter out(o.format, stdout);
    Scanner scanner(host, rules);
    WatchState state{{}, &out, true};
    ScanOptions so;
    so.progress = false;
    scanner.Run(so, WatchSink, &state);
    state.initial = false;

    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnCtrl, TRUE);
    std::vector<HANDLE> handles;
    for (const Watch& w : watches) handles.push_back(w.event);
    handles.push_back(g_stop);
    fprintf(stderr, "kwhost watch: watching %u registry keys and %u folders; %u registrations known\n",
            static_cast<unsigned>(byKey.size()), static_cast<unsigned>(watches.size() - byKey.size()),
            static_cast<unsigned>(state.seen.size()));
    fflush(stderr);
    const ULONGLONG deadline = o.seconds > 0 ? GetTickCount64() + static_cast<ULONGLONG>(o.seconds * 1000) : 0;
    for (;;) {
        DWORD wait = INFINITE;
        if (deadline) {
            ULONGLONG now = GetTickCount64();
            if (now >= deadline) break;
            wait = static_cast<DWORD>(deadline - now);
        }
        DWORD r = WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, wait);
        if (r == WAIT_TIMEOUT || r == WAIT_OBJECT_0 + handles.size() - 1 || r == WAIT_FAILED) break;
        Watch& w = watches[r - WAIT_OBJECT_0];
        // Let a burst of writes settle before rescanning.
        Sleep(100);
        ScanStats st;
        if (w.key) {
            RegNotifyChangeKeyValue(w.key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, w.event, TRUE);
            scanner.ScanRules(w.rules, st, WatchSink, &state);
        } else {
            FindNextChangeNotification(w.event);
            scanner.ScanFolder(w.folder, st, WatchSink, &state);
        }
        out.Flush();
    }
    out.Flush();
    for (Watch& w : watches) {
        if (w.key) {
            RegCloseKey(w.key);
            CloseHandle(w.event);
        } else {
            FindCloseChangeNotification(w.event);
        }
    }
    CloseHandle(g_stop);
    fprintf(stderr, "kwhost watch: stopped\n");
    return 0;
}

}  // namespace kwhost
