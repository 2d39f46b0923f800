// Command-line flags, applied left to right on top of defaults and control files.
#include <cstdio>
#include <cstring>

#include "run/conversions.h"
#include "run/run_config.h"

namespace torvex {

namespace {

// Flags that write exactly what their control key writes.
struct KeyFlag {
    const char* flag;
    const char* key;
};

constexpr KeyFlag kKeyFlags[] = {
    {"--node", "NODE_FILE"},
    {"--link", "LINK_FILE"},
    {"--trips", "TRIP_FILE"},
    {"--out-dir", "OUTPUT_DIRECTORY"},
    {"--max-trips", "MAX_TRIPS"},
    {"--checkpoint-file", "CHECKPOINT_FILE"},
    {"--checkpoint-every", "CHECKPOINT_EVERY"},
    {"--stop-file", "STOP_FILE"},
    {"--resume-from", "RESUME_FROM"},
    {"--sample-every", "SAMPLE_EVERY"},
    {"--sample-schedule", "SAMPLE_SCHEDULE"},
    {"--iters", "MAX_ITERATIONS"},
    {"--eps", "RELATIVE_GAP"},
    {"--reroute-threshold", "REROUTE_THRESHOLD_MIN"},
    {"--reroute-frac-min", "REROUTE_FRACTION_MIN"},
    {"--threads", "THREADS"},
    {"--trace-agents", "TRACE_AGENTS"},
    {"--segment-params", "SEGMENT_PARAM_FILE"},
    {"--county", "COUNTY_FILTER"},
    {"--node-dt", "NODE_DT"},
    {"--node-inject-res", "NODE_INJECT_RES"},
    {"--meso-ftype", "MESO_FTYPE"},
    {"--ltm-max-spillback-min", "LTM_MAX_SPILLBACK_MIN"},
    {"--jam-density", "JAM_DENSITY"},
    {"--time-counts", "TIME_COUNT_FILE"},
    {"--toll-policies", "TOLL_POLICY_FILE"},
    {"--express-toll-policy", "EXPRESS_TOLL_POLICY"},
    {"--cpi", "CPI"},
    {"--calib-passes", "CALIB_PASSES"},
    {"--calib-alpha", "CALIB_ALPHA"},
    {"--calib-max-pct", "CALIB_MAX_PCT_PER_PASS"},
    {"--calib-bound-lo", "CALIB_BOUND_LO"},
    {"--calib-bound-hi", "CALIB_BOUND_HI"},
};

const char* key_of_flag(const std::string& flag) {
    for (const KeyFlag& f : kKeyFlags) {
        if (flag == f.flag) return f.key;
    }
    return nullptr;
}

// Flags without a value. False when arg is none of them.
bool apply_switch(RunConfig& c, const std::string& arg) {
    if (arg == "--write-agents") {
        c.write_agent_results = AgentOutputMode::csv;
    } else if (arg == "--write-agents-duckdb") {
        c.write_agent_results = AgentOutputMode::duckdb;
    } else if (arg == "--ltm-all-links") {
        c.macro_model = MacroModel::DTA_LTM;
    } else if (arg == "--bpr-all-links") {
        c.macro_model = MacroModel::STA_BPR;
    } else if (arg == "--node-conservation") {
        c.node_conservation = true;
    } else if (arg == "--node-interval-turns") {
        c.assignment.node_turns = true;
    } else if (arg == "--node-static-turns") {
        c.assignment.node_turns = false;
    } else if (arg == "--node-per-iter") {
        c.assignment.node_refresh_every = 0;
    } else if (arg == "--node-per-chunk") {
        c.assignment.node_refresh_every = 1;
    } else if (arg == "--signal-model") {
        c.signal_model = true;
    } else if (arg == "--micro-corridor") {
        c.micro_corridor = true;
    } else if (arg == "--meso-interstates") {
        c.meso_interstates = true;
    } else if (arg == "--meso-all-links") {
        c.meso_all_links = true;
    } else if (arg == "--no-meso-log") {
        c.write_meso_log = false;
    } else if (arg == "--el-detect") {
        c.el_detect = true;
    } else if (arg == "--toll-choice") {
        c.toll_choice = true;
    } else if (arg == "--calibrate") {
        c.calibrate = true;
    } else {
        return false;
    }
    return true;
}

// Flags with one value whose effect differs from a plain key. False when arg is none of them.
bool apply_valued(RunConfig& c, const std::string& arg, const std::string& v) {
    if (arg == "--chunks") {
        // Unlike the key, the flag does not count as an explicit choice.
        c.assignment.route_chunks = strict_stoi(v);
    } else if (arg == "--macro-model") {
        if (!parse_macro_model(v, c.macro_model)) {
            std::fprintf(stderr,
                         "[args] unknown --macro-model '%s' (use DTA_PointQueue|DTA_LTM|STA_BPR)\n",
                         v.c_str());
        }
    } else if (arg == "--node-receiving") {
        const std::string u = upper_copy(v);
        c.node_receiving_spatial = !(u == "PQ" || u == "POINT" || u == "POINTQUEUE");
        c.node_conservation = true;
    } else if (arg == "--node-method") {
        c.node_method = (v == "cumulative" || v == "ltm" || v == "newell") ? 1 : 0;
    } else if (arg == "--node-schedule") {
        c.assignment.node_schedule = parse_node_schedule(v);
    } else if (arg == "--signal-gc") {
        c.signal_gc = strict_stof(v);
        c.signal_model = true;
    } else if (arg == "--micro-coupling") {
        parse_micro_coupling(v, c.micro_coupling);
        c.micro_corridor = true;
    } else if (arg == "--micro-choice") {
        const std::string u = upper_copy(v);
        const bool mode_a = u == "MODEA" || u == "LOGIT" || u == "A";
        c.micro_choice = mode_a ? MicroChoice::ModeA_logit : MicroChoice::ModeB_endogenous;
    } else if (arg == "--link-volume-breakdown") {
        if (v == "market") {
            c.link_volume_breakdown = VolumeBreakdown::market;
        } else if (v == "purpose") {
            c.link_volume_breakdown = VolumeBreakdown::purpose;
        } else if (v == "segment" || v == "vot") {
            c.link_volume_breakdown = VolumeBreakdown::segment;
        } else {
            c.link_volume_breakdown = VolumeBreakdown::none;
        }
    } else if (arg == "--select-link") {
        c.select_link_pairs = v;
    } else if (arg == "--select-op") {
        c.select_and = v == "and";
    } else {
        return false;
    }
    return true;
}

bool is_valued_flag(const std::string& arg) {
    static const char* const kValued[] = {
        "--chunks",         "--macro-model",   "--node-receiving",
        "--node-method",    "--node-schedule", "--signal-gc",
        "--micro-coupling", "--micro-choice",  "--link-volume-breakdown",
        "--select-link",    "--select-op",     "--control",
    };
    for (const char* f : kValued) {
        if (arg == f) return true;
    }
    return key_of_flag(arg) != nullptr;
}

}  // namespace

int parse_arguments(RunConfig& config, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            print_usage();
            return 0;
        }
        if (apply_switch(config, arg)) continue;
        if (arg == "--market-scale") {
            if (i + 2 >= argc) {
                print_usage();
                return 2;
            }
            const std::string name = argv[i + 1];
            const float factor = strict_stof(argv[i + 2]);
            config.market_scale.emplace_back(name, factor);
            i += 2;
            continue;
        }
        if (!is_valued_flag(arg)) {
            std::fprintf(stderr, "unknown arg: %s\n", arg.c_str());
            print_usage();
            return 2;
        }
        if (i + 1 >= argc) {
            print_usage();
            return 2;
        }
        const std::string value = argv[++i];
        if (arg == "--control") {
            if (!apply_control_file(config, value)) return 2;
        } else if (const char* key = key_of_flag(arg)) {
            apply_key(config, key, value);
        } else {
            apply_valued(config, arg, value);
        }
    }
    return -1;
}

}  // namespace torvex
