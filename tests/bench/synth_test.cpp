// The generator's invariants, checked on its output through the engine's own loaders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
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

constexpr int kTinyZones = 40;
constexpr int kTinyTrips = 5000;

RunResult synth(const std::string& out, std::vector<std::string> args) {
    args.insert(args.end(), {"--out", out});
    return fixture::run_program(kSynth, args);
}

bool is_gp(uint16_t ftype) {
    return ftype == 11 || ftype == 12;
}
bool is_express(uint16_t ftype) {
    return ftype >= 96 && ftype <= 98;
}

size_t data_lines(const std::string& path) {
    const std::string text = read_file(path);
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) - 1;
}

// Every zone reaches every other zone over directed links, never passing through a centroid.
void expect_zones_strongly_connected(const Network& net) {
    std::vector<int32_t> centroids;
    for (int32_t i = 0; i < net.node_count(); ++i)
        if (net.nodes[i].is_centroid) centroids.push_back(i);
    std::vector<int32_t> seen(net.nodes.size(), -1), queue;
    for (int32_t z : centroids) {
        queue.assign(1, z);
        seen[z] = z;
        for (size_t q = 0; q < queue.size(); ++q) {
            const int32_t n = queue[q];
            if (n != z && net.nodes[n].is_centroid) continue;  // zones are ends, not through
            for (int32_t l : net.nodes[n].out_links) {
                const int32_t to = net.links[l].to;
                if (seen[to] != z) seen[to] = z, queue.push_back(to);
            }
        }
        int unreached = 0;
        for (int32_t other : centroids) unreached += seen[other] != z;
        EXPECT_EQ(unreached, 0) << "from zone " << net.nodes[z].node_id;
    }
}

// Each county's nodes form one piece using only links inside the county.
void expect_counties_contiguous(const Network& net) {
    std::vector<std::vector<int32_t>> adj(net.nodes.size());
    for (const Link& l : net.links) {
        if (net.nodes[l.from].county != net.nodes[l.to].county) continue;
        adj[l.from].push_back(l.to);
        adj[l.to].push_back(l.from);
    }
    for (uint16_t c = 0; c < net.county_names.size(); ++c) {
        std::vector<int32_t> members;
        for (int32_t i = 0; i < net.node_count(); ++i)
            if (net.nodes[i].county == c) members.push_back(i);
        ASSERT_FALSE(members.empty()) << net.county_names[c];
        std::vector<uint8_t> seen(net.nodes.size(), 0);
        std::vector<int32_t> queue{members[0]};
        seen[members[0]] = 1;
        for (size_t q = 0; q < queue.size(); ++q)
            for (int32_t m : adj[queue[q]])
                if (!seen[m]) seen[m] = 1, queue.push_back(m);
        EXPECT_EQ(queue.size(), members.size()) << "county " << net.county_names[c];
    }
}

TEST(Synth, TinyNetworkIsARealisticConnectedRegion) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir dir;
    const RunResult r = synth(dir.path, {"--scale", "tiny", "--seed", "7"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const Network net = load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));

    // Every row loaded: no endpoint is missing.
    EXPECT_EQ(net.links.size(), data_lines(dir.file("LINK.csv")));
    EXPECT_EQ(net.nodes.size(), data_lines(dir.file("NODE.csv")));
    EXPECT_EQ(net.node_index.size(), net.nodes.size()) << "duplicate node ids";
    EXPECT_GE(net.nodes.size(), 200u);
    EXPECT_LE(net.nodes.size(), 1000u);
    EXPECT_GE(net.county_names.size(), 3u);

    // Connectors join a centroid to a road node; centroids have nothing else, in and out.
    int centroids = 0;
    for (const Node& n : net.nodes) {
        if (!n.is_centroid) continue;
        ++centroids;
        EXPECT_FALSE(n.out_links.empty());
        EXPECT_FALSE(n.in_links.empty());
        EXPECT_LE(n.node_id, kTinyZones) << "centroids take the zone numbers";
    }
    EXPECT_EQ(centroids, kTinyZones);
    for (const Link& l : net.links) {
        const bool ends_at_zone = net.nodes[l.from].is_centroid || net.nodes[l.to].is_centroid;
        EXPECT_EQ(l.is_connector != 0, ends_at_zone) << l.a_node << "-" << l.b_node;
        if (l.is_connector) {
            EXPECT_NE(net.nodes[l.from].is_centroid, net.nodes[l.to].is_centroid);
        }
    }

    // Road links come in both directions.
    std::set<std::pair<int64_t, int64_t>> pairs;
    for (const Link& l : net.links) pairs.insert({l.a_node, l.b_node});
    for (const Link& l : net.links) EXPECT_TRUE(pairs.count({l.b_node, l.a_node})) << l.a_node;

    // The kinds of road a region has, with plausible attributes.
    std::map<uint16_t, int> by_ftype;
    int counted = 0;
    for (const Link& l : net.links) {
        ++by_ftype[l.ftype];
        counted += l.count > 0;
        EXPECT_GT(l.length_mi, 0.0f);
        if (l.ftype == 21 || l.ftype == 22) {
            EXPECT_GE(l.nsignals, 1) << "unsignalized arterial";
        }
        if (is_gp(l.ftype)) {
            EXPECT_GE(l.lanes, 2);
            EXPECT_GE(l.speed_mph, 55.0f);
            EXPECT_GE(l.capacity_vph / l.lanes, 1800.0f);
        }
        if (!l.is_connector && !is_gp(l.ftype)) {
            EXPECT_LE(l.speed_mph, 55.0f);
        }
    }
    EXPECT_GT(by_ftype[11] + by_ftype[12], 0);
    EXPECT_GT(by_ftype[21] + by_ftype[22], 0);
    EXPECT_GT(by_ftype[31] + by_ftype[32], 0);
    EXPECT_GT(by_ftype[72], 0);
    EXPECT_GT(by_ftype[73], 0);
    EXPECT_GT(counted, 0);
    EXPECT_LT(counted, static_cast<int>(net.links.size()) / 4);

    expect_zones_strongly_connected(net);
    expect_counties_contiguous(net);
}

struct LoadedTrips {
    TripLoadSummary summary;
    TripTable table;
};

TEST(Synth, TripRowsLoadUnderEveryDepartureEncoding) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    struct Case {
        std::vector<std::string> args;
        const char* file;
        float slot_minutes;
    };
    const Case cases[] = {
        {{"--depart", "hour"}, "TRIPS.csv", 60.0f},
        {{"--depart", "period"}, "TRIPS.csv", 30.0f},
        {{"--depart", "clock", "--gzip"}, "TRIPS.csv.gz", 30.0f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[1]);
        TempDir dir;
        std::vector<std::string> args{"--scale", "tiny", "--seed", "3"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const RunResult r = synth(dir.path, args);
        ASSERT_EQ(r.exit_code, 0) << r.err;
        EXPECT_NE(read_file(dir.file("run.ctl")).find(std::string("TRIP_FILE ") + c.file),
                  std::string::npos);
        const Network net = load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));
        const CountyAdjacency adj = build_county_adjacency(net);
        TripTable table;
        const TripLoadSummary s = load_trips(dir.file(c.file), net, table, 0, adj, 1);
        EXPECT_EQ(s.rows_read, kTinyTrips);
        EXPECT_EQ(s.rows_loaded, kTinyTrips);
        EXPECT_EQ(s.bad_od + s.bad_hour + s.zero_weight, 0);
        EXPECT_EQ(table.slot_minutes, c.slot_minutes);
        EXPECT_LE(table.segment_names.size(), 32u);
        EXPECT_NO_THROW(load_segment_params(dir.file("segments.csv"), table));

        // Every trip runs between two distinct zones.
        for (const Trip& t : table.trips) {
            const RouteKey& k = table.route_keys[t.route_key];
            EXPECT_TRUE(net.nodes[k.origin].is_centroid);
            EXPECT_TRUE(net.nodes[k.dest].is_centroid);
            EXPECT_NE(k.origin, k.dest);
            EXPECT_GE(t.occupancy, 1);
            EXPECT_NEAR(t.weight * t.occupancy, 1.0f, 1e-3f);
        }

        // Peaks: the busiest morning hour and evening hour each carry far more than the night.
        std::vector<double> by_hour(30, 0.0);
        double near_sum = 0, pair_sum = 0;
        std::set<int> scopes;
        for (const Trip& t : table.trips) {
            const RouteKey& k = table.route_keys[t.route_key];
            const float minute = k.slot * table.slot_minutes;
            by_hour[static_cast<int>(minute / 60)] += 1;
            const Node &o = net.nodes[k.origin], &d = net.nodes[k.dest];
            near_sum += std::hypot(o.x - d.x, o.y - d.y);
            scopes.insert(k.scope);
        }
        const double am = *std::max_element(by_hour.begin() + 6, by_hour.begin() + 10);
        const double pm = *std::max_element(by_hour.begin() + 14, by_hour.begin() + 19);
        const double night = by_hour[1] + by_hour[2] + by_hour[3];
        EXPECT_GT(am, 5 * (night + 1));
        EXPECT_GT(pm, 5 * (night + 1));
        EXPECT_GT(am, 2 * by_hour[11]) << "no morning peak";

        // Gravity: trips are shorter than a random pairing of zones would make them, yet
        // intra-county and cross-county trips both occur.
        std::vector<const Node*> zones;
        for (const Node& n : net.nodes)
            if (n.is_centroid) zones.push_back(&n);
        int pairs = 0;
        for (const Node* a : zones)
            for (const Node* b : zones)
                if (a != b) pair_sum += std::hypot(a->x - b->x, a->y - b->y), ++pairs;
        EXPECT_LT(near_sum / kTinyTrips, 0.8 * pair_sum / pairs);
        EXPECT_TRUE(scopes.count(0));
        EXPECT_TRUE(scopes.count(1) || scopes.count(2));
    }
}

TEST(Synth, SameSeedSameBytesWhateverTheThreads) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir a, b, c;
    const std::vector<std::string> base{"--scale", "tiny", "--gzip", "--express-lane"};
    auto with = [&](std::vector<std::string> extra) {
        std::vector<std::string> args = base;
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    };
    ASSERT_EQ(synth(a.path, with({"--seed", "11", "--threads", "1"})).exit_code, 0);
    ASSERT_EQ(synth(b.path, with({"--seed", "11", "--threads", "2"})).exit_code, 0);
    ASSERT_EQ(synth(c.path, with({"--seed", "12"})).exit_code, 0);
    for (const char* f :
         {"NODE.csv", "LINK.csv", "TRIPS.csv.gz", "segments.csv", "toll_policies.csv", "run.ctl"}) {
        const std::string bytes = read_file(a.file(f));
        EXPECT_FALSE(bytes.empty()) << f;
        EXPECT_EQ(bytes, read_file(b.file(f))) << f;
    }
    for (const char* f : {"NODE.csv", "LINK.csv", "TRIPS.csv.gz"})
        EXPECT_NE(read_file(a.file(f)), read_file(c.file(f))) << f;
}

TEST(Synth, ExpressLanesFormDetectableTolledFacilities) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir dir;
    const RunResult r = synth(dir.path, {"--scale", "tiny", "--seed", "2", "--express-lane"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    Network net = load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));
    load_toll_policies(dir.file("toll_policies.csv"), net);
    EXPECT_EQ(net.toll_policies.size(), 2u);

    int facilities = 0;
    for (int32_t d = 0; d < net.node_count(); ++d) {
        if (net.nodes[d].dta_type != 90) continue;
        // From the decision node: an ingress link, express links, then an egress link.
        int32_t link = -1;
        for (int32_t l : net.nodes[d].out_links)
            if (net.links[l].ftype == 97) link = l;
        ASSERT_GE(link, 0) << "decision node without ingress";
        int hops = 0;
        while (net.links[link].ftype != 98 && hops++ < 50) {
            EXPECT_NE(net.links[link].toll_policy, 0);
            EXPECT_NE(net.toll_policies.find(net.links[link].toll_policy), nullptr);
            int32_t next = -1;
            for (int32_t l : net.nodes[net.links[link].to].out_links)
                if (is_express(net.links[l].ftype)) next = l;
            ASSERT_GE(next, 0) << "express road ends without egress";
            link = next;
        }
        const int32_t merge = net.links[link].to;
        EXPECT_EQ(net.nodes[merge].dta_type, 91);
        // The merge lies on the general-purpose freeway, reachable from the decision node.
        std::vector<uint8_t> seen(net.nodes.size(), 0);
        std::vector<int32_t> queue{d};
        seen[d] = 1;
        for (size_t q = 0; q < queue.size(); ++q)
            for (int32_t l : net.nodes[queue[q]].out_links)
                if (is_gp(net.links[l].ftype) && !seen[net.links[l].to])
                    seen[net.links[l].to] = 1, queue.push_back(net.links[l].to);
        EXPECT_TRUE(seen[merge]) << "no freeway path from decision node to merge";
        ++facilities;
    }
    EXPECT_EQ(facilities, 2);  // one per direction
    expect_zones_strongly_connected(net);
    const std::string ctl = read_file(dir.file("run.ctl"));
    EXPECT_NE(ctl.find("TOLL_POLICY_FILE toll_policies.csv"), std::string::npos);
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
        const Network net = load_network(dir.file("NODE.csv"), dir.file("LINK.csv"));
        EXPECT_EQ(net.county_names.size(), 7u);
        EXPECT_NEAR(static_cast<double>(net.links.size()), 6000.0, 900.0);
        int centroids = 0;
        for (const Node& n : net.nodes) centroids += n.is_centroid;
        EXPECT_EQ(centroids, 250);
        expect_zones_strongly_connected(net);
        expect_counties_contiguous(net);
        TripTable table;
        const TripLoadSummary s =
            load_trips(dir.file("TRIPS.csv"), net, table, 0, build_county_adjacency(net), 1);
        EXPECT_EQ(s.rows_loaded, 20000);
        EXPECT_EQ(s.bad_od + s.bad_hour + s.zero_weight, 0);
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
    EXPECT_EQ(synth(dir.path, {"--scale", "huge"}).exit_code, 2);
    EXPECT_EQ(synth(dir.path, {"--bogus"}).exit_code, 2);
    EXPECT_EQ(synth(dir.path, {"--trips", "12x"}).exit_code, 2);
    EXPECT_EQ(synth(dir.path, {"--depart", "minute"}).exit_code, 2);
    const RunResult crowded = synth(dir.path, {"--counties", "500"});
    EXPECT_EQ(crowded.exit_code, 2);
    EXPECT_NE(crowded.err.find("too many counties"), std::string::npos);
    EXPECT_FALSE(fixture::file_exists(dir.file("NODE.csv")));
}

}  // namespace
}  // namespace torvex
