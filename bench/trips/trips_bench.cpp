// Trip loading speed: bench-trips NODE.csv LINK.csv TRIPS [TRIPS...]
// Loads the network once, then each trip file into a fresh table; prints rows/s (wall and CPU),
// keys, peak resident memory and the size of a Trip record.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>

#include "input/network.h"
#include "input/trip_table.h"

using namespace torvex;

namespace {

double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + ru.ru_stime.tv_sec +
           ru.ru_stime.tv_usec / 1e6;
}

double peak_mb() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: bench-trips NODE.csv LINK.csv TRIPS [TRIPS...]\n");
        return 2;
    }
    const Network net = load_network(argv[1], argv[2]);
    const CountyAdjacency adj = build_county_adjacency(net);
    std::printf("network: %d nodes, %d links, peak %.0f MB; sizeof(Trip) = %zu bytes\n",
                net.node_count(), net.link_count(), peak_mb(), sizeof(Trip));
    for (int f = 3; f < argc; ++f) {
        const double c0 = cpu_seconds();
        const auto t0 = std::chrono::steady_clock::now();
        TripTable table;
        const TripLoadSummary s = load_trips(argv[f], net, table, 0, adj, 1);
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const double cpu = cpu_seconds() - c0;
        std::printf(
            "%s: %lld rows, %zu keys in %.2f s (cpu %.2f s): %.2f M rows/s wall, %.2f M rows/s "
            "cpu; peak %.0f MB\n",
            argv[f], static_cast<long long>(s.rows_read), table.route_keys.size(), wall, cpu,
            s.rows_read / wall / 1e6, s.rows_read / cpu / 1e6, peak_mb());
    }
    return 0;
}
