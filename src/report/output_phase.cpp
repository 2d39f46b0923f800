// The output phase: three writer threads (A link performance macro layer, B route keys, C agent
// results) started in that order while the calling thread writes the meso layer, the scope
// summary and the count check; joined in start order. The writers only read the run's records.
#include <chrono>
#include <exception>
#include <thread>

#include "report/agent_database.h"
#include "report/outputs.h"
#include "run/log.h"

namespace torvex {

bool agent_plans_wanted(const RunConfig& config) {
    if (config.write_agent_plans >= 0) return config.write_agent_plans != 0;
    if (config.write_agent_results != AgentOutputMode::default_mode)
        return config.write_agent_results == AgentOutputMode::csv;
    return true;
}

bool agent_paths_wanted(const RunConfig& config) {
    if (config.write_agent_paths >= 0) return config.write_agent_paths != 0;
    if (config.write_agent_results != AgentOutputMode::default_mode)
        return config.write_agent_results == AgentOutputMode::duckdb;
    return true;
}

void write_outputs(const RunConfig& config, const AssignmentState& state) {
    const Network& net = *state.network;
    const TripTable& trips = *state.trips;
    const std::vector<int32_t>& arena = state.path_arena;
    const std::string& dir = config.output_directory;
    const VolumeBreakdown breakdown = config.link_volume_breakdown;
    const bool plans = agent_plans_wanted(config);
    const bool paths = agent_paths_wanted(config);

    const auto start = std::chrono::steady_clock::now();
    std::thread a, b, c;
    std::exception_ptr failed;
    try {
        // A failure inside a writer thread is not caught there: it ends the process.
        a = std::thread([&] {
            write_link_performance(dir + "/link_performance_macroDTA.csv", net, trips, arena,
                                   breakdown, LinkOutputScope::macro);
        });
        b = std::thread([&] { write_route_keys(dir + "/route_keys.csv", trips, net.nodes); });
        c = std::thread([&] {
            if (plans) write_agent_plans(dir + "/agentPlans_out.csv", trips, net.nodes);
            if (paths) write_agent_database(dir + "/agentPaths.duckdb", trips, arena, net, true);
        });
        write_link_performance(dir + "/link_performance_mesoDTA.csv", net, trips, arena, breakdown,
                               LinkOutputScope::meso);
        write_scope_summary(dir + "/scope_summary.csv", trips, net);
        write_count_validation(dir + "/count_validation.csv", net);
    } catch (...) {
        // A failed start or a failed main-thread file goes to the run's guard, once the writers
        // already running have finished.
        failed = std::current_exception();
    }
    for (std::thread* t : {&a, &b, &c})
        if (t->joinable()) t->join();
    if (failed) std::rethrow_exception(failed);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    progress("[%s][output] written to %s (%.1fs)\n", now_hms(), dir.c_str(), seconds);
}

}  // namespace torvex
