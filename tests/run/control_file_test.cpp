#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "run/run_config.h"
#include "run/temp_files.h"

namespace torvex {
namespace {

using testing_support::TempDir;

// "ok:" or "refused:" followed by what applying the file printed to standard error.
std::string load(RunConfig& c, const std::string& path) {
    ::testing::internal::CaptureStderr();
    const bool ok = apply_control_file(c, path);
    return (ok ? "ok:" : "refused:") + ::testing::internal::GetCapturedStderr();
}

TEST(ControlFile, LineGrammar) {
    TempDir dir;
    const std::string path = dir.write("run.ctl",
                                       "# a comment line\n"
                                       "\n"
                                       "   \t  \n"
                                       "NODE_FILE nodes.csv\n"
                                       "link_file = links.csv\r\n"
                                       "TRIP_FILE =  trips file.csv.gz \t\r\n"
                                       "COUNTY_FILTER\n"
                                       "STOP_FILE =\n"
                                       "MICRO_CORRIDOR   # empty value means on\n"
                                       "SUBAREA_ID ==x=y\n"
                                       "MARKET_SCALE HBW 1.5\n"
                                       "Max_Iterations 7\n"
                                       "#MAX_ITERATIONS 9\n"
                                       "SEGMENT_PARAM_FILE seg.csv#not part of the path\n"
                                       "MAX_TRIPS 100");  // last line without newline
    RunConfig c;
    c.county_filter = "before";
    c.assignment.stop_file = "before";
    ASSERT_EQ(load(c, path), "ok:");
    EXPECT_EQ(c.node_file, "nodes.csv");
    EXPECT_EQ(c.link_file, "links.csv");
    EXPECT_EQ(c.trip_file, "trips file.csv.gz");
    EXPECT_EQ(c.county_filter, "");  // empty value is legal and written
    EXPECT_EQ(c.assignment.stop_file, "");
    EXPECT_TRUE(c.micro_corridor);
    EXPECT_EQ(c.subarea_id, "x=y");  // only the front of the value loses "="
    ASSERT_EQ(c.market_scale.size(), 1u);
    EXPECT_EQ(c.market_scale[0].first, "HBW");
    EXPECT_EQ(c.assignment.max_iterations, 7);
    EXPECT_EQ(c.segment_param_file, "seg.csv");
    EXPECT_EQ(c.max_trips, 100);
    EXPECT_FALSE(c.route_chunks_explicit);
}

TEST(ControlFile, LastKeyWinsAndRouteChunksIsExplicit) {
    TempDir dir;
    const std::string path =
        dir.write("a.ctl",
                  "ROUTE_CHUNKS 1\nMAX_ITERATIONS 3\nMAX_ITERATIONS 4\nMESO_FTYPE 11\n"
                  "MESO_FTYPE 71,91\nMACRO_MODEL sta_bpr\nMACRO_MODEL bogus\n");
    RunConfig c;
    EXPECT_EQ(load(c, path),
              "ok:[config] unknown MACRO_MODEL 'bogus' (use DTA_PointQueue|DTA_LTM|STA_BPR)\n");
    EXPECT_EQ(c.assignment.route_chunks, 1);
    EXPECT_TRUE(c.route_chunks_explicit);
    EXPECT_EQ(c.assignment.max_iterations, 4);
    EXPECT_EQ(c.meso_ftype, (std::vector<int32_t>{11, 71, 91}));
    EXPECT_EQ(c.macro_model, MacroModel::STA_BPR);
}

TEST(ControlFile, RefusalsStopTheFileAndNumbersRaise) {
    TempDir dir;
    RunConfig c;
    // Unknown key: message with path and 1-based line number counting comments and blanks.
    const std::string unknown =
        dir.write("u.ctl", "# header\n\nMAX_ITERATIONS 5\r\nroute_chunkz 3\r\nMAX_ITERATIONS 9\n");
    EXPECT_EQ(load(c, unknown), "refused:" + unknown + "(4): unknown control key ROUTE_CHUNKZ\n");
    EXPECT_EQ(c.assignment.max_iterations, 5);  // lines after the refusal are not applied

    // "KEY=value" without blanks is one word, so the key is unknown.
    const std::string glued = dir.write("g.ctl", "MAX_ITERATIONS=5\n");
    EXPECT_EQ(load(c, glued), "refused:" + glued + "(1): unknown control key MAX_ITERATIONS=5\n");

    // A refused value prints its own message, then the unknown-key line.
    const std::string refused =
        dir.write("r.ctl", "STA_VDF akcelik\nCONICAL_ALPHA 0.5\nSTA_VDF bpr\n");
    RunConfig d;
    EXPECT_EQ(load(d, refused), "refused:[args] CONICAL_ALPHA must be > 1 (got 0.5)\n" + refused +
                                    "(2): unknown control key CONICAL_ALPHA\n");
    EXPECT_EQ(d.sta_vdf, "akcelik");
    EXPECT_FLOAT_EQ(d.conical_alpha, 4.0f);

    // A missing file and a directory cannot be opened.
    for (const std::string& path : {(dir.path / "none.ctl").string(), dir.path.string()}) {
        EXPECT_EQ(load(c, path), "refused:cannot open control file " + path + "\n");
    }

    // A malformed number raises out of the file, after the lines before it were applied.
    const std::string number = dir.write("n.ctl", "MAX_ITERATIONS 3\nRELATIVE_GAP tight\n");
    RunConfig e;
    EXPECT_THROW(apply_control_file(e, number), std::invalid_argument);
    EXPECT_EQ(e.assignment.max_iterations, 3);
}

}  // namespace
}  // namespace torvex
