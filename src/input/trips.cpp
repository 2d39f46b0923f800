#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "input/network.h"
#include "input/table_reader.h"
#include "input/trip_memory.h"
#include "input/trip_table.h"
#include "run/log.h"
#include "toll/toll_tables.h"

namespace torvex {

namespace {

enum class Departure { clock, period, hour };

struct TripColumns {
    int32_t o = -1, d = -1, depart = -1, veh_trips = -1;
    int32_t hh = -1, person = -1, tour = -1, trip = -1, vot = -1;
    int32_t purpose = -1, market = -1, market_vot = -1, occupancy = -1, vehicle_type = -1;
    Departure encoding = Departure::hour;
};

TripColumns trip_columns(const HeaderMap& h, const std::string& path, TripTable& table) {
    TripColumns c;
    c.o = any_column(h, {"O"});
    c.d = any_column(h, {"D"});
    static const char* const kClock[] = {"depart_time", "departure_time", "dep_time", "start_time"};
    for (const char* name : kClock) {
        c.depart = any_column(h, {name});
        if (c.depart >= 0) {
            progress("[trips] departure field: HH:MM:SS clock (%s)\n", name);
            c.encoding = Departure::clock;
            table.slot_minutes = 30.0f;
            table.num_slots = 60;
            break;
        }
    }
    if (c.depart < 0) {
        c.depart = any_column(h, {"period"});
        if (c.depart >= 0) {
            progress("[trips] departure field: 30-min periods (1..48 in-day, up to %d)\n", 59);
            c.encoding = Departure::period;
            table.slot_minutes = 30.0f;
            table.num_slots = 60;
        } else {
            progress("[trips] departure field: 1-based hours\n");
            c.depart = any_column(h, {"hour"});
            c.encoding = Departure::hour;
            table.slot_minutes = 60.0f;
            table.num_slots = 30;
        }
    }
    if (c.o < 0 || c.d < 0 || c.depart < 0)
        throw std::runtime_error(path + ": missing O/D and depart_time/period/hour columns");
    c.veh_trips = any_column(h, {"vehTrips"});
    c.hh = any_column(h, {"hh_id"});
    c.person = any_column(h, {"person_id"});
    c.tour = any_column(h, {"tour_id"});
    c.trip = any_column(h, {"trip_id"});
    c.vot = any_column(h, {"valueOfTime"});
    c.purpose = any_column(h, {"purpose"});
    c.market = any_column(h, {"market"});
    c.market_vot = any_column(h, {"marketVot"});
    c.occupancy = any_column(h, {"occupancy", "OCCUPANCY"});
    c.vehicle_type = any_column(h, {"vehicle_type", "is_ev", "ev"});
    return c;
}

// Id of a name, copying the text only the first time it is seen. The last id found is tried
// first: consecutive rows mostly repeat their names.
struct Interner {
    std::vector<std::string>& names;
    NameIndex& index;
    int last = -1;

    uint8_t id(std::string_view text) {
        if (last >= 0 && names[last] == text) return static_cast<uint8_t>(last);
        if (names.size() <= 16) {  // a short scan beats hashing the text
            for (size_t i = 0; i < names.size(); ++i)
                if (names[i] == text) return static_cast<uint8_t>(last = static_cast<int>(i));
        } else {
            auto it = index.find(text);
            if (it != index.end()) {
                last = it->second;
                return it->second;
            }
        }
        const uint8_t id = static_cast<uint8_t>(names.size());
        names.emplace_back(text);
        index.emplace(names.back(), id);
        last = static_cast<int>(names.size()) - 1;
        return id;
    }
};

// Node ids to indices as node_index has them; a direct table when the ids are dense enough.
struct NodeLookup {
    const std::unordered_map<int64_t, int32_t>& map;
    uint64_t base = 0;
    std::vector<int32_t> dense;

    explicit NodeLookup(const std::unordered_map<int64_t, int32_t>& m) : map(m) {
        if (m.empty()) return;
        int64_t lo = m.begin()->first, hi = lo;
        for (const auto& [id, index] : m) lo = std::min(lo, id), hi = std::max(hi, id);
        const uint64_t span = static_cast<uint64_t>(hi) - static_cast<uint64_t>(lo);
        if (span >= 4 * static_cast<uint64_t>(m.size()) + 4096) return;
        base = static_cast<uint64_t>(lo);
        dense.assign(span + 1, -1);
        for (const auto& [id, index] : m) dense[static_cast<uint64_t>(id) - base] = index;
    }
    int32_t find(int64_t id) const {
        if (!dense.empty()) {
            const uint64_t off = static_cast<uint64_t>(id) - base;
            return off < dense.size() ? dense[off] : -1;
        }
        auto it = map.find(id);
        return it == map.end() ? -1 : it->second;
    }
};

// Room for the whole file in `trips`, judged from the bytes per row so far; for gzip the text
// size is the file size times the inflate ratio so far. Unused room is never touched.
void reserve_trips(const std::string& path, const LineReader& reader, int64_t row_bytes,
                   int64_t rows, int64_t max_trips, int32_t sample_every, TripTable& table) {
    std::error_code ec;
    const double file_bytes = static_cast<double>(std::filesystem::file_size(path, ec));
    if (ec || rows <= 0 || row_bytes <= 0) return;
    double text_bytes = file_bytes;
    if (reader.gzip) {
        if (!reader.zs || reader.zs->total_in == 0) return;
        text_bytes *= static_cast<double>(reader.zs->total_out) / reader.zs->total_in;
    }
    double want = text_bytes / (static_cast<double>(row_bytes) / rows) * 1.05 + 1024;
    if (sample_every > 1) want /= sample_every;
    if (max_trips >= 1) want = std::min(want, static_cast<double>(max_trips));
    want = std::min(want, text_bytes / 6 + 1024);  // no data row is shorter than "1,2,3\n"
    // Keys never outnumber trips; room that stays unused is never touched. The room is only a
    // help: when it cannot be had the vectors grow as usual.
    try {
        reserve_large(table.trips, static_cast<size_t>(want));
        reserve_large(table.route_keys, static_cast<size_t>(want));
    } catch (const std::exception&) {
    }
}

// A parsed row waiting for its route key.
struct PendingRow {
    Trip trip;
    uint64_t identity = 0;
    int32_t origin = 0;
    int32_t dest = 0;
    uint8_t slot = 0;
    bool live = false;
};

bool ev_flag(FieldView f) {
    const std::string_view v = trim_right(f).view();
    return v == "1" || v == "EV" || v == "ev" || v == "electric" || v == "Y" || v == "y" ||
           v == "true";
}

uint8_t occupancy_of(double v) {
    const double r = std::floor(v + 0.5);
    if (!(r >= 1.0)) return 1;  // also NaN
    if (r > 255.0) return 255;
    return static_cast<uint8_t>(r);
}

// Slot of a clock departure, saturated so that absurd day prefixes stay comparable.
int64_t clock_slot(float minutes, float slot_minutes) {
    const double q = std::trunc(static_cast<double>(minutes / slot_minutes));
    if (!(q < 9.0e18)) return INT64_MAX;
    return static_cast<int64_t>(q);
}

struct HourRange {
    bool seen = false;
    void reject(TripLoadSummary& s, int64_t value) {
        ++s.bad_hour;
        if (!seen || value < s.bad_hour_min) s.bad_hour_min = value;
        if (!seen || value > s.bad_hour_max) s.bad_hour_max = value;
        seen = true;
    }
};

}  // namespace

TripLoadSummary load_trips(const std::string& path, const Network& network, TripTable& table,
                           int64_t max_trips, const CountyAdjacency& adjacency,
                           int32_t sample_every) {
    LineReader reader(path);
    if (!reader.is_open()) throw std::runtime_error("cannot open " + path);
    FieldView line;
    if (!reader.next_line(line)) throw std::runtime_error(path + ": empty");
    HeaderMap header;
    read_header(line, header);
    const TripColumns c = trip_columns(header, path, table);

    TripLoadSummary s;
    HourRange range;
    Interner purposes{table.purpose_names, table.purpose_index};
    Interner markets{table.market_names, table.market_index};
    Interner segments{table.segment_names, table.segment_index};
    const float slot_minutes = table.slot_minutes;
    const int64_t num_slots = table.num_slots;
    const float sample = static_cast<float>(sample_every);
    std::vector<FieldView> f;
    f.reserve(64);

    const NodeLookup nodes(network.node_index);
    PendingRow pending;
    // Finds or makes the row's route key, adds the row's weight to it and stores the trip.
    auto book = [&](const PendingRow& row) {
        const int32_t next = static_cast<int32_t>(table.route_keys.size());
        const int32_t k = table.key_index.find_or_insert(row.identity, next);
        if (k == next) {
            RouteKey fresh;
            fresh.origin = row.origin;
            fresh.dest = row.dest;
            fresh.slot = row.slot;
            fresh.segment = row.trip.segment;
            table.route_keys.push_back(fresh);
        }
        RouteKey& key = table.route_keys[k];
        if (key.weight == 0.0f)
            key.scope = static_cast<uint8_t>(
                county_scope(static_cast<int16_t>(network.nodes[row.origin].county),
                             static_cast<int16_t>(network.nodes[row.dest].county), adjacency));
        key.weight += row.trip.weight;
        table.trips.push_back(row.trip);
        table.trips.back().route_key = k;
    };
    int64_t sampled_bytes = 0;
    RoomWarmer warmer;
    constexpr int64_t kSampleRows = 4096;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        ++s.rows_read;
        if (s.rows_read <= kSampleRows) {
            sampled_bytes += static_cast<int64_t>(line.size) + 1;
            if (s.rows_read == kSampleRows) {
                reserve_trips(path, reader, sampled_bytes, kSampleRows, max_trips, sample_every,
                              table);
                warmer.start(table.trips, table.route_keys);
            }
        } else if (s.rows_read % kSampleRows == 0) {
            warmer.progress(table.trips, table.route_keys);
        }
        if (s.rows_read % 20000000 == 0)
            progress("[trips] ... %lldM rows read\n",
                     static_cast<long long>(s.rows_read / 1000000));
        if (max_trips >= 1 && s.rows_loaded >= max_trips) break;
        if (sample_every > 1 && s.rows_read % sample_every != 0) continue;

        split_csv(line, f);
        const int64_t o_id = field_i64(field_at(f, c.o));
        const int64_t d_id = field_i64(field_at(f, c.d));
        const int32_t origin = nodes.find(o_id);
        const int32_t dest = nodes.find(d_id);
        if (origin < 0 || dest < 0 || o_id == d_id) {
            ++s.bad_od;
            continue;
        }

        int64_t slot = 0;
        const FieldView dep = field_at(f, c.depart);
        if (c.encoding == Departure::clock) {
            const float minutes = parse_clock_minutes(trim_right(dep).view());
            if (minutes < 0) {
                ++s.bad_hour;
                continue;
            }
            slot = clock_slot(minutes, slot_minutes);
            if (slot < 0 || slot >= num_slots) {
                range.reject(s, slot);
                continue;
            }
        } else if (c.encoding == Departure::period) {
            slot = field_i64(dep);
            if (slot < 0 || slot >= num_slots) {
                range.reject(s, slot);
                continue;
            }
        } else {
            const int64_t hour = field_i64(dep);
            if (hour < 1 || hour > 30) {
                range.reject(s, hour);
                continue;
            }
            if (hour > 24) ++s.past_midnight;
            slot = hour - 1;
        }

        double value = 1.0;
        if (c.veh_trips >= 0) {
            value = field_f64(field_at(f, c.veh_trips));
            if (!(value > 0)) {
                ++s.zero_weight;
                continue;
            }
        }

        Trip t;
        t.agent_id = s.rows_read;
        t.hh_id = field_i64(field_at(f, c.hh));
        t.person_id = field_i64(field_at(f, c.person));
        t.tour_id = static_cast<int32_t>(field_i64(field_at(f, c.tour)));
        t.trip_id = static_cast<int32_t>(field_i64(field_at(f, c.trip)));
        t.value_of_time = static_cast<float>(field_f64(field_at(f, c.vot)));
        t.weight = sample * static_cast<float>(value);
        if (c.occupancy >= 0) t.occupancy = occupancy_of(field_f64(field_at(f, c.occupancy)));
        if (c.vehicle_type >= 0) t.is_ev = ev_flag(field_at(f, c.vehicle_type));
        if (c.purpose >= 0) t.purpose = purposes.id(trim_right(field_at(f, c.purpose)).view());
        if (c.market >= 0) t.market = markets.id(trim_right(field_at(f, c.market)).view());
        std::string_view segment_name = "all";
        if (c.market_vot >= 0)
            segment_name = trim_right(field_at(f, c.market_vot)).view();
        else if (c.market >= 0)
            segment_name = trim_right(field_at(f, c.market)).view();
        const uint8_t seg = segments.id(segment_name);
        if (table.segment_names.size() > kMaxSegments)
            throw std::runtime_error(path + ": more than 32 segments (marketVot values)");
        t.segment = seg;
        table.vot_weight_sum[seg] += static_cast<double>(t.value_of_time) * t.weight;
        table.weight_sum[seg] += t.weight;

        // The key is looked up one row late: the index slot of this row is fetched from memory
        // while the previous row is booked, and rows are still booked in file order.
        const uint64_t identity =
            route_key_identity(origin, dest, static_cast<uint32_t>(slot), seg);
        table.key_index.prefetch(identity);
        if (pending.live) book(pending);
        pending.trip = t;
        pending.identity = identity;
        pending.origin = origin;
        pending.dest = dest;
        pending.slot = static_cast<uint8_t>(slot);
        pending.live = true;
        ++s.rows_loaded;
    }
    if (pending.live) book(pending);
    return s;
}

}  // namespace torvex
