// Side tables that refine the network before assignment (lane use, time-of-day capacity, toll
// policies), the CPI deflation of tolls, the clock parser and the one toll evaluation.
#pragma once

#include <string>
#include <string_view>

#include "input/network.h"

namespace torvex {

struct RunConfig;

// (1 + CPI)^(BASE_YEAR - FUTURE_YEAR) when FUTURE_YEAR > BASE_YEAR > 0 and CPI != 0, else 1.
void compute_toll_deflator(const RunConfig& config, Network& net);
// "[toll] deflation factor ..." line, printed after the toll policy file is read.
void print_toll_deflation(const RunConfig& config, const Network& net);

// Each raises a run-ending error for a missing file, a missing header or missing key columns;
// bad rows are skipped or counted, and each prints its own summary line.
void load_lane_use(const std::string& path, Network& net);
void load_capacity_schedule(const std::string& path, Network& net);
void load_toll_policies(const std::string& path, Network& net);

// Minutes from midnight of day one for "[D@]H:MM[:SS[.s]]", "NOON" or "MIDNIGHT"; -1 if refused.
float parse_clock_minutes(std::string_view text);

// Toll of a link that has a policy; the caller has checked that the policy exists.
float evaluate_policy_toll(const Network& net, const Link& link, const TollPolicy& policy,
                           int interval);

// Dollars charged on `link` in `interval` (already 0..119). Pure and allocation-free: called
// from the router's inner loop and from parallel report regions.
inline float evaluate_toll(const Network& net, const Link& link, int interval) {
    if (link.toll_policy == 0) return link.toll;
    const TollPolicy* policy = net.toll_policies.find(link.toll_policy);
    if (policy == nullptr) return link.toll;
    return evaluate_policy_toll(net, link, *policy, interval);
}

}  // namespace torvex
