// The demand of a run: person trips folded into route keys, the interned names, and the per-segment
// cost parameters (a segment is a traveller class, held as parallel arrays of 32 entries).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace torvex {

struct Network;
struct CountyAdjacency;
struct RunConfig;

constexpr int kMaxSegments = 32;

// One loaded row of the trip file.
struct Trip {
    int64_t agent_id = 0;  // ordinal among non-blank data rows, from 1
    int64_t hh_id = 0;
    int64_t person_id = 0;
    int32_t tour_id = 0;
    int32_t trip_id = 0;
    int32_t route_key = -1;  // index into route_keys
    float value_of_time = 0;
    float weight = 0;  // vehicle trips this row stands for, sampling included
    uint8_t occupancy = 1;
    uint8_t is_ev = 0;
    uint8_t purpose = 0;  // id in purpose_names
    uint8_t market = 0;   // id in market_names
    uint8_t segment = 0;  // id in segment_names
};
static_assert(sizeof(Trip) <= 56, "Trip is held tens of millions of times");

// The routed demand unit: one per origin, destination, departure slot and segment.
struct RouteKey {
    int32_t origin = 0;  // node index
    int32_t dest = 0;    // node index
    uint8_t slot = 0;    // departure slot
    uint8_t segment = 0;
    uint8_t scope = 2;         // routing stage: 0 intra-county, 1 adjacent counties, 2 statewide
    bool reachable = true;     // false once the widest routing stage failed; never routed again
    float weight = 0;          // sum of the weights of its trips
    int64_t path_offset = -1;  // first link of the current path in path_arena; < 0 = no path
    int32_t n_links = 0;
    float imped = 0;       // generalized cost of the current path this iteration
    float best_imped = 0;  // cost of the destination label in the last tree that reached it
    float gap = 0;         // max(0, imped - best_imped) at that moment
};

// Packed identity of a key: origin in the high bits, then 21 bits of destination, 7 of slot and 5
// of segment. Larger values alias; networks stay below 2,097,152 nodes.
inline uint64_t route_key_identity(int32_t origin, int32_t dest, uint32_t slot, uint32_t segment) {
    uint64_t id = static_cast<uint32_t>(origin);
    id = (id << 21) | static_cast<uint32_t>(dest);
    id = (id << 7) | slot;
    id = (id << 5) | segment;
    return id;
}

// Open-addressing map from a key's packed identity to its index, built for tens of millions of
// keys: one flat array, no allocation per key, one cache line per probe. Identities stay below
// kFree (origins are non-negative), which marks an empty slot.
struct KeyIndex {
    static constexpr uint64_t kFree = ~uint64_t{0};
    struct Slot {
        uint64_t id;
        int32_t value;
    };
    std::vector<Slot> slots;  // size a power of two, or empty
    size_t count = 0;

    size_t size() const { return count; }
    // The index stored for id, or -1.
    int32_t find(uint64_t id) const;
    // The index stored for id; when absent, stores `fresh` and returns it.
    int32_t find_or_insert(uint64_t id, int32_t fresh);
    // Asks for the cache line where the probe for id starts; a hint, any time.
    void prefetch(uint64_t id) const;
    // Room for n identities without growing.
    void reserve(size_t n);
    void clear();
};

// Name-to-id maps looked up by view, so that a row's text is copied only when it is new.
struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
using NameIndex = std::unordered_map<std::string, uint8_t, NameHash, std::equal_to<>>;

struct TripTable {
    std::vector<Trip> trips;           // in file order
    std::vector<RouteKey> route_keys;  // in order of first appearance
    KeyIndex key_index;                // route_key_identity to index

    float slot_minutes = 60.0f;
    int32_t num_slots = 30;

    // Interned names, ids in order of first appearance.
    std::vector<std::string> purpose_names;
    NameIndex purpose_index;
    std::vector<std::string> market_names;
    NameIndex market_index;
    std::vector<std::string> segment_names;
    NameIndex segment_index;

    // Per segment, indexed by segment id. Defaults route on pure travel time.
    std::array<float, kMaxSegments> beta_time;  // cost units per minute
    std::array<float, kMaxSegments> beta_cost;  // cost units per dollar of toll
    std::array<float, kMaxSegments> beta_dist;  // cost units per mile
    std::array<float, kMaxSegments> pce;        // passenger-car equivalents per vehicle
    std::array<float, kMaxSegments> vot;        // value of time, logged only
    std::array<uint8_t, kMaxSegments> axles;
    std::array<uint64_t, kMaxSegments> exclude_lo;    // bit n bars FTYPE n (0..63)
    std::array<uint64_t, kMaxSegments> exclude_hi;    // bit n bars FTYPE 64 + n (64..127)
    std::array<double, kMaxSegments> vot_weight_sum;  // sum of value_of_time * weight
    std::array<double, kMaxSegments> weight_sum;      // sum of weight

    TripTable() {
        beta_time.fill(1.0f);
        beta_cost.fill(0.0f);
        beta_dist.fill(0.0f);
        pce.fill(1.0f);
        vot.fill(0.0f);
        axles.fill(2);
        exclude_lo.fill(0);
        exclude_hi.fill(0);
        vot_weight_sum.fill(0.0);
        weight_sum.fill(0.0);
    }
};

struct TripLoadSummary {
    int64_t rows_read = 0;
    int64_t rows_loaded = 0;
    int64_t bad_od = 0;  // unknown node or origin equal to destination
    int64_t bad_hour = 0;
    int64_t bad_hour_min = 0;  // range of the rejected departures (slot for clock rows)
    int64_t bad_hour_max = 0;
    int64_t past_midnight = 0;  // hours 25..30, kept
    int64_t zero_weight = 0;
};

// Reads TRIP_FILE (plain or gzip) into `table`. max_trips < 1 means all; every sample_every-th
// row is kept with its weight multiplied. Raises on a missing or empty file and missing columns.
TripLoadSummary load_trips(const std::string& path, const Network& network, TripTable& table,
                           int64_t max_trips, const CountyAdjacency& adjacency,
                           int32_t sample_every);

// Reads SEGMENT_PARAM_FILE into the per-segment arrays; every demand segment needs a row.
// Numbers are strict: a field without one raises the conversion error.
void load_segment_params(const std::string& path, TripTable& table);

// Generalized cost weights of a segment. A 2-axle vehicle pays the plain toll and every further
// axle one more unit; 1 and 2 axles cost the same.
inline float segment_time_weight(const TripTable& t, int s) {
    return t.beta_time[s];
}
inline float segment_dist_weight(const TripTable& t, int s) {
    return t.beta_dist[s];
}
inline float segment_toll_weight(const TripTable& t, int s) {
    return t.axles[s] >= 2 ? t.beta_cost[s] * static_cast<float>(t.axles[s] - 1) : t.beta_cost[s];
}
inline bool segment_bars_trucks(const TripTable& t, int s) {
    return t.axles[s] >= 3;
}
inline bool ftype_excluded(uint64_t lo, uint64_t hi, uint16_t ftype) {
    if (ftype < 64) return (lo >> ftype) & 1u;
    if (ftype < 128) return (hi >> (ftype - 64)) & 1u;
    return false;
}
// Pure-time weights price a link by its travel time alone (a NaN anywhere is not pure).
inline bool is_pure_time(float time_w, float dist_w, float toll_w) {
    return dist_w == 0.0f && toll_w == 0.0f && time_w == 1.0f;
}
// Cost of entering a link; the grouping of the terms is fixed.
inline float link_generalized_cost(float toll, float toll_w, float dist_w, float length_mi,
                                   float travel_time_min, float time_w) {
    return toll * toll_w + (dist_w * length_mi + travel_time_min * time_w);
}

// Run steps on the demand, with their log lines.
// The [trips] summary of a load; the caller ends the run when rows_loaded is 0.
void print_trip_summary(const TripLoadSummary& s, const TripTable& table, double seconds);
// Prints the [segments] lines; with SEGMENT_PARAM_FILE set, load_segment_params runs before.
void print_segment_summary(const TripTable& table, const RunConfig& config);
// Loads SEGMENT_PARAM_FILE when set, then prints the [segments] lines.
void apply_segment_params(const RunConfig& config, TripTable& table);
// MARKET_SCALE: multiplies key weights by segment name prefix, entry by entry (they compound).
void apply_market_scale(const RunConfig& config, TripTable& table);

}  // namespace torvex
