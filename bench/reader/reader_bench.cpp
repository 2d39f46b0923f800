// Table reader throughput: LineReader + split_csv over a trip-like file, plain or gzip.
//   bench-reader --make FILE MB   writes a trip-like CSV of about MB megabytes
//   bench-reader FILE [FILE...]   reads each file and prints MB/s (of text) and lines/s
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "input/table_reader.h"

using torvex::FieldView;

namespace {

int make_file(const char* path, long mb) {
    FILE* f = std::fopen(path, "wb");
    if (!f) return 1;
    std::fputs(
        "hh_id,person_id,tour_id,trip_id,O,D,hour,vehTrips,valueOfTime,purpose,market,"
        "marketVot,occupancy,vehicle_type\n",
        f);
    const char* purposes[] = {"work", "school", "shop", "other", "escort"};
    const char* markets[] = {"SOV", "HOV2", "HOV3", "TRK"};
    uint64_t x = 88172645463325252ull;
    long long bytes = 0, target = mb * 1000000LL, row = 0;
    char buf[256];
    while (bytes < target) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        const int m = static_cast<int>(x % 4);
        const int n = std::snprintf(
            buf, sizeof buf, "%lld,%lld,%d,%d,%d,%d,%d,1,%.2f,%s,%s,%s_%d,%d,%d\n", row / 3,
            row / 2, static_cast<int>(x % 4), static_cast<int>((x >> 8) % 6),
            static_cast<int>((x >> 16) % 5000) + 1, static_cast<int>((x >> 32) % 5000) + 1,
            static_cast<int>((x >> 44) % 24) + 1,
            5.0 + static_cast<double>((x >> 20) % 4000) / 100.0, purposes[(x >> 40) % 5],
            markets[m], markets[m], static_cast<int>((x >> 50) % 3),
            m == 2   ? 3
            : m == 1 ? 2
                     : 1,
            m == 3 ? 2 : 1);
        std::fwrite(buf, 1, static_cast<size_t>(n), f);
        bytes += n;
        ++row;
    }
    std::fclose(f);
    std::printf("wrote %s: %lld rows, %.1f MB\n", path, row, bytes / 1e6);
    return 0;
}

int read_file(const char* path) {
    auto t0 = std::chrono::steady_clock::now();
    torvex::LineReader reader(path);
    if (!reader.is_open()) {
        std::fprintf(stderr, "cannot open %s\n", path);
        return 1;
    }
    std::vector<FieldView> fields;
    FieldView line;
    long long lines = 0, text_bytes = 0, field_count = 0, checksum = 0;
    while (reader.next_line(line)) {
        torvex::split_csv(line, fields);
        ++lines;
        text_bytes += static_cast<long long>(line.size) + 1;
        field_count += static_cast<long long>(fields.size());
        if (fields.size() > 5) checksum += torvex::field_i64(fields[5]);
    }
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf(
        "%-8s %s: %lld lines, %lld fields, %.1f MB text in %.3f s: %.0f MB/s, %.1f M lines/s"
        " (checksum %lld)\n",
        reader.gzip ? "gzip" : "plain", path, lines, field_count, text_bytes / 1e6, s,
        text_bytes / 1e6 / s, lines / 1e6 / s, checksum);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--make") == 0)
        return make_file(argv[2], std::atol(argv[3]));
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench-reader --make FILE MB | bench-reader FILE...\n");
        return 2;
    }
    int rc = 0;
    for (int i = 1; i < argc; ++i) rc |= read_file(argv[i]);
    return rc;
}
