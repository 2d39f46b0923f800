// The static solver's compact copy of the network: per link and window the capacity of the
// window, and the BPR parameters by which the solver measures its gap and searches its step.
#pragma once

#include <cstdint>
#include <vector>

#include "input/network.h"

namespace torvex {

// A window is `period` consecutive intervals; the last window may be shorter.
struct StaticModel {
    int32_t windows = 0;
    int32_t period = 1;
    int32_t link_count = 0;
    std::vector<float> window_capacity;  // link * windows + window, vehicles
    std::vector<float> t0;               // free-flow minutes
    std::vector<float> alpha;
    std::vector<float> beta;
};

// Number of intervals in window w of `period` intervals.
inline int32_t window_intervals(int32_t period, int32_t w) {
    const int32_t end = period * (w + 1) < kIntervals ? period * (w + 1) : kIntervals;
    return end - period * w;
}

StaticModel build_static_model(const Network& net);

// The solver's BPR cost of a link in a window at `flow` vehicles, whatever curve prices the
// routes: no over-capacity multiplier, delay capped at 1440 minutes.
double static_link_cost(const StaticModel& model, int32_t link, int32_t window, double flow);

// Sums each link's 120 intervals (link * 120 + interval) into its windows, in f32.
void flow_to_windows(const StaticModel& model, const std::vector<float>& flows,
                     std::vector<float>& out);

}  // namespace torvex
