#include "assign/router.h"

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <limits>
#include <random>
#include <set>
#include <tuple>

#include "assign/test_graphs.h"
#include "toll/toll_tables.h"

namespace torvex {
namespace {

using fixture::add_link;
using fixture::make_nodes;
using fixture::random_network;

bool link_allowed(const Link& l, const std::vector<uint8_t>& mask, const RouteWeights& w) {
    if (!mask.empty() && l.county != kNoCounty && (l.county >= mask.size() || !mask[l.county]))
        return false;
    if (w.bar_no_trucks && l.no_trucks) return false;
    return !ftype_excluded(w.exclude_lo, w.exclude_hi, l.ftype);
}

float link_cost(const Network& net, const Link& l, int i, const RouteWeights& w) {
    const float tt = l.travel_time_min[i];
    if (is_pure_time(w.time_w, w.dist_w, w.toll_w)) return tt;
    return link_generalized_cost(evaluate_toll(net, l, i), w.toll_w, w.dist_w, l.length_mi, tt,
                                 w.time_w);
}

// Label-correcting reference: FIFO queue, improve on strictly lower cost, run to a fixed point.
struct Reference {
    std::vector<float> cost, time;
    std::vector<int32_t> pred;
    std::vector<uint8_t> labelled;
};

Reference reference_tree(const Network& net, int origin, float depart,
                         const std::vector<uint8_t>& mask, const RouteWeights& w) {
    const int n = net.node_count();
    Reference r{std::vector<float>(n, 0), std::vector<float>(n, 0), std::vector<int32_t>(n, -1),
                std::vector<uint8_t>(n, 0)};
    std::deque<int> queue{origin};
    std::vector<uint8_t> queued(n, 0);
    r.labelled[origin] = queued[origin] = 1;
    r.time[origin] = depart;
    while (!queue.empty()) {
        const int u = queue.front();
        queue.pop_front();
        queued[u] = 0;
        if (u != origin && net.nodes[u].is_centroid) continue;
        const int i = interval_of(r.time[u]);
        for (int32_t li : net.nodes[u].out_links) {
            const Link& l = net.links[li];
            if (!link_allowed(l, mask, w)) continue;
            const float c = r.cost[u] + link_cost(net, l, i, w);
            if (r.labelled[l.to] && !(c < r.cost[l.to])) continue;
            r.labelled[l.to] = 1;
            r.cost[l.to] = c;
            r.time[l.to] = r.time[u] + l.travel_time_min[i];
            r.pred[l.to] = li;
            if (!queued[l.to]) queued[l.to] = 1, queue.push_back(l.to);
        }
    }
    return r;
}

std::vector<int32_t> all_nodes(const Network& net) {
    std::vector<int32_t> t(net.node_count());
    for (int i = 0; i < net.node_count(); ++i) t[i] = i;
    return t;
}

RouteWeights random_weights(std::mt19937& rng, int trial) {
    RouteWeights w;
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    if (trial % 2 == 1) {
        w.time_w = 0.5f + unit(rng);
        w.dist_w = unit(rng);
        w.toll_w = unit(rng) * 2.0f;
    }
    w.bar_no_trucks = trial % 3 == 0;
    if (trial % 4 == 0) {
        w.exclude_lo = uint64_t{1} << (10 + trial % 40);
        w.exclude_hi = uint64_t{1} << (trial % 30);
    }
    return w;
}

// Label correcting keeps the best label ever seen at a node, which equals the label-setting tree
// whenever a cheaper arrival is never a later one: FIFO tables priced by time alone, or tables
// that do not change over the day priced by the full generalized cost.
TEST(RouterTree, MatchesLabelCorrectingReferenceOnRandomGraphs) {
    std::mt19937 rng(7);
    for (int trial = 0; trial < 80; ++trial) {
        const bool fifo = trial % 2 == 0;
        Network net = random_network(rng, 40, 160, 4,
                                     fifo ? fixture::Tables::kFifo : fixture::Tables::kStatic);
        RouteWeights w = random_weights(rng, trial);
        if (fifo) {
            w.dist_w = w.toll_w = 0.0f;
            if (trial % 4 == 2) w.time_w = 1.7f;
        }
        std::vector<uint8_t> mask;
        if (trial % 5 == 2) mask = {1, 0, 1, 0};
        const float depart = std::uniform_real_distribution<float>(0.0f, 1790.0f)(rng);
        RouteScratch s;  // a fresh network needs fresh node arrays
        const int32_t settled =
            route_tree(net, fixture::graph_of(net), 0, depart, mask, all_nodes(net), s, w);
        const Reference ref = reference_tree(net, 0, depart, mask, w);
        int32_t reached = 0;
        for (int v = 0; v < net.node_count(); ++v) {
            const bool labelled = s.labels[v].stamp == s.version;
            ASSERT_EQ(labelled, ref.labelled[v] != 0) << "trial " << trial << " node " << v;
            if (!labelled) continue;
            ++reached;
            EXPECT_EQ(s.target_settled[v], 1);
            EXPECT_EQ(s.labels[v].cost, ref.cost[v]) << "trial " << trial << " node " << v;
            EXPECT_EQ(s.labels[v].time, ref.time[v]);
            EXPECT_EQ(s.labels[v].pred_link, ref.pred[v]);
        }
        EXPECT_EQ(settled, reached);
        EXPECT_GT(reached, 1);
    }
}

// Certifies a full tree: no allowed link from an expanded node improves a label, and every label
// but the origin's is explained exactly by its predecessor link.
void certify_tree(const Network& net, const RouteScratch& s, int origin, float depart,
                  const std::vector<uint8_t>& mask, const RouteWeights& w) {
    ASSERT_EQ(s.labels[origin].stamp, s.version);
    EXPECT_EQ(s.labels[origin].cost, 0.0f);
    EXPECT_EQ(s.labels[origin].time, depart);
    for (int u = 0; u < net.node_count(); ++u) {
        if (s.labels[u].stamp != s.version) continue;
        if (u != origin) {
            const int32_t li = s.labels[u].pred_link;
            ASSERT_GE(li, 0);
            const Link& l = net.links[li];
            ASSERT_EQ(l.to, u);
            ASSERT_EQ(s.labels[l.from].stamp, s.version);
            EXPECT_TRUE(l.from == origin || !net.nodes[l.from].is_centroid);
            EXPECT_TRUE(link_allowed(l, mask, w));
            const int i = interval_of(s.labels[l.from].time);
            EXPECT_EQ(s.labels[l.from].cost + link_cost(net, l, i, w), s.labels[u].cost);
            EXPECT_EQ(s.labels[l.from].time + l.travel_time_min[i], s.labels[u].time);
        }
        if (u != origin && net.nodes[u].is_centroid) continue;
        const int i = interval_of(s.labels[u].time);
        for (int32_t li : net.nodes[u].out_links) {
            const Link& l = net.links[li];
            if (!link_allowed(l, mask, w)) continue;
            ASSERT_EQ(s.labels[l.to].stamp, s.version) << "expanded link left its head unlabelled";
            EXPECT_GE(s.labels[u].cost + link_cost(net, l, i, w), s.labels[l.to].cost);
        }
    }
}

TEST(RouterTree, CertifiedShortestAndEarlyStopAgreesWithFullTree) {
    std::mt19937 rng(11);
    for (int trial = 0; trial < 6; ++trial) {
        Network net = random_network(rng, 2000, 7000, 6);
        const RouteWeights w = random_weights(rng, trial);
        std::vector<uint8_t> mask;
        if (trial == 4) mask = {1, 1, 0, 1, 0, 1};
        RouteScratch s;
        const float depart = 400.0f + 211.0f * trial;
        route_tree(net, fixture::graph_of(net), 0, depart, mask, all_nodes(net), s, w);
        certify_tree(net, s, 0, depart, mask, w);
        const std::vector<RouteScratch::Label> full = s.labels;
        const uint32_t full_version = s.version;

        // Early stop on a few targets, on the same scratch: stale stamps must not leak through.
        std::vector<int32_t> targets;
        std::uniform_int_distribution<int> node(1, net.node_count() - 1);
        for (int j = 0; j < 12; ++j) targets.push_back(node(rng));
        const std::set<int32_t> uniq(targets.begin(), targets.end());
        int32_t expect_settled = 0;
        for (int32_t t : uniq) expect_settled += full[t].stamp == full_version;
        EXPECT_EQ(route_tree(net, fixture::graph_of(net), 0, depart, mask, targets, s, w),
                  expect_settled);
        std::vector<int32_t> path;
        for (int32_t t : uniq) {
            if (full[t].stamp != full_version) {
                EXPECT_FALSE(s.labels[t].stamp == s.version && s.target_settled[t]);
                continue;
            }
            ASSERT_TRUE(s.target_settled[t]);
            EXPECT_EQ(s.labels[t].cost, full[t].cost);
            ASSERT_TRUE(rebuild_path(net, s, 0, t, path));
            // The path read out of the tree costs exactly the label when priced link by link
            // with the same weights (its continuity is checked by the routing-pass tests).
            ASSERT_FALSE(path.empty());
            EXPECT_EQ(net.links[path.back()].to, t);
            EXPECT_EQ(path_cost(net, path.data(), static_cast<int32_t>(path.size()), depart,
                                w.time_w, w.dist_w, w.toll_w),
                      full[t].cost);
        }
    }
}

TEST(RouterTree, TargetsOriginDuplicatesAndCentroids) {
    // 0 origin centroid -> 1 -> 2 (centroid) -> 3; 1 -> 4 centroid; 3 only behind centroid 2.
    Network net = make_nodes(5);
    net.nodes[0].is_centroid = net.nodes[2].is_centroid = net.nodes[4].is_centroid = 1;
    add_link(net, 0, 1, 2.0f);
    add_link(net, 1, 2, 3.0f);
    add_link(net, 2, 3, 1.0f);
    add_link(net, 1, 4, 4.0f);
    build_adjacency(net);
    RouteScratch s;
    auto tree = [&](const std::vector<int32_t>& targets) {
        return route_tree(net, fixture::graph_of(net), 0, 480.0f, {}, targets, s, RouteWeights{});
    };

    // No targets: nothing popped, nothing beyond the origin labelled.
    EXPECT_EQ(tree({}), 0);
    EXPECT_NE(s.labels[1].stamp, s.version);

    // Origin as target: settled at the first pop, empty path.
    EXPECT_EQ(tree({0}), 1);
    EXPECT_NE(s.labels[1].stamp, s.version) << "the tree must stop before expanding the origin";
    std::vector<int32_t> path = {99};
    EXPECT_TRUE(rebuild_path(net, s, 0, 0, path));
    EXPECT_TRUE(path.empty());

    // Duplicates count once; centroid 2 is reached but not passed through.
    EXPECT_EQ(tree({2, 2, 4, 2}), 2);
    EXPECT_EQ(s.labels[2].cost, 5.0f);
    EXPECT_EQ(s.labels[4].cost, 6.0f);
    EXPECT_EQ(tree({3}), 0);
    EXPECT_FALSE(rebuild_path(net, s, 0, 3, path));

    // A broken predecessor chain is refused, not followed.
    tree({2});
    s.labels[1].pred_link = -1;
    path = {7};
    EXPECT_FALSE(rebuild_path(net, s, 0, 2, path));
    EXPECT_TRUE(path.empty());
}

TEST(RouterTree, LateDepartureMasksBarsAndExclusions) {
    // Two routes 0 -> 3: via 1 (links 0, 1) and via 2 (links 2, 3).
    Network net = make_nodes(4, 3);
    net.nodes[0].is_centroid = 1;
    add_link(net, 0, 1, 1.0f, 0);
    add_link(net, 1, 3, 1.0f, 1);
    add_link(net, 0, 2, 2.0f, kNoCounty);
    add_link(net, 2, 3, 2.0f, kNoCounty);
    build_adjacency(net);
    RouteScratch s;
    RouteWeights w;
    const std::vector<int32_t> target = {3};
    std::vector<int32_t> path;
    // The label at node 3, or -1 when the tree does not settle exactly that one target.
    auto cost = [&](float depart, const std::vector<uint8_t>& mask = {}) {
        return route_tree(net, fixture::graph_of(net), 0, depart, mask, target, s, w) == 1
                   ? s.labels[3].cost
                   : -1.0f;
    };

    // Past minute 1785 every link reads interval 119, and arrival runs beyond the horizon.
    for (Link& l : net.links)
        l.travel_time_min[119] = 10.0f + static_cast<float>(&l - &net.links[0]);
    net.links[0].travel_time_min[119] = 50.0f;
    EXPECT_EQ(cost(1790.0f), 12.0f + 13.0f);
    EXPECT_EQ(s.labels[3].time, 1790.0f + 25.0f);
    ASSERT_TRUE(rebuild_path(net, s, 0, 3, path));
    EXPECT_EQ(path, (std::vector<int32_t>{2, 3}));
    for (Link& l : net.links) l.travel_time_min[119] = l.travel_time_min[0];

    // Mask without county 1 cuts the short route; links without a county pass any mask.
    EXPECT_EQ(cost(60.0f, {1, 0, 0}), 4.0f);
    EXPECT_EQ(cost(60.0f), 2.0f);

    // Truck bar.
    net.links[1].no_trucks = 1;
    w.bar_no_trucks = true;
    EXPECT_EQ(cost(60.0f), 4.0f);
    w.bar_no_trucks = false;

    // A full exclusion set bars every FTYPE below 128, but FTYPE 200 cannot be excluded.
    w.exclude_lo = w.exclude_hi = ~uint64_t{0};
    EXPECT_EQ(route_tree(net, fixture::graph_of(net), 0, 60.0f, {}, target, s, w), 0);
    net.links[2].ftype = net.links[3].ftype = 200;
    EXPECT_EQ(cost(60.0f), 4.0f);
}

TEST(RouterTree, AxleTollWeightsAndPureTimeSkipsTolls) {
    TripTable trips;
    trips.beta_cost[0] = trips.beta_cost[1] = trips.beta_cost[2] = 0.5f;
    trips.axles[0] = 1;
    trips.axles[1] = 2;
    trips.axles[2] = 3;
    trips.beta_dist[2] = 0.25f;
    trips.exclude_lo[2] = 6;
    const RouteWeights w1 = route_weights_for_segment(trips, 0);
    const RouteWeights w2 = route_weights_for_segment(trips, 1);
    const RouteWeights w3 = route_weights_for_segment(trips, 2);
    // Three or more axles pay double and are barred where trucks are.
    EXPECT_EQ(std::tuple(w1.toll_w, w2.toll_w, w3.toll_w), std::tuple(0.5f, 0.5f, 1.0f));
    EXPECT_EQ(std::tuple(w1.bar_no_trucks, w2.bar_no_trucks, w3.bar_no_trucks),
              std::tuple(false, false, true));
    EXPECT_EQ(w3.dist_w, 0.25f);
    EXPECT_EQ(w3.exclude_lo, 6u);

    // Tolled direct link 0 -> 2 (3 min, $4) against a free detour via 1 (2 x 3 min).
    Network net = make_nodes(3);
    add_link(net, 0, 2, 3.0f);
    add_link(net, 0, 1, 3.0f);
    add_link(net, 1, 2, 3.0f);
    for (Link& l : net.links) l.length_mi = 0;
    net.links[0].toll = 4.0f;
    build_adjacency(net);
    RouteScratch s;
    const std::vector<int32_t> target = {2};
    std::vector<int32_t> path;
    auto cost = [&](const RouteWeights& w) {
        return route_tree(net, fixture::graph_of(net), 0, 0.0f, {}, target, s, w) == 1
                   ? s.labels[2].cost
                   : -1.0f;
    };
    RouteWeights a3 = w3;
    a3.dist_w = 0;
    a3.exclude_lo = 0;
    EXPECT_EQ(cost(w1), 5.0f);  // 4 * 0.5 + 3: cheaper than the 6-minute detour
    EXPECT_EQ(cost(a3), 6.0f);  // double toll 4 * 1 + 3 = 7: the detour wins
    ASSERT_TRUE(rebuild_path(net, s, 0, 2, path));
    EXPECT_EQ(path, (std::vector<int32_t>{1, 2}));
    int32_t direct = 0;
    EXPECT_EQ(path_cost(net, &direct, 1, 0.0f, 1.0f, 0.0f, 1.0f), 7.0f);

    // An unusable toll would poison any tree that evaluated it; a pure-time tree never does,
    // while path_cost always prices the toll.
    net.links[0].toll = std::numeric_limits<float>::infinity();
    RouteWeights pure;
    EXPECT_EQ(cost(pure), 3.0f);
    EXPECT_TRUE(std::isnan(path_cost(net, &direct, 1, 0.0f, 1.0f, 0.0f, 0.0f)));
    pure.time_w = 1.0001f;  // not pure: the toll is evaluated, and inf * 0 spoils the label
    route_tree(net, fixture::graph_of(net), 0, 0.0f, {}, target, s, pure);
    EXPECT_TRUE(std::isnan(s.labels[2].cost));
}

TEST(RouterTree, TiesKeepFirstLabelAndPopLowerNodeFirst) {
    // Links are added in the order given; the predecessor at node 3 names the winner.
    auto pred_at_3 = [](std::initializer_list<std::tuple<int, int, float>> links) {
        Network net = make_nodes(5);
        for (auto [a, b, tt] : links) add_link(net, a, b, tt);
        build_adjacency(net);
        RouteScratch s;
        const std::vector<int32_t> target = {3};
        EXPECT_EQ(route_tree(net, fixture::graph_of(net), 0, 0.0f, {}, target, s, {}), 1);
        return s.labels[3].pred_link;
    };
    // Origin 0 reaches 2 and 1 at equal cost, through links in that order; both lead to 3 at
    // equal cost. The heap pops node 1 first, so 3 is labelled through 1 (link 3) and keeps it.
    EXPECT_EQ(pred_at_3({{0, 2, 1.0f}, {0, 1, 1.0f}, {2, 3, 1.0f}, {1, 3, 1.0f}}), 3);
    // A direct link of equal total cost (link 2), relaxed first from the origin, is the first
    // label at node 3 and stays there.
    EXPECT_EQ(pred_at_3({{0, 2, 1.0f}, {0, 1, 1.0f}, {0, 3, 2.0f}, {1, 3, 1.0f}, {2, 3, 1.0f}}), 2);
}

}  // namespace
}  // namespace torvex
