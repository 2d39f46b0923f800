// Every setting of a run: built-in defaults, then control files and flags in argument order.
//
// A setting with a control key lives in the field named after the key in snake_case. The fields
// handed to the assignment as one record stand in AssignmentSettings (member `assignment`).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace torvex {

enum class MacroModel : uint8_t {
    DTA_PointQueue = 0,
    DTA_LTM = 1,
    STA_BPR = 2,
    DTA_NodePQ = 3,
    DTA_NodeLTM = 4,
};

enum class StaMethod : uint8_t { legacy = 0, msa = 1, fw = 2, cfw = 3, bfw = 4 };

enum class MicroCoupling : uint8_t { oneway = 0, twoway_frozen = 1, twoway_full = 2 };

// How a corridor vehicle comes to the express lane.
enum class MicroChoice : uint8_t { ModeA_logit = 0, ModeB_endogenous = 1 };

enum class AgentOutputMode : uint8_t { default_mode = 0, csv = 1, duckdb = 2 };

enum class VolumeBreakdown : uint8_t { none = 0, market = 1, purpose = 2, segment = 3 };

struct AssignmentSettings {
    int32_t max_iterations = 20;
    float relative_gap = 0.01f;
    int32_t route_chunks = 10;
    float reroute_threshold_min = 0.01f;
    float reroute_fraction_min = 0.05f;
    int32_t threads = 0;  // 0: all processors
    std::string checkpoint_file;
    int32_t checkpoint_every = 0;
    std::string stop_file;
    float ltm_max_spillback_min = 20.0f;

    // Per-iteration share of keys routed; empty means all keys every iteration.
    std::vector<float> sample_schedule;

    // Node model and network loading plans. A non-empty list wins over the plain mode field.
    int32_t node_refresh_every = 0;  // 0 once per iteration, n every nth chunk
    std::vector<int32_t> node_schedule;
    int32_t load_refresh_every = 1;  // 0 last chunk only, n every nth chunk
    std::vector<int32_t> load_schedule;
    bool load_refresh = false;  // incremental (delta) refresh
    bool node_turns = false;    // true: per-interval turn shares, false: static shares
    float node_inject_res = 15.0f;

    // Meso simulation.
    float meso_max_spillback_min = 20.0f;
    float meso_breaker_rate = 0.0f;
    float meso_dt_sec = 6.0f;
    std::string meso_segment_file;
    float meso_segment_len = 0.0f;

    // Filled by the run driver before the assignment.
    int32_t start_iteration = 0;  // iteration of a loaded checkpoint
    uint8_t node_mode = 2;        // 0 none, 1 point-queue conserving, 2 spatial conserving
    float node_dt = 60.0f;
    bool node_cumulative = false;
    int64_t meso_probe_a = -1;
    int64_t meso_probe_b = -1;
    std::string trace_path;
    std::string sta_path_scale_path;
    std::string meso_log_path;
    std::string meso_interval_log_path;
    std::string meso_movement_log_path;
    std::string meso_segment_log_path;
    std::string meso_probe_path;
};

struct RunConfig {
    AssignmentSettings assignment;

    // Files, demand sampling, run length.
    std::string node_file;
    std::string link_file;
    std::string trip_file;
    std::string output_directory = ".";
    int64_t max_trips = 0;  // 0: all
    int32_t sample_every = 1;
    std::string resume_from;
    std::vector<std::pair<std::string, float>> market_scale;  // segment name prefix, factor
    std::string segment_param_file;
    std::string turn_prohibition_file;
    std::string county_filter;
    std::vector<int64_t> trace_agents;
    AgentOutputMode write_agent_results = AgentOutputMode::default_mode;
    int8_t write_agent_plans = -1;  // -1 unset, else 0 / 1
    int8_t write_agent_paths = -1;  // -1 unset, else 0 / 1
    VolumeBreakdown link_volume_breakdown = VolumeBreakdown::none;

    // Macro model and static assignment.
    MacroModel macro_model = MacroModel::DTA_NodeLTM;
    float jam_density = 240.0f;  // veh/mi/lane
    StaMethod sta_method = StaMethod::bfw;
    std::string sta_vdf = "bpr";  // "bpr", "conical" or "akcelik"
    float conical_alpha = 4.0f;
    float akcelik_ja = 0.1f;
    float bpr_overcap_beta_mult = 1.0f;
    float bpr_period_min = 15.0f;
    bool sta_path_scale = true;

    // Node model.
    bool node_conservation = false;
    float node_dt = 60.0f;    // seconds
    uint8_t node_method = 1;  // 0 queue-stepping, 1 cumulative

    // Meso.
    bool meso_interstates = false;
    bool meso_all_links = false;
    std::vector<int32_t> meso_ftype;
    bool meso_interval_log = false;
    bool meso_movement_log = false;
    bool meso_segment_log = false;
    std::array<int64_t, 2> meso_probe_link = {-1, -1};  // A and B node ids

    // Micro corridor.
    bool micro_corridor = false;
    MicroCoupling micro_coupling = MicroCoupling::oneway;
    MicroChoice micro_choice = MicroChoice::ModeB_endogenous;
    int32_t micro_outer = 1;
    std::vector<int32_t> micro_ftype;
    float micro_dt_sec = 0.5f;
    std::array<int64_t, 2> micro_probe_link = {-1, -1};  // A and B node ids
    int32_t micro_probe_stride = 10;
    std::string micro_lane_file;

    // Signals and discharge.
    bool signal_model = false;
    float signal_sat_flow = 1800.0f;  // vph per lane
    float signal_cycle = 120.0f;      // seconds
    float signal_gc = 0.45f;
    std::map<int, float> signal_gc_ftype;   // SIGNAL_GC_n by FTYPE
    std::map<int, float> discharge_factor;  // DISCHARGE_FACTOR_n by FTYPE, ascending

    // Tolls and express lanes.
    std::string toll_policy_file;
    std::string lane_use_file;
    std::string capacity_file;
    float cpi = 0.0f;
    int32_t base_year = 0;
    int32_t future_year = 0;
    bool el_detect = false;
    int32_t express_toll_policy = 0;
    bool el_no_trucks = false;
    bool toll_choice = false;
    float toll_choice_constant = 0.0f;
    float toll_choice_time_factor = 1.0f;
    float toll_choice_toll_factor = 1.0f;
    std::string toll_constant_file;
    int32_t toll_choice_split_passes = 5;

    // Counts, calibration, subarea.
    std::string time_count_file;
    bool calibrate = false;
    int32_t calib_passes = 5;
    float calib_alpha = 0.5f;
    float calib_max_pct_per_pass = 0.25f;
    float calib_bound_lo = 0.25f;
    float calib_bound_hi = 4.0f;
    float calib_min_importance = 0.0f;
    float min_model = 1.0f;   // calibration: least modelled volume of a window
    float max_ratio = 10.0f;  // calibration: bound of an observation's ratio
    std::string subarea_id = "sa1";
    std::string subarea_boundary_file;
    int64_t subarea_seed_node = 0;

    // Bookkeeping without a key of its own.
    bool route_chunks_explicit = false;  // ROUTE_CHUNKS came from a control file
    bool sta_method_explicit = false;
    bool jam_density_explicit = false;
    bool write_meso_log = true;
    bool node_receiving_spatial = true;  // false: point-queue receiving
    std::string select_link_pairs;
    bool select_and = false;
};

// Control file of KEY value lines; false (after a message) on a missing file or a refused key.
bool apply_control_file(RunConfig& config, const std::string& path);
// key upper-case, value as read; false for an unknown key or a refused value.
bool apply_key(RunConfig& config, const std::string& key, const std::string& value);

bool parse_macro_model(const std::string& text, MacroModel& out);
bool parse_sta_method(const std::string& text, StaMethod& out);
bool parse_micro_coupling(const std::string& text, MicroCoupling& out);

// Range form of a refresh plan ("1-3:iter,4:chunk"): one entry per iteration from 1.
std::vector<int32_t> parse_node_schedule(const std::string& text);
// Plain form of a refresh plan ("once", "every 5 chunks"): the mode number.
int32_t parse_refresh_mode(const std::string& text);
// Per-iteration shares from percentages ("100,50" or "1:100,2-4:50").
std::vector<float> parse_sample_schedule(const std::string& text);
// Appends the comma-separated ids; empty elements are skipped.
void parse_id_list(const std::string& text, std::vector<int64_t>& out);
void parse_int_list(const std::string& text, std::vector<int32_t>& out);

// Applies argv[1..] in order. -1: go on with the run; otherwise the process exit code.
int parse_arguments(RunConfig& config, int argc, char** argv);
// The usage text, to standard output.
void print_usage();

// Names used by the logs.
const char* sta_method_long_name(int method);
const char* micro_coupling_name(int coupling);
const char* macro_model_flow_name(int model);  // as in the flow-model line
int sta_vdf_kind(const std::string& curve);    // 0 bpr, 1 conical, 2 akcelik, -1 unknown

}  // namespace torvex
