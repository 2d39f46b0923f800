#include "assign/equilibrium.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "assign/checkpoint.h"
#include "assign/network_loading.h"
#include "assign/router.h"
#include "assign/routing_pass.h"
#include "node/node_model.h"
#include "report/outputs.h"
#include "run/log.h"
#include "static/static_solver.h"

namespace torvex {

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void set_refresh_plan(AssignmentState& state, int32_t i) {
    const AssignmentSettings& a = state.config.assignment;
    state.node_every = schedule_value(a.node_schedule, a.node_refresh_every, i);
    state.load_every = schedule_value(a.load_schedule, a.load_refresh_every, i);
}

void print_refresh_plans(const AssignmentState& state) {
    const AssignmentSettings& a = state.config.assignment;
    if (state.node_mode == 0 && !a.load_schedule.empty())
        progress(
            "[%s][load-schedule] %s\n", now_hms(),
            describe_schedule(a.load_schedule, a.load_refresh_every, a.max_iterations).c_str());
    if (state.node_mode != 0 && !a.node_schedule.empty())
        progress(
            "[%s][node-schedule] %s\n", now_hms(),
            describe_schedule(a.node_schedule, a.node_refresh_every, a.max_iterations).c_str());
}

void fill_free_flow(Network& net) {
    for (Link& l : net.links)
        std::fill(std::begin(l.travel_time_min), std::end(l.travel_time_min), l.free_flow_min);
}

// Sums of the gap measure over keys that hold a path and are still reachable.
void measure(const TripTable& trips, float threshold, IterationRecord& rec) {
    double cost = 0, gap = 0, total_w = 0, stable_w = 0;
    int64_t stable = 0;
    for (const RouteKey& k : trips.route_keys) {
        if (k.path_offset < 0 || !k.reachable) continue;
        cost += static_cast<double>(k.imped) * k.weight;
        gap += static_cast<double>(k.gap) * k.weight;
        total_w += k.weight;
        if (!(k.gap > threshold)) {
            ++stable;
            stable_w += k.weight;
        }
    }
    rec.cost = cost;
    rec.gap = gap;
    rec.rel_gap = cost > 0 ? gap / cost : 0;
    rec.stable_keys = stable;
    rec.stable_pct = total_w > 0 ? stable_w * 100 / total_w : 0;
}

bool stop_file_present(const std::string& path) {
    if (path.empty()) return false;
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) return false;
    std::fclose(f);
    return true;
}

IterationRecord free_flow_start(AssignmentState& state, bool progressive) {
    fill_free_flow(*state.network);
    if (progressive) {
        const float f = sample_value(state.config.assignment.sample_schedule, 1);
        const long long active = resample_keys(*state.trips, f);
        progress(
            "[%s][sample] progressive schedule on; iter 0-1 at %.0f%% sample -> %lld active keys\n",
            now_hms(), f * 100.0f, active);
    }
    IterationRecord rec;
    rec.iter = 0;
    const Clock::time_point t0 = Clock::now();
    routing_pass(state, true, 1.0f, 1.0f, rec);
    if (state.node_mode != 0 && state.node_every == 0)
        run_node_dnl(*state.network, *state.trips, state.path_arena, node_load_params(state, 1.0f),
                     nullptr);
    rec.pass_seconds = seconds_since(t0);
    progress("[%s][iter 0] incremental free-flow routing: %lld paths, %lld unreachable, %.1fs\n",
             now_hms(), static_cast<long long>(rec.rerouted),
             static_cast<long long>(rec.unreachable), rec.pass_seconds);
    write_trace_paths(state, 0);
    return rec;
}

}  // namespace

int32_t schedule_value(const std::vector<int32_t>& schedule, int32_t plain, int32_t i) {
    if (schedule.empty()) return plain;
    const size_t at = std::min<size_t>(static_cast<size_t>(std::max(i, 1)), schedule.size()) - 1;
    return schedule[at];
}

float sample_value(const std::vector<float>& schedule, int32_t i) {
    if (schedule.empty()) return 1.0f;
    const size_t at = std::min<size_t>(static_cast<size_t>(std::max(i, 1)), schedule.size()) - 1;
    return schedule[at];
}

std::string describe_schedule(const std::vector<int32_t>& schedule, int32_t plain,
                              int32_t max_iterations) {
    auto name = [](int32_t v) {
        if (v == 0) return std::string("per_iter");
        if (v == 1) return std::string("per_chunk");
        return "every" + std::to_string(v);
    };
    std::string text;
    int32_t first = 1;
    for (int32_t i = 1; i <= max_iterations; ++i) {
        const int32_t v = schedule_value(schedule, plain, i);
        if (i < max_iterations && schedule_value(schedule, plain, i + 1) == v) continue;
        text += std::to_string(first);
        if (i > first) text += "-" + std::to_string(i);
        text += ":" + name(v) + "  ";
        first = i + 1;
    }
    return text;
}

void price_current_paths(AssignmentState& state) {
    const Network& net = *state.network;
    TripTable& trips = *state.trips;
    const int32_t* arena = state.path_arena.data();
    RouteWeights w[kMaxSegments];
    for (int s = 0; s < kMaxSegments; ++s) w[s] = route_weights_for_segment(trips, s);
    const int64_t n = static_cast<int64_t>(trips.route_keys.size());
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; ++i) {
        RouteKey& k = trips.route_keys[i];
        if (k.path_offset >= 0 && k.n_links != 0) {
            const RouteWeights& kw = w[k.segment % kMaxSegments];
            k.imped = path_cost(net, arena + k.path_offset, k.n_links,
                                slot_depart_min(trips, k.slot), kw.time_w, kw.dist_w, kw.toll_w);
        } else {
            k.imped = 0.0f;
        }
    }
}

int64_t resample_keys(TripTable& trips, float f) {
    f = std::clamp(f, 0.0001f, 1.0f);
    for (RouteKey& k : trips.route_keys) k.weight = 0.0f;
    const float scale = 1.0f / f;
    for (const Trip& t : trips.trips) {
        if (t.route_key < 0) continue;
        RouteKey& k = trips.route_keys[t.route_key];
        if (!k.reachable) continue;
        uint64_t h = static_cast<uint64_t>(t.agent_id) * 0x9E3779B97F4A7C15ull;
        h = (h ^ (h >> 29)) * 0xBF58476D1CE4E5B9ull;
        const float u = static_cast<float>(static_cast<double>(h >> 40) * (1.0 / 16777216.0));
        if (u < f) k.weight += t.weight * scale;
    }
    int64_t active = 0;
    for (const RouteKey& k : trips.route_keys) active += k.weight > 0.0f;
    return active;
}

bool checkpoint_and_check_stop(AssignmentState& state, int32_t iteration, bool converged) {
    const AssignmentSettings& a = state.config.assignment;
    const bool stop = stop_file_present(a.stop_file);
    const bool due = a.checkpoint_every > 0 && iteration % a.checkpoint_every == 0;
    if (!a.checkpoint_file.empty() && (stop || due || converged || iteration == a.max_iterations))
        write_checkpoint(a.checkpoint_file, *state.trips, state.path_arena, *state.network,
                         iteration);
    if (stop)
        progress("[%s][stop] stop-file '%s' detected -> halting at iteration %d\n", now_hms(),
                 a.stop_file.c_str(), iteration);
    return stop;
}

std::vector<IterationRecord> run_assignment(AssignmentState& state) {
    if (state.network->is_static && state.config.sta_method != StaMethod::legacy)
        return run_static_solver(state);
    const AssignmentSettings& a = state.config.assignment;
    TripTable& trips = *state.trips;
    std::vector<IterationRecord> records;

    const int32_t resume_iter = state.config.resume_from.empty() ? 0 : a.start_iteration;
    const bool progressive = !a.sample_schedule.empty() && resume_iter <= 0;
    set_refresh_plan(state, 1);
    print_refresh_plans(state);

    float fraction = 1.0f;
    if (state.config.resume_from.empty()) {
        if (progressive) fraction = sample_value(a.sample_schedule, 1);
        records.push_back(free_flow_start(state, progressive));
    } else {
        progress("[%s][resume] continuing from checkpoint iteration %d (%zu path-links loaded)\n",
                 now_hms(), resume_iter, state.path_arena.size());
        // Nothing left to iterate: load the saved paths once so that the outputs see them.
        if (a.max_iterations <= resume_iter && state.node_mode == 0) {
            load_paths_full(state.load, trips, state.path_arena, state.volume_table, nullptr);
            blend_inflow(state.load, state.volume_table, 1.0f, 1.0f);
            update_link_times(state.load);
        } else if (a.max_iterations <= resume_iter) {
            run_node_dnl(*state.network, trips, state.path_arena, node_load_params(state, 1.0f),
                         nullptr);
        }
    }

    int32_t k = 0;
    for (int32_t i = resume_iter + 1; i <= a.max_iterations; ++i) {
        set_refresh_plan(state, i);
        if (progressive) {
            const float f = sample_value(a.sample_schedule, i);
            if (f == fraction) {
                ++k;
            } else {
                const long long active = resample_keys(trips, f);
                progress("[%s][sample] iter %d: refine %.0f%% -> %.0f%% (%lld active keys)\n",
                         now_hms(), i, fraction * 100.0f, f * 100.0f, active);
                fraction = f;
                k = 1;
            }
        } else {
            k = i;
        }
        price_current_paths(state);

        const Clock::time_point t0 = Clock::now();
        const float reroute_frac =
            std::max(a.reroute_fraction_min, 2.0f / static_cast<float>(k + 1));
        const float step = 1.0f / static_cast<float>(k);
        IterationRecord rec;
        rec.iter = i;
        routing_pass(state, false, reroute_frac, step, rec);
        if (state.node_mode != 0 && state.node_every == 0)
            run_node_dnl(*state.network, trips, state.path_arena, node_load_params(state, step),
                         nullptr);
        rec.pass_seconds = seconds_since(t0);
        measure(trips, a.reroute_threshold_min, rec);
        write_trace_paths(state, i);
        records.push_back(rec);
        progress(
            "[%s][iter %d] rel_gap=%.5f  gap=%.0f veh-min  cost=%.0f veh-min  rerouted=%lld  "
            "stable=%.1f%%  frac=%.3f  pass=%.1fs\n",
            now_hms(), i, rec.rel_gap, rec.gap, rec.cost, static_cast<long long>(rec.rerouted),
            rec.stable_pct, reroute_frac, rec.pass_seconds);

        const bool sampling_over = !progressive || fraction >= 0.999f;
        const bool converged = rec.rel_gap < a.relative_gap && sampling_over;
        if (checkpoint_and_check_stop(state, i, converged)) break;
        if (converged) {
            progress("[converged] rel_gap %.5f < eps %.5f at iteration %d\n", rec.rel_gap,
                     a.relative_gap, i);
            break;
        }
    }
    return records;
}

}  // namespace torvex
