// End-to-end runs of the torvex binary: exit codes, exact log lines, side files.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::file_exists;
using fixture::read_file;
using fixture::RunResult;
using fixture::TempDir;
using fixture::write_file;

// Log lines with their "[HH:MM:SS]" prefix replaced by "[T]".
std::string untimed(const std::string& s) {
    static const std::regex stamp(R"(\[\d\d:\d\d:\d\d\])");
    return std::regex_replace(s, stamp, "[T]");
}

bool has_line(const std::string& text, const std::string& line) {
    return ("\n" + untimed(text)).find("\n" + line + "\n") != std::string::npos;
}

// "exit <code>: <standard error>" of a run.
std::string ended(const RunResult& r) {
    return "exit " + std::to_string(r.exit_code) + ": " + r.err;
}

// Two zones joined through a small road net: a freeway (11) with ramps (71), an arterial with
// signals (3) and connectors (51). County "North" holds nodes 1-2, "South" nodes 3-4.
struct Region {
    TempDir dir;
    Region() {
        write_file(dir.file("NODE.csv"), "N,X,Y\n100,0,0\n200,9,0\n1,1,0\n2,2,0\n3,3,0\n4,4,0\n");
        write_file(dir.file("LINK.csv"),
                   "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,SPEED,NSignals,from_county,dta_meso\n"
                   "100,1,0.2,1,2000,51,30,,,1\n1,100,0.2,1,2000,51,30,,,\n"
                   "1,2,2,3,2000,11,65,,North,\n2,1,2,3,2000,11,65,,North,\n"
                   "2,3,0.5,1,1500,71,45,,South,\n3,2,0.5,1,1500,71,45,,South,\n"
                   "3,4,1,2,900,3,35,2,South,\n4,3,1,2,900,3,35,2,South,\n"
                   "4,200,0.2,1,2000,51,30,,,\n200,4,0.2,1,2000,51,30,,,\n");
        write_file(dir.file("TRIPS.csv"), "hh_id,O,D,hour\n1,100,200,8\n");
    }
    RunResult run(std::vector<std::string> args) const {
        std::vector<std::string> all = {"--node",  "NODE.csv",  "--link",    "LINK.csv",
                                        "--trips", "TRIPS.csv", "--out-dir", "out"};
        all.insert(all.end(), args.begin(), args.end());
        return fixture::run_program(TORVEX_BIN, all, dir.path);
    }
    RunResult run_raw(std::vector<std::string> args) const {
        return fixture::run_program(TORVEX_BIN, args, dir.path);
    }
    void control(const std::string& name, const std::string& text) const {
        write_file(dir.file(name), text);
    }
};

TEST(DriverArguments, HelpUnknownAndMissingValues) {
    Region r;
    RunResult help = r.run_raw({"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_EQ(help.out.rfind("Morvane DTA (MVP)\nusage: torvex --control RUN.ctl [overrides]\n", 0),
              0u);

    // The first unknown argument ends the parse: a later --help is never reached.
    RunResult bogus = r.run_raw({"--bogus", "--help"});
    EXPECT_EQ(ended(bogus), "exit 2: unknown arg: --bogus\n");
    EXPECT_EQ(bogus.out, help.out);

    RunResult no_trips = r.run_raw({"--node", "NODE.csv", "--link", "LINK.csv"});
    EXPECT_EQ(no_trips.exit_code, 2);
    EXPECT_EQ(no_trips.out, help.out);
    EXPECT_EQ(no_trips.err.find("error:"), std::string::npos);
}

TEST(DriverArguments, ControlFileConversionAndLoaderFailures) {
    Region r;
    RunResult missing = r.run({"--control", "nope.ctl"});
    EXPECT_EQ(ended(missing), "exit 2: cannot open control file nope.ctl\n");
    EXPECT_EQ(missing.out, "");  // no usage text for a control file failure

    // Malformed numbers are not caught: the process ends abnormally with the conversion's text.
    RunResult bad_int = r.run({"--iters", "x"});
    EXPECT_GE(bad_int.exit_code, 128);
    EXPECT_NE(bad_int.err.find("invalid stoi argument"), std::string::npos);
    EXPECT_EQ(bad_int.err.find("error:"), std::string::npos);

    // Loader errors go through the guard, after the opening line.
    RunResult no_nodes = r.run_raw({"--node", "missing.csv", "--link", "LINK.csv", "--trips", "T"});
    EXPECT_EQ(ended(no_nodes), "exit 1: error: cannot open missing.csv\n");
    EXPECT_TRUE(has_line(no_nodes.out, "[T] Morvane DTA run started"));
}

TEST(DriverRun, NetworkPhaseLinesAndClosingLine) {
    Region r;
    RunResult run = r.run({"--out-dir", "deep/er/out", "--signal-model"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    // The default node model reports its conservation on the error stream, nothing else does.
    EXPECT_TRUE(std::regex_match(
        run.err,
        std::regex(R"((\[node-dnl/cumulative\] conservation: injected=1 exited=1 [^\n]*\n)+)")))
        << run.err;
    const std::string out = untimed(run.out);
    EXPECT_TRUE(std::regex_search(
        out, std::regex(R"(\n\[T\]\[network\] 6 nodes \(2 centroids\), 10 )"
                        R"(links, 2 counties, 0 links without county, \d+\.\ds\n)")));
    EXPECT_TRUE(has_line(out,
                         "[T][signal] model applied to 2 signalized links (sat=1800 vphpl, "
                         "C=120s, g/C=0.45)"));
    EXPECT_TRUE(has_line(out,
                         "[T][flow-model] macro=DTA_NodeLTM (conserving+spillback) | 0 LTM, 1 "
                         "MESO, rest point queue"));
    EXPECT_TRUE(has_line(out,
                         "[T][flow-model] resolution map: 1 MESO + 0 MICRO links -> "
                         "deep/er/out/resolution_map.csv"));
    EXPECT_EQ(read_file(r.dir.file("deep/er/out/resolution_map.csv")),
              "a_node,b_node,ftype,lanes,length_mi,tier\n100,1,51,1,0.200,MESO\n");
    EXPECT_TRUE(std::regex_search(
        out,
        std::regex(R"(\n\[T\] Morvane DTA run complete -- total runtime \d+s \(\d+\.\ds\)\n$)")));
    EXPECT_EQ(out.find("[T] Morvane DTA run started\n"), 0u);
}

TEST(DriverRun, LayersTiersAndStorage) {
    Region r;
    r.control("pq.ctl", "MACRO_MODEL DTA_PointQueue\n");
    // A flag after --control wins over the file.
    RunResult after =
        r.run({"--control", "pq.ctl", "--macro-model", "LTM", "--jam-density", "200"});
    // Under LTM connectors stay point queue, the tagged connector stays MESO.
    EXPECT_TRUE(
        has_line(after.out, "[T][flow-model] macro=DTA_LTM | 6 LTM, 1 MESO, rest point queue"));
    EXPECT_TRUE(has_line(
        after.out,
        "[T][ltm] 6 LTM links | jam_density=200 veh/mi/lane | max spillback delay=20 min"));

    // A failing open of the resolution map does not stop the run.
    ASSERT_EQ(system(("rm -f " + r.dir.file("out/resolution_map.csv") + " && mkdir -p " +
                      r.dir.file("out/resolution_map.csv"))
                         .c_str()),
              0);
    RunResult blocked = r.run({});
    EXPECT_EQ(blocked.exit_code, 0);
    EXPECT_EQ(untimed(blocked.out).find("resolution map:"), std::string::npos);
}

TEST(DriverRun, StaticSettingsAndMesoFallback) {
    Region r;
    r.control("sta.ctl",
              "MACRO_MODEL STA_BPR\nROUTE_CHUNKS 5\nSTA_VDF conical\nBPR_PERIOD_MIN 60\n");
    RunResult sta = r.run({"--control", "sta.ctl", "--meso-all-links"});
    ASSERT_EQ(sta.exit_code, 0) << sta.err;
    EXPECT_TRUE(has_line(sta.out,
                         "[T][sta] VDF conical | window 4 x 15 min = 60 min | solver: "
                         "bi-conjugate Frank-Wolfe"));
    EXPECT_TRUE(has_line(sta.out, "[T][sta] conical alpha = 4.000"));
    EXPECT_TRUE(has_line(sta.out,
                         "[T][sta-bpr] ROUTE_CHUNKS=5 ignored: all-or-nothing routes the "
                         "whole demand against one frozen cost field"));
    const std::string meso_ignored =
        "[T][flow-model] STA_BPR + meso is unsupported; meso ignored (1 dta_meso links -> BPR)";
    EXPECT_TRUE(has_line(sta.err, meso_ignored));
    EXPECT_TRUE(has_line(sta.out,
                         "[T][flow-model] macro=STA_BPR (static assignment, BPR VDF) | 0 LTM, "
                         "0 MESO, rest point queue"));

    // --chunks never sets the explicit flag; ROUTE_CHUNKS 1 prints nothing either.
    r.control("sta2.ctl", "MACRO_MODEL BPR\nSTA_METHOD msa\nBPR_OVERCAP_BETA_MULT 2\n");
    RunResult quiet = r.run({"--control", "sta2.ctl", "--chunks", "5"});
    EXPECT_TRUE(has_line(quiet.out,
                         "[T][sta] VDF bpr | window 1 x 15 min = 15 min | solver: MSA (step 1/k)"));
    EXPECT_TRUE(has_line(quiet.out, "[T][sta] BPR beta x 2.000 above capacity (v/c > 1)"));
    EXPECT_EQ(quiet.out.find("ignored"), std::string::npos);
}

TEST(DriverRun, DischargeSignalsAndMicroTags) {
    Region r;
    r.control("d.ctl",
              "DISCHARGE_FACTOR_11 0.9\nDISCHARGE_FACTOR_3 1.0\nSIGNAL_GC_3 0.6\nMICRO_FTYPE 71\n");
    RunResult run = r.run({"--control", "d.ctl"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_TRUE(
        has_line(run.out, "[network] discharge factors applied to 2 links ( 3=1.00 11=0.90 )"));
    EXPECT_TRUE(has_line(run.out, "[T][flow-model] 2 links tagged MICRO via MICRO_FTYPE"));
    EXPECT_NE(read_file(r.dir.file("out/resolution_map.csv")).find("2,3,71,1,0.500,MICRO\n"),
              std::string::npos);

    // Without the corridor, dta_micro tags from the LINK file are cleared again.
    write_file(r.dir.file("LINK_micro.csv"),
               "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,micro\n100,1,1,1,1,51,1\n1,100,1,1,1,51,1\n");
    RunResult cleared = r.run_raw(
        {"--node", "NODE.csv", "--link", "LINK_micro.csv", "--trips", "T", "--out-dir", "o2"});
    EXPECT_TRUE(has_line(cleared.out,
                         "[T][flow-model] MICRO_CORRIDOR off -- cleared 2 dta_micro "
                         "tag(s); those links report under macro/meso"));
    EXPECT_FALSE(file_exists(r.dir.file("o2/resolution_map.csv")));
}

TEST(DriverRun, TripsAndCountyFilter) {
    Region r;
    write_file(r.dir.file("TRIPS.csv"),
               "hh_id,O,D,hour,vehTrips\n1,100,200,8,1\n2,100,2,9,2\n3,7,200,8,1\n");
    RunResult north = r.run({"--county", "North"});
    ASSERT_EQ(north.exit_code, 0) << north.err;
    EXPECT_TRUE(has_line(north.out,
                         "[T][county-filter] North (id 0): kept 1 intra-county keys (2 veh), "
                         "dropped 1 veh of out-of-county demand"));

    RunResult south = r.run({"--county", "South"});
    EXPECT_EQ(ended(south), "exit 1: [county-filter] no intra-county trips\n");
    EXPECT_TRUE(has_line(south.out,
                         "[T][county-filter] South (id 1): kept 0 intra-county keys (0 veh), "
                         "dropped 3 veh of out-of-county demand"));
    EXPECT_EQ(ended(r.run({"--county", "West"})),
              "exit 1: [county-filter] unknown county 'West'\n");

    write_file(r.dir.file("TRIPS.csv"), "hh_id,O,D,hour\n1,100,100,8\n");
    RunResult none = r.run({});
    EXPECT_EQ(none.exit_code, 1);
    EXPECT_NE(none.err.find("no trips loaded\n"), std::string::npos);
    EXPECT_EQ(none.err.find("error:"), std::string::npos);
}

}  // namespace
}  // namespace torvex
