#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <tuple>

#include "input/network.h"
#include "input/table_reader.h"
#include "input/trip_table.h"
#include "run/run_config.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

// Nodes 10 and 20 in county A, 30 in B (touching A), 40 in C (touching nothing), 50 in none.
struct Demand {
    Network net;
    CountyAdjacency adj;
    TempDir dir;

    Demand() {
        const int64_t ids[] = {10, 20, 30, 40, 50};
        const uint16_t counties[] = {0, 0, 1, 2, kNoCounty};
        for (int i = 0; i < 5; ++i) {
            net.node_index.emplace(ids[i], i);
            net.nodes.emplace_back().node_id = ids[i];
            net.nodes.back().county = counties[i];
        }
        net.county_names = {"A", "B", "C"};
        adj.n = 3;
        adj.touches.assign(9, 0);
        adj.touches[0 * 3 + 1] = adj.touches[1 * 3 + 0] = 1;
    }

    std::string out;  // standard output of the last load

    TripLoadSummary load(const std::string& text, TripTable& table, int64_t max_trips = 0,
                         int32_t sample_every = 1) {
        write_file(dir.file("trips.csv"), text);
        struct Release {  // ends the capture even when the load throws
            std::string& out;
            ~Release() { out = testing::internal::GetCapturedStdout(); }
        };
        testing::internal::CaptureStdout();
        Release release{out};
        return load_trips(dir.file("trips.csv"), net, table, max_trips, adj, sample_every);
    }

    std::string error(const std::string& text) {
        TripTable t;
        try {
            load(text, t);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "";
    }
};

// The slots of the trips' keys, in trip order, joined by commas.
std::string slots_of(const TripTable& t) {
    std::string s;
    for (const Trip& trip : t.trips)
        s += (s.empty() ? "" : ",") + std::to_string(t.route_keys[trip.route_key].slot);
    return s;
}

TEST(TripLoader, DepartureEncodingsAndTheirRanges) {
    struct Case {
        const char* text;
        const char* out;
        float slot_minutes;
        int num_slots;
        const char* slots;
        int64_t loaded, bad, bad_min, bad_max, past_midnight;  // past_midnight -1: not checked
    };
    // In the clock case hour is present too and must be ignored: its values would all be
    // rejected. 30:00:00 and 1@07:00 (slot 62) fail the range test; 480 and the empty field fail
    // parsing and leave the range alone. Periods take no 1-based shift.
    const Case cases[] = {
        {"O,D,hour,dep_time\n10,20,99,00:00:00\n10,20,99,07:59:59\n10,20,99,29:59:00\n"
         "10,20,99,30:00:00\n10,20,99,1@07:00\n10,20,99,480\n10,20,99,noon \r\n10,20,99,\n",
         "[trips] departure field: HH:MM:SS clock (dep_time)\n", 30.0f, 60, "0,15,59,24", 4, 4, 60,
         62, 0},
        {"O,D,period\n10,20,0\n10,20,59\n10,20,60\n10,20,-3\n10,20,1\n",
         "[trips] departure field: 30-min periods (1..48 in-day, up to 59)\n", 30.0f, 60, "0,59,1",
         3, 2, -3, 60, -1},
        {"O,D,hour\n10,20,1\n10,20,24\n10,20,25\n10,20,30\n10,20,31\n10,20,0\n10,20,-2\n",
         "[trips] departure field: 1-based hours\n", 60.0f, 30, "0,23,24,29", 4, 3, -2, 31, 2}};
    Demand d;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.out);
        TripTable t;
        const TripLoadSummary s = d.load(c.text, t);
        EXPECT_EQ(d.out, c.out);
        EXPECT_EQ(t.slot_minutes, c.slot_minutes);
        EXPECT_EQ(t.num_slots, c.num_slots);
        EXPECT_EQ(slots_of(t), c.slots);
        EXPECT_EQ(s.rows_loaded, c.loaded);
        EXPECT_EQ(std::tie(s.bad_hour, s.bad_hour_min, s.bad_hour_max),
                  std::make_tuple(c.bad, c.bad_min, c.bad_max));
        EXPECT_TRUE(c.past_midnight < 0 || s.past_midnight == c.past_midnight);
    }
    // The first clock alias in the list wins over later ones.
    TripTable t;
    d.load("O,D,start_time,depart_time\n10,20,x,01:00\n", t);
    EXPECT_EQ(d.out, "[trips] departure field: HH:MM:SS clock (depart_time)\n");
    EXPECT_EQ(slots_of(t), "2");
}

TEST(TripLoader, SamplingMaxTripsAndAgentIds) {
    Demand d;
    std::string rows = "O,D,hour,vehTrips\n";
    for (int i = 1; i <= 12; ++i) rows += "10,20,8,0.5\n" + std::string(i % 4 == 0 ? "\n" : "");
    TripTable t;
    TripLoadSummary s = d.load(rows, t, 0, 3);
    EXPECT_EQ(s.rows_read, 12);  // blank lines are not rows
    ASSERT_EQ(t.trips.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(t.trips[i].agent_id, static_cast<int64_t>(3 * (i + 1)));
        EXPECT_EQ(t.trips[i].weight, 1.5f);
    }
    ASSERT_EQ(t.route_keys.size(), 1u);
    EXPECT_EQ(t.route_keys[0].weight, 6.0f);

    // Rejected rows keep their place in the numbering but do not count towards MAX_TRIPS.
    rows = "O,D,hour\n";
    for (int i = 1; i <= 40; ++i)
        rows += i == 4 ? "10,10,8\n" : (i == 6 ? "10,20,0\n" : "10,20,8\n");
    TripTable m;
    s = d.load(rows, m, 10, 2);
    ASSERT_EQ(m.trips.size(), 10u);
    EXPECT_EQ(std::tie(s.rows_loaded, s.bad_od, s.bad_hour), std::make_tuple(10, 1, 1));
    EXPECT_EQ(m.trips.front().agent_id, 2);
    EXPECT_EQ(m.trips.back().agent_id, 24);
    EXPECT_EQ(s.rows_read, 25);  // the row that finds the limit reached is read, not loaded
    for (const Trip& trip : m.trips) EXPECT_EQ(trip.agent_id % 2, 0);
}

TEST(TripLoader, RejectionCounters) {
    Demand d;
    TripTable t;
    TripLoadSummary s = d.load(
        "O,D,hour,vehTrips\n"
        "10,20,8,1\n"
        "11,20,8,1\n"    // unknown origin
        "10,21,8,1\n"    // unknown destination
        "30,30,8,1\n"    // intrazonal
        "x,20,8,1\n"     // unreadable origin reads as 0, unknown
        "10,20,8,0\n"    // zero weight
        "10,30,8,-1\n"   // negative weight
        "10,40,8,abc\n"  // no number reads as 0
        "10,20,8,nan\n"
        "10,20,40,0\n",  // bad hour wins over zero weight
        t);
    EXPECT_EQ(std::tie(s.rows_read, s.rows_loaded, s.bad_od, s.zero_weight, s.bad_hour),
              std::make_tuple(10, 1, 4, 4, 1));
    EXPECT_EQ(t.route_keys.size(), 1u);  // zero-weight rows never create a key
}

TEST(TripLoader, KeysFoldInOrderWithScopeAndConserveWeight) {
    Demand d;
    TripTable t;
    TripLoadSummary s = d.load(
        "O,D,hour,vehTrips,valueOfTime,marketVot,hh_id\n"
        "10,30,8,1,10,hi,1\n"      // key 0: adjacent
        "10,20,8,2,20,hi,2\n"      // key 1: intra
        "10,30,8,3,99,hi,3\n"      // folds into key 0 despite another VOT
        "10,30,9,1,10,hi,4\n"      // key 2: other slot
        "10,30,8,1,10,lo,5\n"      // key 3: other segment
        "30,10,8,1,10,hi,6\n"      // key 4: reverse direction
        "10,40,8,1,10,hi,7\n"      // key 5: statewide
        "50,20,8,1,10,hi,8\n"      // key 6: no county at the origin
        "20,10,8,0.25,10,hi,9\n",  // key 7: intra
        t);
    ASSERT_EQ(s.rows_loaded, 9);
    ASSERT_EQ(t.route_keys.size(), 8u);
    const std::vector<std::tuple<int, int, int, int, int>> want = {
        {0, 2, 7, 0, 1}, {0, 1, 7, 0, 0}, {0, 2, 8, 0, 1}, {0, 2, 7, 1, 1},
        {2, 0, 7, 0, 1}, {0, 3, 7, 0, 2}, {4, 1, 7, 0, 2}, {1, 0, 7, 0, 0}};
    for (size_t k = 0; k < want.size(); ++k) {
        const RouteKey& key = t.route_keys[k];
        EXPECT_EQ(
            std::make_tuple(key.origin, key.dest, int(key.slot), int(key.segment), int(key.scope)),
            want[k])
            << "key " << k;
        EXPECT_EQ(std::make_tuple(key.path_offset, key.n_links, bool(key.reachable)),
                  std::make_tuple(-1, 0, true));  // not yet routed
        EXPECT_EQ(t.key_index.find(route_key_identity(key.origin, key.dest, key.slot, key.segment)),
                  static_cast<int32_t>(k));
    }
    EXPECT_EQ(t.key_index.size(), t.route_keys.size());
    EXPECT_EQ(t.route_keys[0].weight, 4.0f);
    EXPECT_EQ(t.trips[2].route_key, 0);

    // Every trip's weight lands in its own key and its segment's sum, and nothing else does.
    std::vector<double> sums(t.route_keys.size(), 0.0);
    double total = 0, segment_total = 0;
    for (const Trip& trip : t.trips) {
        EXPECT_EQ(t.route_keys[trip.route_key].segment, trip.segment);
        sums[trip.route_key] += trip.weight;
        total += trip.weight;
    }
    for (size_t k = 0; k < sums.size(); ++k) EXPECT_EQ(sums[k], t.route_keys[k].weight);
    for (double w : t.weight_sum) segment_total += w;
    EXPECT_EQ(segment_total, total);
    EXPECT_DOUBLE_EQ(t.vot_weight_sum[0], 10 + 20 * 2 + 99 * 3 + 10 + 10 + 10 + 10 + 2.5);
}

TEST(TripLoader, IdentityPacksFieldsAndAliasesBeyondWidths) {
    EXPECT_EQ(route_key_identity(1, 0, 0, 0), uint64_t{1} << 33);
    EXPECT_EQ(route_key_identity(0, 1, 0, 0), uint64_t{1} << 12);
    EXPECT_EQ(route_key_identity(0, 0, 1, 0), uint64_t{1} << 5);
    EXPECT_EQ(route_key_identity(0, 0, 0, 1), uint64_t{1});
    EXPECT_EQ(route_key_identity(7, 2097151, 127, 31), (uint64_t{8} << 33) - 1);
    // A destination past 21 bits spills into the origin's bits: the documented aliasing.
    EXPECT_EQ(route_key_identity(0, 2097152, 0, 0), route_key_identity(1, 0, 0, 0));
}

TEST(TripLoader, ColumnsInterningAndDefaults) {
    Demand d;
    TripTable t;
    d.load(
        "O,D,hour,hh_id,person_id,tour_id,trip_id,valueOfTime,purpose,market,OCCUPANCY,ev\n"
        "10,20,8,123456789012,7,3,4,12.5,work ,car,1.4,1\n"
        "10,20,8,0,0,0,0,0,shop,car ,1.5,EV \n"
        "10,20,8,0,0,0,0,0,work,bus,0,Electric\n"
        "10,20,8,0,0,0,0,0,school,bus,300,TRUE\n"
        "10,20,8,0,0,0,0,0,shop,car,2,electric\n"
        "10,20,8,0,0,0,0,0,work,car,nan,true\n",
        t);
    ASSERT_EQ(t.trips.size(), 6u);
    const Trip& a = t.trips[0];
    EXPECT_EQ(std::make_tuple(a.hh_id, a.person_id, a.tour_id, a.trip_id),
              std::make_tuple(int64_t{123456789012}, int64_t{7}, 3, 4));
    EXPECT_EQ(a.value_of_time, 12.5f);
    EXPECT_EQ(t.purpose_names, (std::vector<std::string>{"work", "shop", "school"}));
    EXPECT_EQ(t.market_names, (std::vector<std::string>{"car", "bus"}));
    // Without marketVot the market text names the segment.
    EXPECT_EQ(t.segment_names, (std::vector<std::string>{"car", "bus"}));
    auto column = [&](auto member) {
        std::vector<int> v;
        for (const Trip& trip : t.trips) v.push_back(trip.*member);
        return v;
    };
    EXPECT_EQ(column(&Trip::purpose), (std::vector<int>{0, 1, 0, 2, 1, 0}));
    EXPECT_EQ(column(&Trip::market), (std::vector<int>{0, 0, 1, 1, 0, 0}));
    EXPECT_EQ(column(&Trip::segment), column(&Trip::market));
    EXPECT_EQ(column(&Trip::occupancy), (std::vector<int>{1, 2, 1, 255, 2, 1}));
    EXPECT_EQ(column(&Trip::is_ev), (std::vector<int>{1, 1, 0, 0, 1, 1}));
    for (size_t p = 0; p < t.purpose_names.size(); ++p)
        EXPECT_EQ(t.purpose_index.at(t.purpose_names[p]), static_cast<int>(p));

    // No optional column at all: one segment "all", weight 1, defaults on every trip.
    TripTable bare;
    d.load("D,hour,O\n20,8,10\n30,9,20\n", bare);
    EXPECT_EQ(bare.segment_names, std::vector<std::string>{"all"});
    EXPECT_TRUE(bare.purpose_names.empty());
    EXPECT_TRUE(bare.market_names.empty());
    ASSERT_EQ(bare.trips.size(), 2u);
    for (const Trip& trip : bare.trips)
        EXPECT_EQ(std::make_tuple(trip.weight, int(trip.occupancy), int(trip.is_ev), trip.hh_id),
                  std::make_tuple(1.0f, 1, 0, int64_t{0}));
    EXPECT_EQ(bare.route_keys[1].origin, 1);

    // marketVot wins over market for the segment; blanks at the end do not make a new name.
    TripTable mv;
    d.load("O,D,hour,market,marketVot\n10,20,8,car,car_hi\n10,20,8,car,car_hi  \n", mv);
    EXPECT_EQ(mv.segment_names, std::vector<std::string>{"car_hi"});
    EXPECT_EQ(mv.route_keys.size(), 1u);
}

TEST(TripLoader, FileErrors) {
    Demand d;
    const std::string p = d.dir.file("trips.csv");
    for (const char* text : {"D,hour\n1,2\n", "O,D,Hour\n1,2,3\n"})
        EXPECT_EQ(d.error(text), p + ": missing O/D and depart_time/period/hour columns") << text;
    EXPECT_EQ(d.error(""), p + ": empty");
    EXPECT_EQ(d.error("O,D,hour\n"), "");  // a header alone loads nothing, without error
    std::string rows = "O,D,hour,marketVot\n";
    for (int i = 0; i < 33; ++i) rows += "10,20,8,s" + std::to_string(i) + "\n";
    EXPECT_NE(d.error(rows), "");  // more segments than a key can hold
    TripTable t;
    const std::string missing = d.dir.file("nope.csv");
    try {
        load_trips(missing, d.net, t, 0, d.adj, 1);
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "cannot open " + missing);
    }
}

TEST(TripLoader, SummaryAndMarketScaleLines) {
    Demand d;
    TripTable t;
    TripLoadSummary s = d.load(
        "O,D,hour,marketVot,vehTrips\n"
        "10,20,8,car_hi,10\n10,30,8,car_lo,20\n10,40,8,truck,5\n10,40,9,car_hi,1\n"
        "10,10,8,car_hi,1\n10,20,0,car_hi,1\n10,20,44,car_hi,1\n10,20,26,car_hi,1\n",
        t);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    print_trip_summary(s, t, 1.26);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[trips] warning: 2 rows rejected for hour outside 1..30 (rejected values ranged "
              "0..44)\n");
    ASSERT_GT(out.size(), 11u);
    EXPECT_EQ(out.substr(0, 1) + out.substr(9),
              "[][trips] 8 rows read, 5 loaded (1 bad O/D incl. intrazonal, 2 bad hour, 1 depart "
              "past midnight, 0 zero weight); 5 route keys (intra=2 adj=1 state=2), 1.3s\n");

    // Entries apply in order and compound on shared prefixes; only matched keys move.
    RunConfig config;
    config.market_scale = {{"car", 2.0f}, {"car_hi", 1.5f}, {"bus", 3.0f}};
    testing::internal::CaptureStdout();
    apply_market_scale(config, t);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[market-scale] car x2.00: 4 keys, weight 32 -> 64\n"
              "[market-scale] car_hi x1.50: 3 keys, weight 24 -> 36\n"
              "[market-scale] bus x3.00: 0 keys, weight 0 -> 0\n");
    std::vector<float> w;
    for (const RouteKey& k : t.route_keys) w.push_back(k.weight);
    EXPECT_EQ(w, (std::vector<float>{30.0f, 40.0f, 5.0f, 3.0f, 3.0f}));
    EXPECT_EQ(t.trips[0].weight, 10.0f);  // trip weights stay as loaded
}

std::vector<std::string> split_bars(const std::string& s) {
    std::vector<std::string> out(1);
    for (char c : s) c == '|' ? out.emplace_back() : out.back() += c;
    return out;
}

TEST(TripLoader, NumbersReadAsTheForgivingConverters) {
    // Row fields are converted in place; every form must read exactly as field_i64 / field_f64.
    const std::vector<std::string> ints = split_bars(
        "7|-7|+7| 7|7 |007|-0||x7|7x|1e3|-|999999999999999999|9999999999999999999|"
        "-9223372036854775808|123456789012345678901234567890123");
    const std::vector<std::string> reals = split_bars(
        "6.33|-0.1|0.1|12|1e2| 2.5|2.5 |.5|5.|.|-||1.2.3|123456789012345|1234567890123456|"
        "0.000000000000001|3.4028236e38|nan|2.675|1.0000000000000002|+1.5|0x10");
    ASSERT_EQ(ints.size(), 16u);
    ASSERT_EQ(reals.size(), 22u);
    Demand d;
    std::string text = "O,D,hour,hh_id,valueOfTime,tour_id\n";
    for (size_t i = 0; i < reals.size(); ++i)
        text += "10,20,8," + ints[i % ints.size()] + "," + reals[i] + "," + ints[i % ints.size()] +
                "\n";
    TripTable t;
    d.load(text, t);
    ASSERT_EQ(t.trips.size(), reals.size());
    for (size_t i = 0; i < t.trips.size(); ++i) {
        const std::string& a = ints[i % ints.size()];
        const std::string& r = reals[i];
        const int64_t want_i = field_i64(FieldView{a.data(), a.size()});
        EXPECT_EQ(t.trips[i].hh_id, want_i) << a;
        EXPECT_EQ(t.trips[i].tour_id, static_cast<int32_t>(want_i)) << a;
        const float want = static_cast<float>(field_f64(FieldView{r.data(), r.size()}));
        if (std::isnan(want))
            EXPECT_TRUE(std::isnan(t.trips[i].value_of_time)) << r;
        else
            EXPECT_EQ(t.trips[i].value_of_time, want) << r;
    }
}

TEST(TripLoader, KeyIndexGrowsAndFinds) {
    KeyIndex index;
    EXPECT_EQ(index.find(5), -1);
    // Identities that differ only in their low (segment and slot) bits crowd one region.
    auto id = [](int32_t i) { return route_key_identity(i / 4000, i % 4000, i % 7, i % 32); };
    for (int32_t i = 0; i < 50000; ++i) EXPECT_EQ(index.find_or_insert(id(i), i), i);
    EXPECT_EQ(index.size(), 50000u);
    EXPECT_LE(index.size() * 10, index.slots.size() * 7);
    for (int32_t i = 0; i < 50000; ++i) {
        ASSERT_EQ(index.find(id(i)), i);
        ASSERT_EQ(index.find_or_insert(id(i), -5), i);  // present: the stored index wins
    }
    EXPECT_EQ(index.find(route_key_identity(99, 0, 0, 0)), -1);
    const size_t before = index.slots.size();
    index.reserve(before);  // growing keeps every entry
    EXPECT_GT(index.slots.size(), before);
    EXPECT_EQ(index.find(id(4000)), 4000);
    EXPECT_EQ(index.size(), 50000u);
    index.clear();
    EXPECT_EQ(index.find(id(4000)), -1);
    EXPECT_EQ(index.size(), 0u);
}

}  // namespace
}  // namespace torvex
