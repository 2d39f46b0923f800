#include "static/static_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "run/driver.h"
#include "run/run_config.h"
#include "static/static_solver.h"

namespace torvex {
namespace {

Network two_links() {
    Network net;
    net.links.resize(2);
    for (Link& l : net.links) {
        l = Link{};
        l.free_flow_min = 10.0f;
        l.capacity_vph = 400.0f;  // 100 vehicles per interval
        l.alpha = 0.15f;
        l.beta = 4.0f;
    }
    net.links[1].free_flow_min = 0.0f;  // a link without time is left out of the sums
    return net;
}

TEST(StaticModel, WindowsFromThePeriodKey) {
    struct Case {
        float period_min;
        int period, windows, last_intervals;
    };
    for (const Case& c : {Case{0, 1, 120, 1}, Case{15, 1, 120, 1}, Case{60, 4, 30, 4},
                          Case{100, 7, 18, 1}, Case{1800, 120, 1, 120}}) {
        RunConfig config;
        config.macro_model = MacroModel::STA_BPR;
        config.bpr_period_min = c.period_min;
        Network net = two_links();
        testing::internal::CaptureStdout();
        apply_static_settings(config, net);
        testing::internal::GetCapturedStdout();
        const StaticModel m = build_static_model(net);
        ASSERT_EQ(m.period, c.period) << c.period_min;
        ASSERT_EQ(m.windows, c.windows) << c.period_min;
        EXPECT_EQ(window_intervals(m.period, m.windows - 1), c.last_intervals);
        // Each window's capacity is its interval count times one interval's capacity.
        int covered = 0;
        for (int w = 0; w < m.windows; ++w) {
            covered += window_intervals(m.period, w);
            EXPECT_FLOAT_EQ(m.window_capacity[w], 100.0f * window_intervals(m.period, w));
        }
        EXPECT_EQ(covered, kIntervals);

        // Window sums cover every interval once, in order.
        std::vector<float> flows(2 * kIntervals), out;
        for (int i = 0; i < kIntervals; ++i) flows[i] = static_cast<float>(i + 1);
        flow_to_windows(m, flows, out);
        ASSERT_EQ(out.size(), 2u * m.windows);
        int first = 1;
        for (int w = 0; w < m.windows; ++w) {
            const int n = window_intervals(m.period, w), last = first + n - 1;
            EXPECT_FLOAT_EQ(out[w], (first + last) * n / 2.0f) << c.period_min << " " << w;
            EXPECT_EQ(out[m.windows + w], 0.0f);
            first = last + 1;
        }
    }
}

TEST(StaticModel, BprCostZeroCapacityAndCap) {
    Network net = two_links();
    net.sta_window_intervals = 4;
    net.links[0].capacity_vph = 0.0f;  // floored at 0.001 per interval
    Network fine = two_links();
    fine.sta_window_intervals = 4;
    const StaticModel m = build_static_model(fine);
    EXPECT_DOUBLE_EQ(static_link_cost(m, 0, 0, -5.0), 10.0);
    // 400 vehicles in a window of four 100-vehicle intervals: x = 1, delay 0.15 * 10.
    EXPECT_NEAR(static_link_cost(m, 0, 0, 400.0), 11.5, 1e-6);
    EXPECT_NEAR(static_link_cost(m, 0, 29, 200.0), 10.0 + 1.5 / 16, 1e-6);
    const StaticModel jam = build_static_model(net);
    EXPECT_FLOAT_EQ(jam.window_capacity[0], 0.004f);
    EXPECT_DOUBLE_EQ(static_link_cost(jam, 0, 0, 50.0), 1450.0);  // capped delay
}

// The Hessian product is the derivative of the cost: compare with central differences.
TEST(StaticDirections, HessianIsTheCostDerivativeAndIgnoresTheCap) {
    Network net = two_links();
    net.links[0].beta = 3.0f;
    const StaticModel m = build_static_model(net);  // one interval per window
    const int W = m.windows;
    std::vector<float> flow(2 * W, 0.0f), e(2 * W, 0.0f);
    flow[5] = 130.0f;
    e[5] = 1.0f;
    const double h = 1e-3;
    const double fd =
        (static_link_cost(m, 0, 5, 130.0 + h) - static_link_cost(m, 0, 5, 130.0 - h)) / (2 * h);
    EXPECT_NEAR(hessian_product(m, flow, e, e), fd, 1e-6 * fd);
    // A zero entry adds nothing.
    std::vector<float> other(2 * W, 0.0f);
    other[6] = 1.0f;
    EXPECT_EQ(hessian_product(m, flow, e, other), 0.0);
    // Above the flow where the 1440 cap binds the cost is flat: no term.
    const double f_cap = 100.0 * std::pow(1440.0 / 1.5, 1.0 / 3.0);
    flow[5] = static_cast<float>(f_cap * 1.01);
    EXPECT_EQ(hessian_product(m, flow, e, e), 0.0);
    flow[5] = static_cast<float>(f_cap * 0.99);
    EXPECT_GT(hessian_product(m, flow, e, e), 0.0);
    // The link without free-flow time is never counted.
    std::vector<float> on_second(2 * W, 0.0f);
    on_second[W + 5] = 1.0f;
    flow[W + 5] = 200.0f;
    EXPECT_EQ(hessian_product(m, flow, on_second, on_second), 0.0);
}

// Valid weights make the new target conjugate to the earlier ones: H(S - XW, S1 - XW) = 0 (and
// H(S - XW, S2 - XW) = 0 for the bi-conjugate method), with weights summing to 1.
TEST(StaticDirections, ConjugateWeightsGiveConjugateTargets) {
    Network net;
    net.links.resize(6);
    for (size_t l = 0; l < net.links.size(); ++l) {
        Link& k = net.links[l];
        k = Link{};
        k.free_flow_min = 2.0f + static_cast<float>(l);
        k.capacity_vph = 800.0f;
        k.alpha = 0.15f;
        k.beta = 4.0f;
    }
    net.sta_window_intervals = 60;  // two windows
    const StaticModel m = build_static_model(net);
    const size_t n = 6 * 2;
    std::vector<float> xw(n), yw(n), s1(n), s2(n);
    uint32_t seed = 12345;
    auto draw = [&seed](float hi) {
        seed = seed * 1664525u + 1013904223u;
        return hi * static_cast<float>(seed >> 8) / 16777216.0f;
    };
    auto minus = [&](const std::vector<float>& v) {
        std::vector<float> d(n);
        for (size_t i = 0; i < n; ++i) d[i] = v[i] - xw[i];
        return d;
    };
    auto target = [&](const ConjWeights& w) {
        std::vector<float> s(n);
        for (size_t i = 0; i < n; ++i)
            s[i] = static_cast<float>(w.w0 * yw[i] + w.w1 * s1[i] + w.w2 * s2[i]);
        return minus(s);
    };
    // All-or-nothing targets put a link's demand on it or not; earlier targets are mixtures.
    int valid_conjugate = 0, valid_biconjugate = 0;
    for (int set = 0; set < 40; ++set) {
        for (size_t i = 0; i < n; ++i) {
            xw[i] = 1000.0f + draw(4000.0f);
            yw[i] = draw(1.0f) < 0.5f ? 0.0f : 9000.0f;
            s1[i] = draw(8000.0f);
            s2[i] = draw(8000.0f);
        }
        const std::vector<float> b = minus(s1), c = minus(s2);
        const double bb = hessian_product(m, xw, b, b), cc = hessian_product(m, xw, c, c);
        const ConjWeights cw = conjugate_weights(m, xw, yw, s1);
        if (cw.valid) {
            ++valid_conjugate;
            EXPECT_NEAR(cw.w0 + cw.w1 + cw.w2, 1.0, 1e-12);
            EXPECT_EQ(cw.w2, 0.0);
            EXPECT_NEAR(hessian_product(m, xw, target(cw), b) / bb, 0.0, 1e-5);
        }
        const ConjWeights bw = biconjugate_weights(m, xw, yw, s1, s2);
        if (bw.valid) {
            ++valid_biconjugate;
            EXPECT_NEAR(bw.w0 + bw.w1 + bw.w2, 1.0, 1e-12);
            EXPECT_NEAR(hessian_product(m, xw, target(bw), b) / bb, 0.0, 1e-5);
            EXPECT_NEAR(hessian_product(m, xw, target(bw), c) / cc, 0.0, 1e-5);
        }
    }
    EXPECT_GE(valid_conjugate, 5);
    EXPECT_GE(valid_biconjugate, 5);

    // Earlier targets at the current point: no curvature along them, not valid.
    EXPECT_FALSE(conjugate_weights(m, xw, yw, xw).valid);
    EXPECT_FALSE(biconjugate_weights(m, xw, yw, s1, s1).valid);  // singular
    // A weight below zero is what the log calls non-convex.
    EXPECT_FALSE(weights_acceptable(1.2, -0.2, 0.0));
    EXPECT_TRUE(weights_acceptable(0.5, 0.5, -1e-13));
}

// Two parallel links share 3000 vehicles: the search along "move everything to the second"
// stops where both costs are equal.
TEST(StaticDirections, LineSearchFindsTheBalancedSplit) {
    Network net = two_links();
    net.links[1].free_flow_min = 12.0f;
    for (Link& l : net.links) l.capacity_vph = 40.0f;  // 1200 vehicles per window
    net.sta_window_intervals = 120;
    const StaticModel m = build_static_model(net);
    std::vector<float> xw = {3000.0f, 0.0f}, dir = {-3000.0f, 3000.0f};
    const double step = line_search(m, xw, dir, 40);
    ASSERT_GT(step, 0.0);
    ASSERT_LT(step, 1.0);
    const double f1 = 3000.0 * (1 - step), f2 = 3000.0 * step;
    EXPECT_NEAR(static_link_cost(m, 0, 0, f1), static_link_cost(m, 1, 0, f2), 1e-4);
    // The slope changes sign around the step.
    EXPECT_LE(direction_slope(m, xw, dir, step - 1e-5), 0.0);
    EXPECT_GE(direction_slope(m, xw, dir, step + 1e-5), 0.0);

    // Uphill from the start: step 0.
    std::vector<float> back = {3000.0f, -3000.0f};
    EXPECT_EQ(line_search(m, xw, back, 40), 0.0);
    // Downhill all the way: step 1.
    std::vector<float> light = {10.0f, 0.0f};
    net.links[1].free_flow_min = 1.0f;
    const StaticModel cheap = build_static_model(net);
    EXPECT_EQ(line_search(cheap, light, {-10.0f, 10.0f}, 40), 1.0);
}

}  // namespace
}  // namespace torvex
