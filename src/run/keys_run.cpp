// Keys of files, demand sampling, run length, the macro model, static assignment and node model.
#include <cstdio>
#include <sstream>

#include "run/config_keys.h"
#include "run/conversions.h"

namespace torvex {

namespace {

KeyResult apply_files_key(RunConfig& c, const std::string& k, const std::string& v) {
    AssignmentSettings& a = c.assignment;
    if (k == "NODE_FILE") {
        c.node_file = v;
    } else if (k == "LINK_FILE") {
        c.link_file = v;
    } else if (k == "TRIP_FILE") {
        c.trip_file = v;
    } else if (k == "OUTPUT_DIRECTORY") {
        c.output_directory = v;
    } else if (k == "MAX_ITERATIONS") {
        a.max_iterations = strict_stoi(v);
    } else if (k == "RELATIVE_GAP") {
        a.relative_gap = strict_stof(v);
    } else if (k == "ROUTE_CHUNKS") {
        a.route_chunks = strict_stoi(v);
        c.route_chunks_explicit = true;
    } else if (k == "REROUTE_THRESHOLD_MIN") {
        a.reroute_threshold_min = strict_stof(v);
    } else if (k == "REROUTE_FRACTION_MIN") {
        a.reroute_fraction_min = strict_stof(v);
    } else if (k == "MAX_TRIPS") {
        c.max_trips = strict_stoll(v);
    } else if (k == "SAMPLE_EVERY") {
        c.sample_every = strict_stoi(v);
    } else if (k == "SAMPLE_SCHEDULE") {
        // Progressive sampling replaces the uniform row sample.
        a.sample_schedule = parse_sample_schedule(v);
        c.sample_every = 1;
    } else if (k == "THREADS" || k == "NUMBER_OF_THREADS") {
        a.threads = strict_stoi(v);
    } else if (k == "CHECKPOINT_FILE") {
        a.checkpoint_file = v;
    } else if (k == "CHECKPOINT_EVERY") {
        a.checkpoint_every = strict_stoi(v);
    } else if (k == "STOP_FILE") {
        a.stop_file = v;
    } else if (k == "RESUME_FROM") {
        c.resume_from = v;
    } else if (k == "MARKET_SCALE") {
        std::istringstream in(v);
        std::string name;
        float factor = 0.0f;
        if (in >> name >> factor) c.market_scale.emplace_back(name, factor);
    } else if (k == "SEGMENT_PARAM_FILE") {
        c.segment_param_file = v;
    } else if (k == "TURN_PROHIBITION_FILE") {
        c.turn_prohibition_file = v;
    } else if (k == "COUNTY_FILTER") {
        c.county_filter = v;
    } else if (k == "TRACE_AGENTS") {
        parse_id_list(v, c.trace_agents);
    } else if (k == "WRITE_AGENT_RESULTS") {
        const std::string u = upper_copy(v);
        if (u == "DUCKDB") {
            c.write_agent_results = AgentOutputMode::duckdb;
        } else if (u == "CSV" || u == "YES" || u == "TRUE" || u == "1") {
            c.write_agent_results = AgentOutputMode::csv;
        } else {
            c.write_agent_results = AgentOutputMode::default_mode;
        }
    } else if (k == "WRITE_AGENT_PLANS") {
        c.write_agent_plans = value_is_on(v) ? 1 : 0;
    } else if (k == "WRITE_AGENT_PATHS") {
        c.write_agent_paths = value_is_on(v) ? 1 : 0;
    } else if (k == "LINK_VOLUME_BREAKDOWN") {
        const std::string u = upper_copy(v);
        if (u == "MARKET") {
            c.link_volume_breakdown = VolumeBreakdown::market;
        } else if (u == "PURPOSE") {
            c.link_volume_breakdown = VolumeBreakdown::purpose;
        } else if (u == "SEGMENT" || u == "VOT") {
            c.link_volume_breakdown = VolumeBreakdown::segment;
        } else {
            c.link_volume_breakdown = VolumeBreakdown::none;
        }
    } else {
        return KeyResult::unknown;
    }
    return KeyResult::accepted;
}

KeyResult apply_static_key(RunConfig& c, const std::string& k, const std::string& v) {
    if (k == "MACRO_MODEL") {
        // Forgiving on purpose: a misspelt model keeps the default and the run goes on.
        if (!parse_macro_model(v, c.macro_model)) {
            std::fprintf(stderr,
                         "[config] unknown MACRO_MODEL '%s' (use DTA_PointQueue|DTA_LTM|STA_BPR)\n",
                         v.c_str());
        }
    } else if (k == "ENABLE_LTM") {
        if (value_is_off(v)) c.macro_model = MacroModel::DTA_PointQueue;
    } else if (k == "LTM_ALL_LINKS") {
        if (value_is_on(v)) c.macro_model = MacroModel::DTA_LTM;
    } else if (k == "BPR_ALL_LINKS") {
        if (value_is_on(v)) c.macro_model = MacroModel::STA_BPR;
    } else if (k == "LTM_MAX_SPILLBACK_MIN") {
        c.assignment.ltm_max_spillback_min = strict_stof(v);
    } else if (k == "JAM_DENSITY") {
        c.jam_density = strict_stof(v);
        c.jam_density_explicit = true;
    } else if (k == "STA_METHOD") {
        c.sta_method_explicit = true;
        if (!parse_sta_method(v, c.sta_method)) {
            std::fprintf(stderr, "[args] unknown STA_METHOD '%s' (use legacy|msa|fw|cfw|bfw)\n",
                         v.c_str());
            return KeyResult::refused;
        }
    } else if (k == "STA_VDF") {
        const std::string curve = lower_copy(v);
        if (sta_vdf_kind(curve) < 0) {
            std::fprintf(stderr, "[args] unknown STA_VDF '%s' (use bpr|conical|akcelik)\n",
                         v.c_str());
            return KeyResult::refused;
        }
        c.sta_vdf = curve;
    } else if (k == "CONICAL_ALPHA") {
        const float alpha = strict_stof(v);
        if (!(alpha > 1.0f)) {
            std::fprintf(stderr, "[args] CONICAL_ALPHA must be > 1 (got %s)\n", v.c_str());
            return KeyResult::refused;
        }
        c.conical_alpha = alpha;
    } else if (k == "AKCELIK_JA") {
        const float ja = strict_stof(v);
        if (ja < 0.0f) {
            std::fprintf(stderr, "[args] AKCELIK_JA must be >= 0 (got %s)\n", v.c_str());
            return KeyResult::refused;
        }
        c.akcelik_ja = ja;
    } else if (k == "BPR_OVERCAP_BETA_MULT") {
        const float mult = strict_stof(v);
        if (mult < 1.0f) {
            std::fprintf(stderr,
                         "[args] BPR_OVERCAP_BETA_MULT must be >= 1 (got %s); it steepens beta "
                         "above capacity\n",
                         v.c_str());
            return KeyResult::refused;
        }
        c.bpr_overcap_beta_mult = mult;
    } else if (k == "BPR_PERIOD_MIN") {
        const float period = strict_stof(v);
        c.bpr_period_min = period <= 0.0f ? 15.0f : period;
    } else if (k == "STA_PATH_SCALE") {
        c.sta_path_scale = !value_is_off(v);
    } else {
        return KeyResult::unknown;
    }
    return KeyResult::accepted;
}

KeyResult apply_node_key(RunConfig& c, const std::string& k, const std::string& v) {
    AssignmentSettings& a = c.assignment;
    if (k == "NODE_CONSERVATION") {
        const std::string u = upper_copy(v);
        if (value_is_off(u)) {
            c.node_conservation = false;
        } else {
            c.node_conservation = true;
            if (u == "PQ" || u == "POINTQUEUE" || u == "POINT") {
                c.node_receiving_spatial = false;
            } else if (u == "SPATIAL" || u == "LTM") {
                c.node_receiving_spatial = true;
            }
        }
    } else if (k == "NODE_DT") {
        c.node_dt = strict_stof(v);
    } else if (k == "NODE_METHOD") {
        const std::string m = lower_copy(v);
        const bool cumulative = m == "cumulative" || m == "ltm" || m == "newell" || m == "curves";
        c.node_method = cumulative ? 1 : 0;
    } else if (k == "NODE_TURNS") {
        const std::string u = upper_copy(v);
        a.node_turns = !(u == "STATIC" || u == "AGGREGATE");
    } else if (k == "NODE_SCHEDULE") {
        if (v.find(':') != std::string::npos) {
            a.node_schedule = parse_node_schedule(v);
        } else {
            a.node_refresh_every = parse_refresh_mode(v);
        }
    } else if (k == "NODE_INJECT_RES") {
        a.node_inject_res = strict_stof(v);
    } else if (k == "LOAD_SCHEDULE" || k == "MACRO_SCHEDULE") {
        if (v.find(':') != std::string::npos) {
            a.load_schedule = parse_node_schedule(v);
        } else {
            a.load_refresh_every = parse_refresh_mode(v);
        }
    } else if (k == "LOAD_REFRESH") {
        const std::string m = lower_copy(v);
        a.load_refresh = m == "incremental" || m == "delta";
    } else {
        return KeyResult::unknown;
    }
    return KeyResult::accepted;
}

}  // namespace

KeyResult apply_run_key(RunConfig& config, const std::string& key, const std::string& value) {
    KeyResult r = apply_files_key(config, key, value);
    if (r == KeyResult::unknown) r = apply_static_key(config, key, value);
    if (r == KeyResult::unknown) r = apply_node_key(config, key, value);
    return r;
}

}  // namespace torvex
