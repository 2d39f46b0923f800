// The run's steps on the loaded demand and their log lines: trip summary, segment parameters,
// market scaling.
#include <cstdio>

#include "input/trip_table.h"
#include "run/log.h"
#include "run/run_config.h"

namespace torvex {

void print_trip_summary(const TripLoadSummary& s, const TripTable& table, double seconds) {
    long long intra = 0, adjacent = 0, state = 0;
    for (const RouteKey& k : table.route_keys) {
        if (k.scope == 0)
            ++intra;
        else if (k.scope == 1)
            ++adjacent;
        else
            ++state;
    }
    // The upper limit printed stays 30 whatever the departure encoding was.
    if (s.bad_hour > 0)
        std::fprintf(stderr,
                     "[trips] warning: %lld rows rejected for hour outside 1..%d (rejected values "
                     "ranged %lld..%lld)\n",
                     static_cast<long long>(s.bad_hour), 30, static_cast<long long>(s.bad_hour_min),
                     static_cast<long long>(s.bad_hour_max));
    progress(
        "[%s][trips] %lld rows read, %lld loaded (%lld bad O/D incl. intrazonal, %lld bad "
        "hour, %lld depart past midnight, %lld zero weight); %zu route keys (intra=%lld "
        "adj=%lld state=%lld), %.1fs\n",
        now_hms(), static_cast<long long>(s.rows_read), static_cast<long long>(s.rows_loaded),
        static_cast<long long>(s.bad_od), static_cast<long long>(s.bad_hour),
        static_cast<long long>(s.past_midnight), static_cast<long long>(s.zero_weight),
        table.route_keys.size(), intra, adjacent, state, seconds);
}

void print_segment_summary(const TripTable& table, const RunConfig& config) {
    const int n = static_cast<int>(table.segment_names.size());
    if (config.segment_param_file.empty()) {
        progress(
            "[%s][segments] %d segments, no SEGMENT_PARAM_FILE -> GC = travel time only "
            "(beta_time=1, beta_cost=0, distance=0)\n",
            now_hms(), n);
        return;
    }
    progress("[%s][segments] %d segments, params from %s:\n", now_hms(), n,
             config.segment_param_file.c_str());
    for (int s = 0; s < n && s < kMaxSegments; ++s) {
        const double mean_vot =
            table.weight_sum[s] != 0.0 ? table.vot_weight_sum[s] / table.weight_sum[s] : 0.0;
        std::printf(
            "   %-14s VOT=%.0f  beta_time=%.3f  beta_cost=%.3f  distance=%.3f  axles=%d  "
            "pce=%.2f  (data meanVOT=%.1f)\n",
            table.segment_names[s].c_str(), table.vot[s], table.beta_time[s], table.beta_cost[s],
            table.beta_dist[s], static_cast<int>(table.axles[s]), table.pce[s], mean_vot);
    }
    std::fflush(stdout);
}

void apply_segment_params(const RunConfig& config, TripTable& table) {
    if (!config.segment_param_file.empty()) load_segment_params(config.segment_param_file, table);
    print_segment_summary(table, config);
}

void apply_market_scale(const RunConfig& config, TripTable& table) {
    const size_t known = table.segment_names.size();
    for (const auto& [prefix, factor] : config.market_scale) {
        long long keys = 0;
        double before = 0, after = 0;
        for (RouteKey& k : table.route_keys) {
            if (k.segment >= known) continue;
            const std::string& name = table.segment_names[k.segment];
            if (name.compare(0, prefix.size(), prefix) != 0) continue;
            before += k.weight;
            k.weight *= factor;
            after += k.weight;
            ++keys;
        }
        progress("[market-scale] %s x%.2f: %lld keys, weight %.0f -> %.0f\n", prefix.c_str(),
                 factor, keys, before, after);
    }
}

}  // namespace torvex
