// Agent plans, route keys, scope summary, path trace and path continuity on a hand-checked world.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "report/outputs.h"
#include "report/report_world.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::read_file;
using fixture::ReportWorld;
using fixture::TempDir;

TEST(AgentOutputs, PlansAndRouteKeys) {
    ReportWorld w;
    w.trips.route_keys[1].n_links = 4;
    TempDir dir;
    write_agent_plans(dir.file("plans.csv"), w.trips, w.net.nodes);
    EXPECT_EQ(read_file(dir.file("plans.csv")),
              "hh_id,person_id,tour_id,trip_id,origin,dest,hour,vot,weight,purpose,scope,cost_min,"
              "gap_min,n_links\n"
              "10,101,1,1,1000,1003,8,15.0,1.0000,work,intra,9.500,0.5000,3\n"
              "10,102,1,1,1000,1003,8,20.0,2.0000,shop,intra,9.500,0.5000,3\n"
              "11,103,1,1,1000,1004,8,40.0,1.0000,work,adjacent,0.000,0.0000,4\n"
              "12,104,1,1,1002,1000,10,0.0,2.0000,,statewide,0.000,0.0000,0\n"
              "13,105,1,1,1003,1004,9,12.0,1.0000,shop,statewide,0.000,0.0000,1\n");

    write_route_keys(dir.file("keys.csv"), w.trips, w.net.nodes);
    EXPECT_EQ(read_file(dir.file("keys.csv")),
              "origin,dest,slot,segment,time_coef,toll_coef,scope,weight,imped,best_imped,gap,"
              "n_links,reachable\n"
              "1000,1003,8,car,1.000,0.000,intra,3.0000,9.500,9.000,0.5000,3,1\n"
              "1000,1004,8,truck,1.000,0.250,adjacent,1.0000,0.000,0.000,0.0000,4,1\n"
              "1002,1000,10,car,1.000,0.000,statewide,2.0000,0.000,0.000,0.0000,0,0\n"
              "1003,1004,9,car,1.000,0.000,statewide,1.0000,0.000,0.000,0.0000,1,1\n");
}

TEST(AgentOutputs, ScopeSummaryByOriginCounty) {
    ReportWorld w;
    TempDir dir;
    auto summary = [&](const std::string& name) {
        testing::internal::CaptureStdout();
        write_scope_summary(dir.file(name), w.trips, w.net);
        return testing::internal::GetCapturedStdout() + read_file(dir.file(name));
    };
    const std::string want =
        "[scope] route keys by mask: intra=1 adjacent=1 statewide=2 (of 4); see "
        "scope_summary.csv\n"
        "county,intra_keys,intra_weight,adjacent_keys,adjacent_weight,statewide_keys,"
        "statewide_weight\n"
        "C0,1,3.00,1,1.00,0,0.00\n"
        "C1,0,0.00,0,0.00,1,2.00\n"
        "(unknown),0,0.00,0,0.00,1,1.00\n"
        "ALL,1,3.00,1,1.00,2,3.00\n";
    EXPECT_EQ(summary("scope.csv"), want);
    w.net.county_names.push_back("Empty");  // a county without keys has no row
    EXPECT_EQ(summary("scope2.csv"), want);
}

TEST(TracePaths, RowsPerIterationAndAppendOnly) {
    ReportWorld w;
    TempDir dir;
    AssignmentState state;
    state.network = &w.net;
    state.trips = &w.trips;
    state.path_arena = w.arena;
    state.config.assignment.trace_path = dir.file("trace_paths.csv");
    state.traced = {{1, 0}, {4, 2}};  // agent 4's key never found a path: no rows
    auto trace = [&](int iteration) {
        write_trace_paths(state, iteration);
        return read_file(state.config.assignment.trace_path);
    };

    const std::string header =
        "iteration,agent_id,origin,dest,depart_slot,link_seq,a_node,b_node,county,entry_min,"
        "link_tt_min\n";
    const std::string rows0 =
        "0,1,1000,1003,8,0,1000,1001,C0,510.00,2.500\n"
        "0,1,1000,1003,8,1,1001,1002,C1,512.50,3.000\n"
        "0,1,1000,1003,8,2,1002,1003,,515.50,4.000\n";
    EXPECT_EQ(trace(0), header + rows0);
    // Entry times follow the table of the iteration; no stop at the horizon.
    w.trips.route_keys[0].slot = 29;  // middle of the slot: minute 1770
    w.net.links[0].travel_time_min[118] = 40.0f;
    EXPECT_EQ(trace(1), header + rows0 +
                            "1,1,1000,1003,29,0,1000,1001,C0,1770.00,40.000\n"
                            "1,1,1000,1003,29,1,1001,1002,C1,1810.00,3.000\n"
                            "1,1,1000,1003,29,2,1002,1003,,1813.00,4.000\n");
    // Iteration 0 starts the file afresh.
    w.trips.route_keys[0].slot = 8;
    EXPECT_EQ(trace(0), header + rows0);

    // A resumed run never writes iteration 0: rows only, appended to what is there.
    state.config.assignment.trace_path = dir.file("resumed.csv");
    write_trace_paths(state, 5);
    const std::string resumed = trace(6);
    EXPECT_EQ(resumed.find("iteration,"), std::string::npos);
    EXPECT_EQ(resumed.rfind("5,1,1000,1003,8,0,", 0), 0u);
    EXPECT_NE(resumed.find("\n6,1,1000,1003,8,2,1002,1003,,515.50,4.000\n"), std::string::npos);

    // Nothing to trace, or nowhere to write: silently nothing.
    state.config.assignment.trace_path = dir.file("none/trace.csv");
    EXPECT_NO_THROW(write_trace_paths(state, 0));
    state.config.assignment.trace_path = dir.file("empty.csv");
    state.traced.clear();
    write_trace_paths(state, 0);
    EXPECT_FALSE(fixture::file_exists(dir.file("empty.csv")));
}

TEST(PathContinuity, BreaksAreFoundAndCappedRowsKeepCounting) {
    ReportWorld w;
    TempDir dir;
    const std::string header =
        "origin,dest,slot,break_pos,link_a_node,link_a_bnode,next_a_node,next_b_node\n";
    // Checks the count of broken keys and the log line; returns the breaks file.
    auto check = [&](int broken, const std::string& log) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(check_path_continuity(w.net, w.trips, w.arena, dir.path), broken);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "[continuity] " + log + "\n");
        return read_file(dir.file("path_breaks.csv"));
    };
    const std::string defect = "ROUTER DEFECT: paths teleport across nodes.";
    EXPECT_EQ(check(0,
                    "0 of 2 key-paths have a break (0 total breaks). Paths are continuous -> "
                    "conservation gaps are network coding, not the router."),
              header);
    // K1's path 1000->1001, 1002->1003, 1001->1002, 1003->1004 jumps three times.
    w.arena[4] = 2;
    w.arena[5] = 1;
    EXPECT_EQ(check(1, "1 of 2 key-paths have a break (3 total breaks). " + defect),
              header +
                  "1000,1004,8,0,1000,1001,1002,1003\n1000,1004,8,1,1002,1003,1001,1002\n"
                  "1000,1004,8,2,1001,1002,1003,1004\n");

    // One path of 100,002 links that breaks at every step: 100,000 rows, every break counted.
    RouteKey& k = w.trips.route_keys[3];
    k.path_offset = static_cast<int64_t>(w.arena.size());
    k.n_links = 100002;
    for (int n = 0; n < k.n_links; ++n) w.arena.push_back(n % 2 == 0 ? 0 : 2);
    const std::string text =
        check(2, "2 of 3 key-paths have a break (100004 total breaks). " + defect);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 100001);
    EXPECT_THROW(check_path_continuity(w.net, w.trips, w.arena, dir.file("none")),
                 std::runtime_error);
}

}  // namespace
}  // namespace torvex
