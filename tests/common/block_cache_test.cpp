// The module's operator new and delete: blocks of every size class and beyond,
// freed on the allocating thread or on another, and the thread's last error
// left as the caller set it.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

TEST(BlockCache, SizesAcrossTheClassesAndThreadsStayIntactAndKeepTheLastError) {
    std::vector<std::unique_ptr<char[]>> blocks;
    const std::vector<size_t> sizes{16, 255, 256, 257, 0, 1, 15, 17, 600, 5000, 8192, 8193};
    for (size_t n : sizes) {
        SetLastError(4321);
        blocks.emplace_back(new char[n + 1]);
        EXPECT_EQ(4321u, GetLastError()) << n;
        memset(blocks.back().get(), static_cast<int>(n & 0x7F), n + 1);
    }
    // Freed on another thread, then taken again here: every block keeps its bytes.
    std::thread([&] { blocks.resize(blocks.size() / 2); }).join();
    for (int round = 0; round < 64; ++round) blocks.emplace_back(new char[100]);
    for (size_t i = 0; i < 4; ++i)
        for (size_t k = 0; k <= sizes[i]; ++k) ASSERT_EQ(static_cast<char>(sizes[i] & 0x7F), blocks[i][k]) << i;
    SetLastError(4321);
    blocks.clear();
    EXPECT_EQ(4321u, GetLastError());
    EXPECT_TRUE(HeapValidate(GetProcessHeap(), 0, nullptr));
}

}  // namespace
