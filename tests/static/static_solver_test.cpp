#include "static/static_solver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "assign/equilibrium.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "run/driver.h"
#include "run/run_config.h"
#include "support/test_files.h"

namespace torvex {
namespace {

const std::string kSiouxFalls = std::string(TORVEX_SHARED_DIR) + "/data/siouxfalls/";

using Flows = std::map<std::pair<int64_t, int64_t>, double>;

// Sioux Falls as the static problem of its control file: one window of 120 intervals, so that
// the window's volume-to-capacity ratio is the classic hourly one.
struct SiouxFalls {
    Network net;
    TripTable trips;
    CountyAdjacency adj;
    RunConfig config;
    AssignmentState state;
    StaticSolveStats stats;
    std::string log;

    SiouxFalls(StaMethod method, int iterations, float gap) {
        net = load_network(kSiouxFalls + "NODE.csv", kSiouxFalls + "LINK.csv");
        adj = build_county_adjacency(net);
        load_trips(kSiouxFalls + "TRIPS.csv", net, trips, 0, adj, 1);
        config.macro_model = MacroModel::STA_BPR;
        config.sta_method = method;
        config.sta_method_explicit = true;
        config.bpr_period_min = 1800;
        config.assignment.node_mode = 0;
        config.assignment.max_iterations = iterations;
        config.assignment.relative_gap = gap;
        testing::internal::CaptureStdout();
        apply_static_settings(config, net);
        testing::internal::GetCapturedStdout();
    }
    // Prepares and solves, keeping the log and the direction counters.
    std::vector<IterationRecord> solve() {
        prepare_assignment(state, net, trips, adj, config, nullptr);
        testing::internal::CaptureStdout();
        std::vector<IterationRecord> recs = run_static_solver(state, stats);
        log = testing::internal::GetCapturedStdout();
        return recs;
    }
};

Flows best_flows() {
    std::istringstream in(fixture::read_file(kSiouxFalls + "best_flows.csv"));
    std::string line;
    std::getline(in, line);
    Flows flows;
    while (std::getline(in, line)) {
        long long a = 0, b = 0;
        double v = 0;
        if (std::sscanf(line.c_str(), "%lld,%lld,%lf", &a, &b, &v) == 3) flows[{a, b}] = v;
    }
    return flows;
}

// Root-mean-square difference of hourly volumes from the best-known equilibrium over its 76
// links, relative to the root-mean-square best-known flow.
double relative_rms_error(const Flows& hourly) {
    double err = 0, ref = 0;
    for (const auto& [ab, v] : best_flows()) {
        auto it = hourly.find(ab);
        EXPECT_NE(it, hourly.end()) << ab.first << "-" << ab.second;
        const double e = it == hourly.end() ? 0.0 : it->second;
        err += (e - v) * (e - v);
        ref += v * v;
    }
    return std::sqrt(err / ref);
}

TEST(StaticSolver, BiconjugateReachesTheKnownSiouxFallsEquilibrium) {
    SiouxFalls sf(StaMethod::bfw, 200, 1e-5f);
    prepare_assignment(sf.state, sf.net, sf.trips, sf.adj, sf.config, nullptr);
    testing::internal::CaptureStdout();
    const std::vector<IterationRecord> recs = run_assignment(sf.state);  // dispatches to the solver
    const std::string log = testing::internal::GetCapturedStdout();
    ASSERT_GE(recs.size(), 2u);
    EXPECT_LT(recs.back().rel_gap, 1e-5);
    EXPECT_LT(recs.back().iter, 200);
    EXPECT_NE(log.find("[converged] rel_gap "), std::string::npos);
    EXPECT_NE(log.find("[sta] bi-conjugate Frank-Wolfe | 1 windows/link of 120 x 15 min | 76 "
                       "link-windows\n"),
              std::string::npos);
    EXPECT_FALSE(sf.state.frozen);

    // Hourly volumes (all intervals / 30) match the best-known flows, and the link times follow
    // the solver's own BPR cost (no multiplier) in f32.
    const StaticModel model = build_static_model(sf.net);
    Flows hourly;
    for (int32_t l = 0; l < model.link_count; ++l) {
        const Link& link = sf.net.links[l];
        double v = 0, in = 0;
        for (int i = 0; i < kIntervals; ++i) v += link.volume[i], in += link.inflow[i];
        hourly[{link.a_node, link.b_node}] = v / 30.0;
        EXPECT_NEAR(link.travel_time_min[0], static_link_cost(model, l, 0, in),
                    1e-4 * link.travel_time_min[0]);
    }
    EXPECT_LT(relative_rms_error(hourly), 0.001);
}

TEST(StaticSolver, EachMethodReachesItsGapOnSiouxFalls) {
    struct Case {
        StaMethod method;
        double gap;
    };
    for (const Case& c :
         {Case{StaMethod::msa, 1e-2}, Case{StaMethod::fw, 1e-3}, Case{StaMethod::cfw, 1e-4}}) {
        SiouxFalls sf(c.method, 200, static_cast<float>(c.gap));
        const std::vector<IterationRecord> recs = sf.solve();
        EXPECT_LT(recs.back().rel_gap, c.gap) << static_cast<int>(c.method);
        EXPECT_LT(recs.back().iter, 200) << static_cast<int>(c.method);
        EXPECT_NE(sf.log.find("[converged]"), std::string::npos);
    }
}

TEST(StaticSolver, DirectionCountersOverTheFirstIterations) {
    struct Case {
        StaMethod method;
        int iterations, before_history, conjugate;  // conjugate: used + rejected
    };
    // Plain FW never has history; the conjugate methods wait one (cfw) or two (bfw) iterations.
    for (const Case& c : {Case{StaMethod::fw, 3, 3, 0}, Case{StaMethod::cfw, 4, 1, 3},
                          Case{StaMethod::bfw, 3, 2, 1}, Case{StaMethod::bfw, 6, 2, 4}}) {
        SiouxFalls sf(c.method, c.iterations, 0.0f);
        const std::vector<IterationRecord> recs = sf.solve();
        const StaticSolveStats& stats = sf.stats;
        const std::string what =
            std::to_string(static_cast<int>(c.method)) + " x" + std::to_string(c.iterations);
        ASSERT_EQ(recs.size(), static_cast<size_t>(c.iterations) + 1) << what;
        EXPECT_EQ(stats.before_history, c.before_history) << what;
        EXPECT_EQ(stats.used + stats.rejected, c.conjugate) << what;
        // Sioux Falls takes the bi-conjugate direction at its first chance.
        if (c.method == StaMethod::bfw && c.iterations == 3) {
            EXPECT_EQ(stats.used, 1);
        }
        char line[160];
        std::snprintf(line, sizeof line,
                      "conjugate direction: used %d, rejected %d (non-convex), %d before enough "
                      "history -- the rest ran as plain FW\n",
                      stats.used, stats.rejected, stats.before_history);
        EXPECT_NE(sf.log.find(line), std::string::npos) << what;
    }

    // No iteration: neither the summary line nor a checkpoint.
    fixture::TempDir dir;
    SiouxFalls none(StaMethod::bfw, 0, 0.0f);
    none.config.assignment.checkpoint_file = dir.file("ck.bin");
    EXPECT_EQ(none.solve().size(), 1u);
    EXPECT_EQ(none.log.find("conjugate direction"), std::string::npos);
    EXPECT_FALSE(fixture::file_exists(dir.file("ck.bin")));
}

TEST(StaticSolver, StopFileHaltsAfterItsCheckpoint) {
    fixture::TempDir dir;
    fixture::write_file(dir.file("STOP"), "");
    SiouxFalls sf(StaMethod::bfw, 50, 0.0f);
    sf.config.assignment.stop_file = dir.file("STOP");
    sf.config.assignment.checkpoint_file = dir.file("ck.bin");
    EXPECT_EQ(sf.solve().size(), 2u);
    const size_t ck =
        sf.log.find("[checkpoint] wrote iter 1 state to " + dir.file("ck.bin") + " (528 keys, ");
    const size_t stop = sf.log.find("[stop] stop-file '" + dir.file("STOP") +
                                    "' detected -> halting at iteration 1\n");
    ASSERT_NE(ck, std::string::npos);
    ASSERT_NE(stop, std::string::npos);
    EXPECT_LT(ck, stop);
    EXPECT_TRUE(fixture::file_exists(dir.file("STOP")));  // left in place
}

// The whole program on the Sioux Falls control file, with the reconciliation file: the
// equilibrium volumes in the file match the best-known flows.
TEST(StaticSolver, SiouxFallsRunEndToEnd) {
    fixture::TempDir dir;
    std::string ctl = fixture::read_file(kSiouxFalls + "static.ctl");
    for (const std::string name : {"NODE.csv", "LINK.csv", "TRIPS.csv"}) {
        const size_t at = ctl.find(" " + name);
        ASSERT_NE(at, std::string::npos);
        ctl.replace(at + 1, name.size(), kSiouxFalls + name);
    }
    ctl += "STA_PATH_SCALE 1\n";
    fixture::write_file(dir.file("run.ctl"), ctl);
    const fixture::RunResult r =
        fixture::run_program(TORVEX_BIN, {"--control", "run.ctl", "--out-dir", "out"}, dir.path);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.out.find("[converged] rel_gap "), std::string::npos);
    EXPECT_NE(r.out.find("[sta] path-flow reconciliation: 76 links -> out/sta_path_scale.csv "
                         "(network-wide equilibrium/paths = "),
              std::string::npos)
        << r.out;

    // Reads a CSV after its header, as rows of cells.
    auto rows = [&](const std::string& name, std::string& header) {
        std::istringstream in(fixture::read_file(dir.file(name)));
        std::getline(in, header);
        std::vector<std::vector<std::string>> out;
        for (std::string line; std::getline(in, line);) {
            std::istringstream row(line);
            out.emplace_back();
            for (std::string cell; std::getline(row, cell, ',');) out.back().push_back(cell);
        }
        return out;
    };
    std::string header;
    Flows scale;
    for (const auto& f : rows("out/sta_path_scale.csv", header)) {
        ASSERT_GE(f.size(), 5u);
        scale[{std::stoll(f[0]), std::stoll(f[1])}] = std::stod(f[3]) / 30;
    }
    EXPECT_EQ(header, "a_node,b_node,ftype,vol_equilibrium,vol_from_paths,scale");
    EXPECT_EQ(scale.size(), 76u);
    EXPECT_LT(relative_rms_error(scale), 0.001);
}

}  // namespace
}  // namespace torvex
