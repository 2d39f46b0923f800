#include "assign/network_loading.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace torvex {
namespace {

// A chain 0 -> 1 -> ... -> n of links with the given hourly capacity and free-flow time.
Network chain(int n_links, float cap_vph, float ff_min) {
    Network net;
    net.nodes.resize(n_links + 1);
    for (int i = 0; i < n_links; ++i) {
        Link l{};
        l.from = i, l.to = i + 1, l.lanes = 1, l.ftype = 3;
        l.capacity_vph = l.discharge_vph = cap_vph;
        l.free_flow_min = ff_min;
        l.length_mi = 1.0f;
        l.storage_veh = 240.0f;
        std::fill(std::begin(l.travel_time_min), std::end(l.travel_time_min), ff_min);
        net.links.push_back(l);
    }
    build_adjacency(net);
    return net;
}

TripTable keys_on(std::initializer_list<std::pair<int, float>> slot_weight,
                  float slot_minutes = 60) {
    TripTable t;
    t.slot_minutes = slot_minutes;
    for (auto [slot, w] : slot_weight) {
        RouteKey k;
        k.slot = static_cast<uint8_t>(slot);
        k.weight = w;
        t.route_keys.push_back(k);
    }
    return t;
}

LinkLoadContext context(Network& net, float max_spill = 20.0f) {
    LinkLoadContext ctx;
    ctx.network = &net;
    ctx.ltm_max_spillback_min = max_spill;
    return ctx;
}

double total(const std::vector<float>& v) {
    return std::accumulate(v.begin(), v.end(), 0.0);
}

TEST(NetworkLoading, WalkSpreadsSubSlotsAndStopsAtTheHorizon) {
    Network net = chain(3, 1000, 10.0f);
    std::vector<int32_t> arena = {0, 1, 2};
    TripTable trips = keys_on({{8, 40.0f}, {29, 8.0f}, {3, 0.0f}});
    trips.pce[0] = 1.5f;
    for (RouteKey& k : trips.route_keys) k.path_offset = 0, k.n_links = 3;
    LinkLoadContext ctx = context(net);
    std::vector<float> table;
    load_paths_full(ctx, trips, arena, table, nullptr);

    // Slot 8 (minutes 480-540): four sub-slots of 40 * 1.5 / 4 = 15, entering at 487.5 + 15j,
    // then 10 minutes per link.
    for (int j = 0; j < 4; ++j)
        for (int l = 0; l < 3; ++l)
            EXPECT_FLOAT_EQ(table[l * kIntervals + interval_of(487.5f + 15 * j + 10 * l)], 15.0f)
                << j << "," << l;
    // Slot 29 starts at 1747.5: sub-slot 3 enters at 1792.5, link 1 at 1802.5, past the horizon.
    double slot29 = 0;
    for (int l = 0; l < 3; ++l)
        for (int i = 116; i < 120; ++i) slot29 += table[l * kIntervals + i];
    // Entries before minute 1800: sub-slot 0 (1747.5): 3 links; 1 (1762.5): 3; 2 (1777.5): 3
    // (1777.5, 1787.5, 1797.5); 3 (1792.5): 1. Ten entries of 3.
    EXPECT_NEAR(slot29, 10 * 3.0, 1e-4);
    EXPECT_NEAR(total(table), 4 * 3 * 15.0 + 10 * 3.0, 1e-3);  // the zero-weight key loads nothing

    // 30-minute slots split into two sub-slots.
    TripTable half = keys_on({{0, 10.0f}}, 30.0f);
    half.route_keys[0].path_offset = 0, half.route_keys[0].n_links = 1;
    load_paths_full(ctx, half, arena, table, nullptr);
    EXPECT_FLOAT_EQ(table[0], 5.0f);
    EXPECT_FLOAT_EQ(table[1], 5.0f);
}

TEST(NetworkLoading, OverlayFullDeltaAndThreadCounts) {
    // Random paths on a 12-link chain; the overlay moves half of the keys to other paths.
    Network net = chain(12, 1000, 4.0f);
    std::mt19937 rng(3);
    TripTable trips;
    std::vector<int32_t> arena;
    PathOverlay overlay;
    overlay.thread_arena.resize(2);
    const int n_keys = 3000;
    for (int k = 0; k < n_keys; ++k) {
        RouteKey key;
        key.slot = static_cast<uint8_t>(rng() % 30);
        key.segment = 0;
        key.weight = (k % 17 == 0) ? 0.0f : 0.5f + static_cast<float>(rng() % 100) / 10.0f;
        int a = rng() % 12, b = rng() % 12;
        if (a > b) std::swap(a, b);
        key.path_offset = static_cast<int64_t>(arena.size());
        key.n_links = b - a + 1;
        for (int l = a; l <= b; ++l) arena.push_back(l);
        trips.route_keys.push_back(key);
        const int t = k % 4 == 0 ? 0 : 1;
        const bool moves = k % 2 == 0;
        overlay.owner.push_back(moves ? static_cast<int8_t>(t) : -1);
        overlay.new_offset.push_back(moves ? overlay.thread_arena[t].size() : ~0ull);
        int len = 0;
        if (moves) {
            const int c = rng() % 12;
            len = k % 8 == 0 ? 0 : 1 + static_cast<int>(rng() % (12 - c));  // empty paths too
            for (int l = c; l < c + len; ++l) overlay.thread_arena[t].push_back(l);
        }
        overlay.new_len.push_back(len);
    }
    LinkLoadContext ctx = context(net);
    std::vector<float> with_overlay, without, delta;
    omp_set_num_threads(1);
    load_paths_full(ctx, trips, arena, with_overlay, &overlay);
    std::vector<float> single = with_overlay;
    omp_set_num_threads(3);
    load_paths_full(ctx, trips, arena, with_overlay, &overlay);
    load_paths_full(ctx, trips, arena, without, nullptr);

    // Every cell agrees with the one-thread load up to summation order.
    for (size_t c = 0; c < single.size(); ++c) ASSERT_NEAR(single[c], with_overlay[c], 1e-3f) << c;

    // The delta of the moved keys turns the old load into the new one (times have not moved).
    std::vector<int32_t> moved;
    for (int k = 0; k < n_keys; ++k)
        if (overlay.owner[k] >= 0) moved.push_back(k);
    delta = without;
    load_paths_delta(ctx, trips, arena, &overlay, moved, delta);
    for (size_t c = 0; c < delta.size(); ++c) ASSERT_NEAR(delta[c], with_overlay[c], 2e-3f) << c;
    omp_set_num_threads(omp_get_num_procs());
}

TEST(NetworkLoading, PointQueueConservesAndDelaysByMeanQueue) {
    Network net = chain(1, 200, 5.0f);  // 50 vehicles per interval
    Link& l = net.links[0];
    l.inflow[0] = 100.0f;
    l.inflow[3] = 20.0f;
    l.inflow[119] = 80.0f;
    LinkLoadContext ctx = context(net);
    update_link_times(ctx);
    // Mean of the opening and closing queue (0 and 50, then 50 and 0) over 200/60 veh/min.
    for (int i : {0, 1}) {
        EXPECT_FLOAT_EQ(l.volume[i], 50.0f);
        EXPECT_FLOAT_EQ(l.travel_time_min[i], 25.0f / (200.0f / 60.0f) + 5.0f);
    }
    EXPECT_FLOAT_EQ(l.volume[2], 0.0f);
    EXPECT_FLOAT_EQ(l.queue_veh[0], 50.0f);
    EXPECT_FLOAT_EQ(l.travel_time_min[2], 5.0f);
    // A queue at the last interval just stays.
    EXPECT_FLOAT_EQ(l.queue_veh[119], 30.0f);
    double in = 0, out = 0;
    for (int i = 0; i < kIntervals; ++i) in += l.inflow[i], out += l.volume[i];
    EXPECT_NEAR(in, out + l.queue_veh[119], 1e-4);

    // A capacity schedule of 0 in an interval discharges nothing there; the delay stays bounded.
    Network closed = chain(1, 200, 5.0f);
    closed.links[0].has_capacity_schedule = 1;
    CapacitySchedule s;
    s.fill(200.0f);
    s[0] = 0.0f;
    closed.capacity_schedules[0] = s;
    closed.links[0].inflow[0] = 10.0f;
    LinkLoadContext cctx = context(closed);
    update_link_times(cctx);
    EXPECT_FLOAT_EQ(closed.links[0].volume[0], 0.0f);
    EXPECT_FLOAT_EQ(closed.links[0].travel_time_min[0], 1440.0f + 5.0f);
    EXPECT_FLOAT_EQ(closed.links[0].volume[1], 10.0f);
}

TEST(NetworkLoading, LtmHoldsBeyondStorageAndSpillsUpstream) {
    // Link 0 feeds link 1 (LTM, storage 10, 40 veh/h); a connector-like point queue upstream.
    Network net = chain(2, 4000, 2.0f);
    Link& up = net.links[0];
    Link& ltm = net.links[1];
    ltm.flow_tier = kTierLtm;
    ltm.discharge_vph = ltm.capacity_vph = 40.0f;
    ltm.storage_veh = 10.0f;
    ltm.inflow[0] = 100.0f;
    up.inflow[0] = 100.0f;
    LinkLoadContext ctx = context(net, 20.0f);
    update_link_times(ctx);
    // Interval 0: admitted 10, 10 leave (cap15 = 10), so 0 stays on the link and 90 are held.
    EXPECT_FLOAT_EQ(ltm.volume[0], 10.0f);
    EXPECT_FLOAT_EQ(ltm.queue_veh[0], 90.0f);
    double out = 0;
    for (int i = 0; i < kIntervals; ++i) out += ltm.volume[i];
    EXPECT_NEAR(out + ltm.queue_veh[119], 100.0, 1e-3);
    // The held vehicles become a spill delay on the upstream link, capped at 20 minutes; the
    // LTM link's own time carries none of it.
    EXPECT_FLOAT_EQ(up.travel_time_min[0], 2.0f + 20.0f);
    EXPECT_FLOAT_EQ(ltm.travel_time_min[0], 2.0f);
    // Once the held demand has drained (9 intervals at 10), the spill delay is gone.
    EXPECT_FLOAT_EQ(ltm.queue_veh[9], 0.0f);
    EXPECT_FLOAT_EQ(up.travel_time_min[12], 2.0f);
}

TEST(NetworkLoading, BlendAndCopy) {
    Network net = chain(2, 500, 1.0f);
    LinkLoadContext ctx = context(net);
    std::vector<float> table(2 * kIntervals, 0.0f);
    table[5] = 8.0f;
    table[kIntervals + 7] = 4.0f;
    net.links[0].inflow[5] = 2.0f;
    blend_inflow(ctx, table, 0.25f, 1.0f);
    EXPECT_FLOAT_EQ(net.links[0].inflow[5], 0.75f * 2.0f + 0.25f * 8.0f);
    EXPECT_FLOAT_EQ(net.links[1].inflow[7], 1.0f);
    copy_inflow(ctx, table);
    EXPECT_FLOAT_EQ(net.links[0].inflow[5], 8.0f);
    EXPECT_FLOAT_EQ(net.links[1].inflow[7], 4.0f);
}

}  // namespace
}  // namespace torvex
