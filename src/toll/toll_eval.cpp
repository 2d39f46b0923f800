#include <algorithm>
#include <cmath>

#include "toll/toll_tables.h"

namespace torvex {

namespace {

float time_of_day_toll(const Network& net, const TollPolicy& policy, int interval) {
    const float t = static_cast<float>(interval) * kIntervalMin + 7.5f;  // interval midpoint
    for (const TollTodRow& row : policy.tod_rows) {
        if (row.start_min <= t && t < row.end_min)
            return row.cpi_adjust ? row.toll * net.toll_deflator : row.toll;
    }
    return 0.0f;
}

float density_toll(const Network& net, const Link& link, const TollPolicy& policy, int interval) {
    const float tt = link.travel_time_min[interval];
    float speed = link.speed_mph;
    if (tt > 0.0001f && link.length_mi > 0.0001f)
        speed = std::max(3.0f, link.length_mi / (tt / 60.0f));
    const float lanes = static_cast<float>(std::max<int>(1, link.lanes));
    const float density = link.volume[interval] * 4.0f / std::max(3.0f, speed) / lanes;

    const std::vector<TollDensityRow>& rows = policy.density_rows;
    if (rows.empty()) return 0.0f;
    const TollDensityRow* row = nullptr;
    for (const TollDensityRow& r : rows) {
        if (r.density_max >= density) {
            row = &r;
            break;
        }
    }
    // Above every row the top rate applies as written, without deflation.
    if (row == nullptr) return rows.back().toll_max;

    float t = row->toll_min;
    float s = row->increment;
    if (row->cpi_adjust) {
        t *= net.toll_deflator;
        s *= net.toll_deflator;
    }
    const float toll_max = row->toll_max;
    if (!row->dynamic || s <= 0.0f || t >= toll_max) return t;

    const float span = row->density_max - row->density_min;
    float f = span > 0.0f ? (density - row->density_min) / span : 1.0f;
    f = std::clamp(f, 0.0f, 1.0f);
    const float value = std::floor(((toll_max - t) * f + t) / s + 0.5f) * s;
    return std::min(toll_max, std::max(t, value));
}

}  // namespace

float evaluate_policy_toll(const Network& net, const Link& link, const TollPolicy& policy,
                           int interval) {
    switch (policy.type) {
        case kTollFixed: {
            const float base = link.toll > 0.0f ? link.toll : policy.toll;
            return policy.cpi_adjust ? base * net.toll_deflator : base;
        }
        case kTollTimeOfDay:
            return time_of_day_toll(net, policy, interval);
        case kTollDensity:
            return density_toll(net, link, policy, interval);
    }
    return 0.0f;
}

}  // namespace torvex
