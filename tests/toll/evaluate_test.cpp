#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

#include "toll/side_network.h"
#include "toll/toll_tables.h"

namespace torvex {
namespace {

using Row = TollDensityRow;

// One 2-lane, 1-mile link at 60 mph free flow, naming `policy_id`.
struct OneLink {
    Network net = fixture::side_network({1, 2}, {{1, 2, 2, 3600.0f}});
    Link& l = net.links[0];
    explicit OneLink(uint16_t policy_id = 0, float deflator = 1.0f) {
        l.length_mi = 1.0f;
        l.speed_mph = 60.0f;
        l.toll_policy = policy_id;
        net.toll_deflator = deflator;
    }
    TollPolicy& add(int32_t id, uint8_t type) {
        TollPolicy& p = net.toll_policies.find_or_create(id);
        p.type = type;
        return p;
    }
    float at(int interval) { return evaluate_toll(net, l, interval); }
    // Volume that gives `density` veh/lane-mile at the free-flow 60 mph (no travel time yet, so
    // the posted speed applies), then the toll of that interval.
    float at_density(int interval, float density) {
        l.travel_time_min[interval] = 0.0f;
        l.volume[interval] = density * 60.0f * 2.0f / 4.0f;
        return at(interval);
    }
};

TEST(EvaluateToll, LinksWithoutAUsablePolicyChargeTheirOwnTollUndeflated) {
    OneLink t(0, 0.5f);
    t.l.toll = 1.25f;
    EXPECT_EQ(t.at(10), 1.25f);  // no policy
    t.l.toll_policy = 7;
    EXPECT_EQ(t.at(10), 1.25f);  // empty policy map
    t.add(3, kTollFixed).toll = 9.0f;
    t.add(8, kTollFixed).toll = 9.0f;
    t.add(65536 + 7, kTollFixed).toll = 9.0f;  // no link can name it: no answer for its low bits
    EXPECT_EQ(t.at(10), 1.25f);                // unknown id between known ones
    t.l.toll_policy = 0;
    t.add(0, kTollFixed).toll = 9.0f;
    EXPECT_EQ(t.at(10), 1.25f);  // 0 means none even if a policy 0 exists
}

TEST(EvaluateToll, FixedPolicyYieldsToTheLinksOwnPositiveToll) {
    OneLink t(4, 0.5f);
    TollPolicy& p = t.add(4, kTollFixed);
    p.toll = 2.0f;
    // {own toll, cpi flag, charge}: a positive own toll wins and takes the policy's deflation.
    const std::vector<std::tuple<float, bool, float>> cases = {{0.0f, false, 2.0f},
                                                               {0.0f, true, 1.0f},
                                                               {1.5f, true, 0.75f},
                                                               {1.5f, false, 1.5f},
                                                               {-1.0f, false, 2.0f}};
    for (const auto& [own, cpi, want] : cases) {
        t.l.toll = own;
        p.cpi_adjust = cpi;
        EXPECT_EQ(t.at(50), want) << own << " " << cpi;
    }
}

TEST(EvaluateToll, TimeOfDayChargesByIntervalMidpoint) {
    OneLink t(2, 0.8f);
    t.l.toll = 5.0f;  // never used by a time-of-day policy
    TollPolicy& p = t.add(2, kTollTimeOfDay);
    p.tod_rows.push_back({360.0f, 540.0f, 3.0f, true});  // 06:00 - 09:00, deflated
    // Midpoints 352.5, 367.5, 532.5, 547.5.
    for (auto [i, want] : {std::pair{23, 0.0f}, {24, 2.4f}, {35, 2.4f}, {36, 0.0f}})
        EXPECT_FLOAT_EQ(t.at(i), want) << i;

    // Boundaries on a midpoint: start is inclusive, end exclusive; the first row in order wins.
    p.tod_rows = {{367.5f, 382.5f, 1.0f, false},
                  {382.5f, 1800.0f, 2.0f, false},
                  {382.5f, 1800.0f, 7.0f, false}};
    for (auto [i, want] : {std::pair{23, 0.0f}, {24, 1.0f}, {25, 2.0f}, {119, 2.0f}})
        EXPECT_EQ(t.at(i), want) << i;
    p.tod_rows.clear();
    EXPECT_EQ(t.at(30), 0.0f);
}

TEST(EvaluateToll, DensityRoundsToIncrementsBetweenMinAndMax) {
    OneLink t(5);
    TollPolicy& p = t.add(5, kTollDensity);
    p.density_rows = {Row{0, 10, 1.0f, 3.0f, 0.25f, true, false}};
    EXPECT_FLOAT_EQ(t.at_density(40, 4.0f), 1.75f);  // f = 0.4: 1.80 rounds to 1.75

    // {row, density, toll}: the clamp to toll_max after rounding (2.9 / 0.25 rounds up to 3.00);
    // below density_min the position clamps to 0; a row without width takes the top; flat rows
    // (not dynamic, no step, min above max) charge toll_min.
    const std::vector<std::tuple<Row, float, float>> cases = {
        {Row{0, 10, 1.0f, 2.9f, 0.25f, true, false}, 10.0f, 2.9f},
        {Row{5, 10, 1.0f, 3.0f, 0.25f, true, false}, 2.0f, 1.0f},
        {Row{10, 10, 1.0f, 3.0f, 0.25f, true, false}, 10.0f, 3.0f},
        {Row{0, 10, 1.0f, 3.0f, 0.25f, false, false}, 4.0f, 1.0f},
        {Row{0, 10, 1.0f, 3.0f, 0.0f, true, false}, 4.0f, 1.0f},
        {Row{0, 10, 4.0f, 3.0f, 0.25f, true, false}, 4.0f, 4.0f}};
    for (const auto& [row, density, want] : cases) {
        p.density_rows = {row};
        EXPECT_FLOAT_EQ(t.at_density(41, density), want) << row.toll_min << " " << density;
    }
    p.density_rows.clear();
    EXPECT_EQ(t.at_density(60, 4.0f), 0.0f);  // no rows
}

TEST(EvaluateToll, DensityRowChoiceSpeedAndLanes) {
    OneLink t(5);
    TollPolicy& p = t.add(5, kTollDensity);
    // The first row whose density_max reaches the density answers, in sorted order.
    p.density_rows = {Row{0, 5, 0.5f, 0.5f, 0, false, false},
                      Row{5, 20, 2.0f, 2.0f, 0, false, false},
                      Row{20, 40, 6.0f, 6.0f, 0, false, false}};
    EXPECT_EQ(t.at_density(61, 5.0f), 0.5f);  // density_max is inclusive
    EXPECT_EQ(t.at_density(62, 5.01f), 2.0f);
    EXPECT_EQ(t.at_density(63, 39.0f), 6.0f);
    t.l.volume[64] = 0.0f;  // empty road sits in the first row
    EXPECT_EQ(t.at(64), 0.5f);

    // Linear rate over density 0..100 with a 0.01 step, so the toll reads back the density.
    p.density_rows = {Row{0, 100, 0.0f, 1.0f, 0.01f, true, false}};
    // {travel time, volume, density / 100}: 1 mile in 4 minutes is 15 mph, 300 veh per 15 min
    // is 1200 vph over 2 lanes; no travel time yet gives free-flow 60 mph; a crawl is raised to
    // 3 mph (1 mile in 60 minutes would be 1 mph).
    for (auto [tt, vol, want] :
         {std::tuple{4.0f, 300.0f, 0.40f}, {0.0f, 300.0f, 0.10f}, {60.0f, 15.0f, 0.10f}}) {
        t.l.travel_time_min[10] = tt;
        t.l.volume[10] = vol;
        EXPECT_FLOAT_EQ(t.at(10), want) << tt;
    }
    // A zero-length link uses the posted speed, itself raised to 3 mph; zero lanes count as one.
    t.l.length_mi = 0.0f;
    t.l.speed_mph = 1.0f;
    t.l.travel_time_min[13] = 4.0f;
    t.l.volume[13] = 15.0f;
    EXPECT_FLOAT_EQ(t.at(13), 0.10f);
    t.l.lanes = 0;
    EXPECT_FLOAT_EQ(t.at(13), 0.20f);
}

TEST(EvaluateToll, DensityDeflationAsymmetries) {
    OneLink t(5, 0.5f);
    TollPolicy& p = t.add(5, kTollDensity);
    p.density_rows = {Row{0, 10, 1.0f, 3.0f, 0.25f, true, true},
                      Row{10, 20, 4.0f, 8.0f, 0.5f, true, true}};
    // toll_min and the step deflate, toll_max does not: 0.5 + 2.5 x 0.4 = 1.5 on a 0.125 grid.
    EXPECT_FLOAT_EQ(t.at_density(20, 4.0f), 1.5f);
    // Full position climbs to the undeflated toll_max.
    EXPECT_FLOAT_EQ(t.at_density(21, 10.0f), 3.0f);
    // Above every row: the last toll_max as written, no deflation despite the flag.
    EXPECT_EQ(t.at_density(22, 25.0f), 8.0f);
    // A flat row returns its deflated toll_min.
    p.density_rows[0].dynamic = false;
    EXPECT_FLOAT_EQ(t.at(20), 0.5f);
    // Deflated toll_min at or above toll_max stays deflated.
    p.density_rows[0] = Row{0, 10, 6.0f, 3.0f, 0.25f, true, true};
    EXPECT_FLOAT_EQ(t.at(20), 3.0f);
    // Without the flag the same row is undeflated.
    p.density_rows[0] = Row{0, 10, 1.0f, 3.0f, 0.25f, true, false};
    EXPECT_FLOAT_EQ(t.at(20), 1.75f);
}

}  // namespace
}  // namespace torvex
