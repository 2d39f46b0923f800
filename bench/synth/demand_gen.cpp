// Person trips from synthetic households: tours from home to a destination chosen by a gravity
// rule, with peaked departure times, written block by block on several threads in a fixed order.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "rng.h"
#include "synth.h"
#include "text_out.h"

namespace torvex::synth {

namespace {

constexpr int32_t kZonesPerBlock = 8;  // fixed, so that output never depends on threads
constexpr uint64_t kZoneStreamBase = 1000;
constexpr double kLatestMin = 26 * 60 - 1;  // departures stay inside the 30-hour horizon

// Destination choice classes: commute (long reach, jobs), school (short, households),
// errands (medium, a mix). Each adds a thin long-distance tail so statewide trips occur.
// Decays are whole multiples of the tail's, so one exp per zone pair serves all classes.
constexpr int kClasses = 3;
constexpr double kTailWeight = 0.001, kTailDecay = 0.02;  // per mile
constexpr int kDecaySteps[kClasses] = {7, 20, 14};        // 0.14, 0.40, 0.28 per mile

enum class TourKind { kWork, kBusiness, kSchool, kErrand };

struct Block {
    TextBuf text, packed;
    TripSummary stats;
};

struct DemandContext {
    const Region* region = nullptr;
    const Options* opt = nullptr;
    std::vector<double> attraction[kClasses];
    std::vector<int64_t> budget;   // trips per home zone
    std::vector<int64_t> hh_base;  // first household id of each home zone
};

struct Scratch {
    std::vector<double> cdf[kClasses];
    std::vector<double> dist;
};

struct TripRow {
    int64_t hh = 0, person = 0;
    int32_t tour = 0, trip = 0, o = 0, d = 0;  // o, d are zone indices
    double depart_min = 0, vot = 0;
    const char* purpose = "";
    const char* market = "";
    const char* segment = "";
    int occupancy = 1;
    const char* vehicle = "";
};

void build_cdfs(const DemandContext& ctx, int32_t o, Scratch& s) {
    const std::vector<Zone>& zones = ctx.region->zones;
    const size_t n = zones.size();
    s.dist.resize(n);
    for (size_t d = 0; d < n; ++d) {
        const double dx = zones[d].x - zones[o].x, dy = zones[d].y - zones[o].y;
        s.dist[d] = std::sqrt(dx * dx + dy * dy);
    }
    double sum[kClasses] = {0, 0, 0};
    for (int c = 0; c < kClasses; ++c) s.cdf[c].resize(n);
    for (size_t d = 0; d < n; ++d) {
        if (static_cast<int32_t>(d) != o) {
            const double e = std::exp(-kTailDecay * s.dist[d]);
            const double e2 = e * e, e4 = e2 * e2, e7 = e4 * e2 * e, e14 = e7 * e7;
            const double decay[kClasses] = {e7, e14 * e4 * e2, e14};
            static_assert(kDecaySteps[0] == 7 && kDecaySteps[1] == 20 && kDecaySteps[2] == 14);
            for (int c = 0; c < kClasses; ++c)
                sum[c] += ctx.attraction[c][d] * (decay[c] + kTailWeight * e);
        }
        for (int c = 0; c < kClasses; ++c) s.cdf[c][d] = sum[c];
    }
}

int32_t draw_zone(const std::vector<double>& cdf, Rng& rng) {
    const double u = rng.uniform() * cdf.back();
    const auto it = std::upper_bound(cdf.begin(), cdf.end(), u);
    return static_cast<int32_t>(
        std::min<std::ptrdiff_t>(it - cdf.begin(), static_cast<std::ptrdiff_t>(cdf.size()) - 1));
}

void put_row(TextBuf& b, const TripRow& t, Depart depart) {
    b.put_i64(t.hh);
    b.put(',');
    b.put_i64(t.person);
    b.put(',');
    b.put_i64(t.tour);
    b.put(',');
    b.put_i64(t.trip);
    b.put(',');
    b.put_i64(t.o + 1);
    b.put(',');
    b.put_i64(t.d + 1);
    b.put(',');
    const double m = std::min(t.depart_min, kLatestMin);
    if (depart == Depart::kHour) {
        b.put_i64(static_cast<int64_t>(m / 60) + 1);
    } else if (depart == Depart::kPeriod) {
        b.put_i64(static_cast<int64_t>(m / 30));
    } else {
        const auto sec = static_cast<int64_t>(m * 60);
        const int64_t hh = sec / 3600, mm = sec / 60 % 60, ss = sec % 60;
        const char clock[8] = {char('0' + hh / 10), char('0' + hh % 10), ':',
                               char('0' + mm / 10), char('0' + mm % 10), ':',
                               char('0' + ss / 10), char('0' + ss % 10)};
        b.put(std::string_view(clock, 8));
    }
    b.put(',');
    b.put_trim(1.0 / t.occupancy, 4);
    b.put(',');
    b.put_fixed(t.vot, 2);
    b.put(',');
    b.put(t.purpose);
    b.put(',');
    b.put(t.market);
    b.put(',');
    b.put(t.segment);
    b.put(',');
    b.put_i64(t.occupancy);
    b.put(',');
    b.put(t.vehicle);
    b.put('\n');
}

const char* segment_of(const char* market, double vot) {
    if (market[0] == 't') return "truck";
    if (market[0] == 's') return vot < 12 ? "sov_low" : (vot < 25 ? "sov_mid" : "sov_high");
    if (market[3] == '2') return vot < 18 ? "hov2_low" : "hov2_high";
    return vot < 18 ? "hov3_low" : "hov3_high";
}

// One tour of a person: out to a destination, back home, sometimes with a stop on the way back.
// Returns the number of rows written, at most `left`.
int64_t write_tour(const DemandContext& ctx, const Scratch& s, TripRow t, TourKind kind,
                   double vot_hh, int64_t left, Rng& rng, Block& blk) {
    const int32_t home = t.o;
    const char* purpose = "work";
    int cls = 0;
    double out_h = 0, stay_h = 0;
    double p_sov = 0.82, p_hov2 = 0.12;
    double vot = vot_hh;
    switch (kind) {
        case TourKind::kWork:
            out_h = std::clamp(7.5 + 0.85 * rng.normal(), 4.5, 11.0);
            stay_h = std::clamp(8.7 + 1.0 * rng.normal(), 4.0, 11.0);
            break;
        case TourKind::kBusiness:
            purpose = "business";
            out_h = std::clamp(9.5 + 1.5 * rng.normal(), 6.0, 15.0);
            stay_h = rng.uniform(1, 4);
            vot *= 1.6;
            break;
        case TourKind::kSchool:
            purpose = "school";
            cls = 1;
            out_h = std::clamp(7.6 + 0.35 * rng.normal(), 6.5, 9.0);
            stay_h = std::clamp(7.0 + 0.6 * rng.normal(), 4.0, 9.0);
            p_sov = 0.3, p_hov2 = 0.45;
            vot *= 0.6;
            break;
        case TourKind::kErrand: {
            static const char* kErrands[] = {"shop", "eat", "social", "other"};
            purpose = kErrands[rng.below(4)];
            cls = 2;
            out_h = rng.chance(0.45) ? 12 + 2 * rng.normal() : 18 + 1.5 * rng.normal();
            out_h = std::clamp(out_h, 6.0, 22.5);
            stay_h = rng.uniform(0.5, 2.5);
            p_sov = 0.5, p_hov2 = 0.3;
            vot *= 0.75;
            break;
        }
    }
    const double pick = rng.uniform();
    t.market = pick < p_sov ? "sov" : (pick < p_sov + p_hov2 ? "hov2" : "hov3");
    t.occupancy = t.market[0] == 's' ? 1 : (t.market[3] == '2' ? 2 : (rng.chance(0.7) ? 3 : 4));
    if (kind == TourKind::kBusiness && rng.chance(0.4)) t.market = "truck", t.occupancy = 1;
    const double ev = rng.uniform();
    t.vehicle = t.market[0] == 't' ? "truck" : (ev < 0.08 ? "ev" : (ev < 0.18 ? "hybrid" : "gas"));
    t.vot = t.market[0] == 't' ? 45 * std::exp(0.3 * rng.normal()) : vot;
    t.vot = std::clamp(t.vot, 1.0, 250.0);
    t.segment = segment_of(t.market, t.vot);

    const int32_t dest = draw_zone(s.cdf[cls], rng);
    const double drive_min = s.dist[dest] * 1.3 / 30.0 * 60.0 + 5;
    int32_t stop = -1;
    if (rng.chance(kind == TourKind::kErrand ? 0.15 : 0.25)) {
        for (int tries = 0; tries < 4 && (stop < 0 || stop == dest); ++tries)
            stop = draw_zone(s.cdf[2], rng);
        if (stop == dest) stop = -1;
    }
    struct Leg {
        int32_t o, d;
        double at;
        const char* purpose;
    };
    Leg legs[3];
    int n = 0;
    const double back = out_h * 60 + drive_min + stay_h * 60;
    legs[n++] = {home, dest, out_h * 60, purpose};
    if (stop >= 0) {
        static const char* kStops[] = {"shop", "eat", "other"};
        legs[n++] = {dest, stop, back, kStops[rng.below(3)]};
        legs[n++] = {stop, home, back + drive_min * 0.5 + rng.uniform(20, 60), "home"};
    } else {
        legs[n++] = {dest, home, back, "home"};
    }
    int64_t written = 0;
    for (int i = 0; i < n && written < left; ++i) {
        t.trip = i + 1;
        t.o = legs[i].o;
        t.d = legs[i].d;
        t.depart_min = legs[i].at;
        t.purpose = legs[i].purpose;
        put_row(blk.text, t, ctx.opt->depart);
        const Zone &zo = ctx.region->zones[t.o], &zd = ctx.region->zones[t.d];
        const double dd = std::hypot(zo.x - zd.x, zo.y - zd.y);
        blk.stats.rows += 1;
        blk.stats.sum_distance_mi += dd;
        blk.stats.long_trips += dd > 20 ? 1 : 0;
        blk.stats.intra_county += zo.county == zd.county ? 1 : 0;
        ++written;
    }
    return written;
}

void write_zone(const DemandContext& ctx, int32_t o, Scratch& s, Block& blk) {
    int64_t left = ctx.budget[o];
    if (left == 0) return;
    build_cdfs(ctx, o, s);
    Rng rng(ctx.opt->seed, kZoneStreamBase + static_cast<uint64_t>(o));
    static const double kSizes[] = {0.28, 0.62, 0.79, 0.93, 1.0};  // cumulative, 1 to 5 persons
    for (int64_t k = 0; left > 0; ++k) {
        TripRow t;
        t.hh = ctx.hh_base[o] + k;
        t.o = o;
        const double size_draw = rng.uniform();
        int persons = 1;
        while (persons < 5 && size_draw >= kSizes[persons - 1]) ++persons;
        const double vot_hh = std::clamp(16.0 * std::exp(0.55 * rng.normal()), 3.0, 120.0);
        blk.stats.households += 1;
        for (int p = 1; p <= persons && left > 0; ++p) {
            t.person = t.hh * 10 + p;
            TourKind tours[3];
            int n = 0;
            const double role = rng.uniform();
            if (role < 0.5) {
                tours[n++] = rng.chance(0.9) ? TourKind::kWork : TourKind::kBusiness;
                if (rng.chance(0.35)) tours[n++] = TourKind::kErrand;
            } else if (role < 0.72) {
                tours[n++] = TourKind::kSchool;
                if (rng.chance(0.2)) tours[n++] = TourKind::kErrand;
            } else {
                tours[n++] = TourKind::kErrand;
                if (rng.chance(0.5)) tours[n++] = TourKind::kErrand;
            }
            for (int i = 0; i < n && left > 0; ++i) {
                t.tour = i + 1;
                left -= write_tour(ctx, s, t, tours[i], vot_hh, left, rng, blk);
            }
        }
    }
}

// Trips per home zone in proportion to households, by largest remainder so they sum exactly.
std::vector<int64_t> allocate(const std::vector<Zone>& zones, int64_t total) {
    double sum = 0;
    for (const Zone& z : zones) sum += z.households;
    std::vector<int64_t> out(zones.size());
    std::vector<std::pair<double, size_t>> rest(zones.size());
    int64_t given = 0;
    for (size_t i = 0; i < zones.size(); ++i) {
        const double share = total * zones[i].households / sum;
        out[i] = static_cast<int64_t>(share);
        given += out[i];
        rest[i] = {-(share - static_cast<double>(out[i])), i};
    }
    std::sort(rest.begin(), rest.end());
    for (size_t k = 0; given < total; ++k, ++given) out[rest[k % rest.size()].second] += 1;
    return out;
}

}  // namespace

bool write_trips(const Region& region, const Options& opt, const std::string& path,
                 TripSummary& summary, std::string& error) {
    DemandContext ctx;
    ctx.region = &region;
    ctx.opt = &opt;
    const size_t nz = region.zones.size();
    double hh_sum = 0, job_sum = 0;
    for (const Zone& z : region.zones) hh_sum += z.households, job_sum += z.jobs;
    for (int c = 0; c < kClasses; ++c) ctx.attraction[c].resize(nz);
    for (size_t i = 0; i < nz; ++i) {
        const Zone& z = region.zones[i];
        ctx.attraction[0][i] = z.jobs / job_sum;
        ctx.attraction[1][i] = z.households / hh_sum;
        ctx.attraction[2][i] = 0.6 * z.jobs / job_sum + 0.4 * z.households / hh_sum;
    }
    ctx.budget = allocate(region.zones, opt.trips);
    ctx.hh_base.resize(nz);
    int64_t next = 1;
    for (size_t i = 0; i < nz; ++i) ctx.hh_base[i] = next, next += ctx.budget[i];

    TextFile out;
    if (!open_text(out, path, opt.gzip)) {
        error = "cannot write " + path;
        return false;
    }
    const int32_t blocks = static_cast<int32_t>((nz + kZonesPerBlock - 1) / kZonesPerBlock);
    std::vector<Block> per_thread(static_cast<size_t>(omp_get_max_threads()));
    std::vector<Scratch> scratch(per_thread.size());
    bool ok = true;
#pragma omp parallel for schedule(dynamic, 1) ordered
    for (int32_t b = 0; b < blocks; ++b) {
        Block& blk = per_thread[static_cast<size_t>(omp_get_thread_num())];
        blk.text.clear();
        blk.stats = TripSummary{};
        if (b == 0) {
            static const char* kDepartCol[] = {"hour", "period", "depart_time"};
            blk.text.put("hh_id,person_id,tour_id,trip_id,O,D,");
            blk.text.put(kDepartCol[static_cast<int>(opt.depart)]);
            blk.text.put(",vehTrips,valueOfTime,purpose,market,marketVot,occupancy,vehicle_type\n");
        }
        const int32_t z_end = std::min<int32_t>(static_cast<int32_t>(nz), (b + 1) * kZonesPerBlock);
        Scratch& s = scratch[static_cast<size_t>(omp_get_thread_num())];
        for (int32_t o = b * kZonesPerBlock; o < z_end; ++o) write_zone(ctx, o, s, blk);
        bool packed = true;
        if (opt.gzip) packed = compress_member(blk.text, out.level, blk.packed);
#pragma omp ordered
        {
            ok = ok && packed && write_raw(out, opt.gzip ? blk.packed : blk.text);
            summary.rows += blk.stats.rows;
            summary.households += blk.stats.households;
            summary.intra_county += blk.stats.intra_county;
            summary.sum_distance_mi += blk.stats.sum_distance_mi;
            summary.long_trips += blk.stats.long_trips;
        }
    }
    ok = close_text(out) && ok;
    if (!ok) error = "cannot write " + path;
    return ok;
}

}  // namespace torvex::synth
