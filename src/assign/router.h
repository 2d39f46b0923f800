// Time-dependent least generalized-cost trees: one origin, one departure minute, one traveller
// class, link costs read at the clock time the traveller reaches each link. Per-thread stamped
// scratch, an array-backed heap with lazy deletion, and an early stop at the last target.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "assign/assignment_state.h"
#include "input/network.h"
#include "input/trip_table.h"

namespace torvex {

// Heap order: smaller cost first, then smaller node, so trees do not depend on the thread.
struct HeapEntry {
    float cost = 0;
    int32_t node = 0;
};

// One routing thread's working memory, never shared. The node arrays are never cleared: a stamp
// that differs from `version` means "not in this tree".
struct RouteScratch {
    std::vector<float> label_cost;
    std::vector<float> label_time;
    std::vector<int32_t> pred_link;
    std::vector<uint32_t> label_stamp;
    std::vector<uint32_t> target_stamp;
    std::vector<uint8_t> target_settled;
    uint32_t version = 0;

    // Reused buffers, so that a tree allocates nothing once they have grown.
    std::vector<HeapEntry> heap;
    std::vector<int32_t> targets;
    std::vector<int32_t> path;
};

// The cost weights of one group, taken from its segment.
struct RouteWeights {
    float time_w = 1;
    float dist_w = 0;
    float toll_w = 0;
    bool bar_no_trucks = false;
    uint64_t exclude_lo = 0;  // bit f bars FTYPE f (0..63)
    uint64_t exclude_hi = 0;  // bit f bars FTYPE 64 + f (64..127)
};

RouteWeights route_weights_for_segment(const TripTable& trips, int segment);

// Sizes the six node arrays to the node count, version 0.
void init_route_scratch(RouteScratch& scratch, int32_t node_count);

// Builds the tree from `origin` leaving at `depart_min` until every distinct target is settled
// or the heap runs dry. An empty county mask allows every link. Returns the targets settled.
int32_t route_tree(const Network& net, int32_t origin, float depart_min,
                   std::span<const uint8_t> allowed_counties, std::span<const int32_t> targets,
                   RouteScratch& scratch, const RouteWeights& weights);

// Links from origin to target in travel order, read from the last tree; false when the target has
// no label or the predecessor chain is broken.
bool rebuild_path(const Network& net, const RouteScratch& scratch, int32_t origin, int32_t target,
                  std::vector<int32_t>& out);

// Generalized cost of a stored path under the current link table (tolls always evaluated).
float path_cost(const Network& net, const int32_t* links, int32_t n, float depart_min, float time_w,
                float dist_w, float toll_w);

// What one thread needs to route the keys of one group.
struct RouteJob {
    const Network* network = nullptr;
    TripTable* trips = nullptr;
    const RouteGroup* group = nullptr;
    RouteScratch* scratch = nullptr;
    RouteWeights weights;
    float depart_min = 0;
    float reroute_threshold_min = 0;
    bool force = false;
    PathOverlay* overlay = nullptr;  // new paths are recorded under `thread`
    int32_t thread = 0;
    std::vector<int32_t>* retry = nullptr;  // keys unreached in a narrower stage
    int64_t* unreachable = nullptr;         // keys that failed the widest stage
};

// Routes one tree for `key_ids` (keys of job.group) and decides, key by key, whether the tree's
// path is taken into the overlay.
void route_key_set(RouteJob& job, std::span<const int32_t> key_ids,
                   std::span<const uint8_t> allowed_counties, bool last_stage);

}  // namespace torvex
