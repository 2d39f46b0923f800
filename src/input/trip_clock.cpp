// Clock text of departures, parsed in place from the row's view.
#include <string_view>

#include "input/trip_table.h"

namespace torvex {

float clock_minutes(std::string_view text) {
    auto blank = [](char ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    if (text.empty()) return -1.0f;
    auto same_word = [&](std::string_view word) {
        if (text.size() != word.size()) return false;
        for (size_t i = 0; i < word.size(); ++i) {
            char ch = text[i];
            if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 'a' + 'A');
            if (ch != word[i]) return false;
        }
        return true;
    };
    if (same_word("NOON")) return 720.0f;
    if (same_word("MIDNIGHT")) return 0.0f;

    auto digits = [](std::string_view s) {
        if (s.empty()) return false;
        for (char ch : s)
            if (ch < '0' || ch > '9') return false;
        return true;
    };
    auto number = [](std::string_view s) {  // digits and at most one '.', already checked
        double v = 0, scale = 0;
        for (char ch : s) {
            if (ch == '.') {
                scale = 1;
                continue;
            }
            if (scale > 0) scale /= 10;
            v = scale > 0 ? v + (ch - '0') * scale : v * 10 + (ch - '0');
        }
        return v;
    };
    double days = 0;
    const size_t at = text.find('@');
    if (at != std::string_view::npos) {
        if (!digits(text.substr(0, at))) return -1.0f;
        days = number(text.substr(0, at));
        text.remove_prefix(at + 1);
    }
    const size_t c1 = text.find(':');
    if (c1 == std::string_view::npos) return -1.0f;  // a bare number is refused
    const std::string_view hours = text.substr(0, c1);
    std::string_view minutes = text.substr(c1 + 1), seconds;
    bool has_seconds = false;
    const size_t c2 = minutes.find(':');
    if (c2 != std::string_view::npos) {
        seconds = minutes.substr(c2 + 1);
        minutes = minutes.substr(0, c2);
        has_seconds = true;
    }
    if (!digits(hours) || !digits(minutes)) return -1.0f;
    double sec = 0;
    if (has_seconds) {
        size_t dots = 0, numerals = 0;
        for (char ch : seconds) {
            if (ch == '.')
                ++dots;
            else if (ch >= '0' && ch <= '9')
                ++numerals;
            else
                return -1.0f;  // also a third ':'
        }
        if (numerals == 0 || dots > 1) return -1.0f;
        sec = number(seconds);
    }
    const double min = number(minutes);
    if (min > 59 || sec >= 60) return -1.0f;
    return static_cast<float>(days * 24 * 60 + number(hours) * 60 + min + sec / 60);
}

}  // namespace torvex
