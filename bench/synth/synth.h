// torvex-synth: synthetic regional road networks and person-trip tables at any scale.
// The region is a jittered grid of arterials and collectors cut into counties, with freeways and
// interchanges on top and zone centroids hung on the grid by connectors; demand comes from
// households whose tours pick destinations by a gravity rule.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace torvex::synth {

enum class Depart : uint8_t { kHour, kPeriod, kClock };

struct Options {
    std::string scale = "tiny";
    uint64_t seed = 1;
    std::string out_dir;
    int64_t zones = 0;
    int64_t links = 0;  // approximate target
    int64_t trips = 0;
    int32_t counties = 0;
    int32_t max_iterations = 20;
    Depart depart = Depart::kHour;
    bool gzip = false;
    bool express_lane = false;
};

// Facility type codes written in FTYPE.
enum Ftype : uint16_t {
    kInterstate = 11,
    kFreeway = 12,
    kPrincipalArterial = 21,
    kMinorArterial = 22,
    kMajorCollector = 31,
    kMinorCollector = 32,
    kConnector = 51,
    kSystemRamp = 71,  // freeway to freeway
    kOnRamp = 72,
    kOffRamp = 73,
    kExpressMain = 96,
    kExpressIngress = 97,
    kExpressEgress = 98,
};

constexpr uint16_t kDecisionNodeType = 90;
constexpr uint16_t kMergeNodeType = 91;

struct SynthNode {
    int64_t id = 0;
    double x = 0, y = 0;  // miles from the region's south-west corner
    uint16_t county = 0;
    uint16_t dta_type = 0;
};

struct SynthLink {
    int32_t a = 0, b = 0;  // node indices
    float length_mi = 0;
    uint16_t ftype = 0;
    uint8_t lanes = 1;
    uint8_t speed_mph = 25;
    uint16_t capacity = 0;  // per lane, veh/h
    uint8_t nsignals = 0;
    uint8_t toll_policy = 0;
    uint16_t county = 0;  // from_county, the county of the A node
    int32_t count = -1;   // observed 24-hour count, -1 for none
};

struct Zone {
    int32_t node = 0;  // centroid node index
    double x = 0, y = 0;
    double households = 0;  // production weight
    double jobs = 0;        // attraction weight
    uint16_t county = 0;
};

struct City {
    double x = 0, y = 0, sigma = 1, weight = 1;
};

struct CountyRect {
    int32_t c0 = 0, c1 = 0, r0 = 0, r1 = 0;  // columns [c0, c1), rows [r0, r1)
};

struct Region {
    int32_t grid = 0;          // grid side, in intersections
    double spacing_mi = 0.5;   // between grid lines
    std::vector<City> cities;  // centres of the urbanisation field
    std::vector<std::string> county_names;
    std::vector<CountyRect> county_rects;  // counties are rectangular blocks of grid cells
    std::vector<uint16_t> cell_county;     // grid * grid, row-major by row
    std::vector<SynthNode> nodes;
    std::vector<SynthLink> links;
    std::vector<Zone> zones;
    int32_t first_grid_node = 0;         // index of grid cell (0, 0) in nodes
    std::vector<int32_t> first_freeway;  // node indices of the first freeway, south to north
    int32_t freeway_count = 0;
    int32_t interchanges = 0;
    int32_t express_links = 0;
};

// 0 (open country) to about 1 (a city centre).
double urbanisation(const Region& r, double x, double y);
// County of the grid cell nearest to a point.
uint16_t county_at(const Region& r, double x, double y);
int32_t grid_node(const Region& r, int32_t col, int32_t row);

// Builds the whole network and its zones; false with a message in `error` on impossible sizes.
bool build_region(const Options& opt, Region& region, std::string& error);
void add_freeways(Region& region, uint64_t seed);
// Express lanes in both directions along the first freeway; false when it is too short.
bool add_express_lanes(Region& region, std::string& error);

struct TripSummary {
    int64_t rows = 0;
    int64_t households = 0;
    int64_t intra_county = 0;
    double sum_distance_mi = 0;
    int64_t long_trips = 0;  // crow-fly distance above 20 miles
};

// Writes NODE.csv, LINK.csv, segments.csv, toll_policies.csv (express only) and run.ctl.
bool write_network_files(const Region& region, const Options& opt, const std::string& trip_name,
                         std::string& error);
bool write_trips(const Region& region, const Options& opt, const std::string& path,
                 TripSummary& summary, std::string& error);

}  // namespace torvex::synth
