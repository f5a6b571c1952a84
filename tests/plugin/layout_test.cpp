// The plug-in's side of the host contract: a fresh object's bytes.
#include "common/host_iface.h"
#include "plugin/plug_deep_scan.h"

#include <gtest/gtest.h>

using namespace kw;

// Object sizes and field offsets are checked where they are declared.

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
