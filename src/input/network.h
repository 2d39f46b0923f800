// The road graph: nodes, links with their per-interval state inline, counties.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "toll/toll_policy.h"

namespace torvex {

struct RunConfig;

constexpr int kIntervals = 120;        // 15-minute intervals of the 30-hour horizon
constexpr float kIntervalMin = 15.0f;  // minutes per interval
constexpr float kHorizonMin = 1800.0f;
constexpr uint16_t kNoCounty = 65535;

inline int interval_of(float t_min) {
    int i = static_cast<int>(t_min / kIntervalMin);
    return i < 0 ? 0 : (i > kIntervals - 1 ? kIntervals - 1 : i);
}

enum FlowTier : uint8_t { kTierPointQueue = 0, kTierLtm = 1, kTierMeso = 2 };

struct Node {
    int64_t node_id = 0;
    float x = 0, y = 0;
    uint16_t county = kNoCounty;
    uint16_t dta_type = 0;
    uint8_t is_centroid = 0;
    std::vector<int32_t> out_links;  // ascending link indices
    std::vector<int32_t> in_links;   // ascending link indices
};

struct Link {
    int64_t a_node = 0, b_node = 0;
    int32_t from = 0, to = 0;
    uint16_t county = kNoCounty;
    uint16_t ftype = 0;
    uint8_t lanes = 1;
    uint8_t is_connector = 0;
    float length_mi = 0;
    float speed_mph = 0;
    float free_flow_min = 0;
    float capacity_vph = 0;   // static capacity, all lanes
    float discharge_vph = 0;  // dynamic capacity, all lanes
    float toll = 0;
    uint16_t toll_policy = 0;
    uint8_t no_trucks = 0;
    uint8_t hot_occ_min = 0;
    float hot_discount = 0;
    float ev_discount = 0;
    uint8_t has_capacity_schedule = 0;
    uint8_t dta_micro = 0;
    uint16_t nsignals = 0;
    float count = -1;  // observed 24-hour count, -1 for none
    uint8_t flow_tier = kTierPointQueue;
    float storage_veh = 0;
    float alpha = 0.15f, beta = 4.0f;
    float travel_time_min[kIntervals];
    float volume[kIntervals];
    float inflow[kIntervals];
    float queue_veh[kIntervals];
};

// Vehicles per hour for each interval of the horizon.
using CapacitySchedule = std::array<float, kIntervals>;

struct Network {
    std::vector<Node> nodes;
    std::vector<Link> links;
    std::unordered_map<int64_t, int32_t> node_index;
    std::vector<std::string> county_names;
    std::unordered_map<std::string, uint16_t> county_index;
    TollPolicyMap toll_policies;
    float toll_deflator = 1.0f;
    std::unordered_map<int32_t, CapacitySchedule> capacity_schedules;
    bool is_static = false;
    uint8_t vdf_kind = 0;  // 0 bpr, 1 conical, 2 akcelik
    float conical_alpha = 4.0f;
    float akcelik_ja = 0.1f;
    float bpr_overcap_beta_mult = 1.0f;
    int32_t sta_window_intervals = 1;

    int32_t link_count() const { return static_cast<int32_t>(links.size()); }
    int32_t node_count() const { return static_cast<int32_t>(nodes.size()); }
};

struct CountyAdjacency {
    int32_t n = 0;
    std::vector<uint8_t> touches;  // n * n, row-major

    bool adjacent(int i, int j) const { return touches[static_cast<size_t>(i) * n + j] != 0; }
};

// Reads NODE and LINK files and derives adjacency, centroids and counties.
Network load_network(const std::string& node_path, const std::string& link_path);
// Rebuilds out_links / in_links in link index order (both ascending).
void build_adjacency(Network& net);
CountyAdjacency build_county_adjacency(const Network& net);
// Caps signalized discharge and adds the uniform control delay; returns links changed.
int64_t apply_signal_model(Network& net, const RunConfig& config);
// 0 same county, 1 adjacent, 2 otherwise or unknown on either side.
int8_t county_scope(int16_t origin_county, int16_t dest_county, const CountyAdjacency& adj);

}  // namespace torvex
