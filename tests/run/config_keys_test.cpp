#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "run/run_config.h"

namespace torvex {
namespace {

// Applies one key and returns what it printed to standard error.
std::string apply_err(RunConfig& c, const std::string& key, const std::string& value, bool& ok) {
    ::testing::internal::CaptureStderr();
    ok = apply_key(c, key, value);
    return ::testing::internal::GetCapturedStderr();
}

TEST(ConfigKeys, EveryKeyOfTheTableIsKnown) {
    const std::vector<std::pair<const char*, const char*>> keys = {
        {"NODE_FILE", "n.csv"},
        {"LINK_FILE", "l.csv"},
        {"TRIP_FILE", "t.csv"},
        {"OUTPUT_DIRECTORY", "out"},
        {"MAX_ITERATIONS", "3"},
        {"RELATIVE_GAP", "0.1"},
        {"ROUTE_CHUNKS", "2"},
        {"REROUTE_THRESHOLD_MIN", "1"},
        {"REROUTE_FRACTION_MIN", "0.1"},
        {"MAX_TRIPS", "5"},
        {"SAMPLE_EVERY", "2"},
        {"SAMPLE_SCHEDULE", "100"},
        {"THREADS", "2"},
        {"NUMBER_OF_THREADS", "2"},
        {"CHECKPOINT_FILE", "c"},
        {"CHECKPOINT_EVERY", "1"},
        {"STOP_FILE", "s"},
        {"RESUME_FROM", "r"},
        {"MARKET_SCALE", "HBW 1.1"},
        {"SEGMENT_PARAM_FILE", "p"},
        {"TURN_PROHIBITION_FILE", "t"},
        {"COUNTY_FILTER", "X"},
        {"TRACE_AGENTS", "1"},
        {"WRITE_AGENT_RESULTS", "CSV"},
        {"WRITE_AGENT_PLANS", "1"},
        {"WRITE_AGENT_PATHS", "0"},
        {"LINK_VOLUME_BREAKDOWN", "vot"},
        {"MACRO_MODEL", "LTM"},
        {"ENABLE_LTM", "yes"},
        {"LTM_ALL_LINKS", "no"},
        {"BPR_ALL_LINKS", "no"},
        {"LTM_MAX_SPILLBACK_MIN", "5"},
        {"JAM_DENSITY", "200"},
        {"STA_METHOD", "msa"},
        {"STA_VDF", "conical"},
        {"CONICAL_ALPHA", "3"},
        {"AKCELIK_JA", "0.4"},
        {"BPR_OVERCAP_BETA_MULT", "2"},
        {"BPR_PERIOD_MIN", "60"},
        {"STA_PATH_SCALE", "off"},
        {"NODE_CONSERVATION", "pq"},
        {"NODE_DT", "30"},
        {"NODE_METHOD", "queue"},
        {"NODE_TURNS", "static"},
        {"NODE_SCHEDULE", "once"},
        {"NODE_INJECT_RES", "5"},
        {"LOAD_SCHEDULE", "2"},
        {"MACRO_SCHEDULE", "3"},
        {"LOAD_REFRESH", "delta"},
        {"MESO_INTERSTATES", "1"},
        {"MESO_ALL_LINKS", "0"},
        {"MESO_FTYPE", "11"},
        {"MESO_MAX_SPILLBACK_MIN", "4"},
        {"MESO_BREAKER_RATE", "0.1"},
        {"MESO_DT_SEC", "3"},
        {"MESO_INTERVAL_LOG", "on"},
        {"MESO_MOVEMENT_LOG", "on"},
        {"MESO_SEGMENT_LOG", "on"},
        {"MESO_SEGMENT_FILE", "m"},
        {"MESO_SEGMENT_LEN", "0.1"},
        {"MESO_PROBE_LINK", "1 2"},
        {"MICRO_CORRIDOR", "on"},
        {"MICRO_COUPLING", "full"},
        {"MICRO_CHOICE", "a"},
        {"MICRO_OUTER", "3"},
        {"MICRO_FTYPE", "96"},
        {"MICRO_DT_SEC", "0.25"},
        {"MICRO_PROBE_LINK", "3 4"},
        {"MICRO_PROBE_STRIDE", "5"},
        {"MICRO_LANE_FILE", "ml"},
        {"LANE_FILE", "lf"},
        {"SIGNAL_MODEL", "on"},
        {"SIGNAL_SAT_FLOW", "1900"},
        {"SIGNAL_CYCLE", "90"},
        {"SIGNAL_GC", "0.5"},
        {"SIGNAL_GC_51", "0.6"},
        {"DISCHARGE_FACTOR_11", "1.1"},
        {"TOLL_POLICY_FILE", "tp"},
        {"LANE_USE_FILE", "lu"},
        {"CAPACITY_FILE", "cf"},
        {"REVERSIBLE_LANE_FILE", "rl"},
        {"CPI", "1.02"},
        {"BASE_YEAR", "2020"},
        {"FUTURE_YEAR", "2045"},
        {"EL_DETECT", "1"},
        {"EXPRESS_TOLL_POLICY", "7"},
        {"EL_NO_TRUCKS", "1"},
        {"TOLL_CHOICE", "1"},
        {"TOLL_CHOICE_CONSTANT", "-0.5"},
        {"TOLL_CHOICE_TIME_FACTOR", "1.2"},
        {"TOLL_CHOICE_TOLL_FACTOR", "0.8"},
        {"TOLL_CONSTANT_FILE", "tc"},
        {"TOLL_CHOICE_SPLIT_PASSES", "3"},
        {"TIME_COUNT_FILE", "cnt"},
        {"COUNT_FILE", "cnt2"},
        {"CALIBRATE", "1"},
        {"CALIB_PASSES", "2"},
        {"CALIB_ALPHA", "0.3"},
        {"CALIB_MAX_PCT_PER_PASS", "0.1"},
        {"CALIB_BOUND_LO", "0.5"},
        {"CALIB_BOUND_HI", "2"},
        {"CALIB_MIN_IMPORTANCE", "1"},
        {"SUBAREA_ID", "core"},
        {"SUBAREA_BOUNDARY_FILE", "b"},
        {"SUBAREA_SEED_NODE", "42"},
    };
    RunConfig c;
    for (const auto& [key, value] : keys) {
        bool ok = false;
        EXPECT_EQ(apply_err(c, key, value, ok), "") << key;
        EXPECT_TRUE(ok) << key;
    }
    // Keys are compared exactly: case, flags and near-misses are unknown, silently.
    for (const char* key : {"node_file", "--iters", "SIGNAL_GCX", "MAX_ITERATION", "", "CHUNKS"}) {
        bool ok = true;
        EXPECT_EQ(apply_err(c, key, "1", ok), "") << key;
        EXPECT_FALSE(ok) << key;
    }
}

TEST(ConfigKeys, DefaultsAndPlainKinds) {
    RunConfig c;
    EXPECT_EQ(c.output_directory, ".");
    EXPECT_EQ(c.assignment.max_iterations, 20);
    EXPECT_EQ(c.assignment.route_chunks, 10);
    EXPECT_EQ(c.macro_model, MacroModel::DTA_NodeLTM);
    EXPECT_EQ(c.assignment.node_mode, 2);
    EXPECT_EQ(c.assignment.load_refresh_every, 1);
    EXPECT_EQ(c.assignment.node_refresh_every, 0);
    EXPECT_EQ(c.write_agent_plans, -1);
    EXPECT_EQ(c.subarea_id, "sa1");
    EXPECT_EQ(c.node_method, 1);
    EXPECT_FALSE(c.route_chunks_explicit);

    ASSERT_TRUE(apply_key(c, "OUTPUT_DIRECTORY", "  out dir "));
    EXPECT_EQ(c.output_directory, "  out dir ");  // text as it stands
    ASSERT_TRUE(apply_key(c, "MAX_TRIPS", " 5000000000 trips"));
    EXPECT_EQ(c.max_trips, 5000000000LL);
    ASSERT_TRUE(apply_key(c, "RELATIVE_GAP", "0.02"));
    EXPECT_FLOAT_EQ(c.assignment.relative_gap, 0.02f);
    ASSERT_TRUE(apply_key(c, "ROUTE_CHUNKS", "1"));
    EXPECT_EQ(c.assignment.route_chunks, 1);
    EXPECT_TRUE(c.route_chunks_explicit);
    ASSERT_TRUE(apply_key(c, "NUMBER_OF_THREADS", "6"));
    EXPECT_EQ(c.assignment.threads, 6);
    ASSERT_TRUE(apply_key(c, "REVERSIBLE_LANE_FILE", "rev.csv"));
    EXPECT_EQ(c.capacity_file, "rev.csv");
    ASSERT_TRUE(apply_key(c, "COUNT_FILE", "counts.csv"));
    EXPECT_EQ(c.time_count_file, "counts.csv");
    ASSERT_TRUE(apply_key(c, "LANE_FILE", "lanes.csv"));
    EXPECT_EQ(c.micro_lane_file, "lanes.csv");
    ASSERT_TRUE(apply_key(c, "JAM_DENSITY", "180"));
    EXPECT_TRUE(c.jam_density_explicit);
    ASSERT_TRUE(apply_key(c, "SUBAREA_SEED_NODE", "-9000000000"));
    EXPECT_EQ(c.subarea_seed_node, -9000000000LL);

    // A malformed number raises; the field keeps its value.
    try {
        apply_key(c, "MAX_ITERATIONS", "ten");
        ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "invalid stoi argument");
    }
    EXPECT_EQ(c.assignment.max_iterations, 20);
    EXPECT_THROW(apply_key(c, "NODE_DT", "1e99"), std::out_of_range);
    EXPECT_THROW(apply_key(c, "MAX_TRIPS", ""), std::invalid_argument);
}

TEST(ConfigKeys, OnAndNotOffKinds) {
    RunConfig c;
    for (const char* on : {"YES", "true", "1", "On"}) {
        c.el_detect = false;
        ASSERT_TRUE(apply_key(c, "EL_DETECT", on));
        EXPECT_TRUE(c.el_detect) << on;
    }
    for (const char* off : {"y", "2", "", "enabled", " 1"}) {
        c.el_detect = true;
        ASSERT_TRUE(apply_key(c, "EL_DETECT", off));
        EXPECT_FALSE(c.el_detect) << off;  // an off value writes false
    }
    ASSERT_TRUE(apply_key(c, "WRITE_AGENT_PLANS", "no"));
    EXPECT_EQ(c.write_agent_plans, 0);
    ASSERT_TRUE(apply_key(c, "WRITE_AGENT_PATHS", "true"));
    EXPECT_EQ(c.write_agent_paths, 1);

    // Not-off: empty is on, "0" off, and a later MICRO_CHOICE turns the corridor on again.
    ASSERT_TRUE(apply_key(c, "MICRO_CORRIDOR", ""));
    EXPECT_TRUE(c.micro_corridor);
    ASSERT_TRUE(apply_key(c, "MICRO_CORRIDOR", "0"));
    EXPECT_FALSE(c.micro_corridor);
    ASSERT_TRUE(apply_key(c, "MICRO_CHOICE", "logit"));
    EXPECT_TRUE(c.micro_corridor);
    EXPECT_EQ(c.micro_choice, MicroChoice::ModeA_logit);
    ASSERT_TRUE(apply_key(c, "MICRO_CHOICE", "modeA2"));
    EXPECT_EQ(c.micro_choice, MicroChoice::ModeB_endogenous);
    ASSERT_TRUE(apply_key(c, "STA_PATH_SCALE", "False"));
    EXPECT_FALSE(c.sta_path_scale);
    ASSERT_TRUE(apply_key(c, "STA_PATH_SCALE", "whatever"));
    EXPECT_TRUE(c.sta_path_scale);

    // Lists append; MICRO_FTYPE also turns the corridor on.
    ASSERT_TRUE(apply_key(c, "MESO_FTYPE", "11,71"));
    ASSERT_TRUE(apply_key(c, "MESO_FTYPE", ",91,"));
    EXPECT_EQ(c.meso_ftype, (std::vector<int32_t>{11, 71, 91}));
    c.micro_corridor = false;
    ASSERT_TRUE(apply_key(c, "MICRO_FTYPE", "96"));
    EXPECT_TRUE(c.micro_corridor);
    ASSERT_TRUE(apply_key(c, "TRACE_AGENTS", "7,8"));
    EXPECT_EQ(c.trace_agents, (std::vector<int64_t>{7, 8}));
}

TEST(ConfigKeys, SpecialValues) {
    RunConfig c;
    const std::vector<std::pair<const char*, AgentOutputMode>> agent_modes = {
        {"duckdb", AgentOutputMode::duckdb},
        {"csv", AgentOutputMode::csv},
        {"Yes", AgentOutputMode::csv},
        {"1", AgentOutputMode::csv},
        {"ON", AgentOutputMode::default_mode},
        {"TRUE", AgentOutputMode::csv},
        {"parquet", AgentOutputMode::default_mode}};
    for (const auto& [text, mode] : agent_modes) {
        ASSERT_TRUE(apply_key(c, "WRITE_AGENT_RESULTS", text));
        EXPECT_EQ(c.write_agent_results, mode) << text;
    }
    const std::vector<std::pair<const char*, VolumeBreakdown>> breakdowns = {
        {"market", VolumeBreakdown::market},
        {"Purpose", VolumeBreakdown::purpose},
        {"SEGMENT", VolumeBreakdown::segment},
        {"vot", VolumeBreakdown::segment},
        {"county", VolumeBreakdown::none}};
    for (const auto& [text, mode] : breakdowns) {
        ASSERT_TRUE(apply_key(c, "LINK_VOLUME_BREAKDOWN", text));
        EXPECT_EQ(c.link_volume_breakdown, mode) << text;
    }

    // NODE_CONSERVATION: off words leave receiving alone; other words switch it on.
    ASSERT_TRUE(apply_key(c, "NODE_CONSERVATION", "point"));
    EXPECT_TRUE(c.node_conservation);
    EXPECT_FALSE(c.node_receiving_spatial);
    ASSERT_TRUE(apply_key(c, "NODE_CONSERVATION", "off"));
    EXPECT_FALSE(c.node_conservation);
    EXPECT_FALSE(c.node_receiving_spatial);
    ASSERT_TRUE(apply_key(c, "NODE_CONSERVATION", "yes please"));
    EXPECT_TRUE(c.node_conservation);
    EXPECT_FALSE(c.node_receiving_spatial);
    ASSERT_TRUE(apply_key(c, "NODE_CONSERVATION", "ltm"));
    EXPECT_TRUE(c.node_receiving_spatial);

    for (const char* m : {"cumulative", "LTM", "Newell", "curves"}) {
        c.node_method = 0;
        ASSERT_TRUE(apply_key(c, "NODE_METHOD", m));
        EXPECT_EQ(c.node_method, 1) << m;
    }
    ASSERT_TRUE(apply_key(c, "NODE_METHOD", "queue"));
    EXPECT_EQ(c.node_method, 0);
    ASSERT_TRUE(apply_key(c, "NODE_TURNS", "interval"));
    EXPECT_TRUE(c.assignment.node_turns);
    ASSERT_TRUE(apply_key(c, "NODE_TURNS", "Aggregate"));
    EXPECT_FALSE(c.assignment.node_turns);
    ASSERT_TRUE(apply_key(c, "LOAD_REFRESH", "Incremental"));
    EXPECT_TRUE(c.assignment.load_refresh);
    ASSERT_TRUE(apply_key(c, "LOAD_REFRESH", "full"));
    EXPECT_FALSE(c.assignment.load_refresh);

    // Schedules: a plain value sets the mode, the range form the list only.
    ASSERT_TRUE(apply_key(c, "NODE_SCHEDULE", "every 5 chunks"));
    EXPECT_EQ(c.assignment.node_refresh_every, 5);
    ASSERT_TRUE(apply_key(c, "NODE_SCHEDULE", "1-3:iter,4:chunk"));
    EXPECT_EQ(c.assignment.node_schedule, (std::vector<int32_t>{0, 0, 0, 1}));
    EXPECT_EQ(c.assignment.node_refresh_every, 5);
    ASSERT_TRUE(apply_key(c, "MACRO_SCHEDULE", "once"));
    EXPECT_EQ(c.assignment.load_refresh_every, 0);
    ASSERT_TRUE(apply_key(c, "LOAD_SCHEDULE", "2:3"));
    EXPECT_EQ(c.assignment.load_schedule, (std::vector<int32_t>{0, 3}));

    ASSERT_TRUE(apply_key(c, "SAMPLE_EVERY", "4"));
    ASSERT_TRUE(apply_key(c, "SAMPLE_SCHEDULE", "100,50"));
    EXPECT_EQ(c.sample_every, 1);
    EXPECT_EQ(c.assignment.sample_schedule, (std::vector<float>{1.0f, 0.5f}));

    ASSERT_TRUE(apply_key(c, "MICRO_OUTER", "-3"));
    EXPECT_EQ(c.micro_outer, 1);
    ASSERT_TRUE(apply_key(c, "MICRO_PROBE_STRIDE", "0"));
    EXPECT_EQ(c.micro_probe_stride, 1);
    ASSERT_TRUE(apply_key(c, "MESO_PROBE_LINK", " 10001\t20002 "));
    EXPECT_EQ(c.meso_probe_link, (std::array<int64_t, 2>{10001, 20002}));
    ASSERT_TRUE(apply_key(c, "MICRO_PROBE_LINK", "-1 5"));
    EXPECT_EQ(c.micro_probe_link, (std::array<int64_t, 2>{-1, 5}));
    EXPECT_THROW(apply_key(c, "MESO_PROBE_LINK", "10001"), std::invalid_argument);
}

TEST(ConfigKeys, MacroModelTextsAndAliases) {
    const std::vector<std::pair<const char*, MacroModel>> texts = {
        {"DTA_PointQueue", MacroModel::DTA_PointQueue},
        {"dta_point", MacroModel::DTA_PointQueue},
        {"pointqueue", MacroModel::DTA_PointQueue},
        {"Point_Queue", MacroModel::DTA_PointQueue},
        {"point", MacroModel::DTA_PointQueue},
        {"pq", MacroModel::DTA_PointQueue},
        {"dta_ltm", MacroModel::DTA_LTM},
        {"Ltm", MacroModel::DTA_LTM},
        {"sta_bpr", MacroModel::STA_BPR},
        {"static_bpr", MacroModel::STA_BPR},
        {"Static", MacroModel::STA_BPR},
        {"bpr", MacroModel::STA_BPR},
        {"DTA_NodePQ", MacroModel::DTA_NodePQ},
        {"nodepq", MacroModel::DTA_NodePQ},
        {"node_pq", MacroModel::DTA_NodePQ},
        {"dta_node_pq", MacroModel::DTA_NodePQ},
        {"DTA_NodeLTM", MacroModel::DTA_NodeLTM},
        {"nodeltm", MacroModel::DTA_NodeLTM},
        {"node_ltm", MacroModel::DTA_NodeLTM},
        {"dta_node_ltm", MacroModel::DTA_NodeLTM},
        {"dta_nodespatial", MacroModel::DTA_NodeLTM},
        {"NodeSpatial", MacroModel::DTA_NodeLTM},
    };
    for (const auto& [text, model] : texts) {
        MacroModel out = model == MacroModel::DTA_LTM ? MacroModel::STA_BPR : MacroModel::DTA_LTM;
        EXPECT_TRUE(parse_macro_model(text, out)) << text;
        EXPECT_EQ(out, model) << text;
    }
    MacroModel out = MacroModel::DTA_LTM;
    EXPECT_FALSE(parse_macro_model("node", out));
    EXPECT_FALSE(parse_macro_model(" LTM", out));
    EXPECT_EQ(out, MacroModel::DTA_LTM);

    // MACRO_MODEL is forgiving: message, old value kept, key accepted.
    RunConfig c;
    c.macro_model = MacroModel::DTA_LTM;
    bool ok = false;
    EXPECT_EQ(apply_err(c, "MACRO_MODEL", "Ctm", ok),
              "[config] unknown MACRO_MODEL 'Ctm' (use DTA_PointQueue|DTA_LTM|STA_BPR)\n");
    EXPECT_TRUE(ok);
    EXPECT_EQ(c.macro_model, MacroModel::DTA_LTM);

    // Aliases: only their stated value moves the model.
    ASSERT_TRUE(apply_key(c, "ENABLE_LTM", "yes"));
    EXPECT_EQ(c.macro_model, MacroModel::DTA_LTM);
    ASSERT_TRUE(apply_key(c, "ENABLE_LTM", "False"));
    EXPECT_EQ(c.macro_model, MacroModel::DTA_PointQueue);
    ASSERT_TRUE(apply_key(c, "LTM_ALL_LINKS", "off"));
    EXPECT_EQ(c.macro_model, MacroModel::DTA_PointQueue);
    ASSERT_TRUE(apply_key(c, "LTM_ALL_LINKS", "on"));
    EXPECT_EQ(c.macro_model, MacroModel::DTA_LTM);
    ASSERT_TRUE(apply_key(c, "BPR_ALL_LINKS", "0"));
    EXPECT_EQ(c.macro_model, MacroModel::DTA_LTM);
    ASSERT_TRUE(apply_key(c, "BPR_ALL_LINKS", "true"));
    EXPECT_EQ(c.macro_model, MacroModel::STA_BPR);
}

TEST(ConfigKeys, StaticSettingsAreStrict) {
    RunConfig c;
    bool ok = true;
    EXPECT_EQ(apply_err(c, "STA_METHOD", "Frank_Wolfe", ok), "");
    EXPECT_TRUE(ok);
    EXPECT_EQ(c.sta_method, StaMethod::fw);
    EXPECT_TRUE(c.sta_method_explicit);

    RunConfig d;
    EXPECT_EQ(apply_err(d, "STA_METHOD", "newton", ok),
              "[args] unknown STA_METHOD 'newton' (use legacy|msa|fw|cfw|bfw)\n");
    EXPECT_FALSE(ok);
    EXPECT_TRUE(d.sta_method_explicit);  // set before the value is checked
    EXPECT_EQ(d.sta_method, StaMethod::bfw);

    const std::vector<std::pair<const char*, StaMethod>> methods = {
        {"legacy", StaMethod::legacy},
        {"PathSwap", StaMethod::legacy},
        {"path_swap", StaMethod::legacy},
        {"MSA", StaMethod::msa},
        {"fw", StaMethod::fw},
        {"frankwolfe", StaMethod::fw},
        {"cfw", StaMethod::cfw},
        {"Conjugate", StaMethod::cfw},
        {"bfw", StaMethod::bfw},
        {"biconjugate", StaMethod::bfw},
        {"bi_conjugate", StaMethod::bfw}};
    for (const auto& [text, method] : methods) {
        StaMethod out = method == StaMethod::msa ? StaMethod::fw : StaMethod::msa;
        EXPECT_TRUE(parse_sta_method(text, out)) << text;
        EXPECT_EQ(out, method) << text;
    }

    EXPECT_EQ(apply_err(c, "STA_VDF", "Conical", ok), "");
    EXPECT_TRUE(ok);
    EXPECT_EQ(c.sta_vdf, "conical");
    EXPECT_EQ(apply_err(c, "STA_VDF", "Davidson", ok),
              "[args] unknown STA_VDF 'Davidson' (use bpr|conical|akcelik)\n");
    EXPECT_FALSE(ok);
    EXPECT_EQ(c.sta_vdf, "conical");

    EXPECT_EQ(apply_err(c, "CONICAL_ALPHA", "1.0", ok),
              "[args] CONICAL_ALPHA must be > 1 (got 1.0)\n");
    EXPECT_FALSE(ok);
    EXPECT_FLOAT_EQ(c.conical_alpha, 4.0f);
    EXPECT_EQ(apply_err(c, "CONICAL_ALPHA", "1.5", ok), "");
    EXPECT_FLOAT_EQ(c.conical_alpha, 1.5f);

    EXPECT_EQ(apply_err(c, "AKCELIK_JA", "-0.1", ok),
              "[args] AKCELIK_JA must be >= 0 (got -0.1)\n");
    EXPECT_FALSE(ok);
    EXPECT_EQ(apply_err(c, "AKCELIK_JA", "0", ok), "");
    EXPECT_TRUE(ok);
    EXPECT_FLOAT_EQ(c.akcelik_ja, 0.0f);

    EXPECT_EQ(apply_err(c, "BPR_OVERCAP_BETA_MULT", "0.9", ok),
              "[args] BPR_OVERCAP_BETA_MULT must be >= 1 (got 0.9); it steepens beta above "
              "capacity\n");
    EXPECT_FALSE(ok);
    EXPECT_FLOAT_EQ(c.bpr_overcap_beta_mult, 1.0f);
    EXPECT_EQ(apply_err(c, "BPR_OVERCAP_BETA_MULT", "1", ok), "");
    EXPECT_TRUE(ok);

    EXPECT_EQ(apply_err(c, "BPR_PERIOD_MIN", "0", ok), "");
    EXPECT_TRUE(ok);
    EXPECT_FLOAT_EQ(c.bpr_period_min, 15.0f);
    ASSERT_TRUE(apply_key(c, "BPR_PERIOD_MIN", "60"));
    ASSERT_TRUE(apply_key(c, "BPR_PERIOD_MIN", "-5"));
    EXPECT_FLOAT_EQ(c.bpr_period_min, 15.0f);
}

TEST(ConfigKeys, MicroCouplingSignalsAndMarkets) {
    RunConfig c;
    bool ok = false;
    EXPECT_EQ(apply_err(c, "MICRO_COUPLING", "sideways", ok),
              "[config] unknown MICRO_COUPLING 'sideways'\n");
    EXPECT_TRUE(ok);
    EXPECT_FALSE(c.micro_corridor);
    EXPECT_EQ(c.micro_coupling, MicroCoupling::oneway);
    ASSERT_TRUE(apply_key(c, "MICRO_COUPLING", "frozen_od"));
    EXPECT_TRUE(c.micro_corridor);
    EXPECT_EQ(c.micro_coupling, MicroCoupling::twoway_frozen);
    const std::vector<std::pair<const char*, MicroCoupling>> couplings = {
        {"oneway", MicroCoupling::oneway},
        {"One_Way", MicroCoupling::oneway},
        {"1way", MicroCoupling::oneway},
        {"twoway_frozen", MicroCoupling::twoway_frozen},
        {"TWOWAY_FROZENOD", MicroCoupling::twoway_frozen},
        {"frozen", MicroCoupling::twoway_frozen},
        {"twoway_full", MicroCoupling::twoway_full},
        {"twoway", MicroCoupling::twoway_full},
        {"Full", MicroCoupling::twoway_full}};
    for (const auto& [text, coupling] : couplings) {
        MicroCoupling out =
            coupling == MicroCoupling::oneway ? MicroCoupling::twoway_full : MicroCoupling::oneway;
        EXPECT_TRUE(parse_micro_coupling(text, out)) << text;
        EXPECT_EQ(out, coupling) << text;
    }

    // SIGNAL_GC_n turns the signal model on, SIGNAL_GC alone does not.
    ASSERT_TRUE(apply_key(c, "SIGNAL_GC", "0.6"));
    EXPECT_FALSE(c.signal_model);
    EXPECT_FLOAT_EQ(c.signal_gc, 0.6f);
    ASSERT_TRUE(apply_key(c, "SIGNAL_GC_51", "0.6"));
    EXPECT_TRUE(c.signal_model);
    EXPECT_FLOAT_EQ(c.signal_gc_ftype.at(51), 0.6f);
    EXPECT_THROW(apply_key(c, "SIGNAL_GC_", "0.5"), std::invalid_argument);

    ASSERT_TRUE(apply_key(c, "DISCHARGE_FACTOR_71", "0.9"));
    ASSERT_TRUE(apply_key(c, "DISCHARGE_FACTOR_11", "1.1"));
    ASSERT_TRUE(apply_key(c, "DISCHARGE_FACTOR_71", "0.8"));
    ASSERT_EQ(c.discharge_factor.size(), 2u);
    EXPECT_EQ(c.discharge_factor.begin()->first, 11);
    EXPECT_FLOAT_EQ(c.discharge_factor.at(71), 0.8f);

    // MARKET_SCALE: pushed only if both the name and the factor read; repeatable.
    ASSERT_TRUE(apply_key(c, "MARKET_SCALE", "HBW 1.25"));
    ASSERT_TRUE(apply_key(c, "MARKET_SCALE", "truck"));
    ASSERT_TRUE(apply_key(c, "MARKET_SCALE", "truck lots"));
    ASSERT_TRUE(apply_key(c, "MARKET_SCALE", ""));
    ASSERT_TRUE(apply_key(c, "MARKET_SCALE", "\tHBW\t0.5 extra"));
    ASSERT_EQ(c.market_scale.size(), 2u);
    EXPECT_EQ(c.market_scale[0].first, "HBW");
    EXPECT_FLOAT_EQ(c.market_scale[0].second, 1.25f);
    EXPECT_EQ(c.market_scale[1].first, "HBW");
    EXPECT_FLOAT_EQ(c.market_scale[1].second, 0.5f);
}

TEST(ConfigKeys, LogNames) {
    EXPECT_STREQ(sta_method_long_name(0), "legacy (DTA path-swap)");
    EXPECT_STREQ(sta_method_long_name(1), "MSA (step 1/k)");
    EXPECT_STREQ(sta_method_long_name(2), "Frank-Wolfe");
    EXPECT_STREQ(sta_method_long_name(3), "conjugate Frank-Wolfe");
    EXPECT_STREQ(sta_method_long_name(4), "bi-conjugate Frank-Wolfe");
    EXPECT_STREQ(micro_coupling_name(1), "twoway_frozen");
    EXPECT_STREQ(micro_coupling_name(2), "twoway_full");
    EXPECT_STREQ(micro_coupling_name(0), "oneway");
    EXPECT_STREQ(micro_coupling_name(9), "oneway");
    EXPECT_STREQ(macro_model_flow_name(2), "STA_BPR (static assignment, BPR VDF)");
    EXPECT_STREQ(macro_model_flow_name(3), "DTA_NodePQ (conserving)");
    EXPECT_STREQ(macro_model_flow_name(4), "DTA_NodeLTM (conserving+spillback)");
    EXPECT_STREQ(macro_model_flow_name(1), "DTA_LTM");
    EXPECT_STREQ(macro_model_flow_name(0), "DTA_PointQueue");
    EXPECT_EQ(sta_vdf_kind("bpr"), 0);
    EXPECT_EQ(sta_vdf_kind("conical"), 1);
    EXPECT_EQ(sta_vdf_kind("akcelik"), 2);
    EXPECT_EQ(sta_vdf_kind("BPR"), -1);
}

}  // namespace
}  // namespace torvex
