// The agent database: every trip and every key's link sequence in one DuckDB file, for later
// queries. Written by the agent-results writer thread of the output phase.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace torvex {

struct Network;
struct TripTable;

// Writes the `agents` table (one row per trip, in table order) and, with `with_key_paths`, the
// `key_paths` table (one row per link of each key's path in `paths`) to a fresh database at
// `path`; an existing file there is deleted first. Raises std::runtime_error with a "duckdb: "
// text on any failure of the database library.
void write_agent_database(const std::string& path, const TripTable& trips,
                          const std::vector<int32_t>& paths, const Network& network,
                          bool with_key_paths);

}  // namespace torvex
