// Per-trip and per-key result files: agentPlans_out.csv and route_keys.csv.
#include <string_view>

#include "report/csv_out.h"
#include "report/outputs.h"

namespace torvex {

namespace {

inline std::string_view name_or_empty(const std::vector<std::string>& names, uint32_t id) {
    return id < names.size() ? std::string_view(names[id]) : std::string_view();
}

inline size_t longest(const std::vector<std::string>& names) {
    size_t n = 0;
    for (const std::string& s : names) n = s.size() > n ? s.size() : n;
    return n;
}

}  // namespace

void write_agent_plans(const std::string& path, const TripTable& trips,
                       const std::vector<Node>& nodes) {
    CsvOut out;
    csv_open(out, path);
    csv_text(out,
             "hh_id,person_id,tour_id,trip_id,origin,dest,hour,vot,weight,purpose,scope,cost_min,"
             "gap_min,n_links\n");
    const size_t room = 14 * (kNumberRoom + 1) + longest(trips.purpose_names);
    // Every loaded trip belongs to a key; should one not, its row still stands, with an empty
    // key's figures and node id 0.
    static const RouteKey kNoKey{};
    const int64_t n_keys = static_cast<int64_t>(trips.route_keys.size());
    for (const Trip& t : trips.trips) {
        const bool has_key = t.route_key >= 0 && t.route_key < n_keys;
        const RouteKey& k = has_key ? trips.route_keys[t.route_key] : kNoKey;
        char* p = csv_room(out, room);
        p = put_i64(p, t.hh_id);
        *p++ = ',';
        p = put_i64(p, t.person_id);
        *p++ = ',';
        p = put_i64(p, t.tour_id);
        *p++ = ',';
        p = put_i64(p, t.trip_id);
        *p++ = ',';
        p = put_i64(p, has_key ? nodes[k.origin].node_id : 0);
        *p++ = ',';
        p = put_i64(p, has_key ? nodes[k.dest].node_id : 0);
        *p++ = ',';
        p = put_u64(p, k.slot);
        *p++ = ',';
        p = put_fixed(p, t.value_of_time, 1);
        *p++ = ',';
        p = put_fixed(p, t.weight, 4);
        *p++ = ',';
        p = put_str(p, name_or_empty(trips.purpose_names, t.purpose));
        *p++ = ',';
        p = put_str(p, scope_text(k.scope));
        *p++ = ',';
        p = put_fixed(p, k.imped, 3);
        *p++ = ',';
        p = put_fixed(p, k.gap, 4);
        *p++ = ',';
        p = put_i64(p, k.n_links);
        *p++ = '\n';
        out.cur = p;
    }
    csv_close(out);
}

void write_route_keys(const std::string& path, const TripTable& trips,
                      const std::vector<Node>& nodes) {
    CsvOut out;
    csv_open(out, path);
    csv_text(out,
             "origin,dest,slot,segment,time_coef,toll_coef,scope,weight,imped,best_imped,gap,"
             "n_links,reachable\n");
    const size_t room = 13 * (kNumberRoom + 1) + longest(trips.segment_names);
    for (const RouteKey& k : trips.route_keys) {
        const uint32_t s = k.segment;
        const bool known = s < kMaxSegments;
        char* p = csv_room(out, room);
        p = put_i64(p, nodes[k.origin].node_id);
        *p++ = ',';
        p = put_i64(p, nodes[k.dest].node_id);
        *p++ = ',';
        p = put_u64(p, k.slot);
        *p++ = ',';
        p = put_str(p, name_or_empty(trips.segment_names, s));
        *p++ = ',';
        p = put_fixed(p, known ? trips.beta_time[s] : 0.0f, 3);
        *p++ = ',';
        p = put_fixed(p, known ? trips.beta_cost[s] : 0.0f, 3);
        *p++ = ',';
        p = put_str(p, scope_text(k.scope));
        *p++ = ',';
        p = put_fixed(p, k.weight, 4);
        *p++ = ',';
        p = put_fixed(p, k.imped, 3);
        *p++ = ',';
        p = put_fixed(p, k.best_imped, 3);
        *p++ = ',';
        p = put_fixed(p, k.gap, 4);
        *p++ = ',';
        p = put_i64(p, k.n_links);
        *p++ = ',';
        *p++ = k.reachable ? '1' : '0';
        *p++ = '\n';
        out.cur = p;
    }
    csv_close(out);
}

}  // namespace torvex
