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

// The router's own compact copy of the graph, next to the Link records it mirrors: out-links of
// each node side by side in link order, and the travel times interval-major, so that relaxing a
// node's links reads a few neighbouring bytes instead of one large Link record per link. Built at
// the start of a routing pass; the times are copied again whenever the link times may have moved.
struct RouterEdge {
    int32_t to = 0;
    int32_t link = 0;
    uint16_t county = 0;
    uint16_t ftype = 0;
    uint8_t no_trucks = 0;
    uint8_t priced = 0;  // a toll policy: the toll is evaluated per interval
};

// What a generalized cost adds to the time, apart so that pure-time trees never read it.
struct RouterEdgeCost {
    float length_mi = 0;
    float toll = 0;  // the flat toll when not priced
};

struct RouterGraph {
    std::vector<int32_t> first_edge;  // node -> its first edge; node count + 1 entries
    std::vector<RouterEdge> edges;
    std::vector<RouterEdgeCost> edge_cost;
    std::vector<uint8_t> centroid;
    std::vector<float> tt;  // interval * edges + edge: travel_time_min of the edge's link

    int64_t edge_count() const { return static_cast<int64_t>(edges.size()); }
};

// The whole view, times included.
void build_router_graph(const Network& net, RouterGraph& graph);
// Copies every link's travel times into the view again.
void refresh_router_times(const Network& net, RouterGraph& graph);

// One routing thread's working memory, never shared. The node arrays are never cleared: a stamp
// that differs from `version` means "not in this tree".
struct RouteScratch {
    // A node's label in one record: a relaxation reads and writes one cache line.
    struct Label {
        float cost;
        float time;
        int32_t pred_link;
        uint32_t stamp;
    };
    std::vector<Label> labels;
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

// Sizes the three node arrays to the node count, version 0.
void init_route_scratch(RouteScratch& scratch, int32_t node_count);

// Builds the tree from `origin` leaving at `depart_min` until every distinct target is settled
// or the heap runs dry. An empty county mask allows every link. Returns the targets settled.
int32_t route_tree(const Network& net, const RouterGraph& graph, int32_t origin, float depart_min,
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
    const RouterGraph* graph = nullptr;
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
