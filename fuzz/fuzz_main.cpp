// Fuzz driver. Reaches the plug-in only through the DLL and the host
// simulator, with fixed seeds and a bounded number of inputs:
//   kwfuzz [--events N] [--rule-children N] [--seed S]
// Events: mutated registry requests (key paths, value names, data of every
// type, command lines naming planted files, strings placed unterminated at
// the end of the request) go to PostProcessEvent, file requests to
// FirstProcessEvent. Rule texts: each child process (kwfuzz --rule-child S)
// gives Init mutated rule texts until one is loaded, then sends events under
// those rules. Checked: no crash or hang, the process heap validates after
// every batch, and every target is a planted file or names a file that the
// input's text names. Exit code 0 when nothing was found.
#include "host_sim.h"

#include <windows.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace hostsim;

namespace {

struct Rng {
    uint32_t s;
    uint32_t Next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
    uint32_t Below(uint32_t n) { return n ? Next() % n : 0; }
    bool OneIn(uint32_t n) { return Below(n) == 0; }
};

std::wstring Upper(std::wstring s) {
    CharUpperBuffW(&s[0], static_cast<DWORD>(s.size()));
    return s;
}

// ---- Planted files, registry values, rules ----

struct World {
    std::wstring dir;
    std::vector<std::wstring> files;  // full paths
    std::wstring regKey;              // below HKLM, 64-bit view
};

World g_world;
volatile LONG g_progress = 0;
volatile LONG g_inputNo = 0;
uint32_t g_seed = 1;

const char kRules[] = R"({"RegParseConfig":[
 {"ParseID":1,"FunctionID":1,"Parameter1":",;"},
 {"ParseID":5,"FunctionID":5},
 {"ParseID":14,"FunctionID":14},
 {"ParseID":19,"FunctionID":19},
 {"ParseID":20,"FunctionID":20},
 {"ParseID":7,"FunctionID":5,"CheckID":2,"RegRootkey":2147483651,"RegSubkey":"*\\Software\\kwfuzz\\*"},
 {"ParseID":8,"FunctionID":5,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SOFTWARE\\kwfuzz*","RegValueName":"vn"}
]})";
const uint32_t kRuleIds[] = {1, 5, 14, 19, 20, 7, 8};

void Plant() {
    wchar_t tmp[MAX_PATH];
    GetTempPathW(MAX_PATH, tmp);
    g_world.dir = std::wstring(tmp) + L"kwfuzz-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(g_world.dir.c_str(), nullptr);
    CreateDirectoryW((g_world.dir + L"\\b b").c_str(), nullptr);
    for (const wchar_t* name : {L"app.exe", L"b b\\tool.exe", L"lib.dll", L"run.bat", L"x.y.exe", L"setup.inf"}) {
        std::wstring path = g_world.dir + L"\\" + name;
        HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            const std::string content = "[DefaultInstall]\r\nRunPostSetupCommands=app.exe\r\n";
            DWORD cb = 0;
            WriteFile(h, content.data(), static_cast<DWORD>(content.size()), &cb, nullptr);
            CloseHandle(h);
        }
        g_world.files.push_back(path);
    }
    // Previous values that FunctionIDs 1 and 14 compare with.
    g_world.regKey = L"SOFTWARE\\kwfuzz-" + std::to_wstring(GetCurrentProcessId());
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, g_world.regKey.c_str(), 0, nullptr, 0,
                        KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key, nullptr) == ERROR_SUCCESS) {
        const wchar_t old[] = L"old.exe,lib.dll";
        RegSetValueExW(key, L"vn", 0, REG_SZ, reinterpret_cast<const BYTE*>(old), sizeof(old) - 2);  // no NUL
        const wchar_t multi[] = L"a.exe\0b.exe";  // no final NULs
        RegSetValueExW(key, L"mv", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(multi), sizeof(multi) - 2);
        RegCloseKey(key);
    }
}

void Unplant() {
    for (auto it = g_world.files.rbegin(); it != g_world.files.rend(); ++it) DeleteFileW(it->c_str());
    RemoveDirectoryW((g_world.dir + L"\\b b").c_str());
    RemoveDirectoryW(g_world.dir.c_str());
    RegDeleteKeyExW(HKEY_LOCAL_MACHINE, g_world.regKey.c_str(), KEY_WOW64_64KEY, 0);
}

// ---- Mutation ----

const wchar_t kWideAlphabet[] = L"\"' ,|;/\\-%.:*?<>\t=@~aZ09_\x00e9\xd800\xffff";

std::wstring MutateWide(Rng& r, std::wstring s) {
    const int n = 1 + static_cast<int>(r.Below(4));
    for (int k = 0; k < n; ++k) {
        const size_t at = r.Below(static_cast<uint32_t>(s.size() + 1));
        const wchar_t c = kWideAlphabet[r.Below(sizeof(kWideAlphabet) / sizeof(wchar_t) - 1)];
        switch (r.Below(6)) {
            case 0: s.insert(s.begin() + at, c); break;
            case 1: if (at < s.size()) s.erase(at, 1 + r.Below(8)); break;
            case 2: if (at < s.size()) s[at] = c; break;
            case 3: s = s.substr(0, at); break;
            case 4: s.insert(at, s.substr(0, r.Below(static_cast<uint32_t>(s.size() + 1)))); break;
            default: if (r.OneIn(8)) s.append(250 + r.Below(800), c); break;
        }
    }
    return s;
}

std::wstring CommandText(Rng& r) {
    const std::wstring& a = g_world.files[0];
    const std::wstring& bb = g_world.files[1];
    const std::wstring& lib = g_world.files[2];
    const std::wstring& bat = g_world.files[3];
    const std::wstring seeds[] = {
        L"\"" + a + L"\" -silent", a + L" /background", L"rundll32.exe " + lib + L",Entry",
        bb + L" arg", L"cmd /c \"" + bat + L"\"", a + L"|" + lib, a + L"," + lib + L";" + bb,
        L"\"" + bb + L"\"", g_world.files[4], L"%SystemRoot%\\system32\\notepad.exe " + a, L""};
    std::wstring s = seeds[r.Below(sizeof(seeds) / sizeof(seeds[0]))];
    return r.OneIn(4) ? s : MutateWide(r, s);
}

std::string MutateNarrow(Rng& r, std::string s) {
    static const char alphabet[] = "{}[]\",:\\ -0123456789.eE+tfnul\x01\xff\xc3";
    const int n = 1 + static_cast<int>(r.Below(3));
    for (int k = 0; k < n; ++k) {
        const size_t at = r.Below(static_cast<uint32_t>(s.size() + 1));
        const char c = alphabet[r.Below(sizeof(alphabet) - 1)];
        switch (r.Below(7)) {
            case 0: s.insert(s.begin() + at, c); break;
            case 1: if (at < s.size()) s.erase(at, 1 + r.Below(6)); break;
            case 2: if (at < s.size()) s[at] = c; break;
            case 3: s.insert(at, r.OneIn(2) ? "2147483650" : r.OneIn(2) ? "-1" : "1e400"); break;
            case 4: s.insert(at, r.OneIn(2) ? "\"*\\\\*\"" : "\"CurrentControlSet\""); break;
            case 5: s.insert(at, std::string(r.OneIn(4) ? 3000 : 20, r.OneIn(2) ? '[' : 'k')); break;
            default: s.insert(at, 1, '\0'); break;
        }
    }
    return s;
}

// ---- Checks ----

int g_violations = 0;
std::wstring g_input;  // the current input, described for a report

void Report(const char* what, const std::wstring& detail) {
    ++g_violations;
    fprintf(stderr, "FOUND (seed %u, input %ld): %s: %ls\n    input: %ls\n", g_seed, g_inputNo, what,
            detail.c_str(), g_input.c_str());
}

// A target must be a planted file or name a file that the input's text
// names: it occurs in the text, or its last name (trailing separators and
// extension dropped) does.
void CheckTargets(const std::vector<std::wstring>& targets, const std::wstring& text) {
    const std::wstring upperText = Upper(text);
    for (const std::wstring& t : targets) {
        const std::wstring u = Upper(t);
        bool ok = false;
        for (const std::wstring& f : g_world.files) ok = ok || Upper(f) == u;
        ok = ok || upperText.find(u) != std::wstring::npos;
        std::wstring trimmed = u;
        while (!trimmed.empty() && (trimmed.back() == L'\\' || trimmed.back() == L'/')) trimmed.pop_back();
        size_t slash = trimmed.find_last_of(L"\\/");
        std::wstring name = slash == std::wstring::npos ? trimmed : trimmed.substr(slash + 1);
        size_t dot = name.find_last_of(L'.');
        if (dot != std::wstring::npos && dot > 0) name = name.substr(0, dot);
        ok = ok || (!name.empty() && upperText.find(name) != std::wstring::npos);
        if (!ok) Report("target not among the planted files or the text", t + L"  <=  " + text);
    }
}

void CheckHeap() {
    if (!HeapValidate(GetProcessHeap(), 0, nullptr)) Report("process heap does not validate", L"");
}

// ---- Inputs ----

enum Placement { kInline, kInlineTail, kHeap, kNull };

// Only one string per event goes to the end of Inline: a second would
// overwrite the first.
bool g_tailUsed = false;

wchar_t* PlaceString(Rng& r, Event& ev, const std::wstring& s, Placement* used) {
    Placement p = r.Below(10) < 6 ? kInline : static_cast<Placement>(r.Below(3) + 1);
    if (p == kInlineTail && (g_tailUsed || s.empty())) p = kInline;
    if (p == kInlineTail) g_tailUsed = true;
    *used = p;
    switch (p) {
        case kInline: return ev.Place(s, true);
        case kInlineTail: return ev.PlaceInlineTail(s);
        case kHeap: return ev.Place(s, false);
        default: return nullptr;
    }
}

std::wstring KeyPath(Rng& r, const std::wstring& sid) {
    const std::wstring seeds[] = {
        L"HKEY_LOCAL_MACHINE\\" + g_world.regKey,
        L"\\REGISTRY\\MACHINE\\" + g_world.regKey,
        L"HKEY_USERS\\" + sid + L"\\Software\\kwfuzz\\x\\Run",
        L"HKEY_USERS\\" + sid + L"_Classes\\CLSID",
        L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Services\\kwfuzz",
        L"\\REGISTRY\\USER\\S-1-5-18\\x",
        L"HKEY_CURRENT_USER\\Software",
        L"HKEY_USERS"};
    std::wstring s = seeds[r.Below(sizeof(seeds) / sizeof(seeds[0]))];
    return r.OneIn(3) ? MutateWide(r, s) : s;
}

std::wstring CurrentSid() {
    // Only for plausible key paths: any text works, the plug-in checks it.
    return L"S-1-5-21-0-0-0-1000";
}

void OneRegistryEvent(Rng& r, PluginHost& host, uint32_t parseId) {
    std::unique_ptr<Event> ev(new Event(true));
    Request& q = ev->Req();
    q.Class = r.Below(10) < 8 ? 2 : r.Below(4);
    q.Operation = r.Below(10) < 6 ? 6 : r.Below(9);
    q.Context.ProcessId = r.Below(10) < 8 ? GetCurrentProcessId() : r.Next() % 5000;

    const std::wstring text = CommandText(r);
    std::wstring all = text;
    const std::wstring key = KeyPath(r, CurrentSid());
    Placement pk, pv, pr;
    q.KeyPath = PlaceString(r, *ev, key, &pk);
    std::wstring valueName = r.OneIn(3) ? text : r.OneIn(2) ? L"vn" : r.OneIn(2) ? L"mv" : MutateWide(r, L"Appinit_Dlls");
    if (q.Operation == 6 || r.OneIn(5)) {
        q.ValueName = PlaceString(r, *ev, valueName, &pv);
        all += L" " + valueName;
    }
    if (q.Operation == 5 || r.OneIn(5)) {
        if (r.OneIn(3) && pk == kHeap) q.RenamePath = q.KeyPath;  // one string in both fields
        else q.RenamePath = PlaceString(r, *ev, KeyPath(r, CurrentSid()), &pr);
    }
    // Data: the text in one of several shapes and types.
    std::vector<uint8_t> data;
    const uint32_t types[] = {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_DWORD, REG_NONE, 0xFFFF};
    q.Context.ValueType = r.Below(10) < 6 ? REG_SZ : types[r.Below(7)];
    std::wstring payload = text;
    if (q.Context.ValueType == REG_MULTI_SZ) {
        std::wstring second = CommandText(r);
        all += L" " + second;
        payload += std::wstring(1, L'\0') + second + (r.OneIn(2) ? std::wstring(2, L'\0') : std::wstring());
    } else if (r.OneIn(2)) {
        payload.push_back(L'\0');
    }
    data.assign(reinterpret_cast<const uint8_t*>(payload.data()),
                reinterpret_cast<const uint8_t*>(payload.data() + payload.size()));
    if (r.OneIn(6) && !data.empty()) data.pop_back();  // odd size
    uint32_t cb = static_cast<uint32_t>(data.size() < 1024 ? data.size() : 1024);
    memcpy(q.Context.Data, data.data(), cb);
    q.Context.DataSize = r.OneIn(20) ? r.Next() : cb;  // a host that lies about the size

    const uint32_t mode = r.Below(10) < 9 ? 2 : r.Below(4);
    g_input = L"class " + std::to_wstring(q.Class) + L" op " + std::to_wstring(q.Operation) + L" rule " +
              std::to_wstring(parseId) + L" mode " + std::to_wstring(mode) + L" type " +
              std::to_wstring(q.Context.ValueType) + L" cb " + std::to_wstring(q.Context.DataSize) + L" key [" +
              key + L"] value [" + valueName + L"] data [" + payload + L"]";
    Target target((mode << 16) | parseId, r.OneIn(30) ? 0x80004005 : 0);
    RuleEngine::SetThreadTarget(r.OneIn(30) ? nullptr : &target);
    if (r.OneIn(40)) ev->SetNoDriverEvent(true);
    host.Plugin()->PostProcessEvent(ev.get(), &host.Engine());
    RuleEngine::SetThreadTarget(nullptr);
    CheckTargets(target.Paths(), all);
}

void OneFileEvent(Rng& r, PluginHost& host) {
    const std::wstring seeds[] = {g_world.files[5], g_world.dir + L"\\SETUP.INF", g_world.dir + L"\\a.lnk",
                                  g_world.dir + L"\\a.inf.txt", g_world.files[0]};
    std::wstring path = seeds[r.Below(5)];
    if (r.OneIn(3)) path = MutateWide(r, path);
    std::wstring rename = r.OneIn(4) ? MutateWide(r, g_world.files[5]) : std::wstring();
    std::unique_ptr<Event> ev(new Event(true));
    Request& q = ev->Req();
    q.Class = 1;
    q.Operation = rename.empty() ? 1 : 2;
    Placement p;
    q.KeyPath = PlaceString(r, *ev, path, &p);
    if (!rename.empty()) q.RenamePath = PlaceString(r, *ev, rename, &p);
    Target target;
    RuleEngine::SetThreadTarget(&target);
    host.Plugin()->FirstProcessEvent(ev.get(), &host.Engine());
    RuleEngine::SetThreadTarget(nullptr);
    // Files named by the planted .inf are planted files (app.exe beside it).
    CheckTargets(target.Paths(), path + L" " + rename + L" app.exe");
}

void EventBatches(Rng& r, PluginHost& host, long events, const std::vector<uint32_t>& ids) {
    const long kBatch = 50;
    for (long i = 0; i < events; ++i) {
        InterlockedIncrement(&g_inputNo);
        g_tailUsed = false;
        host.Engine().ClearLines();  // the recorded lines only grow otherwise
        if (r.OneIn(10))
            OneFileEvent(r, host);
        else
            OneRegistryEvent(r, host, r.OneIn(15) ? r.Below(0x10000) : ids[r.Below(static_cast<uint32_t>(ids.size()))]);
        InterlockedIncrement(&g_progress);
        if ((i + 1) % kBatch == 0) CheckHeap();
    }
    CheckHeap();
}

// ---- Crash and hang reporting ----

LONG WINAPI OnCrash(EXCEPTION_POINTERS* info) {
    fprintf(stderr, "FOUND (seed %u, input %ld): crash, exception 0x%08lX at %p\n", g_seed, g_inputNo,
            info->ExceptionRecord->ExceptionCode, info->ExceptionRecord->ExceptionAddress);
    fflush(stderr);
    ExitProcess(3);
}

// A batch that makes no progress for a long while is a hang; the seed and
// input number reproduce it.
DWORD WINAPI Watchdog(LPVOID) {
    LONG last = -1;
    for (;;) {
        Sleep(30000);
        if (g_progress == last) {
            fprintf(stderr, "FOUND (seed %u, input %ld): no progress, hang\n", g_seed, g_inputNo);
            fflush(stderr);
            ExitProcess(4);
        }
        last = g_progress;
    }
}

// ---- Rule-text child ----

int RuleChild(uint32_t seed) {
    Rng r{seed * 2654435761u + 7};
    PluginHost host;
    if (!host.Load() || !host.Create()) return 2;
    const std::string seeds[] = {kRules, R"({"RegParseConfig":[{"ParseID":6,"FunctionID":5,"CheckID":2,"RegRootkey":2147483650,"RegSubkey":"SOFTWARE\\*\\Run"}]})",
                                 R"({"RegParseConfig":[{"ParseID":1,"FunctionID":1,"Parameter1":"|"},{"ParseID":1,"FunctionID":19}]})"};
    long texts = 0;
    std::vector<uint32_t> ids(std::begin(kRuleIds), std::end(kRuleIds));
    for (int i = 0; i < 40; ++i) {
        std::string text = MutateNarrow(r, seeds[r.Below(3)]);
        InterlockedIncrement(&g_inputNo);
        ++texts;
        host.Engine().ClearLines();
        host.InitRaw(&host.Engine(), text.data(), static_cast<unsigned long>(text.size()));
        InterlockedIncrement(&g_progress);
        if (!host.Engine().HasLine(L"m_co.LoadParseRules Fail")) break;  // this text gave rules
    }
    CheckHeap();
    // Analyse under whatever rules the mutated text gave (ids 1..20 cover them mostly).
    for (uint32_t id = 1; id <= 20; ++id) ids.push_back(id);
    EventBatches(r, host, 60, ids);
    printf("rule-child %u: %ld texts, 60 events, %d found\n", seed, texts, g_violations);
    return g_violations ? 1 : 0;
}

int RunRuleChildren(int children) {
    wchar_t exe[MAX_PATH * 2] = {0};
    GetModuleFileNameW(nullptr, exe, MAX_PATH * 2 - 1);
    int failed = 0;
    for (int c = 0; c < children; ++c) {
        std::wstring cmd = L"\"" + std::wstring(exe) + L"\" --rule-child " + std::to_wstring(g_seed * 1000 + c);
        STARTUPINFOW si = {sizeof(si)};
        PROCESS_INFORMATION pi = {};
        if (!CreateProcessW(nullptr, &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
            fprintf(stderr, "cannot start a rule child\n");
            return 1;
        }
        WaitForSingleObject(pi.hProcess, INFINITE);
        DWORD rc = 1;
        GetExitCodeProcess(pi.hProcess, &rc);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
        InterlockedIncrement(&g_progress);
        if (rc != 0) {
            fprintf(stderr, "FOUND: rule child %d (seed %u) exited with %lu\n", c, g_seed * 1000 + c, rc);
            ++failed;
        }
    }
    return failed;
}

}  // namespace

int main(int argc, char** argv) {
    SetUnhandledExceptionFilter(OnCrash);
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    long events = 20000;
    int children = 40;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--events") events = atol(argv[i + 1]);
        else if (a == "--rule-children") children = atoi(argv[i + 1]);
        else if (a == "--seed") g_seed = static_cast<uint32_t>(atol(argv[i + 1]));
        else if (a == "--rule-child") g_seed = static_cast<uint32_t>(atol(argv[i + 1]));
    }
    CloseHandle(CreateThread(nullptr, 0, Watchdog, nullptr, 0, nullptr));
    Plant();
    int rc = 0;
    if (argc >= 3 && std::string(argv[1]) == "--rule-child") {
        rc = RuleChild(g_seed);
    } else {
        PluginHost host;
        if (!host.Load() || !host.Create() || !host.Init(kRules)) {
            fprintf(stderr, "cannot load the plug-in\n");
            Unplant();
            return 2;
        }
        Rng r{g_seed};
        EventBatches(r, host, events, std::vector<uint32_t>(std::begin(kRuleIds), std::end(kRuleIds)));
        const int childFailures = RunRuleChildren(children);
        printf("kwfuzz seed %u: %ld events, %d rule-text children, %d found, %d children failed\n", g_seed, events,
               children, g_violations, childFailures);
        rc = (g_violations || childFailures) ? 1 : 0;
    }
    Unplant();
    return rc;
}
