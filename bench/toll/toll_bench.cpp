// Evaluations per second of the toll evaluation, one figure per policy type, on a set of links
// whose per-interval state varies, as the router sees it.
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "toll/toll_tables.h"

namespace {

using namespace torvex;

Network bench_network(uint16_t policy, int n_links) {
    Network net;
    net.links.resize(static_cast<size_t>(n_links));
    uint32_t h = 2463534242u;
    for (Link& l : net.links) {
        l = Link{};
        l.lanes = 2;
        l.length_mi = 0.8f;
        l.speed_mph = 60.0f;
        l.toll = 0.0f;
        l.toll_policy = policy;
        for (int i = 0; i < kIntervals; ++i) {
            h ^= h << 13, h ^= h >> 17, h ^= h << 5;
            l.volume[i] = static_cast<float>(h % 1200);
            l.travel_time_min[i] = 0.8f + static_cast<float>(h % 300) / 100.0f;
        }
    }
    net.toll_deflator = 0.9f;
    // 24 policies of each type so the map is not trivially small.
    for (int id = 1; id <= 72; ++id) {
        TollPolicy& p = net.toll_policies.find_or_create(id);
        p.type = static_cast<uint8_t>((id - 1) / 24);
        p.toll = 1.25f;
        p.cpi_adjust = true;
        // Six time-of-day periods across the day.
        const float starts[] = {360, 540, 900, 1140, 1320, 1440};
        for (int k = 0; k < 6; ++k)
            p.tod_rows.push_back({starts[k], starts[k] + 180.0f, 1.0f + k, k % 2 == 0});
        // Eight density bands of 8 veh/lane-mile.
        for (int k = 0; k < 8; ++k)
            p.density_rows.push_back(
                {8.0f * k, 8.0f * (k + 1), 0.5f + k, 1.5f + k, 0.25f, true, k % 2 == 0});
    }
    return net;
}

// `n_links` large: each call reaches a link record out of cache, as on a big network;
// small: the link state is cached, as when the router has just read the travel time.
void run(const char* name, uint16_t policy, int n_links) {
    const Network net = bench_network(policy, n_links);
    const long long rounds = 40960000 / n_links;
    double sink = 0.0;
    int interval = 0;
    const auto t0 = std::chrono::steady_clock::now();
    for (long long r = 0; r < rounds; ++r) {
        for (int li = 0; li < n_links; ++li) {
            interval += 7;  // a new interval at each call, without a division in the harness
            if (interval >= kIntervals) interval -= kIntervals;
            sink += evaluate_toll(net, net.links[li], interval);
        }
    }
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double evals = static_cast<double>(rounds) * n_links;
    std::printf("%-10s %5d links %8.1f M evaluations/s  (%.0f evaluations, %.3fs, checksum %.2f)\n",
                name, n_links, evals / s / 1e6, evals, s, sink);
}

}  // namespace

int main() {
    for (int n_links : {4096, 64}) {
        run("none", 0, n_links);
        run("fixed", 5, n_links);
        run("timeofday", 30, n_links);
        run("density", 60, n_links);
    }
    return 0;
}
