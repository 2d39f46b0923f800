#include "node/node_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "node_fixture.h"

namespace torvex {
namespace {

using fixture::node_params;
using fixture::NodeCase;

// Loads with the conservation line on stderr swallowed.
NodeLoadTotals quiet_load(NodeCase& c, const NodeLoadParams& p, const PathOverlay* ov = nullptr) {
    testing::internal::CaptureStderr();
    const NodeLoadTotals t = c.load(p, ov);
    testing::internal::GetCapturedStderr();
    return t;
}

// One link of 600 veh/h (10 per one-minute step), one minute of free flow; 1200 vehicles enter
// at 20 a minute during the first hour. The queue grows by 10 a minute until minute 60 and then
// drains at 10 a minute until minute 120.
NodeCase bottleneck() {
    NodeCase c(2);
    c.link(0, 1, {.capacity_vph = 600});
    c.key({0}, 0, 1200.0f);
    return c;
}

// Link a (0 -> 1) forks into b (1 -> 2) and d (1 -> 3).
constexpr int32_t a = 0, b = 1, d = 2;
NodeCase fork() {
    NodeCase c(4);
    c.link(0, 1);
    c.link(1, 2);
    c.link(1, 3);
    return c;
}

TEST(NodeModel, BottleneckQueueDelayAndBlendByHand) {
    // Cumulative: after the moves of minute t the backlog beyond one step's capacity is
    // 20(t-1) - 10(t-1) - 10 = 10(t-2) while vehicles arrive, then 1200 - 10t; the interval means
    // over steps 1-15, 16-30, ... are 60.67, 210, 360, 510 and 520 vehicles.
    // Queue stepping books the backlog before the step's discharge: one step's capacity more.
    const double cumulative[] = {910.0 / 15, 210, 360, 510, 520};
    const double stepping[] = {70, 220, 370, 520, 530};
    for (uint8_t method : {1, 0}) {
        const double* queue = method == 1 ? cumulative : stepping;
        NodeCase c = bottleneck();
        testing::internal::CaptureStderr();
        const NodeLoadTotals t = c.load(node_params(method, true, 60.0f, 1.0f));
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_DOUBLE_EQ(t.injected, 1200.0);
        EXPECT_NEAR(t.exited, 1200.0, 1e-9);
        EXPECT_NEAR(t.on_network_end, 0.0, 1e-9);
        const Link& l = c.net.links[0];
        for (int v = 0; v < 5; ++v) {
            EXPECT_NEAR(l.queue_veh[v], queue[v], 1e-3) << int(method) << " interval " << v;
            EXPECT_NEAR(l.travel_time_min[v], 1.0 + queue[v] / 10.0, 1e-4) << int(method);
        }
        // Discharge at capacity from the second minute to minute 120.
        for (int v = 0; v <= 9; ++v)
            EXPECT_NEAR(l.volume[v], v == 0 ? 140.0 : v == 8 ? 10.0 : v == 9 ? 0.0 : 150.0, 1e-6);
        const std::string tag = method == 1 ? "[node-dnl/cumulative]" : "[node-dnl]";
        EXPECT_EQ(err, tag +
                           " conservation: injected=1200 exited=1200 on_network_end=0 (0.00% "
                           "parked) | balance=0.0 veh (0.00000%)\n");
    }
}

TEST(NodeModel, MergeOfSixtyAndFortyIntoFiftyPassesThirtyAndTwenty) {
    for (uint8_t method : {1, 0}) {
        for (bool spatial : {true, false}) {
            NodeCase c(4);  // 60, 40 and 50 a step
            const int32_t la = c.link(0, 2, {.capacity_vph = 3600});
            const int32_t lb = c.link(1, 2, {.capacity_vph = 2400});
            const int32_t lc = c.link(2, 3, {.capacity_vph = 3000});
            c.key({la, lc}, 0, 9000.0f);  // 150 a minute: a always has more than it can send
            c.key({lb, lc}, 0, 6000.0f);
            const NodeLoadTotals t = quiet_load(c, node_params(method, spatial, 60.0f, 1.0f));
            const double passed[] = {30, 20, 50};  // a step, on la, lb and lc
            for (int v = 1; v <= 3; ++v)
                for (int32_t l : {la, lb, lc})
                    EXPECT_NEAR(c.net.links[l].volume[v], passed[l] * 15, 1e-6) << int(method);
            // The merge link flows exactly at capacity: it shows no delay of its own.
            EXPECT_EQ(method == 1 ? c.net.links[lc].queue_veh[2] : 0.0f, 0.0f);
            EXPECT_GT(c.net.links[la].queue_veh[2], 0.0f);
            EXPECT_NEAR(t.injected, t.exited + t.on_network_end, 1e-6);
            EXPECT_NEAR(t.injected, 15000.0, 1e-6);
        }
    }
}

// W (one minute) feeds X (ten minutes, storage 200, 600 veh/h, wave speed 600 / 220 mph); a pulse
// of 200 vehicles fills X at minute 30 while 300 vehicles wait on W.
constexpr int32_t w = 0, x = 1;
NodeCase spill(float x_length) {
    NodeCase c(3);
    c.link(0, 1, {.capacity_vph = 600});
    c.link(1, 2, {600, 10, 200, x_length, 30});  // capacity, free flow, storage, length, speed
    c.key({x}, 0, 200.0f);
    c.key({w, x}, 0, 300.0f);
    return c;
}

TEST(NodeModel, SpillbackReachesUpstreamAfterTheBackwardWave) {
    // X first discharges in minute 41. Its room reaches W one wave time later: 44 minutes for
    // 2 miles (minute 85, interval 5), 22 minutes for 1 mile (minute 63, interval 4).
    for (float len : {2.0f, 1.0f}) {
        NodeCase c = spill(len);
        const NodeLoadTotals t = quiet_load(c, node_params(1, true, 60.0f, 60.0f));
        const Link& lw = c.net.links[w];
        const int first = len == 2.0f ? 5 : 4;
        for (int v = 0; v < first; ++v) EXPECT_EQ(lw.volume[v], 0.0f) << len << " " << v;
        EXPECT_GT(lw.volume[first], 0.0f) << len;
        EXPECT_GT(lw.queue_veh[first - 1], 250.0f);  // W holds its vehicles meanwhile
        EXPECT_NEAR(c.volume_sum(w), 300.0, 1e-6);
        EXPECT_NEAR(c.volume_sum(x), 500.0, 1e-6);
        EXPECT_NEAR(t.injected - t.exited - t.on_network_end, 0.0, 1e-6);
    }
    // Point-queue receiving never looks at storage: W discharges at its own capacity from
    // minute 32 as if X were empty, and X's storage is never consulted.
    for (uint8_t method : {1, 0}) {
        NodeCase c = spill(2.0f);
        quiet_load(c, node_params(method, false, 60.0f, 60.0f));
        EXPECT_NEAR(c.net.links[w].volume[2], 140.0, 1e-6) << int(method);
        EXPECT_NEAR(c.net.links[w].volume[3], 150.0, 1e-6) << int(method);
        EXPECT_NEAR(c.volume_sum(w), 300.0, 1e-6);
        EXPECT_GT(c.net.links[x].queue_veh[3], 100.0f);
    }
    // Queue stepping frees room at once: W moves again in the minute after X first discharges
    // (minute 41, interval 2), having waited since minute 31.
    NodeCase c = spill(2.0f);
    quiet_load(c, node_params(0, true, 60.0f, 60.0f));
    EXPECT_GT(c.net.links[w].volume[2], 0.0f);
    EXPECT_LT(c.net.links[w].volume[2], 60.0f);
    EXPECT_GT(c.net.links[w].queue_veh[2], 200.0f);
}

TEST(NodeModel, ShortLinksLateDeparturesAndSpreading) {
    for (uint8_t method : {1, 0}) {
        // A link shorter than one step takes the next step; 120 a step moves the group at once.
        NodeCase c(3);
        const int32_t l1 = c.link(0, 1, {.capacity_vph = 7200, .free_flow_min = 0.2f});
        const int32_t l2 = c.link(1, 2, {.capacity_vph = 7200, .free_flow_min = 0.2f});
        c.trips.slot_minutes = 29.0f;  // one part at minute 14.5: the last step of interval 0
        c.key({l1, l2}, 0, 100.0f);
        NodeLoadTotals t = quiet_load(c, node_params(method, true, 60.0f, 29.0f));
        EXPECT_EQ(c.net.links[l1].volume[0], 0.0f) << int(method);
        EXPECT_NEAR(c.net.links[l1].volume[1], 100.0, 1e-6) << int(method);
        EXPECT_NEAR(c.net.links[l2].volume[1], 100.0, 1e-6) << int(method);
        EXPECT_NEAR(t.exited, 100.0, 1e-9);

        // A departure from minute 1800 counts in the shares but is never injected: half of what
        // is on a turns towards d.
        NodeCase f = fork();
        f.key({a, b}, 0, 100.0f);
        f.key({a, d}, 30, 100.0f);
        t = quiet_load(f, node_params(method, true));
        EXPECT_DOUBLE_EQ(t.injected, 100.0);
        EXPECT_NEAR(t.exited, 100.0, 1e-9);
        EXPECT_NEAR(f.volume_sum(b), 50.0, 1e-6);
        EXPECT_NEAR(f.volume_sum(d), 50.0, 1e-6);
    }
    // Steps below one second are one second.
    NodeCase c = bottleneck();
    NodePrep prep;
    prepare_node_load(c.net, c.trips, c.arena, node_params(1, true, 0.25f), nullptr, prep);
    EXPECT_EQ(prep.dt, 1.0f);
    EXPECT_EQ(prep.num_steps, 108000);
    // Spreading: four parts at minutes 7.5, 22.5, 37.5 and 52.5; a resolution of 0 caps at 120.
    NodeCase s(2);
    s.link(0, 1);
    s.key({0}, 0, 100.0f);
    prepare_node_load(s.net, s.trips, s.arena, node_params(1, true), nullptr, prep);
    ASSERT_EQ(prep.inject.size(), 4u);
    for (int m : {7, 22, 37, 52}) {
        ASSERT_EQ(prep.inject_begin[m + 1] - prep.inject_begin[m], 1) << m;
        EXPECT_DOUBLE_EQ(prep.inject[prep.inject_begin[m]].veh, 25.0);
    }
    prepare_node_load(s.net, s.trips, s.arena, node_params(1, true, 60.0f, 0.0f), nullptr, prep);
    EXPECT_EQ(prep.inject.size(), 120u);
}

TEST(NodeModel, IntervalTurnsAndOverlayPaths) {
    // Early vehicles all turn to b, late ones all to d; the cumulative method keeps static
    // shares and splits both halves (static shares are also shown with the late departure).
    for (uint8_t method : {0, 1}) {
        NodeCase c = fork();
        c.key({a, b}, 0, 100.0f);
        c.key({a, d}, 10, 100.0f);
        NodeLoadParams p = node_params(method, true);
        p.interval_turns = true;
        quiet_load(c, p);
        double early_d = 0, late_b = 0;
        for (int v = 0; v < 8; ++v) early_d += c.net.links[d].volume[v];
        for (int v = 40; v < 48; ++v) late_b += c.net.links[b].volume[v];
        EXPECT_NEAR(early_d, method == 0 ? 0.0 : 50.0, 1e-6);
        EXPECT_NEAR(late_b, method == 0 ? 0.0 : 50.0, 1e-6);
        EXPECT_NEAR(c.volume_sum(b) + c.volume_sum(d), 200.0, 1e-6);
    }
    // An overlay path wins even when it is empty: the second key's new path loads nothing.
    NodeCase c = fork();
    c.key({a, b}, 0, 100.0f);
    c.key({a, b}, 1, 40.0f);
    PathOverlay ov;
    ov.owner = {0, 0};
    ov.thread_arena = {{a, d}};
    ov.new_offset = {0, 2};
    ov.new_len = {2, 0};
    EXPECT_DOUBLE_EQ(quiet_load(c, node_params(1, true), &ov).injected, 100.0);
    EXPECT_NEAR(c.volume_sum(d), 100.0, 1e-6);
    EXPECT_EQ(c.volume_sum(b), 0.0);
}

}  // namespace
}  // namespace torvex
