#include "static/volume_delay.h"

#include <algorithm>
#include <cmath>

namespace torvex {

float vdf_delay(const Network& net, const Link& link, float x, int n) {
    const float t0 = link.free_flow_min;
    switch (net.vdf_kind) {
        case 1: {  // Spiess's conical curve, less its value of 1 at zero flow
            const float a = std::max(1.01f, net.conical_alpha);
            const float g = (2.0f * a - 1.0f) / (2.0f * a - 2.0f);
            const float u = 1.0f - x;
            return (std::sqrt(a * a * u * u + g * g) + 2.0f - a * u - g - 1.0f) * t0;
        }
        case 2: {  // Akcelik, over a window of T hours
            const float T = std::max(0.001f, static_cast<float>(n) * 15.0f / 60.0f);
            const float C = std::max(0.001f, link.capacity_vph);
            const float ja = net.akcelik_ja;
            const float root =
                std::sqrt(std::max(0.0f, (x - 1.0f) * (x - 1.0f) + 8.0f * ja * x / (C * T)));
            const float d = (root + (x - 1.0f)) * (T * 0.25f * 60.0f);
            return d < 0.0f ? 0.0f : d;
        }
        default: {  // BPR, steeper above capacity when asked
            float b = link.beta;
            if (x > 1.0f && net.bpr_overcap_beta_mult != 1.0f) b *= net.bpr_overcap_beta_mult;
            return std::pow(x, b) * (link.alpha * t0);
        }
    }
}

void apply_vdf(const Network& net, Link& link) {
    for (int i = 0; i < kIntervals; ++i) {
        link.volume[i] = link.inflow[i];
        link.queue_veh[i] = 0.0f;
    }
    const float c = std::max(0.001f, link.capacity_vph * 0.25f);
    const int p = std::max(1, net.sta_window_intervals);
    for (int s = 0; s < kIntervals; s += p) {
        const int e = std::min(s + p, kIntervals);
        const int n = e - s;
        float sum = 0.0f;
        for (int i = s; i < e; ++i) sum += link.volume[i];
        const float x = sum / (static_cast<float>(n) * c);
        const float t = std::min(1440.0f, vdf_delay(net, link, x, n)) + link.free_flow_min;
        for (int i = s; i < e; ++i) link.travel_time_min[i] = t;
    }
}

}  // namespace torvex
