// count_validation.csv: the first 24 hours of model volume against the LINK file's daily counts,
// by the GEH statistic; a pair counted in both directions is judged as one two-way road.
#include <cmath>
#include <unordered_map>

#include "report/csv_out.h"
#include "report/outputs.h"
#include "run/log.h"

namespace torvex {

namespace {

inline uint64_t pair_key(int32_t from, int32_t to) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(from)) << 32) | static_cast<uint32_t>(to);
}

inline float day_volume(const Link& l) {
    float v = 0.0f;
    for (int i = 0; i < 96; ++i) v += l.volume[i];
    return v;
}

inline float geh(float m, float o) {
    const float d = m - o;
    return std::sqrt((d + d) * d / (o + m + 1e-6f));
}

}  // namespace

void write_count_validation(const std::string& path, const Network& network) {
    CsvOut out;
    csv_open(out, path, size_t{1} << 20);
    csv_text(out,
             "a_node,b_node,county,ftype,obs_24h,model_24h,direction,ratio,pct_err,geh_daily,"
             "geh_hourly_avg\n");
    std::unordered_map<uint64_t, int32_t> by_pair;
    by_pair.reserve(network.links.size());
    for (int32_t l = 0; l < network.link_count(); ++l)
        by_pair[pair_key(network.links[l].from, network.links[l].to)] = l;  // the last one wins

    double sum_obs = 0, sum_model = 0, sum_sq = 0;
    long long n = 0, n_under_5 = 0, n_under_10 = 0;
    for (const Link& l : network.links) {
        if (!(l.count > 0.0f)) continue;
        const auto rev = by_pair.find(pair_key(l.to, l.from));
        const Link* back = rev != by_pair.end() && network.links[rev->second].count > 0.0f
                               ? &network.links[rev->second]
                               : nullptr;
        if (back && l.a_node > l.b_node) continue;  // reported under the other direction
        float obs = l.count;
        float model = day_volume(l);
        if (back) {
            model += day_volume(*back);
            obs += back->count;
        }
        const float diff = model - obs;
        const float pct_err = diff * 100.0f / obs;
        const float ratio = model / obs;
        const float geh_daily = geh(model, obs);
        const float geh_hourly = geh(model / 24.0f, obs / 24.0f);
        const char* county = l.county != kNoCounty && l.county < network.county_names.size()
                                 ? network.county_names[l.county].c_str()
                                 : "";
        csv_printf(out, "%lld,%lld,%s,%d,%.0f,%.1f,%s,%.3f,%.1f,%.2f,%.2f\n",
                   static_cast<long long>(l.a_node), static_cast<long long>(l.b_node), county,
                   static_cast<int>(l.ftype), obs, model, back ? "two-way" : "one-way", ratio,
                   pct_err, geh_daily, geh_hourly);
        sum_obs += obs;
        sum_model += model;
        sum_sq += static_cast<double>(pct_err) * pct_err;
        ++n;
        n_under_5 += geh_hourly < 5.0f;
        n_under_10 += geh_hourly < 10.0f;
    }
    csv_close(out);
    if (n > 0)
        progress(
            "[validation] %lld counted links: model/obs volume ratio=%.3f, RMSE=%.1f%%, "
            "GEH(avg-hr)<5: %.1f%%, <10: %.1f%%\n",
            n, sum_model / sum_obs, std::sqrt(sum_sq / n), n_under_5 * 100.0 / n,
            n_under_10 * 100.0 / n);
    else
        progress("[validation] no observed counts in LINK.csv\n");
}

}  // namespace torvex
