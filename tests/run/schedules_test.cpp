#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "run/run_config.h"

namespace torvex {
namespace {

using Plan = std::vector<int32_t>;

// The text of the E that fn raises, or "none".
template <typename E, typename Fn>
std::string thrown(Fn fn) {
    try {
        fn();
    } catch (const E& e) {
        return e.what();
    }
    return "none";
}

TEST(Schedules, PlainRefreshMode) {
    EXPECT_EQ(parse_refresh_mode("every 5 chunks"), 5);
    for (const char* once : {"once", "ONCE", "per Iteration"})
        EXPECT_EQ(parse_refresh_mode(once), 0);
    EXPECT_EQ(parse_refresh_mode("chunk"), 1);
    EXPECT_EQ(parse_refresh_mode("iter 4"), 0);  // "iter" wins over digits
    EXPECT_EQ(parse_refresh_mode("once more"), 1);
    EXPECT_EQ(parse_refresh_mode(""), 1);
    EXPECT_EQ(parse_refresh_mode("1 in 2"), 12);  // all digits, joined
    EXPECT_THROW(parse_refresh_mode("99999999999"), std::out_of_range);
}

TEST(Schedules, RangeFormCoversIterationsFromOne) {
    EXPECT_EQ(parse_node_schedule("1-3:iter,4:chunk"), (Plan{0, 0, 0, 1}));
    // Order of items does not matter, gaps take the entry before.
    EXPECT_EQ(parse_node_schedule("3:2,1:every 4 chunks"), (Plan{4, 4, 2}));
    // A later item overwrites an earlier one.
    EXPECT_EQ(parse_node_schedule("1-4:2,3:7"), (Plan{2, 2, 7, 2}));
    EXPECT_EQ(parse_node_schedule("3:7,1-4:2"), (Plan{2, 2, 2, 2}));
    // Token without digits: "chunk" 1, anything else 0; empty token 0.
    EXPECT_EQ(parse_node_schedule("1:CHUNKS,2:,3:x"), (Plan{1, 0, 0}));
    // Items without ":" are skipped; at least one entry.
    EXPECT_EQ(parse_node_schedule("2:3,junk"), (Plan{0, 3}));
    EXPECT_EQ(parse_node_schedule("0:4"), (Plan{0}));
    // Empty ranges set nothing.
    EXPECT_EQ(parse_node_schedule("3-2:5,1:1"), (Plan{1}));
    EXPECT_EQ(parse_node_schedule(" 2 - 3 :6"), (Plan{0, 6, 6}));
    EXPECT_THROW(parse_node_schedule("a:1"), std::invalid_argument);
}

TEST(Schedules, SampleScheduleForms) {
    EXPECT_EQ(parse_sample_schedule("100,50"), (std::vector<float>{1.0f, 0.5f}));
    EXPECT_EQ(parse_sample_schedule("100,,25,"), (std::vector<float>{1.0f, 0.25f}));
    EXPECT_EQ(parse_sample_schedule(""), std::vector<float>{});
    EXPECT_EQ(parse_sample_schedule("1:50,3-4:20"), (std::vector<float>{0.5f, 0.5f, 0.2f, 0.2f}));
    // Range form starts from a full share; a later item overwrites.
    EXPECT_EQ(parse_sample_schedule("2-3:40,3:60"), (std::vector<float>{1.0f, 0.4f, 0.6f}));
    EXPECT_EQ(thrown<std::invalid_argument>([] { parse_sample_schedule("100,half"); }),
              "invalid stof argument");
}

TEST(Schedules, IdListsAppendAndSkipEmptyElements) {
    std::vector<int64_t> ids = {1};
    parse_id_list("5,,7, 9,", ids);
    parse_id_list("", ids);
    parse_id_list("12345678901234", ids);
    EXPECT_EQ(ids, (std::vector<int64_t>{1, 5, 7, 9, 12345678901234LL}));
    EXPECT_EQ(thrown<std::invalid_argument>([&] { parse_id_list("3,x", ids); }),
              "invalid stoll argument");
    // The element before the bad one was already appended.
    EXPECT_EQ(ids.back(), 3);

    std::vector<int32_t> ftypes;
    parse_int_list("11,71,,91", ftypes);
    EXPECT_EQ(ftypes, (std::vector<int32_t>{11, 71, 91}));
    EXPECT_EQ(thrown<std::out_of_range>([&] { parse_int_list("99999999999", ftypes); }),
              "stoi argument out of range");
}

}  // namespace
}  // namespace torvex
