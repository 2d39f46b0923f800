// The outer loop of the assignment: price current paths, route with a decaying share of switching
// keys, measure the gap, stop on convergence, the iteration limit or the stop file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "assign/assignment_state.h"

namespace torvex {

std::vector<IterationRecord> run_assignment(AssignmentState& state);

// End of an iteration of either loop: looks for the stop file, writes the checkpoint when it is
// due (or at convergence, the last iteration or a stop), and prints the stop line. True on a stop.
bool checkpoint_and_check_stop(AssignmentState& state, int32_t iteration, bool converged);

// imped of every key: the cost of its current path on the current link table, 0 without one.
void price_current_paths(AssignmentState& state);

// Progressive sampling: keeps the trips whose hashed agent id falls below f (nested in f), scaled
// by 1 / f, and returns the number of keys left with weight.
int64_t resample_keys(TripTable& trips, float f);

// Value of a per-iteration schedule for iteration i; the last entry stays in force.
int32_t schedule_value(const std::vector<int32_t>& schedule, int32_t plain, int32_t i);
float sample_value(const std::vector<float>& schedule, int32_t i);

// "1-3:per_chunk  4-20:per_iter  " for a refresh plan over the run's iterations.
std::string describe_schedule(const std::vector<int32_t>& schedule, int32_t plain,
                              int32_t max_iterations);

}  // namespace torvex
