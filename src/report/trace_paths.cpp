// trace_paths.csv: the full path of each traced agent with entry times, once per iteration.
#include <stdexcept>

#include "report/csv_out.h"
#include "report/outputs.h"

namespace torvex {

namespace {

void append_traces(CsvOut& out, const AssignmentState& state, int32_t iteration) {
    const Network& net = *state.network;
    const TripTable& trips = *state.trips;
    for (const TraceRequest& req : state.traced) {
        if (req.route_key < 0) continue;
        const RouteKey& k = trips.route_keys[req.route_key];
        if (k.path_offset < 0) continue;
        const long long origin = net.nodes[k.origin].node_id;
        const long long dest = net.nodes[k.dest].node_id;
        // Entry times run from the middle of the slot, with no stop at the horizon.
        float t = slot_depart_min(trips, k.slot);
        for (int32_t j = 0; j < k.n_links; ++j) {
            const Link& l = net.links[state.path_arena[k.path_offset + j]];
            const float tt = l.travel_time_min[interval_of(t)];
            const char* county = l.county != kNoCounty && l.county < net.county_names.size()
                                     ? net.county_names[l.county].c_str()
                                     : "";
            csv_printf(out, "%d,%lld,%lld,%lld,%d,%d,%lld,%lld,%s,%.2f,%.3f\n", iteration,
                       static_cast<long long>(req.agent_id), origin, dest, static_cast<int>(k.slot),
                       j, static_cast<long long>(l.a_node), static_cast<long long>(l.b_node),
                       county, t, tt);
            t += tt;
        }
    }
}

}  // namespace

void write_trace_paths(const AssignmentState& state, int32_t iteration) {
    const std::string& path = state.config.assignment.trace_path;
    if (path.empty() || state.traced.empty()) return;
    // A diagnostic: a file that cannot be opened or written is skipped without a word.
    CsvOut out;
    if (!csv_try_open(out, path, iteration == 0 ? "w" : "a", size_t{1} << 16)) return;
    try {
        if (iteration == 0)
            csv_text(out,
                     "iteration,agent_id,origin,dest,depart_slot,link_seq,a_node,b_node,county,"
                     "entry_min,link_tt_min\n");
        append_traces(out, state, iteration);
        csv_close(out);
    } catch (const std::runtime_error&) {
    }
}

}  // namespace torvex
