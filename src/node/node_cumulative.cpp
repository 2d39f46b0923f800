// Cumulative method: each link is tracked by the cumulative count of vehicles that entered it
// (upstream curve) and left it (downstream curve). The upstream curve one free-flow time ago tells
// what may be sent; the downstream curve one backward-wave time ago tells how much room has opened,
// so a queue grows back along the link and freed room reaches its upstream end only after a wave.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>

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
// oldest the first that may be trusted. `ring` is the curve's own ring of mask + 1 steps. A quiet
// link stops storing: its curve stays at the value of step `stored`, which stands for every later
// step (so a read past it gives exactly what a stored ring would have held).
inline double curve_at(const double* ring, uint32_t mask, double x, int64_t newest, int64_t oldest,
                       int64_t stored) {
    if (x <= 0.0) return 0.0;
    int64_t k = static_cast<int64_t>(x);
    double frac = k <= newest ? x - static_cast<double>(k) : 0.0;
    k = std::min(k, newest);
    if (k < oldest) {
        frac = 0.0;
        k = oldest;
    }
    if (k < 0) return 0.0;
    const double a = ring[static_cast<uint64_t>(std::min(k, stored)) & mask];
    const double b =
        k + 1 <= newest ? ring[static_cast<uint64_t>(std::min(k + 1, stored)) & mask] : a;
    return (b - a) * frac + a;
}

// Per-link state of the step loop, packed so that a node reaching one of its links touches one
// cache line instead of one per array. LinkUp is what the tail node reads and writes (the link
// as an out-link), LinkDown what the head node uses (the link as an in-link). A link's rings
// hold the upstream curve, then the downstream curve, each a power of two of steps at least the
// lag reach plus two, so no read the lags can make is ever overwritten.
struct alignas(64) LinkUp {
    double n_up;
    double demand_in;
    double phi;
    double cap;
    double storage;
    double bw;
    uint64_t ring_off;   // first value of the upstream ring
    uint32_t ring_mask;  // ring length - 1
    int32_t stored;      // last step written to the rings
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
    int32_t last_change;  // last step at which either curve moved
    int32_t reach;        // steps a lagged read can look back, plus a margin
};

// A link is quiet when stepping it would change nothing: nothing to send now or later (its
// upstream count is not above its downstream count), nothing booked in the current interval,
// and both curves flat over every step a lag can reach. Quiet links are skipped by the per-link
// pass until a node or an injection adds vehicles to them; at night and between the peaks most
// links of a large region are quiet. flags: kBusy is kept by the per-link pass, kWoken set by
// whoever adds vehicles to a quiet link.
constexpr uint8_t kBusy = 1, kWoken = 2;

void build_rings(const std::vector<double>& ff, const std::vector<double>& bw, int32_t num_steps,
                 std::vector<LinkUp>& up, std::vector<double>& values) {
    uint64_t at = 0;
    for (size_t i = 0; i < up.size(); ++i) {
        const double reach = std::ceil(std::max(ff[i], bw[i])) + 2.0;
        const double capped = std::min(reach, static_cast<double>(num_steps) + 1.0);
        uint64_t len = 4;  // both rings of a short link share one cache line
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
    __builtin_prefetch(r + (k & mask));
    __builtin_prefetch(r + (static_cast<uint64_t>(t) & mask), 1);
    __builtin_prefetch(r + mask + 1 + (static_cast<uint64_t>(t) & mask), 1);
}

// A quiet link wakes at step t: the ring slots of the steps it skipped take the value it held,
// which is what storing at every step would have left there.
inline void fill_skipped_steps(double* r_up, uint32_t mask, int32_t stored, int32_t t) {
    const int64_t len = static_cast<int64_t>(mask) + 1;
    const double up_value = r_up[static_cast<uint32_t>(stored) & mask];
    const double down_value = r_up[len + (static_cast<uint32_t>(stored) & mask)];
    const int64_t first = std::max<int64_t>(stored + 1, static_cast<int64_t>(t) - len);
    for (int64_t k = first; k < t; ++k) {
        r_up[static_cast<uint64_t>(k) & mask] = up_value;
        r_up[len + (static_cast<uint64_t>(k) & mask)] = down_value;
    }
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
        u.stored = 0;
        LinkDown& d = downs[i];
        d.n_down = d.send = d.discharge = d.backlog = 0.0;
        d.ff = ff[i];
        d.exit_share = prep.exit_share[i];
        d.turn_begin = prep.turn_begin[i];
        d.turn_end = prep.turn_begin[i + 1];
        d.last_change = 0;
        d.reach = static_cast<int32_t>(std::min<double>(std::ceil(std::max(ff[i], bw[i])) + 2.0,
                                                        static_cast<double>(num_steps) + 2.0));
    }
    std::vector<uint8_t> flag_values(na, 0);
    std::vector<uint8_t> sending_values(na, 0);
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
    uint8_t* flags = flag_values.data();
    uint8_t* sending = sending_values.data();
    const bool spatial = params.spatial_receiving;
    const int32_t n_nodes = static_cast<int32_t>(prep.active_nodes.size());

    // The first step's injection; later ones are added by the per-link pass of the step before.
    for (int64_t e = prep.inject_begin[0]; e < prep.inject_begin[1]; ++e) {
        const int32_t pos = prep.inject[e].pos;
        if (pos < 0) continue;
        up[pos].n_up += prep.inject[e].veh;
        flags[pos] |= kWoken;
    }

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
                uint8_t offered = 0;
                for (int32_t p = node_in_begin[n]; p < node_in_begin[n + 1]; ++p)
                    offered |= sending[node_in[p]];
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
                        const double d = curve_at(ring + o.ring_off + o.ring_mask + 1, o.ring_mask,
                                                  static_cast<double>(t) - o.bw, t - 1,
                                                  static_cast<int64_t>(t) - o.ring_mask, o.stored);
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
                        const int32_t to = turns[e].to_pos;
                        LinkUp& o = up[to];
                        const double q = static_cast<double>(turns[e].share) * f * o.phi;
                        moved += q;
                        o.n_up += q;
                        if (q > 0.0) flags[to] |= kWoken;
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
            // next step's injection (neither read sees it). Quiet links are passed over.
            const bool flush = t == num_steps || interval_of_step(t + 1) != iv;
            const size_t iv_at = static_cast<size_t>(iv) * na;
            for (int32_t i = lo; i < hi; ++i) {
                if (flags[i] == 0) {
                    // Eight quiet links at a time.
                    if ((i & 7) == 0 && i + 8 <= hi) {
                        uint64_t word;
                        std::memcpy(&word, flags + i, 8);
                        if (word == 0) i += 7;
                    }
                    continue;
                }
                if (i + kAhead < hi && flags[i + kAhead] != 0)
                    prefetch_rings(ring, up[i + kAhead], down[i + kAhead], t);
                LinkUp& u = up[i];
                LinkDown& d = down[i];
                double* r_up = ring + u.ring_off;
                const uint32_t mask = u.ring_mask;
                if ((flags[i] & kBusy) == 0) fill_skipped_steps(r_up, mask, u.stored, t);
                const uint64_t prev = static_cast<uint64_t>(t - 1) & mask;
                if (u.n_up != r_up[prev] || d.n_down != r_up[mask + 1 + prev]) d.last_change = t;
                const uint64_t slot = static_cast<uint64_t>(t) & mask;
                r_up[slot] = u.n_up;
                r_up[mask + 1 + slot] = d.n_down;
                u.stored = t;
                const int64_t oldest = static_cast<int64_t>(t) - mask + 1;
                const double a = curve_at(r_up, mask, static_cast<double>(t) - d.ff, t, oldest, t);
                d.backlog += std::max(a - d.n_down - u.cap, 0.0);
                const double b =
                    curve_at(r_up, mask, static_cast<double>(t + 1) - d.ff, t, oldest, t);
                d.send = std::min(u.cap, std::max(0.0, b - d.n_down));
                if (flush) {
                    queue_steps[iv_at + i] += d.backlog;
                    discharge[iv_at + i] += d.discharge;
                    d.backlog = d.discharge = 0.0;
                }
                sending[i] = d.send > 0.0;
                const bool quiet = !(u.n_up > d.n_down) && d.backlog == 0.0 && d.discharge == 0.0 &&
                                   t - d.last_change > d.reach;
                flags[i] = quiet ? 0 : kBusy;
            }
            if (t < num_steps) {
                // A step injects a few thousand parts at most: each thread scans them all and
                // adds its own, in key order.
                for (int64_t e = prep.inject_begin[t]; e < prep.inject_begin[t + 1]; ++e) {
                    const Injection& in = prep.inject[e];
                    if (in.pos >= lo && in.pos < hi) {
                        up[in.pos].n_up += in.veh;
                        flags[in.pos] |= kWoken;
                    }
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
