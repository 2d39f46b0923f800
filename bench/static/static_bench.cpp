// Static solver benchmark: every method of the Frank-Wolfe family on one region, with the seconds
// of an iteration split into routing, loading, windowing and line search, and the relative gap
// after 10, 50 and 100 iterations.
//
//   bench-static DIR [--iterations N] [--threads N] [--period-min M] [--demand-scale X]
//                    [--methods msa,fw,cfw,bfw]
//
// --demand-scale multiplies every route key's weight, for a region congested enough that the
// methods part ways.
//
// DIR holds NODE.csv, LINK.csv and TRIPS.csv (as torvex-synth writes them).
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "assign/assignment_state.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "run/driver.h"
#include "run/run_config.h"
#include "static/static_solver.h"

namespace {

using namespace torvex;

// The solver's progress lines go to /dev/null while it runs; the figures go to standard output.
struct QuietStdout {
    int saved = -1;
    QuietStdout() {
        std::fflush(stdout);
        saved = dup(1);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved, 1);
        close(saved);
    }
};

// First iteration whose gap is below `target`, or -1.
int first_below(const std::vector<IterationRecord>& recs, double target) {
    for (const IterationRecord& r : recs)
        if (r.iter > 0 && r.rel_gap < target) return r.iter;
    return -1;
}

std::string gap_at(const std::vector<IterationRecord>& recs, int iter) {
    for (const IterationRecord& r : recs) {
        if (r.iter != iter) continue;
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.2e", r.rel_gap);
        return buf;
    }
    return "-";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: bench-static DIR [--iterations N] [--threads N] "
                     "[--period-min M] [--demand-scale X] [--methods msa,fw,cfw,bfw]\n");
        return 2;
    }
    const std::string dir = argv[1];
    int iterations = 100, threads = 0;
    float period_min = 15.0f, demand_scale = 1.0f;
    std::string methods = "msa,fw,cfw,bfw";
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--iterations") iterations = std::atoi(argv[i + 1]);
        if (a == "--threads") threads = std::atoi(argv[i + 1]);
        if (a == "--period-min") period_min = static_cast<float>(std::atof(argv[i + 1]));
        if (a == "--demand-scale") demand_scale = static_cast<float>(std::atof(argv[i + 1]));
        if (a == "--methods") methods = argv[i + 1];
    }

    RunConfig config;
    config.macro_model = MacroModel::STA_BPR;
    config.sta_method_explicit = true;
    config.bpr_period_min = period_min;
    config.assignment.node_mode = 0;
    config.assignment.route_chunks = 1;
    config.assignment.max_iterations = iterations;
    config.assignment.relative_gap = 0.0f;
    config.assignment.threads = threads;

    Network base;
    TripTable base_trips;
    CountyAdjacency adj;
    {
        QuietStdout quiet;
        base = load_network(dir + "/NODE.csv", dir + "/LINK.csv");
        adj = build_county_adjacency(base);
        load_trips(dir + "/TRIPS.csv", base, base_trips, 0, adj, 1);
        apply_static_settings(config, base);
    }
    for (RouteKey& k : base_trips.route_keys) k.weight *= demand_scale;
    std::printf(
        "static solver on %s: %d links, %zu route keys (demand x%.2f), %d windows/link, %d "
        "iterations\n",
        dir.c_str(), base.link_count(), base_trips.route_keys.size(), demand_scale,
        (kIntervals + base.sta_window_intervals - 1) / base.sta_window_intervals, iterations);
    std::printf("%-26s %6s %8s %8s %8s %8s %8s %8s %7s %9s %9s %9s %6s %6s\n", "method", "iters",
                "route/s", "load/s", "window/s", "search/s", "update/s", "total/s", "nonrt",
                "gap@10", "gap@50", "gap@100", "1e-3@", "1e-4@");

    const std::pair<StaMethod, const char*> all[] = {{StaMethod::msa, ",msa,"},
                                                     {StaMethod::fw, ",fw,"},
                                                     {StaMethod::cfw, ",cfw,"},
                                                     {StaMethod::bfw, ",bfw,"}};
    for (const auto& [method, tag] : all) {
        if (("," + methods + ",").find(tag) == std::string::npos) continue;
        config.sta_method = method;
        Network net = base;
        TripTable trips = base_trips;
        AssignmentState state;
        StaticSolveStats s;
        std::vector<IterationRecord> recs;
        double seconds = 0;
        {
            QuietStdout quiet;
            prepare_assignment(state, net, trips, adj, config, nullptr);
            const auto t0 = std::chrono::steady_clock::now();
            recs = run_static_solver(state, s);
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        }
        const double n = static_cast<double>(recs.size());  // iteration 0 included
        const double non_routing = s.loading_s + s.windowing_s + s.line_search_s + s.link_update_s;
        std::printf("%-26s %6d %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f %7.3f %9s %9s %9s %6d %6d\n",
                    sta_method_long_name(static_cast<int>(method)),
                    static_cast<int>(recs.size()) - 1, s.routing_s / n, s.loading_s / n,
                    s.windowing_s / n, s.line_search_s / n, s.link_update_s / n, seconds / n,
                    non_routing / s.routing_s, gap_at(recs, 10).c_str(), gap_at(recs, 50).c_str(),
                    gap_at(recs, 100).c_str(), first_below(recs, 1e-3), first_below(recs, 1e-4));
        if (method == StaMethod::cfw || method == StaMethod::bfw) {
            std::printf("  conjugate direction used %d, rejected %d, before history %d\n", s.used,
                        s.rejected, s.before_history);
        }
        std::fflush(stdout);
    }
    return 0;
}
