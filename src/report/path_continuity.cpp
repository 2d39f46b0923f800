// path_breaks.csv: consecutive links of a stored path that do not meet at a node.
#include "report/csv_out.h"
#include "report/outputs.h"
#include "run/log.h"

namespace torvex {

int64_t check_path_continuity(const Network& network, const TripTable& trips,
                              const std::vector<int32_t>& path_arena, const std::string& out_dir) {
    constexpr long long kMaxRows = 100000;  // rows stop here; the counting goes on
    CsvOut out;
    csv_open(out, out_dir + "/path_breaks.csv", size_t{1} << 20);
    csv_text(out, "origin,dest,slot,break_pos,link_a_node,link_a_bnode,next_a_node,next_b_node\n");
    long long checked = 0, marked = 0, breaks = 0, rows = 0;
    for (const RouteKey& k : trips.route_keys) {
        if (k.path_offset < 0 || k.n_links < 2) continue;
        ++checked;
        const int32_t* path = path_arena.data() + k.path_offset;
        bool broken = false;
        for (int32_t p = 0; p + 1 < k.n_links; ++p) {
            const Link& a = network.links[path[p]];
            const Link& b = network.links[path[p + 1]];
            if (a.to == b.from) continue;
            broken = true;
            ++breaks;
            if (rows < kMaxRows) {
                ++rows;
                csv_printf(out, "%lld,%lld,%d,%d,%lld,%lld,%lld,%lld\n",
                           static_cast<long long>(network.nodes[k.origin].node_id),
                           static_cast<long long>(network.nodes[k.dest].node_id),
                           static_cast<int>(k.slot), p, static_cast<long long>(a.a_node),
                           static_cast<long long>(a.b_node), static_cast<long long>(b.a_node),
                           static_cast<long long>(b.b_node));
            }
        }
        marked += broken;
    }
    csv_close(out);
    progress("[continuity] %lld of %lld key-paths have a break (%lld total breaks). %s\n", marked,
             checked, breaks,
             marked > 0 ? "ROUTER DEFECT: paths teleport across nodes."
                        : "Paths are continuous -> conservation gaps are network coding, not the "
                          "router.");
    return marked;
}

}  // namespace torvex
