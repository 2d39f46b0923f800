#include <gtest/gtest.h>

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "run/run_config.h"

namespace torvex {
namespace {

// "ok:" or "refused:" followed by what applying the key printed to standard error.
std::string outcome(RunConfig& c, const std::string& key, const std::string& value) {
    ::testing::internal::CaptureStderr();
    const bool ok = apply_key(c, key, value);
    return (ok ? "ok:" : "refused:") + ::testing::internal::GetCapturedStderr();
}

// Applies a key that must be accepted and returns the config for a check.
RunConfig& set(RunConfig& c, const std::string& key, const std::string& value) {
    EXPECT_TRUE(apply_key(c, key, value)) << key << " " << value;
    return c;
}

// Each text parses to want; out starts at other so a parser that writes nothing fails.
template <typename T>
void expect_parses(bool (*parse)(const std::string&, T&), T want, T other,
                   std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
        T out = other;
        EXPECT_TRUE(parse(text, out)) << text;
        EXPECT_EQ(out, want) << text;
    }
}

// Each text of the key writes want; the field starts at other so a key that writes nothing fails.
template <typename T>
void expect_key(RunConfig& c, const char* key, T RunConfig::*field, T want, T other,
                std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
        c.*field = other;
        EXPECT_EQ(set(c, key, text).*field, want) << text;
    }
}

TEST(ConfigKeys, KnownAndUnknownKeys) {
    RunConfig c;
    // Keys no other test sets, one or two per kind: each one is accepted silently.
    for (const char* key : {"TURN_PROHIBITION_FILE", "MESO_INTERSTATES", "MESO_BREAKER_RATE",
                            "BASE_YEAR", "TOLL_CHOICE", "CALIB_MIN_IMPORTANCE"}) {
        EXPECT_EQ(outcome(c, key, "2"), "ok:") << key;
    }
    // Keys are compared exactly: case, flags and near-misses are unknown, silently.
    for (const char* key : {"node_file", "--iters", "SIGNAL_GCX", "MAX_ITERATION", "", "CHUNKS"}) {
        EXPECT_EQ(outcome(c, key, "1"), "refused:") << key;
    }
}

TEST(ConfigKeys, DefaultsAndPlainKinds) {
    RunConfig c;
    EXPECT_EQ(c.output_directory, ".");
    EXPECT_EQ(c.assignment.route_chunks, 10);
    EXPECT_EQ(c.assignment.node_mode, 2);
    EXPECT_EQ(c.assignment.load_refresh_every, 1);
    EXPECT_EQ(c.assignment.node_refresh_every, 0);
    EXPECT_EQ(c.write_agent_plans, -1);
    EXPECT_EQ(c.subarea_id, "sa1");
    EXPECT_EQ(c.node_method, 1);

    EXPECT_EQ(set(c, "OUTPUT_DIRECTORY", "  out dir ").output_directory, "  out dir ");
    EXPECT_EQ(set(c, "MAX_TRIPS", " 5000000000 trips").max_trips, 5000000000LL);
    EXPECT_FLOAT_EQ(set(c, "RELATIVE_GAP", "0.02").assignment.relative_gap, 0.02f);
    EXPECT_EQ(set(c, "ROUTE_CHUNKS", "1").assignment.route_chunks, 1);
    EXPECT_TRUE(c.route_chunks_explicit);
    EXPECT_TRUE(set(c, "JAM_DENSITY", "180").jam_density_explicit);

    // A malformed number raises; the field keeps its value.
    EXPECT_THROW(apply_key(c, "MAX_ITERATIONS", "ten"), std::invalid_argument);
    EXPECT_EQ(c.assignment.max_iterations, 20);
    EXPECT_THROW(apply_key(c, "NODE_DT", "1e99"), std::out_of_range);
    EXPECT_THROW(apply_key(c, "MAX_TRIPS", ""), std::invalid_argument);
}

TEST(ConfigKeys, OnAndNotOffKinds) {
    RunConfig c;
    expect_key(c, "EL_DETECT", &RunConfig::el_detect, true, false, {"YES", "true", "1", "On"});
    // Anything but an on value writes false.
    expect_key(c, "EL_DETECT", &RunConfig::el_detect, false, true, {"y", "2", "", "enabled", " 1"});
    EXPECT_EQ(set(c, "WRITE_AGENT_PLANS", "no").write_agent_plans, 0);

    // Not-off: empty is on, "0" off, and a later MICRO_CHOICE turns the corridor on again.
    EXPECT_TRUE(set(c, "MICRO_CORRIDOR", "").micro_corridor);
    EXPECT_FALSE(set(c, "MICRO_CORRIDOR", "0").micro_corridor);
    EXPECT_TRUE(set(c, "MICRO_CHOICE", "logit").micro_corridor);
    EXPECT_EQ(c.micro_choice, MicroChoice::ModeA_logit);
    EXPECT_EQ(set(c, "MICRO_CHOICE", "modeA2").micro_choice, MicroChoice::ModeB_endogenous);
    EXPECT_FALSE(set(c, "STA_PATH_SCALE", "False").sta_path_scale);

    // Lists append; MICRO_FTYPE also turns the corridor on.
    set(c, "MESO_FTYPE", "11,71");
    EXPECT_EQ(set(c, "MESO_FTYPE", ",91,").meso_ftype, (std::vector<int32_t>{11, 71, 91}));
    c.micro_corridor = false;
    EXPECT_TRUE(set(c, "MICRO_FTYPE", "96").micro_corridor);
}

TEST(ConfigKeys, SpecialValues) {
    RunConfig c;
    using A = AgentOutputMode;
    const auto agents = &RunConfig::write_agent_results;
    expect_key(c, "WRITE_AGENT_RESULTS", agents, A::duckdb, A::csv, {"duckdb"});
    expect_key(c, "WRITE_AGENT_RESULTS", agents, A::csv, A::duckdb, {"csv", "Yes", "1", "TRUE"});
    expect_key(c, "WRITE_AGENT_RESULTS", agents, A::default_mode, A::csv, {"ON", "parquet"});

    // NODE_CONSERVATION: off words leave receiving alone; other words switch it on.
    EXPECT_TRUE(set(c, "NODE_CONSERVATION", "point").node_conservation);
    EXPECT_FALSE(c.node_receiving_spatial);
    EXPECT_FALSE(set(c, "NODE_CONSERVATION", "off").node_conservation);
    EXPECT_FALSE(c.node_receiving_spatial);
    EXPECT_TRUE(set(c, "NODE_CONSERVATION", "ltm").node_receiving_spatial);

    expect_key(c, "NODE_METHOD", &RunConfig::node_method, uint8_t{1}, uint8_t{0},
               {"Newell", "curves"});
    EXPECT_EQ(set(c, "NODE_METHOD", "queue").node_method, 0);

    // Schedules: a plain value sets the mode, the range form the list only.
    EXPECT_EQ(set(c, "NODE_SCHEDULE", "every 5 chunks").assignment.node_refresh_every, 5);
    EXPECT_EQ(set(c, "NODE_SCHEDULE", "1-3:iter,4:chunk").assignment.node_schedule,
              (std::vector<int32_t>{0, 0, 0, 1}));
    EXPECT_EQ(c.assignment.node_refresh_every, 5);

    set(c, "SAMPLE_EVERY", "4");
    EXPECT_EQ(set(c, "SAMPLE_SCHEDULE", "100,50").sample_every, 1);
    EXPECT_EQ(c.assignment.sample_schedule, (std::vector<float>{1.0f, 0.5f}));

    EXPECT_EQ(set(c, "MICRO_PROBE_STRIDE", "0").micro_probe_stride, 1);
    EXPECT_EQ(set(c, "MESO_PROBE_LINK", " 10001\t20002 ").meso_probe_link,
              (std::array<int64_t, 2>{10001, 20002}));
    EXPECT_THROW(apply_key(c, "MESO_PROBE_LINK", "10001"), std::invalid_argument);
}

TEST(ConfigKeys, MacroModelTextsAndAliases) {
    using M = MacroModel;
    expect_parses(parse_macro_model, M::DTA_PointQueue, M::DTA_LTM, {"Point_Queue", "pq"});
    expect_parses(parse_macro_model, M::DTA_LTM, M::STA_BPR, {"dta_ltm", "Ltm"});
    expect_parses(parse_macro_model, M::STA_BPR, M::DTA_LTM, {"static_bpr", "Static"});
    expect_parses(parse_macro_model, M::DTA_NodePQ, M::DTA_LTM, {"nodepq", "dta_node_pq"});
    expect_parses(parse_macro_model, M::DTA_NodeLTM, M::DTA_LTM, {"DTA_NodeLTM", "NodeSpatial"});
    M out = M::DTA_LTM;
    EXPECT_FALSE(parse_macro_model("node", out));
    EXPECT_FALSE(parse_macro_model(" LTM", out));
    EXPECT_EQ(out, M::DTA_LTM);

    // MACRO_MODEL is forgiving: message, old value kept, key accepted.
    RunConfig c;
    c.macro_model = M::DTA_LTM;
    EXPECT_EQ(outcome(c, "MACRO_MODEL", "Ctm"),
              "ok:[config] unknown MACRO_MODEL 'Ctm' (use DTA_PointQueue|DTA_LTM|STA_BPR)\n");
    EXPECT_EQ(c.macro_model, M::DTA_LTM);

    // Aliases: only their stated value moves the model.
    for (const auto& [key, value, model] : std::vector<std::tuple<const char*, const char*, M>>{
             {"ENABLE_LTM", "yes", M::DTA_LTM},
             {"ENABLE_LTM", "False", M::DTA_PointQueue},
             {"LTM_ALL_LINKS", "on", M::DTA_LTM},
             {"BPR_ALL_LINKS", "0", M::DTA_LTM},
             {"BPR_ALL_LINKS", "true", M::STA_BPR}}) {
        EXPECT_EQ(set(c, key, value).macro_model, model) << key << " " << value;
    }
}

TEST(ConfigKeys, StaticSettingsAreStrict) {
    RunConfig c;
    EXPECT_EQ(outcome(c, "STA_METHOD", "Frank_Wolfe"), "ok:");
    EXPECT_EQ(c.sta_method, StaMethod::fw);
    EXPECT_TRUE(c.sta_method_explicit);

    RunConfig d;
    EXPECT_EQ(outcome(d, "STA_METHOD", "newton"),
              "refused:[args] unknown STA_METHOD 'newton' (use legacy|msa|fw|cfw|bfw)\n");
    EXPECT_TRUE(d.sta_method_explicit);  // set before the value is checked
    EXPECT_EQ(d.sta_method, StaMethod::bfw);

    using S = StaMethod;
    expect_parses(parse_sta_method, S::legacy, S::msa, {"legacy", "path_swap"});
    expect_parses(parse_sta_method, S::msa, S::fw, {"MSA"});
    expect_parses(parse_sta_method, S::fw, S::msa, {"fw", "frankwolfe"});
    expect_parses(parse_sta_method, S::cfw, S::msa, {"cfw", "Conjugate"});
    expect_parses(parse_sta_method, S::bfw, S::msa, {"bfw", "bi_conjugate"});

    // Refused values print a message and leave the field as it was.
    EXPECT_EQ(outcome(c, "STA_VDF", "Conical"), "ok:");
    EXPECT_EQ(c.sta_vdf, "conical");
    EXPECT_EQ(outcome(c, "STA_VDF", "Davidson"),
              "refused:[args] unknown STA_VDF 'Davidson' (use bpr|conical|akcelik)\n");
    EXPECT_EQ(c.sta_vdf, "conical");
    EXPECT_EQ(outcome(c, "CONICAL_ALPHA", "1.0"),
              "refused:[args] CONICAL_ALPHA must be > 1 (got 1.0)\n");
    EXPECT_FLOAT_EQ(c.conical_alpha, 4.0f);
    EXPECT_FLOAT_EQ(set(c, "CONICAL_ALPHA", "1.5").conical_alpha, 1.5f);
    EXPECT_EQ(outcome(c, "AKCELIK_JA", "-0.1"),
              "refused:[args] AKCELIK_JA must be >= 0 (got -0.1)\n");
    EXPECT_FLOAT_EQ(set(c, "AKCELIK_JA", "0").akcelik_ja, 0.0f);
    EXPECT_EQ(outcome(c, "BPR_OVERCAP_BETA_MULT", "0.9"),
              "refused:[args] BPR_OVERCAP_BETA_MULT must be >= 1 (got 0.9); it steepens beta "
              "above capacity\n");
    EXPECT_FLOAT_EQ(c.bpr_overcap_beta_mult, 1.0f);
    EXPECT_EQ(outcome(c, "BPR_OVERCAP_BETA_MULT", "1"), "ok:");

    // A period that is not positive falls back to 15 minutes.
    set(c, "BPR_PERIOD_MIN", "60");
    EXPECT_FLOAT_EQ(set(c, "BPR_PERIOD_MIN", "0").bpr_period_min, 15.0f);
}

TEST(ConfigKeys, MicroCouplingSignalsAndMarkets) {
    RunConfig c;
    EXPECT_EQ(outcome(c, "MICRO_COUPLING", "sideways"),
              "ok:[config] unknown MICRO_COUPLING 'sideways'\n");
    EXPECT_FALSE(c.micro_corridor);
    EXPECT_EQ(c.micro_coupling, MicroCoupling::oneway);
    EXPECT_TRUE(set(c, "MICRO_COUPLING", "frozen_od").micro_corridor);
    EXPECT_EQ(c.micro_coupling, MicroCoupling::twoway_frozen);
    using C = MicroCoupling;
    expect_parses(parse_micro_coupling, C::oneway, C::twoway_full, {"One_Way", "1way"});
    expect_parses(parse_micro_coupling, C::twoway_frozen, C::oneway, {"TWOWAY_FROZENOD", "frozen"});
    expect_parses(parse_micro_coupling, C::twoway_full, C::oneway, {"twoway", "Full"});

    // SIGNAL_GC_n turns the signal model on, SIGNAL_GC alone does not.
    EXPECT_FALSE(set(c, "SIGNAL_GC", "0.6").signal_model);
    EXPECT_FLOAT_EQ(c.signal_gc, 0.6f);
    EXPECT_TRUE(set(c, "SIGNAL_GC_51", "0.6").signal_model);
    EXPECT_FLOAT_EQ(c.signal_gc_ftype.at(51), 0.6f);
    EXPECT_THROW(apply_key(c, "SIGNAL_GC_", "0.5"), std::invalid_argument);

    // MARKET_SCALE: pushed only if both the name and the factor read; repeatable.
    for (const char* v : {"HBW 1.25", "truck", "truck lots", "", "\tHBW\t0.5 extra"}) {
        set(c, "MARKET_SCALE", v);
    }
    ASSERT_EQ(c.market_scale.size(), 2u);
    EXPECT_EQ(c.market_scale[0].first, "HBW");
    EXPECT_FLOAT_EQ(c.market_scale[0].second, 1.25f);
    EXPECT_EQ(c.market_scale[1].first, "HBW");
    EXPECT_FLOAT_EQ(c.market_scale[1].second, 0.5f);
}

TEST(ConfigKeys, LogNames) {
    const char* const sta[] = {"legacy (DTA path-swap)", "MSA (step 1/k)", "Frank-Wolfe",
                               "conjugate Frank-Wolfe", "bi-conjugate Frank-Wolfe"};
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(sta_method_long_name(i), sta[i]);
    const char* const macro[] = {"DTA_PointQueue", "DTA_LTM",
                                 "STA_BPR (static assignment, BPR VDF)", "DTA_NodePQ (conserving)",
                                 "DTA_NodeLTM (conserving+spillback)"};
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(macro_model_flow_name(i), macro[i]);
    EXPECT_STREQ(micro_coupling_name(1), "twoway_frozen");
    EXPECT_STREQ(micro_coupling_name(2), "twoway_full");
    EXPECT_STREQ(micro_coupling_name(9), "oneway");
    EXPECT_EQ(sta_vdf_kind("bpr"), 0);
    EXPECT_EQ(sta_vdf_kind("conical"), 1);
    EXPECT_EQ(sta_vdf_kind("akcelik"), 2);
    EXPECT_EQ(sta_vdf_kind("BPR"), -1);
}

}  // namespace
}  // namespace torvex
