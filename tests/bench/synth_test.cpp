// The generator's invariants, checked on its output through the engine's own loaders.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "input/network.h"
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

// Every zone reaches every other over directed links, never passing through a third zone.
void expect_zones_connected(const Network& net) {
    for (int32_t z = 0; z < net.node_count(); ++z) {
        if (!net.nodes[z].is_centroid) continue;
        std::vector<uint8_t> seen(net.nodes.size(), 0);
        std::vector<int32_t> queue{z};
        seen[z] = 1;
        for (size_t q = 0; q < queue.size(); ++q) {
            if (q > 0 && net.nodes[queue[q]].is_centroid) continue;
            for (int32_t l : net.nodes[queue[q]].out_links)
                if (!seen[net.links[l].to])
                    seen[net.links[l].to] = 1, queue.push_back(net.links[l].to);
        }
        for (int32_t o = 0; o < net.node_count(); ++o)
            EXPECT_TRUE(!net.nodes[o].is_centroid || seen[o]) << net.nodes[z].node_id;
    }
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
    }
}

TEST(Synth, SameBytesWhateverTheThreads) {
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

    // The express lanes' policies, one per direction, load through the engine's reader.
    Network net = load_net(a);
    load_toll_policies(a.file("toll_policies.csv"), net);
    EXPECT_EQ(net.toll_policies.size(), 2u);
}

TEST(Synth, ExplicitSizesAreHonouredAndKeepTheInvariants) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir dir;
    const RunResult r =
        synth(dir.path, {"--seed", "4", "--zones", "250", "--links", "6000", "--trips", "20000",
                         "--counties", "7", "--express-lane", "--depart", "period"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const Network net = load_net(dir);
    EXPECT_EQ(net.county_names.size(), 7u);
    EXPECT_NEAR(static_cast<double>(net.links.size()), 6000.0, 900.0);
    EXPECT_EQ(std::count_if(net.nodes.begin(), net.nodes.end(),
                            [](const Node& n) { return n.is_centroid; }),
              250);
    expect_zones_connected(net);
    TripTable table;
    const TripLoadSummary s =
        load_trips(dir.file("TRIPS.csv"), net, table, 0, build_county_adjacency(net), 1);
    EXPECT_EQ(s.rows_loaded, 20000);
    std::set<uint8_t> scopes;
    for (const RouteKey& k : table.route_keys) scopes.insert(k.scope);
    EXPECT_EQ(scopes, (std::set<uint8_t>{0, 1, 2})) << "intra, adjacent and far trips";
}

TEST(Synth, ArgumentErrors) {
    if (!kSynth) GTEST_SKIP() << "torvex-synth not built";
    TempDir dir;
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
