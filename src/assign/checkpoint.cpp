#include "assign/checkpoint.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include "run/log.h"
#include "run/run_config.h"

namespace torvex {

static_assert(std::endian::native == std::endian::little,
              "checkpoint fields are copied as little-endian bytes");

namespace {

constexpr char kMagic[8] = {'T', 'R', 'V', 'X', 'C', 'K', 'P', '1'};
constexpr uint32_t kFormatVersion = 1;

// Buffered binary writer: the first short write turns all further writing off.
struct Writer {
    FILE* f = nullptr;
    bool ok = true;
    std::vector<unsigned char> buf;

    void flush() {
        if (ok && !buf.empty() && std::fwrite(buf.data(), 1, buf.size(), f) != buf.size())
            ok = false;
        buf.clear();
    }
    void bytes(const void* p, size_t n) {
        if (!ok) return;
        if (buf.size() + n > buf.capacity()) flush();
        if (!ok) return;
        if (n >= buf.capacity()) {
            if (std::fwrite(p, 1, n, f) != n) ok = false;
            return;
        }
        const auto* c = static_cast<const unsigned char*>(p);
        buf.insert(buf.end(), c, c + n);
    }
    template <typename T>
    void put(T v) {
        bytes(&v, sizeof v);
    }
};

// Binary reader that knows how many bytes the file still holds, so that no size taken from the
// file is allocated before it is known to fit.
struct Reader {
    FILE* f = nullptr;
    int64_t remaining = 0;

    bool bytes(void* p, size_t n) {
        if (static_cast<int64_t>(n) > remaining) return false;
        if (std::fread(p, 1, n, f) != n) return false;
        remaining -= static_cast<int64_t>(n);
        return true;
    }
    template <typename T>
    bool get(T& v) {
        return bytes(&v, sizeof v);
    }
};

int64_t file_length(FILE* f) {
    if (std::fseek(f, 0, SEEK_END) != 0) return -1;
    const long n = std::ftell(f);
    if (n < 0 || std::fseek(f, 0, SEEK_SET) != 0) return -1;
    return n;
}

// Keys, in batches so that tens of millions of keys need neither a record-sized read each nor a
// file-sized buffer.
bool read_keys(Reader& in, std::vector<RouteKey>& keys) {
    constexpr size_t kBatch = 4096;
    unsigned char buf[kBatch * kCheckpointKeyBytes];
    for (size_t first = 0; first < keys.size(); first += kBatch) {
        const size_t n = std::min(kBatch, keys.size() - first);
        if (!in.bytes(buf, n * kCheckpointKeyBytes)) return false;
        for (size_t j = 0; j < n; ++j) {
            const unsigned char* r = buf + j * kCheckpointKeyBytes;
            RouteKey& k = keys[first + j];
            std::memcpy(&k.path_offset, r, 8);
            std::memcpy(&k.n_links, r + 8, 4);
            std::memcpy(&k.weight, r + 12, 4);
        }
    }
    return true;
}

// Every saved path must lie inside the arena and name existing links, or the run would read
// outside its tables.
bool paths_in_range(const std::vector<RouteKey>& keys, const std::vector<int32_t>& arena,
                    int32_t links) {
    const int64_t p = static_cast<int64_t>(arena.size());
    for (const RouteKey& k : keys) {
        if (k.path_offset < 0) continue;
        if (k.n_links < 0) return false;
        // A key without links never reads its path, whatever offset it kept.
        if (k.n_links == 0) continue;
        if (k.path_offset > p || k.n_links > p - k.path_offset) return false;
    }
    for (const int32_t l : arena)
        if (l < 0 || l >= links) return false;
    return true;
}

}  // namespace

bool write_checkpoint(const std::string& path, const TripTable& trips,
                      const std::vector<int32_t>& path_arena, const Network& network,
                      int32_t iteration) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        std::fprintf(stderr, "[checkpoint] cannot write %s\n", path.c_str());
        return false;
    }
    Writer w;
    w.f = f;
    w.buf.reserve(1 << 20);

    const auto keys = static_cast<int32_t>(trips.route_keys.size());
    const auto p = static_cast<int64_t>(path_arena.size());
    w.bytes(kMagic, sizeof kMagic);
    w.put(kFormatVersion);
    w.put(network.node_count());
    w.put(network.link_count());
    w.put(keys);
    w.put(iteration);
    w.put(p);
    for (const RouteKey& k : trips.route_keys) {
        w.put(k.path_offset);
        w.put(k.n_links);
        w.put(k.weight);
    }
    w.bytes(path_arena.data(), path_arena.size() * sizeof(int32_t));
    for (const Link& l : network.links) w.bytes(l.travel_time_min, sizeof l.travel_time_min);
    for (const Link& l : network.links) {
        w.put(l.discharge_vph);
        w.put(l.speed_mph);
        w.put(l.toll);
    }
    w.flush();
    const bool closed = std::fclose(f) == 0;
    if (w.ok && closed) {
        progress("[checkpoint] wrote iter %d state to %s (%d keys, %lld path-links)\n", iteration,
                 path.c_str(), keys, static_cast<long long>(p));
        return true;
    }
    std::fprintf(stderr, "[checkpoint] write error on %s\n", path.c_str());
    return false;
}

ResumeResult read_checkpoint(const std::string& path, TripTable& trips,
                             std::vector<int32_t>& path_arena, Network& network) {
    ResumeResult r;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        r.error = "cannot open " + path;
        return r;
    }
    Reader in;
    in.f = f;
    in.remaining = file_length(f);

    char magic[8];
    uint32_t version = 0;
    int32_t nodes = 0, links = 0, keys = 0, iteration = 0;
    int64_t p = 0;
    // The version and node count are read and deliberately not compared with anything.
    const bool header = in.bytes(magic, sizeof magic) &&
                        std::memcmp(magic, kMagic, sizeof kMagic) == 0 && in.get(version) &&
                        in.get(nodes) && in.get(links) && in.get(keys) && in.get(iteration) &&
                        in.get(p);
    auto fail = [&](std::string text) {
        std::fclose(f);
        r.error = std::move(text);
        return r;
    };
    if (!header) return fail(path + ": bad/incompatible checkpoint header");
    if (links != network.link_count())
        return fail("link count changed (" + std::to_string(links) + " -> " +
                    std::to_string(network.link_count()) +
                    "): saved paths are invalid (links added/removed)");
    const auto table_keys = static_cast<int32_t>(trips.route_keys.size());
    if (keys != table_keys)
        return fail("route-key count changed (" + std::to_string(keys) + " -> " +
                    std::to_string(table_keys) + "): trip file differs from the checkpoint");

    const std::string body_error = path + ": truncated/corrupt checkpoint body";
    if (!read_keys(in, trips.route_keys)) return fail(body_error);
    // The arena is sized from the header only once the file is known to hold it.
    if (p < 0 || p > in.remaining / kCheckpointPathBytes) return fail(body_error);
    path_arena.resize(static_cast<size_t>(p));
    if (p >= 1 && !in.bytes(path_arena.data(), path_arena.size() * sizeof(int32_t)))
        return fail(body_error);
    for (Link& l : network.links)
        if (!in.bytes(l.travel_time_min, sizeof l.travel_time_min)) return fail(body_error);
    int64_t edited = 0;
    for (Link& l : network.links) {
        float discharge = 0, speed = 0, toll = 0;
        if (!in.get(discharge) || !in.get(speed) || !in.get(toll)) return fail(body_error);
        edited += discharge != l.discharge_vph || speed != l.speed_mph || toll != l.toll;
    }
    if (!paths_in_range(trips.route_keys, path_arena, links)) return fail(body_error);
    std::fclose(f);

    r.ok = true;
    r.iteration = iteration;
    r.key_count = keys;
    r.link_count = links;
    r.links_edited = edited;
    return r;
}

bool resume_from_checkpoint(RunConfig& config, TripTable& trips, Network& network,
                            std::vector<int32_t>& path_arena) {
    const ResumeResult r = read_checkpoint(config.resume_from, trips, path_arena, network);
    if (!r.ok) {
        std::fprintf(stderr, "[resume] cannot resume from %s: %s\n", config.resume_from.c_str(),
                     r.error.c_str());
        return false;
    }
    config.assignment.start_iteration = r.iteration;
    std::printf(
        "[%s][resume] loaded checkpoint at iter %d; %lld of %d links edited vs the checkpoint%s\n",
        now_hms(), r.iteration, static_cast<long long>(r.links_edited), network.link_count(),
        r.links_edited > 0 ? " -> warm-start; affected ODs re-route, the rest stay at best response"
                           : " (no network edits)");
    if (config.assignment.max_iterations <= r.iteration)
        std::printf(
            "[%s][resume] MAX_ITERATIONS (%d) <= checkpoint iter -> no further assignment; "
            "running outputs / post-processing on the loaded state\n",
            now_hms(), config.assignment.max_iterations);
    std::fflush(stdout);
    return true;
}

}  // namespace torvex
