// bench-router: speed of the time-dependent router and of one routing pass on a generated region.
//
//   bench-router [--scale tiny|region|state] [--net DIR] [--trees N] [--max-trips N] [--no-pass]
//
// Without --net the network comes from torvex-synth (next to this program), written once into
// /tmp/torvex-bench-router-<scale>. Prints trees per second, settled nodes and link relaxations
// per second per thread, the 1 to 2 thread speed-up, a free-flow routing pass and peak memory.
#include <omp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "assign/assignment_state.h"
#include "assign/network_loading.h"
#include "assign/router.h"
#include "assign/routing_pass.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "run/run_config.h"

using namespace torvex;
namespace fs = std::filesystem;

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double peak_rss_mb() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_maxrss) / 1024.0;
}

struct TreeJob {
    int32_t origin;
    float depart;
};

struct TreeCounts {
    int64_t settled = 0;
    int64_t relaxed = 0;
};

// Nodes labelled and links scanned by one finished tree, counted outside the timed loop.
TreeCounts count_tree(const Network& net, const RouteScratch& s, int32_t origin) {
    TreeCounts c;
    for (int32_t u = 0; u < net.node_count(); ++u) {
        if (s.labels[u].stamp != s.version) continue;
        ++c.settled;
        if (u == origin || !net.nodes[u].is_centroid) c.relaxed += net.nodes[u].out_links.size();
    }
    return c;
}

struct TreeRun {
    double secs = 0;
    TreeCounts counts;
};

// Runs every job on `threads` threads (dynamic, 16 a grab, as the routing pass does).
TreeRun run_trees(const Network& net, const RouterGraph& graph, const std::vector<TreeJob>& jobs,
                  const std::vector<int32_t>& targets, const RouteWeights& w, int threads,
                  bool count) {
    TreeRun r;
    const auto t0 = std::chrono::steady_clock::now();
    const int64_t n = static_cast<int64_t>(jobs.size());
#pragma omp parallel num_threads(threads)
    {
        RouteScratch s;
        init_route_scratch(s, net.node_count());
        TreeCounts mine;
#pragma omp for schedule(dynamic, 16)
        for (int64_t j = 0; j < n; ++j) {
            route_tree(net, graph, jobs[j].origin, jobs[j].depart, {}, targets, s, w);
            if (count) {
                const TreeCounts c = count_tree(net, s, jobs[j].origin);
                mine.settled += c.settled;
                mine.relaxed += c.relaxed;
            }
        }
#pragma omp critical
        {
            r.counts.settled += mine.settled;
            r.counts.relaxed += mine.relaxed;
        }
    }
    r.secs = seconds_since(t0);
    return r;
}

void report_trees(const char* name, const Network& net, const std::vector<TreeJob>& jobs,
                  const std::vector<int32_t>& targets, const RouteWeights& w) {
    RouterGraph graph;
    build_router_graph(net, graph);
    const TreeRun counted = run_trees(net, graph, jobs, targets, w, 1, true);
    const TreeRun one = run_trees(net, graph, jobs, targets, w, 1, false);
    const TreeRun two = run_trees(net, graph, jobs, targets, w, 2, false);
    const double n = static_cast<double>(jobs.size());
    std::printf(
        "%-28s %7zu trees  1 thread: %9.1f trees/s  %6.2fM settled/s  %6.2fM relax/s"
        "  | 2 threads: %9.1f trees/s  speed-up %.2fx\n",
        name, jobs.size(), n / one.secs, counted.counts.settled / one.secs / 1e6,
        counted.counts.relaxed / one.secs / 1e6, n / two.secs, one.secs / two.secs);
}

std::string self_dir() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : exe.parent_path().string();
}

}  // namespace

int main(int argc, char** argv) {
    std::string scale = "region", net_dir;
    int64_t trees = 2000, max_trips = 0;
    bool pass = true;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--scale" && i + 1 < argc) {
            scale = argv[++i];
        } else if (a == "--net" && i + 1 < argc) {
            net_dir = argv[++i];
        } else if (a == "--trees" && i + 1 < argc) {
            trees = std::atoll(argv[++i]);
        } else if (a == "--max-trips" && i + 1 < argc) {
            max_trips = std::atoll(argv[++i]);
        } else if (a == "--no-pass") {
            pass = false;
        } else {
            std::fprintf(stderr,
                         "usage: bench-router [--scale tiny|region|state] [--net DIR] [--trees N] "
                         "[--max-trips N] [--no-pass]\n");
            return 2;
        }
    }
    if (net_dir.empty()) {
        net_dir = "/tmp/torvex-bench-router-" + scale;
        if (!fs::exists(net_dir + "/LINK.csv")) {
            const std::string cmd =
                self_dir() + "/torvex-synth --scale " + scale + " --out " + net_dir;
            std::printf("generating: %s\n", cmd.c_str());
            std::fflush(stdout);
            if (std::system(cmd.c_str()) != 0) {
                std::fprintf(stderr, "torvex-synth failed\n");
                return 1;
            }
        }
    }

    auto t0 = std::chrono::steady_clock::now();
    Network net = load_network(net_dir + "/NODE.csv", net_dir + "/LINK.csv");
    for (Link& l : net.links) {
        for (int i = 0; i < kIntervals; ++i) l.travel_time_min[i] = l.free_flow_min;
    }
    const CountyAdjacency adj = build_county_adjacency(net);
    std::vector<int32_t> centroids;
    for (int32_t u = 0; u < net.node_count(); ++u) {
        if (net.nodes[u].is_centroid) centroids.push_back(u);
    }
    std::printf("network %s: %d nodes, %d links, %zu centroids, loaded in %.1fs\n", net_dir.c_str(),
                net.node_count(), net.link_count(), centroids.size(), seconds_since(t0));
    if (centroids.empty()) return 1;

    std::vector<TreeJob> jobs;
    for (int64_t j = 0; j < trees; ++j) {
        jobs.push_back({centroids[(j * 7919) % centroids.size()],
                        static_cast<float>(360 + (j % 16) * 60) + 30.0f});
    }
    std::vector<int32_t> all(net.node_count());
    for (int32_t u = 0; u < net.node_count(); ++u) all[u] = u;
    std::vector<int32_t> some;
    for (size_t j = 0; j < centroids.size() && some.size() < 100; j += 13) {
        some.push_back(centroids[j]);
    }

    RouteWeights pure;
    RouteWeights priced;
    priced.toll_w = 7.5f;
    priced.dist_w = 0.9f;
    report_trees("full trees, pure time", net, jobs, all, pure);
    report_trees("full trees, tolls + distance", net, jobs, all, priced);
    report_trees("100 centroid targets", net, jobs, some, pure);

    if (pass) {
        TripTable trips;
        t0 = std::chrono::steady_clock::now();
        load_trips(net_dir + "/TRIPS.csv", net, trips, max_trips, adj, 1);
        if (fs::exists(net_dir + "/segments.csv")) {
            load_segment_params(net_dir + "/segments.csv", trips);
        }
        std::printf("trips: %zu rows, %zu keys, loaded in %.1fs\n", trips.trips.size(),
                    trips.route_keys.size(), seconds_since(t0));
        RunConfig cfg;
        cfg.assignment.node_mode = 0;
        double secs[3] = {0, 0, 0};
        for (int threads = 1; threads <= 2; ++threads) {
            for (RouteKey& k : trips.route_keys) {
                k.path_offset = -1;
                k.n_links = 0;
                k.reachable = true;
            }
            AssignmentState st;
            // Each thread count starts from free flow: the load below rewrites the link times.
            Network pass_net = net;
            prepare_assignment(st, pass_net, trips, adj, cfg, nullptr);
            st.frozen = true;  // routing alone
            omp_set_num_threads(threads);
            IterationRecord rec;
            t0 = std::chrono::steady_clock::now();
            routing_pass(st, true, 1.0f, 1.0f, rec);
            secs[threads] = seconds_since(t0);
            std::printf(
                "routing pass (frozen), %d thread(s): %.2fs, %zu groups, %.0f groups/s, "
                "%lld paths, %lld unreachable, arena %zu links\n",
                threads, secs[threads], st.groups.size(),
                static_cast<double>(st.groups.size()) / secs[threads],
                static_cast<long long>(rec.rerouted), static_cast<long long>(rec.unreachable),
                st.path_arena.size());
            // The rest of an iteration's link work on the paths just found: a full load of every
            // path, the blend into inflow, and the travel-time update.
            t0 = std::chrono::steady_clock::now();
            load_paths_full(st.load, *st.trips, st.path_arena, st.volume_table, nullptr);
            const double load_s = seconds_since(t0);
            t0 = std::chrono::steady_clock::now();
            blend_inflow(st.load, st.volume_table, 1.0f, 1.0f);
            update_link_times(st.load);
            const double update_s = seconds_since(t0);
            std::printf("  full load %.3fs (%.1f M path links/s), blend + time update %.3fs\n",
                        load_s, static_cast<double>(st.path_arena.size()) / load_s / 1e6, update_s);
        }
        std::printf("routing pass speed-up 1 -> 2 threads: %.2fx\n", secs[1] / secs[2]);
    }
    std::printf("peak memory: %.0f MB\n", peak_rss_mb());
    return 0;
}
