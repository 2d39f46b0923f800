#include "assign/routing_pass.h"

#include <omp.h>

#include <algorithm>
#include <chrono>
#include <span>
#include <vector>

#include "assign/network_loading.h"
#include "assign/router.h"
#include "node/node_model.h"
#include "run/log.h"

namespace torvex {

namespace {

// Owner is a signed byte, so thread numbers stop at 127.
constexpr int kMaxRouteThreads = 127;

uint64_t adoption_threshold(float reroute_frac) {
    const double share = static_cast<double>(reroute_frac) * 4294967296.0;
    if (!(share > 0.0)) return 0;  // also NaN
    return static_cast<uint64_t>(std::min(share, 8589934592.0));
}

uint32_t adoption_hash(int32_t key, uint32_t it) {
    uint32_t h = (static_cast<uint32_t>(key) * 0x9E3779B1u) ^ it;
    h = (h ^ (h >> 16)) * 0x85EBCA6Bu;
    h = h ^ (h >> 13);
    return h;
}

uint32_t adoption_salt(int32_t iter) {
    return (static_cast<uint32_t>(iter) + 1u) * 0x9E3779B9u;
}

// Number of groups dealt to chunk c: groups c, c + C, c + 2C, ...
int64_t chunk_group_count(int64_t groups, int64_t chunks, int64_t c) {
    return c < groups ? (groups - c + chunks - 1) / chunks : 0;
}

// Per-thread working lists of the group loop, built once per parallel region.
struct StageLists {
    std::vector<int32_t> stage[3];
    std::vector<int32_t> retry;
    std::vector<uint8_t> mask;
};

// Routes one group through its stages: its own county, the adjacent counties, then statewide
// with everything the narrower stages could not reach.
void route_group(const AssignmentState& st, RouteJob& job, StageLists& lists) {
    const Network& net = *st.network;
    const TripTable& trips = *st.trips;
    const RouteGroup& g = *job.group;

    for (auto& s : lists.stage) s.clear();
    for (const int32_t k : g.keys) {
        const RouteKey& key = trips.route_keys[k];
        if (!key.reachable || !(key.weight > 0.0f)) continue;
        lists.stage[std::min<int>(key.scope, 2)].push_back(k);
    }
    lists.retry.clear();
    job.retry = &lists.retry;

    const uint16_t oc = net.nodes[g.origin].county;
    if (oc == kNoCounty) {
        lists.retry.insert(lists.retry.end(), lists.stage[0].begin(), lists.stage[0].end());
        lists.retry.insert(lists.retry.end(), lists.stage[1].begin(), lists.stage[1].end());
    } else {
        if (!lists.stage[0].empty()) {
            lists.mask.assign(std::max<size_t>(net.county_names.size(), oc + 1u), 0);
            lists.mask[oc] = 1;
            route_key_set(job, lists.stage[0], lists.mask, false);
        }
        if (!lists.stage[1].empty()) {
            const CountyAdjacency& adj = *st.adjacency;
            lists.mask.assign(std::max<size_t>(static_cast<size_t>(adj.n), oc + 1u), 0);
            lists.mask[oc] = 1;
            if (oc < adj.n) {
                for (int32_t j = 0; j < adj.n; ++j) {
                    if (adj.adjacent(oc, j)) lists.mask[j] = 1;
                }
            }
            route_key_set(job, lists.stage[1], lists.mask, false);
        }
    }
    std::vector<int32_t>& last = lists.stage[2];
    last.insert(last.end(), lists.retry.begin(), lists.retry.end());
    route_key_set(job, last, std::span<const uint8_t>(), true);
}

// Parallel loop over the groups of chunk c; returns the keys that failed the widest stage.
int64_t route_chunk(AssignmentState& st, const RouterGraph& graph, int64_t c, int64_t chunks,
                    bool force, PathOverlay& overlay, int threads) {
    const int64_t n_groups = chunk_group_count(static_cast<int64_t>(st.groups.size()), chunks, c);
    const float threshold = st.config.assignment.reroute_threshold_min;
    int64_t unreachable = 0;
#pragma omp parallel num_threads(threads)
    {
        RouteScratch scratch;
        init_route_scratch(scratch, st.network->node_count());
        StageLists lists;
        int64_t my_unreachable = 0;
        RouteJob job;
        job.network = st.network;
        job.graph = &graph;
        job.trips = st.trips;
        job.scratch = &scratch;
        job.reroute_threshold_min = threshold;
        job.force = force;
        job.overlay = &overlay;
        job.thread = omp_get_thread_num();
        job.unreachable = &my_unreachable;

#pragma omp for schedule(dynamic, 16)
        for (int64_t j = 0; j < n_groups; ++j) {
            const RouteGroup& g = st.groups[c + j * chunks];
            job.group = &g;
            job.depart_min = slot_depart_min(*st.trips, g.slot);
            job.weights = route_weights_for_segment(*st.trips, g.segment);
            route_group(st, job, lists);
        }
        // The loop's closing barrier has passed: every thread's count is final.
#pragma omp atomic
        unreachable += my_unreachable;
    }
    return unreachable;
}

// Keys of a chunk that found a new path but were not drawn under this pass's share keep their
// old path; keys without an earlier path always switch.
void filter_adoptions(AssignmentState& st, int64_t c, int64_t chunks, float reroute_frac,
                      int32_t iter, PathOverlay& overlay) {
    const uint64_t threshold = adoption_threshold(reroute_frac);
    const uint32_t salt = adoption_salt(iter);
    const int64_t n_groups = chunk_group_count(static_cast<int64_t>(st.groups.size()), chunks, c);
    for (int64_t j = 0; j < n_groups; ++j) {
        for (const int32_t k : st.groups[c + j * chunks].keys) {
            if (overlay.owner[k] < 0 || st.trips->route_keys[k].path_offset < 0) continue;
            if (static_cast<uint64_t>(adoption_hash(k, salt)) >= threshold) overlay.owner[k] = -1;
        }
    }
}

// Feeds the paths found so far back into the link travel times, when this chunk is due; true when
// it did.
bool refresh_after_chunk(AssignmentState& st, int64_t c, int64_t chunks, float step,
                         PathOverlay& overlay, bool& loaded_once, std::vector<int32_t>& delta) {
    if (st.frozen) return false;
    const bool last_chunk = c == chunks - 1;
    if (st.node_mode == 0) {
        const bool due = (st.load_every > 0 && (c + 1) % st.load_every == 0) || last_chunk;
        if (!due) return false;
        if (!st.incremental_load || !loaded_once) {
            load_paths_full(st.load, *st.trips, st.path_arena, st.volume_table, &overlay);
            loaded_once = true;
        } else {
            // Only this chunk's keys: keys of skipped chunks enter at the next full load.
            delta.clear();
            const int64_t n_groups =
                chunk_group_count(static_cast<int64_t>(st.groups.size()), chunks, c);
            for (int64_t j = 0; j < n_groups; ++j) {
                for (const int32_t k : st.groups[c + j * chunks].keys) {
                    if (overlay.owner[k] >= 0) delta.push_back(k);
                }
            }
            load_paths_delta(st.load, *st.trips, st.path_arena, &overlay, delta, st.volume_table);
        }
        blend_inflow(st.load, st.volume_table, step, 1.0f);
        update_link_times(st.load);
        return true;
    }
    const bool due = st.node_every > 0 && ((c + 1) % st.node_every == 0 || last_chunk);
    if (!due) return false;
    // The conserving node loader takes over the link arrays, paths of this pass included.
    run_node_dnl(*st.network, *st.trips, st.path_arena, node_load_params(st, step), &overlay);
    return true;
}

// Moves every key's current path into one compact arena in key order.
int64_t merge_paths(AssignmentState& st, PathOverlay& overlay) {
    std::vector<RouteKey>& keys = st.trips->route_keys;
    int64_t rerouted = 0;
    for (const int8_t o : overlay.owner) rerouted += o >= 0;

    std::vector<int32_t> arena;
    arena.reserve(st.path_arena.size());
    for (size_t k = 0; k < keys.size(); ++k) {
        RouteKey& key = keys[k];
        const int8_t owner = overlay.owner[k];
        if (owner < 0) {
            if (key.path_offset >= 0 && key.n_links > 0) {
                const auto first = st.path_arena.begin() + key.path_offset;
                key.path_offset = static_cast<int64_t>(arena.size());
                arena.insert(arena.end(), first, first + key.n_links);
            }
            continue;
        }
        const std::vector<int32_t>& src = overlay.thread_arena[owner];
        const auto first = src.begin() + static_cast<int64_t>(overlay.new_offset[k]);
        key.path_offset = static_cast<int64_t>(arena.size());
        key.n_links = overlay.new_len[k];
        arena.insert(arena.end(), first, first + overlay.new_len[k]);
    }
    st.path_arena.swap(arena);
    return rerouted;
}

}  // namespace

bool adoption_passes(int32_t key, int32_t iter, float reroute_frac) {
    return static_cast<uint64_t>(adoption_hash(key, adoption_salt(iter))) <
           adoption_threshold(reroute_frac);
}

void routing_pass(AssignmentState& st, bool force, float reroute_frac, float step,
                  IterationRecord& record) {
    const auto started = std::chrono::steady_clock::now();
    const int64_t n_keys = static_cast<int64_t>(st.trips->route_keys.size());
    const int64_t n_groups = static_cast<int64_t>(st.groups.size());
    const int64_t chunks = std::max(1, st.config.assignment.route_chunks);
    const int threads = std::min(omp_get_max_threads(), kMaxRouteThreads);

    PathOverlay overlay;
    overlay.owner.assign(n_keys, -1);
    overlay.new_offset.assign(n_keys, ~uint64_t{0});
    overlay.new_len.assign(n_keys, 0);
    overlay.thread_arena.resize(threads);

    progress("[%s][iter %d] %s %.1fM keys (%d groups) in %d chunks on %d threads...\n", now_hms(),
             record.iter, force ? "building initial free-flow paths for" : "routing",
             static_cast<double>(n_keys) / 1e6, static_cast<int>(n_groups),
             static_cast<int>(chunks), threads);

    RouterGraph graph;
    build_router_graph(*st.network, graph);
    int64_t unreachable = 0;
    int64_t routed = 0;
    bool loaded_once = false;
    std::vector<int32_t> delta;
    for (int64_t c = 0; c < chunks; ++c) {
        unreachable += route_chunk(st, graph, c, chunks, force, overlay, threads);
        if (!force) filter_adoptions(st, c, chunks, reroute_frac, record.iter, overlay);
        if (refresh_after_chunk(st, c, chunks, step, overlay, loaded_once, delta) && c + 1 < chunks)
            refresh_router_times(*st.network, graph);

        const int64_t cg = chunk_group_count(n_groups, chunks, c);
        for (int64_t j = 0; j < cg; ++j) {
            routed += static_cast<int64_t>(st.groups[c + j * chunks].keys.size());
        }
        const double e =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        progress(
            "[%s][iter %d]   chunk %d/%d: %.1fM/%.1fM keys routed%s (%.0f%%), %.0fs elapsed, "
            "~%.0fs left\n",
            now_hms(), record.iter, static_cast<int>(c + 1), static_cast<int>(chunks),
            static_cast<double>(routed) / 1e6, static_cast<double>(n_keys) / 1e6,
            st.frozen ? "" : " + DNL refresh",
            static_cast<double>(routed) * 100.0 / static_cast<double>(std::max<int64_t>(1, n_keys)),
            e, (e / static_cast<double>(c + 1)) * static_cast<double>(chunks - c - 1));
    }

    record.rerouted = merge_paths(st, overlay);
    record.unreachable = unreachable;
}

}  // namespace torvex
