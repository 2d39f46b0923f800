#include "input/trip_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace torvex {
namespace {

// The warmer only faults pages in: whatever the filling thread writes stays, including across a
// move of one room, and it ends when asked, finished or not.
TEST(RoomWarmer, FillsUndisturbedAndStopsWhenAsked) {
    std::vector<uint64_t> a;
    std::vector<uint32_t> b;
    reserve_large(a, size_t{12} << 20);  // 96 MB: more than the warmer runs ahead
    reserve_large(b, size_t{1} << 10);
    {
        RoomWarmer warmer;
        warmer.start(a, b);
        for (uint64_t i = 0; i < (uint64_t{10} << 20); ++i) {
            a.push_back(i * 2654435761u);
            if (i % 3 == 0) b.push_back(static_cast<uint32_t>(i));  // b moves many times
            if (i % 4096 == 0) warmer.progress(a, b);
        }
        warmer.finish();
        warmer.finish();  // twice is harmless
    }
    for (uint64_t i = 0; i < a.size(); ++i) ASSERT_EQ(a[i], i * 2654435761u) << i;
    for (size_t j = 0; j < b.size(); ++j) ASSERT_EQ(b[j], j * 3) << j;

    // Stopped before any progress, and with empty rooms.
    std::vector<uint64_t> c, d;
    reserve_large(c, size_t{8} << 20);
    RoomWarmer early;
    early.start(c, d);
    early.finish();
    EXPECT_TRUE(c.empty());
}

}  // namespace
}  // namespace torvex
