// A small network with hand-checkable demand for the result file tests: five nodes in two
// counties, a three-link route, a reverse link, a MESO link and a micro link; four route keys of
// two segments (pce 1 and 2) with their trips, paths and a PCE link load.
#pragma once

#include <algorithm>
#include <vector>

#include "assign/assignment_state.h"
#include "assign/network_loading.h"
#include "assign/test_graphs.h"

namespace torvex::fixture {

struct ReportWorld {
    Network net;
    TripTable trips;
    std::vector<int32_t> arena;

    ReportWorld() {
        net = make_nodes(5, 2);
        const uint16_t county_of_node[5] = {0, 0, 1, kNoCounty, 1};
        for (int n = 0; n < 5; ++n) net.nodes[n].county = county_of_node[n];
        add_link(net, 0, 1, 2.5f, 0);  // L0 1000->1001, 1.25 mi
        add_link(net, 1, 2, 3.0f, 1);  // L1 1001->1002
        add_link(net, 2, 3, 4.0f);     // L2 1002->1003, no county
        add_link(net, 1, 0, 2.5f, 0);  // L3 1001->1000
        add_link(net, 3, 4, 1.0f, 1);  // L4 1003->1004, MESO
        add_link(net, 4, 3, 1.0f, 1);  // L5 1004->1003, micro
        net.links[4].flow_tier = kTierMeso;
        net.links[5].dta_micro = 1;
        net.links[0].toll = 1.25f;
        build_adjacency(net);

        trips.slot_minutes = 60.0f;
        trips.segment_names = {"car", "truck"};
        trips.market_names = {"sov", "hov"};
        trips.purpose_names = {"work", "shop"};
        trips.pce[1] = 2.0f;
        trips.beta_cost[1] = 0.25f;
        trips.axles[1] = 5;
        add_key(0, 3, 8, 0, 0, {0, 1, 2});     // K0
        add_key(0, 4, 8, 1, 1, {0, 1, 2, 4});  // K1
        add_key(2, 0, 10, 0, 2, {});           // K2: never routed
        add_key(3, 4, 9, 0, 2, {4});           // K3
        trips.route_keys[0].imped = 9.5f;
        trips.route_keys[0].best_imped = 9.0f;
        trips.route_keys[0].gap = 0.5f;
        trips.route_keys[2].reachable = false;
        //       agent hh  person key vot  weight market purpose segment
        add_trip(1, 10, 101, 0, 15.0f, 1.0f, 0, 0, 0);
        add_trip(2, 10, 102, 0, 20.0f, 2.0f, 1, 1, 0);
        add_trip(3, 11, 103, 1, 40.0f, 1.0f, 0, 0, 1);
        add_trip(4, 12, 104, 2, 0.0f, 2.0f, 0, 7, 0);
        add_trip(5, 13, 105, 3, 12.0f, 1.0f, 1, 1, 0);
    }

    void add_key(int o, int d, int slot, int seg, int scope, std::vector<int32_t> path) {
        RouteKey k;
        k.origin = o;
        k.dest = d;
        k.slot = static_cast<uint8_t>(slot);
        k.segment = static_cast<uint8_t>(seg);
        k.scope = static_cast<uint8_t>(scope);
        if (!path.empty()) {
            k.path_offset = static_cast<int64_t>(arena.size());
            k.n_links = static_cast<int32_t>(path.size());
            arena.insert(arena.end(), path.begin(), path.end());
        }
        trips.route_keys.push_back(k);
    }

    void add_trip(int64_t agent, int64_t hh, int64_t person, int32_t key, float vot, float weight,
                  int market, int purpose, int segment) {
        Trip t;
        t.agent_id = agent;
        t.hh_id = hh;
        t.person_id = person;
        t.tour_id = 1;
        t.trip_id = 1;
        t.route_key = key;
        t.value_of_time = vot;
        t.weight = weight;
        t.market = static_cast<uint8_t>(market);
        t.purpose = static_cast<uint8_t>(purpose);
        t.segment = static_cast<uint8_t>(segment);
        trips.trips.push_back(t);
        trips.route_keys[key].weight += weight;
    }

    // Link volumes as the loaders leave them: the PCE path load, passed straight through.
    void load_pce() {
        LinkLoadContext ctx;
        ctx.network = &net;
        std::vector<float> table;
        load_paths_full(ctx, trips, arena, table, nullptr);
        for (int32_t l = 0; l < net.link_count(); ++l)
            std::copy_n(table.begin() + static_cast<ptrdiff_t>(l) * kIntervals, kIntervals,
                        net.links[l].volume);
    }
};

}  // namespace torvex::fixture
