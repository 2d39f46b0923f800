// Seconds of each result writer and of the whole output phase on a generated region, with rows per
// second for the link performance file and the agent database. The assignment is not run: every
// key gets a path by a seeded walk from its origin, and the paths are loaded once (point queue),
// which gives realistic volumes, queues and travel times for the writers to format.
//
//   bench-output DATA_DIR OUT_DIR [--breakdown none|market|purpose|segment] [--meso-interstates]
//                [--no-database]
//
// --no-database leaves the agent database out of the timings and of the phase, so that the CSV
// writers' own bound shows.
// DATA_DIR is a torvex-synth folder (NODE.csv, LINK.csv, TRIPS.csv, segments.csv).
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "assign/network_loading.h"
#include "report/agent_database.h"
#include "report/outputs.h"

namespace {

using namespace torvex;
using Clock = std::chrono::steady_clock;

double since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Processor seconds of the whole process: on a shared machine the wall time alone misleads.
double cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

uint64_t mix(uint64_t h) {
    h = (h ^ (h >> 30)) * 0xBF58476D1CE4E5B9ull;
    h = (h ^ (h >> 27)) * 0x94D049BB133111EBull;
    return h ^ (h >> 31);
}

// A walk of 8 to 40 links from the key's origin that avoids turning straight back and stops at
// the destination when it meets it: continuous paths of realistic length.
void fabricate_paths(const Network& net, TripTable& trips, std::vector<int32_t>& arena) {
    arena.clear();
    for (size_t k = 0; k < trips.route_keys.size(); ++k) {
        RouteKey& key = trips.route_keys[k];
        key.path_offset = static_cast<int64_t>(arena.size());
        uint64_t h = mix(k + 1);
        int32_t at = key.origin, prev = -1;
        const int len = 8 + static_cast<int>(h % 33);
        for (int n = 0; n < len && at != key.dest; ++n) {
            const auto& out = net.nodes[at].out_links;
            if (out.empty()) break;
            h = mix(h);
            int32_t l = out[h % out.size()];
            if (net.links[l].to == prev && out.size() > 1) l = out[(h / 7 + 1) % out.size()];
            arena.push_back(l);
            prev = at;
            at = net.links[l].to;
        }
        key.n_links = static_cast<int32_t>(arena.size() - key.path_offset);
        if (key.n_links == 0) key.path_offset = -1;
        key.imped = static_cast<float>(key.n_links) * 0.9f;
        key.best_imped = key.imped * 0.97f;
        key.gap = key.imped - key.best_imped;
    }
}

size_t link_rows(const Network& net, LinkOutputScope scope) {
    size_t rows = 0;
    for (const Link& l : net.links) {
        if (!link_in_scope(l, scope)) continue;
        for (int i = 0; i < kIntervals; ++i) rows += l.volume[i] > 0.0f || l.queue_veh[i] > 0.0f;
    }
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr,
                     "usage: bench-output DATA_DIR OUT_DIR [--breakdown none|market|purpose|"
                     "segment] [--meso-interstates] [--no-database]\n");
        return 2;
    }
    const std::string data = argv[1], out = argv[2];
    VolumeBreakdown breakdown = VolumeBreakdown::none;
    bool meso = false, database = true;
    for (int a = 3; a < argc; ++a) {
        const std::string arg = argv[a];
        if (arg == "--meso-interstates") meso = true;
        if (arg == "--no-database") database = false;
        if (arg == "--breakdown" && a + 1 < argc) {
            const std::string b = argv[++a];
            breakdown = b == "market"    ? VolumeBreakdown::market
                        : b == "purpose" ? VolumeBreakdown::purpose
                        : b == "segment" ? VolumeBreakdown::segment
                                         : VolumeBreakdown::none;
        }
    }
    std::filesystem::create_directories(out + "/phase");

    Clock::time_point t0 = Clock::now();
    Network net = load_network(data + "/NODE.csv", data + "/LINK.csv");
    const CountyAdjacency adjacency = build_county_adjacency(net);
    TripTable trips;
    load_trips(data + "/TRIPS.csv", net, trips, 0, adjacency, 1);
    if (std::filesystem::exists(data + "/segments.csv"))
        load_segment_params(data + "/segments.csv", trips);
    if (meso)
        for (Link& l : net.links)
            if (l.ftype == 11 || l.ftype == 71) l.flow_tier = kTierMeso;
    std::vector<int32_t> arena;
    fabricate_paths(net, trips, arena);
    LinkLoadContext ctx;
    ctx.network = &net;
    std::vector<float> table;
    load_paths_full(ctx, trips, arena, table, nullptr);
    blend_inflow(ctx, table, 1.0f, 1.0f);
    update_link_times(ctx);
    std::printf("set-up: %d links, %zu trips, %zu keys, %zu path links, %.1f s\n", net.link_count(),
                trips.trips.size(), trips.route_keys.size(), arena.size(), since(t0));

    auto timed = [](const char* name, auto&& fn) {
        const Clock::time_point t = Clock::now();
        const double c = cpu_seconds();
        fn();
        const double s = since(t);
        std::printf("%-30s %7.2f s  (cpu %.2f s)\n", name, s, cpu_seconds() - c);
        return s;
    };
    timed("convert_volumes_to_vehicles", [&] { convert_volumes_to_vehicles(net, trips, arena); });

    const size_t macro_rows = link_rows(net, LinkOutputScope::macro);
    const size_t meso_rows = link_rows(net, LinkOutputScope::meso);
    const double macro_s = timed("link_performance_macroDTA", [&] {
        write_link_performance(out + "/link_performance_macroDTA.csv", net, trips, arena, breakdown,
                               LinkOutputScope::macro);
    });
    std::printf("  %zu rows, %.2f M rows/s, %.0f MB\n", macro_rows, macro_rows / macro_s / 1e6,
                std::filesystem::file_size(out + "/link_performance_macroDTA.csv") / 1e6);
    timed("link_performance_mesoDTA", [&] {
        write_link_performance(out + "/link_performance_mesoDTA.csv", net, trips, arena, breakdown,
                               LinkOutputScope::meso);
    });
    std::printf("  %zu rows\n", meso_rows);
    timed("route_keys", [&] { write_route_keys(out + "/route_keys.csv", trips, net.nodes); });
    const double plans_s = timed("agentPlans_out", [&] {
        write_agent_plans(out + "/agentPlans_out.csv", trips, net.nodes);
    });
    std::printf("  %.2f M rows/s\n", trips.trips.size() / plans_s / 1e6);
    if (database) {
        const double db_s = timed("agentPaths.duckdb", [&] {
            write_agent_database(out + "/agentPaths.duckdb", trips, arena, net, true);
        });
        std::printf("  %.2f M agent rows/s\n", trips.trips.size() / db_s / 1e6);
    }
    timed("scope_summary", [&] { write_scope_summary(out + "/scope_summary.csv", trips, net); });
    timed("count_validation", [&] { write_count_validation(out + "/count_validation.csv", net); });
    timed("path_continuity", [&] { check_path_continuity(net, trips, arena, out); });

    RunConfig config;
    config.output_directory = out + "/phase";
    config.link_volume_breakdown = breakdown;
    if (!database) config.write_agent_paths = 0;
    AssignmentState state;
    state.network = &net;
    state.trips = &trips;
    state.path_arena = arena;
    timed("output phase (all writers)", [&] { write_outputs(config, state); });
    return 0;
}
