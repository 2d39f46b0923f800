// The daily count check and the output phase with its writer threads.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>

#include "report/outputs.h"
#include "report/report_world.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::file_exists;
using fixture::read_file;
using fixture::ReportWorld;
using fixture::TempDir;

TEST(CountValidation, OneWayAndTwoWayPairsReportedOnce) {
    ReportWorld w;
    TempDir dir;
    // Writes `name`; returns the log line, the file read separately where a stage checks it.
    auto validate = [&](const std::string& name) {
        testing::internal::CaptureStdout();
        write_count_validation(dir.file(name), w.net);
        return testing::internal::GetCapturedStdout();
    };
    const std::string header =
        "a_node,b_node,county,ftype,obs_24h,model_24h,direction,ratio,pct_err,geh_daily,"
        "geh_hourly_avg\n";
    const std::string one_way = "1001,1002,C1,21,10,0.0,one-way,0.000,-100.0,4.47,0.91\n";
    // Two-way: model 120 against 200, GEH sqrt(40) = 6.32 daily, 1.29 on the hour average.
    const std::string two_way = "1000,1001,C0,21,200,120.0,two-way,0.600,-40.0,6.32,1.29\n";

    for (Link& l : w.net.links) std::fill(std::begin(l.volume), std::end(l.volume), 0.0f);
    // 1000<->1001 counted both ways: one row, under the direction with the smaller a_node.
    w.net.links[3].count = 50.0f;
    w.net.links[0].count = 150.0f;
    w.net.links[0].volume[10] = 100.0f;
    w.net.links[0].volume[100] = 999.0f;  // after the first 24 hours: not counted
    w.net.links[3].volume[20] = 20.0f;
    w.net.links[1].count = 10.0f;  // one-way, no volume at all
    w.net.links[2].count = 0.0f;   // 0 means no observation
    EXPECT_EQ(validate("count_validation.csv"),
              "[validation] 2 counted links: model/obs volume ratio=0.571, RMSE=76.2%, "
              "GEH(avg-hr)<5: 100.0%, <10: 100.0%\n");
    EXPECT_EQ(read_file(dir.file("count_validation.csv")), header + two_way + one_way);

    // The same pair with the larger a_node first in link order still yields one row.
    std::swap(w.net.links[0], w.net.links[3]);
    validate("swapped.csv");
    EXPECT_EQ(read_file(dir.file("swapped.csv")), header + one_way + two_way);

    // The hour-average judges the thresholds: a daily GEH of 20 is below 5 on the hour.
    for (Link& l : w.net.links) l.count = -1;
    w.net.links[2].count = 1000.0f;
    w.net.links[2].volume[40] = 1500.0f;  // daily GEH 14.1, hourly 2.89
    EXPECT_EQ(validate("one.csv"),
              "[validation] 1 counted links: model/obs volume ratio=1.500, RMSE=50.0%, "
              "GEH(avg-hr)<5: 100.0%, <10: 100.0%\n");
    EXPECT_NE(read_file(dir.file("one.csv"))
                  .find("\n1002,1003,,21,1000,1500.0,one-way,1.500,50.0,14.14,2.89\n"),
              std::string::npos);

    w.net.links[2].count = -1;
    EXPECT_EQ(validate("none.csv"), "[validation] no observed counts in LINK.csv\n");
}

TEST(OutputPhase, AgentSwitchesDecideWhatThreadCWrites) {
    RunConfig c;
    // {plans, paths} by default, for each mode, then an explicit switch winning over the mode.
    EXPECT_EQ(std::pair(agent_plans_wanted(c), agent_paths_wanted(c)), std::pair(true, true));
    c.write_agent_results = AgentOutputMode::csv;
    EXPECT_EQ(std::pair(agent_plans_wanted(c), agent_paths_wanted(c)), std::pair(true, false));
    c.write_agent_results = AgentOutputMode::duckdb;
    EXPECT_EQ(std::pair(agent_plans_wanted(c), agent_paths_wanted(c)), std::pair(false, true));
    c.write_agent_plans = 1;
    c.write_agent_paths = 0;
    EXPECT_EQ(std::pair(agent_plans_wanted(c), agent_paths_wanted(c)), std::pair(true, false));
}

struct Phase {
    ReportWorld w;
    TempDir dir;
    RunConfig config;
    AssignmentState state;
    Phase() {
        w.load_pce();
        w.net.links[0].count = 3.0f;
        config.output_directory = dir.file("out");
        std::filesystem::create_directories(config.output_directory);
        state.network = &w.net;
        state.trips = &w.trips;
        state.path_arena = w.arena;
    }
    std::string out(const std::string& name) const { return config.output_directory + "/" + name; }
};

TEST(OutputPhase, WritesEveryFileThenTheOutputLine) {
    Phase p;
    p.config.write_agent_results = AgentOutputMode::csv;
    p.config.link_volume_breakdown = VolumeBreakdown::segment;
    testing::internal::CaptureStdout();
    write_outputs(p.config, p.state);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("[scope] route keys by mask: intra=1 adjacent=1 statewide=2 (of 4)"),
              std::string::npos);
    EXPECT_NE(log.find("[validation] 1 counted links:"), std::string::npos);
    const size_t at = log.find("][output] written to " + p.config.output_directory + " (");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(log.find('\n', at), log.size() - 1);  // the last line

    // Each file is what its writer alone produces.
    TempDir ref;
    write_link_performance(ref.file("m.csv"), p.w.net, p.w.trips, p.w.arena,
                           VolumeBreakdown::segment, LinkOutputScope::macro);
    write_link_performance(ref.file("s.csv"), p.w.net, p.w.trips, p.w.arena,
                           VolumeBreakdown::segment, LinkOutputScope::meso);
    write_agent_plans(ref.file("a.csv"), p.w.trips, p.w.net.nodes);
    EXPECT_EQ(read_file(p.out("link_performance_macroDTA.csv")), read_file(ref.file("m.csv")));
    EXPECT_EQ(read_file(p.out("link_performance_mesoDTA.csv")), read_file(ref.file("s.csv")));
    EXPECT_EQ(read_file(p.out("agentPlans_out.csv")), read_file(ref.file("a.csv")));
    EXPECT_TRUE(file_exists(p.out("route_keys.csv")));
    EXPECT_TRUE(file_exists(p.out("scope_summary.csv")));
    EXPECT_TRUE(file_exists(p.out("count_validation.csv")));
    EXPECT_FALSE(file_exists(p.out("agentPaths.duckdb")));
}

TEST(OutputPhase, MainThreadFailureReachesTheCallerAfterTheWriters) {
    Phase p;
    p.config.write_agent_results = AgentOutputMode::csv;
    // A folder where the meso file should go: only the main thread's first file fails.
    std::filesystem::create_directories(p.out("link_performance_mesoDTA.csv"));
    testing::internal::CaptureStdout();
    try {
        write_outputs(p.config, p.state);
        testing::internal::GetCapturedStdout();
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::string(e.what()), "cannot write " + p.out("link_performance_mesoDTA.csv"));
        EXPECT_EQ(log.find("[output]"), std::string::npos);
    }
    // The writer threads ran to the end before the error left the phase.
    const std::string keys = read_file(p.out("route_keys.csv"));
    EXPECT_EQ(std::count(keys.begin(), keys.end(), '\n'), 5);
    const std::string plans = read_file(p.out("agentPlans_out.csv"));
    EXPECT_EQ(std::count(plans.begin(), plans.end(), '\n'), 6);
    EXPECT_FALSE(file_exists(p.out("scope_summary.csv")));
}

}  // namespace
}  // namespace torvex
