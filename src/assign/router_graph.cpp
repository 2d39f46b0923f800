#include "assign/router.h"

namespace torvex {

void build_router_graph(const Network& net, RouterGraph& g) {
    const int32_t n_nodes = net.node_count();
    g.first_edge.assign(static_cast<size_t>(n_nodes) + 1, 0);
    g.edges.clear();
    g.edges.reserve(net.links.size());
    g.edge_cost.clear();
    g.edge_cost.reserve(net.links.size());
    g.centroid.assign(static_cast<size_t>(n_nodes), 0);
    for (int32_t u = 0; u < n_nodes; ++u) {
        const Node& node = net.nodes[u];
        g.first_edge[u] = static_cast<int32_t>(g.edges.size());
        g.centroid[u] = node.is_centroid;
        for (const int32_t li : node.out_links) {
            const Link& l = net.links[li];
            RouterEdge e;
            e.to = l.to;
            e.link = li;
            e.county = l.county;
            e.ftype = l.ftype;
            e.no_trucks = l.no_trucks;
            e.priced = l.toll_policy != 0;
            g.edges.push_back(e);
            g.edge_cost.push_back(RouterEdgeCost{l.length_mi, l.toll});
        }
    }
    g.first_edge[n_nodes] = static_cast<int32_t>(g.edges.size());
    refresh_router_times(net, g);
}

void refresh_router_times(const Network& net, RouterGraph& g) {
    const int64_t n = g.edge_count();
    g.tt.resize(static_cast<size_t>(n) * kIntervals);
    // Blocks of 16 edges: each interval row gets one cache line of the block at a time.
    constexpr int64_t kBlock = 16;
    const int64_t blocks = (n + kBlock - 1) / kBlock;
#pragma omp parallel for schedule(static) if (n > 4096)
    for (int64_t b = 0; b < blocks; ++b) {
        const int64_t lo = b * kBlock, hi = std::min(n, lo + kBlock);
        for (int i = 0; i < kIntervals; ++i) {
            float* row = g.tt.data() + static_cast<size_t>(i) * static_cast<size_t>(n);
            for (int64_t e = lo; e < hi; ++e)
                row[e] = net.links[g.edges[e].link].travel_time_min[i];
        }
    }
}

}  // namespace torvex
