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
    write_file(dir.file("turns.csv"), text);
    Network net = turn_net();
    Loaded out;
    out.summary = load_turns(dir.file("turns.csv"), net, out.table);
    // Every row is counted once, and only resolved rows make entries.
    EXPECT_EQ(out.summary.rows,
              out.summary.prohibited + out.summary.penalized + out.summary.unresolved);
    return out;
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
    ASSERT_EQ(l.table.entries.size(), 6u);
    // Link 0 is used, never the parallel link 1.
    const struct {
        int32_t in, out;
        bool prohibited;
        float penalty;
    } want[] = {{0, 2, true, 0.0f},  {0, 3, false, 7.0f}, {4, 3, true, -1.0f},
                {5, 0, false, 2.5f}, {4, 2, false, 1.0f}, {2, 4, false, 0.0f}};
    for (const auto& w : want) {
        ASSERT_EQ(l.table.entries.count(turn_key(w.in, w.out)), 1u) << w.in << "->" << w.out;
        const TurnEntry& e = l.table.entries.at(turn_key(w.in, w.out));
        EXPECT_EQ(bool(e.prohibited), w.prohibited) << w.in << "->" << w.out;
        EXPECT_EQ(e.penalty_min, w.penalty) << w.in << "->" << w.out;
    }
}

TEST(TurnTable, WithoutPenaltyColumnEveryRowProhibits) {
    // Columns are found by name, in any order.
    const Loaded l = load("TO_NODE,THRU_NODE,FROM_NODE\n3,2,1\n4,2,3\n1,4,2\n5,2,1\n");
    EXPECT_EQ(l.summary.rows, 4);
    EXPECT_EQ(l.summary.prohibited, 3);
    EXPECT_EQ(l.summary.unresolved, 1);  // 1->2->5 has no second link
    for (auto [in, out] : {std::pair{0, 2}, {4, 3}, {3, 5}})
        EXPECT_TRUE(l.table.entries.at(turn_key(in, out)).prohibited) << in << "->" << out;
}

TEST(TurnTable, HeaderOnlyFailuresAndSummaryLine) {
    const Loaded l = load("FROM_NODE,THRU_NODE,TO_NODE,PENALTY\n");
    EXPECT_EQ(l.summary.rows, 0);
    EXPECT_TRUE(l.table.entries.empty());

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
    const std::string f = dir.file("t.csv");
    EXPECT_EQ(error(f), "cannot open turn file " + f);
    write_file(f, "");
    EXPECT_EQ(error(f), f + ": empty");
    for (const char* header : {"FROM_NODE,TO_NODE,PENALTY\n", "from_node,thru_node,to_node\n"}) {
        write_file(f, header);
        EXPECT_EQ(error(f), f + ": need FROM_NODE,THRU_NODE,TO_NODE columns") << header;
    }

    testing::internal::CaptureStdout();
    print_turn_summary(TurnLoadSummary{12, 3, 4, 5});
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(
        out,
        std::regex(
            R"(\[\d\d:\d\d:\d\d\]\[turns\] 12 rows: 3 prohibited, 4 penalized, 5 unresolved\n)")))
        << out;
}

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
    EXPECT_LE(l.table.entries.size(), static_cast<size_t>(l.summary.rows - l.summary.unresolved));
    // Every key names two consecutive links; a prohibition carries 0 or a negative value, a
    // penalty never a negative one.
    const Network net = turn_net();
    for (const auto& [key, e] : l.table.entries) {
        EXPECT_EQ(net.links[static_cast<int32_t>(key >> 32)].to,
                  net.links[static_cast<int32_t>(key & 0xFFFFFFFFu)].from);
        EXPECT_TRUE(e.prohibited ? e.penalty_min <= 0.0f : e.penalty_min >= 0.0f) << e.penalty_min;
    }
}

}  // namespace
}  // namespace torvex
