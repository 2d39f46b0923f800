// Queue-stepping method: each link holds a first-in first-out list of travelling vehicles that
// reach its downstream end after the free-flow steps; at each node what the in-links can send is
// offered to the out-links by turn share and cut in proportion where an out-link cannot receive.
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "node/node_model.h"

namespace torvex {

namespace {

struct Travel {
    int32_t release_step;
    double veh;
};

// FIFO over one vector; the consumed front is dropped once it outweighs the rest, so push and
// pop stay constant time on average and memory stays bounded by what is in flight.
struct TravelQueue {
    std::vector<Travel> items;
    size_t head = 0;

    void push(int32_t release, double veh) { items.push_back(Travel{release, veh}); }
    bool ready(int32_t step) const {
        return head < items.size() && items[head].release_step <= step;
    }
    double pop() {
        const double v = items[head++].veh;
        if (head == items.size()) {
            items.clear();
            head = 0;
        } else if (head >= 64 && head * 2 >= items.size()) {
            items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(head));
            head = 0;
        }
        return v;
    }
};

}  // namespace

NodeLoadTotals run_queue_stepping(Network& net, const NodeLoadParams& params,
                                  const NodePrep& prep) {
    const int32_t n_active = static_cast<int32_t>(prep.active_links.size());
    const size_t na = static_cast<size_t>(n_active);
    const float dt = prep.dt;

    std::vector<int32_t> fft_steps(na);
    for (size_t i = 0; i < na; ++i) {
        const Link& link = net.links[prep.pos_link[i]];
        fft_steps[i] = std::max(1L, lroundf(link.free_flow_min * 60.0f / dt));
    }
    std::vector<double> sending(na, 0.0), occupancy(na, 0.0), receiving(na, 0.0);
    std::vector<double> demand_in(na, 0.0), phi(na, 1.0);
    std::vector<TravelQueue> travelling(na);
    // Interval-major, so that the links of one step touch neighbouring cells.
    std::vector<double> queue_integral(na * kIntervals, 0.0), discharge(na * kIntervals, 0.0);

    const bool iv_turns = prep.has_interval_turns;
    const double* cap = prep.cap_step.data();
    const double* storage = prep.storage.data();
    const bool spatial = params.spatial_receiving;
    NodeLoadTotals totals;

    for (int32_t step = 0; step < prep.num_steps; ++step) {
        const float t = static_cast<float>(step) * dt / 60.0f;
        if (t >= kHorizonMin) break;
        const int iv = std::clamp(static_cast<int>(std::trunc(t / 15.0)), 0, kIntervals - 1);

        for (int64_t e = prep.inject_begin[step]; e < prep.inject_begin[step + 1]; ++e) {
            const Injection& in = prep.inject[e];
            totals.injected += in.veh;
            if (in.pos < 0) continue;
            occupancy[in.pos] += in.veh;
            travelling[in.pos].push(step + fft_steps[in.pos], in.veh);
        }

        double* qi = queue_integral.data() + static_cast<size_t>(iv) * na;
#pragma omp parallel for schedule(static) if (n_active >= kNodeParallelLinks)
        for (int32_t i = 0; i < n_active; ++i) {
            TravelQueue& q = travelling[i];
            while (q.ready(step)) sending[i] += q.pop();
            if (sending[i] > cap[i]) qi[i] += (sending[i] - cap[i]) * static_cast<double>(dt);
            receiving[i] =
                spatial ? std::min(cap[i], std::max(storage[i] - occupancy[i], 0.0)) : cap[i];
        }

        double* dis = discharge.data() + static_cast<size_t>(iv) * na;
        const size_t ivs = static_cast<size_t>(iv);
        auto share_of = [&](int32_t l, const TurnShare& ts) -> double {
            if (iv_turns && prep.has_iv[static_cast<size_t>(l) * kIntervals + ivs])
                return prep.turn_iv[static_cast<size_t>(ts.movement) * kIntervals + ivs];
            return ts.share;
        };
        const size_t n_nodes = prep.active_nodes.size();
        for (size_t n = 0; n < n_nodes; ++n) {
            const int32_t* in_first = prep.node_in.data() + prep.node_in_begin[n];
            const int32_t* in_last = prep.node_in.data() + prep.node_in_begin[n + 1];
            const int32_t* out_first = prep.node_out.data() + prep.node_out_begin[n];
            const int32_t* out_last = prep.node_out.data() + prep.node_out_begin[n + 1];
            for (const int32_t* p = in_first; p != in_last; ++p) {
                const int32_t l = *p;
                const double f = std::min(sending[l], cap[l]);
                if (!(f > 0.0)) continue;
                for (int32_t e = prep.turn_begin[l]; e < prep.turn_begin[l + 1]; ++e)
                    demand_in[prep.turns[e].to_pos] += share_of(l, prep.turns[e]) * f;
            }
            for (const int32_t* p = out_first; p != out_last; ++p) {
                const int32_t o = *p;
                phi[o] = (demand_in[o] > receiving[o] && demand_in[o] > 0.0)
                             ? receiving[o] / demand_in[o]
                             : 1.0;
            }
            for (const int32_t* p = in_first; p != in_last; ++p) {
                const int32_t l = *p;
                const double f = std::min(sending[l], cap[l]);
                if (!(f > 0.0)) continue;
                const size_t at = static_cast<size_t>(l) * kIntervals + ivs;
                const double exit =
                    (iv_turns && prep.has_iv[at]) ? prep.exit_iv[at] : prep.exit_share[l];
                double moved = exit * f;
                totals.exited += moved;
                for (int32_t e = prep.turn_begin[l]; e < prep.turn_begin[l + 1]; ++e) {
                    const TurnShare& ts = prep.turns[e];
                    const double q = share_of(l, ts) * f * phi[ts.to_pos];
                    if (!(q > 0.0)) continue;
                    occupancy[ts.to_pos] += q;
                    travelling[ts.to_pos].push(step + fft_steps[ts.to_pos], q);
                    moved += q;
                }
                sending[l] -= moved;
                occupancy[l] -= moved;
                dis[l] += moved;
            }
            for (const int32_t* p = out_first; p != out_last; ++p) {
                demand_in[*p] = 0.0;
                phi[*p] = 1.0;
            }
        }
    }

    for (const int32_t l : prep.active_links) totals.on_network_end += occupancy[prep.dense[l]];
    if (params.blend >= 0.999f) print_conservation("node-dnl", totals);
#pragma omp parallel for schedule(static) if (n_active >= kNodeParallelLinks)
    for (int32_t i = 0; i < n_active; ++i)
        write_link_results(net.links[prep.pos_link[i]], queue_integral.data() + i,
                           discharge.data() + i, na, 900.0, params.blend, params.max_delay_min);
    return totals;
}

}  // namespace torvex
