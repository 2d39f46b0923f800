// Small hand-made and random networks for the router and routing-pass tests.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "assign/router.h"
#include "input/network.h"

namespace torvex::fixture {

// The router's view of a network as it stands.
inline RouterGraph graph_of(const Network& net) {
    RouterGraph g;
    build_router_graph(net, g);
    return g;
}

inline Network make_nodes(int n, int counties = 0) {
    Network net;
    net.nodes.resize(n);
    for (int i = 0; i < n; ++i) net.nodes[i].node_id = 1000 + i;
    for (int c = 0; c < counties; ++c) {
        net.county_names.push_back("C" + std::to_string(c));
        net.county_index[net.county_names.back()] = static_cast<uint16_t>(c);
    }
    return net;
}

// Adds a link with the same travel time in every interval; call build_adjacency afterwards.
inline int32_t add_link(Network& net, int from, int to, float tt, uint16_t county = kNoCounty) {
    Link l{};
    l.from = from;
    l.to = to;
    l.a_node = net.nodes[from].node_id;
    l.b_node = net.nodes[to].node_id;
    l.county = county;
    l.ftype = 21;
    l.length_mi = tt * 0.5f;
    l.free_flow_min = tt;
    l.discharge_vph = 1800;
    l.capacity_vph = 1800;
    l.storage_veh = 100;
    for (int i = 0; i < kIntervals; ++i) {
        l.travel_time_min[i] = tt;
        l.volume[i] = l.inflow[i] = l.queue_veh[i] = 0;
    }
    net.links.push_back(l);
    return net.link_count() - 1;
}

enum class Tables { kRandom, kFifo, kStatic };

// A random directed graph with per-interval travel times, tolls, counties, ftypes, truck bars and
// centroids; node 0 is a centroid origin. kFifo tables never fall from one interval to the next
// (a later start never arrives earlier); kStatic tables are the same in every interval.
inline Network random_network(std::mt19937& rng, int n_nodes, int n_links, int counties,
                              Tables tables = Tables::kRandom) {
    Network net = make_nodes(n_nodes, counties);
    std::uniform_int_distribution<int> node(0, n_nodes - 1);
    std::uniform_real_distribution<float> tt(0.3f, 25.0f);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int i = 0; i < n_nodes; ++i) {
        net.nodes[i].is_centroid = i == 0 || unit(rng) < 0.15f;
        net.nodes[i].county = static_cast<uint16_t>(counties > 0 ? i % counties : kNoCounty);
    }
    // A spanning chain first, so that most nodes are reachable.
    for (int i = 1; i < n_nodes && net.link_count() < n_links; ++i) {
        add_link(net, node(rng) % i, i, tt(rng));
    }
    while (net.link_count() < n_links) {
        int a = node(rng), b = node(rng);
        if (a == b) continue;
        add_link(net, a, b, tt(rng));
    }
    for (Link& l : net.links) {
        for (int i = 0; i < kIntervals; ++i) {
            if (tables == Tables::kRandom || i == 0) {
                l.travel_time_min[i] = tt(rng);
            } else if (tables == Tables::kFifo) {
                l.travel_time_min[i] = l.travel_time_min[i - 1] + unit(rng) * 0.5f;
            } else {
                l.travel_time_min[i] = l.travel_time_min[0];
            }
        }
        l.toll = unit(rng) < 0.3f ? unit(rng) * 4.0f : 0.0f;
        l.length_mi = 0.1f + unit(rng) * 3.0f;
        l.no_trucks = unit(rng) < 0.1f;
        l.ftype = static_cast<uint16_t>(unit(rng) < 0.1f ? 200 : 10 + (node(rng) % 80));
        if (counties > 0) {
            l.county =
                unit(rng) < 0.1f ? kNoCounty : static_cast<uint16_t>(net.nodes[l.from].county);
        }
    }
    build_adjacency(net);
    return net;
}

}  // namespace torvex::fixture
