// Prohibited and penalized movements through a node, resolved to pairs of links. The table is
// validated and reported; routing and loading take their movements from link costs and paths.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace torvex {

struct Network;

struct TurnEntry {
    float penalty_min = 0;  // 0 for a plain prohibition
    bool prohibited = false;
};

struct TurnTable {
    // Key: inbound link index in the upper 32 bits, outbound link index in the lower 32 bits.
    std::unordered_map<uint64_t, TurnEntry> entries;
};

inline uint64_t turn_key(int32_t in_link, int32_t out_link) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(in_link)) << 32) |
           static_cast<uint32_t>(out_link);
}

struct TurnLoadSummary {
    int64_t rows = 0;
    int64_t prohibited = 0;
    int64_t penalized = 0;
    int64_t unresolved = 0;
};

// Reads TURN_PROHIBITION_FILE into `table`; raises for a missing file, header or node column.
TurnLoadSummary load_turns(const std::string& path, const Network& net, TurnTable& table);
// The "[turns]" summary line of the run log.
void print_turn_summary(const TurnLoadSummary& summary);

}  // namespace torvex
