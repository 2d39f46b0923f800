// apply_key and the named values of the settings.
#include "run/run_config.h"

#include "run/config_keys.h"
#include "run/conversions.h"

namespace torvex {

bool value_is_on(const std::string& value) {
    const std::string u = upper_copy(value);
    return u == "YES" || u == "TRUE" || u == "1" || u == "ON";
}

bool value_is_off(const std::string& value) {
    const std::string u = upper_copy(value);
    return u == "NO" || u == "FALSE" || u == "0" || u == "OFF";
}

std::array<int64_t, 2> parse_id_pair(const std::string& value) {
    std::size_t used = 0;
    const long long a = strict_stoll(value, &used);
    const long long b = strict_stoll(value.substr(used));
    return {a, b};
}

bool apply_key(RunConfig& config, const std::string& key, const std::string& value) {
    KeyResult r = apply_run_key(config, key, value);
    if (r == KeyResult::unknown) r = apply_model_key(config, key, value);
    return r == KeyResult::accepted;
}

bool parse_macro_model(const std::string& text, MacroModel& out) {
    const std::string u = upper_copy(text);
    if (u == "DTA_POINTQUEUE" || u == "DTA_POINT" || u == "POINTQUEUE" || u == "POINT_QUEUE" ||
        u == "POINT" || u == "PQ") {
        out = MacroModel::DTA_PointQueue;
    } else if (u == "DTA_LTM" || u == "LTM") {
        out = MacroModel::DTA_LTM;
    } else if (u == "STA_BPR" || u == "STATIC_BPR" || u == "STATIC" || u == "BPR") {
        out = MacroModel::STA_BPR;
    } else if (u == "DTA_NODEPQ" || u == "NODEPQ" || u == "NODE_PQ" || u == "DTA_NODE_PQ") {
        out = MacroModel::DTA_NodePQ;
    } else if (u == "DTA_NODELTM" || u == "NODELTM" || u == "NODE_LTM" || u == "DTA_NODE_LTM" ||
               u == "DTA_NODESPATIAL" || u == "NODESPATIAL") {
        out = MacroModel::DTA_NodeLTM;
    } else {
        return false;
    }
    return true;
}

bool parse_sta_method(const std::string& text, StaMethod& out) {
    const std::string m = lower_copy(text);
    if (m == "legacy" || m == "pathswap" || m == "path_swap") {
        out = StaMethod::legacy;
    } else if (m == "msa") {
        out = StaMethod::msa;
    } else if (m == "fw" || m == "frankwolfe" || m == "frank_wolfe") {
        out = StaMethod::fw;
    } else if (m == "cfw" || m == "conjugate") {
        out = StaMethod::cfw;
    } else if (m == "bfw" || m == "biconjugate" || m == "bi_conjugate") {
        out = StaMethod::bfw;
    } else {
        return false;
    }
    return true;
}

bool parse_micro_coupling(const std::string& text, MicroCoupling& out) {
    const std::string u = upper_copy(text);
    if (u == "ONEWAY" || u == "ONE_WAY" || u == "1WAY") {
        out = MicroCoupling::oneway;
    } else if (u == "TWOWAY_FROZEN" || u == "TWOWAY_FROZENOD" || u == "FROZEN_OD" ||
               u == "FROZEN") {
        out = MicroCoupling::twoway_frozen;
    } else if (u == "TWOWAY_FULL" || u == "TWOWAY" || u == "FULL") {
        out = MicroCoupling::twoway_full;
    } else {
        return false;
    }
    return true;
}

const char* sta_method_long_name(int method) {
    switch (method) {
        case 0:
            return "legacy (DTA path-swap)";
        case 1:
            return "MSA (step 1/k)";
        case 2:
            return "Frank-Wolfe";
        case 3:
            return "conjugate Frank-Wolfe";
        case 4:
            return "bi-conjugate Frank-Wolfe";
        default:
            return "?";
    }
}

const char* micro_coupling_name(int coupling) {
    switch (coupling) {
        case 1:
            return "twoway_frozen";
        case 2:
            return "twoway_full";
        default:
            return "oneway";
    }
}

const char* macro_model_flow_name(int model) {
    switch (model) {
        case 1:
            return "DTA_LTM";
        case 2:
            return "STA_BPR (static assignment, BPR VDF)";
        case 3:
            return "DTA_NodePQ (conserving)";
        case 4:
            return "DTA_NodeLTM (conserving+spillback)";
        default:
            return "DTA_PointQueue";
    }
}

int sta_vdf_kind(const std::string& curve) {
    if (curve == "bpr") return 0;
    if (curve == "conical") return 1;
    if (curve == "akcelik") return 2;
    return -1;
}

}  // namespace torvex
