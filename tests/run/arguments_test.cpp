#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "run/run_config.h"
#include "run/temp_files.h"

namespace torvex {
namespace {

using testing_support::TempDir;

struct ParseResult {
    int code = 0;
    std::string out;
    std::string err;
};

// Without capturing, for arguments that raise.
int parse_raw(RunConfig& c, std::vector<std::string> args) {
    args.insert(args.begin(), "torvex");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return parse_arguments(c, static_cast<int>(args.size()), argv.data());
}

ParseResult parse(RunConfig& c, std::vector<std::string> args) {
    ParseResult r;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    r.code = parse_raw(c, std::move(args));
    r.err = ::testing::internal::GetCapturedStderr();
    r.out = ::testing::internal::GetCapturedStdout();
    return r;
}

// Splits a command line at blanks.
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// The config after the arguments are applied to it, or to a fresh one.
RunConfig& parsed(RunConfig& c, std::vector<std::string> args) {
    parse(c, std::move(args));
    return c;
}
RunConfig after(std::vector<std::string> args) {
    RunConfig c;
    return parsed(c, std::move(args));
}

std::string usage_text() {
    ::testing::internal::CaptureStdout();
    print_usage();
    return ::testing::internal::GetCapturedStdout();
}

TEST(Arguments, UsageHelpUnknownAndMissingValues) {
    const std::string usage = usage_text();
    EXPECT_EQ(usage.rfind("Morvane DTA (MVP)\nusage: torvex --control RUN.ctl [overrides]\n", 0),
              0u);
    const std::string tail =
        "  --trace-agents IDs     comma-separated agent ids: dump their full path\n"
        "                         (links + entry times) every iteration to trace_paths.csv\n";
    ASSERT_GE(usage.size(), tail.size());
    EXPECT_EQ(usage.substr(usage.size() - tail.size()), tail);
    EXPECT_EQ(std::count(usage.begin(), usage.end(), '\n'), 59);

    RunConfig c;
    for (const char* help : {"--help", "-h"}) {
        ParseResult r = parse(c, {"--iters", "3", help, "--bogus"});
        EXPECT_EQ(r.code, 0);
        EXPECT_EQ(r.out, usage);
        EXPECT_EQ(r.err, "");
    }

    for (const char* bad : {"-H", "--HELP", "iters", "--iters=3", "--control-file", ""}) {
        ParseResult r = parse(c, {bad, "--help"});
        EXPECT_EQ(r.code, 2) << bad;
        EXPECT_EQ(r.err, std::string("unknown arg: ") + bad + "\n");
        EXPECT_EQ(r.out, usage);  // the help after it is never reached
    }

    for (const char* flag : {"--iters", "--control", "--macro-model"}) {
        ParseResult r = parse(c, {"--meso-all-links", flag});
        EXPECT_EQ(r.code, 2) << flag;
        EXPECT_EQ(r.err, "") << flag;
        EXPECT_EQ(r.out, usage) << flag;
    }
    ParseResult r = parse(c, {"--market-scale", "HBW"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.out, usage);

    RunConfig fresh;
    r = parse(fresh, {});
    EXPECT_EQ(r.code, -1);  // input files are the driver's check
    EXPECT_EQ(r.out + r.err, "");

    // A malformed number in a flag ends the process through the conversion exception.
    EXPECT_THROW(parse_raw(fresh, {"--iters", "ten"}), std::invalid_argument);
}

TEST(Arguments, LayersApplyInArgumentOrder) {
    TempDir dir;
    const std::string a = dir.write("a.ctl",
                                    "NODE_FILE file_nodes.csv\nMAX_ITERATIONS 30\n"
                                    "SAMPLE_EVERY 3\nMESO_FTYPE 11\n");
    const std::string b = dir.write("b.ctl", "MAX_ITERATIONS 40\n");
    RunConfig c;
    ParseResult r = parse(c, {"--node", "flag_nodes.csv", "--iters", "5", "--control", a,
                              "--meso-ftype", "71", "--control", b, "--sample-every", "4"});
    EXPECT_EQ(r.code, -1);
    EXPECT_EQ(c.node_file, "file_nodes.csv");    // flag before the file is overwritten
    EXPECT_EQ(c.assignment.max_iterations, 40);  // the later file wins
    EXPECT_EQ(c.sample_every, 4);                // the flag after the file wins
    EXPECT_EQ(c.meso_ftype, (std::vector<int32_t>{11, 71}));

    // A failing control file ends the parse with 2 and no usage text.
    const std::string bad = dir.write("bad.ctl", "NODE_FILE x\nNOT_A_KEY 1\n");
    RunConfig e;
    r = parse(e, {"--control", bad, "--iters", "6"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, bad + "(2): unknown control key NOT_A_KEY\n");
    EXPECT_EQ(e.assignment.max_iterations, 20);
}

// Most value flags hand their value to the control key of the same meaning, whose handling the
// key tests cover; a few of those plus the flags with their own handling.
TEST(Arguments, ValueFlagsWriteTheirFields) {
    RunConfig c;
    ParseResult r = parse(c, words("--out-dir o --max-trips 9000000000 --chunks 5 --trace-agents "
                                   "4,5 --trace-agents 6 --market-scale HBW 1.2 --select-op and"));
    ASSERT_EQ(r.code, -1);
    EXPECT_EQ(c.output_directory, "o");
    EXPECT_EQ(c.max_trips, 9000000000LL);
    EXPECT_EQ(c.assignment.route_chunks, 5);
    EXPECT_FALSE(c.route_chunks_explicit);  // the flag never counts as explicit
    EXPECT_EQ(c.trace_agents, (std::vector<int64_t>{4, 5, 6}));
    ASSERT_EQ(c.market_scale.size(), 1u);
    EXPECT_EQ(c.market_scale[0].first, "HBW");
    EXPECT_FLOAT_EQ(c.market_scale[0].second, 1.2f);
    EXPECT_TRUE(c.select_and);
    EXPECT_FALSE(parsed(c, {"--select-op", "AND"}).select_and);
    EXPECT_THROW(parse_raw(c, {"--market-scale", "HBW", "lots"}), std::invalid_argument);
}

TEST(Arguments, SwitchesAndFlagOnlyRules) {
    RunConfig c;
    // A few switches of each kind: on, off, alias of a model, one-of-two modes.
    ParseResult r = parse(c, words("--write-agents --ltm-all-links --node-conservation "
                                   "--node-interval-turns --node-per-chunk --no-meso-log"));
    ASSERT_EQ(r.code, -1);
    EXPECT_EQ(c.write_agent_results, AgentOutputMode::csv);
    EXPECT_EQ(c.macro_model, MacroModel::DTA_LTM);
    EXPECT_TRUE(c.node_conservation);
    EXPECT_TRUE(c.assignment.node_turns);
    EXPECT_EQ(c.assignment.node_refresh_every, 1);
    EXPECT_FALSE(c.write_meso_log);
    parse(c, {"--write-agents-duckdb", "--bpr-all-links", "--node-per-iter"});
    EXPECT_EQ(c.write_agent_results, AgentOutputMode::duckdb);
    EXPECT_EQ(c.macro_model, MacroModel::STA_BPR);
    EXPECT_EQ(c.assignment.node_refresh_every, 0);

    // --macro-model: message on unknown text, the parse goes on.
    RunConfig d;
    r = parse(d, {"--macro-model", "dta_nodepq", "--macro-model", "ctm", "--iters", "2"});
    EXPECT_EQ(r.code, -1);
    EXPECT_EQ(r.err, "[args] unknown --macro-model 'ctm' (use DTA_PointQueue|DTA_LTM|STA_BPR)\n");
    EXPECT_EQ(d.macro_model, MacroModel::DTA_NodePQ);
    EXPECT_EQ(d.assignment.max_iterations, 2);

    // --micro-coupling: unknown text is silent yet turns the corridor on.
    EXPECT_EQ(after({"--micro-coupling", "twoway_full"}).micro_coupling,
              MicroCoupling::twoway_full);
    RunConfig f;
    r = parse(f, {"--micro-coupling", "sideways"});
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(f.micro_corridor);
    EXPECT_EQ(f.micro_coupling, MicroCoupling::oneway);

    // --micro-choice writes the mode only.
    const RunConfig g = after({"--micro-choice", "modea"});
    EXPECT_EQ(g.micro_choice, MicroChoice::ModeA_logit);
    EXPECT_FALSE(g.micro_corridor);

    // --node-receiving always turns the report on.
    RunConfig h;
    EXPECT_TRUE(parsed(h, {"--node-receiving", "pointqueue"}).node_conservation);
    EXPECT_FALSE(h.node_receiving_spatial);
    EXPECT_TRUE(parsed(h, {"--node-receiving", "anything"}).node_receiving_spatial);

    // Exact matches where the key would fold case.
    RunConfig k;
    EXPECT_EQ(parsed(k, {"--node-method", "Newell"}).node_method, 0);
    EXPECT_EQ(parsed(k, {"--node-method", "newell"}).node_method, 1);
    const std::string lvb = "--link-volume-breakdown";
    EXPECT_EQ(parsed(k, {lvb, "vot"}).link_volume_breakdown, VolumeBreakdown::segment);
    EXPECT_EQ(parsed(k, {lvb, "MARKET"}).link_volume_breakdown, VolumeBreakdown::none);

    // --node-schedule is the range form only; the plain mode stays.
    const RunConfig m = after({"--node-per-chunk", "--node-schedule", "1-3:iter,4:chunk"});
    EXPECT_EQ(m.assignment.node_refresh_every, 1);
    EXPECT_EQ(m.assignment.node_schedule, (std::vector<int32_t>{0, 0, 0, 1}));

    // --signal-gc writes the share and turns the signal model on.
    const RunConfig s = after({"--signal-gc", "0.4"});
    EXPECT_TRUE(s.signal_model);
    EXPECT_FLOAT_EQ(s.signal_gc, 0.4f);
}

}  // namespace
}  // namespace torvex
