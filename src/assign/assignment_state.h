// What the whole assignment shares: route groups, the path arena, the pass overlay, the link
// loading context and the per-iteration settings, reached through one AssignmentState.
#pragma once

#include <cstdint>
#include <vector>

#include "input/network.h"
#include "input/trip_table.h"
#include "run/run_config.h"

namespace torvex {

struct TurnTable;

// Keys that share one routing tree: same origin, departure slot and segment.
struct RouteGroup {
    int32_t origin = 0;
    uint8_t slot = 0;
    uint8_t segment = 0;
    std::vector<int32_t> keys;  // ascending key indices
};

// New paths found by a pass and not yet merged into path_arena. Lives for one pass.
struct PathOverlay {
    std::vector<int8_t> owner;         // per key: thread holding its new path, -1 for none
    std::vector<uint64_t> new_offset;  // per key: start in that thread's arena
    std::vector<int32_t> new_len;      // per key
    std::vector<std::vector<int32_t>> thread_arena;  // one per thread, paths in the order found
};

struct LinkLoadContext {
    Network* network = nullptr;
    float ltm_max_spillback_min = 20.0f;
    // Per-thread tables of the full load, kept between loads so that a refresh allocates nothing.
    mutable std::vector<std::vector<float>> private_tables;
};

// One iteration's figures; a routing pass fills rerouted and unreachable.
struct IterationRecord {
    int32_t iter = 0;
    double rel_gap = 0;
    double cost = 0;  // sum of imped * weight over counted keys
    double gap = 0;   // sum of gap * weight over counted keys
    int64_t rerouted = 0;
    int64_t unreachable = 0;
    int64_t stable_keys = 0;
    double stable_pct = 0;
    double pass_seconds = 0;
};

// A traced agent found in the trip table.
struct TraceRequest {
    int64_t agent_id = 0;
    int32_t route_key = -1;
};

struct AssignmentState {
    Network* network = nullptr;
    TripTable* trips = nullptr;
    const CountyAdjacency* adjacency = nullptr;
    const TurnTable* turns = nullptr;
    RunConfig config;
    LinkLoadContext load;

    std::vector<int32_t> path_arena;  // every key's current path, compact, in key order
    std::vector<RouteGroup> groups;   // in order of first appearance, fixed for the run
    std::vector<float> volume_table;  // path load of the latest load, link * 120 + interval
    std::vector<TraceRequest> traced;

    // Per-iteration plan, set by the equilibrium loop or the static solver.
    int32_t node_every = 0;  // 0 once after the pass, n every nth chunk and the last
    int32_t load_every = 1;  // 0 last chunk only, n every nth chunk and the last
    bool frozen = false;     // no load refresh during a pass (static solver)
    uint8_t node_mode = 0;   // 0 link loaders, 1 point-queue node model, 2 spatial node model
    bool incremental_load = false;
    int32_t meso_links = 0;
};

// Builds the state once per run, after any resume; groups are fixed from here on.
void prepare_assignment(AssignmentState& state, Network& network, TripTable& trips,
                        const CountyAdjacency& adjacency, const RunConfig& config,
                        const TurnTable* turn_table);

// Departure minute that represents a key's slot: the middle of the slot.
inline float slot_depart_min(const TripTable& trips, int slot) {
    return static_cast<float>(slot) * trips.slot_minutes + trips.slot_minutes * 0.5f;
}

}  // namespace torvex
