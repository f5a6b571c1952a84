// The plug-in's view of the host's objects: the plug-in interface it
// implements and the host interfaces it calls. Slots are C++ virtual members
// in declaration order (__thiscall on x86, no virtual destructors); reserved
// slots only keep the numbering and are never called.
#pragma once
#include <windows.h>
#include <cstddef>
#include <cstdint>

namespace kw {

// Request classes and registry operations as the host numbers them.
enum : uint32_t { RCLASS_FILE = 1, RCLASS_REGISTRY = 2 };
enum : uint32_t {
    REQ_OP_KEY_CREATED = 1,
    REQ_OP_WRITE = 3,
    REQ_OP_KEY_DELETED = 4,
    REQ_OP_KEY_RENAMED = 5,
    REQ_OP_VALUE_SET = 6,
    REQ_OP_VALUE_DELETED = 7,
};
enum : uint32_t { REQ_FILE_WRITTEN = 1, REQ_FILE_RENAMED = 2 };

struct KW_REG_CONTEXT {
    uint32_t ProcessId;
    uint32_t ValueType;
    uint8_t Data[1024];
    uint32_t DataSize;
};

struct KW_REQUEST {
    uint32_t Class;
    uint32_t Operation;
    wchar_t* KeyPath;
    wchar_t* RenamePath;
    wchar_t* ValueName;
    KW_REG_CONTEXT Context;
    wchar_t Inline[2048];
};

struct KW_DRV_EVENT {
    uint32_t cbSize;
    uint32_t EventType;
    uint64_t Timestamp;
    KW_REQUEST Request;
};

static_assert(sizeof(KW_REG_CONTEXT) == 1036, "context layout");
static_assert(offsetof(KW_REQUEST, Context) == 20, "request layout");
static_assert(offsetof(KW_REQUEST, Inline) == 1056, "request layout");
static_assert(offsetof(KW_DRV_EVENT, Request) == 16, "driver event layout");
static_assert(offsetof(KW_DRV_EVENT, Timestamp) == 8, "driver event layout");
static_assert(offsetof(KW_REQUEST, Operation) == 4 && offsetof(KW_REQUEST, KeyPath) == 8 &&
                  offsetof(KW_REQUEST, RenamePath) == 12 && offsetof(KW_REQUEST, ValueName) == 16,
              "request layout");
static_assert(sizeof(KW_REQUEST) == 1056 + 4096, "request layout");
static_assert(offsetof(KW_REG_CONTEXT, ValueType) == 4 && offsetof(KW_REG_CONTEXT, Data) == 8 &&
                  offsetof(KW_REG_CONTEXT, DataSize) == 1032,
              "context layout");

class IHostTarget {
public:
    virtual void Reserved1() = 0;
    virtual void Reserved2() = 0;
    virtual long AddTarget(const wchar_t* path, unsigned long kind, unsigned long flags) = 0;
#define KW_RESERVED(n) virtual void Reserved##n() = 0;
    KW_RESERVED(4) KW_RESERVED(5) KW_RESERVED(6) KW_RESERVED(7) KW_RESERVED(8) KW_RESERVED(9)
    KW_RESERVED(10) KW_RESERVED(11) KW_RESERVED(12) KW_RESERVED(13) KW_RESERVED(14)
    KW_RESERVED(15) KW_RESERVED(16) KW_RESERVED(17) KW_RESERVED(18) KW_RESERVED(19)
    KW_RESERVED(20) KW_RESERVED(21) KW_RESERVED(22) KW_RESERVED(23) KW_RESERVED(24)
    KW_RESERVED(25) KW_RESERVED(26) KW_RESERVED(27) KW_RESERVED(28) KW_RESERVED(29)
    virtual unsigned long GetProperty(unsigned long id, void* value, unsigned long* size) = 0;
};

class IHostRuleEngine {
public:
    virtual unsigned long AddRef() = 0;
    virtual unsigned long Release() = 0;
    KW_RESERVED(3) KW_RESERVED(4) KW_RESERVED(5) KW_RESERVED(6) KW_RESERVED(7) KW_RESERVED(8)
    KW_RESERVED(9) KW_RESERVED(10) KW_RESERVED(11) KW_RESERVED(12) KW_RESERVED(13)
    KW_RESERVED(14) KW_RESERVED(15) KW_RESERVED(16) KW_RESERVED(17) KW_RESERVED(18)
    KW_RESERVED(19)
    virtual void WriteLog(const wchar_t* line, int level) = 0;
    virtual IHostTarget* GetTarget() = 0;
};

class IHostEvent {
public:
    KW_RESERVED(1) KW_RESERVED(2) KW_RESERVED(3) KW_RESERVED(4)
    virtual KW_DRV_EVENT* GetDriverEvent() = 0;
#undef KW_RESERVED
};

// The host's narrow string as its standard library lays it out: a 16-byte
// inline buffer / heap pointer union, the size and the capacity. An empty one
// owns no memory, so the plug-in never frees it.
struct HostNarrowString {
    char buf[16];
    uint32_t size;
    uint32_t capacity;
};
static_assert(sizeof(HostNarrowString) == 24, "host string layout");

// The plug-in interface. The base members exist only for the host's layout:
// an empty host string and a zero value, never used after construction.
class IKwRulePlug {
public:
    virtual bool Init(IHostRuleEngine* ruleEng, const char* configContent,
                      unsigned long configContentLength) noexcept = 0;
    virtual void UnInit() noexcept = 0;
    virtual void SetEnable(unsigned long a, unsigned long b) noexcept = 0;
    virtual unsigned long FirstProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept = 0;
    virtual unsigned long PreProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept = 0;
    virtual unsigned long PostProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept = 0;
    virtual unsigned long LastProcessEvent(IHostEvent* pEvent, IHostRuleEngine* ruleEng) noexcept = 0;
    virtual bool AfterProcessEvent(unsigned long a, unsigned long b, unsigned long c) noexcept = 0;

protected:
    IKwRulePlug() noexcept : m_hostString{{0}, 0, 15}, m_hostValue(0) {}
    ~IKwRulePlug() = default;  // non-virtual: the host's layout has none

    HostNarrowString m_hostString;
    uint32_t m_hostValue;
};
static_assert(sizeof(IKwRulePlug) == 32, "eight operations, one table pointer");

// {B607A471-B190-4466-A6E0-618174089D16}
constexpr GUID IID_IKwRulePlug = {0xB607A471, 0xB190, 0x4466,
                                  {0xA6, 0xE0, 0x61, 0x81, 0x74, 0x08, 0x9D, 0x16}};

}  // namespace kw
