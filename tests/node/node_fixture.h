// Hand-made networks with fixed paths for the node-model tests.
#pragma once

#include <cstdint>
#include <vector>

#include "input/network.h"
#include "input/trip_table.h"
#include "node/node_model.h"

namespace torvex::fixture {

struct LinkSpec {
    float capacity_vph = 3600;
    float free_flow_min = 1;
    float storage_veh = 10000;
    float length_mi = 1;
    float speed_mph = 60;
    uint8_t lanes = 1;
};

struct NodeCase {
    Network net;
    TripTable trips;
    std::vector<int32_t> arena;

    explicit NodeCase(int n_nodes) {
        net.nodes.resize(n_nodes);
        for (int i = 0; i < n_nodes; ++i) net.nodes[i].node_id = 100 + i;
    }

    int32_t link(int from, int to, const LinkSpec& s = {}) {
        Link l{};
        l.from = from;
        l.to = to;
        l.a_node = net.nodes[from].node_id;
        l.b_node = net.nodes[to].node_id;
        l.lanes = s.lanes;
        l.length_mi = s.length_mi;
        l.speed_mph = s.speed_mph;
        l.free_flow_min = s.free_flow_min;
        l.capacity_vph = l.discharge_vph = s.capacity_vph;
        l.storage_veh = s.storage_veh;
        for (int i = 0; i < kIntervals; ++i) l.travel_time_min[i] = s.free_flow_min;
        net.links.push_back(l);
        build_adjacency(net);
        return net.link_count() - 1;
    }

    int32_t key(const std::vector<int32_t>& path, int slot, float weight, int segment = 0) {
        RouteKey k;
        k.origin = net.links[path.front()].from;
        k.dest = net.links[path.back()].to;
        k.slot = static_cast<uint8_t>(slot);
        k.segment = static_cast<uint8_t>(segment);
        k.weight = weight;
        k.path_offset = static_cast<int64_t>(arena.size());
        k.n_links = static_cast<int32_t>(path.size());
        arena.insert(arena.end(), path.begin(), path.end());
        trips.route_keys.push_back(k);
        return static_cast<int32_t>(trips.route_keys.size()) - 1;
    }

    NodeLoadTotals load(const NodeLoadParams& p, const PathOverlay* overlay = nullptr) {
        return run_node_dnl(net, trips, arena, p, overlay);
    }

    double volume_sum(int32_t l) const {
        double s = 0;
        for (int i = 0; i < kIntervals; ++i) s += net.links[l].volume[i];
        return s;
    }
};

inline NodeLoadParams node_params(uint8_t method, bool spatial, float dt = 60.0f,
                                  float inject_res = 15.0f) {
    NodeLoadParams p;
    p.method = method;
    p.spatial_receiving = spatial;
    p.dt_sec = dt;
    p.inject_res_min = inject_res;
    return p;
}

}  // namespace torvex::fixture
