// One routing pass: every active key once through the router, in groups that share a tree,
// spread over the threads in a fixed number of chunks, with the link times refreshed between
// chunks, the hashed adoption share, and the merge of new paths into a compact arena.
#pragma once

#include <cstdint>

#include "assign/assignment_state.h"

namespace torvex {

// force: free-flow pass, every reachable key takes the tree's path and the hash filter is off.
// reroute_frac: share of gapped keys allowed to switch. step: blending weight of the refreshes.
// Writes rerouted and unreachable into `record`; record.iter feeds the adoption hash.
void routing_pass(AssignmentState& state, bool force, float reroute_frac, float step,
                  IterationRecord& record);

// Whether key `key` may switch in iteration `iter` under the share `reroute_frac`: a pure
// function of both, so that a repeated run picks the same keys.
bool adoption_passes(int32_t key, int32_t iter, float reroute_frac);

}  // namespace torvex
