#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>

#include "input/network.h"
#include "input/turn_table.h"
#include "support/test_files.h"
#include "toll/side_network.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

// Links: 0 = 1->2, 1 = 1->2 parallel, 2 = 2->3, 3 = 2->4, 4 = 3->2, 5 = 4->1.
Network turn_net() {
    return fixture::side_network({1, 2, 3, 4, 5}, {{1, 2}, {1, 2}, {2, 3}, {2, 4}, {3, 2}, {4, 1}});
}

struct Loaded {
    TurnLoadSummary summary;
    TurnTable table;
};

Loaded load(const std::string& text) {
    TempDir dir;
    const std::string path = dir.file("turns.csv");
    write_file(path, text);
    Network net = turn_net();
    Loaded out;
    out.summary = load_turns(path, net, out.table);
    return out;
}

// The entry of the movement from one link into the next, which must exist.
const TurnEntry& entry(const Loaded& l, int32_t in_link, int32_t out_link) {
    return l.table.entries.at(turn_key(in_link, out_link));
}

TEST(TurnTable, RowsResolveToTheLowestIndexedLinks) {
    const Loaded l = load(
        "FROM_NODE,THRU_NODE,TO_NODE,PENALTY\r\n"
        "1,2,3,\r\n"      // empty penalty: prohibited
        "1,2,4,0\r\n"     // zero: penalized
        "3,2,4,-1\r\n"    // negative: prohibited, value kept
        "4,1,2,2.5 \r\n"  // positive: penalized
        "\r\n"
        "3,2,3,1.0\r\n"  // 3->2->3 is a U-turn with links both ways
        "2,3,2,x\r\n"    // no digits read as 0: penalized
        "1,2,5,1\r\n"    // node 5 exists but no link 2->5: unresolved
        "1,3,2,1\r\n"    // no link 1->3
        "9,2,3,1\r\n"    // unknown node
        "1,2\r\n"        // short row: missing TO_NODE reads as node 0
        "1,2,4,7\r\n");  // the same movement again: the later entry stands
    EXPECT_EQ(l.summary.rows, 11);
    EXPECT_EQ(l.summary.prohibited, 2);
    EXPECT_EQ(l.summary.penalized, 5);
    EXPECT_EQ(l.summary.unresolved, 4);
    EXPECT_EQ(l.summary.rows, l.summary.prohibited + l.summary.penalized + l.summary.unresolved);
    ASSERT_EQ(l.table.entries.size(), 6u);

    // Every key names two consecutive links through the movement's middle node.
    const Network net = turn_net();
    for (const auto& [key, e] : l.table.entries) {
        const Link& in = net.links[static_cast<int32_t>(key >> 32)];
        const Link& out = net.links[static_cast<int32_t>(key & 0xFFFFFFFFu)];
        EXPECT_EQ(in.to, out.from);
    }
    EXPECT_TRUE(entry(l, 0, 2).prohibited);  // link 0, never the parallel link 1
    EXPECT_EQ(entry(l, 0, 2).penalty_min, 0.0f);
    EXPECT_EQ(l.table.entries.count(turn_key(1, 2)), 0u);
    EXPECT_FALSE(entry(l, 0, 3).prohibited);
    EXPECT_EQ(entry(l, 0, 3).penalty_min, 7.0f);
    EXPECT_TRUE(entry(l, 4, 3).prohibited);
    EXPECT_EQ(entry(l, 4, 3).penalty_min, -1.0f);
    EXPECT_FALSE(entry(l, 5, 0).prohibited);
    EXPECT_EQ(entry(l, 5, 0).penalty_min, 2.5f);
    EXPECT_EQ(entry(l, 4, 2).penalty_min, 1.0f);
    EXPECT_EQ(entry(l, 2, 4).penalty_min, 0.0f);
    EXPECT_FALSE(entry(l, 2, 4).prohibited);
}

TEST(TurnTable, WithoutPenaltyColumnEveryRowProhibits) {
    // Columns are found by name, in any order.
    const Loaded l = load("TO_NODE,THRU_NODE,FROM_NODE\n3,2,1\n4,2,3\n1,4,2\n5,2,1\n");
    EXPECT_EQ(l.summary.rows, 4);
    EXPECT_EQ(l.summary.prohibited, 3);
    EXPECT_EQ(l.summary.penalized, 0);
    EXPECT_EQ(l.summary.unresolved, 1);  // 1->2->5 has no second link
    EXPECT_TRUE(entry(l, 0, 2).prohibited);
    EXPECT_TRUE(entry(l, 4, 3).prohibited);
    EXPECT_TRUE(entry(l, 3, 5).prohibited);
}

TEST(TurnTable, HeaderOnlyAndSummaryLine) {
    const Loaded l = load("FROM_NODE,THRU_NODE,TO_NODE,PENALTY\n");
    EXPECT_EQ(l.summary.rows, 0);
    EXPECT_TRUE(l.table.entries.empty());
    testing::internal::CaptureStdout();
    print_turn_summary(TurnLoadSummary{12, 3, 4, 5});
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(
        out,
        std::regex(
            R"(\[\d\d:\d\d:\d\d\]\[turns\] 12 rows: 3 prohibited, 4 penalized, 5 unresolved\n)")))
        << out;
}

TEST(TurnTable, Failures) {
    TempDir dir;
    Network net = turn_net();
    auto error = [&](const std::string& path) -> std::string {
        TurnTable table;
        try {
            load_turns(path, net, table);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "(no error)";
    };
    const std::string missing = dir.file("nope.csv");
    EXPECT_EQ(error(missing), "cannot open turn file " + missing);
    const std::string empty = dir.file("empty.csv");
    write_file(empty, "");
    EXPECT_EQ(error(empty), empty + ": empty");
    const std::string bad = dir.file("bad.csv");
    for (const char* header : {"FROM_NODE,THRU_NODE\n", "FROM_NODE,TO_NODE,PENALTY\n",
                               "THRU_NODE,TO_NODE\n", "from_node,thru_node,to_node\n"}) {
        write_file(bad, header);
        EXPECT_EQ(error(bad), bad + ": need FROM_NODE,THRU_NODE,TO_NODE columns") << header;
    }
}

}  // namespace
}  // namespace torvex

namespace torvex {
namespace {

TEST(TurnTable, ArbitraryBytesAreCountedNotFatal) {
    std::string text = "FROM_NODE,THRU_NODE,TO_NODE,PENALTY\n1,2,3,-2\n";
    uint32_t h = 777u;
    for (int i = 0; i < 20000; ++i) {
        h ^= h << 13, h ^= h >> 17, h ^= h << 5;
        const char pick[] = "12345,,,,\n-. \r\x01";
        text.push_back(h % 9 == 0 ? static_cast<char>(h >> 8) : pick[(h >> 8) % (sizeof pick - 1)]);
    }
    const Loaded l = load(text);
    EXPECT_GT(l.summary.rows, 1000);
    EXPECT_EQ(l.summary.rows, l.summary.prohibited + l.summary.penalized + l.summary.unresolved);
    EXPECT_LE(l.table.entries.size(), static_cast<size_t>(l.summary.rows - l.summary.unresolved));
    // A prohibition carries 0 or a negative value; a penalty is never negative.
    for (const auto& [key, e] : l.table.entries) {
        if (e.prohibited)
            EXPECT_LE(e.penalty_min, 0.0f);
        else
            EXPECT_GE(e.penalty_min, 0.0f);
    }
}

}  // namespace
}  // namespace torvex
