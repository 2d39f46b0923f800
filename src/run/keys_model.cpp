// Keys of the meso and micro layers, signals, discharge, tolls, counts, calibration and subarea.
#include <cstdio>

#include "run/config_keys.h"
#include "run/conversions.h"

namespace torvex {

namespace {

bool starts_with(const std::string& text, const char* prefix, std::size_t n) {
    return text.size() >= n && text.compare(0, n, prefix) == 0;
}

KeyResult apply_meso_micro_key(RunConfig& c, const std::string& k, const std::string& v) {
    AssignmentSettings& a = c.assignment;
    if (k == "MESO_INTERSTATES") {
        c.meso_interstates = value_is_on(v);
    } else if (k == "MESO_ALL_LINKS") {
        c.meso_all_links = value_is_on(v);
    } else if (k == "MESO_FTYPE") {
        parse_int_list(v, c.meso_ftype);
    } else if (k == "MESO_MAX_SPILLBACK_MIN") {
        a.meso_max_spillback_min = strict_stof(v);
    } else if (k == "MESO_BREAKER_RATE") {
        a.meso_breaker_rate = strict_stof(v);
    } else if (k == "MESO_DT_SEC") {
        a.meso_dt_sec = strict_stof(v);
    } else if (k == "MESO_INTERVAL_LOG") {
        c.meso_interval_log = value_is_on(v);
    } else if (k == "MESO_MOVEMENT_LOG") {
        c.meso_movement_log = value_is_on(v);
    } else if (k == "MESO_SEGMENT_LOG") {
        c.meso_segment_log = value_is_on(v);
    } else if (k == "MESO_SEGMENT_FILE") {
        a.meso_segment_file = v;
    } else if (k == "MESO_SEGMENT_LEN") {
        a.meso_segment_len = strict_stof(v);
    } else if (k == "MESO_PROBE_LINK") {
        c.meso_probe_link = parse_id_pair(v);
    } else if (k == "MICRO_CORRIDOR") {
        c.micro_corridor = !value_is_off(v);
    } else if (k == "MICRO_COUPLING") {
        // Forgiving on purpose, like MACRO_MODEL.
        if (parse_micro_coupling(v, c.micro_coupling)) {
            c.micro_corridor = true;
        } else {
            std::fprintf(stderr, "[config] unknown MICRO_COUPLING '%s'\n", v.c_str());
        }
    } else if (k == "MICRO_CHOICE") {
        const std::string u = upper_copy(v);
        const bool mode_a = u == "MODEA" || u == "LOGIT" || u == "A";
        c.micro_choice = mode_a ? MicroChoice::ModeA_logit : MicroChoice::ModeB_endogenous;
        c.micro_corridor = true;
    } else if (k == "MICRO_OUTER") {
        const int outer = strict_stoi(v);
        c.micro_outer = outer < 1 ? 1 : outer;
    } else if (k == "MICRO_FTYPE") {
        parse_int_list(v, c.micro_ftype);
        c.micro_corridor = true;
    } else if (k == "MICRO_DT_SEC") {
        c.micro_dt_sec = strict_stof(v);
    } else if (k == "MICRO_PROBE_LINK") {
        c.micro_probe_link = parse_id_pair(v);
    } else if (k == "MICRO_PROBE_STRIDE") {
        const int stride = strict_stoi(v);
        c.micro_probe_stride = stride < 1 ? 1 : stride;
    } else if (k == "MICRO_LANE_FILE" || k == "LANE_FILE") {
        c.micro_lane_file = v;
    } else {
        return KeyResult::unknown;
    }
    return KeyResult::accepted;
}

KeyResult apply_signal_toll_key(RunConfig& c, const std::string& k, const std::string& v) {
    static const char kGcPrefix[] = "SIGNAL_GC_";
    static const char kDischargePrefix[] = "DISCHARGE_FACTOR_";
    if (k == "SIGNAL_MODEL") {
        c.signal_model = value_is_on(v);
    } else if (k == "SIGNAL_SAT_FLOW") {
        c.signal_sat_flow = strict_stof(v);
    } else if (k == "SIGNAL_CYCLE") {
        c.signal_cycle = strict_stof(v);
    } else if (k == "SIGNAL_GC") {
        c.signal_gc = strict_stof(v);
    } else if (starts_with(k, kGcPrefix, sizeof(kGcPrefix) - 1)) {
        const int ftype = strict_stoi(k.substr(sizeof(kGcPrefix) - 1));
        c.signal_gc_ftype[ftype] = strict_stof(v);
        c.signal_model = true;
    } else if (starts_with(k, kDischargePrefix, sizeof(kDischargePrefix) - 1)) {
        const int ftype = strict_stoi(k.substr(sizeof(kDischargePrefix) - 1));
        c.discharge_factor[ftype] = strict_stof(v);
    } else if (k == "TOLL_POLICY_FILE") {
        c.toll_policy_file = v;
    } else if (k == "LANE_USE_FILE") {
        c.lane_use_file = v;
    } else if (k == "CAPACITY_FILE" || k == "REVERSIBLE_LANE_FILE") {
        c.capacity_file = v;
    } else if (k == "CPI") {
        c.cpi = strict_stof(v);
    } else if (k == "BASE_YEAR") {
        c.base_year = strict_stoi(v);
    } else if (k == "FUTURE_YEAR") {
        c.future_year = strict_stoi(v);
    } else if (k == "EL_DETECT") {
        c.el_detect = value_is_on(v);
    } else if (k == "EXPRESS_TOLL_POLICY") {
        c.express_toll_policy = strict_stoi(v);
    } else if (k == "EL_NO_TRUCKS") {
        c.el_no_trucks = value_is_on(v);
    } else if (k == "TOLL_CHOICE") {
        c.toll_choice = value_is_on(v);
    } else if (k == "TOLL_CHOICE_CONSTANT") {
        c.toll_choice_constant = strict_stof(v);
    } else if (k == "TOLL_CHOICE_TIME_FACTOR") {
        c.toll_choice_time_factor = strict_stof(v);
    } else if (k == "TOLL_CHOICE_TOLL_FACTOR") {
        c.toll_choice_toll_factor = strict_stof(v);
    } else if (k == "TOLL_CONSTANT_FILE") {
        c.toll_constant_file = v;
    } else if (k == "TOLL_CHOICE_SPLIT_PASSES") {
        c.toll_choice_split_passes = strict_stoi(v);
    } else {
        return KeyResult::unknown;
    }
    return KeyResult::accepted;
}

KeyResult apply_analysis_key(RunConfig& c, const std::string& k, const std::string& v) {
    if (k == "TIME_COUNT_FILE" || k == "COUNT_FILE") {
        c.time_count_file = v;
    } else if (k == "CALIBRATE") {
        c.calibrate = value_is_on(v);
    } else if (k == "CALIB_PASSES") {
        c.calib_passes = strict_stoi(v);
    } else if (k == "CALIB_ALPHA") {
        c.calib_alpha = strict_stof(v);
    } else if (k == "CALIB_MAX_PCT_PER_PASS") {
        c.calib_max_pct_per_pass = strict_stof(v);
    } else if (k == "CALIB_BOUND_LO") {
        c.calib_bound_lo = strict_stof(v);
    } else if (k == "CALIB_BOUND_HI") {
        c.calib_bound_hi = strict_stof(v);
    } else if (k == "CALIB_MIN_IMPORTANCE") {
        c.calib_min_importance = strict_stof(v);
    } else if (k == "SUBAREA_ID") {
        c.subarea_id = v;
    } else if (k == "SUBAREA_BOUNDARY_FILE") {
        c.subarea_boundary_file = v;
    } else if (k == "SUBAREA_SEED_NODE") {
        c.subarea_seed_node = strict_stoll(v);
    } else {
        return KeyResult::unknown;
    }
    return KeyResult::accepted;
}

}  // namespace

KeyResult apply_model_key(RunConfig& config, const std::string& key, const std::string& value) {
    KeyResult r = apply_meso_micro_key(config, key, value);
    if (r == KeyResult::unknown) r = apply_signal_toll_key(config, key, value);
    if (r == KeyResult::unknown) r = apply_analysis_key(config, key, value);
    return r;
}

}  // namespace torvex
