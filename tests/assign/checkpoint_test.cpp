#include "assign/checkpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "assign/assignment_state.h"
#include "assign/equilibrium.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "run/run_config.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::read_file;
using fixture::TempDir;
using fixture::write_file;

// Six zones send peak traffic over a freeway (10-11) or an arterial pair (10-12-11) to zone 2.
constexpr int kZones = 6;

void write_inputs(const TempDir& dir, const std::string& freeway_speed = "60") {
    std::string nodes = "N,X,Y\n2,9,0\n10,1,0\n11,5,0\n12,3,2\n";
    std::string links = "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,SPEED,TOLL\n10,11,5,2,700,11," +
                        freeway_speed +
                        ",0\n10,12,3,1,600,3,40,0\n12,11,3,1,600,3,40,0.5\n"
                        "11,2,0.1,1,9000,51,30,0\n2,11,0.1,1,9000,51,30,0\n";
    std::string trips = "hh_id,O,D,hour\n";
    int id = 0;
    for (int z = 21; z < 21 + kZones; ++z) {
        const std::string zs = std::to_string(z);
        nodes += zs + ",0," + zs + "\n";
        links += zs + ",10,0.1,1,9000,51,30,0\n10," + zs + ",0.1,1,9000,51,30,0\n";
        for (int h = 7; h <= 9; ++h)
            for (int t = 0; t < 150; ++t)
                trips += std::to_string(++id) + "," + zs + ",2," + std::to_string(h) + "\n";
    }
    write_file(dir.file("N.csv"), nodes);
    write_file(dir.file("L.csv"), links);
    write_file(dir.file("T.csv"), trips);
}

struct SmallRun {
    Network net;
    TripTable trips;
    CountyAdjacency adj;
    RunConfig config;
    AssignmentState state;

    explicit SmallRun(const TempDir& dir) {
        net = load_network(dir.file("N.csv"), dir.file("L.csv"));
        adj = build_county_adjacency(net);
        testing::internal::CaptureStdout();
        load_trips(dir.file("T.csv"), net, trips, 0, adj, 1);
        testing::internal::GetCapturedStdout();
        config.macro_model = MacroModel::DTA_PointQueue;
        config.assignment.route_chunks = 2;
        config.assignment.node_mode = 0;
        config.assignment.relative_gap = 0.0f;
    }
    // Runs the assignment over its own state and returns the log.
    std::string run(int iterations, const std::string& checkpoint) {
        config.assignment.max_iterations = iterations;
        config.assignment.checkpoint_file = checkpoint;
        prepare_assignment(state, net, trips, adj, config, nullptr);
        testing::internal::CaptureStdout();
        run_assignment(state);
        return testing::internal::GetCapturedStdout();
    }
};

int64_t expected_size(int64_t keys, int64_t paths, int64_t links) {
    return 36 + 16 * keys + 4 * paths + 492 * links;
}

template <typename T>
void set_field(std::string& bytes, size_t at, T v) {
    std::memcpy(bytes.data() + at, &v, sizeof v);
}

TEST(Checkpoint, RoundTripRestoresPathsWeightsAndTimes) {
    TempDir dir;
    write_inputs(dir);
    SmallRun run(dir);
    run.config.assignment.checkpoint_every = 2;
    const std::string log = run.run(5, dir.file("ck.bin"));
    const std::vector<int32_t>& arena0 = run.state.path_arena;
    // Due at 2 and 4, and at the last iteration.
    EXPECT_NE(log.find("[checkpoint] wrote iter 5 state to " + dir.file("ck.bin") + " (" +
                       std::to_string(3 * kZones) + " keys, " + std::to_string(arena0.size()) +
                       " path-links)\n"),
              std::string::npos)
        << log;
    for (int i : {2, 4}) EXPECT_NE(log.find("wrote iter " + std::to_string(i) + " "), log.npos);
    EXPECT_EQ(log.find("[checkpoint] wrote iter 3 "), std::string::npos);

    // The layout is pinned by the size; the fields by the byte-exact rewrite below.
    const std::string bytes = read_file(dir.file("ck.bin"));
    const int64_t keys = static_cast<int64_t>(run.trips.route_keys.size());
    const int64_t p = static_cast<int64_t>(arena0.size());
    const int32_t links = run.net.link_count();
    ASSERT_GT(p, keys);
    ASSERT_EQ(static_cast<int64_t>(bytes.size()), expected_size(keys, p, links));

    // A fresh load of the same inputs takes on the saved state exactly.
    SmallRun back(dir);
    std::vector<int32_t> arena;
    const ResumeResult r = read_checkpoint(dir.file("ck.bin"), back.trips, arena, back.net);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.iteration, 5);
    EXPECT_EQ(r.links_edited, 0);
    EXPECT_EQ(arena, arena0);
    // Rewriting the restored keys, paths and times must give the same bytes (the saved times
    // are congested, so times left at free flow would differ).
    testing::internal::CaptureStdout();
    EXPECT_TRUE(write_checkpoint(dir.file("again.bin"), back.trips, arena, back.net, 5));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(read_file(dir.file("again.bin")), bytes);
}

TEST(Checkpoint, EveryReadFailureHasItsText) {
    TempDir dir;
    write_inputs(dir);
    SmallRun run(dir);
    run.run(2, dir.file("ck.bin"));
    const std::string good = read_file(dir.file("ck.bin"));
    const int64_t keys = static_cast<int64_t>(run.trips.route_keys.size());
    const int64_t p = static_cast<int64_t>(run.state.path_arena.size());
    const int32_t links = run.net.link_count();

    const std::string crafted = dir.file("crafted.bin");
    auto read_bytes = [&](const std::string& bytes) {
        write_file(crafted, bytes);
        SmallRun fresh(dir);
        std::vector<int32_t> arena;
        return read_checkpoint(crafted, fresh.trips, arena, fresh.net);
    };
    // The good file with fields overwritten, as (offset, value) pairs.
    auto patched = [&]<typename... T>(std::pair<size_t, T>... fields) {
        std::string bad = good;
        (set_field(bad, fields.first, fields.second), ...);
        return read_bytes(bad);
    };
    using I32 = std::pair<size_t, int32_t>;
    using I64 = std::pair<size_t, int64_t>;
    const std::string header_error = crafted + ": bad/incompatible checkpoint header";
    const std::string body_error = crafted + ": truncated/corrupt checkpoint body";

    SmallRun fresh(dir);
    std::vector<int32_t> arena;
    ResumeResult r = read_checkpoint(dir.file("none.bin"), fresh.trips, arena, fresh.net);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.error, "cannot open " + dir.file("none.bin"));

    std::string bad_magic = good;
    bad_magic[7] = '2';
    for (const std::string& b : {std::string(), good.substr(0, 35), bad_magic})
        EXPECT_EQ(read_bytes(b).error, header_error);

    // Version and node count are not compared.
    const ResumeResult v2 = patched(std::pair<size_t, uint32_t>{8, 2}, I32{12, 999});
    EXPECT_TRUE(v2.ok) << v2.error;
    EXPECT_EQ(v2.iteration, 2);

    EXPECT_EQ(patched(I32{16, links + 3}).error,
              "link count changed (" + std::to_string(links + 3) + " -> " + std::to_string(links) +
                  "): saved paths are invalid (links added/removed)");
    EXPECT_EQ(patched(I32{20, 7}).error, "route-key count changed (7 -> " + std::to_string(keys) +
                                             "): trip file differs from the checkpoint");

    // Cut inside the key records, and one byte short.
    for (int64_t cut : {int64_t{36 + 5}, static_cast<int64_t>(good.size()) - 1})
        EXPECT_EQ(read_bytes(good.substr(0, cut)).error, body_error) << cut;

    // A path-link count the file cannot hold is refused before anything is sized from it.
    for (int64_t huge : {int64_t{1} << 60, int64_t{-4}})
        EXPECT_EQ(patched(I64{28, huge}).error, body_error) << huge;
    // Paths that point outside the arena or name links that do not exist.
    EXPECT_EQ(patched(I64{36, p - 1}, I32{36 + 8, 3}).error, body_error);
    EXPECT_EQ(patched(I32{static_cast<size_t>(36 + 16 * keys), links}).error, body_error);
    // A key without links may keep any offset: it never reads its path.
    EXPECT_TRUE(patched(I64{36, p + 50}, I32{36 + 8, 0}).ok);

    // An edited toll counts the link as edited.
    SmallRun edited(dir);
    edited.net.links[2].toll += 0.01f;
    r = read_checkpoint(dir.file("ck.bin"), edited.trips, arena, edited.net);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.links_edited, 1);
}

TEST(Checkpoint, WriteFailureIsReportedOnly) {
    TempDir dir;
    write_inputs(dir);
    SmallRun run(dir);
    std::vector<int32_t> arena;
    const std::string path = dir.file("missing/ck.bin");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(write_checkpoint(path, run.trips, arena, run.net, 1));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[checkpoint] cannot write " + path + "\n");
}

// The whole program: a run halted by the stop file and resumed from its checkpoint goes on with
// the next iteration, its step and reroute share continuing.
TEST(Checkpoint, ResumeAfterStopFileContinuesTheSchedule) {
    TempDir dir;
    write_inputs(dir);
    auto run = [&](const std::string& name, const std::string& extra) {
        write_file(dir.file(name + ".ctl"),
                   "NODE_FILE N.csv\nLINK_FILE L.csv\nTRIP_FILE T.csv\nMACRO_MODEL "
                   "DTA_PointQueue\nROUTE_CHUNKS 2\nRELATIVE_GAP 0\nWRITE_AGENT_PLANS 0\n"
                   "WRITE_AGENT_PATHS 0\n" +
                       extra);
        return fixture::run_program(TORVEX_BIN, {"--control", name + ".ctl", "--out-dir", name},
                                    dir.path);
    };
    auto has = [](const fixture::RunResult& r, const std::string& s, size_t from = 0) {
        return r.out.find(s, from) != std::string::npos;
    };
    write_file(dir.file("stop"), "");
    fixture::RunResult r =
        run("first", "MAX_ITERATIONS 6\nCHECKPOINT_FILE ck.bin\nSTOP_FILE stop\n");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(has(r, "[checkpoint] wrote iter 1 state to ck.bin"));
    EXPECT_TRUE(has(r, "[stop] stop-file 'stop' detected -> halting at iteration 1\n"));
    EXPECT_FALSE(has(r, "[iter 2] rel_gap"));

    r = run("second", "MAX_ITERATIONS 3\nRESUME_FROM ck.bin\n");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(has(r,
                    "[resume] loaded checkpoint at iter 1; 0 of 17 links edited vs the "
                    "checkpoint (no network edits)\n"))
        << r.out;
    EXPECT_FALSE(has(r, "[iter 1] rel_gap"));
    // Share 2 / (k + 1) with k = the iteration: 2/3, then 1/2.
    const size_t second = r.out.find("[iter 2] rel_gap="), third = r.out.find("[iter 3] rel_gap=");
    ASSERT_NE(second, std::string::npos);
    ASSERT_NE(third, std::string::npos);
    EXPECT_TRUE(has(r, "frac=0.667", second));
    EXPECT_TRUE(has(r, "frac=0.500", third));

    // A faster freeway is an edit: the warm-start text.
    write_inputs(dir, "65");
    r = run("third", "MAX_ITERATIONS 1\nRESUME_FROM ck.bin\n");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(has(r,
                    "[resume] loaded checkpoint at iter 1; 1 of 17 links edited vs the "
                    "checkpoint -> warm-start; affected ODs re-route, the rest stay at best "
                    "response\n"))
        << r.out;
    EXPECT_TRUE(has(r,
                    "[resume] MAX_ITERATIONS (1) <= checkpoint iter -> no further "
                    "assignment; running outputs / post-processing on the loaded state\n"));
    EXPECT_FALSE(has(r, "rel_gap="));
    // The loaded state still goes through the whole output phase: the link file holds rows.
    const std::string links = read_file(dir.file("third/link_performance_macroDTA.csv"));
    EXPECT_GT(std::count(links.begin(), links.end(), '\n'), 1);

    // A checkpoint that cannot be read ends the run.
    r = run("bad", "RESUME_FROM nothing.bin\n");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, "[resume] cannot resume from nothing.bin: cannot open nothing.bin\n");
}

}  // namespace
}  // namespace torvex
