// The host simulator: plays the host engine for tests, the demo and the
// benchmark. It declares its own view of the host contract and reaches the
// plug-in only through the DLL's exports and the interface's virtual slots,
// as a real host does. Thread-safe: several threads may drive one plug-in.
#pragma once
#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace hostsim {

// ---- The contract, as the host declares it ----

struct RegContext {
    uint32_t ProcessId;
    uint32_t ValueType;
    uint8_t Data[1024];
    uint32_t DataSize;
};
struct Request {
    uint32_t Class;
    uint32_t Operation;
    wchar_t* KeyPath;
    wchar_t* RenamePath;
    wchar_t* ValueName;
    RegContext Context;
    wchar_t Inline[2048];
};
struct DriverEvent {
    uint32_t cbSize;
    uint32_t EventType;
    uint64_t Timestamp;
    Request Req;
};

class ITarget {
public:
    virtual void Slot1() = 0;
    virtual void Slot2() = 0;
    virtual long AddTarget(const wchar_t* path, unsigned long kind, unsigned long flags) = 0;
#define HS_SLOT(n) virtual void Slot##n() = 0;
    HS_SLOT(4) HS_SLOT(5) HS_SLOT(6) HS_SLOT(7) HS_SLOT(8) HS_SLOT(9) HS_SLOT(10) HS_SLOT(11)
    HS_SLOT(12) HS_SLOT(13) HS_SLOT(14) HS_SLOT(15) HS_SLOT(16) HS_SLOT(17) HS_SLOT(18)
    HS_SLOT(19) HS_SLOT(20) HS_SLOT(21) HS_SLOT(22) HS_SLOT(23) HS_SLOT(24) HS_SLOT(25)
    HS_SLOT(26) HS_SLOT(27) HS_SLOT(28) HS_SLOT(29)
    virtual unsigned long GetProperty(unsigned long id, void* value, unsigned long* size) = 0;
};

class IRuleEngine {
public:
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;
    HS_SLOT(3) HS_SLOT(4) HS_SLOT(5) HS_SLOT(6) HS_SLOT(7) HS_SLOT(8) HS_SLOT(9) HS_SLOT(10)
    HS_SLOT(11) HS_SLOT(12) HS_SLOT(13) HS_SLOT(14) HS_SLOT(15) HS_SLOT(16) HS_SLOT(17)
    HS_SLOT(18) HS_SLOT(19)
    virtual void WriteLog(const wchar_t* line, int level) = 0;
    virtual ITarget* GetTarget() = 0;
};

class IEvent {
public:
    HS_SLOT(1) HS_SLOT(2) HS_SLOT(3) HS_SLOT(4)
    virtual DriverEvent* GetDriverEvent() = 0;
#undef HS_SLOT
};

struct HostString {
    char buf[16];
    uint32_t size;
    uint32_t capacity;
};

class IPlugin {
public:
    virtual bool Init(IRuleEngine* ruleEng, const char* configContent, unsigned long length) = 0;
    virtual void UnInit() = 0;
    virtual void SetEnable(unsigned long, unsigned long) = 0;
    virtual unsigned long FirstProcessEvent(IEvent* ev, IRuleEngine* ruleEng) = 0;
    virtual unsigned long PreProcessEvent(IEvent* ev, IRuleEngine* ruleEng) = 0;
    virtual unsigned long PostProcessEvent(IEvent* ev, IRuleEngine* ruleEng) = 0;
    virtual unsigned long LastProcessEvent(IEvent* ev, IRuleEngine* ruleEng) = 0;
    virtual bool AfterProcessEvent(unsigned long, unsigned long, unsigned long) = 0;
    HostString name;
    uint32_t value;
};

// {B607A471-B190-4466-A6E0-618174089D16}
extern const GUID kPluginIid;

// ---- What the host records ----

struct TraceLine {
    std::wstring text;
    int level;
};
struct TargetRecord {
    std::wstring path;
    unsigned long kind;
    unsigned long flags;
};

// A deep-scan target object for one event; property 3 is the analysis id.
class Target : public ITarget {
public:
    explicit Target(uint32_t analysisId = 0, unsigned long propertyResult = 0)
        : m_analysisId(analysisId), m_propertyResult(propertyResult) {}
    long AddTarget(const wchar_t* path, unsigned long kind, unsigned long flags) override;
    unsigned long GetProperty(unsigned long id, void* value, unsigned long* size) override;
    std::vector<TargetRecord> Targets() const;
    std::vector<std::wstring> Paths() const;
    int ReservedCalls() const { return m_reservedCalls; }

#define HS_IMPL(n) void Slot##n() override { ++m_reservedCalls; }
    HS_IMPL(1) HS_IMPL(2) HS_IMPL(4) HS_IMPL(5) HS_IMPL(6) HS_IMPL(7) HS_IMPL(8) HS_IMPL(9)
    HS_IMPL(10) HS_IMPL(11) HS_IMPL(12) HS_IMPL(13) HS_IMPL(14) HS_IMPL(15) HS_IMPL(16)
    HS_IMPL(17) HS_IMPL(18) HS_IMPL(19) HS_IMPL(20) HS_IMPL(21) HS_IMPL(22) HS_IMPL(23)
    HS_IMPL(24) HS_IMPL(25) HS_IMPL(26) HS_IMPL(27) HS_IMPL(28) HS_IMPL(29)

private:
    uint32_t m_analysisId;
    unsigned long m_propertyResult;
    mutable std::mutex m_mu;
    std::vector<TargetRecord> m_targets;
    std::atomic<int> m_reservedCalls{0};
};

// The host's rule engine: reference counted, records every trace line, and
// answers GetTarget with the target of the event the calling thread processes.
class RuleEngine : public IRuleEngine {
public:
    unsigned long AddRef() override { return ++m_refs; }
    unsigned long Release() override { return --m_refs; }
    void WriteLog(const wchar_t* line, int level) override;
    ITarget* GetTarget() override;

    HS_IMPL(3) HS_IMPL(4) HS_IMPL(5) HS_IMPL(6) HS_IMPL(7) HS_IMPL(8) HS_IMPL(9) HS_IMPL(10)
    HS_IMPL(11) HS_IMPL(12) HS_IMPL(13) HS_IMPL(14) HS_IMPL(15) HS_IMPL(16) HS_IMPL(17)
    HS_IMPL(18) HS_IMPL(19)

    // Sets the target answered to this thread (null for none).
    static void SetThreadTarget(ITarget* target);

    long Refs() const { return m_refs.load(); }
    std::vector<TraceLine> Lines() const;
    size_t LineCount() const;
    void ClearLines();
    // True when some recorded line contains the text.
    bool HasLine(const std::wstring& fragment) const;
    // Off: lines are only counted, not kept (for long benchmark runs).
    void SetRecording(bool on) { m_recording = on; }
    size_t Counted() const { return m_counted.load(); }
    int ReservedCalls() const { return m_reservedCalls; }

private:
    std::atomic<long> m_refs{0};
    mutable std::mutex m_mu;
    std::vector<TraceLine> m_lines;
    std::atomic<int> m_reservedCalls{0};
    std::atomic<bool> m_recording{true};
    std::atomic<size_t> m_counted{0};
};

// A host event around one driver event (slot 5).
class Event : public IEvent {
public:
    // atPageEnd: the driver event ends exactly where readable memory ends
    // (the next page is inaccessible), so any read past the request faults.
    explicit Event(bool atPageEnd = false);
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    DriverEvent* GetDriverEvent() override { return m_noDriverEvent ? nullptr : m_ev; }
    HS_IMPL(1) HS_IMPL(2) HS_IMPL(3) HS_IMPL(4)
#undef HS_IMPL

    DriverEvent* Raw() { return m_ev; }
    Request& Req() { return m_ev->Req; }
    void SetNoDriverEvent(bool v) { m_noDriverEvent = v; }

    // Registry request: the key path (and value name, data) as the monitor
    // reports them. Strings are placed in the inline storage when `inlineStrings`
    // is true, else on the process heap (freed by the event, as the host does).
    static Event* Registry(uint32_t operation, const std::wstring& keyPath,
                           const std::wstring* valueName = nullptr, uint32_t valueType = 0,
                           const void* data = nullptr, uint32_t dataSize = 0,
                           uint32_t processId = GetCurrentProcessId(), bool inlineStrings = true);
    static Event* RegistrySz(const std::wstring& keyPath, const std::wstring& valueName,
                             const std::wstring& text, uint32_t type = REG_SZ,
                             uint32_t processId = GetCurrentProcessId());
    static Event* File(uint32_t operation, const std::wstring& path,
                       const std::wstring& renamePath = std::wstring());

    void SetRenamePath(const std::wstring& path, bool inlineString);
    int ReservedCalls() const { return m_reservedCalls; }

    // A copy of s in the inline storage (when it fits and inlineString is
    // true) or on the process heap; terminated.
    wchar_t* Place(const std::wstring& s, bool inlineString);
    // s written unterminated at the very end of the inline storage (cut to
    // its last characters when longer).
    wchar_t* PlaceInlineTail(const std::wstring& s);

private:
    DriverEvent* m_ev;
    void* m_region = nullptr;  // the pages of an atPageEnd event
    size_t m_inlineUsed = 0;
    bool m_noDriverEvent = false;
    int m_reservedCalls = 0;
};

// Loads the plug-in DLL and drives it through its exports.
class PluginHost {
public:
    PluginHost() = default;
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // Loads kwdeepscan.dll from beside the running program (or from `path`).
    bool Load(const std::wstring& path = std::wstring());
    bool Create(const GUID* iid = &kPluginIid);
    bool Init(const std::string& ruleText);
    bool InitRaw(IRuleEngine* eng, const char* text, unsigned long length);
    void Release();
    void Unload();

    // Runs one registry event through PostProcessEvent with a target whose
    // analysis id is (mode << 16) | parseId; returns the targets' paths.
    std::vector<std::wstring> PostRegistry(Event& ev, uint32_t analysisId, Target* target = nullptr);

    HMODULE Module() const { return m_module; }
    IPlugin* Plugin() const { return m_plugin; }
    RuleEngine& Engine() { return m_engine; }

    typedef bool (*CreateFn)(const GUID*, IPlugin**);
    typedef void (*ReleaseFn)(IPlugin*);
    typedef LONG(WINAPI* RegDeleteFn)(HKEY, LPCWSTR, REGSAM, DWORD);
    CreateFn create = nullptr;
    ReleaseFn release = nullptr;
    RegDeleteFn regDelete = nullptr;

private:
    HMODULE m_module = nullptr;
    IPlugin* m_plugin = nullptr;
    RuleEngine m_engine;
};

// The folder of the running program, with a trailing backslash.
std::wstring ProgramDir();

}  // namespace hostsim
