// A small in-memory road network for the side-table and toll tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "input/network.h"

namespace torvex::fixture {

struct TestLink {
    int64_t a, b;
    int lanes = 1;
    float discharge_vph = 1800.0f;
};

// Nodes with the given file ids, links in the order given, adjacency built.
inline Network side_network(const std::vector<int64_t>& node_ids,
                            const std::vector<TestLink>& links) {
    Network net;
    for (int64_t id : node_ids) {
        net.node_index.emplace(id, static_cast<int32_t>(net.nodes.size()));
        Node n;
        n.node_id = id;
        net.nodes.push_back(n);
    }
    for (const TestLink& t : links) {
        Link l{};
        l.a_node = t.a;
        l.b_node = t.b;
        l.from = net.node_index.at(t.a);
        l.to = net.node_index.at(t.b);
        l.lanes = static_cast<uint8_t>(t.lanes);
        l.discharge_vph = t.discharge_vph;
        l.capacity_vph = t.discharge_vph;
        net.links.push_back(l);
    }
    build_adjacency(net);
    return net;
}

}  // namespace torvex::fixture
