// The handle template through a counting traits type: what closes when, and
// that closing keeps the caller's last-error code.
#include "common/handle.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<int> g_closed;

struct counting_traits {
    using type = int;
    static type invalid() noexcept { return 0; }
    static void close(type h) noexcept {
        g_closed.push_back(h);
        SetLastError(ERROR_INVALID_HANDLE);  // a close that fails on its own
    }
};
using unique_counted = kw::unique_res<counting_traits>;

TEST(HandleTemplate, PutClosesWhatIsHeldBeforeHandingOutTheAddress) {
    g_closed.clear();
    unique_counted h(7);
    int* out = h.put();
    EXPECT_EQ(std::vector<int>{7}, g_closed);
    EXPECT_EQ(0, *out) << "the slot is empty when the callee fills it";
    *out = 8;
    EXPECT_EQ(8, h.get());
}

TEST(HandleTemplate, ResetKeepsTheLastErrorCode) {
    g_closed.clear();
    unique_counted h(5);
    SetLastError(ERROR_ACCESS_DENIED);
    h.reset(6);
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());
    SetLastError(ERROR_FILE_NOT_FOUND);
    { unique_counted scoped(9); }
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError()) << "destructor too";
    EXPECT_EQ((std::vector<int>{5, 9}), g_closed);
}

TEST(HandleTemplate, EachHandleClosesOnce) {
    g_closed.clear();
    unique_counted a(3);
    unique_counted b(std::move(a));
    EXPECT_FALSE(a.valid());
    int raw = b.release();
    b.reset();
    unique_counted c(4);
    c = std::move(c);
    EXPECT_EQ(3, raw);
    EXPECT_TRUE(g_closed.empty()) << "released, moved or self-assigned: nothing closed";
}

}  // namespace
