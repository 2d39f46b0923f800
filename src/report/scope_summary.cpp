// scope_summary.csv: route keys and their weight by routing stage, per county of the origin.
#include <vector>

#include "report/csv_out.h"
#include "report/outputs.h"
#include "run/log.h"

namespace torvex {

void write_scope_summary(const std::string& path, const TripTable& trips, const Network& network) {
    const size_t n_counties = network.county_names.size();
    // One row per county plus "(unknown)" for origins without a usable county.
    struct Row {
        long long keys[3] = {0, 0, 0};
        double weight[3] = {0, 0, 0};
    };
    std::vector<Row> rows(n_counties + 1);
    Row total;
    for (const RouteKey& k : trips.route_keys) {
        if (k.scope > 2) continue;
        const int16_t county = static_cast<int16_t>(network.nodes[k.origin].county);
        const size_t r = county < 0 || static_cast<size_t>(county) >= n_counties
                             ? n_counties
                             : static_cast<size_t>(county);
        rows[r].keys[k.scope] += 1;
        rows[r].weight[k.scope] += k.weight;
        total.keys[k.scope] += 1;
        total.weight[k.scope] += k.weight;
    }

    CsvOut out;
    csv_open(out, path, size_t{1} << 16);
    csv_text(out,
             "county,intra_keys,intra_weight,adjacent_keys,adjacent_weight,statewide_keys,"
             "statewide_weight\n");
    for (size_t r = 0; r <= n_counties; ++r) {
        const Row& row = rows[r];
        if (row.keys[0] == 0 && row.keys[1] == 0 && row.keys[2] == 0) continue;
        const char* name = r < n_counties ? network.county_names[r].c_str() : "(unknown)";
        csv_printf(out, "%s,%lld,%.2f,%lld,%.2f,%lld,%.2f\n", name, row.keys[0], row.weight[0],
                   row.keys[1], row.weight[1], row.keys[2], row.weight[2]);
    }
    csv_printf(out, "ALL,%lld,%.2f,%lld,%.2f,%lld,%.2f\n", total.keys[0], total.weight[0],
               total.keys[1], total.weight[1], total.keys[2], total.weight[2]);
    csv_close(out);
    progress(
        "[scope] route keys by mask: intra=%lld adjacent=%lld statewide=%lld (of %lld); see "
        "scope_summary.csv\n",
        total.keys[0], total.keys[1], total.keys[2], total.keys[0] + total.keys[1] + total.keys[2]);
}

}  // namespace torvex
