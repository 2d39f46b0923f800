#include "node/node_conservation.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "node/node_model.h"
#include "report/outputs.h"
#include "run/log.h"

namespace torvex {

namespace {

// Day's volume over a node's links: each link's intervals summed in order, then the links.
double day_volume(const Network& network, const std::vector<int32_t>& links) {
    double sum = 0.0;
    for (const int32_t l : links) {
        double day = 0.0;
        for (int v = 0; v < kIntervals; ++v) day += network.links[l].volume[v];
        sum += day;
    }
    return sum;
}

bool is_interior(const Network& network, const Node& node) {
    if (node.is_centroid || node.in_links.empty() || node.out_links.empty()) return false;
    for (const int32_t l : node.in_links)
        if (network.links[l].is_connector) return false;
    for (const int32_t l : node.out_links)
        if (network.links[l].is_connector) return false;
    return true;
}

}  // namespace

ImbalanceStats measure_node_imbalance(const Network& network, const std::string& csv_path,
                                      double csv_threshold) {
    FILE* out = csv_path.empty() ? nullptr : std::fopen(csv_path.c_str(), "w");
    if (out) std::fputs("node_id,sum_in,sum_out,imbalance\n", out);
    ImbalanceStats s;
    for (const Node& node : network.nodes) {
        if (!is_interior(network, node)) continue;
        const double sum_in = day_volume(network, node.in_links);
        const double sum_out = day_volume(network, node.out_links);
        const double imbalance = std::fabs(sum_in - sum_out);
        ++s.interior_nodes;
        s.total += imbalance;
        s.over_5k += imbalance > 5000.0;
        s.over_20k += imbalance > 20000.0;
        s.over_50k += imbalance > 50000.0;
        if (imbalance > s.worst) {
            s.worst = imbalance;
            s.worst_node = node.node_id;
        }
        if (out && imbalance >= csv_threshold)
            std::fprintf(out, "%lld,%.1f,%.1f,%.1f\n", static_cast<long long>(node.node_id), sum_in,
                         sum_out, sum_in - sum_out);
    }
    if (out) std::fclose(out);
    return s;
}

void write_node_conservation_report(const RunConfig& config, AssignmentState& state) {
    const auto start = std::chrono::steady_clock::now();
    Network& net = *state.network;
    const TripTable& trips = *state.trips;
    const std::string& dir = config.output_directory;
    const ImbalanceStats macro =
        measure_node_imbalance(net, dir + "/node_conservation_macro.csv", 5000.0);

    // The report's own load: its receiving mode, and neither the assignment's injection
    // resolution nor its interval turns.
    NodeLoadParams p;
    p.dt_sec = config.node_dt;
    p.spatial_receiving = config.node_receiving_spatial;
    p.method = config.node_method;
    p.max_delay_min = 1440.0f;
    p.blend = 1.0f;
    p.inject_res_min = 15.0f;
    p.interval_turns = false;
    run_node_dnl(net, trips, state.path_arena, p, nullptr);
    convert_volumes_to_vehicles(net, trips, state.path_arena);

    const ImbalanceStats node =
        measure_node_imbalance(net, dir + "/node_conservation_nodemodel.csv", 5000.0);
    write_link_performance(dir + "/link_performance_nodeDTA.csv", net, trips, state.path_arena,
                           config.link_volume_breakdown, LinkOutputScope::all);

    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    progress(
        "[%s][node-conservation] receiving=%s dt=%.0fs, interior nodes=%d (%.1fs)\n"
        "   imbalance |Sin-Sout|        macro(independent)   node-model\n"
        "     nodes > 5k/day            %12d   %12d\n"
        "     nodes > 20k/day           %12d   %12d\n"
        "     nodes > 50k/day           %12d   %12d\n"
        "     worst node imbalance      %12.0f   %12.0f\n"
        "     total |imbalance| (veh)   %12.0f   %12.0f\n"
        "   -> node_conservation_{macro,nodemodel}.csv, link_performance_nodeDTA.csv\n",
        now_hms(), config.node_receiving_spatial ? "spatial(LTM)" : "point-queue",
        static_cast<double>(config.node_dt), macro.interior_nodes, seconds, macro.over_5k,
        node.over_5k, macro.over_20k, node.over_20k, macro.over_50k, node.over_50k, macro.worst,
        node.worst, macro.total, node.total);
}

}  // namespace torvex
