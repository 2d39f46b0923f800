#include "assign/network_loading.h"

#include <omp.h>

#include <algorithm>
#include <cstring>

#include "static/volume_delay.h"

namespace torvex {

namespace {

constexpr float kHorizon = 1800.0f;

// The walk of one key's path; Add decides how a share reaches the table (plain or atomic).
template <typename Add>
inline void walk(const Network& net, const int32_t* links, int32_t n_links, int slot,
                 float slot_minutes, float load, Add add) {
    const int n_sub = static_cast<int>(slot_minutes / 15.0f);
    if (n_sub <= 0 || n_links <= 0) return;
    const float p = load / static_cast<float>(n_sub);
    const float start = static_cast<float>(slot) * slot_minutes + 7.5f;
    for (int j = 0; j < n_sub; ++j) {
        float t = start + static_cast<float>(j) * 15.0f;
        for (int32_t k = 0; k < n_links; ++k) {
            if (t >= kHorizon) break;
            const int i = interval_of(t);
            const int32_t l = links[k];
            add(static_cast<size_t>(l) * kIntervals + i, p);
            t += net.links[l].travel_time_min[i];
        }
    }
}

// The path a load uses for a key: the overlay's new one when it has one, else the stored one.
inline bool key_path(const RouteKey& key, int32_t k, const std::vector<int32_t>& arena,
                     const PathOverlay* overlay, const int32_t*& links, int32_t& n) {
    if (overlay && overlay->owner[k] >= 0) {
        links = overlay->thread_arena[overlay->owner[k]].data() + overlay->new_offset[k];
        n = overlay->new_len[k];
        return true;
    }
    if (key.path_offset < 0 || key.n_links < 1) return false;
    links = arena.data() + key.path_offset;
    n = key.n_links;
    return true;
}

}  // namespace

void walk_path(const Network& net, const int32_t* links, int32_t n_links, int slot,
               float slot_minutes, float load, float* table) {
    walk(net, links, n_links, slot, slot_minutes, load,
         [table](size_t at, float p) { table[at] += p; });
}

void load_paths_full(const LinkLoadContext& ctx, const TripTable& trips,
                     const std::vector<int32_t>& path_arena, std::vector<float>& volume_table,
                     const PathOverlay* overlay) {
    const Network& net = *ctx.network;
    const size_t cells = static_cast<size_t>(net.link_count()) * kIntervals;
    volume_table.assign(cells, 0.0f);
    const int threads = std::max(1, std::min(omp_get_max_threads(), 32));
    // Thread 0 loads straight into the table; the others into private tables kept in the context.
    auto& priv = ctx.private_tables;
    if (priv.size() < static_cast<size_t>(threads - 1)) priv.resize(threads - 1);
    const auto& keys = trips.route_keys;
    const int64_t n_keys = static_cast<int64_t>(keys.size());
#pragma omp parallel num_threads(threads)
    {
        const int t = omp_get_thread_num();
        // The team the runtime gave, which may be smaller than asked: only its tables are fresh.
        const int team = omp_get_num_threads();
        float* table = volume_table.data();
        if (t > 0) {
            std::vector<float>& mine = priv[t - 1];
            mine.assign(cells, 0.0f);
            table = mine.data();
        }
#pragma omp for schedule(static)
        for (int64_t k = 0; k < n_keys; ++k) {
            const RouteKey& key = keys[k];
            if (!(key.weight > 0.0f)) continue;
            const int32_t* links;
            int32_t n;
            if (!key_path(key, static_cast<int32_t>(k), path_arena, overlay, links, n)) continue;
            walk_path(net, links, n, key.slot, trips.slot_minutes,
                      key.weight * trips.pce[key.segment], table);
        }
        // Merge in thread order, so that a given thread count always sums the same way.
#pragma omp for schedule(static)
        for (int64_t c = 0; c < static_cast<int64_t>(cells); ++c) {
            float v = volume_table[c];
            for (int u = 0; u < team - 1; ++u) v += priv[u][c];
            volume_table[c] = v;
        }
    }
}

void load_paths_delta(const LinkLoadContext& ctx, const TripTable& trips,
                      const std::vector<int32_t>& path_arena, const PathOverlay* overlay,
                      const std::vector<int32_t>& list, std::vector<float>& volume_table) {
    const Network& net = *ctx.network;
    float* table = volume_table.data();
    auto atomic_add = [table](size_t at, float p) {
#pragma omp atomic update
        table[at] += p;
    };
    const int64_t n = static_cast<int64_t>(list.size());
#pragma omp parallel for schedule(dynamic, 256)
    for (int64_t j = 0; j < n; ++j) {
        const int32_t k = list[j];
        const RouteKey& key = trips.route_keys[k];
        if (!(key.weight > 0.0f)) continue;
        const float load = key.weight * trips.pce[key.segment];
        if (key.path_offset >= 0 && key.n_links > 0)
            walk(net, path_arena.data() + key.path_offset, key.n_links, key.slot,
                 trips.slot_minutes, -load, atomic_add);
        if (overlay && overlay->owner[k] >= 0)
            walk(net, overlay->thread_arena[overlay->owner[k]].data() + overlay->new_offset[k],
                 overlay->new_len[k], key.slot, trips.slot_minutes, load, atomic_add);
    }
}

void blend_inflow(const LinkLoadContext& ctx, const std::vector<float>& volume_table, float w,
                  float scale) {
    Network& net = *ctx.network;
    const int32_t n = net.link_count();
#pragma omp parallel for schedule(static)
    for (int32_t l = 0; l < n; ++l) {
        float* inflow = net.links[l].inflow;
        const float* v = volume_table.data() + static_cast<size_t>(l) * kIntervals;
        for (int i = 0; i < kIntervals; ++i) inflow[i] = (1.0f - w) * inflow[i] + w * scale * v[i];
    }
}

void copy_inflow(const LinkLoadContext& ctx, const std::vector<float>& volume_table) {
    Network& net = *ctx.network;
    const int32_t n = net.link_count();
#pragma omp parallel for schedule(static)
    for (int32_t l = 0; l < n; ++l)
        std::memcpy(net.links[l].inflow, volume_table.data() + static_cast<size_t>(l) * kIntervals,
                    sizeof(float) * kIntervals);
}

namespace {

// Point queue: discharge at capacity (or the schedule's), queue the rest, delay by the mean queue.
void point_queue_update(const Network& net, int32_t index, Link& link) {
    const CapacitySchedule* schedule = nullptr;
    if (link.has_capacity_schedule) {
        auto it = net.capacity_schedules.find(index);
        if (it != net.capacity_schedules.end()) schedule = &it->second;
    }
    float cum_in = 0, cum_out = 0, q_prev = 0;
    for (int i = 0; i < kIntervals; ++i) {
        const float cap_h = schedule ? (*schedule)[i] : link.discharge_vph;
        const float cap_min = std::max(0.001f, cap_h / 60.0f);
        cum_in += link.inflow[i];
        const float out = std::min(cap_h * 0.25f, cum_in - cum_out);
        link.volume[i] = out;
        cum_out += out;
        const float q = cum_in - cum_out;
        link.queue_veh[i] = q;
        const float delay = (q + q_prev) * 0.5f / cap_min;
        link.travel_time_min[i] = std::min(1440.0f, delay) + link.free_flow_min;
        q_prev = q;
    }
}

// Link transmission: the link holds at most its storage beyond what has left; the rest is held
// upstream and becomes spillback delay on the links feeding it.
void ltm_update(Link& link, float max_spill, float* spill) {
    const float storage = std::max(1.0f, link.storage_veh);
    const float cap15 = link.discharge_vph * 0.25f;
    const float cap_min = std::max(0.001f, link.discharge_vph / 60.0f);
    float cum_in = 0, cum_out = 0, on_link_prev = 0;
    for (int i = 0; i < kIntervals; ++i) {
        cum_in += link.inflow[i];
        const float admitted = std::min(cum_out + storage, cum_in);
        const float out = std::min(cap15, admitted - cum_out);
        link.volume[i] = out;
        cum_out += out;
        const float on_link = admitted - cum_out;
        const float held = cum_in - admitted;
        link.queue_veh[i] = on_link + held;
        link.travel_time_min[i] =
            std::min(1440.0f, (on_link + on_link_prev) * 0.5f / cap_min) + link.free_flow_min;
        spill[i] = std::min(max_spill, held / cap_min);
        on_link_prev = on_link;
    }
}

}  // namespace

void update_link_times(const LinkLoadContext& ctx) {
    Network& net = *ctx.network;
    const int32_t n = net.link_count();
#pragma omp parallel for schedule(dynamic, 4096)
    for (int32_t l = 0; l < n; ++l) {
        Link& link = net.links[l];
        if (link.flow_tier == kTierMeso) continue;
        if (net.is_static)
            apply_vdf(net, link);
        else
            point_queue_update(net, l, link);
    }

    bool any_ltm = false;
    for (const Link& link : net.links) any_ltm |= link.flow_tier == kTierLtm;
    if (!any_ltm) return;

    std::vector<float> spill(static_cast<size_t>(n) * kIntervals, 0.0f);
#pragma omp parallel for schedule(dynamic, 1024)
    for (int32_t l = 0; l < n; ++l) {
        Link& link = net.links[l];
        if (link.flow_tier != kTierLtm) continue;
        ltm_update(link, ctx.ltm_max_spillback_min,
                   spill.data() + static_cast<size_t>(l) * kIntervals);
    }
#pragma omp parallel for schedule(dynamic, 4096)
    for (int32_t l = 0; l < n; ++l) {
        Link& link = net.links[l];
        const std::vector<int32_t>& down = net.nodes[link.to].out_links;
        for (int i = 0; i < kIntervals; ++i) {
            float m = 0.0f;
            for (int32_t d : down)
                if (net.links[d].flow_tier == kTierLtm)
                    m = std::max(m, spill[static_cast<size_t>(d) * kIntervals + i]);
            link.travel_time_min[i] += m;
        }
    }
}

}  // namespace torvex
