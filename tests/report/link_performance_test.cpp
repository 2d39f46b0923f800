// PCE conversion and the link performance files: rows, formats, scope filter, category columns.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "report/outputs.h"
#include "report/report_world.h"
#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::ReportWorld;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<std::string> fields_of(const std::string& line) {
    std::vector<std::string> out;
    std::string f;
    std::istringstream in(line);
    while (std::getline(in, f, ',')) out.push_back(f);
    if (!line.empty() && line.back() == ',') out.push_back("");
    return out;
}

TEST(VehicleUnits, PceTwoConvertsToVehiclesAndPceOneChangesNothing) {
    ReportWorld w;
    w.load_pce();
    w.net.links[3].queue_veh[50] = 1.5f;  // no demand entered: rescaled by 1
    w.net.links[5].volume[10] = 4.0f;
    w.net.links[0].queue_veh[32] = 2.5f;
    ASSERT_FLOAT_EQ(w.net.links[0].volume[32], 1.25f);  // 0.75 car + 0.25 truck x 2

    testing::internal::CaptureStdout();
    convert_volumes_to_vehicles(w.net, w.trips, w.arena);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[units] link volumes converted PCE -> vehicles (x0.818 overall); queues rescaled "
              "with the same mix\n");  // 22 PCE -> 18 vehicles
    EXPECT_FLOAT_EQ(w.net.links[0].volume[32], 1.0f);
    EXPECT_FLOAT_EQ(w.net.links[0].queue_veh[32], 2.0f);  // same mix as the volume
    EXPECT_FLOAT_EQ(w.net.links[4].volume[33], 0.25f);    // trucks alone
    EXPECT_FLOAT_EQ(w.net.links[4].volume[36], 0.5f);     // truck 0.25 + car 0.25
    EXPECT_EQ(w.net.links[3].queue_veh[50], 1.5f);
    EXPECT_EQ(w.net.links[5].volume[10], 4.0f);

    ReportWorld same;
    same.trips.pce[1] = 1.0f;
    same.trips.pce[5] = 3.0f;  // a segment no key uses does not count
    same.load_pce();
    same.net.links[2].queue_veh[7] = 3.0f;
    std::vector<Link> before = same.net.links;
    testing::internal::CaptureStdout();
    convert_volumes_to_vehicles(same.net, same.trips, same.arena);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    for (size_t l = 0; l < before.size(); ++l) {
        EXPECT_EQ(std::memcmp(before[l].volume, same.net.links[l].volume, sizeof before[l].volume),
                  0);
        EXPECT_EQ(
            std::memcmp(before[l].queue_veh, same.net.links[l].queue_veh, sizeof(float) * 120), 0);
    }
}

// On random demand the converted volume of every cell is the vehicle load of the same paths.
TEST(VehicleUnits, ConvertedVolumesEqualTheVehicleLoad) {
    std::mt19937 rng(11);
    Network net = fixture::random_network(rng, 60, 240, 3, fixture::Tables::kFifo);
    TripTable trips;
    trips.slot_minutes = 30.0f;
    trips.pce[0] = 1.0f;
    trips.pce[1] = 2.0f;
    trips.pce[2] = 2.5f;
    std::vector<int32_t> arena;
    std::uniform_int_distribution<int> node(0, 59), seg(0, 2), slot(10, 50), len(1, 12);
    std::uniform_real_distribution<float> weight(0.1f, 5.0f);
    for (int k = 0; k < 400; ++k) {
        RouteKey key;
        key.origin = node(rng);
        key.segment = static_cast<uint8_t>(seg(rng));
        key.slot = static_cast<uint8_t>(slot(rng));
        key.weight = weight(rng);
        key.path_offset = static_cast<int64_t>(arena.size());
        int at = key.origin;
        for (int n = len(rng); n > 0 && !net.nodes[at].out_links.empty(); --n) {
            const auto& out = net.nodes[at].out_links;
            const int32_t l = out[rng() % out.size()];
            arena.push_back(l);
            at = net.links[l].to;
        }
        key.n_links = static_cast<int32_t>(arena.size() - key.path_offset);
        key.dest = at;
        trips.route_keys.push_back(key);
    }
    LinkLoadContext ctx;
    ctx.network = &net;
    std::vector<float> pce_load, veh_load;
    load_paths_full(ctx, trips, arena, pce_load, nullptr);
    TripTable ones = trips;
    ones.pce.fill(1.0f);
    load_paths_full(ctx, ones, arena, veh_load, nullptr);
    for (int32_t l = 0; l < net.link_count(); ++l)
        for (int i = 0; i < kIntervals; ++i) {
            net.links[l].volume[i] = pce_load[l * kIntervals + i];
            net.links[l].queue_veh[i] = pce_load[l * kIntervals + i] * 0.5f;
        }
    testing::internal::CaptureStdout();
    convert_volumes_to_vehicles(net, trips, arena);
    testing::internal::GetCapturedStdout();
    double total = 0;
    for (int32_t l = 0; l < net.link_count(); ++l)
        for (int i = 0; i < kIntervals; ++i) {
            const float want = veh_load[l * kIntervals + i];
            total += want;
            ASSERT_NEAR(net.links[l].volume[i], want, 1e-4f * (1.0f + want)) << l << " " << i;
            ASSERT_NEAR(net.links[l].queue_veh[i], want * 0.5f, 1e-4f * (1.0f + want));
        }
    EXPECT_GT(total, 100.0);
}

TEST(LinkPerformance, RowsFormatsAndScopeFilter) {
    ReportWorld w;
    w.load_pce();
    w.net.links[3].queue_veh[50] = 1.5f;  // queue alone makes a row
    w.net.links[5].volume[10] = 4.0f;     // micro: in neither file
    testing::internal::CaptureStdout();
    convert_volumes_to_vehicles(w.net, w.trips, w.arena);
    testing::internal::GetCapturedStdout();
    fixture::TempDir dir;
    write_link_performance(dir.file("macro.csv"), w.net, w.trips, w.arena, VolumeBreakdown::none,
                           LinkOutputScope::macro);
    write_link_performance(dir.file("meso.csv"), w.net, w.trips, w.arena, VolumeBreakdown::none,
                           LinkOutputScope::meso);
    write_link_performance(dir.file("micro.csv"), w.net, w.trips, w.arena, VolumeBreakdown::none,
                           LinkOutputScope::micro);
    const std::string header =
        "a_node,b_node,county,ftype,hour,interval,volume,travel_time_min,speed_mph,queue_veh,"
        "toll_rate\n";
    EXPECT_EQ(fixture::read_file(dir.file("macro.csv")),
              header +
                  "1000,1001,C0,21,8,32,1.00,2.500,30.00,0.00,1.25\n"
                  "1000,1001,C0,21,8,33,1.00,2.500,30.00,0.00,1.25\n"
                  "1000,1001,C0,21,8,34,1.00,2.500,30.00,0.00,1.25\n"
                  "1000,1001,C0,21,8,35,1.00,2.500,30.00,0.00,1.25\n"
                  "1001,1002,C1,21,8,32,1.00,3.000,30.00,0.00,0.00\n"
                  "1001,1002,C1,21,8,33,1.00,3.000,30.00,0.00,0.00\n"
                  "1001,1002,C1,21,8,34,1.00,3.000,30.00,0.00,0.00\n"
                  "1001,1002,C1,21,8,35,1.00,3.000,30.00,0.00,0.00\n"
                  "1002,1003,,21,8,32,1.00,4.000,30.00,0.00,0.00\n"
                  "1002,1003,,21,8,33,1.00,4.000,30.00,0.00,0.00\n"
                  "1002,1003,,21,8,34,1.00,4.000,30.00,0.00,0.00\n"
                  "1002,1003,,21,8,35,1.00,4.000,30.00,0.00,0.00\n"
                  "1001,1000,C0,21,12,50,0.00,2.500,30.00,1.50,0.00\n");
    EXPECT_EQ(fixture::read_file(dir.file("meso.csv")),
              header +
                  "1003,1004,C1,21,8,33,0.25,1.000,30.00,0.00,0.00\n"
                  "1003,1004,C1,21,8,34,0.25,1.000,30.00,0.00,0.00\n"
                  "1003,1004,C1,21,8,35,0.25,1.000,30.00,0.00,0.00\n"
                  "1003,1004,C1,21,9,36,0.50,1.000,30.00,0.00,0.00\n"
                  "1003,1004,C1,21,9,37,0.25,1.000,30.00,0.00,0.00\n"
                  "1003,1004,C1,21,9,38,0.25,1.000,30.00,0.00,0.00\n"
                  "1003,1004,C1,21,9,39,0.25,1.000,30.00,0.00,0.00\n");
    EXPECT_EQ(fixture::read_file(dir.file("micro.csv")),
              header + "1004,1003,C1,21,2,10,4.00,1.000,30.00,0.00,0.00\n");

    // A zero travel time falls back to the posted speed.
    w.net.links[3].travel_time_min[50] = 0.0f;
    w.net.links[3].speed_mph = 55.0f;
    write_link_performance(dir.file("all.csv"), w.net, w.trips, w.arena, VolumeBreakdown::none,
                           LinkOutputScope::all);
    const std::string all = fixture::read_file(dir.file("all.csv"));
    EXPECT_NE(all.find("\n1001,1000,C0,21,12,50,0.00,0.000,55.00,1.50,0.00\n"), std::string::npos);
    EXPECT_EQ(lines_of(all).size(), 1u + 13 + 7 + 1);

    try {
        write_link_performance(dir.file("no/such.csv"), w.net, w.trips, w.arena,
                               VolumeBreakdown::none, LinkOutputScope::all);
        FAIL() << "no error for a missing folder";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "cannot write " + dir.file("no/such.csv"));
    }
}

TEST(LinkPerformance, CategoryColumnsShareOutTheVolume) {
    ReportWorld w;
    w.load_pce();
    // Volume where no path entered (rescaled by the link's overall mix): every column 0.00.
    w.net.links[2].volume[70] = 3.0f;
    testing::internal::CaptureStdout();
    convert_volumes_to_vehicles(w.net, w.trips, w.arena);
    testing::internal::GetCapturedStdout();
    fixture::TempDir dir;
    const std::string base =
        "a_node,b_node,county,ftype,hour,interval,volume,travel_time_min,speed_mph,queue_veh,"
        "toll_rate";

    write_link_performance(dir.file("segment.csv"), w.net, w.trips, w.arena,
                           VolumeBreakdown::segment, LinkOutputScope::macro);
    auto seg = lines_of(fixture::read_file(dir.file("segment.csv")));
    ASSERT_EQ(seg.size(), 14u);
    EXPECT_EQ(seg[0], base + ",vol_car,vol_truck");
    EXPECT_EQ(seg[1], "1000,1001,C0,21,8,32,1.00,2.500,30.00,0.00,1.25,0.75,0.25");
    EXPECT_EQ(seg[13], "1002,1003,,21,17,70,2.40,4.000,30.00,0.00,0.00,0.00,0.00");

    // Market: K0 holds sov 1 and hov 2 trips, K1 one sov trip.
    write_link_performance(dir.file("market.csv"), w.net, w.trips, w.arena, VolumeBreakdown::market,
                           LinkOutputScope::macro);
    auto market = lines_of(fixture::read_file(dir.file("market.csv")));
    EXPECT_EQ(market[0], base + ",vol_sov,vol_hov");
    EXPECT_EQ(market[1], "1000,1001,C0,21,8,32,1.00,2.500,30.00,0.00,1.25,0.50,0.50");

    write_link_performance(dir.file("purpose.csv"), w.net, w.trips, w.arena,
                           VolumeBreakdown::purpose, LinkOutputScope::meso);
    auto purpose = lines_of(fixture::read_file(dir.file("purpose.csv")));
    EXPECT_EQ(purpose[0], base + ",vol_work,vol_shop");
    EXPECT_EQ(purpose[1], "1003,1004,C1,21,8,33,0.25,1.000,30.00,0.00,0.00,0.25,0.00");
    EXPECT_EQ(purpose[4], "1003,1004,C1,21,9,36,0.50,1.000,30.00,0.00,0.00,0.25,0.25");

    // Every row with demand: the columns add up to the volume (to the printed rounding).
    for (const auto* rows : {&seg, &market, &purpose})
        for (size_t r = 1; r < rows->size(); ++r) {
            const auto f = fields_of((*rows)[r]);
            ASSERT_EQ(f.size(), 13u) << (*rows)[r];
            const double vol = std::stod(f[6]);
            const double sum = std::stod(f[11]) + std::stod(f[12]);
            if (sum > 0) {
                EXPECT_NEAR(sum, vol, 0.011) << (*rows)[r];
            }
        }
}

}  // namespace
}  // namespace torvex
