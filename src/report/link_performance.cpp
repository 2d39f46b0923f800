// Link performance files: one row per link and interval that carried volume or held a queue, with
// optional per-category volume columns (market, purpose or segment) sharing out the row's volume.
#include <string>
#include <vector>

#include "report/csv_out.h"
#include "report/outputs.h"
#include "report/path_walk.h"
#include "toll/toll_tables.h"

namespace torvex {

namespace {

const std::vector<std::string>* category_names(const TripTable& trips, VolumeBreakdown b) {
    switch (b) {
        case VolumeBreakdown::market:
            return &trips.market_names;
        case VolumeBreakdown::purpose:
            return &trips.purpose_names;
        case VolumeBreakdown::segment:
            return &trips.segment_names;
        case VolumeBreakdown::none:
            break;
    }
    return nullptr;
}

inline uint32_t trip_category(const Trip& t, VolumeBreakdown b) {
    return b == VolumeBreakdown::market ? t.market
                                        : (b == VolumeBreakdown::purpose ? t.purpose : t.segment);
}

// Plain trip weights (not PCE) of every category walked along each key's path, for the links in
// scope only: row_of maps a link to its block of 120 * n_cat cells, -1 when out of scope.
std::vector<float> build_category_table(const Network& net, const TripTable& trips,
                                        const std::vector<int32_t>& arena, VolumeBreakdown b,
                                        uint32_t n_cat, const std::vector<int32_t>& row_of,
                                        size_t rows) {
    std::vector<float> cat(rows * kIntervals * n_cat, 0.0f);
    // The trips of each key in table order, so that a key's category list is built first-come.
    const size_t n_keys = trips.route_keys.size();
    std::vector<uint32_t> first(n_keys + 1, 0);
    for (const Trip& t : trips.trips)
        if (t.route_key >= 0) ++first[static_cast<size_t>(t.route_key) + 1];
    for (size_t k = 0; k < n_keys; ++k) first[k + 1] += first[k];
    std::vector<uint32_t> fill(first.begin(), first.end() - 1);
    std::vector<uint32_t> order(first[n_keys]);
    for (size_t ti = 0; ti < trips.trips.size(); ++ti) {
        const int32_t k = trips.trips[ti].route_key;
        if (k >= 0) order[fill[k]++] = static_cast<uint32_t>(ti);
    }

    const int n_sub = sub_slots(trips.slot_minutes);
    if (n_sub <= 0) return cat;
    std::vector<uint32_t> pair_cat;
    std::vector<float> pair_weight;
    pair_cat.reserve(n_cat);
    pair_weight.reserve(n_cat);
    for (size_t k = 0; k < n_keys; ++k) {
        const RouteKey& key = trips.route_keys[k];
        if (key.path_offset < 0 || key.n_links == 0 || first[k] == first[k + 1]) continue;
        pair_cat.clear();
        pair_weight.clear();
        for (uint32_t at = first[k]; at < first[k + 1]; ++at) {
            const Trip& t = trips.trips[order[at]];
            const uint32_t c = trip_category(t, b);
            if (c >= n_cat) continue;
            size_t p = 0;
            while (p < pair_cat.size() && pair_cat[p] != c) ++p;
            if (p == pair_cat.size()) {
                pair_cat.push_back(c);
                pair_weight.push_back(t.weight);
            } else {
                pair_weight[p] += t.weight;
            }
        }
        for (float& w : pair_weight) w /= static_cast<float>(n_sub);
        const size_t n_pairs = pair_cat.size();
        walk_key_path(
            net, arena.data() + key.path_offset, key.n_links, key.slot, trips.slot_minutes,
            [&](int32_t l, int i) {
                const int32_t row = row_of[l];
                if (row < 0) return;
                float* cell = cat.data() + (static_cast<size_t>(row) * kIntervals + i) * n_cat;
                for (size_t p = 0; p < n_pairs; ++p) cell[pair_cat[p]] += pair_weight[p];
            },
            [&](int32_t l, int i) {
                const int32_t row = row_of[l];
                if (row >= 0)
                    __builtin_prefetch(
                        cat.data() + (static_cast<size_t>(row) * kIntervals + i) * n_cat, 1);
            });
    }
    return cat;
}

}  // namespace

void write_link_performance(const std::string& path, const Network& network, const TripTable& trips,
                            const std::vector<int32_t>& path_arena, VolumeBreakdown breakdown,
                            LinkOutputScope scope) {
    CsvOut out;
    csv_open(out, path);
    const std::vector<std::string>* names = category_names(trips, breakdown);
    const uint32_t n_cat = names ? static_cast<uint32_t>(names->size()) : 0;

    std::string header =
        "a_node,b_node,county,ftype,hour,interval,volume,travel_time_min,speed_mph,queue_veh,"
        "toll_rate";
    for (uint32_t c = 0; c < n_cat; ++c) header += ",vol_" + (*names)[c];
    header += '\n';
    csv_text(out, header);

    const int32_t n_links = network.link_count();
    std::vector<int32_t> row_of(n_links, -1);
    size_t rows = 0;
    for (int32_t l = 0; l < n_links; ++l)
        if (link_in_scope(network.links[l], scope)) row_of[l] = static_cast<int32_t>(rows++);
    std::vector<float> cat;
    if (n_cat > 0 && rows > 0)
        cat = build_category_table(network, trips, path_arena, breakdown, n_cat, row_of, rows);

    for (int32_t l = 0; l < n_links; ++l) {
        if (row_of[l] < 0) continue;
        const Link& link = network.links[l];
        // The link's leading fields are the same on each of its rows.
        std::string lead;
        {
            char buf[96];
            char* p = put_i64(buf, link.a_node);
            *p++ = ',';
            p = put_i64(p, link.b_node);
            *p++ = ',';
            lead.assign(buf, p);
            if (link.county != kNoCounty && link.county < network.county_names.size())
                lead += network.county_names[link.county];
            p = buf;
            *p++ = ',';
            p = put_i64(p, link.ftype);
            *p++ = ',';
            lead.append(buf, p);
        }
        const size_t room = lead.size() + (8 + n_cat) * (kNumberRoom + 1);
        const float* cat_row =
            cat.empty() ? nullptr
                        : cat.data() + static_cast<size_t>(row_of[l]) * kIntervals * n_cat;
        for (int i = 0; i < kIntervals; ++i) {
            const float vol = link.volume[i];
            const float queue = link.queue_veh[i];
            if (!(vol > 0.0f) && !(queue > 0.0f)) continue;
            const float tt = link.travel_time_min[i];
            const float speed = tt > 0.0f ? link.length_mi / (tt / 60.0f) : link.speed_mph;
            const float toll = evaluate_toll(network, link, i);
            char* p = csv_room(out, room);
            p = put_str(p, lead);
            p = put_u64(p, static_cast<uint64_t>(i / 4));
            *p++ = ',';
            p = put_u64(p, static_cast<uint64_t>(i));
            *p++ = ',';
            p = put_fixed(p, vol, 2);
            *p++ = ',';
            p = put_fixed(p, tt, 3);
            *p++ = ',';
            p = put_fixed(p, speed, 2);
            *p++ = ',';
            p = put_fixed(p, queue, 2);
            *p++ = ',';
            p = put_fixed(p, toll, 2);
            if (n_cat > 0) {
                const float* c = cat_row + static_cast<size_t>(i) * n_cat;
                float s = 0.0f;
                for (uint32_t k = 0; k < n_cat; ++k) s += c[k];
                for (uint32_t k = 0; k < n_cat; ++k) {
                    *p++ = ',';
                    p = put_fixed(p, s > 0.0f ? (vol / s) * c[k] : 0.0f, 2);
                }
            }
            *p++ = '\n';
            out.cur = p;
        }
    }
    csv_close(out);
}

}  // namespace torvex
