#include "node/node_conservation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "input/network.h"
#include "input/trip_table.h"
#include "node/node_fixture.h"
#include "node/node_model.h"
#include "support/test_files.h"

namespace torvex {
namespace {

// The figures of one measurement, to compare in one go.
using Figures = std::tuple<int32_t, int32_t, int32_t, int32_t, double, int64_t, double>;
Figures figures(const ImbalanceStats& s) {
    return {s.interior_nodes, s.over_5k, s.over_20k, s.over_50k, s.worst, s.worst_node, s.total};
}

TEST(NodeImbalance, InteriorNodesThresholdsWorstAndRows) {
    // Zone 0 hangs on node 1 by connectors; 1 -> 2 -> 3 -> 4 -> 5 and 5 -> 1 carry volumes
    // that leave node 2 at exactly 5000 out of balance, node 3 at 25000, node 4 at -60000.
    fixture::NodeCase c(6);
    const int32_t c01 = c.link(0, 1), c10 = c.link(1, 0);
    const int32_t l12 = c.link(1, 2), l23 = c.link(2, 3), l34 = c.link(3, 4);
    const int32_t l45 = c.link(4, 5), l51 = c.link(5, 1);
    for (int32_t l : {c01, c10}) c.net.links[l].is_connector = 1;
    c.net.nodes[0].is_centroid = 1;
    // A day's volume in whole vehicles over two intervals, exact in single precision; node 1
    // touches a connector and is never measured.
    const std::pair<int32_t, double> days[] = {{c01, 1e6},   {l12, 40000}, {l23, 35000},
                                               {l34, 10000}, {l45, 70000}, {l51, 70000}};
    for (auto [l, day] : days) {
        c.net.links[l].volume[7] = static_cast<float>(day - 1000.0);
        c.net.links[l].volume[90] = 1000.0f;
    }

    fixture::TempDir dir;
    const ImbalanceStats s = measure_node_imbalance(c.net, dir.file("n.csv"), 5000.0);
    // Interior nodes 2, 3, 4 and 5; exactly 5000 is not above the first threshold.
    EXPECT_EQ(figures(s), Figures(4, 2, 2, 1, 60000.0, 104, 90000.0));
    // Rows at or above the threshold, signed, in node order; node 5 balances.
    EXPECT_EQ(fixture::read_file(dir.file("n.csv")),
              "node_id,sum_in,sum_out,imbalance\n102,40000.0,35000.0,5000.0\n"
              "103,35000.0,10000.0,25000.0\n104,10000.0,70000.0,-60000.0\n");

    // An empty network: zeros and a header only.
    EXPECT_EQ(figures(measure_node_imbalance(Network{}, dir.file("e.csv"), 5000.0)), Figures{});
    EXPECT_EQ(fixture::read_file(dir.file("e.csv")), "node_id,sum_in,sum_out,imbalance\n");
}

TEST(NodeConservationReport, ItsOwnLoadSettingsFilesAndBlock) {
    // A merge with a bottleneck, so that the injection resolution and the receiving mode show
    // in the link arrays.
    fixture::NodeCase c(5);
    fixture::LinkSpec wide{3600, 3, 60, 3, 60, 2}, narrow{900, 2, 30, 2, 60, 1};
    const int32_t a = c.link(0, 2, wide), b = c.link(1, 2, wide), m = c.link(2, 3, narrow);
    const int32_t x = c.link(3, 4, wide);
    c.key({a, m, x}, 7, 800);
    c.key({b, m, x}, 7, 600);
    const Network start = c.net;

    fixture::TempDir dir;
    RunConfig config;
    config.output_directory = dir.path;
    config.node_dt = 30.0f;
    config.node_method = 1;
    config.node_receiving_spatial = false;
    config.assignment.node_inject_res = 60.0f;  // the report ignores both
    config.assignment.node_turns = true;
    AssignmentState state;
    state.network = &c.net;
    state.trips = &c.trips;
    state.path_arena = c.arena;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    write_node_conservation_report(config, state);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();

    // The narrow link's volumes of one load with the report's fixed settings; the assignment's
    // injection resolution would have given others.
    auto same_volumes_as = [&](float inject_res) {
        Network net = start;
        testing::internal::CaptureStderr();
        run_node_dnl(net, c.trips, c.arena, fixture::node_params(1, false, 30.0f, inject_res),
                     nullptr);
        testing::internal::GetCapturedStderr();
        return std::equal(net.links[m].volume, net.links[m].volume + kIntervals,
                          c.net.links[m].volume);
    };
    EXPECT_TRUE(same_volumes_as(15.0f));
    EXPECT_FALSE(same_volumes_as(60.0f));

    EXPECT_NE(err.find("[node-dnl/cumulative] conservation: injected=1400 exited=1400"),
              std::string::npos)
        << err;
    EXPECT_NE(out.find("][node-conservation] receiving=point-queue dt=30s, interior nodes=2 ("),
              std::string::npos)
        << out;
    // Before the load no link carried volume; after it every interior node balances.
    for (const char* name : {"node_conservation_macro.csv", "node_conservation_nodemodel.csv"})
        EXPECT_EQ(fixture::read_file(dir.file(name)), "node_id,sum_in,sum_out,imbalance\n");
    EXPECT_TRUE(fixture::file_exists(dir.file("link_performance_nodeDTA.csv")));
}

}  // namespace
}  // namespace torvex
