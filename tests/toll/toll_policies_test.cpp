#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <tuple>

#include "run/run_config.h"
#include "support/test_files.h"
#include "toll/side_network.h"
#include "toll/toll_tables.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

Network test_net() {
    return fixture::side_network({1, 2}, {{1, 2, 1, 1800.0f}});
}

std::string load(const std::string& path, Network& net) {
    testing::internal::CaptureStdout();
    load_toll_policies(path, net);
    return testing::internal::GetCapturedStdout();
}

std::string load_error(const std::string& path) {
    Network net = test_net();
    try {
        load_toll_policies(path, net);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(TollPolicies, TypesRowsAndSummary) {
    TempDir dir;
    const std::string path = dir.file("tolls.csv");
    write_file(path,
               "policy_id,Type,start,end,Toll,dens_min,dens_max,min_rate,max_rate,Increment,"
               "deflate\r\n"
               "1,fixed,,,1.00,,,,,,y\r\n"
               "1,FIXED,,,2.50,,,,,,no\r\n"  // last fixed row wins
               "2,TOD,15:00,18:00,4.00,,,,,,1\r\n"
               "2,Time,06:00,09:00,3.00,,,,,,true\r\n"
               "2,timeofday,-1:00,bad,9.00,,,,,,TRUE\r\n"  // unparseable times become 0
               "3,Density,20,40,,,,,,,\r\n"
               "3,density,,,,20,40,1,3,0,Yes\r\n"
               "3,density,,,,0,20,0.5,0.5,-1,YES\r\n"
               "4,hov,,,,,,,,,\r\n"  // unknown type: policy created, row not counted
               "5,fixed,,,1.5,,,,,,\r\n"
               "5,density,,,,0,10,1,2,0.1,\r\n"  // the last row decides the type
               ",fixed,,,7,,,,,,\r\n"            // no id
               "6, ,,,7,,,,,,\r\n"               // blank type
               "7\r\n"                           // short row
               "\r\n");
    Network net = test_net();
    EXPECT_EQ(
        load(path, net),
        "[toll] 5 policies (2 fixed, 1 time-of-day, 2 density) from 10 rows in " + path + "\n");

    // One tuple per policy and per row: {type, toll, cpi}, {start, end, toll, cpi} and
    // {density_min, density_max, toll_min, dynamic, increment, cpi}.
    auto policy = [&](int32_t id) {
        const TollPolicy* p = net.toll_policies.find(id);
        return std::tuple(p ? int{p->type} : -1, p ? p->toll : 0.0f, p && p->cpi_adjust);
    };
    auto tod = [&](size_t i) {
        const TollTodRow& r = net.toll_policies.find(2)->tod_rows.at(i);
        return std::tuple(r.start_min, r.end_min, r.toll, r.cpi_adjust);
    };
    auto density = [&](int32_t id, size_t i) {
        const TollDensityRow& r = net.toll_policies.find(id)->density_rows.at(i);
        return std::tuple(r.density_min, r.density_max, r.toll_min, r.dynamic, r.increment,
                          r.cpi_adjust);
    };
    EXPECT_EQ(policy(1), std::tuple(int{kTollFixed}, 2.5f, false));
    // Policy 2's rows sorted by start; "TRUE" is not a yes.
    ASSERT_EQ(std::get<0>(policy(2)), kTollTimeOfDay);
    ASSERT_EQ(net.toll_policies.find(2)->tod_rows.size(), 3u);
    EXPECT_EQ(tod(0), std::tuple(0.0f, 0.0f, 9.0f, false));
    EXPECT_EQ(tod(1), std::tuple(360.0f, 540.0f, 3.0f, true));
    EXPECT_EQ(tod(2), std::tuple(900.0f, 1080.0f, 4.0f, true));
    // Policy 3: the row of time columns reads as zeros and a flat row keeps its increment; a row
    // with toll_min == toll_max is not dynamic without the column; a dynamic row with no step gets
    // a quarter; "Yes" is not a yes.
    ASSERT_EQ(std::get<0>(policy(3)), kTollDensity);
    ASSERT_EQ(net.toll_policies.find(3)->density_rows.size(), 3u);
    EXPECT_EQ(density(3, 0), std::tuple(0.0f, 0.0f, 0.0f, false, 0.0f, false));
    EXPECT_EQ(density(3, 1), std::tuple(0.0f, 20.0f, 0.5f, false, -1.0f, false));
    EXPECT_EQ(density(3, 2), std::tuple(20.0f, 40.0f, 1.0f, true, 0.25f, false));
    EXPECT_EQ(policy(4), std::tuple(int{kTollFixed}, 0.0f, false));
    ASSERT_EQ(std::get<0>(policy(5)), kTollDensity);
    ASSERT_EQ(net.toll_policies.find(5)->density_rows.size(), 1u);
    EXPECT_FLOAT_EQ(net.toll_policies.find(5)->density_rows[0].increment, 0.1f);
    for (int32_t id : {6, 7}) EXPECT_EQ(net.toll_policies.find(id), nullptr) << id;
}

TEST(TollPolicies, DynamicColumnAndFlagWords) {
    TempDir dir;
    const std::string path = dir.file("tolls.csv");
    write_file(path,
               "ID,type,density_min,density_max,toll_min,toll_max,increment,variable,cpi\n"
               "1,density,0,10,1,3,0,,1\n"    // column present: blank means not dynamic
               "1,density,10,20,3,3,0,1,Y\n"  // column says dynamic even with min == max
               "1,density,20,30,3,5,-2,y,yes\n"
               "1,density,30,40,5,6,0,true,true\n"
               "1,density,40,50,6,7,0,True,0\n"
               "1,density,50,60,6,7,0,yes ,n\n");
    Network net = test_net();
    load(path, net);
    const TollPolicy* p = net.toll_policies.find(1);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->density_rows.size(), 6u);
    const bool dynamic[] = {false, true, true, true, false, true};
    const bool cpi[] = {true, true, true, true, false, false};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(p->density_rows[i].dynamic, dynamic[i]) << i;
        EXPECT_EQ(p->density_rows[i].cpi_adjust, cpi[i]) << i;
        EXPECT_EQ(p->density_rows[i].increment, dynamic[i] ? 0.25f : 0.0f) << i;
    }
}

// The other column names, and an id wider than a link's 16 bits is still stored (a link naming
// its low bits finds nothing: see EvaluateToll).
TEST(TollPolicies, ColumnAliasesAndWideIds) {
    TempDir dir;
    const std::string path = dir.file("tolls.csv");
    write_file(path,
               "policy_id,type,start_time,end_time,toll,cpi_adjust\n"
               "3,fixed,,,2.00,1\n"
               "4,tod,06:00,09:00,3.00,0\n"
               "70000,fixed,,,9.00,0\n");
    Network net = test_net();
    EXPECT_EQ(
        load(path, net),
        "[toll] 3 policies (2 fixed, 1 time-of-day, 0 density) from 3 rows in " + path + "\n");
    const TollPolicy* fixed = net.toll_policies.find(3);
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(std::tuple(fixed->toll, fixed->cpi_adjust), std::tuple(2.0f, true));
    const TollPolicy* tod = net.toll_policies.find(4);
    ASSERT_NE(tod, nullptr);
    ASSERT_EQ(tod->tod_rows.size(), 1u);
    const TollTodRow& r = tod->tod_rows[0];
    EXPECT_EQ(std::tuple(r.start_min, r.end_min, r.toll, r.cpi_adjust),
              std::tuple(360.0f, 540.0f, 3.0f, false));
    EXPECT_NE(net.toll_policies.find(70000), nullptr);
}

TEST(TollPolicies, Failures) {
    TempDir dir;
    const std::string missing = dir.file("nope.csv");
    EXPECT_EQ(load_error(missing), "cannot open toll policy file " + missing);
    const std::string bad = dir.file("bad.csv");
    write_file(bad, "");
    EXPECT_EQ(load_error(bad), bad + ": empty");
    for (const char* header : {"policy_id,toll\n", "Policy_ID,type\n"}) {
        write_file(bad, header);
        EXPECT_EQ(load_error(bad), bad + ": need policy_id and type columns") << header;
    }
    write_file(bad, "id,type\n\n");
    Network net = test_net();
    EXPECT_EQ(load(bad, net),
              "[toll] 0 policies (0 fixed, 0 time-of-day, 0 density) from 0 rows in " + bad + "\n");
    EXPECT_TRUE(net.toll_policies.empty());
}

TEST(TollDeflator, FactorAndLine) {
    RunConfig config;
    Network net;
    auto factor = [&](int base, int future, float cpi) {
        config.base_year = base, config.future_year = future, config.cpi = cpi;
        net = Network{};  // a factor of 1 is the network's own default, not written
        compute_toll_deflator(config, net);
        return net.toll_deflator;
    };
    EXPECT_NEAR(factor(2020, 2021, -0.5f), 2.0f, 1e-6f);
    // No later future year, no base year, or no inflation: no factor.
    for (auto [base, future, cpi] :
         {std::tuple{2040, 2020, 0.02f}, {0, 2040, 0.02f}, {2020, 2040, 0.0f}})
        EXPECT_EQ(factor(base, future, cpi), 1.0f) << base << " " << future << " " << cpi;
    const float f = factor(2020, 2040, 0.02f);
    EXPECT_NEAR(f, 0.6730f, 5e-5f);
    // Brought forward again over the same 20 years it is one dollar.
    EXPECT_NEAR(f * std::pow(1.02, 20.0), 1.0, 1e-6);
    testing::internal::CaptureStdout();
    print_toll_deflation(config, net);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[toll] deflation factor 0.6730 (base 2020 -> future 2040, CPI 0.020)\n");
}

}  // namespace
}  // namespace torvex
