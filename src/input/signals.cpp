#include <algorithm>

#include "input/network.h"
#include "run/run_config.h"

namespace torvex {

// Signalized links discharge at saturation flow times green share and carry the uniform
// control delay of their signals in their free-flow time.
int64_t apply_signal_model(Network& net, const RunConfig& config) {
    int64_t changed = 0;
    for (Link& l : net.links) {
        if (l.nsignals < 1) continue;
        auto it = config.signal_gc_ftype.find(l.ftype);
        float g = it != config.signal_gc_ftype.end() ? it->second : config.signal_gc;
        g = std::clamp(g, 0.05f, 0.95f);
        l.discharge_vph = static_cast<float>(l.lanes) * config.signal_sat_flow * g;
        const float delay_min = config.signal_cycle * 0.5f * (1.0f - g) * (1.0f - g) *
                                static_cast<float>(l.nsignals) / 60.0f;
        l.free_flow_min += delay_min;
        std::fill(std::begin(l.travel_time_min), std::end(l.travel_time_min), l.free_flow_min);
        ++changed;
    }
    return changed;
}

}  // namespace torvex
