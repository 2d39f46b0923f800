// A whole run of the torvex binary on a generated region, checked through its result files: the
// link layers, agent plans, route keys, scope summary, continuity, the agent database and the
// node conservation report; a second run replaces the agent database.
#include <duckdb.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_files.h"

namespace torvex {
namespace {

#ifdef TORVEX_SYNTH_BIN

using Row = std::vector<std::string>;

Row split(const std::string& line) {
    Row out;
    std::istringstream in(line + ",");  // the extra comma keeps a trailing empty field
    for (std::string field; std::getline(in, field, ',');) out.push_back(field);
    return out;
}

// Header, lines and split rows of a CSV file.
struct Csv {
    std::string header;
    std::vector<std::string> lines;
    std::vector<Row> rows;
    explicit Csv(const std::string& path) {
        std::istringstream in(fixture::read_file(path));
        std::getline(in, header);
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        for (const std::string& line : lines) rows.push_back(split(line));
    }
};

long long number_after(const std::string& text, const std::string& pattern) {
    std::smatch m;
    return std::regex_search(text, m, std::regex(pattern)) ? std::stoll(m[1]) : -1;
}

// The count a query on a database returns; -1 when it cannot be opened or queried.
int64_t query_count(const std::string& path, const char* sql) {
    duckdb_database db;
    duckdb_connection con;
    duckdb_result r;
    int64_t v = -1;
    if (duckdb_open(path.c_str(), &db) != DuckDBSuccess) return v;
    if (duckdb_connect(db, &con) == DuckDBSuccess) {
        if (duckdb_query(con, sql, &r) == DuckDBSuccess) v = duckdb_value_int64(&r, 0, 0);
        duckdb_destroy_result(&r);
        duckdb_disconnect(&con);
    }
    duckdb_close(&db);
    return v;
}

struct GeneratedRun {
    fixture::TempDir dir;
    fixture::RunResult result;
    long long rows_loaded = -1, keys = -1;

    GeneratedRun() {
        const fixture::RunResult g =
            fixture::run_program(TORVEX_SYNTH_BIN, {"--scale", "tiny", "--seed", "7", "--trips",
                                                    "4000", "--express-lane", "--out", dir.path});
        EXPECT_EQ(g.exit_code, 0) << g.err;
    }

    void run(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"--control", "run.ctl", "--out-dir",
                                         "out",       "--iters", "3"};
        args.insert(args.end(), extra.begin(), extra.end());
        result = fixture::run_program(TORVEX_BIN, args, dir.path);
        ASSERT_EQ(result.exit_code, 0) << result.err;
        rows_loaded = number_after(result.out, R"(\]\[trips\] \d+ rows read, (\d+) loaded)");
        keys = number_after(result.out, R"(\); (\d+) route keys \(intra=)");
    }
    std::string out(const std::string& name) const { return dir.file("out/" + name); }
};

TEST(OutputsRun, EveryResultFileOfAGeneratedRegion) {
    GeneratedRun g;
    ASSERT_NO_FATAL_FAILURE(
        g.run({"--link-volume-breakdown", "market", "--meso-ftype", "11", "--node-conservation"}));
    ASSERT_GT(g.rows_loaded, 3000);
    ASSERT_GT(g.keys, 100);

    // Link layers: printf formats, the scope split, category columns (after toll_rate, the
    // eleventh) adding up to the volume.
    const std::regex row(R"(-?\d+,-?\d+,[^,]*,\d+,\d+,\d+,\d+\.\d\d,-?\d+\.\d{3},-?\d+\.\d\d,)"
                         R"(-?\d+\.\d\d,-?\d+\.\d\d(,\d+\.\d\d)*)");
    const Csv macro(g.out("link_performance_macroDTA.csv"));
    const Csv meso(g.out("link_performance_mesoDTA.csv"));
    ASSERT_TRUE(
        macro.header.starts_with("a_node,b_node,county,ftype,hour,interval,volume,"
                                 "travel_time_min,speed_mph,queue_veh,toll_rate,vol_"))
        << macro.header;
    EXPECT_EQ(meso.header, macro.header);
    const size_t first_cat = 11;
    ASSERT_GE(split(macro.header).size(), first_cat + 3);  // sov, hov2, truck...
    ASSERT_GT(macro.rows.size(), 200u);
    ASSERT_GT(meso.rows.size(), 10u);
    double loaded = 0;  // the day's vehicles leaving the zones
    for (const Csv* file : {&macro, &meso}) {
        for (size_t i = 0; i < file->rows.size(); ++i) {
            const Row& r = file->rows[i];
            const std::string& line = file->lines[i];
            ASSERT_TRUE(std::regex_match(line, row)) << line;
            EXPECT_EQ(r[3] == "11", file == &meso) << line;
            EXPECT_EQ(std::stoi(r[4]), std::stoi(r[5]) / 4) << line;
            double cats = 0;
            for (size_t c = first_cat; c < r.size(); ++c) cats += std::stod(r[c]);
            const double volume = std::stod(r[6]);  // unchecked when no category is filled
            EXPECT_NEAR(cats > 0 ? cats : volume, volume, 0.006 * (r.size() - first_cat)) << line;
            if (r[3] == "51" && std::stoll(r[0]) < 10000) loaded += volume;
        }
    }

    // One plan per loaded trip and one row per route key (their columns are checked with the
    // writers); the scope summary counts every key.
    EXPECT_EQ(static_cast<long long>(Csv(g.out("agentPlans_out.csv")).rows.size()), g.rows_loaded);
    const Csv keys(g.out("route_keys.csv"));
    ASSERT_EQ(static_cast<long long>(keys.rows.size()), g.keys);
    double total_weight = 0;
    for (const Row& k : keys.rows) {
        total_weight += std::stod(k[7]);
        EXPECT_EQ(k[12], "1") << k[0] << "->" << k[1];
        EXPECT_GT(std::stoi(k[11]), 0);
    }
    // The loader conserves vehicles: what leaves the zones over the day is the demand.
    EXPECT_NEAR(loaded, total_weight, 0.005 * total_weight);

    const Csv scope(g.out("scope_summary.csv"));
    ASSERT_FALSE(scope.rows.empty());
    const Row& all = scope.rows.back();
    ASSERT_EQ(all[0], "ALL");
    EXPECT_EQ(std::stoll(all[1]) + std::stoll(all[3]) + std::stoll(all[5]), g.keys);
    EXPECT_NEAR(std::stod(all[2]) + std::stod(all[4]) + std::stod(all[6]), total_weight, 0.05);

    EXPECT_EQ(Csv(g.out("path_breaks.csv")).rows.size(), 0u);  // every path continuous
    EXPECT_FALSE(Csv(g.out("count_validation.csv")).rows.empty());

    // The agent database: a row per loaded trip, each joined to exactly its key's path links.
    const std::string db = g.out("agentPaths.duckdb");
    EXPECT_EQ(query_count(db, "SELECT count(*) FROM agents"), g.rows_loaded);
    EXPECT_EQ(query_count(db,
                          "SELECT count(*) FROM agents a WHERE n_links <> (SELECT count(*) "
                          "FROM key_paths k WHERE k.key_id = a.key_id)"),
              0);
    EXPECT_EQ(query_count(db, "SELECT count(DISTINCT key_id) FROM key_paths"), g.keys);

    // Node conservation: the block, and the conserving load balancing every interior node.
    EXPECT_NE(g.result.err.find("[node-dnl/cumulative] conservation: injected="),
              std::string::npos);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(
        g.result.out, m,
        std::regex(R"(\]\[node-conservation\] receiving=spatial\(LTM\) dt=60s, interior nodes=)"
                   R"((\d+) \(\d+\.\ds\)\n   imbalance \|Sin-Sout\|        macro\(independent\))"
                   R"(   node-model\n     nodes > 5k/day +\d+ +(\d+)\n     nodes > 20k/day +\d+)"
                   R"( +\d+\n     nodes > 50k/day +\d+ +\d+\n     worst node imbalance +\d+ +\d+)"
                   R"(\n     total \|imbalance\| \(veh\) +\d+ +(\d+)\n   -> node_conservation_)"
                   R"(\{macro,nodemodel\}\.csv, link_performance_nodeDTA\.csv\n)")))
        << g.result.out;
    EXPECT_GT(std::stoi(m[1]), 100);
    EXPECT_EQ(m[2], "0");
    EXPECT_LE(std::stod(m[3]), 0.01 * total_weight);
    // The rows of the node files are checked with the measurement itself.
    for (const char* name : {"node_conservation_macro.csv", "node_conservation_nodemodel.csv"})
        EXPECT_EQ(Csv(g.out(name)).header, "node_id,sum_in,sum_out,imbalance");
    const Csv node_links(g.out("link_performance_nodeDTA.csv"));
    EXPECT_EQ(node_links.header, macro.header);
    EXPECT_GE(node_links.rows.size(), macro.rows.size() / 2);

    // A second, shorter run into the same folder replaces the database rather than adding to it.
    ASSERT_NO_FATAL_FAILURE(g.run({"--write-agents-duckdb", "--iters", "1"}));
    EXPECT_EQ(query_count(db, "SELECT count(*) FROM agents"), g.rows_loaded);
}

#endif

}  // namespace
}  // namespace torvex
