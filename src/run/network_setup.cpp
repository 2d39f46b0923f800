#include <algorithm>
#include <cmath>
#include <cstdio>

#include "input/network.h"
#include "run/driver.h"
#include "run/log.h"
#include "run/run_config.h"

namespace torvex {

void apply_discharge_factors(const RunConfig& config, Network& net) {
    if (config.discharge_factor.empty()) return;
    long long changed = 0;
    for (Link& l : net.links) {
        auto it = config.discharge_factor.find(l.ftype);
        if (it == config.discharge_factor.end() || it->second == 1.0f) continue;
        l.discharge_vph = it->second * l.capacity_vph;
        ++changed;
    }
    std::printf("[network] discharge factors applied to %lld links (", changed);
    for (const auto& [ftype, factor] : config.discharge_factor)
        std::printf(" %d=%.2f", ftype, factor);
    progress(" )\n");
}

void apply_static_settings(RunConfig& config, Network& net) {
    net.is_static = config.macro_model == MacroModel::STA_BPR;
    net.sta_window_intervals = std::max(1L, std::lroundf(config.bpr_period_min / 15.0f));
    net.vdf_kind = static_cast<uint8_t>(sta_vdf_kind(config.sta_vdf));
    net.conical_alpha = config.conical_alpha;
    net.akcelik_ja = config.akcelik_ja;
    net.bpr_overcap_beta_mult = config.bpr_overcap_beta_mult;
    if (!net.is_static) return;
    if (!config.sta_method_explicit) config.sta_method = StaMethod::bfw;
    const int window = net.sta_window_intervals;
    progress("[%s][sta] VDF %s | window %d x %.0f min = %.0f min | solver: %s\n", now_hms(),
             config.sta_vdf.c_str(), window, 15.0, window * 15.0,
             sta_method_long_name(static_cast<int>(config.sta_method)));
    if (net.vdf_kind == 1)
        progress("[%s][sta] conical alpha = %.3f\n", now_hms(), config.conical_alpha);
    else if (net.vdf_kind == 2)
        progress("[%s][sta] Akcelik J_A = %.3f\n", now_hms(), config.akcelik_ja);
    else if (config.bpr_overcap_beta_mult != 1.0f)
        progress("[%s][sta] BPR beta x %.3f above capacity (v/c > 1)\n", now_hms(),
                 config.bpr_overcap_beta_mult);
    if (config.sta_method != StaMethod::legacy && config.route_chunks_explicit &&
        config.assignment.route_chunks != 1)
        progress(
            "[%s][sta-bpr] ROUTE_CHUNKS=%d ignored: all-or-nothing routes the whole demand against "
            "one frozen cost field\n",
            now_hms(), config.assignment.route_chunks);
}

void select_node_model(RunConfig& config) {
    AssignmentSettings& a = config.assignment;
    if (config.macro_model == MacroModel::DTA_NodePQ ||
        config.macro_model == MacroModel::DTA_NodeLTM) {
        a.node_mode = config.macro_model == MacroModel::DTA_NodePQ ? 1 : 2;
        a.node_dt = config.node_dt;
        a.node_cumulative = config.node_method == 1;
    } else {
        a.node_mode = 0;
    }
}

void assign_flow_tiers(const RunConfig& config, Network& net) {
    const bool ltm = config.macro_model == MacroModel::DTA_LTM;
    for (Link& l : net.links)
        if (l.flow_tier != kTierMeso)
            l.flow_tier = (l.is_connector || !ltm) ? kTierPointQueue : kTierLtm;

    const auto& meso_ftype = config.meso_ftype;
    if (!net.is_static) {
        for (Link& l : net.links) {
            if (config.meso_all_links) {
                if (!l.is_connector) l.flow_tier = kTierMeso;
            } else if (config.meso_interstates) {
                // Freeway, on-ramp and toll-road types; deliberately shorter than the usage text.
                const uint16_t f = l.ftype;
                if (f == 11 || f == 71 || f == 91 || f == 93 || f == 94) l.flow_tier = kTierMeso;
            }
            if (std::find(meso_ftype.begin(), meso_ftype.end(), l.ftype) != meso_ftype.end())
                l.flow_tier = kTierMeso;
        }
    } else {
        long long fell_back = 0;
        for (Link& l : net.links)
            if (l.flow_tier == kTierMeso) {
                l.flow_tier = kTierPointQueue;
                ++fell_back;
            }
        if (fell_back > 0 || config.meso_all_links || config.meso_interstates ||
            !meso_ftype.empty())
            std::fprintf(
                stderr,
                "[%s][flow-model] STA_BPR + meso is unsupported; meso ignored (%lld dta_meso "
                "links -> BPR)\n",
                now_hms(), fell_back);
    }

    long long ltm_links = 0, meso_links = 0;
    for (const Link& l : net.links) {
        ltm_links += l.flow_tier == kTierLtm;
        meso_links += l.flow_tier == kTierMeso;
    }
    const char* name = net.is_static ? "STA_BPR (static assignment, BPR VDF)"
                                     : macro_model_flow_name(static_cast<int>(config.macro_model));
    progress("[%s][flow-model] macro=%s | %lld LTM, %lld MESO, rest point queue\n", now_hms(), name,
             ltm_links, meso_links);
}

void apply_micro_tags(const RunConfig& config, Network& net) {
    const auto& ftypes = config.micro_ftype;
    if (!ftypes.empty()) {
        long long tagged = 0;
        for (Link& l : net.links)
            if (std::find(ftypes.begin(), ftypes.end(), l.ftype) != ftypes.end()) {
                l.dta_micro = 1;
                ++tagged;
            }
        progress("[%s][flow-model] %lld links tagged MICRO via MICRO_FTYPE\n", now_hms(), tagged);
    }
    if (!config.micro_corridor) {
        long long cleared = 0;
        for (Link& l : net.links) {
            cleared += l.dta_micro != 0;
            l.dta_micro = 0;
        }
        if (cleared > 0)
            progress(
                "[%s][flow-model] MICRO_CORRIDOR off -- cleared %lld dta_micro tag(s); those links "
                "report under macro/meso\n",
                now_hms(), cleared);
    }
}

void apply_storage(const RunConfig& config, Network& net) {
    if (config.jam_density_explicit)
        for (Link& l : net.links)
            l.storage_veh =
                std::max(1.0f, config.jam_density * l.length_mi * static_cast<float>(l.lanes));
    long long ltm_links = 0;
    for (const Link& l : net.links) ltm_links += l.flow_tier == kTierLtm;
    if (ltm_links > 0)
        progress(
            "[%s][ltm] %lld LTM links | jam_density=%.0f veh/mi/lane | max spillback delay=%.0f "
            "min\n",
            now_hms(), ltm_links, config.jam_density, config.assignment.ltm_max_spillback_min);
}

void write_resolution_map(const RunConfig& config, const Network& net) {
    long long meso = 0, micro = 0;
    for (const Link& l : net.links) {
        micro += l.dta_micro != 0;
        meso += l.dta_micro == 0 && l.flow_tier == kTierMeso;
    }
    if (meso + micro == 0) return;
    const std::string path = config.output_directory + "/resolution_map.csv";
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return;
    std::fputs("a_node,b_node,ftype,lanes,length_mi,tier\n", f);
    for (const Link& l : net.links) {
        if (l.dta_micro == 0 && l.flow_tier != kTierMeso) continue;
        std::fprintf(f, "%lld,%lld,%d,%d,%.3f,%s\n", static_cast<long long>(l.a_node),
                     static_cast<long long>(l.b_node), l.ftype, l.lanes, l.length_mi,
                     l.dta_micro ? "MICRO" : "MESO");
    }
    std::fclose(f);
    progress("[%s][flow-model] resolution map: %lld MESO + %lld MICRO links -> %s\n", now_hms(),
             meso, micro, path.c_str());
}

}  // namespace torvex
