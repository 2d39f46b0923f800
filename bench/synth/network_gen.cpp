// The grid, counties, zones and connectors of a synthetic region.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "rng.h"
#include "synth.h"

namespace torvex::synth {

namespace {

// Random streams of one seed; fixed numbers so that adding a stream never shifts another.
enum Stream : uint64_t { kCities = 1, kCounties = 2, kZones = 3, kGrid = 4, kCounts = 7 };

constexpr double kMaxUrban = 1.2;

// Grid lines: every 8th a principal arterial, every 4th a minor arterial, the even ones major
// collectors, the rest minor collectors (local streets with some blocks missing).
uint16_t line_class(int32_t i) {
    if ((i + 2) % 8 == 0) return kPrincipalArterial;
    if ((i + 2) % 4 == 0) return kMinorArterial;
    return i % 2 == 0 ? kMajorCollector : kMinorCollector;
}

bool is_arterial(uint16_t ftype) {
    return ftype == kPrincipalArterial || ftype == kMinorArterial;
}

struct UnionFind {
    std::vector<int32_t> parent;
    explicit UnionFind(size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), 0); }
    int32_t find(int32_t v) {
        while (parent[v] != v) v = parent[v] = parent[parent[v]];
        return v;
    }
    bool unite(int32_t a, int32_t b) {
        a = find(a);
        b = find(b);
        if (a == b) return false;
        parent[std::max(a, b)] = std::min(a, b);
        return true;
    }
};

// Expected directed links of a g x g grid with freeways, before connectors.
double expected_road_links(int32_t g) {
    const double grid = 4.0 * g * (g - 1) * 0.82;
    const double freeways = 2.0 * std::max(1L, std::lround(g / 36.0));
    return grid + freeways * (4.0 * g / 6.0);
}

// Splits [0, n) into `parts` runs of at least `min_run`, with boundaries jittered by a quarter run.
std::vector<int32_t> jittered_cuts(int32_t n, int32_t parts, int32_t min_run, Rng& rng) {
    std::vector<int32_t> cuts(parts + 1);
    cuts[0] = 0;
    cuts[parts] = n;
    const double run = static_cast<double>(n) / parts;
    for (int32_t k = 1; k < parts; ++k) {
        const int32_t c =
            static_cast<int32_t>(std::lround(k * run + rng.uniform(-0.25, 0.25) * run));
        cuts[k] = std::clamp(c, cuts[k - 1] + min_run, n - (parts - k) * min_run);
    }
    return cuts;
}

std::string county_name(size_t i) {
    static const char* kHeads[] = {"Ash",   "Bel",  "Cedar", "Dun",  "Elm",  "Fair",
                                   "Glen",  "Hart", "Iron",  "King", "Lake", "Marl",
                                   "Nor",   "Oak",  "Pine",  "Quin", "Rock", "Stone",
                                   "Thorn", "Ux",   "Vale",  "Wyn",  "York", "Zell"};
    static const char* kTails[] = {"ford", "ton", "field", "wood", "land", "dale", "more", "burg"};
    const size_t head = i % 24, tail = (i / 24 + i) % 8;
    std::string name = std::string(kHeads[head]) + kTails[tail];
    if (i >= 24 * 8) name += std::to_string(i / (24 * 8) + 1);
    return name;
}

void place_cities(Region& r, uint64_t seed) {
    Rng rng(seed, kCities);
    const double side = (r.grid - 1) * r.spacing_mi;
    const int32_t n = std::max(1, static_cast<int32_t>(std::lround(side * side / 500.0)));
    const double size_scale = std::clamp(side / 20.0, 0.6, 1.5);
    for (int32_t k = 0; k < n; ++k) {
        City c;
        c.weight = 1.0 / std::pow(k + 1.0, 0.7);
        c.x = rng.uniform(0.15, 0.85) * side;
        c.y = rng.uniform(0.15, 0.85) * side;
        c.sigma = (1.5 + 2.5 * c.weight) * size_scale * rng.uniform(0.8, 1.2);
        r.cities.push_back(c);
    }
}

bool make_counties(Region& r, int32_t counties, uint64_t seed, std::string& error) {
    Rng rng(seed, kCounties);
    const int32_t g = r.grid, min_run = 3;
    const int32_t strips = std::max(1, static_cast<int32_t>(std::lround(std::sqrt(counties))));
    if (strips * min_run > g || (counties + strips - 1) / strips * min_run > g) {
        error = "too many counties (" + std::to_string(counties) + ") for a grid of " +
                std::to_string(g) + " x " + std::to_string(g) + "; give fewer --counties";
        return false;
    }
    r.cell_county.assign(static_cast<size_t>(g) * g, 0);
    const std::vector<int32_t> cols = jittered_cuts(g, strips, min_run, rng);
    for (int32_t s = 0; s < strips; ++s) {
        const int32_t in_strip = counties / strips + (s < counties % strips ? 1 : 0);
        const std::vector<int32_t> rows = jittered_cuts(g, in_strip, min_run, rng);
        for (int32_t k = 0; k < in_strip; ++k) {
            const auto id = static_cast<uint16_t>(r.county_rects.size());
            r.county_rects.push_back({cols[s], cols[s + 1], rows[k], rows[k + 1]});
            r.county_names.push_back(county_name(id));
            for (int32_t row = rows[k]; row < rows[k + 1]; ++row)
                for (int32_t col = cols[s]; col < cols[s + 1]; ++col)
                    r.cell_county[static_cast<size_t>(row) * g + col] = id;
        }
    }
    return true;
}

void place_zones(Region& r, int64_t zones, uint64_t seed) {
    Rng rng(seed, kZones);
    const double side = (r.grid - 1) * r.spacing_mi;
    r.zones.reserve(zones);
    while (static_cast<int64_t>(r.zones.size()) < zones) {
        const double x = rng.uniform() * side, y = rng.uniform() * side;
        const double u = urbanisation(r, x, y);
        if (!rng.chance((0.04 + u) / (0.04 + kMaxUrban))) continue;
        Zone z;
        z.x = x;
        z.y = y;
        z.county = county_at(r, x, y);
        z.households = 800.0 * (0.25 + u) * std::exp(0.35 * rng.normal());
        z.jobs = z.households * (0.3 + 1.6 * u * u) * std::exp(0.5 * rng.normal());
        r.zones.push_back(z);
    }
}

SynthLink road_link(const Region& r, int32_t a, int32_t b, float length, uint16_t ftype,
                    uint8_t lanes, uint8_t speed, uint16_t capacity) {
    SynthLink l;
    l.a = a;
    l.b = b;
    l.length_mi = length;
    l.ftype = ftype;
    l.lanes = lanes;
    l.speed_mph = speed;
    l.capacity = capacity;
    l.county = r.nodes[a].county;
    return l;
}

// One grid edge in both directions, sized by its class and how urban its surroundings are.
void add_grid_edge(Region& r, int32_t a, int32_t b, uint16_t ftype, int32_t cross_a,
                   int32_t cross_b, Rng& rng) {
    const SynthNode& na = r.nodes[a];
    const SynthNode& nb = r.nodes[b];
    const double u = urbanisation(r, 0.5 * (na.x + nb.x), 0.5 * (na.y + nb.y));
    const int tier = u > 0.7 ? 2 : (u > 0.3 ? 1 : 0);  // rural, urban, core
    uint8_t lanes = 1, speed = 25;
    uint16_t cap = 600;
    switch (ftype) {
        case kPrincipalArterial:
            lanes = tier == 2 ? 3 : 2;
            speed = tier == 2 ? 35 : (tier == 1 ? 40 : 50);
            cap = tier == 0 ? 1000 : 900;
            if (tier == 1 && rng.chance(0.3)) lanes = 3;
            break;
        case kMinorArterial:
            lanes = tier == 0 ? 1 : 2;
            speed = tier == 2 ? 30 : (tier == 1 ? 35 : 45);
            cap = tier == 0 ? 900 : 800;
            break;
        case kMajorCollector:
            lanes = tier == 2 ? 2 : 1;
            speed = tier == 2 ? 25 : (tier == 1 ? 30 : 40);
            cap = tier == 0 ? 800 : 700;
            break;
        default:
            speed = tier == 0 ? 35 : 25;
            cap = tier == 0 ? 700 : 600;
            break;
    }
    if (rng.chance(0.2)) speed = static_cast<uint8_t>(speed + (rng.chance(0.5) ? 5 : -5));
    const double dx = na.x - nb.x, dy = na.y - nb.y;
    const auto length = static_cast<float>(std::sqrt(dx * dx + dy * dy) * rng.uniform(1.0, 1.08));
    // Signals stand where a link meets an arterial, and on every arterial intersection.
    auto signals = [&](int32_t cross) -> uint8_t {
        if (is_arterial(ftype)) return (tier == 2 && rng.chance(0.3)) ? 2 : 1;
        if (ftype == kMajorCollector && is_arterial(line_class(cross))) return 1;
        return 0;
    };
    SynthLink ab = road_link(r, a, b, length, ftype, lanes, speed, cap);
    ab.nsignals = signals(cross_b);
    SynthLink ba = road_link(r, b, a, length, ftype, lanes, speed, cap);
    ba.nsignals = signals(cross_a);
    r.links.push_back(ab);
    r.links.push_back(ba);
}

struct GridEdge {
    int32_t col, row;
    bool vertical;
};

// Lays the grid; drops some local blocks, then puts back just enough of them to keep every
// county connected on its own and the whole grid connected.
void build_grid(Region& r, uint64_t seed) {
    Rng rng(seed, kGrid);
    const int32_t g = r.grid;
    r.first_grid_node = static_cast<int32_t>(r.nodes.size());
    // Road node ids start at the first power of ten above the zone ids, at least 10001.
    int64_t pow10 = 10000;
    while (pow10 <= static_cast<int64_t>(r.nodes.size())) pow10 *= 10;
    for (int32_t row = 0; row < g; ++row) {
        for (int32_t col = 0; col < g; ++col) {
            SynthNode n;
            n.id = pow10 + 1 + static_cast<int64_t>(row) * g + col;
            n.x = col * r.spacing_mi + rng.uniform(-0.04, 0.04);
            n.y = row * r.spacing_mi + rng.uniform(-0.04, 0.04);
            n.county = r.cell_county[static_cast<size_t>(row) * g + col];
            r.nodes.push_back(n);
        }
    }
    std::vector<GridEdge> edges;
    std::vector<uint8_t> keep;
    for (int32_t row = 0; row < g; ++row)
        for (int32_t col = 0; col < g; ++col) {
            if (col + 1 < g) edges.push_back({col, row, false});
            if (row + 1 < g) edges.push_back({col, row, true});
        }
    keep.resize(edges.size());
    auto ends = [&](const GridEdge& e) {
        const int32_t a = grid_node(r, e.col, e.row);
        const int32_t b =
            e.vertical ? grid_node(r, e.col, e.row + 1) : grid_node(r, e.col + 1, e.row);
        return std::pair<int32_t, int32_t>(a, b);
    };
    for (size_t i = 0; i < edges.size(); ++i) {
        const GridEdge& e = edges[i];
        const uint16_t cls = line_class(e.vertical ? e.col : e.row);
        const auto [a, b] = ends(e);
        const double u = urbanisation(r, r.nodes[a].x, r.nodes[a].y);
        double drop = 0;
        if (cls == kMinorCollector) drop = u < 0.15 ? 0.35 : 0.15;
        if (cls == kMajorCollector && u < 0.15) drop = 0.1;
        keep[i] = !rng.chance(drop);
    }
    UnionFind uf(r.nodes.size());
    for (int pass = 0; pass < 2; ++pass) {
        // Pass 0 works inside counties, pass 1 across their borders.
        auto in_pass = [&](size_t i) {
            const auto [a, b] = ends(edges[i]);
            return (r.nodes[a].county == r.nodes[b].county) == (pass == 0);
        };
        for (size_t i = 0; i < edges.size(); ++i)
            if (keep[i] && in_pass(i)) uf.unite(ends(edges[i]).first, ends(edges[i]).second);
        for (size_t i = 0; i < edges.size(); ++i)
            if (!keep[i] && in_pass(i) && uf.unite(ends(edges[i]).first, ends(edges[i]).second))
                keep[i] = 1;
    }
    for (size_t i = 0; i < edges.size(); ++i) {
        if (!keep[i]) continue;
        const GridEdge& e = edges[i];
        const auto [a, b] = ends(e);
        const uint16_t cls = line_class(e.vertical ? e.col : e.row);
        // The crossing line at each end tells whether an arterial meets the link there.
        const int32_t cross_a = e.vertical ? e.row : e.col;
        const int32_t cross_b = cross_a + 1;
        add_grid_edge(r, a, b, cls, cross_a, cross_b, rng);
    }
}

// Freeway nodes first take the county of the cell they stand in. One whose county would leave it
// cut off (its freeway neighbours all lie across a border) joins a neighbour's county instead, so
// that every county is one connected piece and each node shares a county with a neighbour.
void settle_freeway_counties(Region& r) {
    const auto grid_end = static_cast<int32_t>(r.first_grid_node + r.grid * r.grid);
    const auto n = static_cast<int32_t>(r.nodes.size());
    std::vector<std::vector<int32_t>> near(static_cast<size_t>(n - grid_end));
    for (const SynthLink& l : r.links) {
        if (l.a >= grid_end) near[l.a - grid_end].push_back(l.b);
        if (l.b >= grid_end) near[l.b - grid_end].push_back(l.a);
    }
    for (bool changed = true; changed;) {
        changed = false;
        UnionFind uf(r.nodes.size());
        for (const SynthLink& l : r.links)
            if (r.nodes[l.a].county == r.nodes[l.b].county) uf.unite(l.a, l.b);
        auto attached = [&](int32_t v) {
            const CountyRect& c = r.county_rects[r.nodes[v].county];
            return uf.find(v) == uf.find(grid_node(r, c.c0, c.r0));
        };
        for (int32_t v = grid_end; v < n; ++v) {
            if (attached(v)) continue;
            for (int32_t m : near[v - grid_end]) {
                if (!attached(m)) continue;
                r.nodes[v].county = r.nodes[m].county;
                changed = true;
                break;
            }
        }
    }
    for (SynthLink& l : r.links) l.county = r.nodes[l.a].county;
}

// Each zone hangs on the two grid intersections nearest to it within its own county.
void add_connectors(Region& r) {
    const int32_t g = r.grid;
    for (const Zone& z : r.zones) {
        const CountyRect& cr = r.county_rects[z.county];
        const double fx = z.x / r.spacing_mi, fy = z.y / r.spacing_mi;
        const int32_t col = std::clamp(static_cast<int32_t>(std::lround(fx)), cr.c0, cr.c1 - 1);
        const int32_t row = std::clamp(static_cast<int32_t>(std::lround(fy)), cr.r0, cr.r1 - 1);
        const int32_t sx = fx >= col ? 1 : -1, sy = fy >= row ? 1 : -1;
        int32_t cand[4][2] = {{col + sx, row}, {col, row + sy}, {col - sx, row}, {col, row - sy}};
        if (std::fabs(fy - row) > std::fabs(fx - col)) std::swap(cand[0], cand[1]);
        int32_t second = -1;
        for (auto& c : cand) {
            if (c[0] >= cr.c0 && c[0] < cr.c1 && c[1] >= cr.r0 && c[1] < cr.r1 && c[0] < g &&
                c[1] < g) {
                second = grid_node(r, c[0], c[1]);
                break;
            }
        }
        for (int32_t road : {grid_node(r, col, row), second}) {
            const SynthNode& n = r.nodes[road];
            const double dx = n.x - z.x, dy = n.y - z.y;
            const auto length = static_cast<float>(std::sqrt(dx * dx + dy * dy) + 0.05);
            r.links.push_back(road_link(r, z.node, road, length, kConnector, 1, 25, 9999));
            r.links.push_back(road_link(r, road, z.node, length, kConnector, 1, 25, 9999));
        }
    }
}

// Observed daily counts on a sample of links, sized like a real count: capacity times a daily
// factor times a load share.
void add_counts(Region& r, uint64_t seed) {
    Rng rng(seed, kCounts);
    for (SynthLink& l : r.links) {
        double p = 0.03;
        switch (l.ftype) {
            case kConnector:
                p = 0;
                break;
            case kInterstate:
            case kFreeway:
                p = 0.35;
                break;
            case kExpressMain:
            case kExpressIngress:
            case kExpressEgress:
                p = 0.5;
                break;
            case kPrincipalArterial:
            case kMinorArterial:
                p = 0.08;
                break;
            case kSystemRamp:
            case kOnRamp:
            case kOffRamp:
                p = 0.1;
                break;
            default:
                break;
        }
        if (!rng.chance(p)) continue;
        const SynthNode& a = r.nodes[l.a];
        const double u = urbanisation(r, a.x, a.y);
        const double daily = double(l.capacity) * l.lanes * 10.0 * rng.uniform(0.3, 0.8) *
                             (0.5 + 0.5 * std::min(1.0, u));
        l.count = std::max(50, static_cast<int32_t>(std::lround(daily)));
    }
}

int32_t grid_side(const Options& opt) {
    const double target = static_cast<double>(opt.links) - 4.0 * static_cast<double>(opt.zones);
    int32_t g = 8;
    while (expected_road_links(g + 1) <= target) ++g;
    if (g > 8 && target - expected_road_links(g) > expected_road_links(g + 1) - target) ++g;
    return g;
}

}  // namespace

double urbanisation(const Region& r, double x, double y) {
    double u = 0;
    for (const City& c : r.cities) {
        const double dx = x - c.x, dy = y - c.y;
        u += c.weight * std::exp(-(dx * dx + dy * dy) / (2 * c.sigma * c.sigma));
    }
    return std::min(u, kMaxUrban);
}

int32_t grid_node(const Region& r, int32_t col, int32_t row) {
    return r.first_grid_node + row * r.grid + col;
}

uint16_t county_at(const Region& r, double x, double y) {
    const int32_t col =
        std::clamp(static_cast<int32_t>(std::lround(x / r.spacing_mi)), 0, r.grid - 1);
    const int32_t row =
        std::clamp(static_cast<int32_t>(std::lround(y / r.spacing_mi)), 0, r.grid - 1);
    return r.cell_county[static_cast<size_t>(row) * r.grid + col];
}

bool build_region(const Options& opt, Region& r, std::string& error) {
    if (opt.zones < 2) {
        error = "--zones must be at least 2";
        return false;
    }
    if (opt.counties < 1) {
        error = "--counties must be at least 1";
        return false;
    }
    r.grid = grid_side(opt);
    if (opt.zones > 100000 || r.grid > 3000) {
        error = "sizes too large (at most 100000 zones and about 35 million links)";
        return false;
    }
    place_cities(r, opt.seed);
    if (!make_counties(r, opt.counties, opt.seed, error)) return false;
    place_zones(r, opt.zones, opt.seed);
    // Centroids take ids 1..zones, ahead of every road node.
    for (size_t i = 0; i < r.zones.size(); ++i) {
        Zone& z = r.zones[i];
        z.node = static_cast<int32_t>(r.nodes.size());
        SynthNode n;
        n.id = static_cast<int64_t>(i) + 1;
        n.x = z.x;
        n.y = z.y;
        n.county = z.county;
        r.nodes.push_back(n);
    }
    build_grid(r, opt.seed);
    add_freeways(r, opt.seed);
    settle_freeway_counties(r);
    if (opt.express_lane && !add_express_lanes(r, error)) return false;
    add_connectors(r);
    add_counts(r, opt.seed);
    return true;
}

}  // namespace torvex::synth
