#include <gtest/gtest.h>

#include <cmath>

#include "toll/side_network.h"
#include "toll/toll_tables.h"

namespace torvex {
namespace {

// One 2-lane, 1-mile link at 60 mph free flow.
Network one_link() {
    Network net = fixture::side_network({1, 2}, {{1, 2, 2, 3600.0f}});
    Link& l = net.links[0];
    l.length_mi = 1.0f;
    l.speed_mph = 60.0f;
    return net;
}

TollPolicy& add_policy(Network& net, int32_t id, uint8_t type) {
    TollPolicy& p = net.toll_policies.find_or_create(id);
    p.type = type;
    return p;
}

TollDensityRow density_row(float dmin, float dmax, float tmin, float tmax, float inc, bool dynamic,
                           bool cpi) {
    return TollDensityRow{dmin, dmax, tmin, tmax, inc, dynamic, cpi};
}

// Volume that gives `density` veh/lane-mile on the 2-lane link at its free-flow 60 mph (no
// travel time yet, so the posted speed applies).
void set_density(Link& l, int interval, float density) {
    l.travel_time_min[interval] = 0.0f;
    l.volume[interval] = density * 60.0f * 2.0f / 4.0f;
}

TEST(EvaluateToll, LinksWithoutAUsablePolicyChargeTheirOwnTollUndeflated) {
    Network net = one_link();
    net.toll_deflator = 0.5f;
    Link& l = net.links[0];
    l.toll = 1.25f;
    EXPECT_EQ(evaluate_toll(net, l, 10), 1.25f);  // no policy
    l.toll_policy = 7;
    EXPECT_EQ(evaluate_toll(net, l, 10), 1.25f);  // empty policy map
    add_policy(net, 3, kTollFixed).toll = 9.0f;
    add_policy(net, 8, kTollFixed).toll = 9.0f;
    EXPECT_EQ(evaluate_toll(net, l, 10), 1.25f);  // unknown id between known ones
    l.toll_policy = 9000;
    EXPECT_EQ(evaluate_toll(net, l, 10), 1.25f);  // unknown id beyond every known one
    // An id no link can name (above u16) does not answer for its low bits.
    add_policy(net, 65536 + 7, kTollFixed).toll = 9.0f;
    l.toll_policy = 7;
    EXPECT_EQ(evaluate_toll(net, l, 10), 1.25f);
    l.toll_policy = 0;
    add_policy(net, 0, kTollFixed).toll = 9.0f;
    EXPECT_EQ(evaluate_toll(net, l, 10), 1.25f);  // 0 means none even if a policy 0 exists
}

TEST(EvaluateToll, FixedPolicyYieldsToTheLinksOwnPositiveToll) {
    Network net = one_link();
    net.toll_deflator = 0.5f;
    Link& l = net.links[0];
    l.toll_policy = 4;
    TollPolicy& p = add_policy(net, 4, kTollFixed);
    p.toll = 2.0f;
    for (int i : {0, 50, 119}) {
        l.toll = 0.0f;
        p.cpi_adjust = false;
        EXPECT_EQ(evaluate_toll(net, l, i), 2.0f);
        p.cpi_adjust = true;
        EXPECT_EQ(evaluate_toll(net, l, i), 1.0f);
        l.toll = 1.5f;  // the link's own toll wins, and takes the policy's deflation
        EXPECT_EQ(evaluate_toll(net, l, i), 0.75f);
        p.cpi_adjust = false;
        EXPECT_EQ(evaluate_toll(net, l, i), 1.5f);
        l.toll = -1.0f;  // only a positive own toll overrides
        EXPECT_EQ(evaluate_toll(net, l, i), 2.0f);
    }
}

TEST(EvaluateToll, TimeOfDayChargesByIntervalMidpoint) {
    Network net = one_link();
    net.toll_deflator = 0.8f;
    Link& l = net.links[0];
    l.toll = 5.0f;  // never used by a time-of-day policy
    l.toll_policy = 2;
    TollPolicy& p = add_policy(net, 2, kTollTimeOfDay);
    p.tod_rows.push_back({360.0f, 540.0f, 3.0f, true});  // 06:00 - 09:00
    EXPECT_EQ(evaluate_toll(net, l, 23), 0.0f);          // midpoint 352.5
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 24), 2.4f);    // 367.5
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 35), 2.4f);    // 532.5
    EXPECT_EQ(evaluate_toll(net, l, 36), 0.0f);          // 547.5
    int charged = 0;
    for (int i = 0; i < kIntervals; ++i) charged += evaluate_toll(net, l, i) > 0.0f;
    EXPECT_EQ(charged, 12);  // three hours of 15-minute intervals

    // Boundaries on a midpoint: start is inclusive, end exclusive; the first row in order wins.
    p.tod_rows = {{367.5f, 382.5f, 1.0f, false},
                  {382.5f, 1800.0f, 2.0f, false},
                  {382.5f, 1800.0f, 7.0f, false}};
    EXPECT_EQ(evaluate_toll(net, l, 23), 0.0f);
    EXPECT_EQ(evaluate_toll(net, l, 24), 1.0f);  // 367.5 == start
    EXPECT_EQ(evaluate_toll(net, l, 25), 2.0f);  // 382.5 == end of the first row
    EXPECT_EQ(evaluate_toll(net, l, 119), 2.0f);
    p.tod_rows.clear();
    EXPECT_EQ(evaluate_toll(net, l, 30), 0.0f);
}

TEST(EvaluateToll, DensityRoundsToIncrementsBetweenMinAndMax) {
    Network net = one_link();
    Link& l = net.links[0];
    l.toll_policy = 5;
    TollPolicy& p = add_policy(net, 5, kTollDensity);
    p.density_rows.push_back(density_row(0.0f, 10.0f, 1.0f, 3.0f, 0.25f, true, false));

    set_density(l, 40, 4.0f);  // f = 0.4: 1.80 rounds to 1.75
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 40), 1.75f);

    // Over a sweep the toll stays within [toll_min, toll_max], on the 0.25 grid, never falls as
    // density rises, and is within half an increment of the linear rate.
    float last = 0.0f;
    for (int k = 0; k <= 100; ++k) {
        const float d = 0.1f * static_cast<float>(k);
        set_density(l, 50, d);
        const float toll = evaluate_toll(net, l, 50);
        ASSERT_GE(toll, 1.0f);
        ASSERT_LE(toll, 3.0f);
        ASSERT_FLOAT_EQ(toll / 0.25f, std::round(toll / 0.25f)) << d;
        ASSERT_LE(std::fabs(toll - (1.0f + 2.0f * d / 10.0f)), 0.125f + 1e-5f) << d;
        ASSERT_GE(toll, last);
        last = toll;
    }

    // The clamp to toll_max after rounding: 2.9 / 0.25 rounds up to 3.00.
    p.density_rows[0].toll_max = 2.9f;
    set_density(l, 41, 10.0f);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 41), 2.9f);
    // Below the row's density_min the position clamps to 0.
    p.density_rows[0] = density_row(5.0f, 10.0f, 1.0f, 3.0f, 0.25f, true, false);
    set_density(l, 42, 2.0f);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 42), 1.0f);
    // A row without width takes the top of its range.
    p.density_rows[0] = density_row(10.0f, 10.0f, 1.0f, 3.0f, 0.25f, true, false);
    set_density(l, 43, 10.0f);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 43), 3.0f);
}

TEST(EvaluateToll, DensityFlatCasesAndRowChoice) {
    Network net = one_link();
    Link& l = net.links[0];
    l.toll_policy = 5;
    TollPolicy& p = add_policy(net, 5, kTollDensity);
    set_density(l, 60, 4.0f);
    EXPECT_EQ(evaluate_toll(net, l, 60), 0.0f);  // no rows

    p.density_rows = {density_row(0, 10, 1.0f, 3.0f, 0.25f, false, false)};  // not dynamic
    EXPECT_EQ(evaluate_toll(net, l, 60), 1.0f);
    p.density_rows = {density_row(0, 10, 1.0f, 3.0f, 0.0f, true, false)};  // no step
    EXPECT_EQ(evaluate_toll(net, l, 60), 1.0f);
    p.density_rows = {density_row(0, 10, 3.0f, 3.0f, 0.25f, true, false)};  // min == max
    EXPECT_EQ(evaluate_toll(net, l, 60), 3.0f);
    p.density_rows = {density_row(0, 10, 4.0f, 3.0f, 0.25f, true, false)};  // min above max
    EXPECT_EQ(evaluate_toll(net, l, 60), 4.0f);

    // The first row whose density_max reaches the density answers, in sorted order.
    p.density_rows = {density_row(0, 5, 0.5f, 0.5f, 0, false, false),
                      density_row(5, 20, 2.0f, 2.0f, 0, false, false),
                      density_row(20, 40, 6.0f, 6.0f, 0, false, false)};
    set_density(l, 61, 5.0f);
    EXPECT_EQ(evaluate_toll(net, l, 61), 0.5f);  // density_max is inclusive
    set_density(l, 62, 5.01f);
    EXPECT_EQ(evaluate_toll(net, l, 62), 2.0f);
    set_density(l, 63, 39.0f);
    EXPECT_EQ(evaluate_toll(net, l, 63), 6.0f);
    l.volume[64] = 0.0f;  // empty road sits in the first row
    EXPECT_EQ(evaluate_toll(net, l, 64), 0.5f);
}

TEST(EvaluateToll, DensityFromSpeedAndLanes) {
    Network net = one_link();
    Link& l = net.links[0];
    l.toll_policy = 5;
    TollPolicy& p = add_policy(net, 5, kTollDensity);
    // Linear rate over density 0..100 with a 0.01 step, so the toll reads back the density.
    p.density_rows = {density_row(0, 100, 0.0f, 1.0f, 0.01f, true, false)};

    // Congested: 1 mile in 4 minutes is 15 mph; 300 veh per 15 min = 1200 vph over 2 lanes.
    l.travel_time_min[10] = 4.0f;
    l.volume[10] = 300.0f;
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 10), 0.40f);  // 1200 / 15 / 2 = 40 veh/lane-mile
    // No travel time yet: free-flow speed 60 gives 10 veh/lane-mile.
    l.travel_time_min[11] = 0.0f;
    l.volume[11] = 300.0f;
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 11), 0.10f);
    // Crawling: speed is raised to 3 mph (1 mile in 60 minutes would be 1 mph).
    l.travel_time_min[12] = 60.0f;
    l.volume[12] = 15.0f;
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 12), 0.10f);  // 60 / 3 / 2
    // A zero-length link uses the posted speed, itself raised to 3 mph.
    l.length_mi = 0.0f;
    l.speed_mph = 1.0f;
    l.travel_time_min[13] = 4.0f;
    l.volume[13] = 15.0f;
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 13), 0.10f);
    // Zero lanes count as one.
    l.lanes = 0;
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 13), 0.20f);
}

TEST(EvaluateToll, DensityDeflationAsymmetries) {
    Network net = one_link();
    net.toll_deflator = 0.5f;
    Link& l = net.links[0];
    l.toll_policy = 5;
    TollPolicy& p = add_policy(net, 5, kTollDensity);
    p.density_rows = {density_row(0, 10, 1.0f, 3.0f, 0.25f, true, true),
                      density_row(10, 20, 4.0f, 8.0f, 0.5f, true, true)};

    // toll_min and the step deflate, toll_max does not: 0.5 + 2.5 x 0.4 = 1.5 on a 0.125 grid.
    set_density(l, 20, 4.0f);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 20), 1.5f);
    // Full position climbs to the undeflated toll_max.
    set_density(l, 21, 10.0f);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 21), 3.0f);
    // Above every row: the last toll_max as written, no deflation despite the flag.
    set_density(l, 22, 25.0f);
    EXPECT_EQ(evaluate_toll(net, l, 22), 8.0f);
    // A flat row returns its deflated toll_min.
    p.density_rows[0].dynamic = false;
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 20), 0.5f);
    // Deflated toll_min at or above toll_max stays deflated.
    p.density_rows[0] = density_row(0, 10, 6.0f, 3.0f, 0.25f, true, true);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 20), 3.0f);
    // Without the flag the same row is undeflated.
    p.density_rows[0] = density_row(0, 10, 1.0f, 3.0f, 0.25f, true, false);
    EXPECT_FLOAT_EQ(evaluate_toll(net, l, 20), 1.75f);
}

}  // namespace
}  // namespace torvex
