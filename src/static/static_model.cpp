#include "static/static_model.h"

#include <algorithm>
#include <cmath>

namespace torvex {

StaticModel build_static_model(const Network& net) {
    StaticModel m;
    m.period = std::max(1, net.sta_window_intervals);
    m.windows = (m.period + kIntervals - 1) / m.period;
    m.link_count = net.link_count();
    const size_t n = static_cast<size_t>(m.link_count);
    m.window_capacity.resize(n * m.windows);
    m.t0.resize(n);
    m.alpha.assign(n, 0.15f);
    m.beta.assign(n, 4.0f);
    for (size_t l = 0; l < n; ++l) {
        const Link& link = net.links[l];
        m.t0[l] = link.free_flow_min;
        m.alpha[l] = link.alpha;
        m.beta[l] = link.beta;
        const float per_interval = std::max(0.001f, link.capacity_vph * 0.25f);
        for (int32_t w = 0; w < m.windows; ++w)
            m.window_capacity[l * m.windows + w] =
                static_cast<float>(window_intervals(m.period, w)) * per_interval;
    }
    return m;
}

double static_link_cost(const StaticModel& m, int32_t link, int32_t window, double flow) {
    const double t0 = m.t0[link];
    if (!(flow > 0.0)) return t0;
    const double c = m.window_capacity[static_cast<size_t>(link) * m.windows + window];
    const double delay = std::pow(flow / c, static_cast<double>(m.beta[link])) *
                         (static_cast<double>(m.alpha[link]) * t0);
    return std::min(1440.0, delay) + t0;
}

void flow_to_windows(const StaticModel& m, const std::vector<float>& flows,
                     std::vector<float>& out) {
    const int32_t n = m.link_count;
    const int32_t W = m.windows, P = m.period;
    out.resize(static_cast<size_t>(n) * W);
#pragma omp parallel for schedule(static)
    for (int32_t l = 0; l < n; ++l) {
        const float* f = flows.data() + static_cast<size_t>(l) * kIntervals;
        float* o = out.data() + static_cast<size_t>(l) * W;
        for (int32_t w = 0; w < W; ++w) {
            const int32_t s = P * w, e = std::min(s + P, kIntervals);
            float sum = 0.0f;
            for (int32_t i = s; i < e; ++i) sum += f[i];
            o[w] = sum;
        }
    }
}

}  // namespace torvex
