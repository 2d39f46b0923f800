// Internals of the options layer: the key groups behind apply_key and the value kinds they share.
#pragma once

#include <string>

#include "run/run_config.h"

namespace torvex {

// Outcome of offering a key to one group.
enum class KeyResult { unknown, accepted, refused };

// "YES", "TRUE", "1", "ON" after upper-casing.
bool value_is_on(const std::string& value);
// "NO", "FALSE", "0", "OFF" after upper-casing.
bool value_is_off(const std::string& value);
// Two white-space separated 64-bit numbers, each read like strict_stoll.
std::array<int64_t, 2> parse_id_pair(const std::string& value);

// Files, demand sampling, run length, macro model and static assignment, node model.
KeyResult apply_run_key(RunConfig& config, const std::string& key, const std::string& value);
// Meso, micro corridor, signals and discharge, tolls, counts, calibration, subarea.
KeyResult apply_model_key(RunConfig& config, const std::string& key, const std::string& value);

}  // namespace torvex
