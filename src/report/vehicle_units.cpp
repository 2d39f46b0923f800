// PCE to vehicles: the loaders count passenger-car equivalents; the reports count vehicles. Each
// link-interval is rescaled by the vehicle / PCE mix of the path demand that entered it.
#include <omp.h>

#include <algorithm>
#include <vector>

#include "report/outputs.h"
#include "report/path_walk.h"
#include "run/log.h"

namespace torvex {

namespace {

bool all_pce_one(const TripTable& trips) {
    bool used[kMaxSegments] = {};
    for (const RouteKey& k : trips.route_keys) used[k.segment % kMaxSegments] = true;
    for (int s = 0; s < kMaxSegments; ++s)
        if (used[s] && trips.pce[s] != 1.0f) return false;
    return true;
}

}  // namespace

void convert_volumes_to_vehicles(Network& network, const TripTable& trips,
                                 const std::vector<int32_t>& path_arena) {
    if (all_pce_one(trips)) return;
    const size_t cells = static_cast<size_t>(network.link_count()) * kIntervals;
    // veh and pce_tab side by side per cell: the walk touches one cache line per step, not two.
    std::vector<float> tab(cells * 2, 0.0f);
    const int n_sub = sub_slots(trips.slot_minutes);
    // Serial, so that every cell sums in key order whatever the thread count.
    for (const RouteKey& k : trips.route_keys) {
        if (!(k.weight > 0.0f) || k.path_offset < 0 || k.n_links == 0 || n_sub <= 0) continue;
        const float v = k.weight / static_cast<float>(n_sub);
        const float p = v * trips.pce[k.segment % kMaxSegments];
        float* t = tab.data();
        walk_key_path(
            network, path_arena.data() + k.path_offset, k.n_links, k.slot, trips.slot_minutes,
            [t, v, p](int32_t l, int i) {
                float* cell = t + (static_cast<size_t>(l) * kIntervals + i) * 2;
                cell[0] += v;
                cell[1] += p;
            },
            [t](int32_t l, int i) {
                __builtin_prefetch(t + (static_cast<size_t>(l) * kIntervals + i) * 2, 1);
            });
    }

    // Per-thread partial totals, added in thread order: the line reads the same on every run.
    const int threads = omp_get_max_threads();
    std::vector<double> old_part(threads, 0.0), new_part(threads, 0.0);
    const int64_t n_links = network.link_count();
#pragma omp parallel num_threads(threads)
    {
        double old_sum = 0, new_sum = 0;
#pragma omp for schedule(static)
        for (int64_t li = 0; li < n_links; ++li) {
            Link& l = network.links[li];
            const float* cell = tab.data() + li * kIntervals * 2;
            float v = 0, p = 0;
            for (int i = 0; i < kIntervals; ++i) {
                v += cell[2 * i];
                p += cell[2 * i + 1];
            }
            const float overall = p > 0.0f ? v / p : 1.0f;
            for (int i = 0; i < kIntervals; ++i) {
                const float vi = cell[2 * i], pi = cell[2 * i + 1];
                const float r = pi > 0.0f ? vi / pi : overall;
                old_sum += l.volume[i];
                l.volume[i] *= r;
                l.queue_veh[i] *= r;
                new_sum += l.volume[i];
            }
        }
        old_part[omp_get_thread_num()] = old_sum;
        new_part[omp_get_thread_num()] = new_sum;
    }
    double old_total = 0, new_total = 0;
    for (int t = 0; t < threads; ++t) {
        old_total += old_part[t];
        new_total += new_part[t];
    }
    progress(
        "[units] link volumes converted PCE -> vehicles (x%.3f overall); queues rescaled with the "
        "same mix\n",
        old_total > 0 ? new_total / old_total : 1.0);
}

}  // namespace torvex
