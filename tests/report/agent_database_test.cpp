#include "report/agent_database.h"

#include <duckdb.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "assign/test_graphs.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::add_link;
using Rows = std::vector<std::vector<std::string>>;

// Reopens a written database through the same C API, as a later query would.
struct Reader {
    duckdb_database db = nullptr;
    duckdb_connection con = nullptr;

    explicit Reader(const std::string& path) {
        if (duckdb_open(path.c_str(), &db) == DuckDBError ||
            duckdb_connect(db, &con) == DuckDBError)
            throw std::runtime_error("reopen failed");
    }
    ~Reader() {
        duckdb_disconnect(&con);
        duckdb_close(&db);
    }

    // Every value as DuckDB's text, "NULL" for a null.
    Rows rows(const std::string& sql) {
        duckdb_result r;
        if (duckdb_query(con, sql.c_str(), &r) == DuckDBError) {
            std::string err = duckdb_result_error(&r);
            duckdb_destroy_result(&r);
            throw std::runtime_error(err);
        }
        Rows out(duckdb_row_count(&r));
        for (idx_t row = 0; row < out.size(); ++row)
            for (idx_t col = 0; col < duckdb_column_count(&r); ++col) {
                char* v = duckdb_value_varchar(&r, col, row);
                out[row].push_back(v ? v : "NULL");
                duckdb_free(v);
            }
        duckdb_destroy_result(&r);
        return out;
    }
    int64_t count(const std::string& sql) { return std::stoll(rows(sql).at(0).at(0)); }
};

struct SmallState {
    Network net = fixture::make_nodes(6);
    TripTable trips;
    std::vector<int32_t> arena;
};

RouteKey make_key(int32_t o, int32_t d, int slot, int scope, int64_t offset, int32_t n, float imped,
                  float gap) {
    RouteKey k;
    k.origin = o, k.dest = d, k.path_offset = offset, k.n_links = n, k.imped = imped, k.gap = gap;
    k.slot = static_cast<uint8_t>(slot), k.scope = static_cast<uint8_t>(scope);
    return k;
}

Trip make_trip(int64_t agent, int64_t hh, int32_t key, int purpose, float weight) {
    Trip t;
    t.agent_id = agent, t.hh_id = hh, t.person_id = hh * 10 + 1, t.route_key = key;
    t.tour_id = static_cast<int32_t>(agent % 3), t.trip_id = static_cast<int32_t>(agent);
    t.occupancy = static_cast<uint8_t>(1 + agent % 2), t.purpose = static_cast<uint8_t>(purpose);
    t.value_of_time = 12.5f, t.weight = weight;
    return t;
}

// Nodes 1000..1005; links 0..3 chain 1000 -> 1004, link 4 is 1000 -> 1005, link 5 is 1005 -> 1004.
// Key 2 has no path; key 1's path lies first in the arena, so offsets matter.
SmallState small_state() {
    SmallState s;
    for (int i = 0; i < 4; ++i) add_link(s.net, i, i + 1, 2.0f);
    add_link(s.net, 0, 5, 3.0f);
    add_link(s.net, 5, 4, 3.0f);
    s.arena = {4, 5, 0, 1, 2, 3, 5};
    s.trips.purpose_names = {"work", "school", "shop"};
    s.trips.route_keys = {
        make_key(0, 4, 7, 0, 2, 4, 12.5f, 0.25f), make_key(0, 4, 8, 1, 0, 2, 7.75f, 0.0f),
        make_key(1, 3, 3, 2, -1, 0, 0.0f, 0.0f), make_key(5, 4, 29, 2, 6, 1, 3.0f, 1.5f)};
    s.trips.trips = {make_trip(1, 100, 0, 0, 1.0f), make_trip(2, 100, 0, 1, 0.5f),
                     make_trip(3, 200, 1, 2, 2.0f), make_trip(4, 300, 2, 7, 1.0f),
                     make_trip(5, 300, 3, 0, 1.0f), make_trip(6, 400, 1, 1, 0.25f)};
    return s;
}

// The schema, as information_schema lists it.
const char* const kColumns =
    "SELECT table_name, column_name, data_type FROM information_schema.columns "
    "ORDER BY table_name, ordinal_position";
const Rows kAgentCols = {{"agents", "agent_id", "BIGINT"},     {"agents", "hh_id", "BIGINT"},
                         {"agents", "person_id", "BIGINT"},    {"agents", "tour_id", "INTEGER"},
                         {"agents", "trip_id", "INTEGER"},     {"agents", "occupancy", "INTEGER"},
                         {"agents", "origin", "BIGINT"},       {"agents", "dest", "BIGINT"},
                         {"agents", "depart_slot", "INTEGER"}, {"agents", "vot", "FLOAT"},
                         {"agents", "weight", "FLOAT"},        {"agents", "purpose", "VARCHAR"},
                         {"agents", "scope", "VARCHAR"},       {"agents", "cost_min", "FLOAT"},
                         {"agents", "gap_min", "FLOAT"},       {"agents", "n_links", "INTEGER"},
                         {"agents", "key_id", "INTEGER"}};

TEST(AgentDatabase, TablesRowsAndJoin) {
    fixture::TempDir dir;
    const std::string path = dir.file("agentPaths.duckdb");
    SmallState s = small_state();
    write_agent_database(path, s.trips, s.arena, s.net, true);
    Reader db(path);

    // One row per trip in table order; a purpose id past the names gives empty text.
    const Rows want_agents = {
        {"1", "100", "1001", "1", "1", "2", "1000", "1004", "7", "12.5", "1.0", "work", "intra",
         "12.5", "0.25", "4", "0"},
        {"2", "100", "1001", "2", "2", "1", "1000", "1004", "7", "12.5", "0.5", "school", "intra",
         "12.5", "0.25", "4", "0"},
        {"3", "200", "2001", "0", "3", "2", "1000", "1004", "8", "12.5", "2.0", "shop", "adjacent",
         "7.75", "0.0", "2", "1"},
        {"4", "300", "3001", "1", "4", "1", "1001", "1003", "3", "12.5", "1.0", "", "statewide",
         "0.0", "0.0", "0", "2"},
        {"5", "300", "3001", "2", "5", "2", "1005", "1004", "29", "12.5", "1.0", "work",
         "statewide", "3.0", "1.5", "1", "3"},
        {"6", "400", "4001", "0", "6", "1", "1000", "1004", "8", "12.5", "0.25", "school",
         "adjacent", "7.75", "0.0", "2", "1"},
    };
    EXPECT_EQ(db.rows("SELECT * FROM agents ORDER BY rowid"), want_agents);

    // Key paths once per key, in key order, seq from 0; the key without a path has no rows.
    const Rows want_paths = {{"0", "0", "1000", "1001"}, {"0", "1", "1001", "1002"},
                             {"0", "2", "1002", "1003"}, {"0", "3", "1003", "1004"},
                             {"1", "0", "1000", "1005"}, {"1", "1", "1005", "1004"},
                             {"3", "0", "1005", "1004"}};
    EXPECT_EQ(db.rows("SELECT * FROM key_paths ORDER BY rowid"), want_paths);
    Rows all_cols = kAgentCols;
    for (const char* c : {"key_id", "seq"}) all_cols.push_back({"key_paths", c, "INTEGER"});
    for (const char* c : {"a_node", "b_node"}) all_cols.push_back({"key_paths", c, "BIGINT"});
    EXPECT_EQ(db.rows(kColumns), all_cols);

    // The tables join on key_id: every routed agent's path starts at its origin and ends at its
    // destination; the unrouted agent joins nothing. (The e2e run checks n_links per agent.)
    EXPECT_EQ(db.count("SELECT count(*) FROM agents a JOIN key_paths f ON a.key_id = f.key_id "
                       "AND f.seq = 0 JOIN key_paths l ON a.key_id = l.key_id AND l.seq = "
                       "a.n_links - 1 WHERE f.a_node = a.origin AND l.b_node = a.dest"),
              5);
    EXPECT_EQ(db.count("SELECT count(*) FROM agents a LEFT JOIN key_paths k ON a.key_id = "
                       "k.key_id WHERE k.key_id IS NULL AND a.n_links = 0"),
              1);
}

TEST(AgentDatabase, WithoutKeyPathsOrWithoutTrips) {
    fixture::TempDir dir;
    SmallState s = small_state();
    // Without key paths only the agents table exists, with every row.
    write_agent_database(dir.file("without.duckdb"), s.trips, s.arena, s.net, false);
    {
        Reader db(dir.file("without.duckdb"));
        EXPECT_EQ(db.rows(kColumns), kAgentCols);
        EXPECT_EQ(db.count("SELECT count(*) FROM agents"), 6);
    }
    // No trips at all: both tables (a missing one fails the query), no rows.
    write_agent_database(dir.file("none.duckdb"), TripTable{}, {}, s.net, true);
    Reader db(dir.file("none.duckdb"));
    EXPECT_EQ(db.count("SELECT count(*) FROM agents"), 0);
    EXPECT_EQ(db.count("SELECT count(*) FROM key_paths"), 0);
}

TEST(AgentDatabase, ReplacesWhatStandsAtThePathAndReportsFailures) {
    fixture::TempDir dir;
    const std::string path = dir.file("agentPaths.duckdb");
    // Whatever stands at the path, even a file that is no database, and a stale log beside it.
    fixture::write_file(path, "not a database");
    fixture::write_file(path + ".wal", "stale log");
    SmallState s = small_state();
    write_agent_database(path, s.trips, s.arena, s.net, true);
    EXPECT_EQ(Reader(path).count("SELECT count(*) FROM agents"), 6);
    // A second run over a database of its own is covered by the e2e outputs run.

    auto message = [&](const std::string& at) -> std::string {
        try {
            write_agent_database(at, s.trips, s.arena, s.net, true);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "no error";
    };
    // A missing output folder (not created), and a directory at the path, which is not deleted.
    const std::string folder = dir.file("dir.duckdb");
    std::filesystem::create_directory(folder);
    fixture::write_file(folder + "/keep", "x");
    for (const std::string& bad : {dir.path + "/missing/agentPaths.duckdb", folder})
        EXPECT_EQ(message(bad), "duckdb: cannot create " + bad);
    EXPECT_FALSE(fixture::file_exists(dir.path + "/missing"));
    EXPECT_TRUE(fixture::file_exists(folder + "/keep"));
}

}  // namespace
}  // namespace torvex
