#include "assign/equilibrium.h"

#include <gtest/gtest.h>

#include <string>

#include "input/network.h"
#include "input/trip_table.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

// Four origin zones feed node 10; a short freeway (10-11) and a longer arterial pair
// (10-12-11) lead to node 11 and the destination zone 2. Peak demand overloads the freeway.
constexpr int kZones = 12;

std::string nodes() {
    std::string s = "N,X,Y\n2,9,0\n10,1,0\n11,5,0\n12,3,2\n";
    for (int z = 21; z < 21 + kZones; ++z)
        s += std::to_string(z) + ",0," + std::to_string(z) + "\n";
    return s;
}

struct Corridor {
    TempDir dir;
    Network net;
    TripTable trips;
    CountyAdjacency adj;
    RunConfig config;

    explicit Corridor(MacroModel model, int per_zone_hour = 180) {
        write_file(dir.file("N.csv"), nodes());
        std::string links =
            "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,SPEED\n"
            "10,11,5,2,1000,11,60\n"
            "10,12,3,1,900,3,40\n12,11,3,1,900,3,40\n"
            "11,2,0.1,1,9000,51,30\n2,11,0.1,1,9000,51,30\n";
        std::string rows = "hh_id,O,D,hour\n";
        int id = 0;
        for (int z = 21; z < 21 + kZones; ++z) {
            links += std::to_string(z) + ",10,0.1,1,9000,51,30\n10," + std::to_string(z) +
                     ",0.1,1,9000,51,30\n";
            for (int h = 7; h <= 9; ++h)
                for (int t = 0; t < per_zone_hour; ++t)
                    rows += std::to_string(++id) + "," + std::to_string(z) + ",2," +
                            std::to_string(h) + "\n";
        }
        write_file(dir.file("L.csv"), links);
        write_file(dir.file("T.csv"), rows);
        net = load_network(dir.file("N.csv"), dir.file("L.csv"));
        adj = build_county_adjacency(net);
        load_trips(dir.file("T.csv"), net, trips, 0, adj, 1);
        config.macro_model = model;
        config.assignment.route_chunks = 2;
        config.assignment.node_mode = 0;  // link loaders, as the driver selects for these models
        for (Link& l : net.links)
            if (model == MacroModel::DTA_LTM && !l.is_connector) l.flow_tier = kTierLtm;
    }
    // Runs the assignment for up to the given iterations, keeping its log.
    std::vector<IterationRecord> run(int iterations) {
        config.assignment.max_iterations = iterations;
        prepare_assignment(state, net, trips, adj, config, nullptr);
        testing::internal::CaptureStdout();
        std::vector<IterationRecord> recs = run_assignment(state);
        log = testing::internal::GetCapturedStdout();
        return recs;
    }
    AssignmentState state;
    std::string log;
};

TEST(Equilibrium, GapFallsAndDemandIsLoaded) {
    for (MacroModel model : {MacroModel::DTA_PointQueue, MacroModel::DTA_LTM}) {
        Corridor c(model);
        c.config.assignment.relative_gap = 1e-6f;
        const std::vector<IterationRecord> recs = c.run(12);
        ASSERT_GE(recs.size(), 3u);
        EXPECT_EQ(recs[0].rerouted, 3 * kZones);  // every key takes its free-flow path
        EXPECT_GT(recs[1].rel_gap, 0.05);         // all keys on the freeway: heavily congested
        std::string gaps;
        for (const IterationRecord& r : recs) gaps += " " + std::to_string(r.rel_gap);
        EXPECT_LT(recs.back().rel_gap, recs[1].rel_gap * 0.2) << gaps;
        EXPECT_LT(recs.back().rel_gap, 0.02) << gaps;

        // Both routes carry demand, and every key's path runs from its origin to its destination.
        // What enters the destination connector is all the demand (no key is cut at the horizon).
        double freeway = 0, arterial = 0, into_dest = 0;
        for (int i = 0; i < kIntervals; ++i) {
            freeway += c.net.links[0].inflow[i], arterial += c.net.links[1].inflow[i];
            into_dest += c.net.links[3].inflow[i];
        }
        EXPECT_GT(freeway, 0);
        EXPECT_GT(arterial, 0);
        EXPECT_NEAR(into_dest, kZones * 3 * 180, 1.0);
        for (const RouteKey& k : c.trips.route_keys) {
            ASSERT_GE(k.path_offset, 0);
            const int32_t* p = c.state.path_arena.data() + k.path_offset;
            EXPECT_EQ(c.net.links[p[0]].from, k.origin);
            EXPECT_EQ(c.net.links[p[k.n_links - 1]].to, k.dest);
            for (int j = 1; j < k.n_links; ++j)
                ASSERT_EQ(c.net.links[p[j - 1]].to, c.net.links[p[j]].from);
        }
    }
}

TEST(Equilibrium, StopFileZeroIterationsAndFreeFlowConvergence) {
    Corridor c(MacroModel::DTA_PointQueue);
    EXPECT_EQ(c.run(0).size(), 1u);

    Corridor s(MacroModel::DTA_PointQueue);
    s.config.assignment.stop_file = s.dir.file("STOP");
    write_file(s.config.assignment.stop_file, "");
    EXPECT_EQ(s.run(9).size(), 2u);
    EXPECT_NE(s.log.find("[stop] stop-file '" + s.config.assignment.stop_file +
                         "' detected -> halting at iteration 1\n"),
              std::string::npos);
    EXPECT_TRUE(fixture::file_exists(s.config.assignment.stop_file));  // left in place

    // Light demand never congests: the free-flow paths are at equilibrium at iteration 1.
    Corridor light(MacroModel::DTA_PointQueue, 5);
    const std::vector<IterationRecord> recs = light.run(9);
    EXPECT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[1].rel_gap, 0.0);
    EXPECT_NE(light.log.find("[converged] rel_gap 0.00000 < eps 0.01000 at iteration 1\n"),
              std::string::npos);
}

TEST(Equilibrium, ProgressiveSamplingIsNestedAndScaled) {
    Corridor c(MacroModel::DTA_PointQueue);
    double total = 0;
    for (const Trip& t : c.trips.trips) total += t.weight;
    EXPECT_EQ(resample_keys(c.trips, 0.25f), 3 * kZones);
    double sampled = 0;
    for (const RouteKey& k : c.trips.route_keys) sampled += k.weight;
    // About a quarter of the trips, each counted four times.
    EXPECT_NEAR(sampled / total, 1.0, 0.1);
    // An unreachable key gets nothing back.
    c.trips.route_keys[0].reachable = false;
    resample_keys(c.trips, 1.0f);
    EXPECT_EQ(c.trips.route_keys[0].weight, 0.0f);
    EXPECT_GT(c.trips.route_keys[1].weight, 0.0f);

    // The loop under a schedule: sampled iterations do not converge until the sample is whole.
    Corridor s(MacroModel::DTA_PointQueue, 5);
    s.config.assignment.sample_schedule = {0.25f, 0.25f, 1.0f};
    EXPECT_EQ(s.run(6).back().iter, 3);
    EXPECT_NE(s.log.find("[sample] progressive schedule on; iter 0-1 at 25% sample -> "),
              std::string::npos);
    EXPECT_NE(s.log.find("[sample] iter 3: refine 25% -> 100% ("),
              std::string::npos);  // converged once the whole demand was in
}

TEST(Equilibrium, SchedulesAndTheirDescription) {
    EXPECT_EQ(schedule_value({}, 7, 3), 7);
    EXPECT_EQ(schedule_value({1, 1, 0}, 7, 0), 1);
    EXPECT_EQ(schedule_value({1, 1, 0}, 7, 9), 0);  // the last entry stays in force
    EXPECT_EQ(describe_schedule({1, 1, 1, 0}, 1, 20), "1-3:per_chunk  4-20:per_iter  ");
    EXPECT_EQ(describe_schedule({0, 2, 2}, 1, 4), "1:per_iter  2-4:every2  ");
    EXPECT_FLOAT_EQ(sample_value({0.1f, 0.5f}, 7), 0.5f);
    EXPECT_FLOAT_EQ(sample_value({}, 2), 1.0f);
}

}  // namespace
}  // namespace torvex
