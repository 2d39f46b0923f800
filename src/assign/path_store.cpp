// Building the assignment state: references to the run's records, the loop-local settings and
// the route groups, fixed for the whole run.
#include <omp.h>

#include <unordered_map>

#include "assign/assignment_state.h"

namespace torvex {

namespace {

// Origin, slot and segment in one word; slots stay below 128 and segments below 32.
inline uint64_t group_identity(const RouteKey& k) {
    return (((static_cast<uint64_t>(static_cast<uint32_t>(k.origin)) << 7) | k.slot) << 5) |
           k.segment;
}

void build_route_groups(const TripTable& trips, std::vector<RouteGroup>& groups) {
    groups.clear();
    std::unordered_map<uint64_t, int32_t> lookup;
    lookup.reserve(trips.route_keys.size() / 4 + 16);
    const int32_t n = static_cast<int32_t>(trips.route_keys.size());
    for (int32_t k = 0; k < n; ++k) {
        const RouteKey& key = trips.route_keys[k];
        auto [it, inserted] =
            lookup.try_emplace(group_identity(key), static_cast<int32_t>(groups.size()));
        if (inserted) {
            RouteGroup g;
            g.origin = key.origin;
            g.slot = key.slot;
            g.segment = key.segment;
            groups.push_back(std::move(g));
        }
        groups[it->second].keys.push_back(k);
    }
}

}  // namespace

void prepare_assignment(AssignmentState& state, Network& network, TripTable& trips,
                        const CountyAdjacency& adjacency, const RunConfig& config,
                        const TurnTable* turn_table) {
    state.network = &network;
    state.trips = &trips;
    state.adjacency = &adjacency;
    state.turns = turn_table;
    state.config = config;

    state.load.network = &network;
    state.load.ltm_max_spillback_min = config.assignment.ltm_max_spillback_min;
    if (config.assignment.threads > 0) omp_set_num_threads(config.assignment.threads);

    state.frozen = false;
    state.node_every = config.assignment.node_refresh_every;
    state.load_every = 1;
    state.node_mode = config.assignment.node_mode;
    state.incremental_load = config.assignment.load_refresh;

    build_route_groups(trips, state.groups);
}

}  // namespace torvex
