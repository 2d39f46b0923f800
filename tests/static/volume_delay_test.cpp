#include "static/volume_delay.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvex {
namespace {

Link road(float cap_vph, float t0) {
    Link l{};
    l.capacity_vph = l.discharge_vph = cap_vph;
    l.free_flow_min = t0;
    l.alpha = 0.15f;
    l.beta = 4.0f;
    return l;
}

TEST(VolumeDelay, CurvesAtZeroCapacityAndBeyond) {
    Network net;
    Link l = road(400, 10.0f);  // 100 vehicles per interval
    // Zero load: every curve gives the free-flow time.
    for (uint8_t kind : {0, 1, 2}) {
        net.vdf_kind = kind;
        EXPECT_NEAR(vdf_delay(net, l, 0.0f, 1), 0.0f, 1e-5f) << int(kind);  // f32 rounding
    }
    net.vdf_kind = 0;
    EXPECT_FLOAT_EQ(vdf_delay(net, l, 1.0f, 1), 0.15f * 10.0f);
    EXPECT_FLOAT_EQ(vdf_delay(net, l, 2.0f, 1), 16.0f * 1.5f);
    net.bpr_overcap_beta_mult = 2.0f;
    EXPECT_FLOAT_EQ(vdf_delay(net, l, 1.0f, 1), 1.5f);  // not above 1: no multiplier
    EXPECT_FLOAT_EQ(vdf_delay(net, l, 2.0f, 1), 256.0f * 1.5f);

    // Conical at capacity: sqrt(g^2 + 0) + 2 - g - 1 = 1, times t0.
    net.vdf_kind = 1;
    net.conical_alpha = 4.0f;
    EXPECT_NEAR(vdf_delay(net, l, 1.0f, 1), 10.0f, 1e-5f);
    net.conical_alpha = 1.001f;  // raised to 1.01 inside the curve
    const float a = 1.01f, g = (2 * a - 1) / (2 * a - 2), u = -1.0f;
    EXPECT_NEAR(vdf_delay(net, l, 2.0f, 1),
                (std::sqrt(a * a * u * u + g * g) + 2 - a * u - g - 1) * 10, 1e-3f);

    // Akcelik at capacity over one interval: sqrt(8 J x / (C T)) * 15 T.
    net.vdf_kind = 2;
    net.akcelik_ja = 0.1f;
    EXPECT_NEAR(vdf_delay(net, l, 1.0f, 1), std::sqrt(8 * 0.1f / (400 * 0.25f)) * 3.75f, 1e-5f);
}

TEST(VolumeDelay, WindowsShareOneTimeAndCapAt1440) {
    Network net;
    net.sta_window_intervals = 7;  // BPR_PERIOD_MIN 100: 18 windows, the last of one interval
    Link l = road(400, 10.0f);
    for (int i = 0; i < kIntervals; ++i) l.inflow[i] = (i < 7) ? 100.0f : 0.0f;
    l.inflow[119] = 200.0f;
    l.queue_veh[3] = 5.0f;
    apply_vdf(net, l);
    for (int i = 0; i < kIntervals; ++i) {
        ASSERT_EQ(l.volume[i], l.inflow[i]);
        ASSERT_EQ(l.queue_veh[i], 0.0f);
    }
    for (int i = 0; i < 7; ++i) EXPECT_FLOAT_EQ(l.travel_time_min[i], 10.0f + 1.5f);  // x = 1
    for (int i = 7; i < 119; ++i) EXPECT_FLOAT_EQ(l.travel_time_min[i], 10.0f);
    EXPECT_FLOAT_EQ(l.travel_time_min[119], 10.0f + 16.0f * 1.5f);  // x = 2 on one interval

    // A near-zero capacity: the 0.001 floor applies and the cap bounds the time.
    Link jam = road(0.0f, 2.0f);
    jam.inflow[0] = 50.0f;
    net.sta_window_intervals = 4;
    apply_vdf(net, jam);
    for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(jam.travel_time_min[i], 1442.0f);
    EXPECT_FLOAT_EQ(jam.travel_time_min[4], 2.0f);
}

}  // namespace
}  // namespace torvex
