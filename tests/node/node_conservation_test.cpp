#include "node/node_conservation.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "assign/routing_pass.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "node/node_fixture.h"
#include "node/node_model.h"
#include "support/test_files.h"

namespace torvex {
namespace {

// A day's volume in whole vehicles over two intervals, exact in single precision.
void set_day_volume(Link& l, double day) {
    l.volume[7] = static_cast<float>(day - 1000.0);
    l.volume[90] = 1000.0f;
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
    set_day_volume(c.net.links[c01], 1e6);  // node 1 touches a connector: never measured
    set_day_volume(c.net.links[l12], 40000);
    set_day_volume(c.net.links[l23], 35000);
    set_day_volume(c.net.links[l34], 10000);
    set_day_volume(c.net.links[l45], 70000);
    set_day_volume(c.net.links[l51], 70000);

    fixture::TempDir dir;
    const ImbalanceStats s = measure_node_imbalance(c.net, dir.file("n.csv"), 5000.0);
    EXPECT_EQ(s.interior_nodes, 4);  // 2, 3, 4, 5
    EXPECT_EQ(s.over_5k, 2);         // exactly 5000 is not above it
    EXPECT_EQ(s.over_20k, 2);
    EXPECT_EQ(s.over_50k, 1);
    EXPECT_EQ(s.worst, 60000.0);
    EXPECT_EQ(s.worst_node, 104);
    EXPECT_EQ(s.total, 90000.0);
    // Rows at or above the threshold, signed, in node order; node 5 balances.
    EXPECT_EQ(fixture::read_file(dir.file("n.csv")),
              "node_id,sum_in,sum_out,imbalance\n102,40000.0,35000.0,5000.0\n"
              "103,35000.0,10000.0,25000.0\n104,10000.0,70000.0,-60000.0\n");

    // A file that cannot be opened changes nothing in the figures.
    const ImbalanceStats again = measure_node_imbalance(c.net, dir.file("no/such/n.csv"), 5000.0);
    EXPECT_EQ(again.over_5k, s.over_5k);
    EXPECT_EQ(again.total, s.total);

    // An empty network: zeros and a header only.
    const ImbalanceStats none = measure_node_imbalance(Network{}, dir.file("e.csv"), 5000.0);
    EXPECT_EQ(none.interior_nodes, 0);
    EXPECT_EQ(none.worst, 0.0);
    EXPECT_EQ(none.worst_node, 0);
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

    // The same arrays as one load with the report's fixed settings; the assignment's injection
    // resolution would have given others.
    auto arrays_after = [&](float inject_res) {
        Network net = start;
        NodeLoadParams p = fixture::node_params(1, false, 30.0f, inject_res);
        testing::internal::CaptureStderr();
        run_node_dnl(net, c.trips, c.arena, p, nullptr);
        testing::internal::GetCapturedStderr();
        std::vector<float> v;
        for (const Link& l : net.links) {
            v.insert(v.end(), std::begin(l.travel_time_min), std::end(l.travel_time_min));
            v.insert(v.end(), std::begin(l.volume), std::end(l.volume));
        }
        return v;
    };
    std::vector<float> got;
    for (const Link& l : c.net.links) {
        got.insert(got.end(), std::begin(l.travel_time_min), std::end(l.travel_time_min));
        got.insert(got.end(), std::begin(l.volume), std::end(l.volume));
    }
    EXPECT_EQ(got, arrays_after(15.0f));
    EXPECT_NE(got, arrays_after(60.0f));

    EXPECT_NE(err.find("[node-dnl/cumulative] conservation: injected=1400 exited=1400"),
              std::string::npos)
        << err;
    EXPECT_NE(out.find("][node-conservation] receiving=point-queue dt=30s, interior nodes=2 ("),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("\n   -> node_conservation_{macro,nodemodel}.csv, "
                       "link_performance_nodeDTA.csv\n"),
              std::string::npos);
    // Before the load no link carried volume; after it every interior node balances.
    EXPECT_EQ(fixture::read_file(dir.file("node_conservation_macro.csv")),
              "node_id,sum_in,sum_out,imbalance\n");
    EXPECT_EQ(fixture::read_file(dir.file("node_conservation_nodemodel.csv")),
              "node_id,sum_in,sum_out,imbalance\n");
    const std::string links = fixture::read_file(dir.file("link_performance_nodeDTA.csv"));
    EXPECT_EQ(links.rfind("a_node,b_node,county,ftype,hour,interval,volume,", 0), 0u);
    EXPECT_NE(links.find("\n102,103,,0,7,"), std::string::npos) << links;  // the narrow link
}

#ifdef TORVEX_SYNTH_BIN

// A generated region with every key on its free-flow path.
struct Region {
    fixture::TempDir dir;
    Network net;
    TripTable trips;
    CountyAdjacency adj;
    AssignmentState state;

    Region(int seed, const std::string& links, const std::string& trip_count) {
        const fixture::RunResult r = fixture::run_program(
            TORVEX_SYNTH_BIN, {"--scale", "tiny", "--seed", std::to_string(seed), "--links", links,
                               "--trips", trip_count, "--out", dir.path});
        EXPECT_EQ(r.exit_code, 0) << r.err;
        net = load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));
        adj = build_county_adjacency(net);
        load_trips(dir.file("TRIPS.csv"), net, trips, 0, adj, 1);
        load_segment_params(dir.file("segments.csv"), trips);
        RunConfig config;
        config.assignment.node_mode = 0;
        config.assignment.route_chunks = 1;
        prepare_assignment(state, net, trips, adj, config, nullptr);
        IterationRecord rec;
        testing::internal::CaptureStdout();
        routing_pass(state, true, 1.0f, 1.0f, rec);
        testing::internal::GetCapturedStdout();
    }

    // Vehicles whose path uses each link, from the paths alone.
    std::vector<double> path_load() const {
        std::vector<double> load(net.links.size(), 0.0);
        for (const RouteKey& k : trips.route_keys) {
            if (!(k.weight > 0) || k.path_offset < 0) continue;
            for (int j = 0; j < k.n_links; ++j)
                load[state.path_arena[k.path_offset + j]] +=
                    static_cast<double>(k.weight) * trips.pce[k.segment];
        }
        return load;
    }
};

TEST(NodeConservation, GeneratedRegionsConserveUnderBothMethodsAndReceivingModes) {
    int checked_nodes = 0;
    for (int seed : {3, 11}) {
        Region g(seed, "6000", "30000");
        const std::vector<double> expected = g.path_load();
        double demand = 0;
        for (const RouteKey& k : g.trips.route_keys)
            if (k.weight > 0 && k.path_offset >= 0)
                demand += static_cast<double>(k.weight) * g.trips.pce[k.segment];
        ASSERT_GT(demand, 1000.0);
        std::vector<uint8_t> terminal(g.net.nodes.size(), 0);
        for (const RouteKey& k : g.trips.route_keys) terminal[k.origin] = terminal[k.dest] = 1;
        for (uint8_t method : {1, 0}) {
            for (bool spatial : {true, false}) {
                for (float dt : {60.0f, 15.0f}) {
                    if (dt != 60.0f && !(method == 1 && spatial)) continue;  // default method only
                    for (Link& l : g.net.links)
                        std::fill(std::begin(l.volume), std::end(l.volume), -1.0f);
                    NodeLoadParams p;
                    p.method = method;
                    p.spatial_receiving = spatial;
                    p.dt_sec = dt;
                    testing::internal::CaptureStderr();
                    const NodeLoadTotals t =
                        run_node_dnl(g.net, g.trips, g.state.path_arena, p, nullptr);
                    const std::string err = testing::internal::GetCapturedStderr();
                    const std::string what = "seed " + std::to_string(seed) + " method " +
                                             std::to_string(method) + " spatial " +
                                             std::to_string(spatial) + " dt " + std::to_string(dt);
                    // No departure here reaches the horizon: everything routed is injected.
                    EXPECT_NEAR(t.injected, demand, demand * 1e-9) << what;
                    EXPECT_NEAR(t.injected - t.exited - t.on_network_end, 0.0, demand * 1e-9)
                        << what;
                    EXPECT_GT(t.exited, 0.9 * demand) << what;
                    EXPECT_NE(err.find("] conservation: injected="), std::string::npos) << what;
                    // With nothing parked, what left the in-links of a node where no path
                    // starts or ends entered its out-links: the node conserves.
                    if (t.on_network_end > demand * 1e-9) continue;
                    std::vector<double> sum(expected.size(), 0.0);
                    for (size_t l = 0; l < expected.size(); ++l) {
                        if (expected[l] == 0) {
                            ASSERT_EQ(g.net.links[l].volume[0], -1.0f) << what;  // untouched
                            continue;
                        }
                        for (float v : g.net.links[l].volume) sum[l] += v;
                    }
                    for (size_t h = 0; h < g.net.nodes.size(); ++h) {
                        if (terminal[h]) continue;
                        double in = 0, out = 0;
                        for (int32_t l : g.net.nodes[h].in_links) in += sum[l];
                        for (int32_t l : g.net.nodes[h].out_links) out += sum[l];
                        ASSERT_NEAR(in, out, 1e-5 * in + 1e-3) << what << " node " << h;
                        checked_nodes += in > 0;
                    }
                }
            }
        }
    }
    EXPECT_GT(checked_nodes, 1000);
}

TEST(NodeConservation, LinkArraysDoNotDependOnTheThreadCount) {
    Region g(5, "16000", "30000");
    NodePrep prep;
    NodeLoadParams p;
    prepare_node_load(g.net, g.trips, g.state.path_arena, p, nullptr, prep);
    ASSERT_GE(static_cast<int32_t>(prep.active_links.size()), kNodeParallelLinks);
    const int threads = omp_get_max_threads();
    for (uint8_t method : {1, 0}) {
        p.method = method;
        std::vector<std::vector<float>> runs;
        for (int n : {1, 2}) {
            omp_set_num_threads(n);
            for (Link& l : g.net.links)
                std::fill(std::begin(l.travel_time_min), std::end(l.travel_time_min),
                          l.free_flow_min);
            testing::internal::CaptureStderr();
            run_node_dnl(g.net, g.trips, g.state.path_arena, p, nullptr);
            testing::internal::GetCapturedStderr();
            std::vector<float> flat;
            for (const Link& l : g.net.links) {
                flat.insert(flat.end(), std::begin(l.travel_time_min), std::end(l.travel_time_min));
                flat.insert(flat.end(), std::begin(l.volume), std::end(l.volume));
                flat.insert(flat.end(), std::begin(l.queue_veh), std::end(l.queue_veh));
            }
            runs.push_back(std::move(flat));
        }
        ASSERT_EQ(runs[0].size(), runs[1].size());
        EXPECT_EQ(std::memcmp(runs[0].data(), runs[1].data(), runs[0].size() * sizeof(float)), 0)
            << int(method);
    }
    omp_set_num_threads(threads);
}

#endif

}  // namespace
}  // namespace torvex
