// Conserving node model: routed demand pushed through the whole network in fixed time steps, so
// that at every node what leaves the incoming links enters the outgoing links or leaves the
// network. Two methods share one preparation: queue stepping (link FIFOs of travelling vehicles)
// and the cumulative method (upstream and downstream vehicle curves read back at lagged times).
#pragma once

#include <cstdint>
#include <vector>

#include "assign/assignment_state.h"

namespace torvex {

// The one argument record of a node-model load.
struct NodeLoadParams {
    float dt_sec = 60.0f;           // step length; below 1 the step is 1 second
    bool spatial_receiving = true;  // receiving also bounded by free storage
    uint8_t method = 1;             // 0 queue stepping, 1 cumulative
    float max_delay_min = 1440.0f;  // bound of the congestion delay written into a link
    float blend = 1.0f;             // weight of the new travel times; 1 replaces them
    float inject_res_min = 15.0f;   // resolution of the departure spreading
    bool interval_turns = false;    // per-interval turn shares (queue stepping only)
};

// What one load pushed through, in PCE.
struct NodeLoadTotals {
    double injected = 0;
    double exited = 0;
    double on_network_end = 0;  // still on a link at the horizon (parked)
};

// Loads every key's path (the overlay's new path where it has one) with the chosen method and
// rewrites travel_time_min, volume and queue_veh of every link that carried demand. Prints the
// conservation line when blend is at least 0.999.
NodeLoadTotals run_node_dnl(Network& network, const TripTable& trips,
                            const std::vector<int32_t>& path_arena, const NodeLoadParams& params,
                            const PathOverlay* overlay);

// The parameters of the assignment's node model (NODE_DT, receiving mode, NODE_METHOD,
// NODE_INJECT_RES, NODE_TURNS) with the given blend.
NodeLoadParams node_load_params(const AssignmentState& state, float blend);

// ---- Shared by the two methods ----

// One movement out of a link: share of the link's vehicles that turn into to_link.
struct TurnShare {
    int32_t to_link = 0;
    int32_t to_pos = 0;     // to_link's position among the active links
    int32_t movement = -1;  // dense movement number, -1 without interval turns
    float share = 0;
};

struct Injection {
    int32_t link = 0;
    int32_t pos = -1;  // position among the active links, -1 for a link that carries nothing
    double veh = 0;
};

// Demand tables and active sets of one load. Per-link tables are indexed by a link's position
// (pos_link, dense); node lists hold positions too.
struct NodePrep {
    float dt = 60.0f;
    int32_t num_steps = 0;

    std::vector<int32_t> active_links;  // ascending link indices
    std::vector<int32_t> pos_link;      // position -> link: grouped by head node
    std::vector<int32_t> dense;         // link index -> position, or -1
    std::vector<int32_t> active_nodes;  // head nodes in order of first appearance

    std::vector<double> cap_step;  // vehicles per step
    std::vector<double> storage;   // vehicles
    std::vector<float> exit_share;
    std::vector<int32_t> turn_begin;  // CSR into turns, size active + 1
    std::vector<TurnShare> turns;

    // Per active node (same order as active_nodes): its active in- and out-links.
    std::vector<int32_t> node_in_begin, node_in;
    std::vector<int32_t> node_out_begin, node_out;

    std::vector<int64_t> inject_begin;  // CSR by step, size num_steps + 1
    std::vector<Injection> inject;

    // Per-interval shares, present when interval turns are on and a movement exists.
    bool has_interval_turns = false;
    std::vector<float> turn_iv;   // movement * 120 + interval
    std::vector<float> exit_iv;   // position * 120 + interval
    std::vector<uint8_t> has_iv;  // position * 120 + interval
};

void prepare_node_load(const Network& network, const TripTable& trips,
                       const std::vector<int32_t>& path_arena, const NodeLoadParams& params,
                       const PathOverlay* overlay, NodePrep& prep);

NodeLoadTotals run_queue_stepping(Network& network, const NodeLoadParams& params,
                                  const NodePrep& prep);
NodeLoadTotals run_cumulative(Network& network, const NodeLoadParams& params, const NodePrep& prep);

// Below this many active links a load runs on one thread: the per-step barriers would cost more
// than the work they share.
constexpr int32_t kNodeParallelLinks = 2048;

// Prints the conservation line under the method's tag ("node-dnl" or "node-dnl/cumulative").
void print_conservation(const char* tag, const NodeLoadTotals& totals);

// Closing writes of one active link. backlog and discharge are read at v * stride for interval
// v; the mean queue of the interval is backlog / per_interval.
void write_link_results(Link& link, const double* backlog, const double* discharge, size_t stride,
                        double per_interval, float blend, float max_delay_min);

}  // namespace torvex
