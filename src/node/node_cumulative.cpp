// Cumulative method: each link is tracked by the cumulative count of vehicles that entered it
// (upstream curve) and left it (downstream curve). The upstream curve one free-flow time ago tells
// what may be sent; the downstream curve one backward-wave time ago tells how much room has opened,
// so a queue grows back along the link and freed room reaches its upstream end only after a wave.
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "node/node_model.h"

namespace torvex {

namespace {

// Steps of the backward wave from the triangular fundamental diagram (jam density 240).
double backward_wave_steps(const Link& link, double dt) {
    const double lanes = std::max(1.0, static_cast<double>(link.lanes));
    const double cap = std::max(0.001f, link.discharge_vph);
    const double vf = std::max(1.0f, link.speed_mph);
    const double k_crit = (cap / lanes) / vf;
    double w = k_crit + 1e-6 < 240.0 ? (cap / lanes) / (240.0 - k_crit) : vf;
    w = std::max(1.0, w);
    return std::max(1e-6, (static_cast<double>(link.length_mi) / w) * 60.0 * 60.0 / dt);
}

// A link's ring holds both curves, interleaved (up, down) per step. Its length is a power of two
// at least the lag reach plus two, so no read the lags can make is ever overwritten.
struct Rings {
    std::vector<int64_t> offset;  // per position, in steps
    std::vector<uint32_t> mask;   // per position: ring length - 1
    std::vector<double> values;
};

// The curve (0 upstream, 1 downstream) at real step x, interpolated between stored steps;
// newest is the last step stored and oldest the first that may be trusted.
inline double curve_at(const double* ring, int curve, uint32_t mask, double x, int64_t newest,
                       int64_t oldest) {
    if (x <= 0.0) return 0.0;
    int64_t k = static_cast<int64_t>(x);
    double frac = k <= newest ? x - static_cast<double>(k) : 0.0;
    k = std::min(k, newest);
    if (k < oldest) {
        frac = 0.0;
        k = oldest;
    }
    if (k < 0) return 0.0;
    const double a = ring[((static_cast<uint64_t>(k) & mask) << 1) + curve];
    const double b =
        k + 1 <= newest ? ring[((static_cast<uint64_t>(k + 1) & mask) << 1) + curve] : a;
    return (b - a) * frac + a;
}

void build_rings(const std::vector<double>& ff, const std::vector<double>& bw, int32_t num_steps,
                 Rings& rings) {
    const size_t na = ff.size();
    rings.offset.resize(na + 1);
    rings.mask.resize(na);
    int64_t at = 0;
    for (size_t i = 0; i < na; ++i) {
        const double reach = std::ceil(std::max(ff[i], bw[i])) + 2.0;
        const double capped = std::min(reach, static_cast<double>(num_steps) + 1.0);
        uint64_t len = 2;
        while (static_cast<double>(len) < capped) len <<= 1;
        rings.offset[i] = at;
        rings.mask[i] = static_cast<uint32_t>(len - 1);
        at += static_cast<int64_t>(len);
    }
    rings.offset[na] = at;
    rings.values.assign(static_cast<size_t>(at) * 2, 0.0);
}

}  // namespace

NodeLoadTotals run_cumulative(Network& net, const NodeLoadParams& params, const NodePrep& prep) {
    const int32_t n_active = static_cast<int32_t>(prep.active_links.size());
    const size_t na = static_cast<size_t>(n_active);
    const double dt = prep.dt;
    const int32_t num_steps = prep.num_steps;

    std::vector<double> ff(na), bw(na);
    for (size_t i = 0; i < na; ++i) {
        const Link& link = net.links[prep.active_links[i]];
        ff[i] = std::max(1e-6, static_cast<double>(link.free_flow_min) * 60.0 / dt);
        bw[i] = backward_wave_steps(link, dt);
    }
    Rings rings;
    build_rings(ff, bw, num_steps, rings);

    std::vector<double> n_up(na, 0.0), n_down(na, 0.0), send(na, 0.0);
    std::vector<double> demand_in(na, 0.0), phi(na, 1.0);
    // Interval-major, so that the links of one step touch neighbouring cells.
    std::vector<double> queue_steps(na * kIntervals, 0.0), discharge(na * kIntervals, 0.0);

    const double* cap = prep.cap_step.data();
    const double* storage = prep.storage.data();
    const float* exit_share = prep.exit_share.data();
    const int32_t* turn_begin = prep.turn_begin.data();
    const TurnShare* turns = prep.turns.data();
    const int32_t* node_in_begin = prep.node_in_begin.data();
    const int32_t* node_in = prep.node_in.data();
    const int32_t* node_out_begin = prep.node_out_begin.data();
    const int32_t* node_out = prep.node_out.data();
    const int64_t* ring_off = rings.offset.data();
    const uint32_t* ring_mask = rings.mask.data();
    double* ring = rings.values.data();
    double* up = n_up.data();
    double* down = n_down.data();
    double* snd = send.data();
    double* dem = demand_in.data();
    double* ph = phi.data();
    const bool spatial = params.spatial_receiving;
    const int32_t n_nodes = static_cast<int32_t>(prep.active_nodes.size());

    double injected = 0.0;
    double exited = 0.0;
#pragma omp parallel if (n_active >= kNodeParallelLinks)
    for (int32_t t = 1; t <= num_steps; ++t) {
        const float m = std::min(static_cast<float>(t - 1) * prep.dt / 60.0f, 1799.99f);
        const int iv = std::clamp(static_cast<int>(std::trunc(m / 15.0f)), 0, kIntervals - 1);

#pragma omp single
        for (int64_t e = prep.inject_begin[t - 1]; e < prep.inject_begin[t]; ++e) {
            const Injection& in = prep.inject[e];
            if (in.pos < 0) continue;
            up[in.pos] += in.veh;
            injected += in.veh;
        }

        // Node step: a link's upstream count, offer and ratio belong to its tail node, its
        // downstream count and discharge to its head node, so nodes need no lock.
        double* dis = discharge.data() + static_cast<size_t>(iv) * na;
#pragma omp for schedule(dynamic, 64) reduction(+ : exited)
        for (int32_t n = 0; n < n_nodes; ++n) {
            bool offered = false;
            for (int32_t p = node_in_begin[n]; p < node_in_begin[n + 1]; ++p) {
                const int32_t l = node_in[p];
                const double f = snd[l];
                if (!(f > 0.0)) continue;
                offered = true;
                for (int32_t e = turn_begin[l]; e < turn_begin[l + 1]; ++e)
                    dem[turns[e].to_pos] += static_cast<double>(turns[e].share) * f;
            }
            if (!offered) continue;
            for (int32_t p = node_out_begin[n]; p < node_out_begin[n + 1]; ++p) {
                const int32_t o = node_out[p];
                const double d_in = dem[o];
                if (!(d_in > 0.0)) continue;
                double receive = cap[o];
                if (spatial) {
                    const double d = curve_at(ring + ring_off[o] * 2, 1, ring_mask[o],
                                              static_cast<double>(t) - bw[o], t - 1,
                                              static_cast<int64_t>(t) - ring_mask[o]);
                    receive = std::min(cap[o], std::max(d + storage[o] - up[o], 0.0));
                }
                if (d_in > receive) ph[o] = receive / d_in;
            }
            for (int32_t p = node_in_begin[n]; p < node_in_begin[n + 1]; ++p) {
                const int32_t l = node_in[p];
                const double f = snd[l];
                if (!(f > 0.0)) continue;
                double moved = static_cast<double>(exit_share[l]) * f;
                exited += moved;
                for (int32_t e = turn_begin[l]; e < turn_begin[l + 1]; ++e) {
                    const int32_t o = turns[e].to_pos;
                    const double q = static_cast<double>(turns[e].share) * f * ph[o];
                    if (!(q > 0.0)) continue;
                    moved += q;
                    up[o] += q;
                }
                down[l] += moved;
                dis[l] += moved;
            }
            for (int32_t p = node_out_begin[n]; p < node_out_begin[n + 1]; ++p) {
                dem[node_out[p]] = 0.0;
                ph[node_out[p]] = 1.0;
            }
        }

        // Per link: store step t on the rings, book the backlog left after the moves, and read
        // what the link may send in the next step (the injection does not touch either read).
        double* qs = queue_steps.data() + static_cast<size_t>(iv) * na;
#pragma omp for schedule(static)
        for (int32_t i = 0; i < n_active; ++i) {
            double* r = ring + ring_off[i] * 2;
            const uint32_t mask = ring_mask[i];
            const uint64_t slot = (static_cast<uint64_t>(t) & mask) << 1;
            r[slot] = up[i];
            r[slot + 1] = down[i];
            const int64_t oldest = static_cast<int64_t>(t) - mask + 1;
            const double u = curve_at(r, 0, mask, static_cast<double>(t) - ff[i], t, oldest);
            qs[i] += std::max(u - down[i] - cap[i], 0.0);
            const double u_next =
                curve_at(r, 0, mask, static_cast<double>(t + 1) - ff[i], t, oldest);
            snd[i] = std::min(cap[i], std::max(0.0, u_next - down[i]));
        }
    }

    NodeLoadTotals totals;
    totals.injected = injected;
    totals.exited = exited;
    for (size_t i = 0; i < na; ++i) totals.on_network_end += n_up[i] - n_down[i];
    if (params.blend >= 0.999f) print_conservation("node-dnl/cumulative", totals);
    const double steps_per_interval = std::max(1e-6, 900.0 / dt);
#pragma omp parallel for schedule(static) if (n_active >= kNodeParallelLinks)
    for (int32_t i = 0; i < n_active; ++i)
        write_link_results(net.links[prep.active_links[i]], queue_steps.data() + i,
                           discharge.data() + i, na, steps_per_interval, params.blend,
                           params.max_delay_min);
    return totals;
}

}  // namespace torvex
