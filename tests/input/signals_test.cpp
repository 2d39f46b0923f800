#include <gtest/gtest.h>

#include "input/network.h"
#include "run/driver.h"
#include "run/run_config.h"

namespace torvex {
namespace {

Network three_links() {
    Network net;
    net.nodes.resize(2);
    for (int i = 0; i < 3; ++i) {
        Link l{};
        l.from = 0, l.to = 1, l.lanes = 2, l.ftype = static_cast<uint16_t>(i == 2 ? 11 : 3);
        l.capacity_vph = l.discharge_vph = 1600;
        l.free_flow_min = 2.0f;
        std::fill(std::begin(l.travel_time_min), std::end(l.travel_time_min), l.free_flow_min);
        net.links.push_back(l);
    }
    net.links[0].nsignals = 3;
    net.links[2].nsignals = 1;
    return net;
}

TEST(SignalModel, ControlDelayAndDischargeOverrideFactors) {
    RunConfig config;
    config.discharge_factor = {{3, 0.5f}, {11, 0.8f}};
    config.signal_gc_ftype = {{11, 0.99f}};
    Network net = three_links();
    apply_discharge_factors(config, net);
    EXPECT_FLOAT_EQ(net.links[1].discharge_vph, 800.0f);
    EXPECT_FLOAT_EQ(net.links[1].capacity_vph, 1600.0f);  // static capacity is left alone

    EXPECT_EQ(apply_signal_model(net, config), 2);
    // Three signals at g/C 0.45 and a 120 s cycle: 120 * 0.5 * 0.55^2 * 3 / 60 minutes.
    EXPECT_NEAR(net.links[0].free_flow_min - 2.0f, 0.9075f, 1e-5f);
    EXPECT_FLOAT_EQ(net.links[0].discharge_vph, 2 * 1800 * 0.45f);
    for (float t : net.links[0].travel_time_min) ASSERT_EQ(t, net.links[0].free_flow_min);
    // The per-FTYPE green share is clamped to 0.95 and replaces the discharge factor.
    EXPECT_FLOAT_EQ(net.links[2].discharge_vph, 2 * 1800 * 0.95f);
    EXPECT_NEAR(net.links[2].free_flow_min - 2.0f, 120 * 0.5f * 0.05f * 0.05f / 60, 1e-6f);
    // Unsignalized links keep the factor's discharge and their free-flow time.
    EXPECT_FLOAT_EQ(net.links[1].discharge_vph, 800.0f);
    EXPECT_FLOAT_EQ(net.links[1].free_flow_min, 2.0f);
}

}  // namespace
}  // namespace torvex
