// Entry point of the node model and the closing shared by both methods.
#include "node/node_model.h"

#include <algorithm>
#include <cstdio>

namespace torvex {

NodeLoadTotals run_node_dnl(Network& network, const TripTable& trips,
                            const std::vector<int32_t>& path_arena, const NodeLoadParams& params,
                            const PathOverlay* overlay) {
    NodePrep prep;
    prepare_node_load(network, trips, path_arena, params, overlay, prep);
    if (params.method == 1) return run_cumulative(network, params, prep);
    return run_queue_stepping(network, params, prep);
}

NodeLoadParams node_load_params(const AssignmentState& state, float blend) {
    const AssignmentSettings& a = state.config.assignment;
    NodeLoadParams p;
    p.dt_sec = a.node_dt;
    p.spatial_receiving = state.node_mode == 2;
    p.method = a.node_cumulative ? 1 : 0;
    p.max_delay_min = 1440.0f;
    p.blend = blend;
    p.inject_res_min = a.node_inject_res;
    p.interval_turns = a.node_turns;
    return p;
}

void print_conservation(const char* tag, const NodeLoadTotals& t) {
    const double balance = t.injected - t.exited - t.on_network_end;
    const bool any = t.injected > 0.0;
    const double balance_pct = any ? balance * 100.0 / t.injected : 0.0;
    const double parked_pct = any ? t.on_network_end * 100.0 / t.injected : 0.0;
    std::fprintf(stderr,
                 "[%s] conservation: injected=%.0f exited=%.0f on_network_end=%.0f (%.2f%% parked) "
                 "| balance=%.1f veh (%.5f%%)\n",
                 tag, t.injected, t.exited, t.on_network_end, parked_pct, balance, balance_pct);
    std::fflush(stderr);
}

void write_link_results(Link& link, const double* backlog, const double* discharge, size_t stride,
                        double per_interval, float blend, float max_delay_min) {
    const double cap_min = std::max(0.001, static_cast<double>(link.discharge_vph) / 60.0);
    for (int v = 0; v < kIntervals; ++v) {
        const size_t at = static_cast<size_t>(v) * stride;
        const double q = backlog[at] / per_interval;
        const double delay = std::min(static_cast<double>(max_delay_min), q / cap_min);
        link.travel_time_min[v] = (static_cast<float>(delay) + link.free_flow_min) * blend +
                                  (1.0f - blend) * link.travel_time_min[v];
        link.volume[v] = static_cast<float>(discharge[at]);
        link.queue_veh[v] = static_cast<float>(q);
    }
}

}  // namespace torvex
