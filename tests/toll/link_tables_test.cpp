#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/test_files.h"
#include "toll/side_network.h"
#include "toll/toll_tables.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

// Links: 0 = 1->2 (2 lanes, 3600), 1 = 2->3, 2 = 2->3 parallel (addressed), 3 = 3->1 (0 lanes).
Network test_net() {
    return fixture::side_network(
        {1, 2, 3, 4},
        {{1, 2, 2, 3600.0f}, {2, 3, 1, 1800.0f}, {2, 3, 3, 6000.0f}, {3, 1, 0, 900.0f}});
}

template <typename Load>
std::string load_output(Load load, const std::string& path, Network& net) {
    testing::internal::CaptureStdout();
    load(path, net);
    return testing::internal::GetCapturedStdout();
}

template <typename Load>
std::string load_error(Load load, const std::string& path) {
    Network net = test_net();
    try {
        load(path, net);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

std::tuple<int, int, float, float> lane_use(const Link& l) {
    return {l.no_trucks, l.hot_occ_min, l.hot_discount, l.ev_discount};
}

TEST(LaneUse, TruckBanIsTheDefaultAndDiscountsClamp) {
    TempDir dir;
    const std::string path = dir.file("lanes.csv");
    write_file(path,
               "A,B,NO_TRUCKS,hot_occ_min,HOT_DISCOUNT,ev_discount,a_node\r\n"
               "1,2,,3,0.5,2.0,9\r\n"
               "2,3,no,-3,-0.2,0.1,9\r\n"
               "\r\n"
               "\n"
               "3,1,N,300,,,\n"
               "1,3,0,1,0.1,0.1\n"   // no link 1->3
               "1,99,0,1,0.1,0.1\n"  // unknown node
               "1\n");               // too short to name a link: passed over
    Network net = test_net();
    net.links[1].no_trucks = 1;  // the unaddressed parallel link keeps its own state
    net.links[3].hot_discount = 0.3f;
    net.links[3].ev_discount = 0.4f;
    EXPECT_EQ(
        load_output(load_lane_use, path, net),
        "[lane-use] 3 links set (no_trucks / HOT / EV discounts; 2 unmatched) from " + path + "\n");
    // A blank field bans and 2.0 clamps; negatives are raised to 0, the last of a parallel pair is
    // set; 300 is truncated to u8 and blanks leave the discounts.
    EXPECT_EQ(lane_use(net.links[0]), std::make_tuple(1, 3, 0.5f, 0.95f));
    EXPECT_EQ(lane_use(net.links[2]), std::make_tuple(0, 0, 0.0f, 0.1f));
    EXPECT_EQ(net.links[1].no_trucks, 1);
    EXPECT_EQ(lane_use(net.links[3]), std::make_tuple(0, 300 % 256, 0.3f, 0.4f));
}

TEST(LaneUse, NoTruckColumnFlagWordsAndFailures) {
    TempDir dir;
    const std::string path = dir.file("lanes.csv");
    // Without the column every named link is banned.
    write_file(path, "from_node,to_node\n1,2\n3,1\n");
    Network net = test_net();
    load_output(load_lane_use, path, net);
    EXPECT_EQ(net.links[0].no_trucks + net.links[3].no_trucks, 2);
    EXPECT_EQ(net.links[2].no_trucks, 0);

    // Only the exact words clear the ban; the A/B aliases and truck_restrict are honoured.
    const std::vector<const char*> clearing = {"0", "n", "false", "no "};
    const std::vector<const char*> banning = {"1", "No", " 0", "FALSE", "off"};
    for (const auto& [words, banned] : {std::pair{clearing, 0}, std::pair{banning, 1}})
        for (const char* word : words) {
            Network n2 = test_net();
            n2.links[0].no_trucks = 1 - banned;  // the loader must change it
            write_file(path, std::string("a_node,b_node,truck_restrict\n1,2,") + word + "\n");
            load_output(load_lane_use, path, n2);
            EXPECT_EQ(n2.links[0].no_trucks, banned) << word;
        }

    const std::string missing = dir.file("nope.csv");
    EXPECT_EQ(load_error(load_lane_use, missing), "cannot open lane-use file " + missing);
    write_file(path, "");
    EXPECT_EQ(load_error(load_lane_use, path), path + ": empty");
    // Names are case-sensitive, and a leading blank is part of the name.
    for (const char* header : {"A,b,no_trucks\n1,2,1\n", " A,B\n1,2\n"}) {
        write_file(path, header);
        EXPECT_EQ(load_error(load_lane_use, path), path + ": need A,B columns") << header;
    }
}

float schedule_sum(const CapacitySchedule& s) {
    return std::accumulate(s.begin(), s.end(), 0.0f);
}

TEST(CapacitySchedule, IntervalsAtBoundaries) {
    TempDir dir;
    const std::string path = dir.file("cap.csv");
    write_file(path,
               "A,B,start_time,end_time,added_lanes\n"
               "1,2,07:00,09:00,1\n"      // intervals 28..35, +1800 (3600 over 2 lanes)
               "2,3,00:00,00:15:00,-1\n"  // exactly interval 0 of the parallel link: -2000
               "3,1,29:45,31:00,2\n"      // runs past the horizon: 119 only; lanes 0 count as 1
               "3,1,40:00,41:00,1\n");    // starts past the horizon: 119 again
    Network net = test_net();
    EXPECT_EQ(load_output(load_capacity_schedule, path, net),
              "[capacity] 4 time-of-day schedules on 3 links (0 unmatched) from " + path + "\n");
    ASSERT_EQ(net.capacity_schedules.size(), 3u);
    const CapacitySchedule& s12 = net.capacity_schedules.at(0);
    for (int i = 0; i < kIntervals; ++i) {
        const float expect = (i >= 28 && i <= 35) ? 5400.0f : 3600.0f;
        ASSERT_EQ(s12[i], expect) << i;
    }
    const CapacitySchedule& s23 = net.capacity_schedules.at(2);
    EXPECT_EQ(s23[0], 4000.0f);
    EXPECT_EQ(schedule_sum(s23), 120 * 6000.0f - 2000.0f);
    const CapacitySchedule& s31 = net.capacity_schedules.at(3);
    EXPECT_EQ(s31[119], 900.0f + 1800.0f + 900.0f);
    EXPECT_EQ(schedule_sum(s31), 120 * 900.0f + 2700.0f);
    for (int l : {0, 1, 2}) EXPECT_EQ(net.links[l].has_capacity_schedule, l == 1 ? 0 : 1) << l;
}

TEST(CapacitySchedule, AccumulationFloorAndVph) {
    TempDir dir;
    const std::string path = dir.file("cap.csv");
    write_file(path,
               "from_node,to_node,StartTime,EndTime,lanes,vph\n"
               "1,2,06:00,10:00,1,-5000\n"  // 3600 - 5000 floors at 0
               "1,2,07:00,08:00,1,-5000\n"  // still 0
               "1,2,07:30,09:00,1,1000\n"   // 0 + 1000 where it overlaps, not 3600-10000+1000
               "1,2,12:00,13:00,2,\n"       // blank vph: two lanes of 1800
               "1,2,12:30,12:45,0,250.5\n"  // overlapping rows add
               "1,2,14:00,15:00,,\n"        // no change, still counted
               "9,2,07:00,08:00,1,5\n"      // unknown node
               "2,1,07:00,08:00,1,5\n"      // no link that way
               "1,2,07:00\n"                // short row: passed over uncounted
               "1,2,09:00,09:00,1,5\n"      // end not after start: dropped
               "1,2,480,540,1,5\n"          // bare numbers refuse to parse
               "4,1,08:00,07:00,1,5\n");    // unmatched before the times are looked at
    Network net = test_net();
    EXPECT_EQ(load_output(load_capacity_schedule, path, net),
              "[capacity] 6 time-of-day schedules on 1 links (3 unmatched) from " + path + "\n");
    const CapacitySchedule& s = net.capacity_schedules.at(0);
    // Intervals 23..40: 06:00-07:30 floored, the overlap, 09:00-10:00 floored, then untouched.
    const std::vector<float> morning(s.begin() + 23, s.begin() + 41);
    EXPECT_EQ(morning, (std::vector<float>{3600, 0, 0, 0, 0, 0, 0, 1000, 1000, 1000, 1000, 1000,
                                           1000, 0, 0, 0, 0, 3600}));
    EXPECT_EQ(s[48], 7200.0f);
    EXPECT_EQ(s[50], 7200.0f + 250.5f);
    EXPECT_EQ(s[51], 7200.0f);
    EXPECT_EQ(s[56], 3600.0f);
}

TEST(CapacitySchedule, LaneValueFollowsDischargeAfterFactors) {
    TempDir dir;
    const std::string path = dir.file("cap.csv");
    write_file(path, "A,B,start_time,end_time,add_lanes,add_vph\n1,2,1@00:00,1@00:15,0.5,\n");
    Network net = test_net();
    net.links[0].capacity_vph = 4000.0f;
    net.links[0].discharge_vph = 3000.0f;  // a discharge factor has been applied
    load_output(load_capacity_schedule, path, net);
    const CapacitySchedule& s = net.capacity_schedules.at(0);
    EXPECT_EQ(s[96], 3000.0f + 750.0f);  // day prefix: 24:00 is interval 96
    EXPECT_EQ(schedule_sum(s), 120 * 3000.0f + 750.0f);
}

TEST(CapacitySchedule, Failures) {
    TempDir dir;
    const std::string missing = dir.file("nope.csv");
    EXPECT_EQ(load_error(load_capacity_schedule, missing), "cannot open capacity file " + missing);
    const std::string bad = dir.file("bad.csv");
    write_file(bad, "");
    EXPECT_EQ(load_error(load_capacity_schedule, bad), bad + ": empty");
    for (const char* header : {"A,B,start_time\n", "A,start,end\n", "A,B,Start_Time,end\n"}) {
        write_file(bad, header);
        EXPECT_EQ(load_error(load_capacity_schedule, bad),
                  bad + ": need A,B,start_time,end_time columns")
            << header;
    }
    // A header alone is a valid, empty table.
    write_file(bad, "A,B,start,end\n");
    Network net = test_net();
    EXPECT_EQ(load_output(load_capacity_schedule, bad, net),
              "[capacity] 0 time-of-day schedules on 0 links (0 unmatched) from " + bad + "\n");
}

}  // namespace
}  // namespace torvex
