// The agent database through DuckDB's C API. Rows go through the appender, the library's bulk
// path; paths are stored once per route key, since many trips share a key.
#include "report/agent_database.h"

#include <duckdb.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "input/network.h"
#include "input/trip_table.h"

namespace torvex {
namespace {

constexpr const char* kCreateAgents =
    "CREATE TABLE agents(agent_id BIGINT, hh_id BIGINT, person_id BIGINT, tour_id INTEGER, "
    "trip_id INTEGER, occupancy INTEGER, origin BIGINT, dest BIGINT, depart_slot INTEGER, vot "
    "FLOAT, weight FLOAT, purpose VARCHAR, scope VARCHAR, cost_min FLOAT, gap_min FLOAT, n_links "
    "INTEGER, key_id INTEGER)";
constexpr const char* kCreateKeyPaths =
    "CREATE TABLE key_paths(key_id INTEGER, seq INTEGER, a_node BIGINT, b_node BIGINT)";

// Handles of one write; whatever is open when an error leaves the function is released here,
// in reverse order of opening, so the file is not left locked by this process.
struct DatabaseHandles {
    duckdb_database db = nullptr;
    duckdb_connection con = nullptr;
    duckdb_appender appender = nullptr;

    DatabaseHandles() = default;
    DatabaseHandles(const DatabaseHandles&) = delete;
    DatabaseHandles& operator=(const DatabaseHandles&) = delete;
    ~DatabaseHandles() {
        if (appender) duckdb_appender_destroy(&appender);
        if (con) duckdb_disconnect(&con);
        if (db) duckdb_close(&db);
    }
};

void run_statement(duckdb_connection con, const char* sql) {
    duckdb_result result;
    duckdb_state state = duckdb_query(con, sql, &result);
    std::string message;
    if (state == DuckDBError) {
        const char* err = duckdb_result_error(&result);
        message = (err && *err) ? err : sql;
    }
    duckdb_destroy_result(&result);
    if (state == DuckDBError) throw std::runtime_error("duckdb: " + message);
}

void open_appender(DatabaseHandles& h, const char* table) {
    if (duckdb_appender_create(h.con, nullptr, table, &h.appender) == DuckDBError) {
        // A failed appender still holds its error state and must be destroyed.
        if (h.appender) duckdb_appender_destroy(&h.appender);
        h.appender = nullptr;
        throw std::runtime_error(std::string("duckdb: appender(") + table + ") failed");
    }
}

void close_appender(DatabaseHandles& h) {
    duckdb_appender_destroy(&h.appender);
    h.appender = nullptr;
}

const char* scope_text(uint8_t scope) {
    if (scope == 0) return "intra";
    if (scope == 1) return "adjacent";
    return "statewide";
}

// A run never adds to an older database: the file and any log the library left beside it go.
void remove_old_database(const std::string& path) {
    std::error_code ec;
    for (const std::string& name : {path, path + ".wal"}) {
        const std::filesystem::path p(name);
        if (!std::filesystem::is_directory(p, ec)) std::filesystem::remove(p, ec);
    }
}

// Link and node records are large and reached out of order; the ids the rows need are copied
// into compact tables once per call so that the row loops stay in cache.
std::vector<int64_t> compact_node_ids(const Network& network) {
    std::vector<int64_t> ids(network.nodes.size());
    for (size_t i = 0; i < ids.size(); ++i) ids[i] = network.nodes[i].node_id;
    return ids;
}

int64_t id_at(const std::vector<int64_t>& ids, int64_t index) {
    return index >= 0 && index < static_cast<int64_t>(ids.size()) ? ids[index] : 0;
}

void append_agents(duckdb_appender app, const TripTable& trips, const Network& network) {
    static const RouteKey kNoKey{};
    const std::vector<int64_t> node_ids = compact_node_ids(network);
    const int64_t n_keys = static_cast<int64_t>(trips.route_keys.size());
    const size_t n_trips = trips.trips.size();
    // Trips reach their keys in any order, and keys their nodes: the key of a trip far ahead is
    // asked for first, the node ids of a nearer one once its key has arrived.
    constexpr size_t kAhead = 16, kNodesAhead = 8;
    for (size_t i = 0; i < n_trips; ++i) {
        if (i + kAhead < n_trips) {
            const int32_t ahead = trips.trips[i + kAhead].route_key;
            if (ahead >= 0 && ahead < n_keys) __builtin_prefetch(&trips.route_keys[ahead]);
        }
        if (i + kNodesAhead < n_trips) {
            const int32_t ahead = trips.trips[i + kNodesAhead].route_key;
            if (ahead >= 0 && ahead < n_keys) {
                const RouteKey& k = trips.route_keys[ahead];
                if (k.origin >= 0 && static_cast<size_t>(k.origin) < node_ids.size())
                    __builtin_prefetch(&node_ids[k.origin]);
                if (k.dest >= 0 && static_cast<size_t>(k.dest) < node_ids.size())
                    __builtin_prefetch(&node_ids[k.dest]);
            }
        }
        const Trip& t = trips.trips[i];
        const bool has_key = t.route_key >= 0 && t.route_key < n_keys;
        const RouteKey& k = has_key ? trips.route_keys[t.route_key] : kNoKey;
        const char* purpose =
            t.purpose < trips.purpose_names.size() ? trips.purpose_names[t.purpose].c_str() : "";
        duckdb_append_int64(app, t.agent_id);
        duckdb_append_int64(app, t.hh_id);
        duckdb_append_int64(app, t.person_id);
        duckdb_append_int32(app, t.tour_id);
        duckdb_append_int32(app, t.trip_id);
        duckdb_append_int32(app, t.occupancy);
        duckdb_append_int64(app, has_key ? id_at(node_ids, k.origin) : 0);
        duckdb_append_int64(app, has_key ? id_at(node_ids, k.dest) : 0);
        duckdb_append_int32(app, k.slot);
        duckdb_append_float(app, t.value_of_time);
        duckdb_append_float(app, t.weight);
        duckdb_append_varchar(app, purpose);
        duckdb_append_varchar(app, scope_text(k.scope));
        duckdb_append_float(app, k.imped);
        duckdb_append_float(app, k.gap);
        duckdb_append_int32(app, k.n_links);
        duckdb_append_int32(app, t.route_key);
        duckdb_appender_end_row(app);
    }
}

void append_key_paths(duckdb_appender app, const TripTable& trips,
                      const std::vector<int32_t>& paths, const Network& network) {
    // a_node and b_node of each link, side by side.
    std::vector<int64_t> ends(network.links.size() * 2);
    for (size_t l = 0; l < network.links.size(); ++l) {
        ends[2 * l] = network.links[l].a_node;
        ends[2 * l + 1] = network.links[l].b_node;
    }
    const int64_t arena = static_cast<int64_t>(paths.size());
    const int32_t n_keys = static_cast<int32_t>(trips.route_keys.size());
    for (int32_t key = 0; key < n_keys; ++key) {
        const RouteKey& k = trips.route_keys[key];
        if (k.path_offset < 0) continue;
        // Reads stop at the arena's end whatever the key claims.
        int64_t n = k.n_links;
        if (k.path_offset + n > arena) n = arena - k.path_offset;
        const int32_t* path = paths.data() + k.path_offset;
        for (int32_t seq = 0; seq < n; ++seq) {
            // Links of a path lie anywhere in the table of ends.
            if (seq + 8 < n) {
                const int32_t ahead = path[seq + 8];
                if (ahead >= 0 && ahead < network.link_count())
                    __builtin_prefetch(&ends[2 * static_cast<size_t>(ahead)]);
            }
            const int32_t l = path[seq];
            const bool valid = l >= 0 && l < network.link_count();
            duckdb_append_int32(app, key);
            duckdb_append_int32(app, seq);
            duckdb_append_int64(app, valid ? ends[2 * static_cast<size_t>(l)] : 0);
            duckdb_append_int64(app, valid ? ends[2 * static_cast<size_t>(l) + 1] : 0);
            duckdb_appender_end_row(app);
        }
    }
}

}  // namespace

void write_agent_database(const std::string& path, const TripTable& trips,
                          const std::vector<int32_t>& paths, const Network& network,
                          bool with_key_paths) {
    remove_old_database(path);

    DatabaseHandles h;
    if (duckdb_open(path.c_str(), &h.db) == DuckDBError) {
        // A failed open leaves nothing to close.
        h.db = nullptr;
        throw std::runtime_error("duckdb: cannot create " + path);
    }
    if (duckdb_connect(h.db, &h.con) == DuckDBError) {
        h.con = nullptr;
        throw std::runtime_error("duckdb: cannot connect");
    }

    run_statement(h.con, kCreateAgents);
    open_appender(h, "agents");
    append_agents(h.appender, trips, network);
    close_appender(h);

    if (with_key_paths) {
        run_statement(h.con, kCreateKeyPaths);
        open_appender(h, "key_paths");
        append_key_paths(h.appender, trips, paths, network);
        close_appender(h);
    }

    duckdb_disconnect(&h.con);
    h.con = nullptr;
    duckdb_close(&h.db);
    h.db = nullptr;
}

}  // namespace torvex
