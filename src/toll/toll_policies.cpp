// The toll policy table and the CPI deflation of tolls.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "input/table_reader.h"
#include "run/log.h"
#include "run/run_config.h"
#include "toll/toll_tables.h"

namespace torvex {

namespace {

struct PolicyColumns {
    int32_t id, type, start, end, toll, density_min, density_max, toll_min, toll_max, increment,
        dynamic, cpi;
};

PolicyColumns policy_columns(const HeaderMap& h, const std::string& path) {
    PolicyColumns c;
    c.id = any_column(h, {"policy_id", "id", "ID"});
    c.type = any_column(h, {"type", "Type"});
    if (c.id < 0 || c.type < 0)
        throw std::runtime_error(path + ": need policy_id and type columns");
    c.start = any_column(h, {"start_time", "StartTime", "start"});
    c.end = any_column(h, {"end_time", "EndTime", "end"});
    c.toll = any_column(h, {"toll", "Toll"});
    c.density_min = any_column(h, {"density_min", "Min_Density", "dens_min"});
    c.density_max = any_column(h, {"density_max", "Max_Density", "dens_max"});
    c.toll_min = any_column(h, {"toll_min", "Min_Toll", "min_rate"});
    c.toll_max = any_column(h, {"toll_max", "Max_Toll", "max_rate"});
    c.increment = any_column(h, {"increment", "Increment"});
    c.dynamic = any_column(h, {"dynamic", "Dynamic", "variable", "changeable"});
    c.cpi = any_column(h, {"cpi_adjust", "cpi", "CPI", "deflate"});
    return c;
}

// Yes-flags of the toll table: exactly "1", "Y", "y", "yes" or "true"; case matters.
bool flag_on(FieldView f) {
    std::string_view v = f.view();
    return v == "1" || v == "Y" || v == "y" || v == "yes" || v == "true";
}

// -1 for a type this system does not know.
int policy_type(FieldView f) {
    std::string t(f.view());
    for (char& c : t)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (t == "fixed") return kTollFixed;
    if (t == "tod" || t == "time" || t == "timeofday") return kTollTimeOfDay;
    if (t == "density") return kTollDensity;
    return -1;
}

}  // namespace

void load_toll_policies(const std::string& path, Network& net) {
    LineReader reader(path);
    if (!reader.is_open()) throw std::runtime_error("cannot open toll policy file " + path);
    FieldView line;
    if (!reader.next_line(line)) throw std::runtime_error(path + ": empty");
    HeaderMap header;
    read_header(line, header);
    const PolicyColumns c = policy_columns(header, path);

    std::vector<FieldView> f;
    auto field = [&f](int32_t col) { return trim_right(field_at(f, col)); };
    auto real = [&field](int32_t col) { return static_cast<float>(field_f64(field(col))); };
    int rows = 0;
    while (reader.next_line(line)) {
        if (line.size == 0) continue;
        split_csv(line, f);
        const FieldView id_text = field(c.id);
        const FieldView type_text = field(c.type);
        if (id_text.empty() || type_text.empty()) continue;
        TollPolicy& policy = net.toll_policies.find_or_create(
            static_cast<int32_t>(static_cast<uint32_t>(field_i64(id_text))));
        const int type = policy_type(type_text);
        if (type < 0) continue;
        policy.type = static_cast<uint8_t>(type);
        ++rows;
        if (type == kTollFixed) {
            policy.toll = real(c.toll);
            policy.cpi_adjust = flag_on(field(c.cpi));
        } else if (type == kTollTimeOfDay) {
            TollTodRow row;
            row.start_min = std::max(0.0f, parse_clock_minutes(field(c.start).view()));
            row.end_min = std::max(0.0f, parse_clock_minutes(field(c.end).view()));
            row.toll = real(c.toll);
            row.cpi_adjust = flag_on(field(c.cpi));
            policy.tod_rows.push_back(row);
        } else {
            TollDensityRow row;
            row.density_min = real(c.density_min);
            row.density_max = real(c.density_max);
            row.toll_min = real(c.toll_min);
            row.toll_max = real(c.toll_max);
            row.increment = real(c.increment);
            row.cpi_adjust = flag_on(field(c.cpi));
            row.dynamic = c.dynamic >= 0 ? flag_on(field(c.dynamic)) : row.toll_min < row.toll_max;
            if (row.dynamic && row.increment <= 0.0f) row.increment = 0.25f;
            policy.density_rows.push_back(row);
        }
    }

    int fixed = 0, tod = 0, density = 0;
    for (TollPolicy& p : net.toll_policies.policies) {
        std::stable_sort(
            p.tod_rows.begin(), p.tod_rows.end(),
            [](const TollTodRow& a, const TollTodRow& b) { return a.start_min < b.start_min; });
        std::stable_sort(p.density_rows.begin(), p.density_rows.end(),
                         [](const TollDensityRow& a, const TollDensityRow& b) {
                             return a.density_min < b.density_min;
                         });
        fixed += p.type == kTollFixed;
        tod += p.type == kTollTimeOfDay;
        density += p.type == kTollDensity;
    }
    progress("[toll] %zu policies (%d fixed, %d time-of-day, %d density) from %d rows in %s\n",
             net.toll_policies.size(), fixed, tod, density, rows, path.c_str());
}

void compute_toll_deflator(const RunConfig& config, Network& net) {
    // Otherwise the factor keeps its starting value of 1.
    if (config.future_year > config.base_year && config.base_year > 0 && config.cpi != 0.0f) {
        // Future-year dollars back to base-year dollars.
        const float growth = 1.0f + config.cpi;
        net.toll_deflator = static_cast<float>(
            std::pow(static_cast<double>(growth),
                     static_cast<double>(config.base_year - config.future_year)));
    }
}

void print_toll_deflation(const RunConfig& config, const Network& net) {
    progress("[toll] deflation factor %.4f (base %d -> future %d, CPI %.3f)\n",
             static_cast<double>(net.toll_deflator), config.base_year, config.future_year,
             static_cast<double>(config.cpi));
}

}  // namespace torvex
