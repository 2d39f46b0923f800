// Static assignment by the Frank-Wolfe family: all-or-nothing routing on a frozen cost field,
// the link flows moved towards the all-or-nothing flows (or a conjugate combination of earlier
// targets) by 1/k or by a line search on the BPR cost.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "assign/assignment_state.h"
#include "static/static_model.h"

namespace torvex {

// Combination of this iteration's all-or-nothing target with the two before it.
struct ConjWeights {
    double w0 = 1.0;
    double w1 = 0.0;
    double w2 = 0.0;
    bool valid = false;
};

// What a solve did besides its records: how each iteration's direction came about, and where
// its time went.
struct StaticSolveStats {
    int32_t used = 0;            // conjugate direction taken
    int32_t rejected = 0;        // conjugate weights refused (non-convex)
    int32_t before_history = 0;  // too few earlier targets, or a method without them
    double routing_s = 0;        // all-or-nothing routing passes
    double loading_s = 0;        // path loads into the flow table
    double windowing_s = 0;      // windows, gap, weights, target and flow update
    double line_search_s = 0;
    double link_update_s = 0;  // inflow copy and link times
};

std::vector<IterationRecord> run_static_solver(AssignmentState& state);
std::vector<IterationRecord> run_static_solver(AssignmentState& state, StaticSolveStats& stats);

// Slope of the objective along dir at flow + step * dir (windowed arrays).
double direction_slope(const StaticModel& model, const std::vector<float>& flow,
                       const std::vector<float>& dir, double step);
// Bilinear form of the cost's derivative at flow; links where the delay cap binds add nothing.
double hessian_product(const StaticModel& model, const std::vector<float>& flow,
                       const std::vector<float>& d1, const std::vector<float>& d2);
ConjWeights conjugate_weights(const StaticModel& model, const std::vector<float>& xw,
                              const std::vector<float>& yw, const std::vector<float>& s1);
ConjWeights biconjugate_weights(const StaticModel& model, const std::vector<float>& xw,
                                const std::vector<float>& yw, const std::vector<float>& s1,
                                const std::vector<float>& s2);
// Bisection on the slope over steps 0..1.
double line_search(const StaticModel& model, const std::vector<float>& xw,
                   const std::vector<float>& dir, int max_halvings);
// A convex combination that leans on the new target.
bool weights_acceptable(double w0, double w1, double w2);

// "/sta_path_scale.csv": each link's equilibrium volume against the load of the final paths.
// `paths_load` is scratch for that load.
void write_path_scale(const std::string& path, const AssignmentState& state,
                      const std::vector<float>& equilibrium, std::vector<float>& paths_load);

}  // namespace torvex
