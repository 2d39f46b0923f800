#include "assign/router.h"

#include <algorithm>

#include "toll/toll_tables.h"

namespace torvex {

namespace {

inline bool heap_before(const HeapEntry& a, const HeapEntry& b) {
    return a.cost < b.cost || (a.cost == b.cost && a.node < b.node);
}

inline void heap_push(std::vector<HeapEntry>& h, HeapEntry e) {
    size_t i = h.size();
    h.push_back(e);
    while (i > 0) {
        size_t parent = (i - 1) >> 1;
        if (!heap_before(e, h[parent])) break;
        h[i] = h[parent];
        i = parent;
    }
    h[i] = e;
}

inline HeapEntry heap_pop(std::vector<HeapEntry>& h) {
    HeapEntry top = h[0];
    HeapEntry last = h.back();
    h.pop_back();
    size_t n = h.size();
    if (n == 0) return top;
    size_t i = 0;
    for (;;) {
        size_t child = 2 * i + 1;
        if (child >= n) break;
        if (child + 1 < n && heap_before(h[child + 1], h[child])) ++child;
        if (!heap_before(h[child], last)) break;
        h[i] = h[child];
        i = child;
    }
    h[i] = last;
    return top;
}

template <bool kPureTime>
int32_t grow_tree(const Network& net, const RouterGraph& g, int32_t origin,
                  std::span<const uint8_t> allowed, RouteScratch& s, const RouteWeights& w,
                  int32_t target_count) {
    const uint32_t version = s.version;
    const bool masked = !allowed.empty();
    const bool filtered = w.exclude_lo != 0 || w.exclude_hi != 0;
    const bool bar = w.bar_no_trucks;
    RouteScratch::Label* labels = s.labels.data();
    const uint32_t* target_stamp = s.target_stamp.data();
    uint8_t* target_settled = s.target_settled.data();
    const int32_t* first_edge = g.first_edge.data();
    const RouterEdge* edges = g.edges.data();
    const RouterEdgeCost* edge_cost = g.edge_cost.data();
    const uint8_t* centroid = g.centroid.data();
    const float* tt_table = g.tt.data();
    const size_t n_edges = g.edges.size();
    const Link* links = net.links.data();
    std::vector<HeapEntry>& heap = s.heap;

    int32_t settled = 0;
    while (!heap.empty() && settled < target_count) {
        const HeapEntry top = heap_pop(heap);
        const int32_t u = top.node;
        const float c = top.cost;
        if (c > labels[u].cost) continue;  // stale entry of an improved label
        if (target_stamp[u] == version && target_settled[u] == 0) {
            target_settled[u] = 1;
            if (++settled == target_count) break;
        }
        // A centroid ends paths; only the origin's own connectors lead out of one.
        if (u != origin && centroid[u]) continue;
        const float t_u = labels[u].time;
        const int interval = interval_of(t_u);
        const float* tt_row = tt_table + static_cast<size_t>(interval) * n_edges;
        for (int32_t e = first_edge[u]; e < first_edge[u + 1]; ++e) {
            const RouterEdge& edge = edges[e];
            if (masked && edge.county != kNoCounty &&
                (edge.county >= allowed.size() || allowed[edge.county] == 0)) {
                continue;
            }
            if (bar && edge.no_trucks) continue;
            if (filtered && ftype_excluded(w.exclude_lo, w.exclude_hi, edge.ftype)) continue;
            const float tt = tt_row[e];
            float cost;
            if constexpr (kPureTime) {
                cost = tt;
            } else {
                const RouterEdgeCost& ec = edge_cost[e];
                const float toll =
                    edge.priced ? evaluate_toll(net, links[edge.link], interval) : ec.toll;
                cost = link_generalized_cost(toll, w.toll_w, w.dist_w, ec.length_mi, tt, w.time_w);
            }
            const float n = c + cost;
            const int32_t v = edge.to;
            RouteScratch::Label& lv = labels[v];
            if (lv.stamp == version && !(lv.cost > n)) continue;
            lv = RouteScratch::Label{n, t_u + tt, edge.link, version};
            heap_push(heap, HeapEntry{n, v});
        }
    }
    return settled;
}

}  // namespace

RouteWeights route_weights_for_segment(const TripTable& trips, int segment) {
    RouteWeights w;
    w.time_w = segment_time_weight(trips, segment);
    w.dist_w = segment_dist_weight(trips, segment);
    w.toll_w = segment_toll_weight(trips, segment);
    w.bar_no_trucks = segment_bars_trucks(trips, segment);
    w.exclude_lo = trips.exclude_lo[segment];
    w.exclude_hi = trips.exclude_hi[segment];
    return w;
}

void init_route_scratch(RouteScratch& s, int32_t node_count) {
    const size_t n = static_cast<size_t>(std::max(node_count, 0));
    s.labels.assign(n, RouteScratch::Label{0.0f, 0.0f, -1, 0u});
    s.target_stamp.assign(n, 0u);
    s.target_settled.assign(n, 0);
    s.version = 0;
}

int32_t route_tree(const Network& net, const RouterGraph& graph, int32_t origin, float depart_min,
                   std::span<const uint8_t> allowed_counties, std::span<const int32_t> targets,
                   RouteScratch& s, const RouteWeights& weights) {
    if (s.labels.empty()) init_route_scratch(s, net.node_count());
    const uint32_t version = ++s.version;

    int32_t target_count = 0;
    for (const int32_t t : targets) {
        if (s.target_stamp[t] == version) continue;
        s.target_stamp[t] = version;
        s.target_settled[t] = 0;
        ++target_count;
    }

    s.labels[origin] = RouteScratch::Label{0.0f, depart_min, -1, version};
    s.heap.clear();
    s.heap.push_back(HeapEntry{0.0f, origin});

    if (is_pure_time(weights.time_w, weights.dist_w, weights.toll_w)) {
        return grow_tree<true>(net, graph, origin, allowed_counties, s, weights, target_count);
    }
    return grow_tree<false>(net, graph, origin, allowed_counties, s, weights, target_count);
}

bool rebuild_path(const Network& net, const RouteScratch& s, int32_t origin, int32_t target,
                  std::vector<int32_t>& out) {
    out.clear();
    if (s.labels[target].stamp != s.version) return false;
    if (target == origin) return true;
    const size_t max_steps = net.nodes.size();
    int32_t node = target;
    while (node != origin) {
        const int32_t li = s.labels[node].pred_link;
        if (li < 0 || out.size() >= max_steps) {
            out.clear();
            return false;
        }
        out.push_back(li);
        node = net.links[li].from;
    }
    std::reverse(out.begin(), out.end());
    return true;
}

float path_cost(const Network& net, const int32_t* links, int32_t n, float depart_min, float time_w,
                float dist_w, float toll_w) {
    if (n < 1) return 0.0f;
    float t = depart_min;
    float sum = 0.0f;
    for (int32_t j = 0; j < n; ++j) {
        const Link& link = net.links[links[j]];
        const int i = interval_of(t);
        const float tt = link.travel_time_min[i];
        const float toll = evaluate_toll(net, link, i);
        sum += link_generalized_cost(toll, toll_w, dist_w, link.length_mi, tt, time_w);
        t += tt;
    }
    return sum;
}

void route_key_set(RouteJob& job, std::span<const int32_t> key_ids,
                   std::span<const uint8_t> allowed_counties, bool last_stage) {
    RouteScratch& s = *job.scratch;
    std::vector<RouteKey>& keys = job.trips->route_keys;
    s.targets.clear();
    if (key_ids.empty()) return;
    for (const int32_t k : key_ids) s.targets.push_back(keys[k].dest);

    const int32_t origin = job.group->origin;
    route_tree(*job.network, *job.graph, origin, job.depart_min, allowed_counties, s.targets, s,
               job.weights);

    for (const int32_t k : key_ids) {
        RouteKey& key = keys[k];
        const int32_t d = key.dest;
        const bool reached = s.labels[d].stamp == s.version && s.target_stamp[d] == s.version &&
                             s.target_settled[d] != 0;
        if (!reached) {
            if (last_stage) {
                key.reachable = false;
                ++*job.unreachable;
            } else {
                job.retry->push_back(k);
            }
            continue;
        }
        key.best_imped = s.labels[d].cost;
        const bool has_path = key.path_offset >= 0 && key.n_links >= 1;
        key.gap = has_path ? std::max(0.0f, key.imped - key.best_imped) : 0.0f;
        if (!job.force && has_path && !(key.gap > job.reroute_threshold_min)) continue;
        if (!rebuild_path(*job.network, s, origin, d, s.path)) continue;

        PathOverlay& ov = *job.overlay;
        std::vector<int32_t>& arena = ov.thread_arena[job.thread];
        ov.owner[k] = static_cast<int8_t>(job.thread);
        ov.new_offset[k] = arena.size();
        arena.insert(arena.end(), s.path.begin(), s.path.end());
        ov.new_len[k] = static_cast<int32_t>(s.path.size());
    }
}

}  // namespace torvex
