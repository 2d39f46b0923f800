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

// A curve at real step x, interpolated between stored steps; newest is the last step stored and
// oldest the first that may be trusted. `ring` is the curve's first value in its link's ring of
// mask + 1 steps, where the two curves of a step stand side by side (so step k is at 2k).
inline double curve_at(const double* ring, uint32_t mask, double x, int64_t newest,
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
    const double a = ring[2 * (static_cast<uint64_t>(k) & mask)];
    const double b = k + 1 <= newest ? ring[2 * (static_cast<uint64_t>(k + 1) & mask)] : a;
    return (b - a) * frac + a;
}

// Per-link state of the step loop, packed so that a node reaching one of its links touches one
// cache line instead of one per array. LinkUp is what the tail node reads and writes (the link
// as an out-link), LinkDown what the head node uses (the link as an in-link). A link's ring
// holds, step by step, the upstream and the downstream count side by side, for a power of two of
// steps at least the lag reach plus two, so no read the lags can make is ever overwritten; a
// step's store touches one cache line.
struct alignas(64) LinkUp {
    double n_up;
    double demand_in;
    double phi;
    double cap;
    double storage;
    double bw;
    uint64_t ring_off;   // first value of the link's ring
    uint32_t ring_mask;  // ring length - 1
};

struct alignas(64) LinkDown {
    double n_down;
    double send;
    double ff;
    double discharge;  // of the current interval
    double backlog;    // of the current interval
    float exit_share;
    int32_t turn_begin;
    int32_t turn_end;
};

void build_rings(const std::vector<double>& ff, const std::vector<double>& bw, int32_t num_steps,
                 std::vector<LinkUp>& up, std::vector<double>& values) {
    uint64_t at = 0;
    for (size_t i = 0; i < up.size(); ++i) {
        const double reach = std::ceil(std::max(ff[i], bw[i])) + 2.0;
        const double capped = std::min(reach, static_cast<double>(num_steps) + 1.0);
        uint64_t len = 4;  // both curves of a short link share one cache line
        while (static_cast<double>(len) < capped) len <<= 1;
        up[i].ring_off = at;
        up[i].ring_mask = static_cast<uint32_t>(len - 1);
        at += 2 * len;
    }
    values.assign(static_cast<size_t>(at), 0.0);
}

// The rings of all links far exceed the caches, and a lagged read lands anywhere in them:
// the per-link pass asks for the lines a link a few places ahead will touch.
constexpr int32_t kAhead = 12;

inline void prefetch_rings(const double* ring, const LinkUp& u, const LinkDown& d, int32_t t) {
    const double* r = ring + u.ring_off;
    const uint64_t mask = u.ring_mask;
    const double x = static_cast<double>(t) - d.ff;
    const uint64_t k = x > 0.0 ? static_cast<uint64_t>(x) : 0;
    __builtin_prefetch(r + 2 * (k & mask));
    __builtin_prefetch(r + 2 * (static_cast<uint64_t>(t) & mask), 1);
}

}  // namespace

NodeLoadTotals run_cumulative(Network& net, const NodeLoadParams& params, const NodePrep& prep) {
    const int32_t n_active = static_cast<int32_t>(prep.active_links.size());
    const size_t na = static_cast<size_t>(n_active);
    const double dt = prep.dt;
    const int32_t num_steps = prep.num_steps;

    std::vector<double> ff(na), bw(na);
    for (size_t i = 0; i < na; ++i) {
        const Link& link = net.links[prep.pos_link[i]];
        ff[i] = std::max(1e-6, static_cast<double>(link.free_flow_min) * 60.0 / dt);
        bw[i] = backward_wave_steps(link, dt);
    }
    std::vector<LinkUp> ups(na);
    std::vector<LinkDown> downs(na);
    std::vector<double> ring_values;
    build_rings(ff, bw, num_steps, ups, ring_values);
    for (size_t i = 0; i < na; ++i) {
        LinkUp& u = ups[i];
        u.n_up = u.demand_in = 0.0;
        u.phi = 1.0;
        u.cap = prep.cap_step[i];
        u.storage = prep.storage[i];
        u.bw = bw[i];
        LinkDown& d = downs[i];
        d.n_down = d.send = d.discharge = d.backlog = 0.0;
        d.ff = ff[i];
        d.exit_share = prep.exit_share[i];
        d.turn_begin = prep.turn_begin[i];
        d.turn_end = prep.turn_begin[i + 1];
    }
    double injected = 0.0;
    for (const Injection& in : prep.inject)
        if (in.pos >= 0) injected += in.veh;
    // Interval-major, so that the flush at the end of an interval writes neighbouring cells.
    std::vector<double> queue_steps(na * kIntervals, 0.0), discharge(na * kIntervals, 0.0);

    auto interval_of_step = [&](int32_t t) {
        const float m = std::min(static_cast<float>(t - 1) * prep.dt / 60.0f, 1799.99f);
        return std::clamp(static_cast<int>(std::trunc(m / 15.0f)), 0, kIntervals - 1);
    };
    const TurnShare* turns = prep.turns.data();
    const int32_t* node_in_begin = prep.node_in_begin.data();
    const int32_t* node_in = prep.node_in.data();
    const int32_t* node_out_begin = prep.node_out_begin.data();
    const int32_t* node_out = prep.node_out.data();
    double* ring = ring_values.data();
    LinkUp* up = ups.data();
    LinkDown* down = downs.data();
    const bool spatial = params.spatial_receiving;
    const int32_t n_nodes = static_cast<int32_t>(prep.active_nodes.size());

    // The first step's injection; later ones are added by the per-link pass of the step before.
    for (int64_t e = prep.inject_begin[0]; e < prep.inject_begin[1]; ++e)
        if (prep.inject[e].pos >= 0) up[prep.inject[e].pos].n_up += prep.inject[e].veh;

    double exited = 0.0;
#pragma omp parallel if (n_active >= kNodeParallelLinks)
    {
        const int nt = omp_get_num_threads();
        const int tid = omp_get_thread_num();
        const int32_t lo = static_cast<int32_t>(static_cast<int64_t>(n_active) * tid / nt);
        const int32_t hi = static_cast<int32_t>(static_cast<int64_t>(n_active) * (tid + 1) / nt);
        for (int32_t t = 1; t <= num_steps; ++t) {
            const int iv = interval_of_step(t);

            // Node step: a link's upstream count, offer and ratio belong to its tail node, its
            // downstream count and discharge to its head node, so nodes need no lock.
#pragma omp for schedule(dynamic, 64) reduction(+ : exited)
            for (int32_t n = 0; n < n_nodes; ++n) {
                // A link with nothing to send offers and moves nothing. Once any in-link sends,
                // the idle ones run through the same arithmetic with zeros, which adds exact
                // zeros and spares the unpredictable branches.
                bool offered = false;
                for (int32_t p = node_in_begin[n]; p < node_in_begin[n + 1]; ++p)
                    offered |= down[node_in[p]].send > 0.0;
                if (!offered) continue;
                for (int32_t p = node_in_begin[n]; p < node_in_begin[n + 1]; ++p) {
                    const LinkDown& dl = down[node_in[p]];
                    const double f = dl.send;
                    for (int32_t e = dl.turn_begin; e < dl.turn_end; ++e)
                        up[turns[e].to_pos].demand_in += static_cast<double>(turns[e].share) * f;
                }
                for (int32_t p = node_out_begin[n]; p < node_out_begin[n + 1]; ++p) {
                    LinkUp& o = up[node_out[p]];
                    const double d_in = o.demand_in;
                    if (!(d_in > 0.0)) continue;
                    double receive = o.cap;
                    if (spatial) {
                        const double d = curve_at(ring + o.ring_off + 1, o.ring_mask,
                                                  static_cast<double>(t) - o.bw, t - 1,
                                                  static_cast<int64_t>(t) - o.ring_mask);
                        receive = std::min(o.cap, std::max(d + o.storage - o.n_up, 0.0));
                    }
                    o.phi = d_in > receive ? receive / d_in : 1.0;
                }
                for (int32_t p = node_in_begin[n]; p < node_in_begin[n + 1]; ++p) {
                    LinkDown& dl = down[node_in[p]];
                    const double f = dl.send;
                    double moved = static_cast<double>(dl.exit_share) * f;
                    exited += moved;
                    for (int32_t e = dl.turn_begin; e < dl.turn_end; ++e) {
                        LinkUp& o = up[turns[e].to_pos];
                        const double q = static_cast<double>(turns[e].share) * f * o.phi;
                        moved += q;
                        o.n_up += q;
                    }
                    dl.n_down += moved;
                    dl.discharge += moved;
                }
                for (int32_t p = node_out_begin[n]; p < node_out_begin[n + 1]; ++p) {
                    up[node_out[p]].demand_in = 0.0;
                    up[node_out[p]].phi = 1.0;
                }
            }

            // Per link, on this thread's block: store step t on the rings, book the backlog
            // left after the moves, read what the link may send in the next step, and add the
            // next step's injection (neither read sees it).
            const bool flush = t == num_steps || interval_of_step(t + 1) != iv;
            const size_t iv_at = static_cast<size_t>(iv) * na;
            for (int32_t i = lo; i < hi; ++i) {
                if (i + kAhead < hi) prefetch_rings(ring, up[i + kAhead], down[i + kAhead], t);
                LinkUp& u = up[i];
                LinkDown& d = down[i];
                double* r_up = ring + u.ring_off;
                const uint32_t mask = u.ring_mask;
                const uint64_t slot = static_cast<uint64_t>(t) & mask;
                r_up[2 * slot] = u.n_up;
                r_up[2 * slot + 1] = d.n_down;
                const int64_t oldest = static_cast<int64_t>(t) - mask + 1;
                const double a = curve_at(r_up, mask, static_cast<double>(t) - d.ff, t, oldest);
                d.backlog += std::max(a - d.n_down - u.cap, 0.0);
                const double b = curve_at(r_up, mask, static_cast<double>(t + 1) - d.ff, t, oldest);
                d.send = std::min(u.cap, std::max(0.0, b - d.n_down));
                if (flush) {
                    queue_steps[iv_at + i] += d.backlog;
                    discharge[iv_at + i] += d.discharge;
                    d.backlog = d.discharge = 0.0;
                }
            }
            if (t < num_steps) {
                // A step injects a few thousand parts at most: each thread scans them all and
                // adds its own, in key order.
                for (int64_t e = prep.inject_begin[t]; e < prep.inject_begin[t + 1]; ++e) {
                    const Injection& in = prep.inject[e];
                    if (in.pos >= lo && in.pos < hi) up[in.pos].n_up += in.veh;
                }
            }
#pragma omp barrier
        }
    }

    NodeLoadTotals totals;
    totals.injected = injected;
    totals.exited = exited;
    for (const int32_t l : prep.active_links) {
        const int32_t i = prep.dense[l];
        totals.on_network_end += ups[i].n_up - downs[i].n_down;
    }
    if (params.blend >= 0.999f) print_conservation("node-dnl/cumulative", totals);
    const double steps_per_interval = std::max(1e-6, 900.0 / dt);
#pragma omp parallel for schedule(static) if (n_active >= kNodeParallelLinks)
    for (int32_t i = 0; i < n_active; ++i)
        write_link_results(net.links[prep.pos_link[i]], queue_steps.data() + i,
                           discharge.data() + i, na, steps_per_interval, params.blend,
                           params.max_delay_min);
    return totals;
}

}  // namespace torvex
