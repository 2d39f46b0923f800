// Per-link side tables: lane use (truck bans, HOT and EV discounts) and time-of-day capacity.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "input/table_reader.h"
#include "run/log.h"
#include "toll/toll_tables.h"

namespace torvex {

namespace {

// (from index, to index) -> link index; a parallel link replaces its predecessor, so the last
// link of a node pair is the one a side table addresses.
using LinkPairMap = std::unordered_map<uint64_t, int32_t>;

uint64_t pair_key(int32_t from, int32_t to) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(from)) << 32) | static_cast<uint32_t>(to);
}

LinkPairMap build_link_pairs(const Network& net) {
    LinkPairMap map;
    map.reserve(net.links.size());
    for (int32_t i = 0; i < net.link_count(); ++i)
        map[pair_key(net.links[i].from, net.links[i].to)] = i;
    return map;
}

// Link addressed by the row's node ids, or -1 when a node or the link is unknown.
int32_t find_link(const Network& net, const LinkPairMap& pairs, FieldView a, FieldView b) {
    auto ia = net.node_index.find(field_i64(trim_right(a)));
    auto ib = net.node_index.find(field_i64(trim_right(b)));
    if (ia == net.node_index.end() || ib == net.node_index.end()) return -1;
    auto it = pairs.find(pair_key(ia->second, ib->second));
    return it == pairs.end() ? -1 : it->second;
}

void open_side_table(LineReader& reader, const std::string& what, const std::string& path,
                     HeaderMap& header) {
    if (!reader.is_open()) throw std::runtime_error("cannot open " + what + " file " + path);
    FieldView line;
    if (!reader.next_line(line)) throw std::runtime_error(path + ": empty");
    read_header(line, header);
}

// The truck ban is the default: only an explicit no clears it.
bool truck_ban(FieldView f) {
    std::string_view v = trim_right(f).view();
    return !(v == "0" || v == "N" || v == "n" || v == "no" || v == "false");
}

// Interval of a minute on the horizon, also for minutes far past its end.
int horizon_interval(double t_min) {
    return t_min >= static_cast<double>(kHorizonMin) ? kIntervals - 1
                                                     : interval_of(static_cast<float>(t_min));
}

float discount(FieldView f) {
    const double v = field_f64(f);
    if (!(v > 0.0)) return 0.0f;  // negatives and NaN
    return v > 0.95 ? 0.95f : static_cast<float>(v);
}

}  // namespace

void load_lane_use(const std::string& path, Network& net) {
    LineReader reader(path);
    HeaderMap header;
    open_side_table(reader, "lane-use", path, header);
    const int32_t c_a = any_column(header, {"A", "a_node", "from_node"});
    const int32_t c_b = any_column(header, {"B", "b_node", "to_node"});
    if (c_a < 0 || c_b < 0) throw std::runtime_error(path + ": need A,B columns");
    const int32_t c_trucks = any_column(header, {"no_trucks", "NO_TRUCKS", "truck_restrict"});
    const int32_t c_occ = any_column(header, {"hot_occ_min", "HOT_OCC_MIN"});
    const int32_t c_hot = any_column(header, {"hot_discount", "HOT_DISCOUNT"});
    const int32_t c_ev = any_column(header, {"ev_discount", "EV_DISCOUNT"});
    const size_t min_fields = static_cast<size_t>(std::max(c_a, c_b)) + 1;

    const LinkPairMap pairs = build_link_pairs(net);
    int set = 0, unmatched = 0;
    std::vector<FieldView> f;
    FieldView line;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_csv(line, f);
        if (f.size() < min_fields) continue;
        const int32_t li = find_link(net, pairs, f[c_a], f[c_b]);
        if (li < 0) {
            ++unmatched;
            continue;
        }
        Link& link = net.links[li];
        link.no_trucks = truck_ban(field_at(f, c_trucks)) ? 1 : 0;
        const FieldView occ = trim_right(field_at(f, c_occ));
        if (!occ.empty())
            link.hot_occ_min = static_cast<uint8_t>(std::max<int64_t>(field_i64(occ), 0));
        const FieldView hot = trim_right(field_at(f, c_hot));
        if (!hot.empty()) link.hot_discount = discount(hot);
        const FieldView ev = trim_right(field_at(f, c_ev));
        if (!ev.empty()) link.ev_discount = discount(ev);
        ++set;
    }
    progress("[lane-use] %d links set (no_trucks / HOT / EV discounts; %d unmatched) from %s\n",
             set, unmatched, path.c_str());
}

void load_capacity_schedule(const std::string& path, Network& net) {
    LineReader reader(path);
    HeaderMap header;
    open_side_table(reader, "capacity", path, header);
    const int32_t c_a = any_column(header, {"A", "a_node", "from_node"});
    const int32_t c_b = any_column(header, {"B", "b_node", "to_node"});
    const int32_t c_start = any_column(header, {"start_time", "StartTime", "start"});
    const int32_t c_end = any_column(header, {"end_time", "EndTime", "end"});
    if (c_a < 0 || c_b < 0 || c_start < 0 || c_end < 0)
        throw std::runtime_error(path + ": need A,B,start_time,end_time columns");
    const int32_t c_lanes = any_column(header, {"added_lanes", "lanes", "add_lanes"});
    const int32_t c_vph = any_column(header, {"added_vph", "vph", "add_vph"});
    const size_t min_fields = static_cast<size_t>(std::max({c_a, c_b, c_start, c_end})) + 1;

    const LinkPairMap pairs = build_link_pairs(net);
    int applied = 0, unmatched = 0;
    std::vector<FieldView> f;
    FieldView line;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_csv(line, f);
        if (f.size() < min_fields) continue;
        const int32_t li = find_link(net, pairs, f[c_a], f[c_b]);
        if (li < 0) {
            ++unmatched;
            continue;
        }
        const float start = parse_clock_minutes(trim_right(f[c_start]).view());
        const float end = parse_clock_minutes(trim_right(f[c_end]).view());
        if (start < 0.0f || end < 0.0f || !(end > start)) continue;

        const Link& link = net.links[li];
        const FieldView vph = trim_right(field_at(f, c_vph));
        float change;
        if (c_vph >= 0 && !vph.empty()) {
            change = static_cast<float>(field_f64(vph));
        } else {
            // A lane is worth the link's per-lane discharge rate, after discharge factors.
            const float lanes = static_cast<float>(field_f64(trim_right(field_at(f, c_lanes))));
            change = lanes * link.discharge_vph / static_cast<float>(std::max<int>(1, link.lanes));
        }

        auto [it, created] = net.capacity_schedules.try_emplace(li);
        if (created) {
            it->second.fill(link.discharge_vph);
            net.links[li].has_capacity_schedule = 1;
        }
        const int first = horizon_interval(start);
        // The 0.001 keeps an end on an interval boundary out of the following interval.
        const int last = horizon_interval(static_cast<double>(end) - 0.001);
        for (int k = first; k <= last; ++k) it->second[k] = std::max(0.0f, it->second[k] + change);
        ++applied;
    }
    progress("[capacity] %d time-of-day schedules on %zu links (%d unmatched) from %s\n", applied,
             net.capacity_schedules.size(), unmatched, path.c_str());
}

}  // namespace torvex
