// Node-model loading speed on a generated region: every key on its free-flow path, then one load
// per method, step length and thread count. Prints active-link steps per second of the stepping
// loop, the time of one whole load (preparation included) and the 1 -> 2 thread speed-up.
//
//   bench-node DIR [LABEL] [METHODS] [DTS]
//     DIR: a torvex-synth folder (NODE.csv, LINK.csv, TRIPS.csv...); the free-flow paths are kept
//     in DIR/node_bench_paths.bin and reused while the trip count matches.
//     METHODS: "cq" (default) cumulative and/or queue stepping; DTS: "60,6" (default).
#include <omp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "assign/routing_pass.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "node/node_model.h"

namespace {

using namespace torvex;
using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

std::string pick(const std::string& dir, const char* plain, const char* gz) {
    const std::string p = dir + "/" + plain;
    if (FILE* f = std::fopen(p.c_str(), "rb")) {
        std::fclose(f);
        return p;
    }
    return dir + "/" + gz;
}

// Free-flow paths of every key, cached between runs: routing a large region dominates set-up.
bool read_paths(const std::string& path, TripTable& trips, std::vector<int32_t>& arena) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    uint64_t n_keys = 0, n_arena = 0;
    bool ok = std::fread(&n_keys, 8, 1, f) == 1 && std::fread(&n_arena, 8, 1, f) == 1 &&
              n_keys == trips.route_keys.size();
    if (ok) {
        arena.resize(n_arena);
        for (RouteKey& k : trips.route_keys) {
            ok = ok && std::fread(&k.path_offset, 8, 1, f) == 1 &&
                 std::fread(&k.n_links, 4, 1, f) == 1;
        }
        ok = ok && std::fread(arena.data(), 4, n_arena, f) == n_arena;
    }
    std::fclose(f);
    return ok;
}

void write_paths(const std::string& path, const TripTable& trips,
                 const std::vector<int32_t>& arena) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return;
    const uint64_t n_keys = trips.route_keys.size(), n_arena = arena.size();
    std::fwrite(&n_keys, 8, 1, f);
    std::fwrite(&n_arena, 8, 1, f);
    for (const RouteKey& k : trips.route_keys) {
        std::fwrite(&k.path_offset, 8, 1, f);
        std::fwrite(&k.n_links, 4, 1, f);
    }
    std::fwrite(arena.data(), 4, n_arena, f);
    std::fclose(f);
}

struct Timing {
    double prep = 0, steps = 0, steps_cpu = 0;
    double link_steps = 0;
};

Timing time_load(Network& net, const TripTable& trips, const std::vector<int32_t>& arena,
                 const NodeLoadParams& p) {
    Timing t;
    const auto t0 = Clock::now();
    NodePrep prep;
    prepare_node_load(net, trips, arena, p, nullptr, prep);
    t.prep = seconds_since(t0);
    const auto t1 = Clock::now();
    const std::clock_t c1 = std::clock();
    const NodeLoadTotals totals =
        p.method == 1 ? run_cumulative(net, p, prep) : run_queue_stepping(net, p, prep);
    t.steps = seconds_since(t1);
    t.steps_cpu = static_cast<double>(std::clock() - c1) / CLOCKS_PER_SEC;
    t.link_steps = static_cast<double>(prep.active_links.size()) * prep.num_steps;
    std::fprintf(stderr, "  injected %.0f, exited %.0f, parked %.0f\n", totals.injected,
                 totals.exited, totals.on_network_end);
    return t;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench-node DIR [LABEL]\n");
        return 2;
    }
    const std::string dir = argv[1];
    const std::string label = argc > 2 ? argv[2] : dir;
    const std::string methods = argc > 3 ? argv[3] : "cq";
    std::vector<float> dts;
    for (const char* p = argc > 4 ? argv[4] : "60,6"; *p;) {
        char* end = nullptr;
        dts.push_back(std::strtof(p, &end));
        if (end == p) break;
        p = *end == ',' ? end + 1 : end;
    }
    const int max_threads = omp_get_max_threads();

    auto t0 = Clock::now();
    Network net = load_network(dir + "/NODE.csv", dir + "/LINK.csv");
    const CountyAdjacency adj = build_county_adjacency(net);
    TripTable trips;
    load_trips(pick(dir, "TRIPS.csv", "TRIPS.csv.gz"), net, trips, 0, adj, 1);
    load_segment_params(dir + "/segments.csv", trips);
    RunConfig config;
    config.assignment.node_mode = 0;
    config.assignment.route_chunks = 1;
    AssignmentState state;
    prepare_assignment(state, net, trips, adj, config, nullptr);
    const std::string cache = dir + "/node_bench_paths.bin";
    if (!read_paths(cache, trips, state.path_arena)) {
        IterationRecord rec;
        routing_pass(state, true, 1.0f, 1.0f, rec);
        write_paths(cache, trips, state.path_arena);
    }
    std::fprintf(stderr, "%s: %d links, %zu keys, %zu path links, set-up %.1f s\n", label.c_str(),
                 net.link_count(), trips.route_keys.size(), state.path_arena.size(),
                 seconds_since(t0));

    for (uint8_t method : {1, 0}) {
        if (methods.find(method == 1 ? 'c' : 'q') == std::string::npos) continue;
        for (float dt : dts) {
            Timing by_threads[2];
            for (int threads : {1, 2}) {
                if (threads > max_threads) continue;
                omp_set_num_threads(threads);
                NodeLoadParams p;
                p.method = method;
                p.dt_sec = dt;
                p.spatial_receiving = true;
                p.blend = 0.5f;  // no conservation line inside the timing
                const Timing t = time_load(net, trips, state.path_arena, p);
                by_threads[threads - 1] = t;
                std::printf(
                    "node %s %s dt=%g threads=%d: load %.2f s (prep %.2f s, steps %.2f s), "
                    "%.1f M active-link steps/s (cpu %.2f s)\n",
                    method == 1 ? "cumulative" : "queue-stepping", label.c_str(), dt, threads,
                    t.prep + t.steps, t.prep, t.steps, t.link_steps / t.steps / 1e6, t.steps_cpu);
                std::fflush(stdout);
            }
            if (max_threads >= 2)
                std::printf("node %s %s dt=%g speed-up 1->2 threads: %.2fx (steps), %.2fx (load)\n",
                            method == 1 ? "cumulative" : "queue-stepping", label.c_str(), dt,
                            by_threads[0].steps / by_threads[1].steps,
                            (by_threads[0].prep + by_threads[0].steps) /
                                (by_threads[1].prep + by_threads[1].steps));
        }
    }
    omp_set_num_threads(max_threads);
    return 0;
}
