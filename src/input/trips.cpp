#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "input/network.h"
#include "input/table_reader.h"
#include "input/trip_table.h"
#include "run/log.h"

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
        auto it = index.find(text);
        if (it != index.end()) {
            last = it->second;
            return it->second;
        }
        const uint8_t id = static_cast<uint8_t>(names.size());
        names.emplace_back(text);
        index.emplace(names.back(), id);
        last = static_cast<int>(names.size()) - 1;
        return id;
    }
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

float clock_minutes(std::string_view text) {
    auto blank = [](char ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    if (text.empty()) return -1.0f;
    auto same_word = [&](std::string_view word) {
        if (text.size() != word.size()) return false;
        for (size_t i = 0; i < word.size(); ++i) {
            char ch = text[i];
            if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 'a' + 'A');
            if (ch != word[i]) return false;
        }
        return true;
    };
    if (same_word("NOON")) return 720.0f;
    if (same_word("MIDNIGHT")) return 0.0f;

    auto digits = [](std::string_view s) {
        if (s.empty()) return false;
        for (char ch : s)
            if (ch < '0' || ch > '9') return false;
        return true;
    };
    auto number = [](std::string_view s) {  // digits and at most one '.', already checked
        double v = 0, scale = 0;
        for (char ch : s) {
            if (ch == '.') {
                scale = 1;
                continue;
            }
            if (scale > 0) scale /= 10;
            v = scale > 0 ? v + (ch - '0') * scale : v * 10 + (ch - '0');
        }
        return v;
    };
    double days = 0;
    const size_t at = text.find('@');
    if (at != std::string_view::npos) {
        if (!digits(text.substr(0, at))) return -1.0f;
        days = number(text.substr(0, at));
        text.remove_prefix(at + 1);
    }
    const size_t c1 = text.find(':');
    if (c1 == std::string_view::npos) return -1.0f;  // a bare number is refused
    const std::string_view hours = text.substr(0, c1);
    std::string_view minutes = text.substr(c1 + 1), seconds;
    bool has_seconds = false;
    const size_t c2 = minutes.find(':');
    if (c2 != std::string_view::npos) {
        seconds = minutes.substr(c2 + 1);
        minutes = minutes.substr(0, c2);
        has_seconds = true;
    }
    if (!digits(hours) || !digits(minutes)) return -1.0f;
    double sec = 0;
    if (has_seconds) {
        size_t dots = 0, numerals = 0;
        for (char ch : seconds) {
            if (ch == '.')
                ++dots;
            else if (ch >= '0' && ch <= '9')
                ++numerals;
            else
                return -1.0f;  // also a third ':'
        }
        if (numerals == 0 || dots > 1) return -1.0f;
        sec = number(seconds);
    }
    const double min = number(minutes);
    if (min > 59 || sec >= 60) return -1.0f;
    return static_cast<float>(days * 24 * 60 + number(hours) * 60 + min + sec / 60);
}

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

    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        ++s.rows_read;
        if (s.rows_read % 20000000 == 0)
            progress("[trips] ... %lldM rows read\n",
                     static_cast<long long>(s.rows_read / 1000000));
        if (max_trips >= 1 && s.rows_loaded >= max_trips) break;
        if (sample_every > 1 && s.rows_read % sample_every != 0) continue;

        split_csv(line, f);
        const auto io = network.node_index.find(field_i64(field_at(f, c.o)));
        const auto id = network.node_index.find(field_i64(field_at(f, c.d)));
        if (io == network.node_index.end() || id == network.node_index.end() ||
            io->first == id->first) {
            ++s.bad_od;
            continue;
        }

        int64_t slot = 0;
        const FieldView dep = field_at(f, c.depart);
        if (c.encoding == Departure::clock) {
            const float minutes = clock_minutes(trim_right(dep).view());
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

        const int32_t origin = io->second, dest = id->second;
        const uint64_t identity =
            route_key_identity(origin, dest, static_cast<uint32_t>(slot), seg);
        auto [it, fresh] =
            table.key_index.try_emplace(identity, static_cast<int32_t>(table.route_keys.size()));
        if (fresh) {
            RouteKey k;
            k.origin = origin;
            k.dest = dest;
            k.slot = static_cast<uint8_t>(slot);
            k.segment = seg;
            table.route_keys.push_back(k);
        }
        RouteKey& key = table.route_keys[it->second];
        if (key.weight == 0.0f)
            key.scope = static_cast<uint8_t>(
                county_scope(static_cast<int16_t>(network.nodes[origin].county),
                             static_cast<int16_t>(network.nodes[dest].county), adjacency));
        key.weight += t.weight;
        t.route_key = it->second;
        table.trips.push_back(t);
        ++s.rows_loaded;
    }
    return s;
}

}  // namespace torvex
