#include "input/network.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::TempDir;
using fixture::write_file;

struct Files {
    TempDir dir;
    std::string nodes, links;
    Files(const std::string& node_text, const std::string& link_text)
        : nodes(dir.file("NODE.csv")), links(dir.file("LINK.csv")) {
        write_file(nodes, node_text);
        write_file(links, link_text);
    }
};

std::string load_error(const std::string& node_path, const std::string& link_path) {
    try {
        load_network(node_path, link_path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

const Link& link_ab(const Network& net, int64_t a, int64_t b) {
    for (const Link& l : net.links)
        if (l.a_node == a && l.b_node == b) return l;
    throw std::runtime_error("no link");
}

const Node& node_n(const Network& net, int64_t n) {
    return net.nodes[net.node_index.at(n)];
}

TEST(NetworkLoader, ColumnsAliasesAndDefaults) {
    Files f("N,X,Y,DTA_TYPE\n1,0,0,\n2,1.5,2,90\n3,2,0,abc\n\n2,9,9,\n",
            "A,B,DIST,NLANES,CAPACITY,FTYPE,SPEED,POSTSPEED,TOLL,TOLL_POLICY,el_no_truck,COUNT_24,"
            "COUNT,NSignals.y,meso,DTA_MICRO,ALPHA\n"
            "1,2,1.5,3,0,11,0,45,0.75,7,yes,0,500,2,1,Y,\n"
            "2,3,0.5,0,1800,51,-1,,,, YES,,0,0,y ,0,0.2\n"
            "3,1,1,256,1000,12,30,,,,,12,,,,,\n"
            "2,99,1,1,1,1,1,1,,,,,,,,,\n"
            "3,2,1,-1,1000,3,70\n");
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    Network net = load_network(f.nodes, f.links);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[network] warning: 1 links skipped (endpoint not in NODE.csv)\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[network] 2 links tagged MESO via dta_meso column\n"
              "[network] 1 links tagged MICRO via dta_micro column\n");

    // The duplicated id keeps its slot; the first row wins the index.
    ASSERT_EQ(net.node_count(), 4);
    EXPECT_EQ(net.node_index.at(2), 1);
    EXPECT_EQ(net.nodes[1].dta_type, 90);
    EXPECT_FLOAT_EQ(net.nodes[1].x, 1.5f);
    ASSERT_EQ(net.link_count(), 4);

    const Link& l12 = link_ab(net, 1, 2);
    EXPECT_EQ(l12.lanes, 3);
    EXPECT_FLOAT_EQ(l12.speed_mph, 45.0f);  // SPEED 0 falls through to POSTSPEED
    EXPECT_FLOAT_EQ(l12.free_flow_min, 1.5f / 45.0f * 60.0f);
    EXPECT_FLOAT_EQ(l12.capacity_vph, 3.0f);  // CAPACITY 0 is 1 veh/h per lane
    EXPECT_FLOAT_EQ(l12.discharge_vph, 3.0f);
    EXPECT_FLOAT_EQ(l12.toll, 0.75f);
    EXPECT_EQ(l12.toll_policy, 7);
    EXPECT_EQ(l12.no_trucks, 1);
    EXPECT_FLOAT_EQ(l12.count, 500.0f);  // COUNT comes before COUNT_24 among the aliases
    EXPECT_EQ(l12.nsignals, 2);
    EXPECT_EQ(l12.flow_tier, kTierMeso);
    EXPECT_EQ(l12.dta_micro, 1);
    EXPECT_FLOAT_EQ(l12.alpha, 0.0f);  // an empty ALPHA field is 0, not the default
    EXPECT_FLOAT_EQ(l12.beta, 4.0f);
    EXPECT_FLOAT_EQ(l12.storage_veh, 1.5f * 240.0f * 3.0f);
    for (int i = 0; i < kIntervals; ++i) {
        ASSERT_EQ(l12.travel_time_min[i], l12.free_flow_min);
        ASSERT_EQ(l12.volume[i] + l12.inflow[i] + l12.queue_veh[i], 0);
    }

    const Link& l23 = link_ab(net, 2, 3);
    EXPECT_EQ(l23.lanes, 1);  // NLANES 0
    EXPECT_EQ(l23.is_connector, 1);
    EXPECT_FLOAT_EQ(l23.speed_mph, 5.0f);  // SPEED -1, POSTSPEED empty
    EXPECT_EQ(l23.no_trucks, 0);           // " YES" is not a yes-flag
    EXPECT_FLOAT_EQ(l23.count, -1.0f);     // COUNT 0 means none
    EXPECT_EQ(l23.flow_tier, kTierMeso);   // "y " after trimming; a tagged connector stays
    EXPECT_FLOAT_EQ(l23.alpha, 0.2f);

    const Link& l31 = link_ab(net, 3, 1);
    EXPECT_EQ(l31.lanes, 0);  // 256 narrows to 0 and stays
    EXPECT_FLOAT_EQ(l31.capacity_vph, 0.0f);
    EXPECT_FLOAT_EQ(l31.storage_veh, 1.0f);
    EXPECT_FLOAT_EQ(l31.count, -1.0f);  // COUNT column empty: COUNT_24 is not consulted

    EXPECT_FLOAT_EQ(link_ab(net, 3, 2).toll, 0.0f);  // a short row: missing fields read as empty
}

TEST(NetworkLoader, AdjacencyCentroidsAndCounties) {
    // Zone 100 joins node 1 by connectors. Node 1 has links of county A twice and B twice:
    // the tie goes to the lower id (A, seen first). Node 5 only has a county-less link.
    Files f("N,X,Y\n100,0,0\n1,0,0\n2,0,0\n3,0,0\n4,0,0\n5,0,0\n6,0,0\n",
            "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,from_county\n"
            "100,1,0.1,1,1000,51,\n"
            "1,100,0.1,1,1000,51,\n"
            "1,2,1,1,1000,3,A \n"
            "2,1,1,1,1000,3,A\n"
            "1,3,1,1,1000,3,B\n"
            "3,1,1,1,1000,3,B\n"
            "3,4,1,1,1000,3,B\n"
            "4,5,1,1,1000,3,\n"
            "6,6,1,1,1000,3,\n");
    Network net = load_network(f.nodes, f.links);
    ASSERT_EQ(net.county_names, (std::vector<std::string>{"A", "B"}));

    // Every link sits exactly once in out_links of its tail and in_links of its head; ascending.
    for (const Node& n : net.nodes)
        EXPECT_TRUE(std::is_sorted(n.out_links.begin(), n.out_links.end()) &&
                    std::is_sorted(n.in_links.begin(), n.in_links.end()));
    for (int32_t i = 0; i < net.link_count(); ++i) {
        const auto& out = net.nodes[net.links[i].from].out_links;
        const auto& in = net.nodes[net.links[i].to].in_links;
        EXPECT_EQ(std::count(out.begin(), out.end(), i), 1);
        EXPECT_EQ(std::count(in.begin(), in.end(), i), 1);
    }

    EXPECT_EQ(node_n(net, 100).is_centroid, 1);
    EXPECT_EQ(node_n(net, 1).is_centroid, 0);
    EXPECT_EQ(node_n(net, 1).county, 0);  // 2 x A, 2 x B: lowest id wins
    EXPECT_EQ(node_n(net, 3).county, 1);
    EXPECT_EQ(node_n(net, 4).county, 1);  // only its county link counts
    // The connector leaving the centroid takes the county of its head node.
    EXPECT_EQ(link_ab(net, 100, 1).county, 0);
    EXPECT_EQ(node_n(net, 100).county, 0);    // leftover node: from its first out link
    EXPECT_EQ(link_ab(net, 4, 5).county, 1);  // from its tail
    EXPECT_EQ(node_n(net, 5).county, 1);      // leftover: from its in link
    EXPECT_EQ(node_n(net, 6).county, kNoCounty);
    EXPECT_EQ(node_n(net, 6).is_centroid, 0);

    CountyAdjacency adj = build_county_adjacency(net);
    ASSERT_EQ(adj.n, 2);
    EXPECT_TRUE(adj.adjacent(0, 1) && adj.adjacent(1, 0));
    EXPECT_FALSE(adj.adjacent(0, 0));
    EXPECT_EQ(county_scope(0, 0, adj), 0);
    EXPECT_EQ(county_scope(0, 1, adj), 1);
    EXPECT_EQ(county_scope(-1, 1, adj), 2);
    EXPECT_EQ(county_scope(static_cast<int16_t>(kNoCounty), 0, adj), 2);
}

TEST(NetworkLoader, NoCountyColumnMeansStatewideScopes) {
    Files f("N,X,Y\n1,0,0\n2,0,0\n", "A,B,DISTANCE,NLANES,CAPACITY,FTYPE\n1,2,1,1,1000,3\n");
    Network net = load_network(f.nodes, f.links);
    CountyAdjacency adj = build_county_adjacency(net);
    EXPECT_EQ(adj.n, 0);
    EXPECT_TRUE(adj.touches.empty());
    EXPECT_EQ(county_scope(static_cast<int16_t>(net.nodes[0].county),
                           static_cast<int16_t>(net.nodes[1].county), adj),
              2);

    Files header_only("N,X,Y\n1,0,0\n", "A,B,DISTANCE,NLANES,CAPACITY,FTYPE\n");
    EXPECT_EQ(load_network(header_only.nodes, header_only.links).link_count(), 0);
}

TEST(NetworkLoader, FailuresCarryTheirMessages) {
    TempDir dir;
    const std::string nodes = dir.file("N.csv"), links = dir.file("L.csv");
    write_file(nodes, "N,X,Y\n1,0,0\n");
    EXPECT_EQ(load_error(dir.file("none.csv"), links), "cannot open " + dir.file("none.csv"));
    write_file(links, "");
    EXPECT_EQ(load_error(nodes, links), links + ": empty");
    write_file(links, "A,B,DISTANCE,NLANES,FTYPE\n");
    EXPECT_EQ(load_error(nodes, links), links + ": missing required column CAPACITY");
    write_file(links, "A,B,LENGTH,NLANES,CAPACITY,FTYPE\n");
    EXPECT_EQ(load_error(nodes, links), links + ": missing required column (DISTANCE or alias)");
    write_file(nodes, "N,Y\n");
    EXPECT_EQ(load_error(nodes, links), nodes + ": missing required column X");
}

}  // namespace
}  // namespace torvex
