#include "host_sim.h"

#include <cstring>
#include <new>

namespace hostsim {

const GUID kPluginIid = {0xB607A471, 0xB190, 0x4466,
                         {0xA6, 0xE0, 0x61, 0x81, 0x74, 0x08, 0x9D, 0x16}};

static_assert(sizeof(RegContext) == 1036, "context");
static_assert(offsetof(Request, Context) == 20, "request");
static_assert(offsetof(Request, Inline) == 1056, "request");
static_assert(offsetof(DriverEvent, Req) == 16, "driver event");
static_assert(sizeof(IPlugin) == 32, "plug-in interface");

// ---- Target ----

long Target::AddTarget(const wchar_t* path, unsigned long kind, unsigned long flags) {
    std::lock_guard<std::mutex> g(m_mu);
    m_targets.push_back(TargetRecord{path ? path : L"<null>", kind, flags});
    return 0;
}

unsigned long Target::GetProperty(unsigned long id, void* value, unsigned long* size) {
    if (m_propertyResult != 0) return m_propertyResult;
    if (id != 3 || !value || !size || *size < 4) return 0x80070057;  // E_INVALIDARG
    memcpy(value, &m_analysisId, 4);
    *size = 4;
    return 0;
}

std::vector<TargetRecord> Target::Targets() const {
    std::lock_guard<std::mutex> g(m_mu);
    return m_targets;
}

std::vector<std::wstring> Target::Paths() const {
    std::lock_guard<std::mutex> g(m_mu);
    std::vector<std::wstring> out;
    for (const auto& t : m_targets) out.push_back(t.path);
    return out;
}

// ---- RuleEngine ----

namespace {
thread_local ITarget* t_target = nullptr;
}

void RuleEngine::SetThreadTarget(ITarget* target) { t_target = target; }

ITarget* RuleEngine::GetTarget() { return t_target; }

void RuleEngine::WriteLog(const wchar_t* line, int level) {
    ++m_counted;
    if (!m_recording) return;
    std::lock_guard<std::mutex> g(m_mu);
    m_lines.push_back(TraceLine{line ? line : L"<null>", level});
}

std::vector<TraceLine> RuleEngine::Lines() const {
    std::lock_guard<std::mutex> g(m_mu);
    return m_lines;
}

size_t RuleEngine::LineCount() const {
    std::lock_guard<std::mutex> g(m_mu);
    return m_lines.size();
}

void RuleEngine::ClearLines() {
    std::lock_guard<std::mutex> g(m_mu);
    m_lines.clear();
}

bool RuleEngine::HasLine(const std::wstring& fragment) const {
    std::lock_guard<std::mutex> g(m_mu);
    for (const auto& l : m_lines)
        if (l.text.find(fragment) != std::wstring::npos) return true;
    return false;
}

// ---- Event ----

Event::Event(bool atPageEnd) {
    if (atPageEnd) {
        SYSTEM_INFO si;
        GetSystemInfo(&si);
        const size_t page = si.dwPageSize;
        const size_t cbData = (sizeof(DriverEvent) + page - 1) / page * page;
        m_region = VirtualAlloc(nullptr, cbData + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
        DWORD old = 0;
        if (!m_region || !VirtualProtect(static_cast<char*>(m_region) + cbData, page, PAGE_NOACCESS, &old))
            throw std::bad_alloc();
        m_ev = reinterpret_cast<DriverEvent*>(static_cast<char*>(m_region) + cbData - sizeof(DriverEvent));
    } else {
        m_ev = static_cast<DriverEvent*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(DriverEvent)));
        if (!m_ev) throw std::bad_alloc();
    }
    m_ev->cbSize = sizeof(DriverEvent);
}

static bool InInline(const Request& r, const wchar_t* p) {
    return p >= r.Inline && p < r.Inline + 2048;
}

Event::~Event() {
    // The host frees whatever non-inline strings the request holds at the end
    // of the event, including copies the plug-in put there.
    // A string that two fields share is freed once.
    Request& r = m_ev->Req;
    wchar_t* fields[] = {r.KeyPath, r.RenamePath, r.ValueName};
    for (int i = 0; i < 3; ++i) {
        wchar_t* p = fields[i];
        bool seen = false;
        for (int j = 0; j < i; ++j) seen = seen || fields[j] == p;
        if (p && !seen && !InInline(r, p)) HeapFree(GetProcessHeap(), 0, p);
    }
    if (m_region)
        VirtualFree(m_region, 0, MEM_RELEASE);
    else
        HeapFree(GetProcessHeap(), 0, m_ev);
}

wchar_t* Event::Place(const std::wstring& s, bool inlineString) {
    size_t need = s.size() + 1;
    if (inlineString && m_inlineUsed + need <= 2048) {
        wchar_t* p = m_ev->Req.Inline + m_inlineUsed;
        memcpy(p, s.c_str(), need * sizeof(wchar_t));
        m_inlineUsed += need;
        return p;
    }
    wchar_t* p = static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), 0, need * sizeof(wchar_t)));
    if (!p) throw std::bad_alloc();
    memcpy(p, s.c_str(), need * sizeof(wchar_t));
    return p;
}

wchar_t* Event::PlaceInlineTail(const std::wstring& s) {
    const size_t n = s.size() < 2048 ? s.size() : 2048;
    wchar_t* p = m_ev->Req.Inline + 2048 - n;
    memcpy(p, s.c_str() + s.size() - n, n * sizeof(wchar_t));
    m_inlineUsed = 2048;
    return p;
}

Event* Event::Registry(uint32_t operation, const std::wstring& keyPath,
                       const std::wstring* valueName, uint32_t valueType, const void* data,
                       uint32_t dataSize, uint32_t processId, bool inlineStrings) {
    Event* e = new Event();
    Request& r = e->Req();
    r.Class = 2;
    r.Operation = operation;
    r.KeyPath = e->Place(keyPath, inlineStrings);
    if (valueName) r.ValueName = e->Place(*valueName, inlineStrings);
    r.Context.ProcessId = processId;
    r.Context.ValueType = valueType;
    if (dataSize > 1024) dataSize = 1024;  // the monitor cuts the data to 1024 bytes
    if (data && dataSize) memcpy(r.Context.Data, data, dataSize);
    r.Context.DataSize = dataSize;
    return e;
}

Event* Event::RegistrySz(const std::wstring& keyPath, const std::wstring& valueName,
                         const std::wstring& text, uint32_t type, uint32_t processId) {
    return Registry(6, keyPath, &valueName, type, text.c_str(),
                    static_cast<uint32_t>((text.size() + 1) * sizeof(wchar_t)), processId);
}

Event* Event::File(uint32_t operation, const std::wstring& path, const std::wstring& renamePath) {
    Event* e = new Event();
    Request& r = e->Req();
    r.Class = 1;
    r.Operation = operation;
    r.KeyPath = e->Place(path, true);
    if (!renamePath.empty()) r.RenamePath = e->Place(renamePath, true);
    r.Context.ProcessId = GetCurrentProcessId();
    return e;
}

void Event::SetRenamePath(const std::wstring& path, bool inlineString) {
    m_ev->Req.RenamePath = Place(path, inlineString);
}

// ---- PluginHost ----

std::wstring ProgramDir() {
    wchar_t buf[MAX_PATH * 2] = {0};
    DWORD n = GetModuleFileNameW(nullptr, buf, MAX_PATH * 2 - 1);
    buf[n] = 0;
    std::wstring s(buf);
    size_t slash = s.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : s.substr(0, slash + 1);
}

PluginHost::~PluginHost() {
    Release();
    // The DLL stays loaded: the plug-in keeps the engine object as its log
    // sink for the module's life, and a host unloads only at its own exit.
}

bool PluginHost::Load(const std::wstring& path) {
    std::wstring dll = path.empty() ? ProgramDir() + L"kwdeepscan.dll" : path;
    m_module = LoadLibraryW(dll.c_str());
    if (!m_module) return false;
    create = reinterpret_cast<CreateFn>(GetProcAddress(m_module, "CreatePlugObjectV2"));
    release = reinterpret_cast<ReleaseFn>(GetProcAddress(m_module, "ReleasePlugObjectV2"));
    regDelete = reinterpret_cast<RegDeleteFn>(
        GetProcAddress(m_module, "_Compatible_RegDeleteKeyExW@16"));
    return create && release && regDelete;
}

bool PluginHost::Create(const GUID* iid) {
    if (!create) return false;
    IPlugin* p = nullptr;
    if (!create(iid, &p) || !p) return false;
    m_plugin = p;
    return true;
}

bool PluginHost::Init(const std::string& ruleText) {
    return InitRaw(&m_engine, ruleText.c_str(), static_cast<unsigned long>(ruleText.size()));
}

bool PluginHost::InitRaw(IRuleEngine* eng, const char* text, unsigned long length) {
    return m_plugin && m_plugin->Init(eng, text, length);
}

void PluginHost::Release() {
    if (m_plugin && release) release(m_plugin);
    m_plugin = nullptr;
}

void PluginHost::Unload() {
    Release();
    if (m_module) FreeLibrary(m_module);
    m_module = nullptr;
}

std::vector<std::wstring> PluginHost::PostRegistry(Event& ev, uint32_t analysisId, Target* target) {
    Target local(analysisId);
    Target* t = target ? target : &local;
    RuleEngine::SetThreadTarget(t);
    m_plugin->PostProcessEvent(&ev, &m_engine);
    RuleEngine::SetThreadTarget(nullptr);
    return t->Paths();
}

}  // namespace hostsim
