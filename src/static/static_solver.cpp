#include "static/static_solver.h"

#include <chrono>
#include <cstdio>

#include "assign/checkpoint.h"
#include "assign/equilibrium.h"
#include "assign/network_loading.h"
#include "assign/routing_pass.h"
#include "report/outputs.h"
#include "run/log.h"

namespace torvex {

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Adds the time since `start` to `into` and restarts the clock.
void lap(Clock::time_point& start, double& into) {
    const Clock::time_point now = Clock::now();
    into += std::chrono::duration<double>(now - start).count();
    start = now;
}

// Total travel time at the current flows and at the all-or-nothing flows, both priced on the
// current flows' BPR costs.
void measure_gap(const StaticModel& m, const std::vector<float>& xw, const std::vector<float>& yw,
                 IterationRecord& rec) {
    const int32_t n = m.link_count, W = m.windows;
    double cost = 0.0, sptt = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : cost, sptt)
    for (int32_t l = 0; l < n; ++l) {
        if (!(m.t0[l] > 0.0f)) continue;
        for (int32_t w = 0; w < W; ++w) {
            const size_t i = static_cast<size_t>(l) * W + w;
            const double c = static_link_cost(m, l, w, xw[i]);
            cost += static_cast<double>(xw[i]) * c;
            sptt += static_cast<double>(yw[i]) * c;
        }
    }
    rec.cost = cost;
    rec.gap = cost - sptt;
    rec.rel_gap = cost > 0.0 ? rec.gap / cost : 0.0;
}

// out := w0 * a + w1 * b + w2 * c in f64, stored as f32; c may be empty.
void combine_f64(const ConjWeights& w, const std::vector<float>& a, const std::vector<float>& b,
                 const std::vector<float>& c, std::vector<float>& out) {
    const int64_t n = static_cast<int64_t>(a.size());
    out.resize(a.size());
    const bool third = !c.empty();
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; ++i) {
        double v = w.w0 * a[i] + w.w1 * b[i];
        if (third) v += w.w2 * c[i];
        out[i] = static_cast<float>(v);
    }
}

// out := w0 * a + w1 * b + w2 * c in f32; c may be empty.
void combine_f32(const ConjWeights& w, const std::vector<float>& a, const std::vector<float>& b,
                 const std::vector<float>& c, std::vector<float>& out) {
    const int64_t n = static_cast<int64_t>(a.size());
    out.resize(a.size());
    const float w0 = static_cast<float>(w.w0), w1 = static_cast<float>(w.w1),
                w2 = static_cast<float>(w.w2);
    const bool third = !c.empty();
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; ++i) {
        float v = w0 * a[i] + w1 * b[i];
        if (third) v += w2 * c[i];
        out[i] = v;
    }
}

void subtract(const std::vector<float>& a, const std::vector<float>& b, std::vector<float>& out) {
    const int64_t n = static_cast<int64_t>(a.size());
    out.resize(a.size());
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; ++i) out[i] = a[i] - b[i];
}

// x := x + step * (d - x), element by element in f32.
void move_towards(std::vector<float>& x, const std::vector<float>& d, float step) {
    const int64_t n = static_cast<int64_t>(x.size());
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; ++i) x[i] = x[i] + step * (d[i] - x[i]);
}

// Working arrays of one solve: full resolution (link * 120 + interval) and windowed.
struct SolverArrays {
    std::vector<float> x, y, d, p1, p2;
    std::vector<float> xw, yw, s, s1, s2, dir;
};

}  // namespace

std::vector<IterationRecord> run_static_solver(AssignmentState& state) {
    StaticSolveStats stats;
    return run_static_solver(state, stats);
}

std::vector<IterationRecord> run_static_solver(AssignmentState& state, StaticSolveStats& stats) {
    const AssignmentSettings& a = state.config.assignment;
    const TripTable& trips = *state.trips;
    const int method = static_cast<int>(state.config.sta_method);
    std::vector<IterationRecord> records;

    const StaticModel model = build_static_model(*state.network);
    progress("[%s][sta] %s | %d windows/link of %d x %.0f min | %lld link-windows\n", now_hms(),
             sta_method_long_name(method), model.windows, model.period, 15.0,
             static_cast<long long>(model.link_count) * model.windows);
    state.frozen = true;

    SolverArrays v;
    {
        IterationRecord rec;
        rec.iter = 0;
        const Clock::time_point started = Clock::now();
        Clock::time_point t = started;
        routing_pass(state, true, 1.0f, 1.0f, rec);
        lap(t, stats.routing_s);
        load_paths_full(state.load, trips, state.path_arena, v.x, nullptr);
        lap(t, stats.loading_s);
        copy_inflow(state.load, v.x);
        update_link_times(state.load);
        lap(t, stats.link_update_s);
        rec.pass_seconds = seconds_since(started);
        progress(
            "[%s][sta iter 0] all-or-nothing on free-flow: %lld paths, %lld unreachable, %.1fs\n",
            now_hms(), static_cast<long long>(rec.rerouted),
            static_cast<long long>(rec.unreachable), rec.pass_seconds);
        write_trace_paths(state, 0);
        records.push_back(rec);
    }

    for (int32_t k = 1; k <= a.max_iterations; ++k) {
        const Clock::time_point started = Clock::now();
        Clock::time_point t = started;
        IterationRecord rec;
        rec.iter = k;
        routing_pass(state, true, 1.0f, 1.0f, rec);
        lap(t, stats.routing_s);
        load_paths_full(state.load, trips, state.path_arena, v.y, nullptr);
        lap(t, stats.loading_s);

        flow_to_windows(model, v.x, v.xw);
        flow_to_windows(model, v.y, v.yw);
        measure_gap(model, v.xw, v.yw, rec);

        ConjWeights w;
        if (method == 3 && !v.s1.empty()) {
            w = conjugate_weights(model, v.xw, v.yw, v.s1);
        } else if (method == 4 && !v.s2.empty()) {
            w = biconjugate_weights(model, v.xw, v.yw, v.s1, v.s2);
            if (!w.valid) w = conjugate_weights(model, v.xw, v.yw, v.s1);
        }
        const bool had_history = (method == 3 && !v.s1.empty()) || (method == 4 && !v.s2.empty());
        if (w.valid) {
            combine_f64(w, v.yw, v.s1, v.s2, v.s);
            ++stats.used;
        } else {
            v.s = v.yw;
            if (had_history)
                ++stats.rejected;
            else
                ++stats.before_history;
        }
        subtract(v.s, v.xw, v.dir);
        lap(t, stats.windowing_s);

        double step = 1.0 / k;
        if (method != 1) step = line_search(model, v.xw, v.dir, 40);
        if (!(step > 0.0)) step = 1.0 / k;
        lap(t, stats.line_search_s);

        if (w.valid)
            combine_f32(w, v.y, v.p1, v.p2, v.d);
        else
            v.d.swap(v.y);  // y is refilled by the next load
        move_towards(v.x, v.d, static_cast<float>(step));
        v.p2.swap(v.p1);
        v.p1.swap(v.d);
        v.s2.swap(v.s1);
        v.s1.swap(v.s);
        lap(t, stats.windowing_s);

        copy_inflow(state.load, v.x);
        update_link_times(state.load);
        lap(t, stats.link_update_s);

        rec.pass_seconds = seconds_since(started);
        write_trace_paths(state, k);
        records.push_back(rec);
        progress(
            "[%s][sta iter %d] rel_gap=%.6f  gap=%.0f veh-min  cost=%.0f veh-min  step=%.4f  %s  "
            "pass=%.1fs\n",
            now_hms(), k, rec.rel_gap, rec.gap, rec.cost, step, w.valid ? "conjugate" : "FW-vertex",
            rec.pass_seconds);

        const bool converged = rec.rel_gap < a.relative_gap;
        if (checkpoint_and_check_stop(state, k, converged)) break;
        if (converged) {
            progress("[converged] rel_gap %.6f < eps %.5f at iteration %d\n", rec.rel_gap,
                     a.relative_gap, k);
            break;
        }
    }

    if (stats.used + stats.rejected + stats.before_history >= 1)
        progress(
            "[%s][sta] conjugate direction: used %d, rejected %d (non-convex), %d before enough "
            "history -- the rest ran as plain FW\n",
            now_hms(), stats.used, stats.rejected, stats.before_history);
    if (!a.sta_path_scale_path.empty()) write_path_scale(a.sta_path_scale_path, state, v.x, v.y);
    state.frozen = false;
    return records;
}

}  // namespace torvex
