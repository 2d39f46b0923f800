// NODE, LINK, segment, toll policy and control files of a synthetic region.
#include <string>

#include "synth.h"
#include "text_out.h"

namespace torvex::synth {

namespace {

// State-plane-like feet: an origin far from zero, as real networks have.
constexpr double kOriginX = 1000000.0, kOriginY = 500000.0, kFeetPerMile = 5280.0;

bool save(const TextBuf& buf, const std::string& path, std::string& error) {
    TextFile f;
    if (!open_text(f, path, false) || !write_block(f, buf) || !close_text(f)) {
        if (f.f) close_text(f);
        error = "cannot write " + path;
        return false;
    }
    return true;
}

bool write_nodes(const Region& r, const std::string& path, std::string& error) {
    TextBuf b;
    b.put("N,X,Y,DTA_Type\n");
    for (const SynthNode& n : r.nodes) {
        b.put_i64(n.id);
        b.put(',');
        b.put_fixed(kOriginX + n.x * kFeetPerMile, 1);
        b.put(',');
        b.put_fixed(kOriginY + n.y * kFeetPerMile, 1);
        b.put(',');
        b.put_i64(n.dta_type);
        b.put('\n');
    }
    return save(b, path, error);
}

bool write_links(const Region& r, const std::string& path, std::string& error) {
    TextBuf b;
    b.put(
        "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,SPEED,NSignals,from_county,KVD_COUNT_24,TOLL,"
        "toll_policy\n");
    for (const SynthLink& l : r.links) {
        b.put_i64(r.nodes[l.a].id);
        b.put(',');
        b.put_i64(r.nodes[l.b].id);
        b.put(',');
        b.put_fixed(l.length_mi < 0.01f ? 0.01 : l.length_mi, 3);
        b.put(',');
        b.put_i64(l.lanes);
        b.put(',');
        b.put_i64(l.capacity);
        b.put(',');
        b.put_i64(l.ftype);
        b.put(',');
        b.put_i64(l.speed_mph);
        b.put(',');
        b.put_i64(l.nsignals);
        b.put(',');
        b.put(r.county_names[l.county]);
        b.put(',');
        if (l.count > 0) b.put_i64(l.count);
        b.put(",0,");
        b.put_i64(l.toll_policy);
        b.put('\n');
    }
    return save(b, path, error);
}

// One row per traveller segment of the demand. Cost is in minutes: a dollar weighs 60 / VOT
// minutes, a mile of operating cost its dollars times that.
bool write_segments(const std::string& path, std::string& error) {
    struct Seg {
        const char* name;
        double vot, cost_per_mile;
        int axles;
        double pce;
        const char* exclude;
    };
    static const Seg kSegs[] = {
        {"sov_low", 8, 0.12, 2, 1, ""},
        {"sov_mid", 18, 0.12, 2, 1, ""},
        {"sov_high", 35, 0.12, 2, 1, ""},
        {"hov2_low", 10, 0.12, 2, 1, ""},
        {"hov2_high", 28, 0.12, 2, 1, ""},
        {"hov3_low", 10, 0.12, 2, 1, ""},
        {"hov3_high", 28, 0.12, 2, 1, ""},
        // Trucks are barred from the express lanes; the quotes keep the list in one field.
        {"truck", 55, 0.45, 5, 2, "\"96,97,98\""},
    };
    TextBuf b;
    b.put("segment_name,VOT,beta_time,beta_cost,distance,axles,pce,exclude_ftypes\n");
    for (const Seg& s : kSegs) {
        const double per_dollar = 60.0 / s.vot;
        b.put(s.name);
        b.put(',');
        b.put_fixed(s.vot, 2);
        b.put(",1,");
        b.put_fixed(per_dollar, 4);
        b.put(',');
        b.put_fixed(s.cost_per_mile * per_dollar, 4);
        b.put(',');
        b.put_i64(s.axles);
        b.put(',');
        b.put_trim(s.pce, 2);
        b.put(',');
        b.put(s.exclude);
        b.put('\n');
    }
    return save(b, path, error);
}

// Policy 1 prices by density in steps; policy 2 by time of day with two peaks.
bool write_toll_policies(const std::string& path, std::string& error) {
    TextBuf b;
    b.put(
        "policy_id,type,start_time,end_time,toll,density_min,density_max,toll_min,toll_max,"
        "increment,dynamic,cpi_adjust\n");
    b.put("1,density,,,,0,12,0.50,0.50,0.25,0,0\n");
    b.put("1,density,,,,12,25,0.75,2.50,0.25,1,0\n");
    b.put("1,density,,,,25,40,2.50,6.00,0.25,1,0\n");
    b.put("1,density,,,,40,200,6.00,10.00,0.50,1,0\n");
    b.put("2,timeofday,05:00:00,06:30:00,1.25,,,,,,,0\n");
    b.put("2,timeofday,06:30:00,09:30:00,3.75,,,,,,,0\n");
    b.put("2,timeofday,09:30:00,15:00:00,1.50,,,,,,,0\n");
    b.put("2,timeofday,15:00:00,19:00:00,4.25,,,,,,,0\n");
    b.put("2,timeofday,19:00:00,22:00:00,1.25,,,,,,,0\n");
    return save(b, path, error);
}

std::string canonical_args(const Options& opt) {
    static const char* kDepart[] = {"hour", "period", "clock"};
    std::string s = "torvex-synth --scale " + opt.scale + " --seed " + std::to_string(opt.seed) +
                    " --zones " + std::to_string(opt.zones) + " --links " +
                    std::to_string(opt.links) + " --trips " + std::to_string(opt.trips) +
                    " --counties " + std::to_string(opt.counties) + " --depart " +
                    kDepart[static_cast<int>(opt.depart)];
    if (opt.gzip) s += " --gzip";
    if (opt.express_lane) s += " --express-lane";
    return s;
}

bool write_control(const Options& opt, const std::string& trip_name, const std::string& path,
                   std::string& error) {
    TextBuf b;
    b.put("# Generated by: " + canonical_args(opt) + "\n");
    b.put("# Paths are relative to this folder: run `torvex --control run.ctl` from here.\n");
    b.put("NODE_FILE NODE.csv\nLINK_FILE LINK.csv\nTRIP_FILE " + trip_name + "\n");
    b.put("SEGMENT_PARAM_FILE segments.csv\nOUTPUT_DIRECTORY out\n");
    b.put("MAX_ITERATIONS " + std::to_string(opt.max_iterations) + "\n");
    b.put("RELATIVE_GAP 0.01\n");
    b.put("# Arterial links carry NSignals: charge their control delay.\nSIGNAL_MODEL 1\n");
    if (opt.express_lane) {
        b.put("TOLL_POLICY_FILE toll_policies.csv\nEL_DETECT 1\n");
    }
    return save(b, path, error);
}

}  // namespace

bool write_network_files(const Region& region, const Options& opt, const std::string& trip_name,
                         std::string& error) {
    const std::string& d = opt.out_dir;
    if (!write_nodes(region, d + "/NODE.csv", error)) return false;
    if (!write_links(region, d + "/LINK.csv", error)) return false;
    if (!write_segments(d + "/segments.csv", error)) return false;
    if (opt.express_lane && !write_toll_policies(d + "/toll_policies.csv", error)) return false;
    return write_control(opt, trip_name, d + "/run.ctl", error);
}

}  // namespace torvex::synth
