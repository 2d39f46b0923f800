// The main result files of a run: volumes converted to vehicles, link performance by interval with
// per-category columns, agent plans, route keys, the scope summary, the per-iteration path trace,
// the path continuity check, the daily count check, and the output phase that writes them on
// three writer threads plus the main thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "assign/assignment_state.h"
#include "input/network.h"
#include "input/trip_table.h"
#include "run/run_config.h"

namespace torvex {

// Which links a link performance file holds.
enum class LinkOutputScope : uint8_t {
    all = 0,
    macro = 1,  // neither dta_micro nor MESO
    meso = 2,   // MESO and not dta_micro
    micro = 3,  // dta_micro
};

inline bool link_in_scope(const Link& l, LinkOutputScope scope) {
    switch (scope) {
        case LinkOutputScope::all:
            return true;
        case LinkOutputScope::macro:
            return !l.dta_micro && l.flow_tier != kTierMeso;
        case LinkOutputScope::meso:
            return l.flow_tier == kTierMeso && !l.dta_micro;
        case LinkOutputScope::micro:
            return l.dta_micro != 0;
    }
    return false;
}

// Text of a key's routing stage.
inline const char* scope_text(uint8_t scope) {
    return scope == 0 ? "intra" : (scope == 1 ? "adjacent" : "statewide");
}

// Rewrites volume and queue_veh of every link from PCE to vehicles by the segment mix of the
// path load; does nothing (and prints nothing) when every segment in use has a pce of 1.
void convert_volumes_to_vehicles(Network& network, const TripTable& trips,
                                 const std::vector<int32_t>& path_arena);

// One row per link in scope and interval with volume or queue; the breakdown adds a column per
// category whose values share out the row's volume.
void write_link_performance(const std::string& path, const Network& network, const TripTable& trips,
                            const std::vector<int32_t>& path_arena, VolumeBreakdown breakdown,
                            LinkOutputScope scope);

// One row per trip in table order.
void write_agent_plans(const std::string& path, const TripTable& trips,
                       const std::vector<Node>& nodes);
// One row per route key in index order.
void write_route_keys(const std::string& path, const TripTable& trips,
                      const std::vector<Node>& nodes);
// Keys and weight by routing stage per origin county, then the totals; prints the [scope] line.
void write_scope_summary(const std::string& path, const TripTable& trips, const Network& network);

// The traced agents' paths with entry times at this iteration: a fresh file at iteration 0,
// appended to otherwise. Silent when the file cannot be opened.
void write_trace_paths(const AssignmentState& state, int32_t iteration);

// Writes out_dir + "/path_breaks.csv" and prints the verdict; returns the keys with a break.
int64_t check_path_continuity(const Network& network, const TripTable& trips,
                              const std::vector<int32_t>& path_arena, const std::string& out_dir);

// Daily model volumes against the LINK file's counts, two-way pairs reported once; prints the
// [validation] line.
void write_count_validation(const std::string& path, const Network& network);

// What thread C writes: agent plans and the agent database, from the agent output switches.
bool agent_plans_wanted(const RunConfig& config);
bool agent_paths_wanted(const RunConfig& config);

// The output phase after the assignment: link performance (macro layer), route keys and the agent
// results on three writer threads, the meso layer, scope summary and count check on the calling
// thread; then the [output] line.
void write_outputs(const RunConfig& config, const AssignmentState& state);

}  // namespace torvex
