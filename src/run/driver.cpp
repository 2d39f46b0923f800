#include "run/driver.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "input/network.h"
#include "run/log.h"
#include "run/run_config.h"

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

int run_phases(RunConfig& config) {
    std::filesystem::create_directories(config.output_directory);
    const Clock::time_point run_start = Clock::now();
    progress("[%s] Morvane DTA run started\n", now_hms());

    Clock::time_point t0 = Clock::now();
    Network net = load_network(config.node_file, config.link_file);
    long long centroids = 0, no_county = 0;
    for (const Node& n : net.nodes) centroids += n.is_centroid;
    for (const Link& l : net.links) no_county += l.county == kNoCounty;
    progress("[%s][network] %d nodes (%lld centroids), %d links, %d counties, %lld links without "
             "county, %.1fs\n",
             now_hms(), net.node_count(), centroids, net.link_count(),
             static_cast<int>(net.county_names.size()), no_county, seconds_since(t0));

    apply_discharge_factors(config, net);
    if (config.signal_model) {
        const long long changed = apply_signal_model(net, config);
        progress("[%s][signal] model applied to %lld signalized links (sat=%.0f vphpl, C=%.0fs, "
                 "g/C=%.2f)\n",
                 now_hms(), changed, config.signal_sat_flow, config.signal_cycle, config.signal_gc);
    }
    apply_static_settings(config, net);
    select_node_model(config);
    assign_flow_tiers(config, net);
    apply_micro_tags(config, net);
    apply_storage(config, net);
    const CountyAdjacency adjacency = build_county_adjacency(net);
    (void)adjacency;

    set_side_output_paths(config);
    write_resolution_map(config, net);

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
