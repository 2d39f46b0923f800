#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "input/table_reader.h"
#include "input/trip_table.h"
#include "run/conversions.h"
#include "run/log.h"

namespace torvex {

namespace {

struct SegmentRow {
    float vot = 0, beta_time = 1, beta_cost = 0, distance = 0, pce = 1;
    int axles = 2;
    std::string exclude;
};

// Splits at commas outside double quotes; a quote toggles the quoted state and is dropped, which
// lets a list of FTYPEs stand in one field.
void split_quoted(FieldView line, std::vector<std::string>& fields) {
    fields.clear();
    fields.emplace_back();
    bool quoted = false;
    for (size_t i = 0; i < line.size; ++i) {
        const char ch = line.data[i];
        if (ch == '"')
            quoted = !quoted;
        else if (ch == ',' && !quoted)
            fields.emplace_back();
        else
            fields.back().push_back(ch);
    }
}

std::string trimmed(const std::string& s) {
    size_t n = s.size();
    while (n > 0 && (s[n - 1] == '\r' || s[n - 1] == ' ')) --n;
    return s.substr(0, n);
}

const std::string& field_or_empty(const std::vector<std::string>& f, int32_t col) {
    static const std::string kEmpty;
    return col >= 0 && static_cast<size_t>(col) < f.size() ? f[col] : kEmpty;
}

// Sets the bit of every FTYPE below 128 named in the text: a run of digits is one FTYPE, any
// other character separates. Returns whether any bit was set.
bool parse_exclusions(const std::string& text, uint64_t& lo, uint64_t& hi) {
    bool any = false;
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] < '0' || text[i] > '9') {
            ++i;
            continue;
        }
        unsigned value = 0;
        for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
            if (value < 1000) value = value * 10 + static_cast<unsigned>(text[i] - '0');
        if (value >= 128) continue;
        if (value < 64)
            lo |= uint64_t{1} << value;
        else
            hi |= uint64_t{1} << (value - 64);
        any = true;
    }
    return any;
}

}  // namespace

void load_segment_params(const std::string& path, TripTable& table) {
    LineReader reader(path);
    if (!reader.is_open()) throw std::runtime_error("cannot open SEGMENT_PARAM_FILE " + path);
    FieldView line;
    if (!reader.next_line(line)) throw std::runtime_error(path + ": empty");
    HeaderMap header;
    read_header(line, header);
    auto column = [&](const char* name) {
        auto it = header.find(name);
        if (it == header.end()) throw std::runtime_error(path + ": missing column " + name);
        return it->second;
    };
    const int32_t c_name = column("segment_name");
    const int32_t c_vot = column("VOT");
    const int32_t c_time = column("beta_time");
    const int32_t c_cost = column("beta_cost");
    const int32_t c_dist = column("distance");
    const int32_t c_axles = column("axles");
    const int32_t c_pce = column("pce");
    const int32_t c_exclude = any_column(header, {"exclude_ftypes", "ftypes"});

    std::map<std::string, SegmentRow> rows;
    std::vector<std::string> f;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_quoted(line, f);
        if (f.size() <= static_cast<size_t>(c_pce)) continue;
        SegmentRow row;
        row.vot = strict_stof(field_or_empty(f, c_vot));
        row.beta_time = strict_stof(field_or_empty(f, c_time));
        row.beta_cost = strict_stof(field_or_empty(f, c_cost));
        row.distance = strict_stof(field_or_empty(f, c_dist));
        row.pce = strict_stof(field_or_empty(f, c_pce));
        row.axles = strict_stoi(field_or_empty(f, c_axles));
        row.exclude = field_or_empty(f, c_exclude);
        rows[trimmed(field_or_empty(f, c_name))] = std::move(row);
    }

    long long restricted = 0;
    std::vector<const std::string*> missing;
    const size_t n = std::min<size_t>(table.segment_names.size(), kMaxSegments);
    for (size_t s = 0; s < n; ++s) {
        auto it = rows.find(table.segment_names[s]);
        if (it == rows.end()) {
            missing.push_back(&table.segment_names[s]);
            continue;
        }
        const SegmentRow& r = it->second;
        table.vot[s] = r.vot;
        table.beta_time[s] = r.beta_time;
        table.beta_cost[s] = r.beta_cost;
        table.beta_dist[s] = r.distance;
        table.pce[s] = r.pce;
        table.axles[s] = static_cast<uint8_t>(r.axles);
        table.exclude_lo[s] = 0;
        table.exclude_hi[s] = 0;
        if (parse_exclusions(r.exclude, table.exclude_lo[s], table.exclude_hi[s])) ++restricted;
    }
    if (restricted > 0)
        progress("[segment] %lld segment(s) have exclude_ftypes restrictions\n", restricted);
    if (!missing.empty()) {
        std::string msg = path + ": missing rows for " + std::to_string(missing.size()) +
                          " marketVot segment(s):";
        for (const std::string* name : missing) msg += " " + *name;
        throw std::runtime_error(msg);
    }
}

}  // namespace torvex
