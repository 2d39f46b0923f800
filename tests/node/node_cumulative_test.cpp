// The cumulative method against a plain transcription of its rules (one ring length, the four
// loops of a step in turn, no skipping of idle links): same shares and injections from the shared
// preparation, bit-for-bit the same link arrays. Generated regions also show both methods
// conserving vehicles.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "assign/routing_pass.h"
#include "node/node_fixture.h"
#include "node/node_model.h"
#include "support/test_files.h"

namespace torvex {
namespace {

// travel_time_min, volume and queue_veh of every link, in link order.
std::vector<float> link_arrays(const Network& net) {
    std::vector<float> v;
    for (const Link& l : net.links) {
        v.insert(v.end(), std::begin(l.travel_time_min), std::end(l.travel_time_min));
        v.insert(v.end(), std::begin(l.volume), std::end(l.volume));
        v.insert(v.end(), std::begin(l.queue_veh), std::end(l.queue_veh));
    }
    return v;
}

struct Outcome {
    std::vector<float> arrays;
    double injected = 0, exited = 0, on_network_end = 0;
};

double curve_at(const std::vector<double>& ring, int64_t R, int64_t i, double x, int64_t newest,
                int64_t oldest) {
    if (x <= 0) return 0;
    int64_t k = static_cast<int64_t>(std::trunc(x));
    double frac = k <= newest ? x - static_cast<double>(k) : 0;
    k = std::min(k, newest);
    if (k < oldest) {
        frac = 0;
        k = oldest;
    }
    if (k < 0) return 0;
    const double a = ring[i * R + k % R];
    const double b = k + 1 <= newest ? ring[i * R + (k + 1) % R] : a;
    return (b - a) * frac + a;
}

// The method as written: positions are those of active_links (ascending), and every node walks
// its own in- and out-link lists.
Outcome reference_cumulative(Network& net, const NodeLoadParams& params, const NodePrep& prep) {
    const double dt = prep.dt;
    const int64_t steps = prep.num_steps;
    const size_t na = prep.active_links.size();
    std::vector<int32_t> at(net.links.size(), -1);  // link -> index in active_links
    for (size_t i = 0; i < na; ++i) at[prep.active_links[i]] = static_cast<int32_t>(i);
    // Shares and constants of the preparation, by link.
    auto pos = [&](int32_t l) { return prep.dense[l]; };
    std::vector<double> ff(na), bw(na);
    int64_t R = 2;
    for (size_t i = 0; i < na; ++i) {
        const Link& link = net.links[prep.active_links[i]];
        ff[i] = std::max(1e-6, link.free_flow_min * 60.0 / dt);
        const double lanes = std::max(1, static_cast<int>(link.lanes));
        const double cap = std::max(0.001f, link.discharge_vph);
        const double vf = std::max(1.0f, link.speed_mph);
        const double k_crit = (cap / lanes) / vf;
        double w = k_crit + 1e-6 < 240.0 ? (cap / lanes) / (240.0 - k_crit) : vf;
        w = std::max(1.0, w);
        bw[i] = std::max(1e-6, (link.length_mi / w) * 60.0 * 60.0 / dt);
        R = std::max(R, static_cast<int64_t>(std::ceil(std::max(ff[i], bw[i]))) + 2);
    }
    R = std::min(R, steps + 1);

    std::vector<double> n_up(na, 0), n_down(na, 0), ring_up(na * R, 0), ring_down(na * R, 0);
    const size_t nl = net.links.size();
    std::vector<double> send(nl, 0), demand_in(nl, 0), phi(nl, 1.0);
    std::vector<double> queue_steps(nl * kIntervals, 0), discharge(nl * kIntervals, 0);
    Outcome o;
    for (int64_t t = 1; t <= steps; ++t) {
        const float m = std::min(static_cast<float>(t - 1) * prep.dt / 60.0f, 1799.99f);
        const int iv = std::clamp(static_cast<int>(std::trunc(m / 15.0f)), 0, kIntervals - 1);
        for (int64_t e = prep.inject_begin[t - 1]; e < prep.inject_begin[t]; ++e) {
            const Injection& in = prep.inject[e];
            if (at[in.link] < 0) continue;
            n_up[at[in.link]] += in.veh;
            o.injected += in.veh;
        }
        for (size_t i = 0; i < na; ++i) {
            const int32_t l = prep.active_links[i];
            const double u = curve_at(ring_up, R, i, t - ff[i], t - 1, t - R + 1);
            send[l] = std::min(prep.cap_step[pos(l)], std::max(0.0, u - n_down[i]));
        }
        for (const int32_t node : prep.active_nodes) {
            const Node& nd = net.nodes[node];
            for (const int32_t l : nd.in_links) {
                if (at[l] < 0 || !(send[l] > 0)) continue;
                for (int32_t e = prep.turn_begin[pos(l)]; e < prep.turn_begin[pos(l) + 1]; ++e)
                    demand_in[prep.turns[e].to_link] += prep.turns[e].share * send[l];
            }
            for (const int32_t ol : nd.out_links) {
                const int32_t i = at[ol];
                if (i < 0) continue;
                double receive = prep.cap_step[pos(ol)];
                if (params.spatial_receiving) {
                    const double d = curve_at(ring_down, R, i, t - bw[i], t - 1, t - R + 1);
                    receive = std::min(receive, std::max(d + prep.storage[pos(ol)] - n_up[i], 0.0));
                }
                phi[ol] =
                    demand_in[ol] > receive && demand_in[ol] > 0 ? receive / demand_in[ol] : 1.0;
            }
            for (const int32_t l : nd.in_links) {
                if (at[l] < 0 || !(send[l] > 0)) continue;
                double moved = prep.exit_share[pos(l)] * send[l];
                o.exited += moved;
                for (int32_t e = prep.turn_begin[pos(l)]; e < prep.turn_begin[pos(l) + 1]; ++e) {
                    const TurnShare& ts = prep.turns[e];
                    const double q = ts.share * send[l] * phi[ts.to_link];
                    if (q > 0) {
                        moved += q;
                        n_up[at[ts.to_link]] += q;
                    }
                }
                n_down[at[l]] += moved;
                discharge[static_cast<size_t>(l) * kIntervals + iv] += moved;
            }
            for (const int32_t ol : nd.out_links) {
                demand_in[ol] = 0;
                phi[ol] = 1.0;
            }
        }
        for (size_t i = 0; i < na; ++i) {  // each link's queue reads only its own ring
            ring_up[i * R + t % R] = n_up[i];
            ring_down[i * R + t % R] = n_down[i];
            const int32_t l = prep.active_links[i];
            const double u = curve_at(ring_up, R, i, t - ff[i], t, t - R + 2);
            queue_steps[static_cast<size_t>(l) * kIntervals + iv] +=
                std::max(u - n_down[i] - prep.cap_step[pos(l)], 0.0);
        }
    }
    for (size_t i = 0; i < na; ++i) o.on_network_end += n_up[i] - n_down[i];
    const double steps_per_interval = std::max(1e-6, 900.0 / dt);
    for (const int32_t l : prep.active_links) {
        Link& link = net.links[l];
        const double cap_min = std::max(0.001, link.discharge_vph / 60.0);
        for (int v = 0; v < kIntervals; ++v) {
            const double q =
                queue_steps[static_cast<size_t>(l) * kIntervals + v] / steps_per_interval;
            const double delay = std::min(static_cast<double>(params.max_delay_min), q / cap_min);
            link.travel_time_min[v] =
                (static_cast<float>(delay) + link.free_flow_min) * params.blend +
                (1.0f - params.blend) * link.travel_time_min[v];
            link.volume[v] = static_cast<float>(discharge[static_cast<size_t>(l) * kIntervals + v]);
            link.queue_veh[v] = static_cast<float>(q);
        }
    }
    o.arrays = link_arrays(net);
    return o;
}

// Runs the engine's method on `threads` threads for each count given, and the reference, on
// copies of the same network; all must write the same bits into every link array and agree on
// the totals.
void expect_same_as_reference(const Network& start, const TripTable& trips,
                              const std::vector<int32_t>& arena, NodeLoadParams p,
                              const std::string& what, std::vector<int> thread_counts = {0}) {
    p.method = 1;
    Network ref_net = start;
    NodePrep prep;
    prepare_node_load(ref_net, trips, arena, p, nullptr, prep);
    const Outcome ref = reference_cumulative(ref_net, p, prep);
    EXPECT_GT(ref.exited, 0.0) << what;

    const int threads = omp_get_max_threads();
    for (const int n : thread_counts) {
        if (n > 0) omp_set_num_threads(n);
        Network engine_net = start;
        testing::internal::CaptureStderr();
        const NodeLoadTotals t = run_node_dnl(engine_net, trips, arena, p, nullptr);
        testing::internal::GetCapturedStderr();
        omp_set_num_threads(threads);
        const std::vector<float> engine = link_arrays(engine_net);
        SCOPED_TRACE(what + " on " + std::to_string(n) + " threads");
        ASSERT_EQ(engine.size(), ref.arrays.size());
        EXPECT_EQ(std::memcmp(engine.data(), ref.arrays.data(), engine.size() * sizeof(float)), 0);
        EXPECT_EQ(t.injected, ref.injected);
        EXPECT_EQ(t.on_network_end, ref.on_network_end);
        EXPECT_NEAR(t.exited, ref.exited, 1e-9 * ref.injected);  // a reduction over threads
    }
}

TEST(CumulativeMethod, BottleneckWithSpillbackMatchesTheRulesAsWritten) {
    // A merge of two long feeders into a short, narrow link that cannot take both: queues grow
    // back onto the feeders, then dissolve; demand over several hours with gaps between peaks.
    fixture::NodeCase c(6);
    fixture::LinkSpec feeder{3600, 3, 60, 3, 60, 2};
    fixture::LinkSpec narrow{1200, 0.5f, 6, 0.5f, 60, 1};
    fixture::LinkSpec exit{7200, 2, 500, 2, 60, 4};
    const int32_t a = c.link(0, 2, feeder), b = c.link(1, 2, feeder);
    const int32_t m = c.link(2, 3, narrow), x = c.link(3, 4, exit), y = c.link(3, 5, exit);
    c.key({a, m, x}, 7, 900);
    c.key({b, m, y}, 7, 700);
    c.key({a, m, y}, 8, 400);
    c.key({b, m}, 16, 1500);
    c.key({a, m, x}, 29, 300);                // late: parts past the horizon are never injected
    const int32_t idle = c.link(5, 0, exit);  // on no path: its arrays must stay as they were
    std::fill_n(c.net.links[idle].travel_time_min, kIntervals, 100.0f);
    std::fill_n(c.net.links[idle].volume, kIntervals, 7.0f);
    for (bool spatial : {true, false})
        for (float dt : {60.0f, 7.0f, 0.5f})
            expect_same_as_reference(
                c.net, c.trips, c.arena, fixture::node_params(1, spatial, dt),
                "spatial " + std::to_string(spatial) + " dt " + std::to_string(dt));
    // The case does build queues on the merge that spill back onto a feeder.
    fixture::NodeCase spill = c;
    spill.load(fixture::node_params(1, true));
    const float* q = spill.net.links[a].queue_veh;
    EXPECT_GT(*std::max_element(q, q + kIntervals), 10.0f);

    NodeLoadParams half = fixture::node_params(1, true, 30.0f, 5.0f);
    half.blend = 0.5f;
    expect_same_as_reference(c.net, c.trips, c.arena, half, "blend 0.5");
}

#ifdef TORVEX_SYNTH_BIN

// A generated region with every key on its free-flow path.
struct Region {
    fixture::TempDir dir;
    Network net;
    TripTable trips;
    CountyAdjacency adj;
    AssignmentState state;

    Region(int seed, const std::string& links, const std::string& trip_count) {
        const fixture::RunResult r = fixture::run_program(
            TORVEX_SYNTH_BIN, {"--scale", "tiny", "--seed", std::to_string(seed), "--links", links,
                               "--trips", trip_count, "--out", dir.path});
        EXPECT_EQ(r.exit_code, 0) << r.err;
        net = load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));
        adj = build_county_adjacency(net);
        load_trips(dir.file("TRIPS.csv"), net, trips, 0, adj, 1);
        load_segment_params(dir.file("segments.csv"), trips);
        RunConfig config;
        config.assignment.node_mode = 0;
        config.assignment.route_chunks = 1;
        prepare_assignment(state, net, trips, adj, config, nullptr);
        IterationRecord rec;
        testing::internal::CaptureStdout();
        routing_pass(state, true, 1.0f, 1.0f, rec);
        testing::internal::GetCapturedStdout();
    }

    NodeLoadTotals load(const NodeLoadParams& p) {
        testing::internal::CaptureStderr();
        const NodeLoadTotals t = run_node_dnl(net, trips, state.path_arena, p, nullptr);
        testing::internal::GetCapturedStderr();
        return t;
    }
};

TEST(NodeConservation, GeneratedRegionsConserveUnderBothMethodsAndReceivingModes) {
    // Method, receiving mode, step: shorter steps for the default method only.
    const std::tuple<uint8_t, bool, float> cases[] = {
        {1, true, 60.0f}, {1, true, 15.0f}, {1, false, 60.0f}, {0, true, 60.0f}, {0, false, 60.0f}};
    Region g(3, "6000", "30000");
    double demand = 0;  // routed
    for (const RouteKey& k : g.trips.route_keys)
        if (k.weight > 0 && k.path_offset >= 0)
            demand += static_cast<double>(k.weight) * g.trips.pce[k.segment];
    ASSERT_GT(demand, 1000.0);
    for (auto [method, spatial, dt] : cases) {
        SCOPED_TRACE(testing::Message()
                     << "method " << int(method) << " spatial " << spatial << " dt " << dt);
        const NodeLoadTotals t = g.load(fixture::node_params(method, spatial, dt));
        // No departure here reaches the horizon: everything routed is injected.
        EXPECT_NEAR(t.injected, demand, demand * 1e-9);
        EXPECT_NEAR(t.injected - t.exited - t.on_network_end, 0.0, demand * 1e-9);
        EXPECT_GT(t.exited, 0.9 * demand);
    }
    // Queue stepping writes the same link arrays whatever the thread count.
    const Network start = g.net;
    std::vector<float> by_threads[2];
    const int threads = omp_get_max_threads();
    for (int n : {1, 2}) {
        g.net = start;
        omp_set_num_threads(n);
        g.load(fixture::node_params(0, true, 60.0f));
        by_threads[n - 1] = link_arrays(g.net);
    }
    omp_set_num_threads(threads);
    EXPECT_EQ(by_threads[0], by_threads[1]);
}

TEST(CumulativeMethod, GeneratedRegionMatchesTheRulesAsWrittenOnAnyThreadCount) {
    Region g(4, "9000", "40000");
    // Heavier demand than the generator's, so that queues form and spill back.
    for (RouteKey& k : g.trips.route_keys) k.weight *= 100.0f;
    for (bool spatial : {true, false})
        expect_same_as_reference(g.net, g.trips, g.state.path_arena,
                                 fixture::node_params(1, spatial, 60.0f),
                                 "spatial " + std::to_string(spatial), {1, 2});
}

#endif

}  // namespace
}  // namespace torvex
