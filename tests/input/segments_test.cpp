#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <tuple>

#include "input/trip_table.h"
#include "run/run_config.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

const std::string kHeader = "segment_name,VOT,beta_time,beta_cost,distance,axles,pce";

// A table whose demand holds the given segment names, in id order.
TripTable demand(std::initializer_list<const char*> names) {
    TripTable t;
    for (const char* n : names) {
        t.segment_index.emplace(n, static_cast<uint8_t>(t.segment_names.size()));
        t.segment_names.emplace_back(n);
    }
    return t;
}

struct SegmentFile {
    TempDir dir;
    std::string path = dir.file("segments.csv");
    std::string out;  // standard output of the last load

    void load(const std::string& text, TripTable& t) {
        write_file(path, text);
        struct Release {  // ends the capture even when the load throws
            std::string& out;
            ~Release() { out = testing::internal::GetCapturedStdout(); }
        };
        testing::internal::CaptureStdout();
        Release release{out};
        load_segment_params(path, t);
    }

    // The text of what the load raised, "" when it did not.
    std::string error(const std::string& text, TripTable t = demand({"a"})) {
        try {
            load(text, t);
        } catch (const std::exception& e) {
            return e.what();
        }
        return "";
    }
};

TEST(SegmentParams, DefaultsRouteOnTimeAlone) {
    const TripTable t = demand({"a", "b"});
    for (int s = 0; s < kMaxSegments; ++s) {
        EXPECT_EQ(std::make_tuple(t.beta_time[s], t.beta_cost[s], t.beta_dist[s], t.pce[s],
                                  int(t.axles[s])),
                  std::make_tuple(1.0f, 0.0f, 0.0f, 1.0f, 2));
        EXPECT_TRUE(is_pure_time(segment_time_weight(t, s), segment_dist_weight(t, s),
                                 segment_toll_weight(t, s)));
        EXPECT_FALSE(segment_bars_trucks(t, s));
    }
}

TEST(SegmentParams, RowsQuotesExclusionsAndOverwrites) {
    SegmentFile f;
    TripTable t = demand({"car", "truck", "bus", "van"});
    f.load(kHeader +
               ",exclude_ftypes\r\n"
               "car ,15,1,0.5,0.1,2,1,\r\n"
               "\r\n"
               "truck,40,1.2,0.8,0.2,5,2.5,\"51,52\"\r\n"
               "bus,10,1,1,0,3,2,51;52 60\r\n"
               "van,1,1,1,1,1,1,127 128 999999999999999999999 64\r\n"
               "car,20,  2,0.25,0,2,1\r\n",  // later row wins; no exclusion field
           t);
    EXPECT_EQ(f.out, "[segment] 3 segment(s) have exclude_ftypes restrictions\n");
    EXPECT_EQ(std::make_tuple(t.vot[0], t.beta_time[0], t.beta_cost[0]),
              std::make_tuple(20.0f, 2.0f, 0.25f));
    // The quoted list stays one field: axles and pce of the truck row are not shifted.
    EXPECT_EQ(std::make_tuple(int(t.axles[1]), t.pce[1], t.beta_dist[1]),
              std::make_tuple(5, 2.5f, 0.2f));
    const uint64_t b51_52 = (uint64_t{1} << 51) | (uint64_t{1} << 52);
    const uint64_t lo[] = {0, b51_52, b51_52 | (uint64_t{1} << 60), 0};
    const uint64_t hi[] = {0, 0, 0, (uint64_t{1} << 63) | uint64_t{1}};
    for (int s = 0; s < 4; ++s) {
        EXPECT_EQ(t.exclude_lo[s], lo[s]) << s;
        EXPECT_EQ(t.exclude_hi[s], hi[s]) << s;
    }
    EXPECT_TRUE(ftype_excluded(t.exclude_lo[2], t.exclude_hi[2], 60));
    EXPECT_FALSE(ftype_excluded(t.exclude_lo[2], t.exclude_hi[2], 61));
    EXPECT_TRUE(ftype_excluded(t.exclude_lo[3], t.exclude_hi[3], 64));
    EXPECT_FALSE(ftype_excluded(~uint64_t{0}, ~uint64_t{0}, 128));
}

TEST(SegmentParams, FtypesAliasShortRowsAndNarrowAxles) {
    SegmentFile f;
    TripTable t = demand({"a"});
    // pce is the last column: a row not reaching it is skipped without a word.
    f.load(
        "segment_name,VOT,beta_time,beta_cost,distance,axles,ftypes,pce\n"
        "a,5,1,1,0,258,11,1.5\n"
        "a,9,9,9,9,9,9\n",
        t);
    EXPECT_EQ(t.vot[0], 5.0f);
    EXPECT_EQ(t.pce[0], 1.5f);
    EXPECT_EQ(t.axles[0], 2);  // 258 narrowed to 8 bits
    EXPECT_EQ(t.exclude_lo[0], uint64_t{1} << 11);
    EXPECT_EQ(f.error(kHeader + "\na,1,1,1,1,2\n"),
              f.path + ": missing rows for 1 marketVot segment(s): a");
}

TEST(SegmentParams, StrictNumbers) {
    SegmentFile f;
    const std::pair<std::string, std::string> cases[] = {
        {kHeader + "\na,x,1,0,0,2,1\n", "invalid stof argument"},
        {kHeader + "\na,1,1,1e60,0,2,1\n", "stof argument out of range"},
        {kHeader + "\na,1,1,0,0,two,1\n", "invalid stoi argument"},
        {kHeader + "\na,1,1,0,0,99999999999,1\n", "stoi argument out of range"},
        // Rows are converted before their name is looked at: unknown segments are strict too.
        {kHeader + "\na,1,1,0,0,2,1\nghost,1,1,0,0,2,\n", "invalid stof argument"},
        // With pce first, a short row reaches the strict conversion of its missing fields.
        {"pce,axles,segment_name,VOT,beta_time,beta_cost,distance\n1.5,2,a\n",
         "invalid stof argument"}};
    for (const auto& [text, message] : cases) EXPECT_EQ(f.error(text), message) << text;
    // Leading blanks and trailing text are accepted, as the conversion reads a prefix.
    TripTable t = demand({"a"});
    f.load(kHeader + "\na, 7.5kr,1,0,0,3 axles,1.25x\n", t);
    EXPECT_EQ(std::make_tuple(t.vot[0], int(t.axles[0]), t.pce[0]),
              std::make_tuple(7.5f, 3, 1.25f));
}

TEST(SegmentParams, FileErrors) {
    SegmentFile f;
    EXPECT_EQ(f.error(""), f.path + ": empty");
    const char* required[] = {"segment_name", "VOT",   "beta_time", "beta_cost",
                              "distance",     "axles", "pce"};
    for (const char* drop : required) {
        std::string header;
        for (const char* c : required)
            if (std::string(c) != drop) header += std::string(header.empty() ? "" : ",") + c;
        EXPECT_EQ(f.error(header + "\n"), f.path + ": missing column " + drop);
    }
    // Header names are matched exactly after right-trimming: case and quotes matter.
    EXPECT_EQ(f.error("segment_name,vot,beta_time,beta_cost,distance,axles,pce\n"),
              f.path + ": missing column VOT");
    EXPECT_EQ(f.error("segment_name ,VOT,beta_time,beta_cost,distance,axles,\"pce\"\n"),
              f.path + ": missing column pce");
    // Every missing demand segment is named, in id order; rows for others are ignored.
    EXPECT_EQ(f.error(kHeader + "\nb,1,1,1,1,2,1\nzz,1,1,1,1,2,1\n", demand({"c", "b", "a"})),
              f.path + ": missing rows for 2 marketVot segment(s): c a");
    const std::string missing = f.dir.file("nope.csv");
    TripTable t;
    try {
        load_segment_params(missing, t);
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "cannot open SEGMENT_PARAM_FILE " + missing);
    }
}

TEST(SegmentParams, CostWeights) {
    TripTable t = demand({"a"});
    t.beta_cost[0] = 0.5f;
    const int axles[] = {0, 1, 2, 3, 5, 255};
    const float toll_w[] = {0.5f, 0.5f, 0.5f, 1.0f, 2.0f, 127.0f};
    for (int i = 0; i < 6; ++i) {
        t.axles[0] = static_cast<uint8_t>(axles[i]);
        EXPECT_EQ(segment_toll_weight(t, 0), toll_w[i]) << axles[i];
        EXPECT_EQ(segment_bars_trucks(t, 0), axles[i] >= 3) << axles[i];
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_TRUE(is_pure_time(1.0f, 0.0f, -0.0f));
    const float impure[][3] = {{1.0f, 0.0f, 0.1f}, {1.0f, 1e-30f, 0.0f}, {2.0f, 0.0f, 0.0f},
                               {nan, 0.0f, 0.0f},  {1.0f, nan, 0.0f},    {1.0f, 0.0f, nan}};
    for (const auto& w : impure) EXPECT_FALSE(is_pure_time(w[0], w[1], w[2]));

    // The toll term is added last: with distance and time cancelling, a one-dollar toll survives
    // in f32, where a left-to-right sum would lose it.
    EXPECT_EQ(link_generalized_cost(1.0f, 1.0f, 1.0f, 1e8f, -1e8f, 1.0f), 1.0f);
    EXPECT_EQ(link_generalized_cost(2.0f, 1.5f, 0.25f, 4.0f, 10.0f, 2.0f), 24.0f);
}

TEST(SegmentParams, SegmentLines) {
    RunConfig config;
    TripTable t = demand({"car_hi", "truck"});
    t.vot_weight_sum[0] = 30.0;
    t.weight_sum[0] = 4.0;
    // The printed lines without their clock stamp.
    auto printed = [&](auto print) {
        testing::internal::CaptureStdout();
        print();
        const std::string out = testing::internal::GetCapturedStdout();
        return out.size() > 9 ? out.substr(0, 1) + out.substr(9) : out;
    };
    EXPECT_EQ(printed([&] { print_segment_summary(t, config); }),
              "[][segments] 2 segments, no SEGMENT_PARAM_FILE -> GC = travel time only "
              "(beta_time=1, beta_cost=0, distance=0)\n");

    SegmentFile f;
    write_file(f.path, kHeader + "\ncar_hi,22.4,1,0.5,0.05,2,1\ntruck,60,1.25,0.333,0,5,2.5\n");
    config.segment_param_file = f.path;
    EXPECT_EQ(printed([&] { apply_segment_params(config, t); }),
              "[][segments] 2 segments, params from " + f.path +
                  ":\n"
                  "   car_hi         VOT=22  beta_time=1.000  beta_cost=0.500  distance=0.050  "
                  "axles=2  pce=1.00  (data meanVOT=7.5)\n"
                  "   truck          VOT=60  beta_time=1.250  beta_cost=0.333  distance=0.000  "
                  "axles=5  pce=2.50  (data meanVOT=0.0)\n");
}

}  // namespace
}  // namespace torvex
