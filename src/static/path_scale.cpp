// Path-flow reconciliation of a static solve: the solver's link flows do not decompose into the
// keys' final all-or-nothing paths, and this file shows by how much, link by link.
#include <cstdio>

#include "assign/network_loading.h"
#include "run/log.h"
#include "static/static_solver.h"

namespace torvex {

void write_path_scale(const std::string& path, const AssignmentState& state,
                      const std::vector<float>& equilibrium, std::vector<float>& paths_load) {
    const Network& net = *state.network;
    load_paths_full(state.load, *state.trips, state.path_arena, paths_load, nullptr);
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) {
        std::fprintf(stderr, "[sta] cannot write %s\n", path.c_str());
        return;
    }
    std::fputs("a_node,b_node,ftype,vol_equilibrium,vol_from_paths,scale\n", f);
    double total_e = 0.0, total_p = 0.0;
    long long rows = 0;
    const int32_t n = net.link_count();
    for (int32_t l = 0; l < n; ++l) {
        const size_t at = static_cast<size_t>(l) * kIntervals;
        double e = 0.0, p = 0.0;
        for (int i = 0; i < kIntervals; ++i) {
            e += equilibrium[at + i];
            p += paths_load[at + i];
        }
        total_e += e;
        total_p += p;
        if (!(e > 0.0) && !(p > 0.0)) continue;
        const Link& link = net.links[l];
        if (p > 0.0)
            std::fprintf(f, "%lld,%lld,%d,%.3f,%.3f,%.6f\n", static_cast<long long>(link.a_node),
                         static_cast<long long>(link.b_node), static_cast<int>(link.ftype), e, p,
                         e / p);
        else
            std::fprintf(f, "%lld,%lld,%d,%.3f,%.3f,\n", static_cast<long long>(link.a_node),
                         static_cast<long long>(link.b_node), static_cast<int>(link.ftype), e, p);
        ++rows;
    }
    std::fclose(f);
    progress(
        "[%s][sta] path-flow reconciliation: %lld links -> %s (network-wide equilibrium/paths = "
        "%.4f)\n",
        now_hms(), rows, path.c_str(), total_p > 0.0 ? total_e / total_p : 0.0);
}

}  // namespace torvex
