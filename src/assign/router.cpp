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
int32_t grow_tree(const Network& net, int32_t origin, std::span<const uint8_t> allowed,
                  RouteScratch& s, const RouteWeights& w, int32_t target_count) {
    const uint32_t version = s.version;
    const bool masked = !allowed.empty();
    const bool filtered = w.exclude_lo != 0 || w.exclude_hi != 0;
    const bool bar = w.bar_no_trucks;
    float* label_cost = s.label_cost.data();
    float* label_time = s.label_time.data();
    int32_t* pred_link = s.pred_link.data();
    uint32_t* label_stamp = s.label_stamp.data();
    const uint32_t* target_stamp = s.target_stamp.data();
    uint8_t* target_settled = s.target_settled.data();
    const Node* nodes = net.nodes.data();
    const Link* links = net.links.data();
    std::vector<HeapEntry>& heap = s.heap;

    int32_t settled = 0;
    while (!heap.empty() && settled < target_count) {
        const HeapEntry top = heap_pop(heap);
        const int32_t u = top.node;
        const float c = top.cost;
        if (c > label_cost[u]) continue;  // stale entry of an improved label
        if (target_stamp[u] == version && target_settled[u] == 0) {
            target_settled[u] = 1;
            if (++settled == target_count) break;
        }
        const Node& node = nodes[u];
        // A centroid ends paths; only the origin's own connectors lead out of one.
        if (u != origin && node.is_centroid) continue;
        const int interval = interval_of(label_time[u]);
        const float t_u = label_time[u];
        for (const int32_t li : node.out_links) {
            const Link& link = links[li];
            if (masked && link.county != kNoCounty &&
                (link.county >= allowed.size() || allowed[link.county] == 0)) {
                continue;
            }
            if (bar && link.no_trucks) continue;
            if (filtered && ftype_excluded(w.exclude_lo, w.exclude_hi, link.ftype)) continue;
            const float tt = link.travel_time_min[interval];
            float cost;
            if constexpr (kPureTime) {
                cost = tt;
            } else {
                cost = link_generalized_cost(evaluate_toll(net, link, interval), w.toll_w, w.dist_w,
                                             link.length_mi, tt, w.time_w);
            }
            const float n = c + cost;
            const int32_t v = link.to;
            if (label_stamp[v] == version && !(label_cost[v] > n)) continue;
            label_stamp[v] = version;
            label_cost[v] = n;
            label_time[v] = t_u + tt;
            pred_link[v] = li;
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
    s.label_cost.assign(n, 0.0f);
    s.label_time.assign(n, 0.0f);
    s.pred_link.assign(n, -1);
    s.label_stamp.assign(n, 0u);
    s.target_stamp.assign(n, 0u);
    s.target_settled.assign(n, 0);
    s.version = 0;
}

int32_t route_tree(const Network& net, int32_t origin, float depart_min,
                   std::span<const uint8_t> allowed_counties, std::span<const int32_t> targets,
                   RouteScratch& s, const RouteWeights& weights) {
    if (s.label_cost.empty()) init_route_scratch(s, net.node_count());
    const uint32_t version = ++s.version;

    int32_t target_count = 0;
    for (const int32_t t : targets) {
        if (s.target_stamp[t] == version) continue;
        s.target_stamp[t] = version;
        s.target_settled[t] = 0;
        ++target_count;
    }

    s.label_cost[origin] = 0.0f;
    s.label_time[origin] = depart_min;
    s.pred_link[origin] = -1;
    s.label_stamp[origin] = version;
    s.heap.clear();
    s.heap.push_back(HeapEntry{0.0f, origin});

    if (is_pure_time(weights.time_w, weights.dist_w, weights.toll_w)) {
        return grow_tree<true>(net, origin, allowed_counties, s, weights, target_count);
    }
    return grow_tree<false>(net, origin, allowed_counties, s, weights, target_count);
}

bool rebuild_path(const Network& net, const RouteScratch& s, int32_t origin, int32_t target,
                  std::vector<int32_t>& out) {
    out.clear();
    if (s.label_stamp[target] != s.version) return false;
    if (target == origin) return true;
    const size_t max_steps = net.nodes.size();
    int32_t node = target;
    while (node != origin) {
        const int32_t li = s.pred_link[node];
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
    route_tree(*job.network, origin, job.depart_min, allowed_counties, s.targets, s, job.weights);

    for (const int32_t k : key_ids) {
        RouteKey& key = keys[k];
        const int32_t d = key.dest;
        const bool reached = s.label_stamp[d] == s.version && s.target_stamp[d] == s.version &&
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
        key.best_imped = s.label_cost[d];
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
