// PCE conversion and the link performance files: rows, formats, scope filter, category columns.
// A random-demand conversion check and the category sums live in the e2e outputs run.
#include <gtest/gtest.h>

#include <cstring>
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

// With every used segment at pce 1 nothing changes and nothing is printed.
TEST(VehicleUnits, PceOneChangesNothing) {
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
        const Link& now = same.net.links[l];
        EXPECT_EQ(std::memcmp(before[l].volume, now.volume, sizeof now.volume), 0) << l;
        EXPECT_EQ(std::memcmp(before[l].queue_veh, now.queue_veh, sizeof now.queue_veh), 0) << l;
    }
}

// Trucks at pce 2 are converted back to vehicles, then written by scope.
TEST(LinkPerformance, VehicleUnitsRowsFormatsAndScopeFilter) {
    ReportWorld w;
    w.load_pce();
    w.net.links[3].queue_veh[50] = 1.5f;  // no demand entered: rescaled by 1; alone makes a row
    w.net.links[5].volume[10] = 4.0f;     // micro: in neither the macro nor the meso file
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
    w.net.links[0].queue_veh[32] = 0.0f;  // the rows below expect no queue there

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

    auto rows = [&](VolumeBreakdown by, LinkOutputScope scope) {
        write_link_performance(dir.file("cat.csv"), w.net, w.trips, w.arena, by, scope);
        return lines_of(fixture::read_file(dir.file("cat.csv")));
    };

    const auto seg = rows(VolumeBreakdown::segment, LinkOutputScope::macro);
    ASSERT_EQ(seg.size(), 14u);
    EXPECT_EQ(seg[0], base + ",vol_car,vol_truck");
    EXPECT_EQ(seg[1], "1000,1001,C0,21,8,32,1.00,2.500,30.00,0.00,1.25,0.75,0.25");
    EXPECT_EQ(seg[13], "1002,1003,,21,17,70,2.40,4.000,30.00,0.00,0.00,0.00,0.00");

    // Market: K0 holds sov 1 and hov 2 trips, K1 one sov trip.
    const auto market = rows(VolumeBreakdown::market, LinkOutputScope::macro);
    EXPECT_EQ(market[0], base + ",vol_sov,vol_hov");
    EXPECT_EQ(market[1], "1000,1001,C0,21,8,32,1.00,2.500,30.00,0.00,1.25,0.50,0.50");

    const auto purpose = rows(VolumeBreakdown::purpose, LinkOutputScope::meso);
    EXPECT_EQ(purpose[0], base + ",vol_work,vol_shop");
    EXPECT_EQ(purpose[1], "1003,1004,C1,21,8,33,0.25,1.000,30.00,0.00,0.00,0.25,0.00");
    EXPECT_EQ(purpose[4], "1003,1004,C1,21,9,36,0.50,1.000,30.00,0.00,0.00,0.25,0.25");
}

}  // namespace
}  // namespace torvex
