// Node conservation report: how far the day's flow into each interior node differs from the flow
// out of it, for the run's own link volumes and for one pass of the conserving node model over
// the same paths.
#pragma once

#include <cstdint>
#include <string>

#include "assign/assignment_state.h"
#include "input/network.h"
#include "run/run_config.h"

namespace torvex {

// One measurement over the interior nodes (no centroid, no connector on any side, links both in
// and out). Imbalance is |day's inflow - day's outflow|; the counters are strictly above.
struct ImbalanceStats {
    int32_t interior_nodes = 0;
    int32_t over_5k = 0;
    int32_t over_20k = 0;
    int32_t over_50k = 0;
    double worst = 0.0;
    int64_t worst_node = 0;  // node_id of the worst node
    double total = 0.0;
};

// Measures the current link volumes. With a non-empty csv_path writes
// "node_id,sum_in,sum_out,imbalance" rows for the nodes whose imbalance is at least csv_threshold
// (a file that cannot be opened is skipped silently; the figures are still computed).
ImbalanceStats measure_node_imbalance(const Network& network, const std::string& csv_path,
                                      double csv_threshold);

// The report after the assignment: the run's volumes, then one conserving node load over the
// stored paths (which rewrites the link arrays), converted to vehicles, measured again and
// written as link_performance_nodeDTA.csv; then the side-by-side block.
void write_node_conservation_report(const RunConfig& config, AssignmentState& state);

}  // namespace torvex
