// The generator's invariants, checked on its output through the engine's own loaders.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "input/network.h"
#include "input/table_reader.h"
#include "input/trip_table.h"
#include "support/test_files.h"
#include "toll/toll_tables.h"

namespace torvex {
namespace {

using fixture::read_file;
using fixture::RunResult;
using fixture::TempDir;

#ifdef TORVEX_SYNTH_BIN
const char* kSynth = TORVEX_SYNTH_BIN;
#else
const char* kSynth = nullptr;
#endif

constexpr int kTinyTrips = 5000;

RunResult synth(const std::string& out, std::vector<std::string> args) {
    args.insert(args.end(), {"--out", out});
    return fixture::run_program(kSynth, args);
}

Network load_net(const TempDir& dir) {
    return load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));
}

bool is_gp(uint16_t ftype) {
    return ftype == 11 || ftype == 12;
}

size_t data_lines(const std::string& path) {
    const std::string text = read_file(path);
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) - 1;
}

// Nodes reached from `start` over links passing `use`. Directed, centroids other than the start
// are ends; undirected, they are not.
std::vector<uint8_t> reach(const Network& net, int32_t start, auto use, bool undirected = false) {
    std::vector<uint8_t> seen(net.nodes.size(), 0);
    std::vector<int32_t> queue{start};
    seen[start] = 1;
    auto visit = [&](int32_t l, int32_t to) {
        if (use(net.links[l]) && !seen[to]) seen[to] = 1, queue.push_back(to);
    };
    for (size_t q = 0; q < queue.size(); ++q) {
        const Node& n = net.nodes[queue[q]];
        if (!undirected && queue[q] != start && n.is_centroid) continue;
        for (int32_t l : n.out_links) visit(l, net.links[l].to);
        if (undirected)
            for (int32_t l : n.in_links) visit(l, net.links[l].from);
    }
    return seen;
}

// Every zone reaches every other over directed links; each county is one piece on its own links.
void expect_connected(const Network& net) {
    for (int32_t z = 0; z < net.node_count(); ++z) {
        if (!net.nodes[z].is_centroid) continue;
        const auto seen = reach(net, z, [](const Link&) { return true; });
        for (int32_t o = 0; o < net.node_count(); ++o)
            EXPECT_TRUE(!net.nodes[o].is_centroid || seen[o]) << net.nodes[z].node_id;
    }
    for (uint16_t c = 0; c < net.county_names.size(); ++c) {
        int32_t first = -1;
        for (int32_t i = 0; i < net.node_count() && first < 0; ++i)
            if (net.nodes[i].county == c) first = i;
        ASSERT_GE(first, 0) << net.county_names[c];
        const auto seen = reach(
            net, first,
            [&](const Link& l) {
                return net.nodes[l.from].county == c && net.nodes[l.to].county == c;
            },
            true);
        for (int32_t i = 0; i < net.node_count(); ++i)
            EXPECT_TRUE(net.nodes[i].county != c || seen[i]) << net.county_names[c];
    }
}

TEST(Synth, TinyNetworkIsAConnectedRegion) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir dir;
    const RunResult r = synth(dir.path, {"--scale", "tiny", "--seed", "7"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const Network net = load_net(dir);
    // Every row loads: no endpoint is missing and no id repeats.
    EXPECT_EQ(net.links.size(), data_lines(dir.file("LINK.csv")));
    EXPECT_EQ(net.nodes.size(), data_lines(dir.file("NODE.csv")));
    EXPECT_EQ(net.node_index.size(), net.nodes.size());
    EXPECT_GE(net.nodes.size(), 200u);
    EXPECT_LE(net.nodes.size(), 1000u);
    EXPECT_GE(net.county_names.size(), 3u);

    // Centroids take the zone numbers; connectors, and only they, join one to a road node.
    int centroids = 0;
    for (const Node& n : net.nodes) {
        if (!n.is_centroid) continue;
        ++centroids;
        EXPECT_LE(n.node_id, 40);
    }
    EXPECT_EQ(centroids, 40);
    std::set<std::pair<int64_t, int64_t>> pairs;
    std::set<uint16_t> ftypes;
    for (const Link& l : net.links) pairs.insert({l.a_node, l.b_node}), ftypes.insert(l.ftype);
    for (const Link& l : net.links) {
        const int zone_ends = net.nodes[l.from].is_centroid + net.nodes[l.to].is_centroid;
        EXPECT_EQ(l.is_connector ? 1 : 0, zone_ends) << l.a_node << "-" << l.b_node;
        EXPECT_TRUE(pairs.count({l.b_node, l.a_node})) << "one-way link " << l.a_node;
        EXPECT_TRUE((l.ftype != 21 && l.ftype != 22) || l.nsignals >= 1) << "unsignalized arterial";
    }
    for (uint16_t f : {11, 21, 31, 72, 73}) EXPECT_TRUE(ftypes.count(f)) << f;
    expect_connected(net);
}

TEST(Synth, TripRowsLoadUnderEveryDepartureEncoding) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    struct Case {
        std::vector<std::string> args;
        const char* file;
        float slot_minutes;
    };
    const Case cases[] = {{{"--depart", "hour"}, "TRIPS.csv", 60.0f},
                          {{"--depart", "period"}, "TRIPS.csv", 30.0f},
                          {{"--depart", "clock", "--gzip"}, "TRIPS.csv.gz", 30.0f}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[1]);
        TempDir dir;
        std::vector<std::string> args{"--scale", "tiny", "--seed", "3"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const RunResult r = synth(dir.path, args);
        ASSERT_EQ(r.exit_code, 0) << r.err;
        EXPECT_NE(read_file(dir.file("run.ctl")).find(std::string("TRIP_FILE ") + c.file),
                  std::string::npos);
        const Network net = load_net(dir);
        TripTable table;
        const TripLoadSummary s =
            load_trips(dir.file(c.file), net, table, 0, build_county_adjacency(net), 1);
        EXPECT_EQ(s.rows_read, kTinyTrips);
        EXPECT_EQ(s.rows_loaded, kTinyTrips);
        EXPECT_EQ(table.slot_minutes, c.slot_minutes);
        EXPECT_NO_THROW(load_segment_params(dir.file("segments.csv"), table));
        for (const Trip& t : table.trips) {
            const RouteKey& k = table.route_keys[t.route_key];
            EXPECT_TRUE(net.nodes[k.origin].is_centroid && net.nodes[k.dest].is_centroid);
            EXPECT_NE(k.origin, k.dest);
            EXPECT_NEAR(t.weight * t.occupancy, 1.0f, 1e-3f);  // vehTrips is 1 / occupancy
        }
    }
}

TEST(Synth, SameBytesWhateverTheThreadsAndDetectableExpressLanes) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir a, b, c;
    auto run = [](const TempDir& d, const char* seed, const char* threads) {
        return synth(d.path, {"--scale", "tiny", "--gzip", "--express-lane", "--seed", seed,
                              "--threads", threads})
            .exit_code;
    };
    ASSERT_EQ(run(a, "11", "1"), 0);
    ASSERT_EQ(run(b, "11", "2"), 0);
    ASSERT_EQ(run(c, "12", "2"), 0);
    for (const char* f :
         {"NODE.csv", "LINK.csv", "TRIPS.csv.gz", "segments.csv", "toll_policies.csv", "run.ctl"}) {
        const std::string bytes = read_file(a.file(f));
        EXPECT_FALSE(bytes.empty()) << f;
        EXPECT_EQ(bytes, read_file(b.file(f))) << f;
    }
    for (const char* f : {"NODE.csv", "LINK.csv", "TRIPS.csv.gz"})
        EXPECT_NE(read_file(a.file(f)), read_file(c.file(f))) << f;

    // Express lanes: one tolled facility per direction, which the engine can detect.
    Network net = load_net(a);
    load_toll_policies(a.file("toll_policies.csv"), net);
    EXPECT_EQ(net.toll_policies.size(), 2u);
    EXPECT_NE(read_file(a.file("run.ctl")).find("TOLL_POLICY_FILE toll_policies.csv"),
              std::string::npos);
    int facilities = 0;
    for (int32_t d = 0; d < net.node_count(); ++d) {
        if (net.nodes[d].dta_type != 90) continue;
        // Decision node, ingress (97), tolled express links (96), egress (98), merge node.
        int32_t link = -1;
        for (int32_t l : net.nodes[d].out_links)
            if (net.links[l].ftype == 97) link = l;
        ASSERT_GE(link, 0) << "decision node without ingress";
        for (int hops = 0; net.links[link].ftype != 98 && hops < 50; ++hops) {
            EXPECT_NE(net.toll_policies.find(net.links[link].toll_policy), nullptr);
            int32_t next = -1;
            for (int32_t l : net.nodes[net.links[link].to].out_links)
                if (net.links[l].ftype >= 96 && net.links[l].ftype <= 98) next = l;
            ASSERT_GE(next, 0) << "express road ends without egress";
            link = next;
        }
        const int32_t merge = net.links[link].to;
        EXPECT_EQ(net.nodes[merge].dta_type, 91);
        EXPECT_TRUE(reach(net, d, [](const Link& l) { return is_gp(l.ftype); })[merge])
            << "no freeway path from decision node to merge";
        ++facilities;
    }
    EXPECT_EQ(facilities, 2);  // one per direction
    expect_connected(net);
}

TEST(Synth, ExplicitSizesAreHonouredAndKeepTheInvariants) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    for (const char* seed : {"4", "9"}) {
        SCOPED_TRACE(seed);
        TempDir dir;
        const RunResult r =
            synth(dir.path, {"--seed", seed, "--zones", "250", "--links", "6000", "--trips",
                             "20000", "--counties", "7", "--express-lane", "--depart", "period"});
        ASSERT_EQ(r.exit_code, 0) << r.err;
        const Network net = load_net(dir);
        EXPECT_EQ(net.county_names.size(), 7u);
        EXPECT_NEAR(static_cast<double>(net.links.size()), 6000.0, 900.0);
        EXPECT_EQ(std::count_if(net.nodes.begin(), net.nodes.end(),
                                [](const Node& n) { return n.is_centroid; }),
                  250);
        expect_connected(net);
        TripTable table;
        const TripLoadSummary s =
            load_trips(dir.file("TRIPS.csv"), net, table, 0, build_county_adjacency(net), 1);
        EXPECT_EQ(s.rows_loaded, 20000);
        std::set<uint8_t> scopes;
        for (const RouteKey& k : table.route_keys) scopes.insert(k.scope);
        EXPECT_EQ(scopes, (std::set<uint8_t>{0, 1, 2})) << "intra, adjacent and far trips";
    }
}

TEST(Synth, ArgumentErrors) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir dir;
    const RunResult help = fixture::run_program(kSynth, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("--scale"), std::string::npos);
    EXPECT_EQ(fixture::run_program(kSynth, {"--scale", "tiny"}).exit_code, 2);  // no --out
    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
             {"--scale", "huge"}, {"--bogus"}, {"--trips", "12x"}, {"--depart", "minute"}})
        EXPECT_EQ(synth(dir.path, bad).exit_code, 2) << bad[0];
    const RunResult crowded = synth(dir.path, {"--counties", "500"});
    EXPECT_EQ(crowded.exit_code, 2);
    EXPECT_NE(crowded.err.find("too many counties"), std::string::npos);
    EXPECT_FALSE(fixture::file_exists(dir.file("NODE.csv")));
}

}  // namespace
}  // namespace torvex
