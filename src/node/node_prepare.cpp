// Preparation shared by both node-model methods: departures spread into step injections, path
// tallies turned into exit and turn shares, the active links and nodes, and optionally the
// per-interval turn shares.
#include <algorithm>
#include <cmath>

#include "node/node_model.h"

namespace torvex {

namespace {

// The path a load uses for a key: the overlay's new one when it has one (even empty), else the
// stored one. False when the key has no usable path.
bool key_path(const RouteKey& key, int32_t k, const std::vector<int32_t>& arena,
              const PathOverlay* overlay, const int32_t*& links, int32_t& n) {
    if (overlay && overlay->owner[k] >= 0) {
        links = overlay->thread_arena[overlay->owner[k]].data() + overlay->new_offset[k];
        n = overlay->new_len[k];
    } else {
        if (key.path_offset < 0 || key.n_links < 1) return false;
        links = arena.data() + key.path_offset;
        n = key.n_links;
    }
    return links != nullptr && n > 0;
}

// Calls fn(key, links, n, veh) for every key that carries weight and has a path to load, in key
// order, with veh its load in PCE.
template <typename Fn>
void for_each_loaded_path(const TripTable& trips, const std::vector<int32_t>& arena,
                          const PathOverlay* overlay, Fn fn) {
    const int32_t n_keys = static_cast<int32_t>(trips.route_keys.size());
    for (int32_t k = 0; k < n_keys; ++k) {
        const RouteKey& key = trips.route_keys[k];
        if (!(key.weight > 0.0f)) continue;
        const int32_t* links;
        int32_t n;
        if (!key_path(key, k, arena, overlay, links, n)) continue;
        fn(key, links, n,
           static_cast<double>(trips.pce[key.segment]) * static_cast<double>(key.weight));
    }
}

// Candidate movements of a link: one slot per out-link of its head node. Pairs whose second link
// does not leave the first link's head (a broken path) have no slot.
struct PairSlots {
    std::vector<int64_t> base;  // per link, size links + 1
    std::vector<double> volume;
    std::vector<int32_t> movement;

    int64_t find(const Network& net, int32_t from_link, int32_t to_link) const {
        const int32_t head = net.links[from_link].to;
        if (head < 0) return -1;
        const std::vector<int32_t>& outs = net.nodes[head].out_links;
        for (size_t j = 0; j < outs.size(); ++j)
            if (outs[j] == to_link) return base[from_link] + static_cast<int64_t>(j);
        return -1;
    }
};

void build_pair_slots(const Network& net, PairSlots& pairs) {
    const int32_t n = net.link_count();
    pairs.base.assign(static_cast<size_t>(n) + 1, 0);
    for (int32_t l = 0; l < n; ++l) {
        const int32_t head = net.links[l].to;
        const int64_t deg =
            head >= 0 ? static_cast<int64_t>(net.nodes[head].out_links.size()) : int64_t{0};
        pairs.base[l + 1] = pairs.base[l] + deg;
    }
    pairs.volume.assign(static_cast<size_t>(pairs.base[n]), 0.0);
    pairs.movement.assign(static_cast<size_t>(pairs.base[n]), -1);
}

// Calls fn(step, part) for every part of a key's departure spread inside its slot; parts that
// fall at or past the horizon are not injected.
template <typename Fn>
void spread_departure(int slot, float slot_minutes, float inject_res_min, float dt,
                      int32_t num_steps, double veh, Fn fn) {
    const long parts = std::clamp(lroundf(slot_minutes / std::max(0.1f, inject_res_min)), 1L, 120L);
    const double part = veh / static_cast<double>(parts);
    const float nf = static_cast<float>(parts);
    for (long i = 0; i < parts; ++i) {
        const float t = static_cast<float>(slot) * slot_minutes +
                        ((static_cast<float>(i) + 0.5f) * slot_minutes) / nf;
        if (t >= kHorizonMin) break;
        const float s = std::trunc(t * 60.0f / dt);
        const int32_t step = std::clamp(static_cast<int32_t>(s), 0, num_steps - 1);
        fn(step, part);
    }
}

// Per-interval turn and exit shares from walks of every path over the previous load's travel
// times: vehicles are booked in the interval in which they reach the end of each link.
void build_interval_shares(const Network& net, const TripTable& trips,
                           const std::vector<int32_t>& arena, const PathOverlay* overlay,
                           const PairSlots& pairs, int32_t n_movements, NodePrep& prep) {
    const size_t n_active = prep.active_links.size();
    std::vector<double> link_iv(n_active * kIntervals, 0.0);
    std::vector<double> exit_vol(n_active * kIntervals, 0.0);
    std::vector<double> movement_iv(static_cast<size_t>(n_movements) * kIntervals, 0.0);

    int groups = static_cast<int>(std::trunc(trips.slot_minutes / 15.0f));
    if (groups < 2) groups = 1;
    for_each_loaded_path(
        trips, arena, overlay,
        [&](const RouteKey& key, const int32_t* links, int32_t n, double veh) {
            const double w = veh / groups;
            for (int g = 0; g < groups; ++g) {
                float t = static_cast<float>(key.slot) * trips.slot_minutes + 7.5f +
                          static_cast<float>(g) * 15.0f;
                if (t >= kHorizonMin) break;
                for (int32_t j = 0; j < n; ++j) {
                    const int32_t l = links[j];
                    t += net.links[l].travel_time_min[interval_of(t)];
                    const int v = interval_of(t);
                    const int32_t pos = prep.dense[l];
                    if (pos >= 0) {
                        link_iv[static_cast<size_t>(pos) * kIntervals + v] += w;
                        const int64_t slot = j + 1 < n ? pairs.find(net, l, links[j + 1]) : -1;
                        const int32_t m = slot >= 0 ? pairs.movement[slot] : -1;
                        if (m >= 0)
                            movement_iv[static_cast<size_t>(m) * kIntervals + v] += w;
                        else
                            exit_vol[static_cast<size_t>(pos) * kIntervals + v] += w;
                    }
                    if (t >= kHorizonMin) break;
                }
            }
        });

    prep.turn_iv.assign(static_cast<size_t>(n_movements) * kIntervals, 0.0f);
    prep.exit_iv.assign(n_active * kIntervals, 0.0f);
    prep.has_iv.assign(n_active * kIntervals, 0);
    for (size_t i = 0; i < n_active; ++i) {
        for (int v = 0; v < kIntervals; ++v) {
            const size_t at = i * kIntervals + v;
            if (!(link_iv[at] > 0.0)) continue;
            prep.has_iv[at] = 1;
            prep.exit_iv[at] = static_cast<float>(exit_vol[at] / link_iv[at]);
            for (int32_t e = prep.turn_begin[i]; e < prep.turn_begin[i + 1]; ++e) {
                const size_t m = static_cast<size_t>(prep.turns[e].movement) * kIntervals + v;
                prep.turn_iv[m] = static_cast<float>(movement_iv[m] / link_iv[at]);
            }
        }
    }
    prep.has_interval_turns = true;
}

// Active nodes, and positions grouped by head node in that order, so that a node's in-links sit
// side by side in the per-link tables (links without a head node come last).
void build_positions(const Network& net, NodePrep& prep) {
    std::vector<uint8_t> seen(net.nodes.size(), 0);
    prep.active_nodes.clear();
    for (const int32_t l : prep.active_links) {
        const int32_t head = net.links[l].to;
        if (head < 0 || seen[head]) continue;
        seen[head] = 1;
        prep.active_nodes.push_back(head);
    }
    std::vector<uint8_t> active(net.links.size(), 0);
    for (const int32_t l : prep.active_links) active[l] = 1;
    prep.pos_link.clear();
    for (const int32_t h : prep.active_nodes)
        for (const int32_t l : net.nodes[h].in_links)
            if (active[l]) prep.pos_link.push_back(l);
    for (const int32_t l : prep.active_links)
        if (net.links[l].to < 0) prep.pos_link.push_back(l);
    prep.dense.assign(net.links.size(), -1);
    for (size_t i = 0; i < prep.pos_link.size(); ++i)
        prep.dense[prep.pos_link[i]] = static_cast<int32_t>(i);
}

void build_node_lists(const Network& net, NodePrep& prep) {
    prep.node_in_begin.assign(1, 0);
    prep.node_out_begin.assign(1, 0);
    prep.node_in.clear();
    prep.node_out.clear();
    for (const int32_t h : prep.active_nodes) {
        for (const int32_t l : net.nodes[h].in_links)
            if (prep.dense[l] >= 0) prep.node_in.push_back(prep.dense[l]);
        for (const int32_t l : net.nodes[h].out_links)
            if (prep.dense[l] >= 0) prep.node_out.push_back(prep.dense[l]);
        prep.node_in_begin.push_back(static_cast<int32_t>(prep.node_in.size()));
        prep.node_out_begin.push_back(static_cast<int32_t>(prep.node_out.size()));
    }
}

}  // namespace

void prepare_node_load(const Network& net, const TripTable& trips,
                       const std::vector<int32_t>& arena, const NodeLoadParams& params,
                       const PathOverlay* overlay, NodePrep& prep) {
    prep.dt = std::max(1.0f, params.dt_sec);
    prep.num_steps = static_cast<int32_t>(std::ceil(108000.0f / prep.dt));
    const int32_t n_links = net.link_count();
    const bool number_movements = params.interval_turns && params.method != 1;

    // Tallies over every key's whole path, and the injection count per step.
    std::vector<double> link_total(n_links, 0.0), link_exit(n_links, 0.0);
    PairSlots pairs;
    build_pair_slots(net, pairs);
    int32_t n_movements = 0;
    prep.inject_begin.assign(static_cast<size_t>(prep.num_steps) + 1, 0);
    for_each_loaded_path(trips, arena, overlay,
                         [&](const RouteKey& key, const int32_t* links, int32_t n, double veh) {
                             spread_departure(
                                 key.slot, trips.slot_minutes, params.inject_res_min, prep.dt,
                                 prep.num_steps, veh,
                                 [&](int32_t step, double) { ++prep.inject_begin[step + 1]; });
                             for (int32_t j = 0; j < n; ++j) {
                                 const int32_t l = links[j];
                                 link_total[l] += veh;
                                 if (j + 1 == n) {
                                     link_exit[l] += veh;
                                     break;
                                 }
                                 const int64_t slot = pairs.find(net, l, links[j + 1]);
                                 if (slot < 0) {
                                     // A broken path: the vehicles leave the model where the path
                                     // breaks.
                                     link_exit[l] += veh;
                                     continue;
                                 }
                                 pairs.volume[slot] += veh;
                                 if (number_movements && pairs.movement[slot] < 0)
                                     pairs.movement[slot] = n_movements++;
                             }
                         });

    // Active links, active nodes, and the constants of each position.
    prep.active_links.clear();
    for (int32_t l = 0; l < n_links; ++l)
        if (link_total[l] > 0.0) prep.active_links.push_back(l);
    build_positions(net, prep);
    const size_t n_active = prep.active_links.size();
    prep.cap_step.resize(n_active);
    prep.storage.resize(n_active);
    prep.exit_share.resize(n_active);
    prep.turn_begin.assign(1, 0);
    prep.turns.clear();
    const double step_hours = static_cast<double>(prep.dt) / 3600.0;
    for (size_t i = 0; i < n_active; ++i) {
        const int32_t l = prep.pos_link[i];
        const Link& link = net.links[l];
        prep.cap_step[i] = static_cast<double>(std::max(0.001f, link.discharge_vph)) * step_hours;
        float s = link.storage_veh;
        if (!(s > 0.0f)) s = link.length_mi * 240.0f * static_cast<float>(link.lanes);
        prep.storage[i] = std::max({static_cast<double>(s), prep.cap_step[i] * 4.0, 1.0});
        prep.exit_share[i] = static_cast<float>(link_exit[l] / link_total[l]);
        if (link.to >= 0) {
            const std::vector<int32_t>& outs = net.nodes[link.to].out_links;
            for (size_t j = 0; j < outs.size(); ++j) {
                const int64_t slot = pairs.base[l] + static_cast<int64_t>(j);
                if (!(pairs.volume[slot] > 0.0) || prep.dense[outs[j]] < 0) continue;
                TurnShare ts;
                ts.to_link = outs[j];
                ts.to_pos = prep.dense[outs[j]];
                ts.movement = number_movements ? pairs.movement[slot] : -1;
                ts.share = static_cast<float>(pairs.volume[slot] / link_total[l]);
                prep.turns.push_back(ts);
            }
        }
        prep.turn_begin.push_back(static_cast<int32_t>(prep.turns.size()));
    }

    // Injections, in key order within each step.
    for (int32_t s = 0; s < prep.num_steps; ++s) prep.inject_begin[s + 1] += prep.inject_begin[s];
    prep.inject.resize(static_cast<size_t>(prep.inject_begin[prep.num_steps]));
    std::vector<int64_t> fill(prep.inject_begin.begin(), prep.inject_begin.end() - 1);
    for_each_loaded_path(
        trips, arena, overlay, [&](const RouteKey& key, const int32_t* links, int32_t, double veh) {
            const int32_t first = links[0];
            spread_departure(
                key.slot, trips.slot_minutes, params.inject_res_min, prep.dt, prep.num_steps, veh,
                [&](int32_t step, double part) {
                    prep.inject[fill[step]++] = Injection{first, prep.dense[first], part};
                });
        });

    build_node_lists(net, prep);

    prep.has_interval_turns = false;
    prep.turn_iv.clear();
    prep.exit_iv.clear();
    prep.has_iv.clear();
    if (number_movements && n_movements > 0)
        build_interval_shares(net, trips, arena, overlay, pairs, n_movements, prep);
}

}  // namespace torvex
