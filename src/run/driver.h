// The run sequence of torvex: arguments, inputs, assignment, outputs, final log.
#pragma once

#include <cstdint>

namespace torvex {

struct RunConfig;
struct Network;

// The whole program: returns the process exit code.
int run_torvex(int argc, char** argv);

// Network preparation between loading and demand, in run order.
void apply_discharge_factors(const RunConfig& config, Network& net);
void apply_static_settings(RunConfig& config, Network& net);
void select_node_model(RunConfig& config);
void assign_flow_tiers(const RunConfig& config, Network& net);
void apply_micro_tags(const RunConfig& config, Network& net);
void apply_storage(const RunConfig& config, Network& net);
// "/resolution_map.csv" when any link runs MESO or MICRO; a failed open is skipped.
void write_resolution_map(const RunConfig& config, const Network& net);

}  // namespace torvex
