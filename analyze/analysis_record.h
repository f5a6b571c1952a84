// The analysis record: one registry change as the analyzers see it. A fixed
// 5,144-byte layout whose tail (process id .. data size) is exactly the host
// request's context value, so that filling it is one copy.
#pragma once
#include "common/host_iface.h"
#include "common/root_keys.h"

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace kw {

enum : uint32_t {
    REGMONMODE_OPERATE_ADDKEY = 1,
    REGMONMODE_OPERATE_MODIFYKEY = 2,
    REGMONMODE_OPERATE_DELKEY = 4,
    REGMONMODE_OPERATE_MODIFYVALUE = 16,
    REGMONMODE_OPERATE_DELVALUE = 32,
};


constexpr uint32_t kAnalyzeItemSize = 5144;
constexpr size_t kSubkeyChars = 1024;
constexpr size_t kValueNameChars = 1022;
constexpr size_t kDataBytes = 1024;

struct ANALYZE_ITEM {
    uint32_t dwSize;
    uint32_t dsid;
    uint32_t dwOperate;
    uint32_t hRootkey;
    wchar_t szSubkey[kSubkeyChars];
    wchar_t szValuename[kValueNameChars];
    uint32_t dwProcessId;
    uint32_t dwValueType;
    uint8_t data[kDataBytes];
    uint32_t dwDataSize;
};

static_assert(sizeof(ANALYZE_ITEM) == kAnalyzeItemSize, "analysis record size");
static_assert(offsetof(ANALYZE_ITEM, dwProcessId) + sizeof(KW_REG_CONTEXT) == kAnalyzeItemSize,
              "the record's tail is the request's context value");

// The trace word of an operation code ("add key", ..., "opt err").
const char* OperateTraceWord(uint32_t op) noexcept;
// The root-key prefix of a trace path ("HKEY_LOCAL_MACHINE\", ...; "" for others).
const wchar_t* RootKeyTracePrefix(uint32_t root) noexcept;
// The predefined handle of a 32-bit root-key value (null when not predefined).
HKEY RootKeyHandle(uint32_t root) noexcept;

}  // namespace kw
