// The usage text of the command line.
#include <cstdio>

#include "run/run_config.h"

namespace torvex {

namespace {

// Kept as written, also where the run does less (the --meso-interstates list, the database name).
constexpr const char* kUsageLines[] = {
    "Morvane DTA (MVP)",
    "usage: torvex --control RUN.ctl [overrides]",
    "       torvex --node NODE.csv --link LINK.csv --trips TRIPS.csv[.gz] [options]",
    "  --control FILE         Ostrel-style control file (KEY value per line);",
    "                         any CLI flag after it overrides the file",
    "  --out-dir DIR          output directory (default .)",
    "  --max-trips N          load at most N trips (0 = all)",
    "  --sample-every K       keep every K-th trip, weight x K (uniform daily sample)",
    "  --iters N              max equilibrium iterations (default 20)",
    "  --eps X                relative gap convergence (default 0.01)",
    "  --reroute-threshold X  min gap [min] to adopt a new path (default 0.01)",
    "  --chunks N             routing chunks per pass with DNL refresh between (default 10)",
    "  --reroute-frac-min X   floor for the decaying re-route share (default 0.05)",
    "  --threads N            OpenMP threads (default: all)",
    "  --write-agents         per-agent results as CSV",
    "  --write-agents-duckdb  per-agent results + key paths as agent_results.duckdb",
    "  --segment-params FILE  per-segment CSV: "
    "segment_name,VOT,beta_time,beta_cost,distance,axles,pce",
    "  --macro-model M        global macro engine (case-insensitive):",
    "                         DTA_PointQueue | DTA_LTM | STA_BPR (default DTA_NodeLTM)",
    "                         DTA_* = macroDTA (stateful DNL); STA_BPR =",
    "                         stateless static assignment (no queues)",
    "  STA_VDF <curve>        bpr | conical | akcelik   (STA_BPR only; default bpr)",
    "  CONICAL_ALPHA <a>      Spiess conical parameter, a > 1 (default 4)",
    "  AKCELIK_JA <j>         Akcelik delay parameter (default 0.1; ~0.4 arterial)",
    "  BPR_OVERCAP_BETA_MULT <m>  BPR only: multiply beta above v/c = 1",
    "                         (default 1 = single exponent, legacy)",
    "  --ltm-max-spillback-min X  cap on LTM spillback delay to upstream links",
    "  --jam-density X        veh/mi/lane for LTM link storage (default 240)",
    "  --county NAME          restrict to intra-county trips of one county",
    "  --node-conservation    after assignment, report interior-node flow",
    "                         imbalance (independent loader vs conserving node",
    "                         model); writes node_conservation_*.csv",
    "  --node-receiving M     pq | spatial (node-model receiving; default spatial)",
    "  --node-dt S            node-model time step in seconds (default 60)",
    "  --link-volume-breakdown M  per-category volume columns: market|purpose|segment|none",
    "                         (segment = marketVot = VOT breakdown)",
    "  --signal-model         cap signalized-link discharge at sat x lanes x g/C +",
    "                         per-signal control delay (NSignals); SIGNAL_GC/CYCLE/SAT_FLOW",
    "  --micro-corridor       run the lane-level micro sim on the dta_micro extent",
    "  --micro-coupling M     oneway|twoway_frozen|twoway_full (default oneway)",
    "  --micro-choice M       modea (logit) | modeb (endogenous WTP, default)",
    "  --meso-interstates     MESO on the full limited-access system (freeway 11/12,",
    "                         ramps 71/72/75/76/79, tolls 91-94, EL 96/97/98) so flow conserves",
    "  --meso-all-links       MESO on every non-connector link (full mesoscopic)",
    "  --meso-ftype LIST      force MESO on these FTYPEs (e.g. 11,71,91); also via",
    "                         per-link dta_meso=1 column or MESO_FTYPE control key",
    "  --select-link PAIRS    comma-separated node pairs A-B: list all agents/plans",
    "                         traversing them -> select_link_{agents,summary}.csv",
    "  --select-op OP         and|or for multiple --select-link pairs (default or)",
    "  --time-counts FILE     Brevan time-sliced counts A,B,StartTime,EndTime,Count,",
    "                         Importance (HH:MM:SS): time-windowed validation",
    "  --calibrate            ODME reweight trips to the counts (needs --time-counts);",
    "                         writes trips_reweighted.csv + od_adjustment.csv",
    "  --calib-passes N       calibration passes (default 5)",
    "  --calib-alpha X        per-pass damping exponent (default 0.5)",
    "  --calib-max-pct X      cap per-pass change to +/-X (default 0.25)",
    "  --calib-bound-lo/hi X  cumulative weight bounds vs original (default 0.25/4)",
    "  --trace-agents IDs     comma-separated agent ids: dump their full path",
    "                         (links + entry times) every iteration to trace_paths.csv",
};

}  // namespace

void print_usage() {
    for (const char* line : kUsageLines) std::printf("%s\n", line);
    std::fflush(stdout);
}

}  // namespace torvex
