// The loader's walk of one key's path through time, for the reports that share demand out over
// links and intervals the way the load did: the slot's 15-minute sub-slots, each progressing by
// the current travel times and stopping at the horizon.
#pragma once

#include <cstdint>

#include "input/network.h"

namespace torvex {

// Calls visit(link, interval) for every link entry of every sub-slot, sub-slot by sub-slot. The
// caller shares a key's demand by 1 / sub_slots(); a slot shorter than 15 minutes walks nothing.
//
// The walk is bound by memory latency: each step lands on a random link. A few links ahead,
// `ahead(link, interval)` is asked to prefetch what that link will need and the link's own
// travel time line is fetched, guessing that it is entered in the current interval (it mostly is,
// and the next interval's value lies in the same cache line), so that several misses are in
// flight at once.
template <typename Visit, typename Ahead>
inline void walk_key_path(const Network& net, const int32_t* links, int32_t n_links, int slot,
                          float slot_minutes, Visit visit, Ahead ahead) {
    constexpr int32_t kAhead = 4;
    const int n_sub = static_cast<int>(slot_minutes / 15.0f);
    const float start = static_cast<float>(slot) * slot_minutes + 7.5f;
    for (int j = 0; j < n_sub; ++j) {
        float t = start + static_cast<float>(j) * 15.0f;
        const int first = interval_of(t);
        for (int32_t k = 0; k < kAhead && k < n_links; ++k) {
            __builtin_prefetch(&net.links[links[k]].travel_time_min[first]);
            ahead(links[k], first);
        }
        for (int32_t k = 0; k < n_links; ++k) {
            if (t >= kHorizonMin) break;
            const int i = interval_of(t);
            const int32_t l = links[k];
            if (k + kAhead < n_links) {
                const int32_t next = links[k + kAhead];
                __builtin_prefetch(&net.links[next].travel_time_min[i]);
                ahead(next, i);
            }
            visit(l, i);
            t += net.links[l].travel_time_min[i];
        }
    }
}

template <typename Visit>
inline void walk_key_path(const Network& net, const int32_t* links, int32_t n_links, int slot,
                          float slot_minutes, Visit visit) {
    walk_key_path(net, links, n_links, slot, slot_minutes, visit, [](int32_t, int) {});
}

inline int sub_slots(float slot_minutes) {
    return static_cast<int>(slot_minutes / 15.0f);
}

}  // namespace torvex
