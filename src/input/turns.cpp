#include <stdexcept>
#include <vector>

#include "input/network.h"
#include "input/table_reader.h"
#include "input/turn_table.h"
#include "run/log.h"

namespace torvex {

namespace {

// Lowest-indexed link from `from` to `to`, or -1; out_links is in ascending link order.
int32_t first_link(const Network& net, int32_t from, int32_t to) {
    for (int32_t li : net.nodes[from].out_links)
        if (net.links[li].to == to) return li;
    return -1;
}

int32_t node_of(const Network& net, int64_t id) {
    auto it = net.node_index.find(id);
    return it == net.node_index.end() ? -1 : it->second;
}

}  // namespace

TurnLoadSummary load_turns(const std::string& path, const Network& net, TurnTable& table) {
    LineReader reader(path);
    if (!reader.is_open()) throw std::runtime_error("cannot open turn file " + path);
    FieldView line;
    if (!reader.next_line(line)) throw std::runtime_error(path + ": empty");
    HeaderMap header;
    read_header(line, header);
    const int32_t c_from = any_column(header, {"FROM_NODE"});
    const int32_t c_thru = any_column(header, {"THRU_NODE"});
    const int32_t c_to = any_column(header, {"TO_NODE"});
    if (c_from < 0 || c_thru < 0 || c_to < 0)
        throw std::runtime_error(path + ": need FROM_NODE,THRU_NODE,TO_NODE columns");
    const int32_t c_penalty = any_column(header, {"PENALTY"});

    TurnLoadSummary s;
    std::vector<FieldView> f;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_csv(line, f);
        ++s.rows;
        const int32_t from = node_of(net, field_i64(field_at(f, c_from)));
        const int32_t thru = node_of(net, field_i64(field_at(f, c_thru)));
        const int32_t to = node_of(net, field_i64(trim_right(field_at(f, c_to))));
        if (from < 0 || thru < 0 || to < 0) {
            ++s.unresolved;
            continue;
        }
        const int32_t in_link = first_link(net, from, thru);
        const int32_t out_link = first_link(net, thru, to);
        if (in_link < 0 || out_link < 0) {
            ++s.unresolved;
            continue;
        }
        TurnEntry entry;
        const FieldView penalty = trim_right(field_at(f, c_penalty));
        if (penalty.empty()) {
            entry.prohibited = true;
            ++s.prohibited;
        } else {
            const double value = field_f64(penalty);
            entry.penalty_min = static_cast<float>(value);
            entry.prohibited = value < 0.0;
            ++(entry.prohibited ? s.prohibited : s.penalized);
        }
        table.entries[turn_key(in_link, out_link)] = entry;
    }
    return s;
}

void print_turn_summary(const TurnLoadSummary& s) {
    progress("[%s][turns] %lld rows: %lld prohibited, %lld penalized, %lld unresolved\n", now_hms(),
             static_cast<long long>(s.rows), static_cast<long long>(s.prohibited),
             static_cast<long long>(s.penalized), static_cast<long long>(s.unresolved));
}

}  // namespace torvex
