// The plug-in's side of the host contract: object sizes and field offsets.
#include "common/host_iface.h"
#include "plugin/plug_deep_scan.h"

#include <gtest/gtest.h>

using namespace kw;

struct OffsetRow {
    const char* field;
    size_t actual;
    size_t expected;
};

TEST(PluginLayout, ContractOffsets) {
    const OffsetRow rows[] = {
        {"sizeof(IKwRulePlug)", sizeof(IKwRulePlug), 32},
        {"sizeof(host string)", sizeof(HostNarrowString), 24},
        {"KW_DRV_EVENT.cbSize", offsetof(KW_DRV_EVENT, cbSize), 0},
        {"KW_DRV_EVENT.EventType", offsetof(KW_DRV_EVENT, EventType), 4},
        {"KW_DRV_EVENT.Timestamp", offsetof(KW_DRV_EVENT, Timestamp), 8},
        {"KW_DRV_EVENT.Request", offsetof(KW_DRV_EVENT, Request), 16},
        {"KW_REQUEST.Class", offsetof(KW_REQUEST, Class), 0},
        {"KW_REQUEST.Operation", offsetof(KW_REQUEST, Operation), 4},
        {"KW_REQUEST.KeyPath", offsetof(KW_REQUEST, KeyPath), 8},
        {"KW_REQUEST.RenamePath", offsetof(KW_REQUEST, RenamePath), 12},
        {"KW_REQUEST.ValueName", offsetof(KW_REQUEST, ValueName), 16},
        {"KW_REQUEST.Context", offsetof(KW_REQUEST, Context), 20},
        {"KW_REQUEST.Inline", offsetof(KW_REQUEST, Inline), 1056},
        {"sizeof(KW_REQUEST)", sizeof(KW_REQUEST), 1056 + 4096},
        {"KW_REG_CONTEXT.ProcessId", offsetof(KW_REG_CONTEXT, ProcessId), 0},
        {"KW_REG_CONTEXT.ValueType", offsetof(KW_REG_CONTEXT, ValueType), 4},
        {"KW_REG_CONTEXT.Data", offsetof(KW_REG_CONTEXT, Data), 8},
        {"KW_REG_CONTEXT.DataSize", offsetof(KW_REG_CONTEXT, DataSize), 1032},
        {"sizeof(KW_REG_CONTEXT)", sizeof(KW_REG_CONTEXT), 1036},
    };
    for (const auto& r : rows) EXPECT_EQ(r.expected, r.actual) << r.field;
}

// The base part of a fresh plug-in object as the host sees it: the vtable,
// an empty host string (16 zero bytes, size 0, capacity 15) and a zero value.
TEST(PluginLayout, FreshObjectBaseBytes) {
    CPlugDeepScan obj;
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(static_cast<IKwRulePlug*>(&obj));
    for (int i = 4; i < 20; ++i) EXPECT_EQ(0, raw[i]) << "string byte " << i;
    uint32_t size, cap, value;
    memcpy(&size, raw + 20, 4);
    memcpy(&cap, raw + 24, 4);
    memcpy(&value, raw + 28, 4);
    EXPECT_EQ(0u, size);
    EXPECT_EQ(15u, cap);
    EXPECT_EQ(0u, value);
    EXPECT_EQ(nullptr, obj.autoRunImpl);
    EXPECT_EQ(nullptr, obj.regKeyTranslate);
    EXPECT_EQ(nullptr, obj.ruleEng.get());
    EXPECT_FALSE(obj.ruleAnalyze);
}
