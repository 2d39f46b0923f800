#include "assign/routing_pass.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <string>

#include "assign/router.h"
#include "assign/test_graphs.h"

namespace torvex {
namespace {

using fixture::add_link;
using fixture::make_nodes;

// A network, its demand and the state built over them, kept in place (the state points at them).
struct PassSetup {
    Network net;
    TripTable trips;
    CountyAdjacency adj;
    RunConfig cfg;
    AssignmentState st;

    PassSetup() { cfg.assignment.node_mode = 0; }

    int32_t add_key(int32_t o, int32_t d, int slot, int seg, float weight, int scope = 2) {
        RouteKey k;
        k.origin = o;
        k.dest = d;
        k.slot = static_cast<uint8_t>(slot);
        k.segment = static_cast<uint8_t>(seg);
        k.weight = weight;
        k.scope = static_cast<uint8_t>(scope);
        trips.route_keys.push_back(k);
        return static_cast<int32_t>(trips.route_keys.size()) - 1;
    }
    void prepare() {
        build_adjacency(net);
        adj = build_county_adjacency(net);
        prepare_assignment(st, net, trips, adj, cfg, nullptr);
    }
    IterationRecord pass(bool force, float frac, int iter = 0) {
        IterationRecord r;
        r.iter = iter;
        routing_pass(st, force, frac, 1.0f, r);
        return r;
    }
    std::vector<int32_t> path_of(int32_t k) const {
        const RouteKey& key = trips.route_keys[k];
        if (key.path_offset < 0) return {};
        auto first = st.path_arena.begin() + key.path_offset;
        return std::vector<int32_t>(first, first + key.n_links);
    }
};

// The arena holds exactly the keys' paths, back to back in key order, each a connected chain from
// the key's origin to its destination.
void expect_compact_arena(const PassSetup& p) {
    int64_t at = 0;
    for (const RouteKey& k : p.trips.route_keys) {
        if (k.path_offset < 0 || k.n_links == 0) continue;
        EXPECT_EQ(k.path_offset, at);
        at += k.n_links;
        int32_t node = k.origin;
        for (int32_t j = 0; j < k.n_links; ++j) {
            const Link& l = p.net.links[p.st.path_arena[k.path_offset + j]];
            EXPECT_EQ(l.from, node);
            node = l.to;
        }
        EXPECT_EQ(node, k.dest);
    }
    EXPECT_EQ(static_cast<int64_t>(p.st.path_arena.size()), at);
}

TEST(PathStore, GroupsInFirstAppearanceOrderAndSettings) {
    PassSetup p;
    p.net = make_nodes(6);
    add_link(p.net, 0, 1, 1.0f);
    p.add_key(3, 1, 8, 0, 1.0f, 0);  // group 0
    p.add_key(0, 1, 8, 0, 1.0f, 1);  // group 1
    p.add_key(3, 5, 8, 0, 1.0f, 2);  // group 0: scope and destination do not split groups
    p.add_key(3, 1, 9, 0, 1.0f);     // group 2: another slot
    p.add_key(3, 1, 8, 1, 1.0f);     // group 3: another segment
    p.add_key(0, 4, 8, 0, 1.0f);     // group 1
    p.cfg.assignment.node_mode = 2;
    p.cfg.assignment.load_refresh = true;
    p.cfg.assignment.node_refresh_every = 3;
    p.cfg.assignment.ltm_max_spillback_min = 7.5f;
    p.cfg.assignment.threads = 1;
    const int before = omp_get_max_threads();
    p.prepare();
    EXPECT_EQ(omp_get_max_threads(), 1);
    omp_set_num_threads(before);

    ASSERT_EQ(p.st.groups.size(), 4u);
    EXPECT_EQ(p.st.groups[0].keys, (std::vector<int32_t>{0, 2}));
    EXPECT_EQ(p.st.groups[1].keys, (std::vector<int32_t>{1, 5}));
    EXPECT_EQ(p.st.groups[2].keys, (std::vector<int32_t>{3}));
    EXPECT_EQ(p.st.groups[3].keys, (std::vector<int32_t>{4}));
    EXPECT_EQ(p.st.groups[2].slot, 9);
    EXPECT_EQ(p.st.groups[3].segment, 1);
    EXPECT_EQ(p.st.node_mode, 2);
    EXPECT_TRUE(p.st.incremental_load);
    EXPECT_EQ(p.st.node_every, 3);
    EXPECT_EQ(p.st.load.ltm_max_spillback_min, 7.5f);
    for (const RouteKey& k : p.trips.route_keys)
        EXPECT_TRUE(k.path_offset == -1 && k.n_links == 0 && k.reachable);
}

// Origin 0 to destination 3 by a fast narrow route A (0-1-3) or a slow wide route B (0-2-3).
// One group per segment; a refresh after a group's chunk congests A for the chunks after it.
void bottleneck(PassSetup& p, int chunks, int groups) {
    p.net = make_nodes(4);
    p.net.nodes[0].is_centroid = p.net.nodes[3].is_centroid = 1;
    add_link(p.net, 0, 1, 2.0f);
    add_link(p.net, 1, 3, 2.0f);
    add_link(p.net, 0, 2, 5.0f);
    add_link(p.net, 2, 3, 5.0f);
    p.net.links[0].discharge_vph = 100.0f;
    for (int g = 0; g < groups; ++g) p.add_key(0, 3, 8, g, 1000.0f);
    p.cfg.assignment.route_chunks = chunks;
    p.prepare();
}

TEST(RoutingPass, ChunksAreDealtRoundRobinWithRefreshBetween) {
    const std::vector<int32_t> a = {0, 1}, b = {2, 3};
    // Routes three groups in the given chunks and returns the pass's log.
    IterationRecord r;
    auto route = [&r](PassSetup& p, int chunks, bool frozen = false) {
        bottleneck(p, chunks, 3);
        p.st.frozen = frozen;
        testing::internal::CaptureStdout();
        r = p.pass(true, 1.0f);
        return testing::internal::GetCapturedStdout();
    };
    {
        PassSetup p;
        route(p, 2);  // chunk 0: groups 0 and 2, chunk 1: group 1
        EXPECT_EQ(r.rerouted, 3);
        EXPECT_EQ(r.unreachable, 0);
        EXPECT_EQ(p.path_of(0), a);
        EXPECT_EQ(p.path_of(1), b);
        EXPECT_EQ(p.path_of(2), a);
        expect_compact_arena(p);
        // The last chunk refreshed: the narrow link carries a queue.
        EXPECT_GT(p.net.links[0].travel_time_min[34], 10.0f);
    }
    for (int chunks : {0, 1}) {  // no chunk count is one chunk
        PassSetup p;
        const std::string out = route(p, chunks);
        EXPECT_NE(
            out.find("[iter 0] building initial free-flow paths for 0.0M keys (3 groups) in 1 "
                     "chunks on "),
            std::string::npos)
            << out;
        for (int k = 0; k < 3; ++k) EXPECT_EQ(p.path_of(k), a) << "one chunk sees free flow";
    }
    {
        PassSetup p;
        route(p, 5);  // chunks 3 and 4 hold no group
        EXPECT_EQ(p.path_of(0), a);
        EXPECT_EQ(p.path_of(1), b);
        EXPECT_EQ(p.path_of(2), b);
    }
    {
        PassSetup p;
        // No refresh: every chunk sees free flow, and the line says so.
        const std::string out = route(p, 2, true);
        EXPECT_NE(out.find("chunk 2/2: 0.0M/0.0M keys routed (100%), "), std::string::npos) << out;
        EXPECT_EQ(p.path_of(1), a);
        EXPECT_EQ(p.net.links[0].travel_time_min[34], 2.0f);
    }
}

TEST(RoutingPass, AdoptionShareFollowsHashAndChangesWithIteration) {
    const int n = 200000;
    for (float frac : {0.05f, 0.5f}) {
        for (int iter : {1, 100}) {
            int passed = 0;
            for (int k = 0; k < n; ++k) passed += adoption_passes(k, iter, frac);
            EXPECT_NEAR(passed / static_cast<double>(n), frac, 0.005) << frac << " " << iter;
        }
    }
    int both = 0, at100 = 0, none = 0, all = 0;
    for (int k = 0; k < n; ++k) {
        const bool a = adoption_passes(k, 100, 0.05f);
        at100 += a;
        both += a && adoption_passes(k, 101, 0.05f);
        none += adoption_passes(k, 7, 0.0f);
        all += adoption_passes(k, 7, 1.0f);
    }
    // Independent draws: about 5% of the 5% again, far from the same set.
    EXPECT_LT(both, at100 / 8);
    EXPECT_EQ(none, 0);
    EXPECT_EQ(all, n);
}

// Origin 0 reaches 100 destinations through hub 1 (route A) or hub 2 (route B), 20 slots.
void hubs(PassSetup& p) {
    p.net = make_nodes(3 + 100);
    p.net.nodes[0].is_centroid = 1;
    add_link(p.net, 0, 1, 1.0f);
    add_link(p.net, 0, 2, 3.0f);
    for (int d = 3; d < 103; ++d) {
        p.net.nodes[d].is_centroid = 1;
        add_link(p.net, 1, d, 1.0f);
        add_link(p.net, 2, d, 1.0f);
    }
    for (int s = 0; s < 20; ++s) {
        for (int d = 3; d < 103; ++d) p.add_key(0, d, s, 0, 1.0f);
    }
    p.add_key(0, 0, 5, 0, 1.0f);  // origin equals destination
    p.cfg.assignment.route_chunks = 3;
    p.prepare();
    p.st.frozen = true;  // link times are set by hand below
}

TEST(RoutingPass, FilterHoldsShareAndMergeKeepsRejectedPaths) {
    PassSetup p;
    hubs(p);
    const int32_t n_keys = static_cast<int32_t>(p.trips.route_keys.size());
    const int32_t self = n_keys - 1;
    IterationRecord r = p.pass(true, 1.0f);
    EXPECT_EQ(r.rerouted, n_keys);
    expect_compact_arena(p);
    EXPECT_EQ(p.trips.route_keys[self].n_links, 0);
    for (int32_t k = 0; k < self; ++k) ASSERT_EQ(p.path_of(k)[0], 0) << "free flow goes by A";

    // Route A slows down; every key prices its A path above the tree.
    for (int i = 0; i < kIntervals; ++i) p.net.links[0].travel_time_min[i] = 10.0f;
    for (RouteKey& k : p.trips.route_keys) k.imped = k.n_links > 0 ? 11.0f : 0.0f;
    std::vector<std::vector<int32_t>> old_paths;
    for (int32_t k = 0; k < n_keys; ++k) old_paths.push_back(p.path_of(k));
    r = p.pass(false, 0.3f, 6);
    int64_t expect = 0;
    for (int32_t k = 0; k < n_keys; ++k) {
        const RouteKey& key = p.trips.route_keys[k];
        EXPECT_EQ(key.best_imped, k == self ? 0.0f : 4.0f);
        EXPECT_EQ(key.gap, k == self ? 0.0f : 7.0f);
        const bool adopt = adoption_passes(k, 6, 0.3f);
        expect += adopt;
        if (k == self) continue;
        EXPECT_EQ(p.path_of(k)[0], adopt ? 1 : 0) << "key " << k;
        if (!adopt) {
            EXPECT_EQ(p.path_of(k), old_paths[k]);
        }
    }
    EXPECT_EQ(r.rerouted, expect);
    expect_compact_arena(p);

    // Gaps within the threshold keep their paths whatever the hash says.
    for (RouteKey& k : p.trips.route_keys) k.imped = k.n_links > 0 ? 4.005f : 0.0f;
    for (int i = 0; i < kIntervals; ++i) p.net.links[0].travel_time_min[i] = 1.0f;
    for (RouteKey& k : p.trips.route_keys) {
        // On A: within the threshold of the best, so the key stays without a new path.
        if (k.n_links > 0 && p.st.path_arena[k.path_offset] == 0) k.imped = 2.005f;
    }
    const std::vector<int32_t> before = p.st.path_arena;
    r = p.pass(false, 1.0f, 7);
    // Only keys on B have a gap (4 against 2); they all move back; the self key always counts.
    int64_t on_b = 0;
    for (int32_t k = 0; k < self; ++k) on_b += before[p.trips.route_keys[k].path_offset] == 1;
    EXPECT_EQ(r.rerouted, on_b + 1);
    for (int32_t k = 0; k < self; ++k) EXPECT_EQ(p.path_of(k)[0], 0);
}

TEST(RoutingPass, StagesFallThroughAndUnreachableKeysStop) {
    // Counties 0, 1, 2 in a row (0 touches 1, 1 touches 2, 0 does not touch 2).
    PassSetup p;
    p.net = make_nodes(7, 3);
    auto county = [&](int node, int c) { p.net.nodes[node].county = static_cast<uint16_t>(c); };
    county(0, 0), county(1, 1), county(2, 0), county(3, 2), county(4, 0), county(5, 0);
    county(6, kNoCounty);
    p.net.nodes[0].is_centroid = 1;
    add_link(p.net, 0, 1, 1.0f, 0);  // leaves county 0 ...
    add_link(p.net, 1, 2, 1.0f, 1);  // ... through county 1 back to node 2 in county 0
    add_link(p.net, 1, 3, 1.0f, 2);  // into county 2
    add_link(p.net, 0, 4, 1.0f, 0);  // stays in county 0
    add_link(p.net, 6, 0, 1.0f);     // nothing reaches 5 or 6
    const int32_t intra = p.add_key(0, 2, 3, 0, 1.0f, 0);  // needs county 1: statewide stage
    const int32_t local = p.add_key(0, 4, 3, 0, 1.0f, 0);
    const int32_t adjacent = p.add_key(0, 3, 3, 0, 1.0f, 1);  // needs county 2
    const int32_t lost = p.add_key(0, 5, 3, 0, 1.0f, 0);
    const int32_t idle = p.add_key(0, 4, 3, 1, 0.0f, 0);  // zero weight: never routed
    p.prepare();
    ASSERT_TRUE(p.adj.adjacent(0, 1) && p.adj.adjacent(1, 2));
    ASSERT_FALSE(p.adj.adjacent(0, 2));
    IterationRecord r = p.pass(true, 1.0f);
    EXPECT_EQ(r.unreachable, 1);
    EXPECT_EQ(r.rerouted, 3);
    EXPECT_EQ(p.path_of(intra), (std::vector<int32_t>{0, 1}));
    EXPECT_EQ(p.path_of(local), (std::vector<int32_t>{3}));
    EXPECT_EQ(p.path_of(adjacent), (std::vector<int32_t>{0, 2}));
    EXPECT_FALSE(p.trips.route_keys[lost].reachable);
    EXPECT_EQ(p.trips.route_keys[idle].path_offset, -1);
    expect_compact_arena(p);

    // A key that failed once is not routed again, and not counted again.
    r = p.pass(false, 1.0f, 1);
    EXPECT_EQ(r.unreachable, 0);
    EXPECT_EQ(p.path_of(adjacent), (std::vector<int32_t>{0, 2}));

    // An origin without a county skips the masked stages; a zero-weight key keeps its path.
    PassSetup q;
    q.net = make_nodes(3, 1);
    q.net.nodes[0].county = kNoCounty;
    q.net.nodes[1].county = q.net.nodes[2].county = 0;
    add_link(q.net, 0, 1, 1.0f, 0);
    add_link(q.net, 1, 2, 1.0f, 0);
    const int32_t k0 = q.add_key(0, 2, 0, 0, 1.0f, 0);
    q.prepare();
    EXPECT_EQ(q.pass(true, 1.0f).rerouted, 1);
    EXPECT_EQ(q.path_of(k0), (std::vector<int32_t>{0, 1}));
    q.trips.route_keys[k0].weight = 0.0f;
    EXPECT_EQ(q.pass(true, 1.0f).rerouted, 0);
    EXPECT_EQ(q.path_of(k0), (std::vector<int32_t>{0, 1}));
}

// Random demand on a random congested network, routed and loaded with the given thread count.
std::vector<float> run_random(int threads, std::vector<RouteKey>& keys_out,
                              std::vector<int32_t>& arena_out) {
    std::mt19937 rng(3);
    PassSetup p;
    p.net = fixture::random_network(rng, 300, 1300, 3);
    for (Link& l : p.net.links) {
        l.free_flow_min = l.travel_time_min[0];
        l.discharge_vph = 200.0f;
        l.toll = 0.0f;
    }
    p.trips.beta_cost[1] = 0.3f;
    p.trips.beta_dist[1] = 0.2f;
    p.trips.axles[2] = 3;
    std::uniform_int_distribution<int> node(0, 299), slot(0, 29), seg(0, 2), w(1, 4);
    for (int j = 0; j < 3000; ++j) {
        const int o = node(rng) % 30, d = node(rng);
        p.add_key(o, d, slot(rng) % 6 + 6, seg(rng), static_cast<float>(w(rng)), j % 3);
    }
    p.cfg.assignment.route_chunks = 4;
    p.prepare();
    omp_set_num_threads(threads);
    p.pass(true, 1.0f);
    for (RouteKey& k : p.trips.route_keys) {
        if (k.n_links > 0) {
            const RouteWeights rw = route_weights_for_segment(p.trips, k.segment);
            k.imped = path_cost(p.net, p.st.path_arena.data() + k.path_offset, k.n_links,
                                slot_depart_min(p.trips, k.slot), rw.time_w, rw.dist_w, rw.toll_w);
        }
    }
    p.pass(false, 0.5f, 1);
    keys_out = p.trips.route_keys;
    arena_out = p.st.path_arena;
    std::vector<float> times;
    for (const Link& l : p.net.links)
        times.insert(times.end(), l.travel_time_min, l.travel_time_min + kIntervals);
    return times;
}

TEST(RoutingPass, SameResultOnOneAndTwoThreads) {
    const int before = omp_get_max_threads();
    std::vector<RouteKey> k1, k2;
    std::vector<int32_t> a1, a2;
    const std::vector<float> t1 = run_random(1, k1, a1);
    const std::vector<float> t2 = run_random(2, k2, a2);
    omp_set_num_threads(before);
    EXPECT_EQ(a1, a2);
    EXPECT_EQ(t1, t2);
    ASSERT_EQ(k1.size(), k2.size());
    int64_t reachable = 0, gapped = 0;
    for (size_t k = 0; k < k1.size(); ++k) {
        EXPECT_TRUE(k1[k].path_offset == k2[k].path_offset && k1[k].n_links == k2[k].n_links &&
                    k1[k].best_imped == k2[k].best_imped && k1[k].gap == k2[k].gap &&
                    k1[k].reachable == k2[k].reachable)
            << "key " << k;
        reachable += k1[k].reachable;
        gapped += k1[k].gap > 0.01f;
    }
    // The case is not trivial: most keys routed, some of them with a gap after loading.
    EXPECT_GT(reachable, 2000);
    EXPECT_GT(gapped, 10);
}

}  // namespace
}  // namespace torvex
