#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "assign/equilibrium.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "support/test_files.h"

namespace torvex {
namespace {

// Twelve zones feed node 10; a short freeway (10-13-11, narrowing at 13) and a longer arterial
// pair (10-12-11, narrowing at 12) lead to node 11 and the destination zone 2. The peak
// overloads the freeway's narrowing, and its queue stands on the freeway's first link.
constexpr int kZones = 12;

TEST(NodeEquilibrium, GapFallsUnderBothReceivingModesAndMethods) {
    std::string nodes = "N,X,Y\n2,9,0\n10,1,0\n11,5,0\n12,3,2\n13,4,0\n";
    std::string links =
        "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,SPEED\n"
        "10,13,5,2,2000,11,60\n13,11,0.2,2,750,11,60\n"
        "10,12,3,2,1800,3,40\n12,11,3,1,900,3,40\n"
        "11,2,0.1,1,9000,51,30\n2,11,0.1,1,9000,51,30\n";
    std::string rows = "hh_id,O,D,hour\n";
    int id = 0;
    for (int z = 21; z < 21 + kZones; ++z) {
        const std::string zone = std::to_string(z);
        nodes += zone + ",0," + zone + "\n";
        links += zone + ",10,0.1,1,9000,51,30\n10," + zone + ",0.1,1,9000,51,30\n";
        for (int h = 7; h <= 9; ++h)
            for (int t = 0; t < 180; ++t)
                rows += std::to_string(++id) + "," + zone + ",2," + std::to_string(h) + "\n";
    }
    fixture::TempDir dir;
    fixture::write_file(dir.file("N.csv"), nodes);
    fixture::write_file(dir.file("L.csv"), links);
    fixture::write_file(dir.file("T.csv"), rows);

    // Node mode (1 point queue, 2 spatial) and cumulative method; refreshing the node load
    // between chunks is covered with the routing pass.
    const std::pair<uint8_t, bool> cases[] = {{2, true}, {1, true}, {2, false}};
    for (auto [node_mode, cumulative] : cases) {
        SCOPED_TRACE(testing::Message()
                     << "mode " << int(node_mode) << " cumulative " << cumulative);
        Network net = load_network(dir.file("N.csv"), dir.file("L.csv"));
        const CountyAdjacency adj = build_county_adjacency(net);
        TripTable trips;
        load_trips(dir.file("T.csv"), net, trips, 0, adj, 1);
        RunConfig config;
        config.macro_model = node_mode == 1 ? MacroModel::DTA_NodePQ : MacroModel::DTA_NodeLTM;
        config.assignment.route_chunks = 2;
        config.assignment.node_mode = node_mode;
        config.assignment.node_dt = 60.0f;
        config.assignment.node_cumulative = cumulative;
        config.assignment.max_iterations = 12;
        config.assignment.relative_gap = 1e-6f;
        AssignmentState state;
        prepare_assignment(state, net, trips, adj, config, nullptr);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::vector<IterationRecord> recs = run_assignment(state);
        testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        // The load at full weight prints its conservation line, naming the method configured.
        EXPECT_NE(err.find(cumulative ? "[node-dnl/cumulative] " : "[node-dnl] "),
                  std::string::npos);
        ASSERT_GE(recs.size(), 3u);
        EXPECT_GT(recs[1].rel_gap, 0.05);  // everyone on the freeway: congested
        // The loads swing from one iteration to the next; the last three together sit far below.
        const size_t n = recs.size();
        const double tail = (recs[n - 1].rel_gap + recs[n - 2].rel_gap + recs[n - 3].rel_gap) / 3;
        EXPECT_LT(tail, recs[1].rel_gap * 0.3);

        // Both routes carry traffic, and everything reaches the destination connector.
        double freeway = 0, arterial = 0, into_dest = 0;
        for (int i = 0; i < kIntervals; ++i) {
            freeway += net.links[1].volume[i];
            arterial += net.links[2].volume[i];
            into_dest += net.links[4].volume[i];
        }
        EXPECT_GT(freeway, 1000.0);
        EXPECT_GT(arterial, 500.0);
        EXPECT_NEAR(into_dest, kZones * 3 * 180, 1.0);
    }
}

}  // namespace
}  // namespace torvex
