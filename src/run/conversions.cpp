#include "run/conversions.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace torvex {

namespace {

// errno belongs to the caller; keep its value across the conversion like the library does.
struct ErrnoGuard {
    int saved = errno;
    ErrnoGuard() { errno = 0; }
    ~ErrnoGuard() {
        if (errno == 0) errno = saved;
    }
};

}  // namespace

int strict_stoi(const std::string& text, std::size_t* pos, int base) {
    ErrnoGuard guard;
    const char* begin = text.c_str();
    char* end = nullptr;
    const long value = std::strtol(begin, &end, base);
    if (end == begin) throw std::invalid_argument("invalid stoi argument");
    if (errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        throw std::out_of_range("stoi argument out of range");
    }
    if (pos) *pos = static_cast<std::size_t>(end - begin);
    return static_cast<int>(value);
}

long long strict_stoll(const std::string& text, std::size_t* pos, int base) {
    ErrnoGuard guard;
    const char* begin = text.c_str();
    char* end = nullptr;
    const long long value = std::strtoll(begin, &end, base);
    if (end == begin) throw std::invalid_argument("invalid stoll argument");
    if (errno == ERANGE) throw std::out_of_range("stoll argument out of range");
    if (pos) *pos = static_cast<std::size_t>(end - begin);
    return value;
}

float strict_stof(const std::string& text, std::size_t* pos) {
    ErrnoGuard guard;
    const char* begin = text.c_str();
    char* end = nullptr;
    const float value = std::strtof(begin, &end);
    if (end == begin) throw std::invalid_argument("invalid stof argument");
    if (errno == ERANGE) throw std::out_of_range("stof argument out of range");
    if (pos) *pos = static_cast<std::size_t>(end - begin);
    return value;
}

std::string upper_copy(const std::string& text) {
    std::string out = text;
    for (char& ch : out) {
        if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 'a' + 'A');
    }
    return out;
}

std::string lower_copy(const std::string& text) {
    std::string out = text;
    for (char& ch : out) {
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    }
    return out;
}

}  // namespace torvex
