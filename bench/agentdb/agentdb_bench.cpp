// Agent database write rate on a fabricated state-sized run: agent rows per second through the
// appender (agents table alone), then the whole file with key paths.
//
//   bench-agentdb [--agents N] [--keys K] [--links L] [--out DIR] [--no-ceiling]
#include <duckdb.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "input/network.h"
#include "input/trip_table.h"
#include "report/agent_database.h"

namespace {

using namespace torvex;

struct Args {
    int64_t agents = 10'000'000;
    int64_t keys = 2'000'000;
    int32_t links = 30;  // mean path length; lengths spread over 1 .. 2 * links - 1
    std::string out = "/tmp/torvex-bench-agentdb";
    bool ceiling = true;
};

uint32_t next(uint32_t& h) {
    h ^= h << 13, h ^= h >> 17, h ^= h << 5;
    return h;
}

// A grid-like graph: node ids as in a real network file (large, sparse), links with any ends.
Network fabricate_network(int32_t n_nodes, int32_t n_links) {
    Network net;
    net.nodes.resize(static_cast<size_t>(n_nodes));
    for (int32_t i = 0; i < n_nodes; ++i) net.nodes[i].node_id = 100000 + int64_t{i} * 7;
    net.links.resize(static_cast<size_t>(n_links));
    uint32_t h = 88172645u;
    for (Link& l : net.links) {
        l = Link{};
        l.from = static_cast<int32_t>(next(h) % n_nodes);
        l.to = static_cast<int32_t>(next(h) % n_nodes);
        l.a_node = net.nodes[l.from].node_id;
        l.b_node = net.nodes[l.to].node_id;
    }
    return net;
}

void fabricate_demand(const Args& a, const Network& net, TripTable& trips,
                      std::vector<int32_t>& arena) {
    trips.purpose_names = {"work", "school", "shop", "social", "other", "escort"};
    uint32_t h = 2463534242u;
    trips.route_keys.resize(static_cast<size_t>(a.keys));
    arena.reserve(static_cast<size_t>(a.keys) * a.links);
    for (RouteKey& k : trips.route_keys) {
        k.origin = static_cast<int32_t>(next(h) % net.nodes.size());
        k.dest = static_cast<int32_t>(next(h) % net.nodes.size());
        k.slot = static_cast<uint8_t>(next(h) % 30);
        k.scope = static_cast<uint8_t>(next(h) % 3);
        k.imped = static_cast<float>(next(h) % 9000) / 100.0f;
        k.gap = static_cast<float>(next(h) % 300) / 100.0f;
        if (next(h) % 50 == 0) continue;  // an unreachable key keeps no path
        k.path_offset = static_cast<int64_t>(arena.size());
        k.n_links = 1 + static_cast<int32_t>(next(h) % (2 * a.links - 1));
        for (int32_t i = 0; i < k.n_links; ++i)
            arena.push_back(static_cast<int32_t>(next(h) % net.links.size()));
    }
    trips.trips.resize(static_cast<size_t>(a.agents));
    for (int64_t i = 0; i < a.agents; ++i) {
        Trip& t = trips.trips[i];
        t.agent_id = i + 1;
        t.hh_id = 1 + i / 4;
        t.person_id = t.hh_id * 10 + i % 4;
        t.tour_id = static_cast<int32_t>(next(h) % 4);
        t.trip_id = static_cast<int32_t>(next(h) % 8);
        t.occupancy = static_cast<uint8_t>(1 + next(h) % 3);
        t.route_key = static_cast<int32_t>(next(h) % a.keys);
        t.value_of_time = static_cast<float>(next(h) % 4000) / 100.0f;
        t.weight = 1.0f;
        t.purpose = static_cast<uint8_t>(next(h) % 7);  // one id past the names: empty text
    }
}

// Wall and process CPU clocks (the database library's own threads included): on a shared
// machine the CPU figure is the steadier one.
struct Clock {
    std::chrono::steady_clock::time_point wall;
    double cpu;
};

double cpu_seconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

Clock now() {
    return {std::chrono::steady_clock::now(), cpu_seconds()};
}

// Wall and CPU seconds since t0.
std::pair<double, double> since(const Clock& t0) {
    return {std::chrono::duration<double>(std::chrono::steady_clock::now() - t0.wall).count(),
            cpu_seconds() - t0.cpu};
}

// The storage engine's own rate on this machine, for comparison: the same table filled by one
// INSERT ... SELECT over generated rows, with no per-row calls at all.
bool run_sql(duckdb_connection con, const std::string& sql) {
    duckdb_result r;
    const bool ok = duckdb_query(con, sql.c_str(), &r) == DuckDBSuccess;
    if (!ok) std::fprintf(stderr, "bench-agentdb: %s\n", duckdb_result_error(&r));
    duckdb_destroy_result(&r);
    return ok;
}

void engine_ceiling(const std::string& path, int64_t rows) {
    std::filesystem::remove(path);
    duckdb_database db;
    duckdb_connection con;
    if (duckdb_open(path.c_str(), &db) == DuckDBError) return;
    if (duckdb_connect(db, &con) == DuckDBError) {
        duckdb_close(&db);
        return;
    }
    const Clock t0 = now();
    bool ok =
        run_sql(con,
                "CREATE TABLE agents(agent_id BIGINT, hh_id BIGINT, person_id BIGINT, "
                "tour_id INTEGER, trip_id INTEGER, occupancy INTEGER, origin BIGINT, dest "
                "BIGINT, depart_slot INTEGER, vot FLOAT, weight FLOAT, purpose VARCHAR, scope "
                "VARCHAR, cost_min FLOAT, gap_min FLOAT, n_links INTEGER, key_id INTEGER)");
    ok = ok && run_sql(con,
                       "INSERT INTO agents SELECT i + 1, i // 4, i * 10, i % 4, i % 8, 1 + i % 3, "
                       "100000 + (hash(i) % 100000) * 7, 100000 + (hash(i + 1) % 100000) * 7, "
                       "i % 30, (hash(i) % 4000) / 100.0, 1.0, ['work', 'school', 'shop'][(1 + i "
                       "% 3)::BIGINT], ['intra', 'adjacent', 'statewide'][(1 + hash(i) % "
                       "3)::BIGINT], (hash(i + 2) % 9000) / 100.0, (hash(i + 3) % 300) / 100.0, "
                       "hash(i) % 59, hash(i) % 2000000 FROM range(" +
                           std::to_string(rows) + ") t(i)");
    duckdb_disconnect(&con);
    duckdb_close(&db);
    const auto [wall, cpu] = since(t0);
    if (ok) {
        std::printf(
            "engine ceiling (INSERT ... SELECT, same schema): %.2f s wall, %.2f s cpu; %.2f M "
            "rows/s wall, %.2f M/s per cpu second\n",
            wall, cpu, rows / wall / 1e6, rows / cpu / 1e6);
    }
    std::filesystem::remove(path);
}

}  // namespace

int main(int argc, char** argv) {
    Args a;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        const bool has_value = i + 1 < argc;
        if (flag == "--no-ceiling") {
            a.ceiling = false;
        } else if (has_value && flag == "--agents") {
            a.agents = std::atoll(argv[++i]);
        } else if (has_value && flag == "--keys") {
            a.keys = std::atoll(argv[++i]);
        } else if (has_value && flag == "--links") {
            a.links = std::atoi(argv[++i]);
        } else if (has_value && flag == "--out") {
            a.out = argv[++i];
        } else {
            std::fprintf(stderr,
                         "usage: bench-agentdb [--agents N] [--keys K] [--links L] [--out DIR] "
                         "[--no-ceiling]\n");
            return 2;
        }
    }
    if (a.agents < 1 || a.keys < 1 || a.links < 1) {
        std::fprintf(stderr, "bench-agentdb: sizes must be positive\n");
        return 2;
    }
    std::filesystem::create_directories(a.out);
    const std::string path = a.out + "/agentPaths.duckdb";

    const Network net = fabricate_network(100'000, 150'000);
    TripTable trips;
    std::vector<int32_t> arena;
    fabricate_demand(a, net, trips, arena);
    std::printf("agentdb: %lld agents, %lld keys, %zu path links\n",
                static_cast<long long>(a.agents), static_cast<long long>(a.keys), arena.size());

    try {
        Clock t0 = now();
        write_agent_database(path, trips, arena, net, false);
        const auto [agents_wall, agents_cpu] = since(t0);
        std::printf(
            "agentdb agents only: %.2f s wall, %.2f s cpu; %.2f M agent rows/s wall, "
            "%.2f M/s per cpu second\n",
            agents_wall, agents_cpu, a.agents / agents_wall / 1e6, a.agents / agents_cpu / 1e6);

        t0 = now();
        write_agent_database(path, trips, arena, net, true);
        const auto [all_wall, all_cpu] = since(t0);
        const double paths_wall = all_wall - agents_wall, paths_cpu = all_cpu - agents_cpu;
        std::printf(
            "agentdb with key paths: %.2f s wall, %.2f s cpu; key_paths %zu rows in ~%.2f s "
            "wall (%.2f M rows/s), ~%.2f s cpu (%.2f M/s per cpu second); file %.0f MB\n",
            all_wall, all_cpu, arena.size(), paths_wall,
            paths_wall > 0 ? arena.size() / paths_wall / 1e6 : 0.0, paths_cpu,
            paths_cpu > 0 ? arena.size() / paths_cpu / 1e6 : 0.0,
            std::filesystem::file_size(path) / 1e6);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    }
    std::filesystem::remove(path);
    if (a.ceiling) engine_ceiling(a.out + "/ceiling.duckdb", a.agents);
    return 0;
}
