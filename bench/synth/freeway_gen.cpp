// Freeways with diamond interchanges and system ramps, and the optional express-lane facility.
#include <algorithm>
#include <cmath>

#include "rng.h"
#include "synth.h"

namespace torvex::synth {

namespace {

constexpr uint64_t kFreewayStream = 5;

struct Freeway {
    bool north_south = true;
    int32_t line = 0;  // runs between grid lines `line` and `line + 1`
    uint16_t ftype = kInterstate;
    std::vector<std::pair<double, int32_t>> stops;  // (position along, node index)
};

int32_t add_node(Region& r, double x, double y) {
    SynthNode n;
    n.id = r.nodes.back().id + 1;
    n.x = x;
    n.y = y;
    n.county = county_at(r, x, y);
    r.nodes.push_back(n);
    return static_cast<int32_t>(r.nodes.size()) - 1;
}

double distance(const Region& r, int32_t a, int32_t b) {
    const double dx = r.nodes[a].x - r.nodes[b].x, dy = r.nodes[a].y - r.nodes[b].y;
    return std::sqrt(dx * dx + dy * dy);
}

void add_pair(Region& r, int32_t a, int32_t b, float length, uint16_t ftype, uint8_t lanes,
              uint8_t speed, uint16_t cap) {
    for (int dir = 0; dir < 2; ++dir) {
        SynthLink l;
        l.a = dir == 0 ? a : b;
        l.b = dir == 0 ? b : a;
        l.length_mi = length;
        l.ftype = ftype;
        l.lanes = lanes;
        l.speed_mph = speed;
        l.capacity = cap;
        l.county = r.nodes[l.a].county;
        r.links.push_back(l);
    }
}

void add_one(Region& r, int32_t a, int32_t b, float length, uint16_t ftype, uint8_t lanes,
             uint8_t speed, uint16_t cap, uint8_t policy) {
    SynthLink l;
    l.a = a;
    l.b = b;
    l.length_mi = length;
    l.ftype = ftype;
    l.lanes = lanes;
    l.speed_mph = speed;
    l.capacity = cap;
    l.toll_policy = policy;
    l.county = r.nodes[a].county;
    r.links.push_back(l);
}

bool arterial_line(int32_t i) {
    return (i + 2) % 4 == 0;
}
bool principal_line(int32_t i) {
    return (i + 2) % 8 == 0;
}

}  // namespace

void add_freeways(Region& r, uint64_t seed) {
    Rng rng(seed, kFreewayStream);
    const int32_t g = r.grid;
    const double sp = r.spacing_mi;
    const int32_t per_axis = std::max(1, static_cast<int32_t>(std::lround(g / 36.0)));
    std::vector<Freeway> fw;
    for (int axis = 0; axis < 2; ++axis) {
        for (int32_t k = 0; k < per_axis; ++k) {
            Freeway f;
            f.north_south = axis == 0;
            const double spread = static_cast<double>(g) / per_axis;
            const double at = (k + 0.5) * spread + rng.uniform(-0.12, 0.12) * spread;
            f.line = std::clamp(static_cast<int32_t>(at), 1, g - 3);
            f.ftype = ((k + axis) % 2 == 0) ? kInterstate : kFreeway;
            fw.push_back(f);
        }
    }
    // Interchanges at arterial crossings: every arterial in town, every principal one outside.
    int32_t first_art = 0, last_art = 0;
    for (int32_t i = 0; i < g; ++i)
        if (arterial_line(i)) last_art = i;
    while (!arterial_line(first_art)) ++first_art;
    std::vector<std::vector<std::pair<int32_t, int32_t>>> ramps_at(fw.size());
    for (size_t k = 0; k < fw.size(); ++k) {
        Freeway& f = fw[k];
        const double across = (f.line + 0.5) * sp;
        for (int32_t i = first_art; i <= last_art; i += 4) {
            const double along = i * sp;
            const double x = f.north_south ? across : along, y = f.north_south ? along : across;
            if (!(i == first_art || i == last_art || principal_line(i) ||
                  urbanisation(r, x, y) > 0.3))
                continue;
            const int32_t node = add_node(r, x, y);
            f.stops.push_back({along, node});
            ramps_at[k].push_back({node, i});
            ++r.interchanges;
        }
    }
    // System interchanges where freeways cross: one node on each, joined by ramps both ways.
    std::vector<std::pair<int32_t, int32_t>> system;
    for (Freeway& ns : fw) {
        if (!ns.north_south) continue;
        for (Freeway& ew : fw) {
            if (ew.north_south) continue;
            const double x = (ns.line + 0.5) * sp, y = (ew.line + 0.5) * sp;
            const int32_t a = add_node(r, x, y);
            const int32_t b = add_node(r, x + 0.03, y - 0.03);
            ns.stops.push_back({y, a});
            ew.stops.push_back({x, b});
            system.push_back({a, b});
        }
    }
    for (size_t k = 0; k < fw.size(); ++k) {
        Freeway& f = fw[k];
        std::sort(f.stops.begin(), f.stops.end());
        for (size_t s = 0; s + 1 < f.stops.size(); ++s) {
            const int32_t a = f.stops[s].second, b = f.stops[s + 1].second;
            const SynthNode &na = r.nodes[a], &nb = r.nodes[b];
            const double u = urbanisation(r, 0.5 * (na.x + nb.x), 0.5 * (na.y + nb.y));
            const int tier = u > 0.7 ? 2 : (u > 0.3 ? 1 : 0);
            uint8_t lanes = static_cast<uint8_t>(2 + tier);
            uint8_t speed = static_cast<uint8_t>(70 - 5 * tier);
            uint16_t cap = 2000;
            if (f.ftype == kFreeway) {
                lanes = static_cast<uint8_t>(std::max(2, lanes - 1));
                speed = static_cast<uint8_t>(speed - 5);
                cap = 1900;
            }
            const auto len = static_cast<float>(distance(r, a, b) * rng.uniform(1.0, 1.04));
            add_pair(r, a, b, len, f.ftype, lanes, speed, cap);
        }
        // Diamond ramps to the arterial on both sides of the freeway.
        for (const auto& [node, i] : ramps_at[k]) {
            const int32_t side_a =
                f.north_south ? grid_node(r, f.line, i) : grid_node(r, i, f.line);
            const int32_t side_b =
                f.north_south ? grid_node(r, f.line + 1, i) : grid_node(r, i, f.line + 1);
            const double u = urbanisation(r, r.nodes[node].x, r.nodes[node].y);
            const uint8_t lanes = u > 0.7 ? 2 : 1;
            const uint8_t speed = u > 0.3 ? 35 : 45;
            for (int32_t side : {side_a, side_b}) {
                const auto len = static_cast<float>(distance(r, node, side) + 0.1);
                add_one(r, node, side, len, kOffRamp, lanes, speed, 1500, 0);
                add_one(r, side, node, len, kOnRamp, lanes, speed, 1400, 0);
            }
        }
    }
    for (const auto& [a, b] : system) {
        const uint8_t lanes = urbanisation(r, r.nodes[a].x, r.nodes[a].y) > 0.3 ? 2 : 1;
        add_pair(r, a, b, 0.4f, kSystemRamp, lanes, 45, 1800);
    }
    r.freeway_count = static_cast<int32_t>(fw.size());
    r.first_freeway.clear();
    for (const auto& s : fw[0].stops) r.first_freeway.push_back(s.second);
}

// Express lanes along the most urban stretch of the first freeway, one facility per direction.
// Each runs from a decision node (an ingress link leaves it) to a merge (an egress link enters
// it); the two facilities use different end nodes so that no node is both.
bool add_express_lanes(Region& r, std::string& error) {
    const std::vector<int32_t>& f = r.first_freeway;
    const int32_t m = static_cast<int32_t>(f.size());
    if (m < 4) {
        error = "--express-lane needs a freeway with at least 4 interchanges; give more --links";
        return false;
    }
    const int32_t span = std::clamp(m / 2, 3, 8);
    int32_t start = 0;
    double best = -1;
    for (int32_t i = 0; i + span < m; ++i) {
        const SynthNode& c = r.nodes[f[i + span / 2]];
        const double u = urbanisation(r, c.x, c.y);
        if (u > best) {
            best = u;
            start = i;
        }
    }
    const int32_t end = start + span;
    // An express road lies wholly in the county of its decision node: its nodes then stay
    // joined to that county, as each has one link in and one out.
    auto mid = [&](int32_t t, double dx, int32_t decision) {
        const SynthNode &a = r.nodes[f[t]], &b = r.nodes[f[t + 1]];
        const int32_t node = add_node(r, 0.5 * (a.x + b.x) + dx, 0.5 * (a.y + b.y));
        r.nodes[node].county = r.nodes[decision].county;
        return node;
    };
    auto leg = [&](int32_t a, int32_t b) { return static_cast<float>(distance(r, a, b)); };
    const size_t links_before = r.links.size();
    // Northbound: decision node f[start], merge f[end].
    std::vector<int32_t> chain{f[start]};
    for (int32_t t = start; t < end; ++t) chain.push_back(mid(t, 0.04, f[start]));
    chain.push_back(f[end]);
    // Southbound: decision node f[end - 1], merge f[start + 1].
    std::vector<int32_t> back{f[end - 1]};
    for (int32_t t = end - 2; t >= start + 1; --t) back.push_back(mid(t, -0.04, f[end - 1]));
    back.push_back(f[start + 1]);
    const uint8_t policy[2] = {1, 2};  // density-responsive northbound, time of day southbound
    int dir = 0;
    for (const std::vector<int32_t>* c : {&chain, &back}) {
        const size_t n = c->size();
        for (size_t s = 0; s + 1 < n; ++s) {
            const int32_t a = (*c)[s], b = (*c)[s + 1];
            if (s == 0)
                add_one(r, a, b, leg(a, b), kExpressIngress, 1, 55, 1600, policy[dir]);
            else if (s + 2 == n)
                add_one(r, a, b, leg(a, b), kExpressEgress, 1, 55, 1600, policy[dir]);
            else
                add_one(r, a, b, leg(a, b), kExpressMain, 2, 65, 1800, policy[dir]);
        }
        r.nodes[c->front()].dta_type = kDecisionNodeType;
        r.nodes[c->back()].dta_type = kMergeNodeType;
        ++dir;
    }
    r.express_links = static_cast<int32_t>(r.links.size() - links_before);
    return true;
}

}  // namespace torvex::synth
