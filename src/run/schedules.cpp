// Refresh plans, sample schedules and the comma-separated lists of keys and flags.
#include <map>

#include "run/conversions.h"
#include "run/run_config.h"

namespace torvex {

namespace {

// Calls fn for every non-empty comma-separated element of text, in order.
template <typename Fn>
void for_each_item(const std::string& text, Fn fn) {
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        if (comma > start) fn(text.substr(start, comma - start));
        start = comma + 1;
    }
}

std::string digits_of(const std::string& text) {
    std::string digits;
    for (char ch : text) {
        if (ch >= '0' && ch <= '9') digits.push_back(ch);
    }
    return digits;
}

// The number a plan token stands for: "iter" 0, its digits, "chunk" 1, else 0.
int32_t plan_token_value(const std::string& token) {
    const std::string t = lower_copy(token);
    if (t.find("iter") != std::string::npos) return 0;
    const std::string digits = digits_of(t);
    if (!digits.empty()) return strict_stoi(digits);
    if (t.find("chunk") != std::string::npos) return 1;
    return 0;
}

// Reads "iteration:token" and "first-last:token" items into an iteration map; an item without
// ":" is skipped and a later item overwrites an earlier one.
template <typename T, typename ValueFn>
std::map<int, T> read_range_items(const std::string& text, ValueFn value_of) {
    std::map<int, T> by_iter;
    for_each_item(text, [&](const std::string& item) {
        const std::size_t colon = item.find(':');
        if (colon == std::string::npos) return;
        const std::string span = item.substr(0, colon);
        std::size_t used = 0;
        const int first = strict_stoi(span, &used);
        int last = first;
        std::size_t dash = span.find_first_not_of(" \t", used);
        if (dash != std::string::npos && span[dash] == '-')
            last = strict_stoi(span.substr(dash + 1));
        const T value = value_of(item.substr(colon + 1));
        for (int64_t i = first; i <= last; ++i) by_iter[static_cast<int>(i)] = value;
    });
    return by_iter;
}

// One entry per iteration from 1 to the highest mentioned (at least one); an iteration without
// an item keeps the value of the one before it.
template <typename T>
std::vector<T> expand_by_iteration(const std::map<int, T>& by_iter, T start) {
    const int highest = by_iter.empty() ? 1 : by_iter.rbegin()->first;
    std::vector<T> out;
    T current = start;
    for (int i = 1; i <= highest || out.empty(); ++i) {
        const auto it = by_iter.find(i);
        if (it != by_iter.end()) current = it->second;
        out.push_back(current);
    }
    return out;
}

}  // namespace

std::vector<int32_t> parse_node_schedule(const std::string& text) {
    return expand_by_iteration<int32_t>(read_range_items<int32_t>(text, plan_token_value), 0);
}

int32_t parse_refresh_mode(const std::string& text) {
    const std::string t = lower_copy(text);
    if (t.find("iter") != std::string::npos || t == "once") return 0;
    const std::string digits = digits_of(t);
    return digits.empty() ? 1 : strict_stoi(digits);
}

std::vector<float> parse_sample_schedule(const std::string& text) {
    const auto share = [](const std::string& percent) { return strict_stof(percent) / 100.0f; };
    if (text.find(':') == std::string::npos) {
        std::vector<float> out;
        for_each_item(text, [&](const std::string& item) { out.push_back(share(item)); });
        return out;
    }
    return expand_by_iteration<float>(read_range_items<float>(text, share), 1.0f);
}

void parse_id_list(const std::string& text, std::vector<int64_t>& out) {
    for_each_item(text, [&](const std::string& item) { out.push_back(strict_stoll(item)); });
}

void parse_int_list(const std::string& text, std::vector<int32_t>& out) {
    for_each_item(text, [&](const std::string& item) { out.push_back(strict_stoi(item)); });
}

}  // namespace torvex
