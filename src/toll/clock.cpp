#include <cfloat>
#include <cstdlib>
#include <string>

#include "toll/toll_tables.h"

namespace torvex {

namespace {

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool equals_folded(std::string_view text, std::string_view upper) {
    if (text.size() != upper.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (c != upper[i]) return false;
    }
    return true;
}

// A non-empty run of digits as a whole number; false otherwise. Hours and days have no upper
// limit, so the value is carried in double.
bool digits_value(std::string_view text, double& value) {
    if (text.empty()) return false;
    value = 0.0;
    for (char c : text) {
        if (!is_digit(c)) return false;
        value = value * 10.0 + (c - '0');
    }
    return true;
}

// Digits with at most one '.', non-empty.
bool seconds_value(std::string_view text, double& value) {
    if (text.empty()) return false;
    int dots = 0;
    for (char c : text) {
        if (c == '.') {
            if (++dots > 1) return false;
        } else if (!is_digit(c)) {
            return false;
        }
    }
    value = std::strtod(std::string(text).c_str(), nullptr);
    return true;
}

}  // namespace

float parse_clock_minutes(std::string_view text) {
    while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
    while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
    if (text.empty()) return -1.0f;
    if (equals_folded(text, "NOON")) return 720.0f;
    if (equals_folded(text, "MIDNIGHT")) return 0.0f;

    double days = 0.0;
    const size_t at = text.find('@');
    if (at != std::string_view::npos) {
        if (!digits_value(text.substr(0, at), days)) return -1.0f;
        text.remove_prefix(at + 1);
    }

    const size_t c1 = text.find(':');
    if (c1 == std::string_view::npos) return -1.0f;  // a bare number is not a clock time
    const size_t c2 = text.find(':', c1 + 1);
    if (c2 != std::string_view::npos && text.find(':', c2 + 1) != std::string_view::npos)
        return -1.0f;

    double hours = 0.0, minutes = 0.0, seconds = 0.0;
    if (!digits_value(text.substr(0, c1), hours)) return -1.0f;
    if (c2 == std::string_view::npos) {
        if (!digits_value(text.substr(c1 + 1), minutes)) return -1.0f;
    } else {
        if (!digits_value(text.substr(c1 + 1, c2 - c1 - 1), minutes)) return -1.0f;
        if (!seconds_value(text.substr(c2 + 1), seconds)) return -1.0f;
    }
    if (minutes > 59.0 || seconds >= 60.0) return -1.0f;

    const double total = days * 24.0 * 60.0 + hours * 60.0 + minutes + seconds / 60.0;
    if (total > FLT_MAX) return -1.0f;  // beyond what a minute count can hold
    return static_cast<float>(total);
}

}  // namespace torvex
