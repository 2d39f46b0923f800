#include "input/network.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "input/table_reader.h"

namespace torvex {

namespace {

// Yes-flags of the LINK file: exactly "1", "Y", "y" or "yes" after right-trimming.
bool flag_on(FieldView f) {
    std::string_view v = trim_right(f).view();
    return v == "1" || v == "Y" || v == "y" || v == "yes";
}

// Opens a table and reads its header line; raises the loader's open and empty errors.
void open_table(LineReader& reader, const std::string& path, HeaderMap& header) {
    if (!reader.is_open()) throw std::runtime_error("cannot open " + path);
    FieldView line;
    if (!reader.next_line(line)) throw std::runtime_error(path + ": empty");
    read_header(line, header);
}

void load_nodes(Network& net, const std::string& path) {
    LineReader reader(path);
    HeaderMap header;
    open_table(reader, path, header);
    const int32_t c_n = required_column(header, "N", path);
    const int32_t c_x = required_column(header, "X", path);
    const int32_t c_y = required_column(header, "Y", path);
    const int32_t c_type = any_column(header, {"DTA_Type", "DTA_TYPE", "dta_type"});

    std::vector<FieldView> f;
    FieldView line;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_csv(line, f);
        Node node;
        node.node_id = field_i64(field_at(f, c_n));
        node.x = static_cast<float>(field_f64(field_at(f, c_x)));
        node.y = static_cast<float>(field_f64(field_at(f, c_y)));
        FieldView type = trim_right(field_at(f, c_type));
        if (!type.empty()) node.dta_type = static_cast<uint16_t>(field_i64(type));
        net.node_index.emplace(node.node_id, static_cast<int32_t>(net.nodes.size()));
        net.nodes.push_back(std::move(node));
    }
}

struct LinkColumns {
    int32_t a, b, distance, lanes, capacity, ftype;
    int32_t speed, postspeed, toll, toll_policy, no_trucks, county, count, nsignals;
    int32_t meso, micro, alpha, beta;
};

LinkColumns link_columns(const HeaderMap& h, const std::string& path) {
    LinkColumns c;
    c.a = required_column(h, "A", path);
    c.b = required_column(h, "B", path);
    c.distance = required_column(h, {"DISTANCE", "DIST"}, path);
    c.lanes = required_column(h, "NLANES", path);
    c.capacity = required_column(h, "CAPACITY", path);
    c.ftype = required_column(h, "FTYPE", path);
    c.speed = any_column(h, {"SPEED"});
    c.postspeed = any_column(h, {"POSTSPEED"});
    c.toll = any_column(h, {"TOLL"});
    c.toll_policy = any_column(h, {"toll_policy", "TOLL_POLICY", "toll_policy_id"});
    c.no_trucks = any_column(h, {"no_trucks", "NO_TRUCKS", "truck_restrict", "el_no_truck"});
    c.county = any_column(h, {"from_county"});
    c.count = any_column(h, {"KVD_COUNT_24", "ORLv5.COUNT_24", "COUNT", "COUNT_24"});
    c.nsignals = any_column(h, {"NSignals", "NSignals.x", "NSignals.y", "nsignals"});
    c.meso = any_column(h, {"dta_meso", "DTA_MESO", "meso"});
    c.micro = any_column(h, {"dta_micro", "DTA_MICRO", "micro"});
    c.alpha = any_column(h, {"ALPHA"});
    c.beta = any_column(h, {"BETA"});
    return c;
}

void load_links(Network& net, const std::string& path) {
    LineReader reader(path);
    HeaderMap header;
    open_table(reader, path, header);
    const LinkColumns c = link_columns(header, path);

    std::vector<FieldView> f;
    FieldView line;
    size_t skipped = 0;
    long long meso_tagged = 0, micro_tagged = 0;
    Link link;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_csv(line, f);
        link = Link{};
        link.a_node = field_i64(field_at(f, c.a));
        link.b_node = field_i64(field_at(f, c.b));
        auto ia = net.node_index.find(link.a_node);
        auto ib = net.node_index.find(link.b_node);
        if (ia == net.node_index.end() || ib == net.node_index.end()) {
            ++skipped;
            continue;
        }
        link.from = ia->second;
        link.to = ib->second;
        link.length_mi = static_cast<float>(field_f64(field_at(f, c.distance)));
        const int64_t lanes = field_i64(field_at(f, c.lanes));
        link.lanes = lanes < 2 ? 1 : static_cast<uint8_t>(lanes);
        link.ftype = static_cast<uint16_t>(field_i64(field_at(f, c.ftype)));
        link.is_connector = link.ftype == 51;

        float speed = 0;
        const float posted_first =
            c.speed >= 0 ? static_cast<float>(field_f64(field_at(f, c.speed))) : 0;
        if (c.speed >= 0 && posted_first > 0)
            speed = posted_first;
        else if (c.postspeed >= 0)
            speed = static_cast<float>(field_f64(field_at(f, c.postspeed)));
        link.speed_mph = std::max(5.0f, speed);
        link.free_flow_min = link.length_mi / link.speed_mph * 60.0f;

        const float cap_lane = static_cast<float>(field_f64(field_at(f, c.capacity)));
        link.capacity_vph = std::max(1.0f, cap_lane) * static_cast<float>(link.lanes);
        link.discharge_vph = link.capacity_vph;

        if (c.toll >= 0) link.toll = static_cast<float>(field_f64(field_at(f, c.toll)));
        FieldView v = trim_right(field_at(f, c.toll_policy));
        if (!v.empty()) link.toll_policy = static_cast<uint16_t>(field_i64(v));
        v = trim_right(field_at(f, c.no_trucks));
        if (!v.empty()) link.no_trucks = flag_on(v);
        v = trim_right(field_at(f, c.count));
        if (!v.empty()) {
            const double count = field_f64(v);
            if (count > 0) link.count = static_cast<float>(count);
        }
        v = trim_right(field_at(f, c.nsignals));
        if (!v.empty()) {
            const int64_t n = field_i64(v);
            link.nsignals = n < 1 ? 0 : static_cast<uint16_t>(n);
        }
        if (c.alpha >= 0) link.alpha = static_cast<float>(field_f64(field_at(f, c.alpha)));
        if (c.beta >= 0) link.beta = static_cast<float>(field_f64(field_at(f, c.beta)));
        if (flag_on(field_at(f, c.meso))) {
            link.flow_tier = kTierMeso;
            ++meso_tagged;
        }
        if (flag_on(field_at(f, c.micro))) {
            link.dta_micro = 1;
            ++micro_tagged;
        }
        link.storage_veh = std::max(1.0f, link.length_mi * 240.0f * static_cast<float>(link.lanes));
        v = trim_right(field_at(f, c.county));
        if (!v.empty()) {
            std::string name(v.data, v.size);
            auto it = net.county_index.find(name);
            if (it == net.county_index.end()) {
                const auto id = static_cast<uint16_t>(net.county_names.size());
                it = net.county_index.emplace(name, id).first;
                net.county_names.push_back(std::move(name));
            }
            link.county = it->second;
        }
        std::fill(std::begin(link.travel_time_min), std::end(link.travel_time_min),
                  link.free_flow_min);
        net.links.push_back(link);
    }
    if (skipped > 0)
        std::fprintf(stderr, "[network] warning: %zu links skipped (endpoint not in NODE.csv)\n",
                     skipped);
    // One condition for both lines: a run that tags either kind reports both counts.
    if (meso_tagged > 0 || micro_tagged > 0) {
        std::printf("[network] %lld links tagged MESO via dta_meso column\n", meso_tagged);
        std::printf("[network] %lld links tagged MICRO via dta_micro column\n", micro_tagged);
    }
}

void mark_centroids(Network& net) {
    for (Node& n : net.nodes) {
        bool any = false, all_connectors = true;
        for (int32_t l : n.out_links) any = true, all_connectors &= net.links[l].is_connector != 0;
        for (int32_t l : n.in_links) any = true, all_connectors &= net.links[l].is_connector != 0;
        n.is_centroid = any && all_connectors;
    }
}

// Counties come from links only: nodes take the most common county of their links (lowest id on
// a tie), links without one take it from their ends, then leftover nodes from their links.
void spread_counties(Network& net) {
    std::vector<int32_t> tally(net.county_names.size(), 0);
    std::vector<uint16_t> seen;
    for (Node& n : net.nodes) {
        seen.clear();
        auto add = [&](int32_t l) {
            uint16_t c = net.links[l].county;
            if (c == kNoCounty) return;
            if (tally[c]++ == 0) seen.push_back(c);
        };
        for (int32_t l : n.out_links) add(l);
        for (int32_t l : n.in_links) add(l);
        int32_t best_count = 0;
        for (uint16_t c : seen) {
            if (tally[c] > best_count || (tally[c] == best_count && c < n.county)) {
                best_count = tally[c];
                n.county = c;
            }
        }
        for (uint16_t c : seen) tally[c] = 0;
    }
    for (Link& l : net.links) {
        if (l.county != kNoCounty) continue;
        const uint16_t cf = net.nodes[l.from].county;
        const uint16_t ct = net.nodes[l.to].county;
        if (ct != kNoCounty && net.nodes[l.from].is_centroid)
            l.county = ct;
        else
            l.county = cf != kNoCounty ? cf : ct;
    }
    for (Node& n : net.nodes) {
        if (n.county != kNoCounty) continue;
        for (int32_t l : n.out_links)
            if (net.links[l].county != kNoCounty) {
                n.county = net.links[l].county;
                break;
            }
        if (n.county != kNoCounty) continue;
        for (int32_t l : n.in_links)
            if (net.links[l].county != kNoCounty) {
                n.county = net.links[l].county;
                break;
            }
    }
}

}  // namespace

void build_adjacency(Network& net) {
    for (Node& n : net.nodes) {
        n.out_links.clear();
        n.in_links.clear();
    }
    for (int32_t i = 0; i < net.link_count(); ++i) {
        net.nodes[net.links[i].from].out_links.push_back(i);
        net.nodes[net.links[i].to].in_links.push_back(i);
    }
}

Network load_network(const std::string& node_path, const std::string& link_path) {
    Network net;
    load_nodes(net, node_path);
    load_links(net, link_path);
    build_adjacency(net);
    mark_centroids(net);
    spread_counties(net);
    return net;
}

CountyAdjacency build_county_adjacency(const Network& net) {
    CountyAdjacency adj;
    adj.n = static_cast<int32_t>(net.county_names.size());
    adj.touches.assign(static_cast<size_t>(adj.n) * adj.n, 0);
    auto mark = [&](uint16_t i, uint16_t j) {
        if (i == kNoCounty || j == kNoCounty || i == j) return;
        if (i >= adj.n || j >= adj.n) return;
        adj.touches[static_cast<size_t>(i) * adj.n + j] = 1;
        adj.touches[static_cast<size_t>(j) * adj.n + i] = 1;
    };
    for (const Link& l : net.links) {
        const uint16_t cf = net.nodes[l.from].county, ct = net.nodes[l.to].county;
        mark(cf, ct);
        mark(l.county, cf);
        mark(l.county, ct);
    }
    return adj;
}

int8_t county_scope(int16_t origin_county, int16_t dest_county, const CountyAdjacency& adj) {
    if (origin_county < 0 || dest_county < 0) return 2;
    if (origin_county == dest_county) return 0;
    if (origin_county < adj.n && dest_county < adj.n && adj.adjacent(origin_county, dest_county))
        return 1;
    return 2;
}

}  // namespace torvex
