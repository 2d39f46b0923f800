#include "run/driver.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "assign/assignment_state.h"
#include "assign/checkpoint.h"
#include "assign/equilibrium.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "input/turn_table.h"
#include "node/node_conservation.h"
#include "report/outputs.h"
#include "run/log.h"
#include "run/run_config.h"
#include "toll/toll_tables.h"

namespace torvex {

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count() / 1e9;
}

// "1h 02m 03s", "2m 03s" or "3s", from whole seconds rounded half up.
std::string runtime_text(double t) {
    const long s = static_cast<long>(t + 0.5);
    const long h = s / 3600, m = (s % 3600) / 60, r = s % 60;
    char buf[64];
    if (h > 0)
        std::snprintf(buf, sizeof buf, "%ldh %02ldm %02lds", h, m, r);
    else if (m > 0)
        std::snprintf(buf, sizeof buf, "%ldm %02lds", m, r);
    else
        std::snprintf(buf, sizeof buf, "%lds", r);
    return buf;
}

// Where later writers put their side outputs, fixed before the assignment starts.
void set_side_output_paths(RunConfig& config) {
    AssignmentSettings& a = config.assignment;
    const std::string& dir = config.output_directory;
    if (!config.trace_agents.empty()) a.trace_path = dir + "/trace_paths.csv";
    if (config.macro_model == MacroModel::STA_BPR && config.sta_path_scale)
        a.sta_path_scale_path = dir + "/sta_path_scale.csv";
    if (config.write_meso_log) a.meso_log_path = dir + "/meso_log.csv";
    if (config.meso_interval_log) a.meso_interval_log_path = dir + "/meso_interval_log.csv";
    if (config.meso_movement_log) a.meso_movement_log_path = dir + "/meso_movement_log.csv";
    if (config.meso_segment_log) {
        a.meso_segment_log_path = dir + "/meso_segment_log.csv";
        if (a.meso_segment_file.empty() && !(a.meso_segment_len > 0)) a.meso_segment_len = 0.25f;
    }
    if (config.meso_probe_link[0] >= 0) {
        a.meso_probe_a = config.meso_probe_link[0];
        a.meso_probe_b = config.meso_probe_link[1];
        a.meso_probe_path = dir + "/meso_probe.csv";
    }
}

// Lane-use, capacity and toll policy tables refine the network, in this order.
void load_toll_inputs(const RunConfig& config, Network& net) {
    compute_toll_deflator(config, net);
    if (!config.lane_use_file.empty()) load_lane_use(config.lane_use_file, net);
    if (!config.capacity_file.empty()) load_capacity_schedule(config.capacity_file, net);
    if (!config.toll_policy_file.empty()) {
        load_toll_policies(config.toll_policy_file, net);
        print_toll_deflation(config, net);
    }
}

void find_traced_agents(const RunConfig& config, const TripTable& trips, AssignmentState& state) {
    for (const Trip& t : trips.trips)
        for (int64_t id : config.trace_agents)
            if (id == t.agent_id) state.traced.push_back(TraceRequest{t.agent_id, t.route_key});
    progress("[trace] %zu of %zu requested agents found; paths -> %s\n", state.traced.size(),
             config.trace_agents.size(), config.assignment.trace_path.c_str());
}

// Keeps only keys with both ends in the named county; false (after its message) ends the run.
bool apply_county_filter(const RunConfig& config, const Network& net, TripTable& trips) {
    auto it = net.county_index.find(config.county_filter);
    if (it == net.county_index.end()) {
        std::fprintf(stderr, "[county-filter] unknown county '%s'\n", config.county_filter.c_str());
        return false;
    }
    const uint16_t id = it->second;
    long long kept = 0;
    double kept_veh = 0, dropped_veh = 0;
    for (RouteKey& k : trips.route_keys) {
        if (net.nodes[k.origin].county == id && net.nodes[k.dest].county == id) {
            ++kept;
            kept_veh += k.weight;
        } else {
            dropped_veh += k.weight;
            k.weight = 0;
            k.reachable = false;
        }
    }
    progress(
        "[%s][county-filter] %s (id %d): kept %lld intra-county keys (%.0f veh), dropped %.0f "
        "veh of out-of-county demand\n",
        now_hms(), config.county_filter.c_str(), static_cast<int>(id), kept, kept_veh, dropped_veh);
    if (kept == 0) {
        std::fprintf(stderr, "[county-filter] no intra-county trips\n");
        return false;
    }
    return true;
}

int run_phases(RunConfig& config) {
    std::filesystem::create_directories(config.output_directory);
    const Clock::time_point run_start = Clock::now();
    progress("[%s] Morvane DTA run started\n", now_hms());

    Clock::time_point t0 = Clock::now();
    Network net = load_network(config.node_file, config.link_file);
    long long centroids = 0, no_county = 0;
    for (const Node& n : net.nodes) centroids += n.is_centroid;
    for (const Link& l : net.links) no_county += l.county == kNoCounty;
    progress(
        "[%s][network] %d nodes (%lld centroids), %d links, %d counties, %lld links without "
        "county, %.1fs\n",
        now_hms(), net.node_count(), centroids, net.link_count(),
        static_cast<int>(net.county_names.size()), no_county, seconds_since(t0));

    apply_discharge_factors(config, net);
    if (config.signal_model) {
        const long long changed = apply_signal_model(net, config);
        progress(
            "[%s][signal] model applied to %lld signalized links (sat=%.0f vphpl, C=%.0fs, "
            "g/C=%.2f)\n",
            now_hms(), changed, config.signal_sat_flow, config.signal_cycle, config.signal_gc);
    }
    apply_static_settings(config, net);
    select_node_model(config);
    assign_flow_tiers(config, net);
    apply_micro_tags(config, net);
    apply_storage(config, net);
    const CountyAdjacency adjacency = build_county_adjacency(net);
    TurnTable turns;
    if (!config.turn_prohibition_file.empty())
        print_turn_summary(load_turns(config.turn_prohibition_file, net, turns));

    t0 = Clock::now();
    TripTable trips;
    const TripLoadSummary loaded =
        load_trips(config.trip_file, net, trips, config.max_trips, adjacency, config.sample_every);
    print_trip_summary(loaded, trips, seconds_since(t0));
    if (loaded.rows_loaded == 0) {
        std::fprintf(stderr, "no trips loaded\n");
        return 1;
    }
    if (!config.county_filter.empty() && !apply_county_filter(config, net, trips)) return 1;
    apply_segment_params(config, trips);
    set_side_output_paths(config);
    load_toll_inputs(config, net);

    write_resolution_map(config, net);
    std::vector<int32_t> resumed_paths;
    if (!config.resume_from.empty() && !resume_from_checkpoint(config, trips, net, resumed_paths))
        return 1;
    apply_market_scale(config, trips);

    AssignmentState state;
    prepare_assignment(state, net, trips, adjacency, config, &turns);
    state.path_arena.swap(resumed_paths);
    if (!config.trace_agents.empty()) find_traced_agents(config, trips, state);
    run_assignment(state);

    convert_volumes_to_vehicles(net, trips, state.path_arena);
    write_outputs(config, state);
    check_path_continuity(net, trips, state.path_arena, config.output_directory);
    if (config.node_conservation) write_node_conservation_report(config, state);

    const double t = seconds_since(run_start);
    progress("[%s] Morvane DTA run complete -- total runtime %s (%.1fs)\n", now_hms(),
             runtime_text(t).c_str(), t);
    return 0;
}

}  // namespace

int run_torvex(int argc, char** argv) {
    RunConfig config;
    const int code = parse_arguments(config, argc, argv);
    if (code >= 0) return code;
    if (config.node_file.empty() || config.link_file.empty() || config.trip_file.empty()) {
        print_usage();
        return 2;
    }
    try {
        return run_phases(config);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    }
}

}  // namespace torvex
