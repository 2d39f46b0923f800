// Number conversions for settings and side tables, and the case folding of key values.
//
// The conversions read like std::stoi / std::stoll / std::stof: leading white space is skipped,
// anything after the number is ignored, no digits raise std::invalid_argument and an overflow
// raises std::out_of_range. The exception texts are this system's own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace torvex {

// Raise "invalid stoi argument" / "stoi argument out of range". pos receives the index of the
// first character not converted.
int strict_stoi(const std::string& text, std::size_t* pos = nullptr, int base = 10);
// Raise "invalid stoll argument" / "stoll argument out of range".
long long strict_stoll(const std::string& text, std::size_t* pos = nullptr, int base = 10);
// Raise "invalid stof argument" / "stof argument out of range".
float strict_stof(const std::string& text, std::size_t* pos = nullptr);

// ASCII case folding; other bytes are left as they are.
std::string upper_copy(const std::string& text);
std::string lower_copy(const std::string& text);

}  // namespace torvex
