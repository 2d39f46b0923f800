// torvex-synth: writes a synthetic region (NODE, LINK, trips, segments, control file) to a folder.
#include <omp.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "synth.h"

namespace {

using torvex::synth::Depart;
using torvex::synth::Options;

const char* kUsage =
    "usage: torvex-synth --out DIR [options]\n"
    "Writes a synthetic region for torvex: NODE.csv, LINK.csv, TRIPS.csv (or TRIPS.csv.gz),\n"
    "segments.csv, toll_policies.csv (with --express-lane) and run.ctl, whose paths are\n"
    "relative to DIR. The same arguments always give the same bytes.\n"
    "\n"
    "  --scale NAME      tiny | region | state (default tiny); sets the sizes below\n"
    "                      tiny:   40 zones, ~1,200 links, 5,000 trips, 4 counties\n"
    "                      region: 1,000 zones, ~20,000 links, 1,000,000 trips, 9 counties\n"
    "                      state:  5,000 zones, ~150,000 links, 10,000,000 trips, 48 counties\n"
    "  --seed N          random seed (default 1)\n"
    "  --out DIR         output folder, created if missing (required)\n"
    "  --zones N         number of zones (centroids)\n"
    "  --links N         approximate number of links\n"
    "  --trips N         number of trip rows\n"
    "  --counties N      number of counties\n"
    "  --depart ENC      departure column: hour (1-based hours), period (30-minute periods\n"
    "                    from 0) or clock (depart_time HH:MM:SS); default hour\n"
    "  --gzip            write the trip file gzip-compressed\n"
    "  --express-lane    add express lanes beside a freeway with a toll policy file\n"
    "  --iterations N    MAX_ITERATIONS written to run.ctl\n"
    "  --threads N       worker threads (0 all; output does not depend on it)\n"
    "  --help, -h        this text\n";

int usage_error(const std::string& msg) {
    std::fprintf(stderr, "torvex-synth: %s\n%s", msg.c_str(), kUsage);
    return 2;
}

bool parse_int(const char* text, int64_t& out) {
    const char* end = text + std::strlen(text);
    const auto res = std::from_chars(text, end, out);
    return res.ec == std::errc() && res.ptr == end;
}

bool apply_scale(Options& o) {
    if (o.scale == "tiny") {
        o.zones = 40, o.links = 1200, o.trips = 5000, o.counties = 4, o.max_iterations = 20;
    } else if (o.scale == "region") {
        o.zones = 1000, o.links = 20000, o.trips = 1000000, o.counties = 9, o.max_iterations = 10;
    } else if (o.scale == "state") {
        o.zones = 5000, o.links = 150000, o.trips = 10000000, o.counties = 48;
        o.max_iterations = 6;
    } else {
        return false;
    }
    return true;
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
    using namespace torvex::synth;
    Options opt;
    // Explicit sizes win over the scale's, whatever the argument order.
    int64_t zones = -1, links = -1, trips = -1, counties = -1, iters = -1, threads = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (a == "--gzip") {
            opt.gzip = true;
            continue;
        }
        if (a == "--express-lane") {
            opt.express_lane = true;
            continue;
        }
        if (i + 1 >= argc) return usage_error("missing value for " + a);
        const char* v = argv[++i];
        int64_t n = 0;
        const bool num = parse_int(v, n);
        auto need = [&](int64_t& dst, int64_t lo) {
            if (!num || n < lo) return false;
            dst = n;
            return true;
        };
        bool good = true;
        if (a == "--scale") {
            opt.scale = v;
        } else if (a == "--out") {
            opt.out_dir = v;
        } else if (a == "--seed") {
            good = num && n >= 0;
            opt.seed = static_cast<uint64_t>(n);
        } else if (a == "--depart") {
            const std::string d = v;
            good = d == "hour" || d == "period" || d == "clock";
            opt.depart =
                d == "clock" ? Depart::kClock : (d == "period" ? Depart::kPeriod : Depart::kHour);
        } else if (a == "--zones") {
            good = need(zones, 2);
        } else if (a == "--links") {
            good = need(links, 1);
        } else if (a == "--trips") {
            good = need(trips, 1);
        } else if (a == "--counties") {
            good = need(counties, 1) && counties <= 60000;
        } else if (a == "--iterations") {
            good = need(iters, 1) && iters <= 100000;
        } else if (a == "--threads") {
            good = need(threads, 0) && threads <= 1024;
        } else {
            return usage_error("unknown argument " + a);
        }
        if (!good) return usage_error("bad value for " + a + ": " + v);
    }
    if (!apply_scale(opt)) return usage_error("unknown scale " + opt.scale);
    if (opt.out_dir.empty()) return usage_error("--out DIR is required");
    if (zones > 0) opt.zones = zones;
    if (links > 0) opt.links = links;
    if (trips > 0) opt.trips = trips;
    if (counties > 0) opt.counties = static_cast<int32_t>(counties);
    if (iters > 0) opt.max_iterations = static_cast<int32_t>(iters);
    if (threads > 0) omp_set_num_threads(static_cast<int>(threads));

    std::error_code ec;
    std::filesystem::create_directories(opt.out_dir, ec);
    if (ec) {
        std::fprintf(stderr, "torvex-synth: cannot create %s: %s\n", opt.out_dir.c_str(),
                     ec.message().c_str());
        return 1;
    }
    const auto t0 = std::chrono::steady_clock::now();
    Region region;
    std::string error;
    if (!build_region(opt, region, error)) return usage_error(error);
    const std::string trip_name = opt.gzip ? "TRIPS.csv.gz" : "TRIPS.csv";
    if (!write_network_files(region, opt, trip_name, error)) {
        std::fprintf(stderr, "torvex-synth: %s\n", error.c_str());
        return 1;
    }
    const double t_net = seconds_since(t0);
    TripSummary sum;
    if (!write_trips(region, opt, opt.out_dir + "/" + trip_name, sum, error)) {
        std::fprintf(stderr, "torvex-synth: %s\n", error.c_str());
        return 1;
    }
    const double t_all = seconds_since(t0);
    const double rows = static_cast<double>(sum.rows > 0 ? sum.rows : 1);
    std::printf(
        "torvex-synth: %d x %d grid, %zu counties, %d freeways, %d interchanges, "
        "%d express links\n",
        region.grid, region.grid, region.county_names.size(), region.freeway_count,
        region.interchanges, region.express_links);
    std::printf("torvex-synth: %zu nodes, %zu links, %zu zones -> %s\n", region.nodes.size(),
                region.links.size(), region.zones.size(), opt.out_dir.c_str());
    std::printf(
        "torvex-synth: %lld trips from %lld households: %.1f%% intra-county, "
        "mean %.2f mi, %.1f%% over 20 mi\n",
        static_cast<long long>(sum.rows), static_cast<long long>(sum.households),
        100.0 * sum.intra_county / rows, sum.sum_distance_mi / rows, 100.0 * sum.long_trips / rows);
    // CPU time beside wall time: on a shared machine the wall figure alone misleads.
    const double cpu = static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
    std::printf(
        "torvex-synth: network %.2f s, trips %.2f s, total %.2f s, cpu %.2f s, %d threads\n", t_net,
        t_all - t_net, t_all, cpu, omp_get_max_threads());
    return 0;
}
